#include "net/transport.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

struct hostent* h = nullptr;
int DoneGetHostByName = 0;
HostLookupFn wl_host_lookup = &gethostbyname;

namespace {

constexpr int32_t kSendPiece = 1024;
constexpr int32_t kAnswerLine = 2048;
constexpr size_t kDiscardSize = 60000;

std::string InvalidUrl(const char* url) {
  return std::string("ERROR 404: Invalid URL ") + url + "\n";
}

// The text after the first "//", or false when there is none.
bool AfterSlashes(const char* url, std::string& rest) {
  const char* p = std::strstr(url, "//");
  if (!p)
    return false;
  rest = p + 2;
  return true;
}

// connect() that survives a signal: once interrupted, the connection goes on
// in the background, so wait for it and fetch its outcome.
int ConnectRetrying(int fd, const sockaddr_in& addr) {
  if (connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) == 0)
    return 0;
  if (errno != EINTR)
    return -1;
  for (;;) {
    pollfd p{fd, POLLOUT, 0};
    int r = poll(&p, 1, -1);
    if (r < 0 && errno == EINTR)
      continue;
    if (r < 0)
      return -1;
    int so_error = 0;
    socklen_t len = sizeof so_error;
    if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &so_error, &len) != 0)
      return -1;
    if (so_error != 0) {
      errno = so_error;
      return -1;
    }
    return 0;
  }
}

// Cut `text` at its first ":" and return the number of the port text after
// it (up to a "/"), also stored in *port_text when given. Without a ":"
// nothing changes and the result is the default port.
uint16_t SplitPort(std::string& text, std::string* port_text) {
  size_t colon = text.find(':');
  if (colon == std::string::npos)
    return kDefaultPort;
  std::string after = text.substr(colon + 1);
  text.resize(colon);
  if (size_t slash = after.find('/'); slash != std::string::npos)
    after.resize(slash);
  if (port_text)
    *port_text = after;
  return PortFromText(after.c_str());
}

}  // namespace

uint16_t PortFromText(const char* text) {
  // atoi's reading, but accumulated modulo 65536 so that no digit string can
  // overflow; for every value atoi can represent the result is the same.
  const char* p = text;
  while (*p == ' ' || (*p >= '\t' && *p <= '\r'))
    ++p;
  bool negative = false;
  if (*p == '+' || *p == '-') {
    negative = *p == '-';
    ++p;
  }
  uint32_t value = 0;
  for (; *p >= '0' && *p <= '9'; ++p)
    value = (value * 10 + static_cast<uint32_t>(*p - '0')) & 0xFFFF;
  if (negative)
    value = (0x10000 - value) & 0xFFFF;
  return static_cast<uint16_t>(value);
}

int tcp_connect(std::string& err, const char* url, std::string& host, std::string& port,
                std::string& path) {
  err.clear();
  uint16_t port_number = kDefaultPort;
  std::string rest;
  if (!AfterSlashes(url, rest)) {
    err = InvalidUrl(url);
    return -1;
  }
  host = rest;
  if (size_t slash = host.find('/'); slash != std::string::npos)
    path = host.substr(slash);
  // The first ":" anywhere after the "//" counts, even inside the path.
  port_number = SplitPort(host, &port);
  if (size_t slash = host.find('/'); slash != std::string::npos)
    host.resize(slash);

  in_addr address{};
  h = wl_host_lookup(host.c_str());
  DoneGetHostByName = 1;
  if (h && h->h_addrtype == AF_INET && h->h_length == 4 && h->h_addr_list && h->h_addr_list[0]) {
    std::memcpy(&address, h->h_addr_list[0], sizeof address);
  } else {
    // inet_addr's "none" is all bits set, which also turns away the address
    // 255.255.255.255 itself.
    in_addr_t quad = inet_addr(host.c_str());
    if (quad == INADDR_NONE) {
      err = "ERROR 408: Invalid host name\n";
      return -1;
    }
    address.s_addr = quad;
  }

  sockaddr_in sa{};
  sa.sin_family = AF_INET;
  sa.sin_port = htons(port_number);
  sa.sin_addr = address;
  // Close-on-exec so that children started later do not inherit the
  // connection; it changes nothing on the wire.
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0)
    std::perror("tcp_connect socket error:");
  if (ConnectRetrying(fd, sa) != 0) {
    // The descriptor is left open here, as the old client did.
    err = std::string("ERROR 401: Could not connect to ") + inet_ntoa(address) + " on port " +
          std::to_string(port_number) + "\n";
    return -1;
  }
  return fd;
}

