#include "scm/perfile.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "driver/settings.h"
#include "scm/scmtool.h"
#include "testlib/scm_fixtures.h"
#include "testlib/testlib.h"

namespace {

using wltest::CaptureStdout;
using wltest::FakeClients;
using wltest::ScmTree;
using wltest::TempDir;

class PerFileTest : public ::testing::Test {
 protected:
  PerFileTest()
      : build_(Made(wltest::RealDir(dir_.path()) + "/ws")),
        cwd_(build_),
        fakes_(dir_),
        tree_(true) {
    for (const char* name : {"ss", "p4", "hsigget"})
      fakes_.Add(name);
  }
  static std::string Made(const std::string& path) {
    wltest::MakeDirs(path);
    return path;
  }
  // Walks FileTree with LoadVersionInfo as the run does; returns the output.
  std::string Walk(uint32_t type) {
    CaptureStdout cap;
    WalkBintree(FileTree, LoadVersionInfo, &type);
    return cap.Take();
  }
  std::string Key(const std::string& rel) const { return build_ + "/" + rel; }

  TempDir dir_;
  std::string build_;
  wltest::ScopedCwd cwd_;
  FakeClients fakes_;
  ScmTree tree_;
};

TEST_F(PerFileTest, VssAsksOncePerFile) {
  FileNode* a = tree_.Add(build_, "src/a.c");
  a->size = 999;
  FileNode* b = tree_.Add(build_, "src/b.c");
  b->size = 555;
  tree_.Add(build_, "known.c", "4");
  fakes_.Output("ss",
                "File:  $/Proj/src/a.c\n"
                "Type:  Text\n"
                "Size:  1234 bytes       56 lines\r\n"
                "Store only latest version:  No\n"
                "Latest:\n"
                "  Version:   7  \r\n"
                "  Date:     1/02/26   3:04a\n"
                "  Version:  99\n"
                "Comment:\n",
                "Properties");
  const std::string printed = Walk(kScmVss);
  std::string a_win = Key("src/a.c"), b_win = Key("src/b.c");
  for (char& c : a_win)
    c = c == '/' ? '\\' : c;
  for (char& c : b_win)
    c = c == '/' ? '\\' : c;
  EXPECT_EQ(printed, "Executing: ss Properties \"" + a_win +
                         "\" 2>&1\n"
                         "Executing: ss Properties \"" +
                         b_win + "\" 2>&1\n");
  EXPECT_EQ(tree_.Version(Key("src/a.c")), "7");
  EXPECT_EQ(a->size, 1234);
  EXPECT_EQ(tree_.Version(Key("known.c")), "4");
  EXPECT_EQ(fakes_.Log(),
            (std::vector<std::string>{"ss|" + build_ + "|[Properties][" + a_win + "]",
                                      "ss|" + build_ + "|[Properties][" + b_win + "]"}));
}

TEST_F(PerFileTest, VssWithoutLatestKeepsScannedSize) {
  FileNode* a = tree_.Add(build_, "a.c");
  a->size = 42;
  fakes_.Output("ss", "File:  $/Proj/a.c\nSize:  7 bytes\n  Version:  3\n");
  Walk(kScmVss);
  EXPECT_EQ(tree_.Version(Key("a.c")), "");
  EXPECT_EQ(a->size, 42);
}

TEST_F(PerFileTest, VssStartFailure) {
  FileNode* a = tree_.Add(build_, "a.c");
  wltest::FailingStarts fail([](const std::string&) { return true; });
  uint32_t type = kScmVss;
  CaptureStdout cap;
  EXPECT_EQ(LoadVersionInfo(a, 0, &type), -1);
  std::string win = Key("a.c");
  for (char& c : win)
    c = c == '/' ? '\\' : c;
  EXPECT_EQ(cap.Take(), "Executing: ss Properties \"" + win +
                            "\" 2>&1\nCould not run: ss Properties \"" + win + "\" 2>&1 ");
}

const char kFilelog[] =
    "//depot/lib/d.c\n"
    "... #5 change 900 edit on 2026/01/02 03:04:05 by joe@ws (text)\n"
    "\n"
    "\tfix the loader\n"
    "\n"
    "//depot/src/a.c\n"
    "... #3 change 1234 edit on 2026/01/02 03:04:05 by joe@ws (text)\n"
    "\n"
    "\tsecond change\n"
    "\n"
    "... #2 change 1200 edit on 2026/01/01 01:00:00 by joe@ws (text)\n"
    "//depot/src/b.c\r\n"
    "... #1 change 1000 add on 2025/12/30 10:00:00 by ann@ws (text)\r\n"
    "//depot/src/e.c\n"
    "... #8 change 77 edit on 2026/01/02 by x@ws (text) is not under client's root\n"
    "/elsewhere/f.c - file(s) not in client view.\n";

TEST_F(PerFileTest, PerforceAsksOncePerDirectory) {
  wltest::MakeDirs(Key("lib"));
  wltest::MakeDirs(Key("src"));
  tree_.Add(build_, "lib/d.c");
  tree_.Add(build_, "src/a.c");
  tree_.Add(build_, "src/b.c");
  tree_.Add(build_, "src/c.c");
  tree_.Add(build_, "src/e.c");
  fakes_.Output("p4", kFilelog, "filelog");
  const std::string printed = Walk(kScmPerforce);
  EXPECT_EQ(printed, "Executing: p4 filelog -t -L \"*\" 2>&1 in dir " + build_ +
                         "/lib/\n"
                         "Executing: p4 filelog -t -L \"*\" 2>&1 in dir " +
                         build_ + "/src/\n");
  EXPECT_EQ(tree_.Version(Key("lib/d.c")), "5");
  EXPECT_EQ(tree_.Version(Key("src/a.c")), "3");
  EXPECT_EQ(tree_.Version(Key("src/b.c")), "1");
  EXPECT_EQ(tree_.Version(Key("src/c.c")), "");  // not listed, directory not asked again
  EXPECT_EQ(tree_.Version(Key("src/e.c")), "");  // its revision line is skipped
  EXPECT_EQ(fakes_.Log(), (std::vector<std::string>{"p4|" + build_ + "/lib|[filelog][-t][-L][*]",
                                                    "p4|" + build_ + "/src|[filelog][-t][-L][*]"}));
  EXPECT_EQ(tree_.DirKeys(), (std::vector<std::string>{build_ + "/lib/", build_ + "/src/"}));
  EXPECT_EQ(wltest::CurrentDir(), build_);
}

TEST_F(PerFileTest, PerforceStartFailureIsNotRemembered) {
  wltest::MakeDirs(Key("src"));
  tree_.Add(build_, "src/a.c");
  tree_.Add(build_, "src/b.c");
  wltest::FailingStarts fail([](const std::string&) { return true; });
  const std::string once = "Executing: p4 filelog -t -L \"*\" 2>&1 in dir " + build_ +
                           "/src/\nCould not run: p4 filelog -t -L \"*\" 2>&1 ";
  EXPECT_EQ(Walk(kScmPerforce), once + once);
  EXPECT_TRUE(tree_.DirKeys().empty());
  EXPECT_EQ(wltest::CurrentDir(), build_);
}

TEST_F(PerFileTest, HarvestAsksOncePerDirectory) {
  wltest::ScopedTz tz("WLT-3");
  wltest::WriteFile(Key("a.c"), "alpha\n");
  FileNode* a = tree_.Add(build_, "a.c");
  FileNode* b = tree_.Add(build_, "b.c");
  b->size = 11;
  FileNode* c = tree_.Add(build_, "c.c");
  FileNode* d = tree_.Add(build_, "d.c");
  tree_.Add(build_, "sub/e.c");
  fakes_.Output("hsigget",
                "a.c\t3\t03-01-2005;12:34:56\t1234\n"
                "Warning: Information for file b.c is not available\tx\ty\t5\n"
                "b.c.orig\t2\t01-01-2001;00:00:00\t5\n"
                "c.c\t1\t12-31-2004;23:59:59\t77   \r\n"
                "sub\\e.c\t4\t01-01-2001;00:00:00\t5\n"
                "Harvest (hsigget) command completed successfully.\n"
                "d.c\t9\t01-01-2001;00:00:00\t5\n");
  const std::string printed = Walk(kScmHarvest);
  // sub/e.c is listed from the build directory, so its own directory is
  // never asked.
  EXPECT_EQ(printed, "Executing: hsigget -t -a version modtime size 2>&1 in dir " + build_ + "/\n");
  EXPECT_STREQ(a->version, "3");
  EXPECT_EQ(a->mtime, 1109680496 - 3 * 3600);
  EXPECT_EQ(a->size, 1234);
  EXPECT_STREQ(b->version, "");
  EXPECT_EQ(b->size, 11);
  EXPECT_STREQ(c->version, "1");
  EXPECT_EQ(c->mtime, 1104537599 - 3 * 3600);
  EXPECT_EQ(c->size, 77);
  EXPECT_STREQ(d->version, "");  // after the completion line
  EXPECT_EQ(tree_.Version(Key("sub/e.c")), "4");
  EXPECT_EQ(fakes_.Log(),
            (std::vector<std::string>{"hsigget|" + build_ + "|[-t][-a][version][modtime][size]"}));
  EXPECT_EQ(tree_.DirKeys(), (std::vector<std::string>{build_ + "/"}));
  EXPECT_EQ(wltest::CurrentDir(), build_);
}

TEST_F(PerFileTest, HarvestStartFailureRestoresTheDirectory) {
  wltest::MakeDirs(Key("sub"));
  FileNode* a = tree_.Add(build_, "sub/a.c");
  wltest::FailingStarts fail([](const std::string&) { return true; });
  uint32_t type = kScmHarvest;
  CaptureStdout cap;
  EXPECT_EQ(LoadVersionInfo(a, 0, &type), 1);
  EXPECT_EQ(cap.Take(), "Executing: hsigget -t -a version modtime size 2>&1 in dir " + build_ +
                            "/sub/\nCould not run: hsigget -t -a version modtime size 2>&1 ");
  EXPECT_EQ(wltest::CurrentDir(), build_);
  EXPECT_TRUE(tree_.DirKeys().empty());
}

TEST_F(PerFileTest, OtherTypesDoNothing) {
  tree_.Add(build_, "a.c");
  for (uint32_t type :
       {0u, kScmCvs, kScmCvsRep, kScmSvn, kScmSi, kScmAccurev, kScmMstf, kScmClearCase}) {
    EXPECT_EQ(Walk(type), "") << type;
  }
  EXPECT_TRUE(fakes_.Log().empty());
}

}  // namespace
