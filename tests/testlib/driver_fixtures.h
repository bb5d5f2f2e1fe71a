#pragma once
// Fixtures shared by the driver unit tests and the driver end-to-end tests.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "driver/config.h"
#include "driver/settings.h"
#include "testlib/testlib.h"

namespace drivertest {

inline constexpr char kDate[] = "2020-10-14 10_20_30";

inline constexpr char kBanner[] =
    "\nWeftlane(R) V7.5.1 Build 10142020, Copyright (c) Weftlane Software. All rights "
    "reserved.\n\n";

inline constexpr char kUsage[] =
    "Usage: wlinspector <options>\n"
    "          -b  = Build Directory\n"
    "          -c  <SCM Tool> = SCM Reporting Type\n"
    "            Current tools are:\n"
    "            ACCUREV, CLEARCASE, CVS, CVSREP, HARVEST, PERFORCE, SVN,\n"
    "            VSS, MSTF, TEAMPRISE\n"
    "          -ld <YYYY-MM-DD HH_MM_SS> = Log: Build Date/Time\n"
    "          -lj <Job Name>  = Log: Job Name\n"
    "          -lm <Machine>   = Log: Build Machine Name\n"
    "          -lo <Owner>     = Log: Owner Name\n"
    "          -lp             = Log: Public Build\n"
    "          -t <Label/Tag Name> = Build Label\n"
    "          -u <User>       = SCM Tool Username\n"
    "          -p <Password>   = SCM Tool Password\n"
    "          -v  = Version\n"
    "          -?  = This message\n"
    "          -h  = This message\n"
    "\n";

// The command-line echo of the given words.
inline std::string Echoed(const std::string& words) {
  return "Command Line Options: " + words + " \n";
}

inline std::string Str(const char* s) { return s ? std::string(s) : std::string("<null>"); }

// Mutable argv built from words; argv[0] is "wlinspector".
class Argv {
 public:
  explicit Argv(const std::vector<std::string>& words) : storage_{"wlinspector"} {
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

// Settings and the configuration table start fresh for every test and are
// released after it.
class DriverTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ResetSettings();
    ResetConfigEnv();
  }
  void TearDown() override { SetUp(); }
};

}  // namespace drivertest
