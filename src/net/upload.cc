#include "net/upload.h"

#include <sys/stat.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <string>

#include "driver/settings.h"
#include "net/form.h"
#include "net/transport.h"

namespace {

// Room the body gets beyond the file for the form parts around it.
constexpr size_t kBodyAllowance = 2000;
// The file is read in pieces of at most this many bytes minus one.
constexpr int kPieceBuffer = 10000;

}  // namespace

void UploadFile(const char* path) {
  std::printf("LogUrl=%s\n", LogURL.c_str());

  // A bad URL is not acted on here: the request is still built (with empty
  // host and port) and the connection attempt reports the same URL error.
  std::string err;
  std::string host;
  std::string port;
  getHostPort(err, LogURL.c_str(), host, port);

  FILE* file = std::fopen(path, "re");
  if (!file) {
    std::printf("Could not open %s for upload\n", path);
    return;
  }
  struct stat st;
  if (fstat(fileno(file), &st) != 0) {
    // The file stays open on this path; the old client did the same.
    std::printf("Could not stat %s\n", path);
    return;
  }

  std::string body;
  body.reserve(static_cast<size_t>(st.st_size > 0 ? st.st_size : 0) + kBodyAllowance);
  std::string header = UploadHeader(host, port);
  AppendUploadFields(body, TaskName, LogOwner, MachineLabel, PublicBuildJob, JobDateTime);
  body += kFormDelimiterLine;
  AppendFilePartHead(body, path);
  std::array<char, kPieceBuffer> piece;
  while (std::fgets(piece.data(), kPieceBuffer, file)) {
    // Text semantics: a piece ends at its first NUL.
    body.append(piece.data(), std::strlen(piece.data()));
  }
  body += "\r\n";
  body += kFormClosingLine;
  std::fclose(file);

  (void)HTTPPostHTML(err, LogURL.c_str(), header, body.c_str());  // outcome shows in err
  std::string().swap(body);
  std::printf("%s\n", err.c_str());
}
