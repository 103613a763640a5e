// Eventing below the wire: the callback URL splitter, the escaped LastChange
// event, and the delivery pass's event keys and expiry (subscription replies
// and NOTIFY requests are checked on the wire). Deliveries go to a closed
// loopback port, so every NOTIFY attempt fails at once and only the
// bookkeeping is observed.
#include <gtest/gtest.h>

#include <climits>
#include <ctime>
#include <string>
#include <tuple>
#include <vector>

#include "http/HTTPRequest.h"
#include "upnp/GENA.h"
#include "upnp/UPnPDevice.h"

namespace {

// "scheme|userInfo|host|port|path" with buffers of `size` bytes.
std::string Split(std::string_view url, size_t size = 64) {
  std::vector<char> scheme(size), userInfo(size), host(size), path(size);
  int port = 0;
  GENA_ParseURL(url, scheme.data(), size, userInfo.data(), size, host.data(), size, &port, path.data(), size);
  return std::string(scheme.data()) + "|" + userInfo.data() + "|" + host.data() + "|" + std::to_string(port) +
         "|" + path.data();
}

TEST(GenaParseUrl, CallbackForms) {
  const std::pair<const char*, const char*> cases[] = {
      {"http://10.77.0.1:49152/notify/cd?x=1", "http:||10.77.0.1|49152|/notify/cd?x=1"},
      {"http://10.0.0.2/cb", "http:||10.0.0.2|-1|/cb"},
      {"http://host:81?a/b", "http:||host|81|?a/b"},
      {"http://host:82", "http:||host|82|"},
      {"http://me:pw@other@10.0.0.3:8080/x", "http:|me:pw@other@|10.0.0.3|8080|/x"},
      {"http://h:1/a@b", "http:||h|1|/a@b"},  // an "@" in the path is not user-info
      {"http://[fe80::1]:9000/e", "http:||fe80::1|9000|/e"},
      {"http://[::1]/e", "http:||::1|-1|/e"},
      {"/just/a/path", "|||-1|/just/a/path"},
      {"file:///etc", "file:|||-1|/etc"},  // only two slashes are skipped
      {"http://h:12ab/", "http:||h|12|/"},  // the port is read like atoi
      {"http://h:/", "http:||h|0|/"},
      {"http://h:99999999999999/", "http:||h|2147483647|/"},
  };
  for (const auto& [url, parts] : cases) EXPECT_EQ(Split(url), parts) << url;
  EXPECT_EQ(Split("http://abcdefgh:1/0123456789", 5), "http||abcd|1|/012");
  char host[16] = "stale";
  GENA_ParseURL("nothing", nullptr, 0, nullptr, 0, host, sizeof host, nullptr, nullptr, 0);
  EXPECT_STREQ(host, "");
}

TEST(GenaLastChange, EscapedEventWithEveryValue) {
  const UPnPArgValue values[] = {{"TransportState", "PLAYINGxx", 7}, {"Mute", "", 0}, {nullptr, nullptr, 0}};
  EXPECT_EQ(UPnP_MakeLastChange("AVT", 3, values),
            "&lt;Event xmlns=\"urn:schemas-upnp-org:metadata-1-0/AVT/\"&gt;&lt;InstanceID val=\"3\"&gt;"
            "&lt;TransportState val=\"PLAYING\"/&gt;&lt;Mute val=\"\"/&gt;&lt;/InstanceID&gt;&lt;/Event&gt;");
}

// A device with one service and callbacks that record what the pass asked.
struct Recorder {
  int changedCalls = 0;
  bool changed = false;
  std::vector<bool> bodies;  // `initial` of each body built
};
Recorder* gRecorder = nullptr;

std::string RecordBody(const char*, bool initial) {
  gRecorder->bodies.push_back(initial);
  return "<body/>";
}
bool RecordChanged(const char*) {
  ++gRecorder->changedCalls;
  return gRecorder->changed;
}

class GenaDelivery : public ::testing::Test {
 protected:
  void SetUp() override {
    gRecorder = &recorder;
    services[0] = {"urn:x:service:T:1", "urn:x:serviceId:T", "/s", "/c", "/e", nullptr, nullptr, nullptr};
    device.services = services;
    device.makeEventBody = RecordBody;
    device.stateChanged = RecordChanged;
  }
  void TearDown() override {
    GENA_FreeSubscribers(&device);
    EXPECT_EQ(services[0].subscribers, nullptr);
  }
  // A subscriber whose deliveries are refused at once by the loopback.
  GENASubscriber* Subscribe() {
    HTTPResponse response;
    GENA_HandleRequest(&device, &services[0], "SUBSCRIBE", "upnp:event", "", "<http://127.0.0.1:1/cb>", &response);
    return services[0].subscribers;
  }

  Recorder recorder;
  UPnPService services[2]{};
  UPnPDevice device;
};

TEST_F(GenaDelivery, KeysAdvanceOncePerDueEvent) {
  // Asked every pass even with nobody listening, so an unheard change is consumed.
  GENA_DeliverEvents(&device);
  EXPECT_EQ(recorder.changedCalls, 1);
  GENASubscriber* first = Subscribe();
  GENASubscriber* second = Subscribe();
  GENA_DeliverEvents(&device);
  GENA_DeliverEvents(&device);
  EXPECT_EQ(std::pair(first->seq, second->seq), std::pair(1u, 1u));
  recorder.changed = true;
  GENA_DeliverEvents(&device);
  EXPECT_EQ(std::pair(first->seq, second->seq), std::pair(2u, 2u));
  // A new subscriber in a changed pass gets only its initial event; the
  // wrap skips 0, which marks a pending initial event.
  GENASubscriber* third = Subscribe();
  first->seq = UINT32_MAX;
  GENA_DeliverEvents(&device);
  EXPECT_EQ(std::tuple(third->seq, first->seq, second->seq), std::tuple(1u, 1u, 3u));
  EXPECT_EQ(recorder.bodies, std::vector<bool>({true, false, true, false}));  // built once per pass and kind
}

TEST_F(GenaDelivery, ExpiredSubscribersLeave) {
  GENASubscriber* keep = Subscribe();
  Subscribe()->expires = std::time(nullptr) - 1;
  GENASubscriber* edge = Subscribe();
  edge->expires = std::time(nullptr) + 60;
  GENA_DeliverEvents(&device);
  EXPECT_EQ(std::tuple(services[0].subscribers, edge->next, keep->next), std::tuple(edge, keep, nullptr));
  // Without both callbacks nothing is due and keys stay put.
  device.makeEventBody = nullptr;
  GENASubscriber* fresh = Subscribe();
  GENA_DeliverEvents(&device);
  EXPECT_EQ(fresh->seq, 0u);
}

}  // namespace
