#include "net/form.h"

#include "support/strings.h"

std::string FormEncoded(const char* text) {
  std::string out;
  for (const char* p = OrEmpty(text); *p; ++p) {
    switch (*p) {
      case '"':
        out += "%22";
        break;
      case '\r':
        out += "%0D";
        break;
      case '\n':
        out += "%0A";
        break;
      default:
        out += *p;
    }
  }
  return out;
}

std::string HostLine(const std::string& host, const std::string& port, const char* line_end) {
  return "Host: " + host + ":" + port + line_end;
}

void AppendFormFieldVerbatim(std::string& body, const char* name, const char* value) {
  body += kFormDelimiterLine;
  body += "Content-Disposition: form-data; name=\"";
  body += name;
  body += "\"\r\n\r\n";
  body += OrEmpty(value);
  body += "\r\n";
}

void AppendFormField(std::string& body, const char* name, const char* value) {
  AppendFormFieldVerbatim(body, name, FormEncoded(value).c_str());
}

void AppendFilePartHead(std::string& body, const char* filename) {
  body += "Content-Disposition: form-data; name=\"mptest\"; filename=\"";
  body += FormEncoded(filename);
  body += "\"\r\nContent-Type: text/html\r\n\r\n";
}

std::string UploadHeader(const std::string& host, const std::string& port, bool connection_close) {
  std::string header;
  header += kUploadRequestLine;
  header += kAcceptLine;
  header += kAcceptLanguageLine;
  if (connection_close)
    header += kConnectionCloseLine;
  header += kFormContentTypeLine;
  header += kAcceptEncodingLine;
  header += kUserAgentLine;
  header += HostLine(host, port, "\r\n");
  return header;
}

void AppendUploadFields(std::string& body, const char* task_name, const char* owner,
                        const char* machine, const char* public_flag, const char* job_date_time) {
  AppendFormField(body, "JobName", task_name);
  AppendFormField(body, "Owner", owner);
  AppendFormField(body, "Machine", machine);
  AppendFormField(body, "PublicBuildJob",
                  IsEqual(OrEmpty(public_flag), "true", 0) ? "true" : "false");
  AppendFormField(body, "JobDateTime", job_date_time);
}
