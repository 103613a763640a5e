// Item memos: their compact encoding, in the item's block and in the memo
// file, the identity check against an lstat of the file, and the table of
// texts that many memos share. A memo is a flags byte and the file's type,
// then the file's identity, then only the parts the file has, numbers in
// 7-bit groups; shared texts are named by their address in memory and by
// their number in the memo file. One writer and one reader serve both.
#include "dms/DmsMemo.h"

#include <array>
#include <cassert>
#include <cstring>
#include <memory>
#include <new>

#include "base/Fnv.h"
#include "base/Varint.h"
#include "dms/DmsObject.h"
#include "dms/DmsServerState.h"

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
  uint32_t save;    // the last save of the memo file that numbered it (DmsMemo_NumberTexts)
  uint32_t number;  // its number in that save
  std::string_view text() const { return {reinterpret_cast<const char*>(this + 1), length}; }
};

// The shared texts, found by hash when a memo is made. The buckets double
// when the texts outnumber them; without memory for that the chains grow.
class SharedTexts {
 public:
  // The text, counted once more; null when memory runs out.
  SharedText* acquire(std::string_view text) {
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
    // From the first text counted on, the tree gives its memos back here.
    if (count_ == 0) DmsObject_SetMemoRelease(DmsMemo_Release);
    auto* entry = new (block) SharedText{buckets_[hash & mask()], hash, 1, static_cast<uint32_t>(text.size()), 0, 0};
    text.copy(reinterpret_cast<char*>(entry + 1), text.size());
    buckets_[hash & mask()] = entry;
    count_ += 1;
    return entry;
  }

  // Counts the text once less; the last release frees it. Only releaseTexts calls it.
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

  static uint32_t hashOf(std::string_view text) { return static_cast<uint32_t>(Fnv().add(text).hash); }

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

// Guarded by the content mutex, as are the memos that count its texts.
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
  std::array<SharedText*, 3> shared{};                      // artist, album, genre: in memory
  std::array<std::optional<std::string_view>, 3> texts{};  // the same texts, wherever they are
};

constexpr std::array<uint8_t, 3> kTextFlags = {kHasArtist, kHasAlbum, kHasGenre};

// Where the shared texts of a memo are named: by address in an item's
// block, by number in the memo file.
enum class Form { Memory, File };

void putByte(DmsMemoSink& out, uint8_t value) { out.bytes(&value, 1); }
void putNumber(DmsMemoSink& out, uint64_t value) {
  uint8_t encoded[Varint_MaxSize];
  out.bytes(encoded, Varint_Encode(value, encoded));
}

// The memo's bytes, in either form.
void writeMemo(DmsMemoSink& out, const Memo& memo, Form form) {
  putByte(out, memo.flags);
  putByte(out, memo.mimeType);
  putNumber(out, memo.size);
  putNumber(out, Varint_Zigzag(memo.modificationDelta));
  putNumber(out, Varint_Zigzag(memo.changeDelta));
  putNumber(out, memo.duration);
  putNumber(out, memo.timescale);
  if (memo.flags & kHasDate) {
    const auto date = static_cast<uint32_t>(memo.date);
    out.bytes(&date, sizeof date);
  }
  if (memo.flags & kIsPicture) {
    putNumber(out, memo.width);
    putNumber(out, memo.height);
  }
  if (memo.flags & kHasCover) {
    putByte(out, memo.coverType);
    putNumber(out, memo.coverOffset);
    putNumber(out, memo.coverLength);
  }
  if (memo.flags & kHasTitle) {
    putNumber(out, memo.title.size());
    out.bytes(memo.title.data(), memo.title.size());
  }
  for (const SharedText* text : memo.shared) {
    if (!text) continue;
    if (form == Form::Memory) out.bytes(&text, sizeof text);
    else putNumber(out, text->number);
  }
}

