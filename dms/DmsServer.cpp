// The media server's start-up and shutdown: the descriptive fields and
// identity, the fixed container tree, and the refresh thread that runs the
// incremental scan whenever the content mutex is free.
#include "dms/DmsServer.h"

#include <sys/utsname.h>

#include <algorithm>
#include <cassert>
#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <ctime>
#include <exception>
#include <mutex>
#include <new>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

#include "base/MemoryReserve.h"
#include "base/NetworkInterface.h"
#include "dms/DmsDevice.h"
#include "dms/DmsLibrary.h"
#include "dms/DmsMemoFile.h"
#include "dms/DmsObject.h"
#include "dms/DmsServerState.h"
#include "dms/DmsWatch.h"
#include "upnp/UUID.h"

namespace {

constexpr size_t kTextLimit = 127;
constexpr size_t kModelNumberLimit = 31;
constexpr uint16_t kMinimumRefreshInterval = 30;
constexpr uint32_t kRefreshWaitStep = 5;  // seconds per wait while idle
constexpr auto kIdleSleep = std::chrono::seconds(kRefreshWaitStep);
constexpr auto kBusySleep = std::chrono::milliseconds(20);
constexpr char kUnknown[] = "unknown";

struct FixedContainer {
  DmsObjectId id;
  DmsObjectId parent;
  const char* title;  // null: the configured media directory
  DmsMediaClass mediaClass;
};

// Created in this order, each at the head of its parent's children, so that
// every container lists its views in ascending id order.
constexpr std::array<FixedContainer, 14> kFixedContainers = {{
    {DmsId_MediaDirectory, DmsId_Root, nullptr, DmsClass_StorageVolume},
    {DmsId_Pictures, DmsId_Root, "Pictures", DmsClass_Container},
    {DmsId_Videos, DmsId_Root, "Videos", DmsClass_Container},
    {DmsId_Music, DmsId_Root, "Music", DmsClass_Container},
    {{0, 13}, DmsId_Music, "Genres", DmsClass_MusicGenre},
    {{0, 12}, DmsId_Music, "Albums", DmsClass_MusicAlbum},
    {{0, 11}, DmsId_Music, "Artists", DmsClass_MusicArtist},
    {{0, 10}, DmsId_Music, "All Music", DmsClass_Container},
    {{0, 23}, DmsId_Videos, "Genres", DmsClass_MovieGenre},
    {{0, 22}, DmsId_Videos, "Albums", DmsClass_Album},
    {{0, 21}, DmsId_Videos, "Artists", DmsClass_Person},
    {{0, 20}, DmsId_Videos, "All Videos", DmsClass_Container},
    {{0, 31}, DmsId_Pictures, "Moments", DmsClass_PhotoAlbum},
    {{0, 30}, DmsId_Pictures, "All Pictures", DmsClass_Container},
}};

// Written by start-up and shutdown, on the caller's thread while no refresh
// thread runs (`open` is an atomic, and `wake` is waited on under `sleepMutex`);
// the refresh thread reads it.
struct ServerState {
  std::atomic<bool> open{false};
  std::string cacheDirectory;  // empty: no memo file
  std::string mediaPath;       // as published
  std::thread refreshThread;
  std::mutex sleepMutex;  // only for waking the refresh thread on close
  std::condition_variable wake;
};

ServerState& state() {
  static ServerState instance;
  return instance;
}

std::string limited(const char* text, size_t limit) {
  return std::string(std::string_view(text ? text : kUnknown).substr(0, limit));
}

// The node name up to ".local", with dashes read as spaces.
std::string hostFriendlyName() {
  utsname host{};
  if (::uname(&host) != 0) return {};
  std::string name = host.nodename;
  if (size_t local = name.find(".local"); local != std::string::npos) name.resize(local);
  for (char& c : name) {
    if (c == '-') c = ' ';
  }
  return name;
}

// Stable across restarts: "DMS", a version-1 layout and the first
// interface's MAC address. Without any interface the UUID is random.
std::string makeUdn() {
  UUID uuid{};
  if (NetworkInterfacePtr interfaces{NetworkInterface_new()}) {
    const uint8_t prefix[10] = {'D', 'M', 'S', 0, 0, 0, 0x10, 0, 0x80, 0};
    std::memcpy(uuid, prefix, sizeof prefix);
    std::memcpy(uuid + sizeof prefix, interfaces->mac, sizeof interfaces->mac);
  } else {
    UUID_Generate(uuid);
  }
  char text[UUID_TextSize];
  UUID_Unparse(uuid, text);
  return text;
}

void freeTree() {
  assert(DmsContent_Guarded());
  DmsObject_Free(DmsId_Root);
}

}  // namespace

bool DmsServer_BuildTree(const char* rootTitle, const char* path) {
  if (!DmsObject_New(DmsId_Root, rootTitle, dlnaMediaClasses[DmsClass_Container],
                     DmsKind_Container, nullptr, nullptr)) {
    return false;
  }
  for (const FixedContainer& fixed : kFixedContainers) {
    const char* title = fixed.title ? fixed.title : (path ? path : "/");
    if (!DmsObject_New(fixed.id, title, dlnaMediaClasses[fixed.mediaClass], DmsKind_Container,
                       DmsObject_Find(fixed.parent), nullptr)) {
      return false;
    }
  }
  return true;
}

