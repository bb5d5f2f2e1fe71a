// Two inspections of a changing build tree through the real binary: the
// second run finds the first run's inventory and reports exactly what was
// deleted, added and changed in between.

#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include <algorithm>
#include <string>
#include <vector>

#include "testlib/testlib.h"

namespace {

using wltest::ReadFile;
using wltest::WriteFile;

// Contents whose digests are known answers.
const std::string kAbc = "abc";
const std::string kAbcDigest = "a5bfcc84" + std::string(24, '0');
const std::string kEmptyDigest = "e4c23762" + std::string(24, '0');
std::string AllBytes() {
  std::string s;
  for (int i = 0; i < 256; ++i)
    s += static_cast<char>(i);
  return s;
}
const std::string kAllBytesDigest = "0ade47b4" + std::string(24, '0');

const char kStamp[] = "2026-01-02 03_04_05";  // the date as the names carry it

class InventoryRuns : public ::testing::Test {
 protected:
  InventoryRuns() {
    wltest::MakeDirs(build_);
    wltest::MakeDirs(start_);
    wltest::MakeDirs(home_);
  }

  // One whole run; uploads go to a closed loopback port and fail at once.
  wltest::RunResult Run(const std::string& job, const std::string& build_arg) {
    auto r =
        wltest::RunTool({"-b", build_arg, "-lj", job, "-lm", "m1", "-ld", "2026-01-02 03:04:05"},
                        wltest::ToolEnv(home_, "http://127.0.0.1:1"), start_);
    EXPECT_EQ(r.status, 0) << r.out;
    return r;
  }
  wltest::RunResult Run(const std::string& job = "job.bom.data") { return Run(job, build_); }

  std::string Output(const std::string& job, int number, const char* kind) {
    char counter[8];
    std::snprintf(counter, sizeof counter, "%02d", number);
    auto content = ReadFile(start_ + "/" + job + "-m1-" + kStamp + "-" + counter + "-" + kind);
    EXPECT_TRUE(content.has_value()) << job << " " << counter << " " << kind;
    return content.value_or("");
  }

  // The six fields of a record as the files write them.
  std::string Fields(const std::string& name, const std::string& digest) {
    struct stat st;
    EXPECT_EQ(lstat((build_ + "/" + name).c_str(), &st), 0) << name;
    return build_ + ";" + name + ";" + std::to_string(st.st_size) + ";" +
           std::to_string(st.st_mtime) + "; " + digest + "; ;\n";
  }
  std::string Fields(const std::string& name, int64_t size, int64_t mtime,
                     const std::string& digest) {
    return build_ + ";" + name + ";" + std::to_string(size) + ";" + std::to_string(mtime) + "; " +
           digest + "; ;\n";
  }
  int64_t MTime(const std::string& name) {
    struct stat st;
    EXPECT_EQ(lstat((build_ + "/" + name).c_str(), &st), 0) << name;
    return st.st_mtime;
  }

  // The earlier change reports also hold ".bom.data" in their names (from
  // the job name) and sort above the inventories; listed first, one would
  // hide the inventory. Removing them makes the choice independent of the
  // listing order.
  void RemoveEarlierReports() {
    for (const auto& name : wltest::ListDir(start_)) {
      if (name.size() > 9 && name.compare(name.size() - 9, 9, "diff.data") == 0) {
        ASSERT_EQ(unlink((start_ + "/" + name).c_str()), 0) << name;
      }
    }
  }

  std::vector<std::string> ListingOrder() {
    std::vector<std::string> names;
    DIR* d = opendir(start_.c_str());
    while (dirent* e = readdir(d))
      names.push_back(e->d_name);
    closedir(d);
    return names;
  }

  static constexpr char kHeader[] = "SCMType=NONE\nMachineName=m1\nBuildLabel=\nBuildNumber=\n";
  std::string InventoryHeader() {
    return "SCMType=NONE\nModuleRootDir=" + build_ +
           "\nMachineName=m1\nBuildLabel=\nBuildNumber=\n";
  }

