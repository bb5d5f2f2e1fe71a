#include "driver/run.h"
#include "driver/config.h"
#include "driver/exec.h"
#include "driver/input.h"
#include "driver/output.h"
#include "inventory/inventory.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <string>

#include "support/handles.h"
#include "support/strings.h"
#include "testlib/driver_fixtures.h"
#include "testlib/inventory_fixtures.h"

namespace {

TEST(FileStat, Kinds) {
  wltest::TempDir dir;
  wltest::WriteFile(dir / "f", "12345");
  wltest::MakeDirs(dir / "zero");
  ASSERT_EQ(mkfifo((dir / "pipe").c_str(), 0600), 0);
  const struct timeval at[2] = {{1600000000, 0}, {1600000000, 0}}, zero[2] = {};
  for (const char* name : {"f", "zero", "pipe"})
    ASSERT_EQ(utimes((dir / name).c_str(), name[0] == 'z' ? zero : at), 0);
  struct stat zero_st;
  ASSERT_EQ(stat((dir / "zero").c_str(), &zero_st), 0);
  // clang-format off
  const std::pair<std::string, std::string> cases[] = {  // path, "result size mtime"
      {dir / "f", "1 5 1600000000"}, {dir / "missing", "0 0 7"},
      {dir.path(), "0 0 0"},  // a directory is not a file
      {dir / "zero", "1 " + std::to_string(zero_st.st_size) + " 0"},  // unless its time reads as 0
      {dir / "pipe", "1 0 1600000000"},  // examined without waiting for a writer
      {"//tmp", "0 0 7"}, {"", "0 0 7"},  // network paths are never examined
  };
  // clang-format on
  for (const auto& [path, want] : cases) {
    int64_t size = -1;
    uint64_t mtime = 7;
    int r = FileStat(path.c_str(), &size, &mtime);
    EXPECT_EQ(std::to_string(r) + " " + std::to_string(size) + " " + std::to_string(mtime), want)
        << path;
  }
}

// The pauses file_copy takes; the holder's lock is released at pause number release_at.
int pauses = 0, release_at = -1, lock_fd = -1;
unsigned last_seconds = 0;

bool LockedElsewhere(const std::string& path) {
  UniqueFd probe(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  return flock(probe.get(), LOCK_EX | LOCK_NB) != 0;
}

TEST(FileCopy, FailsAfterTheLockRetries) {
  wltest::TempDir dir;
  const std::string src = dir / "src", dst = dir / "dst", content = "content";
  wltest::WriteFile(src, content);
  // One attempt and 100 retries after 2-second pauses; the 101st attempt
  // does not count even when it gets the lock. (Copies that succeed or fail
  // at once are in Handles below.)
  file_copy_pause = [](unsigned seconds) {
    last_seconds = seconds;
    if (++pauses == release_at)
      flock(lock_fd, LOCK_UN);
  };
  const int cases[][3] = {{50, 0, 50}, {99, 0, 99}, {100, 1, 100}, {-1, 1, 100}};
  for (const auto& [release, result, count] : cases) {  // release_at, result, pauses
    SCOPED_TRACE(release);
    // A failed copy leaves its handle open, so every row has its own file.
    const std::string locked = dst + std::to_string(release);
    wltest::WriteFile(locked, "");
    UniqueFd holder(open(locked.c_str(), O_RDWR | O_CLOEXEC));
    ASSERT_EQ(flock(holder.get(), LOCK_EX | LOCK_NB), 0);
    pauses = 0;
    release_at = release;
    lock_fd = holder.get();
    EXPECT_EQ(file_copy(src.c_str(), locked.c_str()), result);
    EXPECT_EQ(pauses, count);
    EXPECT_EQ(last_seconds, 2u);
    // On failure the destination is left as it was; after the 101st attempt
    // the copy's own handle keeps the lock. A copy replaces the locked file.
    EXPECT_EQ(wltest::ReadFile(locked), result ? "" : content);
    EXPECT_EQ(LockedElsewhere(locked), result == 1);
  }
  file_copy_pause = Secs2Sleep;
}

// Every file a run writes is flushed, closed and checked: under a file size
// limit of n bytes, n bytes are written and put in place; n+1 bytes fail at
// Finish, leave nothing behind and the final name untouched.
TEST(PendingOutput, FinishChecksEveryWriteUpToTheFileSizeLimit) {
  wltest::TempDir dir;
  const std::string name = dir / "out";
  wltest::WriteFile(name, "old");
  struct sigaction ignore {}, old_action {};
  ignore.sa_handler = SIG_IGN;
  ASSERT_EQ(sigaction(SIGXFSZ, &ignore, &old_action), 0);
  rlimit old_limit{};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &old_limit), 0);
  rlimit low = old_limit;
  low.rlim_cur = 4096;
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &low), 0);
  for (size_t size : {4096, 4097}) {
    SCOPED_TRACE(size);
    {
      PendingOutput out;
      ASSERT_TRUE(out.Create(name));
      std::fwrite(std::string(size, 'x').data(), 1, size, out.get());
      errno = 0;
      const bool finished = out.Finish();
      EXPECT_EQ(finished, size == 4096);
      EXPECT_EQ(errno, finished ? 0 : EFBIG);
      EXPECT_EQ(out.Replace(name), finished);
    }
    EXPECT_EQ(wltest::ListDir(dir.path()), std::vector<std::string>{"out"});
    EXPECT_EQ(wltest::ReadFile(name), std::string(4096, 'x'));  // the n+1 row keeps the n row's
  }
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &old_limit), 0);
  ASSERT_EQ(sigaction(SIGXFSZ, &old_action, nullptr), 0);
}

