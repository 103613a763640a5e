// WAV and AVI files probed through the whole dispatch: the chunk walk and its
// limits, sample counts, INFO and embedded ID3 tags, AVI stream lists.
#include <gtest/gtest.h>

#include <string>

#include "tests/fixtures/ByteWriter.h"
#include "tests/fixtures/JpegFixture.h"
#include "tests/fixtures/Mp3Fixture.h"
#include "tests/fixtures/RiffFixture.h"
#include "tests/unit/ProbeCheck.h"

namespace {

std::vector<uint8_t> text(std::string_view value) { return {value.begin(), value.end()}; }
std::vector<uint8_t> silence(size_t bytes) { return std::vector<uint8_t>(bytes, 0x80); }
std::vector<uint8_t> format() { return RiffFixture_PcmFormat("fmt ", 2, 22050, 16); }

TEST(Wav, FormatSampleCountAndChunkWalk) {
  // Block align 4: 4000 data bytes are 1000 sample frames; a "fact" count wins wherever it lies.
  EXPECT_EQ(StreamText(PROBE(RiffFixture_File("WAVE", {format(), RiffFixture_Chunk("data", silence(4000))})).streamInfo.at(0)),
            "1 1 1 1000/22050 22050 2 16 0x0 0");
  EXPECT_EQ(PROBE(RiffFixture_File("WAVE", {format(), RiffFixture_Chunk("data", silence(4000)),
                                            RiffFixture_Chunk("fact", {0x09, 0x03, 0, 0})})).duration, 777u);
  // Without a usable format chunk the file is still WAV, but has no stream.
  MediaStream stream = PROBE(RiffFixture_File("WAVE", {RiffFixture_Chunk("fmt ", silence(14))}));
  EXPECT_EQ(std::pair(std::string(stream.mimeType), stream.streamCount()), std::pair(std::string("audio/wave"), uint8_t(0)));

  // A chunk that does not fit ends the walk; the RIFF size must fit; the form must be WAVE or AVI.
  ByteWriter patched;
  patched.bytes(RiffFixture_File("WAVE", {format(), RiffFixture_Chunk("data", silence(800))}));
  patched.patchU32le(12 + 24 + 4, 801);
  EXPECT_EQ(PROBE(patched.data()).duration, 0u);
  patched.patchU32le(4, static_cast<uint32_t>(patched.size() - 7));
  EXPECT_EQ(MediaProbe_Bytes(patched.data()), nullptr);
  EXPECT_EQ(MediaProbe_Bytes(RiffFixture_File("WAVX", {format()})), nullptr);
}

TEST(Wav, InfoTagsDatesAndTheLaterTagChunk) {
  MediaStream stream = PROBE(RiffFixture_File(
      "WAVE", {format(), RiffFixture_List("INFO", {RiffFixture_Chunk("INAM", text(std::string(700, 't'))),
                                                   RiffFixture_Chunk("IART", text(std::string("Art\0ist", 8))),
                                                   RiffFixture_Chunk("IPRD", text("Product")),
                                                   RiffFixture_Chunk("IGNR", text("Genre")),
                                                   RiffFixture_Chunk("ICRD", text("2004:05:06"))})}));
  EXPECT_EQ(std::tuple(*stream.title, *stream.artist, *stream.album, *stream.genre, stream.date),
            std::tuple(std::string(511, 't'), "Art", "Product", "Genre", 1083801600));
  for (auto [date, seconds] : {std::pair<const char*, int32_t>{"2019-06-01", 1559347200}, {"1999", 915148800}, {"undated", 0}}) {
    EXPECT_EQ(PROBE(RiffFixture_File("WAVE", {RiffFixture_List("INFO", {RiffFixture_Chunk("ICRD", text(date))})})).date,
              seconds);
  }
  const auto id3 = RiffFixture_Chunk(
      "id3 ", Id3TagBuilder(3).text("TIT2", "Tag Title").frame("APIC", Id3Fixture_Picture(3, "image/jpeg", "", JpegFixture_Cover())).build());
  const auto info = RiffFixture_List("INFO", {RiffFixture_Chunk("INAM", text("Info Title")),
                                              RiffFixture_Chunk("IART", text("Info Artist"))});
  const auto infoFirst = RiffFixture_File("WAVE", {format(), info, id3});
  stream = PROBE(infoFirst);
  EXPECT_EQ(std::tuple(std::string(stream.mimeType), *stream.title, *stream.artist),
            std::tuple(std::string("audio/wave"), "Tag Title", "Info Artist"));
  // The cover is located in the file, behind everything but the pad byte.
  const int64_t jpegSize = static_cast<int64_t>(JpegFixture_Cover().size());
  EXPECT_EQ(stream.coverOffset, static_cast<int64_t>(infoFirst.size()) - jpegSize - (jpegSize & 1));
  EXPECT_EQ(PROBE(RiffFixture_File("WAVE", {format(), id3, info})).title, "Info Title");
}

std::vector<uint8_t> streamList(std::string_view type, uint32_t flags, uint32_t scale, uint32_t rate, uint32_t length,
                                std::vector<uint8_t> format) {
  return RiffFixture_List("strl", {RiffFixture_StreamHeader(type, flags, scale, rate, length), format});
}

TEST(Avi, StreamHeadersTagsAndTheEndOfTheWalk) {
  MediaStream stream = PROBE(RiffFixture_File(
      "AVI ", {RiffFixture_List("hdrl", {
                   RiffFixture_Chunk("avih", silence(56)),
                   streamList("vids", 0, 1001, 30000, 300, RiffFixture_VideoFormat(640, -480, 24)),  // top-down
                   streamList("auds", 1, 1, 44100, 441000, RiffFixture_PcmFormat("strf", 2, 44100, 16)),  // disabled
                   streamList("vids", 0, 1, 25, 0, RiffFixture_VideoFormat(320, 240, 24)),  // no length: skipped
                   streamList("txts", 0, 1, 1000, 5000, RiffFixture_Chunk("strf", silence(4))),
                   streamList("vids", 0, 1, 25, 10, RiffFixture_VideoFormat(0, 240, 24)),  // bad width
               })}));
  EXPECT_EQ(std::tuple(std::string(stream.mimeType), stream.duration, stream.timescale),
            std::tuple(std::string("video/avi"), 300u * 1001, 30000u));
  ASSERT_EQ(stream.streamCount(), 4);
  EXPECT_EQ(StreamText(stream.streamInfo[0]), "1 2 1 300300/30000 0 0 0 640x480 24");
  EXPECT_EQ(StreamText(stream.streamInfo[1]), "2 1 0 441000/44100 44100 2 16 0x0 0");
  EXPECT_EQ(StreamText(stream.streamInfo[2]), "3 4 1 5000/1000 0 0 0 0x0 0");
  EXPECT_EQ(StreamText(stream.streamInfo[3]), "4 2 1 10/25 0 0 0 0x0 0");
  EXPECT_EQ(PROBE(RiffFixture_File("AVI ", {})).mediaType, MediaType_Video);  // even without streams

  // Once header, INFO, movie data and index are all seen, the walk ends.
  const auto hdrl = RiffFixture_List("hdrl", {streamList("vids", 0, 1, 25, 50, RiffFixture_VideoFormat(8, 8, 24))});
  const auto info = RiffFixture_List("INFO", {RiffFixture_Chunk("INAM", text("Info"))});
  const auto movi = RiffFixture_List("movi", {RiffFixture_Chunk("00dc", silence(16))});
  const auto idx1 = RiffFixture_Chunk("idx1", silence(16));
  const auto id3 = RiffFixture_Chunk("id3 ", Id3TagBuilder(4).text("TIT2", "Tag").build());
  EXPECT_EQ(PROBE(RiffFixture_File("AVI ", {hdrl, info, movi, id3, idx1})).title, "Tag");
  EXPECT_EQ(PROBE(RiffFixture_File("AVI ", {hdrl, info, movi, idx1, id3})).title, "Info");
}

}  // namespace
