// The media server's UPnP device: the static device record and the
// ContentDirectory and ConnectionManager services with their actions and
// state variables.
#pragma once

#include "dms/DmsServerState.h"
#include "upnp/UPnPDevice.h"

// Rows of the two action tables; a handler is installed by writing the
// row's `handler`, e.g. dmsContentDirectoryActions[kDmsActionBrowse].handler.
enum DmsContentDirectoryAction {
  kDmsActionBrowse,
  kDmsActionGetSearchCapabilities,
  kDmsActionGetSortCapabilities,
  kDmsActionGetSystemUpdateID,
};
enum DmsConnectionManagerAction {
  kDmsActionGetCurrentConnectionIDs,
  kDmsActionGetCurrentConnectionInfo,
  kDmsActionGetProtocolInfo,
};
extern UPnPAction dmsContentDirectoryActions[];
extern UPnPAction dmsConnectionManagerActions[];

// Rows of the service table: ContentDirectory, then ConnectionManager.
enum DmsService { kDmsServiceContentDirectory, kDmsServiceConnectionManager };
extern UPnPService dmsServices[];

// The notification types SSDP announces (the count in dmsDevice switches
// announcing on and off).
constexpr int kDmsSsdpTargetCount = 5;

// The device record; its services are dmsServices. The descriptive texts
// and the UDN are set by the media server's start-up.
extern UPnPDevice dmsDevice;

// Points the device record at the descriptive texts and UDN of `info`
// (which must outlive the open device), takes its argument order rule, and
// writes the device type and the service types and ids from their table rows.
void DmsDevice_Fill(const DmsServerInfo& info);
