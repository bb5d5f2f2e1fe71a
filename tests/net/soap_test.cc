// SOAP log stream, one-shot SOAP posts, HTTPGet and HTTPPost on the wire.

#include "net/soap.h"

#include <gtest/gtest.h>

#include <functional>
#include <regex>

#include <sys/stat.h>

#include "net/joblog.h"
#include "net/transfer.h"
#include "net/transport.h"
#include "support/handles.h"
#include "support/strings.h"
#include "testlib/net_fixtures.h"

namespace {

using namespace wltest;

std::string SoapHead(const std::string& path, size_t stated) {
  return "POST " + path +
         " HTTP/1.1\nContent-type: text/xml\nConnection: close\r\nSOAPAction: \"\"\n"
         "Host: 127.0.0.1:PORT\nUser-Agent: Java1.3.0_01\nContent-Length: " +
         std::to_string(stated) + "\n\n";
}

std::string El(const std::string& name, int id, const std::string& type, const std::string& text) {
  return "<" + name + " id=\"id" + std::to_string(id) +
         "\" xmlns:ns0=\"urn:weftlane-log\" xsi2:type=\"xsd2:" + type +
         "\" xsi:type=\"xsd2:" + type + "\">" + text + "</" + name + ">";
}

// The setLog document of the job registered below, up to the Message tag.
std::string Doc(const std::string& type, const std::string& now) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
         "<SOAP-ENV:Envelope xmlns:SOAP-ENV=\"http://schemas.xmlsoap.org/soap/envelope/\">"
         "<SOAP-ENV:Body SOAP-ENV:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\" "
         "xmlns:SOAP-ENC=\"http://schemas.xmlsoap.org/soap/encoding/\" "
         "xmlns:xsd=\"http://www.w3.org/1999/XMLSchema\" "
         "xmlns:xsd2=\"http://www.w3.org/2000/10/XMLSchema\" "
         "xmlns:xsi=\"http://www.w3.org/1999/XMLSchema-instance\" "
         "xmlns:xsi2=\"http://www.w3.org/2000/10/XMLSchema-instance\">"
         "<ns0:setLog xmlns:ns0=\"urn:weftlane-log\"><Log href=\"#id13\"/></ns0:setLog>" +
         El("BuildJobName", 0, "string", "job") + El("Owner", 1, "string", "me") +
         El("Machine", 2, "string", "bm01") + El("DateTime", 3, "string", "10-14-2020") +
         El("PublicBuildJob", 4, "boolean", "true") + El("EventType", 5, "int", type) +
         El("DetailGroup", 14, "string", "grp") + El("DateTime", 6, "string", now) +
         El("Source", 7, "string", "src") + El("Event", 8, "string", "ev") +
         El("ShortMsg", 9, "string", "short") +
         "<Message id=\"id10\" xmlns:ns0=\"urn:weftlane-log\" xsi2:type=\"xsd2:string\" "
         "xsi:type=\"xsd2:string\">";
}

class SoapTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string err;
    SetupJobInfo(err, 1, "http://127.0.0.1:1/weftlane/LogUpload", "job", "me", "bm01", "10-14-2020",
                 "true");
    myLogType = 2;
  }
  void TearDown() override {
    LogFooterText.clear();
    myLogType = 0;
  }
  // A whole stream sent to a loopback server; the request with the event's
  // DateTime written "NOW".
  static std::string Stream(int32_t type, uint32_t length, const std::vector<std::string>& texts) {
    std::string sent = Wire([&](const std::string& url) {
      myURL = url;
      std::string err;
      int fd = -7;
      EXPECT_EQ(LogMessageHeader(err, type, "grp", "src", "ev", "short", length, &fd), 0);
      for (const auto& t : texts)
        EXPECT_EQ(LogMessageText(fd, t.c_str()), 0);
      EXPECT_EQ(LogMessageFooter(fd), 0);
    });
    return std::regex_replace(sent, std::regex("\\d\\d/\\d\\d/\\d{4} \\d\\d:\\d\\d:\\d\\d"), "NOW");
  }
};

