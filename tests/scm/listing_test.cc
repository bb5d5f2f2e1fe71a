#include "scm/listing.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "inventory/digest.h"
#include "scm/perfile.h"
#include "scm/scmtool.h"
#include "support/strings.h"
#include "testlib/scm_fixtures.h"

namespace {

using wltest::Printed;
using Texts = std::vector<std::string>;

const Texts kFiles = {"a.c", "sub/b.c", "sub/c.c"};

// The build directory holds kFiles, each with a record; local times are
// read three hours east of UTC.
class ListingTest : public wltest::ScmTest {
 protected:
  ListingTest() {
    for (const auto& rel : kFiles) {
      wltest::WriteFile(Key(rel), "");
      tree_.Add(b_, rel);
    }
  }
  // The versions of the records as a run gathers them: one workspace
  // listing, then the per-file query over the tree (directories asked are
  // forgotten after each call).
  std::string Gather(uint32_t type) {
    wltest::ScmTree asked;
    scm_.type = type;
    scm_.dirs = asked.dirs();
    const std::string printed = Printed([&] {
      FindVersionInfo(scm_, b_.c_str());
      WalkBintree(scm_.files, LoadVersionInfo, &scm_);
    });
    scm_.dirs = tree_.dirs();
    return printed;
  }
  Texts Versions() const { return tree_.Versions(b_, kFiles); }
  std::string B(const std::string& text) const {
    std::string win = b_;
    ReplaceSlash2(win, '\\');
    return wltest::Fill(text, {{"{B}", b_}, {"{W}", win}});
  }
  wltest::ScopedEnv tz_{"TZ", "WLT-3"};
};

// {B} in the table stands for the build directory, {W} for it with
// backslashes. Each row: the client's output, what is printed (also when
// the client cannot start: for a listing, "" is its one line and "Could not
// run:" with the command), the runs, the versions, a.c's time and size.
TEST_F(ListingTest, EveryToolsCommandsProgressAndVersions) {
  struct Case {
    uint32_t type;
    std::string out, printed, failed;
    Texts runs, versions;
    int64_t mtime, size;
  } cases[] = {
      {kScmCvs,
       "Working file: a.c\nhead: 1.2\nbranch:\n=======\nhead: 9.9\nWorking file: sub/b.c  \r\n"
       "head: 1.1.1.1\t \r\nWORKING FILE: sub\\c.c\nHEAD: 2.3\nWorking file: gone.c\nhead: 1.7\n",
       "Executing: cvs log -h 2>&1\n", "", {"cvs|{B}|[log][-h]"},
       {"1.2", "1.1.1.1", "2.3"}, 0, 0},
      {kScmClearCase,
       "./sub@@/main/4  Rule: /main/LATEST\n./a.c@@/main/3  Rule: /main/LATEST \nsub/b.c@@/main/"
       "br1/2\r\n.\\sub\\c.c@@/main/7 [hijacked]\nprivate.txt\n",
       "Executing: cleartool ls -recurse 2>&1\n", "", {"cleartool|{B}|[ls][-recurse]"},
       {"/main/3  Rule: /main/LATEST", "/main/br1/2", "/main/7 [hijacked]"}, 0, 0},
      // An entry without a revision line takes the last one seen.
      {kScmSvn,
       "Path: .\nRevision: 7\nNode Kind: directory\nPath: a.c\nRevision: 7\nNode Kind: file\nPath:"
       " sub\nRevision: 8\nNode Kind: directory\nPath: sub/b.c\nNode Kind: file\nPath: sub/c.c\r\n"
       "Revision: 9\r\nNode Kind: file\r\nsvn: warning: W155010: no x.c\n",
       "Executing: svn info -R 2>&1\n", "", {"svn|{B}|[info][-R]"}, {"7", "8", "9"}, 0, 0},
      {kScmAccurev,
       "./a.c   dev_stream/3 (2/3) (kept)\n{B}/sub/b.c  int/12 (backed)\n.\\sub\\c.c main/2 (2/2)"
       "\n./gone.c dev/1 (missing)\nYou are not in a workspace\n",
       "Executing: accurev stat -ff -R \"{B}\" 2>&1 2>&1 \n", "",
       {"accurev|{B}|[stat][-ff][-R][{B}]"}, {"dev_stream/3", "int/12", "main/2"}, 0, 0},
      // The server section's changeset is not taken: its item is closed.
      {kScmMstf,
       "Local information:\r\n  Local path : {B}/a.c\r\n  Changeset  : 41\r\n  Type       : file"
       "\r\nServer information:\r\n  Changeset    : 44\r\n  Type         : file\r\n"
       "\tLocal path:\t{B}\\sub\\b.c\n\tChangeset\t:\t7\n\tType: file\n",
       "Executing: tf.exe properties \"{B}\" /recursive /noprompt 2>&1 2>&1 \n", "",
       {"tf.exe|{B}|[properties][{B}][/recursive][/noprompt]"}, {"41", "7", ""}, 0, 0},
      // Once per file; the first version after "Latest:" counts.
      {kScmVss,
       "File:  $/Proj/a.c\nSize:  1234 bytes       56 lines\r\n  Version:  3\nLatest:\n  Version:"
       "   7  \r\n  Date:     1/02/26   3:04a\n  Version:  99\n",
       "Executing: ss Properties \"{W}\\a.c\" 2>&1\nExecuting: ss Properties \"{W}\\sub\\b.c\" "
       "2>&1\nExecuting: ss Properties \"{W}\\sub\\c.c\" 2>&1\n",
       "Executing: ss Properties \"{W}\\a.c\" 2>&1\nCould not run: ss Properties \"{W}\\a.c\" "
       "2>&1 Executing: ss Properties \"{W}\\sub\\b.c\" 2>&1\nCould not run: ss Properties \"{W}"
       "\\sub\\b.c\" 2>&1 Executing: ss Properties \"{W}\\sub\\c.c\" 2>&1\nCould not run: ss "
       "Properties \"{W}\\sub\\c.c\" 2>&1 ",
       {"ss|{B}|[Properties][{W}\\a.c]", "ss|{B}|[Properties][{W}\\sub\\b.c]",
        "ss|{B}|[Properties][{W}\\sub\\c.c]"},
       {"7", "7", "7"}, 0, 1234},
      // Once per directory, run there; the key is the depot path below
      // "//depot/" under the build directory; the newest revision counts.
      {kScmPerforce,
       "//depot/a.c\n... #5 change 900 edit on 2026/01/02 by joe@ws (text)\n\n\tfix\n//depot/sub/"
       "b.c\r\n... #3 change 1234 edit on 2026/01/02 by j@ws (text)\r\n... #2 change 1200 edit on "
       "2026/01/01 by j@ws (text)\n//depot/sub/c.c\n... #8 change 77 edit by x@ws (text) is not "
       "under client's root\n",
       "Executing: p4 filelog -t -L \"*\" 2>&1 in dir {B}/\nExecuting: p4 filelog -t -L \"*\" "
       "2>&1 in dir {B}/sub/\n",
       "Executing: p4 filelog -t -L \"*\" 2>&1 in dir {B}/\nCould not run: p4 filelog -t -L \"*\" "
       "2>&1 Executing: p4 filelog -t -L \"*\" 2>&1 in dir {B}/sub/\nCould not run: p4 filelog -t "
       "-L \"*\" 2>&1 Executing: p4 filelog -t -L \"*\" 2>&1 in dir {B}/sub/\nCould not run: p4 "
       "filelog -t -L \"*\" 2>&1 ",
       {"p4|{B}|[filelog][-t][-L][*]", "p4|{B}/sub|[filelog][-t][-L][*]"}, {"5", "3", ""}, 0, 0},
      // Once per directory: tab-separated name, version, "MM-DD-YYYY;hh:mm:ss"
      // local time and size up to the completion line.
      {kScmHarvest,
       "a.c\t3\t12-31-2004;23:59:59\t1234\nWarning: Information for file sub\\c.c\tx\ty\t5\nsub\\c."
       "c.orig\t2\t01-01-2001;00:00:00\t5\nsub\\b.c\t4\t01-01-2001;00:00:00\t77   \r\nHarvest "
       "(hsigget) command completed successfully.\nsub\\c.c\t9\t1-1-2001\t5\n",
       "Executing: hsigget -t -a version modtime size 2>&1 in dir {B}/\nExecuting: hsigget -t -a "
       "version modtime size 2>&1 in dir {B}/sub/\n",
       "Executing: hsigget -t -a version modtime size 2>&1 in dir {B}/\nCould not run: hsigget -t "
       "-a version modtime size 2>&1 Executing: hsigget -t -a version modtime size 2>&1 in dir {B}/"
       "sub/\nCould not run: hsigget -t -a version modtime size 2>&1 Executing: hsigget -t -a "
       "version modtime size 2>&1 in dir {B}/sub/\nCould not run: hsigget -t -a version modtime "
       "size 2>&1 ",
       {"hsigget|{B}|[-t][-a][version][modtime][size]",
        "hsigget|{B}/sub|[-t][-a][version][modtime][size]"},
       {"3", "4", ""}, 1104537599 - 3 * 3600, 1234},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.printed);
    fakes_.Output(c.runs[0].substr(0, c.runs[0].find('|')), B(c.out));
    {
      const std::string shown = c.printed.substr(11, c.printed.find_last_not_of(" \n") - 10);
      wltest::FailingStarts fail;
      EXPECT_EQ(Gather(c.type), B(c.failed.empty() ? c.printed + "Could not run: " + shown + "\n"
                                                    : c.failed));
    }
    {
      wltest::ScopedEnv path("PATH", dir_ / "nothing");  // a missing client
      EXPECT_EQ(Gather(c.type), B(c.printed));
    }
    EXPECT_EQ(Versions(), (Texts{"", "", ""}));
    EXPECT_EQ(Gather(c.type), B(c.printed));
    EXPECT_EQ(Versions(), c.versions);
    EXPECT_EQ(tree_.Keys().size(), 3u);
    Texts runs;
    for (const auto& run : c.runs)
      runs.push_back(B(run));
    EXPECT_EQ(fakes_.Log(), runs);  // and forgets them
    const FileNode* a = tree_.Find(Key("a.c"));
    EXPECT_EQ(std::vector<int64_t>({a->mtime, a->size}), std::vector<int64_t>({c.mtime, c.size}));
    for (const auto& rel : kFiles) {
      FileNode* node = tree_.Find(Key(rel));
      safe_cpy(&node->version, "");
      node->mtime = node->size = 0;
    }
  }
}

