// Any bytes as a datagram arriving at the mDNS responder: the query test that
// decides on an announcement, and the full decoder with every name that a
// decoded record's data may hold.
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "mdns/DNSMessage.h"
#include "mdns/MDNS.h"

namespace {

const MDNSRecords& FuzzRecords() {
  static const MDNSRecords records = [] {
    const MDNSService services[] = {{"Media", "_http._tcp", 80, "a=1"}, {"Files", "_smb._tcp", 445, ""}};
    MDNSRecords made;
    MDNS_MakeRecords("box", "10.0.0.5", services, 2, made);
    return made;
  }();
  return records;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::span<const uint8_t> datagram(data, size);
  MDNS_WantsAnnouncement(FuzzRecords(), datagram.first(std::min(size, mdnsReceiveSize)));
  std::optional<DNSMessage> message = DNSMessage_Decode(datagram, DNSSections::All);
  if (!message) return 0;
  for (const DNSRecord& record : message->records) {
    size_t offset = record.dataOffset;
    std::string name;
    DNSMessage_ReadName(datagram, offset, name);
  }
  return 0;
}
