// TIFF parser: follows the directory chain and reports every directory that
// describes a picture as one image stream (pages of a multi-page file); the
// first picture also gives the texts and the date.
#include <algorithm>
#include <array>

#include "media/MediaNotes.h"
#include "media/MediaParsers.h"
#include "media/TiffDirectory.h"

namespace {

constexpr uint32_t kTimescale = 1000;
constexpr size_t kMaxPictures = 16;
// Directories without a picture do not count as pages, so the chain needs a
// bound of its own; it also sizes the list that detects a chain looping back.
constexpr size_t kMaxDirectories = 64;

}  // namespace

bool MediaParse_Tiff(int fd, int64_t offset, int64_t length, MediaStream& stream, bool) {
  stream.duration = 0;
  stream.timescale = kTimescale;
  TiffSource source;
  uint32_t directoryOffset = 0;
  if (!TiffHeader_Read(fd, offset, length, source, directoryOffset)) return false;

  std::array<uint32_t, kMaxDirectories> visited;
  size_t visitedCount = 0;
  do {
    const auto visitedEnd = visited.begin() + visitedCount;
    if (visitedCount == kMaxDirectories || std::find(visited.begin(), visitedEnd, directoryOffset) != visitedEnd) {
      break;
    }
    visited[visitedCount++] = directoryOffset;
    TiffDirectory directory;
    if (!TiffDirectory_Read(source, directoryOffset, directory)) break;
    directoryOffset = directory.nextOffset;
    if (directory.width == 0 || directory.height == 0 || directory.bitsPerPixel == 0) continue;

    const bool first = stream.streamInfo.empty();
    MediaStream_AddPicture(stream, directory.width, directory.height, directory.bitsPerPixel);
    if (!first) continue;
    stream.title = std::move(directory.description);
    stream.artist = std::move(directory.artist);
    TiffExifDirectory exif;
    if (directory.exifOffset != 0) TiffDirectory_ReadExif(source, directory.exifOffset, exif);
    stream.date = TiffDate_Choose(directory.date, exif);
  } while (directoryOffset != 0 && stream.streamInfo.size() < kMaxPictures);

  if (stream.streamInfo.empty()) MediaNote_Unpublished("tiff: no directory gives width, height and bits per sample");
  stream.mediaType = MediaType_Image;
  stream.mimeType = "image/tiff";
  return true;
}
