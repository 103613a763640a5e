// The mDNS records and announcement without sockets: no records without a
// usable service; labels and texts too long for a packet are cut and the
// buffer bound holds (the system tests decode whole announcements and query
// the responder on the wire; the fuzz replay walks the decoder).
#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

#include "mdns/DNSMessage.h"
#include "mdns/MDNS.h"

namespace {

MDNSRecords MakeRecords(const char* host, std::vector<MDNSService> services) {
  MDNSRecords records;
  EXPECT_TRUE(MDNS_MakeRecords(host, "192.168.100.200 and more", services.data(), static_cast<int32_t>(services.size()),
                               records));
  return records;
}

TEST(MDNSAnnouncement, LongLabelsAndTextsAreCutAndTheBufferHolds) {
  const std::string longText = std::string(300, 't') + "\n\nz";
  MDNSRecords records = MakeRecords((std::string(70, 'h') + "..x").c_str(), {{"I", "_a._tcp", 1, longText.c_str()}});
  EXPECT_EQ(records.interfaceAddress, "192.168.100.200");  // a fixed field of 15 characters
  std::array<uint8_t, mdnsPacketSize> packet{};
  const std::vector<uint8_t> bytes(packet.begin(), packet.begin() + MDNS_MakeAnnouncement(records, packet));
  std::optional<DNSMessage> message = DNSMessage_Decode(bytes, DNSSections::All);
  ASSERT_TRUE(message.has_value());
  EXPECT_EQ(message->records[0].name, std::string(63, 'h') + "\n" + std::string(7, 'h') + "\nx\nlocal");
  // 255 + 45 bytes of the first line, then an empty string, then "z".
  const DNSRecord& text = message->records[3];
  ASSERT_EQ(std::pair(text.type, text.dataLength), std::pair(dnsTypeTXT, uint16_t(1 + 255 + 1 + 45 + 1 + 1 + 1)));
  const uint8_t* data = bytes.data() + text.dataOffset;
  EXPECT_EQ(std::vector<uint8_t>({data[0], data[256], data[302], data[303], data[304]}),
            std::vector<uint8_t>({255, 45, 0, 1, 'z'}));

  const std::string instance(60, 'i');
  records = MakeRecords("box", std::vector<MDNSService>(20, {instance.c_str(), "_service._tcp", 9, "some=text"}));
  EXPECT_EQ(MDNS_MakeAnnouncement(records, packet), mdnsPacketSize);
  EXPECT_EQ(packet[7], 61);  // 1 + 3 * 20 answers are still counted
}

TEST(MDNSRecords, RefusedWithoutServicesOrWithPortZero) {
  const MDNSService portless{"Zero", "_z._tcp", 0, "t"};
  MDNSRecords records;
  EXPECT_FALSE(MDNS_MakeRecords("box", "10.0.0.1", &portless, 1, records) ||
               MDNS_MakeRecords("box", "10.0.0.1", &portless, 0, records));
}

}  // namespace
