// MPEG audio (MP3) parser: reads a leading ID3v2 tag, finds the first frame
// header close behind it, confirms it with the next frame, and works out the
// duration from a "Xing" header or from the data length. It is the loosest
// test of all formats and is therefore tried last.
#include "media/Mp3.h"

#include <cstring>
#include <memory>
#include <new>

#include "media/Id3.h"
#include "media/MediaNotes.h"
#include "media/MediaParsers.h"
#include "media/MediaRead.h"

namespace {

constexpr size_t kSearchBufferSize = 1024;
constexpr size_t kSearchPositions = 512;
constexpr size_t kXingTocSize = 100;
constexpr uint8_t kChannelModeSingle = 3;
constexpr uint8_t kDecodedBitsPerSample = 16;  // what a decoder delivers
constexpr uint8_t kLayerI = 3;
constexpr uint8_t kLayerIII = 1;
constexpr uint8_t kVersionMpeg1 = 3;
constexpr uint32_t kXingHasFrames = 0x01;
constexpr uint32_t kXingHasBytes = 0x02;
constexpr uint32_t kXingHasToc = 0x04;

// kbit/s by bitrate index 0-15 (0 = free format and 15 = invalid are refused).
constexpr uint16_t kBitratesMpeg1[3][16] = {
    {0, 32, 64, 96, 128, 160, 192, 224, 256, 288, 320, 352, 384, 416, 448, 0},  // Layer I
    {0, 32, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 384, 0},     // Layer II
    {0, 32, 40, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 0},      // Layer III
};
constexpr uint16_t kBitratesMpeg2[2][16] = {
    {0, 32, 48, 56, 64, 80, 96, 112, 128, 144, 160, 176, 192, 224, 256, 0},  // Layer I
    {0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160, 0},       // Layers II and III
};
// Hz by sample-rate index, for MPEG-1, MPEG-2 and MPEG-2.5.
constexpr uint32_t kSampleRatesMpeg1[3] = {44100, 48000, 32000};
constexpr uint32_t kSampleRatesMpeg2[3] = {22050, 24000, 16000};
constexpr uint32_t kSampleRatesMpeg25[3] = {11025, 12000, 8000};

struct FrameHeader {
  uint8_t version = 0;      // 3 MPEG-1, 2 MPEG-2, 0 MPEG-2.5
  uint8_t layer = 0;        // 3 Layer I, 2 Layer II, 1 Layer III
  uint8_t channelMode = 0;  // 3 single channel
  uint32_t sampleRate = 0;
  uint16_t samplesPerFrame = 0;
  uint32_t bitrate = 0;  // bit/s
  uint8_t padding = 0;
  uint32_t frameLength = 0;  // bytes
};

bool decodeFrameHeader(const uint8_t* b, FrameHeader& header) {
  if (b[0] != 0xFF || (b[1] & 0xE0) != 0xE0) return false;
  const uint8_t version = (b[1] >> 3) & 3;
  const uint8_t layer = (b[1] >> 1) & 3;
  const uint8_t bitrateIndex = b[2] >> 4;
  const uint8_t sampleRateIndex = (b[2] >> 2) & 3;
  if (version == 1 || layer == 0 || bitrateIndex == 0 || bitrateIndex == 15 || sampleRateIndex == 3) {
    return false;
  }
  FrameHeader h;
  h.version = version;
  h.layer = layer;
  h.channelMode = b[3] >> 6;
  h.padding = (b[2] >> 1) & 1;
  const bool mpeg1 = version == kVersionMpeg1;
  const uint32_t* sampleRates = mpeg1          ? kSampleRatesMpeg1
                                : version == 2 ? kSampleRatesMpeg2
                                               : kSampleRatesMpeg25;
  h.sampleRate = sampleRates[sampleRateIndex];
  const uint16_t kbits = mpeg1 ? kBitratesMpeg1[3 - layer][bitrateIndex]
                               : kBitratesMpeg2[layer == kLayerI ? 0 : 1][bitrateIndex];
  h.bitrate = uint32_t{kbits} * 1000;
  if (layer == kLayerI) {
    h.samplesPerFrame = 384;
    h.frameLength = (12 * h.bitrate / h.sampleRate + h.padding) * 4;
  } else if (layer == kLayerIII && !mpeg1) {
    h.samplesPerFrame = 576;
    h.frameLength = 72 * h.bitrate / h.sampleRate + h.padding;
  } else {
    h.samplesPerFrame = 1152;
    h.frameLength = 144 * h.bitrate / h.sampleRate + h.padding;
  }
  header = h;
  return true;
}

// Where a "Xing" header sits inside the first frame: behind the four header
// bytes and the side information of that version and channel mode.
size_t xingOffset(const FrameHeader& header) {
  const bool mono = header.channelMode == kChannelModeSingle;
  if (header.version == kVersionMpeg1) return mono ? 21 : 36;
  return mono ? 13 : 21;
}

struct AudioLayout {
  int64_t firstFrame = 0;
  int64_t audioLength = 0;
  uint64_t frameCount = 0;
  bool hasToc = false;
  std::array<uint8_t, kXingTocSize> toc{};
};

// Takes frame count, byte count and table of contents from a "Xing" header
// at `xing`, which lies well inside the search buffer.
void readXing(const uint8_t* xing, AudioLayout& layout) {
  if (std::memcmp(xing, "Info", 4) == 0) {
    return MediaNote_Shortcut("mp3: the first frame is an \"Info\" header, not read: duration from the data length");
  }
  if (std::memcmp(xing, "Xing", 4) != 0) {
    return MediaNote_Shortcut("mp3: no \"Xing\" header: duration from the first frame's bitrate");
  }
  const uint32_t flags = MediaBits_Get(xing + 4, 0, 32) & 0xFF;
  const uint8_t* field = xing + 8;
  if (flags & kXingHasFrames) {
    layout.frameCount = MediaBits_Get(field, 0, 32);
    field += 4;
  }
  if (flags & kXingHasBytes) {
    const uint32_t bytes = MediaBits_Get(field, 0, 32);
    if (bytes < layout.audioLength) layout.audioLength = bytes;
    field += 4;
  }
  if (flags & kXingHasToc) {
    std::memcpy(layout.toc.data(), field, kXingTocSize);
    layout.hasToc = true;
  }
}

bool parseMp3(int fd, int64_t offset, int64_t length, MediaStream& stream, bool metadataOnly) {
  const bool tagged = Id3_ReadTag(fd, offset, length, stream);
  if (!tagged && MediaSeek(fd, offset, SEEK_SET) != offset) return false;
  const int64_t bufferStart = MediaSeek(fd, 0, SEEK_CUR);
  uint8_t buffer[kSearchBufferSize];
  if (bufferStart < 0 || !MediaRead_Bytes(fd, buffer, sizeof buffer)) {
    return tagged && MediaNote_Decline("mp3: fewer than 1024 bytes behind the ID3 tag");
  }

  FrameHeader first;
  size_t index = 0;
  while (index < kSearchPositions && !decodeFrameHeader(buffer + index, first)) ++index;
  if (index == kSearchPositions) {
    return tagged && MediaNote_Decline("mp3: no frame header in the first 512 bytes behind the ID3 tag");
  }

  AudioLayout layout;
  layout.firstFrame = bufferStart + static_cast<int64_t>(index);
  layout.audioLength = offset + length - layout.firstFrame;
  if (layout.audioLength < first.frameLength) return MediaNote_Decline("mp3: the first frame runs past the end");
  layout.frameCount = static_cast<uint64_t>(layout.audioLength) / first.frameLength;
  readXing(buffer + index + xingOffset(first), layout);
  const auto totalSamples = static_cast<uint32_t>(first.samplesPerFrame * layout.frameCount);

  const int64_t nextFrame = layout.firstFrame + first.frameLength;
  uint8_t nextBytes[4];
  FrameHeader next;
  if (!MediaRead_At(fd, nextFrame, nextBytes, sizeof nextBytes) ||
      MediaSeek(fd, layout.firstFrame, SEEK_SET) != layout.firstFrame) {
    return MediaNote_Decline("mp3: the file ends where the second frame should start");
  }
  if (!decodeFrameHeader(nextBytes, next)) return MediaNote_Decline("mp3: no frame header where the first frame ends");
  // The first two frames must agree; a different first frame (say, a VBR
  // header frame written apart from the audio) makes the file no MP3.
  if (next.version != first.version) {
    return MediaNote_Decline("mp3: the frame after the first has another MPEG version");
  }
  if (next.layer != first.layer) return MediaNote_Decline("mp3: the frame after the first has another layer");
  if (next.sampleRate != first.sampleRate) {
    return MediaNote_Decline("mp3: the frame after the first has another sample rate");
  }
  if (next.channelMode != first.channelMode) {
    return MediaNote_Decline("mp3: the frame after the first has another channel mode");
  }

  stream.mediaType = MediaType_Audio;
  stream.mimeType = "audio/mpeg";
  if (first.sampleRate != 0 && totalSamples != 0) {
    stream.duration = totalSamples;
    stream.timescale = first.sampleRate;
    MediaStream_AddSound(stream, totalSamples, first.sampleRate, first.channelMode == kChannelModeSingle ? 1 : 2,
                         kDecodedBitsPerSample);
  } else {
    MediaNote_Unpublished("mp3: the frame count comes out 0 (a \"Xing\" header counting no frames)");
  }
  if (!metadataOnly) {
    auto seek = std::unique_ptr<Mp3SeekInfo>(new (std::nothrow) Mp3SeekInfo);
    if (seek) {
      seek->firstFrameOffset = layout.firstFrame;
      seek->audioLength = layout.audioLength;
      seek->samplesPerFrame = first.samplesPerFrame;
      seek->frameLength = layout.hasToc ? 0 : first.frameLength;
      seek->toc = layout.toc;
      stream.seekInfo = std::move(seek);
    }
  }
  return true;
}

}  // namespace

bool MediaParse_Mp3(int fd, int64_t offset, int64_t length, MediaStream& stream, bool metadataOnly) {
  stream.duration = 1;  // a file whose frame count cannot be worked out plays for a millisecond
  stream.timescale = 1000;
  if (parseMp3(fd, offset, length, stream, metadataOnly)) return true;
  // Whatever the tag reader found must not outlive a file that is not MPEG audio.
  stream.title.reset();
  stream.artist.reset();
  stream.album.reset();
  stream.genre.reset();
  stream.coverMimeType = nullptr;
  stream.coverOffset = 0;
  stream.coverLength = 0;
  return false;
}
