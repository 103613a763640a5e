// The FNV-1a hash, 64 bits: the memo file's checksum and the key by which
// memos and their shared texts are found. Fast on short texts, and the same
// on every board, so that a file written on one reads on the next start.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

struct Fnv {
  uint64_t hash = 14695981039346656037ull;

  Fnv& add(const void* data, size_t count) {
    const auto* bytes = static_cast<const uint8_t*>(data);
    for (size_t index = 0; index < count; ++index) hash = (hash ^ bytes[index]) * 1099511628211ull;
    return *this;
  }
  Fnv& add(std::string_view text) { return add(text.data(), text.size()); }
};
