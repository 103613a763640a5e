// Item memos: their compact encoding in the item's block, the identity check
// against an lstat of the file, and the table of texts that many memos share.
// A memo is a flags byte and the file's type, then the file's identity, then
// only the parts the file has, numbers in 7-bit groups; shared texts are
// named by their address.
#include "dms/DmsMemo.h"

#include <array>
#include <cstring>
#include <memory>
#include <new>

#include "base/Varint.h"
#include "dms/DmsObject.h"

namespace {

enum MemoFlag : uint8_t {
  kHasTitle = 0x01,
  kHasArtist = 0x02,
  kHasAlbum = 0x04,
  kHasGenre = 0x08,
  kHasCover = 0x10,
  kHasDate = 0x20,
  kIsPicture = 0x40,
  kNoStreams = 0x80,
};
constexpr int64_t kNanosecondsPerSecond = 1000000000;

// One text shared by the memos that name it, followed by its bytes.
struct SharedText {
  SharedText* next;  // in its bucket
  uint32_t hash;
  uint32_t refs;
  uint32_t length;
  uint32_t save;    // the last save of the memo file that numbered it
  uint32_t number;  // its number in that save
  std::string_view text() const { return {reinterpret_cast<const char*>(this + 1), length}; }
};

// The shared texts, found by hash when a memo is made. The buckets double
// when the texts outnumber them; without memory for that the chains grow.
class SharedTexts {
 public:
  // The text, counted once more; null when memory runs out.
  const SharedText* acquire(std::string_view text) {
    const uint32_t hash = hashOf(text);
    if (buckets_) {
      for (SharedText* entry = buckets_[hash & mask()]; entry; entry = entry->next) {
        if (entry->hash == hash && entry->text() == text) {
          entry->refs += 1;
          return entry;
        }
      }
    }
    if (count_ >= (buckets_ ? mask() + 1 : 0)) grow();
    if (!buckets_) return nullptr;
    void* block = ::operator new(sizeof(SharedText) + text.size(), std::nothrow);
    if (!block) return nullptr;
    auto* entry = new (block) SharedText{buckets_[hash & mask()], hash, 1, static_cast<uint32_t>(text.size()), 0, 0};
    text.copy(reinterpret_cast<char*>(entry + 1), text.size());
    buckets_[hash & mask()] = entry;
    count_ += 1;
    return entry;
  }

  // Counts the text once less; the last release frees it.
  void release(const SharedText* text) {
    SharedText** at = &buckets_[text->hash & mask()];
    while (*at != text) at = &(*at)->next;
    SharedText* entry = *at;
    if (--entry->refs > 0) return;
    *at = entry->next;
    count_ -= 1;
    entry->~SharedText();
    ::operator delete(entry);
  }

 private:
  static constexpr uint32_t kInitialBuckets = 64;

  static uint32_t hashOf(std::string_view text) {
    uint32_t hash = 2166136261u;  // FNV-1a
    for (const char c : text) hash = (hash ^ static_cast<uint8_t>(c)) * 16777619u;
    return hash;
  }

  uint32_t mask() const { return bucketCount_ - 1; }

  void grow() {
    const uint32_t count = bucketCount_ ? bucketCount_ * 2 : kInitialBuckets;
    std::unique_ptr<SharedText*[]> buckets(new (std::nothrow) SharedText*[count]());
    if (!buckets) return;
    for (uint32_t index = 0; index < bucketCount_; ++index) {
      while (SharedText* entry = buckets_[index]) {
        buckets_[index] = entry->next;
        entry->next = buckets[entry->hash & (count - 1)];
        buckets[entry->hash & (count - 1)] = entry;
      }
    }
    buckets_ = std::move(buckets);
    bucketCount_ = count;
  }

