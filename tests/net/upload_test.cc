// UploadFile and HTTPPostHTML against loopback servers: the request bytes,
// what is printed, and a table of server faults under a short timeout.

#include "net/upload.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <atomic>

#include "net/transport.h"
#include "testlib/net_fixtures.h"

namespace {

using namespace wltest;

class UploadFileTest : public ::testing::Test {
 protected:
  void TearDown() override { SetNetTimeout(kDefaultNetTimeout); }
  // Uploads `content` as file `name` in dir_ to `url`; what was printed.
  std::string Upload(const std::string& url, const std::string& name, const std::string& content) {
    target_.url = url;
    WriteFile(dir_ / name, content);
    ScopedCwd cwd(dir_.path());
    CaptureStdout out;
    UploadFile(target_, name.c_str());
    return out.Take();
  }
  std::string Sent(const std::string& name, const std::string& content, const std::string& path) {
    return Wire(path, "", [&](const std::string& url) {
      EXPECT_EQ(Upload(url, name, content), "LogUrl=" + url + "\n\n");
    });
  }
  std::string Fields(const std::string& job = "nightly") const {
    return Field("JobName", job) + Field("Owner", "builder") + Field("Machine", "bm01") +
           Field("PublicBuildJob", "true") + Field("JobDateTime", "10-14-2020-09-05-00") + kDelim;
  }
  UploadTarget target_{"", "nightly", "builder", "bm01", "True", "10-14-2020-09-05-00"};
  TempDir dir_;
};

// The file goes out in pieces of 9999 bytes, each cut at its first NUL; the
// request line names /weftlane/LogUpload whatever the path of the URL. A
// double quote, CR or LF in a name or value is sent as %22, %0D, %0A.
TEST_F(UploadFileTest, RequestAsSent) {
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
  target_.job_name = "night\"ly\r\n%";
  EXPECT_EQ(Sent("a\"b\nc.data", "x", "/w"),
            WithLength(FormHead(kUploadHead), Fields("night%22ly%0D%0A%") +
                                                  FileHead("a%22b%0Ac.data") + "x\r\n" + kEnd));
  EXPECT_EQ(UploadBody(target_, "f", "x"), Fields("night%22ly%0D%0A%") + FileHead("f") + "x\r\n" + kEnd);
}

// Files that are not read: missing, not regular, over the size limit (a
// sparse file, so nothing is written or read).
TEST_F(UploadFileTest, FilesNotSent) {
  target_.url = "http://127.0.0.1:1/weftlane/LogUpload";
  const std::string head = "LogUrl=" + target_.url + "\n";
  const std::string absent = dir_ / "absent.data", fifo = dir_ / "fifo", big = dir_ / "big";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  WriteFile(big, "");
  ASSERT_EQ(truncate(big.c_str(), kMaxUploadSize + 1), 0);
  const std::pair<std::string, std::string> cases[] = {
      {absent, "Could not open " + absent + " for upload\n"},
      {fifo, "Could not open " + fifo + " for upload: not a regular file\n"},
      {"/dev/null", "Could not open /dev/null for upload: not a regular file\n"},
      {big, "Could not open " + big + " for upload: 1073741825 bytes, more than the limit of " +
                "1073741824\n"},
  };
  for (const auto& [path, printed] : cases) {
    CaptureStdout out;
    UploadFile(target_, path.c_str());
    EXPECT_EQ(out.Take(), head + printed);
  }
  EXPECT_EQ(Upload("srv:8080/LogUpload", "f", "x"),
            "LogUrl=srv:8080/LogUpload\nERROR 404: Invalid URL srv:8080/LogUpload\n\n");
}

TEST(MissingPortWarning, OnlyWithoutAPort) {
  EXPECT_EQ(MissingPortWarning("http://build.example/weftlane"),
            "WARNING: WEFTLANE_SERVER http://build.example/weftlane names no port: uploads go to "
            "port 8080 with the header \"Host: build.example/weftlane/LogUpload:8080\", which "
            "proxies refuse; set it to http://build.example:8080/weftlane");
  EXPECT_EQ(MissingPortWarning("http://h"),
            "WARNING: WEFTLANE_SERVER http://h names no port: uploads go to port 8080 with the "
            "header \"Host: h/LogUpload:8080\", which proxies refuse; set it to http://h:8080");
  for (const char* quiet : {"http://h:80/w", "http://h:8080", "h/w", ""})
    EXPECT_EQ(MissingPortWarning(quiet), "") << quiet;
}

// Calls the client has finished in the current row of the fault table.
std::atomic<int> g_client_calls{0};

// Read nothing until the client has given up on this connection (its end
// of stream cannot come through while the window stays full).
LoopbackListener::Handler NeverReads() {
  return [connection = 0](ServerConn&) mutable {
    ++connection;
    for (int i = 0; i < 2000 && g_client_calls < connection; ++i)
      poll(nullptr, 0, 10);
  };
}

// Every fault ends within the configured bound with one ERROR line naming
// the file (the request, for HTTPPostHTML) and the server; answers are read
// to the end they announce, so servers that keep the connection open do not
// hold the client. HTTPPostHTML does not judge the status.
TEST_F(UploadFileTest, ServerFaults) {
  SetNetTimeout(1);
  const std::string ok = "HTTP/1.1 200 OK\r\nContent-Length: 3\r\n\r\nOK\n";
  struct Fault {
    const char* name;
    LoopbackListener::Handler handler;
    std::string error;  // WHAT and SERVER stand for what was sent and the server
    bool judged = false;  // only the upload reports it
    size_t size = 1000;
  };
  const Fault faults[] = {
      {"refused", nullptr, "ERROR 401: Could not connect to 127.0.0.1 on port PORT\n"},
      {"content-length, kept open", Answer(ok, true), ""},
      {"chunked, kept open",
       Answer("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n3;x\r\nOK\n\r\n"
              "10\r\n0123456789abcdef\r\n0\r\nT: 1\r\n\r\n",
              true),
       ""},
      {"interim 100 and 204, kept open",
       Answer("HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 204 No Content\r\n\r\n", true), ""},
      {"until close", Answer("HTTP/1.0 200 OK\n\nstored\n"), ""},
      {"413", Answer("HTTP/1.1 413 Request Entity Too Large\r\nContent-Length: 0\r\n\r\n", true),
       "ERROR 409: Upload of WHAT refused by SERVER: HTTP/1.1 413 Request Entity Too Large\n",
       true},
      {"500 until close", Answer("HTTP/1.1 500 E\x01vil\r\n\r\nno"),
       "ERROR 409: Upload of WHAT refused by SERVER: HTTP/1.1 500 E?vil\n", true},
      {"no status line", Answer("hello\n"), "ERROR 409: Upload of WHAT got no status line from SERVER\n",
       true},
      {"close before answer", Answer(""), "ERROR 412: No answer from SERVER to WHAT\n"},
      {"short answer", Answer("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\nabc"),
       "ERROR 412: Short answer from SERVER to WHAT\n"},
      {"silent", Answer("", true),
       "ERROR 410: Timed out after 1 s waiting for the answer to WHAT from SERVER\n"},
      {"trickling", Trickle(),
       "ERROR 410: Timed out after 1 s waiting for the answer to WHAT from SERVER\n"},
      {"never reads", NeverReads(),
       "ERROR 410: Timed out after 1 s sending WHAT to SERVER\n", false, 64 << 20},
      {"reset mid-request",
       [](ServerConn& c) {
         c.ReadUntil([](auto& d) { return d.size() > 1000; });
         linger lg{1, 0};  // abort with a reset
         setsockopt(c.fd, SOL_SOCKET, SO_LINGER, &lg, sizeof lg);
       },
       "ERROR 411: Connection to SERVER lost while sending WHAT: Connection reset by peer\n",
       false, 4 << 20},
  };
  for (const auto& f : faults) {
    g_client_calls = 0;
    RefusingPort refusing;
    std::optional<LoopbackListener> server;
    if (f.handler)
      server.emplace(f.handler, 2);
    const std::string url = server ? server->Url("/weftlane/LogUpload") : refusing.Url("/w/Log");
    const std::string port = std::to_string(server ? server->port : refusing.port);
    auto expected = [&](const std::string& what, bool judged) {
      std::string e = judged ? "" : f.error;
      for (auto [from, to] : {std::pair<std::string, std::string>{"WHAT", what},
                              {"SERVER", "127.0.0.1 on port " + port}, {"PORT", port}}) {
        for (size_t at; (at = e.find(from)) != e.npos;)
          e.replace(at, from.size(), to);
      }
      return e;
    };
    const std::string content(f.size, 'c');
    EXPECT_EQ(Upload(url, "f", content), "LogUrl=" + url + "\n" + expected("f", false) + "\n")
        << f.name;
    ++g_client_calls;
    std::string err, header = "X\n";
    EXPECT_EQ(HTTPPostHTML(err, url.c_str(), header, content.c_str()), server ? 0 : 1) << f.name;
    ++g_client_calls;
    EXPECT_EQ(err, expected("the request", f.judged)) << f.name;

  }
  std::string err = "stale", header = "POST /any HTTP/1.1\r\n";
  EXPECT_EQ(Wire([&](const std::string& url) {
              EXPECT_EQ(HTTPPostHTML(err, url.c_str(), header, "abc\r\nd\0ef"), 0);
            }),
            "POST /any HTTP/1.1\r\nContent-Length: 6\n\nabc\r\nd");  // the body ends at a NUL
}

}  // namespace
