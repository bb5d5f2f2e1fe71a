#include "driver/exec.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "testlib/driver_fixtures.h"

namespace {

// Runs the command with echo and waits; returns what was printed followed by
// "=<exit status>" ("=signal" when the child did not exit).
std::string Exec(const std::string& command, int use_perl) {
  wltest::CaptureStdout cap;
  int status = ExecuteCmd(command.c_str(), use_perl, 1, 1, nullptr);
  return cap.Take() + (WIFEXITED(status) ? "=" + std::to_string(WEXITSTATUS(status)) : "=signal");
}

TEST(ExecuteCmd, ShellForm) {
  wltest::TempDir dir;
  wltest::ScopedCwd cwd(dir.path());
  EXPECT_EQ(Exec("printf '<%s>\\n' \"a  b\" c", 0),
            "Execute: sh -c 'printf '<%s>\\n' \"a  b\" c'\n<a  b>\n<c>\n=0");
  EXPECT_EQ(ExecuteCmd("exit 3", 0, 0, 1, nullptr), 3 << 8);  // the raw wait status
  // A command file is made executable by everyone.
  wltest::WriteFile(dir / "job.sh", "#!/bin/sh\nexit 5\n");
  EXPECT_EQ(Exec("./job.sh", 0), "Execute: sh -c './job.sh'\n=5");
  struct stat st;
  ASSERT_EQ(stat((dir / "job.sh").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0777u);
  // A program that cannot start exits with 0.
  wltest::ScopedEnv path("PATH", dir / "empty");
  EXPECT_EQ(Exec("exit 9", 0), "Execute: sh -c 'exit 9'\n=0");
}

TEST(ExecuteCmd, PerlFormGroupsQuotedWordsUpToTheArgumentLimit) {
  if (access("/usr/bin/perl", X_OK) != 0)
    GTEST_SKIP() << "perl is not installed";
  wltest::TempDir dir;
  wltest::ScopedCwd cwd(dir.path());
  wltest::WriteFile(dir / "args.pl", "print map { \"[$_]\\n\" } @ARGV;\n");
  // clang-format off
  const std::pair<std::string, std::string> cases[] = {
      {"args.pl \"a    b\"  c", "[a b]\n[c]\n"}, {"args.pl \"one\" two", "[one]\n[two]\n"},
      {"args.pl \"x \"y\" z\"", "[x y]\n[z\"]\n"}, {"args.pl a \"never closed", "[a]\n"},
      {"args.pl mid\"quote", "[mid\"quote]\n"},
  };
  // clang-format on
  for (const auto& [command, args] : cases)
    EXPECT_EQ(Exec(command, 1), "Execute: perl " + command + "\n" + args + "=0");
  // perl, the script and 17 more: 19 arguments, the most there is room for.
  std::string command = "args.pl", args;
  for (int i = 1; i <= 17; ++i) {
    command += " a" + std::to_string(i);
    args += "[a" + std::to_string(i) + "]\n";
  }
  EXPECT_EQ(Exec(command, 1), "Execute: perl " + command + "\n" + args + "=0");
  // One more is refused: nothing runs, nothing is printed, the pid is -1.
  wltest::WriteFile(dir / "marker.pl", "open(F, '>ran'); close F;\n");
  command = "marker.pl" + command.substr(7) + " a18";
  pid_t pid = 0;
  wltest::CaptureStdout cap;
  EXPECT_EQ(ExecuteCmd(command.c_str(), 1, 1, 0, &pid), 0);
  EXPECT_EQ(cap.Take() + std::to_string(pid), "-1");
  EXPECT_FALSE(wltest::ReadFile(dir / "ran").has_value());
}

TEST(Wlfprintf, ReportsAFailedWriteOnStandardError) {
  wltest::TempDir dir;
  wltest::WriteFile(dir / "in", "");
  FILE* f = std::fopen((dir / "in").c_str(), "r");
  ASSERT_NE(f, nullptr);
  wltest::CaptureStdout err(2);
  wltest::CaptureStdout out;
  EXPECT_LT(wlfprintf("here.cc", 12, f, "%s\n", "text"), 0);
  EXPECT_EQ(err.Take(), "ERROR 65: (here.cc,12): Bad file descriptor\n");
  EXPECT_EQ(out.Take(), "");
  std::fclose(f);
}

}  // namespace
