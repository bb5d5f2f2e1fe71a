// The report upload against a Python http.server that parses the multipart
// body with the standard library (code nobody on this project wrote).

#include <gtest/gtest.h>

#include "driver/settings.h"
#include "net/upload.h"
#include "support/strings.h"
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
  ResetSettings();
  const std::pair<char**, const char*> settings[] = {{&TaskName, "nightly build"},
                                                     {&LogOwner, "builder"},
                                                     {&MachineLabel, "bm01"},
                                                     {&PublicBuildJob, "false"},
                                                     {&JobDateTime, "10-14-2020-09-05-00"}};
  for (auto [field, value] : settings)
    safe_cpy(field, value);
  LogURL = "http://127.0.0.1:" + server.line + "/weftlane/LogUpload";
  {
    ScopedCwd cwd(dir.path());
    CaptureStdout out;
    UploadFile(name.c_str());
    EXPECT_EQ(out.Take(), "LogUrl=" + LogURL + "\n\n");
  }
  ResetSettings();
  ASSERT_EQ(server.Wait().status, 0) << server.Wait().err;
  std::string parsed;
  for (const char* item :
       {"request-line", "host", "content-type", "parts", "field-JobName", "field-Owner",
        "field-Machine", "field-PublicBuildJob", "field-JobDateTime", "fieldname-1", "filename-1"})
    parsed += ReadFile(dir / ("parsed/" + std::string(item))).value_or("<missing>") + "\n";
  EXPECT_EQ(parsed, "POST /weftlane/LogUpload HTTP/1.1\n127.0.0.1:" + server.line +
                        "\nmultipart/form-data; boundary=---------------------------7d3cc298904e2\n"
                        "6\nnightly build\nbuilder\nbm01\nfalse\n10-14-2020-09-05-00\nmptest\n" +
                        name + "\n");
  EXPECT_EQ(ReadFile(dir / "parsed/file-1"), content);
}

}  // namespace
