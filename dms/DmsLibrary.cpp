// Library scan and categorisation. A folder is re-read once per pass; files
// whose name and modification time are unchanged keep their objects, others
// are parsed again. New items get one reference per view (All, Artists,
// Albums, Genres, Moments), kept in title order inside sorted groups.
#include "dms/DmsLibrary.h"

#include <dirent.h>
#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <chrono>
#include <climits>
#include <ctime>
#include <new>
#include <string>
#include <vector>

#include "base/MemoryReserve.h"
#include "base/UniqueFd.h"
#include "dms/DmsMemo.h"
#include "dms/DmsMemoFile.h"
#include "dms/DmsNames.h"
#include "dms/DmsServerState.h"
#include "dms/DmsWatch.h"
#include "media/MediaStream.h"

namespace {

// Reference ids carry the kind of view in the top word of the high part.
constexpr uint8_t kViewAll = 2;
constexpr uint8_t kViewArtists = 4;
constexpr uint8_t kViewAlbums = 8;
constexpr uint8_t kViewMoments = 16;
constexpr uint8_t kViewGenres = 32;

constexpr char kUnknownGroup[] = "Unknown";

// Bytes of the kernel's first read-ahead after a one-page read (four pages).
constexpr off_t kSmallFile = 16384;

// The modification time of an item that is filed in only some of its views
// (memory ran out on the way): no file has it, so the next pass files the
// item again.
constexpr int64_t kRefileTime = INT64_MIN;

// Group containers (one artist, album, genre or day) take ids 0.10001 on;
// the counter is never reset, not even by a rescan. Guarded by the content mutex.
uint64_t lastGroupId = 10000;

const char* mediaClass(DmsMediaClass index) { return dlnaMediaClasses[index]; }

int64_t nowMicros() {
  using namespace std::chrono;
  return duration_cast<microseconds>(steady_clock::now().time_since_epoch()).count();
}

// The children of a folder being read, in list order, gathered at the first
// change of the read so that each new entry's place is found by binary
// search. The list is always in title order, ignoring case, as every entry
// goes in before the first child whose title is not less than its name;
// walking the list for each new entry made the first read of a folder of
// thousands of files quadratic.
class FolderChildren {
 public:
  explicit FolderChildren(DmsObject* folder) : folder_(folder) {}

  // Makes room in the list for one more entry; std::bad_alloc, before
  // anything changed, when memory for it runs out.
  void makeRoom() {
    gather();
    if (children_.size() == children_.capacity()) children_.reserve(2 * children_.size() + 1);
  }

  // Creates an entry of the folder at its sorted place, an item with its
  // memo, which it passes to DmsObject_New. Null when memory runs out for the
  // object; std::bad_alloc, before anything changed, when it runs out for the
  // list (never after makeRoom).
  DmsObject* add(DmsObjectId id, const char* name, const char* upnpClass, DmsObjectKind kind,
                 const uint8_t* memo = nullptr, uint8_t memoSize = 0, uint8_t referenceSlots = 0) {
    assert(memoSize == 0 || (gathered_ && children_.size() < children_.capacity()));
    makeRoom();
    const auto at = std::lower_bound(children_.begin(), children_.end(), name, [](const DmsObject* child, const char* key) {
      return strcasecmp(child->title().c_str(), key) < 0;
    });
    DmsObject* object = DmsObject_New(id, name, upnpClass, kind, folder_, at == children_.begin() ? nullptr : *(at - 1),
                                      memo, memoSize, referenceSlots);
    if (object) children_.insert(at, object);
    return object;
  }

  // Removes a child of the folder with everything below it.
  void remove(DmsObject* child) {
    const DmsObjectId id = child->id;
    if (gathered_) children_.erase(std::find(children_.begin(), children_.end(), child));
    DmsObject_Free(id);
  }

 private:
  // Either every child is in the list or the list is not used.
  void gather() {
    if (gathered_) return;
    std::vector<DmsObject*> all;
    for (DmsNode* child = folder_->firstChild; child; child = child->nextSibling) all.push_back(child->target());
    children_ = std::move(all);
    gathered_ = true;
  }

  DmsObject* folder_;
  bool gathered_ = false;
  std::vector<DmsObject*> children_;
};

class DirectoryReader {
 public:
  explicit DirectoryReader(const std::string& path) : dir_(::opendir(path.c_str())) {}
  ~DirectoryReader() {
    if (dir_) ::closedir(dir_);
  }
  DirectoryReader(const DirectoryReader&) = delete;
  DirectoryReader& operator=(const DirectoryReader&) = delete;
  bool ok() const { return dir_ != nullptr; }
  int fd() const { return ::dirfd(dir_); }
  const dirent* next() { return ::readdir(dir_); }

