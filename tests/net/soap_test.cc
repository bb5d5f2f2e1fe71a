// SOAP log stream and one-shot SOAP posts on the wire.

#include "net/soap.h"

#include <gtest/gtest.h>

#include <regex>
#include <string>

#include "net/joblog.h"
#include "net/transport.h"
#include "support/strings.h"
#include "testlib/net_fixtures.h"
#include "testlib/testlib.h"

namespace {

using wltest::CaptureStdout;
using wltest::LoopbackListener;

const char kAnswer[] = "HTTP/1.1 200 OK\r\nContent-Type: text/xml\r\n\r\n<ok/>\n";

std::string SoapHeader(const std::string& path, uint16_t port, long stated) {
  return "POST " + path +
         " HTTP/1.1\n"
         "Content-type: text/xml\n"
         "Connection: close\r\n"
         "SOAPAction: \"\"\n"
         "Host: 127.0.0.1:" +
         std::to_string(port) +
         "\n"
         "User-Agent: Java1.3.0_01\n"
         "Content-Length: " +
         std::to_string(stated) + "\n\n";
}

const char kExpectedDocument[] =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<SOAP-ENV:Envelope xmlns:SOAP-ENV=\"http://schemas.xmlsoap.org/soap/envelope/\">"
    "<SOAP-ENV:Body SOAP-ENV:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\" "
    "xmlns:SOAP-ENC=\"http://schemas.xmlsoap.org/soap/encoding/\" "
    "xmlns:xsd=\"http://www.w3.org/1999/XMLSchema\" "
    "xmlns:xsd2=\"http://www.w3.org/2000/10/XMLSchema\" "
    "xmlns:xsi=\"http://www.w3.org/1999/XMLSchema-instance\" "
    "xmlns:xsi2=\"http://www.w3.org/2000/10/XMLSchema-instance\">"
    "<ns0:setLog xmlns:ns0=\"urn:weftlane-log\"><Log href=\"#id13\"/></ns0:setLog>"
    "<BuildJobName id=\"id0\" xmlns:ns0=\"urn:weftlane-log\" xsi2:type=\"xsd2:string\" "
    "xsi:type=\"xsd2:string\">job</BuildJobName>"
    "<Owner id=\"id1\" xmlns:ns0=\"urn:weftlane-log\" xsi2:type=\"xsd2:string\" "
    "xsi:type=\"xsd2:string\">me</Owner>"
    "<Machine id=\"id2\" xmlns:ns0=\"urn:weftlane-log\" xsi2:type=\"xsd2:string\" "
    "xsi:type=\"xsd2:string\">bm01</Machine>"
    "<DateTime id=\"id3\" xmlns:ns0=\"urn:weftlane-log\" xsi2:type=\"xsd2:string\" "
    "xsi:type=\"xsd2:string\">10-14-2020</DateTime>"
    "<PublicBuildJob id=\"id4\" xmlns:ns0=\"urn:weftlane-log\" xsi2:type=\"xsd2:boolean\" "
    "xsi:type=\"xsd2:boolean\">true</PublicBuildJob>"
    "<EventType id=\"id5\" xmlns:ns0=\"urn:weftlane-log\" xsi2:type=\"xsd2:int\" "
    "xsi:type=\"xsd2:int\">9</EventType>"
    "<DetailGroup id=\"id14\" xmlns:ns0=\"urn:weftlane-log\" xsi2:type=\"xsd2:string\" "
    "xsi:type=\"xsd2:string\">grp</DetailGroup>"
    "<DateTime id=\"id6\" xmlns:ns0=\"urn:weftlane-log\" xsi2:type=\"xsd2:string\" "
    "xsi:type=\"xsd2:string\">10/14/2020 09:05:00</DateTime>"
    "<Source id=\"id7\" xmlns:ns0=\"urn:weftlane-log\" xsi2:type=\"xsd2:string\" "
    "xsi:type=\"xsd2:string\">src</Source>"
    "<Event id=\"id8\" xmlns:ns0=\"urn:weftlane-log\" xsi2:type=\"xsd2:string\" "
    "xsi:type=\"xsd2:string\">ev</Event>"
    "<ShortMsg id=\"id9\" xmlns:ns0=\"urn:weftlane-log\" xsi2:type=\"xsd2:string\" "
    "xsi:type=\"xsd2:string\">short</ShortMsg>"
    "<Message id=\"id10\" xmlns:ns0=\"urn:weftlane-log\" xsi2:type=\"xsd2:string\" "
    "xsi:type=\"xsd2:string\">";

class SoapTest : public ::testing::Test {
 protected:
  void SetUp() override { Register(2, "http://127.0.0.1:1/weftlane/LogUpload"); }
  void TearDown() override {
    LogFooterText.clear();
    myLogType = 0;
  }
  static void Register(uint32_t log_type, const std::string& url) {
    std::string err;
    SetupJobInfo(err, 1, url.c_str(), "job", "me", "bm01", "10-14-2020", "true");
    myLogType = log_type;
  }
};

TEST_F(SoapTest, DocumentUpToMessageElement) {
  EXPECT_EQ(LogMessageDocument(9, "grp", "src", "ev", "short", "10/14/2020 09:05:00"),
            kExpectedDocument);
}

TEST_F(SoapTest, DocumentEscapesMarkupInTexts) {
  myTaskName = "a<b>&c";
  std::string doc = LogMessageDocument(4, "x&y", "<s>", "e", "m", "now");
  EXPECT_NE(doc.find(">a&lt;b&gt;&amp;c</BuildJobName>"), std::string::npos);
  EXPECT_NE(doc.find(">x&amp;y</DetailGroup>"), std::string::npos);
  EXPECT_NE(doc.find(">&lt;s&gt;</Source>"), std::string::npos);
  EXPECT_NE(doc.find(">4</EventType>"), std::string::npos);
}

// An XML parser nobody here wrote, with namespace processing on, accepts the
// document once the open elements are closed.
TEST_F(SoapTest, DocumentIsWellFormedWithNamespaces) {
  if (!wltest::OnPath("python3"))
    GTEST_SKIP() << "python3 is not on PATH";
  wltest::TempDir dir;
  myTaskName = "tricky <&> job";
  wltest::WriteFile(dir / "doc.xml",
                    LogMessageDocument(1, "g", "s", "e", "m", "01/01/1970 00:00:01") +
                        "text</Message></SOAP-ENV:Body></SOAP-ENV:Envelope>");
  const char kScript[] =
      "import sys, xml.sax\n"
      "class H(xml.sax.handler.ContentHandler):\n"
      "    def __init__(self): self.names = []; self.text = {}\n"
      "    def startElementNS(self, name, qname, attrs): self.names.append(name)\n"
      "h = H()\n"
      "p = xml.sax.make_parser()\n"
      "p.setFeature(xml.sax.handler.feature_namespaces, True)\n"
      "p.setContentHandler(h)\n"
      "p.parse(sys.argv[1])\n"
      "print(' '.join('%s|%s' % n for n in h.names[:3]))\n"
      "print(len(h.names))\n";
  auto r = wltest::RunProgram(
      {"/bin/sh", "-c", "exec python3 -c \"$0\" \"$1\"", kScript, dir / "doc.xml"},
      {{"PATH", std::getenv("PATH") ? std::getenv("PATH") : "/usr/bin:/bin"}}, dir.path(), 60);
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out,
            "http://schemas.xmlsoap.org/soap/envelope/|Envelope "
            "http://schemas.xmlsoap.org/soap/envelope/|Body urn:weftlane-log|setLog\n"
            "16\n");
}

