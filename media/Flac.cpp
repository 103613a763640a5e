// Native FLAC files: the metadata blocks in front of the audio frames give the
// duration and audio parameters (STREAMINFO), the tags (VORBIS_COMMENT), the
// cover picture (PICTURE) and, when asked for, the seek points (SEEKTABLE).
// Each block is read through a reader that cannot leave it, and the block walk
// seeks to every header afresh, so a damaged block costs only itself.
#include "media/Flac.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string_view>

#include "base/ByteOrder.h"
#include "base/Text.h"
#include "media/MediaNotes.h"
#include "media/MediaParsers.h"
#include "media/MediaRead.h"

namespace {

constexpr uint32_t kFlacMarker = 0x664C6143;  // "fLaC"
constexpr int64_t kMarkerSize = 4;
constexpr int kMaxBlocks = 32;
constexpr int64_t kBlockHeaderSize = 4;
constexpr uint32_t kLastBlockFlag = 0x80000000u;
constexpr uint32_t kBlockLengthMask = 0x00FFFFFFu;

enum FlacBlockType : uint32_t {
  FlacBlock_StreamInfo = 0,
  FlacBlock_SeekTable = 3,
  FlacBlock_VorbisComment = 4,
  FlacBlock_Picture = 6,
};

constexpr uint32_t kMinStreamInfoLength = 18;
constexpr uint32_t kStreamInfoFrameSizes = 10;  // block and frame size limits, not used
constexpr unsigned kMinBitsPerSample = 4;

constexpr uint32_t kSeekPointSize = 18;
constexpr uint32_t kMaxSeekPoints = 65535;
constexpr uint32_t kSeekPointsPerRead = 32;

constexpr uint32_t kMaxComments = 128;
constexpr uint32_t kMaxCommentLength = 511;

constexpr uint32_t kMaxMimeLength = 63;
constexpr uint32_t kPictureDimensionsSize = 16;  // width, height, depth, colour count
constexpr uint32_t kMaxCoverLength = 1048576;
constexpr std::string_view kPictureLinkMime = "-->";  // the data is a URL, not a picture

// Reads inside one metadata block: every read and skip fails rather than
// cross the block's end.
class FlacBlockReader {
 public:
  FlacBlockReader(int fd, int64_t start, uint32_t length) : fd_(fd), start_(start), length_(length) {}

  uint32_t length() const { return length_; }
  uint32_t remaining() const { return length_ - used_; }
  int64_t position() const { return start_ + used_; }

  bool read(void* buffer, uint32_t count) {
    if (count > remaining() || !MediaRead_Bytes(fd_, buffer, count)) return false;
    used_ += count;
    return true;
  }
  bool readU32BE(uint32_t& value) {
    uint8_t bytes[4];
    if (!read(bytes, sizeof bytes)) return false;
    value = Bytes_U32BE(bytes);
    return true;
  }
  bool readU32LE(uint32_t& value) {
    uint8_t bytes[4];
    if (!read(bytes, sizeof bytes)) return false;
    value = Bytes_U32LE(bytes);
    return true;
  }
  bool skip(uint32_t count) {
    if (count > remaining()) return false;
    used_ += count;
    return MediaSeek(fd_, position(), SEEK_SET) == position();
  }

