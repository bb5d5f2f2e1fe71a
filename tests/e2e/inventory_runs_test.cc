// Two inspections of a changing build tree through the real binary: the
// second run finds the first run's inventory and reports exactly what was
// deleted, added and changed in between.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include <string>

#include "testlib/inventory_fixtures.h"
#include "testlib/testlib.h"

namespace {

using wltest::kAbcDigest;
using wltest::kEmptyDigest;
using wltest::WriteFile;

TEST(InventoryRuns, SecondRunReportsExactlyWhatChanged) {
  wltest::TempDir dir;
  const std::string build = dir / "build", start = dir / "start", home = dir / "home";
  wltest::MakeDirs(start);
  wltest::MakeDirs(home);
  auto run = [&] {
    auto r = wltest::RunTool(
        {"-b", build, "-lj", "job.bom.data", "-lm", "m1", "-ld", "2026-01-02 03:04:05"},
        wltest::ToolEnv(home, "http://127.0.0.1:1"), start);  // uploads fail at once
    EXPECT_EQ(r.status, 0) << r.out;
    return r.out;
  };
  const std::string stem = "job.bom.data-m1-2026-01-02 03_04_05-";
  auto output = [&](const std::string& counter_kind) {
    return wltest::ReadFile(start + "/" + stem + counter_kind).value_or("(missing)");
  };
  auto fields = [&](const std::string& name, const std::string& digest) {  // one record line
    struct stat st {};
    EXPECT_EQ(lstat((build + "/" + name).c_str(), &st), 0) << name;
    return build + ";" + name + ";" + std::to_string(st.st_size) + ";" +
           std::to_string(st.st_mtime) + "; " + digest + "; ;\n";
  };
  const std::string pipe = build + ";pipe;0;0; ; ;\n";  // cannot be read: no digest, zeros
  const std::string header = "SCMType=NONE\nMachineName=m1\nBuildLabel=\nBuildNumber=\n";
  const std::string inventory_header =
      "SCMType=NONE\nModuleRootDir=" + build + "\nMachineName=m1\nBuildLabel=\nBuildNumber=\n";
  for (const char* f :
       {"keep.c", "change.c", "sub/delete.c", ".hidden/x.c", "CVS/Entries", "a=b.c"})
    WriteFile(build + "/" + f, "abc");
  WriteFile(build + "/sub/keep.h", "");
  ASSERT_EQ(mkfifo((build + "/pipe").c_str(), 0600), 0);

  EXPECT_NE(run().find("\nOldFileName=\n"), std::string::npos);
  std::string first_lines, first_report = header;
  for (const std::string& line :
       {fields("a=b.c", kAbcDigest), fields("change.c", kAbcDigest), fields("keep.c", kAbcDigest),
        pipe, fields("sub/delete.c", kAbcDigest), fields("sub/keep.h", kEmptyDigest)}) {
    first_lines += line;
    first_report += "A;" + line;
  }
  EXPECT_EQ(output("01-diff.data"), first_report);
  EXPECT_EQ(output("01-bom.data"), inventory_header + first_lines);

  const std::string deleted = fields("sub/delete.c", kAbcDigest);
  ASSERT_EQ(unlink((build + "/sub/delete.c").c_str()), 0);
  WriteFile(build + "/change.c", "");
  WriteFile(build + "/sub/new.c", "");
  const utimbuf times = {1000000000, 1000000000};
  ASSERT_EQ(utime((build + "/keep.c").c_str(), &times), 0);  // a new time alone is no change
  // The report also holds ".bom.data" and sorts above the inventory; listed
  // first, it would hide it. Removing it makes the run independent of the
  // listing order.
  ASSERT_EQ(unlink((start + "/" + stem + "01-diff.data").c_str()), 0);

  std::string second = run();
  EXPECT_NE(second.find("\nOldFileName=" + stem + "01-bom.data\n"), std::string::npos) << second;
  // A name holding "=" is skipped when the inventory is read back, so it is
  // added again in every run; the FIFO compares equal by its empty version.
  const std::string change = fields("change.c", kEmptyDigest);
  EXPECT_EQ(output("01-diff.data"), header + "D;" + deleted + "A;" + fields("a=b.c", kAbcDigest) +
                                        "C;" + change + "A;" + fields("sub/new.c", kEmptyDigest));
  EXPECT_EQ(output("02-bom.data"),
            inventory_header + fields("a=b.c", kAbcDigest) + change + fields("keep.c", kAbcDigest) +
                pipe + fields("sub/keep.h", kEmptyDigest) + fields("sub/new.c", kEmptyDigest));
  EXPECT_EQ(output("01-bom.data"), inventory_header + first_lines);
}

}  // namespace
