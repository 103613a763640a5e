// The mDNS responder: one UDP socket joined to the mDNS group on one interface
// and one receive thread that alone builds and sends packets. Its only packet
// is a fixed announcement (host address, then pointer, service and text
// records per service, with negative-answer records beside them), written
// with compression pointers into a 1024-byte buffer.
#include "mdns/MDNS.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <ctime>
#include <initializer_list>
#include <memory>
#include <new>
#include <optional>
#include <string_view>
#include <thread>
#include <utility>

#include "base/Multicast.h"
#include "mdns/DNSMessage.h"

namespace {

constexpr char labelSeparator = '\n';
constexpr std::string_view localDomain = "local";
constexpr size_t maxTextStringSize = 255;
constexpr uint16_t pointerMark = 0xC000;
constexpr uint16_t pointerOffsetMask = 0x3FFF;
constexpr size_t typeMapMaxSize = 32;

// Appends big-endian fields to a fixed buffer. Positions keep counting past
// the end, so offsets stay right, but bytes that do not fit are dropped.
class MDNSWriter {
 public:
  explicit MDNSWriter(std::span<uint8_t> buffer) : buffer_(buffer) {}

  void u8(uint8_t value) {
    if (position_ < buffer_.size()) buffer_[position_] = value;
    ++position_;
  }
  void u16(uint16_t value) {
    u8(static_cast<uint8_t>(value >> 8));
    u8(static_cast<uint8_t>(value));
  }
  void u32(uint32_t value) {
    u16(static_cast<uint16_t>(value >> 16));
    u16(static_cast<uint16_t>(value));
  }
  void bytes(std::string_view data) {
    for (char c : data) u8(static_cast<uint8_t>(c));
  }
  void patchU16(size_t at, uint16_t value) {
    if (at < buffer_.size()) buffer_[at] = static_cast<uint8_t>(value >> 8);
    if (at + 1 < buffer_.size()) buffer_[at + 1] = static_cast<uint8_t>(value);
  }

  size_t position() const { return position_; }
  size_t length() const { return std::min(position_, buffer_.size()); }

  // Each run between line feeds becomes one label, cut into labels of at
  // most 63 bytes. Empty runs are skipped: a zero length would end the name.
  void labels(std::string_view name) {
    while (!name.empty()) {
      size_t end = std::min(name.find(labelSeparator), name.size());
      std::string_view run = name.substr(0, end);
      name.remove_prefix(end == name.size() ? end : end + 1);
      while (!run.empty()) {
        std::string_view label = run.substr(0, dnsMaxLabelSize);
        run.remove_prefix(label.size());
        u8(static_cast<uint8_t>(label.size()));
        bytes(label);
      }
    }
  }
  void pointer(size_t target) { u16(static_cast<uint16_t>(pointerMark | (target & pointerOffsetMask))); }
  void end() { u8(0); }

  // Type, class and time-to-live of a record whose owner was just written;
  // returns where the data length goes, to be patched by finishRecord.
  size_t beginRecord(uint16_t type, uint16_t recordClass, uint32_t ttl) {
    u16(type);
    u16(recordClass);
    u32(ttl);
    size_t lengthAt = position_;
    u16(0);
    return lengthAt;
  }
  void finishRecord(size_t lengthAt) { patchU16(lengthAt, static_cast<uint16_t>(position_ - lengthAt - 2)); }

 private:
  std::span<uint8_t> buffer_;
  size_t position_ = 0;
};

// The TXT data: the text split at line feeds, each piece preceded by its
// length; a piece longer than a character string can hold goes on in the
// next string.
void MDNSWriteText(MDNSWriter& writer, std::string_view text) {
  for (;;) {
    size_t end = std::min(text.find(labelSeparator), text.size());
    std::string_view piece = text.substr(0, end);
    do {
      std::string_view string = piece.substr(0, maxTextStringSize);
      piece.remove_prefix(string.size());
      writer.u8(static_cast<uint8_t>(string.size()));
      writer.bytes(string);
    } while (!piece.empty());
    if (end == text.size()) return;
    text.remove_prefix(end + 1);
  }
}

// An NSEC type map with block 0 only. Each bit is assigned to its byte rather
// than ORed in: the types listed together here (A alone; TXT with SRV) never
// share a byte of the map.
void MDNSWriteTypeMap(MDNSWriter& writer, std::initializer_list<uint16_t> types) {
  std::array<uint8_t, typeMapMaxSize> map{};
  uint16_t highest = std::max(types);
  for (uint16_t type : types) map[type / 8] = static_cast<uint8_t>(1u << (7 - type % 8));
  size_t length = highest / 8u + 1;
  writer.u8(0);
  writer.u8(static_cast<uint8_t>(length));
  writer.bytes(std::string_view(reinterpret_cast<const char*>(map.data()), length));
}

std::string MDNSLabelForm(std::string_view dotted) {
  std::string name(dotted);
  std::replace(name.begin(), name.end(), '.', labelSeparator);
  return name;
}

}  // namespace