// Runs a whole stream against a loopback server and returns the request.
std::string Stream(LoopbackListener& server, int32_t event_type, uint32_t message_length,
                   const std::vector<std::string>& texts, std::string* err_out = nullptr,
                   int* footer_result = nullptr) {
  myURL = server.Url("/weftlane/LogUpload");
  std::string err;
  int fd = -7;
  EXPECT_EQ(LogMessageHeader(err, event_type, "grp", "src", "ev", "short", message_length, &fd), 0);
  EXPECT_EQ(err, "");
  EXPECT_GE(fd, 0);
  for (const auto& t : texts)
    EXPECT_EQ(LogMessageText(fd, t.c_str()), 0);
  int result = LogMessageFooter(fd);
  if (footer_result)
    *footer_result = result;
  if (err_out)
    *err_out = err;
  return server.request();
}

// The document as sent: line breaks dropped, the DateTime of the event taken
// from what arrived.
std::string SentDocument(const std::string& request, int32_t event_type) {
  std::smatch m;
  std::regex date(
      "id=\"id6\"[^>]*>([0-9]{2}/[0-9]{2}/[0-9]{4} [0-9]{2}:[0-9]{2}:[0-9]{2})</DateTime>");
  if (!std::regex_search(request, m, date)) {
    ADD_FAILURE() << "no event DateTime in\n" << request;
    return "";
  }
  std::string doc = LogMessageDocument(event_type, "grp", "src", "ev", "short", m[1].str());
  std::string sent;
  for (char c : doc) {
    if (c != '\r' && c != '\n')
      sent += c;
  }
  return sent;
}

