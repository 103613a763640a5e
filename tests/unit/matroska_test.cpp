// Matroska and WebM files through the media dispatch: document types, Info,
// the keep rules of tracks, cover attachments, the SeekHead and the bounds
// that enclosing elements set.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "media/MediaParsers.h"
#include "media/MediaStream.h"
#include "tests/fixtures/ByteWriter.h"
#include "tests/fixtures/JpegFixture.h"
#include "tests/fixtures/MatroskaFixture.h"
#include "tests/unit/ProbeCheck.h"

namespace {

constexpr int64_t kMiB = 1048576;

bool declined(const std::vector<uint8_t>& bytes) {
  FixtureFile file(bytes);
  MediaStream stream;
  return !MediaParse_Matroska(file.fd(), 0, file.size(), stream, true) &&
         !MediaStream_new(file.fd(), 0, file.size(), true);
}

int64_t positionOf(const std::vector<uint8_t>& haystack, const std::vector<uint8_t>& needle) {
  auto found = std::search(haystack.begin(), haystack.end(), needle.begin(), needle.end());
  return found == haystack.end() ? -1 : found - haystack.begin();
}

std::vector<uint8_t> tracks(const std::vector<std::vector<uint8_t>>& entries) {
  ByteWriter payload;
  for (const std::vector<uint8_t>& entry : entries) payload.bytes(entry);
  return EbmlFixture_Element(MatroskaId::Tracks, payload.data());
}

std::vector<uint8_t> info() { return MatroskaFixture_Info(1000000, 2000.0); }

std::vector<uint8_t> videoTrack(uint64_t number = 1) { return MatroskaFixture_VideoTrack(number, 64, 48); }

std::vector<uint8_t> audioTrack(std::initializer_list<std::vector<uint8_t>> audioChildren) {
  return EbmlFixture_Master(MatroskaId::TrackEntry,
                            {EbmlFixture_Unsigned(MatroskaId::TrackNumber, 2),
                             EbmlFixture_Unsigned(MatroskaId::TrackType, 2),
                             EbmlFixture_Master(MatroskaId::Audio, audioChildren)});
}

std::vector<uint8_t> track(std::initializer_list<std::vector<uint8_t>> children) {
  return EbmlFixture_Master(MatroskaId::TrackEntry, children);
}

std::vector<uint8_t> attachments(std::initializer_list<std::vector<uint8_t>> files) {
  return EbmlFixture_Master(MatroskaId::Attachments, files);
}

std::vector<uint8_t> mkv(const std::vector<std::vector<uint8_t>>& children, bool indexed = false) {
  return MatroskaFixture_File("matroska", children, indexed);
}

TEST(Matroska, VideoWithCoverFillsTheRecord) {
  const std::vector<uint8_t> bytes = MatroskaFixture_VideoWithCover();
  const std::vector<uint8_t> jpeg = JpegFixture_Cover();
  MediaStream stream = PROBE(bytes);
  EXPECT_EQ(stream.mediaType, MediaType_Video);
  EXPECT_STREQ(stream.mimeType, "video/x-matroska");
  EXPECT_EQ(std::pair(stream.duration, stream.timescale), std::pair(12500u, 1000u));
  EXPECT_EQ(stream.title, "Demo Clip");
  EXPECT_FALSE(stream.artist);
  EXPECT_EQ(stream.date, 1735689600);  // 2025-01-01
  ASSERT_EQ(stream.streamCount(), 2);
  EXPECT_EQ(StreamText(stream.streamInfo[0]), "1 2 1 12500/1000 0 0 0 320x240 0");
  EXPECT_EQ(StreamText(stream.streamInfo[1]), "2 1 1 12500/1000 48000 2 16 0x0 0");
  EXPECT_STREQ(stream.coverMimeType, "image/jpeg");
  EXPECT_EQ(stream.coverOffset, positionOf(bytes, jpeg));
  EXPECT_EQ(stream.coverLength, static_cast<int64_t>(jpeg.size()));
}

TEST(Matroska, MediaTypeAndMimeTypeFollowDocTypeAndTracks) {
  MediaStream webm = PROBE(MatroskaFixture_WebM());
  EXPECT_EQ(webm.mediaType, MediaType_Video);
  EXPECT_STREQ(webm.mimeType, "video/webm");

  MediaStream mka = PROBE(MatroskaFixture_AudioWithTitle());
  EXPECT_EQ(mka.mediaType, MediaType_Audio);
  EXPECT_STREQ(mka.mimeType, "audio/x-matroska");
  EXPECT_EQ(mka.title, "Night Drive");
  EXPECT_EQ(mka.duration, 184000u);

  const auto audio = MatroskaFixture_AudioTrack(1, 44100.0, 2, 16);
  MediaStream webmAudio = PROBE(MatroskaFixture_File("webm", {info(), tracks({audio})}));
  EXPECT_EQ(webmAudio.mediaType, MediaType_Audio);
  EXPECT_STREQ(webmAudio.mimeType, "audio/webm");

  // A video track anywhere makes a video, also after audio and subtitles.
  const auto subtitle = track({EbmlFixture_Unsigned(MatroskaId::TrackNumber, 3),
                               EbmlFixture_Unsigned(MatroskaId::TrackType, 17)});
  MediaStream mixed = PROBE(mkv({info(), tracks({audio, subtitle, videoTrack(4)})}));
  EXPECT_EQ(mixed.mediaType, MediaType_Video);
  EXPECT_STREQ(mixed.mimeType, "video/x-matroska");
  ASSERT_EQ(mixed.streamCount(), 3);
  EXPECT_EQ(mixed.streamInfo[1].streamKind, 4u);
}

TEST(Matroska, OtherDocumentsAreLeftToTheNextParser) {
  const std::vector<std::vector<uint8_t>> body = {info(), tracks({videoTrack()})};
  EXPECT_FALSE(declined(MatroskaFixture_File("matroska", body)));
  for (const char* docType : {"mkv", "Matroska", "webmx", "web", ""}) {
    EXPECT_TRUE(declined(MatroskaFixture_File(docType, body))) << docType;
  }
  // DocType sizes below 64 bytes are read (zero padding ends the text).
  EXPECT_FALSE(declined(MatroskaFixture_File(std::string("webm") + std::string(59, '\0'), body)));
  EXPECT_TRUE(declined(MatroskaFixture_File(std::string("webm") + std::string(60, '\0'), body)));
  // No EBML header, or a header without DocType.
  EXPECT_TRUE(declined(EbmlFixture_Master(MatroskaId::Segment, {info(), tracks({videoTrack()})})));
  EXPECT_TRUE(declined(EbmlFixture_Join(
      {EbmlFixture_Master(MatroskaId::EbmlHeader, {EbmlFixture_Unsigned(0x4286, 1)}),
       EbmlFixture_Master(MatroskaId::Segment, {info(), tracks({videoTrack()})})})));
  // Nothing to play: no tracks, or subtitles only.
  EXPECT_TRUE(declined(mkv({info()})));
  EXPECT_TRUE(
      declined(mkv({info(), tracks({track({EbmlFixture_Unsigned(MatroskaId::TrackNumber, 1),
                                           EbmlFixture_Unsigned(MatroskaId::TrackType, 17)})})})));
}

TEST(Matroska, DurationNeedsAPlausibleTimecodeScale) {
  struct Case {
    uint64_t scale;
    double duration;
    uint32_t expectDuration;
    uint32_t expectTimescale;
  };
  const Case cases[] = {
      {0, 5000.0, 0, 1000},          {1000000001, 5000.0, 0, 1000},
      {1000000, 0.0, 0, 1000},       {1000000, -3.0, 0, 1000},
      {1000000000, 7.9, 7, 1},       {1, 5000.0, 5000, 1000000000},
      {100000, 2500.7, 2500, 10000}, {1000000, 1e12, 4294967295u, 1000},
  };
  for (const Case& c : cases) {
    MediaStream stream = PROBE(mkv({MatroskaFixture_Info(c.scale, c.duration), tracks({videoTrack()})}));
    const auto expected = std::pair(c.expectDuration, c.expectTimescale);
    EXPECT_EQ(std::pair(stream.duration, stream.timescale), expected) << c.scale << " " << c.duration;
    EXPECT_EQ(std::pair(stream.streamInfo.at(0).duration, stream.streamInfo[0].timescale), expected);
  }
}

TEST(Matroska, DateCountsFrom2001) {
  const std::pair<int64_t, int32_t> cases[] = {
      {0, 978307200},
      {-1500000000, 978307199},             // division truncates toward zero
      {86400LL * 1000000000LL, 978393600},  // one day later
  };
  for (const auto& [nanoseconds, expected] : cases) {
    MediaStream stream = PROBE(mkv({MatroskaFixture_Info(1000000, 1000.0, "t", nanoseconds), tracks({videoTrack()})}));
    EXPECT_EQ(stream.date, expected) << nanoseconds;
  }
  EXPECT_EQ(PROBE(mkv({info(), tracks({videoTrack()})})).date, 0);
}

TEST(Matroska, CoverNeedsExactNameAndSizeBelowOneMiB) {
  const std::vector<uint8_t> small = {0xFF, 0xD8, 0x11, 0x22, 0x33, 0xFF, 0xD9};
  auto coverOf = [&](std::initializer_list<std::vector<uint8_t>> files) {
    return PROBE(mkv({info(), tracks({videoTrack()}), attachments(files)}));
  };

  MediaStream upper = coverOf({MatroskaFixture_Attachment("Cover.jpg", "image/jpeg", small)});
  EXPECT_EQ(upper.coverLength, 0);
  EXPECT_EQ(upper.coverMimeType, nullptr);

  // The attachment's own MIME type is not looked at; the first cover wins.
  const std::vector<uint8_t> other = {0xFF, 0xD8, 0x44, 0xFF, 0xD9};
  MediaStream smallCover = coverOf({MatroskaFixture_Attachment("font.ttf", "font/ttf", {1, 2, 3}),
                                    MatroskaFixture_Attachment("small_cover.jpg", "image/png", small),
                                    MatroskaFixture_Attachment("cover.jpg", "image/jpeg", other)});
  EXPECT_EQ(smallCover.coverLength, static_cast<int64_t>(small.size()));
  EXPECT_STREQ(smallCover.coverMimeType, "image/jpeg");

  // An empty cover ends the search without a cover.
  EXPECT_EQ(coverOf({MatroskaFixture_Attachment("cover.jpg", "image/jpeg", {}),
                     MatroskaFixture_Attachment("small_cover.jpg", "image/jpeg", small)})
                .coverLength,
            0);
  for (int64_t size : {kMiB, kMiB - 1}) {
    EXPECT_EQ(coverOf({MatroskaFixture_Attachment("cover.jpg", "image/jpeg", std::vector<uint8_t>(size, 0xAB))})
                  .coverLength,
              size == kMiB ? 0 : size);
  }

  // A repeated FileName ends the attachment: the first name counts.
  EXPECT_EQ(coverOf({EbmlFixture_Master(MatroskaId::AttachedFile,
                                        {EbmlFixture_Text(MatroskaId::FileName, "cover.jpg"),
                                         EbmlFixture_Element(MatroskaId::FileData, small),
                                         EbmlFixture_Text(MatroskaId::FileName, "other.jpg")})})
                .coverLength,
            static_cast<int64_t>(small.size()));
}

TEST(Matroska, CoverOffsetCountsFromTheFileStart) {
  const std::vector<uint8_t> bytes = MatroskaFixture_VideoWithCover();
  const std::vector<uint8_t> jpeg = JpegFixture_Cover();
  ByteWriter prefixed;
  prefixed.fill(37, 0x55).bytes(bytes).fill(5, 0x55);
  FixtureFile file(prefixed.data());
  auto stream = MediaStream_new(file.fd(), 37, static_cast<int64_t>(bytes.size()), true);
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(stream->coverOffset, 37 + positionOf(bytes, jpeg));
  // The given length bounds the data: one byte short cuts the Segment.
  EXPECT_EQ(MediaStream_new(file.fd(), 37, static_cast<int64_t>(bytes.size()) - 1, true), nullptr);
}

TEST(Matroska, SectionsBehindAClusterAreFoundThroughTheSeekHead) {
  const std::vector<uint8_t> cover = JpegFixture_Cover();
  const std::vector<std::vector<uint8_t>> late = {
      MatroskaFixture_Cluster(), MatroskaFixture_Info(1000000, 4000.0, "Late"), tracks({videoTrack()}),
      attachments({MatroskaFixture_Attachment("cover.jpg", "image/jpeg", cover)})};
  EXPECT_TRUE(declined(mkv(late, false)));

  const std::vector<uint8_t> indexed = mkv(late, true);
  MediaStream stream = PROBE(indexed);
  EXPECT_EQ(stream.title, "Late");
  EXPECT_EQ(stream.duration, 4000u);
  EXPECT_EQ(stream.streamCount(), 1);
  EXPECT_EQ(stream.coverOffset, positionOf(indexed, cover));

  // An entry is followed only when its position holds the element it names:
  // here the Info entry is relabelled as Attachments.
  std::vector<uint8_t> relabelled = indexed;
  const std::vector<uint8_t> infoSeekId = {0x53, 0xAB, 0x84, 0x15, 0x49, 0xA9, 0x66};
  const int64_t at = positionOf(relabelled, infoSeekId);
  ASSERT_GT(at, 0);
  const std::vector<uint8_t> attachmentsId = {0x19, 0x41, 0xA4, 0x69};
  std::copy(attachmentsId.begin(), attachmentsId.end(), relabelled.begin() + at + 3);
  MediaStream misled = PROBE(relabelled);
  EXPECT_FALSE(misled.title);
  EXPECT_EQ(misled.streamCount(), 1);
  EXPECT_EQ(misled.coverLength, static_cast<int64_t>(cover.size()));
}

TEST(Matroska, TrackKeepRules) {
  auto streamsOf = [](std::initializer_list<std::vector<uint8_t>> entries) {
    std::vector<std::vector<uint8_t>> all = {videoTrack(100)};
    all.insert(all.end(), entries);
    auto stream = MediaProbe_Bytes(mkv({info(), tracks(all)}));
    return stream ? stream->streamInfo : std::vector<StreamInfo>{};
  };
  auto numbered = [](uint64_t number, uint64_t type, const std::vector<uint8_t>& more = {}) {
    return track({EbmlFixture_Unsigned(MatroskaId::TrackNumber, number),
                  EbmlFixture_Unsigned(MatroskaId::TrackType, type), more});
  };

  // Numbers must be 1 to 2^32-1, types 1 to 254, and the track enabled.
  auto kept = streamsOf({numbered(0, 1), numbered(0x100000000ull, 1), numbered(0xFFFFFFFFull, 1),
                         numbered(5, 0), numbered(6, 255), numbered(7, 254),
                         numbered(8, 1, EbmlFixture_Unsigned(MatroskaId::FlagEnabled, 0)),
                         numbered(9, 1, EbmlFixture_Unsigned(MatroskaId::FlagEnabled, 1))});
  ASSERT_EQ(kept.size(), 4u);
  EXPECT_EQ(std::vector<uint32_t>({kept[1].streamNumber, kept[2].streamNumber, kept[3].streamNumber}),
            std::vector<uint32_t>({0xFFFFFFFFu, 7, 9}));
  EXPECT_EQ(kept[2].streamKind, 0u);

  // FlagDefault, not FlagEnabled, sets the enabled flag; it defaults to 0.
  auto flags = streamsOf({numbered(2, 2, EbmlFixture_Unsigned(MatroskaId::FlagDefault, 0)),
                          numbered(3, 2, EbmlFixture_Unsigned(MatroskaId::FlagDefault, 1)),
                          numbered(4, 2)});
  ASSERT_EQ(flags.size(), 4u);
  EXPECT_EQ(std::vector<int>({flags[0].enabled, flags[1].enabled, flags[2].enabled, flags[3].enabled}),
            std::vector<int>({1, 0, 1, 0}));

  // Picture sizes above 65535 reject the track.
  auto sizes = streamsOf({MatroskaFixture_VideoTrack(2, 65535, 65535),
                          MatroskaFixture_VideoTrack(3, 65536, 10),
                          MatroskaFixture_VideoTrack(4, 10, 65536)});
  ASSERT_EQ(sizes.size(), 2u);
  EXPECT_EQ(std::pair(sizes[1].width, sizes[1].height), std::pair(uint16_t(65535), uint16_t(65535)));

  // At most 32 tracks are kept.
  std::vector<std::vector<uint8_t>> many;
  for (uint64_t n = 1; n <= 40; ++n) many.push_back(MatroskaFixture_AudioTrack(n, 8000.0, 1, 8));
  MediaStream crowded = PROBE(mkv({info(), tracks(many)}));
  EXPECT_EQ(crowded.streamCount(), 32);
  EXPECT_EQ(crowded.streamInfo.back().streamNumber, 32u);
}

TEST(Matroska, FailingAudioRejectsItsTrack) {
  using namespace MatroskaId;
  auto audioKept = [](std::initializer_list<std::vector<uint8_t>> audioChildren) -> int {
    auto stream = MediaProbe_Bytes(mkv({info(), tracks({videoTrack(), audioTrack(audioChildren)})}));
    if (!stream) return -1;
    return static_cast<int>(stream->streamCount()) - 1;
  };
  EXPECT_EQ(audioKept({EbmlFixture_Float(SamplingFrequency, 1.0),
                       EbmlFixture_Unsigned(Channels, 255), EbmlFixture_Unsigned(BitDepth, 64)}),
            1);
  EXPECT_EQ(audioKept({EbmlFixture_Float(SamplingFrequency, 0.5)}), 0);
  EXPECT_EQ(audioKept({EbmlFixture_Float(SamplingFrequency, 4294967296.0)}), 0);
  EXPECT_EQ(audioKept({EbmlFixture_Unsigned(Channels, 2)}), 0);  // no frequency
  EXPECT_EQ(audioKept({EbmlFixture_Float(SamplingFrequency, 44100.0),
                       EbmlFixture_Unsigned(Channels, 256)}),
            0);
  EXPECT_EQ(audioKept({EbmlFixture_Float(SamplingFrequency, 44100.0),
                       EbmlFixture_Unsigned(BitDepth, 65)}),
            0);
  // A value of a size its type does not allow fails the element too.
  EXPECT_EQ(audioKept({EbmlFixture_Element(SamplingFrequency, {0x47, 0x2C})}), 0);

  // Audio-only files with a failing Audio element have nothing left.
  EXPECT_TRUE(declined(mkv({info(), tracks({audioTrack({EbmlFixture_Unsigned(Channels, 300)})})})));

  // Both frequencies land in one value; the later one wins.
  auto rate = [](std::initializer_list<std::vector<uint8_t>> audioChildren) {
    auto stream = MediaProbe_Bytes(mkv({info(), tracks({audioTrack(audioChildren)})}));
    return stream ? stream->streamInfo[0].sampleRate : 0u;
  };
  EXPECT_EQ(rate({EbmlFixture_Float(SamplingFrequency, 24000.0),
                  EbmlFixture_Float(OutputSamplingFrequency, 48000.0)}),
            48000u);
  EXPECT_EQ(rate({EbmlFixture_Float(OutputSamplingFrequency, 48000.0),
                  EbmlFixture_Float(SamplingFrequency, 24000.0)}),
            24000u);
}

TEST(Matroska, UnknownSizesAreBoundedByTheParent) {
  // A live recording: Segment of unknown size, read up to the Cluster.
  MediaStream live = PROBE(EbmlFixture_Join(
      {MatroskaFixture_Header("webm"),
       EbmlFixture_UnknownSize(MatroskaId::Segment,
                               EbmlFixture_Join({info(), tracks({videoTrack()}),
                                                 EbmlFixture_UnknownSize(MatroskaId::Cluster, {0xE7, 0x81, 0x00})}))}));
  EXPECT_STREQ(live.mimeType, "video/webm");
  EXPECT_EQ(live.duration, 2000u);

  // Tracks of unknown size end with their Segment: a track entry stored after
  // the Segment does not count.
  MediaStream bounded = PROBE(EbmlFixture_Join(
      {MatroskaFixture_Header("matroska"),
       EbmlFixture_Master(MatroskaId::Segment, {info(), EbmlFixture_UnknownSize(MatroskaId::Tracks, videoTrack(1))}),
       MatroskaFixture_AudioTrack(2, 48000.0, 2, 16)}));
  EXPECT_EQ(bounded.streamCount(), 1);

  // A child claiming more than its parent holds ends that parent's reading;
  // what was read before it stays.
  const std::vector<uint8_t> audio = MatroskaFixture_AudioTrack(2, 48000.0, 2, 16);
  std::vector<uint8_t> overrun = mkv({info(), tracks({videoTrack(1), audio})});
  const int64_t audioEntry = positionOf(overrun, audio);
  ASSERT_GT(audioEntry, 0);
  overrun[audioEntry + 1] = 0xFE;  // size 126, beyond the Tracks element
  MediaStream cut = PROBE(overrun);
  EXPECT_EQ(cut.streamCount(), 1);
}

}  // namespace
