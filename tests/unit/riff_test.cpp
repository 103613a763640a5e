// WAV and AVI files probed through the whole dispatch: the chunk walk and
// its limits, sample counts, INFO and embedded ID3 tags, AVI stream lists.
#include <gtest/gtest.h>

#include <string>

#include "media/MediaStream.h"
#include "tests/fixtures/ByteWriter.h"
#include "tests/fixtures/JpegFixture.h"
#include "tests/fixtures/Mp3Fixture.h"
#include "tests/fixtures/RiffFixture.h"
#include "tests/unit/ProbeCheck.h"

namespace {

std::vector<uint8_t> text(std::string_view value) { return {value.begin(), value.end()}; }

std::vector<uint8_t> silence(size_t bytes) { return std::vector<uint8_t>(bytes, 0x80); }

TEST(Wav, FormatAndSampleCount) {
  // 16-bit stereo: block align 4, so 4000 data bytes are 1000 sample frames.
  MediaStream stream = PROBE(RiffFixture_File(
      "WAVE", {RiffFixture_PcmFormat("fmt ", 2, 22050, 16), RiffFixture_Chunk("data", silence(4000))}));
  EXPECT_EQ(stream.mediaType, MediaType_Audio);
  EXPECT_STREQ(stream.mimeType, "audio/wave");
  ASSERT_EQ(stream.streamCount(), 1);
  EXPECT_EQ(StreamText(stream.streamInfo[0]), "1 1 1 1000/22050 22050 2 16 0x0 0");
  EXPECT_EQ(std::pair(stream.duration, stream.timescale), std::pair(1000u, 22050u));

  // A "fact" count wins over data size / block align, wherever it lies.
  stream = PROBE(
      RiffFixture_File("WAVE", {RiffFixture_PcmFormat("fmt ", 2, 22050, 16), RiffFixture_Chunk("data", silence(4000)),
                                RiffFixture_Chunk("fact", {0x09, 0x03, 0, 0})}));
  EXPECT_EQ(stream.duration, 777u);
  EXPECT_EQ(stream.streamInfo.at(0).duration, 777u);

  // Without a usable format chunk the file is still WAV, but has no stream.
  stream = PROBE(
      RiffFixture_File("WAVE", {RiffFixture_Chunk("fmt ", silence(14)), RiffFixture_Chunk("data", silence(100))}));
  EXPECT_STREQ(stream.mimeType, "audio/wave");
  EXPECT_EQ(stream.streamCount(), 0);
  EXPECT_EQ(std::pair(stream.duration, stream.timescale), std::pair(0u, 1000u));
}

TEST(Wav, ChunkWalkLimits) {
  // At most eight chunks: a "data" chunk as the ninth is not seen, a "fact"
  // chunk in front still gives the duration.
  RiffChunks chunks = {RiffFixture_PcmFormat("fmt ", 1, 8000, 8)};
  for (int i = 0; i < 6; ++i)
    chunks.push_back(RiffFixture_Chunk("JUNK", silence(3)));  // odd sizes are padded
  chunks.push_back(RiffFixture_Chunk("data", silence(800)));
  MediaStream stream = PROBE(RiffFixture_File("WAVE", chunks));
  EXPECT_EQ(stream.duration, 800u);  // eighth chunk

  chunks.insert(chunks.begin() + 1, RiffFixture_Chunk("JUNK", silence(3)));
  stream = PROBE(RiffFixture_File("WAVE", chunks));
  EXPECT_EQ(stream.duration, 0u);
  EXPECT_EQ(stream.streamInfo.at(0).duration, 0u);

  chunks.insert(chunks.begin() + 1, RiffFixture_Chunk("fact", {0x20, 0x03, 0, 0}));
  stream = PROBE(RiffFixture_File("WAVE", chunks));
  EXPECT_EQ(stream.duration, 800u);

  // A chunk that does not fit ends the walk.
  auto bytes = RiffFixture_File(
      "WAVE", {RiffFixture_PcmFormat("fmt ", 1, 8000, 8), RiffFixture_Chunk("data", silence(800))});
  const size_t dataSizeAt = 12 + 24 + 4;
  ByteWriter patched;
  patched.bytes(bytes);
  patched.patchU32le(dataSizeAt, 801);
  stream = PROBE(patched.data());
  EXPECT_EQ(stream.duration, 0u);

  // The RIFF size must fit in the data; the form type must be WAVE or AVI.
  patched.patchU32le(4, static_cast<uint32_t>(bytes.size() - 7));
  EXPECT_EQ(MediaProbe_Bytes(patched.data()), nullptr);
  bytes[8] = 'X';
  EXPECT_EQ(MediaProbe_Bytes(bytes), nullptr);
  EXPECT_EQ(MediaProbe_Bytes(text(std::string_view("RIFF\x04\0\0\0WAV", 11))), nullptr);
}

TEST(Wav, InfoTagsAndDates) {
  const std::string longTitle(700, 't');
  MediaStream stream = PROBE(RiffFixture_File(
      "WAVE",
      {RiffFixture_PcmFormat("fmt ", 1, 8000, 8),
       RiffFixture_List("INFO", {RiffFixture_Chunk("INAM", text(longTitle)),
                                 RiffFixture_Chunk("IART", text(std::string("Art\0ist", 8))),
                                 RiffFixture_Chunk("IPRD", text("Product")), RiffFixture_Chunk("IGNR", text("Genre")),
                                 RiffFixture_Chunk("ICRD", text("2004:05:06"))}),
       RiffFixture_Chunk("data", silence(8))}));
  EXPECT_EQ(stream.title, std::string(511, 't'));
  EXPECT_EQ(stream.artist, "Art");
  EXPECT_EQ(stream.album, "Product");
  EXPECT_EQ(stream.genre, "Genre");
  EXPECT_EQ(stream.date, 1083801600);  // 2004-05-06 UTC

  struct Case {
    const char* text;
    int32_t date;
  };
  for (const Case& c : {Case{"2019-06-01", 1559347200}, Case{"1999", 915148800}, Case{"2010-07", 1277942400},
                        Case{"undated", 0}}) {
    stream = PROBE(RiffFixture_File(
        "WAVE",
        {RiffFixture_List("INFO", {RiffFixture_Chunk("ICRD", text(c.text)), RiffFixture_Chunk("IALB", text("A"))})}));
    EXPECT_EQ(stream.date, c.date) << c.text;
    EXPECT_EQ(stream.album, "A");
  }
}

TEST(Wav, LaterTagChunkWins) {
  const auto id3 = RiffFixture_Chunk(
      "id3 ", Id3TagBuilder(3)
                  .text("TIT2", "Tag Title")
                  .frame("APIC", Id3Fixture_Picture(3, "image/jpeg", "", JpegFixture_Cover()))
                  .build());
  const auto info = RiffFixture_List("INFO", {RiffFixture_Chunk("INAM", text("Info Title")),
                                              RiffFixture_Chunk("IART", text("Info Artist"))});
  const auto format = RiffFixture_PcmFormat("fmt ", 1, 8000, 8);

  const auto infoFirst = RiffFixture_File("WAVE", {format, info, id3});
  MediaStream stream = PROBE(infoFirst);
  EXPECT_STREQ(stream.mimeType, "audio/wave");  // not taken for MP3
  EXPECT_EQ(stream.title, "Tag Title");
  EXPECT_EQ(stream.artist, "Info Artist");
  // The cover is located in the file, behind everything but the pad byte.
  const int64_t jpegSize = static_cast<int64_t>(JpegFixture_Cover().size());
  EXPECT_STREQ(stream.coverMimeType, "image/jpeg");
  EXPECT_EQ(stream.coverLength, jpegSize);
  EXPECT_EQ(stream.coverOffset, static_cast<int64_t>(infoFirst.size()) - jpegSize - (jpegSize & 1));

  stream = PROBE(RiffFixture_File("WAVE", {format, id3, info}));
  EXPECT_EQ(stream.title, "Info Title");
}

std::vector<uint8_t> streamList(std::string_view type, uint32_t flags, uint32_t scale, uint32_t rate,
                                uint32_t length, std::vector<uint8_t> format) {
  return RiffFixture_List("strl", {RiffFixture_StreamHeader(type, flags, scale, rate, length), format});
}

TEST(Avi, StreamHeaders) {
  const RiffChunks header = {
      RiffFixture_Chunk("avih", silence(56)),
      streamList("vids", 0, 1001, 30000, 300, RiffFixture_VideoFormat(640, -480, 24)),  // top-down picture
      streamList("auds", 1, 1, 44100, 441000, RiffFixture_PcmFormat("strf", 2, 44100, 16)),  // disabled
      streamList("vids", 0, 1, 25, 0, RiffFixture_VideoFormat(320, 240, 24)),  // no length: skipped
      streamList("txts", 0, 1, 1000, 5000, RiffFixture_Chunk("strf", silence(4))),
      streamList("vids", 0, 1, 25, 10, RiffFixture_VideoFormat(0, 240, 24)),  // bad width: no picture size
  };
  MediaStream stream = PROBE(RiffFixture_File("AVI ", {RiffFixture_List("hdrl", header)}));
  EXPECT_EQ(stream.mediaType, MediaType_Video);
  EXPECT_STREQ(stream.mimeType, "video/avi");
  EXPECT_EQ(stream.duration, 300u * 1001);
  EXPECT_EQ(stream.timescale, 30000u);
  ASSERT_EQ(stream.streamCount(), 4);

  EXPECT_EQ(StreamText(stream.streamInfo[0]), "1 2 1 300300/30000 0 0 0 640x480 24");
  EXPECT_EQ(StreamText(stream.streamInfo[1]), "2 1 0 441000/44100 44100 2 16 0x0 0");
  EXPECT_EQ(StreamText(stream.streamInfo[2]), "3 4 1 5000/1000 0 0 0 0x0 0");
  EXPECT_EQ(StreamText(stream.streamInfo[3]), "4 2 1 10/25 0 0 0 0x0 0");

  // An AVI with audio only is still video; one without streams too.
  stream = PROBE(RiffFixture_File(
      "AVI ",
      {RiffFixture_List("hdrl", {streamList("auds", 0, 1, 8000, 16000, RiffFixture_PcmFormat("strf", 1, 8000, 8))})}));
  EXPECT_EQ(stream.mediaType, MediaType_Video);
  EXPECT_EQ(std::pair(stream.duration, stream.timescale), std::pair(16000u, 8000u));
  stream = PROBE(RiffFixture_File("AVI ", {}));
  EXPECT_EQ(std::pair(stream.streamCount(), stream.duration), std::pair(uint8_t(0), 0u));
}

TEST(Avi, TagsAndTheEndOfTheWalk) {
  const MediaStream demo = PROBE(RiffFixture_DemoAvi());
  EXPECT_EQ(demo.title, "Clip");
  EXPECT_EQ(demo.streamCount(), 2);

  const auto hdrl =
      RiffFixture_List("hdrl", {streamList("vids", 0, 1, 25, 50, RiffFixture_VideoFormat(8, 8, 24))});
  const auto info = RiffFixture_List("INFO", {RiffFixture_Chunk("INAM", text("Info"))});
  const auto movi = RiffFixture_List("movi", {RiffFixture_Chunk("00dc", silence(16))});
  const auto idx1 = RiffFixture_Chunk("idx1", silence(16));
  const auto id3 =
      RiffFixture_Chunk("id3 ", Id3TagBuilder(4).text("TIT2", "Tag").text("TPE1", "Artist").build());

  MediaStream stream = PROBE(RiffFixture_File("AVI ", {hdrl, info, movi, id3, idx1}));
  EXPECT_EQ(stream.title, "Tag");
  EXPECT_EQ(stream.artist, "Artist");

  // Once header, INFO, movie data and index are all seen, the walk ends.
  stream = PROBE(RiffFixture_File("AVI ", {hdrl, info, movi, idx1, id3}));
  EXPECT_EQ(stream.title, "Info");
  EXPECT_FALSE(stream.artist);
}

}  // namespace
