#include "net/soap.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <vector>

#include "net/answer.h"
#include "net/joblog.h"
#include "net/transport.h"
#include "support/paths.h"
#include "support/strings.h"

std::string LogFooterText;

namespace {

constexpr int32_t kFooterAnswerLine = 1024;
// Room the answer lines of HTTPPostSoap2 get beyond the document's length.
constexpr size_t kAnswerLineAllowance = 20;

bool Posting() { return myLogType == 2 || myLogType == 3; }

std::string Escaped(const char* text) {
  std::string out;
  for (const char* p = OrEmpty(text); *p; ++p) {
    switch (*p) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      default:
        out += *p;
    }
  }
  return out;
}

void AppendElement(std::string& doc, const char* name, const char* id, const char* type,
                   const std::string& content, bool close) {
  doc += "<";
  doc += name;
  doc += " id=\"";
  doc += id;
  doc += "\" xmlns:ns0=\"";
  doc += kLogServiceNs;
  for (const char* attribute : {"\" xsi2:type=\"xsd2:", "\" xsi:type=\"xsd2:"}) {
    doc += attribute;
    doc += type;
  }
  doc += "\">";
  doc += content;
  if (close) {
    doc += "</";
    doc += name;
    doc += ">";
  }
}

}  // namespace

std::string SoapRequestHeader(const std::string& path, const std::string& host,
                              const std::string& port, long stated) {
  return "POST " + path + " HTTP/1.1\n" + "Content-type: text/xml\n" + "Connection: close\r\n" +
         "SOAPAction: \"\"\n" + "Host: " + host + ":" + port + "\n" + "User-Agent: Java1.3.0_01\n" +
         "Content-Length: " + std::to_string(stated) + "\n" + "\n";
}

int SendPieces(int fd, const char* text, const char* after) {
  const size_t after_len = std::strlen(after);
  const char* p = OrEmpty(text);
  while (*p) {
    const size_t piece = std::strcspn(p, "\r\n");
    if (piece > 0) {
      if (WriteAll(fd, p, piece) != 0 || (after_len > 0 && WriteAll(fd, after, after_len) != 0))
        return -1;  // the rest would only fail as well
    }
    p += piece;
    while (*p == '\r' || *p == '\n')
      ++p;
  }
  return 0;
}

size_t CountWithoutLineBreaks(const char* text) {
  size_t n = 0;
  for (const char* p = OrEmpty(text); *p; ++p) {
    if (*p != '\r' && *p != '\n')
      ++n;
  }
  return n;
}

std::string LogMessageDocument(int32_t event_type, const char* detail_group, const char* source,
                               const char* event, const char* short_msg, const std::string& now) {
  std::string doc = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
  doc += std::string("<SOAP-ENV:Envelope xmlns:SOAP-ENV=\"") + kSoapEnvelopeNs + "\">";
  doc += std::string("<SOAP-ENV:Body SOAP-ENV:encodingStyle=\"") + kSoapEncodingNs +
         "\" xmlns:SOAP-ENC=\"" + kSoapEncodingNs + "\" xmlns:xsd=\"" + kXsd1999Ns +
         "\" xmlns:xsd2=\"" + kXsd2000Ns + "\" xmlns:xsi=\"" + kXsi1999Ns + "\" xmlns:xsi2=\"" +
         kXsi2000Ns + "\">";
  doc += std::string("<ns0:setLog xmlns:ns0=\"") + kLogServiceNs +
         "\"><Log href=\"#id13\"/></ns0:setLog>";
  AppendElement(doc, "BuildJobName", "id0", "string", Escaped(myTaskName.c_str()), true);
  AppendElement(doc, "Owner", "id1", "string", Escaped(myOwner.c_str()), true);
  AppendElement(doc, "Machine", "id2", "string", Escaped(myMachine.c_str()), true);
  AppendElement(doc, "DateTime", "id3", "string", Escaped(myJobDateTime.c_str()), true);
  AppendElement(doc, "PublicBuildJob", "id4", "boolean", Escaped(myPublicBuildJob.c_str()), true);
  AppendElement(doc, "EventType", "id5", "int", std::to_string(event_type), true);
  AppendElement(doc, "DetailGroup", "id14", "string", Escaped(detail_group), true);
  AppendElement(doc, "DateTime", "id6", "string", Escaped(now.c_str()), true);
  AppendElement(doc, "Source", "id7", "string", Escaped(source), true);
  AppendElement(doc, "Event", "id8", "string", Escaped(event), true);
  AppendElement(doc, "ShortMsg", "id9", "string", Escaped(short_msg), true);
  AppendElement(doc, "Message", "id10", "string", "", false);
  return doc;
}

