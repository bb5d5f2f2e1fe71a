#include "scm/listing.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <ctime>
#include <string>
#include <vector>

#include "driver/settings.h"
#include "inventory/digest.h"
#include "scm/scmtool.h"
#include "support/strings.h"
#include "testlib/scm_fixtures.h"
#include "testlib/testlib.h"

namespace {

using wltest::CaptureStdout;
using wltest::FakeClients;
using wltest::ScmTree;
using wltest::TempDir;

// A build directory (the current directory during the test) and fake clients.
class ListingTest : public ::testing::Test {
 protected:
  ListingTest()
      : build_(wltest::RealDir(dir_.path()) + "/ws"),
        made_(MakeBuild(build_)),
        cwd_(build_),
        fakes_(dir_) {
    for (const char* name :
         {"cvs", "cleartool", "svn", "si", "accurev", "tf.exe", "hsigget", "ss", "p4"}) {
      fakes_.Add(name);
    }
  }
  static bool MakeBuild(const std::string& path) {
    wltest::MakeDirs(path);
    return true;
  }
  // Runs FindVersionInfo and returns what it printed.
  std::string List(uint32_t type) {
    CaptureStdout cap;
    FindVersionInfo(tree_.tree(), build_.c_str(), type);
    return cap.Take();
  }
  std::string Key(const std::string& rel) const { return build_ + "/" + rel; }
  std::string Log(const std::string& args) const { return std::string("|") + build_ + "|" + args; }

