// The report upload against servers in other processes: a Python
// http.server that parses the multipart body with the standard library (code
// nobody on this project wrote), and wlreceiver, directly and behind nginx,
// during whole runs of the built binary.

#include <gtest/gtest.h>

#include "e2e/e2e.h"
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
  BackgroundRun server({"python3", std::string(WL_SOURCE_DIR) + "/tests/e2e/net_multipart_server.py",
                        dir / "port", dir / "parsed", "30"},
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
// Both reports of a run reach the receiver exactly as written, first
// directly, then behind stock nginx with a job name holding a double quote.
// nginx keeps the connection open after each answer; waiting for its close
// would run into the timeout's ERROR lines. The restarted receiver numbers
// on from the last request in its directory. A report over nginx's 1 MiB
// body limit gets the refusal's ERROR line.
TEST(NetRun, BothReportsReachTheReceiverDirectlyAndBehindNginx) {
  e2e::World w;
  WriteFile(w.build + "/src/main.c", "int main(void) { return 0; }\n");
  const std::string got = w.root + "/got";
  for (const bool behind_nginx : {false, true}) {
    SCOPED_TRACE(behind_nginx ? "behind nginx" : "direct");
    if (behind_nginx && NginxBinary().empty())
      GTEST_SKIP() << "nginx is not installed";
    const std::string job = behind_nginx ? "night\"ly" : "job", base = job + "-box-2020-10-14 10_20_30";
    const std::string port_file = w.root + (behind_nginx ? "/port2" : "/port1");
    BackgroundRun receiver(
        {WL_RECEIVER, "--dir", got, "--port-file", port_file, "--count", "2", "--idle-exit", "60"},
        port_file);
    ASSERT_FALSE(receiver.line.empty()) << receiver.Wait().err;
    w.server = "http://127.0.0.1:" + receiver.line;
    std::optional<NginxProxy> proxy;
    if (behind_nginx) {
      proxy.emplace(w.root + "/nginx", receiver.line);
      ASSERT_NE(proxy->port, 0) << ReadFile(w.root + "/nginx/error.log").value_or("");
      w.server = proxy->Url();
      w.env["WEFTLANE_TIMEOUT"] = "10";
    }
    std::vector<std::string> args = {"-b", w.build, "-lj", job, "-lm", "box", "-lo", "me", "-ld", "2020-10-14 10_20_30"};
    if (!behind_nginx)
      args.push_back("-lp");
    auto r = w.Run(args);
    ASSERT_EQ(receiver.Wait().status, 0) << receiver.Wait().err << r.out;
    EXPECT_EQ(r.status, 0) << r.out;
    const std::string sent = "LogUrl=" + *w.server + "/LogUpload\n\n";
    EXPECT_TRUE(e2e::Has(r.out, "Uploading Report Data " + base + "-bom.data\n" + sent +
                                    "Uploading Report Data " + base + "-diff.data\n" + sent + "Complete\n"))
        << r.out;
    const std::string as_sent = behind_nginx ? "night%22ly-box-2020-10-14 10_20_30" : base;
    std::string lines = receiver.line + "\n";
    for (const std::string kind : {"-bom", "-diff"}) {
      const std::string n = std::to_string((behind_nginx ? 3 : 1) + (kind == "-diff"));
      const std::string kept = w.Out(base + "-01" + kind + ".data"), stored = got + "/" + n + "-" + as_sent + kind + ".data";
      EXPECT_EQ(ReadFile(stored), kept);
      EXPECT_EQ(ReadFile(got + "/" + n + "-fields.txt"),
                "JobName=" + as_sent.substr(0, as_sent.find('-')) + "\nOwner=me\nMachine=box\nPublicBuildJob=" +
                    (behind_nginx ? "false" : "true") + "\nJobDateTime=2020-10-14 10_20_30\n");
      lines += n + ": job " + as_sent.substr(0, as_sent.find('-')) + ", " + std::to_string(kept.size()) + " bytes, " + stored + "\n";
      // The transfer copy is gone; the numbered file stays.
      EXPECT_FALSE(ReadFile(w.start + "/" + base + kind + ".data"));
    }
    EXPECT_EQ(receiver.Wait().out, lines);
    if (!behind_nginx)
      continue;
    WriteFile(w.root + "/big.data", std::string((1 << 20) + 1, 'b'));
    SetNetTimeout(10);
    CaptureStdout out;
    UploadFile(UploadTarget{proxy->Url() + "/LogUpload", "job", "", "box", "", ""}, (w.root + "/big.data").c_str());
    SetNetTimeout(kDefaultNetTimeout);
    EXPECT_EQ(out.Take(), "LogUrl=" + proxy->Url() + "/LogUpload\nERROR 409: Upload of " + w.root +
                              "/big.data refused by 127.0.0.1 on port " + std::to_string(proxy->port) +
                              ": HTTP/1.1 413 Request Entity Too Large\n\n");
  }
}
#endif  // WL_RECEIVER

}  // namespace
