#include "scm/detail.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "driver/settings.h"
#include "scm/scmtool.h"
#include "support/handles.h"
#include "support/strings.h"
#include "testlib/scm_fixtures.h"
#include "testlib/testlib.h"

namespace {

using wltest::CaptureStdout;
using wltest::FakeClients;
using wltest::ScmTree;
using wltest::TempDir;

const std::string kSep = std::string(22, '!') + "\n";

// The run's start directory is the current one; the build tree lies beside
// it. Fake clients print "<tool> <sub>" output with a cvs notice line in each.
class DetailTest : public ::testing::Test {
 protected:
  DetailTest()
      : root_(wltest::RealDir(dir_.path())),
        start_(Made(root_ + "/start")),
        build_(Made(root_ + "/ws/src", root_ + "/ws")),
        cwd_(start_),
        fakes_(dir_) {
    const char* tools[][3] = {{"cvs", "log", "diff"},
                              {"cleartool", "lshist", "diff"},
                              {"hsigget", "", ""},
                              {"svn", "info", "diff"},
                              {"ss", "Properties", ""},
                              {"p4", "filelog", "diff"},
                              {"si", "memberinfo", "diff"},
                              {"accurev", "stat", "diff"},
                              {"tf.exe", "properties", "diff"}};
    for (auto& t : tools) {
      fakes_.Add(t[0]);
      for (int i = 1; i < 3; ++i) {
        std::string sub = t[i];
        fakes_.Output(t[0],
                      std::string(t[0]) + " " + (sub.empty() ? "out" : sub) +
                          "\ncvs log: in directory src\ncvs [log aborted]: stop\n" + t[0] +
                          " end\n",
                      sub);
      }
    }
  }
  static std::string Made(const std::string& path, const std::string& result = "") {
    wltest::MakeDirs(path);
    return result.empty() ? path : result;
  }
  // A record for build_/rel with the given version.
  FileNode* Node(const std::string& rel, const std::string& version) {
    return tree_.Add(build_, rel, version);
  }
  // Runs GetDetail; returns the report's text and sets `printed`.
  std::string Detail(uint32_t type, FileNode* now, FileNode* before, std::string* printed) {
    UniqueFile report(std::tmpfile());
    {
      CaptureStdout cap;
      GetDetail(type, report.get(), now, before);
      *printed = cap.Take();
    }
    std::fflush(report.get());
    std::rewind(report.get());
    std::string text;
    char buf[4096];
    while (size_t n = std::fread(buf, 1, sizeof buf, report.get()))
      text.append(buf, n);
    return text;
  }
  std::vector<std::string> NewLog(size_t from) const {
    std::vector<std::string> log = fakes_.Log();
    return std::vector<std::string>(log.begin() + static_cast<long>(std::min(from, log.size())),
                                    log.end());
  }

