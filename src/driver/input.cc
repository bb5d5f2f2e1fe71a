#include "driver/input.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

UniqueFile OpenInputFile(const char* path, InputStatus& status) {
  status = InputStatus::kMissing;
  // Non-blocking, so that opening a FIFO does not wait for a writer; the
  // file is examined before anything is read from it.
  UniqueFd fd(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (fd.get() < 0)
    return nullptr;
  struct stat st;
  if (fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode) ||
      static_cast<unsigned long long>(st.st_size) > kMaxInputFileBytes) {
    status = InputStatus::kRefused;
    return nullptr;
  }
  int flags = fcntl(fd.get(), F_GETFL);
  if (flags >= 0)
    fcntl(fd.get(), F_SETFL, flags & ~O_NONBLOCK);
  UniqueFile file(fdopen(fd.get(), "r"));
  if (file) {
    fd.Release();
    status = InputStatus::kOpened;
  }
  return file;
}

bool IsProgramFile(const char* path) {
  struct stat st;
  return stat(path, &st) == 0 && S_ISREG(st.st_mode) && access(path, R_OK | X_OK) == 0;
}
