// The mDNS packet side without sockets (the system tests decode whole
// announcements and query the responder on the wire): cut labels and texts,
// the buffer bound, the query forms that match, and the DNS decoder's bounds.
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
  EXPECT_TRUE(MDNS_WantsAnnouncement(records, Query(dnsTypePTR, {"_smb", "_tcp", "local"})));
  EXPECT_TRUE(MDNS_WantsAnnouncement(records, Query(dnsTypePTR, {"_http", "_tcpx"})));  // a byte prefix
  EXPECT_FALSE(MDNS_WantsAnnouncement(records, Query(dnsTypePTR, {"_HTTP", "_tcp", "local"})));
  EXPECT_FALSE(MDNS_WantsAnnouncement(records, Query(dnsTypePTR, {"x", "_http", "_tcp", "local"})));
  // A malformed packet is ignored as a whole, matching question or not.
  std::vector<uint8_t> cut = Query(dnsTypePTR, {"_http", "_tcp", "local"});
  cut[5] = 2;
  EXPECT_FALSE(MDNS_WantsAnnouncement(records, cut));
  EXPECT_FALSE(MDNS_WantsAnnouncement(records, std::vector<uint8_t>(11, 0)));
}

TEST(DNSMessage, NamesFollowPointersOnlyBackwardsWithinTheLimits) {
  ByteWriter w;
  w.fill(dnsHeaderSize);
  Labels(w, {"a", "local"}).u8(0);  // 12
  Labels(w, {"b"}).u16be(0xC00C);   // 21
  w.u16be(0xC015);                  // 25: a pointer to a pointer
  w.u16be(0xC01B);                  // 27: points at itself
  w.u16be(0xC01F);                  // 29: points forward
  Labels(w, {"c"}).u16be(0xC01F);   // 31: points into its own name
  w.u16be(0xC3FF);                  // 35: beyond the message
  for (auto [start, end] : {std::pair<size_t, size_t>{21, 25}, {25, 27}}) {
    size_t offset = start;
    std::string name;
    ASSERT_TRUE(DNSMessage_ReadName(w.data(), offset, name));
    EXPECT_EQ(std::pair(name, offset), std::pair(std::string("b\na\nlocal"), end));
  }
  for (size_t bad : {27u, 29u, 31u, 35u, 37u}) {
    size_t offset = bad;
    std::string name = "kept";
    EXPECT_FALSE(DNSMessage_ReadName(w.data(), offset, name)) << bad;
    EXPECT_EQ(std::pair(offset, name), std::pair(bad, std::string("kept")));
  }
  auto readName = [](const std::vector<uint8_t>& bytes) {
    size_t offset = 0;
    std::string name;
    return DNSMessage_ReadName(bytes, offset, name);
  };
  const std::string label63(63, 'x'), label61(61, 'x');
  ByteWriter longest, tooLong;
  Labels(longest, {label63, label63, label63, label61}).u8(0);  // 255 bytes
  Labels(tooLong, {label63, label63, label63, label61, "y"}).u8(0);
  EXPECT_TRUE(readName(longest.data()));
  EXPECT_FALSE(readName(tooLong.data()));
  // Extended and reserved label kinds, a cut label, no root byte, half a pointer, nothing.
  for (const std::vector<uint8_t>& bad : std::vector<std::vector<uint8_t>>{
           {0x40, 'x', 0}, {0x80, 'x', 0}, {3, 'a', 'b'}, {1, 'a'}, {0xC0}, {}}) {
    EXPECT_FALSE(readName(bad));
  }
}

TEST(DNSMessage, SectionsAreBoundedByTheMessage) {
  std::vector<uint8_t> query = Query(dnsTypePTR, {"_a", "local"});
  std::optional<DNSMessage> decoded = DNSMessage_Decode(query, DNSSections::Questions);
  ASSERT_TRUE(decoded.has_value());
  ASSERT_EQ(decoded->questions.size(), 1u);
  EXPECT_EQ(std::tuple(decoded->header.id, decoded->questions[0].name, decoded->questions[0].type),
            std::tuple(uint16_t(0x1234), std::string("_a\nlocal"), dnsTypePTR));
  // Trailing bytes are tolerated when only the questions are wanted.
  query.push_back(0xFF);
  EXPECT_TRUE(DNSMessage_Decode(query, DNSSections::Questions).has_value());
  EXPECT_FALSE(DNSMessage_Decode(query, DNSSections::All).has_value());
  query[5] = 0xFF;  // 255 questions, one present
  EXPECT_FALSE(DNSMessage_Decode(query, DNSSections::Questions).has_value());

  ByteWriter w;
  w.u16be(0).u16be(0x8400).u16be(0).u16be(1).u16be(0).u16be(0).u8(0);
  w.u16be(dnsTypeA).u16be(dnsClassIN).u32be(7).u16be(5).u32be(0);  // data shorter than its length
  EXPECT_FALSE(DNSMessage_Decode(w.data(), DNSSections::All).has_value());
  w.u8(0);
  std::optional<DNSMessage> record = DNSMessage_Decode(w.data(), DNSSections::All);
  ASSERT_TRUE(record.has_value());
  EXPECT_EQ(std::pair(record->records[0].dataOffset, record->records[0].ttl), std::pair(size_t(23), uint32_t(7)));
  EXPECT_FALSE(DNSMessage_Decode(std::vector<uint8_t>(dnsMaxMessageSize + 1, 0), DNSSections::Questions));
}

}  // namespace
