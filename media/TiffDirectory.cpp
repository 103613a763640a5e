// TIFF directory reading for the TIFF and JPEG parsers. A directory's entries
// are read in one sequential pass into a fixed buffer and only then decoded,
// so that following an entry's value offset never loses the place in the list.
#include "media/TiffDirectory.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>

#include "base/ByteOrder.h"
#include "media/MediaRead.h"
#include "media/MediaRecord.h"

namespace {

constexpr uint16_t kByteOrderLittle = 0x4949;  // "II"
constexpr uint16_t kByteOrderBig = 0x4D4D;     // "MM"
constexpr uint16_t kTiffMagic = 42;
constexpr int64_t kHeaderSize = 8;

constexpr uint16_t kTypeAscii = 2;
constexpr uint16_t kTypeShort = 3;
constexpr uint16_t kTypeLong = 4;

constexpr uint16_t kTagImageWidth = 0x0100;
constexpr uint16_t kTagImageLength = 0x0101;
constexpr uint16_t kTagBitsPerSample = 0x0102;
constexpr uint16_t kTagImageDescription = 0x010E;
constexpr uint16_t kTagDateTime = 0x0132;
constexpr uint16_t kTagArtist = 0x013B;
constexpr uint16_t kTagThumbnailOffset = 0x0201;
constexpr uint16_t kTagThumbnailLength = 0x0202;
constexpr uint16_t kTagExifDirectory = 0x8769;
constexpr uint16_t kTagDateTimeOriginal = 0x9003;
constexpr uint16_t kTagDateTimeDigitized = 0x9004;
constexpr uint16_t kTagPixelXDimension = 0xA002;
constexpr uint16_t kTagPixelYDimension = 0xA003;

constexpr size_t kEntrySize = 12;
constexpr uint32_t kValueFieldSize = 4;
constexpr size_t kMaxEntries = 64;
constexpr int64_t kCountSize = 2;
constexpr int64_t kNextOffsetSize = 4;
constexpr size_t kTextBufferSize = 256;
constexpr size_t kDateBufferSize = 24;
constexpr uint32_t kMaxSampleCount = 4;
constexpr uint32_t kMinDateCount = 5;

uint16_t TiffDecode16(const TiffSource& source, const uint8_t* bytes) {
  return source.bigEndian ? Bytes_U16BE(bytes) : Bytes_U16LE(bytes);
}

uint32_t TiffDecode32(const TiffSource& source, const uint8_t* bytes) {
  return source.bigEndian ? Bytes_U32BE(bytes) : Bytes_U32LE(bytes);
}

// One 12-byte entry as stored: tag, type, count, then the value field, which
// holds the value itself when it fits in four bytes and its offset otherwise.
struct TiffEntry {
  uint8_t bytes[kEntrySize];