namespace {

// Sleeps for `duration`, or less when the server closes meanwhile.
template <typename Duration>
void refreshSleep(Duration duration) {
  ServerState& s = state();
  std::unique_lock lock(s.sleepMutex);
  s.wake.wait_for(lock, duration, [&] { return !s.open.load(); });
}

// One idle wait between passes; true when the watch saw changes settle, so
// that the next pass is due now.
bool idleWait() {
  if (DmsWatch_Waits()) return DmsWatch_Wait(kIdleSleep);
  refreshSleep(kIdleSleep);
  return false;
}

// One scan step whenever the content mutex is free: 20 ms apart while a pass
// is unfinished, then the refresh interval in 5-second waits before the next,
// or less once the watch has seen the library change.
// With a cache directory, the memo file is loaded before the first pass and
// saved at the end of each pass that saw the library.
void refreshLoop() {
  ServerState& s = state();
  int32_t pass = 0;
  uint32_t waited = 0;
  int lastResult = 0;
  bool changed = false;  // the watch saw changes: a pass as soon as the mutex is free
  const bool cached = !s.cacheDirectory.empty();
  if (cached) DmsMemoFile_Load(s.cacheDirectory, s.mediaPath);
  while (s.open) {
    if (lastResult == 1 && waited <= DmsServer_Info().refreshInterval && !changed) {
      waited += kRefreshWaitStep;
    } else {
      // A new pass sets the reserve aside again, if the memory is back, and
      // may then grow the library again.
      if (lastResult != 0) {
        ++pass;
        MemoryReserve_SetAside();
      }
      waited = 0;
      std::unique_lock lock(DmsServer_ContentMutex(), std::try_to_lock);
      if (lock.owns_lock()) {
        changed = false;
        int64_t spent = 0;
        DmsObject* folder = DmsObject_Find(DmsId_MediaDirectory);
        lastResult = folder ? DmsLibrary_Scan(folder, pass, &spent) : 1;
        if (lastResult == 1) DmsWatch_PassDone();
        if (lastResult == 1 && cached) DmsMemoFile_PassEnded(s.cacheDirectory, s.mediaPath, lock);
      }
    }
    // A pass the watch asked for and the busy mutex put off is tried again soon.
    if (lastResult == 0 || changed) refreshSleep(kBusySleep);
    else changed = idleWait();
  }
  std::lock_guard lock(DmsServer_ContentMutex());
  freeTree();
  DmsMemoFile_Unload();
}

}  // namespace

bool DMS_SetCacheDirectory(const char* directory) {
  const std::string_view list = directory ? directory : "";
  try {
    state().cacheDirectory = std::string(list.substr(0, list.find(':')));
    return true;
  } catch (const std::bad_alloc&) {
    state().cacheDirectory.clear();
    return false;
  }
}

int DMS_Open(const char* friendlyName, const char* manufacturer, const char* modelName, const char* modelNumber,
             const char* modelDescription, const char* path, uint16_t refreshInterval, uint16_t httpPort,
             uint32_t flags) {
  ServerState& s = state();
  if (s.open || flags == 0) return 1;
  // Without room for its reserve the server could not go on answering once
  // the library has taken the rest: such a start fails.
  if (!MemoryReserve_SetAside()) return 0;

  try {
    DmsServerInfo info;
    info.friendlyName =
        friendlyName ? limited(friendlyName, kTextLimit) : limited(hostFriendlyName().c_str(), kTextLimit);
    info.manufacturer = limited(manufacturer, kTextLimit);
    info.modelName = limited(modelName, kTextLimit);
    info.modelNumber = limited(modelNumber, kModelNumberLimit);
    info.modelDescription = limited(modelDescription, kTextLimit);
    info.udn = makeUdn();
    info.startTime = static_cast<int64_t>(::time(nullptr));
    info.refreshInterval = refreshInterval < kMinimumRefreshInterval ? kMinimumRefreshInterval : refreshInterval;
    info.clientCompatibility = (flags & kDmsFlagClientCompatibility) != 0;
    s.mediaPath = path ? path : "/";
    DmsServer_SetInfo(std::move(info));
  } catch (const std::bad_alloc&) {
    return 0;
  }
  // Memory that ran short on the way (the reserve is spent) may have cost
  // the device its identity: no interface list means a random UDN.
  if (MemoryReserve_Short()) return 0;
  const DmsServerInfo& stored = DmsServer_Info();

  {
    std::lock_guard lock(DmsServer_ContentMutex());
    freeTree();
    if (!DmsServer_BuildTree(stored.friendlyName.c_str(), path)) {
      freeTree();
      return 0;
    }
  }
  DmsDevice_Fill(stored);
  s.open = true;

  DmsServer_SetShared(true);
  if (flags & kDmsFlagWatchChanges) DmsWatch_Open();
  try {
    s.refreshThread = std::thread(refreshLoop);
  } catch (const std::exception&) {  // no thread, or no memory for one
    std::lock_guard lock(DmsServer_ContentMutex());
    freeTree();
    s.open = false;
    DmsServer_SetShared(false);
    DmsWatch_Close();
    return 0;
  }
  // This server runs no mDNS services.
  dmsDevice.ssdpTargetCount = (flags & kDmsFlagSsdp) ? kDmsSsdpTargetCount : 0;
  dmsDevice.mdnsServiceCount = 0;
  if (!UPnPDevice_Open(&dmsDevice, httpPort)) {
    DMS_Close();
    return 0;
  }
  return 1;
}

void DMS_Close() {
  ServerState& s = state();
  if (!s.open) return;
  {
    std::lock_guard lock(s.sleepMutex);
    s.open = false;
  }
  s.wake.notify_all();
  DmsWatch_Wake();
  UPnPDevice_Close(&dmsDevice);
  if (s.refreshThread.joinable()) s.refreshThread.join();
  DmsWatch_Close();
  DmsServer_SetShared(false);
}
