#pragma once
// Plain HTTP file transfer over the transport of net/transport.h.
//
// Error text: as everywhere in net/ (see net/transport.h). Not thread-safe.

#include <string>

// The request of HTTPGet: "GET <path> HTTP/1.0\n" and "\n\n".
std::string GetRequest(const std::string& path);

// Fetch a text resource and return it as a new safe string that the caller
// releases with safe_free, or null.
//   - `source` beginning with "http://" (exactly so, lower case): every blank
//     is written as "%20", the server is asked with "GET <path> HTTP/1.0\n"
//     followed by "\n\n" (no other header), and the answer's body (what
//     follows the first empty line, or the first line beginning with NUL,
//     "\n" or "\r") is returned, its lines each taken up to their first NUL.
//     A status line (a header line beginning with "HTTP" in any case) that
//     holds neither " 200" nor " 404" sets err to
//     "ERROR 401: http connect error, <line>" and one holding " 404" to
//     "ERROR 404: file not found, <line>", <line> being the line as received
//     (line end included) and "\n" following; the body is still returned.
//     No connection: null, with the transport's message in err.
//   - anything else (an "HTTP://" URL included) is read as a local file
//     name, in pieces of at most 59999 bytes each taken up to its first NUL;
//     a file that cannot be opened, or that is not a regular file of at most
//     1 GiB (kMaxUploadSize), gives null and no message.
// A text that begins with the not-found page "<head><title>Not Found (4"
// (first 25 characters, any letter case) is dropped: null.
// The answer is read to the end its framing announces (net/answer.h) and
// held whole in memory; a wait that ran out or a lost connection replaces
// err with its message (what was read still comes back).
char* HTTPGet(std::string& err, const char* source);

// Send the local text file `path` to `url` with the SOAP-style request
// header of net/soap.h. The file is read in lines of at most 2047 bytes;
// "\r" and "\n" are stripped from both ends of each (StripChar mode 2) and
// the lines are sent one after the other with nothing between them, then
// "\n\n". The stated Content-Length is the sum of the stripped lengths + 1.
// The answer is read to its end and dropped. The connection's failure is
// not looked at (sends then fail silently; err says why); on a made
// connection a wait that ran out or a lost connection is named in err. The
// file stays open until the process ends (HoldUntilExit), as in the old
// client.
// Result: 0 after sending; 7 when the file cannot be opened, after printing
// "ERROR 11: Could not read dependency file <path>" on standard output (the
// connection is then closed unused). A file that is not a regular file of at
// most 1 GiB is not read either: the line then ends ": not a regular file"
// or ": <n> bytes, more than the limit of 1073741824".
int HTTPPost(std::string& err, const char* url, const char* path);
