// Feeds arbitrary SOAP bodies to the control scan of both media server
// services and echoes the values found through the success envelope, as a
// handler would. The low bit of the first byte picks the argument rule (set:
// any order); the byte stays part of the body, so a body that opens with a
// tab is scanned in any order.
#include <cstddef>
#include <cstdint>
#include <string>

#include "dms/DmsDevice.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const DmsServerInfo info;
  DmsDevice_Fill(info);
  // The request body is a zero-terminated text.
  std::string body(reinterpret_cast<const char*>(data), size);
  body.resize(body.find('\0') == std::string::npos ? body.size() : body.find('\0'));
  const bool anyOrder = size > 0 && (data[0] & 1) != 0;
  for (const UPnPService* service = dmsServices; service->serviceType; ++service) {
    std::optional<UPnPControlCall> call = UPnP_ParseControl(*service, body, anyOrder);
    if (!call) continue;
    call->args.push_back({nullptr, nullptr, 0});
    UPnP_MakeActionResponseSuccess(service->serviceType, call->action->name, call->args.data());
  }
  return 0;
}
