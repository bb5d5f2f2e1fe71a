// The binary against a real CVS workspace, with the workspace listing (CVS)
// and with records built from the repository log (CVSREP).

#include <gtest/gtest.h>

#include <string>

#include "testlib/scm_fixtures.h"
#include "testlib/testlib.h"

namespace {

using wltest::TempDir;

std::string CvsWorkingRevision(const std::string& co, const std::string& rel) {
  std::string out = wltest::ShOut("cvs status '" + rel + "'", co);
  const std::string tag = "Working revision:";
  size_t at = out.find(tag);
  if (at == std::string::npos)
    return "";
  size_t from = out.find_first_not_of(" \t", at + tag.size());
  return out.substr(from, out.find_first_of(" \t\n", from) - from);
}

class ScmCvs : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!wltest::HaveTool("cvs"))
      GTEST_SKIP() << "cvs not installed";
    co_ = wltest::MakeCvsCheckout(dir_);
    ASSERT_FALSE(co_.empty());
    root_ = wltest::RealDir(dir_.path());
    start_ = root_ + "/start";
    wltest::MakeDirs(start_);
  }
  wltest::RunResult Run(const std::string& keyword) {
    return wltest::RunInspection(keyword, co_, start_, root_ + "/home");
  }
  std::string Output(const std::string& kind, int counter) const {
    return start_ + "/" + wltest::RunOutputName(kind, counter);
  }

  TempDir dir_;
  std::string co_, root_, start_;
};

TEST_F(ScmCvs, WorkspaceListingAndDetail) {
  auto first = Run("CVS");
  ASSERT_EQ(first.status, 0) << first.out;
  EXPECT_NE(first.out.find("Executing: cvs log -h 2>&1\n"), std::string::npos) << first.out;
  auto records = wltest::ReadInventoryRecords(Output("bom", 1));
  for (const char* rel : {"a.c", "sub/b.c"}) {
    const wltest::ScmRecord* r = wltest::FindRecord(records, rel);
    ASSERT_NE(r, nullptr) << rel;
    EXPECT_EQ(r->version, CvsWorkingRevision(co_, rel)) << rel;
  }
  EXPECT_EQ(wltest::FindRecord(records, "a.c")->version, "1.2");
  // The CVS administrative directories are not inventoried.
  for (const auto& r : records)
    EXPECT_EQ(r.name.find("CVS/"), std::string::npos) << r.name;

  wltest::WriteFile(co_ + "/sub/b.c", "b\nchanged for run two\n");
  auto second = Run("CVS");
  ASSERT_EQ(second.status, 0) << second.out;
  EXPECT_NE(
      second.out.find("Executing: cvs log \"b.c\" 2>&1 in dir " + co_ +
                      "/sub/\nRunning cvs diff -c6 -r 1.1 \"b.c\" 2>&1 in dir " + co_ + "/sub/\n"),
      std::string::npos)
      << second.out;
  const std::string report = wltest::ReadFile(Output("diff", 2)).value_or("");
  const std::string block = wltest::DetailBlock(report, "sub/b.c");
  ASSERT_FALSE(block.empty()) << report;
  EXPECT_NE(block.find("Working file: b.c\n"), std::string::npos) << block;
  EXPECT_NE(block.find("head: 1.1\n"), std::string::npos) << block;
  EXPECT_NE(block.find("retrieving revision 1.1\n"), std::string::npos) << block;
  EXPECT_NE(block.find("+ changed for run two\n"), std::string::npos) << block;
  EXPECT_EQ(wltest::DetailBlock(report, "a.c"), "");
}

TEST_F(ScmCvs, RepositoryLogBuildsTheInventory) {
  auto first = Run("CVSREP");
  ASSERT_EQ(first.status, 0) << first.out;
  EXPECT_NE(first.out.find("Executing: cvs log 2>&1\n"), std::string::npos) << first.out;
  auto records = wltest::ReadInventoryRecords(Output("bom", 1));
  ASSERT_EQ(records.size(), 2u) << wltest::ReadFile(Output("bom", 1)).value_or("");
  for (const char* rel : {"a.c", "sub/b.c"}) {
    const wltest::ScmRecord* r = wltest::FindRecord(records, rel);
    ASSERT_NE(r, nullptr) << rel;
    EXPECT_EQ(r->dir, co_);
    EXPECT_EQ(r->version, CvsWorkingRevision(co_, rel)) << rel;
    EXPECT_EQ(r->size, "0") << rel;
    EXPECT_EQ(r->digest.size(), 32u) << rel;
  }

  wltest::WriteFile(co_ + "/a.c", "a\na2\nrun two\n");
  auto second = Run("CVSREP");
  ASSERT_EQ(second.status, 0) << second.out;
  EXPECT_NE(second.out.find("Executing: cvs log -r1.2 -r1.2  \"a.c\" 2>&1 in dir " + co_ +
                            "/\nRunning cvs diff -c6 -r 1.2 \"a.c\" 2>&1 in dir " + co_ + "/\n"),
            std::string::npos)
      << second.out;
  const std::string report = wltest::ReadFile(Output("diff", 2)).value_or("");
  const std::string block = wltest::DetailBlock(report, "a.c");
  ASSERT_FALSE(block.empty()) << report;
  EXPECT_NE(block.find("Working file: a.c\n"), std::string::npos) << block;
  EXPECT_NE(block.find("revision 1.2\n"), std::string::npos) << block;
  EXPECT_NE(block.find("retrieving revision 1.2\n"), std::string::npos) << block;
  EXPECT_NE(block.find("+ run two\n"), std::string::npos) << block;
}

}  // namespace
