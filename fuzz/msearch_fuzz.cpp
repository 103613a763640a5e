// Feeds arbitrary datagrams to the M-SEARCH parser and, when one matches,
// builds the answers it would send, as the engine thread does.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "fuzz/FuzzSupport.h"
#include "ssdp/SSDP.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::vector<std::string>& types = fuzz::SsdpTypes();
  const SSDPMessageFields& fields = fuzz::SsdpFields();
  // A received datagram is at most 511 bytes.
  std::string_view datagram(reinterpret_cast<const char*>(data), size < 511 ? size : 511);
  std::optional<SSDPSearch> search = SSDP_ParseSearch(datagram, types, fields.udn);
  if (!search) return 0;
  if (!search->all) {
    SSDP_MakeMessage(fields, search->target, nullptr);
    return 0;
  }
  for (const std::string& type : types) SSDP_MakeMessage(fields, type, nullptr);
  return 0;
}
