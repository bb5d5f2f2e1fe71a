// Job log client: SetupJobInfo, LogMessage and HTTPPostHTML2 on the wire.

#include "net/joblog.h"

#include <gtest/gtest.h>

#include "testlib/net_fixtures.h"

namespace {

using namespace wltest;

const std::string kRule = "<HR SIZE=1 WIDTH=30% ALIGN=LEFT>\r\n", kTmp = "D:\\tmp\\";

class JobLogTest : public ::testing::Test {
 protected:
  void TearDown() override { ResetHTTPPostHTML2(); }
  // Register quietly with log type 1 (nothing posted), then set the type.
  static void Register(uint32_t log_type, const std::string& url, const char* pub = "true") {
    std::string err;
    SetupJobInfo(err, 1, url.c_str(), "nightly build", "builder", "bm01", "10-14-2020", pub);
    myLogType = log_type;
  }
  // LogMessage to a loopback server under log type `type`: the request.
  static std::string Message(uint32_t log_type, const char* pub, uint32_t type, const char* summary,
                             const char* detail, const std::string& printed) {
    return Wire([&](const std::string& url) {
      Register(log_type, url, pub);
      std::string err;
      CaptureStdout out;
      EXPECT_EQ(LogMessage(err, 1, type, "x", "y", "z", summary, detail), 0);
      EXPECT_EQ(out.Take(), printed);
    });
  }
};

TEST_F(JobLogTest, SetupJobInfoPostsTheOpeningFormAndPrintsTheAddress) {
  std::string err = "stale";
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
                           FileHead(kTmp + "my job-bm 01-10-14-2020 10_20_30-Summary.html") +
                           "\r\n" + kEnd + "\r\n"));
}

TEST_F(JobLogTest, LogMessageRequests) {
  const std::string fields =
      Field("JobName", "nightly build") + Field("Owner", "builder") + Field("Machine", "bm01");
  const std::string file = kTmp + "nightly build-bm01-10-14-2020-";
  EXPECT_EQ(Message(3, "false", 3 | 4, "Build Job Complete: 0 errors", "starting 'make'",
                    "starting 'make'\n"),
            WithLength(FormHead(kJobLogHead),
                       Field("BuildComplete", "YES") + fields + Field("PublicBuildJob", "false\n") +
                           Field("JobDateTime", "10-14-2020") + Field("Type", "Error") + kDelim +
                           FileHead(file + "Summary.html") + "Build Job Complete: 0 errors\r\n" +
                           kDelim + FileHead(file + "Detail.html") + kRule + "starting 'make'\r\n" +
                           kEnd + "\r\n"));
  RefusingPort refusing;
  std::string err;
  CaptureStdout out;
  EXPECT_EQ(SetupJobInfo(err, 2, refusing.Url("/w/LogUpload").c_str(), "t", "o", "m", "d", ""), 1);
  EXPECT_EQ(LogMessage(err, 0, 0, nullptr, nullptr, nullptr, nullptr, "d"), 1);
  EXPECT_EQ(out.Take(), refusing.ConnectError() + "\n" + refusing.ConnectError() + "\n");
}

// --- HTTPPostHTML2 ---

class RecordTest : public JobLogTest {
 protected:
  // The request of one record posted to a loopback server.
  static std::string Post(const char* summary, const char* detail, intptr_t type, intptr_t pub) {
    return Wire([&](const std::string& url) {
      JobLogRecord r = {};  // slots 1 to 5: server, task, machine, date-time, owner
      const char* texts[] = {url.c_str(), "job", "bm01", "10-14-2020", "me"};
      for (int slot = kSlotServerUrl; slot <= kSlotOwner; ++slot)
        r[slot] = JobLogText(texts[slot - kSlotServerUrl]);
      r[kSlotSummary] = JobLogText(summary);
      r[kSlotDetail] = JobLogText(detail);
      r[kSlotPublic] = pub;
      r[kSlotMessageType] = type;
      std::string err;
      EXPECT_EQ(HTTPPostHTML2(err, r), 0) << err;
    });
  }
  ScopedEnv env_{"WEFTLANE_SERVER", "http://127.0.0.1:1/unused"};
};

TEST_F(RecordTest, WholeRequests) {
  // A summary without detail: the default text and no closing line.
  EXPECT_EQ(Post(nullptr, nullptr, 4, 0),
            WithLength(FormHead(kRecordHead),
                       Field("BuildComplete", "NO") + Field("JobName", "job") +
                           Field("Owner", "me") + Field("Machine", "bm01") +
                           Field("PublicBuildJob", "false") + Field("BomReport", "") +
                           Field("JobDateTime", "10-14-2020") + Field("Type", "Information") +
                           kDelim + FileHead(kTmp + "job-bm01-10-14-2020-Summary.html") +
                           "Default Short Message\r\n" + kDelim + "\r\n"));
  const std::tuple<const char*, intptr_t, bool> rules[] = {
      {"Building: x", 0, true},       {"ANALYZING: y", 0, true},     {"Starting 'z'", 0, true},
      {"now Creating lib", 0, true},  {"a Using script b", 0, true}, {"plain", 4, true},
      {"now creating lib", 0, false}, {"plain", 1, false},           {"Building:x", 0, false},
  };
  for (const auto& [detail, type, rule] : rules) {
    EXPECT_TRUE(
        Post("s", detail, type, 1).ends_with((rule ? kRule : "") + detail + "\r\n" + kEnd + "\r\n"))
        << detail;
  }
}

}  // namespace
