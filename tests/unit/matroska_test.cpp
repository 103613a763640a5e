// Matroska and WebM files through the media dispatch: document types, Info,
// the keep rules of tracks, cover attachments, the SeekHead and the bounds
// that enclosing elements set.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "tests/fixtures/ByteWriter.h"
#include "tests/fixtures/JpegFixture.h"
#include "tests/fixtures/MatroskaFixture.h"
#include "tests/unit/ProbeCheck.h"

namespace {

using namespace MatroskaId;

int64_t positionOf(const std::vector<uint8_t>& haystack, const std::vector<uint8_t>& needle) {
  auto found = std::search(haystack.begin(), haystack.end(), needle.begin(), needle.end());
  return found == haystack.end() ? -1 : found - haystack.begin();
}

std::vector<uint8_t> tracks(std::initializer_list<std::vector<uint8_t>> entries) {
  return EbmlFixture_Master(Tracks, entries);
}
std::vector<uint8_t> info() { return MatroskaFixture_Info(1000000, 2000.0); }
std::vector<uint8_t> videoTrack(uint64_t number = 1) { return MatroskaFixture_VideoTrack(number, 64, 48); }
std::vector<uint8_t> numbered(uint64_t number, uint64_t type, const std::vector<uint8_t>& more = {}) {
  return EbmlFixture_Master(TrackEntry, {EbmlFixture_Unsigned(TrackNumber, number), EbmlFixture_Unsigned(TrackType, type), more});
}
std::vector<uint8_t> audioTrack(std::initializer_list<std::vector<uint8_t>> audioChildren) {
  return numbered(2, 2, EbmlFixture_Master(Audio, audioChildren));
}
std::vector<uint8_t> mkv(const std::vector<std::vector<uint8_t>>& children, bool indexed = false) {
  return MatroskaFixture_File("matroska", children, indexed);
}

TEST(Matroska, VideoWithCoverFillsTheRecord) {
  const std::vector<uint8_t> bytes = MatroskaFixture_VideoWithCover();
  MediaStream stream = PROBE(bytes);
  EXPECT_STREQ(stream.mimeType, "video/x-matroska");
  EXPECT_EQ(std::tuple(stream.duration, stream.timescale, *stream.title, stream.date),
            std::tuple(12500u, 1000u, "Demo Clip", 1735689600));
  ASSERT_EQ(stream.streamCount(), 2);
  EXPECT_EQ(StreamText(stream.streamInfo[0]), "1 2 1 12500/1000 0 0 0 320x240 0");
  EXPECT_EQ(StreamText(stream.streamInfo[1]), "2 1 1 12500/1000 48000 2 16 0x0 0");
  EXPECT_EQ(stream.coverOffset, positionOf(bytes, JpegFixture_Cover()));

  EXPECT_STREQ(PROBE(MatroskaFixture_WebM()).mimeType, "video/webm");
  EXPECT_STREQ(PROBE(MatroskaFixture_AudioWithTitle()).mimeType, "audio/x-matroska");
  const auto audio = MatroskaFixture_AudioTrack(1, 44100.0, 2, 16);
  EXPECT_STREQ(PROBE(MatroskaFixture_File("webm", {info(), tracks({audio})})).mimeType, "audio/webm");
  // A video track anywhere makes a video.
  EXPECT_STREQ(PROBE(mkv({info(), tracks({audio, numbered(3, 17), videoTrack(4)})})).mimeType, "video/x-matroska");
  // Other document types, none, or nothing to play are left to the next parser.
  for (const auto& bytes : {MatroskaFixture_File("mkv", {info(), tracks({videoTrack()})}),
                            MatroskaFixture_File(std::string("webm") + std::string(60, '\0'), {info(), tracks({videoTrack()})}),
                            EbmlFixture_Master(Segment, {info(), tracks({videoTrack()})}),
                            mkv({info()}), mkv({info(), tracks({numbered(1, 17)})})}) {
    EXPECT_EQ(MediaProbe_Bytes(bytes), nullptr);
  }
}

TEST(Matroska, InfoValues) {
  struct Case {
    uint64_t scale;
    double duration;
    uint32_t expectDuration, expectTimescale;
  };
  for (const Case& c : {Case{0, 5000.0, 0, 1000}, Case{1000000001, 5000.0, 0, 1000}, Case{1000000, -3.0, 0, 1000},
                        Case{1000000000, 7.9, 7, 1}, Case{1, 5000.0, 5000, 1000000000},
                        Case{100000, 2500.7, 2500, 10000}, Case{1000000, 1e12, 4294967295u, 1000}}) {
    MediaStream stream = PROBE(mkv({MatroskaFixture_Info(c.scale, c.duration), tracks({videoTrack()})}));
    EXPECT_EQ(std::pair(stream.duration, stream.timescale), std::pair(c.expectDuration, c.expectTimescale)) << c.scale;
  }
  // Dates count in nanoseconds from 2001, truncated toward zero.
  for (auto [nanoseconds, date] : {std::pair<int64_t, int32_t>{0, 978307200}, {-1500000000, 978307199}}) {
    EXPECT_EQ(PROBE(mkv({MatroskaFixture_Info(1000000, 1000.0, "t", nanoseconds), tracks({videoTrack()})})).date, date);
  }
}

TEST(Matroska, CoverNeedsExactNameAndSizeBelowOneMiB) {
  const std::vector<uint8_t> small = {0xFF, 0xD8, 0x11, 0xFF, 0xD9};
  auto coverOf = [](std::initializer_list<std::vector<uint8_t>> files) {
    return PROBE(mkv({info(), tracks({videoTrack()}), EbmlFixture_Master(Attachments, files)})).coverLength;
  };
  EXPECT_EQ(coverOf({MatroskaFixture_Attachment("Cover.jpg", "image/jpeg", small)}), 0);
  // The attachment's own MIME type is not looked at; the first cover wins.
  EXPECT_EQ(coverOf({MatroskaFixture_Attachment("small_cover.jpg", "image/png", small),
                     MatroskaFixture_Attachment("cover.jpg", "image/jpeg", {0xFF})}), 5);
  EXPECT_EQ(coverOf({MatroskaFixture_Attachment("cover.jpg", "image/jpeg", {}),
                     MatroskaFixture_Attachment("small_cover.jpg", "image/jpeg", small)}), 0);
  EXPECT_EQ(coverOf({MatroskaFixture_Attachment("cover.jpg", "", std::vector<uint8_t>(1048576))}), 0);
  EXPECT_EQ(coverOf({MatroskaFixture_Attachment("cover.jpg", "", std::vector<uint8_t>(1048575))}), 1048575);
  // A repeated FileName ends the attachment: the first name counts.
  EXPECT_EQ(coverOf({EbmlFixture_Master(AttachedFile, {EbmlFixture_Text(FileName, "cover.jpg"),
                                                       EbmlFixture_Element(FileData, small),
                                                       EbmlFixture_Text(FileName, "other.jpg")})}), 5);
}

TEST(Matroska, SectionsBehindAClusterAreFoundThroughTheSeekHead) {
  const std::vector<std::vector<uint8_t>> late = {MatroskaFixture_Cluster(), MatroskaFixture_Info(1000000, 4000.0, "Late"),
                                                  tracks({videoTrack()})};
  EXPECT_EQ(MediaProbe_Bytes(mkv(late, false)), nullptr);
  std::vector<uint8_t> indexed = mkv(late, true);
  EXPECT_EQ(PROBE(indexed).title, "Late");
  // An entry is followed only when its position holds the element it names.
  const int64_t at = positionOf(indexed, {0x53, 0xAB, 0x84, 0x15, 0x49, 0xA9, 0x66});
  ASSERT_GT(at, 0);
  indexed[at + 3] = 0x19;  // the Info entry now names Attachments
  EXPECT_EQ(PROBE(indexed).title, std::nullopt);
}

TEST(Matroska, TrackKeepRules) {
  auto kept = [](std::initializer_list<std::vector<uint8_t>> entries) {
    std::string numbers;
    for (const StreamInfo& s : PROBE(mkv({info(), EbmlFixture_Master(Tracks, entries)})).streamInfo) {
      numbers += std::to_string(s.streamNumber) + (s.enabled ? "+ " : " ");
    }
    return numbers;
  };
  // Numbers 1 to 2^32-1, types 1 to 254, the track enabled; FlagDefault sets
  // the enabled flag and defaults to 0; picture sizes up to 65535.
  EXPECT_EQ(kept({videoTrack(100), numbered(0, 1), numbered(0x100000000ull, 1), numbered(0xFFFFFFFFull, 1),
                  numbered(5, 0), numbered(6, 255), numbered(7, 254), numbered(8, 1, EbmlFixture_Unsigned(FlagEnabled, 0)),
                  numbered(9, 1, EbmlFixture_Unsigned(FlagDefault, 1)), MatroskaFixture_VideoTrack(10, 65536, 10),
                  MatroskaFixture_VideoTrack(11, 65535, 65535)}),
            "100+ 4294967295 7 9+ 11+ ");
  // A failing Audio element rejects its track.
  for (const auto& bad : {audioTrack({EbmlFixture_Float(SamplingFrequency, 0.5)}),
                          audioTrack({EbmlFixture_Unsigned(Channels, 2)}),
                          audioTrack({EbmlFixture_Float(SamplingFrequency, 44100.0), EbmlFixture_Unsigned(Channels, 256)}),
                          audioTrack({EbmlFixture_Float(SamplingFrequency, 44100.0), EbmlFixture_Unsigned(BitDepth, 65)}),
                          audioTrack({EbmlFixture_Element(SamplingFrequency, {0x47, 0x2C})})}) {
    EXPECT_EQ(kept({videoTrack(), bad}), "1+ ");
  }
  // Both frequencies land in one value; the later one wins.
  MediaStream rate = PROBE(mkv({info(), tracks({audioTrack({EbmlFixture_Float(SamplingFrequency, 24000.0),
                                                            EbmlFixture_Float(OutputSamplingFrequency, 48000.0)})})}));
  EXPECT_EQ(rate.streamInfo.at(0).sampleRate, 48000u);
}

TEST(Matroska, UnknownSizesAreBoundedByTheParent) {
  MediaStream live = PROBE(EbmlFixture_Join(
      {MatroskaFixture_Header("webm"),
       EbmlFixture_UnknownSize(Segment, EbmlFixture_Join({info(), tracks({videoTrack()}),
                                                          EbmlFixture_UnknownSize(Cluster, {0xE7, 0x81, 0x00})}))}));
  EXPECT_EQ(std::pair(std::string(live.mimeType), live.duration), std::pair(std::string("video/webm"), 2000u));
  // Tracks of unknown size end with their Segment.
  MediaStream bounded = PROBE(EbmlFixture_Join(
      {MatroskaFixture_Header("matroska"), EbmlFixture_Master(Segment, {info(), EbmlFixture_UnknownSize(Tracks, videoTrack(1))}),
       MatroskaFixture_AudioTrack(2, 48000.0, 2, 16)}));
  EXPECT_EQ(bounded.streamCount(), 1);
  // A child claiming more than its parent holds ends the parent's reading; what came before stays.
  const std::vector<uint8_t> audio = MatroskaFixture_AudioTrack(2, 48000.0, 2, 16);
  std::vector<uint8_t> overrun = mkv({info(), tracks({videoTrack(1), audio})});
  overrun[positionOf(overrun, audio) + 1] = 0xFE;
  EXPECT_EQ(PROBE(overrun).streamCount(), 1);
  // The given length bounds the data: one byte short cuts the Segment.
  const std::vector<uint8_t> bytes = MatroskaFixture_VideoWithCover();
  FixtureFile file(bytes);
  EXPECT_EQ(MediaStream_new(file.fd(), 0, static_cast<int64_t>(bytes.size()) - 1, true), nullptr);
}

}  // namespace
