// Any bytes as a TIFF structure for the directory reader alone, as the TIFF
// parser and a JPEG's EXIF block use it: the chain of directories with each
// one's EXIF directory, and the date texts found.
#include "fuzz/FuzzSupport.h"
#include "media/TiffDirectory.h"

namespace {

// A chain longer than this is a loop; the parser has its own guard.
constexpr int kMaxDirectories = 16;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::MemoryFile file(fuzz::Text(data, size));
  if (file.fd() < 0) return 0;
  TiffSource source;
  uint32_t offset = 0;
  if (!TiffHeader_Read(file.fd(), 0, static_cast<int64_t>(size), source, offset)) return 0;
  for (int i = 0; i < kMaxDirectories && offset != 0; ++i) {
    TiffDirectory directory;
    if (!TiffDirectory_Read(source, offset, directory)) break;
    TiffExifDirectory exif;
    if (directory.exifOffset != 0) TiffDirectory_ReadExif(source, directory.exifOffset, exif);
    TiffDate_Choose(directory.date, exif);
    if (directory.description) TiffDate_Parse(*directory.description);
    offset = directory.nextOffset;
  }
  return 0;
}
