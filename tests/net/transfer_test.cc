// HTTPGet and HTTPPost: requests on the wire, answers, local files.

#include "net/transfer.h"

#include <gtest/gtest.h>

#include <string>

#include "support/strings.h"
#include "testlib/net_fixtures.h"
#include "testlib/testlib.h"

namespace {

using namespace wltest;

// HTTPGet of `source`: the text (or "<null>") and the error text.
std::string Get(const std::string& source, std::string* err_out = nullptr) {
  std::string err = "stale";
  char* text = HTTPGet(err, source.c_str());
  std::string out = text ? std::string(text) : "<null>";
  safe_free(&text);
  if (err_out)
    *err_out = err;
  return out;
}

TEST(HTTPGet, RequestAndAnswers) {
  EXPECT_EQ(Wire([](const std::string& url) { EXPECT_EQ(Get(url), "OK\n"); },
                 "/dir with space/a b.txt", "\n\n\n"),
            "GET /dir%20with%20space/a%20b.txt HTTP/1.0\n\n\n");
  const std::string longer = std::string(150000, 'x') + "\n" + std::string(70000, 'y');
  const std::tuple<std::string, std::string, std::string> cases[] = {
      {"HTTP/1.0 200 OK\r\nContent-Type: text/plain\r\n\r\nline1\r\nline2\nlast",
       "line1\r\nline2\nlast", ""},
      {"HTTP/1.1 404 Not Found\r\n\r\ngone\n", "gone\n",
       "ERROR 404: file not found, HTTP/1.1 404 Not Found\r\n\n"},
      {"HTTP/1.1 500 Oops\r\nX: y\r\n\r\nbody", "body",
       "ERROR 401: http connect error, HTTP/1.1 500 Oops\r\n\n"},
      {"http/1.0 301 Moved\n\nb", "b", "ERROR 401: http connect error, http/1.0 301 Moved\n\n"},
      {"Server: none\n\nb", "b", ""},
      {"", "", ""},
      {"HTTP/1.0 200 OK\r\n\r\n" + longer, longer, ""},
      {"HTTP/1.0 200 OK\r\n\r\n<head><title>Not Found (404)</title></head>", "<null>", ""},
      {"HTTP/1.0 200 OK\r\n\r\n<head><title>Not Found", "<head><title>Not Found", ""},
  };
  for (const auto& [reply, text, err] : cases) {
    LoopbackListener server(Reply(reply, "\n\n\n"));
    std::string got_err;
    EXPECT_EQ(Get(server.Url("/f"), &got_err), text) << reply.substr(0, 60);
    EXPECT_EQ(got_err, err) << reply.substr(0, 60);
  }
  RefusingPort refusing;
  std::string err;
  EXPECT_EQ(Get(refusing.Url("/f"), &err) + err, "<null>" + refusing.ConnectError());
}

TEST(HTTPGet, LocalFiles) {
  TempDir dir;
  const std::string longer = std::string(130000, 'l') + "\nshort\n";
  const std::pair<std::string, std::string> cases[] = {
      {longer, longer},
      {std::string("ab\0cd\nef\n", 9), "abef\n"},
      {"<head><title>Not Found (404)</title></head>\n", "<null>"},
  };
  for (const auto& [content, text] : cases) {
    WriteFile(dir / "f.txt", content);
    std::string err;
    EXPECT_EQ(Get(dir / "f.txt", &err) + err, text) << content.substr(0, 20);
  }
  EXPECT_EQ(Get(dir / "missing.txt"), "<null>");
  WriteFile(dir / "HTTP:/x", "upper-case scheme is a file name\n");
  ScopedCwd cwd(dir.path());
  EXPECT_EQ(Get("HTTP://x"), "upper-case scheme is a file name\n");
}

// The file goes out line by line with line breaks stripped from both ends;
// one byte more than stated is sent.
TEST(HTTPPost, RequestFromTheFile) {
  TempDir dir;
  WriteFile(dir / "deps.txt", "a b\r\n\r\n\rlead\nmid\rdle\r\nlast");
  std::string err = "stale";
  EXPECT_EQ(Wire(
                [&](const std::string& url) {
                  EXPECT_EQ(HTTPPost(err, url.c_str(), (dir / "deps.txt").c_str()), 0);
                },
                "/svc/deps", "last\n\n"),
            "POST /svc/deps HTTP/1.1\nContent-type: text/xml\nConnection: close\r\n"
            "SOAPAction: \"\"\nHost: 127.0.0.1:PORT\nUser-Agent: Java1.3.0_01\n"
            "Content-Length: 19\n\na bleadmid\rdlelast\n\n");
  EXPECT_EQ(err, "");
  RefusingPort refusing;
  EXPECT_EQ(HTTPPost(err, refusing.Url("/p").c_str(), (dir / "deps.txt").c_str()), 0);
  EXPECT_EQ(err, refusing.ConnectError());
  CaptureStdout out;
  EXPECT_EQ(Wire([&](const std::string& url) {  // connects, sends nothing
              EXPECT_EQ(HTTPPost(err, url.c_str(), "/nonexistent/deps.txt"), 7);
            }),
            "");
  EXPECT_EQ(out.Take(), "ERROR 11: Could not read dependency file /nonexistent/deps.txt\n");
}

}  // namespace
