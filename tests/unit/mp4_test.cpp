// MP4, M4A and QuickTime files through the whole dispatch: where the file type
// and movie boxes may lie, refused box sizes, tracks and MIME types,
// item-list tags and covers.
#include <gtest/gtest.h>

#include <string>

#include "tests/fixtures/Mp4Fixture.h"
#include "tests/fixtures/PngFixture.h"
#include "tests/unit/ProbeCheck.h"

namespace {

Mp4FixtureTrack track(const char* handler, uint32_t id) {
  Mp4FixtureTrack track;
  track.handler = handler;
  track.trackId = id;
  return track;
}

std::vector<uint8_t> movie(const std::vector<uint8_t>& moov, const char* brand = "isom") {
  return Mp4Fixture_Join({Mp4Fixture_Ftyp(brand), Mp4Fixture_Box("moov", moov)});
}

// An audio file whose item list holds `items`.
std::vector<uint8_t> withItems(const std::vector<uint8_t>& items) {
  return movie(Mp4Fixture_Join({Mp4Fixture_Track({}), Mp4Fixture_UserData(items)}), "M4A ");
}

std::vector<uint8_t> boxes(int count) {
  std::vector<uint8_t> out;
  for (int i = 0; i < count; ++i) out = Mp4Fixture_Join({out, Mp4Fixture_Box("free", {})});
  return out;
}

TEST(Mp4, TaggedAudioAndVideo) {
  const std::vector<uint8_t> cover = PngFixture_Picture(8, 8, "", "");
  const std::vector<uint8_t> bytes = Mp4Fixture_M4a(kMp4DataPng, cover);
  MediaStream song = PROBE(bytes);
  EXPECT_EQ(std::pair(song.mediaType, std::string(song.mimeType)), std::pair(int32_t(MediaType_Audio), std::string("audio/mp4")));
  ASSERT_EQ(song.streamCount(), 1);
  EXPECT_EQ(StreamText(song.streamInfo[0]), "1 1 1 88200/44100 44100 2 16 0x0 0");
  EXPECT_EQ(std::tuple(*song.title, *song.artist, *song.album, *song.genre),
            std::tuple("Demo Song", "Demo Artist", "Demo Album", "Jazz Fusion"));
  EXPECT_EQ(song.date, 1305849600);  // 2011-05-20 00:00:00 UTC: the time part is dropped
  EXPECT_EQ(std::pair(std::string(song.coverMimeType), song.coverLength), std::pair(std::string("image/png"), int64_t(cover.size())));
  EXPECT_EQ(bytes.at(song.coverOffset + 1), 'P');

  MediaStream video = PROBE(Mp4Fixture_Video());
  EXPECT_STREQ(video.mimeType, "video/mp4");
  ASSERT_EQ(video.streamCount(), 2);
  EXPECT_EQ(StreamText(video.streamInfo[0]), "1 2 1 1200/600 0 0 0 160x120 24");
  // Audio first and video second is still a video; a subtitle track alone gives no media type.
  EXPECT_STREQ(PROBE(movie(Mp4Fixture_Join({Mp4Fixture_Track({}), Mp4Fixture_Track(track("vide", 2))}))).mimeType,
               "video/mp4");
  MediaStream other = PROBE(movie(Mp4Fixture_Track(track("sbtl", 3))));
  EXPECT_EQ(std::tuple(other.mediaType, other.mimeType, other.streamInfo.at(0).streamKind),
            std::tuple(int32_t(MediaType_None), nullptr, 4u));
  // A track with ID 0 or without duration is dropped; a version 2 sound description is not read.
  EXPECT_EQ(PROBE(movie(Mp4Fixture_Track(track("soun", 0)))).streamCount(), 0);
  Mp4FixtureTrack version2;
  version2.soundVersion = 2;
  EXPECT_EQ(PROBE(movie(Mp4Fixture_Track(version2))).streamInfo.at(0).sampleRate, 0u);
}

TEST(Mp4, WhereTheBoxesMayLieAndWhichSizesAreRefused) {
  const std::vector<uint8_t> body = movie(Mp4Fixture_Track({}), "mp42");
  // The file type box must end within the first 512 bytes.
  for (size_t end : {512u, 513u}) {
    const size_t pad = end - Mp4Fixture_Ftyp("mp42").size() - 8;
    EXPECT_EQ(MediaProbe_Bytes(Mp4Fixture_Join({Mp4Fixture_Box("free", std::vector<uint8_t>(pad)), body})) != nullptr,
              end == 512);
  }
  // The movie box must be among the first eight boxes; past them the file is taken without streams.
  const auto moov = Mp4Fixture_Box("moov", Mp4Fixture_Track({}));
  const auto bigData = Mp4Fixture_LargeBox("mdat", std::vector<uint8_t>(4096, 0x5A));
  EXPECT_EQ(PROBE(Mp4Fixture_Join({Mp4Fixture_Ftyp("isom"), boxes(5), bigData, moov})).streamCount(), 1);
  MediaStream hidden = PROBE(Mp4Fixture_Join({Mp4Fixture_Ftyp("isom"), boxes(6), bigData, moov}));
  EXPECT_EQ(std::tuple(hidden.streamCount(), hidden.duration, hidden.timescale), std::tuple(uint8_t(0), 1u, 1000u));

  // Sizes 0 (to the end), 2 to 7 and beyond the file are refused.
  const std::vector<uint8_t> good = Mp4Fixture_M4a(kMp4DataJpeg, {0xFF, 0xD8, 0xFF, 0xD9});
  const size_t moovAt = Mp4Fixture_Ftyp("M4A ").size();
  for (uint32_t size : {0u, 2u, 7u, uint32_t(good.size())}) {
    std::vector<uint8_t> bytes = good;
    for (int i = 0; i < 4; ++i) bytes[moovAt + i] = uint8_t(size >> (24 - 8 * i));
    EXPECT_EQ(PROBE(bytes).title, std::nullopt) << size;
  }
  std::vector<uint8_t> large = Mp4Fixture_Join({Mp4Fixture_Ftyp("isom"), Mp4Fixture_LargeBox("free", {}), Mp4Fixture_Box("moov", Mp4Fixture_Track({}))});
  large[Mp4Fixture_Ftyp("isom").size() + 15] = 15;  // a 64-bit size under 16
  EXPECT_EQ(PROBE(large).streamCount(), 0);
  MediaStream mov = PROBE(Mp4Fixture_Mov());  // a 64-bit media data box in front of the movie
  EXPECT_EQ(std::pair(mov.duration, mov.timescale), std::pair(7500u, 2500u));

  // A version 1 movie header is read with version 0 offsets.
  MediaStream stream = PROBE(movie(Mp4Fixture_Join({Mp4Fixture_Mvhd(600, 6000, 1, uint64_t(90000) << 32 | 12345),
                                                    Mp4Fixture_Track(track("vide", 1))})));
  EXPECT_EQ(std::pair(stream.duration, stream.timescale), std::pair(12345u, 90000u));
}

TEST(Mp4, ItemsCoversAndDates) {
  auto genreOf = [](const std::vector<uint8_t>& value) {
    return PROBE(withItems(Mp4Fixture_Join({Mp4Fixture_TextItem(kMp4ItemGenre, "Earlier"),
                                            Mp4Fixture_Item("gnre", 0, value)}))).genre;
  };
  EXPECT_EQ(genreOf({0, 1}), "Blues");
  EXPECT_EQ(genreOf({0, 0, 0, 80}), "Hard Rock");
  for (const std::vector<uint8_t>& none : {std::vector<uint8_t>{0, 0}, {1, 0}, {0, 0, 0, 0, 1}}) {
    EXPECT_EQ(genreOf(none), "Earlier");
  }
  EXPECT_EQ(genreOf({0, 200}), std::nullopt);  // an unnamed slot clears the genre

  struct Cover {
    uint32_t type;
    size_t size;
    const char* mime;
    int64_t length;
  };
  for (const Cover& c : {Cover{kMp4DataJpeg, 1048576, "image/jpeg", 1048576}, Cover{kMp4DataJpeg, 1048577, nullptr, 0},
                         Cover{27, 16, "image/bmp", 16}, Cover{0, 16, nullptr, 0}, Cover{kMp4DataPng, 0, nullptr, 0}}) {
    MediaStream stream = PROBE(withItems(Mp4Fixture_Item("covr", c.type, std::vector<uint8_t>(c.size, 0xAB))));
    EXPECT_STREQ(stream.coverMimeType, c.mime) << c.type << " " << c.size;
    EXPECT_EQ(stream.coverLength, c.length) << c.type << " " << c.size;
  }

  MediaStream stream = PROBE(withItems(Mp4Fixture_Join({
      Mp4Fixture_TextItem(kMp4ItemTitle, "First"), Mp4Fixture_TextItem(kMp4ItemTitle, "Second"),
      Mp4Fixture_TextItem(kMp4ItemAlbum, std::string(513, 'x')),  // too long
      Mp4Fixture_Item(kMp4ItemArtist, 2, {0, 'A', 0, 'B'}),      // UTF-16 comes out empty
      Mp4Fixture_Item(kMp4ItemGenre, 21, {'P', 'o', 'p'}),       // not a text type
  })));
  EXPECT_EQ(std::tuple(stream.title, stream.album, stream.artist, stream.genre),
            std::tuple(std::optional<std::string>("Second"), std::optional<std::string>(),
                       std::optional<std::string>(""), std::optional<std::string>()));
  for (auto [day, date] : {std::pair<std::string_view, int32_t>{"2011", 1293840000}, {"2011-05", 1304208000},
                           {"May 2011", 0}, {"99999999", 0}}) {
    EXPECT_EQ(PROBE(withItems(Mp4Fixture_TextItem(kMp4ItemDay, day))).date, date) << day;
  }
}

}  // namespace
