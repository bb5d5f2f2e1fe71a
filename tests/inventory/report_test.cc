#include "inventory/report.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "testlib/inventory_fixtures.h"
#include "testlib/testlib.h"

namespace {

using wltest::ScopedFileTree;

const std::string kA = "aaaaaaaa" + std::string(24, '0');
const std::string kB = "bbbbbbbb" + std::string(24, '0');

// The lines of a run's report after its header: deleted, then added and
// changed, each changed one followed by the detail writer's block.
std::string Report(Bintree* before, Bintree* now) {
  char* buf = nullptr;
  size_t len = 0;
  ChangeReport report;
  report.stream = open_memstream(&buf, &len);
  report.now = now;
  report.before = before;
  uint32_t context = 16;
  report.detail_context = &context;
  report.detail = [](void* ctx, FILE* out, FileNode* current, FileNode* earlier) {
    std::fprintf(out, "detail %u %s %s\n", *static_cast<uint32_t*>(ctx), current->path,
                 earlier->path);
  };
  wltest::CaptureStdout progress;
  WriteChangeReport(report);
  EXPECT_EQ(progress.Take(), "Determining Deleted Files\nDetermining Added and Changed Files\n");
  std::fclose(report.stream);
  std::string out(buf, len);
  std::free(buf);
  return out.substr(out.find("BuildLabel=\n") + 12);
}
std::string Report(const ScopedFileTree& before, const ScopedFileTree& now) {
  return Report(before.get(), now.get());
}

TEST(Report, TheComparisonRule) {
  const std::string upper = "ABCDEF12" + std::string(24, '0');
  const std::string lower = "abcdef12" + std::string(24, '0');
  const struct {
    const char* what;
    std::string old_digest, old_version, new_digest, new_version;
    bool changed;
  } cases[] = {
      {"equal digests, size and time differ", kA, "", kA, "", false},
      {"digests differ only in case", upper, "", lower, "", false},
      {"digests differ", kA, "", kB, "", true},
      {"equal digests, versions differ", kA, "1.1", kA, "1.2", false},
      {"both unreadable, versions differ", "", "1.1", "", "1.2", true},
      {"both unreadable, versions differ in case", "", "v1a", "", "V1A", false},
      {"both unreadable, same version", "", "1.1", "", "1.1", false},
      {"unreadable before, readable now", "", "", kA, "", true},
      {"readable before, unreadable now", kA, "", "", "", true},
  };
  for (const auto& c : cases) {
    ScopedFileTree before, now;
    before.Add("/w", "f", 1, c.old_digest, c.old_version);
    now.Add("/w", "f", 2, c.new_digest, c.new_version);
    std::string want =
        "C;/w;f;2;2; " + c.new_digest + "; " + c.new_version + ";\ndetail 16 /w/f /w/f\n";
    EXPECT_EQ(Report(before, now), c.changed ? want : "") << c.what;
  }
}

// Deleted lines first, then added and changed ones, each in key order; the
// fields escape what their line cannot hold.
TEST(Report, BothPassesInKeyOrderWithEscapedFields) {
  ScopedFileTree before, now;
  for (const char* name : {"e", "a", " gone;", "c", "d"})
    before.Add("/w", name, 1, kA, "");
  for (const char* name : {"f", "c", "new\n\\", "b", "e"})
    now.Add("/w", name, 2, name[0] == 'e' ? kB : kA, name[0] == 'n' ? "v " : "");
  const std::string a = "; " + kA + "; ;\n";  // the rest of a line with kA and no version
  EXPECT_EQ(Report(before, now), "D;/w;\\x20gone\\x3b;1;1" + a + "D;/w;a;1;1" + a + "D;/w;d;1;1" +
                                     a + "A;/w;b;2;2" + a + "C;/w;e;2;2; " + kB +
                                     "; ;\ndetail 16 /w/e /w/e\nA;/w;f;2;2" + a +
                                     "A;/w;new\\x0a\\x5c;2;2; " + kA + "; v\\x20;\n");
}

// Trees that allow equal keys: a key stands for each of its records in the
// current tree and for the first of them in the earlier one, whether the
// trees are merged or (comparators that differ) each record is looked up.
TEST(Report, EqualKeysMergedAsLookupsFindThem) {
  const BintreeCompare same_order = [](const void* a, const void* b) { return CompareFunc(a, b); };
  using Rows = std::vector<std::pair<const char*, std::string>>;
  struct Tree {
    Tree(BintreeCompare compare, int64_t size, const Rows& rows)
        : head(NewFileNode("")), tree(NewBintree(head, compare, 1, sizeof(FileNode))) {
      for (const auto& [name, digest] : rows) {
        FileNode* node = NewFileNodeIn(tree, ("/w/" + std::string(name)).c_str(), "/w", name);
        safe_cpy(&node->digest, digest.c_str());
        node->size = node->mtime = size;
        InsBintree(tree, node);
      }
    }
    ~Tree() {
      DestroyBintree(tree, FreeFileNode);
      FreeFileNode(head);
      tfree(head);
    }
    FileNode* head;
    Bintree* tree;
  };
  const Rows before_rows = {{"b", kA}, {"a", kA}, {"b", kB}, {"d", kA}};
  const Rows now_rows = {{"d", kA}, {"b", kB}, {"c", kA}, {"b", kA}, {"d", kB}};
  const std::string want = "D;/w;a;1;1; " + kA + "; ;\nC;/w;b;2;2; " + kB +
                           "; ;\ndetail 16 /w/b /w/b\nA;/w;c;2;2; " + kA + "; ;\nC;/w;d;2;2; " +
                           kB + "; ;\ndetail 16 /w/d /w/d\n";
  for (BintreeCompare compare : {CompareFunc, same_order}) {
    Tree before(compare, 1, before_rows), now(CompareFunc, 2, now_rows);
    EXPECT_EQ(Report(before.tree, now.tree), want);
  }
}

}  // namespace
