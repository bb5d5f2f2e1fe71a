#pragma once
// Report upload to the build server's LogUpload service.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

#include "net/transport.h"

// Where a report goes and the job fields sent with it. The driver fills it
// from the run's settings; unset fields are empty.
struct UploadTarget {
  std::string url;            // the LogUpload address ("<server>/LogUpload")
  std::string job_name;       // form field JobName
  std::string owner;          // Owner
  std::string machine;        // Machine
  std::string public_flag;    // PublicBuildJob: "true" in any letter case sends "true"
  std::string job_date_time;  // JobDateTime
};

// Files larger than this are not uploaded (reports of hundreds of MB are
// ordinary; the whole body is held in memory once, and its length stays
// within the 32-bit count of the old protocol).
inline constexpr int64_t kMaxUploadSize = int64_t{1} << 30;

// Open `path` for reading only when it is a regular file of at most
// `max_size` bytes (opened without blocking first, so a FIFO is never
// waited on). Null otherwise, with `why` "" (it cannot be opened), "stat"
// (its status cannot be read), "not a regular file" or "<n> bytes, more
// than the limit of <max_size>". `size`, when given, receives the size.
// The caller closes the stream.
FILE* OpenRegularFile(const char* path, int64_t max_size, std::string& why,
                      int64_t* size = nullptr);

// The multipart body for a file named `filename` with `content`: the five
// job fields, the file part and the closing line. Text in, text out.
std::string UploadBody(const UploadTarget& target, const char* filename, std::string_view content);

// The ERROR line for an upload of `path` whose answer was not a success:
//   "ERROR 409: Upload of <path> refused by <server>: <status line>\n" when
// the status is not 2xx, "ERROR 409: Upload of <path> got no status line
// from <server>\n" when the answer had none; "" for a 2xx answer. Control
// characters of the status line are shown as "?".
std::string JudgeUploadAnswer(const char* path, const PostResult& result);

// One warning line (without "\n") when the server base URL names no port,
// "" otherwise (and for a URL without "//"): the "Host:" header then
// carries the URL's path, which proxies refuse.
std::string MissingPortWarning(const std::string& server);

// Post the file at `path` as a multipart form to target.url. The request
// line is always "POST /weftlane/LogUpload HTTP/1.1" whatever path the URL
// carries; the "Host:" header is built by getHostPort, so a URL without a
// port carries its path in that header. The file is the form's file name,
// with '"', CR and LF written as %22, %0D and %0A.
//
// Prints, on standard output: "LogUrl=<url>" first; then either "Could not
// open <path> for upload" (a missing or unreadable file, or one that is not
// a regular file, which the line says; nothing sent), "Could not stat
// <path>", a line saying the file is larger than kMaxUploadSize, or, after
// the post, the error text followed by "\n" (an empty line after a
// successful post). The error text is the transport's (PostRequest, with
// the path as what was sent) or, when the answer is not a 2xx success, that
// of JudgeUploadAnswer. No result: callers never see a failure.
//
// The file is read as text in pieces of at most 9999 bytes (a line, or part
// of a long one); each piece is taken up to its first NUL byte, so what
// follows a NUL within a piece is not sent. The body is held once in memory.
void UploadFile(const UploadTarget& target, const char* path);
