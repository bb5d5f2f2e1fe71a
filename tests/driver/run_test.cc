#include "driver/run.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "driver_fixtures.h"
#include "support/handles.h"
#include "testlib/testlib.h"

namespace {

// --- FileStat ---

TEST(FileStat, RegularFile) {
  wltest::TempDir dir;
  std::string path = dir / "f";
  wltest::WriteFile(path, "12345");
  struct timeval times[2] = {{1600000000, 0}, {1600000000, 0}};
  ASSERT_EQ(utimes(path.c_str(), times), 0);
  int64_t size = -1;
  uint64_t mtime = 0;
  EXPECT_EQ(FileStat(path.c_str(), &size, &mtime), 1);
  EXPECT_EQ(size, 5);
  EXPECT_EQ(mtime, 1600000000u);
}

TEST(FileStat, MissingFile) {
  wltest::TempDir dir;
  int64_t size = -1;
  uint64_t mtime = 0;
  EXPECT_EQ(FileStat((dir / "missing").c_str(), &size, &mtime), 0);
  EXPECT_EQ(size, 0);
}

TEST(FileStat, DirectoryIsNotAFile) {
  wltest::TempDir dir;
  int64_t size = -1;
  uint64_t mtime = 7;
  EXPECT_EQ(FileStat(dir.path().c_str(), &size, &mtime), 0);
  EXPECT_EQ(size, 0);
  EXPECT_EQ(mtime, 0u);
}

TEST(FileStat, DirectoryWithTimeZeroIsNotRecognised) {
  wltest::TempDir dir;
  std::string sub = dir / "sub";
  wltest::MakeDirs(sub);
  struct timeval times[2] = {{0, 0}, {0, 0}};
  ASSERT_EQ(utimes(sub.c_str(), times), 0);
  int64_t size = -1;
  uint64_t mtime = 7;
  EXPECT_EQ(FileStat(sub.c_str(), &size, &mtime), 1);
  EXPECT_EQ(mtime, 0u);
}

TEST(FileStat, NetworkPathsAreNeverExamined) {
  int64_t size = -1;
  uint64_t mtime = 0;
  EXPECT_EQ(FileStat("//tmp", &size, &mtime), 0);
  EXPECT_EQ(size, 0);
  EXPECT_EQ(FileStat("//", &size, &mtime), 0);
  EXPECT_EQ(FileStat("", &size, &mtime), 0);
}

TEST(FileStat, FifoIsExaminedWithoutWaiting) {
  wltest::TempDir dir;
  std::string fifo = dir / "pipe";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  int64_t size = -1;
  uint64_t mtime = 0;
  EXPECT_EQ(FileStat(fifo.c_str(), &size, &mtime), 1);
}

TEST(FileStat, UnreadableFile) {
  if (geteuid() == 0)
    GTEST_SKIP() << "running as root: permissions do not stop reading";
  wltest::TempDir dir;
  std::string path = dir / "f";
  wltest::WriteFile(path, "x");
  chmod(path.c_str(), 0);
  int64_t size = -1;
  uint64_t mtime = 0;
  EXPECT_EQ(FileStat(path.c_str(), &size, &mtime), 0);
}

// --- GetUserId ---

TEST(GetUserId, LoginNameOfTheEffectiveUser) {
  std::string buffer = "old";
  struct passwd* pw = getpwuid(geteuid());
  std::string expected = pw && pw->pw_name ? pw->pw_name : "";
  EXPECT_EQ(&GetUserId(buffer), &buffer);
  EXPECT_EQ(buffer, expected);
}

// --- file_copy ---

// Counts the pauses and runs an action at a chosen pause.
struct PauseScript {
  static int pauses;
  static unsigned last_seconds;
  static int release_at;  // pause number at which the lock is released
  static int lock_fd;
  static void Pause(unsigned seconds) {
    ++pauses;
    last_seconds = seconds;
    if (pauses == release_at && lock_fd >= 0)
      flock(lock_fd, LOCK_UN);
  }
};
int PauseScript::pauses = 0;
unsigned PauseScript::last_seconds = 0;
int PauseScript::release_at = -1;
int PauseScript::lock_fd = -1;

class FileCopyTest : public ::testing::Test {
 protected:
  void SetUp() override {
    PauseScript::pauses = 0;
    PauseScript::last_seconds = 0;
    PauseScript::release_at = -1;
    PauseScript::lock_fd = -1;
    file_copy_pause = PauseScript::Pause;
    src_ = dir_ / "src";
    dst_ = dir_ / "dst";
    content_ = std::string("line 1\nbinary \0\xff bytes\n", 24) + std::string(5000, 'z');
    wltest::WriteFile(src_, content_);
  }
  void TearDown() override { file_copy_pause = Secs2Sleep; }

