#include "net/joblog.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <optional>

#include "net/form.h"
#include "net/transport.h"
#include "support/paths.h"
#include "support/strings.h"

std::string myURL;
std::string myTaskName;
std::string myOwner;
std::string myMachine;
std::string myJobDateTime;
std::string myPublicBuildJob;
uint32_t myLogType = 0;

namespace {

constexpr char kFileNameBase[] = "D:\\tmp\\";
constexpr char kRuleLine[] = "<HR SIZE=1 WIDTH=30% ALIGN=LEFT>\r\n";

bool IsPublic(const std::string& flag) { return IsEqual(flag.c_str(), "true", 0) != 0; }

// Detail texts that open with one of these get the rule line before them.
bool StartsAsProgress(const char* detail) {
  return IsNEqual(detail, "Building: ", 10, 0) || IsNEqual(detail, "Analyzing: ", 11, 0) ||
         IsNEqual(detail, "Starting '", 10, 0);
}

void PrintLine(const std::string& text) { std::printf("%s\n", text.c_str()); }

// The JobName, Owner and Machine fields of the registered job.
void AppendJobFields(std::string& body) {
  AppendFormField(body, "JobName", myTaskName.c_str());
  AppendFormField(body, "Owner", myOwner.c_str());
  AppendFormField(body, "Machine", myMachine.c_str());
}

// End the last part, close the form, post it to myURL and print the error
// text (an empty line on success).
int PostJobForm(std::string& err, const std::string& host, const std::string& port,
                std::string& body) {
  body += "\r\n";
  body += kFormClosingLine;
  body += "\r\n";
  std::string header = UploadHeader(host, port, true);
  int result = HTTPPostHTML(err, myURL.c_str(), header, body.c_str());
  PrintLine(err);
  return result;
}

// Statics of HTTPPostHTML2.
std::optional<std::string> wl_server_env;
std::string URL;

}  // namespace

std::string JobKey(const std::string& task, const std::string& machine,
                   const std::string& date_time) {
  return task + "-" + machine + "-" + date_time;
}

const char* BuildCompleteMarker(const char* summary) {
  if (summary &&
      (IsNEqual(summary, "wl finished", 11, 0) || IsNEqual(summary, "build job complete", 18, 0))) {
    return "YES";
  }
  return "NO";
}

const char* MessageTypeName(uint32_t type) {
  if (type & kLogError)
    return "Error";
  if (type & kLogWarning)
    return "Warning";
  return "Information";
}

int SetupJobInfo(std::string& err, uint32_t log_type, const char* url, const char* task,
                 const char* owner, const char* machine, const char* date_time,
                 const char* public_flag) {
  std::string host;
  std::string port;
  getHostPort(err, OrEmpty(url), host, port);
  myLogType = log_type;
  myURL = OrEmpty(url);
  auto keep_if_given = [](std::string& global, const char* value) {
    if (value && *value)
      global = value;
  };
  keep_if_given(myTaskName, task);
  keep_if_given(myOwner, owner);
  keep_if_given(myMachine, machine);
  keep_if_given(myJobDateTime, date_time);
  keep_if_given(myPublicBuildJob, public_flag);
  if (!(log_type & 2))
    return 0;

  const std::string key = JobKey(myTaskName, myMachine, myJobDateTime);
  if ((log_type & 3) == 3) {
    std::string address = myURL;
    if (size_t cut = address.find("LogUpload"); cut != std::string::npos)
      address.resize(cut);
    address += "logs/";
    address += IsPublic(myPublicBuildJob) ? "public/" : myOwner + "/";
    address += key + "/" + key + "-Frame.html";
    ReplaceStr(address, " ", "%20", 1);
    std::puts("\n\nLog file will be available at:");
    std::printf(" %s\n", address.c_str());
  }

  std::string body;
  AppendJobFields(body);
  AppendFormField(body, "JobDateTime", myJobDateTime.c_str());
  AppendFormFieldVerbatim(body, "PublicBuildJob",
                          IsPublic(myPublicBuildJob) ? "true\r\n" : "false\r\n");
  body += kFormDelimiterLine;
  AppendFilePartHead(body, (kFileNameBase + key + "-Summary.html").c_str());
  return PostJobForm(err, host, port, body);
}