void getHostPort(std::string& err, const char* url, std::string& host, std::string& port) {
  err.clear();
  uint16_t port_number = kDefaultPort;
  std::string rest;
  if (!AfterSlashes(url, rest)) {
    err = InvalidUrl(url);
    return;
  }
  port_number = SplitPort(rest, nullptr);
  // Not cut at "/": without a port the path stays in the host text, and the
  // "Host:" headers built from it carry it.
  host = rest;
  port = std::to_string(port_number);
}

int writen(int fd, const void* data, int32_t len) {
  const char* p = static_cast<const char*>(data);
  int32_t left = len;
  while (left > 0) {
    ssize_t sent = send(fd, p, static_cast<size_t>(std::min(left, kSendPiece)), MSG_NOSIGNAL);
    if (sent < 0 && errno == EINTR)
      continue;
    if (sent <= 0)
      return -1;
    left -= static_cast<int32_t>(sent);
    p += sent;
  }
  return 0;
}

int readline(int fd, char* buf, int32_t size) {
  // Same bytes as receiving one at a time: peek at what has arrived, then
  // take exactly up to and including the first "\n" (or what fits). Nothing
  // beyond the stored bytes is consumed, so the next call sees the rest.
  int32_t n = 1;
  char* out = buf;
  while (n < size) {
    ssize_t peeked = recv(fd, out, static_cast<size_t>(size - n), MSG_PEEK);
    if (peeked < 0) {
      if (errno == EINTR)
        continue;
      return -1;
    }
    if (peeked == 0) {
      if (n == 1)
        return 0;
      break;
    }
    const char* nl = static_cast<const char*>(std::memchr(out, '\n', static_cast<size_t>(peeked)));
    size_t take = nl ? static_cast<size_t>(nl - out) + 1 : static_cast<size_t>(peeked);
    size_t taken = 0;
    while (taken < take) {
      ssize_t got = recv(fd, out + taken, take - taken, 0);
      if (got < 0 && errno == EINTR)
        continue;
      if (got < 0)
        return -1;
      if (got == 0)
        break;  // cannot happen after a peek; be safe anyway
      taken += static_cast<size_t>(got);
    }
    out += taken;
    if (nl && taken == take) {
      n += static_cast<int32_t>(taken) - 1;  // the "\n" itself is not counted
      *out = '\0';
      return n;
    }
    n += static_cast<int32_t>(taken);
    if (taken < take)
      break;
  }
  *out = '\0';
  return n;
}

int readlineAndDiscard(int fd) {
  static_assert(kDiscardSize == 60000);
  std::array<char, kDiscardSize> scratch{};
  for (;;) {
    ssize_t got = read(fd, scratch.data(), scratch.size());
    if (got < 0 && errno == EINTR)
      continue;
    return static_cast<int>(got);
  }
}

int WLCleanUp(int fd) {
  close(fd);
  return 0;
}

int WriteAll(int fd, const char* data, size_t size) {
  // writen counts in 32 bits; feed it slices so that a body beyond 2 GiB is
  // still sent whole. The pieces on the wire stay 1024 bytes.
  constexpr size_t kSlice = size_t{1} << 30;
  while (size > 0) {
    size_t slice = std::min(size, kSlice);
    if (writen(fd, data, static_cast<int32_t>(slice)) != 0)
      return -1;
    data += slice;
    size -= slice;
  }
  return 0;
}

int HTTPPostHTML(std::string& err, const char* url, std::string& header, const char* body) {
  err.clear();
  std::string host;
  std::string port;
  std::string path;
  int fd = tcp_connect(err, url, host, port, path);
  if (fd == -1 || !err.empty())
    return 1;
  const char* text = body ? body : "";
  size_t body_len = std::strlen(text);
  header += "Content-Length: " + std::to_string(body_len) + "\n\n";
  // Send failures are not acted on: the answer loop below ends at once on a
  // broken connection.
  (void)WriteAll(fd, header.data(), header.size());
  (void)WriteAll(fd, text, body_len);
  std::array<char, kAnswerLine> line;
  while (readline(fd, line.data(), kAnswerLine) > 0) {
  }
  WLCleanUp(fd);
  return 0;
}
