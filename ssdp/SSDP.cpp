// SSDP engine: a UDP socket joined to 239.255.255.250:1900 on one interface
// and a thread that sends alive sweeps every quarter of max-age, answers
// searches after a fixed 10 ms pause and sends goodbye sweeps at both ends of
// its life. Every datagram comes from the one message template below.
// Deleting an engine wakes its thread through the channel's own event, so it
// never waits on a network that went away.
#include "ssdp/SSDP.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdio>
#include <ctime>
#include <new>
#include <thread>

#include "base/Multicast.h"
#include "base/Text.h"

namespace {

constexpr const char* kGroupAddress = "239.255.255.250";
constexpr uint16_t kSsdpPort = 1900;
constexpr int kMinMaxAge = 120;
constexpr int kMaxTypes = 19;
constexpr size_t kDatagramSize = 512;
constexpr size_t kAddressSize = 16;
constexpr uint16_t kLowestSearchPort = 1025;
constexpr useconds_t kRepeatPauseUs = 100000;
constexpr useconds_t kAnswerPauseUs = 10000;
constexpr const char* kUuidType = "uuid:";

std::optional<SSDPSearch> MatchUrn(std::string_view target, const std::vector<std::string>& types) {
  for (const std::string& type : types) {
    size_t colon = type.rfind(':');
    if (colon == std::string::npos) return std::nullopt;
    std::string_view prefix(type.data(), colon + 1);
    if (!Text_StartsNoCase(target, prefix)) continue;
    const int requested = Text_ReadInt(target.substr(prefix.size()));
    const int offered = Text_ReadInt(std::string_view(type).substr(prefix.size()));
    if (requested < 1 || requested > offered) return std::nullopt;
    return SSDPSearch{false, std::string(target)};
  }
  return std::nullopt;
}

}  // namespace

struct SSDP {
  MulticastChannel channel;
  std::thread thread;
  std::atomic<bool> running{false};
  std::vector<std::string> types;
  SSDPMessageFields fields;

  void SendTo(const std::string& message, const sockaddr_in& to) const {
    sendto(channel.socket.get(), message.data(), message.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof to);
  }

  // A datagram without memory to build it is not sent.
  void Sweep(const char* nts) const {
    for (const std::string& type : types) {
      try {
        SendTo(SSDP_MakeMessage(fields, type, nts), channel.group);
      } catch (const std::bad_alloc&) {
      }
    }
  }

  void ReceiveOne() const {
    char buffer[kDatagramSize] = {};
    sockaddr_in from{};
    socklen_t fromLength = sizeof from;
    ssize_t received =
        recvfrom(channel.socket.get(), buffer, kDatagramSize - 1, 0, reinterpret_cast<sockaddr*>(&from), &fromLength);
    if (received <= 0) return;
    // A search without memory for its answers goes unanswered.
    try {
      std::optional<std::vector<std::string>> answers =
          SSDP_Answers(types, fields, std::string_view(buffer, static_cast<size_t>(received)), from, fromLength);
      if (!answers) return;
      usleep(kAnswerPauseUs);
      for (const std::string& answer : *answers) SendTo(answer, from);
    } catch (const std::bad_alloc&) {
    }
  }

  void Run() {
    Sweep("ssdp:byebye");
    const time_t interval = fields.maxAge / 4;
    time_t lastAnnouncement = 0;
    while (running) {
      time_t now = time(nullptr);
      time_t waitSeconds = std::max<time_t>(interval - (now - lastAnnouncement), 1);
      if (!Multicast_Wait(channel, static_cast<int>(std::min<time_t>(waitSeconds, INT_MAX / 1000) * 1000))) continue;
      now = time(nullptr);
      if (now - lastAnnouncement >= interval) {
        Sweep("ssdp:alive");
        usleep(kRepeatPauseUs);
        Sweep("ssdp:alive");
        lastAnnouncement = now;
      }
      ReceiveOne();
    }
    Sweep("ssdp:byebye");
    usleep(kRepeatPauseUs);
    Sweep("ssdp:byebye");
  }
};

std::optional<SSDPSearch> SSDP_ParseSearch(std::string_view datagram, const std::vector<std::string>& types,
                                           std::string_view udn) {
  datagram = datagram.substr(0, datagram.find('\0'));
  if (!Text_StartsNoCase(datagram, "M-SEARCH")) return std::nullopt;
  size_t header = Text_FindNoCase(datagram, "\r\nST:");
  if (header == std::string_view::npos) return std::nullopt;
  std::string_view rest = datagram.substr(header + 5);
  size_t end = rest.find("\r\n");
  if (end == std::string_view::npos) return std::nullopt;
  std::string_view target = rest.substr(0, end);
  while (!target.empty() && target.front() == ' ') target.remove_prefix(1);
  while (!target.empty() && target.back() == ' ') target.remove_suffix(1);

  if (Text_EqualsNoCase(target, "ssdp:all")) return SSDPSearch{true, {}};
  if (Text_EqualsNoCase(target, "upnp:rootdevice")) return SSDPSearch{false, "upnp:rootdevice"};
  if (Text_StartsNoCase(target, kUuidType)) {
    if (!Text_EqualsNoCase(target.substr(5), udn)) return std::nullopt;
    return SSDPSearch{false, kUuidType};
  }
  if (Text_StartsNoCase(target, "urn:")) return MatchUrn(target, types);
  return std::nullopt;
}

