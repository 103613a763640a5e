// Content tree operations: creation with ordered linking, recursive removal
// that also drops the references made to items, lookup by id, and the path
// of a scanned entry built from the titles up to the media-directory volume.
#include "dms/DmsObject.h"

#include <atomic>
#include <charconv>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

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

constexpr size_t kBucketCount = 251;
std::array<DmsObject*, kBucketCount> idTable{};
// Written under the content mutex; read without it by the eventing thread.
std::atomic<uint32_t> systemUpdateId{0};

DmsObject*& bucketOf(DmsObjectId id) { return idTable[id.low % kBucketCount]; }

// Unlinks `target` from the singly linked list that starts at `head` and
// continues through `link`.
void unlinkFrom(DmsObject*& head, DmsObject* target, DmsObject* DmsObject::*link) {
  for (DmsObject** at = &head; *at; at = &((*at)->*link)) {
    if (*at == target) {
      *at = target->*link;
      return;
    }
  }
}

void freeObject(DmsObject* object) {
  if (object->kind == DmsKind_Container) {
    while (object->firstChild) freeObject(object->firstChild);
  } else if (object->kind == DmsKind_Item) {
    while (object->references) freeObject(object->references);
  } else if (object->item) {
    unlinkFrom(object->item->references, object, &DmsObject::nextReference);
  }
  unlinkFrom(bucketOf(object->id), object, &DmsObject::nextInBucket);
  if (DmsObject* parent = object->parent) {
    unlinkFrom(parent->firstChild, object, &DmsObject::nextSibling);
    parent->childCount -= 1;
    parent->updateId += 1;
  }
  delete object;
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
  return object->upnpClass == dlnaMediaClasses[DmsClass_StorageFolder] ||
         object->upnpClass == dlnaMediaClasses[DmsClass_StorageVolume];
}

DmsObject* DmsObject_New(DmsObjectId id, const char* title, const char* upnpClass, DmsObjectKind kind,
                         DmsObject* parent, DmsObject* after) {
  auto* object = new (std::nothrow) DmsObject;
  if (!object) return nullptr;
  object->id = id;
  if (title) object->title = title;
  object->upnpClass = upnpClass;
  object->kind = kind;
  if (DmsObject_IsFolder(object)) object->childCount = -1;
  if (kind == DmsKind_Container) object->updateId = DmsContent_SystemUpdateId();

  DmsObject*& bucket = bucketOf(id);
  object->nextInBucket = bucket;
  bucket = object;

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

void DmsObject_Free(DmsObjectId id) {
  if (DmsObject* object = DmsObject_Find(id)) freeObject(object);
}

DmsObject* DmsObject_Find(DmsObjectId id) {
  for (DmsObject* object = bucketOf(id); object; object = object->nextInBucket) {
    if (object->id == id) return object;
  }
  return nullptr;
}

std::string DmsObject_GetPath(const DmsObject* object) {
  std::string path;
  for (; object && object->parent; object = object->parent) {
    if (object->title.empty()) return {};
    path = path.empty() ? object->title : object->title + "/" + path;
  }
  return path;
}

uint32_t DmsContent_SystemUpdateId() { return systemUpdateId.load(std::memory_order_relaxed); }

void DmsContent_RaiseSystemUpdateId() { systemUpdateId.fetch_add(1, std::memory_order_relaxed); }
