// wlreceiver: a stand-in for the build server's upload service, on loopback.
//
// Usage: wlreceiver [--dir D] [--port N] [--port-file F] [--count N]
//                   [--idle-exit S] [--quiet] [--help]
//
//   --dir D        store what arrives in directory D (created when missing;
//                  default "wlreceived")
//   --port N       listen on 127.0.0.1 port N; 0 (the default) picks a free one
//   --port-file F  also write the chosen port, as decimal text and "\n", to F
//                  (written under a temporary name and renamed, so a reader
//                  never sees half of it)
//   --count N      stop after N requests (default 0: no limit)
//   --idle-exit S  stop after S seconds without a new connection (default:
//                  never; at most 86400). --timeout S is its older name.
//   --quiet        print only the port line
//
// It runs until it is stopped (or --count / --idle-exit end it). It prints
// the chosen port number alone on its first line, then one line per uploaded
// file, "<n>: job <JobName>, <bytes> bytes, <D>/<n>-<base>", or per request
// that carried no file, "<n>: <request line>, <bytes> body bytes".
// Each request is read as the upload client sends it: a header block ended
// by a blank line (bare "\n\n" or "\r\n\r\n"), then as many body bytes as
// Content-Length states (bytes a client sends beyond that are kept too).
// Requests are numbered from one more than the highest number already in D,
// so a restarted receiver never overwrites what an earlier one stored; a
// number is claimed by creating its request file exclusively. For request
// number n it writes:
//   D/<n>-request.bin   the raw request bytes;
//   D/<n>-fields.txt    "name=value" lines of the form fields of a
//                       multipart/form-data body (values as sent, so a value
//                       may itself hold line breaks);
//   D/<n>-<base>        each uploaded file part, named by the base name of
//                       its filename (a second part of the same name gets
//                       "-2", "-3", ... appended);
//   D/<n>-body.bin      the body of a request that is not multipart.
// Every request gets "HTTP/1.1 200 OK" with the short body "OK\n"; then the
// receiver half-closes and waits for the client to close. A client that
// sends nothing for 60 seconds is dropped.
//
// Exit status: 0 after --count requests, or after the idle time when no
// count was given; 3 when the idle time ended it before --count requests
// came; 2 on bad arguments or when it cannot listen or store.

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <vector>

namespace {

const char kUsage[] =
    "Usage: wlreceiver [--dir D] [--port N] [--port-file F] [--count N] [--idle-exit S] [--quiet]\n"
    "Loopback stand-in for the build server's upload service; runs until stopped.\n"
    "  --dir D        store requests in D (default wlreceived): <n>-request.bin,\n"
    "                 <n>-fields.txt (name=value), <n>-<file base>, <n>-body.bin;\n"
    "                 numbering continues after the highest <n> already there\n"
    "  --port N       listen on 127.0.0.1 port N (0 = any free port, the default)\n"
    "  --port-file F  also write the chosen port to F\n"
    "  --count N      stop after N requests (0 = no limit, the default)\n"
    "  --idle-exit S  stop after S seconds without a connection (default: never)\n"
    "  --quiet        print only the port line\n"
    "Prints the port number on its first line, then a line per uploaded file\n"
    "(number, job, bytes, where it is stored). Answers every request with\n"
    "HTTP/1.1 200 OK.\n"
    "Exit status: 0 done, 3 idle time ended it before --count requests, 2 error.\n";

const char kReply[] =
    "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: 3\r\nConnection: "
    "close\r\n\r\nOK\n";

constexpr long kMaxIdleExit = 86400;
// A connected client that sends nothing for this long is dropped.
constexpr int kClientIdleMs = 60 * 1000;
constexpr size_t kMaxHeaderBlock = 1 << 20;

struct Options {
  std::string dir = "wlreceived";
  long port = 0;
  std::string port_file;
  long count = 0;
  long idle_exit = -1;  // seconds; -1: never
  bool quiet = false;
};

bool ParseNumber(const char* text, long max, long& out) {
  char* end = nullptr;
  errno = 0;
  long v = std::strtol(text, &end, 10);
  if (errno != 0 || end == text || *end != '\0' || v < 0 || v > max)
    return false;
  out = v;
  return true;
}

// 1 ok, 0 help shown, -1 error.
int ParseArgs(int argc, char** argv, Options& o) {
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    auto value = [&](const char*& out) {
      if (i + 1 >= argc)
        return false;
      out = argv[++i];
      return true;
    };
    const char* v = nullptr;
    if (a == "--help" || a == "-h") {
      std::fputs(kUsage, stdout);
      return 0;
    } else if (a == "--quiet") {
      o.quiet = true;
    } else if (a == "--dir" && value(v)) {
      o.dir = v;
    } else if (a == "--port-file" && value(v)) {
      o.port_file = v;
    } else if (a == "--port" && value(v) && ParseNumber(v, 65535, o.port)) {
    } else if (a == "--count" && value(v) && ParseNumber(v, 1000000, o.count)) {
    } else if ((a == "--idle-exit" || a == "--timeout") && value(v) &&
               ParseNumber(v, kMaxIdleExit, o.idle_exit)) {
    } else {
      std::fprintf(stderr, "wlreceiver: bad argument '%s'\n%s", a.c_str(), kUsage);
      return -1;
    }
  }
  return 1;
}

