// Content tree operations: creation with ordered linking, recursive removal
// that also drops the references made to items, lookup by id, and the path
// of a scanned entry built from the titles up to the media-directory volume.
#include "dms/DmsObject.h"

#include <atomic>
#include <cassert>
#include <charconv>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include "dms/DmsServerState.h"

const std::array<const char*, DmsClass_Count> dlnaMediaClasses = {
    "",
    "object.container",
    "object.container.person",
    "object.container.person.musicArtist",
    "object.container.album",
    "object.container.album.musicAlbum",
    "object.container.album.photoAlbum",
    "object.container.genre",
    "object.container.genre.musicGenre",
    "object.container.genre.movieGenre",
    "object.container.storageVolume",
    "object.container.storageFolder",
    "object.item",
    "object.item.audioItem",
    "object.item.videoItem",
    "object.item.imageItem",
};

namespace {

// Objects with their titles come from slabs, in size classes of one
// alignment step, and go back to the free list of their class: one block per
// object, and no allocator overhead beside it. The slabs are given back when
// the last object goes (the tree is freed whole when the server closes).
class ObjectPool {
 public:
  void* allocate(size_t bytes) {
    if (bytes > kLargestPooled) return ::operator new(bytes, std::nothrow);
    FreeBlock*& list = freeLists_[classOf(bytes)];
    live_ += 1;
    if (FreeBlock* block = list) {
      list = block->next;
      return block;
    }
    const size_t rounded = classOf(bytes) * kGranule;
    if (left_ < rounded) {
      auto* slab = new (std::nothrow) std::byte[kSlabBytes];
      if (!slab) {
        live_ -= 1;
        return nullptr;
      }
      slabs_ = new (slab) Slab{slabs_};
      cursor_ = slab + kSlabHeader;
      left_ = kSlabBytes - kSlabHeader;
    }
    void* block = cursor_;
    cursor_ += rounded;
    left_ -= rounded;
    return block;
  }

  void release(void* block, size_t bytes) {
    if (bytes > kLargestPooled) {
      ::operator delete(block);
      return;
    }
    FreeBlock*& list = freeLists_[classOf(bytes)];
    list = new (block) FreeBlock{list};
    if (--live_ == 0) reset();
  }

 private:
  struct FreeBlock {
    FreeBlock* next;
  };
  // Each slab begins with the link to the one taken before it.
  struct Slab {
    Slab* previous;
  };
  static constexpr size_t kGranule = alignof(DmsObject);
  static_assert(kGranule >= alignof(FreeBlock) && kGranule >= alignof(Slab) && sizeof(DmsObject) >= sizeof(FreeBlock));
  static constexpr size_t kSlabBytes = 32768;
  // A file name is at most 255 bytes, and its memo as many; longer titles (a
  // configured path) are rare.
  static constexpr size_t kLargestPooled = sizeof(DmsObject) + 256 + DmsObject_MaxMemoSize;

  static constexpr size_t kSlabHeader = (sizeof(Slab) + kGranule - 1) / kGranule * kGranule;

  static size_t classOf(size_t bytes) { return (bytes + kGranule - 1) / kGranule; }

  void reset() {
    while (Slab* slab = slabs_) {
      slabs_ = slab->previous;
      delete[] reinterpret_cast<std::byte*>(slab);
    }
    freeLists_.fill(nullptr);
    cursor_ = nullptr;
    left_ = 0;
  }

  Slab* slabs_ = nullptr;
  std::array<FreeBlock*, kLargestPooled / kGranule + 2> freeLists_{};
  std::byte* cursor_ = nullptr;
  size_t left_ = 0;
  uint32_t live_ = 0;
};

// The id table: a power-of-two number of buckets, doubled whenever the
// objects outnumber the buckets four times over, so that a chain stays a few
// objects long whatever the size of the library, at about one byte of table
// per object on the board. Each chain keeps the order in which
// its objects came (newest first) through every doubling.
class IdTable {
 public:
  // The first object in the chain of `id`; null while the table is empty.
  DmsObject* chainOf(DmsObjectId id) const { return buckets_ ? buckets_[indexOf(id, bits_)] : nullptr; }

  // False when the table cannot be made (its first insert runs out of memory).
  bool insert(DmsObject* object) {
    if (!buckets_) {
      buckets_.reset(new (std::nothrow) DmsObject*[size_t{1} << kInitialBits]());
      if (!buckets_) return false;
    }
    if (count_ >= kLoad * (uint32_t{1} << bits_)) grow();
    DmsObject*& bucket = buckets_[indexOf(object->id, bits_)];
    object->nextInBucket = bucket;
    bucket = object;
    count_ += 1;
    return true;
  }

