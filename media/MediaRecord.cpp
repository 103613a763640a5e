// The record's helpers that the parsers share: the UTF-8 check and encoder,
// cover types, the streams of plain pictures and sounds, and the readers of
// numbers and dates in tag texts.
#include "media/MediaRecord.h"

#include <algorithm>
#include <cctype>
#include <climits>

#include "base/Text.h"

bool MediaStream_IsUtf8(const char* text) {
  if (!text) return false;
  const auto* p = reinterpret_cast<const unsigned char*>(text);
  while (*p) {
    unsigned continuations;
    if (*p < 0x80) continuations = 0;
    else if ((*p & 0xE0) == 0xC0) continuations = 1;
    else if ((*p & 0xF0) == 0xE0) continuations = 2;
    else return false;
    ++p;
    for (unsigned i = 0; i < continuations; ++i, ++p) {
      if ((*p & 0xC0) != 0x80) return false;  // also stops at the terminating zero
    }
  }
  return true;
}

size_t MediaUtf8_Encode(uint16_t unit, char* out) {
  if (unit < 0x80) {
    out[0] = static_cast<char>(unit);
    return 1;
  }
  if (unit < 0x800) {
    out[0] = static_cast<char>(0xC0 | (unit >> 6));
    out[1] = static_cast<char>(0x80 | (unit & 0x3F));
    return 2;
  }
  out[0] = static_cast<char>(0xE0 | (unit >> 12));
  out[1] = static_cast<char>(0x80 | ((unit >> 6) & 0x3F));
  out[2] = static_cast<char>(0x80 | (unit & 0x3F));
  return 3;
}

const char* MediaStream_CoverMimeType(std::string_view mime) {
  if (Text_ContainsNoCase(mime, "jpeg") || Text_ContainsNoCase(mime, "jpg")) return "image/jpeg";
  if (Text_ContainsNoCase(mime, "png")) return "image/png";
  return nullptr;
}

void MediaStream_AddPicture(MediaStream& stream, uint16_t width, uint16_t height, uint8_t bitsPerPixel) {
  constexpr uint32_t kSlideTime = 5000;  // ms
  StreamInfo picture;
  picture.streamNumber = static_cast<uint32_t>(stream.streamInfo.size() + 1);
  picture.streamKind = MediaType_Image;
  picture.enabled = stream.streamInfo.empty() ? 1 : 0;
  picture.duration = kSlideTime;
  picture.timescale = 1000;
  picture.width = width;
  picture.height = height;
  picture.bitsPerPixel = bitsPerPixel;
  stream.streamInfo.push_back(picture);
}

void MediaStream_AddSound(MediaStream& stream, uint32_t duration, uint32_t sampleRate, uint8_t channels,
                          uint8_t bitsPerSample) {
  StreamInfo sound;
  sound.streamNumber = 1;
  sound.streamKind = MediaType_Audio;
  sound.enabled = 1;
  sound.duration = duration;
  sound.timescale = sampleRate;
  sound.sampleRate = sampleRate;
  sound.channels = channels;
  sound.bitsPerSample = bitsPerSample;
  stream.streamInfo.push_back(sound);
}

namespace {

bool isSpace(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }

}  // namespace

int MediaScan_Ints(std::string_view text, std::string_view format, int* values, int capacity) {
  size_t pos = 0;
  int count = 0;
  for (size_t f = 0; f < format.size(); ++f) {
    if (format.substr(f, 2) == "%d") {
      size_t used = 0;
      const int value = Text_ReadInt(text.substr(pos), &used);
      if (used == 0) break;
      pos += used;
      if (count < capacity) values[count] = value;
      ++count;
      ++f;
    } else if (isSpace(format[f])) {
      while (pos < text.size() && isSpace(text[pos])) ++pos;
    } else if (pos < text.size() && text[pos] == format[f]) {
      ++pos;
    } else {
      break;
    }
  }
  return count;
}

std::optional<int32_t> MediaDate_Make(int year, int month, int day, int hour, int minute, int second) {
  // Years this far out overflow 32-bit seconds anyway; the bound keeps the
  // field arithmetic below free of overflow.
  constexpr int kYearBound = 1000000;
  if (year < -kYearBound || year > kYearBound) return std::nullopt;
  std::tm parts{};
  parts.tm_year = year - 1900;
  parts.tm_mon = month == INT_MIN ? INT_MIN : month - 1;
  parts.tm_mday = day;
  parts.tm_hour = hour;
  parts.tm_min = minute;
  parts.tm_sec = second;
  const int64_t seconds = static_cast<int64_t>(::timegm(&parts));
  if (seconds == -1 || seconds < INT32_MIN || seconds > INT32_MAX) return std::nullopt;
  return static_cast<int32_t>(seconds);
}

std::optional<int32_t> MediaDate_Scan(std::string_view text, std::initializer_list<std::string_view> formats,
                                      int required) {
  constexpr int kFields = 6;
  int best[kFields] = {};
  int bestCount = 0;
  for (std::string_view format : formats) {
    int fields[kFields];
    const int count = std::min(MediaScan_Ints(text, format, fields, kFields), kFields);
    if (count <= bestCount) continue;
    bestCount = count;
    std::copy_n(fields, count, best);
  }
  if (bestCount < 1 || bestCount < required) return std::nullopt;
  return MediaDate_Make(best[0], bestCount >= 2 ? best[1] : 1, bestCount >= 3 ? best[2] : 1,
                        bestCount >= 4 ? best[3] : 0, bestCount >= 5 ? best[4] : 0, bestCount >= 6 ? best[5] : 0);
}

std::optional<int32_t> MediaDate_ScanStamp(std::string_view text) {
  constexpr int kStampFields = 6;
  return MediaDate_Scan(text, {"%d:%d:%d %d:%d:%d", "%d-%d-%d %d:%d:%d", "%d-%d-%dT%d:%d:%d"}, kStampFields);
}
