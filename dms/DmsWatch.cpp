// The inotify watch on the library's folders. Every folder the scan reads is
// (re)added to one inotify instance. An event marks that a pass is due, and
// takes the trust in memos from the items of the folder it names, found
// through the one table the watch keeps: watch descriptor to folder id (ids,
// not objects, since folders go while their watch stays). Events about names
// the scan never publishes (dot-files, files without a media extension) are
// passed over, and writes to a file (IN_MODIFY: a copy sends one per write)
// never make a pass due, as the close that ends them does.
#include "dms/DmsWatch.h"

#include <linux/magic.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/vfs.h>

#include <algorithm>
#include <atomic>
#include <cassert>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <new>
#include <vector>

#include "base/UniqueFd.h"
#include "dms/DmsNames.h"
#include "dms/DmsServerState.h"

namespace {

constexpr uint32_t kWatchMask = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_CLOSE_WRITE | IN_ATTRIB |
                                IN_MODIFY | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
// A copy in progress sends events all along: a pass waits for this much quiet.
constexpr auto kQuiet = std::chrono::seconds(1);
// A file being written sends an IN_MODIFY a write, which only Browse needs:
// after reading events of which none makes a pass due, the refresh thread
// reads the next ones this much later, so that a copy wakes it a few dozen
// times a second instead of once a write (the kernel folds a file's repeated
// events into one meanwhile). A change read then is read that much later.
constexpr auto kWritesPause = std::chrono::milliseconds(20);
// Room for many events per read; one takes at most 16 bytes and a name.
constexpr size_t kEventBuffer = 4096;

// File systems on which every change is made by this kernel, which reports
// it to the watch. Any other (a network or user-space file system, an
// overlay) may change under the server unseen, so its items are always
// looked at.
constexpr uint32_t kLocalFileSystems[] = {EXT4_SUPER_MAGIC, XFS_SUPER_MAGIC,   BTRFS_SUPER_MAGIC,
                                          TMPFS_MAGIC,      F2FS_SUPER_MAGIC,  MSDOS_SUPER_MAGIC,
                                          EXFAT_SUPER_MAGIC, ISOFS_SUPER_MAGIC, SQUASHFS_MAGIC,
                                          UDF_SUPER_MAGIC};

constexpr char kUnwatched[] = "folders are not watched, their changes are seen by the periodic pass only";

using Clock = std::chrono::steady_clock;

struct WatchedFolder {
  int descriptor;
  DmsObjectId folder;
};

struct WatchState {
  bool on = false;            // the setting
  UniqueFd events;            // the inotify instance, when there is one
  UniqueFd wake;              // an eventfd: the server closes, or Browse read events that make a pass due
  const char* failedCall = nullptr;  // the call that first failed to watch, and its errno
  int failure = 0;
  uint32_t unwatched = 0;     // folders of this pass without a watch
  bool told = false;          // the line on standard error is written
  bool due = false;           // changes came that no pass has been asked for yet
  bool moved = false;         // ... and it moved an entry (the folder it went to may not be watched yet)
  Clock::time_point lastChange;
  std::vector<WatchedFolder> folders;  // by descriptor
};

// Guarded by the content mutex, but for what DmsWatch_Open and DmsWatch_Close
// do while no other thread uses it, and for the descriptors, which
// DmsWatch_Open made before the refresh thread started and which the refresh
// thread polls and DmsWatch_Wake writes to.
WatchState watch;
// Set by DmsWatch_Wake, on the closing thread.
std::atomic<bool> closing{false};

// True when the event may change what the scan publishes.
bool matters(const inotify_event& event) {
  if (event.mask & IN_Q_OVERFLOW) return true;  // events were lost
  if (event.mask & IN_MODIFY) return false;
  if (event.len == 0) return (event.mask & (IN_DELETE_SELF | IN_MOVE_SELF | IN_ATTRIB)) != 0;
  if (DmsNames_IsHidden(event.name)) return false;
  return (event.mask & IN_ISDIR) || DmsNames_HasMediaExtension(event.name);
}

bool watchesLocalChanges(const char* path) {
  struct statfs info {};
  if (::statfs(path, &info) != 0) return false;
  const auto type = static_cast<uint32_t>(info.f_type);
  return std::find(std::begin(kLocalFileSystems), std::end(kLocalFileSystems), type) != std::end(kLocalFileSystems);
}

std::vector<WatchedFolder>::iterator findDescriptor(int descriptor) {
  return std::lower_bound(watch.folders.begin(), watch.folders.end(), descriptor,
                          [](const WatchedFolder& known, int key) { return known.descriptor < key; });
}

// Notes that `descriptor` watches `folder`; false when memory runs out.
bool noteFolder(int descriptor, const DmsObject* folder) {
  const auto at = findDescriptor(descriptor);
  if (at != watch.folders.end() && at->descriptor == descriptor) {
    at->folder = folder->id;
    return true;
  }
  try {
    watch.folders.insert(at, WatchedFolder{descriptor, folder->id});
    return true;
  } catch (const std::bad_alloc&) {
    return false;
  }
}

void clearChildren(DmsObject* folder) {
  for (DmsNode* child = folder->firstChild; child; child = child->nextSibling) child->flags &= ~DmsFlag_Checked;
}

// Takes the trust from everything below `top`, a folder: no item there is
// described without a stat, and no folder there is taken for watched, until
// a pass reads it again. Walks down and back up through the links (folders
// nest as deep as paths go; they hold folders and items, never references).
void untrustBelow(DmsObject* top) {
  for (DmsNode* node = top->firstChild; node;) {
    node->flags &= ~(DmsFlag_Checked | DmsFlag_Watched);
    DmsObject* object = node->target();
    if (DmsObject_IsFolder(object) && object->firstChild) {
      node = object->firstChild;
      continue;
    }
    while (node != top && !node->nextSibling) node = node->parent;
    node = node == top ? nullptr : node->nextSibling;
  }
}

// Takes the trust the event may undo: a change to a file, from the items of
// its folder; a change to a folder below, from everything below the watched
// one (the paths below a moved folder are no longer its items' paths); a
// change to the watched folder itself (moved, deleted, its mode changed, its
// watch gone), from it too; lost events, from the whole library.
void untrust(const inotify_event& event) {
  if (event.mask & IN_Q_OVERFLOW) {
    if (DmsObject* top = DmsObject_Find(DmsId_MediaDirectory)) {
      top->flags &= ~DmsFlag_Watched;
      untrustBelow(top);
    }
    return;
  }
  const auto at = findDescriptor(event.wd);
  if (at == watch.folders.end() || at->descriptor != event.wd) return;
  DmsObject* folder = DmsObject_Find(at->folder);
  if (event.mask & IN_IGNORED) watch.folders.erase(at);
  if (!folder || !DmsObject_IsFolder(folder)) return;
  if (event.len == 0) folder->flags &= ~DmsFlag_Watched;
  if (event.len == 0 || (event.mask & IN_ISDIR)) untrustBelow(folder);
  else if (!DmsNames_IsHidden(event.name) && DmsNames_HasMediaExtension(event.name)) clearChildren(folder);
}

enum class Drained { Nothing, NoPass, PassDue };

// Reads every pending event.
Drained drain() {
  assert(DmsContent_Guarded());
  bool found = false, any = false;
  alignas(inotify_event) char buffer[kEventBuffer];
  for (;;) {
    const ssize_t got = ::read(watch.events.get(), buffer, sizeof buffer);
    if (got <= 0) break;
    any = true;
    for (ssize_t at = 0; at < got;) {
      const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
      untrust(*event);
      if (matters(*event)) {
        found = true;
        watch.moved |= (event->mask & (IN_MOVED_FROM | IN_MOVED_TO)) != 0;
      }
      at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
    }
  }
  if (!found) return any ? Drained::NoPass : Drained::Nothing;
  watch.due = true;
  watch.lastChange = Clock::now();
  return Drained::PassDue;
}

}  // namespace