 private:
  int fd_;
  int64_t start_;
  uint32_t length_;
  uint32_t used_ = 0;
};

struct FlacAudio {
  uint32_t sampleRate = 0;
  uint8_t channels = 0;
  uint8_t bitsPerSample = 0;
  uint32_t totalSamples = 0;
};

// Totals of 2^32 samples or more do not fit the 32-bit durations and refuse
// the whole block, as do a zero sample rate and fewer than 4 bits per sample.
void flacReadStreamInfo(FlacBlockReader& block, FlacAudio& audio) {
  uint8_t data[8];
  if (block.length() < kMinStreamInfoLength) return MediaNote_Unpublished("flac: STREAMINFO shorter than 18 bytes");
  if (!block.skip(kStreamInfoFrameSizes) || !block.read(data, sizeof data)) return;
  const uint32_t sampleRate = MediaBits_Get(data, 0, 20);
  const uint32_t channels = MediaBits_Get(data, 20, 3) + 1;
  const uint32_t bitsPerSample = MediaBits_Get(data, 23, 5) + 1;
  if (MediaBits_Get(data, 28, 4) != 0) return MediaNote_Unpublished("flac: STREAMINFO counts 2^32 samples or more");
  if (sampleRate == 0) return MediaNote_Unpublished("flac: STREAMINFO gives a sample rate of 0");
  if (bitsPerSample < kMinBitsPerSample) {
    return MediaNote_Unpublished("flac: STREAMINFO gives fewer than 4 bits per sample");
  }
  audio = {sampleRate, static_cast<uint8_t>(channels), static_cast<uint8_t>(bitsPerSample),
           MediaBits_Get(data, 32, 32)};
}

// Points at or past the stream's end (the format's placeholders among them)
// end the table.
void flacReadSeekTable(FlacBlockReader& block, uint64_t totalSamples, FlacSeekInfo& seek) {
  uint32_t count = std::min(block.length() / kSeekPointSize, kMaxSeekPoints);
  uint8_t data[kSeekPointsPerRead * kSeekPointSize];
  while (count > 0) {
    const uint32_t batch = std::min(count, kSeekPointsPerRead);
    if (!block.read(data, batch * kSeekPointSize)) return;
    for (uint32_t i = 0; i < batch; ++i) {
      const uint8_t* point = data + i * kSeekPointSize;
      FlacSeekPoint entry;
      entry.sampleNumber = Bytes_U64BE(point);
      entry.byteOffset = Bytes_U64BE(point + 8);
      entry.sampleCount = Bytes_U16BE(point + 16);
      if (entry.sampleNumber >= totalSamples) return;
      seek.points.push_back(entry);
    }
    count -= batch;
  }
}

void flacTakeComment(std::string_view comment, MediaStream& stream) {
  const size_t equals = comment.find('=');
  if (equals == std::string_view::npos) return;
  const std::string_view field = comment.substr(0, equals);
  const std::string_view value = comment.substr(equals + 1);
  if (Text_EqualsNoCase(field, "title")) stream.title = std::string(value);
  else if (Text_EqualsNoCase(field, "artist")) stream.artist = std::string(value);
  else if (Text_EqualsNoCase(field, "album")) stream.album = std::string(value);
  else if (Text_EqualsNoCase(field, "genre")) stream.genre = std::string(value);
  else if (Text_EqualsNoCase(field, "date")) {
    // A year alone means 1 January, a year and month the first of that month.
    // The numbers must be joined by dashes: "2009:06:15" reads as the year alone.
    if (auto date = MediaDate_Scan(value, {"%d-%d-%d"}, 1)) stream.date = *date;
  }
}

// Comments are "FIELD=value" texts; empty and overlong ones are passed over,
// and a comment stops at a zero byte as any text would.
void flacReadComments(FlacBlockReader& block, MediaStream& stream) {
  uint32_t vendorLength = 0;
  uint32_t count = 0;
  if (!block.readU32LE(vendorLength) || !block.skip(vendorLength) || !block.readU32LE(count)) return;
  char comment[kMaxCommentLength];
  for (uint32_t i = 0; i < count && i < kMaxComments; ++i) {
    uint32_t size = 0;
    if (!block.readU32LE(size) || size > block.remaining()) return;
    if (size == 0 || size > kMaxCommentLength) {
      if (!block.skip(size)) return;
      continue;
    }
    if (!block.read(comment, size)) return;
    flacTakeComment(std::string_view(comment, ::strnlen(comment, size)), stream);
  }
}

// The cover is located, not read: its data starts where the block's fixed
// fields end.
void flacReadPicture(FlacBlockReader& block, MediaStream& stream) {
  uint32_t pictureType = 0;
  uint32_t mimeLength = 0;
  char mime[kMaxMimeLength + 1] = {};
  if (!block.readU32BE(pictureType) || !block.readU32BE(mimeLength) || mimeLength > kMaxMimeLength ||
      !block.read(mime, mimeLength) || mime == kPictureLinkMime) {
    return;
  }
  uint32_t descriptionLength = 0;
  uint32_t dataLength = 0;
  if (!block.readU32BE(descriptionLength) || !block.skip(descriptionLength) || !block.skip(kPictureDimensionsSize) ||
      !block.readU32BE(dataLength) || dataLength > block.remaining()) {
    return;
  }
  if (dataLength < 1 || dataLength > kMaxCoverLength) {
    return MediaNote_Shortcut("flac: an empty picture or one larger than 1 MiB is no cover");
  }
  stream.coverOffset = block.position();
  stream.coverLength = dataLength;
  stream.coverMimeType = MediaStream_CoverMimeType(mime);
  if (!stream.coverMimeType) MediaNote_Shortcut("flac: a cover of another type than JPEG or PNG gives no thumbnail");
}

}  // namespace

bool MediaParse_Flac(int fd, int64_t offset, int64_t length, MediaStream& stream, bool metadataOnly) {
  stream.duration = 1;
  stream.timescale = 1000;
  uint32_t marker = 0;
  if (length < kMarkerSize || MediaSeek(fd, offset, SEEK_SET) != offset || !MediaRead_U32BE(fd, marker) ||
      marker != kFlacMarker) {
    return false;
  }

  auto seek = metadataOnly ? nullptr : std::make_unique<FlacSeekInfo>();
  FlacAudio audio;
  int64_t position = kMarkerSize;
  for (int blocks = 0; blocks < kMaxBlocks && length - position >= kBlockHeaderSize; ++blocks) {
    uint32_t header = 0;
    if (MediaSeek(fd, offset + position, SEEK_SET) != offset + position || !MediaRead_U32BE(fd, header)) break;
    const uint32_t blockLength = header & kBlockLengthMask;
    if (kBlockHeaderSize + blockLength > length - position) break;
    FlacBlockReader block(fd, offset + position + kBlockHeaderSize, blockLength);
    switch ((header & ~kLastBlockFlag) >> 24) {
      case FlacBlock_StreamInfo: flacReadStreamInfo(block, audio); break;
      case FlacBlock_SeekTable:
        if (seek) flacReadSeekTable(block, audio.totalSamples, *seek);
        break;
      case FlacBlock_VorbisComment: flacReadComments(block, stream); break;
      case FlacBlock_Picture: flacReadPicture(block, stream); break;
      default: break;
    }
    position += kBlockHeaderSize + blockLength;
    if (header & kLastBlockFlag) break;
  }

  if (audio.sampleRate != 0 && audio.totalSamples != 0 && audio.bitsPerSample != 0) {
    MediaStream_AddSound(stream, audio.totalSamples, audio.sampleRate, audio.channels, audio.bitsPerSample);
    stream.duration = audio.totalSamples;
    stream.timescale = audio.sampleRate;
  } else {
    MediaNote_Unpublished("flac: no usable STREAMINFO block (or its total of samples is 0)");
  }
  stream.mediaType = MediaType_Audio;
  stream.mimeType = "audio/flac";
  if (seek) {
    seek->audioOffset = offset + position;
    seek->audioLength = length - position;
    stream.seekInfo = std::move(seek);
  }
  return true;
}
