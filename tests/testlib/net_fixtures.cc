#include "testlib/net_fixtures.h"

#include "testlib/testlib.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace wltest {
namespace {

using Clock = std::chrono::steady_clock;

int MillisLeft(Clock::time_point deadline) {
  auto left =
      std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return left < 0 ? 0 : static_cast<int>(left);
}

// Header block end: the earlier of "\n\n" and "\r\n\r\n"; npos when absent.
// Returns the offset just past it.
size_t HeaderEnd(const std::string& data) {
  size_t lf = data.find("\n\n");
  size_t crlf = data.find("\r\n\r\n");
  size_t end = std::string::npos;
  if (lf != std::string::npos)
    end = lf + 2;
  if (crlf != std::string::npos && (end == std::string::npos || crlf + 4 < end))
    end = crlf + 4;
  return end;
}

size_t ContentLength(const std::string& head) {
  size_t pos = 0;
  while (pos < head.size()) {
    size_t eol = head.find('\n', pos);
    if (eol == std::string::npos)
      eol = head.size();
    std::string line = head.substr(pos, eol - pos);
    static const char kName[] = "content-length:";
    if (line.size() >= sizeof kName - 1) {
      bool match = true;
      for (size_t i = 0; i + 1 < sizeof kName; ++i) {
        if (std::tolower(static_cast<unsigned char>(line[i])) != kName[i])
          match = false;
      }
      if (match)
        return std::strtoul(line.c_str() + sizeof kName - 1, nullptr, 10);
    }
    pos = eol + 1;
  }
  return 0;
}

}  // namespace

bool HttpRequestComplete(const std::string& data) {
  size_t end = HeaderEnd(data);
  if (end == std::string::npos)
    return false;
  return data.size() - end >= ContentLength(data.substr(0, end));
}

ServerConn::ServerConn(int fd) : fd_(fd) {
  int flags = fcntl(fd_, F_GETFL);
  fcntl(fd_, F_SETFL, flags | O_NONBLOCK);
}

ServerConn::~ServerConn() { Close(); }

bool ServerConn::ReadUntil(const std::function<bool(const std::string&)>& pred, int timeout_ms) {
  auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  char buf[65536];
  while (!pred(data_)) {
    if (fd_ < 0 || peer_closed_)
      return false;
    pollfd p{fd_, POLLIN, 0};
    int left = MillisLeft(deadline);
    if (left == 0)
      return false;
    int r = poll(&p, 1, left);
    if (r < 0 && errno == EINTR)
      continue;
    if (r <= 0)
      return false;
    ssize_t got = recv(fd_, buf, sizeof buf, 0);
    if (got < 0 && (errno == EINTR || errno == EAGAIN))
      continue;
    if (got <= 0) {
      peer_closed_ = true;
      return pred(data_);
    }
    data_.append(buf, static_cast<size_t>(got));
  }
  return true;
}

bool ServerConn::ReadRequest(int timeout_ms) { return ReadUntil(HttpRequestComplete, timeout_ms); }

long long ServerConn::ReadRequestDroppingBody(int timeout_ms) {
  if (!ReadUntil([](const std::string& d) { return HeaderEnd(d) != std::string::npos; },
                 timeout_ms)) {
    return -1;
  }
  size_t end = HeaderEnd(data_);
  const size_t wanted = ContentLength(data_.substr(0, end));
  size_t got = data_.size() - end;
  data_.resize(end);
  auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  std::vector<char> buf(1 << 20);
  while (got < wanted) {
    pollfd p{fd_, POLLIN, 0};
    int left = MillisLeft(deadline);
    if (left == 0)
      return -1;
    int r = poll(&p, 1, left);
    if (r < 0 && errno == EINTR)
      continue;
    if (r <= 0)
      return -1;
    ssize_t n = recv(fd_, buf.data(), buf.size(), 0);
    if (n < 0 && (errno == EINTR || errno == EAGAIN))
      continue;
    if (n <= 0) {
      peer_closed_ = true;
      return -1;
    }
    got += static_cast<size_t>(n);
  }
  return static_cast<long long>(got);
}

bool ServerConn::ReadAtLeast(size_t n, int timeout_ms) {
  return ReadUntil([n](const std::string& d) { return d.size() >= n; }, timeout_ms);
}

