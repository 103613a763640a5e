// Event subscriptions of the device's services: SUBSCRIBE, renewal and
// UNSUBSCRIBE on a service's event path, and the delivery pass that the
// device thread runs every tick to send initial and change events as NOTIFY
// requests. Also the builders for the property-set and escaped-event texts.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "upnp/UUID.h"

struct HTTPResponse;
struct UPnPArgValue;
struct UPnPDevice;
struct UPnPService;

// Every subscription lasts this long after its SUBSCRIBE or last renewal.
inline constexpr int64_t kGenaSubscriptionSeconds = 300;

// One subscription, linked from its service's `subscribers`. Every field and
// every list is guarded by the one subscriber mutex.
struct GENASubscriber {
  char sid[UUID_TextSize];  // upper-case UUID text, sent behind "uuid:"
  uint32_t seq;             // 0 until the initial event went out
  int64_t expires;          // absolute time in seconds
  std::string callbackHost;
  uint16_t callbackPort;  // 65535 when the callback named no port
  std::string callbackPath;
  GENASubscriber* next;
};

// Answers a request on a service's event path: a new subscription, a renewal
// or a cancellation; anything else is left at "412 Precondition Failed".
void GENA_HandleRequest(UPnPDevice* device, UPnPService* service, const char* method, const char* nt,
                        const char* sid, const char* callback, HTTPResponse* response);

// One delivery pass over every service of the device: drops expired
// subscribers and sends due initial and change events. Holds the subscriber
// mutex throughout, network I/O included.
void GENA_DeliverEvents(UPnPDevice* device);

// Frees every subscriber of every service of the device (on close).
void GENA_FreeSubscribers(UPnPDevice* device);

// Sends one NOTIFY over a new TCP connection to an IPv4 dotted address. True
// when the headers and the body went out completely.
bool GENA_SendNotify(const char* host, uint16_t port, const char* path, const GENASubscriber& subscriber,
                     uint32_t seq, std::string_view body);
// The same on a connected socket `fd`, which it shuts down (but does not
// close) after reading the subscriber's answer; `host` and `port` only fill
// the Host line.
bool GENA_NotifyOn(int fd, const char* host, uint16_t port, const char* path, const GENASubscriber& subscriber,
                   uint32_t seq, std::string_view body);

// Splits a URL into scheme (with its ":"), user-info (with its "@"), host,
// port (-1 when none) and path (from the first "/" or "?"). A text without
// ":" is all path. Each buffer may be null with size 0; copies are cut to
// fit and always terminated.
void GENA_ParseURL(std::string_view url, char* scheme, size_t schemeSize, char* userInfo, size_t userInfoSize,
                   char* host, size_t hostSize, int* port, char* path, size_t pathSize);

// A property-set document with one property per value (ended by a null
// name); values are written unescaped, empty ones as self-closed elements.
// Empty when memory runs out.
std::string UPnP_MakeEventMessage(const UPnPArgValue* values);

// The escaped "Event" text that a service's change variable carries, for
// the service named `serviceName` and the given instance. Empty when memory
// runs out.
std::string UPnP_MakeLastChange(const char* serviceName, int instanceId, const UPnPArgValue* values);
