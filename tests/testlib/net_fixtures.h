#pragma once
// Loopback servers for the net tests. Every wait is bounded: a receive or a
// send gives up after 10 s without progress, an accept after 20 s, a
// background program after 60 s.

#include <arpa/inet.h>
#include <signal.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "testlib/testlib.h"

namespace wltest {

inline const std::string kOkReply =
    "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: 3\r\nConnection: "
    "close\r\n\r\nOK\n";

// A socket bound to a free 127.0.0.1 port; while it does not listen,
// connecting to the port is refused.
struct RefusingPort {
  RefusingPort() {
    sockaddr_in sa{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t len = sizeof sa;
    if (bind(fd, reinterpret_cast<sockaddr*>(&sa), len) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&sa), &len) != 0)
      throw std::runtime_error("cannot bind 127.0.0.1");
    port = ntohs(sa.sin_port);
  }
  ~RefusingPort() { close(fd); }
  std::string Url(const std::string& path = "") const {
    return "http://127.0.0.1:" + std::to_string(port) + path;
  }
  // The client's error text for this port.
  std::string ConnectError() const {
    return "ERROR 401: Could not connect to 127.0.0.1 on port " + std::to_string(port) + "\n";
  }
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  uint16_t port = 0;
};

// One accepted connection, seen from the server's side.
struct ServerConn {
  explicit ServerConn(int fd_in) : fd(fd_in) {
    timeval tv{10, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
  }
  ~ServerConn() { Close(); }
  // Read until pred(data) holds; false when the peer closed or went quiet.
  bool ReadUntil(const std::function<bool(const std::string&)>& pred) {
    char buf[65536];
    for (ssize_t got; !pred(data); data.append(buf, static_cast<size_t>(got))) {
      if ((got = fd < 0 ? -1 : recv(fd, buf, sizeof buf, 0)) <= 0)
        return false;
    }
    return true;
  }
  // A header block ended by "\n\n" or "\r\n\r\n", then Content-Length bytes.
  bool ReadRequest() {
    return ReadUntil([](const std::string& d) {
      size_t lf = d.find("\n\n"), crlf = d.find("\r\n\r\n");
      size_t end = std::min(lf == d.npos ? lf : lf + 2, crlf == d.npos ? crlf : crlf + 4);
      size_t cl = d.find("Content-Length: ");
      return end != d.npos &&
             d.size() - end >= (cl < end ? std::strtoul(d.c_str() + cl + 16, nullptr, 10) : 0);
    });
  }
  void Send(const std::string& text) {
    for (ssize_t n = 0, sent = 0; sent < std::ssize(text) && n >= 0; sent += n)
      n = send(fd, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
  }
  void Close() {
    if (fd >= 0)
      close(fd);
    fd = -1;
  }
  int fd;
  std::string data;
};

// Serves `connections` connections one after the other and keeps the raw
// bytes each one sent.
struct LoopbackListener : RefusingPort {
  using Handler = std::function<void(ServerConn&)>;
  explicit LoopbackListener(Handler handler, int connections = 1) {
    listen(fd, 16);
    thread_ = std::thread([this, handler, connections] {
      pollfd p{fd, POLLIN, 0};
      for (int i = 0; i < connections && poll(&p, 1, 20000) > 0; ++i) {
        ServerConn conn(accept4(fd, nullptr, nullptr, SOCK_CLOEXEC));
        handler(conn);
        conn.Close();
        requests_.push_back(conn.data);
      }
    });
  }
  ~LoopbackListener() { request(); }
  std::string request() {  // the first request, once the serving thread ended
    if (thread_.joinable())
      thread_.join();
    return requests_.empty() ? "" : requests_.front();
  }
  std::vector<std::string> requests_;
  std::thread thread_;
};

// Read a whole request (or, given a tail, until the bytes end with it),
// answer `reply`, finish cleanly.
inline LoopbackListener::Handler Reply(std::string reply = kOkReply, std::string tail = "") {
  return [reply, tail](ServerConn& c) {
    if (tail.empty())
      c.ReadRequest();
    else
      c.ReadUntil([&](const std::string& d) { return d.ends_with(tail); });
    c.Send(reply);
    shutdown(c.fd, SHUT_WR);  // then read to the client's end of stream
    c.ReadUntil([](const std::string&) { return false; });
  };
}

// Read the request, answer `text`, then either close or keep the
// connection open until the client closes it (as a keep-alive proxy does).
// Answer("", true) is a server that takes the request and never answers.
inline LoopbackListener::Handler Answer(std::string text, bool keep_open = false) {
  return [=](ServerConn& c) {
    c.ReadRequest();
    c.Send(text);
    if (keep_open)
      c.ReadUntil([](const std::string&) { return false; });
    c.Close();
  };
}

// Read the request, then answer a status line and one byte every 100 ms
// (10 s at most) while the client still takes them.
inline LoopbackListener::Handler Trickle() {
  return [](ServerConn& c) {
    c.ReadRequest();
    c.Send("HTTP/1.1 200 OK\r\n");
    for (int i = 0; i < 100 && send(c.fd, "X", 1, MSG_NOSIGNAL) == 1; ++i)
      poll(nullptr, 0, 100);
  };
}

// Runs call(url) against a loopback server that answers kOkReply (after
// `tail` when given); the request, with the server's port written "PORT".
inline std::string Wire(const std::string& path, const std::string& tail,
                        const std::function<void(const std::string& url)>& call) {
  LoopbackListener server(Reply(kOkReply, tail));
  call(server.Url(path));
  std::string r = server.request();
  const std::string from = "127.0.0.1:" + std::to_string(server.port);
  for (size_t at = 0; (at = r.find(from, at)) != r.npos;)
    r.replace(at, from.size(), "127.0.0.1:PORT");
  return r;
}
inline std::string Wire(const std::function<void(const std::string& url)>& call) {
  return Wire("/weftlane/LogUpload", "", call);
}

// Expected multipart pieces, as the upload clients write them.
inline const std::string kDelim = "-----------------------------7d3cc298904e2\r\n";
inline const std::string kEnd = "-----------------------------7d3cc298904e2--\r\n";
inline std::string Field(const std::string& name, const std::string& value) {
  return kDelim + "Content-Disposition: form-data; name=\"" + name + "\"\r\n\r\n" + value + "\r\n";
}
inline std::string FileHead(const std::string& filename) {
  return "Content-Disposition: form-data; name=\"mptest\"; filename=\"" + filename +
         "\"\r\nContent-Type: text/html\r\n\r\n";
}
inline std::string WithLength(const std::string& head, const std::string& body) {
  return head + "Content-Length: " + std::to_string(body.size()) + "\n\n" + body;
}

// Header lines of the report upload, of the job log posts (with "Connection:
// close") and of the job log record post (Host line second, ended by "\n").
enum HeadStyle { kUploadHead, kJobLogHead, kRecordHead };
inline std::string FormHead(HeadStyle style) {
  std::string h = "POST /weftlane/LogUpload HTTP/1.1\r\n";
  if (style == kRecordHead)
    h += "Host: 127.0.0.1:PORT\n";
  h += "Accept: image/gif, image/x-xbitmap, image/jpeg, image/pjpeg, application/vnd.ms-excel, "
       "application/msword, application/pdf, application/x-shockwave-flash, */*\r\n"
       "Accept-Language: en-us\r\n";
  if (style != kUploadHead)
    h += "Connection: close\r\n";
  h += "Content-Type: multipart/form-data; boundary=---------------------------7d3cc298904e2\r\n"
       "Accept-Encoding: gzip, deflate\r\nUser-Agent: Weftlane Logger 6.2\r\n";
  return style == kRecordHead ? h : h + "Host: 127.0.0.1:PORT\r\n";
}

inline bool HavePython() { return std::system("python3 -c '' >/dev/null 2>&1") == 0; }

// Runs argv through sh with a system PATH on a thread of its own, then
// waits for the first line written to `line_file` (the line, or "" after
// 20 s).
struct BackgroundRun {
  BackgroundRun(std::vector<std::string> argv, const std::string& line_file) {
    argv.insert(argv.begin(), {"/bin/sh", "-c", "exec \"$@\"", "sh"});
    thread = std::thread([this, argv] {
      result = RunProgram(argv, {{"PATH", "/usr/local/bin:/usr/bin:/bin"}}, "/", 60);
    });
    for (int i = 0; i < 1000 && line.empty(); ++i, poll(nullptr, 0, 20)) {
      std::string text = ReadFile(line_file).value_or("");
      if (size_t eol = text.find('\n'); eol != text.npos)
        line = text.substr(0, eol);
    }
  }
  ~BackgroundRun() { Wait(); }
  RunResult Wait() {
    if (thread.joinable())
      thread.join();
    return result;
  }
  std::string line;
  RunResult result;
  std::thread thread;
};

// The nginx program, "" where it is not installed.
inline std::string NginxBinary() {
  for (const char* p : {"/usr/sbin/nginx", "/usr/local/sbin/nginx", "/usr/bin/nginx"}) {
    if (access(p, X_OK) == 0)
      return p;
  }
  return "";
}

// nginx as a reverse proxy on a free 127.0.0.1 port in front of
// 127.0.0.1:`upstream`, run as this user in one foreground process with its
// files in `dir` and its stock keep-alive and body limit. `port` stays 0
// when it did not start.
struct NginxProxy {
  NginxProxy(const std::string& dir_in, const std::string& upstream) : dir(dir_in) {
    MakeDirs(dir);
    uint16_t free_port = RefusingPort().port;
    WriteFile(dir + "/nginx.conf",
              "daemon off; master_process off; pid " + dir + "/nginx.pid;\n"
              "error_log " + dir + "/error.log;\nevents { worker_connections 64; }\n"
              "http { access_log off; client_body_temp_path " + dir + "/body;\n"
              "  proxy_temp_path " + dir + "/proxy; fastcgi_temp_path " + dir + "/fastcgi;\n"
              "  uwsgi_temp_path " + dir + "/uwsgi; scgi_temp_path " + dir + "/scgi;\n"
              "  server { listen 127.0.0.1:" + std::to_string(free_port) +
              "; location / { proxy_pass http://127.0.0.1:" + upstream + "; } } }\n");
    // The pid file is written once the port listens.
    run.emplace(std::vector<std::string>{NginxBinary(), "-p", dir + "/", "-e", dir + "/error.log",
                                         "-c", dir + "/nginx.conf"},
                dir + "/nginx.pid");
    if (!run->line.empty())
      port = free_port;
  }
  ~NginxProxy() {
    if (!run->line.empty())
      kill(std::stoi(run->line), SIGTERM);
    run->Wait();
  }
  std::string Url() const { return "http://127.0.0.1:" + std::to_string(port); }
  std::string dir;
  uint16_t port = 0;
  std::optional<BackgroundRun> run;
};

}  // namespace wltest