  TempDir dir_;
  std::string build_;
  bool made_;
  wltest::ScopedCwd cwd_;
  FakeClients fakes_;
  ScmTree tree_;
};

TEST_F(ListingTest, NoToolRunsNothing) {
  tree_.Add(build_, "a.c");
  for (uint32_t type : {0u, kScmCvsRep, kScmHarvest, kScmVss, kScmPerforce, 1024u}) {
    EXPECT_EQ(List(type), "") << type;
  }
  EXPECT_TRUE(fakes_.Log().empty());
  EXPECT_EQ(tree_.Version(Key("a.c")), "");
}

TEST_F(ListingTest, CvsHeadsFromTheWorkspaceLog) {
  tree_.Add(build_, "a.c");
  tree_.Add(build_, "sub/b.c");
  tree_.Add(build_, "sub/c.c");
  tree_.Add(build_, "d.c", "old");
  tree_.Add(build_, "nohead.c");
  fakes_.Output("cvs",
                "cvs log: Logging .\n"
                "\n"
                "RCS file: /repo/mod/a.c,v\n"
                "Working file: a.c\n"
                "head: 1.2\n"
                "branch:\n"
                "locks: strict\n"
                "access list:\n"
                "symbolic names:\n"
                "\tREL_1: 1.1\n"
                "keyword substitution: kv\n"
                "total revisions: 2\n"
                "=============================================================================\n"
                "head: 9.9\n"
                "cvs log: Logging sub\n"
                "\n"
                "RCS file: /repo/mod/sub/b.c,v\n"
                "Working file: sub/b.c   \r\n"
                "head: 1.1.1.1\t \r\n"
                "=============================================================================\n"
                "WORKING FILE: sub\\c.c\n"
                "HEAD: 2.3\n"
                "Working file: gone.c\n"
                "head: 1.7\n"
                "Working file: d.c\n"
                "head: 1.4\n"
                "Working file: nohead.c\n"
                "branch:\n"
                "cvs log: nothing known about x.c\n");
  EXPECT_EQ(List(kScmCvs), "Executing: cvs log -h 2>&1\n");
  EXPECT_EQ(tree_.Version(Key("a.c")), "1.2");
  EXPECT_EQ(tree_.Version(Key("sub/b.c")), "1.1.1.1");
  EXPECT_EQ(tree_.Version(Key("sub/c.c")), "2.3");
  EXPECT_EQ(tree_.Version(Key("d.c")), "1.4");  // a later line overwrites
  EXPECT_EQ(tree_.Version(Key("nohead.c")), "");
  EXPECT_EQ(tree_.Version(Key("gone.c")), "<absent>");
  EXPECT_EQ(fakes_.Log(), std::vector<std::string>{"cvs" + Log("[log][-h]")});
}

TEST_F(ListingTest, ClearCaseVersionIsTheRestAfterTheMarker) {
  tree_.Add(build_, "src/a.c");
  tree_.Add(build_, "src/b.c");
  tree_.Add(build_, "win/c.c");
  tree_.Add(build_, "private.txt");
  fakes_.Output("cleartool",
                "./src@@/main/4                                 Rule: /main/LATEST\n"
                "./src/a.c@@/main/3                             Rule: /main/LATEST   \n"
                "src/b.c@@/main/br1/2\r\n"
                ".\\win\\c.c@@/main/7 [hijacked]\n"
                "private.txt\n"
                "cleartool: Warning: noise line\n");
  EXPECT_EQ(List(kScmClearCase), "Executing: cleartool ls -recurse 2>&1\n");
  EXPECT_EQ(tree_.Version(Key("src/a.c")),
            "/main/3                             Rule: /main/LATEST");
  EXPECT_EQ(tree_.Version(Key("src/b.c")), "/main/br1/2");
  EXPECT_EQ(tree_.Version(Key("win/c.c")), "/main/7 [hijacked]");
  EXPECT_EQ(tree_.Version(Key("private.txt")), "");
  EXPECT_EQ(fakes_.Log(), std::vector<std::string>{"cleartool" + Log("[ls][-recurse]")});
}

TEST_F(ListingTest, ClearCaseReadsLongLinesInPiecesOf4095) {
  const std::string name(4000, 'n');
  tree_.Add(build_, name);
  tree_.Add(build_, "y");
  // The first line fits (4000 + 9 + newline); the second is cut after 4095
  // bytes, so its marker lands in a piece that starts in the middle.
  fakes_.Output("cleartool", name + "@@/main/1\n" + std::string(4095, 'x') + "y@@/main/2\n");
  List(kScmClearCase);
  EXPECT_EQ(tree_.Version(Key(name)), "/main/1");
  EXPECT_EQ(tree_.Version(Key("y")), "/main/2");
}

const char kSvnInfo[] =
    "Path: .\n"
    "Working Copy Root Path: /ws\n"
    "URL: file:///repo\n"
    "Revision: 7\n"
    "Node Kind: directory\n"
    "Schedule: normal\n"
    "\n"
    "Path: a.c\n"
    "Name: a.c\n"
    "Revision: 7\n"
    "Node Kind: file\n"
    "Last Changed Rev: 5\n"
    "\n"
    "Path: sub\n"
    "Revision: 8\n"
    "Node Kind: directory\n"
    "\n"
    "Path: sub/b.c\n"
    "Name: b.c\n"
    "Node Kind: file\n"
    "\n"
    "Path: sub/c.c\r\n"
    "Revision: 9\r\n"
    "Node Kind: file\r\n"
    "Node Kind: file\n"
    "svn: warning: W155010: The node '/ws/x.c' was not found.\n";

TEST_F(ListingTest, SvnRevisionsFromInfo) {
  tree_.Add(build_, "a.c");
  tree_.Add(build_, "sub/b.c");
  tree_.Add(build_, "sub/c.c");
  fakes_.Output("svn", kSvnInfo);
  EXPECT_EQ(List(kScmSvn), "Executing: svn info -R 2>&1\n");
  EXPECT_EQ(tree_.Version(Key("a.c")), "7");
  // No revision line of its own: the last one seen (the directory's) is used.
  EXPECT_EQ(tree_.Version(Key("sub/b.c")), "8");
  EXPECT_EQ(tree_.Version(Key("sub/c.c")), "9");
  EXPECT_EQ(fakes_.Log(), std::vector<std::string>{"svn" + Log("[info][-R]")});
}

TEST_F(ListingTest, SiListingIsSkippedWithTheBarePattern) {
  tree_.Add(build_, "a.c");
  wltest::WriteFile(build_ + "/project.pj", "");
  EXPECT_EQ(List(kScmSi), "");
  EXPECT_TRUE(fakes_.Log().empty());
}

struct SiCreds {
  SiCreds(const char* user, const char* password) {
    if (user)
      safe_cpy(&User, user);
    if (password)
      safe_cpy(&Password, password);
  }
  ~SiCreds() {
    safe_free(&User);
    safe_free(&Password);
  }
};

TEST_F(ListingTest, SiSandboxWithAndWithoutCredentials) {
  tree_.Add(build_, "a.c");
  tree_.Add(build_, "sub/b.c");
  fakes_.Output("si",
                "Path: a.c\n"
                "Revision: 1.4\n"
                "Node Kind: file\n"
                "** noise from the client\n"
                "Path: sub/b.c\n"
                "Revision: 1.2.1.1\n"
                "Node Kind: file\n");
  const std::string sandbox = build_ + "/project.pj";
  {
    CaptureStdout cap;
    ListSiSandbox(tree_.tree(), build_.c_str(), sandbox);
    EXPECT_EQ(cap.Take(), "Executing:  2>&1 \n");
  }
  EXPECT_EQ(tree_.Version(Key("a.c")), "1.4");
  EXPECT_EQ(tree_.Version(Key("sub/b.c")), "1.2.1.1");
  {
    SiCreds creds("bob", "pw$1");
    CaptureStdout cap;
    ListSiSandbox(tree_.tree(), build_.c_str(), sandbox);
    EXPECT_EQ(cap.Take(), "Executing:  --user \"*******\" --password \"*******\" 2>&1 \n");
  }
  {
    SiCreds creds("bob", nullptr);
    CaptureStdout cap;
    ListSiSandbox(tree_.tree(), build_.c_str(), sandbox);
    EXPECT_EQ(cap.Take(), "Executing:  --user \"*******\" 2>&1 \n");
  }
  const std::string base =
      "si" + Log("[viewsandbox][--recurse][--batch][--sandbox][" + sandbox + "]");
  EXPECT_EQ(fakes_.Log(), (std::vector<std::string>{base, base + "[--user][bob][--password][pw$1]",
                                                    base + "[--user][bob]"}));
}

TEST_F(ListingTest, AccurevFirstWordIsThePathSecondTheVersion) {
  tree_.Add(build_, "src/a.c");
  tree_.Add(build_, "src/b.c");
  tree_.Add(build_, "win/c.c");
  tree_.Add(build_, "d.c");
  fakes_.Output("accurev", "./src/a.c   dev_stream/3 (2/3) (kept) (member)\n" + build_ +
                               "/src/b.c  int_stream/12 (4/12) (backed)\n"
                               ".\\win\\c.c main/2 (2/2) (modified)\n"
                               "./d.c\n"
                               "./gone.c    dev/1 (1/1) (missing)\n"
                               "You are not in a directory associated with a workspace\n");
  EXPECT_EQ(List(kScmAccurev), "Executing: accurev stat -ff -R \"" + build_ + "\" 2>&1 2>&1 \n");
  EXPECT_EQ(tree_.Version(Key("src/a.c")), "dev_stream/3");
  EXPECT_EQ(tree_.Version(Key("src/b.c")), "int_stream/12");
  EXPECT_EQ(tree_.Version(Key("win/c.c")), "main/2");
  EXPECT_EQ(tree_.Version(Key("d.c")), "");
  EXPECT_EQ(fakes_.Log(),
            std::vector<std::string>{"accurev" + Log("[stat][-ff][-R][" + build_ + "]")});
}

TEST_F(ListingTest, TfChangesetsFromProperties) {
  tree_.Add(build_, "src/a.c");
  tree_.Add(build_, "src/b.c");
  fakes_.Output("tf.exe",
                "Local information:\n"
                "  Local path : " +
                    build_ +
                    "/src\n"
                    "  Server path: $/Proj/src\n"
                    "  Changeset  : 40\n"
                    "  Type       : folder\n"
                    "Server information:\n"
                    "  Changeset    : 40\n"
                    "  Type         : folder\n"
                    "Local information:\r\n"
                    "  Local path : " +
                    build_ +
                    "/src/a.c\r\n"
                    "  Server path: $/Proj/src/a.c\r\n"
                    "  Changeset  : 41\r\n"
                    "  Change     : none\r\n"
                    "  Type       : file\r\n"
                    "Server information:\r\n"
                    "  Server path  : $/Proj/src/a.c\r\n"
                    "  Changeset    : 44\r\n"
                    "  Lock         : none\r\n"
                    "  Type         : file\r\n"
                    "  File type    : utf-8\r\n"
                    "Local information:\n"
                    "\tLocal path:\t" +
                    build_ +
                    "\\src\\b.c\n"
                    "\tChangeset\t:\t7\n"
                    "\tType: file\n");
  EXPECT_EQ(List(kScmMstf),
            "Executing: tf.exe properties \"" + build_ + "\" /recursive /noprompt 2>&1 2>&1 \n");
  // The server section's changeset is not saved (the item is closed), its
  // "Type" line sets the pending value again.
  EXPECT_EQ(tree_.Version(Key("src/a.c")), "41");
  EXPECT_EQ(tree_.Version(Key("src/b.c")), "7");
  EXPECT_EQ(fakes_.Log(), std::vector<std::string>{"tf.exe" + Log("[properties][" + build_ +
                                                                  "][/recursive][/noprompt]")});
}

// Start failures print the branch's line and leave versions empty.
TEST_F(ListingTest, StartFailureLines) {
  tree_.Add(build_, "a.c");
  wltest::FailingStarts fail([](const std::string&) { return true; });
  struct Case {
    uint32_t type;
    std::string printed;
  } cases[] = {
      {kScmCvs, "Executing: cvs log -h 2>&1\nCould not run: cvs log -h 2>&1\n"},
      {kScmClearCase,
       "Executing: cleartool ls -recurse 2>&1\nCould not run: cleartool ls -recurse 2>&1\n"},
      {kScmSvn, "Executing: svn info -R 2>&1\nCould not run: svn info -R 2>&1\n"},
      {kScmAccurev, "Executing: accurev stat -ff -R \"" + build_ +
                        "\" 2>&1 2>&1 \n"
                        "Could not run: accurev stat -ff -R \"" +
                        build_ + "\" 2>&1 2>&1\n"},
      {kScmMstf, "Executing: tf.exe properties \"" + build_ +
                     "\" /recursive /noprompt 2>&1 2>&1 \n"
                     "Could not run: tf.exe properties \"" +
                     build_ + "\" /recursive /noprompt 2>&1 2>&1\n"},
  };
  for (const auto& c : cases)
    EXPECT_EQ(List(c.type), c.printed) << c.type;
  CaptureStdout cap;
  ListSiSandbox(tree_.tree(), build_.c_str(), build_ + "/p.pj");
  EXPECT_EQ(cap.Take(), "Executing:  2>&1 \nCould not run:  2>&1\n");
  EXPECT_EQ(tree_.Version(Key("a.c")), "");
}

TEST_F(ListingTest, MissingClientLeavesVersionsEmpty) {
  tree_.Add(build_, "a.c");
  wltest::MakeDirs(dir_ / "empty");
  wltest::ScopedEnv path("PATH", dir_ / "empty");
  EXPECT_EQ(List(kScmSvn), "Executing: svn info -R 2>&1\n");
  EXPECT_EQ(List(kScmCvs), "Executing: cvs log -h 2>&1\n");
  EXPECT_EQ(tree_.Version(Key("a.c")), "");
}

TEST_F(ListingTest, ClientThatExitsAtOnce) {
  tree_.Add(build_, "a.c");
  fakes_.AddRaw("svn", "exit 3\n");
  EXPECT_EQ(List(kScmSvn), "Executing: svn info -R 2>&1\n");
  EXPECT_EQ(tree_.Version(Key("a.c")), "");
}

TEST_F(ListingTest, NulBytesCutTheLine) {
  tree_.Add(build_, "a.c");
  tree_.Add(build_, "b.c");
  static const char kOut[] =
      "Working file: a.c\nhead: 1.\0"
      "5 junk\nWorking file: b\0.c\nhead: 2.1\n";
  fakes_.Output("cvs", std::string(kOut, sizeof kOut - 1));
  List(kScmCvs);
  EXPECT_EQ(tree_.Version(Key("a.c")), "1.");
  EXPECT_EQ(tree_.Version(Key("b.c")), "");
}

// Hundreds of megabytes of output are streamed: memory stays bounded.
TEST_F(ListingTest, HugeOutputIsStreamed) {
  tree_.Add(build_, "a.c");
  fakes_.AddRaw("svn",
                "head -c 300000000 /dev/zero\n"
                "echo\n"
                "yes 'Path: noise' | head -c 24000000\n"
                "printf 'Path: a.c\\nRevision: 3\\nNode Kind: file\\n'\n");
  const long before = wltest::PeakRssKib();
  EXPECT_EQ(List(kScmSvn), "Executing: svn info -R 2>&1\n");
  const long grown = wltest::PeakRssKib() - before;
  EXPECT_EQ(tree_.Version(Key("a.c")), "3");
  // The sanitizer's quarantine keeps freed blocks, so peak memory is only
  // meaningful in a plain build.
  if (!wltest::kUnderAddressSanitizer) {
    EXPECT_LT(grown, 32 * 1024) << "peak RSS grew by " << grown << " KiB";
  }
}

TEST_F(ListingTest, EndlessLineArrivesInPieces) {
  tree_.Add(build_, "a.c");
  fakes_.AddRaw("cvs",
                "head -c 5000000 /dev/zero | tr '\\000' x\n"
                "echo\n"
                "printf 'Working file: a.c\\nhead: 1.3\\n'\n");
  List(kScmCvs);
  EXPECT_EQ(tree_.Version(Key("a.c")), "1.3");
}

// --- The repository log ---

class RepositoryTest : public ListingTest {
 protected:
  RepositoryTest() { SCMType = kScmCvsRep; }
  ~RepositoryTest() override { SCMType = 0; }
  std::string Load(int* result) {
    CaptureStdout cap;
    *result = LoadRepository("ignored", build_.c_str(), tree_.tree());
    return cap.Take();
  }
  static std::string DigestOf(const std::string& path) {
    unsigned char d[16] = {};
    char text[33] = {};
    md_filename(path.c_str(), d);
    return print_digest(d, text);
  }
};

TEST_F(RepositoryTest, RecordsFromTheLogAlone) {
  wltest::ScopedTz tz("WLT-3");  // three hours east of UTC, no daylight saving
  wltest::WriteFile(build_ + "/a.c", "alpha\n");
  wltest::WriteFile(build_ + "/sub/b.c", "beta\n");
  fakes_.Output("cvs",
                "cvs log: Logging .\n"
                "\n"
                "RCS file: /repo/mod/a.c,v\n"
                "Working file: a.c\n"
                "head: 1.2\n"
                "branch:\n"
                "total revisions: 2;\tselected revisions: 2\n"
                "description:\n"
                "----------------------------\n"
                "revision 1.2\n"
                "date: 2005/03/01 12:34:56;  author: joe;  state: Exp;  lines: +1 -0\n"
                "second\n"
                "----------------------------\n"
                "revision 1.1\n"
                "date: 2004/01/01 00:00:00;  author: joe;  state: Exp;\n"
                "first\n"
                "=============================================================================\n"
                "cvs log: Logging sub\n"
                "Working file: sub\\b.c\n"
                "head: 1.1\n"
                "date: 2026-01-02 03:04:05 +0000;  author: ann;  state: Exp;\n"
                "Working file: gone.c\n"
                "head: 1.9\n"
                "date: 2005/03/01 12:34:56;\n"
                "Working file: a.c\n"
                "head: 7.7\n"
                "date: 2010/01/01 00:00:00;\n");
  int result = -1;
  EXPECT_EQ(Load(&result), "Executing: cvs log 2>&1\n");
  EXPECT_EQ(result, 0);
  EXPECT_EQ(tree_.Keys(), (std::vector<std::string>{Key("a.c"), Key("gone.c"), Key("sub/b.c")}));

  FileNode* a = tree_.Find(Key("a.c"));
  ASSERT_NE(a, nullptr);
  EXPECT_STREQ(a->dir, build_.c_str());
  EXPECT_STREQ(a->name, "a.c");
  EXPECT_STREQ(a->version, "1.2");  // the second entry for a.c is skipped
  EXPECT_EQ(std::string(a->digest), DigestOf(build_ + "/a.c"));
  EXPECT_EQ(std::string(a->digest).size(), 32u);
  // 2005-03-01 12:34:56 wall-clock time three hours east of UTC.
  EXPECT_EQ(a->mtime, 1109680496 - 3 * 3600);
  EXPECT_EQ(a->size, 0);

  FileNode* b = tree_.Find(Key("sub/b.c"));
  ASSERT_NE(b, nullptr);
  EXPECT_STREQ(b->name, "sub/b.c");
  EXPECT_STREQ(b->dir, build_.c_str());
  EXPECT_STREQ(b->version, "1.1");
  // The dashed date splits into 2026-01-02, 03, 04, 05: year 2026, month 3,
  // day 4, hour 5, then zeros.
  EXPECT_EQ(b->mtime, 1772600400 - 3 * 3600);

  FileNode* gone = tree_.Find(Key("gone.c"));
  ASSERT_NE(gone, nullptr);
  EXPECT_STREQ(gone->digest, std::string(32, '0').c_str());
  EXPECT_EQ(fakes_.Log(), std::vector<std::string>{"cvs" + Log("[log]")});
}

TEST_F(RepositoryTest, OnlyForCvsRep) {
  SCMType = kScmCvs;
  int result = -1;
  EXPECT_EQ(Load(&result), "");
  EXPECT_EQ(result, 0);
  EXPECT_TRUE(fakes_.Log().empty());
}

TEST_F(RepositoryTest, StartFailure) {
  wltest::FailingStarts fail([](const std::string&) { return true; });
  int result = -1;
  EXPECT_EQ(Load(&result), "Executing: cvs log 2>&1\nCould not run: cvs log 2>&1 ");
  EXPECT_EQ(result, 1);
  EXPECT_TRUE(tree_.Keys().empty());
}

// --- Real clients ---

TEST(RealClients, SvnRevisionsMatchTheClient) {
  if (!wltest::HaveTool("svn") || !wltest::HaveTool("svnadmin"))
    GTEST_SKIP() << "svn not installed";
  TempDir dir;
  const std::string co = wltest::MakeSvnCheckout(dir);
  ASSERT_FALSE(co.empty());
  wltest::ScopedCwd cwd(co);
  ScmTree tree;
  tree.Add(co, "a.c");
  tree.Add(co, "sub/b.c");
  CaptureStdout cap;
  FindVersionInfo(tree.tree(), co.c_str(), kScmSvn);
  EXPECT_EQ(cap.Take(), "Executing: svn info -R 2>&1\n");
  for (const char* rel : {"a.c", "sub/b.c"}) {
    std::string rev = wltest::ShOut(std::string("svn info --show-item revision ") + rel, co);
    while (!rev.empty() && (rev.back() == '\n' || rev.back() == ' '))
      rev.pop_back();
    EXPECT_EQ(tree.Version(co + "/" + rel), rev) << rel;
  }
  EXPECT_EQ(tree.Version(co + "/a.c"), "2");
}

std::string CvsWorkingRevision(const std::string& co, const std::string& rel) {
  std::string out = wltest::ShOut("cvs status " + rel, co);
  const std::string tag = "Working revision:";
  size_t at = out.find(tag);
  if (at == std::string::npos)
    return "";
  size_t start = out.find_first_not_of(" \t", at + tag.size());
  return out.substr(start, out.find_first_of(" \t\n", start) - start);
}

TEST(RealClients, CvsHeadsMatchTheClient) {
  if (!wltest::HaveTool("cvs"))
    GTEST_SKIP() << "cvs not installed";
  TempDir dir;
  const std::string co = wltest::MakeCvsCheckout(dir);
  ASSERT_FALSE(co.empty());
  wltest::ScopedCwd cwd(co);
  ScmTree tree;
  tree.Add(co, "a.c");
  tree.Add(co, "sub/b.c");
  CaptureStdout cap;
  FindVersionInfo(tree.tree(), co.c_str(), kScmCvs);
  cap.Take();
  for (const char* rel : {"a.c", "sub/b.c"}) {
    EXPECT_EQ(tree.Version(co + "/" + rel), CvsWorkingRevision(co, rel)) << rel;
  }
  EXPECT_EQ(tree.Version(co + "/a.c"), "1.2");
}

TEST(RealClients, CvsRepBuildsTheTreeFromTheLog) {
  if (!wltest::HaveTool("cvs"))
    GTEST_SKIP() << "cvs not installed";
  TempDir dir;
  const std::string co = wltest::MakeCvsCheckout(dir);
  ASSERT_FALSE(co.empty());
  wltest::ScopedCwd cwd(co);
  ScmTree tree;
  SCMType = kScmCvsRep;
  CaptureStdout cap;
  EXPECT_EQ(LoadRepository(co.c_str(), co.c_str(), tree.tree()), 0);
  SCMType = 0;
  EXPECT_EQ(cap.Take(), "Executing: cvs log 2>&1\n");
  EXPECT_EQ(tree.Keys(), (std::vector<std::string>{co + "/a.c", co + "/sub/b.c"}));
  for (const char* rel : {"a.c", "sub/b.c"}) {
    FileNode* node = tree.Find(co + "/" + rel);
    ASSERT_NE(node, nullptr);
    EXPECT_EQ(std::string(node->version), CvsWorkingRevision(co, rel)) << rel;
    unsigned char d[16] = {};
    char text[33] = {};
    md_filename((co + "/" + rel).c_str(), d);
    EXPECT_STREQ(node->digest, print_digest(d, text)) << rel;
    EXPECT_NE(node->mtime, 0);
  }
}

}  // namespace