  // Holds an exclusive lock on the destination through another open file.
  UniqueFd LockDestination() {
    wltest::WriteFile(dst_, "");
    UniqueFd fd(open(dst_.c_str(), O_RDWR | O_CLOEXEC));
    EXPECT_GE(fd.get(), 0);
    EXPECT_EQ(flock(fd.get(), LOCK_EX | LOCK_NB), 0);
    PauseScript::lock_fd = fd.get();
    return fd;
  }
  bool DestinationLockedElsewhere() {
    UniqueFd probe(open(dst_.c_str(), O_RDONLY | O_CLOEXEC));
    return flock(probe.get(), LOCK_EX | LOCK_NB) != 0;
  }

  wltest::TempDir dir_;
  std::string src_, dst_, content_;
};

TEST_F(FileCopyTest, CopiesEveryByteOverALongerFile) {
  wltest::WriteFile(dst_, std::string(20000, 'o'));
  EXPECT_EQ(file_copy(src_.c_str(), dst_.c_str()), 0);
  EXPECT_EQ(wltest::ReadFile(dst_).value_or("?"), content_);
  EXPECT_EQ(PauseScript::pauses, 0);
  EXPECT_FALSE(DestinationLockedElsewhere());
}

TEST_F(FileCopyTest, EmptySource) {
  wltest::WriteFile(src_, "");
  EXPECT_EQ(file_copy(src_.c_str(), dst_.c_str()), 0);
  EXPECT_EQ(wltest::ReadFile(dst_).value_or("?"), "");
}

TEST_F(FileCopyTest, DestinationCannotBeOpened) {
  EXPECT_EQ(file_copy(src_.c_str(), (dir_ / "no/such/dir/dst").c_str()), 1);
  EXPECT_EQ(file_copy(src_.c_str(), dir_.path().c_str()), 1);
}

TEST_F(FileCopyTest, SourceCannotBeOpened) {
  EXPECT_EQ(file_copy((dir_ / "missing").c_str(), dst_.c_str()), 1);
}

TEST_F(FileCopyTest, FifoWithoutReaderFailsAtOnce) {
  ASSERT_EQ(mkfifo(dst_.c_str(), 0600), 0);
  EXPECT_EQ(file_copy(src_.c_str(), dst_.c_str()), 1);
  EXPECT_EQ(PauseScript::pauses, 0);
}

TEST_F(FileCopyTest, LockFreedDuringTheRetries) {
  UniqueFd holder = LockDestination();
  PauseScript::release_at = 50;
  EXPECT_EQ(file_copy(src_.c_str(), dst_.c_str()), 0);
  EXPECT_EQ(PauseScript::pauses, 50);
  EXPECT_EQ(PauseScript::last_seconds, 2u);
  EXPECT_EQ(wltest::ReadFile(dst_).value_or("?"), content_);
}

TEST_F(FileCopyTest, LockFreedAtThe99thPauseStillCopies) {
  UniqueFd holder = LockDestination();
  PauseScript::release_at = 99;
  EXPECT_EQ(file_copy(src_.c_str(), dst_.c_str()), 0);
  EXPECT_EQ(PauseScript::pauses, 99);
  EXPECT_EQ(wltest::ReadFile(dst_).value_or("?"), content_);
}

TEST_F(FileCopyTest, The101stAttemptDoesNotCountEvenWhenItLocks) {
  UniqueFd holder = LockDestination();
  PauseScript::release_at = 100;
  EXPECT_EQ(file_copy(src_.c_str(), dst_.c_str()), 1);
  EXPECT_EQ(PauseScript::pauses, 100);
  // The destination was truncated by the open, nothing was copied, and the
  // copy's own handle still holds the lock it got on the last attempt.
  EXPECT_EQ(wltest::ReadFile(dst_).value_or("?"), "");
  EXPECT_TRUE(DestinationLockedElsewhere());
}

TEST_F(FileCopyTest, LockNeverFreed) {
  UniqueFd holder = LockDestination();
  EXPECT_EQ(file_copy(src_.c_str(), dst_.c_str()), 1);
  EXPECT_EQ(PauseScript::pauses, 100);
  EXPECT_EQ(PauseScript::last_seconds, 2u);
}

}  // namespace
