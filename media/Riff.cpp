// RIFF parser for WAV and AVI files: one chunk walker serves the top level,
// the "LIST" bodies and the AVI stream lists. Tags come from "LIST" "INFO"
// and from an embedded ID3v2 tag ("id3 " chunk); a later chunk's value
// replaces an earlier one.
#include <algorithm>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>

#include "base/ByteOrder.h"
#include "media/Id3.h"
#include "media/MediaNotes.h"
#include "media/MediaParsers.h"
#include "media/MediaRead.h"

namespace {

constexpr int64_t kRiffHeaderSize = 12;  // "RIFF", size, form type
constexpr int64_t kChunkHeaderSize = 8;
constexpr int kMaxWavChunks = 8;
constexpr int kMaxAviChunks = 8;
constexpr int kMaxInfoChunks = 32;
constexpr int kMaxHeaderListChunks = 32;  // "avih" and the stream lists
constexpr int kMaxStreamListChunks = 8;
constexpr size_t kMaxInfoText = 511;
constexpr size_t kMaxInfoDate = 23;
constexpr uint32_t kFormatSize = 16;
constexpr uint32_t kStreamHeaderSize = 56;
constexpr uint32_t kVideoFormatSize = 40;
constexpr size_t kVideoFormatRead = 20;  // up to and including the compression code
constexpr uint32_t kAudioFormatSize = 16;
constexpr uint32_t kStreamFlagDisabled = 0x1;
constexpr int32_t kMaxPictureHeight = 65535;
constexpr uint32_t kMaxBitsPerPixel = 255;

struct RiffChunk {
  char fourcc[4] = {};
  uint32_t size = 0;
  int64_t data = 0;  // file position of the chunk's first data byte

  std::string_view id() const { return {fourcc, sizeof fourcc}; }
};

// Visits the chunks in [begin, end), at most `maxChunks` of them. A chunk
// that does not fit in what remains ends the walk.
class RiffWalker {
 public:
  RiffWalker(int fd, int64_t begin, int64_t end, int maxChunks)
      : fd_(fd), position_(begin), end_(end), chunksLeft_(maxChunks) {}

  bool next(RiffChunk& chunk) {
    uint8_t header[kChunkHeaderSize];
    if (chunksLeft_ <= 0 || position_ + kChunkHeaderSize > end_ ||
        !MediaRead_At(fd_, position_, header, sizeof header)) {
      return false;
    }
    const uint32_t size = Bytes_U32LE(header + 4);
    const int64_t data = position_ + kChunkHeaderSize;
    if (data + size > end_) return false;
    std::copy_n(header, sizeof chunk.fourcc, chunk.fourcc);
    chunk.size = size;
    chunk.data = data;
    position_ = data + size + (size & 1);
    --chunksLeft_;
    return true;
  }

