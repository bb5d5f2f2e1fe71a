#include "driver/output.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstdio>
#include <cstring>
#include <new>
#include <vector>

namespace {

constexpr const char* kTempPattern = ".wlinspector-XXXXXX";

// The permissions open(..., 0666) would give under the current umask.
mode_t CreateMode() {
  mode_t mask = umask(0);
  umask(mask);
  return 0666 & ~mask;
}

std::string DirectoryOf(const std::string& name) {
  size_t slash = name.rfind('/');
  return slash == std::string::npos ? std::string() : name.substr(0, slash + 1);
}

}  // namespace

PendingOutput::~PendingOutput() { Discard(); }

void PendingOutput::Discard() {
  if (file_) {
    std::fclose(file_);
    file_ = nullptr;
  }
  if (!temp_.empty()) {
    unlink(temp_.c_str());
    temp_.clear();
  }
}

bool PendingOutput::Create(const std::string& final_name) {
  Discard();
  std::string path = DirectoryOf(final_name) + kTempPattern;
  std::vector<char> buffer(path.begin(), path.end());
  buffer.push_back('\0');
  int fd = mkostemp(buffer.data(), O_CLOEXEC);
  if (fd < 0)
    return false;
  temp_ = buffer.data();
  if (fchmod(fd, CreateMode()) != 0 || !(file_ = fdopen(fd, "w"))) {
    int err = errno;
    if (!file_)
      close(fd);
    Discard();
    errno = err;
    return false;
  }
  buffer_.reset(new (std::nothrow) char[kBufferSize]);
  if (buffer_)
    std::setvbuf(file_, buffer_.get(), _IOFBF, kBufferSize);
  return true;
}

bool PendingOutput::Finish() {
  if (!file_) {
    errno = EBADF;
    return false;
  }
  bool failed_before = std::ferror(file_) != 0;
  int err = 0;
  if (std::fflush(file_) != 0 || fsync(fileno(file_)) != 0)
    err = errno;
  FILE* f = file_;
  file_ = nullptr;
  if (std::fclose(f) != 0 && err == 0)
    err = errno;
  // A write that failed earlier leaves only the error flag; its reason is
  // gone by now unless the flush failed the same way.
  if (err == 0 && failed_before)
    err = EIO;
  if (err != 0) {
    Discard();
    errno = err;
    return false;
  }
  return true;
}

bool PendingOutput::Replace(const std::string& name) {
  if (file_ || temp_.empty() || std::rename(temp_.c_str(), name.c_str()) != 0)
    return false;
  temp_.clear();
  return true;
}

bool PendingOutput::Claim(const std::string& name) {
  if (file_ || temp_.empty())
    return false;
  if (renameat2(AT_FDCWD, temp_.c_str(), AT_FDCWD, name.c_str(), RENAME_NOREPLACE) == 0) {
    temp_.clear();
    return true;
  }
  // File systems without the no-replace rename still create links
  // exclusively.
  if (errno != EINVAL && errno != ENOSYS)
    return false;
  if (link(temp_.c_str(), name.c_str()) != 0)
    return false;
  unlink(temp_.c_str());
  temp_.clear();
  return true;
}

void ReportWriteFailure(const std::string& name, int error) {
  std::printf("Could not write to %s: %s\n", name.c_str(), std::strerror(error));
}
