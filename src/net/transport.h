#pragma once
// A minimal, blocking HTTP/1.x client over IPv4 TCP sockets.
//
// Error text convention for the whole net subsystem: every operation that can
// fail takes the caller's `std::string& err` as its first argument. The
// operation first clears it; on failure it holds one message that begins with
// "ERROR", a three-digit number and a colon, and ends with "\n". An empty
// `err` after the call means success. The transport prints nothing except
// the one perror line of a failed socket(); callers decide whether to print
// `err`.
//
// Host, port and path outputs are `std::string&` as well, so no URL can
// overflow them; for URLs of ordinary length the texts are exactly those of
// the old fixed buffers.
//
// URL form: any text containing "//". What follows the first "//" is host,
// then optionally ":" and a port, then optionally a path beginning with "/".
// The scheme before "//" is never looked at: everything is plain TCP. The
// port defaults to 8080; a port text is read like atoi (leading digits, 0
// when none) and reduced modulo 65536.
//
// Waits are bounded by the network timeout (SetNetTimeout, default 300 s; 0
// waits forever as the old client did): the connect, every send and every
// receive. A wait that runs out is reported as
//   "ERROR 410: Timed out after <n> s <wait> <server>\n"
// where <server> is "<a.b.c.d> on port <n>" as in ERROR 401. The name
// lookup is not bounded. Sends use MSG_NOSIGNAL, so a peer that closes early
// makes a send fail instead of raising SIGPIPE.
//
// Not thread-safe: `h` points into the resolver's static storage.

#include <netdb.h>
#include <poll.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

// Host entry of the most recent name lookup (the resolver's own static
// result; not owned, never freed). Null when that lookup failed.
extern struct hostent* h;
// Set to 1 by every lookup. Nothing reads it; lookups are not cached.
extern int DoneGetHostByName;

// The name lookup tcp_connect uses; gethostbyname unless replaced. Tests
// point it at a fake so that no lookup ever leaves the machine.
using HostLookupFn = struct hostent* (*)(const char* name);
extern HostLookupFn wl_host_lookup;

// Default port when the URL names none.
inline constexpr uint16_t kDefaultPort = 8080;

// Network timeout in seconds: the bound of every wait of the net subsystem.
// 0 means no bound. The program sets it from WEFTLANE_TIMEOUT; library
// users call SetNetTimeout themselves or keep the default.
inline constexpr int kDefaultNetTimeout = 300;
// The largest bound: poll counts milliseconds in an int.
inline constexpr int kMaxNetTimeout = 2000000;
void SetNetTimeout(int seconds);
int NetTimeout();
// A WEFTLANE_TIMEOUT text: decimal digits only (blanks around them
// allowed), at most kMaxNetTimeout. None for anything else.
std::optional<int> ParseNetTimeout(const char* text);

// Set the network timeout from a WEFTLANE_TIMEOUT value: null or blank
// (unset) gives the default; a value ParseNetTimeout refuses also gives the default and
// the result is the warning line (without "\n") to print:
//   "WARNING: WEFTLANE_TIMEOUT <value> is not a number of seconds from 0 to
//    2000000; waiting at most 300 s"
// "" otherwise.
std::string SetNetTimeoutFrom(const char* value);

// The moment the current bound ends when counted from now; none without a
// bound.
using NetClock = std::chrono::steady_clock;
std::optional<NetClock::time_point> NetDeadline();
// Wait until `fd` is ready for `events` (POLLIN or POLLOUT) or `deadline`
// passes: 1 ready (or in error, which the next call reports), 0 timed out,
// -1 when poll fails. Survives signals.
int WaitReady(int fd, short events, std::optional<NetClock::time_point> deadline);
// "<a.b.c.d> on port <n>" of the connection's peer, "the server" when the
// peer is unknown.
std::string PeerText(int fd);
// "ERROR 410: Timed out after <NetTimeout()> s <wait> <server>\n".
std::string TimeoutError(const std::string& wait, const std::string& server);

// Port of a port text: atoi-style leading digits (optional blanks and sign),
// 0 when there are none, reduced modulo 65536.
uint16_t PortFromText(const char* text);

// The split of tcp_connect below without the connection: false (nothing
// written) when the URL has no "//". `port_number`, when given, receives
// the port to connect to.
bool SplitConnectUrl(const char* url, std::string& host, std::string& port, std::string& path,
                     uint16_t* port_number = nullptr);