 private:
  int fd_;
  int64_t position_;
  int64_t end_;
  int chunksLeft_;
};

// The list type of a "LIST" chunk, or empty when it has none.
std::string_view listType(int fd, const RiffChunk& chunk, char (&type)[4]) {
  if (chunk.id() != "LIST" || chunk.size < 4 ||
      !MediaRead_At(fd, chunk.data, type, 4)) {
    return {};
  }
  return std::string_view(type, 4);
}

RiffWalker listBody(int fd, const RiffChunk& list, int maxChunks) {
  return RiffWalker(fd, list.data + 4, list.data + list.size, maxChunks);
}

void readInfoText(int fd, const RiffChunk& chunk, std::optional<std::string>& target) {
  char text[kMaxInfoText];
  const size_t count = std::min<size_t>(chunk.size, sizeof text);
  if (!MediaRead_At(fd, chunk.data, text, count)) return;
  target = std::string(text, std::find(text, text + count, '\0'));
}

// "YYYY-MM-DD" or "YYYY:MM:DD"; missing parts default to the first of January.
void readInfoDate(int fd, const RiffChunk& chunk, MediaStream& stream) {
  char text[kMaxInfoDate + 1] = {};
  const size_t count = std::min<size_t>(chunk.size, kMaxInfoDate);
  if (!MediaRead_At(fd, chunk.data, text, count)) return;
  // The colon form is only taken when it reads more numbers than the dashed one.
  if (auto date = MediaDate_Scan(text, {"%d-%d-%d", "%d:%d:%d"}, 1)) stream.date = *date;
}

void readInfoList(int fd, const RiffChunk& list, MediaStream& stream) {
  RiffWalker walker = listBody(fd, list, kMaxInfoChunks);
  RiffChunk chunk;
  while (walker.next(chunk)) {
    if (chunk.id() == "INAM") readInfoText(fd, chunk, stream.title);
    else if (chunk.id() == "IART") readInfoText(fd, chunk, stream.artist);
    else if (chunk.id() == "IALB" || chunk.id() == "IPRD") readInfoText(fd, chunk, stream.album);
    else if (chunk.id() == "IGNR") readInfoText(fd, chunk, stream.genre);
    else if (chunk.id() == "ICRD") readInfoDate(fd, chunk, stream);
  }
}

void readId3Chunk(int fd, const RiffChunk& chunk, MediaStream& stream) {
  Id3_ReadTag(fd, chunk.data, chunk.size, stream);
}

bool readRiffHeader(int fd, int64_t offset, int64_t length, std::string_view form, int64_t& end) {
  uint8_t header[kRiffHeaderSize];
  if (length < kRiffHeaderSize || !MediaRead_At(fd, offset, header, sizeof header)) {
    return false;
  }
  const int64_t riffSize = Bytes_U32LE(header + 4);
  if (std::string_view(reinterpret_cast<char*>(header), 4) != "RIFF") return false;
  if (riffSize + kChunkHeaderSize > length) {
    return MediaNote_Decline("riff: the RIFF size runs past the end of the file");
  }
  if (std::string_view(reinterpret_cast<char*>(header + 8), 4) != form) return false;
  end = offset + kChunkHeaderSize + riffSize;
  return true;
}

struct WavFormat {
  uint16_t formatTag = 0;
  uint16_t channels = 0;
  uint32_t sampleRate = 0;
  uint32_t byteRate = 0;
  uint16_t blockAlign = 0;
  uint16_t bitsPerSample = 0;
};

WavFormat readWavFormat(int fd, const RiffChunk& chunk) {
  uint8_t raw[kFormatSize];
  if (!MediaRead_At(fd, chunk.data, raw, sizeof raw)) return {};
  return {Bytes_U16LE(raw), Bytes_U16LE(raw + 2), Bytes_U32LE(raw + 4), Bytes_U32LE(raw + 8), Bytes_U16LE(raw + 12), Bytes_U16LE(raw + 14)};
}

bool parseWav(int fd, int64_t offset, int64_t length, MediaStream& stream) {
  int64_t end = 0;
  if (!readRiffHeader(fd, offset, length, "WAVE", end)) return false;

  WavFormat format;
  std::optional<uint32_t> factFrames;
  uint32_t dataSize = 0;
  RiffWalker walker(fd, offset + kRiffHeaderSize, end, kMaxWavChunks);
  RiffChunk chunk;
  while (walker.next(chunk)) {
    char type[4];
    if (chunk.id() == "fmt " && chunk.size >= kFormatSize) {
      format = readWavFormat(fd, chunk);
    } else if (chunk.id() == "fact" && chunk.size >= 4) {
      uint8_t raw[4];
      if (MediaRead_At(fd, chunk.data, raw, sizeof raw)) factFrames = Bytes_U32LE(raw);
    } else if (chunk.id() == "data") {
      dataSize = chunk.size;
    } else if (chunk.id() == "id3 ") {
      readId3Chunk(fd, chunk, stream);
    } else if (listType(fd, chunk, type) == "INFO") {
      readInfoList(fd, chunk, stream);
    }
  }

  uint32_t frames = 0;
  if (factFrames) frames = *factFrames;
  else if (format.blockAlign != 0) frames = dataSize / format.blockAlign;
  if (format.sampleRate != 0 && format.channels != 0) {
    MediaStream_AddSound(stream, frames, format.sampleRate, static_cast<uint8_t>(format.channels),
                         static_cast<uint8_t>(format.bitsPerSample));
  } else {
    MediaNote_Unpublished("wav: no usable fmt chunk (sample rate and channels not 0) among the first 8 chunks");
  }
  stream.mediaType = MediaType_Audio;
  stream.mimeType = "audio/wave";
  if (format.sampleRate != 0 && frames != 0) {
    stream.duration = frames;
    stream.timescale = format.sampleRate;
  }
  return true;
}

uint32_t streamKind(std::string_view type) {
  if (type == "vids") return MediaType_Video;
  if (type == "auds") return MediaType_Audio;
  if (type == "txts") return 4;
  return 0;
}

// The stream header; false when it is too short or describes no time.
bool readStreamHeader(int fd, const RiffChunk& chunk, StreamInfo& info) {
  uint8_t raw[kStreamHeaderSize];
  if (chunk.size < kStreamHeaderSize || !MediaRead_At(fd, chunk.data, raw, sizeof raw)) return false;
  const uint32_t flags = Bytes_U32LE(raw + 8);
  const uint32_t scale = Bytes_U32LE(raw + 20);
  const uint32_t rate = Bytes_U32LE(raw + 24);
  const uint32_t length = Bytes_U32LE(raw + 32);
  if (length == 0 || scale == 0 || rate == 0) return false;
  info.streamKind = streamKind(std::string_view(reinterpret_cast<char*>(raw), 4));
  info.enabled = (flags & kStreamFlagDisabled) ? 0 : 1;
  info.duration = length * scale;
  info.timescale = rate;
  return true;
}

void readVideoFormat(int fd, const RiffChunk& chunk, StreamInfo& info) {
  uint8_t raw[kVideoFormatRead];
  if (chunk.size < kVideoFormatSize || !MediaRead_At(fd, chunk.data, raw, sizeof raw)) return;
  const auto width = static_cast<int32_t>(Bytes_U32LE(raw + 4));
  const auto height = static_cast<int32_t>(Bytes_U32LE(raw + 8));
  const uint16_t bitCount = Bytes_U16LE(raw + 14);
  if (width < 1 || height == 0 || height < -kMaxPictureHeight || height > kMaxPictureHeight ||
      bitCount > kMaxBitsPerPixel) {
    return;
  }
  info.width = static_cast<uint16_t>(width);
  info.height = static_cast<uint16_t>(std::abs(height));  // bottom-up and top-down pictures alike
  info.bitsPerPixel = static_cast<uint8_t>(bitCount);
}

void readAudioFormat(int fd, const RiffChunk& chunk, StreamInfo& info) {
  if (chunk.size < kAudioFormatSize) return;
  const WavFormat format = readWavFormat(fd, chunk);
  if (format.channels == 0 || format.sampleRate == 0) return;
  info.sampleRate = format.sampleRate;
  info.channels = static_cast<uint8_t>(format.channels);
  info.bitsPerSample = static_cast<uint8_t>(format.bitsPerSample);
}

// One "strl" list: "strh" first, then "strf" in the form its stream type needs.
void readStreamList(int fd, const RiffChunk& list, MediaStream& stream) {
  StreamInfo info;
  bool haveHeader = false;
  RiffWalker walker = listBody(fd, list, kMaxStreamListChunks);
  RiffChunk chunk;
  while (walker.next(chunk)) {
    if (chunk.id() == "strh" && !haveHeader) {
      haveHeader = readStreamHeader(fd, chunk, info);
    } else if (chunk.id() == "strf" && haveHeader) {
      if (info.streamKind == MediaType_Video) readVideoFormat(fd, chunk, info);
      else if (info.streamKind == MediaType_Audio) readAudioFormat(fd, chunk, info);
    }
  }
  if (!haveHeader) return;
  info.streamNumber = static_cast<uint32_t>(stream.streamInfo.size() + 1);
  stream.streamInfo.push_back(info);
}

void readHeaderList(int fd, const RiffChunk& list, MediaStream& stream) {
  RiffWalker walker = listBody(fd, list, kMaxHeaderListChunks);
  RiffChunk chunk;
  while (walker.next(chunk)) {
    char type[4];
    if (listType(fd, chunk, type) == "strl") readStreamList(fd, chunk, stream);
  }
}

bool parseAvi(int fd, int64_t offset, int64_t length, MediaStream& stream) {
  int64_t end = 0;
  if (!readRiffHeader(fd, offset, length, "AVI ", end)) return false;

  bool seenHeader = false, seenInfo = false, seenMovie = false, seenIndex = false;
  RiffWalker walker(fd, offset + kRiffHeaderSize, end, kMaxAviChunks);
  RiffChunk chunk;
  while (!(seenHeader && seenInfo && seenMovie && seenIndex) && walker.next(chunk)) {
    char type[4];
    if (chunk.id() == "idx1") {
      seenIndex = true;
    } else if (chunk.id() == "id3 ") {
      readId3Chunk(fd, chunk, stream);
    } else {
      const std::string_view list = listType(fd, chunk, type);
      if (list == "hdrl") {
        seenHeader = true;
        readHeaderList(fd, chunk, stream);
      } else if (list == "INFO") {
        seenInfo = true;
        readInfoList(fd, chunk, stream);
      } else if (list == "movi") {
        seenMovie = true;
      }
    }
  }

  stream.mediaType = MediaType_Video;
  stream.mimeType = "video/avi";
  if (stream.streamInfo.empty()) MediaNote_Unpublished("avi: no stream list with a usable strh in the hdrl list");
  if (!stream.streamInfo.empty()) {
    stream.duration = stream.streamInfo.front().duration;
    stream.timescale = stream.streamInfo.front().timescale;
  }
  return true;
}

}  // namespace

bool MediaParse_Riff(int fd, int64_t offset, int64_t length, MediaStream& stream, bool /*metadataOnly*/) {
  stream.duration = 0;
  stream.timescale = 1000;
  return parseWav(fd, offset, length, stream) || parseAvi(fd, offset, length, stream);
}