// The stated length counts the footer text and the document without line
// breaks, plus the announced text length and one; line breaks never go out.
// The event type gets the bit of value 8 unless the bit of value 4 is set.
TEST_F(SoapTest, StreamBytesOnTheWire) {
  std::string doc = Doc("9", "NOW");
  std::erase(doc, '\n');
  const size_t n = doc.size() + 16;  // the DateTime sent is 16 characters longer than "NOW"
  EXPECT_EQ(Stream(1, 4, {"a\r\nb"}), SoapHead("/weftlane/LogUpload", n + 5) + doc + "a|b|\n\n");
  LogFooterText = "</Message>\r\n</SOAP-ENV:Body></SOAP-ENV:Envelope>";
  doc.replace(doc.find(">9</EventType>"), 2, ">5");
  EXPECT_EQ(Stream(5, 10, {"one\n\ntwo\n", "", "three"}),
            SoapHead("/weftlane/LogUpload", 48 + n + 11) + doc +
                "one|two|three|</Message></SOAP-ENV:Body></SOAP-ENV:Envelope>\n\n");
}

// A parser nobody here wrote, with namespaces on, accepts the document with
// markup in its texts once the open elements are closed.
TEST_F(SoapTest, DocumentIsWellFormed) {
  myTaskName = "tricky <&> job";
  // Markup characters are escaped, quotes need not be in element text.
  const std::string doc = LogMessageDocument(1, "\"'x&y", "<s>", "e", "m", "01/01/1970 00:00:01");
  for (const std::string& element : {El("BuildJobName", 0, "string", "tricky &lt;&amp;&gt; job"),
                                     El("DetailGroup", 14, "string", "\"'x&amp;y"),
                                     El("Source", 7, "string", "&lt;s&gt;")})
    EXPECT_NE(doc.find(element), std::string::npos) << element << "\n" << doc;
  if (!HavePython())
    GTEST_SKIP() << "python3 is not available";
  TempDir dir;
  WriteFile(dir / "doc.xml", doc + "text</Message></SOAP-ENV:Body></SOAP-ENV:Envelope>");
  auto r = RunProgram({"/bin/sh", "-c", "exec python3 -c \"$0\" \"$1\"",
                       "import sys, xml.dom.minidom as m\n"
                       "d = m.parse(sys.argv[1]); e = d.documentElement; t = lambda n: "
                       "d.getElementsByTagName(n)[0].firstChild.data\n"
                       "print(e.namespaceURI, e.localName, t('BuildJobName'), t('DetailGroup'), "
                       "t('Source'), len(d.getElementsByTagName('*')))",
                       dir / "doc.xml"},
                      {{"PATH", "/usr/local/bin:/usr/bin:/bin"}}, dir.path(), 60);
  EXPECT_EQ(r.out, "http://schemas.xmlsoap.org/soap/envelope/ Envelope tricky <&> job \"'x&y <s> 16\n")
      << r.err;
}

TEST(HTTPPostSoap, RequestsAndAnswers) {
  std::string err;
  for (uint32_t raw : {0u, 1u}) {
    EXPECT_EQ(Wire("/svc", "",
                   [&](const std::string& url) {
                     char* answer = HTTPPostSoap2(err, url.c_str(), "x\r\ny", raw);
                     EXPECT_STREQ(answer, kOkReply.c_str());
                     safe_free(&answer);
                   }),
              SoapHead("/svc", raw ? 5 : 3) + (raw ? "x\r\ny\n\n" : "xy\n\n"));
  }
  LoopbackListener closing(Reply(""), 2);  // closes without answering
  EXPECT_EQ(HTTPPostSoap2(err, closing.Url("/svc").c_str(), "<a/>", 0), nullptr);
  EXPECT_EQ(HTTPPostSoap(err, closing.Url("/svc").c_str(), "<a/>\n"), 1);
}

// --- HTTPGet and HTTPPost ---

