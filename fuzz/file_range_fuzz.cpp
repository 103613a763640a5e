// A byte range applied to a file region: the input's first 24 bytes give the
// file's size and the region a handler names (offset and length, as raw
// 64-bit numbers), the rest is the request's header block with its Range
// line. The reply (206, 200, 416 or 400 and its body) goes to a socket pair
// whose small buffer simply stops a long body.
#include <sys/socket.h>

#include <cstring>
#include <string>

#include "fuzz/FuzzSupport.h"
#include "http/HTTPRequest.h"

namespace {

constexpr size_t kNumbersSize = 24;
// Files up to 1 TiB: sparse, so only what is sent is ever read.
constexpr uint64_t kFileSizeMask = (uint64_t{1} << 40) - 1;
constexpr int kSendBuffer = 4096;

int64_t Number(const uint8_t* bytes) {
  int64_t value;
  std::memcpy(&value, bytes, sizeof value);
  return value;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < kNumbersSize) return 0;
  fuzz::MemoryFile file({});
  if (file.fd() < 0 || ftruncate(file.fd(), static_cast<off_t>(static_cast<uint64_t>(Number(data)) & kFileSizeMask)) != 0) {
    return 0;
  }
  std::string block(reinterpret_cast<const char*>(data) + kNumbersSize, size - kNumbersSize);
  HTTPRequest request;
  HTTPRequest_Parse(&request, block.data());

  fuzz::SocketPair pair({});
  if (!pair.valid()) return 0;
  fcntl(pair.server(), F_SETFL, O_NONBLOCK);
  setsockopt(pair.server(), SOL_SOCKET, SO_SNDBUF, &kSendBuffer, sizeof kSendBuffer);
  request.socket = pair.server();
  HTTPResponse response;
  response.version = request.version;
  response.filePath = file.Path();
  response.fileOffset = Number(data + 8);
  response.fileLength = Number(data + 16);
  HTTPResponse_Send(&request, &response);
  return 0;
}