int LogMessage(std::string& err, int echo, uint32_t type, const char* /*unused1*/,
               const char* /*unused2*/, const char* /*unused3*/, const char* summary,
               const char* detail) {
  std::string host;
  std::string port;
  getHostPort(err, myURL.c_str(), host, port);
  // The old client formatted the time here and never used it.
  (void)DateTime(static_cast<int64_t>(std::time(nullptr)));
  if ((myLogType & 1) && echo)
    std::fputs(OrEmpty(detail), stdout);
  if (!(myLogType & 2))
    return 0;

  const std::string key = JobKey(myTaskName, myMachine, myJobDateTime);
  const char* summary_text = OrEmpty(summary);
  const char* detail_text = OrEmpty(detail);
  std::string body;
  body.reserve(std::strlen(summary_text) + std::strlen(detail_text) + 2000);
  AppendFormField(body, "BuildComplete", BuildCompleteMarker(summary));
  AppendJobFields(body);
  AppendFormFieldVerbatim(body, "PublicBuildJob", IsPublic(myPublicBuildJob) ? "true\n" : "false\n");
  AppendFormField(body, "JobDateTime", myJobDateTime.c_str());
  AppendFormField(body, "Type", MessageTypeName(type));
  body += kFormDelimiterLine;
  if (type & kLogHasSummary) {
    AppendFilePartHead(body, (kFileNameBase + key + "-Summary.html").c_str());
    body += summary_text;
    body += "\r\n";
    body += kFormDelimiterLine;
  }
  AppendFilePartHead(body, (kFileNameBase + key + "-Detail.html").c_str());
  if (StartsAsProgress(detail_text))
    body += kRuleLine;
  body += detail_text;
  return PostJobForm(err, host, port, body);
}

std::string JobLogUploadUrl(const char* base) {
  const std::string text = OrEmpty(base);
  size_t n = 0;
  if (text.size() > 7) {
    if (size_t slash = text.find('/', 7); slash != std::string::npos)
      n = slash;
  }
  return text.substr(0, n) + "/weftlane/LogUpload";
}

std::string JobLogRecordHead(const std::string& host, const std::string& port) {
  std::string header;
  header += kUploadRequestLine;
  header += HostLine(host, port, "\n");
  header += kAcceptLine;
  header += kAcceptLanguageLine;
  header += kConnectionCloseLine;
  header += kFormContentTypeLine;
  header += kAcceptEncodingLine;
  header += kUserAgentLine;
  return header;
}

std::string JobLogRecordBody(const intptr_t* record) {
  auto text = [record](int slot) { return reinterpret_cast<const char*>(record[slot]); };
  const std::string key = JobKey(OrEmpty(text(kSlotTaskName)), OrEmpty(text(kSlotMachine)),
                                 OrEmpty(text(kSlotJobDateTime)));
  const char* summary = text(kSlotSummary);
  const char* detail = text(kSlotDetail);
  const uint32_t type = static_cast<uint32_t>(record[kSlotMessageType]);
  std::string body;
  body.reserve((summary ? std::strlen(summary) : 0) + (detail ? std::strlen(detail) : 0) + 2000);
  AppendFormField(body, "BuildComplete", BuildCompleteMarker(summary));
  AppendFormField(body, "JobName", text(kSlotTaskName));
  AppendFormField(body, "Owner", text(kSlotOwner));
  AppendFormField(body, "Machine", text(kSlotMachine));
  AppendFormField(body, "PublicBuildJob", record[kSlotPublic] == 1 ? "true" : "false");
  AppendFormField(body, "BomReport", "");
  AppendFormField(body, "JobDateTime", text(kSlotJobDateTime));
  AppendFormField(body, "Type", MessageTypeName(type));
  body += kFormDelimiterLine;
  if (type & kLogHasSummary) {
    AppendFilePartHead(body, (kFileNameBase + key + "-Summary.html").c_str());
    body += summary ? summary : "Default Short Message";
    body += "\r\n";
    body += kFormDelimiterLine;
  }
  if (detail) {
    AppendFilePartHead(body, (kFileNameBase + key + "-Detail.html").c_str());
    if (StartsAsProgress(detail) || std::strstr(detail, "Creating ") ||
        std::strstr(detail, "Using script") || (type & kLogHasSummary)) {
      body += kRuleLine;
    }
    body += detail;
    body += "\r\n";
    body += kFormClosingLine;
  }
  body += "\r\n";
  return body;
}

int HTTPPostHTML2(std::string& err, const intptr_t* record) {
  if (!wl_server_env) {
    wl_server_env = OrEmpty(std::getenv("WEFTLANE_SERVER"));
    URL = JobLogUploadUrl(wl_server_env->c_str());
  }
  const char* server = OrEmpty(reinterpret_cast<const char*>(record[kSlotServerUrl]));
  if (!IsEqual(server, wl_server_env->c_str(), 1)) {
    // The old code derived it from a copy of the slot; the copy changes
    // nothing here.
    URL = JobLogUploadUrl(server);
  }
  // The "Host:" line carries the texts of tcp_connect's split: the port is
  // empty when the URL names none.
  std::string host;
  std::string port;
  std::string path;
  SplitConnectUrl(URL.c_str(), host, port, path);
  const std::string body = JobLogRecordBody(record);
  const std::string head = JobLogRecordHead(host, port) + ContentLengthLine(body.size());
  // The answer is read to its end and dropped; a lost connection or a wait
  // that ran out is left in `err`.
  return PostRequest(err, URL.c_str(), head, body, "the job log message").connected ? 0 : 1;
}

void ResetHTTPPostHTML2() {
  wl_server_env.reset();
  URL.clear();
}
