#include "scm/runner.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string_view>

#include "support/strings.h"

namespace {

constexpr size_t kReadChunk = 64 * 1024;

// Milliseconds left until `deadline` for poll: -1 without one, 0 once passed.
int PollTimeout(LineReader::Clock::time_point deadline) {
  if (deadline == LineReader::Clock::time_point::max())
    return -1;
  auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                  deadline - LineReader::Clock::now())
                  .count();
  if (left <= 0)
    return 0;
  return left > INT_MAX ? INT_MAX : static_cast<int>(left) + 1;
}

// `fd` moved above the standard descriptors (close-on-exec), so that the
// child's dup2 onto 0 and 1 can never clobber it.
UniqueFd AboveStandard(UniqueFd fd) {
  if (fd.get() < 0 || fd.get() > 2)
    return fd;
  return UniqueFd(fcntl(fd.get(), F_DUPFD_CLOEXEC, 3));
}

// Wait until child `pid` has ended (without reaping it) or `deadline` has
// passed; true when it ended. Watches a process descriptor where the kernel
// has them, else looks again after growing pauses (0.1 ms up to 20 ms).
bool EndsBy(pid_t pid, LineReader::Clock::time_point deadline) {
  UniqueFd watch(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
  long pause_ns = 100 * 1000;
  for (;;) {
    siginfo_t info{};
    if (waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) != 0) {
      if (errno == EINTR)
        continue;
      return true;  // nothing to wait for: the caller's waitpid says so
    }
    if (info.si_pid == pid)
      return true;
    int left = PollTimeout(deadline);
    if (left == 0)
      return false;
    if (watch.get() >= 0) {
      struct pollfd p = {watch.get(), POLLIN, 0};
      (void)poll(&p, 1, left);  // ready, timed out or interrupted: look again
      continue;
    }
    struct timespec pause = {0, pause_ns};
    nanosleep(&pause, nullptr);
    pause_ns = std::min(pause_ns * 2, 20L * 1000 * 1000);
  }
}

}  // namespace

LineReader::LineReader(int fd, int limit, Clock::time_point deadline)
    : fd_(fd),
      limit_(static_cast<size_t>(limit > 1 ? limit : 2)),
      deadline_(deadline),
      buf_(kReadChunk) {}

bool LineReader::Fill() {
  if (fd_ < 0 || timed_out_)
    return false;
  for (;;) {
    if (deadline_ != Clock::time_point::max()) {
      // Once the deadline has passed, poll with no wait would still report
      // a client that keeps its pipe full as ready: it must end here.
      const int left = PollTimeout(deadline_);
      struct pollfd p = {fd_, POLLIN, 0};
      int ready = left == 0 ? 0 : poll(&p, 1, left);
      if (ready < 0 && errno == EINTR)
        continue;
      if (ready == 0) {
        timed_out_ = true;
        return false;
      }
      if (ready < 0)
        return false;
    }
    ssize_t n = read(fd_, buf_.data(), buf_.size());
    if (n < 0 && errno == EINTR)
      continue;
    if (n <= 0)
      return false;
    begin_ = 0;
    end_ = static_cast<size_t>(n);
    return true;
  }
}

bool LineReader::Next(std::string& line) {
  line.clear();
  const size_t max = limit_ - 1;
  while (line.size() < max) {
    if (begin_ == end_ && !Fill())
      break;
    size_t take = std::min(end_ - begin_, max - line.size());
    const char* start = buf_.data() + begin_;
    const void* newline = std::memchr(start, '\n', take);
    if (newline != nullptr)
      take = static_cast<size_t>(static_cast<const char*>(newline) - start) + 1;
    line.append(start, take);
    begin_ += take;
    if (newline != nullptr)
      break;
  }
  if (line.empty())
    return false;
  // As a fixed-buffer reader sees it: the text ends at the first NUL.
  line.resize(std::strlen(line.c_str()));
  return true;
}

