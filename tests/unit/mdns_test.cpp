// The mDNS packet side without sockets (the system tests decode whole
// announcements and query the responder on the wire; the fuzz replay walks
// the decoder): cut labels and texts, the buffer bound, the query forms that match.
#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

#include "mdns/DNSMessage.h"
#include "mdns/MDNS.h"
#include "tests/fixtures/ByteWriter.h"

namespace {

MDNSRecords MakeRecords(const char* host, std::vector<MDNSService> services) {
  MDNSRecords records;
  EXPECT_TRUE(MDNS_MakeRecords(host, "192.168.100.200 and more", services.data(), static_cast<int32_t>(services.size()),
                               records));
  return records;
}

ByteWriter& Labels(ByteWriter& w, std::initializer_list<std::string_view> labels) {
  for (std::string_view label : labels) w.u8(static_cast<uint8_t>(label.size())).text(label);
  return w;
}

std::vector<uint8_t> Query(uint16_t type, std::initializer_list<std::string_view> name) {
  ByteWriter w;
  w.u16be(0x1234).u16be(0).u16be(1).u16be(0).u16be(0).u16be(0);
  Labels(w, name).u8(0).u16be(type).u16be(dnsClassIN);
  return w.data();
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

TEST(MDNSQuery, PointerQueriesMatchByLabelPrefix) {
  MDNSRecords records = MakeRecords("box", {{"Media", "_http._tcp", 80, ""}, {"Files", "_smb._tcp", 445, ""}});
  // "_tcpx" matches as a byte prefix. A malformed packet is ignored as a
  // whole, matching question or not.
  std::vector<uint8_t> cut = Query(dnsTypePTR, {"_http", "_tcp", "local"});
  cut[5] = 2;
  const std::vector<uint8_t> queries[] = {
      Query(dnsTypePTR, {"_smb", "_tcp", "local"}), Query(dnsTypePTR, {"_http", "_tcpx"}),
      Query(dnsTypePTR, {"_HTTP", "_tcp", "local"}), Query(dnsTypePTR, {"x", "_http", "_tcp", "local"}), cut,
      std::vector<uint8_t>(11, 0)};
  std::vector<bool> wanted;
  for (const auto& query : queries) wanted.push_back(MDNS_WantsAnnouncement(records, query));
  EXPECT_EQ(wanted, (std::vector<bool>{true, true, false, false, false, false}));
}

}  // namespace
