// The memo file. Layout (numbers in 7-bit groups unless said otherwise):
//   "DMSMEMO", the format version, the word size and the byte order (1: little-endian)
//   the published path: its length and bytes
//   per item: id (high, low), size, modification time (seconds as a signed
//     number, nanoseconds), status-change time (seconds after the
//     modification's, signed; nanoseconds), the type byte, the flags byte,
//     duration, timescale, then as the flags say: the date (signed), width and
//     height, the cover (type byte, offset, length), the title (length,
//     bytes), artist, album and genre (each 0 and a new text's length and
//     bytes, or 1 + the number of a text met before)
//   the item count and the text count (4 bytes each, little-endian), and
//   an FNV-1a checksum of all bytes before it (8 bytes, little-endian).
// The loader reads the file into memory of its own, checks it whole and
// keeps an index by id until the first pass ends; nothing of it stays after.
#include "dms/DmsCache.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <new>
#include <optional>
#include <string_view>
#include <utility>

#include "base/UniqueFd.h"
#include "base/Varint.h"
#include "dms/DmsLibrary.h"
#include "dms/DmsMemo.h"

namespace {

constexpr std::string_view kMagic = "DMSMEMO";
constexpr uint8_t kVersion = 1;
constexpr uint8_t kLittleEndian = 1;
constexpr uint8_t kBigEndian = 2;
constexpr size_t kTrailerSize = 16;
constexpr size_t kMaxFileSize = size_t{1} << 28;  // far beyond any library on the board
constexpr size_t kMaxTextSize = 4096;
constexpr int64_t kNanosecondsPerSecond = 1000000000;
constexpr size_t kWriteBuffer = 16384;

enum RecordFlag : uint8_t {
  kHasTitle = 0x01,
  kHasCover = 0x02,
  kHasDate = 0x04,
  kHasStreams = 0x08,
  kHasArtist = 0x10,
  kHasAlbum = 0x20,
  kHasGenre = 0x40,
};
constexpr std::array<uint8_t, 3> kTextFlags = {kHasArtist, kHasAlbum, kHasGenre};

uint8_t byteOrder() {
  const uint16_t probe = 1;
  uint8_t first = 0;
  std::memcpy(&first, &probe, 1);
  return first ? kLittleEndian : kBigEndian;
}

struct Fnv {
  uint64_t hash = 14695981039346656037ull;
  void add(const uint8_t* bytes, size_t count) {
    for (size_t index = 0; index < count; ++index) hash = (hash ^ bytes[index]) * 1099511628211ull;
  }
};

// Memory of its own for what is loaded, given back whole when it goes.
class Mapping {
 public:
  Mapping() = default;
  explicit Mapping(size_t bytes) {
    void* at = bytes ? ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0) : MAP_FAILED;
    if (at != MAP_FAILED) {
      data_ = static_cast<uint8_t*>(at);
      size_ = bytes;
    }
  }
  Mapping(Mapping&& other) noexcept : data_(std::exchange(other.data_, nullptr)), size_(std::exchange(other.size_, 0)) {}
  Mapping& operator=(Mapping&& other) noexcept {
    std::swap(data_, other.data_);
    std::swap(size_, other.size_);
    return *this;
  }
  ~Mapping() {
    if (data_) ::munmap(data_, size_);
  }
  uint8_t* data() const { return data_; }
  size_t size() const { return size_; }

 private:
  uint8_t* data_ = nullptr;
  size_t size_ = 0;
};

// Reads the file's numbers and bytes, each only when it lies inside the bytes it has.
class Reader {
 public:
  Reader(const uint8_t* data, size_t size) : at_(data), end_(data + size) {}
  bool ok() const { return ok_; }
  size_t left() const { return static_cast<size_t>(end_ - at_); }
  const uint8_t* position() const { return at_; }
  uint8_t byte() {
    if (at_ == end_) return fail();
    return *at_++;
  }
  uint64_t number() {
    uint64_t value = 0;
    return Varint_Decode(at_, end_, value) ? value : fail();
  }
  // A number no greater than `most`.
  uint64_t number(uint64_t most) {
    const uint64_t value = number();
    return value <= most ? value : fail();
  }
  std::string_view text(size_t most) {
    const size_t length = number(most);
    if (!ok_ || length > left()) return fail(), std::string_view();
    const std::string_view text(reinterpret_cast<const char*>(at_), length);
    at_ += length;
    return text;
  }

