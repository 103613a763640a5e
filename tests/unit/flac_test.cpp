// FLAC metadata: stream parameters and their limits, Vorbis comments and their
// dates, the cover picture's location and limits, the block walk's bounds and
// the seek data. The complete demo song is checked through dms-probe.
#include <gtest/gtest.h>

#include <string>

#include "media/Flac.h"
#include "tests/fixtures/ByteWriter.h"
#include "tests/fixtures/FlacFixture.h"
#include "tests/unit/ProbeCheck.h"

namespace {

constexpr int32_t k2009January1 = 1230768000;
constexpr int32_t k2009June15 = 1245024000;

std::vector<uint8_t> flacWithComments(const std::vector<std::string>& comments) {
  return FlacFixture_File({FlacFixture_StreamInfo(44100, 2, 16, 44100), FlacFixture_Comments(comments)});
}

std::vector<uint8_t> flacWithPicture(std::string_view mime, size_t size) {
  return FlacFixture_File(
      {FlacFixture_StreamInfo(44100, 2, 16, 44100), FlacFixture_Picture(mime, std::vector<uint8_t>(size, 0xAB))});
}

TEST(Flac, StreamInfoLimits) {
  struct Case {
    uint32_t sampleRate;
    unsigned bitsPerSample;
    uint64_t totalSamples;
    bool hasStream;
  };
  const Case cases[] = {
      {48000, 24, 0xFFFFFFFFull, true},  // the largest total that fits 32 bits
      {48000, 24, 0x100000000ull, false},
      {48000, 24, 0, false},  // unknown length
      {0, 16, 1000, false},
      {48000, 3, 1000, false},
      {48000, 4, 1000, true},
      {655350, 32, 1000, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.sampleRate << " Hz, " << c.bitsPerSample << " bits, " << c.totalSamples);
    // The marker alone claims the file.
    MediaStream stream =
        PROBE(FlacFixture_File({FlacFixture_StreamInfo(c.sampleRate, 6, c.bitsPerSample, c.totalSamples)}));
    ASSERT_EQ(stream.streamCount(), c.hasStream ? 1 : 0);
    if (c.hasStream) {
      EXPECT_EQ(std::pair(stream.duration, stream.timescale), std::pair(uint32_t(c.totalSamples), c.sampleRate));
      EXPECT_EQ(stream.streamInfo[0].channels, 6);
      EXPECT_EQ(stream.streamInfo[0].bitsPerSample, c.bitsPerSample);
    } else {
      EXPECT_EQ(std::pair(stream.duration, stream.timescale), std::pair(1u, 1000u));
    }
  }
  // A block shorter than 18 bytes is not read at all.
  auto info = FlacFixture_StreamInfo(44100, 2, 16, 1000);
  info.payload.resize(17);
  EXPECT_EQ(PROBE(FlacFixture_File({info})).streamCount(), 0);
}

TEST(Flac, VorbisComments) {
  MediaStream stream = PROBE(flacWithComments({
      "tItLe=First",
      "ARTIST=Someone",
      "no equals sign",
      "Title=Second",  // a later value replaces an earlier one
      "GENRE=" + std::string(600 - 6, 'g'),
      "ALBUM=" + std::string(511 - 6, 'a'),
      "GENRE=" + std::string(512 - 6, 'x'),
      "",
      "TITLEX=not a title",
      "=empty field",
  }));
  EXPECT_EQ(stream.title, "Second");
  EXPECT_EQ(stream.artist, "Someone");
  EXPECT_EQ(stream.album, std::string(505, 'a'));
  EXPECT_EQ(stream.genre, std::nullopt);
  EXPECT_EQ(PROBE(flacWithComments({std::string("ARTIST=cut\0hidden", 17)})).artist, "cut");

  // Only the first 128 comments are read.
  std::vector<std::string> many(127, "COMMENT=x");
  many.push_back("TITLE=128th");
  many.push_back("ARTIST=129th");
  stream = PROBE(flacWithComments(many));
  EXPECT_EQ(std::pair(stream.title, stream.artist), std::pair(std::optional<std::string>("128th"),
                                                              std::optional<std::string>()));

  // Comments beyond the stated count are not read.
  auto block = FlacFixture_Comments({"TITLE=one", "ARTIST=two"});
  block.payload[4 + 11] = 1;  // count, behind the vendor text
  stream = PROBE(FlacFixture_File({block}));
  EXPECT_EQ(stream.title, "one");
  EXPECT_EQ(stream.artist, std::nullopt);

  // A comment running past its block ends the loop; what came before stays
  // and the next block is still read.
  block = FlacFixture_Comments({"TITLE=one", "ARTIST=two"});
  block.payload.pop_back();
  stream = PROBE(FlacFixture_File({block, FlacFixture_StreamInfo(44100, 2, 16, 44100)}));
  EXPECT_EQ(stream.title, "one");
  EXPECT_EQ(stream.artist, std::nullopt);
  EXPECT_EQ(stream.streamCount(), 1);

  // A vendor text longer than the block leaves no tags.
  block = FlacFixture_Comments({"TITLE=one"});
  block.payload[0] = 0xF0;
  EXPECT_EQ(PROBE(FlacFixture_File({block})).title, std::nullopt);
}

TEST(Flac, Dates) {
  const std::pair<std::string, int32_t> cases[] = {
      {"2009", k2009January1},
      {"2009-06", 1243814400},
      {"2009-06-15", k2009June15},
      {"2009-06-15T12:00:00", k2009June15},
      {"2009:06:15", k2009January1},  // only dashes join the parts
      {"June 2009", 0},
      {"1969-12-31", -86400},
      {"2040-01-01", 0},  // beyond 32-bit seconds
  };
  for (const auto& [text, expected] : cases) {
    EXPECT_EQ(PROBE(flacWithComments({"date=" + text})).date, expected) << text;
  }
  // An unreadable later date keeps the earlier one.
  EXPECT_EQ(PROBE(flacWithComments({"DATE=2009", "DATE=unknown"})).date, k2009January1);
}

TEST(Flac, PictureTypesAndLimits) {
  struct Case {
    std::string mime;
    size_t size;
    const char* coverMime;
    int64_t coverLength;
  };
  const Case cases[] = {
      {"image/jpeg", 100, "image/jpeg", 100},
      {"IMAGE/JPG", 100, "image/jpeg", 100},
      {"image/png", 100, "image/png", 100},
      {"image/gif", 100, nullptr, 100},  // located, but of no known type
      {"image/jpeg", 1048576, "image/jpeg", 1048576},
      {"image/jpeg", 1048577, nullptr, 0},
      {"-->", 100, nullptr, 0},
      {std::string(64, 'j'), 100, nullptr, 0},
      {"image/" + std::string(54, 'j') + "png", 100, "image/png", 100},  // 63 bytes
  };
  for (const Case& c : cases) {
    MediaStream stream = PROBE(flacWithPicture(c.mime, c.size));
    EXPECT_EQ(stream.coverLength, c.coverLength) << c.mime;
    EXPECT_STREQ(stream.coverMimeType, c.coverMime) << c.mime;
  }

  // Picture data that would run past its block gives no cover.
  auto block = FlacFixture_Picture("image/png", std::vector<uint8_t>(100, 1));
  block.payload.pop_back();
  EXPECT_EQ(PROBE(FlacFixture_File({block})).coverLength, 0);

  // A later picture replaces an earlier one.
  const auto bytes = FlacFixture_File({FlacFixture_Picture("image/png", std::vector<uint8_t>(10, 1)),
                                       FlacFixture_Picture("image/jpeg", std::vector<uint8_t>(20, 2))});
  MediaStream stream = PROBE(bytes);
  EXPECT_STREQ(stream.coverMimeType, "image/jpeg");
  ASSERT_EQ(stream.coverLength, 20);
  EXPECT_EQ(stream.coverOffset + 20 + 64, int64_t(bytes.size()));
  EXPECT_EQ(bytes[stream.coverOffset], 2);
}

TEST(Flac, BlockWalkBounds) {
  // 31 blocks are read before the 32nd; a 33rd is not.
  std::vector<FlacFixtureBlock> blocks(31, FlacFixture_Padding(4));
  blocks.push_back(FlacFixture_Comments({"TITLE=32nd"}));
  blocks.push_back(FlacFixture_Comments({"ARTIST=33rd"}));
  MediaStream stream = PROBE(FlacFixture_File(blocks));
  EXPECT_EQ(stream.title, "32nd");
  EXPECT_EQ(stream.artist, std::nullopt);

  // Nothing behind a block flagged as last is read.
  auto bytes = FlacFixture_File({FlacFixture_Padding(4), FlacFixture_Comments({"TITLE=hidden"})});
  bytes[4] |= 0x80;
  EXPECT_EQ(PROBE(bytes).title, std::nullopt);

  // A block that does not fit in the data ends the walk before it is read.
  bytes = FlacFixture_File({FlacFixture_Comments({"TITLE=cut"})}, 0);
  bytes.pop_back();
  EXPECT_EQ(PROBE(bytes).title, std::nullopt);

  // The marker must open the data: an ID3v2 tag in front hides it.
  ByteWriter tagged;
  tagged.text("ID3").u8(4).u8(0).u8(0).u32be(0).bytes(FlacFixture_Song("Song", "", "", "", ""));
  EXPECT_EQ(MediaProbe_Bytes(tagged.data()), nullptr);
  EXPECT_EQ(MediaProbe_Bytes({'f', 'L', 'a'}), nullptr);
  EXPECT_EQ(PROBE({'f', 'L', 'a', 'C'}).streamCount(), 0);
}

TEST(Flac, SeekDataOnlyWhenAskedFor) {
  const auto bytes = FlacFixture_File(
      {FlacFixture_StreamInfo(44100, 2, 16, 44100),
       FlacFixture_SeekTable({{0, 0, 4096}, {22050, 300, 4096}, {44100, 600, 4096}, {1000, 50, 4096}}),
       FlacFixture_Padding(10)},
      100);
  MediaStream stream = PROBE(bytes, false);
  const auto* seek = dynamic_cast<const FlacSeekInfo*>(stream.seekInfo.get());
  ASSERT_NE(seek, nullptr);
  EXPECT_EQ(seek->audioOffset, int64_t(bytes.size()) - 100);
  EXPECT_EQ(seek->audioLength, 100);
  // The point at the stream's end stops the table.
  ASSERT_EQ(seek->points.size(), 2u);
  EXPECT_EQ(seek->points[1].sampleNumber, 22050u);
  EXPECT_EQ(seek->points[1].byteOffset, 300u);
  EXPECT_EQ(PROBE(bytes).seekInfo, nullptr);
}

}  // namespace
