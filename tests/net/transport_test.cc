#include "net/transport.h"

#include "net/answer.h"

#include <gtest/gtest.h>

#include "testlib/net_fixtures.h"

namespace {

// A name lookup that never leaves the process and always fails.
std::vector<std::string> g_looked_up;
hostent* Lookup(const char* name) {
  g_looked_up.push_back(name);
  return nullptr;
}

// getHostPort keeps a path in the host when there is no port and reads the
// port like atoi modulo 65536; tcp_connect cuts the host at "/" and keeps the
// port text as written; "k" marks an output left untouched.
TEST(Url, SplittingCorners) {
  const std::string h20k(20000, 'h');
  struct Case {
    std::string url, host, port, tc_host, tc_port, tc_path;
  };
  const Case cases[] = {
      {"http://server", "server", "8080", "server", "k", "k"},
      {"http://server:80/x/y", "server", "80", "server", "80", "/x/y"},
      {"http://server/a:b", "server/a", "0", "server", "b", "/a:b"},
      {"http://server/a/b", "server/a/b", "8080", "server", "k", "/a/b"},
      {"http://server:70000", "server", "4464", "server", "70000", "k"},
      {"http://server:2147483647", "server", "65535", "server", "2147483647", "k"},
      {"http://server:12ab/c", "server", "12", "server", "12ab", "/c"},
      {"http://server: 81", "server", "81", "server", " 81", "k"},
      {"xyz//host:9/weftlane/LogUpload", "host", "9", "host", "9", "/weftlane/LogUpload"},
      {"http://a//b:7", "a//b", "7", "a", "7", "//b:7"},
      {"//", "", "8080", "", "k", "k"},
      {"http://255.255.255.255:80/", "255.255.255.255", "80", "255.255.255.255", "80", "/"},
      {"http://" + h20k + ":81/" + std::string(9000, 'p'), h20k, "81", h20k, "81",
       "/" + std::string(9000, 'p')},
  };
  const HostLookupFn system_lookup = wl_host_lookup;
  wl_host_lookup = Lookup;
  for (const auto& c : cases) {
    const char* url = c.url.c_str();
    std::string err = "stale", host = "k", port = "k", path = "k";
    getHostPort(err, url, host, port);
    EXPECT_EQ(err + host + "|" + port, c.host + "|" + c.port) << url;
    host = port = "k";
    g_looked_up.clear();
    EXPECT_EQ(tcp_connect(err, url, host, port, path), -1) << url;
    EXPECT_EQ(err, "ERROR 408: Invalid host name\n") << url;
    EXPECT_EQ(host + "|" + port + "|" + path, c.tc_host + "|" + c.tc_port + "|" + c.tc_path);
    EXPECT_EQ(g_looked_up, std::vector<std::string>{c.tc_host}) << url;
  }
  std::string err, host = "H", port = "P", path = "Q";
  g_looked_up.clear();
  EXPECT_EQ(tcp_connect(err, "server:9000", host, port, path), -1);
  EXPECT_EQ(err + host + port + path, "ERROR 404: Invalid URL server:9000\nHPQ");
  EXPECT_TRUE(g_looked_up.empty());
  wl_host_lookup = system_lookup;
}

TEST(Writen, PiecesOfAtMost1024Bytes) {
  int fd[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, fd), 0);  // keeps every send's boundary
  std::string data, got;
  for (int i = 0; i < 3000; ++i)
    data += static_cast<char>('a' + i % 26);
  ASSERT_EQ(writen(fd[0], data.data(), 3000) + writen(fd[0], "abc", 0), 0);
  char buf[4096];
  for (ssize_t want : {1024, 1024, 952}) {
    ASSERT_EQ(recv(fd[1], buf, sizeof buf, 0), want);
    got.append(buf, static_cast<size_t>(want));
  }
  EXPECT_EQ(got, data);
  close(fd[1]);
  EXPECT_EQ(writen(fd[0], "abc", 3), -1);  // and no SIGPIPE
  close(fd[0]);
}

