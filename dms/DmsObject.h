// The content tree: one DmsObject per container or item, linked to its
// parent and siblings and kept in an id table that grows with the library,
// and the references of the items, kept with them. All of it is guarded by
// the content mutex of the media server.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <type_traits>

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

struct DmsObject;

// A place in a container's child list: what every child has. Containers and
// items are whole objects (DmsObject, which extends this); a reference is
// this record alone, kept in its item's block right after the item, so that
// the item is found from the record's slot and the reference's id from the
// item's. The library keeps some four references per file.
struct DmsNode {
  DmsObject* parent = nullptr;  // null: a reference that is not linked in
  DmsNode* nextSibling = nullptr;
  DmsObjectKind kind = DmsKind_Container;
  uint8_t flags = 0;  // DmsObjectFlag bits
  union {
    uint8_t mediaClass = DmsClass_None;  // objects
    uint8_t viewBit;                     // references: the view, as their ids carry it
  };
  union {
    uint8_t memoSize = 0;  // items: bytes of memo after the title (DmsMemo.h)
    uint8_t slot;          // references: the position among the item's references
  };

  // The object the node stands for: itself, or a reference's item.
  DmsObject* target();
  const DmsObject* target() const;
};

// The most references an item keeps: one per view of its top container.
inline constexpr size_t DmsObject_MaxReferences = 4;

// One container or item. The library keeps some two of these per file, so
// every byte counts on the board: the references and the title follow the
// object in its block, the class is a table index, and the members in
// unions overlap by kind (each kind needs only its own; code reads those of
// the object's kind alone).
struct DmsObject : DmsNode {
  DmsObjectId id;
  DmsObject* nextInBucket = nullptr;

  union {
    DmsNode* firstChild = nullptr;  // containers
    const char* mimeType;           // items: static text from the media parser
  };
  union {
    int32_t childCount = 0;    // containers; -1: a folder that was never read
    int64_t modificationTime;  // items
  };
  int32_t pass = 0;  // scan pass in which the object was last seen
  union {
    uint32_t updateId = 0;     // containers
    uint32_t referenceSlots;   // items: reference records after the object
  };

  DmsTitle title() const { return DmsTitle(flags & DmsFlag_Title ? afterReferences() : ""); }
  // An entry of dlnaMediaClasses.
  const char* upnpClass() const { return dlnaMediaClasses[mediaClass]; }
  // The first byte after the object's reference records: its title, if any.
  const char* afterReferences() const { return tailOf<const char>(this); }
  char* afterReferences() { return tailOf<char>(this); }

 private:
  template <typename Char, typename Object>
  static Char* tailOf(Object* object) {
    const size_t references = object->kind == DmsKind_Item ? object->referenceSlots : 0;
    return reinterpret_cast<Char*>(object + 1) + references * sizeof(DmsNode);
  }
};

namespace DmsNodeDetail {
// A reference's item: the object in front of its slot's records.
template <typename Object, typename Node>
Object* targetOf(Node* node) {
  if (node->kind != DmsKind_Reference) return static_cast<Object*>(node);
  using Byte = std::conditional_t<std::is_const_v<Node>, const std::byte, std::byte>;
  return reinterpret_cast<Object*>(reinterpret_cast<Byte*>(node - node->slot) - sizeof(DmsObject));
}
}  // namespace DmsNodeDetail

inline DmsObject* DmsNode::target() { return DmsNodeDetail::targetOf<DmsObject>(this); }

inline const DmsObject* DmsNode::target() const { return DmsNodeDetail::targetOf<const DmsObject>(this); }

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
// object cannot be made), and so are its `referenceSlots` reference records
// (at most DmsObject_MaxReferences), not linked in yet.
DmsObject* DmsObject_New(DmsObjectId id, const char* title, const char* upnpClass, DmsObjectKind kind,
                         DmsObject* parent, DmsNode* after, const uint8_t* memo = nullptr, uint8_t memoSize = 0,
                         uint8_t referenceSlots = 0);
// The item's reference record in `slot` (below its referenceSlots), linked or not.
DmsNode* DmsObject_Reference(DmsObject* item, uint8_t slot);
// Links an unlinked reference record into `container` after `after` (at the
// head of the children when null), in the view that `viewBit` names (a bit
// of the top word of its id: see DmsNode_Id).
void DmsObject_LinkReference(DmsNode* reference, uint8_t viewBit, DmsObject* container, DmsNode* after);
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
// Removes the object with `id`, everything below it and every reference to
// an item among them.
void DmsObject_Free(DmsObjectId id);
// The container or item with `id`; null for anything else.
DmsObject* DmsObject_Find(DmsObjectId id);
// A node's id. A reference's is its item's with the view bit in the top
// word of the high part: {item.high | viewBit << 32, item.low}.
DmsObjectId DmsNode_Id(const DmsNode* node);
// The container, item or linked reference with `id`.
DmsNode* DmsNode_Find(DmsObjectId id);
// The file-system path of a scanned object: the titles from below the root
// down to the object, joined with "/". Empty when a title on the way is empty or
// memory runs out.
std::string DmsObject_GetPath(const DmsObject* object);

// The counter of library changes that ContentDirectory publishes.
uint32_t DmsContent_SystemUpdateId();
void DmsContent_RaiseSystemUpdateId();