// Write data to path; with `exclusive`, fail (errno EEXIST) when path exists.
bool WriteWhole(const std::string& path, const std::string& data, bool exclusive = false) {
  FILE* f = std::fopen(path.c_str(), exclusive ? "wbx" : "wb");
  if (!f)
    return false;
  bool ok = std::fwrite(data.data(), 1, data.size(), f) == data.size();
  return std::fclose(f) == 0 && ok;
}

std::string Lower(std::string s) {
  for (char& c : s)
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

// Offset just past the header block: the earlier of "\n\n" and "\r\n\r\n".
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

// Value of header `name` (lower case, without colon) in a header block.
std::string HeaderValue(const std::string& head, const std::string& name) {
  size_t pos = 0;
  while (pos < head.size()) {
    size_t eol = head.find('\n', pos);
    if (eol == std::string::npos)
      eol = head.size();
    std::string line = head.substr(pos, eol - pos);
    if (!line.empty() && line.back() == '\r')
      line.pop_back();
    size_t colon = line.find(':');
    if (colon != std::string::npos && Lower(line.substr(0, colon)) == name) {
      size_t start = line.find_first_not_of(" \t", colon + 1);
      return start == std::string::npos ? std::string() : line.substr(start);
    }
    pos = eol + 1;
  }
  return {};
}

// Parameter `key` of a header value such as `form-data; name="x"`.
std::string Param(const std::string& value, const std::string& key) {
  size_t pos = 0;
  while ((pos = value.find(key + "=", pos)) != std::string::npos) {
    if (pos > 0 && value[pos - 1] != ' ' && value[pos - 1] != ';' && value[pos - 1] != '\t') {
      pos += key.size();
      continue;
    }
    size_t start = pos + key.size() + 1;
    if (start < value.size() && value[start] == '"') {
      size_t end = value.find('"', start + 1);
      return value.substr(start + 1,
                          end == std::string::npos ? std::string::npos : end - start - 1);
    }
    size_t end = value.find_first_of("; \t", start);
    return value.substr(start, end == std::string::npos ? std::string::npos : end - start);
  }
  return {};
}

std::string BaseName(const std::string& filename) {
  size_t cut = filename.find_last_of("/\\");
  std::string base = cut == std::string::npos ? filename : filename.substr(cut + 1);
  for (char& c : base) {
    if (c == '\0' || static_cast<unsigned char>(c) < 0x20)
      c = '_';
  }
  if (base.empty() || base == "." || base == "..")
    base = "file";
  return base;
}

struct Part {
  std::string name;
  std::string filename;
  bool is_file = false;
  std::string content;
};

// Parts of a multipart body. A part runs from the line after a delimiter
// ("--" boundary) to the "\r\n" before the next one; the form ends at the
// closing delimiter or where the body ends.
std::vector<Part> ParseMultipart(const std::string& body, const std::string& boundary) {
  std::vector<Part> parts;
  const std::string delim = "--" + boundary;
  size_t pos = body.find(delim);
  while (pos != std::string::npos) {
    size_t after = pos + delim.size();
    if (body.compare(after, 2, "--") == 0)
      break;  // closing delimiter
    size_t line_end = body.find('\n', after);
    if (line_end == std::string::npos)
      break;
    size_t head_start = line_end + 1;
    size_t head_end = body.find("\r\n\r\n", head_start);
    if (head_end == std::string::npos)
      break;
    size_t content_start = head_end + 4;
    size_t next = body.find("\r\n" + delim, content_start);
    // A part at the very start of the content may end at once.
    if (body.compare(content_start, delim.size(), delim) == 0 &&
        (next == std::string::npos || next > content_start)) {
      next = content_start;
    }
    std::string head = body.substr(head_start, head_end - head_start + 2);
    std::string disposition = HeaderValue(head, "content-disposition");
    Part part;
    part.name = Param(disposition, "name");
    part.is_file = disposition.find("filename=") != std::string::npos;
    part.filename = Param(disposition, "filename");
    if (next == std::string::npos) {
      part.content = body.substr(content_start);
      parts.push_back(std::move(part));
      break;
    }
    part.content = body.substr(content_start, next - content_start);
    parts.push_back(std::move(part));
    pos = next == content_start ? next : next + 2;
  }
  return parts;
}

// Wait for fd to become ready for `events`; false on time-out or error.
bool WaitFor(int fd, short events, int timeout_ms) {
  pollfd p{fd, events, 0};
  for (;;) {
    int r = poll(&p, 1, timeout_ms);
    if (r < 0 && errno == EINTR)
      continue;
    return r > 0;
  }
}

// Read into `data` until done(data) or the peer closes or `idle_ms` pass
// without a byte. Returns false when the peer closed.
template <typename Done>
bool ReadInto(int fd, std::string& data, int idle_ms, Done done) {
  char buf[65536];
  while (!done(data)) {
    if (!WaitFor(fd, POLLIN, idle_ms))
      return true;
    ssize_t got = recv(fd, buf, sizeof buf, 0);
    if (got < 0 && (errno == EINTR || errno == EAGAIN))
      continue;
    if (got <= 0)
      return false;
    data.append(buf, static_cast<size_t>(got));
  }
  return true;
}

void SendAll(int fd, const char* data, size_t size, int idle_ms) {
  while (size > 0) {
    if (!WaitFor(fd, POLLOUT, idle_ms))
      return;
    ssize_t n = send(fd, data, size, MSG_NOSIGNAL);
    if (n < 0 && (errno == EINTR || errno == EAGAIN))
      continue;
    if (n <= 0)
      return;
    data += n;
    size -= static_cast<size_t>(n);
  }
}

// Serve one connection; the raw request ends up in `request`.
void Serve(int fd, int idle_ms, std::string& request) {
  size_t header_end = std::string::npos;
  size_t wanted = 0;
  bool open = ReadInto(fd, request, idle_ms, [&](const std::string& d) {
    if (header_end == std::string::npos) {
      header_end = HeaderEnd(d);
      if (header_end == std::string::npos)
        return d.size() > kMaxHeaderBlock;
      std::string length = HeaderValue(d.substr(0, header_end), "content-length");
      wanted = header_end + static_cast<size_t>(std::strtoull(length.c_str(), nullptr, 10));
    }
    return d.size() >= wanted;
  });
  // Keep what a client sends beyond its stated length; closing with unread
  // bytes would reset the connection and lose our answer.
  if (open)
    open = ReadInto(fd, request, 100, [](const std::string&) { return false; });
  SendAll(fd, kReply, sizeof kReply - 1, idle_ms);
  shutdown(fd, SHUT_WR);
  if (open)
    ReadInto(fd, request, idle_ms, [](const std::string&) { return false; });
}

// One more than the highest request number stored in dir (names "<n>-...").
long NextNumber(const std::string& dir) {
  long highest = 0;
  if (DIR* d = opendir(dir.c_str())) {
    while (const dirent* e = readdir(d)) {
      const char* name = e->d_name;
      size_t digits = 0;
      while (std::isdigit(static_cast<unsigned char>(name[digits])) && digits < 18)
        ++digits;
      if (digits > 0 && name[digits] == '-')
        highest = std::max(highest, std::strtol(name, nullptr, 10));
    }
    closedir(d);
  }
  return highest + 1;
}

// Store a request under the first free number from n on (n is updated to it)
// and add the lines to print for it to `lines`.
bool Store(const std::string& dir, long& n, const std::string& request,
           std::vector<std::string>& lines) {
  for (;; ++n) {
    if (WriteWhole(dir + "/" + std::to_string(n) + "-request.bin", request, true))
      break;
    if (errno != EEXIST)
      return false;
  }
  const std::string number = std::to_string(n);
  const std::string prefix = dir + "/" + number + "-";
  size_t header_end = HeaderEnd(request);
  std::string head = header_end == std::string::npos ? request : request.substr(0, header_end);
  std::string body = header_end == std::string::npos ? std::string() : request.substr(header_end);
  std::string request_line = head.substr(0, head.find('\n'));
  if (!request_line.empty() && request_line.back() == '\r')
    request_line.pop_back();
  const std::string plain = number + ": " + request_line + ", " + std::to_string(body.size()) +
                            " body bytes";

  std::string content_type = HeaderValue(head, "content-type");
  std::string boundary = Param(content_type, "boundary");
  if (Lower(content_type).rfind("multipart/form-data", 0) != 0 || boundary.empty()) {
    if (!body.empty() && !WriteWhole(prefix + "body.bin", body))
      return false;
    lines.push_back(plain);
    return true;
  }
  std::string fields, job = "-";
  std::vector<std::pair<std::string, size_t>> files;
  std::set<std::string> used;
  for (const Part& part : ParseMultipart(body, boundary)) {
    if (!part.is_file) {
      fields += part.name + "=" + part.content + "\n";
      if (part.name == "JobName")
        job = part.content;
      continue;
    }
    std::string base = BaseName(part.filename);
    std::string name = base;
    for (int k = 2;
         used.count(name) || name == "request.bin" || name == "fields.txt" || name == "body.bin";
         ++k) {
      name = base + "-" + std::to_string(k);
    }
    used.insert(name);
    if (!WriteWhole(prefix + name, part.content))
      return false;
    files.emplace_back(prefix + name, part.content.size());
  }
  if (!WriteWhole(prefix + "fields.txt", fields))
    return false;
  for (const auto& [path, size] : files)
    lines.push_back(number + ": job " + job + ", " + std::to_string(size) + " bytes, " + path);
  if (files.empty())
    lines.push_back(plain);
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  Options o;
  int parsed = ParseArgs(argc, argv, o);
  if (parsed <= 0)
    return parsed == 0 ? 0 : 2;

  if (mkdir(o.dir.c_str(), 0777) != 0 && errno != EEXIST) {
    std::fprintf(stderr, "wlreceiver: cannot create %s: %s\n", o.dir.c_str(), std::strerror(errno));
    return 2;
  }
  int listen_fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (listen_fd < 0) {
    std::perror("wlreceiver: socket");
    return 2;
  }
  int one = 1;
  setsockopt(listen_fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  sockaddr_in sa{};
  sa.sin_family = AF_INET;
  sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  sa.sin_port = htons(static_cast<uint16_t>(o.port));
  if (bind(listen_fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0 ||
      listen(listen_fd, 16) != 0) {
    std::fprintf(stderr, "wlreceiver: cannot listen on 127.0.0.1:%ld: %s\n", o.port,
                 std::strerror(errno));
    close(listen_fd);
    return 2;
  }
  socklen_t len = sizeof sa;
  getsockname(listen_fd, reinterpret_cast<sockaddr*>(&sa), &len);
  const unsigned port = ntohs(sa.sin_port);
  std::printf("%u\n", port);
  std::fflush(stdout);
  if (!o.port_file.empty()) {
    std::string tmp = o.port_file + ".tmp";
    if (!WriteWhole(tmp, std::to_string(port) + "\n") ||
        rename(tmp.c_str(), o.port_file.c_str()) != 0) {
      std::fprintf(stderr, "wlreceiver: cannot write %s\n", o.port_file.c_str());
      close(listen_fd);
      return 2;
    }
  }

  const int idle_ms = o.idle_exit < 0 ? -1 : static_cast<int>(o.idle_exit * 1000);
  long served = 0;
  long number = NextNumber(o.dir);
  int status = 0;
  while (o.count == 0 || served < o.count) {
    if (!WaitFor(listen_fd, POLLIN, idle_ms)) {
      status = o.count == 0 ? 0 : 3;
      if (!o.quiet)
        std::printf("idle for %ld s, stopping after %ld requests\n", o.idle_exit, served);
      break;
    }
    int fd = accept4(listen_fd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd < 0)
      continue;
    std::string request;
    Serve(fd, kClientIdleMs, request);
    close(fd);
    ++served;
    std::vector<std::string> lines;
    if (!Store(o.dir, number, request, lines)) {
      std::fprintf(stderr, "wlreceiver: cannot store request %ld in %s: %s\n", number,
                   o.dir.c_str(), std::strerror(errno));
      status = 2;
      break;
    }
    ++number;
    if (!o.quiet) {
      for (const std::string& line : lines)
        std::printf("%s\n", line.c_str());
    }
    std::fflush(stdout);
  }
  close(listen_fd);
  return status;
}
