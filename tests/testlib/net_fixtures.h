#pragma once
// Loopback server fixtures for the net tests. A LoopbackListener binds
// 127.0.0.1 on a free port and serves a few connections on its own thread;
// every wait it makes is bounded by poll deadlines, and it always closes the
// connection in the end, so a blocking client under test is released.

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace wltest {

// True once `data` holds a whole request as the product sends it: a header
// block ended by "\n\n" or "\r\n\r\n" (whichever comes first), then as many
// body bytes as its Content-Length header states (0 without one).
bool HttpRequestComplete(const std::string& data);

// One accepted connection, seen from the server's side. Non-blocking
// underneath; every call waits at most its timeout.
class ServerConn {
 public:
  explicit ServerConn(int fd);
  ~ServerConn();
  ServerConn(const ServerConn&) = delete;
  ServerConn& operator=(const ServerConn&) = delete;

  // Read until pred(data()) holds, the peer closes or timeout_ms passes.
  // True when pred held.
  bool ReadUntil(const std::function<bool(const std::string&)>& pred, int timeout_ms = 10000);
  // ReadUntil(HttpRequestComplete).
  bool ReadRequest(int timeout_ms = 10000);
  // Read a whole request but keep only its header block in data(); the
  // body bytes are counted and dropped. The body size, or -1 when the
  // request did not complete.
  long long ReadRequestDroppingBody(int timeout_ms = 60000);
  // Read until at least n bytes in all.
  bool ReadAtLeast(size_t n, int timeout_ms = 10000);
  // Keep reading for quiet_ms after the last byte (to collect what a client
  // sends beyond its stated length).
  void ReadQuiet(int quiet_ms);
  // Send all of text (false when the peer went away or time ran out).
  bool Send(const std::string& text, int timeout_ms = 10000);
  bool SendBytes(const char* data, size_t size, int timeout_ms = 10000);
  // Send `total` bytes made of repetitions of `chunk`.
  bool SendRepeated(const std::string& chunk, size_t total, int timeout_ms = 60000);
  // Abort the connection with a reset (SO_LINGER 0, then close).
  void Reset();
  // Half-close our side, then read to the peer's end of stream (bounded),
  // then close. Used after an answer so the client sees a clean end.
  void FinishAndDrain(int timeout_ms = 10000);
  // Close at once.
  void Close();

  const std::string& data() const { return data_; }
  bool peer_closed() const { return peer_closed_; }

 private:
  int fd_;
  std::string data_;
  bool peer_closed_ = false;
};

// Serves up to `connections` connections, one after the other, with
// `handler`; waits at most accept_timeout_ms for each. The raw bytes each
// connection sent are kept.
class LoopbackListener {
 public:
  using Handler = std::function<void(ServerConn&)>;
  explicit LoopbackListener(Handler handler, int connections = 1, int accept_timeout_ms = 20000);
  ~LoopbackListener();
  LoopbackListener(const LoopbackListener&) = delete;
  LoopbackListener& operator=(const LoopbackListener&) = delete;

  uint16_t port() const { return port_; }
  // "http://127.0.0.1:<port>" followed by path.
  std::string Url(const std::string& path = "") const;
  // Wait for the serving thread to end.
  void Join();
  // Raw requests received so far (call Join first for all of them).
  std::vector<std::string> requests();
  // The one request of a single-connection listener ("" when none came).
  std::string request();

 private:
  void Serve(Handler handler, int connections, int accept_timeout_ms);

  int listen_fd_ = -1;
  uint16_t port_ = 0;
  std::mutex mu_;
  std::vector<std::string> requests_;
  std::thread thread_;
};

// Handlers for common cases.
// Read a whole request, send `reply`, finish cleanly.
LoopbackListener::Handler ReplyWith(std::string reply);
// Read until pred(data) holds, send `reply`, finish cleanly.
LoopbackListener::Handler ReplyAfter(std::function<bool(const std::string&)> pred,
                                     std::string reply);
// Read until the bytes received end with `tail` (and at least one header
// block came), send `reply`, finish cleanly.
LoopbackListener::Handler ReplyAfterTail(std::string tail, std::string reply);
// "HTTP/1.1 200 OK" with a short body.
std::string OkReply();

// A port on 127.0.0.1 where nothing listens: the socket is bound (so no one
// else gets the port) but not listening, so connecting is refused.
class RefusingPort {
 public:
  RefusingPort();
  ~RefusingPort();
  RefusingPort(const RefusingPort&) = delete;
  RefusingPort& operator=(const RefusingPort&) = delete;
  uint16_t port() const { return port_; }

 private:
  int fd_ = -1;
  uint16_t port_ = 0;
};

// A program started in the background for a test (a receiver or a server
// written in another language). Its standard output and error go to files;
// it is killed on destruction if still running.
class BackgroundProcess {
 public:
  // argv[0] is searched on PATH. Output goes to out_file and err_file.
  BackgroundProcess(const std::vector<std::string>& argv, const std::string& out_file,
                    const std::string& err_file);
  ~BackgroundProcess();
  BackgroundProcess(const BackgroundProcess&) = delete;
  BackgroundProcess& operator=(const BackgroundProcess&) = delete;

  // Wait until `path` exists and holds a line ending in "\n"; its text, or
  // "" when the time ran out or the process ended first.
  std::string WaitForLineFile(const std::string& path, int timeout_ms = 20000);
  // Wait for the exit: the exit status, 128 + signal, or -1 when it still
  // runs after timeout_ms (it is then killed).
  int Wait(int timeout_ms = 30000);

 private:
  int pid_ = -1;
  int status_ = -1;
};

// True when `program` is found on PATH.
bool OnPath(const std::string& program);

// Peak resident memory (kB) of this process since the last ResetPeakRss, or
// -1 when the kernel does not let us read or reset it.
bool ResetPeakRss();
long PeakRssKb();

}  // namespace wltest