int OpenDescriptors() { return static_cast<int>(wltest::ListDir("/proc/self/fd").size()); }

// Every file the driver and the inventory open is released again, whether
// the step succeeds or fails (inventories a run loads are released by
// CloseLoadedInventories, which only tests and fuzz targets call).
TEST(Handles, EveryStepReleasesWhatItOpens) {
  wltest::TempDir dir;
  wltest::ScopedCwd cwd(dir.path());
  const std::string content =
      std::string("line 1\nbinary \0\xff bytes\n", 24) + std::string(5000, 'z');
  wltest::WriteFile("src", content);
  wltest::WriteFile("dst", std::string(20000, 'o'));
  ASSERT_EQ(mkfifo("fifo", 0600), 0);
  wltest::WriteFile("T-M-1.bom.data", "ModuleRootDir=/w\n/w;a;1;2; d; v;\n");
  wltest::WriteFile("resp", "-lj j\n");
  wltest::WriteFile("home/.weftlane/wlenvironment.properties", "A=1\n");
  wltest::ScopedEnv home("HOME", dir / "home");
  const std::pair<const char*, std::function<void()>> steps[] = {
      {"file_copy", [&] {
         EXPECT_EQ(file_copy("src", "dst"), 0);
         EXPECT_EQ(wltest::ReadFile("dst"), content);  // every byte, the old length gone
       }},
      {"file_copy of a missing file", [] { EXPECT_EQ(file_copy("missing", "dst"), 1); }},
      {"file_copy onto a directory", [] { EXPECT_EQ(file_copy("src", "home"), 1); }},
      {"file_copy onto a FIFO", [] { EXPECT_EQ(file_copy("src", "fifo"), 1); }},  // no reader
      {"LoadFileTree", [] {
         wltest::ScopedFileTree tree;
         LoadFileTree(tree.get(), "T-M-1.bom.data");
         LoadFileTree(tree.get(), "missing");
         CloseLoadedInventories();
       }},
      {"FindOldFileName", [] {
         std::string buffer = "T-M-*";
         FindOldFileName("T-M-2.bom.data", buffer, "/w");
         EXPECT_EQ(buffer, "T-M-1.bom.data");
       }},
      {"LoadConfigEnv", [] {
         ResetConfigEnv();
         char* names = LoadConfigEnv();
         safe_free(&names);
         ResetConfigEnv();
       }},
      {"OpenInputFile", [] {
         InputStatus status;
         for (const char* name : {"resp", "missing", "home"})
           OpenInputFile(name, status);
       }},
      {"PendingOutput left unfinished", [] {
         PendingOutput out;
         ASSERT_TRUE(out.Create("pending"));
       }},
  };
  for (const auto& [what, step] : steps) {
    const int before = OpenDescriptors();
    {
      wltest::CaptureStdout quiet;
      step();
    }
    EXPECT_EQ(OpenDescriptors(), before) << what;
  }
  EXPECT_EQ(wltest::ListDir(dir.path()),
            (std::vector<std::string>{"T-M-1.bom.data", "dst", "fifo", "home", "resp", "src"}));
}

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
