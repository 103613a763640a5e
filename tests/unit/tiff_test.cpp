// TIFF parser: pages in both byte orders, depth from BitsPerSample, the
// 16-picture cap, texts and dates from the first picture, chains that loop,
// and values or directories that do not fit the file.
#include <gtest/gtest.h>

#include "media/MediaStream.h"
#include "tests/fixtures/ByteWriter.h"
#include "tests/fixtures/TiffFixture.h"
#include "tests/unit/ProbeCheck.h"

namespace {

constexpr int32_t kJuly4th = 1278246600;     // 2010-07-04 12:30:00 UTC
constexpr int32_t kJanuary2nd = 1293937445;  // 2011-01-02 03:04:05 UTC

TiffFixturePage page(uint16_t width, uint16_t height, std::vector<uint16_t> bits = {8, 8, 8}) {
  TiffFixturePage p;
  p.width = width;
  p.height = height;
  p.bitsPerSample = std::move(bits);
  return p;
}

TEST(Tiff, SinglePageInBothByteOrders) {
  for (bool bigEndian : {false, true}) {
    SCOPED_TRACE(bigEndian);
    TiffFixturePage p = page(30, 20);
    p.description = "Scanned letter";
    p.artist = "Bo";
    p.dateTime = "2010-07-04T12:30:00";
    p.pixels = true;
    MediaStream stream = PROBE(TiffFixture_Pages(bigEndian, {p}));
    EXPECT_EQ(stream.mediaType, MediaType_Image);
    EXPECT_STREQ(stream.mimeType, "image/tiff");
    EXPECT_EQ(stream.title, "Scanned letter");
    EXPECT_EQ(stream.artist, "Bo");
    EXPECT_EQ(stream.date, kJuly4th);
    EXPECT_EQ(stream.coverLength, 0);
    ASSERT_EQ(stream.streamCount(), 1);
    EXPECT_EQ(StreamText(stream.streamInfo[0]), "1 3 1 5000/1000 0 0 0 30x20 24");
  }
}

TEST(Tiff, DepthFromBitsPerSample) {
  struct Case {
    std::vector<uint16_t> bits;
    uint8_t bitsPerPixel;
  };
  for (const Case& c : {Case{{8}, 8}, Case{{1}, 1}, Case{{8, 8, 8}, 24}, Case{{16, 16, 16}, 48},
                        Case{{8, 8, 8, 8}, 32}, Case{{8, 8}, 0}, Case{{8, 8, 8, 8, 8}, 0}, Case{{}, 0}}) {
    for (bool bigEndian : {false, true}) {
      SCOPED_TRACE(testing::Message() << c.bits.size() << " samples, big endian " << bigEndian);
      // Accepted even without a picture.
      MediaStream stream = PROBE(TiffFixture_Pages(bigEndian, {page(10, 10, c.bits)}));
      if (c.bitsPerPixel == 0) {
        EXPECT_EQ(stream.streamCount(), 0);
        continue;
      }
      ASSERT_EQ(stream.streamCount(), 1);
      EXPECT_EQ(stream.streamInfo[0].bitsPerPixel, c.bitsPerPixel);
    }
  }
}

TEST(Tiff, MultiPageFileIsCappedAtSixteenStreams) {
  std::vector<TiffFixturePage> pages;
  for (uint16_t i = 0; i < 20; ++i) pages.push_back(page(100 + i, 50 + i));
  MediaStream stream = PROBE(TiffFixture_Pages(true, pages));
  ASSERT_EQ(stream.streamCount(), 16);
  for (uint16_t i = 0; i < 16; ++i) {
    const StreamInfo& info = stream.streamInfo[i];
    EXPECT_EQ(info.streamNumber, i + 1u);
    EXPECT_EQ(info.width, 100 + i);
    EXPECT_EQ(info.height, 50 + i);
    EXPECT_EQ(info.enabled, i == 0 ? 1 : 0);
  }

  pages.resize(3);
  MediaStream three = PROBE(TiffFixture_Pages(false, pages));
  EXPECT_EQ(three.streamCount(), 3);
}

TEST(Tiff, TextsAndDatesComeFromTheFirstPicture) {
  TiffFixturePage sizeless = page(0, 0);
  sizeless.description = "no picture";
  sizeless.dateTime = "2011:01:02 03:04:05";
  TiffFixturePage first = page(20, 10);
  first.description = "first";
  first.dateTime = "2000:01:01 00:00:00";
  first.dateDigitized = "2010:07:04 12:30:00";
  TiffFixturePage second = page(30, 10);
  second.description = "second";
  second.artist = "someone";
  second.dateOriginal = "2011:01:02 03:04:05";
  MediaStream stream = PROBE(TiffFixture_Pages(false, {sizeless, first, second}));
  ASSERT_EQ(stream.streamCount(), 2);
  EXPECT_EQ(stream.streamInfo[0].width, 20);
  EXPECT_EQ(stream.streamInfo[1].streamNumber, 2u);
  EXPECT_EQ(stream.title, "first");
  EXPECT_FALSE(stream.artist);
  EXPECT_EQ(stream.date, kJuly4th);

  first.dateOriginal = "2011:01:02 03:04:05";
  MediaStream original = PROBE(TiffFixture_Pages(true, {first}));
  EXPECT_EQ(original.date, kJanuary2nd);
}

TEST(Tiff, ChainThatLoopsEnds) {
  // Two pictures pointing at each other: each is counted once.
  TiffFixture pictures(false);
  for (int i = 0; i < 2; ++i) {
    pictures.directory();
    pictures.shortValue(TiffTag_ImageWidth, 8).shortValue(TiffTag_ImageLength, 8).shortValue(TiffTag_BitsPerSample, 8);
  }
  pictures.link(1, 0);
  MediaStream stream = PROBE(pictures.build());
  EXPECT_EQ(stream.streamCount(), 2);

  // Directories without a picture, looping through themselves or each other.
  TiffFixture self(true);
  self.directory();
  self.shortValue(TiffTag_ImageWidth, 8);
  self.link(0, 0);
  MediaStream selfLoop = PROBE(self.build());
  EXPECT_EQ(selfLoop.streamCount(), 0);

  TiffFixture pair(false);
  pair.directory();
  pair.directory();
  pair.shortValue(TiffTag_ImageWidth, 8).shortValue(TiffTag_ImageLength, 8).shortValue(TiffTag_BitsPerSample, 8);
  pair.directory();
  pair.link(2, 0);
  MediaStream pairLoop = PROBE(pair.build());
  EXPECT_EQ(pairLoop.streamCount(), 1);
}

TEST(Tiff, ValuesOutsideTheFileAreLeftEmpty) {
  TiffFixture tiff(true);
  tiff.directory();
  tiff.longValue(TiffTag_ImageWidth, 0x10020);  // a LONG is cut to 16 bits
  tiff.shortValue(TiffTag_ImageLength, 16).shortValue(TiffTag_BitsPerSample, 8);
  tiff.raw(TiffTag_ImageDescription, TiffType_Ascii, 40, 0xFFF0);
  tiff.raw(TiffTag_DateTime, TiffType_Ascii, 20, 0xFFF0);
  tiff.ascii(TiffTag_Artist, "Ann");
  MediaStream stream = PROBE(tiff.build());
  EXPECT_FALSE(stream.title);
  EXPECT_EQ(stream.date, 0);
  EXPECT_EQ(stream.artist, "Ann");  // short enough to sit in the entry itself, in file order
  ASSERT_EQ(stream.streamCount(), 1);
  EXPECT_EQ(stream.streamInfo[0].width, 0x20);

  // Samples stored outside the file give no depth, so no picture.
  TiffFixture samples(false);
  samples.directory();
  samples.shortValue(TiffTag_ImageWidth, 16).shortValue(TiffTag_ImageLength, 16);
  samples.raw(TiffTag_BitsPerSample, TiffType_Short, 3, 0xFFF0);
  MediaStream noDepth = PROBE(samples.build());
  EXPECT_EQ(noDepth.streamCount(), 0);
}

TEST(Tiff, HeaderAndDirectoryChecks) {
  auto valid = TiffFixture_Pages(false, {page(4, 4)});
  EXPECT_NE(MediaProbe_Bytes(valid), nullptr);
  auto badMagic = valid;
  badMagic[2] = 43;
  EXPECT_EQ(MediaProbe_Bytes(badMagic), nullptr);
  EXPECT_EQ(MediaProbe_Bytes({'I', 'I', 42, 0, 7, 0, 0}), nullptr);     // seven bytes
  EXPECT_EQ(MediaProbe_Bytes({'I', 'I', 42, 0, 8, 0, 0, 0}), nullptr);  // first offset not inside

  // An entry count that does not fit leaves the directory unread.
  auto overlong = valid;
  overlong[8] = 0xFF;
  MediaStream stream = PROBE(overlong);
  EXPECT_EQ(stream.streamCount(), 0);

  // A directory cut short by the end of the data is not read either.
  auto cut = valid;
  cut.resize(8 + 2 + 12 * 2);
  MediaStream truncated = PROBE(cut);
  EXPECT_EQ(truncated.streamCount(), 0);
}

}  // namespace
