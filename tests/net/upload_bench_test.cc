// Upload throughput and memory, for bench/net_upload.sh. Disabled in the
// normal test run (speed is measured, not asserted); the script runs it with
// WL_BENCH_MB set to the report size in megabytes.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include "driver/settings.h"
#include "net/upload.h"
#include "support/strings.h"
#include "testlib/net_fixtures.h"
#include "testlib/testlib.h"

namespace {

TEST(UploadBench, DISABLED_Report) {
  const char* mb_text = std::getenv("WL_BENCH_MB");
  const long mb = mb_text ? std::strtol(mb_text, nullptr, 10) : 50;
  wltest::TempDir dir;
  const std::string path = dir / "bench-bom.data";
  {
    std::ofstream f(path, std::ios::binary);
    std::string line = "F ./some/directory/of/the/build/tree/object-file.o 123456 1602666300 ";
    line += std::string(32, 'a') + "\n";
    const long long target = mb * 1024LL * 1024LL;
    for (long long written = 0; written < target; written += static_cast<long long>(line.size())) {
      f << line;
    }
  }
  struct stat st;
  ASSERT_EQ(stat(path.c_str(), &st), 0);

  long long received = -1;
  wltest::LoopbackListener server(
      [&received](wltest::ServerConn& c) {
        received = c.ReadRequestDroppingBody(600000);
        c.Send(wltest::OkReply());
        c.FinishAndDrain();
      },
      1, 60000);
  ResetSettings();
  safe_cpy(&TaskName, "bench");
  LogURL = server.Url("/weftlane/LogUpload");

  const bool rss_ok = wltest::ResetPeakRss();
  const long rss_before = wltest::PeakRssKb();
  auto start = std::chrono::steady_clock::now();
  {
    wltest::CaptureStdout out;
    UploadFile(path.c_str());
  }
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  server.Join();
  const long rss_after = wltest::PeakRssKb();
  ResetSettings();

  EXPECT_GT(received, static_cast<long long>(st.st_size));
  std::printf(
      "upload bench: file %.1f MB, body %.1f MB, %.2f s, %.1f MB/s, peak RSS growth %s\n",
      static_cast<double>(st.st_size) / 1048576.0, static_cast<double>(received) / 1048576.0,
      seconds, static_cast<double>(st.st_size) / 1048576.0 / seconds,
      rss_ok ? (std::to_string((rss_after - rss_before) / 1024) + " MB").c_str() : "unknown");
}

}  // namespace
