// JPEG parser: which markers count as frames, the segment limit, picture
// depth, the EXIF texts, dates and thumbnail, and the shared date rule.
#include <gtest/gtest.h>

#include <algorithm>

#include "media/MediaParsers.h"
#include "media/TiffDirectory.h"
#include "tests/fixtures/ByteWriter.h"
#include "tests/fixtures/JpegFixture.h"
#include "tests/unit/ProbeCheck.h"

namespace {

constexpr int32_t kJuly4th = 1278246600;  // 2010-07-04 12:30:00 UTC
constexpr int32_t kJanuary2nd = 1293937445;  // 2011-01-02 03:04:05 UTC
constexpr int32_t kLeapDay = 1330559999;  // 2012-02-29 23:59:59 UTC

TEST(Jpeg, OnlyTheListedMarkersAreFrames) {
  const std::vector<uint16_t> frames = {0xFFC0, 0xFFC1, 0xFFC2, 0xFFC3, 0xFFC5, 0xFFC7,
                                        0xFFC9, 0xFFCA, 0xFFCB, 0xFFCD, 0xFFCE, 0xFFCF};
  for (uint16_t marker = 0xFFC0; marker <= 0xFFCF; ++marker) {
    SCOPED_TRACE(marker);
    MediaStream stream = PROBE(JpegFixture_Build({.frameMarker = marker}));
    EXPECT_EQ(stream.mediaType, MediaType_Image);
    EXPECT_STREQ(stream.mimeType, "image/jpeg");
    const bool isFrame = std::find(frames.begin(), frames.end(), marker) != frames.end();
    EXPECT_EQ(stream.streamCount(), isFrame ? 1 : 0);
  }

  // Tables, reserved markers and 0xFFC6 in front of the frame are passed over.
  MediaStream stream = PROBE(JpegFixture_Build({.segmentsBeforeFrame = {0xFFC4, 0xFFC6, 0xFFC8, 0xFFCC}}));
  EXPECT_EQ(stream.streamCount(), 1);
}

TEST(Jpeg, FrameBehindSixteenSegmentsIsNotReached) {
  MediaStream reached = PROBE(JpegFixture_Build({.segmentsBeforeFrame = std::vector<uint16_t>(15, 0xFFE2)}));
  EXPECT_EQ(reached.streamCount(), 1);

  MediaStream missed = PROBE(JpegFixture_Build({.segmentsBeforeFrame = std::vector<uint16_t>(16, 0xFFE2)}));
  EXPECT_EQ(missed.mediaType, MediaType_Image);
  EXPECT_EQ(missed.streamCount(), 0);
}

TEST(Jpeg, DepthIsPrecisionTimesComponents) {
  struct Case {
    uint8_t precision, components, bitsPerPixel;
  };
  for (const Case c : {Case{8, 3, 24}, Case{8, 1, 8}, Case{12, 3, 36}, Case{16, 4, 64}, Case{10, 3, 0},
                       Case{8, 2, 0}}) {
    SCOPED_TRACE(testing::Message() << int(c.precision) << "x" << int(c.components));
    MediaStream stream = PROBE(
        JpegFixture_Build({.width = 640, .height = 480, .precision = c.precision, .components = c.components}));
    if (c.bitsPerPixel == 0) {
      EXPECT_EQ(stream.streamCount(), 0);
      continue;
    }
    ASSERT_EQ(stream.streamCount(), 1);
    EXPECT_EQ(StreamText(stream.streamInfo[0]), "1 3 1 5000/1000 0 0 0 640x480 " + std::to_string(c.bitsPerPixel));
  }
}

TEST(Jpeg, ExifTextsDateAndThumbnailInBothByteOrders) {
  for (bool bigEndian : {false, true}) {
    SCOPED_TRACE(bigEndian);
    const auto exif = JpegFixture_Exif({.bigEndian = bigEndian, .description = "Harbour at dawn",
                                        .artist = "Ann", .dateTime = "2010:07:04 12:30:00"});
    const auto bytes = JpegFixture_Build({.exif = exif});
    MediaStream stream = PROBE(bytes);
    EXPECT_EQ(stream.title, "Harbour at dawn");
    EXPECT_EQ(stream.artist, "Ann");  // short enough to sit in the entry itself
    EXPECT_EQ(stream.date, kJuly4th);
    EXPECT_EQ(stream.streamCount(), 1);

    const auto thumbnail = JpegFixture_Build({.width = 16, .height = 16, .components = 1});
    ASSERT_STREQ(stream.coverMimeType, "image/jpeg");
    ASSERT_EQ(stream.coverLength, int64_t(thumbnail.size()));
    // The thumbnail ends the EXIF block, which sits right behind the start of image.
    EXPECT_EQ(stream.coverOffset, kJpegFixtureExifTiffStart + int64_t(exif.size() - thumbnail.size()));
    ASSERT_LE(stream.coverOffset + stream.coverLength, int64_t(bytes.size()));
    EXPECT_TRUE(std::equal(thumbnail.begin(), thumbnail.end(), bytes.begin() + stream.coverOffset));
  }
}

TEST(Jpeg, ThumbnailReachingPastTheExifBlockGivesNoCover) {
  MediaStream stream = PROBE(
      JpegFixture_Build({.exif = JpegFixture_Exif({.description = "kept", .thumbnailLengthSlack = 1})}));
  EXPECT_EQ(stream.coverMimeType, nullptr);
  EXPECT_EQ(stream.coverLength, 0);
  EXPECT_EQ(stream.title, "kept");
  EXPECT_EQ(stream.streamCount(), 1);

  MediaStream none = PROBE(JpegFixture_Build({.exif = JpegFixture_Exif({.thumbnail = false})}));
  EXPECT_EQ(none.coverLength, 0);
}

TEST(Jpeg, CoverOffsetCountsFromTheFileStart) {
  ByteWriter w;
  w.text("junk!").bytes(JpegFixture_Build({.exif = JpegFixture_Exif({})}));
  FixtureFile file(w.data());
  MediaStream stream;
  ASSERT_TRUE(MediaParse_Jpeg(file.fd(), 5, file.size() - 5, stream, true));
  ASSERT_GT(stream.coverLength, 0);
  EXPECT_EQ(w.data()[stream.coverOffset], 0xFF);
  EXPECT_EQ(w.data()[stream.coverOffset + 1], 0xD8);
  EXPECT_EQ(stream.coverOffset + stream.coverLength, 5 + kJpegFixtureExifTiffStart +
                                                         int64_t(JpegFixture_Exif({}).size()));
}

TEST(Jpeg, DateTimeOriginalWinsOverDigitizedOverDateTime) {
  struct Case {
    const char* dateTime;
    const char* digitized;
    const char* original;
    int32_t expected;
  };
  for (const Case c : {Case{"2010:07:04 12:30:00", "", "", kJuly4th},
                       Case{"2010:07:04 12:30:00", "2011:01:02 03:04:05", "", kJanuary2nd},
                       Case{"2010:07:04 12:30:00", "2011:01:02 03:04:05", "2012:02:29 23:59:59", kLeapDay},
                       Case{"", "", "2012-02-29T23:59:59", kLeapDay},
                       Case{"2010:07:04 12:30:00", "not a date", "", kJuly4th}}) {
    SCOPED_TRACE(testing::Message() << c.dateTime << " / " << c.digitized << " / " << c.original);
    MediaStream stream = PROBE(JpegFixture_Build(
        {.exif =
             JpegFixture_Exif({.dateTime = c.dateTime, .dateOriginal = c.original, .dateDigitized = c.digitized})}));
    EXPECT_EQ(stream.date, c.expected);
  }
}

TEST(Jpeg, DateTextForms) {
  // The three forms; loose spacing; fields normalised; only the first 23
  // bytes count, as in the value buffer.
  for (const char* text : {"2010:07:04 12:30:00", "2010-07-04 12:30:00", "2010-07-04T12:30:00",
                           " 2010:7:4  12:30:00 and more", "2010:07:04 12:29:60", "2010:07:04 12:30:00    5"}) {
    EXPECT_EQ(TiffDate_Parse(text), kJuly4th) << text;
  }
  // Incomplete, mixed, empty, beyond int, beyond 32-bit seconds, timegm's -1, cut by the 23 bytes.
  for (const char* text : {"2010:07:04", "2010:07-04 12:30:00", "    :  :     :  :  ", "99999999999:1:1 0:0:0",
                           "3000:01:01 00:00:00", "1969:12:31 23:59:59", "2010:07:04           12:30:00"}) {
    EXPECT_EQ(TiffDate_Parse(text), 0) << text;
  }
}

TEST(Jpeg, DamagedFilesKeepWhatWasRead) {
  EXPECT_EQ(MediaProbe_Bytes({0xFF, 0xD8, 0xFF}), nullptr);  // too short
  EXPECT_EQ(MediaProbe_Bytes({0xFF, 0xD0, 0xFF, 0xE0, 0, 2}), nullptr);

  // The start test is loose: 0xFF, any byte with the bits of 0xD8, 0xFF.
  MediaStream loose = PROBE({0xFF, 0xD9, 0xFF, 0xE0});
  EXPECT_STREQ(loose.mimeType, "image/jpeg");
  EXPECT_EQ(loose.streamCount(), 0);

  // A broken EXIF signature is passed over; the frame still gives the size.
  auto bytes = JpegFixture_Build({.exif = JpegFixture_Exif({.description = "lost"})});
  bytes[9] = 'F';
  MediaStream stream = PROBE(bytes);
  EXPECT_FALSE(stream.title);
  EXPECT_EQ(stream.coverLength, 0);
  EXPECT_EQ(stream.streamCount(), 1);

  // A segment length running past the end stops the walk before the frame.
  auto cut = JpegFixture_Build({});
  cut.resize(8);
  MediaStream truncated = PROBE(cut);
  EXPECT_EQ(truncated.streamCount(), 0);
}

}  // namespace
