// Reader for TIFF directories, shared by the TIFF parser and by the JPEG
// parser for the TIFF structure inside an EXIF block. Only the handful of tags
// that describe a picture's size, texts, dates and thumbnail are taken.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "media/MediaRecord.h"

// Where a TIFF structure lies in a file and in which byte order its numbers are stored.
struct TiffSource {
  int fd = -1;
  int64_t start = 0;  // file position of the byte-order mark
  int64_t size = 0;   // bytes that belong to the structure
  bool bigEndian = false;
};

// What one directory (IFD) says about its picture. Offsets are from the
// start of the TIFF structure; a text that is empty or cannot be read is absent.
struct TiffDirectory {
  uint16_t width = 0;
  uint16_t height = 0;
  uint8_t bitsPerPixel = 0;
  uint32_t thumbnailOffset = 0;  // both 0 unless the thumbnail lies inside the structure
  uint32_t thumbnailLength = 0;
  std::optional<std::string> description;
  std::optional<std::string> artist;
  int32_t date = 0;  // seconds since 1970 UTC; 0 unknown
  uint32_t exifOffset = 0;
  uint32_t nextOffset = 0;
};

// What the EXIF directory says.
struct TiffExifDirectory {
  uint16_t pixelWidth = 0;
  uint16_t pixelHeight = 0;
  int32_t dateOriginal = 0;   // DateTimeOriginal
  int32_t dateDigitized = 0;  // DateTimeDigitized
};

// Checks the header at `start` ("II" or "MM", 42, first directory offset
// smaller than `size`) and fills `source` and `firstOffset`.
bool TiffHeader_Read(int fd, int64_t start, int64_t size, TiffSource& source, uint32_t& firstOffset);

// Reads the directory at `offset`; false when it does not fit in the structure.
bool TiffDirectory_Read(const TiffSource& source, uint32_t offset, TiffDirectory& directory);
bool TiffDirectory_ReadExif(const TiffSource& source, uint32_t offset, TiffExifDirectory& directory);

// A date text such as "2010:07:04 12:30:00", "2010-07-04 12:30:00" or
// "2010-07-04T12:30:00" as UTC seconds; 0 when it is none of these or out of range.
int32_t TiffDate_Parse(std::string_view text);

// The picture's date: DateTimeOriginal, else DateTimeDigitized, else the
// directory's DateTime.
int32_t TiffDate_Choose(int32_t dateTime, const TiffExifDirectory& exif);
