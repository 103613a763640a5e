// Bounded DNS message decoding for the mDNS responder and its tests. A name
// is followed label by label; compression pointers may only lead to earlier
// bytes than the one that pointed, so every walk ends, and the expanded name
// may not grow beyond the wire limit of 255 bytes.
#include "mdns/DNSMessage.h"

#include "base/ByteOrder.h"

namespace {

constexpr uint8_t labelKindMask = 0xC0;
constexpr uint8_t labelKindPointer = 0xC0;
constexpr uint16_t pointerOffsetMask = 0x3FFF;
constexpr char labelSeparator = '\n';

// Reads big-endian integers from a message, refusing to pass its end.
class DNSCursor {
 public:
  DNSCursor(std::span<const uint8_t> message, size_t offset) : message_(message), offset_(offset) {}

  bool u16(uint16_t& value) {
    if (offset_ > message_.size() || message_.size() - offset_ < 2) return false;
    value = Bytes_U16BE(&message_[offset_]);
    offset_ += 2;
    return true;
  }

  bool u32(uint32_t& value) {
    if (offset_ > message_.size() || message_.size() - offset_ < 4) return false;
    value = Bytes_U32BE(&message_[offset_]);
    offset_ += 4;
    return true;
  }

  bool skip(size_t count) {
    if (offset_ > message_.size() || message_.size() - offset_ < count) return false;
    offset_ += count;
    return true;
  }

  size_t& offset() { return offset_; }

 private:
  std::span<const uint8_t> message_;
  size_t offset_;
};

bool DNSReadQuestion(std::span<const uint8_t> message, size_t& offset, DNSQuestion& question) {
  if (!DNSMessage_ReadName(message, offset, question.name)) return false;
  DNSCursor cursor(message, offset);
  if (!cursor.u16(question.type) || !cursor.u16(question.questionClass)) return false;
  offset = cursor.offset();
  return true;
}

bool DNSReadRecord(std::span<const uint8_t> message, size_t& offset, DNSRecord& record) {
  if (!DNSMessage_ReadName(message, offset, record.name)) return false;
  DNSCursor cursor(message, offset);
  if (!cursor.u16(record.type) || !cursor.u16(record.recordClass) || !cursor.u32(record.ttl) ||
      !cursor.u16(record.dataLength)) {
    return false;
  }
  record.dataOffset = cursor.offset();
  if (!cursor.skip(record.dataLength)) return false;
  offset = cursor.offset();
  return true;
}

}  // namespace

std::optional<DNSHeader> DNSMessage_ReadHeader(std::span<const uint8_t> message) {
  DNSHeader header;
  DNSCursor cursor(message, 0);
  if (!cursor.u16(header.id) || !cursor.u16(header.flags) || !cursor.u16(header.questionCount) ||
      !cursor.u16(header.answerCount) || !cursor.u16(header.authorityCount) ||
      !cursor.u16(header.additionalCount)) {
    return std::nullopt;
  }
  return header;
}

bool DNSMessage_ReadName(std::span<const uint8_t> message, size_t& offset, std::string& name) {
  if (message.size() > dnsMaxMessageSize) return false;
  std::string expanded;
  size_t position = offset;
  size_t limit = position;  // a pointer must lead below this
  size_t resume = 0;        // where the caller goes on, once a pointer was followed
  size_t wireSize = 1;      // the root byte
  bool jumped = false;
  for (;;) {
    if (position >= message.size()) return false;
    uint8_t length = message[position];
    if ((length & labelKindMask) == labelKindPointer) {
      if (message.size() - position < 2) return false;
      size_t target = Bytes_U16BE(&message[position]) & pointerOffsetMask;
      if (target >= limit) return false;
      if (!jumped) resume = position + 2;
      jumped = true;
      limit = target;
      position = target;
      continue;
    }
    // Lengths 64-191 carry the extended and reserved label kinds.
    if (length > dnsMaxLabelSize) return false;
    if (length == 0) {
      offset = jumped ? resume : position + 1;
      name = std::move(expanded);
      return true;
    }
    wireSize += 1 + length;
    if (wireSize > dnsMaxNameSize || message.size() - position - 1 < length) return false;
    if (!expanded.empty()) expanded += labelSeparator;
    expanded.append(reinterpret_cast<const char*>(message.data() + position + 1), length);
    position += 1 + length;
  }
}

std::optional<DNSMessage> DNSMessage_Decode(std::span<const uint8_t> message, DNSSections sections) {
  if (message.size() > dnsMaxMessageSize) return std::nullopt;
  std::optional<DNSHeader> header = DNSMessage_ReadHeader(message);
  if (!header) return std::nullopt;
  DNSMessage decoded;
  decoded.header = *header;
  size_t offset = dnsHeaderSize;
  // Counts come from the sender; each entry takes at least five bytes, so
  // the message size bounds the loops and the containers.
  for (uint16_t i = 0; i < header->questionCount; ++i) {
    DNSQuestion question;
    if (!DNSReadQuestion(message, offset, question)) return std::nullopt;
    decoded.questions.push_back(std::move(question));
  }
  if (sections == DNSSections::Questions) return decoded;
  uint32_t recordCount = uint32_t{header->answerCount} + header->authorityCount + header->additionalCount;
  for (uint32_t i = 0; i < recordCount; ++i) {
    DNSRecord record;
    if (!DNSReadRecord(message, offset, record)) return std::nullopt;
    decoded.records.push_back(std::move(record));
  }
  if (offset != message.size()) return std::nullopt;
  return decoded;
}
