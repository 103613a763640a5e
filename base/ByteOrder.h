// Unsigned integers stored in big-endian (network) or little-endian byte
// order: the one reader family of the media parsers and the DNS codec. Each
// reads from memory the caller has already bounds-checked.
#pragma once

#include <cstddef>
#include <cstdint>

// The first `count` bytes as one number, most significant byte first; of a
// longer run only the last eight bytes count. `Byte` is any 8-bit type, so
// that character literals can be read at compile time.
template <typename Byte>
constexpr uint64_t Bytes_BigEndian(const Byte* bytes, size_t count) {
  uint64_t value = 0;
  for (size_t i = 0; i < count; ++i) value = value << 8 | static_cast<uint8_t>(bytes[i]);
  return value;
}

// The same with the least significant byte first.
template <typename Byte>
constexpr uint64_t Bytes_LittleEndian(const Byte* bytes, size_t count) {
  uint64_t value = 0;
  for (size_t i = count; i > 0; --i) value = value << 8 | static_cast<uint8_t>(bytes[i - 1]);
  return value;
}

inline uint16_t Bytes_U16BE(const uint8_t* bytes) { return static_cast<uint16_t>(Bytes_BigEndian(bytes, 2)); }
inline uint32_t Bytes_U32BE(const uint8_t* bytes) { return static_cast<uint32_t>(Bytes_BigEndian(bytes, 4)); }
inline uint64_t Bytes_U64BE(const uint8_t* bytes) { return Bytes_BigEndian(bytes, 8); }
inline uint16_t Bytes_U16LE(const uint8_t* bytes) { return static_cast<uint16_t>(Bytes_LittleEndian(bytes, 2)); }
inline uint32_t Bytes_U32LE(const uint8_t* bytes) { return static_cast<uint32_t>(Bytes_LittleEndian(bytes, 4)); }