TEST(Readline, ResultsAndStoredText) {
  struct Case {
    std::string input;  // sent, then the sender closes
    int32_t size;
    std::vector<std::pair<int, std::string>> steps;  // result, stored text
  };
  const Case cases[] = {
      {"ab\ncd\n", 100, {{3, "ab\n"}, {3, "cd\n"}, {0, ""}}},
      {"a\nbc", 100, {{2, "a\n"}, {3, "bc"}, {0, ""}}},
      {"abcdef\n", 4, {{4, "abc"}, {4, "def"}, {1, "\n"}, {0, ""}}},
      {"ab\n", 4, {{3, "ab\n"}, {0, ""}}},
      {std::string("a\0b\n", 4), 16, {{4, std::string("a\0b\n", 4)}, {0, ""}}},
      {"abc\n", 1, {{1, ""}, {1, ""}}},  // nothing consumed
  };
  for (const auto& c : cases) {
    int fd[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fd), 0);
    send(fd[1], c.input.data(), c.input.size(), 0);
    close(fd[1]);
    for (const auto& [result, text] : c.steps) {
      std::vector<char> buf(static_cast<size_t>(c.size) + 1, 'Z');
      EXPECT_EQ(readline(fd[0], buf.data(), c.size), result) << c.input << "|" << c.size;
      // At the end of the stream the buffer is left alone.
      EXPECT_EQ(std::string(buf.data(), text.size() + 1), result ? text + '\0' : "Z") << c.input;
    }
    close(fd[0]);
  }
  // A peer that sends nothing: both readers give up after the bound.
  SetNetTimeout(1);
  int fd[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fd), 0);
  char buf[8];
  errno = 0;
  EXPECT_EQ(readline(fd[0], buf, sizeof buf), -1);
  EXPECT_EQ(errno, ETIMEDOUT);
  errno = 0;
  EXPECT_EQ(readlineAndDiscard(fd[0]), -1);
  EXPECT_EQ(errno, ETIMEDOUT);
  send(fd[1], "abc", 3, 0);
  EXPECT_EQ(readlineAndDiscard(fd[0]), 3);
  close(fd[0]);
  close(fd[1]);
  SetNetTimeout(kDefaultNetTimeout);
}

TEST(NetTimeout, FromTheSetting) {
  const std::pair<const char*, int> cases[] = {
      {nullptr, 300}, {"", 300},       {" \t", 300},      {"0", 0},   {"300", 300},
      {" 7 ", 7},     {"2000000", 2000000}, {"2000001", -1}, {"-1", -1}, {"1.5", -1},
      {"abc", -1},    {"99999999999", -1},
  };
  for (const auto& [text, seconds] : cases) {
    const std::string warning = SetNetTimeoutFrom(text);
    EXPECT_EQ(NetTimeout(), seconds < 0 ? 300 : seconds) << (text ? text : "null");
    EXPECT_EQ(warning, seconds < 0 ? std::string("WARNING: WEFTLANE_TIMEOUT ") + text +
                                         " is not a number of seconds from 0 to 2000000; waiting "
                                         "at most 300 s"
                                   : "");
  }
  SetNetTimeout(kDefaultNetTimeout);
}

// An answer is handed out line by line up to the end its framing announces,
// even when the peer keeps the connection open; the bytes after that end
// stay unread. "|" separates the lines as returned.
TEST(AnswerReader, EndsWhereTheAnswerSaysItEnds) {
  SetNetTimeout(1);  // a missed end would show as a time-out
  struct Case {
    std::string sent;
    bool close;  // the peer closes after sending
    std::string lines, status;
    bool ended;
  };
  const std::string st = "HTTP/1.1 200 OK", ok = st + "\r\n";
  const Case cases[] = {
      {ok + "Content-Length: 3\r\n\r\nOK\nEXTRA", false,
       ok + "|Content-Length: 3\r\n|\r\n|OK\n|", st, true},
      {ok + "content-length:2\n\nOKEXTRA", false, ok + "|content-length:2\n|\n|OK|", st, true},
      {ok + "Transfer-Encoding: gzip, chunked\r\n\r\n2;a=b\r\nab\r\n0\r\nX: y\r\n\r\nEXTRA", false,
       ok + "|Transfer-Encoding: gzip, chunked\r\n|\r\n|2;a=b\r\n|ab\r\n|0\r\n|X: y\r\n|\r\n|", st,
       true},
      {"HTTP/1.1 100 Go\r\n\r\nHTTP/1.1 304 Same\r\n\r\nEXTRA", false,
       "HTTP/1.1 100 Go\r\n|\r\n|HTTP/1.1 304 Same\r\n|\r\n|", "HTTP/1.1 304 Same", true},
      {ok + "Content-Length: 2\r\nContent-Length: 3\r\n\r\nabc", true,
       ok + "|Content-Length: 2\r\n|Content-Length: 3\r\n|\r\n|abc|", st, true},
      {"junk\nmore", true, "junk\n|more|", "junk", true},
      {ok + "Content-Length: 9\r\n\r\nabc", true, ok + "|Content-Length: 9\r\n|\r\n|abc|", st, false},
      {ok + "Content-Le", true, ok + "|Content-Le|", st, false},
      {"", true, "", "", false},
  };
  for (const auto& c : cases) {
    int fd[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fd), 0);
    send(fd[1], c.sent.data(), c.sent.size(), 0);
    if (c.close)
      close(fd[1]);
    AnswerReader reader(fd[0]);
    std::string lines;
    char buf[64];
    int n;
    while ((n = reader.Line(buf, sizeof buf)) > 0)
      lines += std::string(buf) + "|";
    EXPECT_EQ(n, 0) << c.sent;
    EXPECT_EQ(lines, c.lines) << c.sent;
    EXPECT_EQ(reader.parser().status_line(), c.status) << c.sent;
    EXPECT_EQ(reader.Ended(), c.ended) << c.sent;
    close(fd[0]);
    if (!c.close)
      close(fd[1]);
  }
  SetNetTimeout(kDefaultNetTimeout);
}

}  // namespace
