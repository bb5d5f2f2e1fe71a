#include "driver/run.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <string>

#include "support/handles.h"
#include "testlib/testlib.h"

namespace {

TEST(FileStat, Kinds) {
  wltest::TempDir dir;
  wltest::WriteFile(dir / "f", "12345");
  wltest::MakeDirs(dir / "zero");
  ASSERT_EQ(mkfifo((dir / "pipe").c_str(), 0600), 0);
  struct timeval f_times[2] = {{1600000000, 0}, {1600000000, 0}}, zero[2] = {{0, 0}, {0, 0}};
  ASSERT_EQ(utimes((dir / "f").c_str(), f_times), 0);
  ASSERT_EQ(utimes((dir / "zero").c_str(), zero), 0);
  ASSERT_EQ(utimes((dir / "pipe").c_str(), f_times), 0);
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

TEST(FileCopy, CopiesEveryByteOrFailsAfterTheLockRetries) {
  wltest::TempDir dir;
  const std::string src = dir / "src", dst = dir / "dst";
  const std::string content =
      std::string("line 1\nbinary \0\xff bytes\n", 24) + std::string(5000, 'z');
  wltest::WriteFile(src, content);
  wltest::WriteFile(dst, std::string(20000, 'o'));
  EXPECT_EQ(file_copy(src.c_str(), dst.c_str()), 0);
  EXPECT_EQ(wltest::ReadFile(dst), content);
  EXPECT_EQ(file_copy((dir / "missing").c_str(), dst.c_str()), 1);
  EXPECT_EQ(file_copy(src.c_str(), dir.path().c_str()), 1);
  ASSERT_EQ(mkfifo((dir / "fifo").c_str(), 0600), 0);
  EXPECT_EQ(file_copy(src.c_str(), (dir / "fifo").c_str()), 1);  // no reader: fails at once

  // One attempt and 100 retries after 2-second pauses; the 101st attempt
  // does not count even when it gets the lock.
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

}  // namespace
