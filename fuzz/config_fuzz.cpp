// Any bytes as a dmsConfig file: every key the server reads is looked up.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "app/Config.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  for (std::string_view key : {"path", "deviceName", "manufacturer", "dmsModelName", "modelNumber",
                               "modelDescription", "refreshInterval", ""}) {
    DMSInfo_Lookup(text, key);
  }
  return 0;
}