  uint16_t tag(const TiffSource& s) const { return TiffDecode16(s, bytes); }
  uint16_t type(const TiffSource& s) const { return TiffDecode16(s, bytes + 2); }
  uint32_t count(const TiffSource& s) const { return TiffDecode32(s, bytes + 4); }
  const uint8_t* field() const { return bytes + 8; }
  uint32_t field32(const TiffSource& s) const { return TiffDecode32(s, field()); }
};

struct TiffEntryList {
  std::array<TiffEntry, kMaxEntries> entries;
  size_t count = 0;
  uint32_t nextOffset = 0;
};

// True when `length` bytes from `offset` lie inside the structure.
bool TiffFits(const TiffSource& source, uint32_t offset, int64_t length) {
  return static_cast<int64_t>(offset) + length <= source.size;
}

bool TiffRead(const TiffSource& source, uint32_t offset, void* buffer, size_t count) {
  return MediaRead_At(source.fd, source.start + offset, buffer, count);
}

// Reads the entry list at `offset`: the whole directory must fit, at most
// kMaxEntries are kept, and a short read keeps the entries read before it.
bool TiffReadEntries(const TiffSource& source, uint32_t offset, TiffEntryList& list) {
  if (!TiffFits(source, offset, kCountSize + kNextOffsetSize)) return false;
  uint8_t countBytes[kCountSize];
  if (!TiffRead(source, offset, countBytes, sizeof countBytes)) return false;
  const uint16_t count = TiffDecode16(source, countBytes);
  const int64_t entriesSize = int64_t{count} * static_cast<int64_t>(kEntrySize);
  if (!TiffFits(source, offset, kCountSize + entriesSize + kNextOffsetSize)) return false;

  list.count = 0;
  while (list.count < count && list.count < kMaxEntries &&
         MediaRead_Bytes(source.fd, list.entries[list.count].bytes, kEntrySize)) {
    ++list.count;
  }
  uint8_t nextBytes[kNextOffsetSize];
  list.nextOffset = 0;
  if (MediaSeek(source.fd, source.start + offset + kCountSize + entriesSize, SEEK_SET) >= 0 &&
      MediaRead_Bytes(source.fd, nextBytes, sizeof nextBytes)) {
    list.nextOffset = TiffDecode32(source, nextBytes);
  }
  return true;
}

// A width or height: one SHORT (the first two bytes of the value field) or
// one LONG cut to 16 bits.
void TiffReadSize(const TiffSource& source, const TiffEntry& entry, uint16_t& size) {
  if (entry.count(source) != 1) return;
  if (entry.type(source) == kTypeShort) size = TiffDecode16(source, entry.field());
  else if (entry.type(source) == kTypeLong) size = static_cast<uint16_t>(entry.field32(source));
}

bool TiffIsSingleLong(const TiffSource& source, const TiffEntry& entry) {
  return entry.type(source) == kTypeLong && entry.count(source) == 1;
}

// An ASCII value cut to `bufferSize` − 1 bytes and at its first zero byte;
// empty when it lies outside the structure or cannot be read.
std::string TiffReadAscii(const TiffSource& source, const TiffEntry& entry, size_t bufferSize) {
  char buffer[kTextBufferSize];
  const uint32_t count = entry.count(source);
  const size_t capacity = std::min(bufferSize, kTextBufferSize) - 1;
  const size_t length = count < capacity ? count : capacity;
  if (count <= kValueFieldSize) {
    std::memcpy(buffer, entry.field(), length);
  } else {
    const uint32_t offset = entry.field32(source);
    if (!TiffFits(source, offset, count) || !TiffRead(source, offset, buffer, length)) {
      return {};
    }
  }
  return std::string(buffer, strnlen(buffer, length));
}

std::optional<std::string> TiffReadText(const TiffSource& source, const TiffEntry& entry) {
  if (entry.type(source) != kTypeAscii || entry.count(source) == 0) return std::nullopt;
  std::string text = TiffReadAscii(source, entry, kTextBufferSize);
  if (text.empty()) return std::nullopt;
  return text;
}

int32_t TiffReadDate(const TiffSource& source, const TiffEntry& entry) {
  if (entry.type(source) != kTypeAscii || entry.count(source) < kMinDateCount) return 0;
  return TiffDate_Parse(TiffReadAscii(source, entry, kDateBufferSize));
}

// BitsPerSample: one value, or the sum of three or four values stored at the
// entry's offset. Other forms say nothing.
uint8_t TiffReadBitsPerSample(const TiffSource& source, const TiffEntry& entry) {
  const uint32_t count = entry.count(source);
  if (entry.type(source) != kTypeShort || count == 0) return 0;
  if (count == 1) return static_cast<uint8_t>(TiffDecode16(source, entry.field()));
  if (count != 3 && count != kMaxSampleCount) return 0;
  const uint32_t offset = entry.field32(source);
  uint8_t samples[kMaxSampleCount * 2];
  if (!TiffFits(source, offset, int64_t{count} * 2) || !TiffRead(source, offset, samples, count * 2)) {
    return 0;
  }
  unsigned sum = 0;
  for (uint32_t i = 0; i < count; ++i) sum += TiffDecode16(source, samples + 2 * i);
  return static_cast<uint8_t>(sum);
}

}  // namespace