// Reads a memo in either form (`texts` names the file's); checks every
// value, as a file's bytes may be damaged: false when one is out of range.
bool readMemo(VarintReader& in, Memo& memo, Form form, std::span<const std::string_view> texts) {
  constexpr uint64_t kInt64Max = INT64_MAX;
  memo.flags = in.byte();
  memo.mimeType = in.byte();
  memo.size = in.number(kInt64Max);
  memo.modificationDelta = Varint_Unzigzag(in.number());
  memo.changeDelta = Varint_Unzigzag(in.number());
  memo.duration = static_cast<uint32_t>(in.number(UINT32_MAX));
  memo.timescale = static_cast<uint32_t>(in.number(UINT32_MAX));
  if (memo.flags & kHasDate) {
    uint32_t date = 0;
    if (const uint8_t* bytes = in.take(sizeof date)) std::memcpy(&date, bytes, sizeof date);
    memo.date = static_cast<int32_t>(date);
  }
  if (memo.flags & kIsPicture) {
    memo.width = static_cast<uint16_t>(in.number(UINT16_MAX));
    memo.height = static_cast<uint16_t>(in.number(UINT16_MAX));
  }
  if (memo.flags & kHasCover) {
    memo.coverType = in.byte();
    memo.coverOffset = in.number(kInt64Max);
    memo.coverLength = in.number(kInt64Max);
  }
  if (memo.flags & kHasTitle) memo.title = in.text(DmsMemo_MaxSize);
  for (size_t index = 0; index < kTextFlags.size(); ++index) {
    if (!(memo.flags & kTextFlags[index])) continue;
    if (form == Form::Memory) {
      if (const uint8_t* bytes = in.take(sizeof(void*))) std::memcpy(&memo.shared[index], bytes, sizeof(void*));
      if (memo.shared[index]) memo.texts[index] = memo.shared[index]->text();
    } else if (const uint64_t number = in.number(texts.size()); number < texts.size()) {
      memo.texts[index] = texts[number];
    } else {
      return false;
    }
  }
  // A memo keeps a type that gives its media type, a cover with a type and
  // bytes, and sizes exactly for a picture with a stream.
  const int32_t mediaType = DmsMemo_MediaType(DmsMemo_TypeText(memo.mimeType));
  const bool picture = mediaType == MediaType_Image && !(memo.flags & kNoStreams);
  return in.ok() && mediaType != MediaType_None && picture == bool(memo.flags & kIsPicture) &&
         (!(memo.flags & kHasCover) || (DmsMemo_TypeText(memo.coverType) && memo.coverLength > 0));
}

