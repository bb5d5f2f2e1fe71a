#include <gtest/gtest.h>
#include <time.h>

#include <climits>
#include <string>

#include "scm/scmtool.h"
#include "testlib/testlib.h"

namespace {

// Client dates are local wall-clock times read with daylight saving off:
// each row sets its own zone (one east of UTC, one west with summer time).
TEST(LocalTime, BoundariesInSeveralZones) {
  const std::string summer = "EST5EDT,M3.2.0,M11.1.0";
  const struct {
    std::string zone;
    int y, mo, d, h, mi, s;
    int64_t seconds;
  } cases[] = {
      {"UTC", 2004, 12, 31, 23, 59, 59, 1104537599},
      {"UTC", 2005, 1, 1, 0, 0, 0, 1104537600},
      {"UTC", 2004, 13, 1, 0, 0, 0, 1104537600},  // carried into the next year
      {"WLT-3", 2004, 12, 31, 23, 59, 59, 1104526799},
      {"WLT-3", 2005, 1, 1, 0, 0, 0, 1104526800},
      {summer, 2020, 2, 29, 23, 59, 59, 1583038799},
      {summer, 2020, 3, 1, 0, 0, 0, 1583038800},
      {summer, 2020, 7, 1, 12, 0, 0, 1593622800},  // summer, still read as standard time
      {"UTC", INT_MIN, 1, 1, 0, 0, 0, -1},
  };
  for (const auto& c : cases) {
    wltest::ScopedEnv tz("TZ", c.zone);
    tzset();
    EXPECT_EQ(LocalTime(c.y, c.mo, c.d, c.h, c.mi, c.s), c.seconds) << c.zone << " " << c.y;
  }
  tzset();
}

}  // namespace
