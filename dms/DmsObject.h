// The content tree: one DmsObject per container, item or reference, linked
// to its parent and siblings and kept in a 251-bucket id table. All of it is
// guarded by the content mutex of the media server.
#pragma once

#include <array>
#include <cstdint>
#include <string>

struct DmsObjectId {
  uint64_t high = 0;
  uint64_t low = 0;
  friend bool operator==(const DmsObjectId&, const DmsObjectId&) = default;
};

// Text form "%llu.%llu"; at most 41 characters and the terminator.
inline constexpr int DmsObjectId_TextSize = 42;
int DmsObjectId_Format(DmsObjectId id, char text[DmsObjectId_TextSize]);
// Parses "high.low" in decimal; false for anything else.
bool DmsObjectId_Parse(const char* text, DmsObjectId& id);

enum DmsObjectKind : uint8_t {
  DmsKind_Container = 1,
  DmsKind_Item = 2,
  DmsKind_Reference = 3,
};

// The upnp:class texts, indexed by number; objects point into this table.
enum DmsMediaClass {
  DmsClass_None,
  DmsClass_Container,
  DmsClass_Person,
  DmsClass_MusicArtist,
  DmsClass_Album,
  DmsClass_MusicAlbum,
  DmsClass_PhotoAlbum,
  DmsClass_Genre,
  DmsClass_MusicGenre,
  DmsClass_MovieGenre,
  DmsClass_StorageVolume,
  DmsClass_StorageFolder,
  DmsClass_Item,
  DmsClass_AudioItem,
  DmsClass_VideoItem,
  DmsClass_ImageItem,
  DmsClass_Count,
};
extern const std::array<const char*, DmsClass_Count> dlnaMediaClasses;

struct DmsObject {
  DmsObjectId id;
  std::string title;
  const char* upnpClass = nullptr;  // an entry of dlnaMediaClasses
  DmsObject* parent = nullptr;
  DmsObject* nextSibling = nullptr;
  DmsObject* nextInBucket = nullptr;
  DmsObjectKind kind = DmsKind_Container;
  int32_t pass = 0;  // scan pass in which the object was last seen

  // Containers.
  DmsObject* firstChild = nullptr;
  int32_t childCount = 0;  // -1: a folder that was never read
  uint32_t updateId = 0;

  // Items.
  const char* mimeType = nullptr;  // static text from the media parser
  int64_t modificationTime = 0;
  DmsObject* references = nullptr;  // references made to this item

  // References.
  DmsObject* item = nullptr;
  DmsObject* nextReference = nullptr;  // next reference to the same item
};

// Creates an object and links it into `parent` after `after` (at the head of
// the children when `after` is null). Null when memory runs out.
DmsObject* DmsObject_New(DmsObjectId id, const char* title, const char* upnpClass, DmsObjectKind kind,
                         DmsObject* parent, DmsObject* after);
// True for an object that stands for a folder of the media directory: a
// storage folder, or the storage volume that is the directory itself.
bool DmsObject_IsFolder(const DmsObject* object);
// Removes the object with `id`, everything below it and every reference to it.
void DmsObject_Free(DmsObjectId id);
DmsObject* DmsObject_Find(DmsObjectId id);
// The file-system path of a scanned object: the titles from below the root
// down to the object, joined with "/". Empty when a title on the way is empty.
std::string DmsObject_GetPath(const DmsObject* object);

// The counter of library changes that ContentDirectory publishes.
uint32_t DmsContent_SystemUpdateId();
void DmsContent_RaiseSystemUpdateId();
