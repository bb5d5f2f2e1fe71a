// A whole inspection run of the built binary against wlreceiver: both
// reports reach the receiver exactly as written.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "testlib/net_fixtures.h"
#include "testlib/testlib.h"

namespace {

#ifdef WL_RECEIVER

using wltest::ReadFile;

TEST(NetRun, InspectionUploadsBothReportsToTheReceiver) {
  wltest::TempDir dir;
  const std::string start = dir / "start";
  wltest::MakeDirs(start);
  wltest::MakeDirs(dir / "home");
  wltest::WriteFile(dir / "tree/src/main.c", "int main(void) { return 0; }\n");
  wltest::WriteFile(dir / "tree/README", "sample\n");

  for (int run = 1; run <= 2; ++run) {
    SCOPED_TRACE("run " + std::to_string(run));
    const std::string got = dir / ("got" + std::to_string(run));
    const std::string port_file = dir / ("port" + std::to_string(run));
    wltest::BackgroundProcess receiver(
        {WL_RECEIVER, "--dir", got, "--port-file", port_file, "--count", "2", "--timeout", "60"},
        dir / "receiver.out", dir / "receiver.err");
    std::string port = receiver.WaitForLineFile(port_file);
    ASSERT_FALSE(port.empty()) << ReadFile(dir / "receiver.err").value_or("");
    port.pop_back();
    const std::string server = "http://127.0.0.1:" + port;

    auto r = wltest::RunTool({"-b", dir / "tree", "-lj", "job", "-lm", "box", "-lo", "me", "-lp",
                              "-ld", "2020-10-14 10_20_30"},
                             wltest::ToolEnv(dir / "home", server), start);
    ASSERT_EQ(receiver.Wait(), 0) << ReadFile(dir / "receiver.err").value_or("") << r.out;
    EXPECT_EQ(r.status, 0) << r.out;

    const std::string base = "job-box-2020-10-14 10_20_30";
    const std::string number = run == 1 ? "01" : "02";
    const std::string upload_lines = "LogUrl=" + server + "/LogUpload\n\n";
    EXPECT_NE(
        r.out.find("Uploading Report Data " + base + "-bom.data\n" + upload_lines +
                   "Uploading Report Data " + base + "-diff.data\n" + upload_lines + "Complete\n"),
        std::string::npos)
        << r.out;

    auto inventory = ReadFile(start + "/" + base + "-" + number + "-bom.data");
    auto report = ReadFile(start + "/" + base + "-" + number + "-diff.data");
    ASSERT_TRUE(inventory && report);
    EXPECT_EQ(ReadFile(got + "/1-" + base + "-bom.data"), inventory);
    EXPECT_EQ(ReadFile(got + "/2-" + base + "-diff.data"), report);
    const std::string fields =
        "JobName=job\nOwner=me\nMachine=box\nPublicBuildJob=true\nJobDateTime=" +
        std::string("2020-10-14 10_20_30") + "\n";
    EXPECT_EQ(ReadFile(got + "/1-fields.txt"), fields);
    EXPECT_EQ(ReadFile(got + "/2-fields.txt"), fields);
    // The transfer copies are gone; the numbered files stay.
    EXPECT_FALSE(ReadFile(start + "/" + base + "-bom.data"));
    EXPECT_FALSE(ReadFile(start + "/" + base + "-diff.data"));
  }
}

#endif  // WL_RECEIVER

}  // namespace
