// PNG and GIF pictures: sizes and depths, PNG text chunks and the bounds of
// the chunk walk, GIF versions.
#include <gtest/gtest.h>

#include <string>

#include "tests/fixtures/GifFixture.h"
#include "tests/fixtures/PngFixture.h"
#include "tests/unit/ProbeCheck.h"

namespace {

std::vector<uint8_t> pngWith(const std::vector<std::vector<uint8_t>>& chunks) {
  std::vector<std::vector<uint8_t>> all{PngFixture_Header(64, 48, 8, 2)};
  all.insert(all.end(), chunks.begin(), chunks.end());
  all.push_back(PngFixture_Chunk("IDAT", std::vector<uint8_t>(20, 0)));
  return PngFixture_File(all);
}

TEST(Png, PictureSizesAndDepths) {
  MediaStream stream = PROBE(PngFixture_Picture(16, 12, "Sunset", "2009:06:15 10:20:30"));
  EXPECT_EQ(std::tuple(std::string(stream.mimeType), *stream.title, stream.date, stream.coverLength),
            std::tuple(std::string("image/png"), "Sunset", 1245061230, int64_t(0)));
  ASSERT_EQ(stream.streamCount(), 1);
  EXPECT_EQ(StreamText(stream.streamInfo[0]), "1 3 1 5000/1000 0 0 0 16x12 24");
  // Greyscale counts as three channels, with alpha as four; unknown colour types give no depth.
  for (auto [depth, colourType, bits] : {std::tuple<uint8_t, uint8_t, int>{1, 0, 3}, {16, 0, 48}, {16, 2, 48}, {4, 3, 4},
                                         {8, 4, 32}, {16, 6, 64}, {8, 5, 0}}) {
    EXPECT_EQ(PROBE(PngFixture_File({PngFixture_Header(3, 2, depth, colourType)})).streamInfo.at(0).bitsPerPixel, bits);
  }
  EXPECT_EQ(PROBE(PngFixture_File({PngFixture_Header(65535, 65535, 8, 6)})).streamInfo.at(0).width, 65535);
  // Broken headers leave the file a PNG without a stream; the signature must be exact.
  for (const auto& header : {PngFixture_Header(0, 10, 8, 2), PngFixture_Header(10, 65536, 8, 2),
                             PngFixture_Header(10, 10, 0, 2), PngFixture_Chunk("IHDR", {0, 0, 0, 10, 0, 0, 0, 10, 8, 2, 0, 0, 0, 0})}) {
    stream = PROBE(PngFixture_File({header, PngFixture_Text("Title", "kept")}));
    EXPECT_EQ(std::pair(stream.streamCount(), stream.title), std::pair(uint8_t(0), std::optional<std::string>("kept")));
  }
  auto bytes = PngFixture_Picture(4, 4, "", "");
  bytes[7] = 0x0B;
  EXPECT_EQ(MediaProbe_Bytes(bytes), nullptr);
}

TEST(Png, TextChunksAndTheWalk) {
  MediaStream stream = PROBE(pngWith({
      PngFixture_Text("TITLE", "First"), PngFixture_Text("title", "Second"),  // a later title replaces
      PngFixture_Text("Title", ""), PngFixture_Text("Titles", "not a title"),
      PngFixture_Text("creation time", "2009-06-15T10:20:30"),
  }));
  EXPECT_EQ(std::pair(stream.title, stream.date), std::pair(std::optional<std::string>("Second"), 1245061230));
  for (const char* date : {"2009-06-15", "Mon, 15 Jun 2009 10:20:30 GMT"}) {
    EXPECT_EQ(PROBE(pngWith({PngFixture_Text("Creation Time", date)})).date, 0) << date;
  }
  // Text chunks of 512 bytes or more are not read.
  EXPECT_EQ(PROBE(pngWith({PngFixture_Text("Title", std::string(505, 't'))})).title, std::string(505, 't'));
  EXPECT_EQ(PROBE(pngWith({PngFixture_Text("Title", std::string(506, 't'))})).title, std::nullopt);
  // Text behind the image data is not read.
  EXPECT_EQ(PROBE(PngFixture_File({PngFixture_Header(8, 8, 8, 2), PngFixture_Chunk("IDAT", {0}),
                                   PngFixture_Text("Title", "late")})).title, std::nullopt);
  auto bytes = PngFixture_File({PngFixture_Header(8, 8, 8, 2), PngFixture_Text("Title", "cut")});
  bytes.pop_back();  // a chunk running past the data ends the walk
  EXPECT_EQ(PROBE(bytes).title, std::nullopt);
}

TEST(Gif, VersionsHeaderAndDepth) {
  for (const char* version : {"87a", "89a"}) {
    EXPECT_EQ(StreamText(PROBE(GifFixture_Picture(version, 20, 10, 4)).streamInfo.at(0)), "1 3 1 5000/1000 0 0 0 20x10 4");
  }
  for (const char* version : {"87b", "89A", "90a"}) EXPECT_EQ(MediaProbe_Bytes(GifFixture_Picture(version, 20, 10, 4)), nullptr);
  // The colour table size field (low three bits) plus one; an empty screen has no stream.
  for (auto [packed, bits] : {std::pair<uint8_t, int>{0x00, 1}, {0x81, 2}, {0x7A, 3}, {0xF7, 8}}) {
    EXPECT_EQ(PROBE(GifFixture_Header("87a", 5, 5, packed)).streamInfo.at(0).bitsPerPixel, bits) << int(packed);
  }
  EXPECT_EQ(PROBE(GifFixture_Header("89a", 0, 5, 0x80)).streamCount(), 0);
  auto header = GifFixture_Header("89a", 7, 9, 0xF7);
  header.pop_back();  // thirteen bytes are the whole header
  EXPECT_EQ(MediaProbe_Bytes(header), nullptr);
}

}  // namespace
