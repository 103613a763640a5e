// The mDNS packet side without sockets (the system tests decode whole
// announcements on the wire): cut labels and texts, the buffer bound, the
// query test that triggers an announcement, and the DNS decoder's bounds.
#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

#include "mdns/DNSMessage.h"
#include "mdns/MDNS.h"
#include "tests/fixtures/ByteWriter.h"

namespace {

using Packet = std::array<uint8_t, mdnsPacketSize>;

MDNSRecords MakeRecords(const char* host, std::vector<MDNSService> services) {
  MDNSRecords records;
  EXPECT_TRUE(MDNS_MakeRecords(host, "10.0.0.5", services.data(), static_cast<int32_t>(services.size()), records));
  return records;
}

std::vector<uint8_t> Announce(MDNSRecords& records) {
  Packet packet{};
  size_t length = MDNS_MakeAnnouncement(records, packet);
  return {packet.begin(), packet.begin() + static_cast<std::ptrdiff_t>(length)};
}

DNSMessage DecodeAll(const std::vector<uint8_t>& bytes) {
  std::optional<DNSMessage> message = DNSMessage_Decode(bytes, DNSSections::All);
  EXPECT_TRUE(message.has_value());
  return message.value_or(DNSMessage{});
}

ByteWriter& Labels(ByteWriter& w, std::initializer_list<std::string_view> labels) {
  for (std::string_view label : labels) w.u8(static_cast<uint8_t>(label.size())).text(label);
  return w;
}

ByteWriter& RecordHead(ByteWriter& w, uint16_t type, uint16_t recordClass, uint32_t ttl, uint16_t length) {
  return w.u16be(type).u16be(recordClass).u32be(ttl).u16be(length);
}

std::vector<uint8_t> Query(uint16_t flags, uint16_t type, std::initializer_list<std::string_view> name) {
  ByteWriter w;
  w.u16be(0x1234).u16be(flags).u16be(1).u16be(0).u16be(0).u16be(0);
  Labels(w, name).u8(0).u16be(type).u16be(dnsClassIN);
  return w.data();
}

TEST(MDNSRecords, ArgumentRules) {
  const MDNSService good{"Media", "_http._tcp", 80, "a=1"};
  MDNSRecords records;
  EXPECT_FALSE(MDNS_MakeRecords(nullptr, "10.0.0.5", &good, 1, records));
  EXPECT_FALSE(MDNS_MakeRecords("", "10.0.0.5", &good, 1, records));
  EXPECT_FALSE(MDNS_MakeRecords("box", nullptr, &good, 1, records));
  EXPECT_FALSE(MDNS_MakeRecords("box", "10.0.0.5", nullptr, 1, records));
  EXPECT_FALSE(MDNS_MakeRecords("box", "10.0.0.5", &good, 0, records));
  EXPECT_FALSE(MDNS_MakeRecords("box", "10.0.0.5", &good, -1, records));
  for (MDNSService bad : {MDNSService{"Media", "_http._tcp", 0, "a=1"}, MDNSService{nullptr, "_http._tcp", 80, "a"},
                          MDNSService{"Media", nullptr, 80, "a"}, MDNSService{"Media", "_http._tcp", 80, nullptr}}) {
    const MDNSService pair[] = {good, bad};
    EXPECT_FALSE(MDNS_MakeRecords("box", "10.0.0.5", pair, 2, records));
  }
  EXPECT_TRUE(records.services.empty());

  ASSERT_TRUE(MDNS_MakeRecords("my.box", "192.168.100.200 and more", &good, 1, records));
  EXPECT_EQ(records.hostName, "my\nbox");
  EXPECT_EQ(records.interfaceAddress, "192.168.100.200");
  EXPECT_EQ(records.timeToLive, 120u);
  ASSERT_EQ(records.services.size(), 1u);
  EXPECT_EQ(records.services[0].serviceType, "_http\n_tcp");
  EXPECT_EQ(records.services[0].instanceName, "Media");

  MDNS_delete(nullptr);
}

TEST(MDNSAnnouncement, LongLabelsAndTextsAreCut) {
  const std::string longLabel(70, 'h');
  const std::string longText = std::string(300, 't') + "\n\nz";
  MDNSRecords records = MakeRecords((longLabel + "..x").c_str(), {{"I", "_a._tcp", 1, longText.c_str()}});
  std::vector<uint8_t> bytes = Announce(records);
  DNSMessage message = DecodeAll(bytes);
  EXPECT_EQ(message.records[0].name, std::string(63, 'h') + "\n" + std::string(7, 'h') + "\nx\nlocal");
  const DNSRecord& text = message.records[3];
  ASSERT_EQ(text.type, dnsTypeTXT);
  // 255 + 45 bytes of the first line, then an empty string, then "z".
  ASSERT_EQ(text.dataLength, 1 + 255 + 1 + 45 + 1 + 1 + 1);
  const uint8_t* data = bytes.data() + text.dataOffset;
  EXPECT_EQ(data[0], 255);
  EXPECT_EQ(data[256], 45);
  EXPECT_EQ(data[302], 0);
  EXPECT_EQ(data[303], 1);
  EXPECT_EQ(data[304], 'z');
}

TEST(MDNSAnnouncement, NeverPassesTheBuffer) {
  const std::string instance(60, 'i');
  std::vector<MDNSService> services(20, MDNSService{instance.c_str(), "_service._tcp", 9, "some=text"});
  MDNSRecords records = MakeRecords("box", services);
  Packet packet{};
  EXPECT_EQ(MDNS_MakeAnnouncement(records, packet), mdnsPacketSize);
  EXPECT_EQ(packet[7], 61);  // 1 + 3 * 20 answers are still counted
}

TEST(MDNSQuery, OnlyPointerQueriesForAServiceTypeMatch) {
  MDNSRecords records = MakeRecords("box", {{"Media", "_http._tcp", 80, ""}, {"Files", "_smb._tcp", 445, ""}});
  EXPECT_TRUE(MDNS_WantsAnnouncement(records, Query(0, dnsTypePTR, {"_http", "_tcp", "local"})));
  EXPECT_TRUE(MDNS_WantsAnnouncement(records, Query(0, dnsTypePTR, {"_smb", "_tcp", "local"})));
  // The comparison is a byte prefix of the label form.
  EXPECT_TRUE(MDNS_WantsAnnouncement(records, Query(0, dnsTypePTR, {"_http", "_tcpx"})));
  EXPECT_FALSE(MDNS_WantsAnnouncement(records, Query(0, dnsTypePTR, {"_HTTP", "_tcp", "local"})));
  EXPECT_FALSE(MDNS_WantsAnnouncement(records, Query(0, dnsTypePTR, {"_http", "_udp", "local"})));
  EXPECT_FALSE(MDNS_WantsAnnouncement(records, Query(0, dnsTypePTR, {"x", "_http", "_tcp", "local"})));
  for (uint16_t type : {dnsTypeA, dnsTypeSRV, dnsTypeTXT, dnsTypeANY}) {
    EXPECT_FALSE(MDNS_WantsAnnouncement(records, Query(0, type, {"_http", "_tcp", "local"}))) << type;
  }
  EXPECT_FALSE(MDNS_WantsAnnouncement(records, Query(dnsFlagResponse, dnsTypePTR, {"_http", "_tcp", "local"})));

  // The second question's name continues, by a pointer, in the first one's.
  ByteWriter w;
  w.u16be(0).u16be(0).u16be(2).u16be(0).u16be(0).u16be(0);
  Labels(w, {"_x", "local"}).u8(0).u16be(dnsTypeA).u16be(1);
  Labels(w, {"_smb", "_tcp"}).u16be(0xC00F).u16be(dnsTypePTR).u16be(1);
  EXPECT_TRUE(MDNS_WantsAnnouncement(records, w.data()));

  // A malformed packet is ignored as a whole, matching question or not.
  std::vector<uint8_t> cut = Query(0, dnsTypePTR, {"_http", "_tcp", "local"});
  cut[5] = 2;
  EXPECT_FALSE(MDNS_WantsAnnouncement(records, cut));
  cut = Query(0, dnsTypePTR, {"_http", "_tcp", "local"});
  cut.pop_back();
  EXPECT_FALSE(MDNS_WantsAnnouncement(records, cut));
  EXPECT_FALSE(MDNS_WantsAnnouncement(records, std::vector<uint8_t>{0}));
  EXPECT_FALSE(MDNS_WantsAnnouncement(records, std::vector<uint8_t>(11, 0)));
}

TEST(DNSMessage, NamesFollowPointersOnlyBackwards) {
  ByteWriter w;
  w.fill(dnsHeaderSize);
  Labels(w, {"a", "local"}).u8(0);    // 12
  Labels(w, {"b"}).u16be(0xC00C);     // 21
  w.u16be(0xC015);                    // 25: a pointer to a pointer
  w.u16be(0xC01B);                    // 27: points at itself
  w.u16be(0xC01F);                    // 29: points forward
  Labels(w, {"c"}).u16be(0xC01F);     // 31: points into its own name
  w.u16be(0xC3FF);                    // 35: beyond the message
  std::vector<uint8_t> bytes = w.data();

  size_t offset = 21;
  std::string name;
  ASSERT_TRUE(DNSMessage_ReadName(bytes, offset, name));
  EXPECT_EQ(name, "b\na\nlocal");
  EXPECT_EQ(offset, 25u);
  offset = 25;
  ASSERT_TRUE(DNSMessage_ReadName(bytes, offset, name));
  EXPECT_EQ(name, "b\na\nlocal");
  EXPECT_EQ(offset, 27u);
  for (size_t bad : {27u, 29u, 31u, 35u, 37u}) {
    offset = bad;
    name = "kept";
    EXPECT_FALSE(DNSMessage_ReadName(bytes, offset, name)) << bad;
    EXPECT_EQ(offset, bad);
    EXPECT_EQ(name, "kept");
  }
}

TEST(DNSMessage, NameAndLabelLimits) {
  auto readName = [](const std::vector<uint8_t>& bytes) {
    size_t offset = 0;
    std::string name;
    return DNSMessage_ReadName(bytes, offset, name);
  };
  const std::string label63(63, 'x');
  const std::string label61(61, 'x');
  ByteWriter longest;
  Labels(longest, {label63, label63, label63, label61}).u8(0);  // 255 bytes
  EXPECT_EQ(longest.size(), 255u);
  EXPECT_TRUE(readName(longest.data()));
  ByteWriter tooLong;
  Labels(tooLong, {label63, label63, label63, label61, "y"}).u8(0);
  EXPECT_FALSE(readName(tooLong.data()));

  EXPECT_FALSE(readName({0x40, 'x', 0}));  // extended label kind
  EXPECT_FALSE(readName({0x80, 'x', 0}));  // reserved label kind
  EXPECT_FALSE(readName({3, 'a', 'b'}));   // label cut by the end
  EXPECT_FALSE(readName({1, 'a'}));        // no root byte
  EXPECT_FALSE(readName({0xC0}));          // half a pointer
  EXPECT_FALSE(readName({}));
  EXPECT_TRUE(readName({0}));
}

TEST(DNSMessage, SectionsAreBoundedByTheMessage) {
  EXPECT_FALSE(DNSMessage_ReadHeader(std::vector<uint8_t>(11, 0)).has_value());
  std::vector<uint8_t> query = Query(0, dnsTypePTR, {"_a", "local"});
  std::optional<DNSMessage> decoded = DNSMessage_Decode(query, DNSSections::Questions);
  ASSERT_TRUE(decoded.has_value());
  ASSERT_EQ(decoded->questions.size(), 1u);
  EXPECT_EQ(decoded->header.id, 0x1234);
  EXPECT_EQ(decoded->questions[0].name, "_a\nlocal");
  EXPECT_EQ(decoded->questions[0].type, dnsTypePTR);
  EXPECT_EQ(decoded->questions[0].questionClass, dnsClassIN);

  // Trailing bytes are tolerated when only the questions are wanted.
  query.push_back(0xFF);
  EXPECT_TRUE(DNSMessage_Decode(query, DNSSections::Questions).has_value());
  EXPECT_FALSE(DNSMessage_Decode(query, DNSSections::All).has_value());
  query.pop_back();

  std::vector<uint8_t> claimsMore = query;
  claimsMore[5] = 0xFF;  // 255 questions, one present
  EXPECT_FALSE(DNSMessage_Decode(claimsMore, DNSSections::Questions).has_value());

  ByteWriter w;
  w.u16be(0).u16be(0x8400).u16be(0).u16be(1).u16be(0).u16be(0).u8(0);
  RecordHead(w, dnsTypeA, dnsClassIN, 7, 5).u32be(0);  // data shorter than its length
  EXPECT_FALSE(DNSMessage_Decode(w.data(), DNSSections::All).has_value());
  w.u8(0);
  std::optional<DNSMessage> record = DNSMessage_Decode(w.data(), DNSSections::All);
  ASSERT_TRUE(record.has_value());
  EXPECT_EQ(record->records[0].dataOffset, 23u);
  EXPECT_EQ(record->records[0].ttl, 7u);

  EXPECT_FALSE(DNSMessage_Decode(std::vector<uint8_t>(dnsMaxMessageSize + 1, 0), DNSSections::Questions));
}

}  // namespace
