#pragma once
// Running one SCM client: /bin/sh -c with the command text, in a process
// group of its own, standard input the null device, standard output read
// through a pipe in bounded pieces, the whole run bounded in time.
//
// Standard error is inherited; the command texts merge it into the pipe
// themselves (" 2>&1").

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "scm/session.h"
#include "support/handles.h"

// Reads a descriptor the way a loop of fgets into a buffer of `limit` bytes
// reads a stream: a line longer than limit - 1 bytes arrives in pieces, each
// returned as a line of its own; a NUL byte ends the text of the piece it is
// in (the rest of that piece is lost); the newline stays at the end of the
// piece that holds it; a last line without a newline is returned as it is.
// Memory stays bounded by limit plus a fixed read buffer. With a deadline,
// no wait for input goes past it. The descriptor is not owned.
class LineReader {
 public:
  using Clock = std::chrono::steady_clock;
  // `deadline` == Clock::time_point::max(): wait as long as it takes.
  LineReader(int fd, int limit, Clock::time_point deadline = Clock::time_point::max());
  // The next piece into `line`; false at end of input, on a read error, or
  // when the deadline passed (then timed_out() is true).
  bool Next(std::string& line);
  bool timed_out() const { return timed_out_; }

 private:
  // Refill the buffer; false at end, on error or timeout.
  bool Fill();

  int fd_;
  size_t limit_;
  Clock::time_point deadline_;
  std::vector<char> buf_;
  size_t begin_ = 0, end_ = 0;
  bool timed_out_ = false;
};

// Start `command` as /bin/sh -c `command` in a new process group, with
// standard input from /dev/null and standard output into a pipe; no other
// descriptor of ours reaches the client. Returns the pipe's read end
// (close-on-exec; the caller closes it) and sets *pid to the child's process
// id; -1 when the client could not be started.
int SpawnShell(const char* command, pid_t* pid);

// The starter in use; tests and fuzz targets replace it. A replacement may
// answer from memory: any readable descriptor will do, with *pid set to -1
// (then there is no process to wait for or stop). Never null.
using ClientSpawnFn = int (*)(const char* command, pid_t* pid);
extern ClientSpawnFn ScmClientSpawn;

// The client bound from a WEFTLANE_CLIENT_TIMEOUT value into *seconds:
// null or blank (unset) gives kDefaultClientTimeout; decimal digits (blanks
// around them allowed) up to kMaxClientTimeout give their value, 0 meaning
// no bound; anything else gives the default and the result is the warning
// line to print (without "\n"):
//   "WARNING: WEFTLANE_CLIENT_TIMEOUT <value> is not a number of seconds from
//    0 to 4294967295; stopping clients after 1800 s"
// "" otherwise.
std::string ClientTimeoutFrom(const char* value, unsigned* seconds);

// Printed (with the bound and the command as shown) when a client run is
// stopped because it ran past its bound.
inline constexpr char kClientStoppedFormat[] = "Stopped after %u seconds: %s\n";

// One client run. Starts at construction (check with operator bool); the
// destructor finishes it. Standard output is flushed before the start, so
// our progress lines stay in order with the client's output.
class ClientRun {
 public:
  // `text` is what the shell runs, `shown` names it in the stop message;
  // `timeout_seconds` bounds the whole run (0: no bound); `limit` is the
  // read limit of LineReader.
  ClientRun(const std::string& text, const std::string& shown, unsigned timeout_seconds,
            int limit);
  ~ClientRun() { (void)Finish(); }
  ClientRun(const ClientRun&) = delete;
  ClientRun& operator=(const ClientRun&) = delete;

  explicit operator bool() const { return started_; }
  // The next piece of output (see LineReader). When the bound runs out the
  // whole process group is killed, the stop message printed, and false
  // returned; what was read before stays read.
  bool Next(std::string& line);
  // Stop reading and reap the client, waiting at most until the bound (then
  // the group is killed as above). Returns the raw wait status, or -1 when
  // there was nothing to reap. Safe to call more than once.
  int Finish();
  bool stopped() const { return stopped_; }

 private:
  void Stop();

  std::string shown_;
  unsigned timeout_;
  LineReader::Clock::time_point deadline_;
  UniqueFd out_;
  pid_t pid_ = -1;
  LineReader reader_;
  bool started_ = false;
  bool stopped_ = false;
};
