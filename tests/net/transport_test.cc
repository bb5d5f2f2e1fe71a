#include "net/transport.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "testlib/net_fixtures.h"

namespace {

using wltest::LoopbackListener;
using wltest::ServerConn;

// --- A name lookup that never leaves the process ---

std::vector<std::string> g_looked_up;
in_addr g_fake_address;
char* g_fake_list[2];
hostent g_fake_entry;

hostent* FakeLookupFails(const char* name) {
  g_looked_up.push_back(name);
  return nullptr;
}

hostent* FakeLookupFinds(const char* name) {
  g_looked_up.push_back(name);
  g_fake_list[0] = reinterpret_cast<char*>(&g_fake_address);
  g_fake_list[1] = nullptr;
  g_fake_entry = hostent{};
  g_fake_entry.h_addrtype = AF_INET;
  g_fake_entry.h_length = 4;
  g_fake_entry.h_addr_list = g_fake_list;
  return &g_fake_entry;
}

class ScopedLookup {
 public:
  ScopedLookup(HostLookupFn fn, const char* address = "127.0.0.1") : saved_(wl_host_lookup) {
    wl_host_lookup = fn;
    g_looked_up.clear();
    inet_aton(address, &g_fake_address);
  }
  ~ScopedLookup() { wl_host_lookup = saved_; }

