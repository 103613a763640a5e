// Reader for EBML, the binary markup under Matroska and WebM: element headers
// with variable-length IDs and sizes, the integer, float and text values, and
// one walker over the children of an element. Positions are absolute offsets
// in the file, and every element is kept inside the one that encloses it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

struct EbmlElement {
  uint32_t id = 0;           // with its length-marker bits, as IDs are written
  int64_t dataStart = 0;     // first payload byte
  int64_t size = 0;          // payload bytes
  bool unknownSize = false;  // the size was "unknown"; it then reaches the enclosing end

  int64_t end() const { return dataStart + size; }
};

// Reads the element header at `position`. An unknown size is bounded by
// `limit`, the end of the enclosing element. False on a short read, an ID or
// size that EBML does not allow, or a payload reaching beyond `limit`.
bool EbmlRead_Header(int fd, int64_t position, int64_t limit, EbmlElement& element);

// Value readers over an element's payload. Each returns false and leaves the
// destination untouched when the payload has a size the type does not allow
// or cannot be read. An empty payload reads as 0.
bool EbmlRead_Unsigned(int fd, const EbmlElement& element, uint64_t& value);  // 0 to 8 bytes
bool EbmlRead_Signed(int fd, const EbmlElement& element, int64_t& value);     // 0 to 8 bytes
bool EbmlRead_Float(int fd, const EbmlElement& element, double& value);       // 0, 4 or 8 bytes
// At most `maxBytes` of a string payload, cut at the first zero byte (EBML
// strings may be zero-padded).
bool EbmlRead_Text(int fd, const EbmlElement& element, size_t maxBytes, std::string& text);

// Walks the children of one element (or of a byte range) in file order, at
// most `maxChildren` of them. next() stops at the end of the range, at the
// limit, or at a child that cannot be read; failed() tells the last case.
class EbmlWalker {
 public:
  EbmlWalker(int fd, const EbmlElement& parent, unsigned maxChildren)
      : EbmlWalker(fd, parent.dataStart, parent.end(), maxChildren) {}
  EbmlWalker(int fd, int64_t begin, int64_t end, unsigned maxChildren)
      : fd_(fd), position_(begin), end_(end), remaining_(maxChildren) {}

  bool next(EbmlElement& child);
  bool failed() const { return failed_; }

 private:
  int fd_;
  int64_t position_;
  int64_t end_;
  unsigned remaining_;
  bool failed_ = false;
};
