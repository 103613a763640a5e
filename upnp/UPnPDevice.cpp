// The running device: the HTTP server whose every request lands in
// UPnPDevice_HandleRequest (body reading, the server's hook, exact-path
// dispatch to description, SCPD, control and eventing), and the device thread
// that delivers events every tick, follows the network interfaces and keeps
// one SSDP engine and one mDNS responder per interface.
#include "upnp/UPnPDevice.h"

#include <netdb.h>
#include <sys/socket.h>
#include <sys/utsname.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <exception>
#include <mutex>
#include <new>
#include <string_view>

#include "base/NetworkInterface.h"
#include "base/Text.h"
#include "http/HTTPServer.h"
#include "mdns/MDNS.h"
#include "ssdp/SSDP.h"
#include "upnp/GENA.h"

namespace {

constexpr int kKeepAliveWaitMs = 10000;
constexpr int64_t kMaxBody = 2097152;
constexpr int64_t kChunkSizeLimit = 2147483631;
constexpr size_t kOsTokenLimit = 127;
constexpr size_t kAddressTextSize = 16;
constexpr size_t kHardwareTextSize = 18;  // six pairs joined by "-"
constexpr std::chrono::milliseconds kTick{200};
constexpr unsigned kTickMask = 255;
constexpr unsigned kInterfaceCheckEvery = 20;
constexpr unsigned kInterfaceCheckTick = 19;
constexpr int kSsdpMaxAge = 1800;
constexpr const char* kStatusTooLarge = "413 Request Entity Too Large";
constexpr const char* kXmlContentType = "text/xml; charset=\"utf-8\"";

std::once_flag gOsTokenOnce;
char gOsToken[kOsTokenLimit + 1] = "";  // fixed: made at start, where memory may be short

void ComputeOsToken() {
  utsname system{};
  if (uname(&system) != 0) return;
  // Cut at the limit: the release text may be long.
  if (std::snprintf(gOsToken, sizeof gOsToken, "%s/%s", system.sysname, system.release) < 0) gOsToken[0] = '\0';
}

enum class BodyResult { kOk, kTooLarge, kFailed };

bool ReadExactly(HTTPRequest* request, char* buffer, size_t length) {
  while (length > 0) {
    ssize_t got = HTTPRequest_ReadData(request, buffer, length);
    if (got < 1) return false;
    buffer += got;
    length -= static_cast<size_t>(got);
  }
  return true;
}

bool ReadLineEnd(HTTPRequest* request) {
  char end[2];
  return ReadExactly(request, end, sizeof end) && end[0] == '\r' && end[1] == '\n';
}

// One chunk-size line: hexadecimal digits, CR skipped, ended by LF. Anything
// else, chunk extensions included, fails.
bool ReadChunkSize(HTTPRequest* request, int64_t& size) {
  size = 0;
  for (;;) {
    char c;
    if (!ReadExactly(request, &c, 1)) return false;
    if (c == '\n') return true;
    if (c == '\r') continue;
    const int digit = Text_HexValue(c);
    if (digit < 0) return false;
    size = size * 16 + digit;
    if (size >= kChunkSizeLimit) return false;
  }
}

BodyResult ReadChunkedBody(HTTPRequest* request, std::string& body) {
  for (;;) {
    int64_t size = 0;
    if (!ReadChunkSize(request, size)) return BodyResult::kFailed;
    if (size == 0) return ReadLineEnd(request) ? BodyResult::kOk : BodyResult::kFailed;
    if (static_cast<int64_t>(body.size()) + size > kMaxBody) return BodyResult::kTooLarge;
    size_t used = body.size();
    body.resize(used + static_cast<size_t>(size));
    if (!ReadExactly(request, body.data() + used, static_cast<size_t>(size)) || !ReadLineEnd(request)) {
      return BodyResult::kFailed;
    }
  }
}

BodyResult ReadBody(HTTPRequest* request, std::string& body) {
  try {
    if (Text_ContainsNoCase(HTTPRequest_GetHeader(request, "Transfer-Encoding"), "chunked")) {
      return ReadChunkedBody(request, body);
    }
    int64_t length = HTTPRequest_GetContentLength(request);
    if (length > kMaxBody) return BodyResult::kTooLarge;
    if (length <= 0) return BodyResult::kOk;
    body.resize(static_cast<size_t>(length));
    return ReadExactly(request, body.data(), body.size()) ? BodyResult::kOk : BodyResult::kFailed;
  } catch (const std::bad_alloc&) {
    return BodyResult::kFailed;
  }
}

void SetDocument(HTTPResponse* response, std::string document) {
  response->status = "200 OK";
  if (document.empty()) {
    response->contentLength = 0;
    return;
  }
  HTTPResponse_SetBody(response, std::move(document));
}

// Exact-path dispatch; true when the path was a control path.
bool Dispatch(UPnPDevice* device, HTTPRequest* request, const char* path, const std::string& body,
              HTTPResponse* response) {
  std::string_view requested(path);
  if (device->descriptionPath && requested == device->descriptionPath) {
    char local[kAddressTextSize] = "";
    bool known = HTTPRequest_GetSockName(request, local, sizeof local, nullptr);
    SetDocument(response, UPnPDevice_MakeDescription(device, known ? local : nullptr));
    return false;
  }
  for (UPnPService* service = device->services; service && service->serviceType; ++service) {
    if (service->controlPath && requested == service->controlPath) {
      UPnP_HandleControl(request, service, body.empty() ? nullptr : body.c_str(), response,
                         device->argumentsInAnyOrder);
      return true;
    }
    if (service->eventPath && requested == service->eventPath) {
      GENA_HandleRequest(device, service, HTTPRequest_GetMethodString(request), HTTPRequest_GetHeader(request, "NT"),
                         HTTPRequest_GetHeader(request, "SID"), HTTPRequest_GetHeader(request, "CALLBACK"),
                         response);
      // Event replies carry no body and so no content type.
      response->contentType = nullptr;
      return false;
    }
    if (service->scpdPath && requested == service->scpdPath) {
      SetDocument(response, UPnPDevice_MakeSCPD(service));
      return false;
    }
  }
  return false;
}

void AddServerHeader(const UPnPDevice* device, HTTPResponse* response, bool control) {
  auto text = [](const char* value) { return value ? value : ""; };
  response->extraHeaders = std::string("Server: ") + gOsToken + " UPnP/1.0 " + text(device->modelName) + "/" +
                           text(device->modelNumber) + "\r\n" + (control ? "EXT:\r\n" : "") +
                           response->extraHeaders;
}

void ReleaseInterfaces(UPnPDevice* device) {
  for (SSDP* engine : device->ssdpEngines) SSDP_delete(engine);
  device->ssdpEngines.clear();
  for (MDNSResponder* responder : device->mdnsResponders) MDNS_delete(responder);
  device->mdnsResponders.clear();
  NetworkInterface_delete(device->interfaces);
  device->interfaces = nullptr;
  device->interfaceCount = 0;
}

// With the same addresses, an interface made again between two checks keeps
// its engines running, on fresh sockets, as the old ones lost the interface.
void RenewRecreated(UPnPDevice* device, NetworkInterface* fresh) {
  size_t slot = 0;
  for (const NetworkInterface *old = device->interfaces, *now = fresh; old && now;
       old = old->next, now = now->next, ++slot) {
    if (!NetworkInterface_Recreated(*old, *now)) continue;
    if (slot < device->ssdpEngines.size()) SSDP_Renew(device->ssdpEngines[slot]);
    if (slot < device->mdnsResponders.size()) MDNS_Renew(device->mdnsResponders[slot]);
  }
  NetworkInterface_delete(device->interfaces);
  device->interfaces = fresh;
}

// Recreates the SSDP engines and mDNS responders when the interface addresses
// changed since the previous check. A responder announces the interface's
// hardware address as its host name.
void CheckInterfaces(UPnPDevice* device) {
  NetworkInterface* fresh = NetworkInterface_new();
  if (NetworkInterface_SameAddresses(device->interfaces, fresh)) {
    RenewRecreated(device, fresh);
    return;
  }
  ReleaseInterfaces(device);
  device->interfaces = fresh;
  for (const NetworkInterface* i = fresh; i; i = i->next) ++device->interfaceCount;
  device->ssdpEngines.assign(device->interfaceCount, nullptr);
  device->mdnsResponders.assign(device->interfaceCount, nullptr);

  const std::string product = std::string(device->modelName ? device->modelName : "") + "/" +
                              (device->modelNumber ? device->modelNumber : "");
  int slot = 0;
  for (const NetworkInterface* i = fresh; i; i = i->next, ++slot) {
    char host[kAddressTextSize] = "";
    getnameinfo(reinterpret_cast<const sockaddr*>(&i->address), sizeof i->address, host, sizeof host, nullptr, 0,
                NI_NUMERICHOST);
    if (device->ssdpTargets && device->ssdpTargetCount > 0) {
      device->ssdpEngines[slot] = SSDP_new(device->ssdpTargets, device->ssdpTargetCount, device->udn, host,
                                           device->port, device->descriptionPath, kSsdpMaxAge, gOsToken,
                                           product.c_str(), "");
    }
    if (device->mdnsServices && device->mdnsServiceCount > 0) {
      char hardware[kHardwareTextSize] = "";
      std::snprintf(hardware, sizeof hardware, "%02X-%02X-%02X-%02X-%02X-%02X", i->mac[0], i->mac[1], i->mac[2],
                    i->mac[3], i->mac[4], i->mac[5]);
      device->mdnsResponders[slot] = MDNS_new(hardware, host, device->mdnsServices, device->mdnsServiceCount);
    }
  }
}

// Every 200 ms tick; the interface checks fall on ticks 19, 39, ... 239 of a
// counter that wraps at 256, so they are 4 s apart with one 7.2 s gap. The
// sleep follows each tick's work, so a long delivery pass leaves the
// subscriptions that waited for it a full tick to join the next one.
void DeviceThread(UPnPDevice* device) {
  unsigned counter = 0;
  while (device->running) {
    std::this_thread::sleep_for(kTick);
    counter = (counter + 1) & kTickMask;
    GENA_DeliverEvents(device);
    if (counter % kInterfaceCheckEvery != kInterfaceCheckTick) continue;
    try {
      CheckInterfaces(device);
    } catch (const std::bad_alloc&) {
      // Without the engines the next check finds the addresses changed and tries again.
      ReleaseInterfaces(device);
    }
  }
  ReleaseInterfaces(device);
  GENA_FreeSubscribers(device);
}

// The server's callbacks: every connection carries the device as its user
// data, and one default entry routes every request to the device.
void ServerStarted(HTTPServer*, void*) {}
void ServerStopped(HTTPServer*, void*) {}
void StoreDevice(HTTPRequest*, void* context, void** userData) { *userData = context; }
void ConnectionClosed(HTTPRequest*, void*) {}

const HTTPHandlerEntry kDefaultEntry = {HTTP_METHOD_UNKNOWN, nullptr, "", UPnPDevice_HandleRequest};

}  // namespace