void DmsWatch_Open() {
  watch = WatchState{};
  closing = false;
  watch.on = true;
  UniqueFd events(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
  if (!events.valid()) {
    watch.failedCall = "inotify_init1";
    watch.failure = errno;
    return;
  }
  UniqueFd wake(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (!wake.valid()) {
    watch.failedCall = "eventfd";
    watch.failure = errno;
    return;
  }
  watch.events = std::move(events);
  watch.wake = std::move(wake);
}

void DmsWatch_Close() { watch = WatchState{}; }

bool DmsWatch_Waits() { return watch.events.valid(); }

void DmsWatch_Folder(DmsObject* folder, const char* path) {
  assert(DmsContent_Guarded());
  if (!watch.on) return;
  const int descriptor = watch.events.valid() ? ::inotify_add_watch(watch.events.get(), path, kWatchMask) : -1;
  const int error = errno;
  if (descriptor >= 0 && watchesLocalChanges(path) && noteFolder(descriptor, folder)) {
    folder->flags |= DmsFlag_Watched;
    clearChildren(folder);  // the read that follows looks at each of them again
    return;
  }
  // A folder that was watched may be gone with everything below it, or
  // moved by a change above it that no watch reported.
  if (folder->flags & DmsFlag_Watched) untrustBelow(folder);
  folder->flags &= ~DmsFlag_Watched;
  if (descriptor >= 0) return;  // watched, on a file system that may change unseen
  if (watch.events.valid()) {
    // A folder that is gone or may not be read is not published either.
    if (error != ENOSPC && error != ENOMEM) return;
    if (!watch.failedCall) {
      watch.failedCall = "inotify_add_watch";
      watch.failure = error;
    }
  }
  ++watch.unwatched;
}

void DmsWatch_Stat(DmsObject* item, const struct stat& file, bool memoDescribes) {
  assert(DmsContent_Guarded());
  const bool watched = item->parent && (item->parent->flags & DmsFlag_Watched);
  if (watched && file.st_nlink == 1 && memoDescribes) item->flags |= DmsFlag_Checked;
  else item->flags &= ~DmsFlag_Checked;
}

void DmsWatch_Drain() {
  assert(DmsContent_Guarded());
  // The refresh thread may be waiting for these events: it is told to look again.
  if (watch.events.valid() && drain() == Drained::PassDue) (void)::eventfd_write(watch.wake.get(), 1);
}

void DmsWatch_PassDone() {
  assert(DmsContent_Guarded());
  // A pass may read the folder an entry moved to before the one it left: it
  // then leaves the entry where it was and removes it there as unseen. The
  // next pass finds it in its new place, so it follows at once.
  if (watch.moved) {
    watch.moved = false;
    watch.due = true;
    watch.lastChange = Clock::now() - kQuiet;
  }
  if (watch.unwatched > 0 && !watch.told) {
    if (watch.failure == ENOSPC) {
      std::fprintf(stderr, "dms: the inotify watch limit is reached (sysctl fs.inotify.max_user_watches): %u %s\n",
                   watch.unwatched, kUnwatched);
    } else {
      std::fprintf(stderr, "dms: cannot watch folders for changes (%s: %s): %u %s\n", watch.failedCall,
                   std::strerror(watch.failure), watch.unwatched, kUnwatched);
    }
    watch.told = true;
  }
  watch.unwatched = 0;
}

bool DmsWatch_Wait(std::chrono::milliseconds limit) {
  const Clock::time_point deadline = Clock::now() + limit;
  bool pausing = false;  // the events read last made no pass due: the next wait kWritesPause
  for (;;) {
    int timeout = 0;
    {
      std::lock_guard lock(DmsServer_ContentMutex());
      const Clock::time_point now = Clock::now();
      if (watch.due && now - watch.lastChange >= kQuiet) {
        watch.due = false;
        return true;
      }
      if (now >= deadline || closing) return false;
      const Clock::time_point until = watch.due ? std::min(deadline, watch.lastChange + kQuiet) : deadline;
      timeout = static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(until - now).count());
    }
    if (pausing) timeout = std::min(timeout, static_cast<int>(kWritesPause.count()));
    pollfd fds[2] = {{watch.wake.get(), POLLIN, 0}, {watch.events.get(), POLLIN, 0}};
    const int ready = ::poll(fds, pausing ? 1 : 2, timeout);
    pausing = false;
    if (ready < 0 && errno != EINTR) return false;
    if (fds[0].revents != 0) {
      eventfd_t count = 0;
      (void)::eventfd_read(watch.wake.get(), &count);
    }
    if (fds[1].revents != 0) {
      std::lock_guard lock(DmsServer_ContentMutex());
      pausing = drain() == Drained::NoPass;
    }
  }
}

void DmsWatch_Wake() {
  closing = true;
  if (watch.wake.valid()) (void)::eventfd_write(watch.wake.get(), 1);
}
