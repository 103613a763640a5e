// The text side of the HTTP module: Base64, URL decoding, request-line and
// header parsing, the MIME table and the document-root check.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "http/HTTPRequest.h"

namespace {

std::string Encode(const std::string& in) {
  std::vector<char> out((in.size() + 2) / 3 * 4 + 1, 'X');
  size_t count = Base64Encode(out.data(), out.size(), in.data(), in.size());
  return std::string(out.data(), count);
}

// Decoded bytes, or "<fail>".
std::string Decode(const std::string& in, size_t outSize = 64) {
  std::vector<char> out(outSize, '\0');
  size_t count = Base64Decode(out.data(), out.size(), in.data(), in.size());
  return count == 0 ? "<fail>" : std::string(out.data(), count);
}

TEST(Base64, EncodesWithPaddingAndChecksTheOutputSize) {
  EXPECT_EQ(Encode("f"), "Zg==");
  EXPECT_EQ(Encode("fo"), "Zm8=");
  EXPECT_EQ(Encode("foo"), "Zm9v");
  EXPECT_EQ(Encode("foobar"), "Zm9vYmFy");
  EXPECT_EQ(Encode(std::string("\xff\xfe\x00", 3)), "//4A");

  char out[9];
  EXPECT_EQ(Base64Encode(out, sizeof out, "foobar", 6), 8u);
  EXPECT_STREQ(out, "Zm9vYmFy");
  EXPECT_EQ(Base64Encode(out, 8, "foobar", 6), 0u);  // no room for the terminator
  EXPECT_EQ(Base64Encode(out, sizeof out, "", 0), 0u);
}

TEST(Base64, DecodesAndRejects) {
  EXPECT_EQ(Decode("Zm9vYmFy"), "foobar");
  EXPECT_EQ(Decode("Zm8="), "fo");
  EXPECT_EQ(Decode("Zg=="), "f");
  EXPECT_EQ(Decode("Zm9v\r\nYmFy"), "foobar");
  EXPECT_EQ(Decode("Zm9v=YmFy"), "foo");  // "=" ends the input
  // A single character left over still gives one byte: its bits shifted up by 2.
  EXPECT_EQ(Decode("Zm9vY"), std::string("foo") + static_cast<char>(24 << 2));
  EXPECT_EQ(Decode("Zm9v!"), "<fail>");
  EXPECT_EQ(Decode("Zm9v\xc3\xa9"), "<fail>");
  EXPECT_EQ(Decode(std::string("Zm\0v", 4)), "<fail>");
  EXPECT_EQ(Decode(""), "<fail>");
  EXPECT_EQ(Decode("=="), "<fail>");
  EXPECT_EQ(Decode("\r\n"), "<fail>");
  EXPECT_EQ(Decode("Zm9vYmFy", 5), "<fail>");  // six bytes need six
  EXPECT_EQ(Decode("Zm9vYmFy", 6), "foobar");
}

TEST(Base64, RoundTripsEveryByteValue) {
  std::string all;
  for (int i = 0; i < 256; ++i) all += static_cast<char>(i);
  for (size_t cut = 250; cut <= 256; ++cut) EXPECT_EQ(Decode(Encode(all.substr(0, cut)), 512), all.substr(0, cut));
}

std::string UrlDecoded(std::string text) {
  HTTP_UrlDecode(text.data());
  return text.c_str();
}

TEST(HTTPUrlDecode, DecodesOnlyCompleteEscapes) {
  EXPECT_EQ(UrlDecoded("/a%2Fb"), "/a/b");
  EXPECT_EQ(UrlDecoded("%41%6a%6A"), "Ajj");
  EXPECT_EQ(UrlDecoded("a+b%20c"), "a+b c");
  EXPECT_EQ(UrlDecoded("%zz%4"), "%zz%4");
  EXPECT_EQ(UrlDecoded("%%41%"), "%A%");
  EXPECT_EQ(UrlDecoded("cut%00here"), "cut");
  HTTP_UrlDecode(nullptr);
}

// A header block as the server hands it over: its final line feed is
// replaced by the terminating zero; the request's texts point into `block`.
struct Parsed {
  explicit Parsed(const std::string& text) : block(text.begin(), text.end()) {
    block.push_back('\0');
    if (block.size() > 1) block[block.size() - 2] = '\0';
    HTTPRequest_Parse(&request, block.data());
  }
  std::vector<char> block;
  HTTPRequest request;
};

// The request-line fields as "method methodString path ?query version
// keep-alive headers".
std::string RequestLine(const std::string& text) {
  Parsed parsed(text);
  const HTTPRequest& r = parsed.request;
  return std::to_string(r.method) + " " + r.methodString + " " + r.path + " ?" + r.query + " " + r.version +
         (r.keepAlive ? " keep " : " close ") + std::to_string(r.headers.size());
}

TEST(HTTPRequestParse, RequestLine) {
  const std::string get = std::to_string(HTTP_METHOD_GET);
  const std::string unknown = std::to_string(HTTP_METHOD_UNKNOWN);
  const std::pair<std::string, std::string> cases[] = {
      {"get /a%2Fb+c?x=%41&y HTTP/1.1\r\n\r\n", get + " get /a/b+c ?x=%41&y HTTP/1.1 keep 0"},
      {"PROPPATCH / http/1.1\r\n\r\n", std::to_string(HTTP_METHOD_PROPPATCH) + " PROPPATCH / ? http/1.1 keep 0"},
      {"HEAD /x HTTP/1.0\r\n\r\n", std::to_string(HTTP_METHOD_HEAD) + " HEAD /x ? HTTP/1.0 close 0"},
      {"BREW /pot HTTP/1.1\r\n\r\n", unknown + " BREW /pot ? HTTP/1.1 keep 0"},
      {"GET http://host:80/dir/f%20g?q HTTP/1.1\r\n\r\n", get + " GET /dir/f g ?q HTTP/1.1 keep 0"},
      {"GET http://host HTTP/1.1\r\n\r\n", get + " GET / ? HTTP/1.1 keep 0"},
      {"GET /x\r\n\r\n", get + " GET /x ?  close 0"},
      {"GARBAGE\r\nHost: x\r\n\r\n", unknown + "   ?  close 1"},
  };
  // (The accessors over these fields are checked through the server.)
  for (const auto& [text, expected] : cases) EXPECT_EQ(RequestLine(text), expected) << text;
}

TEST(HTTPRequestParse, HeaderLinesAndAccessors) {
  Parsed parsed(
      "POST /c HTTP/1.1\r\nHost: box:80\r\n   X-Spaced:    v w \r\nBare line\r\nContent-Length: 12\r\n"
      "content-length: 34\r\nEmpty:\r\n\r\n");
  const HTTPRequest* request = &parsed.request;
  ASSERT_EQ(HTTPRequest_GetHeaderCount(request), 6);
  EXPECT_STREQ(HTTPRequest_GetHeader(request, "HOST"), "box:80");
  EXPECT_STREQ(HTTPRequest_GetHeaderName(request, 1), "X-Spaced");
  EXPECT_STREQ(HTTPRequest_GetHeaderValue(request, 1), "v w ");
  EXPECT_STREQ(HTTPRequest_GetHeaderName(request, 2), "Bare line");
  EXPECT_STREQ(HTTPRequest_GetHeaderValue(request, 2), "");
  EXPECT_STREQ(HTTPRequest_GetHeader(request, "Content-Length"), "12");  // the first one
  EXPECT_EQ(HTTPRequest_GetContentLength(request), 34);                   // the last one
  EXPECT_STREQ(HTTPRequest_GetHeader(request, "Empty"), "");
  EXPECT_STREQ(HTTPRequest_GetHeader(request, "Missing"), "");
  EXPECT_STREQ(HTTPRequest_GetHeader(request, nullptr), "");
  EXPECT_STREQ(HTTPRequest_GetHeaderName(request, 6), "");
  EXPECT_STREQ(HTTPRequest_GetHeaderValue(request, -1), "");

  Parsed negative("PUT / HTTP/1.1\r\nContent-Length: -5\r\n\r\n");
  EXPECT_EQ(HTTPRequest_GetContentLength(&negative.request), 0);

  EXPECT_EQ(HTTPRequest_GetMethod(nullptr), 0);
  EXPECT_STREQ(HTTPRequest_GetMethodString(nullptr), "");
  EXPECT_STREQ(HTTPRequest_GetPath(nullptr), "");
  EXPECT_STREQ(HTTPRequest_GetHeader(nullptr, "Host"), "");
  EXPECT_EQ(HTTPRequest_GetContentLength(nullptr), 0);
  EXPECT_EQ(HTTPRequest_GetHeaderCount(nullptr), 0);
  EXPECT_STREQ(HTTPRequest_GetUserName(nullptr), "");
  EXPECT_EQ(HTTPRequest_ReadData(nullptr, nullptr, 1), -1);
  EXPECT_TRUE(HTTPRequest_WriteData(nullptr, nullptr, 0));
  EXPECT_FALSE(HTTPRequest_WriteData(nullptr, "x", 1));
}

TEST(HTTPRequestParse, ConnectionAndExpect) {
  EXPECT_FALSE(Parsed("GET / HTTP/1.1\r\nConnection: Close\r\n\r\n").request.keepAlive);
  EXPECT_TRUE(Parsed("GET / HTTP/1.0\r\nConnection: Keep-Alive\r\n\r\n").request.keepAlive);
  EXPECT_TRUE(Parsed("GET / HTTP/1.0\r\nConnection: close, keep-alive\r\n\r\n").request.keepAlive);
  EXPECT_FALSE(
      Parsed("GET / HTTP/1.0\r\nConnection: keep-alive\r\nConnection: close\r\n\r\n").request.keepAlive);
  EXPECT_TRUE(Parsed("GET / HTTP/1.1\r\nConnection: Upgrade\r\n\r\n").request.keepAlive);

  EXPECT_TRUE(Parsed("PUT / HTTP/1.0\r\nExpect: 100-continue\r\n\r\n").request.expectContinue);
  EXPECT_FALSE(Parsed("PUT / HTTP/1.1\r\nExpect: 200-continue\r\n\r\n").request.expectContinue);
  EXPECT_FALSE(Parsed("PUT / HTTP/1.1\r\nX-Expect: 100-continue\r\n\r\n").request.expectContinue);
}

TEST(HTTPRequestParse, BasicAuthorisation) {
  Parsed first("GET / HTTP/1.1\r\nAuthorization: Basic   dXNlcjpwYTpzcw==\r\n"
               "Authorization: Basic b3RoZXI6b25l\r\n\r\n");
  EXPECT_STREQ(HTTPRequest_GetUserName(&first.request), "user");
  EXPECT_STREQ(HTTPRequest_GetPassword(&first.request), "pa:ss");

  // Undecodable, without a colon, or too short: no credentials, a later line may still set them.
  Parsed later("GET / HTTP/1.1\r\nAuthorization: Basic !!!!\r\nAuthorization: Basic bm9jb2xvbg==\r\n"
               "Authorization: Digest dXNlcjpwYXNz\r\nAuthorization: Basic Og==\r\n\r\n");
  EXPECT_STREQ(HTTPRequest_GetUserName(&later.request), "");
  EXPECT_FALSE(later.request.userName.has_value());
  Parsed emptyParts("GET / HTTP/1.1\r\nAuthorization: Basic OnB3\r\n\r\n");  // ":pw"
  EXPECT_STREQ(HTTPRequest_GetUserName(&emptyParts.request), "");
  EXPECT_STREQ(HTTPRequest_GetPassword(&emptyParts.request), "pw");
}

TEST(HTTPRequestParse, FirstRangeLine) {
  struct Case {
    const char* value;
    bool ranged;
    int64_t offset;
    int64_t length;
  };
  // The common forms are checked through the server's replies; these are the odd ones.
  const Case cases[] = {
      {"bytes= 7-9, 20-30", true, 7, 3}, {"bytes=x", true, 0, -1}, {"bytes=5-x", true, 5, 0},
      {"items=1-2", false, 0, 0},
  };
  for (const Case& c : cases) {
    Parsed parsed(std::string("GET / HTTP/1.1\r\nRange: ") + c.value + "\r\n\r\n");
    const HTTPRequest& r = parsed.request;
    EXPECT_EQ(std::tuple(r.rangeRequested, r.rangeOffset, r.rangeLength), std::tuple(c.ranged, c.offset, c.length))
        << c.value;
  }
  Parsed twice("GET / HTTP/1.1\r\nRange: bytes=1-2\r\nRange: bytes=5-\r\n\r\n");
  EXPECT_EQ(std::pair(twice.request.rangeOffset, twice.request.rangeLength), std::pair(int64_t(1), int64_t(2)));
}

TEST(HTTPRequestParse, ResetClearsThePreviousRequest) {
  Parsed parsed("GET /a HTTP/1.1\r\nRange: bytes=5-\r\nAuthorization: Basic dTpw\r\nContent-Length: 9\r\n"
                "Expect: 100-continue\r\n\r\n");
  std::vector<char> next{'P', 'U', 'T', '\0'};
  HTTPRequest_Parse(&parsed.request, next.data());
  EXPECT_EQ(parsed.request.method, HTTP_METHOD_UNKNOWN);
  EXPECT_STREQ(parsed.request.path, "");
  EXPECT_EQ(parsed.request.headers.size(), 0u);
  EXPECT_FALSE(parsed.request.userName.has_value());
  EXPECT_EQ(parsed.request.contentLength, 0);
  EXPECT_FALSE(parsed.request.rangeRequested);
  EXPECT_EQ(parsed.request.rangeOffset, 0);
  EXPECT_FALSE(parsed.request.expectContinue);
}

TEST(HTTPMimeType, ByExtension) {
  EXPECT_STREQ(HTTP_GetMimeType("photo.JPG"), "image/jpeg");
  EXPECT_STREQ(HTTP_GetMimeType("a.b.Html"), "text/html");
  EXPECT_STREQ(HTTP_GetMimeType("x.svg"), "image/svg+xml");
  EXPECT_STREQ(HTTP_GetMimeType("script.js"), "text/javascript");
  EXPECT_STREQ(HTTP_GetMimeType("archive.tar.gz"), "application/octet-stream");
  EXPECT_STREQ(HTTP_GetMimeType("noext"), "application/octet-stream");
  EXPECT_STREQ(HTTP_GetMimeType("dir.xml/file"), "application/octet-stream");
  EXPECT_STREQ(HTTP_GetMimeType("trailing."), "application/octet-stream");
  EXPECT_STREQ(HTTP_GetMimeType(nullptr), "application/octet-stream");
}

class HTTPResolvePathTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char folder[] = "/tmp/http_resolve_XXXXXX";
    ASSERT_NE(mkdtemp(folder), nullptr);
    base = std::filesystem::canonical(folder);
    std::filesystem::create_directories(base / "root" / "sub");
    for (auto file : {"root/a.txt", "root/sub/b.txt", "secret.txt"}) {
      std::FILE* out = std::fopen((base / file).c_str(), "w");
      ASSERT_NE(out, nullptr);
      std::fclose(out);
    }
    std::filesystem::create_symlink(base / "secret.txt", base / "root" / "out-link");
    std::filesystem::create_symlink(base / "root" / "a.txt", base / "root" / "in-link");
    root = (base / "root").string() + "/";
  }
  void TearDown() override { std::filesystem::remove_all(base); }

  std::string Resolve(const char* path) {
    return HTTP_ResolvePath(root.c_str(), path, "/files/").value_or("<none>");
  }

  std::filesystem::path base;
  std::string root;
};

TEST_F(HTTPResolvePathTest, StaysInsideTheRoot) {
  EXPECT_EQ(Resolve("/files/a.txt"), root + "a.txt");
  EXPECT_EQ(Resolve("/files/sub/../sub/./b.txt"), root + "sub/b.txt");
  EXPECT_EQ(Resolve("/files/in-link"), root + "a.txt");
  EXPECT_EQ(Resolve("/files/../secret.txt"), "<none>");
  EXPECT_EQ(Resolve("/files/sub/../../secret.txt"), "<none>");
  EXPECT_EQ(Resolve("/files/out-link"), "<none>");
  EXPECT_EQ(Resolve("/files/missing.txt"), "<none>");
  EXPECT_EQ(Resolve("/other/a.txt"), "<none>");
  EXPECT_FALSE(HTTP_ResolvePath(nullptr, "/files/a.txt", "/files/"));
  EXPECT_FALSE(HTTP_ResolvePath(root.c_str(), nullptr, "/files/"));
  EXPECT_FALSE(HTTP_ResolvePath(root.c_str(), "/files/a.txt", nullptr));
}

}  // namespace