const char* const dlnaDeviceTypes[kDlnaDeviceTypeCount] = {
    "urn:schemas-upnp-org:device:MediaServer:1",
    "urn:schemas-upnp-org:device:MediaRenderer:1",
};
const char* const dlnaServiceTypes[kDlnaServiceTypeCount] = {
    "urn:schemas-upnp-org:service:ConnectionManager:1",
    "urn:schemas-upnp-org:service:ContentDirectory:1",
    "urn:schemas-upnp-org:service:AVTransport:1",
    "urn:schemas-upnp-org:service:RenderingControl:1",
};
const char* const dlnaServiceIDs[kDlnaServiceTypeCount] = {
    "urn:upnp-org:serviceId:ConnectionManager",
    "urn:upnp-org:serviceId:ContentDirectory",
    "urn:upnp-org:serviceId:AVTransport",
    "urn:upnp-org:serviceId:RenderingControl",
};

int UPnPDevice_HandleRequest(HTTPResponse* response, void*, const char* path, const char*, HTTPRequest* request,
                             void* userData) {
  auto* device = static_cast<UPnPDevice*>(userData);
  if (!device) return 0;
  if (response->keepAlive) response->keepAliveWait = kKeepAliveWaitMs;

  std::string body;
  switch (ReadBody(request, body)) {
    case BodyResult::kFailed:
      response->keepAlive = false;
      return 0;
    case BodyResult::kTooLarge:
      response->status = kStatusTooLarge;
      AddServerHeader(device, response, false);
      return 0;
    case BodyResult::kOk: break;
  }
  if (device->httpHook &&
      device->httpHook(request, response, path, body.empty() ? nullptr : body.c_str(), body.size(), device)) {
    return 0;
  }
  response->version = "HTTP/1.1";
  response->status = "400 Bad Request";
  response->contentType = kXmlContentType;
  bool control = Dispatch(device, request, path, body, response);
  if (!response->handled) AddServerHeader(device, response, control);
  return 0;
}

const char* UPnP_OsToken() {
  std::call_once(gOsTokenOnce, ComputeOsToken);
  return gOsToken;
}

bool UPnPDevice_Open(UPnPDevice* device, uint16_t port) {
  UPnP_OsToken();
  if (!device) return false;
  if (device->running) return true;
  device->port = port;
  device->server = HTTP_new(&device->port, device, ServerStarted, ServerStopped, StoreDevice, nullptr, nullptr,
                            &kDefaultEntry, ConnectionClosed);
  if (!device->server) return false;
  for (int32_t i = 0; device->mdnsServices && i < device->mdnsServiceCount; ++i) {
    device->mdnsServices[i].port = device->port;
  }
  device->running = true;
  try {
    device->thread = std::thread(DeviceThread, device);
  } catch (const std::exception&) {  // no thread, or no memory for one
    UPnPDevice_Close(device);
    return false;
  }
  return true;
}

void UPnPDevice_Close(UPnPDevice* device) {
  if (!device || !device->running) return;
  device->running = false;
  HTTP_delete(device->server);
  device->server = nullptr;
  if (device->thread.joinable()) device->thread.join();
}
