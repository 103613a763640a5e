// FLAC metadata: stream parameters and their limits, Vorbis comments and their
// dates, the cover picture's location and limits, and the block walk's bounds. The complete demo song is checked through dms-probe.
#include <gtest/gtest.h>

#include <string>

#include "tests/fixtures/FlacFixture.h"
#include "tests/unit/ProbeCheck.h"

namespace {

std::vector<uint8_t> flacWithComments(const std::vector<std::string>& comments) {
  return FlacFixture_File({FlacFixture_StreamInfo(44100, 2, 16, 44100), FlacFixture_Comments(comments)});
}

TEST(Flac, StreamInfoLimits) {
  struct Case {
    uint32_t sampleRate;
    unsigned bitsPerSample;
    uint64_t totalSamples;
    std::string stream;  // empty: no stream
  };
  const Case cases[] = {
      {48000, 24, 0xFFFFFFFFull, "1 1 1 4294967295/48000 48000 6 24 0x0 0"},  // the largest 32-bit total
      {48000, 24, 0x100000000ull, ""}, {48000, 24, 0, ""}, {0, 16, 1000, ""}, {48000, 3, 1000, ""},
      {655350, 4, 1000, "1 1 1 1000/655350 655350 6 4 0x0 0"},
  };
  for (const Case& c : cases) {
    // The marker alone claims the file.
    MediaStream stream = PROBE(FlacFixture_File({FlacFixture_StreamInfo(c.sampleRate, 6, c.bitsPerSample, c.totalSamples)}));
    EXPECT_EQ(stream.streamCount() ? StreamText(stream.streamInfo[0]) : "", c.stream) << c.totalSamples;
  }
  auto info = FlacFixture_StreamInfo(44100, 2, 16, 1000);
  info.payload.resize(17);  // a block shorter than 18 bytes is not read
  EXPECT_EQ(PROBE(FlacFixture_File({info})).streamCount(), 0);
}

TEST(Flac, VorbisCommentsAndDates) {
  MediaStream stream = PROBE(flacWithComments({
      "tItLe=First", "ARTIST=Someone", "no equals sign", "Title=Second",  // a later value replaces
      "GENRE=" + std::string(594, 'g'), "ALBUM=" + std::string(505, 'a'), "GENRE=" + std::string(506, 'x'),
      "", "TITLEX=not a title", "=empty field", std::string("DATE=2009-06\0hidden", 19),
  }));
  EXPECT_EQ(std::tuple(stream.title, stream.artist, stream.album, stream.genre, stream.date),
            std::tuple(std::optional<std::string>("Second"), std::optional<std::string>("Someone"),
                       std::optional<std::string>(std::string(505, 'a')), std::optional<std::string>(), 1243814400));
  // No more comments than the stated count are read.
  auto block = FlacFixture_Comments({"TITLE=one", "ARTIST=two"});
  block.payload[4 + 11] = 1;  // the count, behind the vendor text
  EXPECT_EQ(PROBE(FlacFixture_File({block})).artist, std::nullopt);
  // A comment running past its block ends the loop; the next block is still read.
  block = FlacFixture_Comments({"TITLE=one", "ARTIST=two"});
  block.payload.pop_back();
  stream = PROBE(FlacFixture_File({block, FlacFixture_StreamInfo(44100, 2, 16, 44100)}));
  EXPECT_EQ(std::tuple(stream.title, stream.artist, stream.streamCount()),
            std::tuple(std::optional<std::string>("one"), std::optional<std::string>(), uint8_t(1)));

  const std::pair<std::string, int32_t> dates[] = {
      {"2009", 1230768000}, {"2009-06-15T12:00:00", 1245024000}, {"2009:06:15", 1230768000},  // only dashes join
      {"June 2009", 0}, {"1969-12-31", -86400}, {"2040-01-01", 0},
  };
  for (const auto& [text, expected] : dates) EXPECT_EQ(PROBE(flacWithComments({"date=" + text})).date, expected) << text;
  EXPECT_EQ(PROBE(flacWithComments({"DATE=2009", "DATE=unknown"})).date, 1230768000);  // the earlier date stays
}

TEST(Flac, PictureTypesAndLimits) {
  struct Case {
    std::string mime;
    size_t size;
    const char* coverMime;
    int64_t coverLength;
  };
  const Case cases[] = {
      {"IMAGE/JPG", 100, "image/jpeg", 100}, {"image/png", 100, "image/png", 100},
      {"image/gif", 100, nullptr, 100},  // located, but of no known type
      {"image/jpeg", 1048576, "image/jpeg", 1048576}, {"image/jpeg", 1048577, nullptr, 0},
      {"-->", 100, nullptr, 0}, {std::string(64, 'j'), 100, nullptr, 0},
      {"image/" + std::string(54, 'j') + "png", 100, "image/png", 100},  // 63 bytes
  };
  for (const Case& c : cases) {
    MediaStream stream = PROBE(FlacFixture_File({FlacFixture_Picture(c.mime, std::vector<uint8_t>(c.size, 0xAB))}));
    EXPECT_EQ(stream.coverLength, c.coverLength) << c.mime;
    EXPECT_STREQ(stream.coverMimeType, c.coverMime) << c.mime;
  }
  auto block = FlacFixture_Picture("image/png", std::vector<uint8_t>(100, 1));
  block.payload.pop_back();  // data that would run past its block
  EXPECT_EQ(PROBE(FlacFixture_File({block})).coverLength, 0);
  // A later picture replaces an earlier one.
  const auto bytes = FlacFixture_File({FlacFixture_Picture("image/png", std::vector<uint8_t>(10, 1)),
                                       FlacFixture_Picture("image/jpeg", std::vector<uint8_t>(20, 2))});
  MediaStream stream = PROBE(bytes);
  EXPECT_EQ(std::pair(stream.coverLength, stream.coverOffset + 20 + 64), std::pair(int64_t(20), int64_t(bytes.size())));
}

TEST(Flac, BlockWalkBounds) {
  // Nothing behind a block flagged as last, nor a block that does not fit, is read.
  auto bytes = FlacFixture_File({FlacFixture_Padding(4), FlacFixture_Comments({"TITLE=hidden"})});
  bytes[4] |= 0x80;
  EXPECT_EQ(PROBE(bytes).title, std::nullopt);
  bytes = FlacFixture_File({FlacFixture_Comments({"TITLE=cut"})}, 0);
  bytes.pop_back();
  EXPECT_EQ(PROBE(bytes).title, std::nullopt);
  EXPECT_EQ(MediaProbe_Bytes({'f', 'L', 'a'}), nullptr);
}

}  // namespace
