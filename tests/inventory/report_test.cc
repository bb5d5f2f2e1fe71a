#include "inventory/report.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "driver/settings.h"
#include "testlib/inventory_fixtures.h"

namespace {

using wltest::ScopedFileTree;

const std::string kA = "aaaaaaaa" + std::string(24, '0');
const std::string kB = "bbbbbbbb" + std::string(24, '0');

// The record lines of a run's report: deleted, then added and changed
// (SCMType stays 0: no detail lines).
std::string Report(const ScopedFileTree& before, const ScopedFileTree& now) {
  FileTree = now.get();
  OldFileTree = before.get();
  char* buf = nullptr;
  size_t len = 0;
  FILE* f = open_memstream(&buf, &len);
  WalkBintree(OldFileTree, Deleted, f);
  WalkBintree(FileTree, AddedAndChanged, f);
  std::fclose(f);
  std::string out(buf, len);
  std::free(buf);
  FileTree = OldFileTree = nullptr;
  return out;
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
    std::string want = "C;/w;f;2;2; " + c.new_digest + "; " + c.new_version + ";\n";
    EXPECT_EQ(Report(before, now), c.changed ? want : "") << c.what;
  }
}

TEST(Report, LinesEscapeWhatTheirFieldsCannotHold) {
  ScopedFileTree before, now;
  before.Add("/w", " gone;", 1, kA, "");
  now.Add("/w", "new\n\\", 2, kB, "v ");
  EXPECT_EQ(Report(before, now), "D;/w;\\x20gone\\x3b;1;1; " + kA + "; ;\nA;/w;new\\x0a\\x5c;2;2; " +
                                     kB + "; v\\x20;\n");
}

}  // namespace
