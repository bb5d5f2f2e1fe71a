// HTTPPostHTML against a loopback server: the bytes it sends, and what it
// does when the server misbehaves.

#include <gtest/gtest.h>

#include <string>

#include "net/transport.h"
#include "testlib/net_fixtures.h"

namespace {

using wltest::LoopbackListener;
using wltest::ServerConn;

TEST(HTTPPostHTML, SendsHeaderLengthLineAndBody) {
  LoopbackListener server(wltest::ReplyWith(wltest::OkReply()));
  std::string err = "stale";
  std::string header = "POST /any HTTP/1.1\r\nHost: x:1\r\n";
  EXPECT_EQ(HTTPPostHTML(err, server.Url("/weftlane/LogUpload").c_str(), header, "abc\r\ndef"), 0);
  EXPECT_EQ(err, "");
  EXPECT_EQ(header, "POST /any HTTP/1.1\r\nHost: x:1\r\nContent-Length: 8\n\n");
  EXPECT_EQ(server.request(), "POST /any HTTP/1.1\r\nHost: x:1\r\nContent-Length: 8\n\nabc\r\ndef");
}

TEST(HTTPPostHTML, BodyEndsAtItsFirstNul) {
  LoopbackListener server(wltest::ReplyWith(wltest::OkReply()));
  std::string err;
  std::string header = "H\n";
  const char body[] = "ab\0cd";
  EXPECT_EQ(HTTPPostHTML(err, server.Url().c_str(), header, body), 0);
  EXPECT_EQ(server.request(), "H\nContent-Length: 2\n\nab");
}

TEST(HTTPPostHTML, EmptyBody) {
  LoopbackListener server(wltest::ReplyWith(wltest::OkReply()));
  std::string err;
  std::string header;
  EXPECT_EQ(HTTPPostHTML(err, server.Url().c_str(), header, ""), 0);
  EXPECT_EQ(server.request(), "Content-Length: 0\n\n");
}

TEST(HTTPPostHTML, AnyStatusCountsAsSuccess) {
  for (const char* status : {"200 OK", "404 Not Found", "500 Internal Server Error", "garbage"}) {
    std::string reply = std::string("HTTP/1.1 ") + status + "\r\nContent-Length: 4\r\n\r\nbody";
    LoopbackListener server(wltest::ReplyWith(reply));
    std::string err;
    std::string header = "X\n";
    EXPECT_EQ(HTTPPostHTML(err, server.Url().c_str(), header, "b"), 0) << status;
    EXPECT_EQ(err, "") << status;
  }
}

TEST(HTTPPostHTML, RefusedConnectionIsOne) {
  wltest::RefusingPort refusing;
  std::string err;
  std::string header = "X\n";
  std::string url = "http://127.0.0.1:" + std::to_string(refusing.port()) + "/LogUpload";
  EXPECT_EQ(HTTPPostHTML(err, url.c_str(), header, "b"), 1);
  EXPECT_EQ(err, "ERROR 401: Could not connect to 127.0.0.1 on port " +
                     std::to_string(refusing.port()) + "\n");
  EXPECT_EQ(header, "X\n");  // nothing appended when nothing was sent
}

TEST(HTTPPostHTML, InvalidUrlIsOne) {
  std::string err;
  std::string header = "X\n";
  EXPECT_EQ(HTTPPostHTML(err, "no-slashes/LogUpload", header, "b"), 1);
  EXPECT_EQ(err, "ERROR 404: Invalid URL no-slashes/LogUpload\n");
}

TEST(HTTPPostHTML, ServerClosesBeforeAnswering) {
  LoopbackListener server([](ServerConn& c) {
    c.ReadRequest();
    c.Close();
  });
  std::string err;
  std::string header = "X\n";
  EXPECT_EQ(HTTPPostHTML(err, server.Url().c_str(), header, "body"), 0);
  EXPECT_EQ(err, "");
  EXPECT_EQ(server.request(), "X\nContent-Length: 4\n\nbody");
}

TEST(HTTPPostHTML, ServerResetsMidRequest) {
  // The reset arrives while megabytes of body are still to be sent: every
  // later send fails, none may raise SIGPIPE, and the call still ends as a
  // made connection.
  LoopbackListener server([](ServerConn& c) {
    c.ReadAtLeast(1000);
    c.Reset();
  });
  std::string body(8 << 20, 'b');
  std::string err;
  std::string header = "X\n";
  EXPECT_EQ(HTTPPostHTML(err, server.Url().c_str(), header, body.c_str()), 0);
  EXPECT_EQ(err, "");
}

TEST(HTTPPostHTML, ServerNeverReadsAndCloses) {
  LoopbackListener server([](ServerConn& c) { c.Reset(); });
  std::string body(4 << 20, 'b');
  std::string err;
  std::string header = "X\n";
  EXPECT_EQ(HTTPPostHTML(err, server.Url().c_str(), header, body.c_str()), 0);
}

TEST(HTTPPostHTML, AnswerWithOneTenMegabyteLine) {
  LoopbackListener server([](ServerConn& c) {
    c.ReadRequest();
    c.Send("HTTP/1.1 200 OK\r\n\r\n");
    c.SendRepeated(std::string(65536, 'L'), 10 << 20);
    c.FinishAndDrain();
  });
  std::string err;
  std::string header = "X\n";
  EXPECT_EQ(HTTPPostHTML(err, server.Url().c_str(), header, "b"), 0);
}

TEST(HTTPPostHTML, EndlessBodyThatFinallyCloses) {
  LoopbackListener server([](ServerConn& c) {
    c.ReadRequest();
    std::string lines;
    while (lines.size() < 65536)
      lines += "a line of an answer that goes on and on\r\n";
    c.Send("HTTP/1.1 500 Internal Server Error\r\n\r\n");
    c.SendRepeated(lines, 32 << 20);
    c.Close();
  });
  std::string err;
  std::string header = "X\n";
  EXPECT_EQ(HTTPPostHTML(err, server.Url().c_str(), header, "b"), 0);
}

// Memory stays within the fixed line buffer whatever the answer's size.
TEST(HTTPPostHTML, HugeAnswerNeedsNoMemory) {
  LoopbackListener server([](ServerConn& c) {
    c.ReadRequest();
    c.Send("HTTP/1.1 200 OK\r\n\r\n");
    c.SendRepeated(std::string(65536, 'L'), 10 << 20);
    std::string lines;
    while (lines.size() < 65536)
      lines += "another line of the answer\r\n";
    c.SendRepeated(lines, 8 << 20);
    c.FinishAndDrain();
  });
  if (!wltest::ResetPeakRss())
    GTEST_SKIP() << "the kernel does not let this process reset its peak RSS";
  long before = wltest::PeakRssKb();
  std::string err;
  std::string header = "X\n";
  EXPECT_EQ(HTTPPostHTML(err, server.Url().c_str(), header, "b"), 0);
  server.Join();
  long after = wltest::PeakRssKb();
  ASSERT_GT(before, 0);
  EXPECT_LT(after - before, 4096) << "peak RSS grew by " << (after - before)
                                  << " kB for 18 MB of answer";
}

}  // namespace
