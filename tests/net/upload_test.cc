// UploadFile against a loopback server: the request bytes, what it prints,
// and its failures.

#include "net/upload.h"

#include <gtest/gtest.h>

#include <string>

#include "driver/settings.h"
#include "support/strings.h"
#include "testlib/net_fixtures.h"
#include "testlib/testlib.h"

namespace {

using wltest::CaptureStdout;
using wltest::LoopbackListener;
using wltest::ServerConn;
using wltest::TempDir;

const char kHeadLines[] =
    "POST /weftlane/LogUpload HTTP/1.1\r\n"
    "Accept: image/gif, image/x-xbitmap, image/jpeg, image/pjpeg, application/vnd.ms-excel, "
    "application/msword, application/pdf, application/x-shockwave-flash, */*\r\n"
    "Accept-Language: en-us\r\n"
    "Content-Type: multipart/form-data; boundary=---------------------------7d3cc298904e2\r\n"
    "Accept-Encoding: gzip, deflate\r\n"
    "User-Agent: Weftlane Logger 6.2\r\n";
const char kDelim[] = "-----------------------------7d3cc298904e2\r\n";
const char kClose[] = "-----------------------------7d3cc298904e2--\r\n";

std::string Field(const std::string& name, const std::string& value) {
  return kDelim + ("Content-Disposition: form-data; name=\"" + name + "\"\r\n\r\n") + value +
         "\r\n";
}

std::string FilePart(const std::string& filename, const std::string& content) {
  return kDelim +
         ("Content-Disposition: form-data; name=\"mptest\"; filename=\"" + filename + "\"\r\n") +
         "Content-Type: text/html\r\n\r\n" + content + "\r\n" + kClose;
}

struct Request {
  std::string head;  // through the blank line
  std::string body;
};

// Split at the end of the "Content-Length: %d\n\n" line and check that the
// stated length is the body's.
Request Split(const std::string& raw) {
  Request r;
  size_t cl = raw.find("Content-Length: ");
  size_t end = raw.find("\n\n", cl);
  if (cl == std::string::npos || end == std::string::npos) {
    ADD_FAILURE() << "no Content-Length line in request:\n" << raw.substr(0, 2000);
    return r;
  }
  r.head = raw.substr(0, end + 2);
  r.body = raw.substr(end + 2);
  EXPECT_EQ(raw.substr(cl, end + 2 - cl),
            "Content-Length: " + std::to_string(r.body.size()) + "\n\n");
  return r;
}

class UploadFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ResetSettings();
    safe_cpy(&TaskName, "nightly");
    safe_cpy(&LogOwner, "builder");
    safe_cpy(&MachineLabel, "bm01");
    safe_cpy(&PublicBuildJob, "true");
    safe_cpy(&JobDateTime, "10-14-2020-09-05-00");
  }
  void TearDown() override { ResetSettings(); }

  // Upload `content` as file `name` in dir_; returns what was printed.
  std::string Upload(const std::string& name, const std::string& content) {
    wltest::WriteFile(dir_ / name, content);
    wltest::ScopedCwd cwd(dir_.path());
    CaptureStdout out;
    UploadFile(name.c_str());
    return out.Take();
  }

  TempDir dir_;
};

TEST_F(UploadFileTest, WholeRequestByteForByte) {
  LoopbackListener server(wltest::ReplyWith(wltest::OkReply()));
  LogURL = server.Url("/weftlane/LogUpload");
  std::string printed = Upload("job-bm01-x-bom.data", "line one\nline two\n");
  EXPECT_EQ(printed, "LogUrl=" + LogURL + "\n\n");

  const std::string body =
      "-----------------------------7d3cc298904e2\r\n"
      "Content-Disposition: form-data; name=\"JobName\"\r\n"
      "\r\n"
      "nightly\r\n"
      "-----------------------------7d3cc298904e2\r\n"
      "Content-Disposition: form-data; name=\"Owner\"\r\n"
      "\r\n"
      "builder\r\n"
      "-----------------------------7d3cc298904e2\r\n"
      "Content-Disposition: form-data; name=\"Machine\"\r\n"
      "\r\n"
      "bm01\r\n"
      "-----------------------------7d3cc298904e2\r\n"
      "Content-Disposition: form-data; name=\"PublicBuildJob\"\r\n"
      "\r\n"
      "true\r\n"
      "-----------------------------7d3cc298904e2\r\n"
      "Content-Disposition: form-data; name=\"JobDateTime\"\r\n"
      "\r\n"
      "10-14-2020-09-05-00\r\n"
      "-----------------------------7d3cc298904e2\r\n"
      "Content-Disposition: form-data; name=\"mptest\"; filename=\"job-bm01-x-bom.data\"\r\n"
      "Content-Type: text/html\r\n"
      "\r\n"
      "line one\nline two\n"
      "\r\n"
      "-----------------------------7d3cc298904e2--\r\n";
  const std::string expected = std::string(kHeadLines) +
                               "Host: 127.0.0.1:" + std::to_string(server.port()) +
                               "\r\nContent-Length: " + std::to_string(body.size()) + "\n\n" + body;
  EXPECT_EQ(server.request(), expected);
}

