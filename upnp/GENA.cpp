// Event subscriptions and notifications. The design is deliberately simple:
// one mutex guards every subscriber list, and the device thread holds it
// across a whole delivery pass including the network I/O, whose short
// time-outs bound how long a slow or absent subscriber can stall the pass.
#include "upnp/GENA.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <mutex>
#include <new>
#include <optional>

#include "http/HTTPRequest.h"
#include "base/Text.h"
#include "base/UniqueFd.h"
#include "upnp/UPnPTypes.h"

namespace {

constexpr const char* kStatusPreconditionFailed = "412 Precondition Failed";
constexpr const char* kStatusOk = "200 OK";
constexpr const char* kSidPrefix = "uuid:";
constexpr size_t kSidPrefixLength = 5;
constexpr size_t kCallbackMinLength = 11;
constexpr size_t kCallbackMaxLength = 511;
constexpr size_t kHostSize = 256;
constexpr size_t kPathSize = 512;
constexpr size_t kSubscribeHeadersSize = 128;
constexpr size_t kNotifyHeadSize = 1024;
constexpr size_t kAnswerSize = 512;
constexpr int kConnectWaitMs = 1000;
constexpr int kLingerSeconds = 1;
constexpr timeval kSendTimeout = {1, 0};
constexpr timeval kReceiveTimeout = {0, 200000};
constexpr useconds_t kContinuePauseUs = 300000;
constexpr size_t kLastChangeHeadSize = 1024;

std::mutex gSubscriberMutex;

// A missing text matches nothing.
bool SameNoCase(const char* a, const char* b) { return a && b && Text_EqualsNoCase(a, b); }

void CopyCut(std::string_view text, char* buffer, size_t size) {
  if (!buffer || size == 0) return;
  size_t length = std::min(text.size(), size - 1);
  if (length > 0) std::memcpy(buffer, text.data(), length);
  buffer[length] = '\0';
}

void SetSubscribed(HTTPResponse* response, const char* sid) {
  char headers[kSubscribeHeadersSize];
  int length = std::snprintf(headers, sizeof headers, "SID: uuid:%s\r\nTIMEOUT: Second-300\r\n", sid);
  if (length < 0) return;
  response->extraHeaders.assign(headers, std::min(static_cast<size_t>(length), sizeof headers - 1));
  response->status = kStatusOk;
}

int64_t Now() { return static_cast<int64_t>(std::time(nullptr)); }

void Subscribe(UPnPService* service, const char* callback, HTTPResponse* response) {
  std::string_view url;
  size_t callbackLength = callback ? std::strlen(callback) : 0;
  if (callbackLength >= kCallbackMinLength && callbackLength <= kCallbackMaxLength) {
    // The angle brackets around the URL.
    url = std::string_view(callback + 1, callbackLength - 2);
  }
  char host[kHostSize];
  char path[kPathSize];
  int port = -1;
  GENA_ParseURL(url, nullptr, 0, nullptr, 0, host, sizeof host, &port, path, sizeof path);

  std::unique_ptr<GENASubscriber> subscriber(new GENASubscriber{});
  subscriber->callbackHost = host;
  subscriber->callbackPath = path;
  UUID uuid;
  UUID_Generate(uuid);
  UUID_Unparse(uuid, subscriber->sid);
  subscriber->seq = 0;
  subscriber->expires = Now() + kGenaSubscriptionSeconds;
  // A missing port is kept as the parser's -1, which is 65535 here.
  subscriber->callbackPort = static_cast<uint16_t>(port);
  SetSubscribed(response, subscriber->sid);

  std::lock_guard lock(gSubscriberMutex);
  subscriber->next = service->subscribers;
  service->subscribers = subscriber.release();
}

void Renew(UPnPService* service, const char* sid, HTTPResponse* response) {
  std::lock_guard lock(gSubscriberMutex);
  for (GENASubscriber* subscriber = service->subscribers; subscriber; subscriber = subscriber->next) {
    if (SameNoCase(subscriber->sid, sid)) {
      subscriber->expires = Now() + kGenaSubscriptionSeconds;
      SetSubscribed(response, sid);
      return;
    }
  }
}

void Unsubscribe(UPnPService* service, const char* sid, HTTPResponse* response) {
  // Unknown SIDs are answered with success too: the subscription is gone
  // either way.
  response->status = kStatusOk;
  std::unique_ptr<GENASubscriber> removed;
  std::lock_guard lock(gSubscriberMutex);
  for (GENASubscriber** link = &service->subscribers; *link; link = &(*link)->next) {
    if (SameNoCase((*link)->sid, sid)) {
      removed.reset(*link);
      *link = removed->next;
      return;
    }
  }
}

void FreeList(GENASubscriber*& head) {
  while (head) std::unique_ptr<GENASubscriber> removed(std::exchange(head, head->next));
}

std::string MakeBody(UPnPDevice* device, const char* serviceType, bool initial) {
  try {
    return device->makeEventBody(serviceType, initial);
  } catch (const std::bad_alloc&) {
    return {};
  }
}

bool SendAll(int fd, std::string_view data) {
  while (!data.empty()) {
    ssize_t sent = ::send(fd, data.data(), data.size(), MSG_NOSIGNAL);
    if (sent < 1) return false;
    data.remove_prefix(static_cast<size_t>(sent));
  }
  return true;
}

bool SetBlocking(int fd, bool blocking) {
  int flags = ::fcntl(fd, F_GETFL);
  if (flags < 0) return false;
  flags = blocking ? flags & ~O_NONBLOCK : flags | O_NONBLOCK;
  return ::fcntl(fd, F_SETFL, flags) == 0;
}

// Connects with a bounded wait: a subscriber that never completes the
// handshake costs at most a second of the delivery pass.
UniqueFd Connect(const char* host, uint16_t port) {
  UniqueFd fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP));
  if (!fd.valid() || !SetBlocking(fd.get(), false)) return {};
  int one = 1;
  ::setsockopt(fd.get(), IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  linger lingerOn = {1, kLingerSeconds};
  ::setsockopt(fd.get(), SOL_SOCKET, SO_LINGER, &lingerOn, sizeof lingerOn);

  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = ::inet_addr(host);
  if (::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    if (errno != EINPROGRESS) return {};
    pollfd waiting = {fd.get(), POLLOUT, 0};
    if (::poll(&waiting, 1, kConnectWaitMs) != 1) return {};
  }
  if (!SetBlocking(fd.get(), true)) return {};
  ::setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &kSendTimeout, sizeof kSendTimeout);
  ::setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &kReceiveTimeout, sizeof kReceiveTimeout);
  return fd;
}

}  // namespace

