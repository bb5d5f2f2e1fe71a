#pragma once
// Owning handles for POSIX resources. Each releases what it holds on
// destruction. A file we write is closed with an explicit fclose (or through
// PendingOutput::Finish) whose result is checked: the destructor's close
// cannot report a late write error.

#include <dirent.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <string>
#include <utility>
#include <vector>

struct FileCloser {
  void operator()(FILE* f) const noexcept { std::fclose(f); }
};
using UniqueFile = std::unique_ptr<FILE, FileCloser>;

struct DirCloser {
  void operator()(DIR* d) const noexcept { closedir(d); }
};
using UniqueDir = std::unique_ptr<DIR, DirCloser>;

// Move-only descriptor; closes on destruction.
class UniqueFd {
 public:
  explicit UniqueFd(int fd = -1) : fd_(fd) {}
  UniqueFd(UniqueFd&& o) noexcept : fd_(o.Release()) {}
  UniqueFd& operator=(UniqueFd&& o) noexcept {
    if (this != &o) Reset(o.Release());
    return *this;
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  ~UniqueFd() { Reset(); }
  int get() const { return fd_; }
  int Release() { return std::exchange(fd_, -1); }
  void Reset(int fd = -1) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = fd;
  }

 private:
  int fd_;
};

// Changes the current directory and restores the one it found on
// destruction. ok() tells whether the change succeeded.
class ScopedChdir {
 public:
  explicit ScopedChdir(const std::string& dir);
  ~ScopedChdir();
  ScopedChdir(const ScopedChdir&) = delete;
  ScopedChdir& operator=(const ScopedChdir&) = delete;
  bool ok() const { return ok_; }

 private:
  std::string saved_;
  bool ok_ = false;
};

// Handles kept open until the process ends, for the few that are held on
// purpose (an inventory that was read, a lock given up on, a posted file, a
// socket whose connect failed): they are released with the other static
// objects at exit. The list of one handle type can be cleared early by a
// process that must not accumulate them.
template <class Handle>
std::vector<Handle>& HeldUntilExit() {
  static std::vector<Handle> held;
  return held;
}
template <class Handle>
void HoldUntilExit(Handle handle) {
  HeldUntilExit<Handle>().push_back(std::move(handle));
}
