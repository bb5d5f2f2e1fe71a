#include "inventory/scan.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "testlib/inventory_fixtures.h"
#include "testlib/testlib.h"

namespace {

using wltest::kAbcDigest;
using wltest::kEmptyDigest;
using wltest::ScopedFileTree;
using wltest::TempDir;

int Scan(const TempDir& dir, const ScopedFileTree& tree) {
  return LoadRecursiveFiles(dir.path().c_str(), dir.path().c_str(), tree.get());
}

// Every skip rule and kind of entry in one tree, and the record each gives.
TEST(Scan, SkipRulesAndTheRecordOfEachEntry) {
  TempDir dir;
  std::string deep;  // a path of more than 1,024 bytes
  for (char c = 'a'; c < 'i'; ++c)
    deep += std::string(200, c) + "/";
  deep += "leaf.c";
  // clang-format off
  for (const char* f : {"a.c", "sub/b.c", ".profile", "sub/.profile", "Harvest.sig", "cvs/d.c",
                        "harvest.sig.d/e.c", "sub/cvsfile", "semi;colon", "eq=sign", "new\nline",
                        "two  blanks ", "latin\xe9\xff", "a\\b.c", deep.c_str(),  // kept
                        ".hidden/c.c", "sub/.git/y", "CVS/Entries", "sub/CVS/x", "harvest.sig",
                        "sub/harvest.sig"})  // skipped
    wltest::WriteFile(dir / f, "abc");
  for (const auto& [link, target] : std::vector<std::pair<const char*, const char*>>{
           {"dirlink", "sub"}, {"filelink", "a.c"}, {"dangling", "missing"}, {"loop1", "loop2"},
           {"loop2", "loop1"}, {"zero", "/dev/zero"}})
    ASSERT_EQ(symlink(target, (dir / link).c_str()), 0);
  // clang-format on
  ASSERT_EQ(mkfifo((dir / "pipe").c_str(), 0600), 0);
  struct stat dir_status, a_status;
  ASSERT_EQ(stat((dir / "sub").c_str(), &dir_status), 0);
  ASSERT_EQ(stat((dir / "a.c").c_str(), &a_status), 0);
  ScopedFileTree tree;
  EXPECT_EQ(Scan(dir, tree), 1);
  // Name, start of the digest, size. Entries that cannot be opened keep an
  // empty digest and zeros; a backslash name becomes a path naming no file;
  // a link to a directory reads as nothing.
  const std::string abc = " a5bfcc84 3";
  // clang-format off
  const std::vector<std::string> want = {
      ".profile" + abc, "Harvest.sig" + abc, "a.c" + abc, "a/b.c  0", deep + abc, "cvs/d.c" + abc,
      "dangling  0", "dirlink e4c23762 " + std::to_string(dir_status.st_size), "eq=sign" + abc,
      "filelink" + abc, "harvest.sig.d/e.c" + abc, "latin\xe9\xff" + abc, "loop1  0", "loop2  0",
      "new\nline" + abc, "pipe  0", "semi;colon" + abc, "sub/.profile" + abc, "sub/b.c" + abc,
      "sub/cvsfile" + abc, "two  blanks " + abc, "zero  0"};
  // clang-format on
  std::vector<std::string> got;
  for (const auto& r : tree.Records()) {
    got.push_back(r.name + " " + r.digest.substr(0, 8) + " " + std::to_string(r.size));
    EXPECT_EQ(r.path, dir.path() + "/" + r.name);
    EXPECT_EQ(r.dir, dir.path());
    EXPECT_EQ(r.mtime == 0, r.digest.empty()) << r.name;
    EXPECT_EQ(r.mtime, r.name == "a.c" ? a_status.st_mtime : r.mtime);
  }
  EXPECT_EQ(got, want);
}

TEST(Scan, UnreadableFileKeepsEmptyDigestAndUnreadableDirectoryAddsNothing) {
  if (geteuid() == 0)
    GTEST_SKIP() << "root reads files and directories without read permission";
  TempDir dir;
  wltest::WriteFile(dir / "secret", "x");
  wltest::WriteFile(dir / "closed/a", "x");
  ASSERT_EQ(chmod((dir / "secret").c_str(), 0), 0);
  ASSERT_EQ(chmod((dir / "closed").c_str(), 0), 0);
  ScopedFileTree tree;
  Scan(dir, tree);
  EXPECT_EQ(tree.Text(), dir / "secret|" + dir.path() + "|secret|0|0||\n");
}

// 150 directories of 1,000 files and one of 50,000 whose listing comes in
// sorted order (the tree then becomes a chain).
TEST(Scan, TreeOfTwoHundredThousandFiles) {
  TempDir dir;
  for (int d = 0; d <= 150; ++d) {
    std::string sub = dir / ("d" + std::to_string(d % 10) + "/e" + std::to_string(d));
    wltest::MakeDirs(sub);
    for (int f = 0; f < (d == 150 ? 50000 : 1000); ++f) {
      char name[16];
      std::snprintf(name, sizeof name, "/f%06d", f);
      ASSERT_EQ(close(open((sub + name).c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644)), 0);
    }
  }
  ScopedFileTree tree;
  Scan(dir, tree);
  EXPECT_EQ(tree.Records().size(), 200000u);
}

}  // namespace
