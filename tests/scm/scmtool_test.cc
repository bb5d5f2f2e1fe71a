#include "scm/scmtool.h"

#include <gtest/gtest.h>

#include <string>

#include "driver/settings.h"
#include "support/handles.h"
#include "testlib/scm_fixtures.h"

namespace {

using wltest::TempDir;

TEST(AcquisitionPath, GroupsByMask) {
  for (uint32_t t : {0u, kScmCvs, kScmClearCase, kScmSvn, kScmSi, kScmAccurev, kScmMstf})
    EXPECT_EQ(AcquisitionPath(t), ScmPath::kListing) << t;
  for (uint32_t t : {kScmHarvest, kScmVss, kScmPerforce})
    EXPECT_EQ(AcquisitionPath(t), ScmPath::kPerFile) << t;
  for (uint32_t t : {kScmCvsRep, kScmCvs | kScmCvsRep, kScmSvn | kScmVss})
    EXPECT_EQ(AcquisitionPath(t), ScmPath::kRepositoryLog) << t;
}

// Output is read as fgets into a buffer of the limit reads it.
TEST(ClientLines, PiecesAtTheLimitAndUnendedLines) {
  TempDir dir;
  const std::string a(2046, 'a'), b(4095, 'b');
  struct Case {
    std::string in;
    int limit;
    std::string pieces;
  } cases[] = {
      {a + "\nx\n", 2048, "<" + a + "\n><x\n>"},  {a + "a\nx\n", 2048, "<" + a + "a><\n><x\n>"},
      {a + "aa\n", 2048, "<" + a + "a><a\n>"},    {b + "b\n", 4096, "<" + b + "><b\n>"},
      {"crlf\r\nlast", 2048, "<crlf\r\n><last>"},
  };
  for (const auto& c : cases) {
    wltest::WriteFile(dir / "out", c.in);
    UniqueFile f(std::fopen((dir / "out").c_str(), "rb"));
    ClientLines lines(f.get(), c.limit);
    std::string all, line;
    while (lines.Next(line))
      all += "<" + line + ">";
    EXPECT_EQ(all, c.pieces) << c.in.size();
  }
}

}  // namespace