// HTTPGet of `source`: the text (or "<null>"), "|" and the error text.
std::string Get(const std::string& source) {
  std::string err;
  char* text = HTTPGet(err, source.c_str());
  std::string out = (text ? text : "<null>") + ("|" + err);
  safe_free(&text);
  return out;
}

TEST(HTTPGet, RequestAndAnswers) {
  EXPECT_EQ(Wire("/dir with space/a b.txt", "\n\n\n",
                 [](const std::string& url) { EXPECT_EQ(Get(url), "OK\n|"); }),
            "GET /dir%20with%20space/a%20b.txt HTTP/1.0\n\n\n");
  const std::string longer = std::string(150000, 'x') + "\n" + std::string(70000, 'y');
  const std::tuple<std::string, std::string, std::string> cases[] = {
      {"HTTP/1.0 200 OK\r\nContent-Type: text/plain\r\n\r\nline1\r\nline2\nlast",
       "line1\r\nline2\nlast", ""},
      {"HTTP/1.1 404 Not Found\r\n\r\ngone\n", "gone\n",
       "ERROR 404: file not found, HTTP/1.1 404 Not Found\r\n\n"},
      {"HTTP/1.1 500 Oops\r\nX: y\r\n\r\nbody", "body",
       "ERROR 401: http connect error, HTTP/1.1 500 Oops\r\n\n"},
      {"HTTP/1.0 200 OK\r\n\r\n" + longer, longer, ""},
      {"HTTP/1.0 200 OK\r\n\r\n<head><title>Not Found (404)</title></head>", "<null>", ""},
      {"HTTP/1.0 200 OK\r\n\r\n<head><title>Not Found", "<head><title>Not Found", ""},
  };
  for (const auto& [reply, text, err] : cases) {
    LoopbackListener server(Reply(reply, "\n\n\n"));
    EXPECT_EQ(Get(server.Url("/f")), text + "|" + err) << reply.substr(0, 60);
  }
  RefusingPort refusing;
  EXPECT_EQ(Get(refusing.Url("/f")), "<null>|" + refusing.ConnectError());
}

// The file goes out line by line with line breaks stripped from both ends;
// one byte more than stated is sent.
TEST(HTTPPost, RequestFromTheFile) {
  TempDir dir;
  WriteFile(dir / "deps.txt", "a b\r\n\r\n\rlead\nmid\rdle\r\nlast");
  std::string err = "stale";
  EXPECT_EQ(Wire("/svc/deps", "last\n\n",
                 [&](const std::string& url) {
                   EXPECT_EQ(HTTPPost(err, url.c_str(), (dir / "deps.txt").c_str()), 0);
                 }),
            SoapHead("/svc/deps", 19) + "a bleadmid\rdlelast\n\n");
  EXPECT_EQ(err, "");
  CaptureStdout out;
  EXPECT_EQ(Wire([&](const std::string& url) {  // connects, sends nothing
              EXPECT_EQ(HTTPPost(err, url.c_str(), "/nonexistent/deps.txt"), 7);
            }),
            "");
  EXPECT_EQ(out.Take(), "ERROR 11: Could not read dependency file /nonexistent/deps.txt\n");
  // A FIFO is neither posted nor waited on; HTTPGet treats it as missing.
  ASSERT_EQ(mkfifo((dir / "fifo").c_str(), 0600), 0);
  CaptureStdout fifo_out;
  EXPECT_EQ(Wire([&](const std::string& url) {
              EXPECT_EQ(HTTPPost(err, url.c_str(), (dir / "fifo").c_str()), 7);
            }),
            "");
  EXPECT_EQ(fifo_out.Take(),
            "ERROR 11: Could not read dependency file " + (dir / "fifo") + ": not a regular file\n");
  EXPECT_EQ(Get(dir / "fifo"), "<null>|");
}

