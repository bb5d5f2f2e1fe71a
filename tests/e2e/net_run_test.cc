// A whole inspection run of the built binary against wlreceiver: both
// reports reach the receiver exactly as written.

#include <gtest/gtest.h>

#include "testlib/net_fixtures.h"

namespace {

#ifdef WL_RECEIVER

using namespace wltest;

TEST(NetRun, InspectionUploadsBothReportsToTheReceiver) {
  TempDir dir;
  const std::string start = dir / "start", base = "job-box-2020-10-14 10_20_30";
  MakeDirs(start);
  MakeDirs(dir / "home");
  WriteFile(dir / "tree/src/main.c", "int main(void) { return 0; }\n");
  for (const std::string number : {"01", "02"}) {
    SCOPED_TRACE("run " + number);
    const std::string got = dir / ("got" + number), port_file = dir / ("port" + number);
    BackgroundRun receiver(
        {WL_RECEIVER, "--dir", got, "--port-file", port_file, "--count", "2", "--timeout", "60"},
        port_file);
    ASSERT_FALSE(receiver.line.empty()) << receiver.Wait().err;
    const std::string server = "http://127.0.0.1:" + receiver.line;
    auto r = RunTool({"-b", dir / "tree", "-lj", "job", "-lm", "box", "-lo", "me", "-lp", "-ld",
                      "2020-10-14 10_20_30"},
                     ToolEnv(dir / "home", server), start);
    ASSERT_EQ(receiver.Wait().status, 0) << receiver.Wait().err << r.out;
    EXPECT_EQ(r.status, 0) << r.out;
    const std::string sent = "LogUrl=" + server + "/LogUpload\n\n";
    EXPECT_NE(r.out.find("Uploading Report Data " + base + "-bom.data\n" + sent +
                         "Uploading Report Data " + base + "-diff.data\n" + sent + "Complete\n"),
              std::string::npos)
        << r.out;
    const std::string fields =
        "JobName=job\nOwner=me\nMachine=box\nPublicBuildJob=true\nJobDateTime=2020-10-14 "
        "10_20_30\n";
    for (const std::string n_kind : {"1-bom", "2-diff"}) {
      const std::string kind = n_kind.substr(1);
      auto kept = ReadFile(start + "/" + base + "-" + number + kind + ".data");
      ASSERT_TRUE(kept) << kind;
      EXPECT_EQ(ReadFile(got + "/" + n_kind[0] + "-" + base + kind + ".data"), kept);
      EXPECT_EQ(ReadFile(got + "/" + n_kind[0] + "-fields.txt"), fields);
      // The transfer copy is gone; the numbered file stays.
      EXPECT_FALSE(ReadFile(start + "/" + base + kind + ".data"));
    }
  }
}

#endif  // WL_RECEIVER

}  // namespace
