// ID3v2 tag reader: walks the frames of a tag one at a time, keeps title,
// artist, album, genre and date, and locates (never reads) the attached
// picture. A damaged tag costs only its frames; the caller always ends up
// positioned behind the tag so that the audio can still be found.
#include "media/Id3.h"

#include <algorithm>
#include <array>
#include <new>
#include <optional>
#include <string>
#include <string_view>

#include "base/ByteOrder.h"
#include "media/Genres.h"
#include "media/MediaNotes.h"
#include "media/MediaRead.h"

namespace {

constexpr int64_t kTagHeaderSize = 10;
constexpr int64_t kTagFooterSize = 10;
constexpr uint8_t kTagFlagUnsync = 0x80;
constexpr uint8_t kTagFlagCompressedOrExtended = 0x40;  // v2.2: compression; later: extended header
constexpr uint8_t kTagFlagFooter = 0x10;
constexpr int kMaxFrames = 128;
// Frame flags that make a frame unreadable for us (compression, encryption,
// unsynchronisation, grouping) plus the two preservation bits.
constexpr uint16_t kV3SkipFrameFlags = 0xC0E0;
constexpr uint16_t kV4SkipFrameFlags = 0x604F;
constexpr uint32_t kMaxTextFrameSize = 512;
constexpr size_t kMaxMimeBytes = 63;
constexpr size_t kMaxDescriptionUnits = 512;
constexpr int64_t kMaxCoverLength = 1048576;
// Encoding byte, MIME text with its zero, picture type, longest description.
constexpr size_t kPictureHeadSize = 1 + kMaxMimeBytes + 1 + 2 * kMaxDescriptionUnits;

enum Id3Encoding : uint8_t {
  Id3Encoding_Latin1 = 0,
  Id3Encoding_Utf16Bom = 1,
  Id3Encoding_Utf16BE = 2,
  Id3Encoding_Utf8 = 3,
};

enum class FrameKind { Title, Artist, Album, Genre, Picture, Year, Day, Time, Other };

struct FrameName {
  std::string_view v22;   // three-letter form of version 2.2
  std::string_view v23;   // four-letter form of versions 2.3 and 2.4
  FrameKind kind;
};

constexpr std::array<FrameName, 8> kFrameNames{{
    {"TT2", "TIT2", FrameKind::Title},
    {"TP1", "TPE1", FrameKind::Artist},
    {"TAL", "TALB", FrameKind::Album},
    {"TCO", "TCON", FrameKind::Genre},
    {"PIC", "APIC", FrameKind::Picture},
    {"TYE", "TYER", FrameKind::Year},
    {"TDA", "TDAT", FrameKind::Day},
    {"TIM", "TIME", FrameKind::Time},
}};

FrameKind frameKind(const uint8_t* id, unsigned version) {
  const std::string_view name(reinterpret_cast<const char*>(id), version == 2 ? 3 : 4);
  for (const FrameName& entry : kFrameNames) {
    if (name == (version == 2 ? entry.v22 : entry.v23)) return entry.kind;
  }
  return FrameKind::Other;
}

// 28-bit value of four bytes holding 7 bits each; false when a byte has its top bit set.
bool syncsafeValue(const uint8_t* bytes, uint32_t& value) {
  uint32_t result = 0;
  for (int i = 0; i < 4; ++i) {
    if (bytes[i] >= 0x80) return false;
    result = (result << 7) | bytes[i];
  }
  value = result;
  return true;
}

// Converts UTF-16 to UTF-8 one 16-bit unit at a time, up to a zero unit.
// The big-endian form takes the first byte of each pair as both halves of
// the unit: a known quirk that other code depends on, kept on purpose.
std::optional<std::string> decodeUtf16(const uint8_t* bytes, size_t count, bool littleEndian) {
  if (count < 2) return std::nullopt;
  std::string text;
  text.reserve(count * 3 / 2);
  for (size_t i = 0; i + 1 < count; i += 2) {
    const uint16_t unit =
        littleEndian ? Bytes_U16LE(bytes + i) : static_cast<uint16_t>((bytes[i] << 8) | bytes[i]);
    if (unit == 0) break;
    char utf8[3];
    text.append(utf8, MediaUtf8_Encode(unit, utf8));
  }
  return text;
}

// Reads a text frame of `size` bytes at the current position: an encoding
// byte and the encoded text. Latin-1 is passed through unchanged (the UTF-8
// check of the record drops it later when it is not ASCII).
std::optional<std::string> readText(int fd, uint32_t size) {
  if (size < 1 || size > kMaxTextFrameSize) {
    MediaNote_Shortcut("id3: a text frame of more than 512 bytes is dropped");
    return std::nullopt;
  }
  uint8_t frame[kMaxTextFrameSize];
  if (!MediaRead_Bytes(fd, frame, size)) return std::nullopt;
  const uint8_t* body = frame + 1;
  size_t count = size - 1;
  switch (frame[0]) {
    case Id3Encoding_Latin1:
    case Id3Encoding_Utf8: {
      const auto* text = reinterpret_cast<const char*>(body);
      return std::string(text, std::find(text, text + count, '\0'));
    }
    case Id3Encoding_Utf16Bom: {
      bool littleEndian = false;
      if (count >= 2) {
        littleEndian = Bytes_U16BE(body) == 0xFFFE;
        body += 2;
        count -= 2;
      }
      return decodeUtf16(body, count, littleEndian);
    }
    case Id3Encoding_Utf16BE:
      MediaNote_Shortcut("id3: big-endian UTF-16 text comes out garbled or empty");
      return decodeUtf16(body, count, false);
    default:
      return std::nullopt;
  }
}

// A text that memory cannot be found for is absent.
std::optional<std::string> decodeText(int fd, uint32_t size) {
  try {
    return readText(fd, size);
  } catch (const std::bad_alloc&) {
    return std::nullopt;
  }
}

// "%d" (or "(%d)") naming an ID3v1 genre number becomes that genre's name.
std::optional<std::string> genreFromText(std::optional<std::string> text) {
  if (!text) return text;
  int number = 0;
  if (MediaScan_Ints(text->c_str(), "(%d)", &number, 1) != 1 &&
      MediaScan_Ints(text->c_str(), "%d", &number, 1) != 1) {
    return text;
  }
  if (number < 0 || number > 255) return text;
  const char* name = MediaGenre_Name(static_cast<unsigned>(number));
  if (!name) return std::nullopt;
  try {
    return std::string(name);
  } catch (const std::bad_alloc&) {
    return std::nullopt;
  }
}

// Scans `count` raw characters with "%d"; a zero byte ends the text.
bool scanNumber(const uint8_t* bytes, size_t count, int& value) {
  const std::string_view text(reinterpret_cast<const char*>(bytes), count);
  return MediaScan_Ints(text.substr(0, text.find('\0')), "%d", &value, 1) == 1;
}

struct TagDate {
  std::optional<int> year;
  std::optional<int> month;
  std::optional<int> day;
};

void readYear(int fd, uint32_t size, TagDate& date) {
  int year = 0;
  if (size == 4) {
    uint8_t raw[4];
    if (MediaRead_Bytes(fd, raw, sizeof raw) && scanNumber(raw, sizeof raw, year)) date.year = year;
    return;
  }
  const std::optional<std::string> text = decodeText(fd, size);
  if (text && MediaScan_Ints(text->c_str(), "%d", &year, 1) == 1) date.year = year;
}

// DDMM as four raw characters.
void readDayMonth(int fd, uint32_t size, TagDate& date) {
  uint8_t raw[4];
  if (size != 4 || !MediaRead_Bytes(fd, raw, sizeof raw)) return;
  int value = 0;
  if (scanNumber(raw, 2, value)) date.day = value;
  if (scanNumber(raw + 2, 2, value)) date.month = value;
}

// Locates the picture of an APIC/PIC frame: the header fields are parsed
// from one small read, the image data itself is only measured.
void readPicture(int fd, int64_t frameStart, uint32_t size, unsigned version, MediaStream& stream) {
  uint8_t head[kPictureHeadSize];
  const size_t available = std::min<size_t>(size, sizeof head);
  if (available == 0 || !MediaRead_Bytes(fd, head, available)) return;
  const uint8_t encoding = head[0];
  size_t at = 1;

  std::string_view mime;
  if (version == 2) {
    if (available < at + 3) return;
    const auto* format = reinterpret_cast<const char*>(head + at);
    mime = std::string_view(format, std::find(format, format + 3, '\0') - format);
    at += 3;
  } else {
    const uint8_t* begin = head + at;
    const uint8_t* end = begin + std::min(kMaxMimeBytes, available - at);
    const uint8_t* zero = std::find(begin, end, 0);
    if (zero == end) return;
    mime = std::string_view(reinterpret_cast<const char*>(begin), static_cast<size_t>(zero - begin));
    at += mime.size() + 1;
  }
  if (mime == "-->") return;  // a link to a picture outside the file
  if (at >= available) return;
  ++at;  // picture type: every kind of picture is accepted

  if (encoding == Id3Encoding_Latin1 || encoding == Id3Encoding_Utf8) {
    const uint8_t* begin = head + at;
    const uint8_t* end = begin + std::min(kMaxDescriptionUnits, available - at);
    const uint8_t* zero = std::find(begin, end, 0);
    if (zero == end) return;
    at += static_cast<size_t>(zero - begin) + 1;
  } else if (encoding == Id3Encoding_Utf16Bom || encoding == Id3Encoding_Utf16BE) {
    bool terminated = false;
    for (size_t units = 0; units < kMaxDescriptionUnits && at + 1 < available; ++units) {
      const bool zero = head[at] == 0 && head[at + 1] == 0;
      at += 2;
      if (zero) {
        terminated = true;
        break;
      }
    }
    if (!terminated) return;
  } else {
    return;
  }

  const int64_t pictureLength = static_cast<int64_t>(size) - static_cast<int64_t>(at);
  if (pictureLength < 1 || pictureLength > kMaxCoverLength) {
    return MediaNote_Shortcut("id3: an empty picture or one larger than 1 MiB is no cover");
  }
  stream.coverOffset = frameStart + static_cast<int64_t>(at);
  stream.coverLength = pictureLength;
  stream.coverMimeType = MediaStream_CoverMimeType(mime);
  if (!stream.coverMimeType) MediaNote_Shortcut("id3: a cover of another type than JPEG or PNG gives no thumbnail");
}

void readFrame(int fd, FrameKind kind, int64_t dataStart, uint32_t size, unsigned version,
               MediaStream& stream, TagDate& date) {
  switch (kind) {
    case FrameKind::Title: stream.title = decodeText(fd, size); break;
    case FrameKind::Artist: stream.artist = decodeText(fd, size); break;
    case FrameKind::Album: stream.album = decodeText(fd, size); break;
    case FrameKind::Genre: stream.genre = genreFromText(decodeText(fd, size)); break;
    case FrameKind::Picture: readPicture(fd, dataStart, size, version, stream); break;
    case FrameKind::Year: readYear(fd, size, date); break;
    case FrameKind::Day: readDayMonth(fd, size, date); break;
    case FrameKind::Time: break;  // the date is kept to the day; the time of day is not needed
    case FrameKind::Other: break;
  }
}

// Walks the frames of `size` bytes starting at `position` (the descriptor is
// already there). Stops at padding, at the first damaged frame or after
// kMaxFrames frames; what was read until then stays.
void readFrames(int fd, int64_t position, uint32_t size, unsigned version, uint8_t tagFlags,
                MediaStream& stream, TagDate& date) {
  uint32_t remaining = size;
  if (version != 2 && (tagFlags & kTagFlagCompressedOrExtended)) {
    uint8_t raw[4];
    uint32_t extendedSize = 0;
    if (remaining < sizeof raw || !MediaRead_Bytes(fd, raw, sizeof raw) ||
        !syncsafeValue(raw, extendedSize)) {
      return;
    }
    remaining -= sizeof raw;
    position += sizeof raw;
    if (version == 4) {
      if (extendedSize < sizeof raw) return;  // counts its own size field
      extendedSize -= sizeof raw;
    }
    if (extendedSize > remaining) return;
    remaining -= extendedSize;
    position += extendedSize;
    if (MediaSeek(fd, position, SEEK_SET) != position) return;
  }

  const uint32_t headerSize = version == 2 ? 6 : 10;
  for (int frame = 0; frame < kMaxFrames && remaining > headerSize; ++frame) {
    uint8_t header[10];
    if (!MediaRead_Bytes(fd, header, headerSize) || header[0] == 0) return;
    uint32_t frameSize = 0;
    uint16_t flags = 0;
    if (version == 2) {
      frameSize = MediaBits_Get(header + 3, 0, 24);
    } else {
      if (version == 4) {
        if (!syncsafeValue(header + 4, frameSize)) return;
      } else {
        frameSize = MediaBits_Get(header + 4, 0, 32);
      }
      flags = static_cast<uint16_t>(MediaBits_Get(header + 8, 0, 16));
    }
    remaining -= headerSize;
    if (frameSize > remaining) return;
    remaining -= frameSize;

    const int64_t dataStart = position + headerSize;
    position = dataStart + frameSize;
    const uint16_t skipFlags = version == 3 ? kV3SkipFrameFlags : version == 4 ? kV4SkipFrameFlags : 0;
    if (frameSize != 0 && !(flags & skipFlags)) {
      readFrame(fd, frameKind(header, version), dataStart, frameSize, version, stream, date);
    }
    if (MediaSeek(fd, position, SEEK_SET) != position) return;
  }
}

void applyDate(const TagDate& date, MediaStream& stream) {
  if (!date.year) return;
  if (auto seconds = MediaDate_Make(*date.year, date.month.value_or(1), date.day.value_or(1), 0, 0, 0)) {
    stream.date = *seconds;
  }
}

}  // namespace