  std::unique_ptr<SharedText*[]> buckets_;
  uint32_t bucketCount_ = 0;
  uint32_t count_ = 0;
};

SharedTexts sharedTexts;

// A memo decoded: the identity of its file and the facts.
struct Memo {
  uint64_t size = 0;
  int64_t modificationDelta = 0;  // nanoseconds from the item's modification second
  int64_t changeDelta = 0;        // nanoseconds from the modification time
  uint8_t flags = 0;
  uint8_t mimeType = 0;  // 1 + its position in DmsMemo_MimeTypes; 0: none
  uint32_t duration = 0;
  uint32_t timescale = 0;
  int32_t date = 0;
  uint16_t width = 0;
  uint16_t height = 0;
  uint8_t coverType = 0;
  uint64_t coverOffset = 0;
  uint64_t coverLength = 0;
  std::string_view title;
  std::array<const SharedText*, 3> texts{};  // artist, album, genre
};

constexpr std::array<uint8_t, 3> kTextFlags = {kHasArtist, kHasAlbum, kHasGenre};

class MemoWriter {
 public:
  explicit MemoWriter(uint8_t* out) : out_(out) {}
  void byte(uint8_t value) {
    if (used_ < DmsMemo_MaxSize) out_[used_] = value;
    used_ += 1;
  }
  void number(uint64_t value) {
    uint8_t encoded[Varint_MaxSize];
    bytes(encoded, Varint_Encode(value, encoded));
  }
  void bytes(const void* data, size_t count) {
    if (used_ + count <= DmsMemo_MaxSize) std::memcpy(out_ + used_, data, count);
    used_ += count;
  }
  // The length written, or 0 when it did not fit.
  size_t length() const { return used_ <= DmsMemo_MaxSize ? used_ : 0; }

 private:
  uint8_t* out_;
  size_t used_ = 0;
};

// Reads a memo this process wrote: the reads need no checks.
class MemoReader {
 public:
  explicit MemoReader(const uint8_t* memo) : at_(memo) {}
  uint8_t byte() { return *at_++; }
  uint64_t number() {
    uint64_t value = 0;
    Varint_Decode(at_, at_ + Varint_MaxSize, value);
    return value;
  }
  const uint8_t* take(size_t count) {
    const uint8_t* start = at_;
    at_ += count;
    return start;
  }

 private:
  const uint8_t* at_;
};

Memo decode(const uint8_t* bytes) {
  MemoReader reader(bytes);
  Memo memo;
  memo.flags = reader.byte();
  memo.mimeType = reader.byte();
  memo.size = reader.number();
  memo.modificationDelta = Varint_Unzigzag(reader.number());
  memo.changeDelta = Varint_Unzigzag(reader.number());
  memo.duration = static_cast<uint32_t>(reader.number());
  memo.timescale = static_cast<uint32_t>(reader.number());
  if (memo.flags & kHasDate) {
    uint32_t date = 0;
    std::memcpy(&date, reader.take(sizeof date), sizeof date);
    memo.date = static_cast<int32_t>(date);
  }
  if (memo.flags & kIsPicture) {
    memo.width = static_cast<uint16_t>(reader.number());
    memo.height = static_cast<uint16_t>(reader.number());
  }
  if (memo.flags & kHasCover) {
    memo.coverType = reader.byte();
    memo.coverOffset = reader.number();
    memo.coverLength = reader.number();
  }
  if (memo.flags & kHasTitle) {
    const size_t length = reader.number();
    memo.title = {reinterpret_cast<const char*>(reader.take(length)), length};
  }
  for (size_t index = 0; index < kTextFlags.size(); ++index) {
    if (memo.flags & kTextFlags[index]) std::memcpy(&memo.texts[index], reader.take(sizeof(void*)), sizeof(void*));
  }
  return memo;
}

// Nanoseconds from the start of second `seconds` to `time`; empty beyond 64 bits.
std::optional<int64_t> nanosecondsSince(int64_t seconds, const timespec& time) {
  int64_t delta = 0;
  if (__builtin_sub_overflow(static_cast<int64_t>(time.tv_sec), seconds, &delta) ||
      __builtin_mul_overflow(delta, kNanosecondsPerSecond, &delta) ||
      __builtin_add_overflow(delta, static_cast<int64_t>(time.tv_nsec), &delta)) {
    return std::nullopt;
  }
  return delta;
}

struct Identity {
  int64_t modificationDelta = 0;
  int64_t changeDelta = 0;
};

// The file's times as a memo keeps them; empty when they cannot be kept.
std::optional<Identity> identityOf(const struct stat& file, int64_t itemSeconds) {
  const std::optional<int64_t> modification = nanosecondsSince(itemSeconds, file.st_mtim);
  std::optional<int64_t> change = nanosecondsSince(file.st_mtim.tv_sec, file.st_ctim);
  if (!modification || !change || __builtin_sub_overflow(*change, file.st_mtim.tv_nsec, &*change)) return std::nullopt;
  return Identity{*modification, *change};
}

// True when `file` is the regular file the item's id names (device and inode).
bool isItemFile(const DmsObject* item, const struct stat& file) {
  return item->kind == DmsKind_Item && S_ISREG(file.st_mode) &&
         item->id == DmsObjectId{static_cast<uint64_t>(file.st_dev) + 1, static_cast<uint64_t>(file.st_ino)};
}

void releaseTexts(const Memo& memo) {
  for (const SharedText* text : memo.texts) {
    if (text) sharedTexts.release(text);
  }
}

}  // namespace