  wltest::TempDir dir_;
  std::string build_ = dir_ / "build";
  std::string start_ = dir_ / "start";
  std::string home_ = dir_ / "home";
};

TEST_F(InventoryRuns, SecondRunReportsExactlyWhatChanged) {
  WriteFile(build_ + "/keep.c", kAbc);
  WriteFile(build_ + "/change.c", kAbc);
  WriteFile(build_ + "/sub/delete.c", kAbc);
  WriteFile(build_ + "/sub/keep.h", "");
  WriteFile(build_ + "/.hidden/ignored.c", kAbc);
  WriteFile(build_ + "/CVS/Entries", kAbc);

  auto first = Run();
  EXPECT_NE(first.out.find("\nOldFileName=\n"), std::string::npos) << first.out;
  EXPECT_EQ(Output("job.bom.data", 1, "diff.data"),
            std::string(kHeader) + "A;" + Fields("change.c", kAbcDigest) + "A;" +
                Fields("keep.c", kAbcDigest) + "A;" + Fields("sub/delete.c", kAbcDigest) + "A;" +
                Fields("sub/keep.h", kEmptyDigest));
  const std::string first_inventory = Output("job.bom.data", 1, "bom.data");
  EXPECT_EQ(first_inventory, InventoryHeader() + Fields("change.c", kAbcDigest) +
                                 Fields("keep.c", kAbcDigest) + Fields("sub/delete.c", kAbcDigest) +
                                 Fields("sub/keep.h", kEmptyDigest));

  const std::string deleted_fields = Fields("sub/delete.c", kAbcDigest);
  ASSERT_EQ(unlink((build_ + "/sub/delete.c").c_str()), 0);
  WriteFile(build_ + "/change.c", AllBytes());
  WriteFile(build_ + "/sub/new.c", "");
  // A new time with the same content is not a change.
  struct utimbuf times {
    1000000000, 1000000000
  };
  ASSERT_EQ(utime((build_ + "/keep.c").c_str(), &times), 0);
  RemoveEarlierReports();

  auto second = Run();
  const std::string old_name = std::string("job.bom.data-m1-") + kStamp + "-01-bom.data";
  EXPECT_NE(second.out.find("\nOldFileName=" + old_name + "\n"), std::string::npos) << second.out;
  EXPECT_NE(second.out.find("Loading comparison data: " + old_name + "\n"), std::string::npos);
  EXPECT_NE(second.out.find("\nRptFileName=job.bom.data-m1-2026-01-02 03_04_05-01-diff.data\n"),
            std::string::npos)
      << second.out;
  // The report keeps its own counter (01: the earlier one was removed); the
  // inventory is numbered 02.
  EXPECT_EQ(Output("job.bom.data", 1, "diff.data"), std::string(kHeader) + "D;" + deleted_fields +
                                                        "C;" + Fields("change.c", kAllBytesDigest) +
                                                        "A;" + Fields("sub/new.c", kEmptyDigest));
  EXPECT_EQ(Output("job.bom.data", 2, "bom.data"),
            InventoryHeader() + Fields("change.c", kAllBytesDigest) +
                Fields("keep.c", 3, 1000000000, kAbcDigest) + Fields("sub/keep.h", kEmptyDigest) +
                Fields("sub/new.c", kEmptyDigest));
  // The earlier inventory is left as it was.
  EXPECT_EQ(Output("job.bom.data", 1, "bom.data"), first_inventory);
}

TEST_F(InventoryRuns, AnEarlierReportListedFirstHidesTheInventory) {
  WriteFile(build_ + "/a.c", kAbc);
  Run();
  auto order = ListingOrder();
  auto pos = [&](const std::string& kind) {
    std::string name = std::string("job.bom.data-m1-") + kStamp + "-01-" + kind;
    return std::find(order.begin(), order.end(), name) - order.begin();
  };
  bool report_first = pos("diff.data") < pos("bom.data");
  auto second = Run();
  std::string want = report_first ? "" : std::string("job.bom.data-m1-") + kStamp + "-01-bom.data";
  EXPECT_NE(second.out.find("\nOldFileName=" + want + "\n"), std::string::npos) << second.out;
  EXPECT_EQ(Output("job.bom.data", 2, "diff.data"),
            std::string(kHeader) + (report_first ? "A;" + Fields("a.c", kAbcDigest) : ""));
}

TEST_F(InventoryRuns, NamesWithoutDotBomDotDataNeverFindAnEarlierInventory) {
  WriteFile(build_ + "/a.c", kAbc);
  Run("job");
  auto second = Run("job");
  EXPECT_NE(second.out.find("\nOldFileName=\n"), std::string::npos) << second.out;
  EXPECT_EQ(Output("job", 2, "diff.data"), std::string(kHeader) + "A;" + Fields("a.c", kAbcDigest));
}

TEST_F(InventoryRuns, ARelativeBuildDirectoryNeverMatchesTheRecordedRoot) {
  WriteFile(build_ + "/a.c", kAbc);
  Run("job.bom.data", "../build");
  RemoveEarlierReports();
  auto second = Run("job.bom.data", "../build");
  EXPECT_NE(second.out.find("\nOldFileName=\n"), std::string::npos) << second.out;
  EXPECT_EQ(Output("job.bom.data", 1, "diff.data"),
            std::string(kHeader) + "A;" + Fields("a.c", kAbcDigest));
}

TEST_F(InventoryRuns, AwkwardEntriesNeitherHangNorBreakTheRun) {
  WriteFile(build_ + "/a=b.c", kAbc);
  ASSERT_EQ(mkfifo((build_ + "/pipe").c_str(), 0600), 0);
  ASSERT_EQ(symlink("loop2", (build_ + "/loop1").c_str()), 0);
  ASSERT_EQ(symlink("loop1", (build_ + "/loop2").c_str()), 0);
  ASSERT_EQ(symlink("/dev/zero", (build_ + "/zero").c_str()), 0);
  Run();
  RemoveEarlierReports();
  Run();
  // A name holding "=" is skipped when the inventory is read back, so it is
  // added again in every run; entries that cannot be read keep an empty
  // digest and zeros, and compare equal by their (equal, empty) versions.
  EXPECT_EQ(Output("job.bom.data", 1, "diff.data"),
            std::string(kHeader) + "A;" + Fields("a=b.c", kAbcDigest));
  EXPECT_EQ(Output("job.bom.data", 2, "bom.data"),
            InventoryHeader() + Fields("a=b.c", kAbcDigest) + Fields("loop1", 0, 0, "") +
                Fields("loop2", 0, 0, "") + Fields("pipe", 0, 0, "") + Fields("zero", 0, 0, ""));
}

}  // namespace