struct MDNSResponder {
  MulticastChannel channel;
  std::thread thread;
  std::atomic<bool> running{false};
  MDNSRecords records;
};

namespace {

void MDNSSend(MDNSResponder& responder) {
  std::array<uint8_t, mdnsPacketSize> packet{};
  size_t length = MDNS_MakeAnnouncement(responder.records, packet);
  const MulticastChannel& channel = responder.channel;
  // A lost announcement is made good by the next one.
  sendto(channel.socket.get(), packet.data(), length, 0, reinterpret_cast<const sockaddr*>(&channel.group),
         sizeof channel.group);
}

// Announces on start (lastAnnouncement 0 makes the first wait one second),
// then every interval, and at once for a matching query. While an
// announcement is due, a waiting datagram stays queued for the next pass.
// A wall clock set backwards counts as due, so it cannot silence the
// responder for the length of the jump.
void MDNSReceive(MDNSResponder& responder) {
  const time_t interval = mdnsInterval;
  time_t lastAnnouncement = 0;
  while (responder.running.load()) {
    time_t wait = std::clamp<time_t>(interval + lastAnnouncement - time(nullptr), 1, interval);
    if (!Multicast_Wait(responder.channel, static_cast<int>(wait) * 1000)) continue;
    time_t now = time(nullptr);
    bool announce = true;
    if (now >= lastAnnouncement && now - lastAnnouncement < interval) {
      std::array<uint8_t, mdnsReceiveSize> datagram;
      ssize_t received = recv(responder.channel.socket.get(), datagram.data(), datagram.size(), 0);
      announce = received > 0 &&
                 MDNS_WantsAnnouncement(responder.records,
                                        std::span<const uint8_t>(datagram.data(), static_cast<size_t>(received)));
    }
    if (!announce) continue;
    MDNSSend(responder);
    lastAnnouncement = now;
  }
  responder.records.timeToLive = 0;
  MDNSSend(responder);
}

}  // namespace

bool MDNS_MakeRecords(const char* hostName, const char* interfaceAddress, const MDNSService* services,
                      int32_t serviceCount, MDNSRecords& records) {
  if (hostName == nullptr || *hostName == '\0' || interfaceAddress == nullptr || services == nullptr ||
      serviceCount <= 0) {
    return false;
  }
  MDNSRecords made;
  made.interfaceAddress = std::string_view(interfaceAddress).substr(0, mdnsAddressSize - 1);
  made.hostName = MDNSLabelForm(hostName);
  made.services.reserve(static_cast<size_t>(serviceCount));
  for (const MDNSService& service : std::span(services, static_cast<size_t>(serviceCount))) {
    if (service.instanceName == nullptr || service.serviceType == nullptr || service.text == nullptr ||
        service.port == 0) {
      return false;
    }
    made.services.push_back({service.instanceName, MDNSLabelForm(service.serviceType), service.port, service.text, 0});
  }
  records = std::move(made);
  return true;
}

