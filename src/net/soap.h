#pragma once
// SOAP log stream: one SOAP 1.1 setLog call to the build server whose
// message text is streamed in pieces, and one-shot posts of an XML document.
//
// Stream usage: LogMessageHeader opens the connection and sends the HTTP
// header and the document up to the opening tag of its Message element;
// LogMessageText sends message text (any number of calls); LogMessageFooter
// sends LogFooterText, reads the answer and closes. The job identity and the
// log type come from SetupJobInfo (net/joblog.h): log type 2 posts, 1 only
// echoes the text, 3 does both; with any other type the stream calls do
// nothing.
//
// Line breaks: wherever a text is sent "in pieces" below, it is cut at every
// "\r" and "\n" and the pieces are sent one after the other, so the line
// breaks themselves are dropped (LogMessageText sends "|" after each piece
// instead).
//
// Request header of HTTPPostSoapHeader, HTTPPostSoap2 and HTTPPost
// (net/transfer.h), each line exactly so, bare "\n" ends but one:
//   "POST <path> HTTP/1.1\n" (the path split from the URL by tcp_connect),
//   "Content-type: text/xml\n", "Connection: close\r\n",
//   "SOAPAction: \"\"\n", "Host: <host>:<port>\n" (port empty when the URL
//   names none), "User-Agent: Java1.3.0_01\n", "Content-Length: <n>\n", "\n".
// The stated length is one more than the counted body characters; see each
// call for what is counted and what is actually sent.
//
// Error text: as everywhere in net/ (see net/transport.h). Not thread-safe.

#include <cstddef>
#include <cstdint>
#include <string>

// Namespace URIs of the document.
inline constexpr char kSoapEnvelopeNs[] = "http://schemas.xmlsoap.org/soap/envelope/";
inline constexpr char kSoapEncodingNs[] = "http://schemas.xmlsoap.org/soap/encoding/";
inline constexpr char kXsd1999Ns[] = "http://www.w3.org/1999/XMLSchema";
inline constexpr char kXsi1999Ns[] = "http://www.w3.org/1999/XMLSchema-instance";
inline constexpr char kXsd2000Ns[] = "http://www.w3.org/2000/10/XMLSchema";
inline constexpr char kXsi2000Ns[] = "http://www.w3.org/2000/10/XMLSchema-instance";
// The log service's namespace (the ns0 prefix).
inline constexpr char kLogServiceNs[] = "urn:weftlane-log";

// Closing part of the stream's document, sent in pieces by LogMessageFooter
// and counted in the length LogMessageHeader states. Nothing in this library
// writes it, so it starts empty and the document goes out without its
// closing tags; a user of the library who wants them puts them here, e.g.
// "</Message></SOAP-ENV:Body></SOAP-ENV:Envelope>".
extern std::string LogFooterText;

// The request header described above, with Content-Length `stated`.
std::string SoapRequestHeader(const std::string& path, const std::string& host,
                              const std::string& port, long stated);
// Send `text` in pieces: every maximal run of characters other than "\r"
// and "\n", one after the other, each followed by `after` ("" for
// nothing). 0 when all was sent; -1 (errno from writen) at the first send
// that failed, the rest being left unsent.
int SendPieces(int fd, const char* text, const char* after);
// Characters of `text` that are neither "\r" nor "\n".
size_t CountWithoutLineBreaks(const char* text);

// The setLog document up to and including the opening tag of Message, for
// the registered job (myTaskName ... myPublicBuildJob of net/joblog.h).
// event_type is written as given; `now` is the DateTime text of the event.
// The job texts and the arguments are written with "&", "<" and ">" as
// entity references, so the document is well-formed XML up to the Message
// element whatever they contain; ordinary texts are written unchanged.
std::string LogMessageDocument(int32_t event_type, const char* detail_group, const char* source,
                               const char* event, const char* short_msg, const std::string& now);

// Open a stream: when log type is 2 or 3, build the document (event type
// with the bit of value 8 added when the bit of value 4 is clear; current
// local time from DateTime) and send it with HTTPPostSoapHeader to myURL,
// `message_length` being the bytes the caller will send with
// LogMessageText. `*fd_out` receives the connection (-1 when none could be
// made; `err` then says why) and is left untouched when nothing is posted.
// Always 0.
int LogMessageHeader(std::string& err, int32_t event_type, const char* detail_group,
                     const char* source, const char* event, const char* short_msg,
                     uint32_t message_length, int* fd_out);

// Stream message text: with log type 1 or 3 print it as it is; with 2 or 3
// send it in pieces, each followed by "|". Always 0 (the old result meant
// nothing).
int LogMessageText(int fd, const char* text);

// Close a stream: with log type 2 or 3, send LogFooterText in pieces, then
// "\n\n", read the answer to its end and drop it, close `fd` and return 0. With any other
// log type do nothing and return the log type.
int LogMessageFooter(int fd);

// Connect to `url`, send the request header and `xml` in pieces, and leave
// the connection open in `*fd_out` (-1 when the connection failed; the
// sends then fail silently and `err` holds the reason; a send that ran out
// of time is named in `err`). The stated length is
// 1 + the characters of LogFooterText + the characters of `xml` that are not
// line breaks + `extra_length`. Always 0.
int HTTPPostSoapHeader(std::string& err, const char* url, const char* xml, uint32_t extra_length,
                       int* fd_out);

// Post a whole XML document and return the whole answer (status line and
// headers included) as a new safe string that the caller releases with
// safe_free, or null when no answer came (no connection, or the server
// closed without a byte). With `raw` non-zero the document is sent as it is
// and every character is counted; with `raw` 0 it is sent in pieces and only
// characters other than line breaks are counted. The stated length is that
// count + 1, and "\n\n" follows the document, so one byte more than stated
// is sent (the old client did so). Answer lines are read to the answer's
// end (net/answer.h) with a limit of the document's length + 20 bytes and
// joined; each is taken up to its first NUL. A wait that ran out or a lost
// connection is named in `err`.
char* HTTPPostSoap2(std::string& err, const char* url, const char* xml, uint32_t raw);

// HTTPPostSoap2 with raw 0, answer dropped: 0 when an answer came, 1 when
// none did.
int HTTPPostSoap(std::string& err, const char* url, const char* xml);
