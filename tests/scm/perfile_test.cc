#include "scm/perfile.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "testlib/scm_fixtures.h"

namespace {

using wltest::Printed;

class PerFileTest : public wltest::ScmTest {
 protected:
  // Walks FileTree with LoadVersionInfo as the run does.
  std::string Walk(uint32_t type) {
    scm_.type = type;
    return Printed([&] { WalkBintree(scm_.files, LoadVersionInfo, &scm_); });
  }
  bool Asked(const std::string& dir) const { return FindKey(scm_.dirs, Key(dir).c_str()); }
  std::string Win(std::string path) const {
    std::replace(path.begin(), path.end(), '/', '\\');
    return path;
  }
};

// One query per file; the first version after "Latest:" counts.
TEST_F(PerFileTest, VssAsksOncePerFile) {
  FileNode* a = tree_.Add(b_, "src/a.c");
  tree_.Add(b_, "known.c", "4");
  fakes_.Output("ss",
                "File:  $/Proj/src/a.c\nSize:  1234 bytes       56 lines\r\n  Version:  3\n"
                "Latest:\n  Version:   7  \r\n  Date:     1/02/26   3:04a\n  Version:  99\n");
  const std::string win = Win(Key("src/a.c"));
  EXPECT_EQ(Walk(kScmVss), "Executing: ss Properties \"" + win + "\" 2>&1\n");
  EXPECT_EQ(tree_.Versions(b_, {"src/a.c", "known.c"}), (std::vector<std::string>{"7", "4"}));
  EXPECT_EQ(a->size, 1234);
  EXPECT_EQ(fakes_.Log(), std::vector<std::string>{"ss|" + b_ + "|[Properties][" + win + "]"});
}

// One query per directory, run there; the key is the depot path below
// "//depot/" under the module root, and only the newest revision counts.
TEST_F(PerFileTest, PerforceAsksOncePerDirectory) {
  const std::vector<std::string> files = {"lib/d.c", "src/a.c", "src/b.c", "src/c.c", "src/e.c"};
  for (const auto& rel : files) {
    wltest::WriteFile(Key(rel), "");
    tree_.Add(b_, rel);
  }
  fakes_.Output("p4",
                "//depot/lib/d.c\n... #5 change 900 edit on 2026/01/02 by joe@ws (text)\n\n\tfix\n"
                "//depot/src/a.c\n... #3 change 1234 edit on 2026/01/02 by j@ws (text)\n"
                "... #2 change 1200 edit on 2026/01/01 by j@ws (text)\n//depot/src/b.c\r\n"
                "... #1 change 1000 add on 2025/12/30 by ann@ws (text)\r\n//depot/src/e.c\n"
                "... #8 change 77 edit by x@ws (text) is not under client's root\n");
  const std::string cmd = "p4 filelog -t -L \"*\" 2>&1";
  EXPECT_EQ(Walk(kScmPerforce), "Executing: " + cmd + " in dir " + b_ + "/lib/\nExecuting: " + cmd +
                                    " in dir " + b_ + "/src/\n");
  EXPECT_EQ(tree_.Versions(b_, files), (std::vector<std::string>{"5", "3", "1", "", ""}));
  EXPECT_EQ(fakes_.Log(), (std::vector<std::string>{"p4|" + b_ + "/lib|[filelog][-t][-L][*]",
                                                    "p4|" + b_ + "/src|[filelog][-t][-L][*]"}));
  EXPECT_TRUE(Asked("lib/") && Asked("src/"));
  EXPECT_EQ(wltest::RealDir("."), b_);
}

// Tab-separated name, version, "MM-DD-YYYY;hh:mm:ss" local time and size up
// to the completion line; a listed subdirectory file is taken too.
TEST_F(PerFileTest, HarvestAsksOncePerDirectory) {
  wltest::ScopedEnv tz("TZ", "WLT-3");  // three hours east of UTC; mktime reads it
  FileNode* a = tree_.Add(b_, "a.c");
  FileNode* c = tree_.Add(b_, "c.c");
  for (const char* rel : {"b.c", "d.c", "sub/e.c"})
    tree_.Add(b_, rel);
  fakes_.Output("hsigget",
                "a.c\t3\t03-01-2005;12:34:56\t1234\nWarning: Information for file b.c\tx\ty\t5\n"
                "b.c.orig\t2\t01-01-2001;00:00:00\t5\nc.c\t1\t12-31-2004;23:59:59\t77   \r\n"
                "sub\\e.c\t4\t01-01-2001;00:00:00\t5\n"
                "Harvest (hsigget) command completed successfully.\nd.c\t9\t1-1-2001\t5\n");
  EXPECT_EQ(Walk(kScmHarvest),
            "Executing: hsigget -t -a version modtime size 2>&1 in dir " + b_ + "/\n");
  EXPECT_EQ(tree_.Versions(b_, {"a.c", "b.c", "c.c", "d.c", "sub/e.c"}),
            (std::vector<std::string>{"3", "", "1", "", "4"}));
  EXPECT_EQ(std::vector<int64_t>({a->mtime, a->size, c->mtime, c->size}),
            std::vector<int64_t>({1109680496 - 3 * 3600, 1234, 1104537599 - 3 * 3600, 77}));
  EXPECT_EQ(fakes_.Log(),
            std::vector<std::string>{"hsigget|" + b_ + "|[-t][-a][version][modtime][size]"});
  EXPECT_TRUE(Asked(""));
}

// A failed start returns -1 (VSS), 0 (Perforce) or 1 (Harvest); the
// directory is not remembered, so the next file asks again. Other types do
// nothing.
TEST_F(PerFileTest, StartFailuresAndOtherTypes) {
  wltest::WriteFile(Key("sub/a.c"), "");
  FileNode* a = tree_.Add(b_, "sub/a.c");
  for (uint32_t type : {0u, kScmCvs, kScmCvsRep, kScmSvn, kScmSi, kScmAccurev, kScmMstf})
    EXPECT_EQ(Walk(type), "") << type;
  EXPECT_TRUE(fakes_.Log().empty());
  wltest::FailingStarts fail;
  struct Case {
    uint32_t type;
    int result;
    std::string cmd, dir;
  } cases[] = {
      {kScmVss, -1, "ss Properties \"" + Win(Key("sub/a.c")) + "\" 2>&1", ""},
      {kScmPerforce, 0, "p4 filelog -t -L \"*\" 2>&1", " in dir " + Key("sub/")},
      {kScmHarvest, 1, "hsigget -t -a version modtime size 2>&1", " in dir " + Key("sub/")},
  };
  for (auto& c : cases) {
    for (int i = 0; i < 2; ++i) {
      scm_.type = c.type;
      EXPECT_EQ(Printed([&] { EXPECT_EQ(LoadVersionInfo(a, 0, &scm_), c.result); }),
                "Executing: " + c.cmd + c.dir + "\nCould not run: " + c.cmd + " ");
    }
    EXPECT_EQ(wltest::RealDir("."), b_);
  }
  EXPECT_FALSE(Asked("sub/"));
}

}  // namespace
