#include "net/answer.h"

#include <poll.h>
#include <sys/socket.h>

#include <cctype>
#include <cerrno>
#include <cstring>

#include "net/transport.h"
#include "support/strings.h"

namespace {

bool HeaderIs(const std::string& line, const char* name) {
  const size_t n = std::strlen(name);
  if (line.size() <= n || line[n] != ':')
    return false;
  for (size_t i = 0; i < n; ++i) {
    if (std::tolower(static_cast<unsigned char>(line[i])) != name[i])
      return false;
  }
  return true;
}

// The header's value without blanks around it, in lower case.
std::string HeaderValue(const std::string& line) {
  size_t begin = line.find(':') + 1;
  size_t end = line.size();
  while (begin < end && (line[begin] == ' ' || line[begin] == '\t'))
    ++begin;
  while (end > begin && (line[end - 1] == ' ' || line[end - 1] == '\t'))
    --end;
  std::string value = line.substr(begin, end - begin);
  for (char& c : value)
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return value;
}

// Decimal digits only, no overflow; nothing else counts as a length.
std::optional<uint64_t> Decimal(const std::string& text) { return DecimalValue(text, 18); }

// The hexadecimal size at the front of a chunk-size line (extensions after
// ";" ignored); none when there are no digits or too many.
std::optional<uint64_t> ChunkSize(const std::string& line) {
  uint64_t value = 0;
  size_t digits = 0;
  for (char c : line) {
    int d = (c >= '0' && c <= '9')   ? c - '0'
            : (c >= 'a' && c <= 'f') ? c - 'a' + 10
            : (c >= 'A' && c <= 'F') ? c - 'A' + 10
                                     : -1;
    if (d < 0)
      break;
    if (++digits > 15)
      return std::nullopt;
    value = value * 16 + static_cast<uint64_t>(d);
  }
  if (digits == 0)
    return std::nullopt;
  return value;
}

}  // namespace

void AnswerParser::Feed(char c) {
  switch (state_) {
    case State::kBody:
    case State::kChunkData:
      if (--left_ == 0)
        state_ = state_ == State::kBody ? State::kDone : State::kChunkEnd;
      return;
    case State::kChunkEnd:
      if (c == '\n')
        state_ = State::kChunkSize;
      return;
    case State::kUntilClose:
    case State::kDone:
      return;
    case State::kStatus:
    case State::kHeaders:
    case State::kChunkSize:
    case State::kTrailers:
      if (c == '\n') {
        EndOfLine();
        line_.clear();
      } else if (line_.size() < kMaxKeptLine) {
        line_ += c;
      }
      return;
  }
}

void AnswerParser::EndOfLine() {
  if (!line_.empty() && line_.back() == '\r')
    line_.pop_back();
  switch (state_) {
    case State::kStatus: {
      status_line_ = line_;
      code_ = -1;
      content_length_.reset();
      chunked_ = length_invalid_ = false;
      if (line_.starts_with("HTTP/")) {
        size_t blank = line_.find(' ');
        if (blank != std::string::npos && line_.size() >= blank + 4 &&
            std::isdigit(static_cast<unsigned char>(line_[blank + 1])) &&
            std::isdigit(static_cast<unsigned char>(line_[blank + 2])) &&
            std::isdigit(static_cast<unsigned char>(line_[blank + 3])) &&
            (line_.size() == blank + 4 || line_[blank + 4] == ' ')) {
          code_ = std::stoi(line_.substr(blank + 1, 3));
        }
      }
      // Without a status line there is no header block to frame the rest.
      state_ = code_ >= 0 ? State::kHeaders : State::kUntilClose;
      return;
    }
    case State::kHeaders:
      if (line_.empty()) {
        EndOfHeaders();
      } else if (HeaderIs(line_, "content-length")) {
        auto n = Decimal(HeaderValue(line_));
        if (!n || (content_length_ && *content_length_ != *n))
          length_invalid_ = true;
        content_length_ = n;
      } else if (HeaderIs(line_, "transfer-encoding")) {
        std::string value = HeaderValue(line_);
        chunked_ = value.size() >= 7 && value.ends_with("chunked");
      }
      return;
    case State::kChunkSize: {
      auto size = ChunkSize(line_);
      if (!size) {
        state_ = State::kUntilClose;  // not chunked after all; take what comes
      } else if (*size == 0) {
        state_ = State::kTrailers;
      } else {
        left_ = *size;
        state_ = State::kChunkData;
      }
      return;
    }
    case State::kTrailers:
      if (line_.empty())
        state_ = State::kDone;
      return;
    default:
      return;
  }
}

void AnswerParser::EndOfHeaders() {
  if (code_ >= 100 && code_ < 200 && code_ != 101) {
    state_ = State::kStatus;  // an interim answer; the final one follows
  } else if (code_ == 204 || code_ == 304) {
    state_ = State::kDone;
  } else if (chunked_) {
    state_ = State::kChunkSize;
  } else if (content_length_ && !length_invalid_) {
    left_ = *content_length_;
    state_ = left_ == 0 ? State::kDone : State::kBody;
  } else {
    state_ = State::kUntilClose;
  }
}

std::string AnswerError(const AnswerReader& answer, const std::string& what,
                        const std::string& server) {
  if (answer.TimedOut())
    return TimeoutError("waiting for the answer to " + what + " from", server);
  if (answer.error() != 0)
    return "ERROR 411: Connection to " + server + " lost while reading the answer to " + what +
           ": " + std::strerror(answer.error()) + "\n";
  if (!answer.Any())
    return "ERROR 412: No answer from " + server + " to " + what + "\n";
  if (answer.Short())
    return "ERROR 412: Short answer from " + server + " to " + what + "\n";
  return "";
}

AnswerReader::AnswerReader(int fd) : fd_(fd), deadline_(NetDeadline()) {}

int AnswerReader::Next() {
  if (pos_ == len_) {
    if (closed_)
      return -1;
    if (errno_ != 0)
      return -2;
    for (;;) {
      int ready = WaitReady(fd_, POLLIN, deadline_);
      if (ready == 0) {
        timed_out_ = true;
        errno_ = ETIMEDOUT;
        return -2;
      }
      ssize_t got = ready < 0 ? -1 : recv(fd_, buf_, sizeof buf_, 0);
      if (got < 0 && errno == EINTR)
        continue;
      if (got < 0) {
        errno_ = errno;
        return -2;
      }
      if (got == 0) {
        closed_ = true;
        return -1;
      }
      pos_ = 0;
      len_ = static_cast<size_t>(got);
      break;
    }
  }
  return static_cast<unsigned char>(buf_[pos_++]);
}

int AnswerReader::Line(char* buf, int32_t size) {
  if (size <= 1) {
    buf[0] = '\0';
    return 1;
  }
  int32_t stored = 0;
  while (stored < size - 1 && !parser_.Complete()) {
    int c = Next();
    if (c == -2)
      return -1;
    if (c == -1)
      break;
    any_ = true;
    parser_.Feed(static_cast<char>(c));
    buf[stored++] = static_cast<char>(c);
    if (c == '\n') {
      buf[stored] = '\0';
      return stored;
    }
  }
  if (stored == 0 && (parser_.Complete() || closed_))
    return 0;
  buf[stored] = '\0';
  return stored + 1;
}

bool AnswerReader::Drain() {
  char line[2048];
  int n;
  while ((n = Line(line, sizeof line)) > 0) {
  }
  return n == 0;
}
