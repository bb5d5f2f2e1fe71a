// The HTTP line reader, the answer framing and the answer draining, over
// one end of a local socket pair whose other end has sent the input and
// closed: no network. The framing is also fed the bytes directly.

#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "net/answer.h"
#include "net/transport.h"

namespace {

// Socket buffers hold a few hundred KiB; longer inputs are cut there so that
// writing can never block.
constexpr size_t kMaxSent = 128 * 1024;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Input in(data, size);
  // Line sizes: 0..255, or the transport's own 2048 and 60000.
  const uint8_t pick = in.Byte();
  const int32_t sizes[] = {static_cast<int32_t>(in.Byte()), 2048, 60000, 1};
  const int32_t line_size = sizes[pick % 4];
  const bool discard = pick & 0x80;
  const bool framed = pick & 0x40;
  std::string_view body = in.Rest();
  if (body.size() > kMaxSent)
    body = body.substr(0, kMaxSent);

  int pair[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) {
    std::perror("socketpair");
    std::abort();
  }
  int sndbuf = static_cast<int>(kMaxSent * 2);
  setsockopt(pair[1], SOL_SOCKET, SO_SNDBUF, &sndbuf, sizeof sndbuf);
  if (WriteAll(pair[1], body.data(), body.size()) != 0) {
    std::perror("WriteAll");
    std::abort();
  }
  close(pair[1]);

  AnswerParser parser;
  for (char c : body) {
    parser.Feed(c);
    if (parser.status_line().size() > AnswerParser::kMaxKeptLine)
      std::abort();
  }
  (void)parser.code();

  // A buffer exactly as large as stated, so that any write past it shows.
  std::vector<char> buf(static_cast<size_t>(line_size > 0 ? line_size : 1));
  AnswerReader answer(pair[0]);
  auto next = [&] {
    return framed ? answer.Line(buf.data(), line_size) : readline(pair[0], buf.data(), line_size);
  };
  size_t total = 0;
  int result;
  while ((result = next()) > 0) {
    const size_t stored = std::strlen(buf.data());
    if (line_size > 1 && stored > static_cast<size_t>(line_size - 1))
      std::abort();
    total += static_cast<size_t>(result);
    if (line_size <= 1 || total > body.size() + body.size() + 2)
      break;  // size <= 1 reads nothing and would repeat forever
    if (discard && total > body.size() / 2) {
      if (framed) {
        (void)answer.Drain();
      } else {
        while (readlineAndDiscard(pair[0]) > 0) {
        }
      }
      break;
    }
  }
  if (framed)
    (void)AnswerError(answer, "the report", "http://server:8080");
  close(pair[0]);
  return 0;
}
