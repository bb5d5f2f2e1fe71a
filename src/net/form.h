#pragma once
// The multipart form that the report upload and the job log client post to
// the server's LogUpload service: fixed header lines, a fixed boundary, and
// builders for the parts. Pure text building, no I/O.
//
// The header block that HTTPPostHTML completes always ends with
// "Content-Length: %d\n\n" (two bare line feeds) although the lines before it
// end in "\r\n"; servers have read it that way for years, so it stays.

#include <string>

// Multipart boundary as declared in the Content-Type header.
inline constexpr char kFormBoundary[] = "---------------------------7d3cc298904e2";
// Line that opens every part (the boundary after two more hyphens).
inline constexpr char kFormDelimiterLine[] = "-----------------------------7d3cc298904e2\r\n";
// Line that ends the form.
inline constexpr char kFormClosingLine[] = "-----------------------------7d3cc298904e2--\r\n";

// Header lines, each with its line end.
inline constexpr char kUploadRequestLine[] = "POST /weftlane/LogUpload HTTP/1.1\r\n";
inline constexpr char kAcceptLine[] =
    "Accept: image/gif, image/x-xbitmap, image/jpeg, image/pjpeg, application/vnd.ms-excel, "
    "application/msword, application/pdf, application/x-shockwave-flash, */*\r\n";
inline constexpr char kAcceptLanguageLine[] = "Accept-Language: en-us\r\n";
inline constexpr char kConnectionCloseLine[] = "Connection: close\r\n";
inline constexpr char kFormContentTypeLine[] =
    "Content-Type: multipart/form-data; boundary=---------------------------7d3cc298904e2\r\n";
inline constexpr char kAcceptEncodingLine[] = "Accept-Encoding: gzip, deflate\r\n";
inline constexpr char kUserAgentLine[] = "User-Agent: Weftlane Logger 6.2\r\n";

// `text` with '"', CR and LF written as %22, %0D and %0A, as browsers write
// them in form names, so that no value or file name can end its quoting or
// its line early; every other byte is kept. A null text is taken as empty.
std::string FormEncoded(const char* text);

// "Host: <host>:<port>" followed by `line_end`.
std::string HostLine(const std::string& host, const std::string& port, const char* line_end);

// Append one form field: the delimiter line,
// "Content-Disposition: form-data; name=\"<name>\"\r\n", "\r\n", the value
// (FormEncoded) and "\r\n". A null value is taken as empty.
void AppendFormField(std::string& body, const char* name, const char* value);
// The same with the value as it is: for the fixed values whose line breaks
// are part of the wire format.
void AppendFormFieldVerbatim(std::string& body, const char* name, const char* value);

// Append the head of a file part, without the delimiter line before it:
// "Content-Disposition: form-data; name=\"mptest\"; filename=\"<filename>\"\r\n"
// (the file name FormEncoded),
// "Content-Type: text/html\r\n" and "\r\n". The content follows directly.
void AppendFilePartHead(std::string& body, const char* filename);

// The seven header lines of the report upload, in order: request line,
// Accept, Accept-Language, Content-Type, Accept-Encoding, User-Agent, and
// "Host: <host>:<port>\r\n". HTTPPostHTML adds the Content-Length line.
// With connection_close (the job log posts), "Connection: close\r\n" comes
// after Accept-Language.
std::string UploadHeader(const std::string& host, const std::string& port,
                         bool connection_close = false);

// The job fields of the report upload, in order: JobName, Owner, Machine,
// PublicBuildJob ("true" when public_flag is "true" in any letter case,
// otherwise "false"), JobDateTime. Null values are taken as empty.
void AppendUploadFields(std::string& body, const char* task_name, const char* owner,
                        const char* machine, const char* public_flag, const char* job_date_time);