int SpawnShell(const char* command, pid_t* pid) {
  *pid = -1;
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0)
    return -1;
  UniqueFd read_end = AboveStandard(UniqueFd(fds[0]));
  UniqueFd write_end = AboveStandard(UniqueFd(fds[1]));
  if (read_end.get() < 0 || write_end.get() < 0)
    return -1;

  // In the child: stdin the null device, stdout the pipe, nothing of ours
  // beyond the three standard descriptors; a group of its own; SIGPIPE at
  // its default and no signal blocked, whatever this process has set.
  posix_spawn_file_actions_t actions;
  posix_spawnattr_t attr;
  posix_spawn_file_actions_init(&actions);
  posix_spawnattr_init(&attr);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, write_end.get(), 1);
  posix_spawn_file_actions_addclosefrom_np(&actions, 3);
  sigset_t none, pipe_signal;
  sigemptyset(&none);
  sigemptyset(&pipe_signal);
  sigaddset(&pipe_signal, SIGPIPE);
  posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGDEF |
                                      POSIX_SPAWN_SETSIGMASK);
  posix_spawnattr_setpgroup(&attr, 0);
  posix_spawnattr_setsigdefault(&attr, &pipe_signal);
  posix_spawnattr_setsigmask(&attr, &none);
  char sh[] = "sh", dash_c[] = "-c";
  char* argv[] = {sh, dash_c, const_cast<char*>(command), nullptr};
  pid_t child = -1;
  int failed = posix_spawn(&child, "/bin/sh", &actions, &attr, argv, environ);
  posix_spawnattr_destroy(&attr);
  posix_spawn_file_actions_destroy(&actions);
  if (failed != 0)
    return -1;
  *pid = child;
  return read_end.Release();
}

ClientSpawnFn ScmClientSpawn = &SpawnShell;

std::string ClientTimeoutFrom(const char* value, unsigned* seconds) {
  *seconds = kDefaultClientTimeout;
  const std::string_view v = TrimBlanks(OrEmpty(value));
  if (v.empty())
    return "";  // unset, or set empty in a property file
  auto number = DecimalValue(v, 10);
  if (number && *number <= kMaxClientTimeout) {
    *seconds = static_cast<unsigned>(*number);
    return "";
  }
  return std::string("WARNING: WEFTLANE_CLIENT_TIMEOUT ") + value +
         " is not a number of seconds from 0 to " + std::to_string(kMaxClientTimeout) +
         "; stopping clients after " + std::to_string(kDefaultClientTimeout) + " s";
}

ClientRun::ClientRun(const std::string& text, const std::string& shown, unsigned timeout_seconds,
                     int limit)
    : shown_(shown),
      timeout_(timeout_seconds),
      deadline_(timeout_seconds == 0 ? LineReader::Clock::time_point::max()
                                     : LineReader::Clock::now() +
                                           std::chrono::seconds(timeout_seconds)),
      reader_(-1, limit) {
  std::fflush(stdout);
  out_.Reset(ScmClientSpawn(text.c_str(), &pid_));
  if (out_.get() < 0) {
    pid_ = -1;
    return;
  }
  started_ = true;
  reader_ = LineReader(out_.get(), limit, deadline_);
}

void ClientRun::Stop() {
  if (stopped_)
    return;
  stopped_ = true;
  if (pid_ > 0)
    kill(-pid_, SIGKILL);
  std::printf(kClientStoppedFormat, timeout_, shown_.c_str());
}

bool ClientRun::Next(std::string& line) {
  if (stopped_ || out_.get() < 0)
    return false;
  if (reader_.Next(line))
    return true;
  if (reader_.timed_out())
    Stop();
  return false;
}

int ClientRun::Finish() {
  out_.Reset();  // a client still writing gets SIGPIPE
  if (pid_ <= 0)
    return -1;
  if (!stopped_ && !EndsBy(pid_, deadline_))
    Stop();
  int status = 0;
  while (waitpid(pid_, &status, 0) < 0) {
    if (errno != EINTR) {
      status = -1;
      break;
    }
  }
  pid_ = -1;
  return status;
}
