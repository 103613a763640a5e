// The metadata record of one media file, which every format parser fills,
// and the helpers the parsers share to fill it: streams, cover types, tag
// texts and dates. The dispatch that picks a parser is MediaStream.h.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// Files larger than 2 GiB and dates after 2038 work on every target, the
// 32-bit board included: the build asks the C library for 64-bit offsets and times.
static_assert(sizeof(off_t) == 8, "off_t must be 64 bits (_FILE_OFFSET_BITS=64)");
static_assert(sizeof(time_t) == 8, "time_t must be 64 bits (_TIME_BITS=64)");

enum MediaType : int32_t {
  MediaType_None = 0,
  MediaType_Audio = 1,
  MediaType_Video = 2,
  MediaType_Image = 3,
};

// One stream of a file. Audio streams use the audio fields, image and video
// streams the picture fields.
struct StreamInfo {
  uint32_t streamNumber = 0;
  uint32_t streamKind = 0;  // a MediaType value
  uint8_t enabled = 0;
  uint32_t duration = 0;    // in 1/timescale seconds
  uint32_t timescale = 0;
  uint32_t sampleRate = 0;  // audio
  uint8_t channels = 0;
  uint8_t bitsPerSample = 0;
  uint16_t width = 0;       // image and video
  uint16_t height = 0;
  uint8_t bitsPerPixel = 0;
};

// Parser-private data for time seeking; only built when a parser is asked for
// more than metadata.
struct MediaSeekInfo {
  virtual ~MediaSeekInfo() = default;
};

struct MediaStream {
  int32_t mediaType = MediaType_None;
  const char* mimeType = nullptr;  // static text
  uint32_t duration = 0;           // in 1/timescale seconds
  uint32_t timescale = 1000;
  std::vector<StreamInfo> streamInfo;  // empty: no usable stream
  // Tag texts (UTF-8); absent when the file has none.
  std::optional<std::string> title;
  std::optional<std::string> artist;
  std::optional<std::string> album;
  std::optional<std::string> genre;
  const char* coverMimeType = nullptr;  // static text
  int64_t coverOffset = 0;              // from the start of the file
  int64_t coverLength = 0;              // 0: no cover
  int32_t date = 0;                     // seconds since 1970 UTC; 0 unknown
  std::unique_ptr<MediaSeekInfo> seekInfo;

  uint8_t streamCount() const {
    return streamInfo.size() > 255 ? 255 : static_cast<uint8_t>(streamInfo.size());
  }
};

// A format parser: true when it recognised the data and filled the record.
using MediaParser = bool (*)(int fd, int64_t offset, int64_t length, MediaStream& stream,
                             bool metadataOnly);

// True for well-formed UTF-8 of at most three bytes per character; false for null.
bool MediaStream_IsUtf8(const char* text);

// Writes one 16-bit code unit as UTF-8 (1 to 3 bytes, no surrogate pairing)
// and returns the number of bytes written.
size_t MediaUtf8_Encode(uint16_t unit, char* out);

// The type of an embedded cover picture from the MIME text its tag gives:
// "image/jpeg" or "image/png" when the text mentions them in any case, else null.
const char* MediaStream_CoverMimeType(std::string_view mime);

// Appends the stream of a still picture, shown for the five-second slide
// time. Pictures are numbered in the order they are added and only the first
// is enabled (the pages of a multi-page file follow it).
void MediaStream_AddPicture(MediaStream& stream, uint16_t width, uint16_t height, uint8_t bitsPerPixel);

// Appends the one stream of a plain audio file: stream 1, enabled, lasting
// `duration` samples at `sampleRate` (which is also its timescale).
void MediaStream_AddSound(MediaStream& stream, uint32_t duration, uint32_t sampleRate, uint8_t channels,
                          uint8_t bitsPerSample);

// Reads integers from `text` as sscanf does with a format made of "%d"
// conversions, white space (matching any run of white space, also none) and
// other characters (matched exactly). Values beyond the int range saturate.
// Returns how many integers were read; at most `capacity` are stored.
int MediaScan_Ints(std::string_view text, std::string_view format, int* values, int capacity);

// Seconds since 1970 UTC of a calendar time given with month 1-12; fields out
// of range roll over as with timegm. Empty when the time is not representable
// in 32 bits or comes out as -1 (timegm's failure value).
std::optional<int32_t> MediaDate_Make(int year, int month, int day, int hour, int minute, int second);

// A date text read by scanning it with each of `formats` in turn (as
// MediaScan_Ints does, with the fields in the order year, month, day, hour,
// minute, second). The first format that reads the most numbers wins; fields
// it lacks default to 1 January, 00:00:00. Empty when fewer than `required`
// numbers were read or MediaDate_Make refuses the result.
std::optional<int32_t> MediaDate_Scan(std::string_view text, std::initializer_list<std::string_view> formats,
                                      int required);

// Photo-style time stamps: "Y:M:D h:m:s", "Y-M-D h:m:s" or "Y-M-DTh:m:s", all
// six numbers required.
std::optional<int32_t> MediaDate_ScanStamp(std::string_view text);