TEST_F(UploadFileTest, RequestLineIgnoresThePathOfLogUrl) {
  LoopbackListener server(wltest::ReplyWith(wltest::OkReply()));
  LogURL = server.Url("/other/place/LogUpload");
  Upload("f", "x\n");
  Request r = Split(server.request());
  EXPECT_EQ(r.head, std::string(kHeadLines) + "Host: 127.0.0.1:" + std::to_string(server.port()) +
                        "\r\nContent-Length: " + std::to_string(r.body.size()) + "\n\n");
}

TEST_F(UploadFileTest, PublicBuildJobIsTrueOnlyForTrueInAnyCase) {
  const std::pair<const char*, const char*> cases[] = {
      {"true", "true"}, {"TRUE", "true"}, {"True", "true"},   {"false", "false"},
      {"", "false"},    {"yes", "false"}, {"truex", "false"}, {nullptr, "false"},
  };
  for (const auto& [value, sent] : cases) {
    safe_free(&PublicBuildJob);
    if (value)
      safe_cpy(&PublicBuildJob, value);
    LoopbackListener server(wltest::ReplyWith(wltest::OkReply()));
    LogURL = server.Url("/weftlane/LogUpload");
    Upload("f", "x");
    Request r = Split(server.request());
    EXPECT_NE(r.body.find(Field("PublicBuildJob", sent)), std::string::npos)
        << (value ? value : "(unset)");
  }
}

TEST_F(UploadFileTest, UnsetFieldsAreSentEmpty) {
  ResetSettings();
  LoopbackListener server(wltest::ReplyWith(wltest::OkReply()));
  LogURL = server.Url("/weftlane/LogUpload");
  Upload("f", "x");
  Request r = Split(server.request());
  EXPECT_EQ(r.body, Field("JobName", "") + Field("Owner", "") + Field("Machine", "") +
                        Field("PublicBuildJob", "false") + Field("JobDateTime", "") +
                        FilePart("f", "x"));
}

struct ContentCase {
  const char* name;
  std::string content;  // file bytes
  std::string sent;     // file part content on the wire
};

TEST_F(UploadFileTest, FileContentAsText) {
  const std::string long_line(25000, 'w');
  const ContentCase cases[] = {
      {"empty file", "", ""},
      {"last line without newline", "a\nb", "a\nb"},
      {"crlf lines kept", "a\r\nb\r\n", "a\r\nb\r\n"},
      {"blank lines", "\n\n\n", "\n\n\n"},
      {"line longer than a piece", long_line + "\nend\n", long_line + "\nend\n"},
      {"piece cut at its first nul", std::string("ab\0cd\nef\n", 9), "abef\n"},
      // The NUL ends the first piece of 9999 bytes, so the next piece is
      // sent whole.
      {"nul at the end of a full piece", std::string(9998, 'p') + std::string("\0q", 2) + "rest\n",
       std::string(9998, 'p') + "qrest\n"},
      {"nul early in a long line", std::string("ab\0", 3) + std::string(12000, 'p') + "\n",
       "ab" + std::string(2004, 'p') + "\n"},
      {"bytes above 0x7f", "\xc3\xa9t\xe9\n", "\xc3\xa9t\xe9\n"},
  };
  for (const auto& c : cases) {
    LoopbackListener server(wltest::ReplyWith(wltest::OkReply()));
    LogURL = server.Url("/weftlane/LogUpload");
    Upload("report.data", c.content);
    Request r = Split(server.request());
    std::string fields = Field("JobName", "nightly") + Field("Owner", "builder") +
                         Field("Machine", "bm01") + Field("PublicBuildJob", "true") +
                         Field("JobDateTime", "10-14-2020-09-05-00");
    EXPECT_EQ(r.body, fields + FilePart("report.data", c.sent)) << c.name;
  }
}

