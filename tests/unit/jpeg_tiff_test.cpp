// JPEG and TIFF pictures: which markers count as frames, the segment limit,
// depths, EXIF texts, dates and thumbnail in both byte orders, TIFF pages,
// chains that loop, and values that do not fit the file.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "media/TiffDirectory.h"
#include "tests/fixtures/JpegFixture.h"
#include "tests/fixtures/TiffFixture.h"
#include "tests/unit/ProbeCheck.h"

namespace {

constexpr int32_t kJuly4th = 1278246600;     // 2010-07-04 12:30:00 UTC
constexpr int32_t kJanuary2nd = 1293937445;  // 2011-01-02 03:04:05 UTC

TEST(Jpeg, FramesSegmentsAndDepth) {
  const std::vector<uint16_t> frames = {0xFFC0, 0xFFC1, 0xFFC2, 0xFFC3, 0xFFC5, 0xFFC7,
                                        0xFFC9, 0xFFCA, 0xFFCB, 0xFFCD, 0xFFCE, 0xFFCF};
  for (uint16_t marker = 0xFFC0; marker <= 0xFFCF; ++marker) {
    const bool isFrame = std::find(frames.begin(), frames.end(), marker) != frames.end();
    EXPECT_EQ(PROBE(JpegFixture_Build({.frameMarker = marker})).streamCount(), isFrame ? 1 : 0) << marker;
  }
  // Tables and reserved markers in front of the frame are passed over.
  EXPECT_EQ(PROBE(JpegFixture_Build({.segmentsBeforeFrame = {0xFFC4, 0xFFC6, 0xFFC8, 0xFFCC}})).streamCount(), 1);
  for (auto [precision, components, bits] : {std::tuple<uint8_t, uint8_t, int>{8, 1, 8}, {12, 3, 36}, {16, 4, 64},
                                             {10, 3, 0}, {8, 2, 0}}) {
    MediaStream stream = PROBE(JpegFixture_Build({.precision = precision, .components = components}));
    EXPECT_EQ(stream.streamCount() ? stream.streamInfo[0].bitsPerPixel : 0, bits) << int(precision) << int(components);
  }
  // The start test is loose; a segment running past the end stops the walk before the frame.
  EXPECT_EQ(PROBE({0xFF, 0xD9, 0xFF, 0xE0}).streamCount(), 0);
  EXPECT_EQ(MediaProbe_Bytes({0xFF, 0xD8, 0xFF}), nullptr);
  auto cut = JpegFixture_Build({});
  cut.resize(8);
  EXPECT_EQ(PROBE(cut).streamCount(), 0);
}

TEST(Jpeg, ExifTextsDatesAndThumbnail) {
  for (bool bigEndian : {false, true}) {
    const auto exif = JpegFixture_Exif({.bigEndian = bigEndian, .description = "Harbour at dawn", .artist = "Ann",
                                        .dateTime = "2010:07:04 12:30:00"});
    const auto bytes = JpegFixture_Build({.exif = exif});
    MediaStream stream = PROBE(bytes);
    EXPECT_EQ(std::tuple(*stream.title, *stream.artist, stream.date), std::tuple("Harbour at dawn", "Ann", kJuly4th));
    // The thumbnail ends the EXIF block, which sits right behind the start of image.
    const auto thumbnail = JpegFixture_Build({.width = 16, .height = 16, .components = 1});
    ASSERT_EQ(stream.coverLength, int64_t(thumbnail.size()));
    EXPECT_EQ(stream.coverOffset, kJpegFixtureExifTiffStart + int64_t(exif.size() - thumbnail.size()));
    EXPECT_TRUE(std::equal(thumbnail.begin(), thumbnail.end(), bytes.begin() + stream.coverOffset));
  }
  // A thumbnail reaching past the EXIF block gives no cover; a broken signature no EXIF at all.
  MediaStream slack = PROBE(JpegFixture_Build({.exif = JpegFixture_Exif({.description = "kept", .thumbnailLengthSlack = 1})}));
  EXPECT_EQ(std::pair(slack.coverLength, slack.title), std::pair(int64_t(0), std::optional<std::string>("kept")));
  auto bytes = JpegFixture_Build({.exif = JpegFixture_Exif({.description = "lost"})});
  bytes[9] = 'F';
  EXPECT_EQ(PROBE(bytes).title, std::nullopt);
  // DateTimeOriginal wins over DateTimeDigitized over DateTime.
  for (auto [dateTime, digitized, original, expected] :
       {std::tuple<const char*, const char*, const char*, int32_t>{"2010:07:04 12:30:00", "2011:01:02 03:04:05", "", kJanuary2nd},
        {"", "2011:01:02 03:04:05", "2010-07-04T12:30:00", kJuly4th}, {"2010:07:04 12:30:00", "not a date", "", kJuly4th}}) {
    EXPECT_EQ(PROBE(JpegFixture_Build({.exif = JpegFixture_Exif({.dateTime = dateTime, .dateOriginal = original,
                                                                  .dateDigitized = digitized})})).date, expected);
  }
  // Loose spacing and normalised fields pass; only the first 23 bytes count.
  for (const char* text : {"2010-07-04 12:30:00", " 2010:7:4  12:30:00 and more", "2010:07:04 12:29:60"}) {
    EXPECT_EQ(TiffDate_Parse(text), kJuly4th) << text;
  }
  for (const char* text : {"2010:07:04", "2010:07-04 12:30:00", "99999999999:1:1 0:0:0", "3000:01:01 00:00:00",
                           "1969:12:31 23:59:59", "2010:07:04           12:30:00"}) {
    EXPECT_EQ(TiffDate_Parse(text), 0) << text;
  }
}

TiffFixturePage page(uint16_t width, uint16_t height, std::vector<uint16_t> bits = {8, 8, 8}) {
  TiffFixturePage p;
  p.width = width;
  p.height = height;
  p.bitsPerSample = std::move(bits);
  return p;
}

TEST(Tiff, PagesDepthsAndTextsOfTheFirstPicture) {
  for (bool bigEndian : {false, true}) {
    TiffFixturePage sizeless = page(0, 0), first = page(30, 20), second = page(10, 10, {16, 16, 16});
    sizeless.description = "no picture";
    first.description = "first";
    first.dateTime = "2000:01:01 00:00:00";
    first.dateDigitized = "2010:07:04 12:30:00";
    second.artist = "someone";
    MediaStream stream = PROBE(TiffFixture_Pages(bigEndian, {sizeless, first, second}));
    EXPECT_EQ(std::tuple(std::string(stream.mimeType), stream.title, stream.artist, stream.date),
              std::tuple(std::string("image/tiff"), std::optional<std::string>("first"), std::optional<std::string>(), kJuly4th));
    ASSERT_EQ(stream.streamCount(), 2);
    EXPECT_EQ(StreamText(stream.streamInfo[0]), "1 3 1 5000/1000 0 0 0 30x20 24");
    EXPECT_EQ(StreamText(stream.streamInfo[1]), "2 3 0 5000/1000 0 0 0 10x10 48");
  }
  for (auto [bits, depth] : {std::pair<std::vector<uint16_t>, int>{{1}, 1}, {{8, 8, 8, 8}, 32}, {{8, 8}, 0}, {{}, 0}}) {
    MediaStream stream = PROBE(TiffFixture_Pages(false, {page(10, 10, bits)}));
    EXPECT_EQ(stream.streamCount() ? stream.streamInfo[0].bitsPerPixel : 0, depth);
  }
}

TEST(Tiff, LoopsValuesOutsideTheFileAndBadHeaders) {
  // Two pictures pointing at each other are counted once each.
  TiffFixture pictures(false);
  for (int i = 0; i < 2; ++i) {
    pictures.directory();
    pictures.shortValue(TiffTag_ImageWidth, 8).shortValue(TiffTag_ImageLength, 8).shortValue(TiffTag_BitsPerSample, 8);
  }
  pictures.link(1, 0);
  EXPECT_EQ(PROBE(pictures.build()).streamCount(), 2);

  TiffFixture tiff(true);
  tiff.directory();
  tiff.longValue(TiffTag_ImageWidth, 0x10020);  // a LONG is cut to 16 bits
  tiff.shortValue(TiffTag_ImageLength, 16).shortValue(TiffTag_BitsPerSample, 8);
  tiff.raw(TiffTag_ImageDescription, TiffType_Ascii, 40, 0xFFF0);
  tiff.raw(TiffTag_DateTime, TiffType_Ascii, 20, 0xFFF0);
  tiff.ascii(TiffTag_Artist, "Ann");
  MediaStream stream = PROBE(tiff.build());
  EXPECT_EQ(std::tuple(stream.title, stream.date, stream.artist, stream.streamInfo.at(0).width),
            std::tuple(std::optional<std::string>(), 0, std::optional<std::string>("Ann"), uint16_t(0x20)));

  auto valid = TiffFixture_Pages(false, {page(4, 4)});
  auto overlong = valid;
  overlong[8] = 0xFF;  // an entry count that does not fit leaves the directory unread
  EXPECT_EQ(PROBE(overlong).streamCount(), 0);
  valid[2] = 43;
  EXPECT_EQ(MediaProbe_Bytes(valid), nullptr);
  EXPECT_EQ(MediaProbe_Bytes({'I', 'I', 42, 0, 8, 0, 0, 0}), nullptr);  // first offset not inside
}

}  // namespace
