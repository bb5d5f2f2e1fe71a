#pragma once
// Reading an HTTP answer to its own end.
//
// A server may keep a connection open after its answer (a proxy's
// keep-alive, for instance), so reading until the peer closes can wait for
// minutes. The answer says where it ends: after the header block, a
// Content-Length body, or a chunked body up to its last chunk and trailer;
// only an answer that announces neither runs until the close. Interim 1xx
// answers are read through to the final one; 204 and 304 have no body.
//
// AnswerParser is the pure part (bytes in, state out); AnswerReader puts it
// on a socket and hands the bytes out with readline's results, stopping
// where the answer ends, all within one time bound.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

// Follows the framing of one answer, one byte at a time.
class AnswerParser {
 public:
  // Take the next byte of the answer. Bytes after Complete() are not
  // looked at.
  void Feed(char c);
  // The answer has reached the end its framing announces.
  bool Complete() const { return state_ == State::kDone; }
  // The status line and the header block have been read (so a close now
  // ends an answer that runs until the close, and cuts any other short).
  bool HeadersRead() const { return state_ != State::kStatus && state_ != State::kHeaders; }
  // The answer runs until the peer closes.
  bool UntilClose() const { return state_ == State::kUntilClose; }
  // The first line of the final answer without its line end ("" before it
  // is read); at most kMaxKeptLine bytes of it are kept.
  const std::string& status_line() const { return status_line_; }
  // The status line began "HTTP/" and carried a three-digit code.
  bool HasStatus() const { return code_ >= 0; }
  // The status code, -1 without a proper status line.
  int code() const { return code_; }

  static constexpr size_t kMaxKeptLine = 1024;

 private:
  enum class State {
    kStatus, kHeaders, kBody, kChunkSize, kChunkData, kChunkEnd, kTrailers, kUntilClose, kDone
  };
  void EndOfLine();
  void EndOfHeaders();

  State state_ = State::kStatus;
  std::string line_;  // the current status, header, chunk-size or trailer line
  std::string status_line_;
  int code_ = -1;
  std::optional<uint64_t> content_length_;
  bool chunked_ = false;
  bool length_invalid_ = false;
  uint64_t left_ = 0;  // bytes of the body or of the chunk still to come
};

// One answer on a connection, read within one bound of the network timeout
// (net/transport.h) counted from the reader's construction, so neither a
// silent nor a trickling server can hold it longer.
class AnswerReader {
 public:
  explicit AnswerReader(int fd);

  // readline's results (net/transport.h), with the end of the answer taken
  // as the end of the stream: a positive count, 0 when the answer (or the
  // stream) has ended before any byte, -1 when the time ran out or the
  // receive failed (see TimedOut and error()).
  int Line(char* buf, int32_t size);
  // Read and drop the rest of the answer; false on a time-out or an error.
  bool Drain();

  const AnswerParser& parser() const { return parser_; }
  // Any byte of an answer has arrived.
  bool Any() const { return any_; }
  // The peer closed before the answer's announced end (HeadersRead false,
  // or a body cut short).
  bool Short() const { return closed_ && !Ended(); }
  // The answer is complete by its framing, or ran until the close.
  bool Ended() const { return parser_.Complete() || (closed_ && parser_.UntilClose()); }
  bool TimedOut() const { return timed_out_; }
  int error() const { return errno_; }

 private:
  // Next byte, or -1 at the end of the stream, -2 on a time-out or error.
  int Next();

  int fd_;
  std::optional<std::chrono::steady_clock::time_point> deadline_;
  AnswerParser parser_;
  char buf_[4096];
  size_t pos_ = 0;
  size_t len_ = 0;
  bool any_ = false;
  bool closed_ = false;
  bool timed_out_ = false;
  int errno_ = 0;
};

// The error text for an answer to `what` from `server` that did not end
// well, "" when it did:
//   "ERROR 410: Timed out after <n> s waiting for the answer to <what> from
//    <server>\n",
//   "ERROR 411: Connection to <server> lost while reading the answer to
//    <what>: <strerror>\n",
//   "ERROR 412: No answer from <server> to <what>\n" (closed before a byte),
//   "ERROR 412: Short answer from <server> to <what>\n" (closed before the
//    announced end).
std::string AnswerError(const AnswerReader& answer, const std::string& what,
                        const std::string& server);