TEST_F(SoapTest, StreamBytesOnTheWire) {
  LoopbackListener server(wltest::ReplyAfterTail("|\n\n", kAnswer));
  int footer = -1;
  std::string request = Stream(server, 1, 4, {"a\r\nb"}, nullptr, &footer);
  EXPECT_EQ(footer, 0);
  std::string doc = SentDocument(request, 9);
  ASSERT_FALSE(doc.empty());
  // Stated: footer (0) + document characters without line breaks + 4, plus 1.
  EXPECT_EQ(request,
            SoapHeader("/weftlane/LogUpload", server.port(), static_cast<long>(doc.size()) + 5) +
                doc + "a|b|" + "\n\n");
}

TEST_F(SoapTest, StreamWithFooterTextAndSeveralPieces) {
  LogFooterText = "</Message>\r\n</SOAP-ENV:Body></SOAP-ENV:Envelope>";
  LoopbackListener server(wltest::ReplyAfterTail("Envelope>\n\n", kAnswer));
  std::string request = Stream(server, 5, 10, {"one\n\ntwo\n", "", "three"});
  std::string doc = SentDocument(request, 5);
  // The footer counts with its line break (48 characters) but goes out
  // without it.
  EXPECT_EQ(request, SoapHeader("/weftlane/LogUpload", server.port(),
                                48 + static_cast<long>(doc.size()) + 10 + 1) +
                         doc + "one|two|three|</Message></SOAP-ENV:Body></SOAP-ENV:Envelope>\n\n");
}

TEST_F(SoapTest, EventTypeGetsBitEightUnlessBitFourIsSet) {
  const std::pair<int32_t, const char*> cases[] = {
      {1, ">9<"}, {4, ">4<"}, {5, ">5<"}, {0, ">8<"}, {8, ">8<"}};
  for (const auto& [given, written] : cases) {
    LoopbackListener server(wltest::ReplyAfterTail("x|\n\n", kAnswer));
    std::string request = Stream(server, given, 1, {"x"});
    std::regex type("id=\"id5\"[^>]*(>[0-9]+<)/EventType>");
    std::smatch m;
    ASSERT_TRUE(std::regex_search(request, m, type)) << given;
    EXPECT_EQ(m[1].str(), written) << given;
  }
}

TEST_F(SoapTest, EchoOnlyTypeSendsNothing) {
  myLogType = 1;
  std::string err = "stale";
  int fd = 12345;
  EXPECT_EQ(LogMessageHeader(err, 1, "g", "s", "e", "m", 3, &fd), 0);
  EXPECT_EQ(err, "");
  EXPECT_EQ(fd, 12345);
  CaptureStdout out;
  EXPECT_EQ(LogMessageText(fd, "a\r\nb"), 0);
  EXPECT_EQ(LogMessageFooter(fd), 1);
  EXPECT_EQ(out.Take(), "a\r\nb");
}

TEST_F(SoapTest, OtherTypesDoNothing) {
  for (uint32_t type : {0u, 4u, 7u}) {
    myLogType = type;
    std::string err;
    int fd = 12345;
    EXPECT_EQ(LogMessageHeader(err, 1, "g", "s", "e", "m", 3, &fd), 0);
    EXPECT_EQ(fd, 12345);
    CaptureStdout out;
    EXPECT_EQ(LogMessageText(fd, "text"), 0);
    EXPECT_EQ(LogMessageFooter(fd), static_cast<int>(type));
    EXPECT_EQ(out.Take(), "");
  }
}

TEST_F(SoapTest, BothBitsEchoAndSend) {
  myLogType = 3;
  LoopbackListener server(wltest::ReplyAfterTail("b|\n\n", kAnswer));
  CaptureStdout out;
  std::string request = Stream(server, 4, 2, {"a\nb"});
  EXPECT_EQ(out.Take(), "a\nb");
  EXPECT_TRUE(request.ends_with("a|b|\n\n"));
}

TEST_F(SoapTest, StreamWithoutServer) {
  wltest::RefusingPort refusing;
  myURL = "http://127.0.0.1:" + std::to_string(refusing.port()) + "/weftlane/LogUpload";
  std::string err;
  int fd = 12345;
  EXPECT_EQ(LogMessageHeader(err, 1, "g", "s", "e", "m", 3, &fd), 0);
  EXPECT_EQ(fd, -1);
  EXPECT_EQ(err, "ERROR 401: Could not connect to 127.0.0.1 on port " +
                     std::to_string(refusing.port()) + "\n");
  EXPECT_EQ(LogMessageText(fd, "abc"), 0);
  EXPECT_EQ(LogMessageFooter(fd), 0);
}

