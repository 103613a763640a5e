// Eventing below the wire: the escaped LastChange event and the expiry of
// subscribers, which takes longer than a system test may wait (subscription
// replies, callbacks and NOTIFY requests are checked on the wire). Deliveries
// go to a closed loopback port, so every NOTIFY attempt fails at once and
// only the bookkeeping is observed.
#include <gtest/gtest.h>

#include <ctime>
#include <string>
#include <tuple>

#include "http/HTTPRequest.h"
#include "upnp/GENA.h"
#include "upnp/UPnPDevice.h"

namespace {

TEST(GenaLastChange, EscapedEventWithEveryValue) {
  const UPnPArgValue values[] = {{"TransportState", "PLAYINGxx", 7}, {"Mute", "", 0}, {nullptr, nullptr, 0}};
  EXPECT_EQ(UPnP_MakeLastChange("AVT", 3, values),
            "&lt;Event xmlns=\"urn:schemas-upnp-org:metadata-1-0/AVT/\"&gt;&lt;InstanceID val=\"3\"&gt;"
            "&lt;TransportState val=\"PLAYING\"/&gt;&lt;Mute val=\"\"/&gt;&lt;/InstanceID&gt;&lt;/Event&gt;");
}

// A device with one service whose state never changes.
std::string Body(const char*, bool) { return "<body/>"; }
bool Unchanged(const char*) { return false; }

class GenaDelivery : public ::testing::Test {
 protected:
  void SetUp() override {
    services[0] = {"urn:x:service:T:1", "urn:x:serviceId:T", "/s", "/c", "/e", nullptr, nullptr, nullptr};
    device.services = services;
    device.makeEventBody = Body;
    device.stateChanged = Unchanged;
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

  UPnPService services[2]{};
  UPnPDevice device;
};

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