std::optional<std::vector<std::string>> SSDP_Answers(const std::vector<std::string>& types,
                                                     const SSDPMessageFields& fields, std::string_view datagram,
                                                     const sockaddr_in& from, socklen_t fromLength) {
  // The datagram is read as text, up to its first NUL byte.
  datagram = datagram.substr(0, std::min(datagram.find('\0'), kDatagramSize - 1));
  if (datagram.empty() || fromLength < sizeof from) return std::nullopt;
  // Our own packets (and other SSDP daemons) come from port 1900; privileged
  // ports are never a control point.
  uint16_t sourcePort = ntohs(from.sin_port);
  if (sourcePort < kLowestSearchPort || sourcePort == kSsdpPort) return std::nullopt;
  std::vector<std::string> answers;
  std::optional<SSDPSearch> search = SSDP_ParseSearch(datagram, types, fields.udn);
  if (!search) return answers;
  if (!search->all) {
    answers.push_back(SSDP_MakeMessage(fields, search->target, nullptr));
    return answers;
  }
  for (const std::string& type : types) answers.push_back(SSDP_MakeMessage(fields, type, nullptr));
  return answers;
}

std::string SSDP_MakeMessage(const SSDPMessageFields& fields, const std::string& type, const char* nts) {
  char host[64] = "";
  char ntsLine[64] = "EXT:\r\n";
  if (nts) {
    std::snprintf(host, sizeof host, "Host: %s:%d\r\n", kGroupAddress, kSsdpPort);
    std::snprintf(ntsLine, sizeof ntsLine, "NTS: %s\r\n", nts);
  }
  const bool isUuid = type == kUuidType;
  char message[kDatagramSize];
  int length = std::snprintf(
      message, sizeof message,
      "%s%sCache-Control: max-age=%d\r\nLocation: http://%s:%d%s\r\n%s: %s%s\r\n%sServer: %s UPnP/1.0 %s\r\n"
      "USN: uuid:%s%s%s\r\n%s\r\n",
      nts ? "NOTIFY * HTTP/1.1\r\n" : "HTTP/1.1 200 OK\r\n", host, fields.maxAge, fields.address.c_str(),
      fields.port, fields.descriptionPath.c_str(), nts ? "NT" : "ST", type.c_str(),
      isUuid ? fields.udn.c_str() : "", ntsLine, fields.osToken.c_str(), fields.product.c_str(),
      fields.udn.c_str(), isUuid ? "" : "::", isUuid ? "" : type.c_str(), fields.extra.c_str());
  if (length < 0) return {};
  return std::string(message, std::min<size_t>(static_cast<size_t>(length), sizeof message - 1));
}

SSDP* SSDP_new(const char* const* types, int count, const char* udn, const char* address, uint16_t port,
               const char* descriptionPath, int maxAge, const char* osToken, const char* product,
               const char* extra) {
  if (!types || count < 1 || count > kMaxTypes || !udn || !address || !descriptionPath || !osToken || !product) {
    return nullptr;
  }
  SSDP* engine = new (std::nothrow) SSDP;
  if (!engine) return nullptr;
  try {
    for (int i = 0; i < count && types[i]; ++i) engine->types.emplace_back(types[i]);
    engine->fields.maxAge = std::max(maxAge, kMinMaxAge);
    engine->fields.address = std::string(address).substr(0, kAddressSize - 1);
    engine->fields.port = port;
    engine->fields.descriptionPath = descriptionPath;
    engine->fields.osToken = osToken;
    engine->fields.product = product;
    engine->fields.udn = udn;
    engine->fields.extra = extra ? extra : "";
    engine->channel = Multicast_Open(kGroupAddress, kSsdpPort, engine->fields.address.c_str());
    if (!engine->channel.valid()) {
      delete engine;
      return nullptr;
    }
    engine->running = true;
    engine->thread = std::thread([engine] { engine->Run(); });
  } catch (const std::exception&) {
    delete engine;
    return nullptr;
  }
  return engine;
}

void SSDP_delete(SSDP* engine) {
  if (!engine) return;
  engine->running = false;
  // The stop byte comes back from port 1900, which the receive path ignores.
  Multicast_SendStopByte(engine->channel);
  Multicast_Wake(engine->channel);
  if (engine->thread.joinable()) engine->thread.join();
  delete engine;
}

void SSDP_Renew(SSDP* engine) {
  if (engine) Multicast_Renew(engine->channel, engine->fields.address.c_str());
}
