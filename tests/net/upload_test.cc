// UploadFile and HTTPPostHTML against loopback servers: the request bytes,
// what is printed, and server faults.

#include "net/upload.h"

#include <gtest/gtest.h>

#include <chrono>
#include <fstream>

#include "driver/settings.h"
#include "net/transport.h"
#include "support/strings.h"
#include "testlib/net_fixtures.h"

namespace {

using namespace wltest;

class UploadFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ResetSettings();
    safe_cpy(&TaskName, "nightly");
    safe_cpy(&LogOwner, "builder");
    safe_cpy(&MachineLabel, "bm01");
    safe_cpy(&PublicBuildJob, "True");
    safe_cpy(&JobDateTime, "10-14-2020-09-05-00");
  }
  void TearDown() override { ResetSettings(); }
  // Uploads `content` as file `name` in dir_ to `url`; what was printed.
  std::string Upload(const std::string& url, const std::string& name, const std::string& content) {
    LogURL = url;
    WriteFile(dir_ / name, content);
    ScopedCwd cwd(dir_.path());
    CaptureStdout out;
    UploadFile(name.c_str());
    return out.Take();
  }
  std::string Sent(const std::string& name, const std::string& content, const std::string& path) {
    return Wire(path, "", [&](const std::string& url) {
      EXPECT_EQ(Upload(url, name, content), "LogUrl=" + url + "\n\n");
    });
  }
  static std::string Fields() {
    return Field("JobName", "nightly") + Field("Owner", "builder") + Field("Machine", "bm01") +
           Field("PublicBuildJob", "true") + Field("JobDateTime", "10-14-2020-09-05-00") + kDelim;
  }
  TempDir dir_;
};

// The file goes out in pieces of 9999 bytes, each cut at its first NUL; the
// request line names /weftlane/LogUpload whatever the path of LogURL.
TEST_F(UploadFileTest, FileContentAsSent) {
  const std::string p(9998, 'p');
  const std::pair<std::string, std::string> cases[] = {
      {"", ""},
      {"line one\nline two\n", "line one\nline two\n"},
      {std::string("ab\0cd\nef\n", 9), "abef\n"},
      {p + std::string("\0q", 2) + "rest\n", p + "qrest\n"},
      {std::string("ab\0", 3) + std::string(12000, 'p') + "\n",
       "ab" + std::string(2004, 'p') + "\n"},
  };
  for (const auto& [content, sent] : cases) {
    EXPECT_EQ(
        Sent("sub/r.data", content, "/other/place/LogUpload"),
        WithLength(FormHead(kUploadHead), Fields() + FileHead("sub/r.data") + sent + "\r\n" + kEnd))
        << content.substr(0, 20);
  }
}

TEST_F(UploadFileTest, UrlAndFileErrors) {
  const std::string url = "http://127.0.0.1:1/weftlane/LogUpload";
  EXPECT_EQ(Upload("srv:8080/LogUpload", "f", "x"),
            "LogUrl=srv:8080/LogUpload\nERROR 404: Invalid URL srv:8080/LogUpload\n\n");
  CaptureStdout out;
  LogURL = url;
  UploadFile((dir_ / "absent.data").c_str());
  EXPECT_EQ(out.Take(),
            "LogUrl=" + url + "\nCould not open " + (dir_ / "absent.data") + " for upload\n");
}

// Read the request, answer `text`, close.
LoopbackListener::Handler Answer(std::string text) {
  return [=](ServerConn& c) {
    c.ReadRequest();
    c.Send(text);
    c.Close();
  };
}

// Whatever the server does, UploadFile prints only its URL line and
// HTTPPostHTML counts the made connection as success; neither hangs or dies.
TEST_F(UploadFileTest, ServerFaults) {
  std::string lines = "HTTP/1.1 500 E\r\n\r\n";
  while (lines.size() < (32 << 20))
    lines += "a line of an answer that goes on and on\r\n";
  const std::pair<const char*, LoopbackListener::Handler> faults[] = {
      {"refused", nullptr},
      {"404", Answer("HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n")},
      {"500", Answer("HTTP/1.1 500 Internal Server Error\r\n\r\nno")},
      {"close before answer", Answer("")},
      {"10 MB line", Answer("HTTP/1.1 200 OK\r\n\r\n" + std::string(10 << 20, 'L'))},
      {"endless body", Answer(lines)},
      {"reset mid-request", [](ServerConn& c) {
         c.ReadUntil([](auto& d) { return d.size() > 1000; });
         linger lg{1, 0};  // abort with a reset
         setsockopt(c.fd, SOL_SOCKET, SO_LINGER, &lg, sizeof lg);
       }}};
  const std::string content(4 << 20, 'c');  // big enough to be cut off by a reset
  for (const auto& [name, handler] : faults) {
    RefusingPort refusing;
    std::optional<LoopbackListener> server;
    if (handler)
      server.emplace(handler, 2);
    const std::string url = server ? server->Url("/weftlane/LogUpload") : refusing.Url("/w/Log");
    const std::string error = server ? "" : refusing.ConnectError();
    EXPECT_EQ(Upload(url, "f", content), "LogUrl=" + url + "\n" + error + "\n") << name;
    std::string err, header = "X\n";
    EXPECT_EQ(HTTPPostHTML(err, url.c_str(), header, content.c_str()), server ? 0 : 1) << name;
    EXPECT_EQ(err, error) << name;
  }
  std::string err = "stale", header = "POST /any HTTP/1.1\r\n";
  EXPECT_EQ(Wire([&](const std::string& url) {
              EXPECT_EQ(HTTPPostHTML(err, url.c_str(), header, "abc\r\nd\0ef"), 0);
            }),
            "POST /any HTTP/1.1\r\nContent-Length: 6\n\nabc\r\nd");  // the body ends at a NUL
}

// Throughput and memory for bench/net_upload.sh, with WL_BENCH_MB the report
// size in megabytes; not run in the normal test run (speed is not asserted).
class UploadBench : public UploadFileTest {};
TEST_F(UploadBench, DISABLED_Report) {
  const char* mb = std::getenv("WL_BENCH_MB");
  const long long size = (mb ? std::strtoll(mb, nullptr, 10) : 50) << 20;
  {
    std::ofstream f(dir_ / "bench.data");
    for (long long n = 0; n < size; n += 72)
      f << "F ./some/directory/of/the/build/tree/object-file.o 123456 1602666300 abc\n";
  }
  long long received = 0;  // the body is counted and dropped, not kept
  LoopbackListener server([&received, size](ServerConn& c) {
    std::vector<char> buf(1 << 20);
    for (ssize_t n; received <= size && (n = recv(c.fd, buf.data(), buf.size(), 0)) > 0;)
      received += n;
    c.Send(kOkReply);
  });
  std::ofstream("/proc/self/clear_refs") << "5";  // restart the peak memory count
  auto start = std::chrono::steady_clock::now();
  LogURL = server.Url("/weftlane/LogUpload");
  {
    CaptureStdout out;
    UploadFile((dir_ / "bench.data").c_str());
  }
  std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
  server.request();
  std::printf("upload bench: file %.1f MB, received %.1f MB, %.2f s, %.1f MB/s, peak ",
              size / 1048576.0, received / 1048576.0, took.count(),
              size / 1048576.0 / took.count());
  std::fflush(stdout);
  std::system("grep '^VmHWM' /proc/$PPID/status");  // the peak since the upload began
}

}  // namespace
