#include "driver/exec.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "driver_fixtures.h"
#include "testlib/testlib.h"

namespace {

bool HavePerl() { return access("/usr/bin/perl", X_OK) == 0 || access("/bin/perl", X_OK) == 0; }

// Waits for a child with a deadline; returns its raw status or -1.
int WaitBounded(pid_t pid, int seconds) {
  for (int i = 0; i < seconds * 100; ++i) {
    int status = 0;
    pid_t r = waitpid(pid, &status, WNOHANG);
    if (r == pid)
      return status;
    if (r < 0 && errno != EINTR)
      return -1;
    usleep(10000);
  }
  return -1;
}

class ExecuteCmdTest : public ::testing::Test {
 protected:
  ExecuteCmdTest() : cwd_(dir_.path()) {
    // Prints each argument on its own line, between brackets.
    wltest::WriteFile(dir_ / "args.pl", "print map { \"[$_]\\n\" } @ARGV;\n");
  }
  wltest::TempDir dir_;
  wltest::ScopedCwd cwd_;
};

TEST_F(ExecuteCmdTest, ShellFormPassesTheCommandUnchanged) {
  wltest::CaptureStdout cap;
  int status = ExecuteCmd("printf '<%s>\\n' \"a  b\" c", 0, 1, 1, nullptr);
  std::string out = cap.Take();
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_EQ(out, "Execute: sh -c 'printf '<%s>\\n' \"a  b\" c'\n<a  b>\n<c>\n");
}

TEST_F(ExecuteCmdTest, WaitReturnsTheRawStatus) {
  int status = ExecuteCmd("exit 3", 0, 0, 1, nullptr);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 3);
  EXPECT_EQ(status, 3 << 8);

  status = ExecuteCmd("kill -TERM $$", 0, 0, 1, nullptr);
  ASSERT_TRUE(WIFSIGNALED(status));
  EXPECT_EQ(WTERMSIG(status), SIGTERM);
}

TEST_F(ExecuteCmdTest, WithoutEchoNothingIsPrinted) {
  wltest::CaptureStdout cap;
  ExecuteCmd("true", 0, 0, 1, nullptr);
  EXPECT_EQ(cap.Take(), "");
}

TEST_F(ExecuteCmdTest, NoWaitStoresThePid) {
  pid_t pid = 0;
  EXPECT_EQ(ExecuteCmd("exit 4", 0, 0, 0, &pid), 0);
  ASSERT_GT(pid, 0);
  int status = WaitBounded(pid, 30);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 4);
}

TEST_F(ExecuteCmdTest, CommandFileIsMadeExecutable) {
  wltest::WriteFile(dir_ / "job.sh", "#!/bin/sh\nexit 5\n");
  chmod((dir_ / "job.sh").c_str(), 0644);
  int status = ExecuteCmd("./job.sh", 0, 0, 1, nullptr);
  struct stat st;
  ASSERT_EQ(stat((dir_ / "job.sh").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0777u);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 5);
}

TEST_F(ExecuteCmdTest, ProgramThatCannotStartExitsWithZero) {
  wltest::ScopedEnv path("PATH", (dir_ / "empty").c_str());
  int status = ExecuteCmd("exit 9", 0, 0, 1, nullptr);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST_F(ExecuteCmdTest, PerlFormGroupsQuotedWords) {
  if (!HavePerl())
    GTEST_SKIP() << "perl is not installed";
  struct Case {
    const char* command;
    const char* echo;
    const char* args;
  };
  const Case cases[] = {
      {"args.pl \"a b\" c", "Execute: perl args.pl \"a b\" c\n", "[a b]\n[c]\n"},
      {"args.pl \"a    b\"  c", "Execute: perl args.pl \"a    b\"  c\n", "[a b]\n[c]\n"},
      {"args.pl \"one\" two", "Execute: perl args.pl \"one\" two\n", "[one]\n[two]\n"},
      {"args.pl \"x \"y\" z\"", "Execute: perl args.pl \"x \"y\" z\"\n", "[x y]\n[z\"]\n"},
      {"args.pl a \"never closed", "Execute: perl args.pl a \"never closed\n", "[a]\n"},
      {"args.pl mid\"quote", "Execute: perl args.pl mid\"quote\n", "[mid\"quote]\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.command);
    wltest::CaptureStdout cap;
    int status = ExecuteCmd(c.command, 1, 1, 1, nullptr);
    std::string out = cap.Take();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_EQ(out, std::string(c.echo) + c.args);
  }
}

TEST_F(ExecuteCmdTest, PerlFormArgumentLimit) {
  if (!HavePerl())
    GTEST_SKIP() << "perl is not installed";
  // perl, args.pl and 17 more: 19 arguments, the most there is room for.
  std::string command = "args.pl";
  std::string expected;
  for (int i = 1; i <= 17; ++i) {
    command += " a" + std::to_string(i);
    expected += "[a" + std::to_string(i) + "]\n";
  }
  {
    wltest::CaptureStdout cap;
    int status = ExecuteCmd(command.c_str(), 1, 0, 1, nullptr);
    EXPECT_EQ(cap.Take(), expected);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  }
  // One more is refused: nothing runs, nothing is printed, the pid is -1.
  command += " a18";
  wltest::WriteFile(dir_ / "marker.pl", "open(F, '>ran'); close F;\n");
  std::string refused = "marker.pl" + command.substr(7);
  pid_t pid = 0;
  wltest::CaptureStdout cap;
  EXPECT_EQ(ExecuteCmd(refused.c_str(), 1, 1, 0, &pid), 0);
  EXPECT_EQ(cap.Take(), "");
  EXPECT_EQ(pid, -1);
  EXPECT_FALSE(wltest::ReadFile(dir_ / "ran").has_value());
}

TEST_F(ExecuteCmdTest, ManyGroupedWordsCountAsOneArgument) {
  if (!HavePerl())
    GTEST_SKIP() << "perl is not installed";
  std::string command = "args.pl \"";
  for (int i = 0; i < 100; ++i)
    command += "w ";
  command += "end\"";
  wltest::CaptureStdout cap;
  ExecuteCmd(command.c_str(), 1, 0, 1, nullptr);
  std::string words;
  for (int i = 0; i < 100; ++i)
    words += "w ";
  EXPECT_EQ(cap.Take(), "[" + words + "end]\n");
}

// --- wlfprintf ---

TEST(Wlfprintf, WritesAndCounts) {
  wltest::TempDir dir;
  FILE* f = std::fopen((dir / "out").c_str(), "w");
  ASSERT_NE(f, nullptr);
  EXPECT_EQ(wlfprintf("here.cc", 12, f, "%s=%d\n", "x", 42), 5);
  std::fclose(f);
  EXPECT_EQ(wltest::ReadFile(dir / "out").value_or("?"), "x=42\n");
}

TEST(Wlfprintf, ReportsAFailedWriteOnStandardError) {
  wltest::TempDir dir;
  wltest::WriteFile(dir / "in", "");
  FILE* f = std::fopen((dir / "in").c_str(), "r");
  ASSERT_NE(f, nullptr);
  drivertest::CaptureStderr err;
  wltest::CaptureStdout out;
  int n = wlfprintf("here.cc", 12, f, "%s\n", "text");
  EXPECT_LT(n, 0);
  EXPECT_EQ(err.Take(), "ERROR 65: (here.cc,12): Bad file descriptor\n");
  EXPECT_EQ(out.Take(), "");
  std::fclose(f);
}

}  // namespace
