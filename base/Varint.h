// Numbers in 7-bit groups, least significant group first, the top bit of a
// byte saying that another follows: the memos and the memo file write their
// numbers so, small ones in a byte. Signed numbers go through the zigzag map
// (0, -1, 1, -2 ... to 0, 1, 2, 3 ...) so that small negative ones stay small.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

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

// Reads the numbers and bytes of a buffer that may be damaged: each only
// when it lies inside the buffer (and within the bound asked for); the
// first that does not fails the reader, which then reads nothing more.
class VarintReader {
 public:
  VarintReader(const uint8_t* data, const uint8_t* end) : at_(data), end_(end) {}
  bool ok() const { return ok_; }
  size_t left() const { return static_cast<size_t>(end_ - at_); }
  const uint8_t* position() const { return at_; }
  uint8_t byte() {
    if (at_ == end_) return fail();
    return *at_++;
  }
  uint64_t number() {
    uint64_t value = 0;
    return Varint_Decode(at_, end_, value) ? value : fail();
  }
  // A number no greater than `most`.
  uint64_t number(uint64_t most) {
    const uint64_t value = number();
    return value <= most ? value : fail();
  }
  // `count` bytes; null when fewer are left.
  const uint8_t* take(size_t count) {
    if (count > left()) return fail(), nullptr;
    const uint8_t* start = at_;
    at_ += count;
    return start;
  }
  // A length of at most `most`, then as many bytes.
  std::string_view text(size_t most) {
    const size_t length = number(most);
    const uint8_t* bytes = take(length);
    return bytes ? std::string_view(reinterpret_cast<const char*>(bytes), length) : std::string_view();
  }

 private:
  uint8_t fail() {
    ok_ = false;
    at_ = end_;
    return 0;
  }
  const uint8_t* at_;
  const uint8_t* end_;
  bool ok_ = true;
};
