// EBML element headers and values read straight from the file descriptor.
// A header is fetched with one read of at most 12 bytes (a 4-byte ID and an
// 8-byte size), clipped to the enclosing element so that no read runs past it.
#include "media/Ebml.h"

#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cstdio>
#include <utility>

#include "base/ByteOrder.h"
#include "media/MediaRead.h"

namespace {

constexpr unsigned kIdMaxBytes = 4;
constexpr unsigned kSizeMaxBytes = 8;
constexpr unsigned kIntegerMaxBytes = 8;

// Length of a variable-length integer from its first byte: the position of
// the first set bit, 1 for 0x80 and above. 0 when no bit is set within `maxBytes`.
unsigned vintLength(uint8_t first, unsigned maxBytes) {
  for (unsigned length = 1; length <= maxBytes; ++length) {
    if (first & (0x80u >> (length - 1))) return length;
  }
  return 0;
}

bool readPayload(int fd, const EbmlElement& element, uint8_t* buffer) {
  return MediaRead_At(fd, element.dataStart, buffer, static_cast<size_t>(element.size));
}

// The payload as a big-endian integer of 0 to 8 bytes.
bool readBigEndian(int fd, const EbmlElement& element, uint64_t& value) {
  if (element.size > kIntegerMaxBytes) return false;
  uint8_t bytes[kIntegerMaxBytes];
  if (!readPayload(fd, element, bytes)) return false;
  value = Bytes_BigEndian(bytes, static_cast<size_t>(element.size));
  return true;
}

}  // namespace

bool EbmlRead_Header(int fd, int64_t position, int64_t limit, EbmlElement& element) {
  if (position < 0 || limit - position < 2) return false;
  uint8_t bytes[kIdMaxBytes + kSizeMaxBytes];
  const size_t wanted = static_cast<size_t>(std::min<int64_t>(sizeof bytes, limit - position));
  if (!MediaRead_At(fd, position, bytes, wanted)) {
    return false;
  }

  // The ID keeps its marker bits; data bits all zero or all one are reserved.
  const unsigned idLength = vintLength(bytes[0], kIdMaxBytes);
  if (idLength == 0) return false;
  const auto id = static_cast<uint32_t>(Bytes_BigEndian(bytes, idLength));
  const uint32_t idDataMask = (1u << (7 * idLength)) - 1;
  if ((id & idDataMask) == 0 || (id & idDataMask) == idDataMask) return false;

  if (idLength >= wanted) return false;
  const unsigned sizeLength = vintLength(bytes[idLength], kSizeMaxBytes);
  if (sizeLength == 0 || idLength + sizeLength > wanted) return false;
  // The length marker is the top bit set in the first byte; 7 bits a byte remain.
  const uint64_t size = Bytes_BigEndian(bytes + idLength, sizeLength) & ((uint64_t{1} << (7 * sizeLength)) - 1);
  const bool unknown = size == (uint64_t{1} << (7 * sizeLength)) - 1;

  const int64_t dataStart = position + idLength + sizeLength;
  const int64_t room = limit - dataStart;
  if (room < 0 || (!unknown && size > static_cast<uint64_t>(room))) return false;
  element.id = id;
  element.dataStart = dataStart;
  element.size = unknown ? room : static_cast<int64_t>(size);
  element.unknownSize = unknown;
  return true;
}

bool EbmlRead_Unsigned(int fd, const EbmlElement& element, uint64_t& value) {
  return readBigEndian(fd, element, value);
}

bool EbmlRead_Signed(int fd, const EbmlElement& element, int64_t& value) {
  uint64_t raw = 0;
  if (!readBigEndian(fd, element, raw)) return false;
  const unsigned bits = static_cast<unsigned>(element.size) * 8;
  if (bits > 0 && bits < 64 && (raw >> (bits - 1)) & 1) raw |= ~uint64_t{0} << bits;
  value = static_cast<int64_t>(raw);
  return true;
}

bool EbmlRead_Float(int fd, const EbmlElement& element, double& value) {
  if (element.size != 0 && element.size != 4 && element.size != 8) return false;
  uint64_t raw = 0;
  if (!readBigEndian(fd, element, raw)) return false;
  if (element.size == 4) value = std::bit_cast<float>(static_cast<uint32_t>(raw));
  else if (element.size == 8) value = std::bit_cast<double>(raw);
  else value = 0.0;
  return true;
}

bool EbmlRead_Text(int fd, const EbmlElement& element, size_t maxBytes, std::string& text) {
  const auto count =
      static_cast<size_t>(std::min<uint64_t>(static_cast<uint64_t>(element.size), maxBytes));
  std::string result(count, '\0');
  if (count > 0) {
    if (!MediaRead_At(fd, element.dataStart, result.data(), count)) {
      return false;
    }
  }
  result.resize(std::min(result.find('\0'), count));
  text = std::move(result);
  return true;
}

bool EbmlWalker::next(EbmlElement& child) {
  if (failed_ || remaining_ == 0 || position_ >= end_) return false;
  if (!EbmlRead_Header(fd_, position_, end_, child)) {
    failed_ = true;
    return false;
  }
  --remaining_;
  position_ = child.end();
  return true;
}
