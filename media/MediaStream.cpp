// Format dispatch for media files and the readers that all parsers share.
// The parsers are tried in a fixed order, loosest test last, so that a file
// is claimed by the format whose signature it really carries.
#include "media/MediaStream.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>

#include "base/Text.h"
#include "media/MediaNotes.h"
#include "media/MediaParsers.h"

namespace {

struct ParserSlot {
  const char* format;  // for readers of this table
  MediaParser parse;
};

// MP3 stays last: its search for a frame header is the loosest test.
constexpr std::array<ParserSlot, 9> kParsers{{
    {"riff", MediaParse_Riff},
    {"png", MediaParse_Png},
    {"gif", MediaParse_Gif},
    {"flac", MediaParse_Flac},
    {"mp4", MediaParse_Mp4},
    {"matroska", MediaParse_Matroska},
    {"tiff", MediaParse_Tiff},
    {"jpeg", MediaParse_Jpeg},
    {"mp3", MediaParse_Mp3},
}};

template <size_t N>
void dropIfNotUtf8(std::optional<std::string>& text, const char (&note)[N]) {
  if (!text || MediaStream_IsUtf8(text->c_str())) return;
  text.reset();
  MediaNote_Shortcut(note);
}

// While MediaStream_new probes a file, the readers and MediaSeek of that
// thread serve the descriptor from one read-ahead window filled with pread:
// the parsers read in small pieces, and a system call per piece would cost
// far more than the parsing itself. Outside a probe they go to the kernel.
// Each thread keeps its window for its lifetime, so a probe allocates nothing.
constexpr size_t kReadWindowSize = 16384;

struct ReadWindow {
  int fd = -1;
  // Every parser begins with an absolute seek, so the descriptor's own
  // position is asked of the kernel only when a read or relative seek comes
  // first, and a descriptor that cannot seek then leaves the window.
  bool positioned = false;
  int64_t position = 0;  // where the next read starts, once positioned
  int64_t start = 0;     // file offset of data[0]
  size_t filled = 0;
  std::array<unsigned char, kReadWindowSize> data;
};

thread_local std::unique_ptr<ReadWindow> threadWindow;
thread_local ReadWindow* activeWindow = nullptr;

// The window serving `fd` on this thread, positioned, or null.
ReadWindow* windowFor(int fd) {
  ReadWindow* window = activeWindow;
  if (!window || window->fd != fd) return nullptr;
  if (window->positioned) return window;
  const int64_t position = static_cast<int64_t>(::lseek(fd, 0, SEEK_CUR));
  if (position < 0) {
    activeWindow = nullptr;
    return nullptr;
  }
  window->position = position;
  window->positioned = true;
  return window;
}

// Reads at `at` without moving the descriptor; retries when interrupted.
ssize_t readAt(int fd, unsigned char* out, size_t count, int64_t at) {
  for (;;) {
    const ssize_t n = ::pread(fd, out, count, static_cast<off_t>(at));
    if (n >= 0 || errno != EINTR) return n;
  }
}

bool windowRead(ReadWindow& window, unsigned char* out, size_t count) {
  size_t done = 0;
  while (done < count) {
    const int64_t at = window.position;
    const int64_t end = window.start + static_cast<int64_t>(window.filled);
    if (at >= window.start && at < end) {
      const size_t n = std::min(count - done, static_cast<size_t>(end - at));
      std::memcpy(out + done, window.data.data() + (at - window.start), n);
      done += n;
      window.position += static_cast<int64_t>(n);
      continue;
    }
    // A piece larger than the window goes straight into the destination.
    const bool direct = count - done >= kReadWindowSize;
    const ssize_t n = direct ? readAt(window.fd, out + done, count - done, at)
                             : readAt(window.fd, window.data.data(), kReadWindowSize, at);
    if (n <= 0) return false;
    if (direct) {
      done += static_cast<size_t>(n);
      window.position += n;
    } else {
      window.start = at;
      window.filled = static_cast<size_t>(n);
    }
  }
  return true;
}

// Makes the calling thread read `fd` through its window for the lifetime of
// the scope, unless an outer scope already holds the window.
class ReadWindowScope {
 public:
  explicit ReadWindowScope(int fd) {
    if (activeWindow) return;
    if (!threadWindow) threadWindow.reset(new (std::nothrow) ReadWindow);
    if (!threadWindow) return;
    ReadWindow& window = *threadWindow;
    window.fd = fd;
    window.positioned = false;
    window.start = 0;
    window.filled = 0;
    activeWindow = &window;
    owner_ = true;
  }
  ~ReadWindowScope() {
    if (owner_) activeWindow = nullptr;
  }
  ReadWindowScope(const ReadWindowScope&) = delete;
  ReadWindowScope& operator=(const ReadWindowScope&) = delete;