 private:
  uint8_t fail() {
    ok_ = false;
    at_ = end_;
    return 0;
  }
  const uint8_t* at_;
  const uint8_t* end_;
  bool ok_ = true;
};

// One item of the file as read: its file's identity and what the memo says of it.
struct Record {
  DmsObjectId id;
  int64_t size = 0;
  timespec modification{};
  timespec change{};
  DmsItemFacts facts;
};

// The texts met so far while a file is read.
struct TextTable {
  std::string_view* texts = nullptr;
  size_t count = 0;
  size_t capacity = 0;
};

// Reads one record; checks every value against its range. When `collect`,
// `texts` grows by the texts the record brings (a record read again finds
// them all there already).
bool readRecord(Reader& in, TextTable& texts, Record& record, bool collect) {
  constexpr uint64_t kInt64Max = static_cast<uint64_t>(INT64_MAX);
  record.id.high = in.number();
  record.id.low = in.number();
  record.size = static_cast<int64_t>(in.number(kInt64Max));
  const int64_t modificationSeconds = Varint_Unzigzag(in.number());
  const auto modificationNanoseconds = static_cast<long>(in.number(kNanosecondsPerSecond - 1));
  const uint64_t changeAfter = static_cast<uint64_t>(Varint_Unzigzag(in.number()));
  const auto changeNanoseconds = static_cast<long>(in.number(kNanosecondsPerSecond - 1));
  record.modification = {static_cast<time_t>(modificationSeconds), modificationNanoseconds};
  record.change = {static_cast<time_t>(static_cast<uint64_t>(modificationSeconds) + changeAfter), changeNanoseconds};
  DmsItemFacts& facts = record.facts;
  facts.mimeType = DmsMemo_TypeText(static_cast<uint8_t>(in.number(DmsMemo_MimeTypes.size())));
  const uint8_t flags = in.byte();
  facts.streams = flags & kHasStreams;
  facts.duration = static_cast<uint32_t>(in.number(UINT32_MAX));
  facts.timescale = static_cast<uint32_t>(in.number(UINT32_MAX));
  if (flags & kHasDate) {
    const int64_t date = Varint_Unzigzag(in.number());
    if (date < INT32_MIN || date > INT32_MAX) return false;
    facts.date = static_cast<int32_t>(date);
  }
  facts.picture = facts.streams && DmsMemo_MediaType(facts.mimeType) == MediaType_Image;
  if (facts.picture) {
    facts.width = static_cast<uint16_t>(in.number(UINT16_MAX));
    facts.height = static_cast<uint16_t>(in.number(UINT16_MAX));
  }
  if (flags & kHasCover) {
    facts.coverMimeType = DmsMemo_TypeText(static_cast<uint8_t>(in.number(DmsMemo_MimeTypes.size())));
    facts.coverOffset = static_cast<int64_t>(in.number(kInt64Max));
    facts.coverLength = static_cast<int64_t>(in.number(kInt64Max));
    if (facts.coverLength == 0) return false;
  }
  if (flags & kHasTitle) facts.title = in.text(kMaxTextSize);
  std::optional<std::string_view>* textsOf[] = {&facts.artist, &facts.album, &facts.genre};
  for (size_t index = 0; index < kTextFlags.size(); ++index) {
    if (!(flags & kTextFlags[index])) continue;
    const uint64_t reference = in.number(texts.count);
    if (reference > 0) {
      *textsOf[index] = texts.texts[reference - 1];
      continue;
    }
    const std::string_view text = in.text(kMaxTextSize);
    if (collect) {
      if (!in.ok() || texts.count == texts.capacity) return false;
      new (&texts.texts[texts.count++]) std::string_view(text);
    }
    *textsOf[index] = text;
  }
  return in.ok() && DmsMemo_MediaType(facts.mimeType) != 0;
}

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

