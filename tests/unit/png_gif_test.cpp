// PNG and GIF pictures: sizes and depths, PNG text chunks and the bounds of
// the chunk walk, GIF versions.
#include <gtest/gtest.h>

#include <string>

#include "tests/fixtures/ByteWriter.h"
#include "tests/fixtures/GifFixture.h"
#include "tests/fixtures/PngFixture.h"
#include "tests/unit/ProbeCheck.h"

namespace {

constexpr int32_t k2009June15At102030 = 1245061230;

std::vector<uint8_t> pngWith(const std::vector<std::vector<uint8_t>>& chunks) {
  std::vector<std::vector<uint8_t>> all{PngFixture_Header(64, 48, 8, 2)};
  all.insert(all.end(), chunks.begin(), chunks.end());
  all.push_back(PngFixture_Chunk("IDAT", std::vector<uint8_t>(20, 0)));
  all.push_back(PngFixture_End());
  return PngFixture_File(all);
}

TEST(Png, CompletePicture) {
  MediaStream stream = PROBE(PngFixture_Picture(16, 12, "Sunset", "2009:06:15 10:20:30"));
  EXPECT_EQ(stream.mediaType, MediaType_Image);
  EXPECT_STREQ(stream.mimeType, "image/png");
  EXPECT_EQ(std::pair(stream.duration, stream.timescale), std::pair(0u, 1000u));
  ASSERT_EQ(stream.streamCount(), 1);
  EXPECT_EQ(StreamText(stream.streamInfo[0]), "1 3 1 5000/1000 0 0 0 16x12 24");
  EXPECT_EQ(stream.title, "Sunset");
  EXPECT_EQ(stream.date, k2009June15At102030);
  EXPECT_EQ(stream.coverLength, 0);
  EXPECT_EQ(stream.seekInfo, nullptr);
}

TEST(Png, BitsPerPixelByColourType) {
  struct Case {
    uint8_t depth;
    uint8_t colourType;
    uint8_t bitsPerPixel;
  };
  const Case cases[] = {
      {8, 0, 24}, {1, 0, 3}, {16, 0, 48},  // greyscale counts as three channels
      {8, 2, 24}, {16, 2, 48},             //
      {8, 3, 8},  {4, 3, 4},               // palette
      {8, 4, 32},                          // greyscale with alpha counts as four
      {8, 6, 32}, {16, 6, 64},             //
      {8, 5, 0},  {8, 7, 0},
  };
  for (const Case& c : cases) {
    MediaStream stream = PROBE(PngFixture_File({PngFixture_Header(3, 2, c.depth, c.colourType)}));
    ASSERT_EQ(stream.streamCount(), 1);
    EXPECT_EQ(stream.streamInfo[0].bitsPerPixel, c.bitsPerPixel)
        << "depth " << int(c.depth) << ", colour type " << int(c.colourType);
  }
}

TEST(Png, HeaderLimits) {
  MediaStream stream = PROBE(PngFixture_File({PngFixture_Header(65535, 65535, 8, 6)}));
  ASSERT_EQ(stream.streamCount(), 1);
  EXPECT_EQ(stream.streamInfo[0].width, 65535);
  EXPECT_EQ(stream.streamInfo[0].height, 65535);

  ByteWriter longHeader;
  longHeader.u32be(10).u32be(10).u8(8).u8(2).u8(0).u8(0).u8(0).u8(0);
  const std::vector<uint8_t> broken[] = {
      PngFixture_Header(0, 10, 8, 2),
      PngFixture_Header(10, 0, 8, 2),
      PngFixture_Header(65536, 10, 8, 2),
      PngFixture_Header(10, 65536, 8, 2),
      PngFixture_Header(10, 10, 0, 2),
      PngFixture_Chunk("IHDR", longHeader.data()),
  };
  for (const auto& header : broken) {
    stream = PROBE(PngFixture_File({header, PngFixture_Text("Title", "kept")}));  // the signature claims the file
    EXPECT_STREQ(stream.mimeType, "image/png");
    EXPECT_EQ(stream.streamCount(), 0);
    EXPECT_EQ(stream.title, "kept");
  }
}

TEST(Png, TextChunks) {
  MediaStream stream = PROBE(pngWith({
      PngFixture_Text("Author", "Someone"),
      PngFixture_Text("TITLE", "First"),
      PngFixture_Text("title", "Second"),  // a later title replaces an earlier one
      PngFixture_Text("Title", ""),        // too short to hold a title
      PngFixture_Text("Titles", "not a title"),
      PngFixture_Text("creation time", "2009-06-15 10:20:30"),
  }));
  EXPECT_EQ(stream.title, "Second");
  EXPECT_EQ(stream.date, k2009June15At102030);

  const std::pair<std::string, int32_t> dates[] = {
      {"2009:06:15 10:20:30", k2009June15At102030},
      {"2009-06-15 10:20:30", k2009June15At102030},
      {"2009-06-15T10:20:30", k2009June15At102030},
      {"2009-06-15", 0},  // all six numbers are needed
      {"Mon, 15 Jun 2009 10:20:30 GMT", 0},
  };
  for (const auto& [text, expected] : dates) {
    EXPECT_EQ(PROBE(pngWith({PngFixture_Text("Creation Time", text)})).date, expected) << text;
  }

  // Text chunks of 512 bytes or more are not read.
  EXPECT_EQ(PROBE(pngWith({PngFixture_Text("Title", std::string(505, 't'))})).title, std::string(505, 't'));
  EXPECT_EQ(PROBE(pngWith({PngFixture_Text("Title", std::string(506, 't'))})).title, std::nullopt);
}

TEST(Png, WalkEndsAtImageDataAndAfterSixteenChunks) {
  // Text behind the first image data chunk is not read.
  MediaStream stream = PROBE(PngFixture_File({
      PngFixture_Header(8, 8, 8, 2),
      PngFixture_Chunk("IDAT", std::vector<uint8_t>(10, 0)),
      PngFixture_Text("Title", "late"),
      PngFixture_Text("Creation Time", "2009:06:15 10:20:30"),
      PngFixture_End(),
  }));
  EXPECT_EQ(stream.streamCount(), 1);
  EXPECT_EQ(stream.title, std::nullopt);
  EXPECT_EQ(stream.date, 0);

  // The header and 14 other chunks leave room for a title as the 16th chunk,
  // but not as the 17th.
  for (size_t fillers : {14u, 15u}) {
    std::vector<std::vector<uint8_t>> chunks(fillers, PngFixture_Chunk("zTXt", std::vector<uint8_t>(8, 'z')));
    chunks.push_back(PngFixture_Text("Title", "counted"));
    stream = PROBE(pngWith(chunks));
    EXPECT_EQ(stream.title.has_value(), fillers == 14) << fillers;
  }

  // A chunk running past the data ends the walk; what was read stays.
  auto bytes = PngFixture_File({PngFixture_Header(8, 8, 8, 2), PngFixture_Text("Title", "cut")});
  bytes.pop_back();
  stream = PROBE(bytes);
  EXPECT_EQ(stream.streamCount(), 1);
  EXPECT_EQ(stream.title, std::nullopt);
}

TEST(Png, SignatureMustBeExact) {
  auto bytes = PngFixture_Picture(4, 4, "", "");
  bytes[7] = 0x0B;
  EXPECT_EQ(MediaProbe_Bytes(bytes), nullptr);
  // The signature alone is a PNG without a stream.
  EXPECT_EQ(PROBE(PngFixture_File({})).streamCount(), 0);
  EXPECT_EQ(MediaProbe_Bytes({0x89, 'P', 'N', 'G', 0x0D, 0x0A, 0x1A}), nullptr);
}

TEST(Gif, VersionsAndHeader) {
  for (const char* version : {"87a", "89a"}) {
    MediaStream stream = PROBE(GifFixture_Picture(version, 20, 10, 4));
    EXPECT_EQ(stream.mediaType, MediaType_Image);
    EXPECT_STREQ(stream.mimeType, "image/gif");
    ASSERT_EQ(stream.streamCount(), 1);
    EXPECT_EQ(StreamText(stream.streamInfo[0]), "1 3 1 5000/1000 0 0 0 20x10 4");
  }
  for (const char* version : {"87b", "89A", "90a", "88a"}) {
    EXPECT_EQ(MediaProbe_Bytes(GifFixture_Picture(version, 20, 10, 4)), nullptr) << version;
  }

  // Thirteen bytes are the whole header; twelve are too few.
  auto header = GifFixture_Header("89a", 7, 9, 0xF7);
  ASSERT_EQ(header.size(), 13u);
  EXPECT_EQ(PROBE(header).streamCount(), 1);
  header.pop_back();
  EXPECT_EQ(MediaProbe_Bytes(header), nullptr);
}

TEST(Gif, BitsPerPixelAndEmptyScreen) {
  // The colour table size field (low three bits) plus one.
  for (auto [packed, bitsPerPixel] : {std::pair<uint8_t, int>{0x00, 1}, {0x80, 1}, {0x81, 2}, {0x7A, 3}, {0xF7, 8}}) {
    MediaStream stream = PROBE(GifFixture_Header("87a", 5, 5, packed));
    ASSERT_EQ(stream.streamCount(), 1);
    EXPECT_EQ(stream.streamInfo[0].bitsPerPixel, bitsPerPixel) << int(packed);
  }
  for (auto [width, height] : {std::pair<uint16_t, uint16_t>{0, 5}, {5, 0}}) {
    EXPECT_EQ(PROBE(GifFixture_Header("89a", width, height, 0x80)).streamCount(), 0);
  }
  MediaStream stream = PROBE(GifFixture_Header("89a", 65535, 65535, 0));
  ASSERT_EQ(stream.streamCount(), 1);
  EXPECT_EQ(stream.streamInfo[0].width, 65535);
}

}  // namespace
