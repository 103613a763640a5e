// MPEG audio and ID3v2 tags through the whole dispatch: frame validation,
// durations from Xing headers and data length, tag versions and frame rules,
// text encodings, genres, dates in UTC and attached pictures.
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <string>

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

TEST(Mp3, FramesAndXingHeadersGiveTheDuration) {
  MediaStream stream = PROBE(stereo(10));
  EXPECT_STREQ(stream.mimeType, "audio/mpeg");
  ASSERT_EQ(stream.streamCount(), 1);
  EXPECT_EQ(StreamText(stream.streamInfo[0]), "1 1 1 11520/44100 44100 2 16 0x0 0");
  // Samples per frame by version and layer; "Info" is not read as a VBR
  // header; the header's place depends on version and channel mode.
  struct Case {
    const Mp3FrameFormat& format;
    const char* magic;  // nullptr: plain frames
    uint32_t frames;
    uint32_t expectFrames;
  };
  for (const Case& c : {Case{kMp3Mpeg2Stereo, nullptr, 20, 20}, Case{kMp3Mpeg1LayerI, nullptr, 40, 40},
                        Case{kMp3Mpeg1Stereo, "Xing", 1000, 1000}, Case{kMp3Mpeg1Stereo, "Info", 1000, 6},
                        Case{kMp3Mpeg1Mono, "Xing", 300, 300}, Case{kMp3Mpeg2Stereo, "Xing", 300, 300}}) {
    auto bytes = Mp3Fixture_Frames(c.format, c.magic ? 5 : c.frames);
    if (c.magic) bytes = join(Mp3Fixture_VbrFrame(c.format, c.magic, 1, c.frames, 0), bytes);
    EXPECT_EQ(PROBE(bytes).duration, c.expectFrames * c.format.samplesPerFrame) << (c.magic ? c.magic : "plain");
  }
  // A zero frame count leaves no stream and the one-millisecond duration.
  stream = PROBE(join(Mp3Fixture_VbrFrame(kMp3Mpeg1Stereo, "Xing", 1, 0, 0), stereo(5)));
  EXPECT_EQ(std::tuple(stream.streamCount(), stream.duration, stream.timescale), std::tuple(uint8_t(0), 1u, 1000u));
}

TEST(Mp3, RefusesWhatIsNotMpegAudio) {
  EXPECT_EQ(MediaProbe_Bytes(stereo(2)), nullptr);  // two frames are too short
  const auto tag = Id3TagBuilder(3).text("TIT2", "x").build();
  EXPECT_NE(MediaProbe_Bytes(join(join(tag, std::vector<uint8_t>(511, 0)), stereo(10))), nullptr);
  EXPECT_EQ(MediaProbe_Bytes(join(join(tag, std::vector<uint8_t>(512, 0)), stereo(10))), nullptr);
  for (uint32_t header : {0xFFFB0000u, 0xFFFBF000u, 0xFFEB9000u, 0xFFF99000u, 0xFFFB9C00u}) {
    ByteWriter out;  // free format, reserved bitrate, version, layer and sample rate
    for (int i = 0; i < 8; ++i) out.u32be(header).fill(413);
    EXPECT_EQ(MediaProbe_Bytes(out.data()), nullptr) << std::hex << header;
  }
  auto mismatch = stereo(10);
  mismatch[417 + 3] = 0xC0;  // the second frame disagrees on the channel mode
  EXPECT_EQ(MediaProbe_Bytes(mismatch), nullptr);
}

TEST(Mp3, TagVersionsAndFrameRules) {
  struct Case {
    Id3TagBuilder tag;
    std::optional<std::string> title;
  };
  const std::string longTitle(199, 'L');
  const Case cases[] = {
      {Id3TagBuilder(2).text("TT2", "Two"), "Two"},
      // Syncsafe sizes, an extended header counting itself and a footer.
      {Id3TagBuilder(4, 0x40 | 0x10).raw({0, 0, 0, 6, 1, 0}).text("TIT2", longTitle), longTitle},
      {Id3TagBuilder(3, 0x40).raw({0, 0, 0, 6, 0, 0, 0, 0, 0, 0}).text("TIT2", "Three"), "Three"},
      // Compressed, encrypted or grouped frames are passed over; read-only is harmless.
      {Id3TagBuilder(3).frame("TIT2", {0, 'H'}, 0x0080), std::nullopt},
      {Id3TagBuilder(4).frame("TIT2", {0, 'H'}, 0x0008), std::nullopt},
      {Id3TagBuilder(4).frame("TIT2", {0, 'R'}, 0x1000), "R"},
      // Unsynchronised tags and version 5 keep no fields.
      {Id3TagBuilder(3, 0x80).text("TIT2", "Unsync"), std::nullopt},
      {Id3TagBuilder(5).text("TIT2", "Five"), std::nullopt},
      // Text frames hold 1 to 512 bytes and end at a zero byte; UTF-8 is
      // kept, Latin-1 beyond ASCII fails the UTF-8 check, unknown encodings give nothing.
      {Id3TagBuilder(3).text("TIT2", std::string(599, 'a')), std::nullopt},
      {Id3TagBuilder(4).text("TIT2", std::string_view("Pop\0junk", 8)), "Pop"},
      {Id3TagBuilder(4).text("TIT2", "\xC3\xA9t\xC3\xA9", 3), "\xC3\xA9t\xC3\xA9"},
      {Id3TagBuilder(4).text("TIT2", "caf\xE9"), std::nullopt},
      {Id3TagBuilder(4).text("TIT2", "Album", 7), std::nullopt},
      // UTF-16 with FF FE is decoded; big-endian units are formed from their first byte twice.
      {Id3TagBuilder(3).frame("TIT2", Id3Fixture_Utf16Text(u"Caf\u00e9 \u4e2d", 1, true)), "Caf\xC3\xA9 \xE4\xB8\xAD"},
      {Id3TagBuilder(3).frame("TIT2", Id3Fixture_Utf16Text(u"\u4e2d", 2, false)), "\xE4\xB9\x8E"},
  };
  for (const Case& c : cases) {
    MediaStream stream = probeTagged(c.tag);
    EXPECT_EQ(stream.title, c.title) << (c.title ? *c.title : "none");
    EXPECT_EQ(stream.duration, 10u * 1152);  // the audio behind the tag is found
  }
}