// What a load keeps until the first pass ends: the file's bytes, the offsets
// of its records by id (open addressing; 0 is an empty slot, else 1 + the
// offset), and its texts.
struct Loaded {
  Mapping bytes;
  Mapping slots;
  Mapping texts;
  size_t slotCount = 0;
};
Loaded loaded;
// The checksum of the file as loaded or last written; 0 for none.
uint64_t knownChecksum = 0;
uint32_t lastSave = 0;

size_t slotOf(DmsObjectId id, size_t slotCount) {
  const uint64_t mixed = (id.low + id.high * 0x9E3779B97F4A7C15ull) * 0xBF58476D1CE4E5B9ull;
  return static_cast<size_t>(mixed >> 32) & (slotCount - 1);
}

uint32_t* slotTable() { return reinterpret_cast<uint32_t*>(loaded.slots.data()); }

std::optional<Mapping> readFile(const std::string& path) {
  const UniqueFd fd(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  struct stat info {};
  if (!fd.valid() || ::fstat(fd.get(), &info) != 0 || !S_ISREG(info.st_mode) || info.st_size <= 0 ||
      static_cast<uint64_t>(info.st_size) > kMaxFileSize) {
    return std::nullopt;
  }
  Mapping bytes(static_cast<size_t>(info.st_size));
  if (!bytes.data()) return std::nullopt;
  size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t got = ::pread(fd.get(), bytes.data() + done, bytes.size() - done, static_cast<off_t>(done));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return std::nullopt;
    done += static_cast<size_t>(got);
  }
  return bytes;
}

// Checks the whole file and indexes its records; false leaves nothing loaded.
bool index(Mapping bytes, const std::string& publishedPath) {
  if (bytes.size() < kTrailerSize) return false;
  const uint8_t* trailer = bytes.data() + bytes.size() - kTrailerSize;
  uint32_t itemCount = 0, textCount = 0;
  uint64_t checksum = 0;
  for (int shift = 0, at = 0; at < 4; ++at, shift += 8) {
    itemCount |= static_cast<uint32_t>(trailer[at]) << shift;
    textCount |= static_cast<uint32_t>(trailer[4 + at]) << shift;
  }
  for (int at = 7; at >= 0; --at) checksum = checksum << 8 | trailer[8 + at];
  Fnv fnv;
  fnv.add(bytes.data(), bytes.size() - 8);
  Reader in(bytes.data(), bytes.size() - kTrailerSize);
  const size_t most = in.left();
  // Every record and every text takes more than one byte.
  if (fnv.hash != checksum || itemCount > most || textCount > most) return false;
  for (const char c : kMagic) {
    if (in.byte() != static_cast<uint8_t>(c)) return false;
  }
  if (in.byte() != kVersion || in.byte() != sizeof(void*) || in.byte() != byteOrder() ||
      in.text(kMaxFileSize) != publishedPath || !in.ok()) {
    return false;
  }
  size_t slotCount = 16;
  while (slotCount < 2 * size_t{itemCount}) slotCount *= 2;
  Mapping slots(slotCount * sizeof(uint32_t));
  Mapping texts(std::max<size_t>(textCount, 1) * sizeof(std::string_view));
  if (!slots.data() || !texts.data()) return false;
  TextTable table{reinterpret_cast<std::string_view*>(texts.data()), 0, textCount};
  auto* slotsOf = reinterpret_cast<uint32_t*>(slots.data());
  for (uint32_t item = 0; item < itemCount; ++item) {
    const auto offset = static_cast<uint32_t>(in.position() - bytes.data());
    Record record;
    if (!readRecord(in, table, record, true)) return false;
    size_t slot = slotOf(record.id, slotCount);
    while (slotsOf[slot] != 0) slot = (slot + 1) & (slotCount - 1);
    slotsOf[slot] = offset + 1;
  }
  if (in.left() != 0 || table.count != textCount) return false;
  loaded = Loaded{std::move(bytes), std::move(slots), std::move(texts), slotCount};
  knownChecksum = checksum;
  return true;
}

