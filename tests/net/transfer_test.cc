// HTTPGet and HTTPPost: requests on the wire, answers, local files.

#include "net/transfer.h"

#include <gtest/gtest.h>

#include <string>

#include "support/strings.h"
#include "testlib/net_fixtures.h"
#include "testlib/testlib.h"

namespace {

using wltest::CaptureStdout;
using wltest::LoopbackListener;

// Runs HTTPGet; the text (or "<null>") and the error text.
std::pair<std::string, std::string> Get(const std::string& source) {
  std::string err = "stale";
  char* text = HTTPGet(err, source.c_str());
  std::string out = text ? std::string(text) : "<null>";
  safe_free(&text);
  return {out, err};
}

TEST(HTTPGet, RequestAndBody) {
  LoopbackListener server(wltest::ReplyAfterTail(
      "\n\n\n", "HTTP/1.0 200 OK\r\nContent-Type: text/plain\r\n\r\nline1\r\nline2\nlast"));
  auto [text, err] = Get(server.Url("/dir with space/a b.txt"));
  EXPECT_EQ(text, "line1\r\nline2\nlast");
  EXPECT_EQ(err, "");
  EXPECT_EQ(server.request(), "GET /dir%20with%20space/a%20b.txt HTTP/1.0\n\n\n");
}

struct StatusCase {
  const char* reply;
  const char* text;
  const char* err;
};

TEST(HTTPGet, StatusLines) {
  const StatusCase cases[] = {
      {"HTTP/1.1 404 Not Found\r\n\r\ngone\n", "gone\n",
       "ERROR 404: file not found, HTTP/1.1 404 Not Found\r\n\n"},
      {"HTTP/1.1 500 Oops\r\nX: y\r\n\r\nbody", "body",
       "ERROR 401: http connect error, HTTP/1.1 500 Oops\r\n\n"},
      {"http/1.0 301 Moved\n\nb", "b", "ERROR 401: http connect error, http/1.0 301 Moved\n\n"},
      {"HTTP/1.0 200 OK\nX-Note: HTTP 500\n\nb", "b", ""},
      {"Server: none\n\nb", "b", ""},
      {"HTTP/1.0 200 OK\r\n\r\n", "", ""},
      {"HTTP/1.0 200 OK\r\nno end of header", "", ""},
      {"", "", ""},
  };
  for (const auto& c : cases) {
    LoopbackListener server(wltest::ReplyAfterTail("\n\n\n", c.reply));
    auto [text, err] = Get(server.Url("/f"));
    EXPECT_EQ(text, c.text) << c.reply;
    EXPECT_EQ(err, c.err) << c.reply;
  }
}

TEST(HTTPGet, NotFoundPageIsNothing) {
  for (const char* page : {"<head><title>Not Found (404)</title></head>",
                           "<HEAD><TITLE>not found (4", "<head><title>Not Found (4xx"}) {
    LoopbackListener server(
        wltest::ReplyAfterTail("\n\n\n", std::string("HTTP/1.0 200 OK\r\n\r\n") + page));
    auto [text, err] = Get(server.Url("/f"));
    EXPECT_EQ(text, "<null>") << page;
  }
  LoopbackListener server(
      wltest::ReplyAfterTail("\n\n\n", "HTTP/1.0 200 OK\r\n\r\n<head><title>Not Found"));
  EXPECT_EQ(Get(server.Url("/f")).first, "<head><title>Not Found");
}

TEST(HTTPGet, LongAnswerLinesAreJoined) {
  const std::string body = std::string(150000, 'x') + "\n" + std::string(70000, 'y');
  LoopbackListener server(wltest::ReplyAfterTail("\n\n\n", "HTTP/1.0 200 OK\r\n\r\n" + body));
  EXPECT_EQ(Get(server.Url("/f")).first, body);
}

TEST(HTTPGet, NoConnection) {
  wltest::RefusingPort refusing;
  auto [text, err] = Get("http://127.0.0.1:" + std::to_string(refusing.port()) + "/f");
  EXPECT_EQ(text, "<null>");
  EXPECT_EQ(err, "ERROR 401: Could not connect to 127.0.0.1 on port " +
                     std::to_string(refusing.port()) + "\n");
}

TEST(HTTPGet, LocalFiles) {
  wltest::TempDir dir;
  wltest::WriteFile(dir / "plain.txt", "a\r\nb\n\nc");
  wltest::WriteFile(dir / "empty.txt", "");
  wltest::WriteFile(dir / "long.txt", std::string(130000, 'l') + "\nshort\n");
  wltest::WriteFile(dir / "nul.txt", std::string("ab\0cd\nef\n", 9));
  wltest::WriteFile(dir / "notfound.html", "<head><title>Not Found (404)</title></head>\n");
  wltest::WriteFile(dir / "HTTP:/x", "upper-case scheme is a file name\n");
  EXPECT_EQ(Get(dir / "plain.txt"), std::make_pair(std::string("a\r\nb\n\nc"), std::string()));
  EXPECT_EQ(Get(dir / "empty.txt").first, "");
  EXPECT_EQ(Get(dir / "long.txt").first, std::string(130000, 'l') + "\nshort\n");
  EXPECT_EQ(Get(dir / "nul.txt").first, "abef\n");
  EXPECT_EQ(Get(dir / "notfound.html").first, "<null>");
  EXPECT_EQ(Get(dir / "missing.txt"), std::make_pair(std::string("<null>"), std::string()));
  wltest::ScopedCwd cwd(dir.path());
  EXPECT_EQ(Get("HTTP://x").first, "upper-case scheme is a file name\n");
}

TEST(HTTPPost, HeaderCountAndLines) {
  wltest::TempDir dir;
  wltest::WriteFile(dir / "deps.txt", "ab\ncd\n");
  LoopbackListener server(wltest::ReplyAfterTail("abcd\n\n", "HTTP/1.1 200 OK\r\n\r\nok\n"));
  std::string err = "stale";
  EXPECT_EQ(HTTPPost(err, server.Url("/svc/deps").c_str(), (dir / "deps.txt").c_str()), 0);
  EXPECT_EQ(err, "");
  EXPECT_EQ(server.request(),
            "POST /svc/deps HTTP/1.1\n"
            "Content-type: text/xml\n"
            "Connection: close\r\n"
            "SOAPAction: \"\"\n"
            "Host: 127.0.0.1:" +
                std::to_string(server.port()) +
                "\n"
                "User-Agent: Java1.3.0_01\n"
                "Content-Length: 5\n"
                "\n"
                "abcd\n\n");
}

TEST(HTTPPost, LineBreaksStrippedFromBothEnds) {
  wltest::TempDir dir;
  wltest::WriteFile(dir / "deps.txt", "a b\r\n\r\n\rlead\nmid\rdle\r\nlast");
  LoopbackListener server(wltest::ReplyAfterTail("last\n\n", "HTTP/1.1 200 OK\r\n\r\n"));
  std::string err;
  EXPECT_EQ(HTTPPost(err, server.Url("/p").c_str(), (dir / "deps.txt").c_str()), 0);
  const std::string sent = "a bleadmid\rdlelast";
  EXPECT_TRUE(server.request().ends_with("Content-Length: " + std::to_string(sent.size() + 1) +
                                         "\n\n" + sent + "\n\n"))
      << server.request();
}

TEST(HTTPPost, MissingFile) {
  LoopbackListener server([](wltest::ServerConn& c) { c.ReadQuiet(2000); });
  std::string err;
  CaptureStdout out;
  EXPECT_EQ(HTTPPost(err, server.Url("/p").c_str(), "/nonexistent/deps.txt"), 7);
  EXPECT_EQ(out.Take(), "ERROR 11: Could not read dependency file /nonexistent/deps.txt\n");
  EXPECT_EQ(server.request(), "");  // connected, nothing sent, then closed
}

TEST(HTTPPost, NoConnectionStillReadsTheFile) {
  wltest::TempDir dir;
  wltest::WriteFile(dir / "deps.txt", "x\n");
  wltest::RefusingPort refusing;
  std::string err;
  EXPECT_EQ(HTTPPost(err, ("http://127.0.0.1:" + std::to_string(refusing.port()) + "/p").c_str(),
                     (dir / "deps.txt").c_str()),
            0);
  EXPECT_TRUE(err.starts_with("ERROR 401: ")) << err;
}

}  // namespace
