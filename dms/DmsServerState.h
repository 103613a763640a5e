// The media server's state that its request handlers share with start-up:
// the content mutex and the device's descriptive fields as stored when the
// server opened. Kept apart from start-up, which needs the handlers' device
// tables, so that the handlers need not include start-up.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>

// A mutex that also knows which thread holds it, so that the code walking or
// changing the content tree can assert that it does.
class DmsContentMutex {
 public:
  void lock();
  bool try_lock();
  void unlock();
  bool heldByCaller() const { return owner_.load(std::memory_order_relaxed) == std::this_thread::get_id(); }

 private:
  std::mutex mutex_;
  std::atomic<std::thread::id> owner_{};
};

// Guards the content tree, its id table and the group-id counter.
DmsContentMutex& DmsServer_ContentMutex();

// True where the content tree may be walked or changed: on the thread that
// holds the content mutex, or on any thread while no server runs (the tools
// and tests that build a tree of their own have no other thread).
bool DmsContent_Guarded();
// Start-up marks the tree shared before it starts the first thread that
// reads it; shutdown clears the mark once they have all ended.
void DmsServer_SetShared(bool shared);

// The device's descriptive fields as stored at start-up (cut to their limits).
struct DmsServerInfo {
  std::string friendlyName;      // at most 127 characters
  std::string manufacturer;      // at most 127
  std::string modelName;         // at most 127
  std::string modelNumber;       // at most 31
  std::string modelDescription;  // at most 127
  std::string udn;               // 36-character upper-case UUID text
  int64_t startTime = 0;
  uint16_t refreshInterval = 0;  // seconds, never below 30
  bool clientCompatibility = false;  // kDmsFlagClientCompatibility
};
const DmsServerInfo& DmsServer_Info();
// Replaces the stored fields; only start-up calls it, while the server is closed.
void DmsServer_SetInfo(DmsServerInfo info);
