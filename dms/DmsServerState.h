// The media server's state that its request handlers share with start-up:
// the content mutex and the device's descriptive fields as stored when the
// server opened. Kept apart from start-up, which needs the handlers' device
// tables, so that the handlers need not include start-up.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>

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
// Replaces the stored fields; only start-up calls it, while the server is closed.
void DmsServer_SetInfo(DmsServerInfo info);
