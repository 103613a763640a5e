// The text side of the HTTP module: Base64, URL decoding, request-line and
// header parsing, the MIME table and the document-root check. Replies and
// the common Range forms are checked on the wire.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <tuple>
#include <vector>

#include "http/HTTPRequest.h"

namespace {

// Decoded bytes, or "<fail>".
std::string Decode(const std::string& in, size_t outSize = 64) {
  std::vector<char> out(outSize, '\0');
  size_t count = Base64Decode(out.data(), out.size(), in.data(), in.size());
  return count == 0 ? "<fail>" : std::string(out.data(), count);
}

TEST(Base64, EncodesDecodesAndRejects) {
  std::string all;
  for (int i = 0; i < 256; ++i) all += static_cast<char>(i);
  for (size_t cut = 250; cut <= 256; ++cut) {
    std::vector<char> out((cut + 2) / 3 * 4 + 1);
    size_t count = Base64Encode(out.data(), out.size(), all.data(), cut);
    EXPECT_EQ(Decode(std::string(out.data(), count), 512), all.substr(0, cut));
  }
  char out[9];
  EXPECT_EQ((std::tuple{Base64Encode(out, sizeof out, "foobar", 6), std::string(out), Base64Encode(out, 8, "foobar", 6),
                        Base64Encode(out, sizeof out, "", 0)}),
            std::tuple(size_t(8), "Zm9vYmFy", size_t(0), size_t(0)));  // 8 bytes leave no room for the terminator
  const std::pair<std::string, std::string> cases[] = {
      {"Zm8=", "fo"}, {"Zm9v\r\nYmFy", "foobar"}, {"Zm9v=YmFy", "foo"},  // "=" ends the input
      {"Zm9vY", std::string("foo") + static_cast<char>(24 << 2)},        // a lone last character
      {"Zm9v!", "<fail>"}, {"Zm9v\xc3\xa9", "<fail>"}, {std::string("Zm\0v", 4), "<fail>"},
      {"", "<fail>"}, {"==", "<fail>"}, {"\r\n", "<fail>"},
  };
  for (const auto& [in, decoded] : cases) EXPECT_EQ(Decode(in), decoded) << in;
  EXPECT_EQ(Decode("Zm9vYmFy", 5) + Decode("Zm9vYmFy", 6), "<fail>foobar");  // six bytes need six
}

TEST(HTTPUrlDecode, DecodesOnlyCompleteEscapes) {
  for (auto [in, out] : {std::pair<std::string, std::string>{"/a%2Fb", "/a/b"}, {"%41%6a%6A", "Ajj"},
                         {"a+b%20c", "a+b c"}, {"%zz%4", "%zz%4"}, {"%%41%", "%A%"}, {"cut%00here", "cut"}}) {
    HTTP_UrlDecode(in.data());
    EXPECT_STREQ(in.c_str(), out.c_str());
  }
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
      {"GET / HTTP/1.1\r\nConnection: Close\r\n\r\n", get + " GET / ? HTTP/1.1 close 1"},
      {"GET / HTTP/1.0\r\nConnection: close, keep-alive\r\n\r\n", get + " GET / ? HTTP/1.0 keep 1"},
      {"GET / HTTP/1.0\r\nConnection: keep-alive\r\nConnection: close\r\n\r\n", get + " GET / ? HTTP/1.0 close 2"},
      {"GET / HTTP/1.1\r\nConnection: Upgrade\r\n\r\n", get + " GET / ? HTTP/1.1 keep 1"},
  };
  for (const auto& [text, expected] : cases) {
    Parsed parsed(text);
    const HTTPRequest& r = parsed.request;
    EXPECT_EQ(std::to_string(r.method) + " " + r.methodString + " " + r.path + " ?" + r.query + " " + r.version +
                  (r.keepAlive ? " keep " : " close ") + std::to_string(r.headers.size()),
              expected)
        << text;
  }
  EXPECT_TRUE(Parsed("PUT / HTTP/1.0\r\nExpect: 100-continue\r\n\r\n").request.expectContinue);
  EXPECT_FALSE(Parsed("PUT / HTTP/1.1\r\nExpect: 200-continue\r\n\r\n").request.expectContinue);
}

TEST(HTTPRequestParse, HeaderLinesAndAccessors) {
  Parsed parsed(
      "POST /c HTTP/1.1\r\nHost: box:80\r\n   X-Spaced:    v w \r\nBare line\r\nContent-Length: 12\r\n"
      "content-length: 34\r\nEmpty:\r\n\r\n");
  const HTTPRequest* request = &parsed.request;
  ASSERT_EQ(HTTPRequest_GetHeaderCount(request), 6);
  // Content-Length: the first line for GetHeader, the last one for the length.
  const std::vector<std::string> texts = {
      HTTPRequest_GetHeader(request, "HOST"), HTTPRequest_GetHeaderName(request, 1),
      HTTPRequest_GetHeaderValue(request, 1), HTTPRequest_GetHeaderName(request, 2),
      HTTPRequest_GetHeader(request, "Content-Length"), HTTPRequest_GetHeader(request, "Missing"),
      HTTPRequest_GetHeaderValue(request, 6), HTTPRequest_GetHeader(nullptr, "Host")};
  EXPECT_EQ(texts, (std::vector<std::string>{"box:80", "X-Spaced", "v w ", "Bare line", "12", "", "", ""}));
  Parsed negative("PUT / HTTP/1.1\r\nContent-Length: -5\r\n\r\n");
  EXPECT_EQ(std::pair(HTTPRequest_GetContentLength(request), HTTPRequest_GetContentLength(&negative.request)),
            std::pair(int64_t(34), int64_t(0)));
  EXPECT_EQ(HTTPRequest_ReadData(nullptr, nullptr, 1), -1);
}

