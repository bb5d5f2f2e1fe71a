#pragma once
// Helpers shared by the driver tests (header-only, included by the test
// files of tests/driver).

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

#include "driver/config.h"
#include "driver/settings.h"
#include "testlib/testlib.h"

namespace drivertest {

// Mutable argv built from words; argv[0] is "wlinspector".
class Argv {
 public:
  explicit Argv(const std::vector<std::string>& words) {
    storage_.push_back("wlinspector");
    storage_.insert(storage_.end(), words.begin(), words.end());
    for (std::string& s : storage_)
      ptrs_.push_back(s.data());
    ptrs_.push_back(nullptr);
  }
  int argc() const { return static_cast<int>(storage_.size()); }
  char** argv() { return ptrs_.data(); }

 private:
  std::vector<std::string> storage_;
  std::vector<char*> ptrs_;
};

// Captures standard error (fd 2) until Take().
class CaptureStderr {
 public:
  CaptureStderr() {
    std::fflush(stderr);
    char tmpl[] = "/tmp/wlstderr-XXXXXX";
    int fd = mkstemp(tmpl);
    if (fd < 0)
      throw std::runtime_error("mkstemp");
    file_ = tmpl;
    saved_ = dup(2);
    dup2(fd, 2);
    close(fd);
  }
  ~CaptureStderr() { Take(); }
  CaptureStderr(const CaptureStderr&) = delete;
  CaptureStderr& operator=(const CaptureStderr&) = delete;
  std::string Take() {
    if (saved_ < 0)
      return {};
    std::fflush(stderr);
    dup2(saved_, 2);
    close(saved_);
    saved_ = -1;
    std::string out = wltest::ReadFile(file_).value_or("");
    unlink(file_.c_str());
    return out;
  }

 private:
  int saved_ = -1;
  std::string file_;
};

inline std::string Str(const char* s) { return s ? std::string(s) : std::string("<null>"); }

// Settings and the configuration table start fresh for every test and are
// released after it.
class DriverTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ResetSettings();
    ResetConfigEnv();
  }
  void TearDown() override {
    ResetSettings();
    ResetConfigEnv();
  }
};

}  // namespace drivertest
