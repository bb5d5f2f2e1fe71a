// Job log client: SetupJobInfo, LogMessage and HTTPPostHTML2 on the wire.

#include "net/joblog.h"

#include <gtest/gtest.h>

#include <string>

#include "testlib/net_fixtures.h"
#include "testlib/testlib.h"

namespace {

using namespace wltest;

const std::string kRule = "<HR SIZE=1 WIDTH=30% ALIGN=LEFT>\r\n";
const std::string kTmp = "D:\\tmp\\";

class JobLogTest : public ::testing::Test {
 protected:
  void SetUp() override { Register(0, "http://127.0.0.1:1/weftlane/LogUpload"); }
  void TearDown() override { ResetHTTPPostHTML2(); }
  // Register quietly with log type 1 (nothing posted), then set the type.
  static void Register(uint32_t log_type, const std::string& url, const char* pub = "true") {
    std::string err;
    SetupJobInfo(err, 1, url.c_str(), "nightly build", "builder", "bm01", "10-14-2020", pub);
    myLogType = log_type;
  }
};

TEST_F(JobLogTest, SetupJobInfoPostsTheOpeningFormAndPrintsTheAddress) {
  std::string err = "stale", printed;
  const std::string key = "my job-bm 01-10-14-2020 10_20_30";
  const std::string sent = Wire([&](const std::string& url) {
    CaptureStdout out;
    EXPECT_EQ(SetupJobInfo(err, 3, url.c_str(), "my job", "the owner", "bm 01",
                           "10-14-2020 10_20_30", "no"),
              0);
    const std::string esc = "my%20job-bm%2001-10-14-2020%2010_20_30";
    EXPECT_EQ(out.Take(), "\n\nLog file will be available at:\n " + url.substr(0, url.size() - 9) +
                              "logs/the%20owner/" + esc + "/" + esc + "-Frame.html\n\n");
  });
  EXPECT_EQ(err, "");
  EXPECT_EQ(sent,
            WithLength(FormHead(kJobLogHead),
                       Field("JobName", "my job") + Field("Owner", "the owner") +
                           Field("Machine", "bm 01") + Field("JobDateTime", "10-14-2020 10_20_30") +
                           Field("PublicBuildJob", "false\r\n") + kDelim +
                           FileHead(kTmp + key + "-Summary.html") + "\r\n" + kEnd + "\r\n"));
  EXPECT_EQ(myLogType, 3u);
  CaptureStdout out;
  EXPECT_EQ(SetupJobInfo(err, 1, "http://other/LogUpload", "", nullptr, "m2", "", nullptr), 0);
  EXPECT_EQ(out.Take() + myURL + myTaskName + myOwner + myMachine,
            "http://other/LogUploadmy jobthe ownerm2");
}

TEST_F(JobLogTest, LogMessageRequests) {
  const std::string fields =
      Field("JobName", "nightly build") + Field("Owner", "builder") + Field("Machine", "bm01");
  const std::string file = kTmp + "nightly build-bm01-10-14-2020-";
  std::string err;
  EXPECT_EQ(
      Wire([&](const std::string& url) {
        Register(2, url, "True");
        CaptureStdout out;
        EXPECT_EQ(LogMessage(err, 1, 0, "x", "y", "z", nullptr, "compiling a.c\r\nok"), 0);
        EXPECT_EQ(out.Take(), "\n");
      }),
      WithLength(FormHead(kJobLogHead),
                 Field("BuildComplete", "NO") + fields + Field("PublicBuildJob", "true\n") +
                     Field("JobDateTime", "10-14-2020") + Field("Type", "Information") + kDelim +
                     FileHead(file + "Detail.html") + "compiling a.c\r\nok\r\n" + kEnd + "\r\n"));
  EXPECT_EQ(Wire([&](const std::string& url) {
              Register(3, url, "false");
              CaptureStdout out;
              EXPECT_EQ(LogMessage(err, 1, 3 | 4, nullptr, nullptr, nullptr,
                                   "Build Job Complete: 0 errors", "starting 'make'"),
                        0);
              EXPECT_EQ(out.Take(), "starting 'make'\n");
            }),
            WithLength(FormHead(kJobLogHead),
                       Field("BuildComplete", "YES") + fields + Field("PublicBuildJob", "false\n") +
                           Field("JobDateTime", "10-14-2020") + Field("Type", "Error") + kDelim +
                           FileHead(file + "Summary.html") + "Build Job Complete: 0 errors\r\n" +
                           kDelim + FileHead(file + "Detail.html") + kRule + "starting 'make'\r\n" +
                           kEnd + "\r\n"));
  Register(1, "http://127.0.0.1:1/weftlane/LogUpload");
  CaptureStdout out;
  EXPECT_EQ(LogMessage(err, 1, 0, nullptr, nullptr, nullptr, "sum", "Building: a\n"), 0);
  EXPECT_EQ(LogMessage(err, 0, 0, nullptr, nullptr, nullptr, "sum", "not echoed\n"), 0);
  EXPECT_EQ(out.Take(), "Building: a\n");
}

TEST_F(JobLogTest, SetupAndLogMessageRefused) {
  RefusingPort refusing;
  std::string err;
  CaptureStdout out;
  EXPECT_EQ(
      SetupJobInfo(err, 2, refusing.Url("/weftlane/LogUpload").c_str(), "t", "o", "m", "d", "true"),
      1);
  EXPECT_EQ(LogMessage(err, 1, 0, nullptr, nullptr, nullptr, nullptr, "d"), 1);
  EXPECT_EQ(out.Take(), refusing.ConnectError() + "\n" + refusing.ConnectError() + "\n");
}

TEST(JobLog, BuildCompleteMarker) {
  for (const char* done : {"wl finished", "WL Finished with 2 warnings", "BUILD JOB COMPLETE."})
    EXPECT_STREQ(BuildCompleteMarker(done), "YES") << done;
  for (const char* open : {"wl finishe", " wl finished", "build job", "", (const char*)nullptr})
    EXPECT_STREQ(BuildCompleteMarker(open), "NO");
}

// --- HTTPPostHTML2 ---

class RecordTest : public JobLogTest {
 protected:
  void Fill(const std::string& server, const char* summary, const char* detail, intptr_t type,
            intptr_t is_public = 1) {
    server_ = server;
    const char* texts[] = {server_.c_str(), "job", "bm01", "10-14-2020", "me"};
    const int slots[] = {kSlotServerUrl, kSlotTaskName, kSlotMachine, kSlotJobDateTime, kSlotOwner};
    for (int i = 0; i < 5; ++i)
      record_[slots[i]] = JobLogText(texts[i]);
    record_[kSlotSummary] = JobLogText(summary);
    record_[kSlotDetail] = JobLogText(detail);
    record_[kSlotPublic] = is_public;
    record_[kSlotMessageType] = type;
  }
  // The request for one record posted to a loopback server.
  std::string Post(const char* summary, const char* detail, intptr_t type, intptr_t pub = 1) {
    return Wire([&](const std::string& url) {
      Fill(url, summary, detail, type, pub);
      std::string err;
      EXPECT_EQ(HTTPPostHTML2(err, record_), 0) << err;
    });
  }
  static std::string Fields(const char* marker, const char* pub, const char* type) {
    return Field("BuildComplete", marker) + Field("JobName", "job") + Field("Owner", "me") +
           Field("Machine", "bm01") + Field("PublicBuildJob", pub) + Field("BomReport", "") +
           Field("JobDateTime", "10-14-2020") + Field("Type", type) + kDelim;
  }
  JobLogRecord record_ = {};
  std::string server_;
  ScopedEnv env_{"WEFTLANE_SERVER", "http://127.0.0.1:1/unused"};
};

TEST_F(RecordTest, WholeRequests) {
  EXPECT_EQ(
      Post(nullptr, "plain detail", 2),
      WithLength(FormHead(kRecordHead), Fields("NO", "true", "Warning") +
                                            FileHead(kTmp + "job-bm01-10-14-2020-Detail.html") +
                                            "plain detail\r\n" + kEnd + "\r\n"));
  // A summary without detail: the default text and no closing line.
  EXPECT_EQ(
      Post(nullptr, nullptr, 4, 0),
      WithLength(FormHead(kRecordHead), Fields("NO", "false", "Information") +
                                            FileHead(kTmp + "job-bm01-10-14-2020-Summary.html") +
                                            "Default Short Message\r\n" + kDelim + "\r\n"));
}

TEST_F(RecordTest, RuleLineBeforeTheDetail) {
  const std::tuple<const char*, intptr_t, bool> cases[] = {
      {"Building: x", 0, true},       {"ANALYZING: y", 0, true},     {"Starting 'z'", 0, true},
      {"now Creating lib", 0, true},  {"a Using script b", 0, true}, {"plain", 4, true},
      {"now creating lib", 0, false}, {"plain", 1, false},           {"Building:x", 0, false},
  };
  for (const auto& [detail, type, rule] : cases) {
    EXPECT_TRUE(Post("wl finished", detail, type)
                    .ends_with(FileHead(kTmp + "job-bm01-10-14-2020-Detail.html") +
                               (rule ? kRule : "") + detail + "\r\n" + kEnd + "\r\n"))
        << detail;
  }
}

// The URL comes from WEFTLANE_SERVER once; a differing slot replaces it for
// good, and a slot naming no path makes it invalid.
TEST_F(RecordTest, UrlFromEnvironmentThenFromDifferingSlot) {
  LoopbackListener first(Reply(), 1), second(Reply(), 2);
  ScopedEnv env("WEFTLANE_SERVER", first.Url("/path/ignored"));
  std::string err;
  const std::pair<std::string, const char*> posts[] = {{first.Url("/path/ignored"), "one"},
                                                       {second.Url("/other"), "two"},
                                                       {first.Url("/path/ignored"), "three"}};
  for (const auto& [base, detail] : posts) {
    Fill(base, nullptr, detail, 0);
    EXPECT_EQ(HTTPPostHTML2(err, record_), 0) << err;
  }
  auto at_first = first.requests(), at_second = second.requests();
  ASSERT_EQ(at_first.size(), 1u);
  ASSERT_EQ(at_second.size(), 2u);
  EXPECT_TRUE(at_first[0].ends_with("\r\n\r\none\r\n" + kEnd + "\r\n"));
  EXPECT_TRUE(at_second[1].ends_with("\r\n\r\nthree\r\n" + kEnd + "\r\n"));
  ResetHTTPPostHTML2();
  ScopedEnv no_path("WEFTLANE_SERVER", "http://127.0.0.1:1");
  Fill("http://127.0.0.1:1", nullptr, "d", 0);
  EXPECT_EQ(HTTPPostHTML2(err, record_), 1);
  EXPECT_EQ(err, "ERROR 404: Invalid URL /weftlane/LogUpload\n");
}

}  // namespace