std::optional<uint8_t> DmsMemo_TypeNumber(const char* type) {
  if (!type) return 0;
  for (size_t index = 0; index < DmsMemo_MimeTypes.size(); ++index) {
    if (DmsMemo_MimeTypes[index] == type) return static_cast<uint8_t>(index + 1);
  }
  return std::nullopt;
}

const char* DmsMemo_TypeText(uint8_t number) {
  return number > 0 && number <= DmsMemo_MimeTypes.size() ? DmsMemo_MimeTypes[number - 1].data() : nullptr;
}

int32_t DmsMemo_MediaType(const char* type) {
  const std::string_view mimeType = type ? type : "";
  if (mimeType.starts_with("audio/")) return MediaType_Audio;
  if (mimeType.starts_with("video/")) return MediaType_Video;
  return mimeType.starts_with("image/") && mimeType != "image/bmp" ? MediaType_Image : MediaType_None;
}

namespace {

// The facts of `stream` (null: not recognised), parsed from the file `file`.
DmsItemFacts parsedFacts(MediaStreamPtr stream, const struct stat& file) {
  DmsItemFacts facts;
  facts.size = static_cast<int64_t>(file.st_size);
  facts.modificationTime = static_cast<int64_t>(file.st_mtime);
  if (!stream) return facts;
  const MediaStream& parsed = *stream;
  facts.recognised = true;
  facts.mimeType = parsed.mimeType;
  facts.streams = !parsed.streamInfo.empty();
  if (parsed.title) facts.title = *parsed.title;
  if (parsed.artist) facts.artist = *parsed.artist;
  if (parsed.album) facts.album = *parsed.album;
  if (parsed.genre) facts.genre = *parsed.genre;
  facts.duration = parsed.duration;
  facts.timescale = parsed.timescale;
  facts.date = parsed.date;
  facts.picture = parsed.mediaType == MediaType_Image && !parsed.streamInfo.empty();
  if (facts.picture) {
    facts.width = parsed.streamInfo[0].width;
    facts.height = parsed.streamInfo[0].height;
  }
  facts.coverMimeType = parsed.coverMimeType;
  facts.coverOffset = parsed.coverOffset;
  facts.coverLength = parsed.coverLength;
  facts.parsed = std::move(stream);
  return facts;
}

}  // namespace