// The file's bytes, into a checksum and, when `fd` is given, into the file.
class Writer {
 public:
  explicit Writer(int fd) : fd_(fd) {}
  void bytes(const void* data, size_t count) {
    const auto* from = static_cast<const uint8_t*>(data);
    fnv_.add(from, count);
    if (fd_ < 0) return;
    while (count > 0) {
      const size_t part = std::min(count, buffer_.size() - used_);
      std::memcpy(buffer_.data() + used_, from, part);
      used_ += part;
      from += part;
      count -= part;
      if (used_ == buffer_.size()) flush();
    }
  }
  void byte(uint8_t value) { bytes(&value, 1); }
  void number(uint64_t value) {
    uint8_t encoded[Varint_MaxSize];
    bytes(encoded, Varint_Encode(value, encoded));
  }
  void text(std::string_view text) {
    number(text.size());
    bytes(text.data(), text.size());
  }
  void littleEndian(uint64_t value, size_t count) {
    for (size_t at = 0; at < count; ++at, value >>= 8) byte(static_cast<uint8_t>(value));
  }
  uint64_t checksum() const { return fnv_.hash; }
  // False when a write failed.
  bool flush() {
    size_t done = 0;
    while (fd_ >= 0 && done < used_) {
      const ssize_t wrote = ::write(fd_, buffer_.data() + done, used_ - done);
      if (wrote < 0 && errno == EINTR) continue;
      if (wrote <= 0) failed_ = true;
      if (wrote <= 0) break;
      done += static_cast<size_t>(wrote);
    }
    used_ = 0;
    return !failed_;
  }

 private:
  int fd_;
  Fnv fnv_;
  std::array<uint8_t, kWriteBuffer> buffer_{};
  size_t used_ = 0;
  bool failed_ = false;
};

struct Counts {
  uint32_t items = 0;
  uint32_t texts = 0;
  uint32_t save = 0;
};

void writeItem(Writer& out, const DmsObject* item, Counts& counts) {
  DmsMemoContent memo;
  if (!DmsMemo_Content(item, counts.save, counts.texts, memo)) return;
  const DmsItemFacts& facts = memo.facts;
  const std::optional<std::string_view> texts[] = {facts.artist, facts.album, facts.genre};
  uint8_t flags = (facts.title.empty() ? 0 : kHasTitle) | (facts.coverLength > 0 ? kHasCover : 0) |
                  (facts.date ? kHasDate : 0) | (facts.streams ? kHasStreams : 0);
  for (size_t index = 0; index < kTextFlags.size(); ++index) flags |= texts[index] ? kTextFlags[index] : 0;
  // A memo keeps only types of that list.
  const uint8_t type = DmsMemo_TypeNumber(facts.mimeType).value_or(0);
  const uint8_t coverType = DmsMemo_TypeNumber(facts.coverMimeType).value_or(0);
  out.number(item->id.high);
  out.number(item->id.low);
  out.number(static_cast<uint64_t>(memo.size));
  out.number(Varint_Zigzag(memo.modification.tv_sec));
  out.number(static_cast<uint64_t>(memo.modification.tv_nsec));
  out.number(Varint_Zigzag(static_cast<int64_t>(static_cast<uint64_t>(memo.change.tv_sec) -
                                         static_cast<uint64_t>(memo.modification.tv_sec))));
  out.number(static_cast<uint64_t>(memo.change.tv_nsec));
  out.number(type);
  out.byte(flags);
  out.number(facts.duration);
  out.number(facts.timescale);
  if (flags & kHasDate) out.number(Varint_Zigzag(facts.date));
  if (facts.picture) {
    out.number(facts.width);
    out.number(facts.height);
  }
  if (flags & kHasCover) {
    out.number(coverType);
    out.number(static_cast<uint64_t>(facts.coverOffset));
    out.number(static_cast<uint64_t>(facts.coverLength));
  }
  if (flags & kHasTitle) out.text(facts.title);
  for (size_t index = 0; index < kTextFlags.size(); ++index) {
    if (!texts[index]) continue;
    if (memo.firstUse[index]) {
      out.number(0);
      out.text(*texts[index]);
    } else {
      out.number(memo.textNumbers[index] + 1);
    }
  }
  counts.items += 1;
}

