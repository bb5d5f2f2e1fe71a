#include "inventory/report.h"

#include <cstdio>
#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "driver/settings.h"
#include "testlib/inventory_fixtures.h"

namespace {

using wltest::ScopedFileTree;

const std::string kA = "aaaaaaaa" + std::string(24, '0');
const std::string kB = "bbbbbbbb" + std::string(24, '0');

class ReportTest : public ::testing::Test {
 protected:
  void SetUp() override {
    FileTree = now_.get();
    OldFileTree = before_.get();
    SCMType = 0;
  }
  void TearDown() override {
    FileTree = nullptr;
    OldFileTree = nullptr;
    ResetSettings();
  }
  // The lines the run writes after the header.
  std::string Report() {
    char* buf = nullptr;
    size_t len = 0;
    FILE* f = open_memstream(&buf, &len);
    WalkBintree(OldFileTree, Deleted, f);
    WalkBintree(FileTree, AddedAndChanged, f);
    std::fclose(f);
    std::string out(buf, len);
    std::free(buf);
    return out;
  }

  ScopedFileTree now_;
  ScopedFileTree before_;
};

TEST_F(ReportTest, NoEarlierInventoryReportsEveryFileAddedInKeyOrder) {
  now_.Add("/w", "b.c", 1, 2, kA, "1.2");
  now_.Add("/w", "a.c", 3, 4, kB);
  EXPECT_EQ(Report(), "A;/w;a.c;3;4; " + kB + "; ;\nA;/w;b.c;1;2; " + kA + "; 1.2;\n");
}

TEST_F(ReportTest, DeletedAddedAndChangedLinesInTheirOrder) {
  before_.Add("/w", "gone.c", 5, 6, kA, "1.1");
  before_.Add("/w", "changed.c", 7, 8, kA, "1.1");
  before_.Add("/w", "same.c", 9, 10, kA);
  now_.Add("/w", "changed.c", 70, 80, kB, "1.2");
  now_.Add("/w", "same.c", 9, 10, kA);
  now_.Add("/w", "new.c", 11, 12, kA);
  EXPECT_EQ(Report(), "D;/w;gone.c;5;6; " + kA + "; 1.1;\n"
                      "C;/w;changed.c;70;80; " + kB + "; 1.2;\n"
                      "A;/w;new.c;11;12; " + kA + "; ;\n");
}

TEST_F(ReportTest, TheComparisonRule) {
  struct Case {
    const char* what;
    std::string old_digest, old_version, new_digest, new_version;
    bool changed;
  };
  const Case cases[] = {
      {"equal digests, size and time differ", kA, "", kA, "", false},
      {"digests differ only in case", "ABCDEF12" + std::string(24, '0'), "",
       "abcdef12" + std::string(24, '0'), "", false},
      {"digests differ", kA, "", kB, "", true},
      {"equal digests, versions differ", kA, "1.1", kA, "1.2", false},
      {"both unreadable, versions differ", "", "1.1", "", "1.2", true},
      {"both unreadable, versions differ only in case", "", "v1a", "", "V1A", false},
      {"both unreadable, same version", "", "1.1", "", "1.1", false},
      {"unreadable before, readable now", "", "", kA, "", true},
      {"readable before, unreadable now", kA, "", "", "", true},
  };
  for (const auto& c : cases) {
    ScopedFileTree now, before;
    FileTree = now.get();
    OldFileTree = before.get();
    before.Add("/w", "f", 1, 1, c.old_digest, c.old_version);
    now.Add("/w", "f", 2, 2, c.new_digest, c.new_version);
    std::string want = c.changed ? "C;/w;f;2;2; " + c.new_digest + "; " + c.new_version + ";\n" : "";
    EXPECT_EQ(Report(), want) << c.what;
  }
}

TEST_F(ReportTest, KeysDifferingInCaseAreDeletedAndAdded) {
  before_.Add("/w", "Makefile", 1, 1, kA);
  now_.Add("/w", "makefile", 1, 1, kA);
  EXPECT_EQ(Report(), "D;/w;Makefile;1;1; " + kA + "; ;\nA;/w;makefile;1;1; " + kA + "; ;\n");
}

TEST_F(ReportTest, AnEarlierRecordWithAnEmptyKeyIsDeleted) {
  before_.Add("", "", 0, 0, "");  // key "/" here; the loader's blank line gives ""
  EXPECT_EQ(Report(), "D;;;0;0; ; ;\n");
}

}  // namespace
