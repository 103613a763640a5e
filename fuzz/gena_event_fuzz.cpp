// Event requests and a subscriber's answer. The input holds up to four header
// blocks, each ended by a blank line, handled in turn as SUBSCRIBE, renewal
// or UNSUBSCRIBE requests on one service ("uuid:*" as SID stands for the
// newest subscription); the rest is what every subscriber answers to its
// NOTIFY, which goes out on a socket pair instead of a connection to the
// callback address.
#include <strings.h>

#include <algorithm>
#include <string>
#include <string_view>

#include "fuzz/FuzzSupport.h"
#include "http/HTTPRequest.h"
#include "upnp/GENA.h"
#include "upnp/UPnPDevice.h"

namespace {

constexpr int kMaxRequests = 4;
constexpr std::string_view kBlockEnd = "\r\n\r\n";
constexpr std::string_view kNewestSid = "uuid:*";
// An interim answer costs a fixed pause of a third of a second that would
// only slow the search down; the answer is cut before it can say so.
constexpr std::string_view kInterim = "100 continue";

size_t FindInterim(std::string_view answer) {
  auto lower = [](char a, char b) { return std::tolower(static_cast<unsigned char>(a)) == b; };
  return static_cast<size_t>(std::search(answer.begin(), answer.end(), kInterim.begin(), kInterim.end(), lower) -
                             answer.begin());
}

void HandleBlock(std::string block, UPnPDevice& device, UPnPService& service) {
  HTTPRequest request;
  HTTPRequest_Parse(&request, block.data());
  std::string sid = HTTPRequest_GetHeader(&request, "SID");
  if (sid == kNewestSid && service.subscribers) sid = std::string("uuid:") + service.subscribers->sid;
  HTTPResponse response;
  GENA_HandleRequest(&device, &service, HTTPRequest_GetMethodString(&request), HTTPRequest_GetHeader(&request, "NT"),
                     sid.c_str(), HTTPRequest_GetHeader(&request, "CALLBACK"), &response);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static UPnPService services[2] = {
      {"urn:x:service:T:1", "urn:x:serviceId:T", "/s", "/c", "/e", nullptr, nullptr, nullptr},
      {nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr},
  };
  static UPnPDevice device;
  device.services = services;

  std::string_view input = fuzz::Text(data, size);
  for (int i = 0; i < kMaxRequests; ++i) {
    size_t end = input.find(kBlockEnd);
    if (end == std::string_view::npos) break;
    // As the server hands a block over: up to its last carriage return.
    HandleBlock(std::string(input.substr(0, end + kBlockEnd.size() - 1)), device, services[0]);
    input.remove_prefix(end + kBlockEnd.size());
  }
  const std::string_view answer = input.substr(0, FindInterim(input) + kInterim.size() - 1);

  static constexpr char kBody[] = "<e:propertyset><e:property><A>1</A></e:property></e:propertyset>";
  uint32_t seq = 0;
  for (const GENASubscriber* subscriber = services[0].subscribers; subscriber; subscriber = subscriber->next) {
    fuzz::SocketPair pair(answer);
    if (!pair.valid()) break;
    GENA_NotifyOn(pair.server(), subscriber->callbackHost.c_str(), subscriber->callbackPort,
                  subscriber->callbackPath.c_str(), *subscriber, seq++, kBody);
  }
  GENA_FreeSubscribers(&device);
  return 0;
}