bool TiffHeader_Read(int fd, int64_t start, int64_t size, TiffSource& source, uint32_t& firstOffset) {
  if (size < kHeaderSize) return false;
  uint8_t header[kHeaderSize];
  if (!MediaRead_At(fd, start, header, sizeof header)) return false;
  TiffSource candidate{fd, start, size, false};
  const uint16_t mark = Bytes_U16BE(header);
  if (mark == kByteOrderBig) candidate.bigEndian = true;
  else if (mark != kByteOrderLittle) return false;
  if (TiffDecode16(candidate, header + 2) != kTiffMagic) return false;
  const uint32_t offset = TiffDecode32(candidate, header + 4);
  if (static_cast<int64_t>(offset) >= size) return false;
  source = candidate;
  firstOffset = offset;
  return true;
}

bool TiffDirectory_Read(const TiffSource& source, uint32_t offset, TiffDirectory& directory) {
  TiffEntryList list;
  if (!TiffReadEntries(source, offset, list)) return false;
  directory = TiffDirectory{};
  directory.nextOffset = list.nextOffset;
  for (size_t i = 0; i < list.count; ++i) {
    const TiffEntry& entry = list.entries[i];
    switch (entry.tag(source)) {
      case kTagImageWidth: TiffReadSize(source, entry, directory.width); break;
      case kTagImageLength: TiffReadSize(source, entry, directory.height); break;
      case kTagBitsPerSample: directory.bitsPerPixel = TiffReadBitsPerSample(source, entry); break;
      case kTagImageDescription: directory.description = TiffReadText(source, entry); break;
      case kTagArtist: directory.artist = TiffReadText(source, entry); break;
      case kTagDateTime: directory.date = TiffReadDate(source, entry); break;
      case kTagThumbnailOffset:
        if (TiffIsSingleLong(source, entry)) directory.thumbnailOffset = entry.field32(source);
        break;
      case kTagThumbnailLength:
        if (TiffIsSingleLong(source, entry)) directory.thumbnailLength = entry.field32(source);
        break;
      case kTagExifDirectory:
        if (TiffIsSingleLong(source, entry)) directory.exifOffset = entry.field32(source);
        break;
      default: break;
    }
  }
  if (!TiffFits(source, directory.thumbnailOffset, directory.thumbnailLength)) {
    directory.thumbnailOffset = 0;
    directory.thumbnailLength = 0;
  }
  return true;
}

bool TiffDirectory_ReadExif(const TiffSource& source, uint32_t offset, TiffExifDirectory& directory) {
  TiffEntryList list;
  if (!TiffReadEntries(source, offset, list)) return false;
  directory = TiffExifDirectory{};
  for (size_t i = 0; i < list.count; ++i) {
    const TiffEntry& entry = list.entries[i];
    switch (entry.tag(source)) {
      case kTagPixelXDimension: TiffReadSize(source, entry, directory.pixelWidth); break;
      case kTagPixelYDimension: TiffReadSize(source, entry, directory.pixelHeight); break;
      case kTagDateTimeOriginal: directory.dateOriginal = TiffReadDate(source, entry); break;
      case kTagDateTimeDigitized: directory.dateDigitized = TiffReadDate(source, entry); break;
      default: break;
    }
  }
  return true;
}

int32_t TiffDate_Parse(std::string_view text) {
  text = text.substr(0, kDateBufferSize - 1);
  text = text.substr(0, text.find('\0'));
  return MediaDate_ScanStamp(text).value_or(0);
}

int32_t TiffDate_Choose(int32_t dateTime, const TiffExifDirectory& exif) {
  if (exif.dateOriginal != 0) return exif.dateOriginal;
  if (exif.dateDigitized != 0) return exif.dateDigitized;
  return dateTime;
}