// Other types run nothing; without a directory in its pattern the si
// listing never finds its project. A record with a version is not asked about.
TEST_F(ListingTest, OtherTypesAndKnownVersionsRunNothing) {
  wltest::WriteFile(b_ + "/project.pj", "");
  for (uint32_t type : {0u, kScmSi, kScmCvsRep, 1024u})
    EXPECT_EQ(Gather(type), "") << type;
  for (const auto& rel : kFiles)
    safe_cpy(&tree_.Find(Key(rel))->version, "1");
  for (uint32_t type : {kScmVss, kScmPerforce, kScmHarvest})
    EXPECT_EQ(Gather(type), "") << type;
  EXPECT_TRUE(fakes_.Log().empty());
  // A failed start returns -1 (VSS), 0 (Perforce) or 1 (Harvest).
  wltest::FailingStarts fail;
  safe_cpy(&tree_.Find(Key("a.c"))->version, "");
  for (auto [type, result] : {std::pair{kScmVss, -1}, {kScmPerforce, 0}, {kScmHarvest, 1}}) {
    scm_.type = type;
    (void)Printed([&] { EXPECT_EQ(LoadVersionInfo(tree_.Find(Key("a.c")), 0, &scm_), result); });
  }
}

// The si listing reads svn-shaped entries. Credentials that would make
// the command longer than 4096 are left out (the masking is checked with
// the hostile names).
TEST_F(ListingTest, SiSandbox) {
  fakes_.Output("si",
                "Path: a.c\nRevision: 1.4\nNode Kind: file\n** noise\nPath: sub/b.c\n"
                "Revision: 1.2.1.1\nNode Kind: file\n");
  const std::string sandbox = b_ + "/project.pj", huge(4096, 'u');
  auto list = [&] { ListSiSandbox(scm_, b_.c_str(), sandbox); };
  scm_.user = huge.c_str();
  EXPECT_EQ(Printed(list), "Executing:  2>&1 \n");
  scm_.user = nullptr;
  EXPECT_EQ(fakes_.Log(),
            Texts{"si|" + b_ + "|[viewsandbox][--recurse][--batch][--sandbox][" + sandbox + "]"});
  EXPECT_EQ(Versions(), (Texts{"1.4", "1.2.1.1", ""}));
  wltest::FailingStarts fail;
  EXPECT_EQ(Printed(list), "Executing:  2>&1 \nCould not run:  2>&1\n");
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
  Gather(kScmClearCase);
  EXPECT_EQ(tree_.Versions(b_, {name, "a.c"}), (Texts{"/main/1", "/main/2"}));
  static const char kNul[] =
      "Working file: sub/b.c\nhead: 1.\0005 x\nWorking file: sub/c\0.c\nhead: 2\n";
  fakes_.Output("cvs", std::string(kNul, sizeof kNul - 1));
  fakes_.AddRaw("svn", "head -c 5000000 /dev/zero | tr '\\000' x\n"
                       "printf '\\nPath: a.c\\nRevision: 3\\nNode Kind: file\\n'\n");
  Gather(kScmCvs);
  Gather(kScmSvn);
  EXPECT_EQ(Versions(), (Texts{"3", "1.", ""}));
}

