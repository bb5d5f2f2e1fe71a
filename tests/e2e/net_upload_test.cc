// The report upload against servers that run as separate processes: a
// Python http.server with the standard library's multipart parsing (code
// nobody on this project wrote), and our own wlreceiver tool.

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "driver/settings.h"
#include "net/soap.h"
#include "net/upload.h"
#include "support/strings.h"
#include "testlib/net_fixtures.h"
#include "testlib/testlib.h"

namespace {

using wltest::BackgroundProcess;
using wltest::CaptureStdout;
using wltest::ReadFile;
using wltest::TempDir;

class UploadToProcess : public ::testing::Test {
 protected:
  void SetUp() override {
    ResetSettings();
    safe_cpy(&TaskName, "nightly build");
    safe_cpy(&LogOwner, "builder");
    safe_cpy(&MachineLabel, "bm01");
    safe_cpy(&PublicBuildJob, "false");
    safe_cpy(&JobDateTime, "10-14-2020-09-05-00");
  }
  void TearDown() override { ResetSettings(); }

  // Uploads `content` as file `name` (relative, in dir_) to `url`; returns
  // what UploadFile printed.
  std::string Upload(const std::string& url, const std::string& name, const std::string& content) {
    LogURL = url;
    wltest::WriteFile(dir_ / name, content);
    wltest::ScopedCwd cwd(dir_.path());
    CaptureStdout out;
    UploadFile(name.c_str());
    return out.Take();
  }

