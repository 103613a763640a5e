// Content tree operations: creation with ordered linking, recursive removal
// that also unlinks the references of the items it removes, lookup by id
// (a reference's through its item), and the path of a scanned entry built
// from the titles up to the media-directory volume.
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

// Objects with their references and titles come from slabs, in size classes
// of one alignment step, and go back to the free list of their class: one
// block per object, and no allocator overhead beside it. The slabs are given back when
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
  static_assert(kGranule >= alignof(FreeBlock) && kGranule >= alignof(Slab) && sizeof(DmsObject) >= sizeof(FreeBlock) &&
                sizeof(DmsObject) % alignof(DmsNode) == 0);
  static constexpr size_t kSlabBytes = 32768;
  // A file name is at most 255 bytes, and its memo as many; longer titles (a
  // configured path) are rare.
  static constexpr size_t kLargestPooled =
      sizeof(DmsObject) + DmsObject_MaxReferences * sizeof(DmsNode) + 256 + DmsObject_MaxMemoSize;

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

// The id table of the containers and items (references are found through
// their items): a power-of-two number of buckets, doubled whenever the
// objects outnumber the buckets four times over, so that a chain stays a few
// objects long whatever the size of the library, at about one byte of table
// per object on the board. Each chain keeps the order in which its objects
// came (newest first) through every doubling.
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

// Where a reference's id carries its view bit (see DmsNode_Id).
constexpr unsigned kViewShift = 32;
constexpr uint64_t kViewMask = 0xff;

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

// The object, an item's reference records, its title and an item's memo
// share one block.
size_t blockSize(size_t referenceSlots, const char* title, size_t memoSize) {
  return sizeof(DmsObject) + referenceSlots * sizeof(DmsNode) + (title && title[0] ? std::strlen(title) + 1 : 0) +
         memoSize;
}

// Links `node` into the children of `parent` after `after` (at the head when null).
void linkNode(DmsNode* node, DmsObject* parent, DmsNode* after) {
  assert(!after || after->parent == parent);
  node->parent = parent;
  DmsNode*& link = after ? after->nextSibling : parent->firstChild;
  node->nextSibling = link;
  link = node;
  parent->childCount = parent->childCount < 1 ? 1 : parent->childCount + 1;
  parent->updateId += 1;
}

// Takes `node` out of its parent's children; a reference record stays, unlinked.
void unlinkNode(DmsNode* node) {
  DmsObject* parent = node->parent;
  DmsNode** at = &parent->firstChild;
  while (*at != node) {
    assert(*at && "a child missing from its parent's list");
    at = &(*at)->nextSibling;
  }
  *at = node->nextSibling;
  assert(parent->childCount > 0);
  parent->childCount -= 1;
  parent->updateId += 1;
  node->parent = nullptr;
  node->nextSibling = nullptr;
}

void freeObject(DmsObject* object) {
  if (object->kind == DmsKind_Container) {
    while (DmsNode* child = object->firstChild) {
      if (child->kind == DmsKind_Reference) unlinkNode(child);
      else freeObject(child->target());
    }
  } else if (object->kind == DmsKind_Item) {
    for (uint8_t slot = 0; slot < object->referenceSlots; ++slot) {
      DmsNode* reference = DmsObject_Reference(object, slot);
      if (reference->parent) unlinkNode(reference);
    }
  }
  idTable.remove(object);
  if (object->parent) unlinkNode(object);
  const size_t bytes =
      blockSize(object->kind == DmsKind_Item ? object->referenceSlots : 0, object->title().c_str(), object->memoSize);
  releaseMemo(DmsObject_Memo(object), object->memoSize);
  object->~DmsObject();
  pool.release(object, bytes);
}