 private:
  DIR* dir_;
};

// One reference still to be linked in.
struct Placement {
  DmsObject* container;
  DmsNode* reference;
  uint8_t viewBit;
};

// The references of the items found in this scan step. Each item's groups
// are found or created as soon as it is found, so group ids come out in scan
// order; the references themselves are linked in once per step (and before
// anything is removed), during one walk down each container. Filing them
// item by item walked the long All lists once per folder: a quadratic cost,
// as track numbers at the start of file names spread every folder over the
// whole list. A step that finds very many files links them in batches, so
// that the list of pending references stays small.
constexpr size_t kMaxPending = 4096;
// Guarded by the content mutex; empty whenever a step ends.
std::vector<Placement> pendingPlacements;

uint8_t referenceSlotsFor(const char* itemClass);
void placeItem(DmsObject* item, const MediaStream& metadata, std::vector<Placement>& placements);
void linkPlacements(std::vector<Placement>& placements);

// Links the pending references in, as the tree must be complete before an
// object is removed or the step ends.
void flushPlacements() {
  linkPlacements(pendingPlacements);
  pendingPlacements.clear();
}

// Handles one regular file of a folder being read; true when the library changed.
bool scanFile(FolderChildren& children, DmsObject* folder, const std::string& folderPath, int dirFd, const char* name,
              const struct stat& info, int32_t pass) {
  if (!DmsNames_HasMediaExtension(name)) return false;
  const DmsObjectId id{static_cast<uint64_t>(info.st_dev) + 1, static_cast<uint64_t>(info.st_ino)};
  bool changed = false;
  if (DmsObject* existing = DmsObject_Find(id)) {
    // A hard link stays where it was first seen.
    if (existing->parent != folder || existing->kind != DmsKind_Item) return false;
    // While memory is short a changed file keeps its entry until a pass
    // can read it again.
    if ((existing->modificationTime == static_cast<int64_t>(info.st_mtime) && existing->title() == name) ||
        MemoryReserve_Short()) {
      existing->pass = pass;
      DmsWatch_Stat(existing, info, DmsMemo_Describes(existing, info));
      return false;
    }
    flushPlacements();
    children.remove(existing);
    changed = true;
  }

  if (MemoryReserve_Short()) return changed;
  // A file whose memo the memo file keeps (found by its path) is not opened.
  MediaStreamPtr stream = DmsMemoFile_Take(folderPath, name, info);
  if (!stream) {
    UniqueFd file(::openat(dirFd, name, O_RDONLY | O_CLOEXEC));
    if (file.get() < 0) return changed;
    // The parsers read headers here and there: no read-ahead beyond what
    // they ask for. A small file costs the kernel's first read-ahead at most,
    // as any look at it does, and is spared the call.
    if (info.st_size > kSmallFile) ::posix_fadvise(file.get(), 0, 0, POSIX_FADV_RANDOM);
    stream = MediaStream_new(file.get(), 0, static_cast<int64_t>(info.st_size), true);
  }
  const char* itemClass = DmsLibrary_ItemClass(stream.get());
  if (!itemClass) return changed;
  // Room first: from its encoding on, the memo's texts are the item's, made or not.
  children.makeRoom();
  uint8_t memo[DmsMemo_MaxSize];
  const size_t memoSize = DmsMemo_Encode(*stream, info, static_cast<int64_t>(info.st_mtime), memo);
  if (stream->date == 0) stream->date = static_cast<int32_t>(info.st_mtime);

  DmsObject* item = children.add(id, name, itemClass, DmsKind_Item, memo, static_cast<uint8_t>(memoSize),
                                 referenceSlotsFor(itemClass));
  if (!item) return changed;
  item->mimeType = stream->mimeType;
  item->modificationTime = static_cast<int64_t>(info.st_mtime);
  item->pass = pass;
  DmsWatch_Stat(item, info, memoSize > 0);  // a memo just made from `info`
  try {
    placeItem(item, *stream, pendingPlacements);
  } catch (const std::bad_alloc&) {
    item->modificationTime = kRefileTime;
    throw;
  }
  if (pendingPlacements.size() >= kMaxPending) flushPlacements();
  return true;
}

void scanDirectory(FolderChildren& children, const char* name, const struct stat& info, int32_t pass) {
  const DmsObjectId id{static_cast<uint64_t>(info.st_dev) + 1, static_cast<uint64_t>(info.st_ino)};
  if (DmsObject_Find(id) || MemoryReserve_Short()) return;
  DmsObject* child = children.add(id, name, mediaClass(DmsClass_StorageFolder), DmsKind_Container);
  if (child) child->pass = pass;
}

enum class FolderRead { Unreadable, Unchanged, Changed };

// Reads the folder's directory once for this pass. Never part of
// scanFolder's frame: the scan recurses once per folder level, as deep as
// paths go (some 2,000 levels), on a thread with a small stack.
[[gnu::noinline]] FolderRead readFolder(DmsObject* folder, int32_t pass, int64_t* spent) {
  if (folder->childCount < 0) folder->childCount = 0;
  const std::string path = DmsObject_GetPath(folder);
  if (path.empty()) return FolderRead::Unreadable;
  DmsWatch_Folder(folder, path.c_str());
  DirectoryReader directory(path);
  if (!directory.ok()) return FolderRead::Unreadable;
  folder->pass = pass;
  const int64_t started = nowMicros();
  bool changed = false;
  FolderChildren children(folder);
  while (const dirent* entry = directory.next()) {
    if (DmsNames_IsHidden(entry->d_name)) continue;
    struct stat info {};
    if (::fstatat(directory.fd(), entry->d_name, &info, AT_SYMLINK_NOFOLLOW) != 0) continue;
    // An entry that runs out of memory is left out (it may have replaced an
    // older one); the reserve is spent then, so the library stops growing.
    try {
      if (S_ISREG(info.st_mode)) {
        changed |= scanFile(children, folder, path, directory.fd(), entry->d_name, info, pass);
      } else if (S_ISDIR(info.st_mode)) {
        scanDirectory(children, entry->d_name, info, pass);
      }
    } catch (const std::bad_alloc&) {
      changed = true;
    }
  }
  *spent += nowMicros() - started;
  return changed ? FolderRead::Changed : FolderRead::Unchanged;
}

uint8_t viewBitFor(const char* viewClass) {
  if (viewClass == mediaClass(DmsClass_Container)) return kViewAll;
  if (viewClass == mediaClass(DmsClass_Person) || viewClass == mediaClass(DmsClass_MusicArtist)) return kViewArtists;
  if (viewClass == mediaClass(DmsClass_Album) || viewClass == mediaClass(DmsClass_MusicAlbum)) return kViewAlbums;
  if (viewClass == mediaClass(DmsClass_PhotoAlbum)) return kViewMoments;
  if (viewClass == mediaClass(DmsClass_Genre) || viewClass == mediaClass(DmsClass_MusicGenre) ||
      viewClass == mediaClass(DmsClass_MovieGenre)) {
    return kViewGenres;
  }
  return 0;
}

std::string groupKey(uint8_t viewBit, const MediaStream& metadata) {
  const std::optional<std::string>* text = nullptr;
  switch (viewBit) {
    case kViewArtists: text = &metadata.artist; break;
    case kViewAlbums: text = &metadata.album; break;
    case kViewGenres: text = &metadata.genre; break;
    case kViewMoments: {
      if (metadata.date == 0) return kUnknownGroup;
      const time_t date = metadata.date;
      struct tm day {};
      char text[32];
      if (!gmtime_r(&date, &day) || std::strftime(text, sizeof text, "%Y-%m-%d", &day) == 0) return kUnknownGroup;
      return text;
    }
    default: return kUnknownGroup;
  }
  return *text ? **text : std::string(kUnknownGroup);
}

// The group titled `key` in `view`, created at its sorted place when missing:
// days newest first, every other view in ascending order.
DmsObject* findOrCreateGroup(DmsObject* view, const std::string& key, bool newestFirst) {
  DmsObject* after = nullptr;
  for (DmsNode* node = view->firstChild; node; node = node->nextSibling) {
    DmsObject* group = node->target();
    int order = strcasecmp(group->title().c_str(), key.c_str());
    if (order == 0) return group;
    if (newestFirst ? order < 0 : order > 0) break;
    after = group;
  }
  return DmsObject_New({0, ++lastGroupId}, key.c_str(), view->upnpClass(), DmsKind_Container, view, after);
}

DmsObject* topContainerFor(const char* itemClass) {
  if (itemClass == mediaClass(DmsClass_AudioItem)) return DmsObject_Find(DmsId_Music);
  if (itemClass == mediaClass(DmsClass_VideoItem)) return DmsObject_Find(DmsId_Videos);
  if (itemClass == mediaClass(DmsClass_ImageItem)) return DmsObject_Find(DmsId_Pictures);
  return nullptr;
}

// The references an item of `itemClass` gets: one per view of its top
// container, made with the item.
uint8_t referenceSlotsFor(const char* itemClass) {
  const DmsObject* top = topContainerFor(itemClass);
  uint8_t slots = 0;
  for (const DmsNode* view = top ? top->firstChild : nullptr; view; view = view->nextSibling) {
    slots += viewBitFor(view->target()->upnpClass()) != 0;
  }
  assert(slots <= DmsObject_MaxReferences);
  return slots;
}

// Finds or creates the item's group in each view of its top container and
// notes the references to link in: its records in view order.
void placeItem(DmsObject* item, const MediaStream& metadata, std::vector<Placement>& placements) {
  const DmsObject* top = item->kind == DmsKind_Item ? topContainerFor(item->upnpClass()) : nullptr;
  if (!top) return;
  // Room first, so that a group is never made for a reference that cannot be noted.
  if (placements.capacity() - placements.size() < DmsObject_MaxReferences) {
    placements.reserve(2 * placements.size() + DmsObject_MaxReferences);
  }
  uint8_t slot = 0;
  for (DmsNode* node = top->firstChild; node && slot < item->referenceSlots; node = node->nextSibling) {
    DmsObject* view = node->target();
    const uint8_t bit = viewBitFor(view->upnpClass());
    if (bit == 0) continue;
    DmsObject* container =
        bit == kViewAll ? view : findOrCreateGroup(view, groupKey(bit, metadata), bit == kViewMoments);
    if (container) placements.push_back({container, DmsObject_Reference(item, slot), bit});
    else item->modificationTime = kRefileTime;
    slot += 1;
  }
}

// Links the references in, each container's in title order during a single
// walk down its children. The lists come out as with one-by-one filing:
// sorted by title, and among equal titles the later item first.
void linkPlacements(std::vector<Placement>& placements) {
  std::stable_sort(placements.begin(), placements.end(), [](const Placement& a, const Placement& b) {
    if (a.container != b.container) return std::less<const DmsObject*>{}(a.container, b.container);
    return strcasecmp(a.reference->target()->title().c_str(), b.reference->target()->title().c_str()) < 0;
  });
  const DmsObject* container = nullptr;
  DmsNode* after = nullptr;
  DmsNode* next = nullptr;
  for (const Placement& placement : placements) {
    if (placement.container != container) {
      container = placement.container;
      after = nullptr;
      next = container->firstChild;
    }
    const char* title = placement.reference->target()->title().c_str();
    while (next) {
      if (strcasecmp(next->target()->title().c_str(), title) >= 0) break;
      after = next;
      next = next->nextSibling;
    }
    DmsObject_LinkReference(placement.reference, placement.viewBit, placement.container, after);
    next = placement.reference;
  }
}

int scanFolder(DmsObject* folder, int32_t pass, int64_t* spent) {
  if (*spent > DmsLibrary_StepBudget) return 0;
  if (!DmsObject_IsFolder(folder)) return 1;

  bool changed = false;
  if (folder->childCount < 0 || folder->pass < pass) {
    // An unreadable folder is left as it is until a later pass can read it.
    const FolderRead read = readFolder(folder, pass, spent);
    if (read == FolderRead::Unreadable) return 1;
    changed = read == FolderRead::Changed;
  }

  int result = 1;
  for (DmsObject* child = folder->firstChild ? folder->firstChild->target() : nullptr; child;) {
    DmsObject* next = child->nextSibling ? child->nextSibling->target() : nullptr;
    const bool childIsFolder = DmsObject_IsFolder(child);
    if (childIsFolder && scanFolder(child, pass, spent) != 1) {
      result = 0;
      break;
    }
    const bool unseen = child->pass != pass;
    if (unseen || (childIsFolder && child->childCount == 0)) {
      const int64_t started = nowMicros();
      flushPlacements();
      DmsObject_Free(child->id);
      changed |= unseen;
      *spent += nowMicros() - started;
      if (*spent > DmsLibrary_StepBudget) {
        result = 0;
        break;
      }
    }
    child = next;
  }
  assert(DmsObject_ChildrenConsistent(folder));
  if (changed) DmsContent_RaiseSystemUpdateId();
  return result;
}

}  // namespace

int DmsLibrary_Scan(DmsObject* folder, int32_t pass, int64_t* spent) {
  assert(DmsContent_Guarded());
  const int result = scanFolder(folder, pass, spent);
  flushPlacements();
  std::vector<Placement>().swap(pendingPlacements);
  return result;
}

const char* DmsLibrary_ItemClass(const MediaStream* stream) {
  if (!stream || stream->streamCount() == 0) return nullptr;
  switch (stream->mediaType) {
    case MediaType_Audio: return mediaClass(DmsClass_AudioItem);
    case MediaType_Video: return mediaClass(DmsClass_VideoItem);
    case MediaType_Image: return mediaClass(DmsClass_ImageItem);
    default: return nullptr;
  }
}

void DmsLibrary_Categorise(DmsObject* item, const MediaStream& metadata) {
  assert(DmsContent_Guarded());
  std::vector<Placement> placements;
  placeItem(item, metadata, placements);
  linkPlacements(placements);
}
