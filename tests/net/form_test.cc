#include "net/form.h"

#include <gtest/gtest.h>

#include <string>

#include "net/transport.h"

namespace {

TEST(Form, BoundaryLines) {
  EXPECT_EQ(std::string(kFormBoundary), std::string(27, '-') + "7d3cc298904e2");
  EXPECT_EQ(std::string(kFormDelimiterLine), std::string(29, '-') + "7d3cc298904e2\r\n");
  EXPECT_EQ(std::string(kFormClosingLine), std::string(29, '-') + "7d3cc298904e2--\r\n");
}

TEST(Form, Field) {
  std::string body = "x";
  AppendFormField(body, "Owner", "me");
  AppendFormField(body, "Empty", nullptr);
  EXPECT_EQ(body,
            "x-----------------------------7d3cc298904e2\r\n"
            "Content-Disposition: form-data; name=\"Owner\"\r\n\r\nme\r\n"
            "-----------------------------7d3cc298904e2\r\n"
            "Content-Disposition: form-data; name=\"Empty\"\r\n\r\n\r\n");
}

TEST(Form, FilePartHead) {
  std::string body;
  AppendFilePartHead(body, "D:\\tmp\\a-b-c-Detail.html");
  EXPECT_EQ(
      body,
      "Content-Disposition: form-data; name=\"mptest\"; filename=\"D:\\tmp\\a-b-c-Detail.html\"\r\n"
      "Content-Type: text/html\r\n\r\n");
}

// The upload's "Host:" header comes from getHostPort, which keeps the path in
// the host when the URL names no port.
TEST(Form, UploadHeaderHostQuirk) {
  const std::pair<const char*, const char*> cases[] = {
      {"http://server/weftlane/LogUpload", "Host: server/weftlane/LogUpload:8080\r\n"},
      {"http://server:8081/weftlane/LogUpload", "Host: server:8081\r\n"},
      {"http://server", "Host: server:8080\r\n"},
      {"nothing", "Host: :\r\n"},
  };
  for (const auto& [url, line] : cases) {
    std::string err;
    std::string host;
    std::string port;
    getHostPort(err, url, host, port);
    std::string header = UploadHeader(host, port);
    ASSERT_TRUE(header.ends_with(line)) << url << "\n" << header;
    EXPECT_TRUE(header.starts_with("POST /weftlane/LogUpload HTTP/1.1\r\nAccept: image/gif,"))
        << url;
  }
}

}  // namespace