void ServerConn::ReadQuiet(int quiet_ms) {
  char buf[65536];
  while (fd_ >= 0 && !peer_closed_) {
    pollfd p{fd_, POLLIN, 0};
    int r = poll(&p, 1, quiet_ms);
    if (r < 0 && errno == EINTR)
      continue;
    if (r <= 0)
      return;
    ssize_t got = recv(fd_, buf, sizeof buf, 0);
    if (got < 0 && (errno == EINTR || errno == EAGAIN))
      continue;
    if (got <= 0) {
      peer_closed_ = true;
      return;
    }
    data_.append(buf, static_cast<size_t>(got));
  }
}

bool ServerConn::Send(const std::string& text, int timeout_ms) {
  return SendBytes(text.data(), text.size(), timeout_ms);
}

bool ServerConn::SendBytes(const char* data, size_t size, int timeout_ms) {
  auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  size_t sent = 0;
  while (sent < size) {
    if (fd_ < 0)
      return false;
    pollfd p{fd_, POLLOUT, 0};
    int left = MillisLeft(deadline);
    if (left == 0)
      return false;
    int r = poll(&p, 1, left);
    if (r < 0 && errno == EINTR)
      continue;
    if (r <= 0)
      return false;
    ssize_t n = send(fd_, data + sent, size - sent, MSG_NOSIGNAL);
    if (n < 0 && (errno == EINTR || errno == EAGAIN))
      continue;
    if (n <= 0)
      return false;
    sent += static_cast<size_t>(n);
  }
  return true;
}

bool ServerConn::SendRepeated(const std::string& chunk, size_t total, int timeout_ms) {
  auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  while (total > 0) {
    size_t piece = std::min(total, chunk.size());
    int left = MillisLeft(deadline);
    if (left == 0 || !SendBytes(chunk.data(), piece, left))
      return false;
    total -= piece;
  }
  return true;
}

void ServerConn::Reset() {
  if (fd_ < 0)
    return;
  linger lg{1, 0};
  setsockopt(fd_, SOL_SOCKET, SO_LINGER, &lg, sizeof lg);
  close(fd_);
  fd_ = -1;
}

void ServerConn::FinishAndDrain(int timeout_ms) {
  if (fd_ < 0)
    return;
  shutdown(fd_, SHUT_WR);
  ReadUntil([](const std::string&) { return false; }, timeout_ms);
  Close();
}

void ServerConn::Close() {
  if (fd_ >= 0)
    close(fd_);
  fd_ = -1;
}

LoopbackListener::LoopbackListener(Handler handler, int connections, int accept_timeout_ms) {
  listen_fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (listen_fd_ < 0)
    throw std::runtime_error("socket failed");
  sockaddr_in sa{};
  sa.sin_family = AF_INET;
  sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  sa.sin_port = 0;
  if (bind(listen_fd_, reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0 ||
      listen(listen_fd_, 16) != 0) {
    close(listen_fd_);
    throw std::runtime_error("bind/listen on 127.0.0.1 failed");
  }
  socklen_t len = sizeof sa;
  getsockname(listen_fd_, reinterpret_cast<sockaddr*>(&sa), &len);
  port_ = ntohs(sa.sin_port);
  thread_ = std::thread(&LoopbackListener::Serve, this, std::move(handler), connections,
                        accept_timeout_ms);
}

LoopbackListener::~LoopbackListener() {
  Join();
  if (listen_fd_ >= 0)
    close(listen_fd_);
}

std::string LoopbackListener::Url(const std::string& path) const {
  return "http://127.0.0.1:" + std::to_string(port_) + path;
}

void LoopbackListener::Join() {
  if (thread_.joinable())
    thread_.join();
}

std::vector<std::string> LoopbackListener::requests() {
  std::lock_guard<std::mutex> lock(mu_);
  return requests_;
}

std::string LoopbackListener::request() {
  Join();
  auto all = requests();
  return all.empty() ? std::string() : all.front();
}

void LoopbackListener::Serve(Handler handler, int connections, int accept_timeout_ms) {
  for (int i = 0; i < connections; ++i) {
    pollfd p{listen_fd_, POLLIN, 0};
    int r;
    do {
      r = poll(&p, 1, accept_timeout_ms);
    } while (r < 0 && errno == EINTR);
    if (r <= 0)
      return;
    int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0)
      return;
    ServerConn conn(fd);
    handler(conn);
    conn.Close();
    std::lock_guard<std::mutex> lock(mu_);
    requests_.push_back(conn.data());
  }
}

