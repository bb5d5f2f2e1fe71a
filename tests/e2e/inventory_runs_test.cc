// Two inspections of a build tree through the real binary: the second run
// finds the first run's inventory and reports exactly what was deleted,
// added and changed in between, and nothing when nothing was, whatever the
// names in the tree and whichever client gives the versions.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include <string>
#include <vector>

#include "e2e/e2e.h"
#include "testlib/inventory_fixtures.h"
#include "testlib/testlib.h"

namespace {

using e2e::ExpectSecondRunEmpty;
using e2e::Has;
using e2e::kEscapedFields;
using e2e::kHostileNames;
using e2e::kStem;
using wltest::kAbcDigest;
using wltest::kEmptyDigest;
using wltest::WriteFile;

TEST(InventoryRuns, SecondRunReportsExactlyWhatChanged) {
  e2e::World w;
  const std::string& build = w.build;
  auto run = [&] {
    auto r = w.Run(w.Job());  // the uploads fail at once
    EXPECT_EQ(r.status, 0) << r.out;
    return r.out;
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
  for (const char* f : {"keep.c", "change.c", "sub/delete.c", ".hidden/x.c", "CVS/Entries", "a=b.c"})
    WriteFile(build + "/" + f, "abc");
  WriteFile(build + "/sub/keep.h", "");
  ASSERT_EQ(mkfifo((build + "/pipe").c_str(), 0600), 0);

  EXPECT_TRUE(Has(run(), "\nOldFileName=\n"));
  std::string first_lines, first_report = header;
  for (const std::string& line :
       {fields("a=b.c", kAbcDigest), fields("change.c", kAbcDigest), fields("keep.c", kAbcDigest),
        pipe, fields("sub/delete.c", kAbcDigest), fields("sub/keep.h", kEmptyDigest)}) {
    first_lines += line;
    first_report += "A;" + line;
  }
  EXPECT_EQ(w.Out(kStem + "01-diff.data"), first_report);
  EXPECT_EQ(w.Out(kStem + "01-bom.data"), inventory_header + first_lines);

  const std::string deleted = fields("sub/delete.c", kAbcDigest);
  ASSERT_EQ(unlink((build + "/sub/delete.c").c_str()), 0);
  WriteFile(build + "/change.c", "");
  WriteFile(build + "/sub/new.c", "");
  const utimbuf times = {1000000000, 1000000000};
  ASSERT_EQ(utime((build + "/keep.c").c_str(), &times), 0);  // a new time alone is no change
  // See ExpectSecondRunEmpty on why the report goes.
  ASSERT_EQ(unlink((w.start + "/" + kStem + "01-diff.data").c_str()), 0);

  std::string second = run();
  EXPECT_TRUE(Has(second, "\nOldFileName=" + kStem + "01-bom.data\n")) << second;
  // The FIFO compares equal by its empty version.
  const std::string change = fields("change.c", kEmptyDigest);
  EXPECT_EQ(w.Out(kStem + "01-diff.data"),
            header + "D;" + deleted + "C;" + change + "A;" + fields("sub/new.c", kEmptyDigest));
  EXPECT_EQ(w.Out(kStem + "02-bom.data"),
            inventory_header + fields("a=b.c", kAbcDigest) + change + fields("keep.c", kAbcDigest) +
                pipe + fields("sub/keep.h", kEmptyDigest) + fields("sub/new.c", kEmptyDigest));
  EXPECT_EQ(w.Out(kStem + "01-bom.data"), inventory_header + first_lines);
}

// Every keyword over the same unchanged hostile tree, its client a fake on
// PATH that prints `answer` for every name ({R}: the name relative to the
// build directory, printed as it is even with a line feed, as a client
// does; {B}: the build directory), or, for VSS, asked once per file, once.
// No keyword makes a name churn.
TEST(InventoryRuns, UnchangedHostileTreeReportsNothingTheSecondTimeForEveryKeyword) {
  struct Row {
    const char *keyword, *client, *answer, *versioned;
    bool per_file = false;
  };
  // clang-format off
  const Row rows[] = {
      {"", "", "", ""},
      {"CVS", "cvs", "Working File: {R}\nhead: 1.3\n", "; 1.3;\n"},
      {"CVSREP", "cvs",
       "Working File: {R}\nhead: 1.2\ndate: 2026/01/02 03:04:05;  author: u;  state: Exp;\n", "; 1.2;\n"},
      {"CLEARCASE", "cleartool", "./{R}@@/main/3                Rule: \\main\\LATEST\n",
       "; /main/3                Rule: \\x5cmain\\x5cLATEST;\n"},
      {"HARVEST", "hsigget", "{R}\t4\t01-02-2026;03:04:05\t3\n", "; 4;\n"},
      {"SVN", "svn", "Path: {R}\nRevision: 7\nNode Kind: file\n", "; 7;\n"},
      {"VSS", "ss", "Size: 3 bytes\nLatest:\nVersion: 4\n", "; 4;\n", true},
      {"PERFORCE", "p4", "//depot/{R}\n... #3 change 12 edit on 2026/01/02 by u@c (text) 'x'\n", "; 3;\n"},
      {"SI", "si", "", ""},  // lists only beside a project file; none here
      {"ACCUREV", "accurev", "./{R} 5/3 (backed)\n", "; 5/3;\n"},
      {"MSTF", "tf.exe", "Local path : {B}/{R}\nChangeset : 12\nType : file\n", "; 12;\n"},
      {"TEAMPRISE", "tf.exe", "Local path : {B}/{R}\nChangeset : 12\nType : file\n", "; 12;\n"},
  };
  // clang-format on
  e2e::World tree;
  std::vector<std::string> rels;
  for (const std::string& name : kHostileNames) {
    rels.push_back(name);
    rels.push_back("sub " + name + "/f");
  }
  for (const std::string& rel : rels)
    WriteFile(tree.build + "/" + rel, rel);
  for (const Row& row : rows) {
    SCOPED_TRACE(row.keyword);
    e2e::World w;
    w.build = tree.build;
    std::string answer;
    for (size_t i = 0; *row.answer && i < (row.per_file ? 1 : rels.size()); ++i) {
      std::string entry = row.answer;
      for (const auto& [mark, text] : {std::pair{"{B}", w.build}, std::pair{"{R}", rels[i]}})
        if (size_t at = entry.find(mark); at != std::string::npos)
          entry.replace(at, 3, text);
      answer += entry;
    }
    WriteFile(w.root + "/answer", answer);
    if (*row.client)
      wltest::WriteScript(w.bin, row.client, "echo >> '" + w.root + "/calls'\ncat '" + w.root + "/answer'\n");
    // The repository log is the whole inventory, read a line at a time with
    // trailing blanks trimmed: those names come back cut, the same each run.
    std::vector<std::string> fields = kEscapedFields;
    if (row.keyword == std::string("CVSREP"))
      fields = {";semi\\x3bcolon;", ";\\x20leading;", ";eq=x;", ";-rf;", ";cr\\x0dx;"};
    ExpectSecondRunEmpty(w, *row.keyword ? std::vector<std::string>{"-c", row.keyword}
                                         : std::vector<std::string>{},
                         row.versioned, fields);
    EXPECT_EQ(wltest::ReadFile(w.root + "/calls").has_value(), *row.answer != '\0');  // it answered
  }
}

}  // namespace
