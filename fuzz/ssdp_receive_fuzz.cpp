// Any bytes as a datagram arriving at an SSDP engine: the first two bytes are
// the source port (network order), the next four the source address, the rest
// the datagram. The engine's receive step decides on the source and builds the
// answers it would send back; nothing is sent.
#include <netinet/in.h>

#include <cstring>
#include <string>
#include <vector>

#include "fuzz/FuzzSupport.h"
#include "ssdp/SSDP.h"

namespace {

constexpr size_t kSourceSize = 6;
constexpr size_t kDatagramMax = 511;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::vector<std::string>& types = fuzz::SsdpTypes();
  const SSDPMessageFields& fields = fuzz::SsdpFields();
  if (size < kSourceSize) return 0;
  sockaddr_in from{};
  from.sin_family = AF_INET;
  std::memcpy(&from.sin_port, data, sizeof from.sin_port);
  std::memcpy(&from.sin_addr, data + 2, sizeof from.sin_addr);
  // A received datagram is at most 511 bytes.
  std::string_view datagram = fuzz::Text(data + kSourceSize, size - kSourceSize).substr(0, kDatagramMax);
  auto answers = SSDP_Answers(types, fields, datagram, from, sizeof from);
  if (!answers) return 0;
  for (const std::string& answer : *answers) {
    if (answer.size() > kDatagramMax) __builtin_trap();
  }
  return 0;
}