size_t DmsMemo_Encode(const MediaStream& stream, const struct stat& file, int64_t itemSeconds,
                      uint8_t out[DmsMemo_MaxSize]) {
  const std::optional<Identity> identity = identityOf(file, itemSeconds);
  const std::optional<uint8_t> mimeType = DmsMemo_TypeNumber(stream.mimeType);
  const std::optional<uint8_t> coverType = DmsMemo_TypeNumber(stream.coverLength > 0 ? stream.coverMimeType : nullptr);
  // What a memo keeps must give the same file type and cover type back.
  if (!identity || !mimeType || !coverType || stream.mediaType != DmsMemo_MediaType(DmsMemo_TypeText(*mimeType))) {
    return 0;
  }
  Memo memo;
  memo.title = stream.title ? std::string_view(*stream.title) : std::string_view();
  const std::array<const std::optional<std::string>*, 3> texts = {&stream.artist, &stream.album, &stream.genre};
  uint8_t flags = memo.title.empty() ? 0 : kHasTitle;
  const bool picture = stream.mediaType == MediaType_Image && !stream.streamInfo.empty();
  if (picture) flags |= kIsPicture;
  if (stream.streamInfo.empty()) flags |= kNoStreams;
  if (stream.date != 0) flags |= kHasDate;
  if (stream.coverLength > 0) flags |= kHasCover;
  for (size_t index = 0; index < texts.size(); ++index) {
    if (!*texts[index]) continue;
    memo.texts[index] = sharedTexts.acquire(**texts[index]);
    if (!memo.texts[index]) {
      releaseTexts(memo);
      return 0;
    }
    flags |= kTextFlags[index];
  }

  MemoWriter writer(out);
  writer.byte(flags);
  writer.byte(*mimeType);
  writer.number(static_cast<uint64_t>(file.st_size));
  writer.number(Varint_Zigzag(identity->modificationDelta));
  writer.number(Varint_Zigzag(identity->changeDelta));
  writer.number(stream.duration);
  writer.number(stream.timescale);
  if (flags & kHasDate) {
    const auto date = static_cast<uint32_t>(stream.date);
    writer.bytes(&date, sizeof date);
  }
  if (picture) {
    writer.number(stream.streamInfo[0].width);
    writer.number(stream.streamInfo[0].height);
  }
  if (flags & kHasCover) {
    writer.byte(*coverType);
    writer.number(static_cast<uint64_t>(stream.coverOffset));
    writer.number(static_cast<uint64_t>(stream.coverLength));
  }
  if (flags & kHasTitle) {
    writer.number(memo.title.size());
    writer.bytes(memo.title.data(), memo.title.size());
  }
  for (const SharedText* text : memo.texts) {
    if (text) writer.bytes(&text, sizeof text);
  }
  if (writer.length() == 0) releaseTexts(memo);
  return writer.length();
}

void DmsMemo_Release(const uint8_t* memo) { releaseTexts(decode(memo)); }

namespace {

// True when `memo`, the memo of `item`, was made from the file `file` describes.
bool memoMatches(const DmsObject* item, const Memo& memo, const struct stat& file) {
  const std::optional<Identity> identity = identityOf(file, item->modificationTime);
  return identity && memo.size == static_cast<uint64_t>(file.st_size) &&
         memo.modificationDelta == identity->modificationDelta && memo.changeDelta == identity->changeDelta;
}

DmsItemFacts memoFacts(const Memo& memo, const struct stat& file) {
  DmsItemFacts facts;
  facts.recognised = true;
  facts.mimeType = DmsMemo_TypeText(memo.mimeType);
  facts.streams = !(memo.flags & kNoStreams);
  facts.size = static_cast<int64_t>(memo.size);
  facts.modificationTime = static_cast<int64_t>(file.st_mtime);
  facts.title = memo.title;
  std::optional<std::string_view>* texts[] = {&facts.artist, &facts.album, &facts.genre};
  for (size_t index = 0; index < memo.texts.size(); ++index) {
    if (memo.texts[index]) *texts[index] = memo.texts[index]->text();
  }
  facts.duration = memo.duration;
  facts.timescale = memo.timescale;
  facts.date = memo.date;
  facts.picture = memo.flags & kIsPicture;
  facts.width = memo.width;
  facts.height = memo.height;
  if (memo.flags & kHasCover) {
    facts.coverMimeType = DmsMemo_TypeText(memo.coverType);
    facts.coverOffset = static_cast<int64_t>(memo.coverOffset);
    facts.coverLength = static_cast<int64_t>(memo.coverLength);
  }
  return facts;
}

}  // namespace

