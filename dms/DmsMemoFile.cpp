// The memo file. Layout (numbers in 7-bit groups unless said otherwise):
//   "DMSMEMO", the format version, the word size and the byte order (1: little-endian)
//   the published path: its length and bytes
//   the shared texts, numbered from 0: each its length and bytes
//   per folder that has memos: its path relative to the published path
//     ("" for the published folder itself, else "/" and the names below
//     it), the count of its memos, then per memo the file's name (length,
//     bytes) and the memo as DmsMemo.h writes it
//   the memo count and the text count (4 bytes each, little-endian), and
//   an FNV-1a checksum of all bytes before it (8 bytes, little-endian).
// The loader reads the file into memory of its own, checks it whole and
// keeps an index by path until a pass that saw the library ends.
#include "dms/DmsMemoFile.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <new>
#include <optional>
#include <span>
#include <string_view>
#include <utility>

#include "base/Fnv.h"
#include "base/UniqueFd.h"
#include "base/Varint.h"
#include "dms/DmsMemo.h"

namespace {

constexpr std::string_view kMagic = "DMSMEMO";
// 2: memos found by path, kept as memory keeps them.
constexpr uint8_t kVersion = 2;
constexpr uint8_t kLittleEndian = 1;
constexpr uint8_t kBigEndian = 2;
constexpr size_t kTrailerSize = 16;
constexpr size_t kMaxFileSize = size_t{1} << 28;  // far beyond any library on the board
constexpr size_t kMaxTextSize = 4096;
constexpr size_t kWriteBuffer = 16384;

uint8_t byteOrder() {
  const uint16_t probe = 1;
  uint8_t first = 0;
  std::memcpy(&first, &probe, 1);
  return first ? kLittleEndian : kBigEndian;
}

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
  const uint8_t* end() const { return data_ + size_; }
  size_t size() const { return size_; }

 private:
  uint8_t* data_ = nullptr;
  size_t size_ = 0;
};

// Where a memo's record lies in the loaded bytes: its name (offset + 1; 0
// for an empty slot) and the path of its folder.
struct Slot {
  uint32_t record;
  uint32_t folder;
};

// What a load keeps until a pass that saw the library ends: the file's
// bytes, its records by path (open addressing) and its texts.
struct Loaded {
  Mapping bytes;
  Mapping slots;
  Mapping texts;
  size_t slotCount = 0;
  size_t textCount = 0;
  std::string_view publishedPath;  // in `bytes`
};
// The memo file's state between calls, guarded by `fileMutex`: every
// DmsMemoFile_ function holds it throughout, taking it after the content
// mutex when it needs both, so that a save may release the content mutex
// and still record what it wrote.
std::mutex fileMutex;
Loaded loaded;
// The file as loaded or last written: its checksum (0 for none) and how many memos it holds.
uint64_t knownChecksum = 0;
uint32_t knownMemos = 0;
// The number of the last save, by which DmsMemo_NumberTexts numbers the shared texts.
uint32_t lastSave = 0;

size_t slotOf(std::string_view folder, std::string_view name, size_t slotCount) {
  return static_cast<size_t>(Fnv().add(folder).add("/").add(name).hash) & (slotCount - 1);
}

Slot* slotTable() { return reinterpret_cast<Slot*>(loaded.slots.data()); }

std::span<const std::string_view> loadedTexts() {
  return {reinterpret_cast<const std::string_view*>(loaded.texts.data()), loaded.textCount};
}

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