 private:
  HostLookupFn saved_;
};

// --- getHostPort ---

struct HostPortCase {
  const char* url;
  const char* host;
  const char* port;
};

TEST(GetHostPort, SplitsHostAndPortText) {
  const HostPortCase cases[] = {
      {"http://server", "server", "8080"},
      {"http://server:80/x/y", "server", "80"},
      {"http://server/a:b", "server/a", "0"},
      {"http://server/a/b", "server/a/b", "8080"},
      {"http://server:70000", "server", "4464"},
      {"http://server:65536", "server", "0"},
      {"http://server:", "server", "0"},
      {"http://server:12ab/c", "server", "12"},
      {"http://server:-1", "server", "65535"},
      {"http://server: 81", "server", "81"},
      {"https://secure:443/p", "secure", "443"},
      {"anything at all//host:9/LogUpload", "host", "9"},
      {"http://a//b:7", "a//b", "7"},
      {"//", "", "8080"},
  };
  for (const auto& c : cases) {
    std::string err = "stale";
    std::string host = "stale";
    std::string port = "stale";
    getHostPort(err, c.url, host, port);
    EXPECT_EQ(err, "") << c.url;
    EXPECT_EQ(host, c.host) << c.url;
    EXPECT_EQ(port, c.port) << c.url;
  }
}

TEST(GetHostPort, UrlWithoutSlashesLeavesOutputsAlone) {
  std::string err;
  std::string host = "H";
  std::string port = "P";
  getHostPort(err, "server:9000", host, port);
  EXPECT_EQ(err, "ERROR 404: Invalid URL server:9000\n");
  EXPECT_EQ(host, "H");
  EXPECT_EQ(port, "P");
}

TEST(GetHostPort, VeryLongUrlIsSplitWhole) {
  std::string url = "http://" + std::string(20000, 'h') + ":81/" + std::string(10000, 'p');
  std::string err;
  std::string host;
  std::string port;
  getHostPort(err, url.c_str(), host, port);
  EXPECT_EQ(host, std::string(20000, 'h'));
  EXPECT_EQ(port, "81");
}

TEST(PortFromText, ReadsLikeAtoiModulo65536) {
  const std::pair<const char*, uint16_t> cases[] = {
      {"80", 80}, {"8080", 8080}, {"70000", 4464}, {"65535", 65535}, {"65536", 0},          {"", 0},
      {"abc", 0}, {"12ab", 12},   {"  +7", 7},     {"-1", 65535},    {"2147483647", 65535},
  };
  for (const auto& [text, port] : cases)
    EXPECT_EQ(PortFromText(text), port) << text;
}

// --- tcp_connect: splitting (the lookup fails, so nothing is connected) ---

struct ConnectSplitCase {
  const char* url;
  const char* host;  // host looked up and returned
  const char* port;  // port output ("keep" when untouched)
  const char* path;  // path output ("keep" when untouched)
};

TEST(TcpConnect, SplitsUrlBeforeLookingUpTheHost) {
  ScopedLookup lookup(FakeLookupFails);
  const ConnectSplitCase cases[] = {
      {"http://server", "server", "keep", "keep"},
      {"http://server:80/x/y", "server", "80", "/x/y"},
      {"http://server/a:b", "server", "b", "/a:b"},
      {"http://server/a/b", "server", "keep", "/a/b"},
      {"http://server:70000", "server", "70000", "keep"},
      {"http://server:81/", "server", "81", "/"},
      {"xyz//server:1/weftlane/LogUpload", "server", "1", "/weftlane/LogUpload"},
  };
  for (const auto& c : cases) {
    g_looked_up.clear();
    std::string err;
    std::string host = "keep";
    std::string port = "keep";
    std::string path = "keep";
    EXPECT_EQ(tcp_connect(err, c.url, host, port, path), -1) << c.url;
    EXPECT_EQ(err, "ERROR 408: Invalid host name\n") << c.url;
    EXPECT_EQ(host, c.host) << c.url;
    EXPECT_EQ(port, c.port) << c.url;
    EXPECT_EQ(path, c.path) << c.url;
    ASSERT_EQ(g_looked_up.size(), 1u) << c.url;
    EXPECT_EQ(g_looked_up[0], c.host) << c.url;
    EXPECT_EQ(DoneGetHostByName, 1);
    EXPECT_EQ(h, nullptr);
  }
}

TEST(TcpConnect, UrlWithoutSlashes) {
  ScopedLookup lookup(FakeLookupFails);
  std::string err;
  std::string host = "H";
  std::string port = "P";
  std::string path = "Q";
  EXPECT_EQ(tcp_connect(err, "server:9000", host, port, path), -1);
  EXPECT_EQ(err, "ERROR 404: Invalid URL server:9000\n");
  EXPECT_EQ(host, "H");
  EXPECT_EQ(port, "P");
  EXPECT_EQ(path, "Q");
  EXPECT_TRUE(g_looked_up.empty());
}

// The port number only shows in the connect error. The fake lookup answers
// with the broadcast address, which a TCP connect refuses locally.
TEST(TcpConnect, PortNumberInConnectError) {
  ScopedLookup lookup(FakeLookupFinds, "255.255.255.255");
  const std::pair<const char*, const char*> cases[] = {
      {"http://server", "8080"},       {"http://server:80/x/y", "80"}, {"http://server/a:b", "0"},
      {"http://server:70000", "4464"}, {"http://server:x", "0"},
  };
  for (const auto& [url, port] : cases) {
    std::string err;
    std::string host;
    std::string port_text;
    std::string path;
    EXPECT_EQ(tcp_connect(err, url, host, port_text, path), -1) << url;
    EXPECT_EQ(err,
              std::string("ERROR 401: Could not connect to 255.255.255.255 on port ") + port + "\n")
        << url;
    EXPECT_NE(h, nullptr);
  }
}

TEST(TcpConnect, DottedQuadUsedWhenLookupFails) {
  ScopedLookup lookup(FakeLookupFails);
  LoopbackListener server(
      [](ServerConn& c) { c.ReadUntil([](const std::string& d) { return d == "hi"; }); });
  std::string err;
  std::string host;
  std::string port;
  std::string path;
  int fd = tcp_connect(err, server.Url("/p").c_str(), host, port, path);
  ASSERT_GE(fd, 0) << err;
  EXPECT_EQ(err, "");
  EXPECT_EQ(host, "127.0.0.1");
  EXPECT_EQ(port, std::to_string(server.port()));
  EXPECT_EQ(path, "/p");
  EXPECT_EQ(writen(fd, "hi", 2), 0);
  server.Join();
  EXPECT_EQ(WLCleanUp(fd), 0);
  EXPECT_EQ(server.request(), "hi");
}

TEST(TcpConnect, AllOnesAddressIsAnInvalidHostWhenLookupFails) {
  ScopedLookup lookup(FakeLookupFails);
  std::string err;
  std::string host;
  std::string port;
  std::string path;
  EXPECT_EQ(tcp_connect(err, "http://255.255.255.255:80/", host, port, path), -1);
  EXPECT_EQ(err, "ERROR 408: Invalid host name\n");
  EXPECT_EQ(tcp_connect(err, "http://:80/", host, port, path), -1);
  EXPECT_EQ(err, "ERROR 408: Invalid host name\n");
}

TEST(TcpConnect, FirstAddressOfTheHostEntryIsUsed) {
  ScopedLookup lookup(FakeLookupFinds, "127.0.0.1");
  LoopbackListener server(
      [](ServerConn& c) { c.ReadUntil([](const std::string& d) { return d == "x"; }); });
  std::string err;
  std::string host;
  std::string port;
  std::string path;
  std::string url = "http://build-server.example:" + std::to_string(server.port());
  int fd = tcp_connect(err, url.c_str(), host, port, path);
  ASSERT_GE(fd, 0) << err;
  EXPECT_EQ(host, "build-server.example");
  EXPECT_EQ(writen(fd, "x", 1), 0);
  server.Join();
  WLCleanUp(fd);
  EXPECT_EQ(server.request(), "x");
}

TEST(TcpConnect, RealResolverTakesNumericAddress) {
  LoopbackListener server(
      [](ServerConn& c) { c.ReadUntil([](const std::string& d) { return d == "y"; }); });
  std::string err;
  std::string host;
  std::string port;
  std::string path;
  int fd = tcp_connect(err, server.Url().c_str(), host, port, path);
  ASSERT_GE(fd, 0) << err;
  EXPECT_EQ(writen(fd, "y", 1), 0);
  server.Join();
  WLCleanUp(fd);
}

TEST(TcpConnect, RefusedConnection) {
  wltest::RefusingPort refusing;
  std::string err;
  std::string host;
  std::string port;
  std::string path = "keep";
  std::string url = "http://127.0.0.1:" + std::to_string(refusing.port());
  EXPECT_EQ(tcp_connect(err, url.c_str(), host, port, path), -1);
  EXPECT_EQ(err, "ERROR 401: Could not connect to 127.0.0.1 on port " +
                     std::to_string(refusing.port()) + "\n");
  EXPECT_EQ(path, "keep");
}

// --- writen, readline, readlineAndDiscard, WLCleanUp over socket pairs ---

class SocketPair {
 public:
  explicit SocketPair(int type = SOCK_STREAM) {
    if (socketpair(AF_UNIX, type | SOCK_CLOEXEC, 0, fds_) != 0)
      ADD_FAILURE() << "socketpair";
  }
  ~SocketPair() {
    CloseLocal();
    CloseRemote();
  }
  int local() const { return fds_[0]; }
  int remote() const { return fds_[1]; }
  void Put(const std::string& bytes) {
    ASSERT_EQ(send(fds_[1], bytes.data(), bytes.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(bytes.size()));
  }
  void CloseRemote() {
    if (fds_[1] >= 0)
      close(fds_[1]);
    fds_[1] = -1;
  }
  void CloseLocal() {
    if (fds_[0] >= 0)
      close(fds_[0]);
    fds_[0] = -1;
  }

 private:
  int fds_[2] = {-1, -1};
};

TEST(Writen, SendsPiecesOfAtMost1024Bytes) {
  SocketPair pair(SOCK_SEQPACKET);  // keeps the boundary of every send
  std::string data(3000, '\0');
  for (size_t i = 0; i < data.size(); ++i)
    data[i] = static_cast<char>('a' + i % 26);
  ASSERT_EQ(writen(pair.local(), data.data(), 3000), 0);
  std::vector<size_t> pieces;
  std::string got;
  char buf[4096];
  for (int i = 0; i < 3; ++i) {
    ssize_t n = recv(pair.remote(), buf, sizeof buf, 0);
    ASSERT_GT(n, 0);
    pieces.push_back(static_cast<size_t>(n));
    got.append(buf, static_cast<size_t>(n));
  }
  EXPECT_EQ(pieces, (std::vector<size_t>{1024, 1024, 952}));
  EXPECT_EQ(got, data);
}

TEST(Writen, NothingToSend) {
  SocketPair pair(SOCK_SEQPACKET);
  EXPECT_EQ(writen(pair.local(), "abc", 0), 0);
  EXPECT_EQ(writen(pair.local(), "abc", -5), 0);
  EXPECT_EQ(writen(-1, "abc", 0), 0);
}

TEST(Writen, ClosedPeerFailsWithoutSigpipe) {
  SocketPair pair;
  pair.CloseRemote();
  // Without MSG_NOSIGNAL this would end the test program with SIGPIPE.
  EXPECT_EQ(writen(pair.local(), "abc", 3), -1);
  EXPECT_EQ(writen(-1, "abc", 3), -1);
}

struct ReadlineStep {
  int result;
  const char* text;  // stored text when result > 0
};

struct ReadlineCase {
  const char* name;
  std::string input;  // sent, then the sender closes
  int32_t size;
  std::vector<ReadlineStep> steps;
};

TEST(Readline, ResultsAndStoredText) {
  const std::vector<ReadlineCase> cases = {
      {"lines", "ab\ncd\n", 100, {{3, "ab\n"}, {3, "cd\n"}, {0, nullptr}}},
      {"crlf kept", "ab\r\n", 100, {{4, "ab\r\n"}, {0, nullptr}}},
      {"empty line", "\n\n", 100, {{1, "\n"}, {1, "\n"}, {0, nullptr}}},
      {"last line without newline", "abc", 100, {{4, "abc"}, {0, nullptr}}},
      {"line then unterminated rest", "a\nbc", 100, {{2, "a\n"}, {3, "bc"}, {0, nullptr}}},
      {"buffer fills", "abcdef\n", 4, {{4, "abc"}, {4, "def"}, {1, "\n"}, {0, nullptr}}},
      {"newline just beyond the buffer", "abc\n", 4, {{4, "abc"}, {1, "\n"}, {0, nullptr}}},
      {"line exactly fits", "ab\n", 4, {{3, "ab\n"}, {0, nullptr}}},
      {"size two", "ab", 2, {{2, "a"}, {2, "b"}, {0, nullptr}}},
      {"nothing at all", "", 100, {{0, nullptr}}},
  };
  for (const auto& c : cases) {
    SocketPair pair;
    if (!c.input.empty())
      pair.Put(c.input);
    pair.CloseRemote();
    for (size_t i = 0; i < c.steps.size(); ++i) {
      std::vector<char> buf(static_cast<size_t>(c.size) + 1, 'Z');
      int got = readline(pair.local(), buf.data(), c.size);
      EXPECT_EQ(got, c.steps[i].result) << c.name << " step " << i;
      if (c.steps[i].text) {
        EXPECT_EQ(std::string(buf.data()), c.steps[i].text) << c.name << " step " << i;
      } else {
        EXPECT_EQ(buf[0], 'Z') << c.name << ": buffer must stay untouched at end of stream";
      }
    }
  }
}

TEST(Readline, NulByteIsStoredAndCounted) {
  SocketPair pair;
  pair.Put(std::string("a\0b\n", 4));
  pair.CloseRemote();
  char buf[16];
  EXPECT_EQ(readline(pair.local(), buf, sizeof buf), 4);
  EXPECT_EQ(std::string(buf, 5), std::string("a\0b\n\0", 5));
}

TEST(Readline, SizeOneOrLessOnlyTerminates) {
  SocketPair pair;
  pair.Put("abc\n");
  for (int32_t size : {1, 0, -3}) {
    char buf[4] = {'Z', 'Z', 'Z', 'Z'};
    EXPECT_EQ(readline(pair.local(), buf, size), 1) << size;
    EXPECT_EQ(buf[0], '\0') << size;
    EXPECT_EQ(buf[1], 'Z') << size;
  }
  char buf[8];
  EXPECT_EQ(readline(pair.local(), buf, sizeof buf), 4);  // nothing was consumed
  EXPECT_STREQ(buf, "abc\n");
}

TEST(Readline, ErrorIsMinusOne) {
  char buf[8] = "Z";
  EXPECT_EQ(readline(-1, buf, sizeof buf), -1);
  int pipe_fds[2];
  ASSERT_EQ(pipe(pipe_fds), 0);
  ASSERT_EQ(write(pipe_fds[1], "x\n", 2), 2);
  EXPECT_EQ(readline(pipe_fds[0], buf, sizeof buf), -1);  // not a socket
  close(pipe_fds[0]);
  close(pipe_fds[1]);
}

TEST(Readline, LongLineComesInBufferSizedPieces) {
  SocketPair pair;
  std::thread writer([&] {
    std::string chunk(100000, 'q');
    for (int i = 0; i < 10; ++i) {
      size_t off = 0;
      while (off < chunk.size()) {
        ssize_t n = send(pair.remote(), chunk.data() + off, chunk.size() - off, MSG_NOSIGNAL);
        if (n <= 0)
          return;
        off += static_cast<size_t>(n);
      }
    }
    send(pair.remote(), "\n", 1, MSG_NOSIGNAL);
    pair.CloseRemote();
  });
  std::array<char, 2048> buf;
  size_t total = 0;
  int calls = 0;
  int last = 0;
  while ((last = readline(pair.local(), buf.data(), 2048)) > 0) {
    ++calls;
    if (last == 2048) {
      EXPECT_EQ(std::strlen(buf.data()), 2047u);
      total += 2047;
    } else {
      total += static_cast<size_t>(last);
    }
  }
  writer.join();
  EXPECT_EQ(last, 0);
  EXPECT_EQ(total, 1000001u);
  EXPECT_EQ(calls, 489);  // 488 full pieces of 2047 bytes, then 1064 + "\n"
}

TEST(ReadlineAndDiscard, CountThenEndOfStream) {
  SocketPair pair;
  pair.Put("hello");
  EXPECT_EQ(readlineAndDiscard(pair.local()), 5);
  pair.CloseRemote();
  EXPECT_EQ(readlineAndDiscard(pair.local()), 0);
  EXPECT_EQ(readlineAndDiscard(-1), -1);
}

TEST(ReadlineAndDiscard, ReadsAtMost60000Bytes) {
  SocketPair pair;
  std::thread writer([&] {
    std::string chunk(70000, 'x');
    size_t off = 0;
    while (off < chunk.size()) {
      ssize_t n = send(pair.remote(), chunk.data() + off, chunk.size() - off, MSG_NOSIGNAL);
      if (n <= 0)
        return;
      off += static_cast<size_t>(n);
    }
    pair.CloseRemote();
  });
  writer.join();
  size_t total = 0;
  int n;
  while ((n = readlineAndDiscard(pair.local())) > 0) {
    EXPECT_LE(n, 60000);
    total += static_cast<size_t>(n);
  }
  EXPECT_EQ(total, 70000u);
}

TEST(WLCleanUp, ClosesAndAlwaysReturnsZero) {
  SocketPair pair;
  int fd = dup(pair.local());
  ASSERT_GE(fd, 0);
  EXPECT_EQ(WLCleanUp(fd), 0);
  EXPECT_EQ(fcntl(fd, F_GETFD), -1);
  EXPECT_EQ(WLCleanUp(-1), 0);
}

}  // namespace