// Split `url` for a connection and connect to it.
//   - No "//" in the URL: err = "ERROR 404: Invalid URL <url>\n", -1.
//   - `host` receives the host (cut at the first ":" and then at the first
//     "/").
//   - `path` receives the text from the first "/" after the "//" to the end;
//     when there is none, `path` is left exactly as the caller gave it.
//   - `port` receives the text after the first ":" after the "//" (path
//     included), cut at its first "/"; when there is no ":", `port` is not
//     written (and the port is 8080).
//   - The host is looked up by name, then as a dotted quad; when both fail,
//     err = "ERROR 408: Invalid host name\n", -1.
//   - A failed connect gives err = "ERROR 401: Could not connect to <a.b.c.d>
//     on port <n>\n" and -1; the unconnected descriptor is kept open
//     until the process ends (HoldUntilExit), as the old client left it.
//   - A connect that outlasts the network timeout gives err = "ERROR 410:
//     Timed out after <n> s connecting to <a.b.c.d> on port <n>\n" and -1;
//     the descriptor is closed.
// Returns the connected, blocking socket; the caller closes it with
// WLCleanUp.
int tcp_connect(std::string& err, const char* url, std::string& host, std::string& port,
                std::string& path);

// Split `url` only to obtain the texts of a "Host:" header; no connection.
// Differs from tcp_connect on purpose: the host is cut at ":" but never at
// "/" (server/a/b after the "//" gives host "server/a/b"), and `port` is
// always overwritten with the port as decimal text ("8080" when the URL
// names none). No "//": err = "ERROR 404: Invalid URL <url>\n" and `host` and
// `port` are left untouched.
void getHostPort(std::string& err, const char* url, std::string& host, std::string& port);

// Send `len` bytes of `data` in pieces of at most 1024 bytes, retrying a
// piece interrupted by a signal. 0 when everything was sent (or len <= 0),
// -1 on error; when a piece could not be sent within the network timeout,
// -1 with errno ETIMEDOUT, and the connection is shut down (both ways) so
// that later sends and receives on it fail at once.
int writen(int fd, const void* data, int32_t len);

// writen for any size_t length (slices of at most 1 GiB; the pieces on the
// wire are still 1024 bytes). 0 when everything was sent, -1 on error.
int WriteAll(int fd, const char* data, size_t size);

// Read one line, storing at most size - 1 bytes and a terminating NUL.
// Result:
//   - line ended by "\n": the number of bytes stored, "\n" included;
//   - stream ended after k > 0 bytes without "\n": k + 1;
//   - buffer full: `size` (size - 1 bytes stored; the rest of the line stays
//     in the socket for the next call);
//   - stream ended before any byte: 0, and `buf` is left untouched (not even
//     terminated);
//   - receive error other than EINTR: -1; no byte within the network
//     timeout: -1 with errno ETIMEDOUT.
// A "\r" before the "\n" is kept. With size <= 1 nothing is read: buf[0]
// becomes NUL and the result is 1 (buf must hold at least one byte).
// Never consumes more bytes from the socket than it stores.
int readline(int fd, char* buf, int32_t size);

// One read of up to 60000 bytes into a local buffer, dropped. The count, 0
// at end of stream, -1 on error.
int readlineAndDiscard(int fd);

// Close `fd`; always 0.
int WLCleanUp(int fd);

// The error text for a send of `what` to `server` that failed with
// `err_no`: "ERROR 410: Timed out after <n> s sending <what> to <server>\n"
// for ETIMEDOUT, otherwise "ERROR 411: Connection to <server> lost while
// sending <what>: <strerror>\n".
std::string SendError(int err_no, const std::string& what, const std::string& server);

// "Content-Length: <n>\n\n": the line HTTPPostHTML ends a header block with.
std::string ContentLengthLine(size_t body_size);

// What became of one request sent by PostRequest.
struct PostResult {
  bool connected = false;
  std::string server;       // PeerText of the connection
  std::string status_line;  // first line of the answer, "" when none came
  bool has_status = false;  // that line is an HTTP status line
  int code = -1;            // its status code
};

// Connect to `url`, send `head` and then `body`, read the answer to its end
// (net/answer.h), close. `err` gets the connection's error (as
// tcp_connect), or, when no status line came back, the first of:
//   "ERROR 410: Timed out after <n> s sending <what> to <server>\n",
//   "ERROR 411: Connection to <server> lost while sending <what>: <reason>\n",
//   "ERROR 410: Timed out after <n> s waiting for the answer to <what> from
//    <server>\n",
//   "ERROR 411: Connection to <server> lost while reading the answer to
//    <what>: <reason>\n",
//   "ERROR 412: No answer from <server> to <what>\n" (closed at once),
// and, with a status line, only "ERROR 412: Short answer from <server> to
// <what>\n" when the peer closed before the answer's announced end, or the
// time-out and loss messages for the answer. The status is not judged here.
PostResult PostRequest(std::string& err, const char* url, std::string_view head,
                       std::string_view body, const std::string& what);

// Send a prepared request and drain the answer. Connects to `url`; appends
// ContentLengthLine(strlen(body)) to `header` (the caller's text is changed
// in place); sends the header, then `body` up to its first NUL; reads the
// answer to its end (the status is not looked at) and closes: PostRequest
// with <what> "the request". 0 when a connection was made, whatever the
// writes and the answer did (`err` names a wait that ran out, a lost
// connection or a missing answer); 1 when none was made (`err` holds the
// reason).
int HTTPPostHTML(std::string& err, const char* url, std::string& header, const char* body);
