// Two inspections of a changing build tree through the real binary: the
// second run finds the first run's inventory and reports exactly what was
// deleted, added and changed in between.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "testlib/inventory_fixtures.h"
#include "testlib/scm_fixtures.h"
#include "testlib/testlib.h"

namespace {

using wltest::kAbcDigest;
using wltest::kEmptyDigest;
using wltest::WriteFile;

TEST(InventoryRuns, SecondRunReportsExactlyWhatChanged) {
  wltest::TempDir dir;
  const std::string build = dir / "build", start = dir / "start", home = dir / "home";
  wltest::MakeDirs(start);
  wltest::MakeDirs(home);
  auto run = [&] {
    auto r = wltest::RunTool(
        {"-b", build, "-lj", "job.bom.data", "-lm", "m1", "-ld", "2026-01-02 03:04:05"},
        wltest::ToolEnv(home, "http://127.0.0.1:1"), start);  // uploads fail at once
    EXPECT_EQ(r.status, 0) << r.out;
    return r.out;
  };
  const std::string stem = "job.bom.data-m1-2026-01-02 03_04_05-";
  auto output = [&](const std::string& counter_kind) {
    return wltest::ReadFile(start + "/" + stem + counter_kind).value_or("(missing)");
  };
  auto fields = [&](const std::string& name, const std::string& digest) {  // one record line
    struct stat st {};
    EXPECT_EQ(lstat((build + "/" + name).c_str(), &st), 0) << name;
    return build + ";" + name + ";" + std::to_string(st.st_size) + ";" +
           std::to_string(st.st_mtime) + "; " + digest + "; ;\n";
  };
  const std::string pipe = build + ";pipe;0;0; ; ;\n";  // cannot be read: no digest, zeros
  const std::string header = "SCMType=NONE\nMachineName=m1\nBuildLabel=\nBuildNumber=\n";
  const std::string inventory_header =
      "SCMType=NONE\nModuleRootDir=" + build + "\nMachineName=m1\nBuildLabel=\nBuildNumber=\n";
  for (const char* f :
       {"keep.c", "change.c", "sub/delete.c", ".hidden/x.c", "CVS/Entries", "a=b.c"})
    WriteFile(build + "/" + f, "abc");
  WriteFile(build + "/sub/keep.h", "");
  ASSERT_EQ(mkfifo((build + "/pipe").c_str(), 0600), 0);

  EXPECT_NE(run().find("\nOldFileName=\n"), std::string::npos);
  std::string first_lines, first_report = header;
  for (const std::string& line :
       {fields("a=b.c", kAbcDigest), fields("change.c", kAbcDigest), fields("keep.c", kAbcDigest),
        pipe, fields("sub/delete.c", kAbcDigest), fields("sub/keep.h", kEmptyDigest)}) {
    first_lines += line;
    first_report += "A;" + line;
  }
  EXPECT_EQ(output("01-diff.data"), first_report);
  EXPECT_EQ(output("01-bom.data"), inventory_header + first_lines);

  const std::string deleted = fields("sub/delete.c", kAbcDigest);
  ASSERT_EQ(unlink((build + "/sub/delete.c").c_str()), 0);
  WriteFile(build + "/change.c", "");
  WriteFile(build + "/sub/new.c", "");
  const utimbuf times = {1000000000, 1000000000};
  ASSERT_EQ(utime((build + "/keep.c").c_str(), &times), 0);  // a new time alone is no change
  // The report also holds ".bom.data" and sorts above the inventory; listed
  // first, it would hide it. Removing it makes the run independent of the
  // listing order.
  ASSERT_EQ(unlink((start + "/" + stem + "01-diff.data").c_str()), 0);

  std::string second = run();
  EXPECT_NE(second.find("\nOldFileName=" + stem + "01-bom.data\n"), std::string::npos) << second;
  // The FIFO compares equal by its empty version.
  const std::string change = fields("change.c", kEmptyDigest);
  EXPECT_EQ(output("01-diff.data"),
            header + "D;" + deleted + "C;" + change + "A;" + fields("sub/new.c", kEmptyDigest));
  EXPECT_EQ(output("02-bom.data"),
            inventory_header + fields("a=b.c", kAbcDigest) + change + fields("keep.c", kAbcDigest) +
                pipe + fields("sub/keep.h", kEmptyDigest) + fields("sub/new.c", kEmptyDigest));
  EXPECT_EQ(output("01-bom.data"), inventory_header + first_lines);
}

// Names a shell, the record format or a client would trip over.
const std::vector<std::string> kHostileNames = {
    "with blank",  "dq\"uote",     "sq'uote",   "$(touch X)", "`touch Y`", "semi;colon",
    "a;b;1;2;x;y", "pipe|x",        "amp&x",     "eq=x",       "x=1;2;3;4", "colon:x",
    "paren(x)",    "back\\slash", "line\nfeed", " leading", "trailing ", "-rf",
    "--help",      "cr\rx",        "pct%s%n",   "tab\tx",    "lt<gt>"};

// Fields of the inventory that hold awkward bytes of kHostileNames: each
// awkward byte is escaped, the other names keep their bytes.
const std::vector<std::string> kEscapedFields = {
    ";semi\\x3bcolon;", ";line\\x0afeed;", ";\\x20leading;", ";trailing\\x20;",
    ";eq=x;",           ";-rf;",            ";cr\\x0dx;"};

// Two runs over an unchanged tree of hostile names: the second reports
// nothing, and the first run's inventory is what it compared with.
void ExpectSecondRunEmpty(const std::string& build, const std::string& start,
                          const std::string& home, const std::vector<std::string>& scm,
                          const std::string& path, const std::string& versioned = "",
                          const std::vector<std::string>& fields = kEscapedFields) {
  std::vector<std::string> args = {"-b", build, "-lj", "job.bom.data", "-lm", "m1",
                                   "-ld", "2026-01-02 03:04:05"};
  args.insert(args.end(), scm.begin(), scm.end());
  const auto env = wltest::ToolEnv(home, "http://127.0.0.1:1", path);
  const std::string stem = start + "/job.bom.data-m1-2026-01-02 03_04_05-";
  auto first = wltest::RunTool(args, env, start);
  ASSERT_EQ(first.status, 0) << first.out;
  const std::string inventory = wltest::ReadFile(stem + "01-bom.data").value_or("");
  for (const std::string& field : fields)
    EXPECT_NE(inventory.find(field), std::string::npos) << field << "\n" << inventory;
  EXPECT_NE(inventory.find(versioned), std::string::npos) << inventory;
  ASSERT_EQ(unlink((stem + "01-diff.data").c_str()), 0);  // see above: it could hide the inventory

  auto second = wltest::RunTool(args, env, start);
  ASSERT_EQ(second.status, 0) << second.out;
  EXPECT_NE(second.out.find("\nOldFileName=job.bom.data-m1-2026-01-02 03_04_05-01-bom.data\n"),
            std::string::npos)
      << second.out;
  std::string report = wltest::ReadFile(stem + "01-diff.data").value_or("(missing)");
  EXPECT_EQ(report.substr(report.find("MachineName=")),
            "MachineName=m1\nBuildLabel=\nBuildNumber=\n");
  EXPECT_EQ(wltest::ReadFile(stem + "02-bom.data"), inventory);
}

// What a client prints about one file of the tree (rel: relative to the
// build directory), as the tool's listing or query shows it.
using ClientEntry = std::string (*)(const std::string& build, const std::string& rel);

// Every keyword over the same unchanged hostile tree, its client a fake on
// PATH that prints its recorded answer: an entry for every name (names with
// a line feed printed as they are, as a client does), or for VSS, asked
// once per file, the one entry. No keyword makes a name churn.
TEST(InventoryRuns, UnchangedHostileTreeReportsNothingTheSecondTimeForEveryKeyword) {
  struct Row {
    const char* keyword;  // "": no SCM
    const char* client;
    ClientEntry entry;
    std::string versioned;  // in the inventory once the client's versions landed
    bool per_file = false;
  };
  const Row rows[] = {
      {"", "", nullptr, ""},
      {"CVS", "cvs",
       [](const std::string&, const std::string& rel) {
         return "Working File: " + rel + "\nhead: 1.3\n";
       },
       "; 1.3;\n"},
      {"CVSREP", "cvs",
       [](const std::string&, const std::string& rel) {
         return "Working File: " + rel +
                "\nhead: 1.2\ndate: 2026/01/02 03:04:05;  author: u;  state: Exp;\n";
       },
       "; 1.2;\n"},
      {"CLEARCASE", "cleartool",
       [](const std::string&, const std::string& rel) {
         return "./" + rel + "@@/main/3                Rule: /main/LATEST\n";
       },
       "; /main/3                Rule: /main/LATEST;\n"},
      {"HARVEST", "hsigget",
       [](const std::string&, const std::string& rel) {
         return rel + "\t4\t01-02-2026;03:04:05\t3\n";
       },
       "; 4;\n"},
      {"SVN", "svn",
       [](const std::string&, const std::string& rel) {
         return "Path: " + rel + "\nRevision: 7\nNode Kind: file\n";
       },
       "; 7;\n"},
      {"VSS", "ss",
       [](const std::string&, const std::string&) {
         return std::string("Size: 3 bytes\nLatest:\nVersion: 4\n");
       },
       "; 4;\n", true},
      {"PERFORCE", "p4",
       [](const std::string&, const std::string& rel) {
         return "//depot/" + rel + "\n... #3 change 12 edit on 2026/01/02 by u@c (text) 'x'\n";
       },
       "; 3;\n"},
      {"SI", "si", nullptr, ""},  // lists only beside a project file; none here
      {"ACCUREV", "accurev",
       [](const std::string&, const std::string& rel) { return "./" + rel + " 5/3 (backed)\n"; },
       "; 5/3;\n"},
      {"MSTF", "tf.exe",
       [](const std::string& build, const std::string& rel) {
         return "Local path : " + build + "/" + rel + "\nChangeset : 12\nType : file\n";
       },
       "; 12;\n"},
      {"TEAMPRISE", "tf.exe",
       [](const std::string& build, const std::string& rel) {
         return "Local path : " + build + "/" + rel + "\nChangeset : 12\nType : file\n";
       },
       "; 12;\n"},
  };
  wltest::TempDir tree;
  const std::string build = wltest::RealDir(tree.path()) + "/build";
  std::vector<std::string> rels;
  for (const std::string& name : kHostileNames) {
    rels.push_back(name);
    rels.push_back("sub " + name + "/f");
  }
  for (const std::string& rel : rels)
    WriteFile(build + "/" + rel, rel);
  for (const Row& row : rows) {
    SCOPED_TRACE(row.keyword);
    wltest::TempDir dir;
    wltest::MakeDirs(dir / "start");
    wltest::MakeDirs(dir / "home");
    wltest::FakeClients fakes(dir);
    std::string answer;
    for (size_t i = 0; row.entry && i < (row.per_file ? 1 : rels.size()); ++i)
      answer += row.entry(build, rels[i]);
    if (*row.client) {
      fakes.Add(row.client);
      fakes.Output(row.client, answer);
    }
    std::vector<std::string> scm, fields = kEscapedFields;
    if (*row.keyword)
      scm = {"-c", row.keyword};
    // The repository log is the whole inventory, read a line at a time with
    // trailing blanks trimmed: those names come back cut, the same each run.
    if (row.keyword == std::string("CVSREP"))
      fields = {";semi\\x3bcolon;", ";\\x20leading;", ";eq=x;", ";-rf;", ";cr\\x0dx;"};
    ExpectSecondRunEmpty(build, dir / "start", dir / "home", scm, std::getenv("PATH"),
                         row.versioned, fields);
    EXPECT_EQ(fakes.Log().empty(), row.entry == nullptr);  // the client answered
  }
}

TEST(InventoryRuns, UnchangedHostileSvnWorkspaceReportsNothingTheSecondTime) {
  wltest::TempDir dir;
  const std::string repo = dir / "repo", wc = dir / "wc", start = dir / "start",
                    home = dir / "home";
  wltest::MakeDirs(start);
  wltest::MakeDirs(home);
  const auto env = wltest::ToolEnv(home, std::nullopt, "/usr/bin:/bin");
  auto svn = [&](std::vector<std::string> argv, const std::string& cwd) {
    return wltest::RunProgram(argv, env, cwd).status;
  };
  ASSERT_EQ(svn({"/usr/bin/svnadmin", "create", repo}, dir.path()), 0);
  ASSERT_EQ(svn({"/usr/bin/svn", "checkout", "-q", "file://" + repo, wc}, dir.path()), 0);
  for (const std::string& name : kHostileNames) {
    WriteFile(wc + "/" + name, name);
    // svn refuses some of these names (control characters); those stay
    // unversioned and are inventoried all the same.
    svn({"/usr/bin/svn", "add", "-q", "--", name + "@"}, wc);
  }
  ASSERT_EQ(svn({"/usr/bin/svn", "commit", "-q", "-m", "hostile"}, wc), 0);
  ExpectSecondRunEmpty(wc, start, home, {"-c", "SVN"}, "/usr/bin:/bin",
                       "; 8f9f7620000000000000000000000000; 1;\n");
}

}  // namespace
