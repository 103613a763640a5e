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
#include "tests/fixtures/Mp3Fixture.h"
#include "tests/unit/ProbeCheck.h"

namespace {

std::vector<uint8_t> join(std::vector<uint8_t> a, const std::vector<uint8_t>& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

std::vector<uint8_t> stereo(size_t count) { return Mp3Fixture_Frames(kMp3Mpeg1Stereo, count); }

// A tag in front of ten plain stereo frames.
MediaStream probeTagged(const Id3TagBuilder& tag) { return PROBE(join(tag.build(), stereo(10))); }

std::vector<uint8_t> latin1(std::string_view text) {
  ByteWriter out;
  out.u8(0).text(text);
  return out.data();
}

TEST(Mp3, DurationFromLengthAndOneStream) {
  MediaStream stream = PROBE(stereo(10));
  EXPECT_EQ(stream.mediaType, MediaType_Audio);
  EXPECT_STREQ(stream.mimeType, "audio/mpeg");
  ASSERT_EQ(stream.streamCount(), 1);
  const StreamInfo& info = stream.streamInfo[0];
  EXPECT_EQ(std::tuple(info.duration, info.sampleRate, info.channels, info.bitsPerSample),
            std::tuple(10u * 1152, 44100u, 2, 16));
  EXPECT_EQ(stream.seekInfo, nullptr);  // metadata only

  // Samples per frame by version and layer; a trailing partial frame does not count.
  struct Case {
    const Mp3FrameFormat& format;
    size_t frames;
    size_t tail;
  };
  for (const Case& c : {Case{kMp3Mpeg1Stereo, 10, 416}, Case{kMp3Mpeg2Stereo, 20, 0},
                        Case{kMp3Mpeg1LayerI, 40, 0}, Case{kMp3Mpeg1Mono, 10, 0}}) {
    auto bytes = Mp3Fixture_Frames(c.format, c.frames);
    bytes.resize(bytes.size() + c.tail, 0);
    stream = PROBE(bytes);
    EXPECT_EQ(std::pair(stream.duration, stream.timescale),
              std::pair(uint32_t(c.frames * c.format.samplesPerFrame), c.format.sampleRate));
  }
  EXPECT_EQ(stream.streamInfo.at(0).channels, 1);
}

TEST(Mp3, RefusesWhatIsNotMpegAudio) {
  // Too short behind the (absent) tag: two frames are 834 bytes.
  EXPECT_EQ(MediaProbe_Bytes(stereo(2)), nullptr);
  EXPECT_NE(MediaProbe_Bytes(stereo(3)), nullptr);

  // Junk between tag and audio: the header must start within 512 bytes.
  const auto tag = Id3TagBuilder(3).text("TIT2", "x").build();
  EXPECT_NE(MediaProbe_Bytes(join(join(tag, std::vector<uint8_t>(511, 0)), stereo(10))), nullptr);
  EXPECT_EQ(MediaProbe_Bytes(join(join(tag, std::vector<uint8_t>(512, 0)), stereo(10))), nullptr);

  // Free format (bitrate index 0), reserved bitrate 15, reserved version
  // bits (01), layer bits (00) and sample rate.
  for (uint32_t header : {0xFFFB0000u, 0xFFFBF000u, 0xFFEB9000u, 0xFFF99000u, 0xFFFB9C00u}) {
    ByteWriter out;
    for (int i = 0; i < 8; ++i) out.u32be(header).fill(413);
    EXPECT_EQ(MediaProbe_Bytes(out.data()), nullptr) << std::hex << header;
  }

  // The next frame must be there and agree on the stream's shape.
  auto mismatch = stereo(10);
  mismatch[417 + 3] = 0xC0;  // second frame in single-channel mode
  EXPECT_EQ(MediaProbe_Bytes(mismatch), nullptr);
  mismatch = stereo(10);
  mismatch[417] = 0;
  EXPECT_EQ(MediaProbe_Bytes(mismatch), nullptr);

  // A declined file leaves no tag data in the record.
  const auto tagOnly =
      join(Id3TagBuilder(3)
               .text("TIT2", "Title")
               .frame("APIC", Id3Fixture_Picture(3, "image/png", "", std::vector<uint8_t>(8, 1)))
               .build(),
           std::vector<uint8_t>(2000, 0x55));
  FixtureFile file(tagOnly);
  MediaStream stream;
  EXPECT_FALSE(MediaParse_Mp3(file.fd(), 0, file.size(), stream, true));
  EXPECT_FALSE(stream.title);
  EXPECT_EQ(stream.coverMimeType, nullptr);
  EXPECT_EQ(stream.coverLength, 0);
}

TEST(Mp3, XingHeaderCountsAndSeekData) {
  struct Case {
    const Mp3FrameFormat& format;
    const char* magic;
    uint32_t frames;
    uint32_t expectFrames;
  };
  // "Info" is not recognised: the count comes from length / frame length.
  // The header's place depends on version and channel mode.
  for (const Case& c : {Case{kMp3Mpeg1Stereo, "Xing", 1000, 1000}, Case{kMp3Mpeg1Stereo, "Info", 1000, 6},
                        Case{kMp3Mpeg1Mono, "Xing", 300, 300}, Case{kMp3Mpeg2Stereo, "Xing", 300, 300}}) {
    MediaStream stream =
        PROBE(join(Mp3Fixture_VbrFrame(c.format, c.magic, 1, c.frames, 0), Mp3Fixture_Frames(c.format, 5)));
    EXPECT_EQ(stream.duration, c.expectFrames * c.format.samplesPerFrame) << c.magic << c.frames;
  }
  // A zero frame count leaves no stream and the one-millisecond duration.
  MediaStream stream = PROBE(join(Mp3Fixture_VbrFrame(kMp3Mpeg1Stereo, "Xing", 1, 0, 0), stereo(5)));
  EXPECT_EQ(stream.streamCount(), 0);
  EXPECT_EQ(std::pair(stream.duration, stream.timescale), std::pair(1u, 1000u));

  // Seek data: byte count shortens the audio length, the table of contents
  // replaces the frame length.
  const auto tag = Id3TagBuilder(3).text("TIT2", "x").build();
  stream = PROBE(join(tag, join(Mp3Fixture_VbrFrame(kMp3Mpeg1Stereo, "Xing", 7, 500, 1000), stereo(5))), false);
  auto* seek = dynamic_cast<Mp3SeekInfo*>(stream.seekInfo.get());
  ASSERT_NE(seek, nullptr);
  EXPECT_EQ(seek->firstFrameOffset, static_cast<int64_t>(tag.size()));
  EXPECT_EQ(seek->audioLength, 1000);
  EXPECT_EQ(seek->frameLength, 0u);
  EXPECT_EQ(seek->toc[99], 99);
  EXPECT_EQ(stream.duration, 500u * 1152);

  // A byte count beyond the data is ignored; without a table the frame length is kept.
  const auto bytes = join(Mp3Fixture_VbrFrame(kMp3Mpeg1Stereo, "Xing", 2, 0, 999999), stereo(5));
  stream = PROBE(bytes, false);
  seek = dynamic_cast<Mp3SeekInfo*>(stream.seekInfo.get());
  ASSERT_NE(seek, nullptr);
  EXPECT_EQ(seek->audioLength, static_cast<int64_t>(bytes.size()));
  EXPECT_EQ(seek->frameLength, 417u);
}

TEST(Mp3, TagVersionsAndFrameRules) {
  // Version 2.2: three-letter frames with 24-bit sizes.
  MediaStream stream = probeTagged(Id3TagBuilder(2).text("TT2", "Two").text("TP1", "Artist 2").text("TAL", "Album 2"));
  EXPECT_EQ(std::tuple(stream.title, stream.artist, stream.album),
            std::tuple(std::optional<std::string>("Two"), std::optional<std::string>("Artist 2"),
                       std::optional<std::string>("Album 2")));

  // Version 2.4: syncsafe frame sizes (a 200-byte frame has a size byte of
  // 0x01 0x48), extended header counting itself, footer behind the tag.
  const std::string longTitle(199, 'L');
  stream = probeTagged(
      Id3TagBuilder(4, 0x40 | 0x10).raw({0, 0, 0, 6, 1, 0}).text("TIT2", longTitle).text("TPE1", "Four"));
  EXPECT_EQ(stream.title, longTitle);
  EXPECT_EQ(stream.artist, "Four");

  // Version 2.3 extended header: its size excludes the size field.
  EXPECT_EQ(probeTagged(Id3TagBuilder(3, 0x40).raw({0, 0, 0, 6, 0, 0, 0, 0, 0, 0}).text("TIT2", "Three")).title,
            "Three");

  // Frames flagged compressed, encrypted, grouped or "discard when altered"
  // are passed over; the next frame is still read; read-only is harmless.
  for (uint8_t version : {3, 4}) {
    for (uint16_t flags : version == 3 ? std::vector<uint16_t>{0x8000, 0x4000, 0x0080, 0x0040, 0x0020}
                                       : std::vector<uint16_t>{0x4000, 0x2000, 0x0001, 0x0008, 0x0040}) {
      stream = probeTagged(Id3TagBuilder(version).frame("TIT2", latin1("Hidden"), flags).text("TPE1", "Seen"));
      EXPECT_FALSE(stream.title) << flags;
      EXPECT_EQ(stream.artist, "Seen");
    }
  }
  EXPECT_EQ(probeTagged(Id3TagBuilder(4).frame("TIT2", latin1("Read"), 0x1000)).title, "Read");

  // Unsynchronised tags keep no fields, but the audio behind them is found.
  for (uint8_t version : {2, 3, 4}) {
    stream = probeTagged(Id3TagBuilder(version, 0x80).text(version == 2 ? "TT2" : "TIT2", "Unsync"));
    EXPECT_FALSE(stream.title) << int(version);
    EXPECT_EQ(stream.duration, 10u * 1152);
  }
  // Version 5 is not read either.
  EXPECT_FALSE(probeTagged(Id3TagBuilder(5).text("TIT2", "Five")).title);

  // At most 128 frames are read.
  Id3TagBuilder many(3);
  for (int i = 0; i < 127; ++i) many.text("TXXX", "x");
  EXPECT_EQ(probeTagged(Id3TagBuilder(many).text("TIT2", "Last")).title, "Last");
  EXPECT_FALSE(probeTagged(many.text("TXXX", "x").text("TIT2", "Last")).title);

  // A frame running past the tag stops the loop; what came before stays.
  ByteWriter oversized;
  oversized.text("TPE1").u32be(5000).u16be(0).u8(0).text("Cut");
  stream = probeTagged(Id3TagBuilder(3).text("TIT2", "Kept").raw(oversized.data()).padding(20));
  EXPECT_EQ(stream.title, "Kept");
  EXPECT_FALSE(stream.artist);
}

TEST(Mp3, TextEncodings) {
  // Text frames of 1 to 512 bytes: a 600-byte frame gives no text.
  MediaStream stream = probeTagged(Id3TagBuilder(3).text("TIT2", std::string(599, 'a')).text("TPE1", "After"));
  EXPECT_FALSE(stream.title);
  EXPECT_EQ(stream.artist, "After");
  EXPECT_EQ(probeTagged(Id3TagBuilder(3).text("TIT2", std::string(511, 'a'))).title, std::string(511, 'a'));

  // UTF-16 with FF FE is little-endian and decoded.
  EXPECT_EQ(probeTagged(Id3TagBuilder(3).frame("TIT2", Id3Fixture_Utf16Text(u"Caf\u00e9 \u4e2d", 1, true))).title,
            "Caf\xC3\xA9 \xE4\xB8\xAD");

  // Big-endian units are formed from their first byte twice: ASCII comes
  // out empty, other text garbled; with FE FF and as encoding 2 alike.
  for (uint8_t encoding : {1, 2}) {
    stream = probeTagged(Id3TagBuilder(3)
                             .frame("TIT2", Id3Fixture_Utf16Text(u"Title", encoding, false))
                             .frame("TALB", Id3Fixture_Utf16Text(u"\u4e2d", encoding, false)));
    EXPECT_EQ(stream.title, "") << int(encoding);
    EXPECT_EQ(stream.album, "\xE4\xB9\x8E") << int(encoding);  // U+4E4E
  }

  // UTF-8 is kept; Latin-1 beyond ASCII is dropped by the UTF-8 check;
  // an unknown encoding byte gives nothing; text ends at a zero byte.
  stream = probeTagged(Id3TagBuilder(4)
                           .text("TIT2", "\xC3\xA9t\xC3\xA9", 3)
                           .text("TPE1", "caf\xE9")
                           .text("TALB", "Album", 7)
                           .text("TCON", std::string_view("Pop\0junk", 8)));
  EXPECT_EQ(stream.title, "\xC3\xA9t\xC3\xA9");
  EXPECT_FALSE(stream.artist);
  EXPECT_FALSE(stream.album);
  EXPECT_EQ(stream.genre, "Pop");
}

TEST(Mp3, GenreNumbers) {
  const std::pair<std::string_view, std::optional<std::string>> cases[] = {
      {"(17)", "Rock"},        {"(0)", "Blues"},        {"79", "Hard Rock"},
      {"(147)", "SynthPop"},   {"(148)", std::nullopt}, {"(255)", std::nullopt},
      {"(256)", "(256)"},      {"Jazz Fusion", "Jazz Fusion"}, {"(-1)", "(-1)"},
  };
  for (const auto& [text, genre] : cases) {
    EXPECT_EQ(probeTagged(Id3TagBuilder(3).text("TCON", text)).genre, genre) << text;
  }
  EXPECT_EQ(probeTagged(Id3TagBuilder(2).text("TCO", "(8)")).genre, "Jazz");
}

TEST(Mp3, YearDayAndMonthInUtc) {
  // Dates must not depend on the local time zone.
  const char* zone = std::getenv("TZ");
  const std::optional<std::string> savedZone = zone ? std::optional<std::string>(zone) : std::nullopt;
  setenv("TZ", "LOC+5", 1);  // a zone rule that needs no time zone files
  tzset();
  const std::pair<Id3TagBuilder, int32_t> cases[] = {
      // A standard TDAT frame has an encoding byte (5 bytes) and is ignored.
      {Id3TagBuilder(3).text("TYER", "2004").text("TDAT", "1505"), 1072915200},  // 2004-01-01 UTC
      // Four raw characters: year, and DDMM.
      {Id3TagBuilder(3).frame("TYER", {'1', '9', '9', '9'}).frame("TDAT", {'2', '5', '0', '3'}).frame(
           "TIME", {'1', '2', '3', '0'}),
       922320000},  // 1999-03-25 UTC
      {Id3TagBuilder(2).frame("TYE", {'2', '0', '1', '0'}).frame("TDA", {'0', '1', '0', '7'}), 1277942400},
      // No year, no date (a day alone is not enough).
      {Id3TagBuilder(3).frame("TDAT", {'2', '5', '0', '3'}).text("TYER", "none"), 0},
      // A year past the 32-bit seconds is refused, not wrapped around.
      {Id3TagBuilder(3).text("TYER", "2100"), 0},
  };
  for (const auto& [tag, date] : cases) EXPECT_EQ(probeTagged(tag).date, date);
  if (savedZone) {
    setenv("TZ", savedZone->c_str(), 1);
  } else {
    unsetenv("TZ");
  }
  tzset();
}

TEST(Mp3, AttachedPictures) {
  const std::vector<uint8_t> png(10, 0x89);
  const std::vector<uint8_t> jpeg = JpegFixture_Cover();
  const auto first = Id3Fixture_Picture(3, "image/png", "one", png);
  const auto link = Id3Fixture_Picture(3, "-->", "", {'u', 'r', 'l'});
  // Version 2.2 names the format in three letters; links are ignored; an
  // unknown MIME type still locates the picture; UTF-16 descriptions end
  // at a zero unit.
  ByteWriter utf16Description;
  utf16Description.u8(1).text("image/PNG").u8(0).u8(0).u16be(0xFFFE).u16le('d').u16le(0).bytes(png);
  struct Case {
    Id3TagBuilder tag;
    const char* mime;
    int64_t length;
    int64_t trailing = 0;  // tag bytes behind the picture
  };
  const Case cases[] = {
      // The last picture wins.
      {Id3TagBuilder(3).frame("APIC", first).frame("APIC", Id3Fixture_Picture(3, "image/jpeg", "two", jpeg)),
       "image/jpeg", int64_t(jpeg.size())},
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
    MediaStream stream = PROBE(join(bytes, stereo(10)));
    EXPECT_STREQ(stream.coverMimeType, c.mime);
    EXPECT_EQ(stream.coverLength, c.length);
    if (c.length) {
      EXPECT_EQ(stream.coverOffset, static_cast<int64_t>(bytes.size()) - c.trailing - c.length);
    }
  }
}

}  // namespace
