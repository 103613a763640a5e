// The table-driven UPnP root device: the static records a server fills in
// (device fields, services, actions, arguments, state variables), the
// description and SCPD documents built from them, and the running device
// (HTTP server, request dispatch, device thread with the SSDP engines).
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "upnp/UPnPSoap.h"

struct GENASubscriber;
struct HTTPServer;
struct MDNSResponder;
struct MDNSService;
struct NetworkInterface;
struct SSDP;
struct UPnPDevice;

struct UPnPArgument {
  const char* name;
  const char* relatedStateVariable;
};

// An action whose handler is null is left out of the SCPD and answered with
// fault 602. Argument lists end with a null name; either may be null.
struct UPnPAction {
  const char* name;
  UPnPActionHandler handler;
  const UPnPArgument* inArgs;
  const UPnPArgument* outArgs;
};

struct UPnPStateVariable {
  const char* name;
  const char* dataType;
  uint8_t sendEvents;
  const char* const* allowedValues;  // null-terminated, or null
  const char* defaultValue;          // or null
  const int32_t* range;              // minimum, maximum, step; or null
};

// Services are told apart by the identity of `serviceType`. `actions` and
// `stateVariables` end with a null name; `subscribers` heads the service's
// event subscriber list.
struct UPnPService {
  const char* serviceType;
  const char* serviceId;
  const char* scpdPath;
  const char* controlPath;
  const char* eventPath;
  UPnPAction* actions;
  const UPnPStateVariable* stateVariables;
  GENASubscriber* subscribers;
};

// Tried first for every request, with the request body already read (null
// with length 0 when there is none). Returns true when it has answered the
// request by filling the response, or by writing the reply itself.
using UPnPHttpHook = bool (*)(HTTPRequest* request, HTTPResponse* response, const char* path, const char* body,
                              size_t bodyLength, UPnPDevice* device);
// A property set with the service's evented values (all of them when
// `initial`); empty when the service has none.
using UPnPMakeEventBody = std::string (*)(const char* serviceType, bool initial);
// True once after the service's evented state changed.
using UPnPStateChanged = bool (*)(const char* serviceType);

// One root device. The configuration part is filled by the server and must
// stay valid while the device is open; the run-time part belongs to
// UPnPDevice_Open, UPnPDevice_Close and the device thread.
struct UPnPDevice {
  const char* deviceType = nullptr;
  const char* friendlyName = nullptr;
  const char* manufacturer = nullptr;
  const char* modelName = nullptr;
  const char* modelDescription = nullptr;
  const char* modelNumber = nullptr;
  const char* udn = nullptr;  // without "uuid:"
  const char* extraXml = nullptr;
  const char* descriptionPath = nullptr;
  const char* const* ssdpTargets = nullptr;
  int32_t ssdpTargetCount = 0;  // 0 switches SSDP off
  MDNSService* mdnsServices = nullptr;
  int32_t mdnsServiceCount = 0;  // 0 switches mDNS off
  UPnPService* services = nullptr;  // ends with a null serviceType
  UPnPHttpHook httpHook = nullptr;
  UPnPMakeEventBody makeEventBody = nullptr;
  UPnPStateChanged stateChanged = nullptr;

  std::atomic<bool> running{false};
  std::thread thread{};
  HTTPServer* server = nullptr;
  uint16_t port = 0;
  NetworkInterface* interfaces = nullptr;
  int interfaceCount = 0;
  std::vector<SSDP*> ssdpEngines{};
  std::vector<MDNSResponder*> mdnsResponders{};
};

// "system/release" of the host (at most 127 characters), computed once; the
// product token of every Server line and SSDP message.
const char* UPnP_OsToken();

// Starts the HTTP server on `port` (0: any free port; the bound port is then
// in device->port) and the device thread. True when running.
bool UPnPDevice_Open(UPnPDevice* device, uint16_t port);
// Stops a running device; null or stopped devices are ignored.
void UPnPDevice_Close(UPnPDevice* device);

// The HTTP handler behind every request of the device's server; the
// connection's user data is the device.
int UPnPDevice_HandleRequest(HTTPResponse* response, void* handlerContext, const char* path, const char* entryPath,
                             HTTPRequest* request, void* userData);

// The description document for a client that reached us on `localAddress`
// (null: no presentation URL); cut at 2047 characters. Empty on failure.
std::string UPnPDevice_MakeDescription(const UPnPDevice* device, const char* localAddress);
// The service description document; cut at 16383 characters.
std::string UPnPDevice_MakeSCPD(const UPnPService* service);

// A copy of `text` with the five XML special characters escaped; null gives
// the empty text.
std::string XML_Escape(const char* text);
// Appends `text` with the five XML special characters escaped; `twice`
// escapes the ampersand of each entity once more ("&amp;lt;"), for XML that
// travels escaped inside other XML.
void XML_AppendEscaped(std::string& out, std::string_view text, bool twice);