// Reading and refusing files release every descriptor they took; a posted
// file is held until exit (one descriptor per post, as ever), and so is the
// socket of a refused connect; clearing what is held closes them.
TEST(Handles, GetAndPostReleaseWhatTheyOpen) {
  TempDir dir;
  WriteFile(dir / "deps.txt", "a\n");
  HeldUntilExit<UniqueFile>().clear();  // what earlier tests left held
  HeldUntilExit<UniqueFd>().clear();
  const size_t before = ListDir("/proc/self/fd").size();
  EXPECT_EQ(Get(dir / "deps.txt"), "a\n|");
  EXPECT_EQ(Get(dir / "missing"), "<null>|");
  for (const std::string& file : {dir / "missing", dir / "deps.txt"}) {
    CaptureStdout quiet;
    Wire("/svc", "a\n\n", [&](const std::string& url) {
      std::string err;
      HTTPPost(err, url.c_str(), file.c_str());
    });
  }
  EXPECT_EQ(ListDir("/proc/self/fd").size(), before + 1);
  {
    RefusingPort refusing;
    EXPECT_EQ(Get(refusing.Url("/f")), "<null>|" + refusing.ConnectError());
  }
  EXPECT_EQ(ListDir("/proc/self/fd").size(), before + 2);
  HeldUntilExit<UniqueFile>().clear();
  HeldUntilExit<UniqueFd>().clear();
  EXPECT_EQ(ListDir("/proc/self/fd").size(), before);
}

// Every library facility gives up on a server that takes the request and
// never answers within the configured bound, naming the wait and the server.
TEST(Facilities, SilentServerTimesOut) {
  TempDir dir;
  WriteFile(dir / "deps.txt", "a\n");
  SetNetTimeout(1);
  struct Facility {
    const char* what;
    std::function<std::string(const std::string& url)> call;  // the error text
  };
  const Facility facilities[] = {
      {"the SOAP request",
       [](const std::string& url) {
         std::string err;
         EXPECT_EQ(HTTPPostSoap(err, url.c_str(), "<a/>"), 1);
         return err;
       }},
      {"the request for /f",
       [](const std::string& url) {
         std::string err;
         char* text = HTTPGet(err, (url + "/f").c_str());
         EXPECT_STREQ(text, "");
         safe_free(&text);
         return err;
       }},
      {"DEPS",
       [&](const std::string& url) {
         std::string err;
         EXPECT_EQ(HTTPPost(err, url.c_str(), (dir / "deps.txt").c_str()), 0);
         return err;
       }},
      {"the job log message",
       [](const std::string& url) {
         std::string err;
         JobLogRecord record{};
         const std::string base = url + "/x";  // the upload address keeps scheme, host, port
         record[kSlotServerUrl] = JobLogText(base.c_str());
         EXPECT_EQ(HTTPPostHTML2(err, record), 0);
         ResetHTTPPostHTML2();
         return err;
       }},
      {"the request",
       [](const std::string& url) {
         std::string err;
         SetupJobInfo(err, 1, (url + "/LogUpload").c_str(), "job", "me", "m", "d", "true");
         myLogType = 2;
         CaptureStdout out;
         EXPECT_EQ(LogMessage(err, 0, 0, "", "", "", nullptr, "x"), 0);
         EXPECT_EQ(out.Take(), err + "\n");
         int fd = -1;
         std::string stream_err;
         LogMessageHeader(stream_err, 0, "g", "s", "e", "m", 0, &fd);
         EXPECT_EQ(LogMessageFooter(fd), 0);  // bounded, nobody told
         myLogType = 0;
         return err;
       }},
  };
  for (const auto& f : facilities) {
    LoopbackListener server(
        [](ServerConn& c) {
          c.ReadUntil([](const std::string& d) { return d.find("\n\n") != d.npos; });
          c.ReadUntil([](const std::string&) { return false; });  // until the client leaves
        },
        f.what == std::string("the request") ? 2 : 1);
    std::string what = f.what == std::string("DEPS") ? dir / "deps.txt" : f.what;
    EXPECT_EQ(f.call(server.Url()), "ERROR 410: Timed out after 1 s waiting for the answer to " +
                                        what + " from 127.0.0.1 on port " +
                                        std::to_string(server.port) + "\n");
  }
  SetNetTimeout(kDefaultNetTimeout);
}

}  // namespace