  TempDir dir_;
};

std::string Port(const std::string& line) { return line.substr(0, line.find('\n')); }

const char kReportContent[] =
    "SCMType=SVN\nMachineName=bm01\nBuildLabel=\nA ./src/main.c 0123abcd\r\n"
    "C ./lib/\xe9t\xe9.o 89ab\n\n!!!!!!!!!!!!!!!!!!!!!!\nlast line without newline";

TEST_F(UploadToProcess, PythonServerParsesFieldsAndFile) {
  if (!wltest::OnPath("python3"))
    GTEST_SKIP() << "python3 is not on PATH";
  wltest::MakeDirs(dir_ / "parsed");
  BackgroundProcess server(
      {"python3", std::string(WL_SOURCE_DIR) + "/tests/e2e/net_multipart_server.py", dir_ / "port",
       dir_ / "parsed", "30"},
      dir_ / "server.out", dir_ / "server.err");
  std::string port = Port(server.WaitForLineFile(dir_ / "port"));
  ASSERT_FALSE(port.empty()) << ReadFile(dir_ / "server.err").value_or("");
  std::string url = "http://127.0.0.1:" + port + "/weftlane/LogUpload";

  EXPECT_EQ(Upload(url, "nightly build-bm01-10-14-2020-09-05-00-bom.data", kReportContent),
            "LogUrl=" + url + "\n\n");
  ASSERT_EQ(server.Wait(), 0) << ReadFile(dir_ / "server.err").value_or("");

  auto parsed = [&](const std::string& name) {
    return ReadFile(dir_ / ("parsed/" + name)).value_or("<missing>");
  };
  EXPECT_EQ(parsed("request-line"), "POST /weftlane/LogUpload HTTP/1.1");
  EXPECT_EQ(parsed("host"), "127.0.0.1:" + port);
  EXPECT_EQ(parsed("content-type"),
            "multipart/form-data; boundary=---------------------------7d3cc298904e2");
  EXPECT_EQ(parsed("parts"), "6");
  EXPECT_EQ(parsed("field-JobName"), "nightly build");
  EXPECT_EQ(parsed("field-Owner"), "builder");
  EXPECT_EQ(parsed("field-Machine"), "bm01");
  EXPECT_EQ(parsed("field-PublicBuildJob"), "false");
  EXPECT_EQ(parsed("field-JobDateTime"), "10-14-2020-09-05-00");
  EXPECT_EQ(parsed("fieldname-1"), "mptest");
  EXPECT_EQ(parsed("filename-1"), "nightly build-bm01-10-14-2020-09-05-00-bom.data");
  EXPECT_EQ(parsed("file-1"), kReportContent);
}

TEST_F(UploadToProcess, PythonServerParsesAnEmptyFile) {
  if (!wltest::OnPath("python3"))
    GTEST_SKIP() << "python3 is not on PATH";
  wltest::MakeDirs(dir_ / "parsed");
  BackgroundProcess server(
      {"python3", std::string(WL_SOURCE_DIR) + "/tests/e2e/net_multipart_server.py", dir_ / "port",
       dir_ / "parsed", "30"},
      dir_ / "server.out", dir_ / "server.err");
  std::string port = Port(server.WaitForLineFile(dir_ / "port"));
  ASSERT_FALSE(port.empty());
  Upload("http://127.0.0.1:" + port + "/weftlane/LogUpload", "empty-diff.data", "");
  ASSERT_EQ(server.Wait(), 0) << ReadFile(dir_ / "server.err").value_or("");
  EXPECT_EQ(ReadFile(dir_ / "parsed/filename-1").value_or("<missing>"), "empty-diff.data");
  EXPECT_EQ(ReadFile(dir_ / "parsed/file-1").value_or("<missing>"), "");
  EXPECT_EQ(ReadFile(dir_ / "parsed/field-JobName").value_or("<missing>"), "nightly build");
}

#ifdef WL_RECEIVER

TEST_F(UploadToProcess, ReceiverStoresFieldsFileAndRawRequest) {
  BackgroundProcess receiver({WL_RECEIVER, "--dir", dir_ / "got", "--port-file", dir_ / "port",
                              "--count", "2", "--timeout", "30"},
                             dir_ / "receiver.out", dir_ / "receiver.err");
  std::string port = Port(receiver.WaitForLineFile(dir_ / "port"));
  ASSERT_FALSE(port.empty()) << ReadFile(dir_ / "receiver.err").value_or("");
  std::string url = "http://127.0.0.1:" + port + "/weftlane/LogUpload";
  EXPECT_EQ(Upload(url, "a-bom.data", kReportContent), "LogUrl=" + url + "\n\n");
  EXPECT_EQ(Upload(url, "sub/b-diff.data", "D ./gone.c\n"), "LogUrl=" + url + "\n\n");
  ASSERT_EQ(receiver.Wait(), 0) << ReadFile(dir_ / "receiver.err").value_or("");

  EXPECT_EQ(wltest::ListDir(dir_ / "got"),
            (std::vector<std::string>{"1-a-bom.data", "1-fields.txt", "1-request.bin",
                                      "2-b-diff.data", "2-fields.txt", "2-request.bin"}));
  EXPECT_EQ(ReadFile(dir_ / "got/1-a-bom.data"), kReportContent);
  EXPECT_EQ(ReadFile(dir_ / "got/2-b-diff.data"), "D ./gone.c\n");
  const std::string fields =
      "JobName=nightly build\nOwner=builder\nMachine=bm01\nPublicBuildJob=false\n"
      "JobDateTime=10-14-2020-09-05-00\n";
  EXPECT_EQ(ReadFile(dir_ / "got/1-fields.txt"), fields);
  EXPECT_EQ(ReadFile(dir_ / "got/2-fields.txt"), fields);
  std::string raw = ReadFile(dir_ / "got/2-request.bin").value_or("");
  EXPECT_TRUE(raw.starts_with("POST /weftlane/LogUpload HTTP/1.1\r\n")) << raw;
  EXPECT_TRUE(raw.ends_with(
      "filename=\"sub/b-diff.data\"\r\nContent-Type: text/html\r\n\r\nD ./gone.c\n\r\n"
      "-----------------------------7d3cc298904e2--\r\n"))
      << raw;
  std::string log = ReadFile(dir_ / "receiver.out").value_or("");
  EXPECT_TRUE(log.starts_with(port + "\n1: POST /weftlane/LogUpload HTTP/1.1, ")) << log;
  EXPECT_NE(log.find(", file 2-b-diff.data\n"), std::string::npos) << log;
}

// A request that states one byte less than it sends (as the SOAP posts do)
// is stored whole and still gets its answer.
TEST(Receiver, KeepsBytesBeyondTheStatedLengthAndAnswers) {
  TempDir dir;
  BackgroundProcess receiver({WL_RECEIVER, "--dir", dir / "got", "--port-file", dir / "port",
                              "--count", "1", "--timeout", "30"},
                             dir / "receiver.out", dir / "receiver.err");
  std::string port = Port(receiver.WaitForLineFile(dir / "port"));
  ASSERT_FALSE(port.empty());
  std::string err;
  char* answer = HTTPPostSoap2(err, ("http://127.0.0.1:" + port + "/svc").c_str(), "<a>\n</a>", 0);
  ASSERT_NE(answer, nullptr) << err;
  EXPECT_EQ(std::string(answer),
            "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: 3\r\nConnection: "
            "close\r\n\r\nOK\n");
  safe_free(&answer);
  ASSERT_EQ(receiver.Wait(), 0);
  EXPECT_EQ(wltest::ListDir(dir / "got"),
            (std::vector<std::string>{"1-body.bin", "1-request.bin"}));
  EXPECT_EQ(ReadFile(dir / "got/1-body.bin"), "<a></a>\n\n");
}

TEST(Receiver, HelpAndBadArguments) {
  TempDir dir;
  auto help = wltest::RunProgram({WL_RECEIVER, "--help"}, {}, dir.path(), 30);
  EXPECT_EQ(help.status, 0);
  EXPECT_TRUE(help.out.starts_with("Usage: wlreceiver ")) << help.out;
  const std::vector<std::vector<std::string>> bad = {
      {"--port", "70000"}, {"--count"}, {"--frob"}, {"--timeout", "-1"}, {"--timeout", "86401"}};
  for (const auto& words : bad) {
    std::vector<std::string> args{WL_RECEIVER};
    args.insert(args.end(), words.begin(), words.end());
    auto r = wltest::RunProgram(args, {}, dir.path(), 30);
    EXPECT_EQ(r.status, 2) << args[1];
    EXPECT_NE(r.err.find("Usage: wlreceiver"), std::string::npos) << args[1];
  }
}

TEST(Receiver, IdleTimeoutEndsIt) {
  TempDir dir;
  auto r = wltest::RunProgram({WL_RECEIVER, "--dir", dir / "got", "--count", "1", "--timeout", "1"},
                              {}, dir.path(), 30);
  EXPECT_EQ(r.status, 3);
  EXPECT_TRUE(r.out.ends_with("\nidle for 1 s, stopping after 0 requests\n")) << r.out;
  auto no_count = wltest::RunProgram(
      {WL_RECEIVER, "--dir", dir / "got", "--timeout", "1", "--quiet"}, {}, dir.path(), 30);
  EXPECT_EQ(no_count.status, 0);
  EXPECT_EQ(std::count(no_count.out.begin(), no_count.out.end(), '\n'), 1) << no_count.out;
}

#endif  // WL_RECEIVER

}  // namespace
