// The content tree: one DmsObject per container, item or reference, linked
// to its parent and siblings and kept in an id table that grows with the
// library. All of it is guarded by the content mutex of the media server.
#pragma once

#include <array>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

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

// Ids of the fixed containers.
inline constexpr DmsObjectId DmsId_Root{0, 0};
inline constexpr DmsObjectId DmsId_MediaDirectory{0, 1};
inline constexpr DmsObjectId DmsId_Pictures{0, 2};
inline constexpr DmsObjectId DmsId_Videos{0, 3};
inline constexpr DmsObjectId DmsId_Music{0, 4};

// The most memo bytes an item's block keeps (their count is one byte).
inline constexpr size_t DmsObject_MaxMemoSize = 255;

// Bits of DmsObject::flags.
enum DmsObjectFlag : uint8_t {
  DmsFlag_Title = 1,    // the title's text follows the object
  DmsFlag_Checked = 2,  // items: the memo is known to describe the file (DmsWatch.h)
  DmsFlag_Watched = 4,  // folders: the watch reports every change made in the folder (DmsWatch.h)
};

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

// An object's title: a view of text kept in the same block as the object
// (the empty text for none), so that a title costs no allocation of its own.
class DmsTitle {
 public:
  explicit DmsTitle(const char* text) : text_(text) {}
  const char* c_str() const { return text_; }
  bool empty() const { return text_[0] == '\0'; }
  size_t size() const { return std::strlen(text_); }
  operator std::string_view() const { return text_; }
  operator std::string() const { return text_; }
  friend bool operator==(const DmsTitle& title, std::string_view text) { return text == title.text_; }

 private:
  const char* text_;
};

// One node of the tree. The library keeps over four of these per file, so
// every byte counts on the board: the title follows the object in its block,
// the class is a table index, and the members after `pass` overlap by kind
// (each kind needs only its own; code reads those of the object's kind alone).
struct DmsObject {
  DmsObjectId id;
  DmsObject* parent = nullptr;
  DmsObject* nextSibling = nullptr;
  DmsObject* nextInBucket = nullptr;
  DmsObjectKind kind = DmsKind_Container;
  uint8_t mediaClass = DmsClass_None;
  uint8_t flags = 0;      // DmsObjectFlag bits
  uint8_t memoSize = 0;   // items: bytes of memo after the title (DmsMemo.h)
  int32_t pass = 0;       // scan pass in which the object was last seen

  union {
    DmsObject* firstChild = nullptr;  // containers
    const char* mimeType;             // items: static text from the media parser
    DmsObject* item;                  // references
  };
  union {
    int32_t childCount = 0;    // containers; -1: a folder that was never read
    int64_t modificationTime;  // items
    DmsObject* nextReference;  // references: the next reference to the same item
  };
  union {
    uint32_t updateId = 0;  // containers
    DmsObject* references;  // items: the references made to this item
  };

  DmsTitle title() const { return DmsTitle(flags & DmsFlag_Title ? reinterpret_cast<const char*>(this + 1) : ""); }
  // An entry of dlnaMediaClasses.
  const char* upnpClass() const { return dlnaMediaClasses[mediaClass]; }
};

// Gives back what an item's memo holds (the counts of its shared texts) when
// the memo goes: with its item, or with an item that could not be made. The
// memo module sets it when it first counts a shared text; until then no memo
// holds anything to give back.
using DmsObject_MemoRelease = void (*)(const uint8_t* memo);
void DmsObject_SetMemoRelease(DmsObject_MemoRelease release);

// Creates an object and links it into `parent` after `after` (at the head of
// the children when `after` is null). Null when memory runs out. An item's
// `memo` of `memoSize` bytes is kept in the object's block, which owns the
// shared texts it counts from then on (they are given back at once when the
// object cannot be made).
DmsObject* DmsObject_New(DmsObjectId id, const char* title, const char* upnpClass, DmsObjectKind kind,
                         DmsObject* parent, DmsObject* after, const uint8_t* memo = nullptr, uint8_t memoSize = 0);
// The memo bytes of an item, or null when it keeps none. They belong to the
// tree's block of the object: whoever may change the object (under the
// content mutex) may rewrite them.
const uint8_t* DmsObject_Memo(const DmsObject* object);
uint8_t* DmsObject_Memo(DmsObject* object);
// True for an object that stands for a folder of the media directory: a
// storage folder, or the storage volume that is the directory itself.
bool DmsObject_IsFolder(const DmsObject* object);
// True when the container's child list and its count agree and every child
// names the container as its parent (for asserts).
bool DmsObject_ChildrenConsistent(const DmsObject* container);
// Removes the object with `id`, everything below it and every reference to it.
void DmsObject_Free(DmsObjectId id);
DmsObject* DmsObject_Find(DmsObjectId id);
// The file-system path of a scanned object: the titles from below the root
// down to the object, joined with "/". Empty when a title on the way is empty or
// memory runs out.
std::string DmsObject_GetPath(const DmsObject* object);

// The counter of library changes that ContentDirectory publishes.
uint32_t DmsContent_SystemUpdateId();
void DmsContent_RaiseSystemUpdateId();
