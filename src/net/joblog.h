#pragma once
// Job log client: posts a build job's log to the server's LogUpload
// service, one message at a time, as multipart forms.
//
// Usage: call SetupJobInfo once to register the job (it remembers the job's
// identity and the upload URL in the module globals below and may post an
// opening form); then call LogMessage for each message. HTTPPostHTML2 is a
// self-contained variant that takes everything in one JobLogRecord and finds
// the server through the WEFTLANE_SERVER environment variable.
//
// Error text: as everywhere in net/ (see net/transport.h), the caller's
// `err` is cleared and, on a failure, holds one "ERROR nnn: ...\n" message.
//
// All three post "POST /weftlane/LogUpload HTTP/1.1" with the fixed header
// lines and multipart boundary of the report upload (net/form.h); the exact
// differences between them (line ends of the PublicBuildJob value, where
// the "Host:" line goes and how it ends) are part of the wire format and
// are described on each function.
//
// Not thread-safe: the module globals and the statics of HTTPPostHTML2 are
// shared, unguarded state.

#include <cstdint>
#include <string>

// Identity of the registered job, set by SetupJobInfo and read by
// LogMessage and the SOAP log stream (net/soap.h). The old client kept them
// in fixed buffers (1024, 256, 96, 96, 40 and 24 bytes); here they are
// std::string, so longer values are kept whole instead of overrunning.
extern std::string myURL;             // upload URL (ends in "LogUpload")
extern std::string myTaskName;        // job (task) name
extern std::string myOwner;           // job owner
extern std::string myMachine;         // machine label
extern std::string myJobDateTime;     // job date-time stamp
extern std::string myPublicBuildJob;  // "true" for a public job
// Log type bits: 1 = echo messages to standard output, 2 = post them to the
// server; 3 (both) also prints where the log can be read at setup.
extern uint32_t myLogType;

// Message type bits of LogMessage and HTTPPostHTML2.
inline constexpr uint32_t kLogError = 1;
inline constexpr uint32_t kLogWarning = 2;  // error wins when both are set
inline constexpr uint32_t kLogHasSummary = 4;

// "%s-%s-%s" of task name, machine and job date-time.
std::string JobKey(const std::string& task, const std::string& machine,
                   const std::string& date_time);
// "YES" when `summary` begins with "wl finished" or "build job complete"
// (IsNEqual, any letter case), otherwise (and for null) "NO".
const char* BuildCompleteMarker(const char* summary);
// "Error", "Warning" or "Information" for message type bits.
const char* MessageTypeName(uint32_t type);

// Register the job and, when log type bit 2 is set, post an opening form.
//   - err: error text (see above). The URL is split first with getHostPort
//     into this same text, so a URL without "//" leaves its ERROR 404 there
//     even when nothing is posted.
//   - log_type: stored in myLogType. url: stored in myURL (null as "").
//   - task, owner, machine, date_time, public_flag: each stored only when
//     present and not empty; otherwise the global keeps its earlier value.
// With both log type bits set, prints "\n\nLog file will be available at:"
// and " <address>" as lines, the address being the URL cut where
// "LogUpload" begins (the whole URL when it has none), "logs/", "public/"
// for a public job or "<owner>/", then "<key>/<key>-Frame.html", with every
// blank written as "%20".
// The form: JobName, Owner, Machine, JobDateTime, PublicBuildJob (value
// "true\r\n" or "false\r\n", so the part carries an extra line break), an
// empty file part "D:\tmp\<key>-Summary.html", the closing boundary and
// "\r\n". After the post, prints `err` as a line (an empty line after
// success).
// Result: 0 when nothing was posted; otherwise that of HTTPPostHTML (0 sent,
// 1 no connection).
int SetupJobInfo(std::string& err, uint32_t log_type, const char* url, const char* task,
                 const char* owner, const char* machine, const char* date_time,
                 const char* public_flag);

