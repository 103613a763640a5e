// The readers every format parser uses, at the bottom of the media folder:
// whole-or-nothing integer and byte reads at a descriptor's position, a
// 64-bit seek, and a bit reader over memory. While a read window is open on
// a thread, that thread's reads of its descriptor are served from one
// buffer filled with pread, so that a parser may read in small pieces.
#pragma once

#include <cstddef>
#include <cstdint>

// Readers at the descriptor's current position. Each returns true only when
// every byte arrived, and leaves the destination untouched otherwise.
bool MediaRead_Bytes(int fd, void* buffer, size_t count);
bool MediaRead_U16BE(int fd, uint16_t& value);
bool MediaRead_U16LE(int fd, uint16_t& value);
bool MediaRead_U32BE(int fd, uint32_t& value);
bool MediaRead_U32LE(int fd, uint32_t& value);
bool MediaRead_U64BE(int fd, uint64_t& value);

// 64-bit lseek: the new position, or a negative value on failure.
int64_t MediaSeek(int fd, int64_t offset, int whence);

// Reads `count` bytes at file position `position` (a seek, then
// MediaRead_Bytes); the caller has checked that they lie inside its bounds.
bool MediaRead_At(int fd, int64_t position, void* buffer, size_t count);

// Serves the calling thread's reads and seeks of `fd` from its read window
// for the lifetime of the scope, unless an outer scope already holds the
// window. Each thread keeps its window for its lifetime, so a scope
// allocates nothing after the thread's first.
class MediaReadWindow {
 public:
  explicit MediaReadWindow(int fd);
  ~MediaReadWindow();
  MediaReadWindow(const MediaReadWindow&) = delete;
  MediaReadWindow& operator=(const MediaReadWindow&) = delete;

 private:
  bool owner_ = false;
};

// Up to 32 bits from `buffer` starting at bit `position`, most significant bit
// of each byte first; the first bit read ends up highest in the result.
uint32_t MediaBits_Get(const uint8_t* buffer, uint32_t position, unsigned count);
// The same, sign-extended from the last bit read.
int32_t MediaBits_GetSigned(const uint8_t* buffer, uint32_t position, unsigned count);
// Stores the low `count` bits of `value` at bit `position`, in the same order.
void MediaBits_Put(uint8_t* buffer, uint32_t position, unsigned count, uint32_t value);
