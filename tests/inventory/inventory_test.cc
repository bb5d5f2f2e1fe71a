#include "inventory/inventory.h"

#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "testlib/inventory_fixtures.h"
#include "testlib/testlib.h"

namespace {

using wltest::ScopedFileTree;
using wltest::TempDir;
using wltest::WriteFile;

// Loads content as an inventory; returns the records as ScopedFileTree::Text.
std::string Load(const std::string& content) {
  TempDir dir;
  WriteFile(dir / "inv.bom.data", content);
  ScopedFileTree tree;
  wltest::CaptureStdout capture;
  LoadFileTree(tree.get(), (dir / "inv.bom.data").c_str());
  return tree.Text();
}

// Each row: inventory text, and the records it gives.
TEST(LoadFileTree, EveryKindOfLine) {
  const std::string n5000(5000, 'n'), n3(kMaxRecordLine - 3, 'n'), n2(kMaxRecordLine - 2, 'n');
  // clang-format off
  const std::pair<std::string, std::string> cases[] = {
      {"SCMType=NONE\nModuleRootDir=/w\nMachineName=M\nBuildLabel=\nBuildNumber=\n", ""},
      {"BuildLabel=r;a;1;2; d; v;\nx=y\nx=y;a;1;b; d;\n", ""},  // a tag, or "=" without numbers
      {"r;a=b.c;1;2; d; v;\n", "r/a=b.c|r|a=b.c|1|2|d|v\n"},  // "=" in a record
      {"r;a.c;10;20; ; ;\n", "r/a.c|r|a.c|10|20||\n"},
      {"    \n\n", "|||0|0||\n"},  // a blank line: a record with an empty key
      {"r;a.c;1;2; d; v;  \r\n", "r/a.c|r|a.c|1|2|d|v\n"},
      {"r;;a.c;;;5;6;d;v;x;y\n", "r/a.c|r|a.c|5|6|d|v\n"},  // runs of ";", extra words
      {"r;a.c\n", "r/a.c|r|a.c|0|0||\n"},
      {"r\n", "|r||0|0||\n"},
      {"r;a.c;12abc;x9; d;\n", "r/a.c|r|a.c|12|0|d|\n"},
      {"r;a.c;-5;-6; d;\n", "r/a.c|r|a.c|-5|-6|d|\n"},
      {"r\\x;s\\a.c;1;2; d; ;\n", "r/x/s/a.c|r\\x|s\\a.c|1|2|d|\n"},
      {"r;\\x20a\\x3B\\x0a\\x0d\\x5c\\x20;1;2; \\x3b; v\\x20;\n",  // escapes decoded
       "r/ a;\n\r/ |r| a;\n\r\\ |1|2|;|v \n"},
      {"r;a\\x4;\\xg0\\;1;2; d;\n", "r/a/x4|r|a\\x4|0|1|2|d\n"},  // not escapes: kept
      {"r; a.c\t;1;2; d ; v ;\n", "r/a.c\t|r|a.c\t|1|2|d|v\n"},  // blanks are trimmed, tabs not
      {"r;a.c;1;2; d; v;", "r/a.c|r|a.c|1|2|d|v\n"},
      {std::string("r;a.c;1;2\0;3; d; v;\nr;b;3;4; e; ;\n", 32),
       "r/a.c|r|a.c|1|2||\nr/b|r|b|3|4|e|\n"},
      {"r;\xe9\xff.c;1;2; d;\n", "r/\xe9\xff.c|r|\xe9\xff.c|1|2|d|\n"},
      {"r;a.c;1;2; 1st; ;\nr;a.c;3;4; 2nd; ;\n", "r/a.c|r|a.c|1|2|1st|\n"},  // first line wins
      {"r;" + n5000 + ";1;2; d; v;\n", "r/" + n5000 + "|r|" + n5000 + "|1|2|d|v\n"},
      {"r;" + n3 + "\n", "r/" + n3 + "|r|" + n3 + "|0|0||\n"},  // kMaxRecordLine bytes: whole
      {"r;" + n2 + "\n", "|||0|0||\nr/" + n2 + "|r|" + n2 + "|0|0||\n"},  // one more: pieces
  };
  // clang-format on
  for (const auto& [text, want] : cases)
    EXPECT_EQ(Load(text), want) << text.substr(0, 100);
}

TEST(RecordField, EscapesOnlyWhatTheLineCannotHold) {
  const std::pair<std::string, std::string> cases[] = {
      {"a b\t=\"'$`|&:()%s-", "a b\t=\"'$`|&:()%s-"},
      {"a;b", "a\\x3bb"},
      {"\n\r\\", "\\x0a\\x0d\\x5c"},
      {" a b ", "\\x20a b\\x20"},
      {" ", "\\x20"},
      {"", ""},
  };
  for (const auto& [text, field] : cases) {
    EXPECT_EQ(EncodeField(text.c_str()), field);
    EXPECT_EQ(DecodeField(field), text);
  }
  std::string every;
  for (int c = 1; c < 256; ++c)
    every += static_cast<char>(c);
  EXPECT_EQ(DecodeField(EncodeField(every.c_str())), every);
  EXPECT_EQ(DecodeField(EncodeField((" " + every + " ").c_str())), " " + every + " ");
}

TEST(WriteInventory, HeaderLinesUnderTheirConditionsThenRecords) {
  ScopedFileTree tree;
  tree.Add("/w;x", "b c", 5, "d", "");
  tree.Add("/w;x", "a", 1, "", "1.2");
  // Only BuildLabel is always written (the other lines are pinned end to
  // end); a line break in the root is escaped.
  const std::pair<InventoryHeader, std::string> cases[] = {
      {InventoryHeader{}, "BuildLabel=\n"},
      {InventoryHeader{"SVN", "/w;x\n\r", "m", "L", "7"},
       "SCMType=SVN\nModuleRootDir=/w;x\\x0a\\x0d\nMachineName=m\nBuildLabel=L\nBuildNumber=7\n"},
  };
  for (const auto& [header, lines] : cases) {
    char* buf = nullptr;
    size_t len = 0;
    FILE* f = open_memstream(&buf, &len);
    WriteInventory(f, header, tree.get());
    std::fclose(f);
    EXPECT_EQ(std::string(buf, len), lines + "/w\\x3bx;a;1;1; ; 1.2;\n/w\\x3bx;b c;5;5; d; ;\n");
    std::free(buf);
  }
}

TEST(LoadFileTree, SaysWhatItLoadsAndWhatItCannotOpen) {
  TempDir dir;
  WriteFile(dir / "inv", "");
  ASSERT_EQ(mkfifo((dir / "fifo").c_str(), 0600), 0);
  ScopedFileTree tree;
  wltest::CaptureStdout capture;
  for (const std::string& name : {std::string(), dir / "inv", dir / "missing", dir / "fifo"})
    LoadFileTree(tree.get(), name.c_str());
  const std::string loading = "Loading comparison data: " + dir.path();
  EXPECT_EQ(capture.Take(), loading + "/inv\n" + loading + "/missing\nCould not open " +
                                dir.path() + "/missing\n" + loading + "/fifo\nCould not open " +
                                dir.path() + "/fifo\n");
}

std::string Find(const TempDir& dir, const char* work_dir, const char* pattern) {
  wltest::ScopedCwd cwd(dir.path());
  std::string buffer = pattern;
  FindOldFileName("T-M-x.bom.data", buffer, work_dir);
  return buffer;
}

TEST(FindOldFileName, Rules) {
  const std::string h = "SCMType=NONE\nModuleRootDir=/w\nMachineName=M\nBuildLabel=\n";
  const std::string binary = std::string(1 << 20, '\xe9') + std::string(9, '\0') + "\n" +
                             std::string(3 << 20, 'x') + "\n" + h;  // and endless lines
  // Header lines are read in pieces of 1023 bytes: a root line of 1023 bytes
  // matches, one of 1024 does not.
  const std::string w1009 = "/" + std::string(1008, 'w'), w1010 = w1009 + "w";
  // Each row: the files (all with the same content; "name/" is a directory),
  // their content, WorkDir, the pattern and the name chosen.
  const struct {
    std::vector<std::string> files;
    std::string content;
    const char *work_dir, *pattern, *want;
  } cases[] = {
      // clang-format off
      {{"T-M-2026-01-02-01-bom.data"}, h, "/w", "T-M-*-bom.data", ""},  // needs ".bom.data"
      {{"T-M-1.bom.data"}, h, "/w", "T-M-*-bom.data", "T-M-1.bom.data"},
      {{"T-M-1.bom.data"}, h, "/w", "T-M-1.bom.data", ""},  // no "*"
      {{"T-M-1.bom.data", "T-M-3.bom.data", "T-M-2.bom.data"}, h, "/w", "T-M-*", "T-M-3.bom.data"},
      {{"T-M-x.bom.data", "T-M-1.bom.data"}, h, "/w", "T-M-*", "T-M-1.bom.data"},  // not newName
      {{"t-M-1.bom.data"}, h, "/w", "T-M-*", ""},  // the prefix is exact case
      {{"T-M-1.bom.data"}, "ModuleRootDir=/W\n", "/w", "T-M-*", "T-M-1.bom.data"},
      {{"T-M-1.bom.data"}, h, "/v", "T-M-*", ""},
      {{"T-M-1.bom.data"}, h, "w", "T-M-*", ""},  // a relative WorkDir never matches
      {{"T-M-1.bom.data"}, " \t ModuleRootDir=/w \t\r\n", "/w", "T-M-*", "T-M-1.bom.data"},
      {{"T-M-1.bom.data"}, "MachineName=M\n" + h, "/w", "T-M-*", ""},  // ends the look
      {{"T-M-1.bom.data"}, "a MachineName\n" + h, "/w", "T-M-*", ""},
      {{"T-M-9.bom.data/", "T-M-1.bom.data"}, h, "/w", "T-M-*", "T-M-1.bom.data"},
      {{"T-M-1.bom.data", "T-M-2.bom.data"}, binary, "/w", "T-M-*", "T-M-2.bom.data"},
      {{"T-M-1.bom.data"}, "ModuleRootDir=" + w1009 + "\n", w1009.c_str(), "T-M-*", "T-M-1.bom.data"},
      {{"T-M-1.bom.data"}, "ModuleRootDir=" + w1010 + "\n", w1010.c_str(), "T-M-*", ""},
      // clang-format on
  };
  for (const auto& c : cases) {
    TempDir dir;
    for (const auto& name : c.files)
      WriteFile(dir / name + (name.back() == '/' ? "x" : ""), c.content);
    EXPECT_EQ(Find(dir, c.work_dir, c.pattern), c.want) << c.files[0] << " " << c.work_dir;
  }
}

// The best name advances before its content is read: a greater name that
// does not match (or a FIFO, never opened) listed first hides a smaller match.
TEST(FindOldFileName, ListingOrderDecides) {
  TempDir dir;
  WriteFile(dir / "T-M-1.bom.data", "ModuleRootDir=/build/w\n");
  WriteFile(dir / "T-M-2.bom.data", "ModuleRootDir=/elsewhere\n");
  ASSERT_EQ(mkfifo((dir / "T-M-3.bom.data").c_str(), 0600), 0);
  DIR* listing = opendir(dir.path().c_str());
  std::string first;  // the first of the three in listing order
  while (first.rfind("T-M-", 0) != 0)
    first = readdir(listing)->d_name;
  closedir(listing);
  EXPECT_EQ(Find(dir, "/build/w", "T-M-*"), first == "T-M-1.bom.data" ? first : "");
}

}  // namespace
