#include "inventory/inventory.h"

#include <dirent.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "driver/settings.h"
#include "testlib/inventory_fixtures.h"
#include "testlib/testlib.h"

namespace {

using wltest::CaptureStdout;
using wltest::RecordFields;
using wltest::ScopedCwd;
using wltest::ScopedFileTree;
using wltest::TempDir;
using wltest::WriteFile;

const std::string kDigest = "0123abcd" + std::string(24, '0');

// Loads `content` as an inventory and returns the records and the output.
struct Loaded {
  std::vector<RecordFields> records;
  std::string out;
};

Loaded Load(const std::string& content) {
  TempDir dir;
  std::string path = dir / "inv.bom.data";
  WriteFile(path, content);
  ScopedFileTree tree;
  CaptureStdout capture;
  LoadFileTree(tree.get(), path.c_str());
  return {tree.Records(), capture.Take()};
}

std::string WriteTree(const ScopedFileTree& tree) {
  char* buf = nullptr;
  size_t len = 0;
  FILE* f = open_memstream(&buf, &len);
  WalkBintree(tree.get(), WriteFileTree, f);
  std::fclose(f);
  std::string out(buf, len);
  std::free(buf);
  return out;
}

TEST(WriteFileTree, WritesDirNameSizeTimeDigestVersion) {
  ScopedFileTree tree;
  tree.Add("/w", "src/b.c", 10, 20, kDigest, "1.4");
  tree.Add("/w", "a.c", 0, 0, "", "");
  EXPECT_EQ(WriteTree(tree), "/w;a.c;0;0; ; ;\n/w;src/b.c;10;20; " + kDigest + "; 1.4;\n");
}

TEST(LoadFileTree, ReadsRecordLinesAndSkipsHeaderLines) {
  auto loaded = Load(
      "SCMType=NONE\nModuleRootDir=/w\nMachineName=m\nBuildLabel=\n"
      "/w;src/b.c;10;20; " + kDigest + "; 1.4;\n"
      "/w;a.c;1;2; " + kDigest + "; ;\n");
  EXPECT_EQ(loaded.records,
            (std::vector<RecordFields>{{"/w/a.c", "/w", "a.c", "", kDigest, 2, 1},
                                       {"/w/src/b.c", "/w", "src/b.c", "1.4", kDigest, 20, 10}}));
}

TEST(LoadFileTree, EveryKindOfLine) {
  struct Case {
    const char* what;
    std::string line;
    std::vector<RecordFields> want;
  };
  const std::vector<Case> cases = {
      {"blank words are trimmed to nothing", "r;a.c;10;20; ; ;\n",
       {{"r/a.c", "r", "a.c", "", "", 20, 10}}},
      {"a path holding = is not a record", "r;a=b.c;1;2; d; v;\n", {}},
      {"a line of blanks is a record with an empty key", "    \n", {{"", "", "", "", "", 0, 0}}},
      {"an empty line too", "\n", {{"", "", "", "", "", 0, 0}}},
      {"carriage returns and trailing blanks go", "r;a.c;1;2; d; v;  \r\n",
       {{"r/a.c", "r", "a.c", "v", "d", 2, 1}}},
      {"runs of ; separate as one", "r;;a.c;;;5;6;d;v\n", {{"r/a.c", "r", "a.c", "v", "d", 6, 5}}},
      {"missing words stay empty", "r;a.c\n", {{"r/a.c", "r", "a.c", "", "", 0, 0}}},
      {"only a root", "r\n", {{"", "r", "", "", "", 0, 0}}},
      {"words after the sixth are ignored", "r;a.c;1;2;d;v;extra;more\n",
       {{"r/a.c", "r", "a.c", "v", "d", 2, 1}}},
      {"numbers take leading digits", "r;a.c;12abc;x9; d;\n", {{"r/a.c", "r", "a.c", "", "d", 0, 12}}},
      {"negative numbers", "r;a.c;-5;-6; d;\n", {{"r/a.c", "r", "a.c", "", "d", -6, -5}}},
      {"backslashes become slashes in the key only", "r\\x;s\\a.c;1;2; d; ;\n",
       {{"r/x/s/a.c", "r\\x", "s\\a.c", "", "d", 2, 1}}},
      {"words are trimmed of blanks, not tabs", "r; a.c\t;1;2; d ; v ;\n",
       {{"r/a.c\t", "r", "a.c\t", "v", "d", 2, 1}}},
      {"a last line without newline", "r;a.c;1;2; d; v;", {{"r/a.c", "r", "a.c", "v", "d", 2, 1}}},
      {"bytes after a NUL are ignored", std::string("r;a.c;1;2\0;3; d; v;\n", 20),
       {{"r/a.c", "r", "a.c", "", "", 2, 1}}},
      {"bytes above 0x7f are kept", "r;\xe9\xff.c;1;2; d; v;\n",
       {{"r/\xe9\xff.c", "r", "\xe9\xff.c", "v", "d", 2, 1}}},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(Load(c.line).records, c.want) << c.what;
  }
}

TEST(LoadFileTree, TheFirstLineOfAKeyWins) {
  auto loaded = Load("r;a.c;1;2; first; ;\nr;a.c;3;4; second; ;\n");
  EXPECT_EQ(loaded.records, (std::vector<RecordFields>{{"r/a.c", "r", "a.c", "", "first", 2, 1}}));
}

TEST(LoadFileTree, LongLinesArriveInPiecesOf4095Bytes) {
  std::string name(5000, 'n');
  auto loaded = Load("r;" + name + ";1;2; d; v;\n");
  std::string first_part(4093, 'n');   // 4,095 bytes minus "r;"
  std::string second_part(907, 'n');   // the rest of the name
  // Walk order: "nnn.../1" sorts before "r/...".
  EXPECT_TRUE(loaded.records ==
              (std::vector<RecordFields>{{second_part + "/1", second_part, "1", "", "v", 0, 2},
                                         {"r/" + first_part, "r", first_part, "", "", 0, 0}}));
}

TEST(LoadFileTree, BinaryAndEndlessContentLoadsWithoutHarm) {
  std::mt19937 gen(3);
  std::string binary(300000, '\0');
  for (auto& c : binary) c = static_cast<char>(gen() & 0xff);
  auto loaded = Load(binary);
  for (const auto& r : loaded.records) EXPECT_LE(r.path.size(), 4096u);
  std::string endless(1 << 20, 'x');
  auto long_line = Load(endless);
  EXPECT_EQ(long_line.records.size(), 1u);  // all pieces have the same key; the first wins
}

TEST(LoadFileTree, PrintsWhatItLoads) {
  auto loaded = Load("r;a.c;1;2; d; ;\n");
  EXPECT_EQ(loaded.out.rfind("Loading comparison data: ", 0), 0u);
  EXPECT_EQ(loaded.out.substr(loaded.out.size() - std::strlen("/inv.bom.data\n")), "/inv.bom.data\n");
}

TEST(LoadFileTree, AnEmptyNameDoesNothingAndAMissingFileIsReported) {
  ScopedFileTree tree;
  CaptureStdout capture;
  LoadFileTree(tree.get(), "");
  LoadFileTree(tree.get(), "/nonexistent/x.bom.data");
  EXPECT_EQ(capture.Take(),
            "Loading comparison data: /nonexistent/x.bom.data\n"
            "Could not open /nonexistent/x.bom.data\n");
  EXPECT_TRUE(tree.Records().empty());
}

TEST(LoadFileTree, AFifoIsNotOpened) {
  TempDir dir;
  std::string fifo = dir / "x.bom.data";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  ScopedFileTree tree;
  CaptureStdout capture;
  LoadFileTree(tree.get(), fifo.c_str());
  EXPECT_EQ(capture.Take(), "Loading comparison data: " + fifo + "\nCould not open " + fifo + "\n");
}

TEST(LoadFileTree, WhatIsWrittenReadsBack) {
  ScopedFileTree written;
  written.Add("/w", "a.c", 1, 2, kDigest, "1.1");
  written.Add("/w", "sub/b c.h", 300, 1700000000, kDigest, "");
  written.Add("/w", "x", 0, 0, "", "");
  auto loaded = Load(WriteTree(written));
  EXPECT_EQ(loaded.records, written.Records());
}

// --- FindOldFileName ---

class FindOldFileNameTest : public ::testing::Test {
 protected:
  void SetUp() override { WorkDir = "/build/w"; }
  void TearDown() override { ResetSettings(); }

