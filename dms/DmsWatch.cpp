// The inotify watch on the library's folders. Every folder the scan reads is
// (re)added to one inotify instance; an event only marks that a pass is due,
// so the kernel's watch descriptors are all the bookkeeping there is. Events
// about names the scan never publishes (dot-files, files without a media
// extension) are passed over.
#include "dms/DmsWatch.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "base/UniqueFd.h"
#include "dms/DmsNames.h"

namespace {

constexpr uint32_t kWatchMask = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_CLOSE_WRITE | IN_ATTRIB |
                                IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
// A copy in progress sends events all along: a pass waits for this much quiet.
constexpr auto kQuiet = std::chrono::seconds(1);
// Room for many events per read; one takes at most 16 bytes and a name.
constexpr size_t kEventBuffer = 4096;

constexpr char kUnwatched[] = "folders are not watched, their changes are seen by the periodic pass only";

using Clock = std::chrono::steady_clock;

struct WatchState {
  bool on = false;            // the setting
  UniqueFd events;            // the inotify instance, when there is one
  UniqueFd wake;              // an eventfd, written once when the server closes
  const char* failedCall = nullptr;  // the call that first failed to watch, and its errno
  int failure = 0;
  uint32_t unwatched = 0;     // folders of this pass without a watch
  bool told = false;          // the line on standard error is written
  bool due = false;           // changes came that no pass has been asked for yet
  bool moved = false;         // ... and it moved an entry (the folder it went to may not be watched yet)
  Clock::time_point lastChange;
};

// Used by the refresh thread alone, and by DmsWatch_Open and DmsWatch_Close
// while it does not run; DmsWatch_Wake, on the closing thread, only writes
// to `wake`, which DmsWatch_Open made before the refresh thread started.
WatchState watch;

// True when the event may change what the scan publishes.
bool matters(const inotify_event& event) {
  if (event.mask & IN_Q_OVERFLOW) return true;  // events were lost
  if (event.len == 0) return (event.mask & (IN_DELETE_SELF | IN_MOVE_SELF | IN_ATTRIB)) != 0;
  if (DmsNames_IsHidden(event.name)) return false;
  return (event.mask & IN_ISDIR) || DmsNames_HasMediaExtension(event.name);
}

// Reads every pending event; true when one of them matters.
bool drain() {
  bool found = false;
  alignas(inotify_event) char buffer[kEventBuffer];
  for (;;) {
    const ssize_t got = ::read(watch.events.get(), buffer, sizeof buffer);
    if (got <= 0) return found;
    for (ssize_t at = 0; at < got;) {
      const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
      if (matters(*event)) {
        found = true;
        watch.moved |= (event->mask & (IN_MOVED_FROM | IN_MOVED_TO)) != 0;
      }
      at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
    }
  }
}

}  // namespace

void DmsWatch_Open() {
  watch = WatchState{};
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

void DmsWatch_Folder(const char* path) {
  if (!watch.on) return;
  if (watch.events.valid()) {
    if (::inotify_add_watch(watch.events.get(), path, kWatchMask) >= 0) return;
    // A folder that is gone or may not be read is not published either.
    if (errno != ENOSPC && errno != ENOMEM) return;
    if (!watch.failedCall) {
      watch.failedCall = "inotify_add_watch";
      watch.failure = errno;
    }
  }
  ++watch.unwatched;
}

void DmsWatch_PassDone() {
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
  for (;;) {
    const Clock::time_point now = Clock::now();
    if (watch.due && now - watch.lastChange >= kQuiet) {
      watch.due = false;
      return true;
    }
    if (now >= deadline) return false;
    const Clock::time_point until = watch.due ? std::min(deadline, watch.lastChange + kQuiet) : deadline;
    const auto timeout = std::chrono::ceil<std::chrono::milliseconds>(until - now).count();
    pollfd fds[2] = {{watch.wake.get(), POLLIN, 0}, {watch.events.get(), POLLIN, 0}};
    const int ready = ::poll(fds, 2, static_cast<int>(timeout));
    if (ready < 0 && errno != EINTR) return false;
    if (fds[0].revents != 0) return false;
    if (ready > 0 && drain()) {
      watch.due = true;
      watch.lastChange = Clock::now();
    }
  }
}

void DmsWatch_Wake() {
  if (watch.wake.valid()) (void)::eventfd_write(watch.wake.get(), 1);
}
