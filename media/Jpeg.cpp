// JPEG parser: walks the first segments of the file for the EXIF block (texts,
// dates and the thumbnail that becomes the cover) and the start-of-frame
// segment (size and depth). Image data is never read.
#include <unistd.h>

#include <cstring>

#include "media/MediaNotes.h"
#include "media/MediaParsers.h"
#include "media/MediaRead.h"
#include "media/TiffDirectory.h"

namespace {

constexpr uint32_t kStartOfImageMask = 0xFFD8FF00;
constexpr int64_t kMinLength = 4;
constexpr int64_t kFirstSegment = 2;
constexpr unsigned kMaxSegments = 16;
constexpr uint16_t kMarkerEndOfImage = 0xFFD9;
constexpr uint16_t kMarkerApp1 = 0xFFE1;
constexpr uint16_t kMinExifSegmentLength = 17;
constexpr char kExifSignature[] = {'E', 'x', 'i', 'f', 0, 0};
constexpr int64_t kExifTiffStart = 10;   // marker, length and signature precede the TIFF structure
constexpr int64_t kExifTiffOverhead = 8;  // length field and signature
constexpr uint16_t kMinFrameLength = 8;
constexpr uint32_t kTimescale = 1000;

// Start-of-frame markers. 0xFFC6 stays out of the set; 0xFFC4, 0xFFC8 and
// 0xFFCC are tables and reserved markers, not frames.
bool JpegIsFrameMarker(uint16_t marker) {
  switch (marker) {
    case 0xFFC0: case 0xFFC1: case 0xFFC2: case 0xFFC3: case 0xFFC5: case 0xFFC7:
    case 0xFFC9: case 0xFFCA: case 0xFFCB: case 0xFFCD: case 0xFFCE: case 0xFFCF:
      return true;
    default:
      return false;
  }
}

struct JpegPicture {
  uint16_t width = 0;
  uint16_t height = 0;
  uint8_t bitsPerPixel = 0;
};

// The EXIF block of an APP1 segment whose TIFF structure starts at
// `tiffStart`; a damaged block leaves the record as it was.
void JpegReadExif(int fd, int64_t tiffStart, int64_t tiffSize, MediaStream& stream, JpegPicture& picture) {
  char signature[sizeof kExifSignature];
  if (!MediaRead_Bytes(fd, signature, sizeof signature) ||
      std::memcmp(signature, kExifSignature, sizeof signature) != 0) {
    return;
  }
  TiffSource source;
  uint32_t firstOffset = 0;
  TiffDirectory first;
  if (!TiffHeader_Read(fd, tiffStart, tiffSize, source, firstOffset) ||
      !TiffDirectory_Read(source, firstOffset, first)) {
    return;
  }
  if (first.description) stream.title = std::move(first.description);
  if (first.artist) stream.artist = std::move(first.artist);
  TiffExifDirectory exif;
  if (first.exifOffset != 0 && TiffDirectory_ReadExif(source, first.exifOffset, exif) &&
      exif.pixelWidth != 0 && exif.pixelHeight != 0) {
    picture.width = exif.pixelWidth;
    picture.height = exif.pixelHeight;
  }
  stream.date = TiffDate_Choose(first.date, exif);

  TiffDirectory thumbnail;
  if (first.nextOffset != 0 && TiffDirectory_Read(source, first.nextOffset, thumbnail) &&
      thumbnail.thumbnailOffset != 0 && thumbnail.thumbnailLength != 0) {
    stream.coverMimeType = "image/jpeg";
    stream.coverOffset = tiffStart + thumbnail.thumbnailOffset;
    stream.coverLength = thumbnail.thumbnailLength;
  }
}

// The start-of-frame payload behind the length field; the picture is taken
// only when precision, components and the segment length agree.
void JpegReadFrame(int fd, uint16_t segmentLength, JpegPicture& picture) {
  uint8_t frame[6];
  if (segmentLength < kMinFrameLength || !MediaRead_Bytes(fd, frame, sizeof frame)) return;
  const uint8_t precision = frame[0];
  const uint8_t components = frame[5];
  if (precision != 8 && precision != 12 && precision != 16) {
    return MediaNote_Unpublished("jpeg: start-of-frame precision is not 8, 12 or 16");
  }
  if (components != 1 && components != 3 && components != 4) {
    return MediaNote_Unpublished("jpeg: start-of-frame has not 1, 3 or 4 components");
  }
  if (segmentLength != components * 3 + kMinFrameLength) {
    return MediaNote_Unpublished("jpeg: start-of-frame length does not match its components");
  }
  picture.height = static_cast<uint16_t>(MediaBits_Get(frame + 1, 0, 16));
  picture.width = static_cast<uint16_t>(MediaBits_Get(frame + 3, 0, 16));
  picture.bitsPerPixel = static_cast<uint8_t>(precision * components);
}

}  // namespace

bool MediaParse_Jpeg(int fd, int64_t offset, int64_t length, MediaStream& stream, bool) {
  stream.duration = 0;
  stream.timescale = kTimescale;
  uint32_t start = 0;
  if (length < kMinLength || MediaSeek(fd, offset, SEEK_SET) != offset || !MediaRead_U32BE(fd, start) ||
      (start & kStartOfImageMask) != kStartOfImageMask) {
    return false;
  }

  JpegPicture picture;
  int64_t position = kFirstSegment;
  for (unsigned segment = 0; segment < kMaxSegments; ++segment) {
    const int64_t remaining = length - position;
    uint16_t marker = 0;
    uint16_t segmentLength = 0;
    if (remaining < 2 || MediaSeek(fd, offset + position, SEEK_SET) != offset + position ||
        !MediaRead_U16BE(fd, marker) || (marker >> 8) != 0xFF || marker == kMarkerEndOfImage ||
        remaining < 4 || !MediaRead_U16BE(fd, segmentLength) || segmentLength + 2 > remaining) {
      break;
    }
    if (marker == kMarkerApp1 && segmentLength >= kMinExifSegmentLength) {
      JpegReadExif(fd, offset + position + kExifTiffStart, segmentLength - kExifTiffOverhead, stream, picture);
    } else if (JpegIsFrameMarker(marker)) {
      JpegReadFrame(fd, segmentLength, picture);
      break;
    }
    position += segmentLength + 2;
  }

  if (picture.width != 0 && picture.height != 0 && picture.bitsPerPixel != 0) {
    MediaStream_AddPicture(stream, picture.width, picture.height, picture.bitsPerPixel);
  } else {
    MediaNote_Unpublished("jpeg: no usable start-of-frame in the first 16 segments");
  }
  stream.mediaType = MediaType_Image;
  stream.mimeType = "image/jpeg";
  return true;
}
