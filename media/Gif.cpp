// GIF pictures: the logical screen size and colour depth from the fixed
// header. Frames, extensions and comments are not read.
#include <cstdio>
#include <string_view>

#include "base/ByteOrder.h"
#include "media/MediaNotes.h"
#include "media/MediaParsers.h"
#include "media/MediaRead.h"

namespace {

constexpr size_t kHeaderSize = 13;  // signature, version, screen descriptor
constexpr uint8_t kColourBitsMask = 0x07;

}  // namespace

bool MediaParse_Gif(int fd, int64_t offset, int64_t length, MediaStream& stream, bool) {
  stream.duration = 0;
  stream.timescale = 1000;
  if (length < static_cast<int64_t>(kHeaderSize)) return false;
  uint8_t header[kHeaderSize];
  if (!MediaRead_At(fd, offset, header, sizeof header)) return false;
  const std::string_view signature(reinterpret_cast<const char*>(header), 6);
  if (!signature.starts_with("GIF")) return false;
  if (signature != "GIF87a" && signature != "GIF89a") {
    return MediaNote_Decline("gif: the version is neither 87a nor 89a");
  }

  const uint16_t width = Bytes_U16LE(header + 6);
  const uint16_t height = Bytes_U16LE(header + 8);
  const uint8_t packed = header[10];
  if (width != 0 && height != 0) {
    MediaStream_AddPicture(stream, width, height, static_cast<uint8_t>((packed & kColourBitsMask) + 1));
  } else {
    MediaNote_Unpublished("gif: the screen width or height is 0");
  }
  stream.mediaType = MediaType_Image;
  stream.mimeType = "image/gif";
  return true;
}