size_t MDNS_MakeAnnouncement(MDNSRecords& records, std::span<uint8_t, mdnsPacketSize> packet) {
  const uint16_t cacheFlushIN = dnsClassCacheFlush | dnsClassIN;
  const uint32_t ttl = records.timeToLive;
  const size_t serviceCount = records.services.size();
  MDNSWriter writer(packet);
  writer.u16(0);
  writer.u16(dnsFlagResponse | dnsFlagAuthoritative);
  writer.u16(0);
  writer.u16(static_cast<uint16_t>(1 + 3 * serviceCount));
  writer.u16(0);
  writer.u16(static_cast<uint16_t>(1 + serviceCount));

  in_addr address{};
  inet_pton(AF_INET, records.interfaceAddress.c_str(), &address);
  const size_t hostOffset = writer.position();
  writer.labels(records.hostName);
  const size_t localOffset = writer.position();
  writer.labels(localDomain);
  writer.end();
  size_t lengthAt = writer.beginRecord(dnsTypeA, cacheFlushIN, ttl);
  writer.bytes(std::string_view(reinterpret_cast<const char*>(&address), sizeof address));
  writer.finishRecord(lengthAt);

  for (MDNSServiceRecord& service : records.services) {
    const size_t typeOffset = writer.position();
    writer.labels(service.serviceType);
    writer.pointer(localOffset);
    lengthAt = writer.beginRecord(dnsTypePTR, dnsClassIN, ttl);
    service.instanceOffset = writer.position();
    writer.labels(service.instanceName);
    writer.pointer(typeOffset);
    writer.finishRecord(lengthAt);

    writer.pointer(service.instanceOffset);
    lengthAt = writer.beginRecord(dnsTypeSRV, cacheFlushIN, ttl);
    writer.u16(0);  // priority
    writer.u16(0);  // weight
    writer.u16(service.port);
    writer.pointer(hostOffset);
    writer.finishRecord(lengthAt);

    writer.pointer(service.instanceOffset);
    lengthAt = writer.beginRecord(dnsTypeTXT, cacheFlushIN, ttl);
    MDNSWriteText(writer, service.text);
    writer.finishRecord(lengthAt);
  }

  writer.pointer(hostOffset);
  lengthAt = writer.beginRecord(dnsTypeNSEC, cacheFlushIN, ttl);
  writer.pointer(hostOffset);
  MDNSWriteTypeMap(writer, {dnsTypeA});
  writer.finishRecord(lengthAt);
  for (const MDNSServiceRecord& service : records.services) {
    writer.pointer(service.instanceOffset);
    lengthAt = writer.beginRecord(dnsTypeNSEC, cacheFlushIN, ttl);
    writer.pointer(service.instanceOffset);
    MDNSWriteTypeMap(writer, {dnsTypeTXT, dnsTypeSRV});
    writer.finishRecord(lengthAt);
  }
  return writer.length();
}

bool MDNS_WantsAnnouncement(const MDNSRecords& records, std::span<const uint8_t> datagram) {
  std::optional<DNSHeader> header = DNSMessage_ReadHeader(datagram);
  if (!header || (header->flags & dnsFlagResponse) != 0) return false;
  // A query that memory cannot be found to read goes unanswered.
  std::optional<DNSMessage> message;
  try {
    message = DNSMessage_Decode(datagram, DNSSections::Questions);
  } catch (const std::bad_alloc&) {
    return false;
  }
  if (!message) return false;
  for (const DNSQuestion& question : message->questions) {
    if (question.type != dnsTypePTR) continue;
    for (const MDNSServiceRecord& service : records.services) {
      if (question.name.starts_with(service.serviceType)) return true;
    }
  }
  return false;
}

MDNSResponder* MDNS_new(const char* hostName, const char* interfaceAddress, const MDNSService* services,
                        int32_t serviceCount) {
  try {
    auto responder = std::make_unique<MDNSResponder>();
    if (!MDNS_MakeRecords(hostName, interfaceAddress, services, serviceCount, responder->records)) return nullptr;
    responder->channel = Multicast_Open(mdnsGroup, mdnsPort, responder->records.interfaceAddress.c_str());
    if (!responder->channel.valid()) return nullptr;
    responder->running = true;
    responder->thread = std::thread(MDNSReceive, std::ref(*responder));
    return responder.release();
  } catch (...) {
    // Out of memory or no thread: nothing stays open.
    return nullptr;
  }
}

void MDNS_delete(MDNSResponder* responder) {
  if (responder == nullptr) return;
  responder->running = false;
  // The woken receive thread sends the goodbye and ends.
  Multicast_SendStopByte(responder->channel);
  Multicast_Wake(responder->channel);
  if (responder->thread.joinable()) responder->thread.join();
  delete responder;
}

void MDNS_Renew(MDNSResponder* responder) {
  if (responder) Multicast_Renew(responder->channel, responder->records.interfaceAddress.c_str());
}