LoopbackListener::Handler ReplyWith(std::string reply) {
  return [reply](ServerConn& c) {
    c.ReadRequest();
    c.ReadQuiet(50);
    c.Send(reply);
    c.FinishAndDrain();
  };
}

LoopbackListener::Handler ReplyAfter(std::function<bool(const std::string&)> pred,
                                     std::string reply) {
  return [pred, reply](ServerConn& c) {
    c.ReadUntil(pred);
    c.Send(reply);
    c.FinishAndDrain();
  };
}

LoopbackListener::Handler ReplyAfterTail(std::string tail, std::string reply) {
  return ReplyAfter(
      [tail](const std::string& d) {
        return HeaderEnd(d) != std::string::npos && d.ends_with(tail);
      },
      std::move(reply));
}

std::string OkReply() {
  return "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: 3\r\nConnection: "
         "close\r\n\r\nOK\n";
}

RefusingPort::RefusingPort() {
  fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in sa{};
  sa.sin_family = AF_INET;
  sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (fd_ < 0 || bind(fd_, reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0) {
    throw std::runtime_error("bind on 127.0.0.1 failed");
  }
  socklen_t len = sizeof sa;
  getsockname(fd_, reinterpret_cast<sockaddr*>(&sa), &len);
  port_ = ntohs(sa.sin_port);
}

RefusingPort::~RefusingPort() {
  if (fd_ >= 0)
    close(fd_);
}

BackgroundProcess::BackgroundProcess(const std::vector<std::string>& argv,
                                     const std::string& out_file, const std::string& err_file) {
  std::vector<std::string> copy = argv;
  std::vector<char*> args;
  for (auto& a : copy)
    args.push_back(a.data());
  args.push_back(nullptr);
  std::fflush(nullptr);
  pid_ = fork();
  if (pid_ < 0)
    throw std::runtime_error("fork failed");
  if (pid_ == 0) {
    int in = open("/dev/null", O_RDONLY);
    int out = open(out_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    int err = open(err_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (in < 0 || out < 0 || err < 0)
      _exit(126);
    dup2(in, 0);
    dup2(out, 1);
    dup2(err, 2);
    execvp(args[0], args.data());
    _exit(127);
  }
}

BackgroundProcess::~BackgroundProcess() {
  if (pid_ > 0 && status_ < 0) {
    kill(pid_, SIGKILL);
    while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
    }
  }
}

std::string BackgroundProcess::WaitForLineFile(const std::string& path, int timeout_ms) {
  auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  for (;;) {
    std::string text = ReadFile(path).value_or("");
    if (!text.empty() && text.back() == '\n')
      return text;
    if (status_ >= 0 || MillisLeft(deadline) == 0)
      return "";
    int status = 0;
    if (waitpid(pid_, &status, WNOHANG) == pid_) {
      status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    poll(nullptr, 0, 20);
  }
}

int BackgroundProcess::Wait(int timeout_ms) {
  auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  while (status_ < 0) {
    int status = 0;
    pid_t r = waitpid(pid_, &status, WNOHANG);
    if (r == pid_) {
      status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      break;
    }
    if (r < 0 && errno != EINTR)
      break;
    if (MillisLeft(deadline) == 0) {
      kill(pid_, SIGKILL);
      while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
      }
      status_ = 128 + SIGKILL;
      return -1;
    }
    poll(nullptr, 0, 20);
  }
  return status_;
}

bool OnPath(const std::string& program) {
  const char* path = std::getenv("PATH");
  std::string dirs = path ? path : "/usr/bin:/bin";
  size_t pos = 0;
  while (pos <= dirs.size()) {
    size_t end = dirs.find(':', pos);
    if (end == std::string::npos)
      end = dirs.size();
    std::string dir = dirs.substr(pos, end - pos);
    if (dir.empty())
      dir = ".";
    if (access((dir + "/" + program).c_str(), X_OK) == 0)
      return true;
    pos = end + 1;
  }
  return false;
}

bool ResetPeakRss() {
  std::ofstream f("/proc/self/clear_refs");
  if (!f)
    return false;
  f << "5";
  f.flush();
  return static_cast<bool>(f);
}

long PeakRssKb() {
  std::ifstream f("/proc/self/status");
  std::string line;
  while (std::getline(f, line)) {
    if (line.rfind("VmHWM:", 0) == 0)
      return std::strtol(line.c_str() + 6, nullptr, 10);
  }
  return -1;
}

}  // namespace wltest
