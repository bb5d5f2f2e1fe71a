// Job log client: SetupJobInfo, LogMessage and HTTPPostHTML2 on the wire.

#include "net/joblog.h"

#include <gtest/gtest.h>

#include <string>

#include "testlib/net_fixtures.h"
#include "testlib/testlib.h"

namespace {

using wltest::CaptureStdout;
using wltest::LoopbackListener;

const char kDelim[] = "-----------------------------7d3cc298904e2\r\n";
const char kClose[] = "-----------------------------7d3cc298904e2--\r\n";
const char kAccept[] =
    "Accept: image/gif, image/x-xbitmap, image/jpeg, image/pjpeg, application/vnd.ms-excel, "
    "application/msword, application/pdf, application/x-shockwave-flash, */*\r\n";
const char kRule[] = "<HR SIZE=1 WIDTH=30% ALIGN=LEFT>\r\n";

std::string Field(const std::string& name, const std::string& value) {
  return kDelim + ("Content-Disposition: form-data; name=\"" + name + "\"\r\n\r\n") + value +
         "\r\n";
}

std::string FileHead(const std::string& filename) {
  return "Content-Disposition: form-data; name=\"mptest\"; filename=\"" + filename +
         "\"\r\nContent-Type: text/html\r\n\r\n";
}

// Header of SetupJobInfo and LogMessage for a server on `port`.
std::string JobLogHeader(uint16_t port, const std::string& host_path = "") {
  return std::string("POST /weftlane/LogUpload HTTP/1.1\r\n") + kAccept +
         "Accept-Language: en-us\r\n"
         "Connection: close\r\n"
         "Content-Type: multipart/form-data; boundary=---------------------------7d3cc298904e2\r\n"
         "Accept-Encoding: gzip, deflate\r\n"
         "User-Agent: Weftlane Logger 6.2\r\n"
         "Host: 127.0.0.1" +
         host_path + ":" + std::to_string(port) + "\r\n";
}

// Header and body of a request, split after "Content-Length: %d\n\n"; the
// stated length is checked against the body.
std::pair<std::string, std::string> Split(const std::string& raw) {
  size_t cl = raw.find("Content-Length: ");
  size_t end = raw.find("\n\n", cl);
  if (cl == std::string::npos || end == std::string::npos) {
    ADD_FAILURE() << "no Content-Length line:\n" << raw;
    return {};
  }
  std::string body = raw.substr(end + 2);
  EXPECT_EQ(raw.substr(cl, end + 2 - cl),
            "Content-Length: " + std::to_string(body.size()) + "\n\n");
  return {raw.substr(0, cl), body};
}

class JobLogTest : public ::testing::Test {
 protected:
  void SetUp() override { Clear(); }
  void TearDown() override { Clear(); }
  static void Clear() {
    for (std::string* s :
         {&myURL, &myTaskName, &myOwner, &myMachine, &myJobDateTime, &myPublicBuildJob}) {
      s->clear();
    }
    myLogType = 0;
  }
  // Register quietly with log type 1 (nothing posted), then set the type.
  static void Register(uint32_t log_type, const std::string& url,
                       const char* public_flag = "true") {
    std::string err;
    SetupJobInfo(err, 1, url.c_str(), "nightly build", "builder", "bm01", "10-14-2020",
                 public_flag);
    myLogType = log_type;
  }
};

TEST_F(JobLogTest, SetupJobInfoPostsTheOpeningForm) {
  LoopbackListener server(wltest::ReplyWith(wltest::OkReply()));
  const std::string url = server.Url("/weftlane/LogUpload");
  std::string err = "stale";
  CaptureStdout out;
  EXPECT_EQ(SetupJobInfo(err, 2, url.c_str(), "nightly", "builder", "bm01", "10-14-2020", "TRUE"),
            0);
  EXPECT_EQ(out.Take(), "\n");
  EXPECT_EQ(err, "");
  const std::string body =
      Field("JobName", "nightly") + Field("Owner", "builder") + Field("Machine", "bm01") +
      Field("JobDateTime", "10-14-2020") + Field("PublicBuildJob", "true\r\n") + kDelim +
      FileHead("D:\\tmp\\nightly-bm01-10-14-2020-Summary.html") + "\r\n" + kClose + "\r\n";
  EXPECT_EQ(server.request(), JobLogHeader(server.port()) +
                                  "Content-Length: " + std::to_string(body.size()) + "\n\n" + body);
  EXPECT_EQ(myURL, url);
  EXPECT_EQ(myLogType, 2u);
}

TEST_F(JobLogTest, SetupJobInfoPrintsTheLogAddressWithBothBits) {
  struct Case {
    const char* public_flag;
    std::string address_part;
  };
  const Case cases[] = {{"true", "public/"}, {"no", "the%20owner/"}};
  for (const auto& c : cases) {
    LoopbackListener server(wltest::ReplyWith(wltest::OkReply()));
    const std::string url = server.Url("/weftlane/LogUpload");
    std::string err;
    CaptureStdout out;
    EXPECT_EQ(SetupJobInfo(err, 3, url.c_str(), "my job", "the owner", "bm 01",
                           "10-14-2020 10_20_30", c.public_flag),
              0);
    const std::string key = "my%20job-bm%2001-10-14-2020%2010_20_30";
    EXPECT_EQ(out.Take(), "\n\nLog file will be available at:\n " + server.Url("/weftlane/") +
                              "logs/" + c.address_part + key + "/" + key + "-Frame.html\n\n");
    auto [head, body] = Split(server.request());
    EXPECT_NE(body.find(Field("PublicBuildJob",
                              std::string(c.public_flag) == "true" ? "true\r\n" : "false\r\n")),
              std::string::npos);
  }
}

TEST_F(JobLogTest, SetupJobInfoWithoutPostBitOnlyStores) {
  std::string err;
  CaptureStdout out;
  EXPECT_EQ(
      SetupJobInfo(err, 1, "http://127.0.0.1:1/weftlane/LogUpload", "t", "o", "m", "d", "true"), 0);
  EXPECT_EQ(SetupJobInfo(err, 1, "http://other/LogUpload", "", nullptr, "m2", "", nullptr), 0);
  EXPECT_EQ(out.Take(), "");
  EXPECT_EQ(err, "");
  EXPECT_EQ(myURL, "http://other/LogUpload");
  EXPECT_EQ(myTaskName, "t");
  EXPECT_EQ(myOwner, "o");
  EXPECT_EQ(myMachine, "m2");
  EXPECT_EQ(myJobDateTime, "d");
  EXPECT_EQ(myPublicBuildJob, "true");
  EXPECT_EQ(SetupJobInfo(err, 0, "no slashes", nullptr, nullptr, nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(err, "ERROR 404: Invalid URL no slashes\n");
}

TEST_F(JobLogTest, SetupJobInfoRefused) {
  wltest::RefusingPort refusing;
  const std::string url =
      "http://127.0.0.1:" + std::to_string(refusing.port()) + "/weftlane/LogUpload";
  std::string err;
  CaptureStdout out;
  EXPECT_EQ(SetupJobInfo(err, 2, url.c_str(), "t", "o", "m", "d", "true"), 1);
  const std::string message =
      "ERROR 401: Could not connect to 127.0.0.1 on port " + std::to_string(refusing.port()) + "\n";
  EXPECT_EQ(err, message);
  EXPECT_EQ(out.Take(), message + "\n");
}

TEST_F(JobLogTest, LogMessageEchoOnly) {
  Register(1, "http://127.0.0.1:1/weftlane/LogUpload");
  std::string err;
  CaptureStdout out;
  EXPECT_EQ(LogMessage(err, 1, 0, nullptr, nullptr, nullptr, "sum", "Building: a\n"), 0);
  EXPECT_EQ(LogMessage(err, 0, 0, nullptr, nullptr, nullptr, "sum", "not echoed\n"), 0);
  EXPECT_EQ(out.Take(), "Building: a\n");
}

TEST_F(JobLogTest, LogMessagePostsWithoutEchoUnderTypeTwo) {
  LoopbackListener server(wltest::ReplyWith(wltest::OkReply()));
  Register(2, server.Url("/weftlane/LogUpload"), "True");
  std::string err;
  CaptureStdout out;
  EXPECT_EQ(LogMessage(err, 1, 0, "x", "y", "z", nullptr, "compiling a.c\r\nok"), 0);
  EXPECT_EQ(out.Take(), "\n");
  const std::string body = Field("BuildComplete", "NO") + Field("JobName", "nightly build") +
                           Field("Owner", "builder") + Field("Machine", "bm01") +
                           Field("PublicBuildJob", "true\n") + Field("JobDateTime", "10-14-2020") +
                           Field("Type", "Information") + kDelim +
                           FileHead("D:\\tmp\\nightly build-bm01-10-14-2020-Detail.html") +
                           "compiling a.c\r\nok\r\n" + kClose + "\r\n";
  EXPECT_EQ(server.request(), JobLogHeader(server.port()) +
                                  "Content-Length: " + std::to_string(body.size()) + "\n\n" + body);
}

TEST_F(JobLogTest, LogMessageWithSummaryAndBothBits) {
  LoopbackListener server(wltest::ReplyWith(wltest::OkReply()));
  Register(3, server.Url("/weftlane/LogUpload"), "false");
  std::string err;
  CaptureStdout out;
  EXPECT_EQ(LogMessage(err, 1, 3 | 4, nullptr, nullptr, nullptr, "Build Job Complete: 0 errors",
                       "starting 'make'"),
            0);
  EXPECT_EQ(out.Take(), "starting 'make'\n");
  auto [head, body] = Split(server.request());
  EXPECT_EQ(body, Field("BuildComplete", "YES") + Field("JobName", "nightly build") +
                      Field("Owner", "builder") + Field("Machine", "bm01") +
                      Field("PublicBuildJob", "false\n") + Field("JobDateTime", "10-14-2020") +
                      Field("Type", "Error") + kDelim +
                      FileHead("D:\\tmp\\nightly build-bm01-10-14-2020-Summary.html") +
                      "Build Job Complete: 0 errors\r\n" + kDelim +
                      FileHead("D:\\tmp\\nightly build-bm01-10-14-2020-Detail.html") + kRule +
                      "starting 'make'\r\n" + kClose + "\r\n");
}

TEST_F(JobLogTest, LogMessageRefusedPrintsTheError) {
  wltest::RefusingPort refusing;
  Register(2, "http://127.0.0.1:" + std::to_string(refusing.port()) + "/weftlane/LogUpload");
  std::string err;
  CaptureStdout out;
  EXPECT_EQ(LogMessage(err, 1, 0, nullptr, nullptr, nullptr, nullptr, "d"), 1);
  EXPECT_EQ(out.Take(), err + "\n");
  EXPECT_TRUE(err.starts_with("ERROR 401: Could not connect to 127.0.0.1 on port ")) << err;
}

TEST(JobLogPieces, BuildCompleteMarker) {
  const std::pair<const char*, const char*> cases[] = {
      {"wl finished", "YES"},
      {"WL Finished with 2 warnings", "YES"},
      {"build job complete", "YES"},
      {"BUILD JOB COMPLETE.", "YES"},
      {"wl finishe", "NO"},
      {"build job", "NO"},
      {" wl finished", "NO"},
      {"", "NO"},
      {nullptr, "NO"},
  };
  for (const auto& [summary, marker] : cases) {
    EXPECT_STREQ(BuildCompleteMarker(summary), marker) << (summary ? summary : "(null)");
  }
}

TEST(JobLogPieces, MessageTypeName) {
  EXPECT_STREQ(MessageTypeName(0), "Information");
  EXPECT_STREQ(MessageTypeName(4), "Information");
  EXPECT_STREQ(MessageTypeName(1), "Error");
  EXPECT_STREQ(MessageTypeName(2), "Warning");
  EXPECT_STREQ(MessageTypeName(3), "Error");
  EXPECT_STREQ(MessageTypeName(6), "Warning");
}

TEST(JobLogPieces, UploadUrlFromServerBase) {
  const std::pair<const char*, const char*> cases[] = {
      {"http://server:8080/weftlane", "http://server:8080/weftlane/LogUpload"},
      {"http://server:8080/a/b/c", "http://server:8080/weftlane/LogUpload"},
      {"http://server:8080", "/weftlane/LogUpload"},
      {"http://", "/weftlane/LogUpload"},
      {"", "/weftlane/LogUpload"},
      {nullptr, "/weftlane/LogUpload"},
      {"abc/defgh/i", "abc/defgh/weftlane/LogUpload"},
      {"http://x/", "http://x/weftlane/LogUpload"},
  };
  for (const auto& [base, url] : cases)
    EXPECT_EQ(JobLogUploadUrl(base), url) << (base ? base : "(null)");
}

// --- HTTPPostHTML2 ---

class PostHtml2Test : public ::testing::Test {
 protected:
  void SetUp() override { ResetHTTPPostHTML2(); }
  void TearDown() override { ResetHTTPPostHTML2(); }

  JobLogRecord record_ = {};
  void Fill(const std::string& server, const char* summary, const char* detail, intptr_t type,
            intptr_t is_public = 1) {
    server_ = server;
    record_[kSlotServerUrl] = JobLogText(server_.c_str());
    record_[kSlotTaskName] = JobLogText("job");
    record_[kSlotMachine] = JobLogText("bm01");
    record_[kSlotJobDateTime] = JobLogText("10-14-2020");
    record_[kSlotOwner] = JobLogText("me");
    record_[kSlotSummary] = JobLogText(summary);
    record_[kSlotDetail] = JobLogText(detail);
    record_[kSlotPublic] = is_public;
    record_[kSlotMessageType] = type;
  }
  std::string server_;
};

std::string PostHtml2Header(uint16_t port) {
  return std::string("POST /weftlane/LogUpload HTTP/1.1\r\n") +
         "Host: 127.0.0.1:" + std::to_string(port) + "\n" + kAccept +
         "Accept-Language: en-us\r\n"
         "Connection: close\r\n"
         "Content-Type: multipart/form-data; boundary=---------------------------7d3cc298904e2\r\n"
         "Accept-Encoding: gzip, deflate\r\n"
         "User-Agent: Weftlane Logger 6.2\r\n";
}

std::string PostHtml2Fields(const char* marker, const char* is_public, const char* type) {
  return Field("BuildComplete", marker) + Field("JobName", "job") + Field("Owner", "me") +
         Field("Machine", "bm01") + Field("PublicBuildJob", is_public) + Field("BomReport", "") +
         Field("JobDateTime", "10-14-2020") + Field("Type", type) + kDelim;
}

TEST_F(PostHtml2Test, WholeRequestWithDetail) {
  wltest::ScopedEnv env("WEFTLANE_SERVER", "http://127.0.0.1:1/unused");
  LoopbackListener server(wltest::ReplyWith(wltest::OkReply()));
  Fill(server.Url("/weftlane/base"), nullptr, "plain detail", 2);
  std::string err = "stale";
  CaptureStdout out;
  EXPECT_EQ(HTTPPostHTML2(err, record_), 0);
  EXPECT_EQ(out.Take(), "");
  EXPECT_EQ(err, "");
  const std::string body = PostHtml2Fields("NO", "true", "Warning") +
                           FileHead("D:\\tmp\\job-bm01-10-14-2020-Detail.html") +
                           "plain detail\r\n" + kClose + "\r\n";
  EXPECT_EQ(server.request(), PostHtml2Header(server.port()) +
                                  "Content-Length: " + std::to_string(body.size()) + "\n\n" + body);
}

TEST_F(PostHtml2Test, SummaryWithoutDetailHasNoClosingLine) {
  wltest::ScopedEnv env("WEFTLANE_SERVER", "http://127.0.0.1:1/unused");
  LoopbackListener server(wltest::ReplyWith(wltest::OkReply()));
  Fill(server.Url("/x"), nullptr, nullptr, 4, 0);
  std::string err;
  EXPECT_EQ(HTTPPostHTML2(err, record_), 0);
  auto [head, body] = Split(server.request());
  EXPECT_EQ(body, PostHtml2Fields("NO", "false", "Information") +
                      FileHead("D:\\tmp\\job-bm01-10-14-2020-Summary.html") +
                      "Default Short Message\r\n" + kDelim + "\r\n");
}

TEST_F(PostHtml2Test, RuleLineCases) {
  wltest::ScopedEnv env("WEFTLANE_SERVER", "http://127.0.0.1:1/unused");
  struct Case {
    const char* detail;
    intptr_t type;
    bool rule;
  };
  const Case cases[] = {
      {"Building: x", 0, true},       {"ANALYZING: y", 0, true},     {"Starting 'z'", 0, true},
      {"now Creating lib", 0, true},  {"a Using script b", 0, true}, {"plain", 4, true},
      {"now creating lib", 0, false}, {"plain", 1, false},           {"Building:x", 0, false},
  };
  for (const auto& c : cases) {
    LoopbackListener server(wltest::ReplyWith(wltest::OkReply()));
    Fill(server.Url("/x"), "wl finished", c.detail, c.type);
    std::string err;
    EXPECT_EQ(HTTPPostHTML2(err, record_), 0) << c.detail;
    auto [head, body] = Split(server.request());
    const std::string detail_part = FileHead("D:\\tmp\\job-bm01-10-14-2020-Detail.html") +
                                    (c.rule ? kRule : "") + c.detail + "\r\n" + kClose + "\r\n";
    EXPECT_TRUE(body.ends_with(detail_part)) << c.detail << "\n" << body;
    EXPECT_TRUE(body.starts_with(Field("BuildComplete", "YES"))) << c.detail;
  }
}

TEST_F(PostHtml2Test, UrlFromEnvironmentThenFromDifferingSlot) {
  LoopbackListener first(wltest::ReplyWith(wltest::OkReply()), 1);
  LoopbackListener second(wltest::ReplyWith(wltest::OkReply()), 2);
  const std::string env_base = first.Url("/path/ignored");
  wltest::ScopedEnv env("WEFTLANE_SERVER", env_base);
  std::string err;
  // Slot equal to the environment: the URL derived from the environment.
  Fill(env_base, nullptr, "one", 0);
  EXPECT_EQ(HTTPPostHTML2(err, record_), 0) << err;
  // A differing slot replaces the URL ...
  Fill(second.Url("/other"), nullptr, "two", 0);
  EXPECT_EQ(HTTPPostHTML2(err, record_), 0) << err;
  // ... and it stays when the slot equals the environment again.
  Fill(env_base, nullptr, "three", 0);
  EXPECT_EQ(HTTPPostHTML2(err, record_), 0) << err;
  first.Join();
  second.Join();
  ASSERT_EQ(first.requests().size(), 1u);
  EXPECT_TRUE(first.requests()[0].starts_with(
      "POST /weftlane/LogUpload HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(first.port()) +
      "\n"));
  EXPECT_NE(first.requests()[0].find("\r\n\r\none\r\n"), std::string::npos);
  auto at_second = second.requests();
  ASSERT_EQ(at_second.size(), 2u);
  EXPECT_NE(at_second[0].find("\r\n\r\ntwo\r\n"), std::string::npos);
  EXPECT_NE(at_second[1].find("\r\n\r\nthree\r\n"), std::string::npos);
}

TEST_F(PostHtml2Test, BaseWithoutPathIsAnInvalidUrl) {
  wltest::ScopedEnv env("WEFTLANE_SERVER", "http://127.0.0.1:1");
  Fill("http://127.0.0.1:1", nullptr, "d", 0);
  std::string err;
  EXPECT_EQ(HTTPPostHTML2(err, record_), 1);
  EXPECT_EQ(err, "ERROR 404: Invalid URL /weftlane/LogUpload\n");
}

}  // namespace
