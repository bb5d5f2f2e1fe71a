#include "scm/runner.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <string>
#include <vector>

#include "support/handles.h"
#include "testlib/scm_fixtures.h"

namespace {

using wltest::TempDir;

// Output is read as fgets into a buffer of the limit reads it.
TEST(LineReader, PiecesAtTheLimitAndUnendedLines) {
  TempDir dir;
  const std::string a(2046, 'a'), b(4095, 'b');
  struct Case {
    std::string in;
    int limit;
    std::string pieces;
  } cases[] = {
      {a + "\nx\n", 2048, "<" + a + "\n><x\n>"},  {a + "a\nx\n", 2048, "<" + a + "a><\n><x\n>"},
      {a + "aa\n", 2048, "<" + a + "a><a\n>"},    {b + "b\n", 4096, "<" + b + "><b\n>"},
      {"crlf\r\nlast", 2048, "<crlf\r\n><last>"},
  };
  for (const auto& c : cases) {
    wltest::WriteFile(dir / "out", c.in);
    UniqueFd f(open((dir / "out").c_str(), O_RDONLY | O_CLOEXEC));
    LineReader lines(f.get(), c.limit);
    std::string all, line;
    while (lines.Next(line))
      all += "<" + line + ">";
    EXPECT_EQ(all, c.pieces) << c.in.size();
  }
  // Input that is always ready (as from a client that keeps its pipe full)
  // ends at a deadline that has passed.
  UniqueFd f(open((dir / "out").c_str(), O_RDONLY | O_CLOEXEC));
  LineReader late(f.get(), 2048, LineReader::Clock::now());
  std::string line;
  EXPECT_FALSE(late.Next(line));
  EXPECT_TRUE(late.timed_out());
}

// Descriptors this process has open.
size_t OpenDescriptors() { return wltest::ListDir("/proc/self/fd").size(); }

// 1 while process `pid` exists and is not a zombie.
bool Alive(pid_t pid) {
  std::string stat = wltest::ReadFile("/proc/" + std::to_string(pid) + "/stat").value_or("");
  size_t at = stat.rfind(')');
  return at != std::string::npos && at + 2 < stat.size() && stat[at + 2] != 'Z';
}

// Clients that sleep, print endlessly, leave a sleeping grandchild, read
// standard input, or finish: each is stopped (with its whole group) within
// its bound of 2 s (room for a slow start on a loaded machine), or runs to
// its end; nothing is left behind, also under a low descriptor limit.
TEST(ClientRun, BoundStdinAndCleanUp) {
  TempDir dir;
  const std::string pid_file = dir / "grandchild";
  struct Case {
    std::string command;
    unsigned timeout;
    size_t read_lines;  // stop reading after this many lines
    std::string out;    // the first 16 bytes read at most
    bool stopped;
  } cases[] = {
      {"echo first; sleep 30", 2, 99, "first\n", true},
      {"yes", 2, SIZE_MAX, "y\ny\ny\ny\ny\ny\ny\ny\n", true},
      {"sleep 30 & echo $! > " + pid_file + "; echo first; wait", 2, 99, "first\n", true},
      {"echo one; sleep 30", 2, 1, "one\n", true},  // reading stopped, still running
      {"if read x; then echo got; else echo eof; fi", 5, 99, "eof\n", false},
      {"echo hi; exec 3>&-", 0, 99, "hi\n", false},  // no bound
      // Only the three standard descriptors, standard input the null device.
      {"ls /proc/$$/fd; readlink /proc/$$/fd/0", 5, 99, "0\n1\n2\n/dev/null\n", false},
  };
  // This process's standard input holds a line no client may read.
  wltest::WriteFile(dir / "stdin", "line\n");
  UniqueFd saved_stdin(dup(0)), text(open((dir / "stdin").c_str(), O_RDONLY | O_CLOEXEC));
  dup2(text.get(), 0);
  const size_t descriptors = OpenDescriptors();
  for (const auto& c : cases) {
    const auto start = std::chrono::steady_clock::now();
    std::string out, line;
    size_t lines = 0;
    int status = 0;
    std::string printed = wltest::Printed([&] {
      ClientRun run(c.command, "shown", c.timeout, 2048);
      ASSERT_TRUE(run);
      for (; lines < c.read_lines && run.Next(line); ++lines)
        out += out.size() < 16 ? line : "";
      status = run.Finish();
      EXPECT_EQ(run.stopped(), c.stopped);
    });
    EXPECT_EQ(out, c.out) << c.command;
    EXPECT_EQ(printed, c.stopped ? "Stopped after 2 seconds: shown\n" : "") << c.command;
    EXPECT_EQ(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL, c.stopped) << c.command;
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(15)) << c.command;
  }
  // The grandchild went with its group.
  const pid_t grandchild = std::atoi(wltest::ReadFile(pid_file).value_or("").c_str());
  ASSERT_GT(grandchild, 0);
  for (int i = 0; i < 500 && Alive(grandchild); ++i)
    usleep(10000);
  EXPECT_FALSE(Alive(grandchild));
  // A client needs two free descriptors below the limit, the ends of its pipe:
  // with one it is not started, reads nothing and reaps nothing.
  int free_fds[2] = {dup(0), dup(0)};
  for (int fd : free_fds)
    close(fd);
  rlimit saved{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
  for (int room : {1, 2}) {
    rlimit low = {static_cast<rlim_t>(free_fds[room - 1] + 1), saved.rlim_max};
    setrlimit(RLIMIT_NOFILE, &low);
    ClientRun run("echo hi", "shown", 5, 2048);
    std::string all, line;
    while (run.Next(line))
      all += line;
    const int status = run.Finish();
    setrlimit(RLIMIT_NOFILE, &saved);
    EXPECT_EQ(all + std::to_string(status), room == 2 ? "hi\n0" : "-1") << room;
  }
  EXPECT_EQ(OpenDescriptors(), descriptors);
  dup2(saved_stdin.get(), 0);
  errno = 0;
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);  // no child left to reap
  EXPECT_EQ(errno, ECHILD);
}

// WEFTLANE_CLIENT_TIMEOUT values, the largest at n and n + 1.
TEST(ClientTimeoutFrom, ValuesAndWarnings) {
  const std::string warn = " is not a number of seconds from 0 to 4294967295; stopping clients "
                           "after 1800 s";
  struct Case {
    const char* value;
    unsigned seconds;
    std::string warning;
  } cases[] = {
      {nullptr, 1800, ""},   {" \t", 1800, ""},       {"0", 0, ""},
      {" 7\t", 7, ""},       {"4294967295", 4294967295u, ""},
      {"4294967296", 1800, "WARNING: WEFTLANE_CLIENT_TIMEOUT 4294967296" + warn},
      {"-1", 1800, "WARNING: WEFTLANE_CLIENT_TIMEOUT -1" + warn},
      {"5s", 1800, "WARNING: WEFTLANE_CLIENT_TIMEOUT 5s" + warn},
      {"00000000001", 1800, "WARNING: WEFTLANE_CLIENT_TIMEOUT 00000000001" + warn},
  };
  for (const auto& c : cases) {
    unsigned seconds = 99;
    EXPECT_EQ(ClientTimeoutFrom(c.value, &seconds), c.warning) << (c.value ? c.value : "null");
    EXPECT_EQ(seconds, c.seconds) << (c.value ? c.value : "null");
  }
}

}  // namespace
