#include "net/transfer.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "net/answer.h"
#include "net/soap.h"
#include "net/transport.h"
#include "net/upload.h"
#include "support/handles.h"
#include "support/strings.h"

namespace {

constexpr int32_t kGetLine = 60000;
constexpr int kPostLine = 2048;
constexpr size_t kPostBlock = 64 * 1024;  // body bytes per send of HTTPPost
constexpr int32_t kAnswerLine = 2048;
constexpr char kNotFoundPage[] = "<head><title>Not Found (404)";
constexpr size_t kNotFoundCompared = 25;

// The text up to its first NUL.
void AppendText(std::string& out, const char* text) { out.append(text, std::strlen(text)); }

// Judge one header line of a GET answer; only status lines are looked at.
void JudgeHeaderLine(std::string& err, const char* line) {
  if (!IsNEqual(line, "HTTP", 4, 0))
    return;
  if (std::strstr(line, " 404")) {
    err = std::string("ERROR 404: file not found, ") + line + "\n";
  } else if (!std::strstr(line, " 200")) {
    err = std::string("ERROR 401: http connect error, ") + line + "\n";
  }
}

bool GetOverHttp(std::string& err, const char* source, std::string& result) {
  std::string url = OrEmpty(source);
  ReplaceStr(url, " ", "%20", 1);
  std::string host;
  std::string port;
  std::string path;
  int fd = tcp_connect(err, url.c_str(), host, port, path);
  if (fd < 0)
    return false;
  const std::string request = GetRequest(path);
  const std::string server = PeerText(fd);
  if (WriteAll(fd, request.data(), request.size()) != 0 && errno == ETIMEDOUT) {
    err = SendError(ETIMEDOUT, "the request for " + path, server);
    WLCleanUp(fd);
    return true;
  }
  AnswerReader answer(fd);
  std::vector<char> line(kGetLine);
  bool in_header = true;
  while (answer.Line(line.data(), kGetLine) >= 1) {
    if (in_header) {
      const char first = line[0];
      if (first == '\0' || first == '\n' || first == '\r') {
        in_header = false;
      } else {
        JudgeHeaderLine(err, line.data());
      }
      continue;
    }
    AppendText(result, line.data());
  }
  // A wait that ran out or a lost connection wins over the status judged
  // above; the content read so far still goes back.
  if (answer.TimedOut() || answer.error() != 0)
    err = AnswerError(answer, "the request for " + path, server);
  WLCleanUp(fd);
  return true;
}

bool GetFromFile(const char* source, std::string& result) {
  std::string why;
  FILE* file = OpenRegularFile(OrEmpty(source), kMaxUploadSize, why);
  if (!file)
    return false;
  std::vector<char> buffer(kGetLine);
  std::setvbuf(file, buffer.data(), _IOFBF, buffer.size());
  std::vector<char> piece(kGetLine);
  while (std::fgets(piece.data(), kGetLine, file))
    AppendText(result, piece.data());
  std::fclose(file);  // before `buffer` goes away
  return true;
}

}  // namespace

std::string GetRequest(const std::string& path) { return "GET " + path + " HTTP/1.0\n" + "\n\n"; }

char* HTTPGet(std::string& err, const char* source) {
  err.clear();
  std::string result;
  const bool ok = IsNEqual(OrEmpty(source), "http://", 7, 1) ? GetOverHttp(err, source, result)
                                                             : GetFromFile(source, result);
  if (!ok)
    return nullptr;
  if (CompareToN(result.c_str(), kNotFoundPage, kNotFoundCompared, 0) == 0)
    return nullptr;
  char* text = nullptr;
  safe_cpy(&text, result.c_str());
  return text;
}

int HTTPPost(std::string& err, const char* url, const char* path) {
  err.clear();
  std::string host;
  std::string port;
  std::string url_path;
  int fd = tcp_connect(err, OrEmpty(url), host, port, url_path);
  std::string why;
  FILE* file = OpenRegularFile(OrEmpty(path), kMaxUploadSize, why);
  if (!file) {
    if (why.empty() || why == "stat")
      std::printf("ERROR 11: Could not read dependency file %s\n", OrEmpty(path));
    else
      std::printf("ERROR 11: Could not read dependency file %s: %s\n", OrEmpty(path), why.c_str());
    if (fd >= 0)
      WLCleanUp(fd);
    return 7;
  }
  std::vector<char> line(kPostLine);
  long total = 0;
  while (std::fgets(line.data(), kPostLine, file)) {
    total += static_cast<long>(std::strlen(StripChar(line.data(), "\r\n", 2)));
  }
  std::rewind(file);
  const std::string header = SoapRequestHeader(url_path, host, port, total + 1);
  int sent = WriteAll(fd, header.data(), header.size());
  // The stripped lines go out in blocks, not a send per line.
  std::string block;
  while (sent == 0 && std::fgets(line.data(), kPostLine, file)) {
    block += StripChar(line.data(), "\r\n", 2);
    if (block.size() >= kPostBlock) {
      sent = WriteAll(fd, block.data(), block.size());
      block.clear();
    }
  }
  if (sent == 0 && !block.empty())
    sent = WriteAll(fd, block.data(), block.size());
  if (sent == 0)
    sent = writen(fd, "\n\n", 2);
  if (fd >= 0) {
    // A failed connection left its message in `err` and sends nothing; on
    // a made one, waits that ran out and lost connections are named.
    const std::string server = PeerText(fd);
    if (sent != 0 && errno == ETIMEDOUT) {
      err = SendError(ETIMEDOUT, OrEmpty(path), server);
    } else {
      AnswerReader answer(fd);
      std::vector<char> scratch(kAnswerLine);
      while (answer.Line(scratch.data(), kAnswerLine) > 0) {
      }
      if (answer.TimedOut() || answer.error() != 0)
        err = AnswerError(answer, OrEmpty(path), server);
    }
    WLCleanUp(fd);
  }
  // The posted file stays open until the process ends, as the old client
  // left it.
  HoldUntilExit(UniqueFile(file));
  return 0;
}
