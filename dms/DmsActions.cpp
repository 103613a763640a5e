// The small actions answer with fixed texts or the system update counter;
// the server has one implicit connection (ID 0), offers a fixed list of
// formats, and supports neither search nor sort. The eventing callbacks
// publish the same values.
#include "dms/DmsActions.h"

#include <cstdio>
#include <cstring>
#include <new>

#include "dms/DmsObject.h"
#include "http/HTTPRequest.h"
#include "upnp/GENA.h"
#include "upnp/UPnPDevice.h"

const char* const dmsSourceProtocolInfo =
    "http-get:*:image/jpeg:DLNA.ORG_PN=JPEG_TN;DLNA.ORG_OP=01;DLNA.ORG_CI=1,http-get:*:image/jpeg:*,"
    "http-get:*:image/png:*,http-get:*:image/tiff:*,http-get:*:image/gif:*,http-get:*:audio/flac:*,"
    "http-get:*:audio/mpeg:*,http-get:*:audio/mp4:*,http-get:*:audio/x-matroska:*,http-get:*:audio/webm:*,"
    "http-get:*:audio/wav:*,http-get:*:audio/x-wav:*,http-get:*:video/mpeg:*,http-get:*:video/mp4:*,"
    "http-get:*:video/x-matroska:*,http-get:*:video/webm:*,http-get:*:video/avi:*,http-get:*:video/x-msvideo:*";
const char* const dmsSinkProtocolInfo = "";

const char* const dlnaConnectionDirections[kDlnaConnectionDirectionCount] = {"Input", "Output"};
const char* const dlnaConnectionStatuses[kDlnaConnectionStatusCount] = {
    "OK", "ContentFormatMismatch", "InsufficientBandwidth", "UnreliableChannel", "Unknown",
};

namespace {

constexpr const char* kConnectionIds = "0";
constexpr const char* kNoConnection = "-1";
constexpr int kDirectionOutput = 1;
constexpr int kStatusUnknown = 4;
constexpr size_t kCounterTextSize = 11;  // ten digits and the terminator

// Touched only by the device thread, through DmsServer_SystemUpdateChanged.
uint32_t gLastEventedUpdateId = 0;

UPnPArgValue Text(const char* name, const char* value) {
  return {name, value, static_cast<uint32_t>(std::strlen(value))};
}

struct CounterText {
  char text[kCounterTextSize];
};

CounterText SystemUpdateIdText() {
  CounterText counter{};
  std::snprintf(counter.text, sizeof counter.text, "%u", static_cast<unsigned>(DmsContent_SystemUpdateId()));
  return counter;
}

void Answer(const char* serviceType, const char* actionName, const UPnPArgValue* outputs, HTTPResponse* response) {
  response->status = "200 OK";
  std::string body = UPnP_MakeActionResponseSuccess(serviceType, actionName, outputs);
  if (body.empty()) {
    response->contentLength = 0;
    return;
  }
  HTTPResponse_SetBody(response, std::move(body));
}

}  // namespace

void DmsActions_GetCurrentConnectionIDs(HTTPRequest*, const char* serviceType, const char* actionName,
                                        const UPnPArgValue*, int32_t, HTTPResponse* response) {
  const UPnPArgValue outputs[] = {Text("ConnectionIDs", kConnectionIds), {nullptr, nullptr, 0}};
  Answer(serviceType, actionName, outputs, response);
}

// The same answer for every connection id, known or not.
void DmsActions_GetCurrentConnectionInfo(HTTPRequest*, const char* serviceType, const char* actionName,
                                         const UPnPArgValue*, int32_t, HTTPResponse* response) {
  const UPnPArgValue outputs[] = {
      Text("RcsID", kNoConnection),
      Text("AVTransportID", kNoConnection),
      Text("ProtocolInfo", ""),
      Text("PeerConnectionManager", ""),
      Text("PeerConnectionID", kNoConnection),
      Text("Direction", dlnaConnectionDirections[kDirectionOutput]),
      Text("Status", dlnaConnectionStatuses[kStatusUnknown]),
      {nullptr, nullptr, 0},
  };
  Answer(serviceType, actionName, outputs, response);
}

void DmsActions_GetProtocolInfo(HTTPRequest*, const char* serviceType, const char* actionName, const UPnPArgValue*,
                                int32_t, HTTPResponse* response) {
  const UPnPArgValue outputs[] = {
      Text("Source", dmsSourceProtocolInfo),
      Text("Sink", dmsSinkProtocolInfo),
      {nullptr, nullptr, 0},
  };
  Answer(serviceType, actionName, outputs, response);
}

void DmsActions_GetSearchCapabilities(HTTPRequest*, const char* serviceType, const char* actionName,
                                      const UPnPArgValue*, int32_t, HTTPResponse* response) {
  const UPnPArgValue outputs[] = {Text("SearchCaps", ""), {nullptr, nullptr, 0}};
  Answer(serviceType, actionName, outputs, response);
}

void DmsActions_GetSortCapabilities(HTTPRequest*, const char* serviceType, const char* actionName,
                                    const UPnPArgValue*, int32_t, HTTPResponse* response) {
  const UPnPArgValue outputs[] = {Text("SortCaps", ""), {nullptr, nullptr, 0}};
  Answer(serviceType, actionName, outputs, response);
}

void DmsActions_GetSystemUpdateID(HTTPRequest*, const char* serviceType, const char* actionName,
                                  const UPnPArgValue*, int32_t, HTTPResponse* response) {
  const CounterText counter = SystemUpdateIdText();
  const UPnPArgValue outputs[] = {Text("Id", counter.text), {nullptr, nullptr, 0}};
  Answer(serviceType, actionName, outputs, response);
}

std::string DmsActions_MakeEventBody(const char* serviceType, bool) {
  if (serviceType == dlnaServiceTypes[kDlnaContentDirectoryRow]) {
    const CounterText counter = SystemUpdateIdText();
    const UPnPArgValue values[] = {
        Text("SystemUpdateID", counter.text),
        Text("ContainerUpdateIDs", ""),
        {nullptr, nullptr, 0},
    };
    return UPnP_MakeEventMessage(values);
  }
  if (serviceType == dlnaServiceTypes[kDlnaConnectionManagerRow]) {
    const UPnPArgValue values[] = {
        Text("CurrentConnectionIDs", kConnectionIds),
        Text("SourceProtocolInfo", dmsSourceProtocolInfo),
        Text("SinkProtocolInfo", dmsSinkProtocolInfo),
        {nullptr, nullptr, 0},
    };
    return UPnP_MakeEventMessage(values);
  }
  return {};
}

bool DmsServer_SystemUpdateChanged(const char* serviceType) {
  if (serviceType != dlnaServiceTypes[kDlnaContentDirectoryRow]) return false;
  const uint32_t current = DmsContent_SystemUpdateId();
  if (current == gLastEventedUpdateId) return false;
  gLastEventedUpdateId = current;
  return true;
}