bool DmsMemo_Matches(const DmsObject* item, const struct stat& file) {
  const uint8_t* bytes = DmsObject_Memo(item);
  return bytes && isItemFile(item, file) && memoMatches(item, decode(bytes), file);
}

DmsItemFacts DmsMemo_Facts(const DmsObject* item, const struct stat& file) {
  return memoFacts(decode(DmsObject_Memo(item)), file);
}

bool DmsMemo_Read(const DmsObject* item, const struct stat& file, DmsItemFacts& facts) {
  const uint8_t* bytes = DmsObject_Memo(item);
  if (!bytes || !isItemFile(item, file)) return false;
  const Memo memo = decode(bytes);
  if (!memoMatches(item, memo, file)) return false;
  facts = memoFacts(memo, file);
  return true;
}

namespace {

// Replaces the memo of `item` by one of `stream`, parsed from the regular
// file `file`, when that is the item's file and the memo fits the item's block.
void refreshMemo(const DmsObject* item, const struct stat& file, const MediaStream& stream) {
  uint8_t* bytes = DmsObject_Memo(item);
  if (!bytes || !isItemFile(item, file)) return;
  uint8_t fresh[DmsMemo_MaxSize];
  const size_t length = DmsMemo_Encode(stream, file, item->modificationTime, fresh);
  if (length == 0) return;
  if (length > item->memoSize) {
    DmsMemo_Release(fresh);
    return;
  }
  DmsMemo_Release(bytes);
  std::memcpy(bytes, fresh, length);
}

}  // namespace

DmsItemFacts DmsMemo_Parse(const DmsObject* item, int fd, const struct stat& file) {
  DmsItemFacts facts = parsedFacts(MediaStream_new(fd, 0, static_cast<int64_t>(file.st_size), true), file);
  if (facts.parsed) refreshMemo(item, file, *facts.parsed);
  return facts;
}

bool DmsMemo_Content(const DmsObject* item, uint32_t save, uint32_t& textCount, DmsMemoContent& content) {
  const uint8_t* bytes = DmsObject_Memo(item);
  if (!bytes) return false;
  const Memo memo = decode(bytes);
  int64_t change = 0;
  if (__builtin_add_overflow(memo.modificationDelta, memo.changeDelta, &change)) return false;
  // Times from nanoseconds after the start of the item's second.
  auto timeAfter = [item](int64_t nanoseconds) {
    const int64_t seconds = nanoseconds / kNanosecondsPerSecond - (nanoseconds % kNanosecondsPerSecond < 0);
    return timespec{static_cast<time_t>(item->modificationTime + seconds),
                    static_cast<long>(nanoseconds - seconds * kNanosecondsPerSecond)};
  };
  content.size = static_cast<int64_t>(memo.size);
  content.modification = timeAfter(memo.modificationDelta);
  content.change = timeAfter(change);
  struct stat file {};
  file.st_mtim = content.modification;
  content.facts = DmsMemo_Facts(item, file);
  for (size_t index = 0; index < memo.texts.size(); ++index) {
    auto* text = const_cast<SharedText*>(memo.texts[index]);
    if (!text) continue;
    content.firstUse[index] = text->save != save;
    if (content.firstUse[index]) {
      text->save = save;
      text->number = textCount++;
    }
    content.textNumbers[index] = text->number;
  }
  return true;
}
