#include "net/upload.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstring>

#include "net/form.h"
#include "support/handles.h"

namespace {

// Room the body gets beyond the file for the form parts around it.
constexpr size_t kBodyAllowance = 2000;
// The file is read in pieces of at most this many bytes minus one.
constexpr int kPieceBuffer = 10000;

void AppendBodyHead(std::string& body, const UploadTarget& target, const char* filename) {
  AppendUploadFields(body, target.job_name.c_str(), target.owner.c_str(), target.machine.c_str(),
                     target.public_flag.c_str(), target.job_date_time.c_str());
  body += kFormDelimiterLine;
  AppendFilePartHead(body, filename);
}

void AppendBodyTail(std::string& body) {
  body += "\r\n";
  body += kFormClosingLine;
}

// Open `path` for the upload, or print why not and return null.
FILE* OpenUpload(const char* path, int64_t& size) {
  std::string why;
  FILE* file = OpenRegularFile(path, kMaxUploadSize, why, &size);
  if (file)
    return file;
  if (why == "stat")
    std::printf("Could not stat %s\n", path);
  else if (why.empty())
    std::printf("Could not open %s for upload\n", path);
  else
    std::printf("Could not open %s for upload: %s\n", path, why.c_str());
  return nullptr;
}

}  // namespace

FILE* OpenRegularFile(const char* path, int64_t max_size, std::string& why, int64_t* size) {
  why.clear();
  // Without blocking, so that a FIFO under the name is examined, not waited on.
  UniqueFd fd(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (fd.get() < 0)
    return nullptr;
  struct stat st;
  if (fstat(fd.get(), &st) != 0) {
    why = "stat";
    return nullptr;
  }
  if (!S_ISREG(st.st_mode)) {
    why = "not a regular file";
    return nullptr;
  }
  if (st.st_size > max_size) {
    why = std::to_string(st.st_size) + " bytes, more than the limit of " + std::to_string(max_size);
    return nullptr;
  }
  fcntl(fd.get(), F_SETFL, fcntl(fd.get(), F_GETFL) & ~O_NONBLOCK);
  FILE* file = fdopen(fd.get(), "r");
  if (!file)
    return nullptr;
  fd.Release();
  if (size)
    *size = st.st_size;
  return file;
}

std::string UploadBody(const UploadTarget& target, const char* filename,
                       std::string_view content) {
  std::string body;
  AppendBodyHead(body, target, filename);
  body += content;
  AppendBodyTail(body);
  return body;
}

std::string JudgeUploadAnswer(const char* path, const PostResult& result) {
  if (!result.has_status)
    return std::string("ERROR 409: Upload of ") + path + " got no status line from " +
           result.server + "\n";
  if (result.code >= 200 && result.code < 300)
    return "";
  std::string status = result.status_line;
  for (char& c : status) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f)
      c = '?';
  }
  return std::string("ERROR 409: Upload of ") + path + " refused by " + result.server + ": " +
         status + "\n";
}

std::string MissingPortWarning(const std::string& server) {
  const size_t slashes = server.find("//");
  if (slashes == std::string::npos)
    return "";
  const std::string rest = server.substr(slashes + 2);
  if (rest.find(':') != std::string::npos)
    return "";
  const size_t slash = rest.find('/');
  const std::string host = rest.substr(0, slash);
  const std::string path = slash == std::string::npos ? "" : rest.substr(slash);
  return "WARNING: WEFTLANE_SERVER " + server + " names no port: uploads go to port " +
         std::to_string(kDefaultPort) + " with the header \"Host: " + rest + "/LogUpload:" +
         std::to_string(kDefaultPort) + "\", which proxies refuse; set it to " +
         server.substr(0, slashes + 2) + host + ":" + std::to_string(kDefaultPort) + path;
}

void UploadFile(const UploadTarget& target, const char* path) {
  const char* url = target.url.c_str();
  std::printf("LogUrl=%s\n", url);

  // A bad URL is not acted on here: the request is still built (with empty
  // host and port) and the connection attempt reports the same URL error.
  std::string err;
  std::string host;
  std::string port;
  getHostPort(err, url, host, port);

  int64_t size = 0;
  UniqueFile file(OpenUpload(path, size));
  if (!file)
    return;

  std::string body;
  body.reserve(static_cast<size_t>(size) + kBodyAllowance);
  std::string header = UploadHeader(host, port);
  AppendBodyHead(body, target, path);
  std::array<char, kPieceBuffer> piece;
  // Never more than the limit, even from a file that grows while read.
  while (body.size() < static_cast<size_t>(kMaxUploadSize) + kBodyAllowance &&
         std::fgets(piece.data(), kPieceBuffer, file.get())) {
    // Text semantics: a piece ends at its first NUL.
    body.append(piece.data(), std::strlen(piece.data()));
  }
  AppendBodyTail(body);
  file.reset();

  header += ContentLengthLine(body.size());
  const PostResult result = PostRequest(err, url, header, body, path);
  if (result.connected && err.empty())
    err = JudgeUploadAnswer(path, result);
  std::string().swap(body);
  std::printf("%s\n", err.c_str());
}
