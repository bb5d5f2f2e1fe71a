#include <gtest/gtest.h>

#include "testlib/testlib.h"

namespace {

TEST(Smoke, BinaryRunsWithoutServerSetting) {
  wltest::TempDir dir;
  auto r = wltest::RunTool({}, wltest::ToolEnv(dir.path()), dir.path());
  EXPECT_EQ(r.status, 1);
}

}  // namespace
