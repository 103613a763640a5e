// PNG still pictures: size and depth from the header chunk, and a title and a
// creation date from the text chunks in front of the image data. Only chunk
// headers and the few small chunks used are read; everything else is seeked
// over.
#include <strings.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "media/MediaNotes.h"
#include "media/MediaParsers.h"
#include "media/MediaRead.h"

namespace {

constexpr std::array<uint8_t, 8> kPngSignature{0x89, 0x50, 0x4E, 0x47, 0x0D, 0x0A, 0x1A, 0x0A};
constexpr int kMaxChunks = 16;
constexpr int64_t kChunkOverhead = 12;  // length, type and CRC
constexpr uint32_t kHeaderLength = 13;
constexpr uint32_t kMaxSide = 65535;
constexpr uint32_t kMinTextLength = 2;
constexpr uint32_t kMaxTextLength = 511;

constexpr std::string_view kTitleKeyword = "Title";
constexpr std::string_view kCreationKeyword = "Creation Time";

struct PngHeader {
  uint32_t width = 0;
  uint32_t height = 0;
  uint8_t depth = 0;
  uint8_t colourType = 0;
};

// Greyscale counts as three channels and greyscale with alpha as four, like
// true colour without and with alpha.
uint8_t pngBitsPerPixel(const PngHeader& header) {
  switch (header.colourType) {
    case 0:
    case 2: return static_cast<uint8_t>(header.depth * 3);
    case 4:
    case 6: return static_cast<uint8_t>(header.depth * 4);
    case 3: return header.depth;
    default: return 0;
  }
}

// Reads the header chunk's data at the current position; a header with any
// field out of range leaves `header` with depth 0.
void pngReadHeader(int fd, PngHeader& header) {
  header.depth = 0;
  uint8_t data[kHeaderLength];
  if (!MediaRead_Bytes(fd, data, sizeof data)) return;
  const uint32_t width = MediaBits_Get(data, 0, 32);
  const uint32_t height = MediaBits_Get(data, 32, 32);
  if (width < 1 || width > kMaxSide || height < 1 || height > kMaxSide || data[8] == 0) return;
  header = {width, height, data[8], data[9]};
}

// A text chunk of `length` bytes at the current position: keyword, zero byte,
// text. Only the title and the creation time are taken.
void pngReadText(int fd, uint32_t length, MediaStream& stream) {
  char chunk[kMaxTextLength + 1] = {};
  if (!MediaRead_Bytes(fd, chunk, length)) return;
  if (length > kTitleKeyword.size() + 1 && ::strcasecmp(chunk, kTitleKeyword.data()) == 0) {
    stream.title = std::string(chunk + kTitleKeyword.size() + 1);
  } else if (length > kCreationKeyword.size() + 1 && ::strcasecmp(chunk, kCreationKeyword.data()) == 0) {
    if (auto date = MediaDate_ScanStamp(chunk + kCreationKeyword.size() + 1)) stream.date = *date;
  }
}

}  // namespace

bool MediaParse_Png(int fd, int64_t offset, int64_t length, MediaStream& stream, bool) {
  stream.duration = 0;
  stream.timescale = 1000;
  if (length < static_cast<int64_t>(kPngSignature.size())) return false;
  uint8_t signature[kPngSignature.size()];
  if (!MediaRead_At(fd, offset, signature, sizeof signature)) return false;
  if (std::memcmp(signature, kPngSignature.data(), sizeof signature) != 0) return false;

  PngHeader header;
  int64_t position = static_cast<int64_t>(kPngSignature.size());
  for (int chunk = 0; chunk < kMaxChunks && length - position >= kChunkOverhead; ++chunk) {
    uint32_t chunkLength = 0;
    char type[4];
    if (MediaSeek(fd, offset + position, SEEK_SET) != offset + position || !MediaRead_U32BE(fd, chunkLength) ||
        !MediaRead_Bytes(fd, type, sizeof type)) {
      break;
    }
    if (static_cast<int64_t>(chunkLength) + kChunkOverhead > length - position) break;
    const std::string_view chunkType(type, sizeof type);
    if (chunkType == "IDAT" || chunkType == "IEND") break;
    if (chunkType == "IHDR" && chunkLength == kHeaderLength) {
      pngReadHeader(fd, header);
    } else if (chunkType == "tEXt" && chunkLength >= kMinTextLength && chunkLength <= kMaxTextLength) {
      pngReadText(fd, chunkLength, stream);
    } else if (chunkType == "iTXt" || chunkType == "zTXt") {
      MediaNote_Shortcut("png: iTXt and zTXt text chunks are not read");
    }
    position += static_cast<int64_t>(chunkLength) + kChunkOverhead;
  }

  if (header.depth != 0) {
    MediaStream_AddPicture(stream, static_cast<uint16_t>(header.width), static_cast<uint16_t>(header.height),
                           pngBitsPerPixel(header));
  } else {
    MediaNote_Unpublished("png: no valid IHDR chunk before the image data");
  }
  stream.mediaType = MediaType_Image;
  stream.mimeType = "image/png";
  return true;
}
