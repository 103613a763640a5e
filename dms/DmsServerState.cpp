// Storage of the media server's shared state; it lives as long as the
// process.
#include "dms/DmsServerState.h"

#include <cassert>
#include <utility>

namespace {

// Written by start-up alone while the server is closed; read by any thread while it is open.
DmsServerInfo& storedInfo() {
  static DmsServerInfo info;
  return info;
}

// Written by start-up and shutdown; an atomic, read by any thread.
std::atomic<bool> treeShared{false};

}  // namespace

void DmsContentMutex::lock() {
  mutex_.lock();
  owner_.store(std::this_thread::get_id(), std::memory_order_relaxed);
}

bool DmsContentMutex::try_lock() {
  if (!mutex_.try_lock()) return false;
  owner_.store(std::this_thread::get_id(), std::memory_order_relaxed);
  return true;
}

void DmsContentMutex::unlock() {
  assert(heldByCaller());
  owner_.store(std::thread::id(), std::memory_order_relaxed);
  mutex_.unlock();
}

DmsContentMutex& DmsServer_ContentMutex() {
  static DmsContentMutex contentMutex;
  return contentMutex;
}

bool DmsContent_Guarded() { return !treeShared.load() || DmsServer_ContentMutex().heldByCaller(); }

void DmsServer_SetShared(bool shared) { treeShared.store(shared); }

const DmsServerInfo& DmsServer_Info() { return storedInfo(); }

void DmsServer_SetInfo(DmsServerInfo info) { storedInfo() = std::move(info); }