void writeFolder(Writer& out, const DmsObject* folder, Counts& counts) {
  for (const DmsObject* child = folder->firstChild; child; child = child->nextSibling) {
    if (child->kind == DmsKind_Item) writeItem(out, child, counts);
    else if (DmsObject_IsFolder(child)) writeFolder(out, child, counts);
  }
}

// The whole file, in the order of the tree; returns its checksum.
uint64_t writeFile(Writer& out, const std::string& publishedPath) {
  Counts counts{0, 0, ++lastSave};
  out.bytes(kMagic.data(), kMagic.size());
  out.byte(kVersion);
  out.byte(sizeof(void*));
  out.byte(byteOrder());
  out.text(publishedPath);
  if (const DmsObject* volume = DmsObject_Find(DmsId_MediaDirectory)) writeFolder(out, volume, counts);
  out.littleEndian(counts.items, 4);
  out.littleEndian(counts.texts, 4);
  const uint64_t checksum = out.checksum();
  out.littleEndian(checksum, 8);
  return checksum;
}

}  // namespace

void DmsCache_Load(const std::string& directory, const std::string& publishedPath) {
  DmsCache_Unload();
  knownChecksum = 0;
  try {
    if (std::optional<Mapping> bytes = readFile(directory + "/" + DmsCache_FileName)) {
      index(std::move(*bytes), publishedPath);
    }
  } catch (const std::bad_alloc&) {  // without memory to read it, no file
  }
}

MediaStreamPtr DmsCache_Take(DmsObjectId id, const struct stat& file) {
  if (!loaded.slotCount) return nullptr;
  const uint32_t* slots = slotTable();
  TextTable texts{reinterpret_cast<std::string_view*>(loaded.texts.data()), 0,
                  loaded.texts.size() / sizeof(std::string_view)};
  for (size_t slot = slotOf(id, loaded.slotCount); slots[slot] != 0; slot = (slot + 1) & (loaded.slotCount - 1)) {
    const uint8_t* at = loaded.bytes.data() + slots[slot] - 1;
    Reader in(at, static_cast<size_t>(loaded.bytes.data() + loaded.bytes.size() - at));
    texts.count = texts.capacity;
    Record record;
    if (!readRecord(in, texts, record, false) || !(record.id == id)) continue;
    const bool same = record.size == static_cast<int64_t>(file.st_size) &&
                      record.modification.tv_sec == file.st_mtim.tv_sec &&
                      record.modification.tv_nsec == file.st_mtim.tv_nsec &&
                      record.change.tv_sec == file.st_ctim.tv_sec && record.change.tv_nsec == file.st_ctim.tv_nsec;
    return same && S_ISREG(file.st_mode) ? streamOf(record.facts) : nullptr;
  }
  return nullptr;
}

void DmsCache_Unload() { loaded = Loaded{}; }

void DmsCache_Save(const std::string& directory, const std::string& publishedPath, std::unique_lock<DmsContentMutex>& lock) {
  Writer measure(-1);
  if (writeFile(measure, publishedPath) == knownChecksum) return;

  std::string path, next;
  try {
    path = directory + "/" + DmsCache_FileName;
    next = directory + "/" + DmsCache_NewFileName;
  } catch (const std::bad_alloc&) {  // the previous file stays
    return;
  }
  UniqueFd fd(::open(next.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644));
  if (!fd.valid()) return;
  Writer out(fd.get());
  const uint64_t checksum = writeFile(out, publishedPath);
  const bool written = out.flush();
  lock.unlock();
  const UniqueFd folder(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (written && ::fsync(fd.get()) == 0 && ::close(fd.release()) == 0 && ::rename(next.c_str(), path.c_str()) == 0 &&
      folder.valid() && ::fsync(folder.get()) == 0) {
    knownChecksum = checksum;
    return;
  }
  ::unlink(next.c_str());
}