void GENA_HandleRequest(UPnPDevice*, UPnPService* service, const char* method, const char* nt, const char* sid,
                        const char* callback, HTTPResponse* response) {
  if (!response) return;
  response->status = kStatusPreconditionFailed;
  if (!service) return;
  const bool hasSid = sid && std::strstr(sid, kSidPrefix);
  try {
    if (SameNoCase(method, "SUBSCRIBE") && SameNoCase(nt, "upnp:event")) {
      Subscribe(service, callback, response);
    } else if (SameNoCase(method, "SUBSCRIBE") && hasSid) {
      Renew(service, sid + kSidPrefixLength, response);
    } else if (SameNoCase(method, "UNSUBSCRIBE") && hasSid) {
      Unsubscribe(service, sid + kSidPrefixLength, response);
    }
  } catch (const std::bad_alloc&) {
    // No memory for the subscriber or for the reply: no subscription is made.
    response->status = kStatusPreconditionFailed;
  }
}

void GENA_DeliverEvents(UPnPDevice* device) {
  if (!device) return;
  std::lock_guard lock(gSubscriberMutex);
  const int64_t now = Now();
  const bool evented = device->makeEventBody && device->stateChanged;
  for (UPnPService* service = device->services; service && service->serviceType; ++service) {
    // Asked even without subscribers, so that a change nobody heard about is
    // not reported to the next subscriber as news.
    const bool changed = device->stateChanged && device->stateChanged(service->serviceType);
    std::optional<std::string> initialBody;
    std::optional<std::string> changeBody;
    for (GENASubscriber** link = &service->subscribers; *link;) {
      GENASubscriber* subscriber = *link;
      if (now > subscriber->expires) {
        std::unique_ptr<GENASubscriber> expired(subscriber);
        *link = subscriber->next;
        continue;
      }
      link = &subscriber->next;
      if (!evented) continue;
      const std::string* body = nullptr;
      if (subscriber->seq == 0) {
        if (!initialBody) initialBody = MakeBody(device, service->serviceType, true);
        body = &*initialBody;
      } else if (changed) {
        if (!changeBody) changeBody = MakeBody(device, service->serviceType, false);
        body = &*changeBody;
      } else {
        continue;
      }
      if (!body->empty()) {
        GENA_SendNotify(subscriber->callbackHost.c_str(), subscriber->callbackPort,
                        subscriber->callbackPath.c_str(), *subscriber, subscriber->seq, *body);
      }
      // The key advances even when nothing went out; after wrapping it skips
      // 0, which only ever marks the initial event.
      subscriber->seq = subscriber->seq == UINT32_MAX ? 1 : subscriber->seq + 1;
    }
  }
}

void GENA_FreeSubscribers(UPnPDevice* device) {
  if (!device) return;
  std::lock_guard lock(gSubscriberMutex);
  for (UPnPService* service = device->services; service && service->serviceType; ++service) {
    FreeList(service->subscribers);
  }
}

bool GENA_SendNotify(const char* host, uint16_t port, const char* path, const GENASubscriber& subscriber,
                     uint32_t seq, std::string_view body) {
  if (!host || !path) return false;
  UniqueFd fd = Connect(host, port);
  if (!fd.valid()) return false;
  return GENA_NotifyOn(fd.get(), host, port, path, subscriber, seq, body);
}