// The memo bytes in the block of `object`, writable when the object is.
template <typename Byte, typename Object>
Byte* memoBytes(Object* object) {
  if (object->memoSize == 0) return nullptr;
  auto* memo = object->afterReferences();
  if (object->flags & DmsFlag_Title) memo += object->title().size() + 1;
  return reinterpret_cast<Byte*>(memo);
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
                         DmsObject* parent, DmsNode* after, const uint8_t* memo, uint8_t memoSize,
                         uint8_t referenceSlots) {
  assert(DmsContent_Guarded());
  assert(!after || after->parent == parent);
  assert(kind != DmsKind_Reference);
  assert(memoSize == 0 || kind == DmsKind_Item);
  assert(referenceSlots <= DmsObject_MaxReferences && (referenceSlots == 0 || kind == DmsKind_Item));
  const size_t titleBytes = blockSize(0, title, 0) - sizeof(DmsObject);
  const size_t bytes = blockSize(referenceSlots, title, memoSize);
  void* block = pool.allocate(bytes);
  if (!block) {
    releaseMemo(memo, memoSize);
    return nullptr;
  }
  auto* object = new (block) DmsObject;
  object->kind = kind;
  if (kind == DmsKind_Item) {
    object->mimeType = nullptr;
    object->modificationTime = 0;
    object->referenceSlots = referenceSlots;
    auto* references = reinterpret_cast<DmsNode*>(object + 1);
    for (uint8_t slot = 0; slot < referenceSlots; ++slot) {
      DmsNode* reference = new (references + slot) DmsNode;
      reference->kind = DmsKind_Reference;
      reference->slot = slot;
    }
  }
  if (titleBytes > 0) {
    std::memcpy(object->afterReferences(), title, titleBytes);
    object->flags |= DmsFlag_Title;
  }
  if (memoSize > 0) {
    object->memoSize = memoSize;
    std::memcpy(DmsObject_Memo(object), memo, memoSize);
  }
  object->id = id;
  object->mediaClass = classIndex(upnpClass);
  if (kind == DmsKind_Container) {
    if (DmsObject_IsFolder(object)) object->childCount = -1;
    object->updateId = DmsContent_SystemUpdateId();
  }
  if (!idTable.insert(object)) {
    releaseMemo(memo, memoSize);
    pool.release(object, bytes);
    return nullptr;
  }

  if (parent && parent->kind == DmsKind_Container) linkNode(object, parent, after);
  return object;
}

DmsNode* DmsObject_Reference(DmsObject* item, uint8_t slot) {
  assert(item->kind == DmsKind_Item && slot < item->referenceSlots);
  return reinterpret_cast<DmsNode*>(item + 1) + slot;
}

void DmsObject_LinkReference(DmsNode* reference, uint8_t viewBit, DmsObject* container, DmsNode* after) {
  assert(DmsContent_Guarded());
  assert(reference->kind == DmsKind_Reference && !reference->parent && container->kind == DmsKind_Container);
  reference->viewBit = viewBit;
  linkNode(reference, container, after);
}

bool DmsObject_ChildrenConsistent(const DmsObject* container) {
  int32_t count = 0;
  for (const DmsNode* child = container->firstChild; child; child = child->nextSibling, ++count) {
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

DmsObjectId DmsNode_Id(const DmsNode* node) {
  const DmsObject* target = node->target();
  if (node == target) return target->id;
  return {target->id.high | (uint64_t{node->viewBit} << kViewShift), target->id.low};
}

DmsNode* DmsNode_Find(DmsObjectId id) {
  if (DmsObject* object = DmsObject_Find(id)) return object;
  // A reference: its item's id is the same without one of the view bits.
  for (uint64_t viewBits = (id.high >> kViewShift) & kViewMask; viewBits != 0; viewBits &= viewBits - 1) {
    const uint64_t viewBit = viewBits & (~viewBits + 1);
    DmsObject* item = DmsObject_Find({id.high & ~(viewBit << kViewShift), id.low});
    if (!item || item->kind != DmsKind_Item) continue;
    for (uint8_t slot = 0; slot < item->referenceSlots; ++slot) {
      DmsNode* reference = DmsObject_Reference(item, slot);
      if (reference->parent && reference->viewBit == viewBit) return reference;
    }
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
