// Start-up and shutdown of the media server: the device's descriptive
// fields and identity, the fixed container tree, the refresh thread that
// keeps the tree in step with the media directory, and the content mutex.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>

// Non-zero on success (also when already open or when `flags` is 0). Each
// text may be null. Port 0 lets the system choose a free HTTP port.
int DMS_Open(const char* friendlyName, const char* manufacturer, const char* modelName, const char* modelNumber,
             const char* modelDescription, const char* path, uint16_t refreshInterval, uint16_t httpPort,
             uint32_t flags);
void DMS_Close();

// Builds the fixed containers: the root titled `rootTitle`, the media-directory
// volume titled `path` ("/" when null) and the Music, Videos and Pictures views.
// False when memory runs out. Called with the content mutex held.
bool DmsServer_BuildTree(const char* rootTitle, const char* path);

// Guards the content tree, its id table and the group-id counter.
std::mutex& DmsServer_ContentMutex();

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
};
const DmsServerInfo& DmsServer_Info();
