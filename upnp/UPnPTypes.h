// The static records a UPnP server fills in to describe its root device:
// device fields, services, actions, arguments and state variables, the
// callbacks it attaches, and the device's run-time part. The device, SOAP and
// eventing modules all read these records, so they live apart from each of
// them.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

struct GENASubscriber;
struct HTTPRequest;
struct HTTPResponse;
struct HTTPServer;
struct MDNSResponder;
struct MDNSService;
struct NetworkInterface;
struct SSDP;
struct UPnPDevice;

// One argument value. Input values point into the request body (not
// terminated at `length`, entities left as sent); output values are written
// exactly as given, so handlers escape them. Lists end with a null name.
struct UPnPArgValue {
  const char* name;
  const char* value;
  uint32_t length;
};

// An action handler: fills the response (status, body, content length) or
// writes the whole reply itself on the connection and marks it handled.
using UPnPActionHandler = void (*)(HTTPRequest* request, const char* serviceType, const char* actionName,
                                   const UPnPArgValue* args, int32_t count, HTTPResponse* response);

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
  // Control requests' input arguments are found in any order (UPnP_ParseControl).
  bool argumentsInAnyOrder = false;

  std::atomic<bool> running{false};
  std::thread thread{};
  HTTPServer* server = nullptr;
  uint16_t port = 0;
  NetworkInterface* interfaces = nullptr;
  int interfaceCount = 0;
  std::vector<SSDP*> ssdpEngines{};
  std::vector<MDNSResponder*> mdnsResponders{};
};