bool GENA_NotifyOn(int fd, const char* host, uint16_t port, const char* path, const GENASubscriber& subscriber,
                   uint32_t seq, std::string_view body) {
  char head[kNotifyHeadSize];
  int length = std::snprintf(head, sizeof head,
                             "NOTIFY %s HTTP/1.1\r\nHost: %s:%d\r\nContent-Type: text/xml; charset=\"utf-8\"\r\n"
                             "Content-Length: %d\r\nConnection: close\r\nNT: upnp:event\r\n"
                             "NTS: upnp:propchange\r\nSID: uuid:%s\r\nSEQ: %u\r\n\r\n",
                             path, host, static_cast<int>(port), static_cast<int>(body.size()), subscriber.sid,
                             static_cast<unsigned>(seq));
  if (length < 0) return false;
  const bool sent = SendAll(fd, std::string_view(head, std::min(static_cast<size_t>(length), sizeof head - 1))) &&
                    SendAll(fd, body);

  // The answer is read but not judged; an interim "100 Continue" gets a
  // short grace period for the final answer.
  char answer[kAnswerSize];
  ssize_t got = ::recv(fd, answer, sizeof answer - 1, 0);
  if (got > 0 && Text_ContainsNoCase(std::string_view(answer, static_cast<size_t>(got)), "100 Continue")) {
    ::usleep(kContinuePauseUs);
    ::recv(fd, answer, sizeof answer - 1, 0);
  }
  ::shutdown(fd, SHUT_RDWR);
  return sent;
}

void GENA_ParseURL(std::string_view url, char* scheme, size_t schemeSize, char* userInfo, size_t userInfoSize,
                   char* host, size_t hostSize, int* port, char* path, size_t pathSize) {
  if (port) *port = -1;
  CopyCut({}, scheme, schemeSize);
  CopyCut({}, userInfo, userInfoSize);
  CopyCut({}, host, hostSize);
  CopyCut({}, path, pathSize);

  size_t colon = url.find(':');
  if (colon == std::string_view::npos) {
    CopyCut(url, path, pathSize);
    return;
  }
  CopyCut(url.substr(0, colon + 1), scheme, schemeSize);
  size_t start = colon + 1;
  for (int slashes = 0; slashes < 2 && start < url.size() && url[start] == '/'; ++slashes) ++start;

  size_t end = url.find_first_of("/?", start);
  if (end == std::string_view::npos) end = url.size();
  CopyCut(url.substr(end), path, pathSize);

  size_t hostStart = start;
  for (size_t at = url.find('@', hostStart); at < end; at = url.find('@', hostStart)) {
    CopyCut(url.substr(start, at + 1 - start), userInfo, userInfoSize);
    hostStart = at + 1;
  }
  std::string_view authority = url.substr(hostStart, end - hostStart);

  size_t bracket = authority.find(']');
  if (!authority.empty() && authority[0] == '[' && bracket != std::string_view::npos) {
    CopyCut(authority.substr(1, bracket - 1), host, hostSize);
    if (bracket + 1 < authority.size() && authority[bracket + 1] == ':' && port) {
      *port = Text_ReadInt(authority.substr(bracket + 2));
    }
    return;
  }
  size_t portColon = authority.find(':');
  if (portColon == std::string_view::npos) {
    CopyCut(authority, host, hostSize);
    return;
  }
  CopyCut(authority.substr(0, portColon), host, hostSize);
  if (port) *port = Text_ReadInt(authority.substr(portColon + 1));
}

std::string UPnP_MakeEventMessage(const UPnPArgValue* values) {
  try {
    std::string document =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?><e:propertyset xmlns:e=\"urn:schemas-upnp-org:event-1-0\">";
    for (const UPnPArgValue* value = values; value && value->name; ++value) {
      if (value->length == 0 || !value->value) {
        document.append("<e:property><").append(value->name).append("/></e:property>");
        continue;
      }
      document.append("<e:property><").append(value->name).append(">");
      document.append(value->value, value->length);
      document.append("</").append(value->name).append("></e:property>");
    }
    document.append("</e:propertyset>");
    return document;
  } catch (const std::bad_alloc&) {
    return {};
  }
}

std::string UPnP_MakeLastChange(const char* serviceName, int instanceId, const UPnPArgValue* values) {
  char head[kLastChangeHeadSize];
  int length = std::snprintf(head, sizeof head,
                             "&lt;Event xmlns=\"urn:schemas-upnp-org:metadata-1-0/%s/\"&gt;&lt;InstanceID "
                             "val=\"%d\"&gt;",
                             serviceName ? serviceName : "", instanceId);
  if (length < 0) return {};
  try {
    std::string text(head, std::min(static_cast<size_t>(length), sizeof head - 1));
    for (const UPnPArgValue* value = values; value && value->name; ++value) {
      text.append("&lt;").append(value->name).append(" val=\"");
      if (value->value) text.append(value->value, value->length);
      text.append("\"/&gt;");
    }
    text.append("&lt;/InstanceID&gt;&lt;/Event&gt;");
    return text;
  } catch (const std::bad_alloc&) {
    return {};
  }
}
