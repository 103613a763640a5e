// The media server's small fixed-answer actions: the three ConnectionManager
// actions and the ContentDirectory capability and update-counter actions,
// plus the two eventing callbacks that the device record carries.
#pragma once

#include <cstdint>
#include <string>

#include "upnp/UPnPSoap.h"

struct HTTPRequest;
struct HTTPResponse;

// The protocol infos this server offers as a source; it sinks nothing.
extern const char* const dmsSourceProtocolInfo;
extern const char* const dmsSinkProtocolInfo;

// Connection vocabulary, in this order: "Input", "Output" and "OK",
// "ContentFormatMismatch", "InsufficientBandwidth", "UnreliableChannel",
// "Unknown".
constexpr int kDlnaConnectionDirectionCount = 2;
constexpr int kDlnaConnectionStatusCount = 5;
extern const char* const dlnaConnectionDirections[kDlnaConnectionDirectionCount];
extern const char* const dlnaConnectionStatuses[kDlnaConnectionStatusCount];

// Action handlers; none reads its inputs. Each answers "200 OK" with its
// fixed or counter-derived outputs.
void DmsActions_GetCurrentConnectionIDs(HTTPRequest* request, const char* serviceType, const char* actionName,
                                        const UPnPArgValue* args, int32_t count, HTTPResponse* response);
void DmsActions_GetCurrentConnectionInfo(HTTPRequest* request, const char* serviceType, const char* actionName,
                                         const UPnPArgValue* args, int32_t count, HTTPResponse* response);
void DmsActions_GetProtocolInfo(HTTPRequest* request, const char* serviceType, const char* actionName,
                                const UPnPArgValue* args, int32_t count, HTTPResponse* response);
void DmsActions_GetSearchCapabilities(HTTPRequest* request, const char* serviceType, const char* actionName,
                                      const UPnPArgValue* args, int32_t count, HTTPResponse* response);
void DmsActions_GetSortCapabilities(HTTPRequest* request, const char* serviceType, const char* actionName,
                                    const UPnPArgValue* args, int32_t count, HTTPResponse* response);
void DmsActions_GetSystemUpdateID(HTTPRequest* request, const char* serviceType, const char* actionName,
                                  const UPnPArgValue* args, int32_t count, HTTPResponse* response);

// The device's makeEventBody: the evented values of ContentDirectory
// (SystemUpdateID, an empty ContainerUpdateIDs) or ConnectionManager as a
// property set; the same document for initial and change events. Empty for
// any other service.
std::string DmsActions_MakeEventBody(const char* serviceType, bool initial);

// The device's stateChanged: true once for ContentDirectory after the system
// update counter moved since the last call; false for any other service.
// Only the device thread calls it.
bool DmsServer_SystemUpdateChanged(const char* serviceType);