// CVSREP: the records come from the log alone, the first for a name wins,
// dated by the newest revision as local time without daylight saving
// (earlier inventories hold these); a missing file keeps a zero digest.
TEST_F(ListingTest, RepositoryLogBuildsTheRecords) {
  wltest::ScmTree records;
  wltest::WriteFile(Key("a.c"), "alpha\n");
  fakes_.Output("cvs",
                "Working file: a.c\nhead: 1.2\nrevision 1.2\ndate: 2005/03/01 12:34:56;  author: j;"
                "\nrevision 1.1\ndate: 2004/01/01 00:00:00;\nWorking file: sub\\d.c\nhead: 1.1\n"
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
  EXPECT_EQ(records.Keys(), (Texts{Key("a.c"), Key("sub/d.c")}));
  const FileNode* a = records.Find(Key("a.c"));
  const FileNode* d = records.Find(Key("sub/d.c"));
  unsigned char sum[16] = {};
  char digest[33] = {};
  md_filename(Key("a.c").c_str(), sum);
  EXPECT_EQ(Texts({a->dir, a->name, a->version, a->digest, d->name, d->digest}),
            Texts({b_, "a.c", "1.2", print_digest(sum, digest), "sub/d.c", std::string(32, '0')}));
  // The dashed date reads as year 2026, month 3, day 4, hour 5.
  EXPECT_EQ(std::vector<int64_t>({a->mtime, a->size, d->mtime}),
            std::vector<int64_t>({1109680496 - 3 * 3600, 0, 1772600400 - 3 * 3600}));
}

}  // namespace
