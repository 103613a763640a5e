// Feeds arbitrary datagrams to the M-SEARCH parser and, when one matches,
// builds the answers it would send, as the engine thread does.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "ssdp/SSDP.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::vector<std::string> types = {
      "uuid:", "upnp:rootdevice", "urn:schemas-upnp-org:device:MediaServer:1",
      "urn:schemas-upnp-org:service:ConnectionManager:1", "urn:schemas-upnp-org:service:ContentDirectory:1"};
  static const SSDPMessageFields fields{1800, "10.0.0.1", 8080, "/DMS/Device", "Linux/6.1", "DMS/1.0",
                                        "444D5300-0000-1000-8000-0A1B2C3D4E5F", ""};
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
