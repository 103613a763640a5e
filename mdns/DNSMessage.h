// A small decoder for DNS messages as multicast DNS carries them: the header,
// the questions and the resource records, with every name expanded from its
// compression pointers into the label form (labels joined by line feeds).
// Every step is bounded by the message and by the name limits, and any
// malformed part makes the whole decode fail.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

inline constexpr size_t dnsHeaderSize = 12;
inline constexpr size_t dnsMaxMessageSize = 65535;  // the largest UDP payload
inline constexpr size_t dnsMaxNameSize = 255;       // wire form, root byte included
inline constexpr size_t dnsMaxLabelSize = 63;

inline constexpr uint16_t dnsTypeA = 1;
inline constexpr uint16_t dnsTypePTR = 12;
inline constexpr uint16_t dnsTypeTXT = 16;
inline constexpr uint16_t dnsTypeSRV = 33;
inline constexpr uint16_t dnsTypeNSEC = 47;
inline constexpr uint16_t dnsTypeANY = 255;
inline constexpr uint16_t dnsClassIN = 1;
inline constexpr uint16_t dnsClassCacheFlush = 0x8000;  // the top bit of a record's class
inline constexpr uint16_t dnsFlagResponse = 0x8000;     // QR
inline constexpr uint16_t dnsFlagAuthoritative = 0x0400;

struct DNSHeader {
  uint16_t id = 0;
  uint16_t flags = 0;
  uint16_t questionCount = 0;
  uint16_t answerCount = 0;
  uint16_t authorityCount = 0;
  uint16_t additionalCount = 0;
};

struct DNSQuestion {
  std::string name;  // label form
  uint16_t type = 0;
  uint16_t questionClass = 0;
};

struct DNSRecord {
  std::string name;  // label form
  uint16_t type = 0;
  uint16_t recordClass = 0;  // cache-flush bit included
  uint32_t ttl = 0;
  size_t dataOffset = 0;  // of the record data inside the message
  uint16_t dataLength = 0;
};

struct DNSMessage {
  DNSHeader header;
  std::vector<DNSQuestion> questions;
  std::vector<DNSRecord> records;  // answers, then authority, then additional records
};

enum class DNSSections {
  Questions,  // header and questions; whatever follows is not looked at
  All,        // every section, and nothing may follow the last record
};

// The header, or nothing when the message is shorter than a header.
std::optional<DNSHeader> DNSMessage_ReadHeader(std::span<const uint8_t> message);

// Reads the name at `offset` into label form and moves `offset` past it (past
// the first compression pointer, when there is one). Pointers must lead
// strictly backwards, which rules out loops. False on any malformed name.
bool DNSMessage_ReadName(std::span<const uint8_t> message, size_t& offset, std::string& name);

// Decodes the requested sections; nothing on any malformation.
std::optional<DNSMessage> DNSMessage_Decode(std::span<const uint8_t> message, DNSSections sections);
