// Start-up and shutdown of the media server: the device's descriptive
// fields and identity, the fixed container tree, and the refresh thread that
// keeps the tree in step with the media directory.
#pragma once

#include <cstdint>

// Bits of DMS_Open's flags.
constexpr uint32_t kDmsFlagSsdp = 1;  // announce the device by SSDP
// Take control requests' arguments in any order and a Browse Filter of any
// length, for clients that need it (the setting clientCompatibility).
constexpr uint32_t kDmsFlagClientCompatibility = 2;
// Watch the library's folders and run a pass about a second after a change
// (the setting watchChanges); the periodic pass goes on as well.
constexpr uint32_t kDmsFlagWatchChanges = 4;

// Non-zero on success (also when already open or when `flags` is 0). Each
// text may be null. Port 0 lets the system choose a free HTTP port.
int DMS_Open(const char* friendlyName, const char* manufacturer, const char* modelName, const char* modelNumber,
             const char* modelDescription, const char* path, uint16_t refreshInterval, uint16_t httpPort,
             uint32_t flags);
void DMS_Close();
// The directory in which the memos of the library are kept across restarts
// (dms/DmsMemoFile.h), as the environment's CACHE_DIRECTORY names it: the first
// of a list separated by ':'. Null or empty keeps none. Read by the next
// DMS_Open. False when memory ran out: nothing is kept then.
bool DMS_SetCacheDirectory(const char* directory);

// Builds the fixed containers: the root titled `rootTitle`, the media-directory
// volume titled `path` ("/" when null) and the Music, Videos and Pictures views.
// False when memory runs out. Called with the content mutex held.
bool DmsServer_BuildTree(const char* rootTitle, const char* path);
