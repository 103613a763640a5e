// Numbers in 7-bit groups, least significant group first, the top bit of a
// byte saying that another follows: the memos and the memo file write their
// numbers so, small ones in a byte. Signed numbers go through the zigzag map
// (0, -1, 1, -2 ... to 0, 1, 2, 3 ...) so that small negative ones stay small.
#pragma once

#include <cstddef>
#include <cstdint>

inline constexpr size_t Varint_MaxSize = 10;

// Writes `value` to `out`; returns the bytes written (1 to Varint_MaxSize).
inline size_t Varint_Encode(uint64_t value, uint8_t out[Varint_MaxSize]) {
  size_t length = 0;
  for (; value >= 0x80; value >>= 7) out[length++] = static_cast<uint8_t>(value | 0x80);
  out[length++] = static_cast<uint8_t>(value);
  return length;
}

// Reads a number from `at` onwards, never at or past `end`, and moves `at`
// behind it. False when it does not end before `end` or within
// Varint_MaxSize bytes.
inline bool Varint_Decode(const uint8_t*& at, const uint8_t* end, uint64_t& value) {
  value = 0;
  for (unsigned shift = 0; shift < 7 * Varint_MaxSize && at < end; shift += 7) {
    const uint8_t next = *at++;
    value |= static_cast<uint64_t>(next & 0x7f) << shift;
    if (!(next & 0x80)) return true;
  }
  return false;
}

inline uint64_t Varint_Zigzag(int64_t value) {
  return (static_cast<uint64_t>(value) << 1) ^ static_cast<uint64_t>(value >> 63);
}
inline int64_t Varint_Unzigzag(uint64_t value) {
  return static_cast<int64_t>(value >> 1) ^ -static_cast<int64_t>(value & 1);
}
