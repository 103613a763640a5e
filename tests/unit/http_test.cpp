// The HTTP module's text helpers that no reply shows: Base64, the MIME table
// and the document-root check. Request parsing, ranges and replies are
// checked on the wire and walked by the fuzz replays.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "http/HTTPRequest.h"

namespace {

TEST(Base64, RoundTripsEveryByte) {
  std::string all;
  for (int i = 0; i < 256; ++i) all += static_cast<char>(i);
  for (size_t cut = 254; cut <= 256; ++cut) {
    std::vector<char> encoded((cut + 2) / 3 * 4 + 1), decoded(cut + 2);  // room for a partial last group
    const size_t count = Base64Encode(encoded.data(), encoded.size(), all.data(), cut);
    EXPECT_EQ(Base64Decode(decoded.data(), decoded.size(), encoded.data(), count), cut);
    EXPECT_EQ(std::string(decoded.data(), cut), all.substr(0, cut));
  }
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