// The memo of an item, which this process wrote.
Memo decode(const uint8_t* bytes) {
  VarintReader in(bytes, bytes + DmsMemo_MaxSize);
  Memo memo;
  readMemo(in, memo, Form::Memory, {});
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

// True when the memo was made from `file`, whose path is the item's or the
// record's, the item's modification second being `seconds`.
bool describes(const Memo& memo, int64_t seconds, const struct stat& file) {
  const std::optional<Identity> identity = identityOf(file, seconds);
  return S_ISREG(file.st_mode) && identity && memo.size == static_cast<uint64_t>(file.st_size) &&
         memo.modificationDelta == identity->modificationDelta && memo.changeDelta == identity->changeDelta;
}

// Gives back the counts of a memo's shared texts: every memo that goes, from
// an item's block or from one being made, goes through here.
void releaseTexts(const Memo& memo) {
  for (const SharedText* text : memo.shared) {
    if (text) sharedTexts.release(text);
  }
}

// Writes a memo into an item's block of DmsMemo_MaxSize bytes.
class MemoWriter : public DmsMemoSink {
 public:
  explicit MemoWriter(uint8_t* out) : out_(out) {}
  void bytes(const void* data, size_t count) override {
    if (used_ + count <= DmsMemo_MaxSize) std::memcpy(out_ + used_, data, count);
    used_ += count;
  }
  // The length written, or 0 when it did not fit.
  size_t length() const { return used_ <= DmsMemo_MaxSize ? used_ : 0; }

 private:
  uint8_t* out_;
  size_t used_ = 0;
};

// The facts a memo keeps, for the file it describes, modified in second `modificationSecond`.
DmsItemFacts factsOf(const Memo& memo, int64_t modificationSecond) {
  DmsItemFacts facts;
  facts.recognised = true;
  facts.mimeType = DmsMemo_TypeText(memo.mimeType);
  facts.streams = !(memo.flags & kNoStreams);
  facts.size = static_cast<int64_t>(memo.size);
  facts.modificationTime = modificationSecond;
  facts.title = memo.title;
  facts.artist = memo.texts[0];
  facts.album = memo.texts[1];
  facts.genre = memo.texts[2];
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

// The stream a parse of the file would give, as far as a memo keeps it.
MediaStreamPtr streamOf(const DmsItemFacts& facts) {
  MediaStreamPtr stream(new (std::nothrow) MediaStream);
  if (!stream) return nullptr;
  stream->mediaType = DmsMemo_MediaType(facts.mimeType);
  stream->mimeType = facts.mimeType;
  stream->duration = facts.duration;
  stream->timescale = facts.timescale;
  if (facts.streams) {
    StreamInfo info;
    info.streamNumber = 1;
    info.streamKind = static_cast<uint32_t>(stream->mediaType);
    info.enabled = 1;
    info.width = facts.width;
    info.height = facts.height;
    stream->streamInfo.push_back(info);
  }
  if (!facts.title.empty()) stream->title.emplace(facts.title);
  const std::optional<std::string_view>* texts[] = {&facts.artist, &facts.album, &facts.genre};
  std::optional<std::string>* into[] = {&stream->artist, &stream->album, &stream->genre};
  for (size_t index = 0; index < std::size(texts); ++index) {
    if (*texts[index]) into[index]->emplace(**texts[index]);
  }
  if (facts.coverLength > 0) {
    stream->coverMimeType = facts.coverMimeType;
    stream->coverOffset = facts.coverOffset;
    stream->coverLength = facts.coverLength;
  }
  stream->date = facts.date;
  return stream;
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
  assert(DmsContent_Guarded());
  const std::optional<Identity> identity = identityOf(file, itemSeconds);
  const std::optional<uint8_t> mimeType = DmsMemo_TypeNumber(stream.mimeType);
  const std::optional<uint8_t> coverType = DmsMemo_TypeNumber(stream.coverLength > 0 ? stream.coverMimeType : nullptr);
  // What a memo keeps must give the same file type and cover type back.
  if (!identity || !mimeType || !coverType || stream.mediaType == MediaType_None ||
      stream.mediaType != DmsMemo_MediaType(DmsMemo_TypeText(*mimeType)) || (stream.coverLength > 0 && *coverType == 0)) {
    return 0;
  }
  Memo memo;
  memo.size = static_cast<uint64_t>(file.st_size);
  memo.modificationDelta = identity->modificationDelta;
  memo.changeDelta = identity->changeDelta;
  memo.mimeType = *mimeType;
  memo.duration = stream.duration;
  memo.timescale = stream.timescale;
  memo.date = stream.date;
  memo.title = stream.title ? std::string_view(*stream.title) : std::string_view();
  memo.flags = memo.title.empty() ? 0 : kHasTitle;
  if (stream.mediaType == MediaType_Image && !stream.streamInfo.empty()) {
    memo.flags |= kIsPicture;
    memo.width = stream.streamInfo[0].width;
    memo.height = stream.streamInfo[0].height;
  }
  if (stream.streamInfo.empty()) memo.flags |= kNoStreams;
  if (stream.date != 0) memo.flags |= kHasDate;
  if (stream.coverLength > 0) {
    memo.flags |= kHasCover;
    memo.coverType = *coverType;
    memo.coverOffset = static_cast<uint64_t>(stream.coverOffset);
    memo.coverLength = static_cast<uint64_t>(stream.coverLength);
  }
  const std::array<const std::optional<std::string>*, 3> texts = {&stream.artist, &stream.album, &stream.genre};
  for (size_t index = 0; index < texts.size(); ++index) {
    if (!*texts[index]) continue;
    memo.shared[index] = sharedTexts.acquire(**texts[index]);
    if (!memo.shared[index]) {
      releaseTexts(memo);
      return 0;
    }
    memo.flags |= kTextFlags[index];
  }
  MemoWriter writer(out);
  writeMemo(writer, memo, Form::Memory);
  if (writer.length() == 0) releaseTexts(memo);
  return writer.length();
}

void DmsMemo_Release(const uint8_t* memo) {
  assert(DmsContent_Guarded());
  releaseTexts(decode(memo));
}

bool DmsMemo_Read(const DmsObject* item, const struct stat& file, DmsItemFacts& facts) {
  assert(DmsContent_Guarded());
  const uint8_t* bytes = DmsObject_Memo(item);
  if (!bytes || item->kind != DmsKind_Item) return false;
  const Memo memo = decode(bytes);
  if (!describes(memo, item->modificationTime, file)) return false;
  facts = factsOf(memo, static_cast<int64_t>(file.st_mtime));
  return true;
}

bool DmsMemo_Describes(const DmsObject* item, const struct stat& file) {
  assert(DmsContent_Guarded());
  const uint8_t* bytes = DmsObject_Memo(item);
  return bytes && item->kind == DmsKind_Item && describes(decode(bytes), item->modificationTime, file);
}

bool DmsMemo_Recall(const DmsObject* item, DmsItemFacts& facts) {
  assert(DmsContent_Guarded());
  const uint8_t* bytes = DmsObject_Memo(item);
  if (!bytes || item->kind != DmsKind_Item) return false;
  const Memo memo = decode(bytes);
  // The memo keeps the modification time in nanoseconds from the item's
  // second; the file's second is the whole seconds of that, rounded down.
  int64_t seconds = memo.modificationDelta / kNanosecondsPerSecond;
  if (memo.modificationDelta % kNanosecondsPerSecond < 0) --seconds;
  facts = factsOf(memo, item->modificationTime + seconds);
  return true;
}

namespace {

// Replaces the memo of `item` by one of `stream`, parsed from the regular
// file `file` at the item's path, when the new memo fits the item's block.
void refreshMemo(DmsObject* item, const struct stat& file, const MediaStream& stream) {
  uint8_t* bytes = DmsObject_Memo(item);
  if (!bytes || item->kind != DmsKind_Item || !S_ISREG(file.st_mode)) return;
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

// Reads a memo-file record: the item's modification second, then its memo.
bool readRecord(VarintReader& in, std::span<const std::string_view> texts, int64_t& seconds, Memo& memo) {
  seconds = Varint_Unzigzag(in.number());
  return readMemo(in, memo, Form::File, texts);
}

}  // namespace

DmsItemFacts DmsMemo_Parse(DmsObject* item, int fd, const struct stat& file) {
  assert(DmsContent_Guarded());
  DmsItemFacts facts = parsedFacts(MediaStream_new(fd, 0, static_cast<int64_t>(file.st_size), true), file);
  if (facts.parsed) refreshMemo(item, file, *facts.parsed);
  return facts;
}

size_t DmsMemo_NumberTexts(const DmsObject* item, uint32_t save, uint32_t& textCount,
                           std::array<std::string_view, 3>& met) {
  assert(DmsContent_Guarded());
  const uint8_t* bytes = DmsObject_Memo(item);
  if (!bytes) return 0;
  size_t count = 0;
  for (SharedText* text : decode(bytes).shared) {
    if (!text || text->save == save) continue;
    text->save = save;
    text->number = textCount++;
    met[count++] = text->text();
  }
  return count;
}

bool DmsMemo_Write(const DmsObject* item, DmsMemoSink& out) {
  assert(DmsContent_Guarded());
  const uint8_t* bytes = DmsObject_Memo(item);
  if (!bytes) return false;
  putNumber(out, Varint_Zigzag(item->modificationTime));
  writeMemo(out, decode(bytes), Form::File);
  return true;
}

bool DmsMemo_Check(const uint8_t*& at, const uint8_t* end, std::span<const std::string_view> texts) {
  VarintReader in(at, end);
  int64_t seconds = 0;
  Memo memo;
  if (!readRecord(in, texts, seconds, memo)) return false;
  at = in.position();
  return true;
}

MediaStreamPtr DmsMemo_Take(const uint8_t* at, const uint8_t* end, std::span<const std::string_view> texts,
                            const struct stat& file) {
  VarintReader in(at, end);
  int64_t seconds = 0;
  Memo memo;
  if (!readRecord(in, texts, seconds, memo) || !describes(memo, seconds, file)) return nullptr;
  return streamOf(factsOf(memo, static_cast<int64_t>(file.st_mtime)));
}
