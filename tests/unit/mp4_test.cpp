// MP4, M4A and QuickTime files through the whole dispatch: where the file type
// and movie boxes may lie, tracks and MIME types, item-list tags and covers,
// box sizes that are refused, and the seek data.
#include "media/Mp4.h"

#include <gtest/gtest.h>

#include <string>

#include "media/Genres.h"
#include "media/MediaStream.h"
#include "tests/fixtures/ByteWriter.h"
#include "tests/fixtures/Mp4Fixture.h"
#include "tests/fixtures/PngFixture.h"
#include "tests/unit/ProbeCheck.h"

namespace {

Mp4FixtureTrack audioTrack(uint32_t id = 1) {
  Mp4FixtureTrack track;
  track.trackId = id;
  return track;
}

Mp4FixtureTrack videoTrack(uint32_t id) {
  Mp4FixtureTrack track;
  track.handler = "vide";
  track.trackId = id;
  track.timescale = 600;
  track.duration = 1200;
  return track;
}

// An audio file whose item list holds `items`.
std::vector<uint8_t> withItems(const std::vector<uint8_t>& items) {
  return Mp4Fixture_Join({Mp4Fixture_Ftyp("M4A "),
                          Mp4Fixture_Box("moov", Mp4Fixture_Join({Mp4Fixture_Track(audioTrack()),
                                                                  Mp4Fixture_UserData(items)}))});
}

// `count` empty boxes of `type`, e.g. padding in front of the movie.
std::vector<uint8_t> boxes(int count, const char* type) {
  std::vector<uint8_t> out;
  for (int i = 0; i < count; ++i) {
    std::vector<uint8_t> box = Mp4Fixture_Box(type, {});
    out.insert(out.end(), box.begin(), box.end());
  }
  return out;
}

void patchU32(std::vector<uint8_t>& bytes, size_t at, uint32_t value) {
  for (int i = 0; i < 4; ++i) bytes.at(at + i) = uint8_t(value >> (24 - 8 * i));
}

TEST(Mp4, TaggedAudioWithCover) {
  const std::vector<uint8_t> cover = PngFixture_Picture(8, 8, "", "");
  const std::vector<uint8_t> bytes = Mp4Fixture_M4a(kMp4DataPng, cover);
  MediaStream stream = PROBE(bytes);
  EXPECT_EQ(stream.mediaType, MediaType_Audio);
  EXPECT_STREQ(stream.mimeType, "audio/mp4");
  EXPECT_EQ(std::pair(stream.duration, stream.timescale), std::pair(88200u, 44100u));
  ASSERT_EQ(stream.streamCount(), 1);
  EXPECT_EQ(StreamText(stream.streamInfo[0]), "1 1 1 88200/44100 44100 2 16 0x0 0");
  EXPECT_EQ(stream.title, "Demo Song");
  EXPECT_EQ(stream.artist, "Demo Artist");
  EXPECT_EQ(stream.album, "Demo Album");
  EXPECT_EQ(stream.genre, "Jazz Fusion");
  EXPECT_EQ(stream.date, 1305849600);  // 2011-05-20 00:00:00 UTC: the time part is dropped
  EXPECT_STREQ(stream.coverMimeType, "image/png");
  ASSERT_EQ(stream.coverLength, int64_t(cover.size()));
  EXPECT_EQ(std::vector<uint8_t>(bytes.begin() + stream.coverOffset, bytes.begin() + stream.coverOffset + 8),
            std::vector<uint8_t>(cover.begin(), cover.begin() + 8));
}

TEST(Mp4, VideoTrackDecidesMimeTypeAndTracksKeepFileOrder) {
  MediaStream video = PROBE(Mp4Fixture_Video());
  EXPECT_EQ(video.mediaType, MediaType_Video);
  EXPECT_STREQ(video.mimeType, "video/mp4");
  ASSERT_EQ(video.streamCount(), 2);
  EXPECT_EQ(StreamText(video.streamInfo[0]), "1 2 1 1200/600 0 0 0 160x120 24");
  EXPECT_EQ(StreamText(video.streamInfo[1]), "2 1 1 96000/48000 48000 2 16 0x0 0");
  EXPECT_EQ(video.date, 1623715200);

  // Audio first and video second is still a video; a subtitle track alone
  // gives no media type at all.
  Mp4FixtureTrack subtitles = audioTrack(3);
  subtitles.handler = "sbtl";
  MediaStream mixed = PROBE(Mp4Fixture_Join(
      {Mp4Fixture_Ftyp("M4A "),
       Mp4Fixture_Box("moov", Mp4Fixture_Join({Mp4Fixture_Track(audioTrack(1)), Mp4Fixture_Track(videoTrack(2))}))}));
  EXPECT_STREQ(mixed.mimeType, "video/mp4");
  MediaStream other =
      PROBE(Mp4Fixture_Join({Mp4Fixture_Ftyp("M4A "), Mp4Fixture_Box("moov", Mp4Fixture_Track(subtitles))}));
  EXPECT_EQ(other.mediaType, MediaType_None);
  EXPECT_EQ(other.mimeType, nullptr);
  ASSERT_EQ(other.streamCount(), 1);
  EXPECT_EQ(other.streamInfo[0].streamKind, 4u);
}

TEST(Mp4, FileTypeBoxMustLieInFirst512Bytes) {
  const std::vector<uint8_t> body =
      Mp4Fixture_Join({Mp4Fixture_Ftyp("mp42"), Mp4Fixture_Box("moov", Mp4Fixture_Track(audioTrack()))});
  const size_t ftypSize = Mp4Fixture_Ftyp("mp42").size();
  // Padding so that the file type box ends exactly at byte 512, then one past.
  auto padded = [&](size_t end) {
    return MediaProbe_Bytes(Mp4Fixture_Join({Mp4Fixture_Box("free", std::vector<uint8_t>(end - ftypSize - 8)), body}));
  };
  EXPECT_NE(padded(512), nullptr);
  EXPECT_EQ(padded(513), nullptr);
  // A file type box without its brand is no file type box.
  EXPECT_EQ(MediaProbe_Bytes(Mp4Fixture_Join(
                {Mp4Fixture_Box("ftyp", {'m', 'p'}), Mp4Fixture_Box("free", std::vector<uint8_t>(64))})),
            nullptr);
}

TEST(Mp4, MovieBoxMustBeAmongFirstEightTopLevelBoxes) {
  const std::vector<uint8_t> moov = Mp4Fixture_Box("moov", Mp4Fixture_Track(audioTrack()));
  const std::vector<uint8_t> bigData = Mp4Fixture_LargeBox("mdat", std::vector<uint8_t>(4096, 0x5A));
  // ftyp, five free boxes and a 64-bit media data box: moov is the eighth box.
  MediaStream found = PROBE(Mp4Fixture_Join({Mp4Fixture_Ftyp("isom"), boxes(5, "free"), bigData, moov}));
  EXPECT_EQ(found.streamCount(), 1);
  // One more box in front: the file is still taken, but without streams.
  MediaStream hidden = PROBE(Mp4Fixture_Join({Mp4Fixture_Ftyp("isom"), boxes(6, "free"), bigData, moov}));
  EXPECT_EQ(std::tuple(hidden.streamCount(), hidden.mediaType, hidden.duration, hidden.timescale),
            std::tuple(uint8_t(0), int32_t(MediaType_None), 1u, 1000u));
}

TEST(Mp4, RefusedBoxSizes) {
  const std::vector<uint8_t> good = Mp4Fixture_M4a(kMp4DataJpeg, {0xFF, 0xD8, 0xFF, 0xD9});
  const size_t moovAt = Mp4Fixture_Ftyp("M4A ").size();
  ASSERT_EQ(MediaProbe_Bytes(good)->streamCount(), 1);
  // 0 (runs to the end of the file), 2 to 7, and more than the file holds.
  for (uint32_t size : {0u, 2u, 7u, uint32_t(good.size())}) {
    std::vector<uint8_t> bytes = good;
    patchU32(bytes, moovAt, size);
    MediaStream stream = PROBE(bytes);
    EXPECT_EQ(stream.streamCount(), 0) << size;
    EXPECT_FALSE(stream.title.has_value()) << size;
  }
  // A 64-bit size under 16 is refused too.
  std::vector<uint8_t> large = Mp4Fixture_Join({Mp4Fixture_Ftyp("isom"), Mp4Fixture_LargeBox("free", {}),
                                                Mp4Fixture_Box("moov", Mp4Fixture_Track(audioTrack()))});
  ASSERT_EQ(MediaProbe_Bytes(large)->streamCount(), 1);
  const size_t lowSizeByte = Mp4Fixture_Ftyp("isom").size() + 15;
  ASSERT_EQ(large.at(lowSizeByte), 16);
  large[lowSizeByte] = 15;
  EXPECT_EQ(MediaProbe_Bytes(large)->streamCount(), 0);
  // A file type box with size 0 makes the file no MP4 at all.
  std::vector<uint8_t> noType = good;
  patchU32(noType, 0, 0);
  EXPECT_EQ(MediaProbe_Bytes(noType), nullptr);
  // A 64-bit media data box in front of the movie is skipped over.
  const std::vector<uint8_t> mov = Mp4Fixture_Mov();
  MediaStream movie = PROBE(mov);
  ASSERT_EQ(movie.streamCount(), 1);
  EXPECT_EQ(movie.streamInfo[0].width, 320);
  EXPECT_EQ(std::pair(movie.duration, movie.timescale), std::pair(7500u, 2500u));
}

TEST(Mp4, MovieHeaderVersionOneReadWithVersionZeroOffsets) {
  const uint64_t modificationTime = uint64_t(90000) << 32 | 12345;
  MediaStream stream = PROBE(Mp4Fixture_Join(
      {Mp4Fixture_Ftyp("isom"), Mp4Fixture_Box("moov", Mp4Fixture_Join({Mp4Fixture_Mvhd(600, 6000, 1, modificationTime),
                                                                        Mp4Fixture_Track(videoTrack(1))}))}));
  // The two halves of the 64-bit modification time come out as timescale and duration.
  EXPECT_EQ(std::pair(stream.duration, stream.timescale), std::pair(12345u, 90000u));
  // Zero in either field keeps the defaults.
  MediaStream zero = PROBE(
      Mp4Fixture_Join({Mp4Fixture_Ftyp("isom"), Mp4Fixture_Box("moov", Mp4Fixture_Mvhd(600, 6000, 1, 12345))}));
  EXPECT_EQ(std::pair(zero.duration, zero.timescale), std::pair(1u, 1000u));
}

TEST(Mp4, GenreNumbers) {
  auto genreOf = [](const std::vector<uint8_t>& value) {
    auto stream = MediaProbe_Bytes(
        withItems(Mp4Fixture_Join({Mp4Fixture_TextItem(kMp4ItemGenre, "Earlier"), Mp4Fixture_Item("gnre", 0, value)})));
    return stream ? stream->genre : std::optional<std::string>("(not parsed)");
  };
  EXPECT_EQ(genreOf({0, 1}), "Blues");
  EXPECT_EQ(genreOf({18}), "Rock");
  EXPECT_EQ(genreOf({0, 0, 0, 80}), "Hard Rock");
  EXPECT_EQ(genreOf({0, 148}), "SynthPop");
  EXPECT_EQ(genreOf({0, 0}), "Earlier");         // 0 is no genre number
  EXPECT_EQ(genreOf({1, 0}), "Earlier");         // 256 is out of range
  EXPECT_EQ(genreOf({0, 0, 0, 0, 1}), "Earlier");  // more than four bytes
  EXPECT_EQ(genreOf({0, 200}), std::nullopt);    // an unnamed slot clears the genre
  EXPECT_EQ(MediaGenre_Name(256), nullptr);
}

TEST(Mp4, CoverTypesAndSizeLimit) {
  struct Case {
    uint32_t type;
    size_t size;
    const char* mime;
    int64_t length;
  };
  for (const Case& c : {Case{kMp4DataJpeg, 1048576, "image/jpeg", 1048576}, Case{kMp4DataJpeg, 2 * 1048576, nullptr, 0},
                        Case{27, 16, "image/bmp", 16}, Case{0, 16, nullptr, 0}, Case{kMp4DataPng, 0, nullptr, 0}}) {
    MediaStream stream = PROBE(withItems(Mp4Fixture_Item("covr", c.type, std::vector<uint8_t>(c.size, 0xAB))));
    EXPECT_STREQ(stream.coverMimeType, c.mime) << c.type << " " << c.size;
    EXPECT_EQ(stream.coverLength, c.length) << c.type << " " << c.size;
  }

  // A later cover replaces an earlier one.
  const std::vector<uint8_t> covers = Mp4Fixture_Join({Mp4Fixture_Item("covr", kMp4DataJpeg, std::vector<uint8_t>(10)),
                                                       Mp4Fixture_Item("covr", kMp4DataPng, std::vector<uint8_t>(20))});
  MediaStream two = PROBE(withItems(covers));
  EXPECT_STREQ(two.coverMimeType, "image/png");
  EXPECT_EQ(two.coverLength, 20);
}

TEST(Mp4, TextItemsAndDates) {
  const std::string longText(513, 'x');
  MediaStream stream = PROBE(withItems(Mp4Fixture_Join({
      Mp4Fixture_TextItem(kMp4ItemTitle, "First"),
      Mp4Fixture_TextItem(kMp4ItemTitle, "Second"),          // replaces
      Mp4Fixture_TextItem(kMp4ItemAlbum, longText),          // too long
      Mp4Fixture_Item(kMp4ItemArtist, 2, {0, 'A', 0, 'B'}),  // UTF-16 comes out empty
      Mp4Fixture_Item(kMp4ItemGenre, 21, {'P', 'o', 'p'}),   // not a text type
      Mp4Fixture_TextItem(kMp4ItemDay, "2011"),
  })));
  EXPECT_EQ(stream.title, "Second");
  EXPECT_FALSE(stream.album.has_value());
  EXPECT_EQ(stream.artist, "");
  EXPECT_FALSE(stream.genre.has_value());
  EXPECT_EQ(stream.date, 1293840000);  // 2011-01-01

  auto dateOf = [](std::string_view day) {
    return MediaProbe_Bytes(withItems(Mp4Fixture_TextItem(kMp4ItemDay, day)))->date;
  };
  EXPECT_EQ(dateOf("2011-05"), 1304208000);
  EXPECT_EQ(dateOf("2011-05-20 10:00"), 1305849600);
  EXPECT_EQ(dateOf("May 2011"), 0);
  EXPECT_EQ(dateOf("99999999"), 0);  // beyond 32-bit seconds
}

TEST(Mp4, IncompleteTracksAreDropped) {
  auto tracksOf = [](const std::vector<uint8_t>& trak) {
    return MediaProbe_Bytes(Mp4Fixture_Join({Mp4Fixture_Ftyp("isom"), Mp4Fixture_Box("moov", trak)}))->streamCount();
  };
  EXPECT_EQ(tracksOf(Mp4Fixture_Track(audioTrack(0))), 0);  // track ID 0
  Mp4FixtureTrack noDuration = audioTrack();
  noDuration.duration = 0;
  EXPECT_EQ(tracksOf(Mp4Fixture_Track(noDuration)), 0);

  // A sound description of version 2 is refused, but the track stays.
  Mp4FixtureTrack version2 = audioTrack();
  version2.soundVersion = 2;
  MediaStream stream =
      PROBE(Mp4Fixture_Join({Mp4Fixture_Ftyp("isom"), Mp4Fixture_Box("moov", Mp4Fixture_Track(version2))}));
  ASSERT_EQ(stream.streamCount(), 1);
  EXPECT_EQ(std::pair(stream.streamInfo[0].sampleRate, stream.streamInfo[0].channels), std::pair(0u, uint8_t(0)));
}

TEST(Mp4, SeekDataOnlyWhenAskedFor) {
  const std::vector<uint8_t> bytes = Mp4Fixture_Video();
  EXPECT_EQ(MediaProbe_Bytes(bytes, true)->seekInfo, nullptr);
  MediaStream stream = PROBE(bytes, false);
  const auto* seek = dynamic_cast<const Mp4SeekInfo*>(stream.seekInfo.get());
  ASSERT_NE(seek, nullptr);
  EXPECT_EQ(seek->dataStart, 0);
  EXPECT_EQ(seek->dataLength, int64_t(bytes.size()));
  ASSERT_EQ(seek->tracks.size(), 2u);
  EXPECT_EQ(seek->tracks[1].trackId, 2u);
  EXPECT_EQ(seek->tracks[1].timescale, 48000u);
  // The time-to-sample table holds one entry: count 1, delta = the duration.
  const Mp4Span& stts = seek->tracks[1].timeToSample;
  ASSERT_EQ(stts.length, 16);
  EXPECT_EQ(bytes.at(stts.position + 15), uint8_t(96000 & 0xFF));
  EXPECT_GT(seek->tracks[0].chunkOffsets.length, 0);
  EXPECT_FALSE(seek->tracks[0].chunkOffsets64);
}

}  // namespace