  void Inventory(const std::string& name, const std::string& root,
                 const std::string& before = "") {
    WriteFile(dir_ / name, before + "SCMType=NONE\nModuleRootDir=" + root +
                               "\nMachineName=M\nBuildLabel=\n");
  }
  std::string Find(const std::string& pattern, const std::string& new_name = "T-M-x-01-bom.data") {
    ScopedCwd cwd(dir_.path());
    std::string buffer = pattern;
    FindOldFileName(new_name.c_str(), buffer);
    return buffer;
  }
  // The names of the directory in the order the listing returns them.
  std::vector<std::string> ListingOrder() {
    std::vector<std::string> names;
    DIR* d = opendir(dir_.path().c_str());
    while (dirent* e = readdir(d)) names.push_back(e->d_name);
    closedir(d);
    return names;
  }

  TempDir dir_;
};

TEST_F(FindOldFileNameTest, OnlyNamesHoldingDotBomDotDataQualify) {
  Inventory("T-M-2026-01-02-01-bom.data", "/build/w");
  EXPECT_EQ(Find("T-M-*-bom.data"), "");
  Inventory("T-M-1.bom.data", "/build/w");
  EXPECT_EQ(Find("T-M-*-bom.data"), "T-M-1.bom.data");
}

TEST_F(FindOldFileNameTest, APatternWithoutStarFindsNothing) {
  Inventory("T-M-1.bom.data", "/build/w");
  EXPECT_EQ(Find("T-M-1.bom.data"), "");
}

TEST_F(FindOldFileNameTest, TheGreatestMatchingNameWinsWhenAllMatch) {
  for (const char* n : {"T-M-1.bom.data", "T-M-3.bom.data", "T-M-2.bom.data"}) {
    Inventory(n, "/build/w");
  }
  EXPECT_EQ(Find("T-M-*-bom.data"), "T-M-3.bom.data");
  EXPECT_EQ(Find("T-M-*-bom.data", "T-M-3.bom.data"), "T-M-2.bom.data");
}

TEST_F(FindOldFileNameTest, PrefixIsExactCaseAndBackslashesCountAsSlashes) {
  Inventory("t-M-1.bom.data", "/build/w");
  EXPECT_EQ(Find("T-M-*-bom.data"), "");
  EXPECT_EQ(Find("t-M-*"), "t-M-1.bom.data");
}

TEST_F(FindOldFileNameTest, RootIsComparedWithWorkDirIgnoringCase) {
  Inventory("T-M-1.bom.data", "/BUILD/W");
  EXPECT_EQ(Find("T-M-*"), "T-M-1.bom.data");
  WorkDir = "/build/other";
  EXPECT_EQ(Find("T-M-*"), "");
  WorkDir = "build/w";  // relative: never equals the absolute root
  EXPECT_EQ(Find("T-M-*"), "");
}

TEST_F(FindOldFileNameTest, HeaderLinesAreTrimmedAndMachineNameEndsTheLook) {
  WriteFile(dir_ / "T-M-1.bom.data", " \t ModuleRootDir=/build/w \t\r\n");
  EXPECT_EQ(Find("T-M-*"), "T-M-1.bom.data");
  WriteFile(dir_ / "T-M-1.bom.data", "MachineName=M\nModuleRootDir=/build/w\n");
  EXPECT_EQ(Find("T-M-*"), "");
  WriteFile(dir_ / "T-M-1.bom.data", "a MachineName\nModuleRootDir=/build/w\n");
  EXPECT_EQ(Find("T-M-*"), "");
}

TEST_F(FindOldFileNameTest, DirectoriesAndFifosAreNotTaken) {
  wltest::MakeDirs(dir_ / "T-M-9.bom.data");
  ASSERT_EQ(mkfifo((dir_ / "T-M-8.bom.data").c_str(), 0600), 0);
  Inventory("T-M-1.bom.data", "/build/w");
  std::string found = Find("T-M-*");
  // The FIFO becomes the best name when it is listed before T-M-1 (and then
  // hides it); it is never opened either way.
  auto order = ListingOrder();
  auto pos = [&](const char* n) { return std::find(order.begin(), order.end(), n) - order.begin(); };
  EXPECT_EQ(found, pos("T-M-8.bom.data") < pos("T-M-1.bom.data") ? "" : "T-M-1.bom.data");
}

TEST_F(FindOldFileNameTest, AGreaterNonMatchingNameListedFirstHidesASmallerMatch) {
  Inventory("T-M-1.bom.data", "/build/w");
  Inventory("T-M-2.bom.data", "/elsewhere");
  auto order = ListingOrder();
  auto pos = [&](const char* n) { return std::find(order.begin(), order.end(), n) - order.begin(); };
  bool one_first = pos("T-M-1.bom.data") < pos("T-M-2.bom.data");
  EXPECT_EQ(Find("T-M-*"), one_first ? "T-M-1.bom.data" : "");
}

TEST_F(FindOldFileNameTest, BinaryAndEndlessCandidatesAreReadSafely) {
  std::mt19937 gen(11);
  std::string binary(1 << 20, '\0');
  for (auto& c : binary) c = static_cast<char>(gen() & 0xff);
  WriteFile(dir_ / "T-M-1.bom.data", binary);
  WriteFile(dir_ / "T-M-2.bom.data", std::string(3 << 20, 'x') + "\nModuleRootDir=/build/w\n");
  // Whichever is listed first, T-M-2 ends as the greatest name and matches.
  EXPECT_EQ(Find("T-M-*"), "T-M-2.bom.data");
}

}  // namespace