TEST(HTTPRequestParse, BasicAuthorisation) {
  Parsed first("GET / HTTP/1.1\r\nAuthorization: Basic   dXNlcjpwYTpzcw==\r\n"
               "Authorization: Basic b3RoZXI6b25l\r\n\r\n");
  EXPECT_EQ(std::string(HTTPRequest_GetUserName(&first.request)) + "|" + HTTPRequest_GetPassword(&first.request),
            "user|pa:ss");
  // Undecodable, without a colon, or too short: no credentials, a later line may still set them.
  Parsed later("GET / HTTP/1.1\r\nAuthorization: Basic !!!!\r\nAuthorization: Basic bm9jb2xvbg==\r\n"
               "Authorization: Digest dXNlcjpwYXNz\r\nAuthorization: Basic Og==\r\n\r\n");
  EXPECT_FALSE(later.request.userName.has_value());
  Parsed emptyParts("GET / HTTP/1.1\r\nAuthorization: Basic OnB3\r\n\r\n");  // ":pw"
  const HTTPRequest& noName = emptyParts.request;
  EXPECT_EQ(std::string(HTTPRequest_GetUserName(&noName)) + "|" + HTTPRequest_GetPassword(&noName), "|pw");
}

TEST(HTTPRequestParse, OddRangeFormsAndReuse) {
  const std::tuple<const char*, bool, int64_t, int64_t> cases[] = {
      {"bytes= 7-9, 20-30", true, 7, 3}, {"bytes=x", true, 0, -1}, {"bytes=5-x", true, 5, 0},
      {"items=1-2", false, 0, 0},        {"bytes=1-2\r\nRange: bytes=5-", true, 1, 2},
  };
  for (const auto& [value, ranged, offset, length] : cases) {
    Parsed parsed(std::string("GET / HTTP/1.1\r\nRange: ") + value + "\r\n\r\n");
    const HTTPRequest& r = parsed.request;
    EXPECT_EQ(std::tuple(r.rangeRequested, r.rangeOffset, r.rangeLength), std::tuple(ranged, offset, length)) << value;
  }
  // A request on the same connection starts from nothing.
  Parsed parsed("GET /a HTTP/1.1\r\nRange: bytes=5-\r\nAuthorization: Basic dTpw\r\nContent-Length: 9\r\n"
                "Expect: 100-continue\r\n\r\n");
  std::vector<char> next{'P', 'U', 'T', '\0'};
  HTTPRequest_Parse(&parsed.request, next.data());
  const HTTPRequest& r = parsed.request;
  EXPECT_EQ(std::tuple(r.method, std::string(r.path), r.headers.size(), r.userName.has_value(), r.contentLength,
                       r.rangeRequested, r.rangeOffset, r.expectContinue),
            std::tuple(HTTP_METHOD_UNKNOWN, std::string(), size_t(0), false, int64_t(0), false, int64_t(0), false));
}

TEST(HTTPMimeType, ByExtension) {
  const std::pair<const char*, const char*> cases[] = {
      {"photo.JPG", "image/jpeg"}, {"a.b.Html", "text/html"}, {"x.svg", "image/svg+xml"},
      {"script.js", "text/javascript"}, {"archive.tar.gz", "application/octet-stream"},
      {"noext", "application/octet-stream"}, {"dir.xml/file", "application/octet-stream"},
      {"trailing.", "application/octet-stream"},
  };
  for (const auto& [name, type] : cases) EXPECT_STREQ(HTTP_GetMimeType(name), type) << name;
  EXPECT_STREQ(HTTP_GetMimeType(nullptr), "application/octet-stream");
}

TEST(HTTPResolvePath, StaysInsideTheRoot) {
  namespace fs = std::filesystem;
  char folder[] = "/tmp/http_resolve_XXXXXX";
  ASSERT_NE(mkdtemp(folder), nullptr);
  const fs::path base = fs::canonical(folder);
  fs::create_directories(base / "root" / "sub");
  for (auto file : {"root/a.txt", "root/sub/b.txt", "secret.txt"}) std::fclose(std::fopen((base / file).c_str(), "w"));
  fs::create_symlink(base / "secret.txt", base / "root" / "out-link");
  fs::create_symlink(base / "root" / "a.txt", base / "root" / "in-link");
  const std::string root = (base / "root").string() + "/";
  const std::pair<const char*, std::string> cases[] = {
      {"/files/a.txt", root + "a.txt"}, {"/files/sub/../sub/./b.txt", root + "sub/b.txt"},
      {"/files/in-link", root + "a.txt"}, {"/files/../secret.txt", "<none>"},
      {"/files/sub/../../secret.txt", "<none>"}, {"/files/out-link", "<none>"},
      {"/files/missing.txt", "<none>"}, {"/other/a.txt", "<none>"},
  };
  for (const auto& [path, resolved] : cases) {
    EXPECT_EQ(HTTP_ResolvePath(root.c_str(), path, "/files/").value_or("<none>"), resolved) << path;
  }
  EXPECT_FALSE(HTTP_ResolvePath(nullptr, "/files/a.txt", "/files/"));
  fs::remove_all(base);
}

}  // namespace
