// The binary against a real svn workspace: versions in the inventory, and
// the client's history and diff for a file changed between two runs.

#include <gtest/gtest.h>

#include <string>

#include "testlib/scm_fixtures.h"
#include "testlib/testlib.h"

namespace {

using wltest::TempDir;

std::string SvnRevision(const std::string& co, const std::string& rel) {
  std::string rev = wltest::ShOut("svn info --show-item revision '" + rel + "'", co);
  while (!rev.empty() && (rev.back() == '\n' || rev.back() == ' '))
    rev.pop_back();
  return rev;
}

TEST(ScmSvn, VersionsAndDetailFromTheRealClient) {
  if (!wltest::HaveTool("svn") || !wltest::HaveTool("svnadmin"))
    GTEST_SKIP() << "svn not installed";
  TempDir dir;
  const std::string co = wltest::MakeSvnCheckout(dir);
  ASSERT_FALSE(co.empty());
  const std::string root = wltest::RealDir(dir.path());
  const std::string start = root + "/start";
  wltest::MakeDirs(start);

  auto first = wltest::RunInspection("SVN", co, start, root + "/home");
  ASSERT_EQ(first.status, 0) << first.out;
  EXPECT_NE(first.out.find("Executing: svn info -R 2>&1\n"), std::string::npos) << first.out;
  auto records = wltest::ReadInventoryRecords(start + "/" + wltest::RunOutputName("bom", 1));
  for (const char* rel : {"a.c", "sub/b.c"}) {
    const wltest::ScmRecord* r = wltest::FindRecord(records, rel);
    ASSERT_NE(r, nullptr) << rel;
    EXPECT_EQ(r->dir, co);
    EXPECT_EQ(r->version, SvnRevision(co, rel)) << rel;
  }
  EXPECT_EQ(wltest::FindRecord(records, "a.c")->version, "2");

  wltest::WriteFile(co + "/a.c", "a\na2\na line for the second run\n");
  auto second = wltest::RunInspection("SVN", co, start, root + "/home");
  ASSERT_EQ(second.status, 0) << second.out;
  const std::string path = co + "/a.c";
  EXPECT_NE(second.out.find("Executing: svn info \"" + path +
                            "\" 2>&1\nRunning svn diff --revision 2 \"" + path + "\" 2>&1\n"),
            std::string::npos)
      << second.out;
  const std::string report =
      wltest::ReadFile(start + "/" + wltest::RunOutputName("diff", 2)).value_or("");
  const std::string block = wltest::DetailBlock(report, "a.c");
  ASSERT_FALSE(block.empty()) << report;
  EXPECT_NE(block.find("Path: " + path + "\n"), std::string::npos) << block;
  EXPECT_NE(block.find("Revision: 2\n"), std::string::npos) << block;
  EXPECT_NE(block.find("Index: " + path + "\n"), std::string::npos) << block;
  EXPECT_NE(block.find("\n+a line for the second run\n"), std::string::npos) << block;
  EXPECT_EQ(wltest::DetailBlock(report, "sub/b.c"), "");  // unchanged: no block
}

TEST(ScmSvn, ShellCharactersInFileNamesStayData) {
  if (!wltest::HaveTool("svn") || !wltest::HaveTool("svnadmin"))
    GTEST_SKIP() << "svn not installed";
  TempDir dir;
  const std::string co = wltest::MakeSvnCheckout(dir);
  ASSERT_FALSE(co.empty());
  const std::string names[] = {"$(touch PWNED).c", "q\"uote.c", "back`touch PWNED`tick.c"};
  for (const auto& name : names)
    wltest::WriteFile(co + "/" + name, "v1\n");
  ASSERT_TRUE(
      wltest::Sh("svn add -q -- '$(touch PWNED).c' 'q\"uote.c' 'back`touch PWNED`tick.c' && "
                 "svn commit -q -m names && svn update -q",
                 co));
  const std::string root = wltest::RealDir(dir.path());
  const std::string start = root + "/start";
  wltest::MakeDirs(start);
  auto first = wltest::RunInspection("SVN", co, start, root + "/home");
  ASSERT_EQ(first.status, 0) << first.out;
  auto records = wltest::ReadInventoryRecords(start + "/" + wltest::RunOutputName("bom", 1));
  for (const auto& name : names) {
    const wltest::ScmRecord* r = wltest::FindRecord(records, name);
    ASSERT_NE(r, nullptr) << name;
    EXPECT_EQ(r->version, "3") << name;
    wltest::WriteFile(co + "/" + name, "v2\n");
  }
  auto second = wltest::RunInspection("SVN", co, start, root + "/home");
  ASSERT_EQ(second.status, 0) << second.out;
  const std::string report =
      wltest::ReadFile(start + "/" + wltest::RunOutputName("diff", 2)).value_or("");
  for (const auto& name : names) {
    const std::string block = wltest::DetailBlock(report, name);
    EXPECT_NE(block.find("Path: " + co + "/" + name + "\n"), std::string::npos) << name << "\n"
                                                                                << report;
    EXPECT_NE(block.find("\n+v2\n"), std::string::npos) << name << "\n" << block;
  }
  for (const std::string& where : {start, co, root}) {
    EXPECT_FALSE(wltest::ReadFile(where + "/PWNED").has_value()) << where;
  }
}

}  // namespace
