#include "scm/listing.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "inventory/digest.h"
#include "scm/scmtool.h"
#include "support/strings.h"
#include "testlib/scm_fixtures.h"

namespace {

using wltest::Printed;

const std::vector<std::string> kFiles = {"a.c", "sub/b.c", "sub/c.c"};

class ListingTest : public wltest::ScmTest {
 protected:
  ListingTest() {
    for (const auto& rel : kFiles)
      tree_.Add(b_, rel);
  }
  std::string List(uint32_t type) {
    scm_.type = type;
    return Printed([&] { FindVersionInfo(scm_, b_.c_str()); });
  }
  std::vector<std::string> Versions() const { return tree_.Versions(b_, kFiles); }
  std::string B(const std::string& text) const { return wltest::Fill(text, {{"{B}", b_}}); }
};

// {B} in the table stands for the build directory.
TEST_F(ListingTest, EveryListingCommandProgressAndVersions) {
  struct Case {
    uint32_t type;
    bool redirect;  // announced as "Executing: %s 2>&1 \n"
    const char *out, *shown, *args, *a, *b, *c;
  } cases[] = {
      {kScmCvs, false,
       "Working file: a.c\nhead: 1.2\nbranch:\n=======\nhead: 9.9\nWorking file: sub/b.c  \r\n"
       "head: 1.1.1.1\t \r\nWORKING FILE: sub\\c.c\nHEAD: 2.3\nWorking file: gone.c\nhead: 1.7\n",
       "cvs log -h 2>&1", "cvs|{B}|[log][-h]", "1.2", "1.1.1.1", "2.3"},
      {kScmClearCase, false,
       "./sub@@/main/4  Rule: /main/LATEST\n./a.c@@/main/3  Rule: /main/LATEST \nsub/b.c@@/main/"
       "br1/2\r\n.\\sub\\c.c@@/main/7 [hijacked]\nprivate.txt\n",
       "cleartool ls -recurse 2>&1", "cleartool|{B}|[ls][-recurse]", "/main/3  Rule: /main/LATEST",
       "/main/br1/2", "/main/7 [hijacked]"},
      // An entry without a revision line takes the last one seen.
      {kScmSvn, false,
       "Path: .\nRevision: 7\nNode Kind: directory\nPath: a.c\nRevision: 7\nNode Kind: file\nPath:"
       " sub\nRevision: 8\nNode Kind: directory\nPath: sub/b.c\nNode Kind: file\nPath: sub/c.c\r\n"
       "Revision: 9\r\nNode Kind: file\r\nsvn: warning: W155010: no x.c\n",
       "svn info -R 2>&1", "svn|{B}|[info][-R]", "7", "8", "9"},
      {kScmAccurev, true,
       "./a.c   dev_stream/3 (2/3) (kept)\n{B}/sub/b.c  int/12 (backed)\n.\\sub\\c.c main/2 (2/2)"
       "\n./gone.c dev/1 (missing)\nYou are not in a workspace\n",
       "accurev stat -ff -R \"{B}\" 2>&1", "accurev|{B}|[stat][-ff][-R][{B}]", "dev_stream/3",
       "int/12", "main/2"},
      // The server section's changeset is not taken: its item is closed.
      {kScmMstf, true,
       "Local information:\r\n  Local path : {B}/a.c\r\n  Changeset  : 41\r\n  Type       : file"
       "\r\nServer information:\r\n  Changeset    : 44\r\n  Type         : file\r\n"
       "\tLocal path:\t{B}\\sub\\b.c\n\tChangeset\t:\t7\n\tType: file\n",
       "tf.exe properties \"{B}\" /recursive /noprompt 2>&1",
       "tf.exe|{B}|[properties][{B}][/recursive][/noprompt]", "41", "7", ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.shown);
    const std::string tool = c.args, shown = B(c.shown) + (c.redirect ? " 2>&1" : "");
    const std::string executing = "Executing: " + shown + (c.redirect ? " \n" : "\n");
    fakes_.Output(tool.substr(0, tool.find('|')), B(c.out));
    {
      wltest::FailingStarts fail;
      EXPECT_EQ(List(c.type), executing + "Could not run: " + shown + "\n");
    }
    {
      wltest::ScopedEnv path("PATH", dir_ / "nothing");  // a missing client
      EXPECT_EQ(List(c.type), executing);
    }
    EXPECT_EQ(Versions(), (std::vector<std::string>{"", "", ""}));
    EXPECT_EQ(List(c.type), executing);
    EXPECT_EQ(Versions(), (std::vector<std::string>{c.a, c.b, c.c}));
    EXPECT_EQ(tree_.Keys().size(), 3u);
    EXPECT_EQ(fakes_.Log(), std::vector<std::string>{B(c.args)});
    (void)fakes_.TakeRuns();
    for (const auto& rel : kFiles)
      safe_cpy(&tree_.Find(Key(rel))->version, "");
  }
}

// Without a directory in its pattern the si listing never finds its project.
TEST_F(ListingTest, OtherTypesRunNothing) {
  wltest::WriteFile(b_ + "/project.pj", "");
  for (uint32_t type : {0u, kScmSi, kScmCvsRep, kScmHarvest, kScmVss, kScmPerforce, 1024u})
    EXPECT_EQ(List(type), "") << type;
  EXPECT_TRUE(fakes_.Log().empty());
}

TEST_F(ListingTest, SiSandboxShowsOnlyTheMaskedCredentials) {
  fakes_.Output("si",
                "Path: a.c\nRevision: 1.4\nNode Kind: file\n** noise\nPath: sub/b.c\n"
                "Revision: 1.2.1.1\nNode Kind: file\n");
  const std::string sandbox = b_ + "/project.pj";
  const std::string log =
      "si|" + b_ + "|[viewsandbox][--recurse][--batch][--sandbox][" + sandbox + "]";
  // Credentials that would make the command longer than 4096 are left out.
  const std::string huge(4096, 'u');
  struct Case {
    const char *user, *password, *shown, *args;
  } cases[] = {
      {"bob", "pw$1", " --user \"*******\" --password \"*******\"",
       "[--user][bob][--password][pw$1]"},
      {"bob", nullptr, " --user \"*******\"", "[--user][bob]"},
      {huge.c_str(), nullptr, "", ""},
  };
  for (const auto& c : cases) {
    scm_.user = c.user;
    scm_.password = c.password;
    EXPECT_EQ(Printed([&] { ListSiSandbox(scm_, b_.c_str(), sandbox); }),
              std::string("Executing: ") + c.shown + " 2>&1 \n");
    EXPECT_EQ(fakes_.Log().back(), log + c.args);
  }
  scm_.user = scm_.password = nullptr;
  EXPECT_EQ(Versions(), (std::vector<std::string>{"1.4", "1.2.1.1", ""}));
  wltest::FailingStarts fail;
  EXPECT_EQ(Printed([&] { ListSiSandbox(scm_, b_.c_str(), sandbox); }),
            "Executing:  2>&1 \nCould not run:  2>&1\n");  // no user
}

// Credentials are added while the command stays within the limit (counted
// with the quoted values): at n and n + 1 characters.
TEST(AddUserPassword, LimitAtNAndNPlusOne) {
  const std::string user = " --user \"u\\$\\\"\"", masked = " --user \"*******\"";
  struct Case {
    const char* password;
    size_t limit;
    std::string added, shown;
  } cases[] = {
      {nullptr, 16, user, masked},  // 1 + 6 + 5 + 4
      {nullptr, 15, "", ""},
      {"", 16, user, masked},
      {"p", 31, user + " --password \"p\"", masked + " --password \"*******\""},
      {"p", 30, "", ""},
  };
  for (const auto& c : cases) {
    std::string command = "c", shown;
    EXPECT_EQ(AddUserPassword(command, shown, "u$\"", c.password, "--user", "--password", c.limit),
              c.added.empty() ? 0 : 1);
    EXPECT_EQ(command + "|" + shown, "c" + c.added + "|" + c.shown) << c.limit;
  }
}

// Overlong and endless lines arrive in pieces, a NUL byte ends its piece's
// text, and the tool keeps reading after either.
TEST_F(ListingTest, OverlongEndlessAndNulLines) {
  const std::string name(4000, 'n');
  tree_.Add(b_, name);
  // The first line fits in 4095 bytes; the second is cut after 4095, so its
  // marker lands in a piece that starts in the middle.
  fakes_.Output("cleartool", name + "@@/main/1\n" + std::string(4095, 'x') + "a.c@@/main/2\n");
  List(kScmClearCase);
  EXPECT_EQ(tree_.Version(Key(name)), "/main/1");
  EXPECT_EQ(tree_.Version(Key("a.c")), "/main/2");
  static const char kNul[] =
      "Working file: sub/b.c\nhead: 1.\0005 x\nWorking file: sub/c\0.c\nhead: 2\n";
  fakes_.Output("cvs", std::string(kNul, sizeof kNul - 1));
  List(kScmCvs);
  EXPECT_EQ(tree_.Version(Key("sub/b.c")), "1.");
  EXPECT_EQ(tree_.Version(Key("sub/c.c")), "");
  fakes_.AddRaw(
      "cvs",
      "head -c 5000000 /dev/zero | tr '\\000' x\nprintf '\\nWorking file: a.c\\nhead: 1.3\\n'\n");
  List(kScmCvs);
  EXPECT_EQ(tree_.Version(Key("a.c")), "1.3");
}

// CVSREP: the records come from the log alone, the first for a name wins,
// dated by the newest revision as local time without daylight saving
// (earlier inventories hold these); a missing file keeps a zero digest.
TEST_F(ListingTest, RepositoryLogBuildsTheRecords) {
  wltest::ScmTree records;
  wltest::ScopedEnv tz("TZ", "WLT-3");  // three hours east of UTC; mktime reads it
  wltest::WriteFile(Key("a.c"), "alpha\n");
  fakes_.Output("cvs",
                "Working file: a.c\nhead: 1.2\nrevision 1.2\ndate: 2005/03/01 12:34:56;  author: j;"
                "\nrevision 1.1\ndate: 2004/01/01 00:00:00;\nWorking file: sub\\b.c\nhead: 1.1\n"
                "date: 2026-01-02 03:04:05 +0000;  author: ann;\n"
                "Working file: a.c\nhead: 7.7\ndate: 2010/01/01 00:00:00;\n");
  int result = -1;
  scm_.files = records.tree();
  auto load = [&] { result = LoadRepository(scm_, b_.c_str()); };
  EXPECT_EQ(Printed(load), "");  // only for CVSREP
  scm_.type = kScmCvsRep;
  {
    wltest::FailingStarts fail;
    EXPECT_EQ(Printed(load), "Executing: cvs log 2>&1\nCould not run: cvs log 2>&1 ");
    EXPECT_EQ(result, 1);
  }
  EXPECT_EQ(Printed(load), "Executing: cvs log 2>&1\n");
  EXPECT_EQ(result, 0);
  EXPECT_EQ(records.Keys(), (std::vector<std::string>{Key("a.c"), Key("sub/b.c")}));
  const FileNode* a = records.Find(Key("a.c"));
  const FileNode* b = records.Find(Key("sub/b.c"));
  unsigned char d[16] = {};
  char digest[33] = {};
  md_filename(Key("a.c").c_str(), d);
  EXPECT_EQ(std::vector<std::string>({a->dir, a->name, a->version, a->digest, b->name, b->digest}),
            std::vector<std::string>(
                {b_, "a.c", "1.2", print_digest(d, digest), "sub/b.c", std::string(32, '0')}));
  // The dashed date reads as year 2026, month 3, day 4, hour 5.
  EXPECT_EQ(std::vector<int64_t>({a->mtime, a->size, b->mtime}),
            std::vector<int64_t>({1109680496 - 3 * 3600, 0, 1772600400 - 3 * 3600}));
}

}  // namespace
