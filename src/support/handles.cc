#include "support/handles.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

ScopedChdir::ScopedChdir(const std::string& dir) {
  if (char* cwd = getcwd(nullptr, 0)) {
    saved_ = cwd;
    std::free(cwd);
  }
  ok_ = chdir(dir.c_str()) == 0;
}

ScopedChdir::~ScopedChdir() {
  if (ok_ && !saved_.empty() && chdir(saved_.c_str()) != 0) {
    int err = errno;
    std::printf("Could not return to %s: %s\n", saved_.c_str(), std::strerror(err));
  }
}