// Checks the whole file and indexes its memos; false leaves nothing loaded.
bool index(Mapping bytes, const std::string& publishedPath) {
  if (bytes.size() < kTrailerSize) return false;
  const uint8_t* trailer = bytes.end() - kTrailerSize;
  uint32_t memoCount = 0, textCount = 0;
  uint64_t checksum = 0;
  for (int shift = 0, at = 0; at < 4; ++at, shift += 8) {
    memoCount |= static_cast<uint32_t>(trailer[at]) << shift;
    textCount |= static_cast<uint32_t>(trailer[4 + at]) << shift;
  }
  for (int at = 7; at >= 0; --at) checksum = checksum << 8 | trailer[8 + at];
  VarintReader in(bytes.data(), trailer);
  const size_t most = in.left();
  // Every memo and every text takes a byte at least.
  if (Fnv().add(bytes.data(), bytes.size() - 8).hash != checksum || memoCount > most || textCount > most) return false;
  for (const char c : kMagic) {
    if (in.byte() != static_cast<uint8_t>(c)) return false;
  }
  if (in.byte() != kVersion || in.byte() != sizeof(void*) || in.byte() != byteOrder()) return false;
  const std::string_view published = in.text(kMaxFileSize);
  if (!in.ok() || published != publishedPath) return false;
  size_t slotCount = 16;
  while (slotCount < 2 * size_t{memoCount}) slotCount *= 2;
  Mapping slots(slotCount * sizeof(Slot));
  Mapping texts(std::max<size_t>(textCount, 1) * sizeof(std::string_view));
  if (!slots.data() || !texts.data()) return false;
  auto* table = reinterpret_cast<std::string_view*>(texts.data());
  for (uint32_t text = 0; text < textCount; ++text) new (&table[text]) std::string_view(in.text(kMaxTextSize));
  const std::span<const std::string_view> textsRead(table, textCount);
  auto* slotsOf = reinterpret_cast<Slot*>(slots.data());
  uint32_t memos = 0;
  while (in.ok() && in.left() > 0) {
    const auto folderAt = static_cast<uint32_t>(in.position() - bytes.data());
    const std::string_view folder = in.text(kMaxFileSize);
    const uint64_t count = in.number(memoCount - memos);
    if (count == 0) return false;
    for (uint64_t memo = 0; memo < count; ++memo) {
      const auto recordAt = static_cast<uint32_t>(in.position() - bytes.data());
      const std::string_view name = in.text(kMaxTextSize);
      const uint8_t* at = in.position();
      if (!in.ok() || !DmsMemo_Check(at, trailer, textsRead)) return false;
      in = VarintReader(at, trailer);
      size_t slot = slotOf(folder, name, slotCount);
      while (slotsOf[slot].record != 0) slot = (slot + 1) & (slotCount - 1);
      slotsOf[slot] = {recordAt + 1, folderAt};
    }
    memos += static_cast<uint32_t>(count);
  }
  if (!in.ok() || memos != memoCount) return false;
  loaded = Loaded{std::move(bytes), std::move(slots), std::move(texts), slotCount, textCount, published};
  knownChecksum = checksum;
  knownMemos = memoCount;
  return true;
}

// The file's bytes, into a checksum and, when `fd` is given, into the file.
class Writer : public DmsMemoSink {
 public:
  explicit Writer(int fd) : fd_(fd) {}
  void bytes(const void* data, size_t count) override {
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
  uint32_t items = 0;  // in the tree, with a memo or without
  uint32_t memos = 0;
  uint32_t texts = 0;
  uint32_t save = 0;
  uint64_t checksum = 0;
};

// The shared texts of the memos below `folder` that this save meets first.
void writeTexts(Writer& out, const DmsObject* folder, Counts& counts) {
  for (const DmsNode* node = folder->firstChild; node; node = node->nextSibling) {
    const DmsObject* child = node->target();
    if (DmsObject_IsFolder(child)) {
      writeTexts(out, child, counts);
      continue;
    }
    std::array<std::string_view, 3> met;
    const size_t count = child->kind == DmsKind_Item ? DmsMemo_NumberTexts(child, counts.save, counts.texts, met) : 0;
    for (size_t text = 0; text < count; ++text) out.text(met[text]);
  }
}

// The memos of `folder`, whose path relative to the published one is
// `relative`, and those below it.
void writeMemos(Writer& out, const DmsObject* folder, std::string& relative, Counts& counts) {
  uint32_t memos = 0;
  for (const DmsNode* node = folder->firstChild; node; node = node->nextSibling) {
    const DmsObject* child = node->target();
    if (child->kind != DmsKind_Item) continue;
    counts.items += 1;
    memos += DmsObject_Memo(child) != nullptr;
  }
  if (memos > 0) {
    out.text(relative);
    out.number(memos);
    for (const DmsNode* node = folder->firstChild; node; node = node->nextSibling) {
      const DmsObject* child = node->target();
      if (child->kind != DmsKind_Item || !DmsObject_Memo(child)) continue;
      out.text(child->title());
      DmsMemo_Write(child, out);
    }
    counts.memos += memos;
  }
  for (const DmsNode* node = folder->firstChild; node; node = node->nextSibling) {
    const DmsObject* child = node->target();
    if (!DmsObject_IsFolder(child)) continue;
    const size_t length = relative.size();
    relative.append("/").append(child->title());
    writeMemos(out, child, relative, counts);
    relative.resize(length);
  }
}

// The whole file, in the order of the tree. Throws std::bad_alloc when
// memory for a folder's path runs out.
Counts writeFile(Writer& out, const std::string& publishedPath) {
  Counts counts;
  counts.save = ++lastSave;
  out.bytes(kMagic.data(), kMagic.size());
  out.byte(kVersion);
  out.byte(sizeof(void*));
  out.byte(byteOrder());
  out.text(publishedPath);
  if (const DmsObject* volume = DmsObject_Find(DmsId_MediaDirectory)) {
    writeTexts(out, volume, counts);
    std::string relative;
    writeMemos(out, volume, relative, counts);
  }
  out.littleEndian(counts.memos, 4);
  out.littleEndian(counts.texts, 4);
  counts.checksum = out.checksum();
  out.littleEndian(counts.checksum, 8);
  return counts;
}

void forgetLoaded() { loaded = Loaded{}; }

// Loads the file, with `fileMutex` held.
void loadFile(const std::string& directory, const std::string& publishedPath) {
  forgetLoaded();
  knownChecksum = 0;
  knownMemos = 0;
  try {
    if (std::optional<Mapping> bytes = readFile(directory + "/" + DmsMemoFile_Name)) {
      index(std::move(*bytes), publishedPath);
    }
  } catch (const std::bad_alloc&) {  // without memory to read it, no file
  }
}

}  // namespace