 private:
  bool owner_ = false;
};

}  // namespace

void MediaStream_delete(MediaStream* stream) { delete stream; }

MediaStreamPtr MediaStream_new(int fd, int64_t offset, int64_t length, bool metadataOnly) {
  if (fd < 0 || length <= 0) return nullptr;
  MediaStreamPtr stream(new (std::nothrow) MediaStream);
  if (!stream) return nullptr;
  ReadWindowScope window(fd);
  for (const ParserSlot& slot : kParsers) {
    *stream = MediaStream{};
    if (!slot.parse(fd, offset, length, *stream, metadataOnly)) continue;
    dropIfNotUtf8(stream->title, "tags: the title is not UTF-8 (Latin-1?) and is dropped");
    dropIfNotUtf8(stream->artist, "tags: the artist is not UTF-8 (Latin-1?) and is dropped");
    dropIfNotUtf8(stream->album, "tags: the album is not UTF-8 (Latin-1?) and is dropped");
    dropIfNotUtf8(stream->genre, "tags: the genre is not UTF-8 (Latin-1?) and is dropped");
    return stream;
  }
  return nullptr;
}

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

bool MediaRead_Bytes(int fd, void* buffer, size_t count) {
  auto* out = static_cast<unsigned char*>(buffer);
  if (ReadWindow* window = windowFor(fd)) return windowRead(*window, out, count);
  size_t done = 0;
  while (done < count) {
    ssize_t n = ::read(fd, out + done, count - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

namespace {

template <typename T, bool BigEndian>
bool readInteger(int fd, T& value) {
  uint8_t bytes[sizeof(T)];
  if (!MediaRead_Bytes(fd, bytes, sizeof bytes)) return false;
  value = static_cast<T>(BigEndian ? Bytes_BigEndian(bytes, sizeof bytes) : Bytes_LittleEndian(bytes, sizeof bytes));
  return true;
}

}  // namespace

bool MediaRead_U16BE(int fd, uint16_t& value) { return readInteger<uint16_t, true>(fd, value); }
bool MediaRead_U16LE(int fd, uint16_t& value) { return readInteger<uint16_t, false>(fd, value); }
bool MediaRead_U32BE(int fd, uint32_t& value) { return readInteger<uint32_t, true>(fd, value); }
bool MediaRead_U32LE(int fd, uint32_t& value) { return readInteger<uint32_t, false>(fd, value); }
bool MediaRead_U64BE(int fd, uint64_t& value) { return readInteger<uint64_t, true>(fd, value); }

int64_t MediaSeek(int fd, int64_t offset, int whence) {
  ReadWindow* window = activeWindow && activeWindow->fd == fd ? activeWindow : nullptr;
  int64_t target = offset;
  if (window && whence == SEEK_CUR) {
    window = windowFor(fd);
    if (window && __builtin_add_overflow(window->position, offset, &target)) return -1;
  }
  if (!window || (whence != SEEK_SET && whence != SEEK_CUR)) {
    const int64_t position = static_cast<int64_t>(::lseek(fd, static_cast<off_t>(offset), whence));
    if (window && position >= 0) {
      window->position = position;
      window->positioned = true;
    }
    return position;
  }
  if (target < 0) return -1;
  window->position = target;
  window->positioned = true;
  return target;
}

bool MediaRead_At(int fd, int64_t position, void* buffer, size_t count) {
  return MediaSeek(fd, position, SEEK_SET) == position && MediaRead_Bytes(fd, buffer, count);
}

uint32_t MediaBits_Get(const uint8_t* buffer, uint32_t position, unsigned count) {
  uint32_t result = 0;
  for (unsigned i = 0; i < count && i < 32; ++i, ++position) {
    unsigned bit = (buffer[position >> 3] >> (7 - (position & 7))) & 1u;
    result = (result << 1) | bit;
  }
  return result;
}

int32_t MediaBits_GetSigned(const uint8_t* buffer, uint32_t position, unsigned count) {
  if (count == 0) return 0;
  if (count > 32) count = 32;
  uint32_t raw = MediaBits_Get(buffer, position, count);
  if (count < 32 && (raw & (1u << (count - 1)))) raw |= ~((1u << count) - 1);
  return static_cast<int32_t>(raw);
}

void MediaBits_Put(uint8_t* buffer, uint32_t position, unsigned count, uint32_t value) {
  if (count > 32) count = 32;
  for (unsigned i = 0; i < count; ++i, ++position) {
    unsigned bit = (value >> (count - 1 - i)) & 1u;
    uint8_t mask = static_cast<uint8_t>(0x80u >> (position & 7));
    if (bit) buffer[position >> 3] |= mask;
    else buffer[position >> 3] &= static_cast<uint8_t>(~mask);
  }
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
