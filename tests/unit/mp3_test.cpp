// MPEG audio detection and ID3v2 tags, probed through the whole dispatch on
// generated files: frame search and validation, durations from Xing headers
// and data length, tag versions, text encodings, genres, dates and covers.
#include "media/Mp3.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <string>

#include "media/MediaParsers.h"
#include "tests/fixtures/ByteWriter.h"
#include "tests/fixtures/JpegFixture.h"
#include "tests/fixtures/MediaProbe.h"
#include "tests/fixtures/Mp3Fixture.h"

namespace {

std::vector<uint8_t> join(std::vector<uint8_t> a, const std::vector<uint8_t>& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

// A tag in front of ten plain stereo frames.
MediaStreamPtr probeTagged(const Id3TagBuilder& tag) {
  return MediaProbe_Bytes(join(tag.build(), Mp3Fixture_Frames(kMp3Mpeg1Stereo, 10)));
}

std::vector<uint8_t> latin1(std::string_view text) {
  ByteWriter out;
  out.u8(0).text(text);
  return out.data();
}

TEST(Mp3, PlainFramesGiveDurationFromLengthAndOneStream) {
  auto stream = MediaProbe_Bytes(Mp3Fixture_Frames(kMp3Mpeg1Stereo, 10));
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(stream->mediaType, MediaType_Audio);
  EXPECT_STREQ(stream->mimeType, "audio/mpeg");
  EXPECT_EQ(stream->duration, 10u * 1152);
  EXPECT_EQ(stream->timescale, 44100u);
  ASSERT_EQ(stream->streamCount(), 1);
  const StreamInfo& info = stream->streamInfo[0];
  EXPECT_EQ(info.streamNumber, 1u);
  EXPECT_EQ(info.streamKind, uint32_t{MediaType_Audio});
  EXPECT_EQ(info.enabled, 1);
  EXPECT_EQ(info.duration, 10u * 1152);
  EXPECT_EQ(info.sampleRate, 44100u);
  EXPECT_EQ(info.channels, 2);
  EXPECT_EQ(info.bitsPerSample, 16);
  EXPECT_EQ(stream->seekInfo, nullptr);  // metadata only

  // MPEG-2 Layer III frames hold 576 samples; single channel counts as one.
  stream = MediaProbe_Bytes(Mp3Fixture_Frames(kMp3Mpeg2Stereo, 20));
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(stream->duration, 20u * 576);
  EXPECT_EQ(stream->timescale, 22050u);
  stream = MediaProbe_Bytes(Mp3Fixture_Frames(kMp3Mpeg1Mono, 10));
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(stream->streamInfo.at(0).channels, 1);
  // Layer I: 384 samples in frames of 32 bytes.
  stream = MediaProbe_Bytes(Mp3Fixture_Frames(kMp3Mpeg1LayerI, 40));
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(stream->duration, 40u * 384);
  EXPECT_EQ(stream->timescale, 48000u);

  // A trailing partial frame does not count.
  auto bytes = Mp3Fixture_Frames(kMp3Mpeg1Stereo, 10);
  bytes.resize(bytes.size() + 416, 0);
  stream = MediaProbe_Bytes(bytes);
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(stream->duration, 10u * 1152);
}

TEST(Mp3, RefusesWhatIsNotMpegAudio) {
  // Too short behind the (absent) tag: two frames are 834 bytes.
  EXPECT_EQ(MediaProbe_Bytes(Mp3Fixture_Frames(kMp3Mpeg1Stereo, 2)), nullptr);
  EXPECT_NE(MediaProbe_Bytes(Mp3Fixture_Frames(kMp3Mpeg1Stereo, 3)), nullptr);

  // Junk between tag and audio: the header must start within 512 bytes.
  const auto tag = Id3TagBuilder(3).text("TIT2", "x").build();
  const auto frames = Mp3Fixture_Frames(kMp3Mpeg1Stereo, 10);
  EXPECT_NE(MediaProbe_Bytes(join(join(tag, std::vector<uint8_t>(511, 0)), frames)), nullptr);
  EXPECT_EQ(MediaProbe_Bytes(join(join(tag, std::vector<uint8_t>(512, 0)), frames)), nullptr);

  // Free format (bitrate index 0) and the reserved index 15.
  for (uint8_t bitrateByte : {0x00, 0xF0}) {
    ByteWriter out;
    for (int i = 0; i < 8; ++i) out.u8(0xFF).u8(0xFB).u8(bitrateByte).u8(0).fill(413);
    EXPECT_EQ(MediaProbe_Bytes(out.data()), nullptr) << int(bitrateByte);
  }
  // Reserved version bits (01) and layer bits (00), reserved sample rate.
  for (const std::vector<uint8_t>& header :
       {std::vector<uint8_t>{0xFF, 0xEB, 0x90, 0x00}, std::vector<uint8_t>{0xFF, 0xF9, 0x90, 0x00},
        std::vector<uint8_t>{0xFF, 0xFB, 0x9C, 0x00}}) {
    ByteWriter out;
    for (int i = 0; i < 8; ++i) out.bytes(header).fill(413);
    EXPECT_EQ(MediaProbe_Bytes(out.data()), nullptr);
  }

  // The next frame must be there and agree on the stream's shape.
  auto mismatch = Mp3Fixture_Frames(kMp3Mpeg1Stereo, 10);
  mismatch[417 + 3] = 0xC0;  // second frame in single-channel mode
  EXPECT_EQ(MediaProbe_Bytes(mismatch), nullptr);
  auto broken = Mp3Fixture_Frames(kMp3Mpeg1Stereo, 10);
  broken[417] = 0;
  EXPECT_EQ(MediaProbe_Bytes(broken), nullptr);
}

TEST(Mp3, DeclineDropsTagDataFromTheRecord) {
  const auto bytes =
      join(Id3TagBuilder(3)
               .text("TIT2", "Title")
               .frame("APIC", Id3Fixture_Picture(3, "image/png", "", std::vector<uint8_t>(8, 1)))
               .build(),
           std::vector<uint8_t>(2000, 0x55));
  FixtureFile file(bytes);
  MediaStream stream;
  EXPECT_FALSE(MediaParse_Mp3(file.fd(), 0, file.size(), stream, true));
  EXPECT_FALSE(stream.title);
  EXPECT_EQ(stream.coverMimeType, nullptr);
  EXPECT_EQ(stream.coverOffset, 0);
  EXPECT_EQ(stream.coverLength, 0);
  EXPECT_EQ(MediaProbe_Bytes(bytes), nullptr);
}

TEST(Mp3, XingHeaderCountsAndSeekData) {
  // Frame count from the Xing header replaces the one from the length.
  auto bytes =
      join(Mp3Fixture_VbrFrame(kMp3Mpeg1Stereo, "Xing", 1, 1000, 0), Mp3Fixture_Frames(kMp3Mpeg1Stereo, 5));
  auto stream = MediaProbe_Bytes(bytes);
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(stream->duration, 1000u * 1152);
  EXPECT_EQ(stream->timescale, 44100u);

  // "Info" is not recognised: the count comes from length / frame length.
  stream = MediaProbe_Bytes(
      join(Mp3Fixture_VbrFrame(kMp3Mpeg1Stereo, "Info", 1, 1000, 0), Mp3Fixture_Frames(kMp3Mpeg1Stereo, 5)));
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(stream->duration, 6u * 1152);

  // The header's place depends on version and channel mode.
  stream = MediaProbe_Bytes(
      join(Mp3Fixture_VbrFrame(kMp3Mpeg1Mono, "Xing", 1, 300, 0), Mp3Fixture_Frames(kMp3Mpeg1Mono, 5)));
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(stream->duration, 300u * 1152);
  stream = MediaProbe_Bytes(
      join(Mp3Fixture_VbrFrame(kMp3Mpeg2Stereo, "Xing", 1, 300, 0), Mp3Fixture_Frames(kMp3Mpeg2Stereo, 8)));
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(stream->duration, 300u * 576);

  // A zero frame count leaves no stream and the one-millisecond duration.
  stream = MediaProbe_Bytes(
      join(Mp3Fixture_VbrFrame(kMp3Mpeg1Stereo, "Xing", 1, 0, 0), Mp3Fixture_Frames(kMp3Mpeg1Stereo, 5)));
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(stream->streamCount(), 0);
  EXPECT_EQ(stream->duration, 1u);
  EXPECT_EQ(stream->timescale, 1000u);

  // Seek data: byte count shortens the audio length, the table of contents
  // replaces the frame length.
  const auto tag = Id3TagBuilder(3).text("TIT2", "x").build();
  bytes = join(tag, join(Mp3Fixture_VbrFrame(kMp3Mpeg1Stereo, "Xing", 7, 500, 1000),
                         Mp3Fixture_Frames(kMp3Mpeg1Stereo, 5)));
  stream = MediaProbe_Bytes(bytes, false);
  ASSERT_NE(stream, nullptr);
  auto* seek = dynamic_cast<Mp3SeekInfo*>(stream->seekInfo.get());
  ASSERT_NE(seek, nullptr);
  EXPECT_EQ(seek->firstFrameOffset, static_cast<int64_t>(tag.size()));
  EXPECT_EQ(seek->audioLength, 1000);
  EXPECT_EQ(seek->samplesPerFrame, 1152u);
  EXPECT_EQ(seek->frameLength, 0u);
  EXPECT_EQ(seek->toc[0], 0);
  EXPECT_EQ(seek->toc[99], 99);
  EXPECT_EQ(stream->duration, 500u * 1152);

  // A byte count beyond the data is ignored; without a table the frame length is kept.
  bytes =
      join(Mp3Fixture_VbrFrame(kMp3Mpeg1Stereo, "Xing", 2, 0, 999999), Mp3Fixture_Frames(kMp3Mpeg1Stereo, 5));
  stream = MediaProbe_Bytes(bytes, false);
  ASSERT_NE(stream, nullptr);
  seek = dynamic_cast<Mp3SeekInfo*>(stream->seekInfo.get());
  ASSERT_NE(seek, nullptr);
  EXPECT_EQ(seek->audioLength, static_cast<int64_t>(bytes.size()));
  EXPECT_EQ(seek->frameLength, 417u);
}

TEST(Mp3, TagVersionsAndFrameRules) {
  // Version 2.2: three-letter frames with 24-bit sizes.
  auto stream =
      probeTagged(Id3TagBuilder(2).text("TT2", "Two").text("TP1", "Artist 2").text("TAL", "Album 2"));
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(stream->title, "Two");
  EXPECT_EQ(stream->artist, "Artist 2");
  EXPECT_EQ(stream->album, "Album 2");

  // Version 2.4: syncsafe frame sizes (a 200-byte frame has a size byte of
  // 0x01 0x48), extended header counting itself, footer behind the tag.
  const std::string longTitle(199, 'L');
  stream = probeTagged(
      Id3TagBuilder(4, 0x40 | 0x10).raw({0, 0, 0, 6, 1, 0}).text("TIT2", longTitle).text("TPE1", "Four"));
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(stream->title, longTitle);
  EXPECT_EQ(stream->artist, "Four");

  // Version 2.3 extended header: its size excludes the size field.
  stream = probeTagged(Id3TagBuilder(3, 0x40).raw({0, 0, 0, 6, 0, 0, 0, 0, 0, 0}).text("TIT2", "Three"));
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(stream->title, "Three");

  // Frames flagged compressed, encrypted, grouped or "discard when altered"
  // are passed over; the next frame is still read.
  for (uint16_t flags : {0x8000, 0x4000, 0x0080, 0x0040, 0x0020}) {
    stream = probeTagged(Id3TagBuilder(3).frame("TIT2", latin1("Hidden"), flags).text("TPE1", "Seen"));
    ASSERT_NE(stream, nullptr);
    EXPECT_FALSE(stream->title) << flags;
    EXPECT_EQ(stream->artist, "Seen");
  }
  for (uint16_t flags : {0x4000, 0x2000, 0x0001, 0x0008, 0x0040}) {
    stream = probeTagged(Id3TagBuilder(4).frame("TIT2", latin1("Hidden"), flags).text("TPE1", "Seen"));
    ASSERT_NE(stream, nullptr);
    EXPECT_FALSE(stream->title) << flags;
  }
  stream = probeTagged(Id3TagBuilder(4).frame("TIT2", latin1("Read"), 0x1000));  // read-only is harmless
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(stream->title, "Read");

  // Unsynchronised tags keep no fields, but the audio behind them is found.
  for (uint8_t version : {2, 3, 4}) {
    stream = probeTagged(Id3TagBuilder(version, 0x80).text(version == 2 ? "TT2" : "TIT2", "Unsync"));
    ASSERT_NE(stream, nullptr) << int(version);
    EXPECT_FALSE(stream->title);
    EXPECT_EQ(stream->duration, 10u * 1152);
  }
  // Version 5 is not read either.
  stream = probeTagged(Id3TagBuilder(5).text("TIT2", "Five"));
  ASSERT_NE(stream, nullptr);
  EXPECT_FALSE(stream->title);

  // At most 128 frames are read.
  Id3TagBuilder many(3);
  for (int i = 0; i < 127; ++i) many.text("TXXX", "x");
  stream = probeTagged(Id3TagBuilder(many).text("TIT2", "Last"));
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(stream->title, "Last");
  stream = probeTagged(many.text("TXXX", "x").text("TIT2", "Last"));
  ASSERT_NE(stream, nullptr);
  EXPECT_FALSE(stream->title);

  // A frame running past the tag stops the loop; what came before stays.
  ByteWriter oversized;
  oversized.text("TPE1").u32be(5000).u16be(0).u8(0).text("Cut");
  stream = probeTagged(Id3TagBuilder(3).text("TIT2", "Kept").raw(oversized.data()).padding(20));
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(stream->title, "Kept");
  EXPECT_FALSE(stream->artist);
}

TEST(Mp3, TextEncodings) {
  // Text frames of 1 to 512 bytes: a 600-byte frame gives no text.
  {
    auto stream = probeTagged(Id3TagBuilder(3).text("TIT2", std::string(599, 'a')).text("TPE1", "After"));
    ASSERT_NE(stream, nullptr);
    EXPECT_FALSE(stream->title);
    EXPECT_EQ(stream->artist, "After");
    stream = probeTagged(Id3TagBuilder(3).text("TIT2", std::string(511, 'a')));
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(stream->title, std::string(511, 'a'));
  }

  // UTF-16 with FF FE is little-endian and decoded.
  auto stream =
      probeTagged(Id3TagBuilder(3).frame("TIT2", Id3Fixture_Utf16Text(u"Caf\u00e9 \u4e2d", 1, true)));
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(stream->title, "Caf\xC3\xA9 \xE4\xB8\xAD");

  // Big-endian units are formed from their first byte twice: ASCII comes
  // out empty, other text garbled; with FE FF and as encoding 2 alike.
  for (uint8_t encoding : {1, 2}) {
    stream = probeTagged(Id3TagBuilder(3)
                             .frame("TIT2", Id3Fixture_Utf16Text(u"Title", encoding, false))
                             .frame("TALB", Id3Fixture_Utf16Text(u"\u4e2d", encoding, false)));
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(stream->title, "") << int(encoding);
    EXPECT_EQ(stream->album, "\xE4\xB9\x8E") << int(encoding);  // U+4E4E
  }

  // UTF-8 is kept; Latin-1 beyond ASCII is dropped by the UTF-8 check;
  // an unknown encoding byte gives nothing; text ends at a zero byte.
  stream = probeTagged(Id3TagBuilder(4)
                           .text("TIT2", "\xC3\xA9t\xC3\xA9", 3)
                           .text("TPE1", "caf\xE9")
                           .text("TALB", "Album", 7)
                           .text("TCON", std::string_view("Pop\0junk", 8)));
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(stream->title, "\xC3\xA9t\xC3\xA9");
  EXPECT_FALSE(stream->artist);
  EXPECT_FALSE(stream->album);
  EXPECT_EQ(stream->genre, "Pop");
}

TEST(Mp3, GenreNumbers) {
  struct Case {
    std::string_view text;
    std::optional<std::string> genre;
  };
  const Case cases[] = {
      {"(17)", "Rock"},        {"(0)", "Blues"},        {"79", "Hard Rock"},
      {"(147)", "SynthPop"},   {"(148)", std::nullopt}, {"(200)", std::nullopt},
      {"(255)", std::nullopt}, {"(256)", "(256)"},      {"Jazz Fusion", "Jazz Fusion"},
      {"(-1)", "(-1)"},
  };
  for (const Case& c : cases) {
    auto stream = probeTagged(Id3TagBuilder(3).text("TCON", c.text));
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(stream->genre, c.genre) << c.text;
  }
  auto stream = probeTagged(Id3TagBuilder(2).text("TCO", "(8)"));
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(stream->genre, "Jazz");
}

class Mp3DateTest : public ::testing::Test {
 protected:
  // Dates must not depend on the local time zone.
  void SetUp() override {
    const char* zone = std::getenv("TZ");
    if (zone) savedZone_ = zone;
    setenv("TZ", "LOC+5", 1);  // a zone rule that needs no time zone files
    tzset();
  }
  void TearDown() override {
    if (savedZone_)
      setenv("TZ", savedZone_->c_str(), 1);
    else
      unsetenv("TZ");
    tzset();
  }

 private:
  std::optional<std::string> savedZone_;
};

TEST_F(Mp3DateTest, YearDayAndMonthInUtc) {
  // A standard TDAT frame has an encoding byte (5 bytes) and is ignored.
  auto stream = probeTagged(Id3TagBuilder(3).text("TYER", "2004").text("TDAT", "1505"));
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(stream->date, 1072915200);  // 2004-01-01 00:00:00 UTC

  // Four raw characters: year, and DDMM.
  stream = probeTagged(Id3TagBuilder(3)
                           .frame("TYER", {'1', '9', '9', '9'})
                           .frame("TDAT", {'2', '5', '0', '3'})
                           .frame("TIME", {'1', '2', '3', '0'}));
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(stream->date, 922320000);  // 1999-03-25 00:00:00 UTC

  stream =
      probeTagged(Id3TagBuilder(2).frame("TYE", {'2', '0', '1', '0'}).frame("TDA", {'0', '1', '0', '7'}));
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(stream->date, 1277942400);  // 2010-07-01

  // No year, no date (a day alone is not enough).
  stream = probeTagged(Id3TagBuilder(3).frame("TDAT", {'2', '5', '0', '3'}).text("TYER", "none"));
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(stream->date, 0);

  // A year past the 32-bit seconds is refused, not wrapped around.
  stream = probeTagged(Id3TagBuilder(3).text("TYER", "2100"));
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(stream->date, 0);
}

TEST(Mp3, AttachedPictures) {
  const std::vector<uint8_t> png(10, 0x89);
  const std::vector<uint8_t> jpeg = JpegFixture_Cover();
  const auto first = Id3Fixture_Picture(3, "image/png", "one", png);
  const auto second = Id3Fixture_Picture(3, "image/jpeg", "two", jpeg);
  const auto tag = Id3TagBuilder(3).frame("APIC", first).frame("APIC", second).build();
  auto stream = MediaProbe_Bytes(join(tag, Mp3Fixture_Frames(kMp3Mpeg1Stereo, 10)));
  ASSERT_NE(stream, nullptr);
  // The last picture wins; it lies at the end of the tag.
  EXPECT_STREQ(stream->coverMimeType, "image/jpeg");
  EXPECT_EQ(stream->coverLength, static_cast<int64_t>(jpeg.size()));
  EXPECT_EQ(stream->coverOffset, static_cast<int64_t>(tag.size() - jpeg.size()));

  // Version 2.2 names the format in three letters; links are ignored; an
  // unknown MIME type still locates the picture; UTF-16 descriptions end
  // at a zero unit.
  ByteWriter utf16Description;
  utf16Description.u8(1).text("image/PNG").u8(0).u8(0).u16be(0xFFFE).u16le('d').u16le(0).bytes(png);
  const auto link = Id3Fixture_Picture(3, "-->", "", {'u', 'r', 'l'});
  struct Case {
    Id3TagBuilder tag;
    const char* mime;
    int64_t length;
    int64_t trailing = 0;  // tag bytes behind the picture
  };
  const Case cases[] = {
      {Id3TagBuilder(2).frame("PIC", Id3Fixture_Picture(2, "JPG", "", jpeg)), "image/jpeg",
       int64_t(jpeg.size())},
      {Id3TagBuilder(2).frame("PIC", Id3Fixture_Picture(2, "png", "", png)), "image/png",
       int64_t(png.size())},
      {Id3TagBuilder(3).frame("APIC", first).frame("APIC", link), "image/png", int64_t(png.size()),
       int64_t(10 + link.size())},
      {Id3TagBuilder(4).frame("APIC", Id3Fixture_Picture(4, "image/gif", "", png)), nullptr,
       int64_t(png.size())},
      {Id3TagBuilder(3).frame("APIC", utf16Description.data()), "image/png", int64_t(png.size())},
      {Id3TagBuilder(3).frame("APIC", Id3Fixture_Picture(3, "image/jpeg", "", {})), nullptr, 0},
      {Id3TagBuilder(3).frame("APIC", Id3Fixture_Picture(3, std::string(63, 'j'), "", png)), nullptr, 0},
      {Id3TagBuilder(3).frame("APIC", Id3Fixture_Picture(3, "image/jpeg", std::string(513, 'd'), png)),
       nullptr, 0},
  };
  for (const Case& c : cases) {
    const auto bytes = c.tag.build();
    stream = MediaProbe_Bytes(join(bytes, Mp3Fixture_Frames(kMp3Mpeg1Stereo, 10)));
    ASSERT_NE(stream, nullptr);
    EXPECT_STREQ(stream->coverMimeType, c.mime);
    EXPECT_EQ(stream->coverLength, c.length);
    if (c.length) {
      EXPECT_EQ(stream->coverOffset, static_cast<int64_t>(bytes.size()) - c.trailing - c.length);
    }
  }
}

}  // namespace
