#include "inventory/scan.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "inventory/digest.h"
#include "testlib/inventory_fixtures.h"
#include "testlib/testlib.h"

namespace {

using wltest::RecordFields;
using wltest::ScopedFileTree;
using wltest::TempDir;
using wltest::WriteFile;

const std::string kEmptyDigest = "e4c23762" + std::string(24, '0');

std::string DigestOf(const std::string& path) {
  unsigned char out[16];
  EXPECT_EQ(md_filename(path.c_str(), out), 0) << path;
  char text[33];
  return print_digest(out, text);
}

std::vector<std::string> Names(const ScopedFileTree& tree) {
  std::vector<std::string> names;
  for (const auto& r : tree.Records()) names.push_back(r.name);
  return names;
}

int Scan(const TempDir& dir, const ScopedFileTree& tree) {
  return LoadRecursiveFiles(dir.path().c_str(), dir.path().c_str(), tree.get());
}

TEST(Scan, SkipsHiddenDirectoriesCvsAndHarvestSignatures) {
  TempDir dir;
  for (const char* f : {"a.c", "sub/b.c", ".hidden/c.c", "CVS/Entries", "cvs/d.c", "harvest.sig",
                        ".profile", "sub/.profile", "sub/harvest.sig", "sub/CVS/x", "sub/.git/y",
                        "harvest.sig.d/e.c", "Harvest.sig", "sub/cvsfile"}) {
    WriteFile(dir / f, f);
  }
  ScopedFileTree tree;
  Scan(dir, tree);
  EXPECT_EQ(Names(tree), (std::vector<std::string>{".profile", "Harvest.sig", "a.c", "cvs/d.c",
                                                   "harvest.sig.d/e.c", "sub/.profile",
                                                   "sub/b.c", "sub/cvsfile"}));
}

TEST(Scan, RecordsKeyRootNameDigestSizeAndTime) {
  TempDir dir;
  WriteFile(dir / "src/x.h", "abc");
  struct stat st;
  ASSERT_EQ(stat((dir / "src/x.h").c_str(), &st), 0);
  ScopedFileTree tree;
  Scan(dir, tree);
  ASSERT_EQ(tree.Records().size(), 1u);
  EXPECT_EQ(tree.Records()[0], (RecordFields{dir / "src/x.h", dir.path(), "src/x.h", "",
                                             "a5bfcc84" + std::string(24, '0'),
                                             static_cast<int64_t>(st.st_mtime), 3}));
}

TEST(Scan, ResultTellsWhetherTheDirectoryItselfHeldAFile) {
  TempDir only_sub;
  WriteFile(only_sub / "sub/a", "x");
  ScopedFileTree t1;
  EXPECT_EQ(Scan(only_sub, t1), 0);
  EXPECT_EQ(t1.Records().size(), 1u);

  TempDir top;
  WriteFile(top / "a", "x");
  ScopedFileTree t2;
  EXPECT_EQ(Scan(top, t2), 1);

  ScopedFileTree t3;
  EXPECT_EQ(LoadRecursiveFiles("/nonexistent", "/nonexistent/dir", t3.get()), 0);
  EXPECT_TRUE(t3.Records().empty());
}

TEST(Scan, EmptyDirectoryLeavesTheTreeEmpty) {
  TempDir dir;
  ScopedFileTree tree;
  EXPECT_EQ(Scan(dir, tree), 0);
  EXPECT_TRUE(tree.Records().empty());
}

TEST(Scan, LinksAreRecordedAsFilesAndNeverFollowedIntoDirectories) {
  TempDir dir;
  WriteFile(dir / "real/inner.c", "inner");
  ASSERT_EQ(symlink("real", (dir / "dirlink").c_str()), 0);
  ASSERT_EQ(symlink("real/inner.c", (dir / "filelink").c_str()), 0);
  ASSERT_EQ(symlink("missing", (dir / "dangling").c_str()), 0);
  ASSERT_EQ(symlink("loop2", (dir / "loop1").c_str()), 0);
  ASSERT_EQ(symlink("loop1", (dir / "loop2").c_str()), 0);
  ScopedFileTree tree;
  Scan(dir, tree);
  auto records = tree.Records();
  ASSERT_EQ(Names(tree), (std::vector<std::string>{"dangling", "dirlink", "filelink", "loop1",
                                                   "loop2", "real/inner.c"}));
  // A link is read through: a link to a file has its target's content.
  EXPECT_EQ(records[2].digest, DigestOf(dir / "real/inner.c"));
  EXPECT_EQ(records[2].size, 5);
  // A link to a directory opens the directory, which reads as nothing.
  EXPECT_EQ(records[1].digest, kEmptyDigest);
  // Links that cannot be opened keep an empty digest and zero numbers.
  for (size_t i : {0u, 3u, 4u}) {
    EXPECT_EQ(records[i].digest, "") << records[i];
    EXPECT_EQ(records[i].size, 0) << records[i];
    EXPECT_EQ(records[i].mtime, 0) << records[i];
  }
}

TEST(Scan, FifoIsRecordedWithoutBlockingAndWithoutDigest) {
  TempDir dir;
  ASSERT_EQ(mkfifo((dir / "pipe").c_str(), 0600), 0);
  ScopedFileTree tree;
  Scan(dir, tree);
  ASSERT_EQ(tree.Records().size(), 1u);
  EXPECT_EQ(tree.Records()[0], (RecordFields{dir / "pipe", dir.path(), "pipe", "", "", 0, 0}));
}

TEST(Scan, UnreadableFileKeepsAnEmptyDigestAndZeros) {
  if (geteuid() == 0) GTEST_SKIP() << "root reads files without read permission";
  TempDir dir;
  WriteFile(dir / "secret", "x");
  ASSERT_EQ(chmod((dir / "secret").c_str(), 0), 0);
  ScopedFileTree tree;
  Scan(dir, tree);
  ASSERT_EQ(tree.Records().size(), 1u);
  EXPECT_EQ(tree.Records()[0], (RecordFields{dir / "secret", dir.path(), "secret", "", "", 0, 0}));
}

TEST(Scan, UnreadableDirectoryAddsNothing) {
  if (geteuid() == 0) GTEST_SKIP() << "root lists directories without read permission";
  TempDir dir;
  WriteFile(dir / "closed/a", "x");
  WriteFile(dir / "open/b", "x");
  ASSERT_EQ(chmod((dir / "closed").c_str(), 0), 0);
  ScopedFileTree tree;
  Scan(dir, tree);
  EXPECT_EQ(Names(tree), (std::vector<std::string>{"open/b"}));
}

TEST(Scan, AwkwardNamesKeepTheirBytesInTheKey) {
  TempDir dir;
  const std::vector<std::string> names = {"semi;colon", "equals=sign", "two  blanks ",
                                          "new\nline", "latin\xe9\xff", " lead"};
  for (const auto& n : names) WriteFile(dir / n, n);
  ScopedFileTree tree;
  Scan(dir, tree);
  auto records = tree.Records();
  ASSERT_EQ(records.size(), names.size());
  for (const auto& r : records) {
    EXPECT_EQ(r.path, r.dir + "/" + r.name);
    EXPECT_EQ(r.digest, DigestOf(dir / r.name)) << r;
  }
  std::vector<std::string> got = Names(tree);
  std::vector<std::string> want = names;
  std::sort(want.begin(), want.end());
  EXPECT_EQ(got, want);
}

TEST(Scan, BackslashesInNamesBecomeSlashesInTheKey) {
  TempDir dir;
  WriteFile(dir / "a\\b.c", "x");
  ScopedFileTree tree;
  Scan(dir, tree);
  ASSERT_EQ(tree.Records().size(), 1u);
  // The converted path names no file, so the record has no digest.
  EXPECT_EQ(tree.Records()[0], (RecordFields{dir / "a/b.c", dir.path(), "a/b.c", "", "", 0, 0}));
}

TEST(Scan, PathsLongerThan1024BytesAreRecordedWhole) {
  TempDir dir;
  std::string rel;
  for (int i = 0; i < 8; ++i) rel += std::string(200, static_cast<char>('a' + i)) + "/";
  rel += "leaf.c";
  WriteFile(dir / rel, "deep");
  ScopedFileTree tree;
  Scan(dir, tree);
  ASSERT_EQ(tree.Records().size(), 1u);
  EXPECT_EQ(tree.Records()[0].name, rel);
  EXPECT_GT(tree.Records()[0].path.size(), 1024u);
  EXPECT_EQ(tree.Records()[0].digest, DigestOf(dir / rel));
}

TEST(Scan, DirectoryOfFiftyThousandFiles) {
  TempDir dir;
  for (int i = 0; i < 50000; ++i) {
    char name[32];
    std::snprintf(name, sizeof name, "f%06d", i);
    WriteFile(dir / name, "");
  }
  ScopedFileTree tree;
  Scan(dir, tree);
  auto keys = tree.Keys();
  ASSERT_EQ(keys.size(), 50000u);
  EXPECT_EQ(keys.front(), dir / "f000000");
  EXPECT_EQ(keys.back(), dir / "f049999");
  EXPECT_TRUE(std::is_sorted(keys.begin(), keys.end()));
}

TEST(Scan, TreeOfTwoHundredThousandFiles) {
  TempDir dir;
  constexpr int kDirs = 400;
  constexpr int kPerDir = 500;
  for (int d = 0; d < kDirs; ++d) {
    std::string sub = dir / ("d" + std::to_string(d % 20) + "/e" + std::to_string(d));
    wltest::MakeDirs(sub);
    for (int f = 0; f < kPerDir; ++f) {
      std::string path = sub + "/f" + std::to_string(f);
      int fd = open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
      ASSERT_GE(fd, 0) << path;
      close(fd);
    }
  }
  ScopedFileTree tree;
  Scan(dir, tree);
  auto records = tree.Records();
  ASSERT_EQ(records.size(), static_cast<size_t>(kDirs * kPerDir));
  for (const auto& r : records) ASSERT_EQ(r.digest, kEmptyDigest) << r;
}

TEST(Add2FileTree, TheFirstRecordOfAKeyKeepsItsData) {
  TempDir dir;
  WriteFile(dir / "a", "abc");
  ScopedFileTree tree;
  Add2FileTree(tree.get(), dir.path().c_str(), dir.path().c_str(), "a");
  WriteFile(dir / "a", "changed");
  Add2FileTree(tree.get(), dir.path().c_str(), dir.path().c_str(), "a");
  ASSERT_EQ(tree.Records().size(), 1u);
  EXPECT_EQ(tree.Records()[0].digest, "a5bfcc84" + std::string(24, '0'));
  EXPECT_EQ(tree.Records()[0].size, 3);
}

TEST(Add2FileTree, NameIsThePathBelowTheRoot) {
  TempDir dir;
  WriteFile(dir / "sub/deeper/x", "");
  ScopedFileTree tree;
  Add2FileTree(tree.get(), dir.path().c_str(), (dir / "sub").c_str(), "deeper/x");
  ASSERT_EQ(tree.Records().size(), 1u);
  EXPECT_EQ(tree.Records()[0], (RecordFields{dir / "sub/deeper/x", dir.path(), "sub/deeper/x",
                                             "", kEmptyDigest, tree.Records()[0].mtime, 0}));
  EXPECT_NE(tree.Records()[0].mtime, 0);
}

TEST(Add2FileTree, CurDirOutsideTheRootGivesAnEmptyName) {
  TempDir dir;
  ScopedFileTree tree;
  Add2FileTree(tree.get(), "/a/very/long/root/directory", "/x", "y");
  ASSERT_EQ(tree.Records().size(), 1u);
  EXPECT_EQ(tree.Records()[0].path, "/x/y");
  EXPECT_EQ(tree.Records()[0].name, "");
}

}  // namespace