  void remove(DmsObject* object) {
    for (DmsObject** at = &buckets_[indexOf(object->id, bits_)]; *at; at = &(*at)->nextInBucket) {
      if (*at == object) {
        *at = object->nextInBucket;
        count_ -= 1;
        return;
      }
    }
    assert(!"an object missing from the id table");
  }

 private:
  static constexpr unsigned kInitialBits = 8;
  static constexpr uint32_t kLoad = 4;

  static uint32_t indexOf(DmsObjectId id, unsigned bits) {
    // Items and their references share the low part; the high part tells them apart.
    const uint64_t mixed = (id.low + id.high * 0x9E3779B97F4A7C15ull) * 0xBF58476D1CE4E5B9ull;
    return static_cast<uint32_t>(mixed >> (64 - bits));
  }

  // Keeps the table as it is when memory for a larger one is missing: the
  // chains then only grow longer.
  void grow() {
    const unsigned bits = bits_ + 1;
    auto buckets = std::unique_ptr<DmsObject*[]>(new (std::nothrow) DmsObject*[size_t{1} << bits]());
    if (!buckets) return;
    for (uint32_t index = 0; index < (uint32_t{1} << bits_); ++index) {
      DmsObject* object = buckets_[index];
      while (object) {
        DmsObject* next = object->nextInBucket;
        DmsObject** tail = &buckets[indexOf(object->id, bits)];
        while (*tail) tail = &(*tail)->nextInBucket;
        object->nextInBucket = nullptr;
        *tail = object;
        object = next;
      }
    }
    buckets_ = std::move(buckets);
    bits_ = bits;
  }

  std::unique_ptr<DmsObject*[]> buckets_;  // made by the first insert
  unsigned bits_ = kInitialBits;
  uint32_t count_ = 0;
};

// The tree's state, guarded by the content mutex.
ObjectPool pool;
IdTable idTable;
DmsObject_MemoRelease memoRelease = nullptr;
// Written under the content mutex; read without it by the eventing thread.
std::atomic<uint32_t> systemUpdateId{0};

uint8_t classIndex(const char* upnpClass) {
  for (size_t index = 0; index < dlnaMediaClasses.size(); ++index) {
    if (dlnaMediaClasses[index] == upnpClass) return static_cast<uint8_t>(index);
  }
  return DmsClass_None;
}

// Gives back what the memo of `size` bytes at `memo` holds.
void releaseMemo(const uint8_t* memo, uint8_t size) {
  if (size > 0 && memoRelease) memoRelease(memo);
}

// The object, its title and an item's memo share one block.
size_t blockSize(const char* title, size_t memoSize) {
  return sizeof(DmsObject) + (title && title[0] ? std::strlen(title) + 1 : 0) + memoSize;
}

// Unlinks `target` from the singly linked list that starts at `head` and
// continues through `link`; false when it was not in the list.
bool unlinkFrom(DmsObject*& head, DmsObject* target, DmsObject* DmsObject::*link) {
  for (DmsObject** at = &head; *at; at = &((*at)->*link)) {
    if (*at == target) {
      *at = target->*link;
      return true;
    }
  }
  return false;
}

void freeObject(DmsObject* object) {
  if (object->kind == DmsKind_Container) {
    while (object->firstChild) freeObject(object->firstChild);
  } else if (object->kind == DmsKind_Item) {
    while (object->references) freeObject(object->references);
  } else if (object->item) {
    [[maybe_unused]] const bool listed = unlinkFrom(object->item->references, object, &DmsObject::nextReference);
    assert(listed);
  }
  idTable.remove(object);
  if (DmsObject* parent = object->parent) {
    [[maybe_unused]] const bool listed = unlinkFrom(parent->firstChild, object, &DmsObject::nextSibling);
    assert(listed && parent->childCount > 0);
    parent->childCount -= 1;
    parent->updateId += 1;
  }
  const size_t bytes = blockSize(object->title().c_str(), object->memoSize);
  releaseMemo(DmsObject_Memo(object), object->memoSize);
  object->~DmsObject();
  pool.release(object, bytes);
}

// The memo bytes in the block of `object`, writable when the object is.
template <typename Byte, typename Object>
Byte* memoBytes(Object* object) {
  if (object->memoSize == 0) return nullptr;
  Byte* block = reinterpret_cast<Byte*>(object + 1);
  return object->flags & DmsFlag_Title ? block + object->title().size() + 1 : block;
}

}  // namespace

int DmsObjectId_Format(DmsObjectId id, char text[DmsObjectId_TextSize]) {
  // to_chars: every Browse formats several ids per item, and printf's
  // format parsing cost more than the digits.
  char* end = std::to_chars(text, text + DmsObjectId_TextSize - 1, id.high).ptr;
  *end++ = '.';
  end = std::to_chars(end, text + DmsObjectId_TextSize - 1, id.low).ptr;
  *end = '\0';
  return static_cast<int>(end - text);
}