TEST(HTTPPostSoapHeader, LeavesTheConnectionOpen) {
  LoopbackListener server(wltest::ReplyAfterTail("more", kAnswer));
  std::string err;
  int fd = -7;
  EXPECT_EQ(HTTPPostSoapHeader(err, server.Url("/svc").c_str(), "<a>\r\n<b/></a>", 6, &fd), 0);
  ASSERT_GE(fd, 0) << err;
  EXPECT_EQ(writen(fd, "more", 4), 0);
  char line[256];
  EXPECT_EQ(readline(fd, line, sizeof line), 17);
  EXPECT_STREQ(line, "HTTP/1.1 200 OK\r\n");
  WLCleanUp(fd);
  EXPECT_EQ(server.request(), SoapHeader("/svc", server.port(), 11 + 6 + 1) + "<a><b/></a>more");
}

TEST(HTTPPostSoapHeader, UrlWithoutPortOrPath) {
  std::string err;
  int fd = -7;
  EXPECT_EQ(HTTPPostSoapHeader(err, "nowhere", "<a/>", 0, &fd), 0);
  EXPECT_EQ(fd, -1);
  EXPECT_EQ(err, "ERROR 404: Invalid URL nowhere\n");
}

TEST(HTTPPostSoap2, PiecesCountAndAnswer) {
  LoopbackListener server(wltest::ReplyAfterTail("xy\n\n", kAnswer));
  std::string err;
  char* answer = HTTPPostSoap2(err, server.Url("/svc").c_str(), "x\ny", 0);
  ASSERT_NE(answer, nullptr);
  EXPECT_STREQ(answer, kAnswer);
  safe_free(&answer);
  EXPECT_EQ(err, "");
  // States 3 (two characters + 1) and sends four bytes after the header.
  EXPECT_EQ(server.request(), SoapHeader("/svc", server.port(), 3) + "xy\n\n");
}

TEST(HTTPPostSoap2, RawSendsAndCountsLineBreaks) {
  LoopbackListener server(wltest::ReplyAfterTail("y\n\n", kAnswer));
  std::string err;
  char* answer = HTTPPostSoap2(err, server.Url("/svc").c_str(), "x\r\ny", 1);
  ASSERT_NE(answer, nullptr);
  safe_free(&answer);
  EXPECT_EQ(server.request(), SoapHeader("/svc", server.port(), 5) + "x\r\ny\n\n");
}

TEST(HTTPPostSoap2, LongAnswerLinesAreJoined) {
  const std::string reply = "HTTP/1.1 200 OK\r\n\r\n" + std::string(100000, 'r') + "\nend";
  LoopbackListener server(wltest::ReplyAfterTail("\n\n", reply));
  std::string err;
  char* answer = HTTPPostSoap2(err, server.Url("/svc").c_str(), "", 0);
  ASSERT_NE(answer, nullptr);
  EXPECT_EQ(std::string(answer), reply);
  safe_free(&answer);
}

TEST(HTTPPostSoap2, NoAnswerIsNull) {
  LoopbackListener server([](wltest::ServerConn& c) {
    c.ReadUntil([](const std::string& d) { return d.ends_with("\n\n"); });
    c.Close();
  });
  std::string err;
  EXPECT_EQ(HTTPPostSoap2(err, server.Url("/svc").c_str(), "<a/>", 0), nullptr);
  EXPECT_EQ(err, "");
}

TEST(HTTPPostSoap, OneOrZero) {
  {
    LoopbackListener server(wltest::ReplyAfterTail("\n\n", kAnswer));
    std::string err;
    EXPECT_EQ(HTTPPostSoap(err, server.Url("/svc").c_str(), "<a/>\n"), 0);
  }
  {
    LoopbackListener server([](wltest::ServerConn& c) { c.Reset(); });
    std::string err;
    EXPECT_EQ(HTTPPostSoap(err, server.Url("/svc").c_str(), "<a/>\n"), 1);
  }
  wltest::RefusingPort refusing;
  std::string err;
  EXPECT_EQ(
      HTTPPostSoap(err, ("http://127.0.0.1:" + std::to_string(refusing.port())).c_str(), "<a/>"),
      1);
  EXPECT_TRUE(err.starts_with("ERROR 401: ")) << err;
}

TEST(SoapPieces, CountWithoutLineBreaks) {
  EXPECT_EQ(CountWithoutLineBreaks(""), 0u);
  EXPECT_EQ(CountWithoutLineBreaks("x\ny"), 2u);
  EXPECT_EQ(CountWithoutLineBreaks("\r\n\r\n"), 0u);
  EXPECT_EQ(CountWithoutLineBreaks("a b\tc"), 5u);
}

}  // namespace
