// DIDL-Lite rendering: the filter tokens, the doubled escaping and which files
// are parsed (the exact DIDL-Lite of the fixed containers, and items whose
// file went away, are checked on the wire).
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <tuple>

#include "dms/DmsDidl.h"
#include "dms/DmsObject.h"
#include "tests/fixtures/MediaFixtures.h"

namespace {

TEST(DidlFilter, TokensAndWildcard) {
  // The last token still ends with ","; no partial tokens.
  const std::pair<const char*, unsigned> cases[] = {
      {"*", 0xffffu}, {"dc:title,*", 0xffffu}, {"", 0u}, {"upnp:artist", DmsFilter_Artist},
      {"res@size,upnp:album", DmsFilter_Res | DmsFilter_Album},
      {"@childCount,@refID,dc:date", DmsFilter_ChildCount | DmsFilter_RefId | DmsFilter_Date},
      {"upnp:genre@x,upnp:artists", 0u}};
  for (const auto& [filter, bits] : cases) EXPECT_EQ(DmsDidl_ParseFilter(filter), bits) << filter;
}

TEST(DidlEscape, DoublesEveryEntity) {
  EXPECT_EQ(DmsDidl_Escape("a&b\"c'd<e>f") + DmsDidl_Escape(""), "a&amp;amp;b&amp;quot;c&amp;apos;d&amp;lt;e&amp;gt;f");
}

class DidlContainers : public ::testing::Test {
 protected:
  void TearDown() override { DmsObject_Free({0, 0}); }
  DmsObject* root =
      DmsObject_New({0, 0}, "My <Box>", dlnaMediaClasses[DmsClass_Container], DmsKind_Container, nullptr, nullptr);
};

// Only a regular file is parsed: a symbolic link or a FIFO under an item's
// name renders like a missing file, and the FIFO must not block the render.
TEST_F(DidlContainers, OnlyRegularFilesAreParsed) {
  namespace fs = std::filesystem;
  const fs::path folder = fs::temp_directory_path() / ("didl_test_" + std::to_string(::getpid()));
  fs::create_directories(folder);
  const std::vector<uint8_t> gif = GifFixture_Picture("89a", 32, 24, 2);
  std::ofstream(folder / "real.gif", std::ios::binary).write(reinterpret_cast<const char*>(gif.data()),
                                                              static_cast<std::streamsize>(gif.size()));
  fs::create_symlink(folder / "real.gif", folder / "link.gif");
  ASSERT_EQ(::mkfifo((folder / "pipe.gif").c_str(), 0600), 0);

  DmsObject* volume = DmsObject_New({0, 1}, folder.string().c_str(), dlnaMediaClasses[DmsClass_StorageVolume],
                                    DmsKind_Container, root, nullptr);
  uint64_t low = 1;
  auto render = [&](const char* name) {
    DmsObject* item = DmsObject_New({7, ++low}, name, dlnaMediaClasses[DmsClass_ImageItem], DmsKind_Item,
                                    volume, nullptr);
    return DmsDidl_RenderObject(item, "h", 1, DmsFilter_Res);
  };
  const std::string real = render("real.gif"), link = render("link.gif"), pipe = render("pipe.gif");
  fs::remove_all(folder);
  EXPECT_NE(real.find("&lt;res resolution=\"32x24\" size=\"" + std::to_string(gif.size()) +
                      "\" protocolInfo=\"http-get:*:image/*:DLNA.ORG_OP=01\"&gt;http://h:1/mediaitem/7.2&lt;/res&gt;"),
            std::string::npos)
      << real;
  const bool titled = link.find("&lt;dc:title&gt;link&lt;/dc:title&gt;") != std::string::npos;
  const auto none = std::string::npos;
  EXPECT_EQ(std::tuple(link.find("&lt;res"), pipe.find("&lt;res"), titled), std::tuple(none, none, true)) << link;
}

}  // namespace