  TempDir dir_;
  std::string root_, start_, build_;
  wltest::ScopedCwd cwd_;
  FakeClients fakes_;
  ScmTree tree_;
  ScmTree old_tree_;
};

std::string Kept(const std::string& tool, const std::string& sub) {
  return tool + " " + sub + "\ncvs log: in directory src\ncvs [log aborted]: stop\n" + tool +
         " end\n";
}
std::string Filtered(const std::string& tool, const std::string& sub) {
  return tool + " " + sub + "\n" + tool + " end\n";
}

TEST_F(DetailTest, EveryToolsCommandsDirectoryAndBlock) {
  const std::string b = build_;
  const std::string src = b + "/src/";
  const std::string path = b + "/src/a.c";
  std::string win = path;
  for (char& c : win)
    c = c == '/' ? '\\' : c;
  struct Case {
    uint32_t type;
    const char* new_version;
    const char* old_version;
    std::string printed;
    std::vector<std::string> log;
    std::string report;
  } cases[] = {
      {kScmCvs,
       "1.2",
       "1.1",
       "Executing: cvs log \"a.c\" 2>&1 in dir " + src +
           "\nRunning cvs diff -c6 -r 1.1 \"a.c\" 2>&1 in dir " + src + "\n",
       {"cvs|" + b + "/src|[log][a.c]", "cvs|" + b + "/src|[diff][-c6][-r][1.1][a.c]"},
       Kept("cvs", "log") + Filtered("cvs", "diff") + kSep},
      {kScmCvsRep,
       "1.2",
       "1.1",
       "Executing: cvs log -r1.1 -r1.2  \"src/a.c\" 2>&1 in dir " + src +
           "\nRunning cvs diff -c6 -r 1.1 \"src/a.c\" 2>&1 in dir " + src + "\n",
       {"cvs|" + b + "/src|[log][-r1.1][-r1.2][src/a.c]",
        "cvs|" + b + "/src|[diff][-c6][-r][1.1][src/a.c]"},
       Kept("cvs", "log") + Filtered("cvs", "diff") + kSep},
      {kScmClearCase,
       "/main/4",
       "/main/3        Rule: /main/LATEST",
       "Executing: cleartool lshist \"src/a.c\" 2>&1\n"
       "Running cleartool diff \"src/a.c@@/main/3\" \"src/a.c\" 2>&1\n",
       {"cleartool|" + start_ + "|[lshist][src/a.c]",
        "cleartool|" + start_ + "|[diff][src/a.c@@/main/3][src/a.c]"},
       Kept("cleartool", "lshist") + Filtered("cleartool", "diff") + kSep},
      {kScmHarvest,
       "3",
       "2",
       "Executing: hsigget src/a.c -t -a environment state package version versionid viewpath tag "
       "user "
       "modtime size 2>&1 in dir " +
           src + "\n",
       {"hsigget|" + b +
        "/src|[src/a.c][-t][-a][environment][state][package][version][versionid]"
        "[viewpath][tag][user][modtime][size]"},
       Kept("hsigget", "out") + kSep},
      {kScmSvn,
       "14",
       "12",
       "Executing: svn info \"" + path + "\" 2>&1\nRunning svn diff --revision 12 \"" + path +
           "\" 2>&1\n",
       {"svn|" + start_ + "|[info][" + path + "]",
        "svn|" + start_ + "|[diff][--revision][12][" + path + "]"},
       Kept("svn", "info") + Filtered("svn", "diff") + kSep},
      {kScmVss,
       "7",
       "6",
       "Executing: ss Properties \"" + win + "\" 2>&1\n",
       {"ss|" + start_ + "|[Properties][" + win + "]"},
       Kept("ss", "Properties") + kSep},
      {kScmPerforce,
       "4",
       "3",
       "Executing: p4 filelog -t -L \"" + path + "\" 2>&1 in dir " + src +
           "\nRunning p4 diff -dnl -f \"" + path + "\"#3 2>&1 in dir " + src + "\n",
       {"p4|" + b + "/src|[filelog][-t][-L][" + path + "]",
        "p4|" + b + "/src|[diff][-dnl][-f][" + path + "#3]"},
       Kept("p4", "filelog") + Filtered("p4", "diff") + kSep},
      {kScmSi,
       "1.5",
       "1.4",
       "Running: \nExecuting: si memberinfo --batch \"" + path +
           "\" 2>&1\nRunning si diff --batch -r \"1.4\" \"" + path + "\" 2>&1\n",
       {"si|" + start_ + "|[memberinfo][--batch][" + path + "]",
        "si|" + start_ + "|[diff][--batch][-r][1.4][" + path + "]"},
       Kept("si", "memberinfo") + Filtered("si", "diff") + kSep},
      {kScmAccurev,
       "dev/3",
       "dev/2",
       "Executing: accurev stat \"" + path + "\" 2>&1 in dir " + src +
           "\nRunning accurev diff -v dev/2 \"" + path + "\" 2>&1 in dir " + src + "\n",
       {"accurev|" + b + "/src|[stat][" + path + "]",
        "accurev|" + b + "/src|[diff][-v][dev/2][" + path + "]"},
       Kept("accurev", "stat") + Filtered("accurev", "diff") + kSep},
      {kScmMstf,
       "9",
       "7",
       "Executing: tf.exe properties \"" + path + "\"  /noprompt 2>&1\nRunning tf.exe diff \"" +
           path + ";9\" \"" + path + ";7\" /format:unix 2>&1\n",
       {"tf.exe|" + start_ + "|[properties][" + path + "][/noprompt]",
        "tf.exe|" + start_ + "|[diff][" + path + ";9][" + path + ";7][/format:unix]"},
       Kept("tf.exe", "properties") + Filtered("tf.exe", "diff") + kSep},
  };
  for (const auto& c : cases) {
    ScmTree now, before;
    FileNode* n = now.Add(b, "src/a.c", c.new_version);
    FileNode* o = before.Add(b, "src/a.c", c.old_version);
    size_t mark = fakes_.Log().size();
    std::string printed;
    EXPECT_EQ(Detail(c.type, n, o, &printed), c.report) << c.type;
    EXPECT_EQ(printed, c.printed) << c.type;
    EXPECT_EQ(NewLog(mark), c.log) << c.type;
    EXPECT_EQ(wltest::CurrentDir(), start_) << c.type;
  }
}

TEST_F(DetailTest, NoToolWritesNothing) {
  FileNode* n = Node("src/a.c", "2");
  FileNode* o = old_tree_.Add(build_, "src/a.c", "1");
  for (uint32_t type : {0u, 1024u, kScmCvs | kScmSvn}) {
    std::string printed;
    EXPECT_EQ(Detail(type, n, o, &printed), "") << type;
    EXPECT_EQ(printed, "") << type;
  }
  EXPECT_TRUE(fakes_.Log().empty());
}

TEST_F(DetailTest, EmptyOldVersionGivesFirstOutputAndSeparator) {
  FileNode* n = Node("src/a.c", "14");
  FileNode* o = old_tree_.Add(build_, "src/a.c", "");
  std::string printed;
  EXPECT_EQ(Detail(kScmSvn, n, o, &printed), Kept("svn", "info") + kSep);
  EXPECT_EQ(printed, "Executing: svn info \"" + build_ + "/src/a.c\" 2>&1\n");
  // CVSREP still forms its first command with the empty old version.
  EXPECT_EQ(Detail(kScmCvsRep, n, o, &printed), Kept("cvs", "log") + kSep);
  EXPECT_EQ(printed, "Executing: cvs log -r -r14  \"src/a.c\" 2>&1 in dir " + build_ + "/src/\n");
}

TEST_F(DetailTest, SecondStartFailureLeavesNoSeparator) {
  FileNode* n = Node("src/a.c", "1.2");
  FileNode* o = old_tree_.Add(build_, "src/a.c", "1.1");
  wltest::FailingStarts fail(
      [](const std::string& cmd) { return cmd.find(" diff ") != std::string::npos; });
  std::string printed;
  EXPECT_EQ(Detail(kScmCvs, n, o, &printed), Kept("cvs", "log"));
  const std::string src = build_ + "/src/";
  EXPECT_EQ(printed, "Executing: cvs log \"a.c\" 2>&1 in dir " + src +
                         "\nRunning cvs diff -c6 -r 1.1 \"a.c\" 2>&1 in dir " + src +
                         "\nCould not run: cvs diff -c6 -r 1.1 \"a.c\" 2>&1\n");
  EXPECT_EQ(wltest::CurrentDir(), start_);
  EXPECT_EQ(Detail(kScmSvn, n, o, &printed), Kept("svn", "info"));
  EXPECT_EQ(printed, "Executing: svn info \"" + build_ +
                         "/src/a.c\" 2>&1\nRunning svn diff --revision 1.1 \"" + build_ +
                         "/src/a.c\" 2>&1\nCould not run: svn diff --revision 1.1 \"" + build_ +
                         "/src/a.c\" 2>&1\n");
}

TEST_F(DetailTest, FirstStartFailureWritesNothing) {
  FileNode* n = Node("src/a.c", "4");
  FileNode* o = old_tree_.Add(build_, "src/a.c", "3");
  wltest::FailingStarts fail([](const std::string&) { return true; });
  std::string printed;
  EXPECT_EQ(Detail(kScmPerforce, n, o, &printed), "");
  const std::string path = build_ + "/src/a.c";
  EXPECT_EQ(printed, "Executing: p4 filelog -t -L \"" + path + "\" 2>&1 in dir " + build_ +
                         "/src/\nCould not run: p4 filelog -t -L \"" + path + "\" 2>&1\n");
  EXPECT_EQ(wltest::CurrentDir(), start_);
  EXPECT_EQ(fail.seen().size(), 1u);
}

// Names with shell characters reach each client unchanged and run nothing.
TEST_F(DetailTest, ShellCharactersInNamesAreData) {
  const char* names[] = {"$(touch PWNED).c", "a\"b.c", "back`touch PWNED`tick.c", "two words.c"};
  const uint32_t types[] = {kScmCvs, kScmCvsRep,   kScmClearCase, kScmHarvest, kScmSvn,
                            kScmVss, kScmPerforce, kScmSi,        kScmAccurev, kScmMstf};
  for (const char* name : names) {
    const std::string rel = std::string("src/") + name;
    const std::string path = build_ + "/" + rel;
    std::string win = path;
    for (char& c : win)
      c = c == '/' ? '\\' : c;
    for (uint32_t type : types) {
      ScmTree now, before;
      FileNode* n = now.Add(build_, rel, "9");
      FileNode* o = before.Add(build_, rel, "7");
      size_t mark = fakes_.Log().size();
      std::string printed;
      Detail(type, n, o, &printed);
      std::vector<std::string> log = NewLog(mark);
      std::string expect_arg;
      switch (type) {
        case kScmCvs:
          expect_arg = name;
          break;
        case kScmCvsRep:
        case kScmClearCase:
        case kScmHarvest:
          expect_arg = rel;
          break;
        case kScmVss:
          expect_arg = win;
          break;
        default:
          expect_arg = path;
          break;
      }
      ASSERT_FALSE(log.empty()) << name << " type " << type;
      EXPECT_NE(log[0].find("[" + expect_arg + "]"), std::string::npos)
          << log[0] << " type " << type;
      // The progress line shows the name as it is.
      if (type != kScmVss && type != kScmHarvest) {
        EXPECT_NE(printed.find(expect_arg), std::string::npos) << printed;
      }
    }
  }
  EXPECT_FALSE(wltest::ReadFile(start_ + "/PWNED").has_value());
  EXPECT_FALSE(wltest::ReadFile(build_ + "/src/PWNED").has_value());
}

TEST_F(DetailTest, HugeDetailOutputIsStreamed) {
  fakes_.AddRaw("svn", "head -c 50000000 /dev/zero | tr '\\000' y\n");
  FileNode* n = Node("src/a.c", "2");
  FileNode* o = old_tree_.Add(build_, "src/a.c", "");
  const long before = wltest::PeakRssKib();
  UniqueFile report(std::tmpfile());
  {
    CaptureStdout cap;
    GetDetail(kScmSvn, report.get(), n, o);
  }
  std::fflush(report.get());
  EXPECT_EQ(std::ftell(report.get()), 50000000L + 23);
  // The sanitizer's quarantine keeps freed blocks, so peak memory is only
  // meaningful in a plain build.
  if (!wltest::kUnderAddressSanitizer) {
    EXPECT_LT(wltest::PeakRssKib() - before, 32 * 1024);
  }
}

// --- Real clients ---

std::string ReportOf(uint32_t type, FileNode* n, FileNode* o) {
  UniqueFile report(std::tmpfile());
  {
    CaptureStdout cap;
    GetDetail(type, report.get(), n, o);
  }
  std::fflush(report.get());
  std::rewind(report.get());
  std::string text;
  char buf[4096];
  while (size_t k = std::fread(buf, 1, sizeof buf, report.get()))
    text.append(buf, k);
  return text;
}

TEST(RealDetail, SvnInfoAndDiff) {
  if (!wltest::HaveTool("svn") || !wltest::HaveTool("svnadmin"))
    GTEST_SKIP() << "svn not installed";
  TempDir dir;
  const std::string co = wltest::MakeSvnCheckout(dir);
  ASSERT_FALSE(co.empty());
  wltest::WriteFile(co + "/a.c", "a\na2\nchanged line\n");
  ScmTree now, before;
  FileNode* n = now.Add(co, "a.c", "2");
  FileNode* o = before.Add(co, "a.c", "2");
  const std::string text = ReportOf(kScmSvn, n, o);
  EXPECT_NE(text.find("Path: " + co + "/a.c\n"), std::string::npos) << text;
  EXPECT_NE(text.find("Revision: 2\n"), std::string::npos) << text;
  EXPECT_NE(text.find("Index: " + co + "/a.c\n"), std::string::npos) << text;
  EXPECT_NE(text.find("\n+changed line\n"), std::string::npos) << text;
  EXPECT_EQ(text.substr(text.size() - kSep.size()), kSep);
}

TEST(RealDetail, CvsLogAndDiffInTheFilesDirectory) {
  if (!wltest::HaveTool("cvs"))
    GTEST_SKIP() << "cvs not installed";
  TempDir dir;
  const std::string co = wltest::MakeCvsCheckout(dir);
  ASSERT_FALSE(co.empty());
  wltest::WriteFile(co + "/sub/b.c", "b\nnew in b\n");
  ScmTree now, before;
  FileNode* n = now.Add(co, "sub/b.c", "1.1");
  FileNode* o = before.Add(co, "sub/b.c", "1.1");
  wltest::ScopedCwd cwd(dir.path());
  const std::string text = ReportOf(kScmCvs, n, o);
  EXPECT_NE(text.find("Working file: b.c\n"), std::string::npos) << text;
  EXPECT_NE(text.find("head: 1.1\n"), std::string::npos) << text;
  EXPECT_NE(text.find("retrieving revision 1.1\n"), std::string::npos) << text;
  EXPECT_NE(text.find("+ new in b\n"), std::string::npos) << text;
  EXPECT_EQ(text.substr(text.size() - kSep.size()), kSep);
  EXPECT_EQ(wltest::CurrentDir(), wltest::RealDir(dir.path()));
}

}  // namespace