bool DmsObjectId_Parse(const char* text, DmsObjectId& id) {
  if (!text) return false;
  DmsObjectId parsed;
  int consumed = 0;
  if (std::sscanf(text, "%" SCNu64 ".%" SCNu64 "%n", &parsed.high, &parsed.low, &consumed) != 2) return false;
  if (text[consumed] != '\0') return false;
  id = parsed;
  return true;
}

bool DmsObject_IsFolder(const DmsObject* object) {
  return object->mediaClass == DmsClass_StorageFolder || object->mediaClass == DmsClass_StorageVolume;
}

void DmsObject_SetMemoRelease(DmsObject_MemoRelease release) {
  assert(DmsContent_Guarded());
  memoRelease = release;
}

DmsObject* DmsObject_New(DmsObjectId id, const char* title, const char* upnpClass, DmsObjectKind kind,
                         DmsObject* parent, DmsObject* after, const uint8_t* memo, uint8_t memoSize) {
  assert(DmsContent_Guarded());
  assert(!after || after->parent == parent);
  assert(memoSize == 0 || kind == DmsKind_Item);
  const size_t bytes = blockSize(title, memoSize);
  void* block = pool.allocate(bytes);
  if (!block) {
    releaseMemo(memo, memoSize);
    return nullptr;
  }
  auto* object = new (block) DmsObject;
  if (bytes > sizeof(DmsObject) + memoSize) {
    std::memcpy(object + 1, title, bytes - sizeof(DmsObject) - memoSize);
    object->flags |= DmsFlag_Title;
  }
  if (memoSize > 0) {
    object->memoSize = memoSize;
    std::memcpy(DmsObject_Memo(object), memo, memoSize);
  }
  object->id = id;
  object->mediaClass = classIndex(upnpClass);
  object->kind = kind;
  if (kind == DmsKind_Item) {
    object->mimeType = nullptr;
    object->modificationTime = 0;
    object->references = nullptr;
  } else if (kind == DmsKind_Reference) {
    object->item = nullptr;
    object->nextReference = nullptr;
  } else {
    if (DmsObject_IsFolder(object)) object->childCount = -1;
    object->updateId = DmsContent_SystemUpdateId();
  }
  if (!idTable.insert(object)) {
    releaseMemo(memo, memoSize);
    pool.release(object, bytes);
    return nullptr;
  }

  if (parent && parent->kind == DmsKind_Container) {
    object->parent = parent;
    DmsObject*& link = after ? after->nextSibling : parent->firstChild;
    object->nextSibling = link;
    link = object;
    parent->childCount = parent->childCount < 1 ? 1 : parent->childCount + 1;
    parent->updateId += 1;
  }
  return object;
}

bool DmsObject_ChildrenConsistent(const DmsObject* container) {
  int32_t count = 0;
  for (const DmsObject* child = container->firstChild; child; child = child->nextSibling, ++count) {
    if (child->parent != container) return false;
  }
  return count == (container->childCount < 0 ? 0 : container->childCount);
}

const uint8_t* DmsObject_Memo(const DmsObject* object) { return memoBytes<const uint8_t>(object); }

uint8_t* DmsObject_Memo(DmsObject* object) { return memoBytes<uint8_t>(object); }

void DmsObject_Free(DmsObjectId id) {
  assert(DmsContent_Guarded());
  if (DmsObject* object = DmsObject_Find(id)) freeObject(object);
}

DmsObject* DmsObject_Find(DmsObjectId id) {
  assert(DmsContent_Guarded());
  for (DmsObject* object = idTable.chainOf(id); object; object = object->nextInBucket) {
    if (object->id == id) return object;
  }
  return nullptr;
}

std::string DmsObject_GetPath(const DmsObject* object) {
  assert(DmsContent_Guarded());
  // Measured first, then filled from the end: one allocation per path.
  size_t length = 0;
  for (const DmsObject* step = object; step && step->parent; step = step->parent) {
    if (step->title().empty()) return {};
    length += step->title().size() + 1;
  }
  if (length == 0) return {};
  std::string path;
  try {
    path.assign(length - 1, '/');
  } catch (const std::bad_alloc&) {
    return {};
  }
  size_t end = path.size();
  for (const DmsObject* step = object; step && step->parent; step = step->parent) {
    const std::string_view title = step->title();
    end -= title.size();
    title.copy(path.data() + end, title.size());
    if (end > 0) end -= 1;
  }
  return path;
}

uint32_t DmsContent_SystemUpdateId() { return systemUpdateId.load(std::memory_order_relaxed); }

void DmsContent_RaiseSystemUpdateId() { systemUpdateId.fetch_add(1, std::memory_order_relaxed); }