TEST(Mp3, GenresAndDatesInUtc) {
  const std::pair<std::string_view, std::optional<std::string>> genres[] = {
      {"(17)", "Rock"}, {"79", "Hard Rock"}, {"(148)", std::nullopt}, {"(256)", "(256)"}, {"Jazz", "Jazz"},
  };
  for (const auto& [text, genre] : genres) EXPECT_EQ(probeTagged(Id3TagBuilder(3).text("TCON", text)).genre, genre);

  const char* zone = std::getenv("TZ");
  const std::optional<std::string> savedZone = zone ? std::optional<std::string>(zone) : std::nullopt;
  setenv("TZ", "LOC+5", 1);  // dates must not depend on the local zone
  tzset();
  const std::pair<Id3TagBuilder, int32_t> dates[] = {
      // A standard TDAT frame has an encoding byte (5 bytes) and is ignored.
      {Id3TagBuilder(3).text("TYER", "2004").text("TDAT", "1505"), 1072915200},
      {Id3TagBuilder(3).frame("TYER", {'1', '9', '9', '9'}).frame("TDAT", {'2', '5', '0', '3'}), 922320000},
      {Id3TagBuilder(2).frame("TYE", {'2', '0', '1', '0'}).frame("TDA", {'0', '1', '0', '7'}), 1277942400},
      {Id3TagBuilder(3).frame("TDAT", {'2', '5', '0', '3'}).text("TYER", "none"), 0},
      {Id3TagBuilder(3).text("TYER", "2100"), 0},  // past the 32-bit seconds
  };
  for (const auto& [tag, date] : dates) EXPECT_EQ(probeTagged(tag).date, date);
  savedZone ? setenv("TZ", savedZone->c_str(), 1) : unsetenv("TZ");
  tzset();
}

TEST(Mp3, AttachedPictures) {
  const std::vector<uint8_t> png(10, 0x89);
  const std::vector<uint8_t> jpeg = JpegFixture_Cover();
  const auto first = Id3Fixture_Picture(3, "image/png", "one", png);
  const auto link = Id3Fixture_Picture(3, "-->", "", {'u', 'r', 'l'});
  ByteWriter utf16Description;  // a UTF-16 description ends at a zero unit
  utf16Description.u8(1).text("image/PNG").u8(0).u8(0).u16be(0xFFFE).u16le('d').u16le(0).bytes(png);
  struct Case {
    Id3TagBuilder tag;
    const char* mime;
    int64_t length;
    int64_t trailing = 0;  // tag bytes behind the picture
  };
  const Case cases[] = {
      {Id3TagBuilder(3).frame("APIC", first).frame("APIC", Id3Fixture_Picture(3, "image/jpeg", "two", jpeg)),
       "image/jpeg", int64_t(jpeg.size())},  // the last picture wins
      {Id3TagBuilder(2).frame("PIC", Id3Fixture_Picture(2, "JPG", "", jpeg)), "image/jpeg", int64_t(jpeg.size())},
      {Id3TagBuilder(3).frame("APIC", first).frame("APIC", link), "image/png", int64_t(png.size()),
       int64_t(10 + link.size())},  // links are ignored
      {Id3TagBuilder(4).frame("APIC", Id3Fixture_Picture(4, "image/gif", "", png)), nullptr, int64_t(png.size())},
      {Id3TagBuilder(3).frame("APIC", Id3Fixture_Picture(3, "image/jpeg", "", {})), nullptr, 0},
      {Id3TagBuilder(3).frame("APIC", utf16Description.data()), "image/png", int64_t(png.size())},
  };
  for (const Case& c : cases) {
    const auto bytes = c.tag.build();
    MediaStream stream = PROBE(join(bytes, stereo(10)));
    EXPECT_EQ(std::pair(stream.coverMimeType ? std::string(stream.coverMimeType) : "", stream.coverLength),
              std::pair(std::string(c.mime ? c.mime : ""), c.length));
    if (c.length) {
      EXPECT_EQ(stream.coverOffset, int64_t(bytes.size()) - c.trailing - c.length);
    }
  }
}

}  // namespace
