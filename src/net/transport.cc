#include "net/transport.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "net/answer.h"
#include "support/handles.h"
#include "support/strings.h"

struct hostent* h = nullptr;
int DoneGetHostByName = 0;
HostLookupFn wl_host_lookup = &gethostbyname;

namespace {

constexpr int32_t kSendPiece = 1024;
constexpr size_t kDiscardSize = 60000;

int net_timeout = kDefaultNetTimeout;

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

// connect() bounded by the network timeout: started without blocking, then
// waited for. Once started (or interrupted by a signal) the connection goes
// on in the background, so wait for it and fetch its outcome. 1 connected,
// 0 timed out, -1 failed (errno says why).
int ConnectBounded(int fd, const sockaddr_in& addr) {
  const int flags = fcntl(fd, F_GETFL);
  if (flags < 0)
    return -1;
  fcntl(fd, F_SETFL, flags | O_NONBLOCK);
  int result = 1;
  if (connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0) {
    if (errno != EINPROGRESS && errno != EINTR)
      return -1;
    int ready = WaitReady(fd, POLLOUT, NetDeadline());
    int so_error = 0;
    socklen_t len = sizeof so_error;
    if (ready == 0) {
      result = 0;
    } else if (ready < 0 || getsockopt(fd, SOL_SOCKET, SO_ERROR, &so_error, &len) != 0) {
      return -1;
    } else if (so_error != 0) {
      errno = so_error;
      return -1;
    }
  }
  fcntl(fd, F_SETFL, flags);
  return result;
}

std::string ServerText(const in_addr& address, uint16_t port) {
  return std::string(inet_ntoa(address)) + " on port " + std::to_string(port);
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

void SetNetTimeout(int seconds) {
  net_timeout = std::clamp(seconds, 0, kMaxNetTimeout);
}

int NetTimeout() { return net_timeout; }

std::optional<int> ParseNetTimeout(const char* text) {
  auto value = DecimalValue(TrimBlanks(OrEmpty(text)), 9);
  if (!value || *value > static_cast<uint64_t>(kMaxNetTimeout))
    return std::nullopt;
  return static_cast<int>(*value);
}

std::string SetNetTimeoutFrom(const char* value) {
  SetNetTimeout(kDefaultNetTimeout);
  if (!value || std::strspn(value, " \t") == std::strlen(value))
    return "";  // unset, or set empty in a property file
  if (auto seconds = ParseNetTimeout(value)) {
    SetNetTimeout(*seconds);
    return "";
  }
  return std::string("WARNING: WEFTLANE_TIMEOUT ") + value + " is not a number of seconds from 0 to " +
         std::to_string(kMaxNetTimeout) + "; waiting at most " +
         std::to_string(kDefaultNetTimeout) + " s";
}

std::optional<NetClock::time_point> NetDeadline() {
  if (net_timeout == 0)
    return std::nullopt;
  return NetClock::now() + std::chrono::seconds(net_timeout);
}

int WaitReady(int fd, short events, std::optional<NetClock::time_point> deadline) {
  if (fd < 0) {  // poll would skip it and just sleep
    errno = EBADF;
    return -1;
  }
  for (;;) {
    int ms = -1;
    if (deadline) {
      auto left = std::chrono::ceil<std::chrono::milliseconds>(*deadline - NetClock::now());
      ms = left.count() <= 0 ? 0 : static_cast<int>(std::min<int64_t>(left.count(), INT32_MAX));
    }
    pollfd p{fd, events, 0};
    int r = poll(&p, 1, ms);
    if (r < 0 && errno == EINTR)
      continue;
    return r < 0 ? -1 : r > 0 ? 1 : 0;
  }
}

std::string PeerText(int fd) {
  sockaddr_in sa{};
  socklen_t len = sizeof sa;
  if (getpeername(fd, reinterpret_cast<sockaddr*>(&sa), &len) != 0 || sa.sin_family != AF_INET)
    return "the server";
  return ServerText(sa.sin_addr, ntohs(sa.sin_port));
}

std::string TimeoutError(const std::string& wait, const std::string& server) {
  return "ERROR 410: Timed out after " + std::to_string(net_timeout) + " s " + wait + " " +
         server + "\n";
}

bool SplitConnectUrl(const char* url, std::string& host, std::string& port, std::string& path,
                     uint16_t* port_number) {
  std::string rest;
  if (!AfterSlashes(url, rest))
    return false;
  host = rest;
  if (size_t slash = host.find('/'); slash != std::string::npos)
    path = host.substr(slash);
  // The first ":" anywhere after the "//" counts, even inside the path.
  const uint16_t number = SplitPort(host, &port);
  if (port_number)
    *port_number = number;
  if (size_t slash = host.find('/'); slash != std::string::npos)
    host.resize(slash);
  return true;
}

int tcp_connect(std::string& err, const char* url, std::string& host, std::string& port,
                std::string& path) {
  err.clear();
  uint16_t port_number = kDefaultPort;
  if (!SplitConnectUrl(url, host, port, path, &port_number)) {
    err = InvalidUrl(url);
    return -1;
  }

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
  const int connected = fd < 0 ? -1 : ConnectBounded(fd, sa);
  if (connected == 0) {
    close(fd);
    err = TimeoutError("connecting to", ServerText(address, port_number));
    return -1;
  }
  if (connected < 0) {
    // The unconnected descriptor stays open until the process ends, as the
    // old client left it.
    if (fd >= 0)
      HoldUntilExit(UniqueFd(fd));
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
  const bool bounded = net_timeout > 0;
  while (left > 0) {
    // Without blocking when bounded: a piece that finds no room waits for
    // it below, within the bound; one that finds some is sent in part and
    // continued. Waiting only then costs no extra call per piece.
    ssize_t sent = send(fd, p, static_cast<size_t>(std::min(left, kSendPiece)),
                        MSG_NOSIGNAL | (bounded ? MSG_DONTWAIT : 0));
    if (sent < 0 && errno == EINTR)
      continue;
    if (sent < 0 && bounded && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      int ready = WaitReady(fd, POLLOUT, NetDeadline());
      if (ready == 0) {
        // Later sends on this connection then fail at once instead of
        // waiting out the bound again, piece after piece.
        shutdown(fd, SHUT_RDWR);
        errno = ETIMEDOUT;
      }
      if (ready <= 0)
        return -1;
      continue;
    }
    if (sent <= 0)
      return -1;
    left -= static_cast<int32_t>(sent);
    p += sent;
  }
  return 0;
}

namespace {

// True when fd has something to read (or its end) within the network
// timeout, or at once when none is set; false with errno ETIMEDOUT when the
// wait ran out, or set by poll when it failed.
bool ReadableInTime(int fd) {
  if (net_timeout <= 0)
    return true;
  const int ready = WaitReady(fd, POLLIN, NetDeadline());
  if (ready == 0)
    errno = ETIMEDOUT;
  return ready > 0;
}

}  // namespace

int readline(int fd, char* buf, int32_t size) {
  // Same bytes as receiving one at a time: peek at what has arrived, then
  // take exactly up to and including the first "\n" (or what fits). Nothing
  // beyond the stored bytes is consumed, so the next call sees the rest.
  int32_t n = 1;
  char* out = buf;
  while (n < size) {
    if (!ReadableInTime(fd))
      return -1;
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
  if (!ReadableInTime(fd))
    return -1;
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

std::string ContentLengthLine(size_t body_size) {
  return "Content-Length: " + std::to_string(body_size) + "\n\n";
}

PostResult PostRequest(std::string& err, const char* url, std::string_view head,
                       std::string_view body, const std::string& what) {
  err.clear();
  PostResult result;
  std::string host;
  std::string port;
  std::string path;
  int fd = tcp_connect(err, url, host, port, path);
  if (fd == -1 || !err.empty())
    return result;
  result.connected = true;
  result.server = PeerText(fd);
  std::string send_error;
  bool send_timed_out = false;
  if (WriteAll(fd, head.data(), head.size()) != 0 || WriteAll(fd, body.data(), body.size()) != 0) {
    send_timed_out = errno == ETIMEDOUT;
    send_error = SendError(errno, what, result.server);
  }
  // Even after a failed send the server may have said why it stopped
  // reading, so its answer is still read, unless the send ran out of time.
  AnswerReader answer(fd);
  std::string read_error;
  if (!send_timed_out) {
    answer.Drain();
    read_error = AnswerError(answer, what, result.server);
  }
  WLCleanUp(fd);
  const AnswerParser& parsed = answer.parser();
  result.status_line = parsed.status_line();
  result.has_status = parsed.HasStatus();
  result.code = parsed.code();
  if (result.has_status || send_error.empty())
    err = read_error;
  else
    err = send_error;
  return result;
}

std::string SendError(int err_no, const std::string& what, const std::string& server) {
  if (err_no == ETIMEDOUT)
    return TimeoutError("sending " + what + " to", server);
  return "ERROR 411: Connection to " + server + " lost while sending " + what + ": " +
         std::strerror(err_no) + "\n";
}

int HTTPPostHTML(std::string& err, const char* url, std::string& header, const char* body) {
  const char* text = body ? body : "";
  const std::string_view body_text(text, std::strlen(text));
  header += ContentLengthLine(body_text.size());
  return PostRequest(err, url, header, body_text, "the request").connected ? 0 : 1;
}
