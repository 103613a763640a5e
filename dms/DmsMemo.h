// The memo of an item: what describing it in Browse and serving its cover take
// from a parse of its file, kept in the item's own block together with the
// identity of the file it was parsed from (size, modification and
// status-change times in nanoseconds). While an lstat of the item's path
// still gives that identity (or the watch says the file has not changed
// since one did: DmsWatch.h), the item is described from its memo without
// opening the file; otherwise the file is parsed again and the memo
// refreshed. Texts that many items share (artist, album, genre)
// are kept once, counted by the memos that use them. Everything here runs
// under the content mutex.
#pragma once

#include <sys/stat.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

#include "dms/DmsObject.h"
#include "media/MediaStream.h"

// The largest memo an item keeps, all its block has room for; a longer one
// (a very long title tag) is not kept.
inline constexpr size_t DmsMemo_MaxSize = DmsObject_MaxMemoSize;

// The MIME types a parse gives, of files and of the covers inside them: a
// memo and the memo file keep a type as its position here.
inline constexpr std::array<std::string_view, 15> DmsMemo_MimeTypes = {
    "audio/mpeg", "audio/flac",       "audio/mp4",        "video/mp4",  "audio/webm",
    "video/webm", "audio/x-matroska", "video/x-matroska", "audio/wave", "video/avi",
    "image/jpeg", "image/png",        "image/gif",        "image/tiff", "image/bmp"};
// 1 + the position of `mimeType` there, 0 for none; empty for a type not there.
std::optional<uint8_t> DmsMemo_TypeNumber(const char* mimeType);
// The type at 1 + its position there; null for 0 or a number beyond them.
const char* DmsMemo_TypeText(uint8_t number);
// The media type of a file of one of those types (0 for none, or a type no file has).
int32_t DmsMemo_MediaType(const char* mimeType);

// What an item's description and its cover transfer take from its file,
// from a fresh parse or from the memo. The texts are views into the parsed
// stream, which the facts hold, or into the memo: they are valid while the
// content mutex stays held.
struct DmsItemFacts {
  bool recognised = false;       // false: the file could not be opened or parsed
  const char* mimeType = nullptr;  // what the parse found (the item keeps the scan's)
  bool streams = false;          // the parse found a stream
  int64_t size = 0;              // of the file
  int64_t modificationTime = 0;  // seconds: the date of a file whose tags give none
  std::string_view title;        // empty: no title in the file
  std::optional<std::string_view> artist, album, genre;
  uint32_t duration = 0;
  uint32_t timescale = 0;
  int32_t date = 0;              // 0: unknown
  bool picture = false;          // an image with a stream; width and height are of its first one
  uint16_t width = 0;
  uint16_t height = 0;
  const char* coverMimeType = nullptr;  // static text
  int64_t coverOffset = 0;
  int64_t coverLength = 0;       // 0: no cover
  MediaStreamPtr parsed;         // the stream the texts point into, after a parse

  bool hasThumbnail() const { return recognised && coverLength > 0; }
  // The date to show: the file's own, else its modification time.
  int64_t shownDate() const { return !recognised ? 0 : date ? date : modificationTime; }
};

// Writes the memo of `stream`, parsed from the file `file`, for an item whose
// modification time is `itemSeconds`, into `out`. Returns its length; 0 when
// it would not fit `DmsMemo_MaxSize` bytes or memory ran out. The shared
// texts it names are counted until DmsMemo_Release.
size_t DmsMemo_Encode(const MediaStream& stream, const struct stat& file, int64_t itemSeconds,
                      uint8_t out[DmsMemo_MaxSize]);
// Gives back the shared texts of a memo that goes; the tree calls it for
// its items' memos (DmsObject_SetMemoRelease).
void DmsMemo_Release(const uint8_t* memo);

// The rule by which a memo describes a file: the file is found by its path
// (the item's, or the path a memo-file record names) and taken for the one
// the memo was made from only when it is a regular file of the same size,
// modification and status-change times. Device and inode numbers play no
// part: on FAT and exFAT they change at each mount, and another file may
// then have the number.
// Fills `facts` from the memo of `item` when it has one made from the file
// that `file`, an lstat of its path, describes; false otherwise.
bool DmsMemo_Read(const DmsObject* item, const struct stat& file, DmsItemFacts& facts);
// True when `item` has a memo made from the file that `file`, an lstat of
// its path, describes.
bool DmsMemo_Describes(const DmsObject* item, const struct stat& file);
// Fills `facts` from the memo of `item`, taken to describe the file as it is
// now without a look at it (the watch says it has not changed since a stat
// matched the memo); false when the item keeps no memo.
bool DmsMemo_Recall(const DmsObject* item, DmsItemFacts& facts);
// The facts of a fresh parse of `fd`, the open file of `item` that `file`
// describes; the item's memo is made again from them when the new memo fits
// the item's block.
DmsItemFacts DmsMemo_Parse(DmsObject* item, int fd, const struct stat& file);

// The memo file (DmsMemoFile.h) keeps each memo in the form memory keeps it,
// after the item's modification second, with its shared texts named by
// number instead of address: a save numbers the texts from 0 in the order it
// meets them and writes them all before the memos.

// Where the memo file's writer puts bytes.
class DmsMemoSink {
 public:
  virtual void bytes(const void* data, size_t count) = 0;

 protected:
  ~DmsMemoSink() = default;
};
// Numbers, for the save `save` (which has numbered `textCount` texts so
// far), the shared texts of the memo of `item` that it meets here first, and
// returns how many: they are the first ones of `met`.
size_t DmsMemo_NumberTexts(const DmsObject* item, uint32_t save, uint32_t& textCount,
                           std::array<std::string_view, 3>& met);
// Writes the memo of `item` as the memo file keeps it, its texts numbered by
// the same save; false, writing nothing, when the item keeps no memo.
bool DmsMemo_Write(const DmsObject* item, DmsMemoSink& out);
// Reads a memo as the memo file keeps it from `at` on, never at or past
// `end`, its texts named in `texts`, and moves `at` behind it; false when
// the bytes there are no such memo.
bool DmsMemo_Check(const uint8_t*& at, const uint8_t* end, std::span<const std::string_view> texts);
// The stream that the memo file's memo at `at`, which DmsMemo_Check passed,
// gives the file `file` (an lstat of it); null when it was made from
// another file or memory runs out.
MediaStreamPtr DmsMemo_Take(const uint8_t* at, const uint8_t* end, std::span<const std::string_view> texts,
                            const struct stat& file);
