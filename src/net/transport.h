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
// Nothing here times out: every call blocks until the peer or the operating
// system gives up. Sends use MSG_NOSIGNAL, so a peer that closes early makes
// a send fail instead of raising SIGPIPE.
//
// Not thread-safe: `h` points into the resolver's static storage.

#include <netdb.h>

#include <cstddef>
#include <cstdint>
#include <string>

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

// Port of a port text: atoi-style leading digits (optional blanks and sign),
// 0 when there are none, reduced modulo 65536.
uint16_t PortFromText(const char* text);

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
//     on port <n>\n" and -1; the unconnected descriptor is deliberately left
//     open (the old client did so).
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
// -1 on error.
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
//   - receive error other than EINTR: -1.
// A "\r" before the "\n" is kept. With size <= 1 nothing is read: buf[0]
// becomes NUL and the result is 1 (buf must hold at least one byte).
// Never consumes more bytes from the socket than it stores.
int readline(int fd, char* buf, int32_t size);

// One read of up to 60000 bytes into a local buffer, dropped. The count, 0
// at end of stream, -1 on error.
int readlineAndDiscard(int fd);

// Close `fd`; always 0.
int WLCleanUp(int fd);

// Send a prepared request and drain the answer. Connects to `url`; appends
// "Content-Length: <strlen(body)>\n\n" to `header` (the caller's text is
// changed in place); sends the header, then `body` up to its first NUL; reads
// the answer line by line to its end, discarding it (the status is not
// looked at); closes. 0 when a connection was made, whatever the writes and
// the answer did; 1 when none was made (`err` holds the reason).
int HTTPPostHTML(std::string& err, const char* url, std::string& header, const char* body);