// Echo and/or post one message of the registered job.
//   - echo: with log type bit 1 and a non-zero echo, `detail` is printed as
//     it is (no line break added).
//   - type: message type bits (kLogError, kLogWarning, kLogHasSummary).
//   - unused1..unused3: not looked at; they keep the old call's shape.
//   - summary: content of the summary file part (sent only with
//     kLogHasSummary); also decides the BuildComplete marker. May be null.
//   - detail: content of the detail file part. May be null (sent empty).
// Nothing is posted unless log type bit 2 is set (result 0). The form:
// BuildComplete, JobName, Owner, Machine, PublicBuildJob (value "true\n" or
// "false\n", a bare line feed), JobDateTime, Type, a boundary line; with
// kLogHasSummary the file part "D:\tmp\<key>-Summary.html" with `summary`,
// "\r\n" and a boundary line; then the file part "D:\tmp\<key>-Detail.html"
// with, when `detail` begins with "Building: ", "Analyzing: " or
// "Starting '" (any letter case), the rule line
// "<HR SIZE=1 WIDTH=30% ALIGN=LEFT>\r\n" first, then `detail`, "\r\n", the
// closing boundary and "\r\n". Prints `err` as a line after the post.
// Result as SetupJobInfo.
int LogMessage(std::string& err, int echo, uint32_t type, const char* unused1, const char* unused2,
               const char* unused3, const char* summary, const char* detail);

// Slots of the JobLogRecord that HTTPPostHTML2 takes: pointer-sized
// integers; text slots hold a `const char*` (see JobLogText), flag slots a
// plain integer. Slots not named here are not used.
inline constexpr int kJobLogSlots = 15;
using JobLogRecord = intptr_t[kJobLogSlots];
inline constexpr int kSlotServerUrl = 1;     // text: server base URL
inline constexpr int kSlotTaskName = 2;      // text
inline constexpr int kSlotMachine = 3;       // text
inline constexpr int kSlotJobDateTime = 4;   // text
inline constexpr int kSlotOwner = 5;         // text
inline constexpr int kSlotSummary = 8;       // text, may be 0 (absent)
inline constexpr int kSlotDetail = 9;        // text, may be 0 (absent)
inline constexpr int kSlotPublic = 12;       // integer: 1 = public job
inline constexpr int kSlotMessageType = 14;  // integer: message type bits
inline intptr_t JobLogText(const char* text) { return reinterpret_cast<intptr_t>(text); }

// The upload URL derived from a server base: its first n characters, n being
// the position of the first "/" after the first 7 characters (0 when there
// is none), followed by "/weftlane/LogUpload". So a base with a path keeps
// only scheme, host and port, and a base without "/" after its first 7
// characters gives just "/weftlane/LogUpload" (which the transport then
// refuses as an invalid URL).
std::string JobLogUploadUrl(const char* base);

// Post one message from a JobLogRecord (`record` points at kJobLogSlots
// slots). On the first call WEFTLANE_SERVER is read from the environment and
// kept for the life of the process (unset counts as empty), and the upload
// URL is derived from it with JobLogUploadUrl; whenever the record's server
// slot differs from that kept value (case-sensitive), the URL is derived from
// the slot instead, and it stays so until another differing slot replaces
// it. The header lines are those of LogMessage with the "Host:" line second,
// ending in a bare "\n", with host and port as tcp_connect split them (port
// empty when the URL names none); then "Content-Length: %d\n\n". The form:
// BuildComplete, JobName, Owner, Machine, PublicBuildJob ("true" or
// "false"), BomReport (empty), JobDateTime, Type, a boundary line; with
// kLogHasSummary the summary part (the summary slot, or "Default Short
// Message" when absent), "\r\n" and a boundary line; with a detail slot the
// detail part (rule line also when the text contains "Creating " or "Using
// script", or the message has a summary), the text, "\r\n" and the closing
// boundary, and without one no closing boundary at all; then "\r\n".
// The answer is read to its end and dropped (PostRequest, net/transport.h;
// a wait that ran out or a lost connection is left in `err`). Prints
// nothing. Result: 0 when a connection was made, 1 when none was (`err`
// holds the reason).
int HTTPPostHTML2(std::string& err, const intptr_t* record);

// The request of HTTPPostHTML2 without its Content-Length line: the header
// lines for `host` and `port`, and the form body for `record`.
std::string JobLogRecordHead(const std::string& host, const std::string& port);
std::string JobLogRecordBody(const intptr_t* record);

// Forget the WEFTLANE_SERVER value and URL that HTTPPostHTML2 keeps, so the
// next call reads the environment again. For tests; the old client had no
// such call.
void ResetHTTPPostHTML2();