void DmsMemoFile_Load(const std::string& directory, const std::string& publishedPath) {
  const std::lock_guard fileLock(fileMutex);
  loadFile(directory, publishedPath);
}

MediaStreamPtr DmsMemoFile_Take(std::string_view folderPath, std::string_view name, const struct stat& file) {
  const std::lock_guard fileLock(fileMutex);
  if (!loaded.slotCount || !folderPath.starts_with(loaded.publishedPath)) return nullptr;
  const std::string_view folder = folderPath.substr(loaded.publishedPath.size());
  const Slot* slots = slotTable();
  for (size_t slot = slotOf(folder, name, loaded.slotCount); slots[slot].record != 0;
       slot = (slot + 1) & (loaded.slotCount - 1)) {
    // The index was made of these bytes: they read as they did then.
    VarintReader record(loaded.bytes.data() + slots[slot].record - 1, loaded.bytes.end());
    VarintReader path(loaded.bytes.data() + slots[slot].folder, loaded.bytes.end());
    if (record.text(kMaxTextSize) == name && path.text(kMaxFileSize) == folder) {
      return DmsMemo_Take(record.position(), loaded.bytes.end(), loadedTexts(), file);
    }
  }
  return nullptr;
}

void DmsMemoFile_Unload() {
  const std::lock_guard fileLock(fileMutex);
  forgetLoaded();
}

void DmsMemoFile_PassEnded(const std::string& directory, const std::string& publishedPath,
                           std::unique_lock<DmsContentMutex>& lock) {
  const std::lock_guard fileLock(fileMutex);
  Counts counts;
  try {
    Writer measure(-1);
    counts = writeFile(measure, publishedPath);
  } catch (const std::bad_alloc&) {  // the previous file stays, and what was loaded
    return;
  }
  // A pass that found no item where the file knows some did not see the
  // library (a disk not mounted yet, or unplugged): the file stays, and its
  // memos stay at hand for the pass that sees the library again.
  if (counts.items == 0 && knownMemos > 0) {
    lock.unlock();
    if (!loaded.slotCount) loadFile(directory, publishedPath);
    return;
  }
  forgetLoaded();
  if (counts.checksum == knownChecksum) return;

  std::string path, next;
  try {
    path = directory + "/" + DmsMemoFile_Name;
    next = directory + "/" + DmsMemoFile_NewName;
  } catch (const std::bad_alloc&) {  // the previous file stays
    return;
  }
  UniqueFd fd(::open(next.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644));
  if (!fd.valid()) return;
  Writer out(fd.get());
  try {
    counts = writeFile(out, publishedPath);
  } catch (const std::bad_alloc&) {
    ::unlink(next.c_str());
    return;
  }
  const bool written = out.flush();
  lock.unlock();
  const UniqueFd folder(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (written && ::fsync(fd.get()) == 0 && ::close(fd.release()) == 0 && ::rename(next.c_str(), path.c_str()) == 0 &&
      folder.valid() && ::fsync(folder.get()) == 0) {
    knownChecksum = counts.checksum;
    knownMemos = counts.memos;
    return;
  }
  ::unlink(next.c_str());
}