TEST_F(UploadFileTest, FileNameIsThePathAsGiven) {
  LoopbackListener server(wltest::ReplyWith(wltest::OkReply()));
  LogURL = server.Url("/weftlane/LogUpload");
  wltest::WriteFile(dir_ / "sub/x-diff.data", "d\n");
  {
    wltest::ScopedCwd cwd(dir_.path());
    CaptureStdout out;
    UploadFile("./sub/x-diff.data");
  }
  Request r = Split(server.request());
  EXPECT_NE(r.body.find("filename=\"./sub/x-diff.data\"\r\n"), std::string::npos);
}

TEST_F(UploadFileTest, MultiMegabyteFileArrivesWhole) {
  std::string content;
  for (int i = 0; content.size() < (3 << 20); ++i) {
    content += "F ./dir" + std::to_string(i % 97) + "/file" + std::to_string(i) + ".o 1234 5678 ";
    content += std::string(static_cast<size_t>(i % 300), 'z') + "\n";
  }
  LoopbackListener server(wltest::ReplyWith(wltest::OkReply()));
  LogURL = server.Url("/weftlane/LogUpload");
  Upload("big.data", content);
  Request r = Split(server.request());
  ASSERT_GT(r.body.size(), content.size());
  EXPECT_TRUE(r.body.ends_with(content + "\r\n" + kClose));
}

TEST_F(UploadFileTest, MissingFileSendsNothing) {
  LoopbackListener server([](ServerConn& c) { c.ReadRequest(); }, 1, 300);
  LogURL = server.Url("/weftlane/LogUpload");
  CaptureStdout out;
  UploadFile((dir_ / "absent.data").c_str());
  EXPECT_EQ(out.Take(),
            "LogUrl=" + LogURL + "\nCould not open " + (dir_ / "absent.data") + " for upload\n");
  server.Join();
  EXPECT_TRUE(server.requests().empty());
}

TEST_F(UploadFileTest, ConnectionRefused) {
  wltest::RefusingPort refusing;
  LogURL = "http://127.0.0.1:" + std::to_string(refusing.port()) + "/weftlane/LogUpload";
  EXPECT_EQ(Upload("f", "x\n"), "LogUrl=" + LogURL +
                                    "\nERROR 401: Could not connect to 127.0.0.1 on port " +
                                    std::to_string(refusing.port()) + "\n\n");
}

TEST_F(UploadFileTest, LogUrlWithoutSlashes) {
  LogURL = "buildserver:8080/LogUpload";
  EXPECT_EQ(
      Upload("f", "x\n"),
      "LogUrl=buildserver:8080/LogUpload\nERROR 404: Invalid URL buildserver:8080/LogUpload\n\n");
}

TEST_F(UploadFileTest, EmptyLogUrl) {
  LogURL = "";
  EXPECT_EQ(Upload("f", "x\n"), "LogUrl=\nERROR 404: Invalid URL \n\n");
}

TEST_F(UploadFileTest, ServerFaultsStillEndQuietly) {
  struct Fault {
    const char* name;
    LoopbackListener::Handler handler;
  };
  const Fault faults[] = {
      {"404", wltest::ReplyWith("HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n")},
      {"500", wltest::ReplyWith("HTTP/1.1 500 Internal Server Error\r\n\r\nno")},
      {"closes before answering",
       [](ServerConn& c) {
         c.ReadRequest();
         c.Close();
       }},
      {"resets mid-request",
       [](ServerConn& c) {
         c.ReadAtLeast(100);
         c.Reset();
       }},
      {"ten megabyte line",
       [](ServerConn& c) {
         c.ReadRequest();
         c.SendRepeated(std::string(65536, 'x'), 10 << 20);
         c.Close();
       }},
  };
  const std::string content(1 << 20, 'c');  // big enough to be cut off by a reset
  for (const auto& f : faults) {
    LoopbackListener server(f.handler);
    LogURL = server.Url("/weftlane/LogUpload");
    EXPECT_EQ(Upload("f", content), "LogUrl=" + LogURL + "\n\n") << f.name;
  }
}

}  // namespace
