// Feeds arbitrary texts to the callback URL splitter and to the SUBSCRIBE,
// renewal and UNSUBSCRIBE handling. The input is split at newlines into the
// method, NT, SID and CALLBACK header values of one event request.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "http/HTTPRequest.h"
#include "upnp/GENA.h"
#include "upnp/UPnPDevice.h"

namespace {

constexpr size_t kHeaderCount = 4;

void CheckTerminated(const char* buffer, size_t size) {
  if (std::memchr(buffer, '\0', size) == nullptr) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);

  char scheme[8], userInfo[16], host[256], path[512];
  int port = 0;
  GENA_ParseURL(input, scheme, sizeof scheme, userInfo, sizeof userInfo, host, sizeof host, &port, path,
                sizeof path);
  CheckTerminated(scheme, sizeof scheme);
  CheckTerminated(userInfo, sizeof userInfo);
  CheckTerminated(host, sizeof host);
  CheckTerminated(path, sizeof path);

  // Header values as the request parser hands them over: terminated texts.
  std::vector<std::string> headers;
  size_t start = 0;
  while (headers.size() < kHeaderCount) {
    size_t end = input.find('\n', start);
    std::string value(input.substr(start, end == std::string_view::npos ? std::string_view::npos : end - start));
    value.resize(std::strlen(value.c_str()));
    headers.push_back(std::move(value));
    if (end == std::string_view::npos) break;
    start = end + 1;
  }
  headers.resize(kHeaderCount);

  static UPnPService services[2] = {
      {"urn:x:service:T:1", "urn:x:serviceId:T", "/s", "/c", "/e", nullptr, nullptr, nullptr},
      {nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr},
  };
  static UPnPDevice device;
  device.services = services;
  HTTPResponse response;
  GENA_HandleRequest(&device, &services[0], headers[0].c_str(), headers[1].c_str(), headers[2].c_str(),
                     headers[3].c_str(), &response);
  // A renewal or cancellation of the subscription just made.
  if (services[0].subscribers) {
    const std::string sid = std::string("uuid:") + services[0].subscribers->sid;
    HTTPResponse renewal;
    GENA_HandleRequest(&device, &services[0], "SUBSCRIBE", "", sid.c_str(), "", &renewal);
    if (std::strcmp(renewal.status, "200 OK") != 0) __builtin_trap();
    HTTPResponse cancel;
    GENA_HandleRequest(&device, &services[0], headers[0].c_str(), "", sid.c_str(), "", &cancel);
  }
  GENA_FreeSubscribers(&device);
  return 0;
}