int HTTPPostSoapHeader(std::string& err, const char* url, const char* xml, uint32_t extra_length,
                       int* fd_out) {
  std::string host;
  std::string port;
  std::string path;
  int fd = tcp_connect(err, OrEmpty(url), host, port, path);
  *fd_out = fd;
  const long counted = static_cast<long>(std::strlen(LogFooterText.c_str())) +
                       static_cast<long>(CountWithoutLineBreaks(xml)) +
                       static_cast<long>(extra_length);
  std::string header = SoapRequestHeader(path, host, port, counted + 1);
  // A failed connection makes the sends fail silently; a connection that
  // stops taking bytes is named.
  if (fd >= 0 &&
      (WriteAll(fd, header.data(), header.size()) != 0 || SendPieces(fd, OrEmpty(xml), "") != 0) &&
      errno == ETIMEDOUT) {
    err = SendError(ETIMEDOUT, "the log stream", PeerText(fd));
  }
  return 0;
}

int LogMessageHeader(std::string& err, int32_t event_type, const char* detail_group,
                     const char* source, const char* event, const char* short_msg,
                     uint32_t message_length, int* fd_out) {
  err.clear();
  const std::string now = DateTime(static_cast<int64_t>(std::time(nullptr)));
  if (!(event_type & 4))
    event_type |= 8;
  if (!Posting())
    return 0;
  const std::string doc =
      LogMessageDocument(event_type, detail_group, source, event, short_msg, now);
  return HTTPPostSoapHeader(err, myURL.c_str(), doc.c_str(), message_length, fd_out);
}

int LogMessageText(int fd, const char* text) {
  if (myLogType == 1 || myLogType == 3)
    std::fputs(OrEmpty(text), stdout);
  if (!Posting())
    return 0;
  (void)SendPieces(fd, OrEmpty(text), "|");  // as the old client, failures go unreported
  return 0;
}

int LogMessageFooter(int fd) {
  if (!Posting())
    return static_cast<int>(myLogType);
  if (SendPieces(fd, LogFooterText.c_str(), "") == 0)
    (void)writen(fd, "\n\n", 2);
  // Read to the answer's end and dropped; nobody is told of a failure here.
  AnswerReader answer(fd);
  std::vector<char> line(kFooterAnswerLine);
  while (answer.Line(line.data(), kFooterAnswerLine) > 0) {
  }
  if (fd >= 0)
    WLCleanUp(fd);
  return 0;
}

char* HTTPPostSoap2(std::string& err, const char* url, const char* xml, uint32_t raw) {
  std::string host;
  std::string port;
  std::string path;
  const char* doc = OrEmpty(xml);
  int fd = tcp_connect(err, OrEmpty(url), host, port, path);
  const size_t doc_len = std::strlen(doc);
  std::vector<char> work(doc_len + kAnswerLineAllowance, '\0');
  const size_t counted = raw ? doc_len : CountWithoutLineBreaks(doc);
  std::string header = SoapRequestHeader(path, host, port, static_cast<long>(counted) + 1);
  const std::string server = fd >= 0 ? PeerText(fd) : "";
  int sent = WriteAll(fd, header.data(), header.size());
  if (sent == 0)
    sent = raw ? WriteAll(fd, doc, doc_len) : SendPieces(fd, doc, "");
  if (sent == 0)
    sent = writen(fd, "\n\n", 2);
  const bool send_timed_out = sent != 0 && errno == ETIMEDOUT;

  // Joined in a std::string and copied once: appending every line to a safe
  // string would copy the whole answer again for each line.
  std::string answer;
  bool any = false;
  const int32_t limit = work.size() > INT32_MAX ? INT32_MAX : static_cast<int32_t>(work.size());
  if (fd >= 0) {
    if (send_timed_out) {
      err = SendError(ETIMEDOUT, "the SOAP request", server);
    } else {
      AnswerReader reader(fd);
      while (reader.Line(work.data(), limit) >= 1) {
        answer.append(work.data(), std::strlen(work.data()));
        any = true;
      }
      // Only waits that ran out and lost connections are named: the
      // answer itself goes back to the caller as it came.
      if (reader.TimedOut() || reader.error() != 0)
        err = AnswerError(reader, "the SOAP request", server);
    }
    WLCleanUp(fd);
  }
  char* result = nullptr;
  if (any)
    safe_cpy(&result, answer.c_str());
  return result;
}

int HTTPPostSoap(std::string& err, const char* url, const char* xml) {
  char* answer = HTTPPostSoap2(err, url, xml, 0);
  const int none = answer == nullptr ? 1 : 0;
  safe_free(&answer);
  return none;
}
