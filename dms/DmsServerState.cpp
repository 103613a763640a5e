// Storage of the media server's shared state; both parts live as long as
// the process.
#include "dms/DmsServerState.h"

#include <utility>

namespace {

DmsServerInfo& storedInfo() {
  static DmsServerInfo info;
  return info;
}

}  // namespace

std::mutex& DmsServer_ContentMutex() {
  static std::mutex contentMutex;
  return contentMutex;
}

const DmsServerInfo& DmsServer_Info() { return storedInfo(); }

void DmsServer_SetInfo(DmsServerInfo info) { storedInfo() = std::move(info); }