bool Id3_ReadTag(int fd, int64_t start, int64_t length, MediaStream& stream) {
  uint8_t header[kTagHeaderSize];
  if (start < 0 || length < kTagHeaderSize || !MediaRead_At(fd, start, header, sizeof header)) {
    return false;
  }
  uint32_t size = 0;
  if (header[0] != 'I' || header[1] != 'D' || header[2] != '3' || header[3] == 0xFF || header[4] == 0xFF ||
      !syncsafeValue(header + 6, size)) {
    return false;
  }
  const unsigned version = header[3];
  const uint8_t flags = header[5];
  const int64_t footer = version == 4 && (flags & kTagFlagFooter) ? kTagFooterSize : 0;
  if (size + kTagHeaderSize > length) size = static_cast<uint32_t>(length - kTagHeaderSize);

  const bool framesUnreadable =
      size + kTagHeaderSize + footer > length ||
      (version == 2 && (flags & (kTagFlagUnsync | kTagFlagCompressedOrExtended))) ||
      ((version == 3 || version == 4) && (flags & kTagFlagUnsync)) || version < 2 || version > 4;
  if (framesUnreadable) {
    MediaNote_Shortcut("id3: tag frames not read (unsynchronised, compressed, cut short or an unknown version)");
  } else {
    TagDate date;
    readFrames(fd, start + kTagHeaderSize, size, version, flags, stream, date);
    applyDate(date, stream);
  }
  MediaSeek(fd, start + kTagHeaderSize + size + footer, SEEK_SET);
  return true;
}
