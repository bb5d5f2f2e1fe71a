// The report upload against servers in other processes: a Python
// http.server that parses the multipart body with the standard library (code
// nobody on this project wrote), and wlreceiver during a whole run of the
// built binary.

#include <gtest/gtest.h>

#include "net/transport.h"
#include "net/upload.h"
#include "testlib/net_fixtures.h"

namespace {

using namespace wltest;

TEST(NetUpload, PythonServerParsesFieldsAndFile) {
  if (!HavePython())
    GTEST_SKIP() << "python3 is not available";
  TempDir dir;
  MakeDirs(dir / "parsed");
  BackgroundRun server(
      {"python3", std::string(WL_SOURCE_DIR) + "/tests/e2e/net_multipart_server.py", dir / "port",
       dir / "parsed", "30"},
      dir / "port");
  ASSERT_FALSE(server.line.empty()) << server.Wait().err;
  const std::string name = "nightly build-bm01-10-14-2020-09-05-00-bom.data";
  const std::string content =
      "SCMType=SVN\nA ./src/main.c 0123abcd\r\nC ./lib/\xe9t\xe9.o 89ab\n\n!!!!\nno newline";
  WriteFile(dir / name, content);
  const UploadTarget target{"http://127.0.0.1:" + server.line + "/weftlane/LogUpload",
                            "nightly build", "", "bm01", "", ""};
  {
    ScopedCwd cwd(dir.path());
    CaptureStdout out;
    UploadFile(target, name.c_str());
    EXPECT_EQ(out.Take(), "LogUrl=" + target.url + "\n\n");
  }
  ASSERT_EQ(server.Wait().status, 0) << server.Wait().err;
  std::string parsed;
  for (const char* item : {"request-line", "host", "content-type", "parts", "field-JobName",
                           "field-Owner", "field-Machine", "field-PublicBuildJob", "filename-1"})
    parsed += ReadFile(dir / ("parsed/" + std::string(item))).value_or("<missing>") + "\n";
  EXPECT_EQ(parsed, "POST /weftlane/LogUpload HTTP/1.1\n127.0.0.1:" + server.line +
                        "\nmultipart/form-data; boundary=---------------------------7d3cc298904e2\n"
                        "6\nnightly build\n\nbm01\nfalse\n" +
                        name + "\n");
  EXPECT_EQ(ReadFile(dir / "parsed/file-1"), content);
}

#ifdef WL_RECEIVER
// Both reports of an inspection run reach the receiver exactly as written;
// a receiver restarted on the same directory numbers on from the last one.
TEST(NetRun, InspectionUploadsBothReportsToTheReceiver) {
  TempDir dir;
  const std::string start = dir / "start", base = "job-box-2020-10-14 10_20_30";
  const std::string got = dir / "got";
  MakeDirs(start);
  MakeDirs(dir / "home");
  WriteFile(dir / "tree/src/main.c", "int main(void) { return 0; }\n");
  for (const std::string number : {"01", "02"}) {
    SCOPED_TRACE("run " + number);
    const std::string port_file = dir / ("port" + number);
    BackgroundRun receiver(
        {WL_RECEIVER, "--dir", got, "--port-file", port_file, "--count", "2", "--idle-exit", "60"},
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
    const int first = number == "01" ? 1 : 3;
    std::string lines = receiver.line + "\n";
    for (const std::string kind : {"-bom", "-diff"}) {
      const std::string n = std::to_string(kind == "-bom" ? first : first + 1);
      auto kept = ReadFile(start + "/" + base + "-" + number + kind + ".data");
      ASSERT_TRUE(kept) << kind;
      const std::string stored = got + "/" + n + "-" + base + kind + ".data";
      EXPECT_EQ(ReadFile(stored), kept);
      EXPECT_EQ(ReadFile(got + "/" + n + "-fields.txt"), fields);
      lines += n + ": job job, " + std::to_string(kept->size()) + " bytes, " + stored + "\n";
      // The transfer copy is gone; the numbered file stays.
      EXPECT_FALSE(ReadFile(start + "/" + base + kind + ".data"));
    }
    EXPECT_EQ(receiver.Wait().out, lines);
  }
}

// Behind stock nginx in front of the receiver: a run's two uploads finish
// (the proxy keeps the connection open after each answer; waiting for its
// close would run into the timeout's ERROR lines), both reports arrive
// byte-identical and a job name with a double quote arrives whole; a report
// over nginx's 1 MiB body limit gets the refusal's ERROR line.
TEST(NetRun, BehindNginx) {
  if (NginxBinary().empty())
    GTEST_SKIP() << "nginx is not installed";
  TempDir dir;
  const std::string start = dir / "start", base = "night\"ly-box-2020-10-14 10_20_30";
  const std::string sent = "night%22ly-box-2020-10-14 10_20_30";
  MakeDirs(start);
  MakeDirs(dir / "home");
  WriteFile(dir / "tree/src/main.c", "int main(void) { return 0; }\n");
  BackgroundRun receiver({WL_RECEIVER, "--dir", dir / "got", "--port-file", dir / "port",
                          "--count", "2", "--timeout", "60"},
                         dir / "port");
  ASSERT_FALSE(receiver.line.empty()) << receiver.Wait().err;
  NginxProxy proxy(dir / "nginx", receiver.line);
  ASSERT_NE(proxy.port, 0) << ReadFile(dir / "nginx/error.log").value_or("");

  auto env = ToolEnv(dir / "home", proxy.Url());
  env["WEFTLANE_TIMEOUT"] = "10";
  auto r = RunTool({"-b", dir / "tree", "-lj", "night\"ly", "-lm", "box", "-lo", "me", "-ld",
                    "2020-10-14 10_20_30"},
                   env, start);
  EXPECT_EQ(r.status, 0) << r.out;
  const std::string posted = "LogUrl=" + proxy.Url() + "/LogUpload\n\n";
  EXPECT_NE(r.out.find("Uploading Report Data " + base + "-bom.data\n" + posted +
                       "Uploading Report Data " + base + "-diff.data\n" + posted + "Complete\n"),
            std::string::npos)
      << r.out;
  ASSERT_EQ(receiver.Wait().status, 0) << receiver.Wait().err;
  for (const std::string n_kind : {"1-bom", "2-diff"}) {
    const std::string kind = n_kind.substr(1);
    EXPECT_EQ(ReadFile(dir / ("got/" + n_kind.substr(0, 1) + "-" + sent + kind + ".data")),
              ReadFile(start + "/" + base + "-01" + kind + ".data"))
        << kind;
    EXPECT_EQ(ReadFile(dir / ("got/" + n_kind.substr(0, 1) + "-fields.txt")).value_or(""),
              "JobName=night%22ly\nOwner=me\nMachine=box\nPublicBuildJob=false\n"
              "JobDateTime=2020-10-14 10_20_30\n");
  }

  WriteFile(dir / "big.data", std::string((1 << 20) + 1, 'b'));
  SetNetTimeout(10);
  CaptureStdout out;
  UploadFile(UploadTarget{proxy.Url() + "/LogUpload", "job", "", "box", "", ""},
             (dir / "big.data").c_str());
  SetNetTimeout(kDefaultNetTimeout);
  EXPECT_EQ(out.Take(), "LogUrl=" + proxy.Url() + "/LogUpload\nERROR 409: Upload of " +
                            (dir / "big.data") + " refused by 127.0.0.1 on port " +
                            std::to_string(proxy.port) +
                            ": HTTP/1.1 413 Request Entity Too Large\n\n");
}

#endif  // WL_RECEIVER

}  // namespace
