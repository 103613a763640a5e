// Event subscriptions: URL splitting, the property-set and escaped-event
// builders, SUBSCRIBE/renewal/UNSUBSCRIBE bookkeeping, and the delivery
// pass's event keys and expiry. Deliveries go to a closed loopback port, so
// every NOTIFY attempt fails at once and only the bookkeeping is observed.
#include <gtest/gtest.h>

#include <cctype>
#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

#include "http/HTTPRequest.h"
#include "upnp/GENA.h"
#include "upnp/UPnPDevice.h"

namespace {

struct ParsedUrl {
  std::string scheme, userInfo, host, path;
  int port = 0;
};

ParsedUrl Parse(std::string_view url, size_t size = 64) {
  std::vector<char> scheme(size), userInfo(size), host(size), path(size);
  ParsedUrl parsed;
  GENA_ParseURL(url, scheme.data(), size, userInfo.data(), size, host.data(), size, &parsed.port, path.data(),
                size);
  parsed.scheme = scheme.data();
  parsed.userInfo = userInfo.data();
  parsed.host = host.data();
  parsed.path = path.data();
  return parsed;
}

TEST(GenaParseUrl, SplitsTheUsualCallbackForms) {
  ParsedUrl full = Parse("http://10.77.0.1:49152/notify/cd?x=1");
  EXPECT_EQ(full.scheme, "http:");
  EXPECT_EQ(full.userInfo, "");
  EXPECT_EQ(full.host, "10.77.0.1");
  EXPECT_EQ(full.port, 49152);
  EXPECT_EQ(full.path, "/notify/cd?x=1");

  ParsedUrl noPort = Parse("http://10.0.0.2/cb");
  EXPECT_EQ(noPort.host, "10.0.0.2");
  EXPECT_EQ(noPort.port, -1);
  EXPECT_EQ(noPort.path, "/cb");

  ParsedUrl queryFirst = Parse("http://host:81?a/b");
  EXPECT_EQ(queryFirst.host, "host");
  EXPECT_EQ(queryFirst.port, 81);
  EXPECT_EQ(queryFirst.path, "?a/b");

  ParsedUrl noPath = Parse("http://host:82");
  EXPECT_EQ(noPath.host, "host");
  EXPECT_EQ(noPath.port, 82);
  EXPECT_EQ(noPath.path, "");
}

TEST(GenaParseUrl, UserInfoBracketsAndOddShapes) {
  ParsedUrl user = Parse("http://me:pw@other@10.0.0.3:8080/x");
  EXPECT_EQ(user.userInfo, "me:pw@other@");
  EXPECT_EQ(user.host, "10.0.0.3");
  EXPECT_EQ(user.port, 8080);

  // An "@" in the path is not user-info.
  ParsedUrl atInPath = Parse("http://h:1/a@b");
  EXPECT_EQ(atInPath.userInfo, "");
  EXPECT_EQ(atInPath.host, "h");
  EXPECT_EQ(atInPath.path, "/a@b");

  ParsedUrl v6 = Parse("http://[fe80::1]:9000/e");
  EXPECT_EQ(v6.host, "fe80::1");
  EXPECT_EQ(v6.port, 9000);
  EXPECT_EQ(v6.path, "/e");
  ParsedUrl v6NoPort = Parse("http://[::1]/e");
  EXPECT_EQ(v6NoPort.host, "::1");
  EXPECT_EQ(v6NoPort.port, -1);

  ParsedUrl noColon = Parse("/just/a/path");
  EXPECT_EQ(noColon.scheme, "");
  EXPECT_EQ(noColon.host, "");
  EXPECT_EQ(noColon.path, "/just/a/path");

  // Only two slashes are skipped after the scheme; a third starts the path.
  ParsedUrl threeSlashes = Parse("file:///etc");
  EXPECT_EQ(threeSlashes.host, "");
  EXPECT_EQ(threeSlashes.path, "/etc");

  // The port is read like atoi: digits up to the first other character.
  EXPECT_EQ(Parse("http://h:12ab/").port, 12);
  EXPECT_EQ(Parse("http://h:/").port, 0);
  EXPECT_EQ(Parse("http://h:99999999999999/").port, INT32_MAX);
}

TEST(GenaParseUrl, CutsToBuffersAndAcceptsAbsentOnes) {
  ParsedUrl small = Parse("http://abcdefgh:1/0123456789", 5);
  EXPECT_EQ(small.scheme, "http");
  EXPECT_EQ(small.host, "abcd");
  EXPECT_EQ(small.path, "/012");
  EXPECT_EQ(small.port, 1);

  char host[16] = "stale";
  GENA_ParseURL("http://h:5/p", nullptr, 0, nullptr, 0, host, sizeof host, nullptr, nullptr, 0);
  EXPECT_STREQ(host, "h");
  GENA_ParseURL("nothing", nullptr, 0, nullptr, 0, host, sizeof host, nullptr, nullptr, 0);
  EXPECT_STREQ(host, "");
}

constexpr const char* kPropertySetHead =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?><e:propertyset xmlns:e=\"urn:schemas-upnp-org:event-1-0\">";

TEST(GenaEventMessage, WritesValuesAndSelfClosesEmptyOnes) {
  const UPnPArgValue values[] = {
      {"SystemUpdateID", "17xyz", 2},
      {"ContainerUpdateIDs", "", 0},
      {"Raw", "a<b&c", 5},
      {nullptr, nullptr, 0},
  };
  EXPECT_EQ(UPnP_MakeEventMessage(values),
            std::string(kPropertySetHead) +
                "<e:property><SystemUpdateID>17</SystemUpdateID></e:property>"
                "<e:property><ContainerUpdateIDs/></e:property>"
                "<e:property><Raw>a<b&c</Raw></e:property></e:propertyset>");
  EXPECT_EQ(UPnP_MakeEventMessage(nullptr), std::string(kPropertySetHead) + "</e:propertyset>");
}

TEST(GenaEventMessage, GrowsPastItsFirstKilobyte) {
  const std::string big(5000, 'v');
  std::vector<UPnPArgValue> values;
  for (int i = 0; i < 40; ++i) values.push_back({"Name", big.data(), static_cast<uint32_t>(i * 100)});
  values.push_back({nullptr, nullptr, 0});
  std::string expected = kPropertySetHead;
  expected += "<e:property><Name/></e:property>";
  for (int i = 1; i < 40; ++i) expected += "<e:property><Name>" + big.substr(0, i * 100) + "</Name></e:property>";
  expected += "</e:propertyset>";
  EXPECT_EQ(UPnP_MakeEventMessage(values.data()), expected);
}

TEST(GenaLastChange, EscapedEventWithEveryValue) {
  const UPnPArgValue values[] = {
      {"TransportState", "PLAYINGxx", 7},
      {"Mute", "", 0},
      {nullptr, nullptr, 0},
  };
  EXPECT_EQ(UPnP_MakeLastChange("AVT", 3, values),
            "&lt;Event xmlns=\"urn:schemas-upnp-org:metadata-1-0/AVT/\"&gt;&lt;InstanceID val=\"3\"&gt;"
            "&lt;TransportState val=\"PLAYING\"/&gt;&lt;Mute val=\"\"/&gt;"
            "&lt;/InstanceID&gt;&lt;/Event&gt;");
  const std::string many(3000, 'x');
  const UPnPArgValue large[] = {{"V", many.data(), 3000}, {nullptr, nullptr, 0}};
  std::string text = UPnP_MakeLastChange("RCS", 0, large);
  EXPECT_NE(text.find("&lt;V val=\"" + many + "\"/&gt;&lt;/InstanceID&gt;&lt;/Event&gt;"), std::string::npos);
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

class GenaSubscriptions : public ::testing::Test {
 protected:
  void SetUp() override {
    gRecorder = &recorder;
    services[0] = {"urn:x:service:T:1", "urn:x:serviceId:T", "/s", "/c", "/e", nullptr, nullptr, nullptr};
    services[1] = {nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr};
    device.services = services;
    device.makeEventBody = RecordBody;
    device.stateChanged = RecordChanged;
  }
  void TearDown() override {
    GENA_FreeSubscribers(&device);
    EXPECT_EQ(services[0].subscribers, nullptr);
    gRecorder = nullptr;
  }

  HTTPResponse Request(const char* method, const char* nt, const char* sid, const char* callback) {
    HTTPResponse response;
    GENA_HandleRequest(&device, &services[0], method, nt, sid, callback, &response);
    return response;
  }
  // A subscriber whose deliveries are refused at once by the loopback.
  GENASubscriber* Subscribe() {
    HTTPResponse response = Request("SUBSCRIBE", "upnp:event", "", "<http://127.0.0.1:1/cb>");
    EXPECT_STREQ(response.status, "200 OK");
    return services[0].subscribers;
  }
  int Count() const {
    int count = 0;
    for (GENASubscriber* s = services[0].subscribers; s; s = s->next) ++count;
    return count;
  }

  Recorder recorder;
  UPnPService services[2]{};
  UPnPDevice device;
};

TEST_F(GenaSubscriptions, NewSubscriptionRepliesWithSidAndTimeout) {
  const int64_t before = std::time(nullptr);
  HTTPResponse response = Request("subscribe", "UPnP:Event", "", "<http://10.77.0.1:4004/cd/event>");
  EXPECT_STREQ(response.status, "200 OK");
  GENASubscriber* subscriber = services[0].subscribers;
  ASSERT_NE(subscriber, nullptr);
  EXPECT_EQ(response.extraHeaders, "SID: uuid:" + std::string(subscriber->sid) + "\r\nTIMEOUT: Second-300\r\n");
  EXPECT_EQ(std::string(subscriber->sid).size(), 36u);
  EXPECT_EQ(subscriber->seq, 0u);
  EXPECT_GE(subscriber->expires, before + 300);
  EXPECT_LE(subscriber->expires, std::time(nullptr) + 300);
  EXPECT_EQ(subscriber->callbackHost, "10.77.0.1");
  EXPECT_EQ(subscriber->callbackPort, 4004);
  EXPECT_EQ(subscriber->callbackPath, "/cd/event");
  EXPECT_FALSE(response.body.has_value());

  // No port: kept as 65535. A callback under 11 characters is dropped but
  // still subscribes; NT together with a SID is a new subscription too.
  Request("SUBSCRIBE", "upnp:event", "", "<http://h/p>");
  EXPECT_EQ(services[0].subscribers->callbackPort, 65535);
  EXPECT_EQ(services[0].subscribers->callbackHost, "h");
  HTTPResponse shortCallback = Request("SUBSCRIBE", "upnp:event", "", "<http://h>");
  EXPECT_STREQ(shortCallback.status, "200 OK");
  EXPECT_EQ(services[0].subscribers->callbackHost, "");
  EXPECT_EQ(services[0].subscribers->callbackPath, "");
  std::string existing = "uuid:" + std::string(subscriber->sid);
  HTTPResponse both = Request("SUBSCRIBE", "upnp:event", existing.c_str(), "");
  EXPECT_STREQ(both.status, "200 OK");
  EXPECT_EQ(Count(), 4);
  EXPECT_NE(both.extraHeaders.find(services[0].subscribers->sid), std::string::npos);
  EXPECT_STRNE(services[0].subscribers->sid, subscriber->sid);
}

TEST_F(GenaSubscriptions, RenewalCancellationAndRefusals) {
  GENASubscriber* subscriber = Subscribe();
  subscriber->expires = 0;
  std::string lowerSid = std::string("uuid:") + subscriber->sid;
  for (char& c : lowerSid) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));

  HTTPResponse renewal = Request("SUBSCRIBE", "", lowerSid.c_str(), "");
  EXPECT_STREQ(renewal.status, "200 OK");
  EXPECT_EQ(renewal.extraHeaders, "SID: " + lowerSid + "\r\nTIMEOUT: Second-300\r\n");
  EXPECT_GE(subscriber->expires, std::time(nullptr) + 299);

  EXPECT_STREQ(Request("SUBSCRIBE", "", "uuid:00000000-0000-0000-0000-000000000000", "").status,
               "412 Precondition Failed");
  EXPECT_STREQ(Request("SUBSCRIBE", "", "", "<http://127.0.0.1:1/cb>").status, "412 Precondition Failed");
  EXPECT_STREQ(Request("SUBSCRIBE", "upnp:other", "", "").status, "412 Precondition Failed");
  EXPECT_STREQ(Request("UNSUBSCRIBE", "", "", "").status, "412 Precondition Failed");
  EXPECT_STREQ(Request("GET", "upnp:event", lowerSid.c_str(), "").status, "412 Precondition Failed");
  EXPECT_STREQ(Request("NOTIFY", "upnp:event", "", "").status, "412 Precondition Failed");
  EXPECT_EQ(Count(), 1);

  EXPECT_STREQ(Request("UNSUBSCRIBE", "", "uuid:unknown", "").status, "200 OK");
  EXPECT_EQ(Count(), 1);
  HTTPResponse cancel = Request("unsubscribe", "", lowerSid.c_str(), "");
  EXPECT_STREQ(cancel.status, "200 OK");
  EXPECT_EQ(cancel.extraHeaders, "");
  EXPECT_EQ(Count(), 0);
}

TEST_F(GenaSubscriptions, DeliveryAdvancesKeysOncePerDueEvent) {
  // Asked every pass even with nobody listening, so an unheard change is
  // consumed.
  GENA_DeliverEvents(&device);
  EXPECT_EQ(recorder.changedCalls, 1);
  EXPECT_TRUE(recorder.bodies.empty());

  GENASubscriber* first = Subscribe();
  GENASubscriber* second = Subscribe();
  GENA_DeliverEvents(&device);
  EXPECT_EQ(first->seq, 1u);
  EXPECT_EQ(second->seq, 1u);
  EXPECT_EQ(recorder.bodies, std::vector<bool>({true}));  // built once for both

  GENA_DeliverEvents(&device);
  EXPECT_EQ(first->seq, 1u);
  recorder.changed = true;
  GENA_DeliverEvents(&device);
  EXPECT_EQ(first->seq, 2u);
  EXPECT_EQ(second->seq, 2u);
  EXPECT_EQ(recorder.bodies, std::vector<bool>({true, false}));

  // A new subscriber in a changed pass gets only its initial event; the
  // wrap skips 0, which marks a pending initial event.
  GENASubscriber* third = Subscribe();
  first->seq = UINT32_MAX;
  GENA_DeliverEvents(&device);
  EXPECT_EQ(third->seq, 1u);
  EXPECT_EQ(first->seq, 1u);
  EXPECT_EQ(second->seq, 3u);
  EXPECT_EQ(recorder.bodies, std::vector<bool>({true, false, true, false}));
  EXPECT_EQ(recorder.changedCalls, 5);
}

TEST_F(GenaSubscriptions, ExpiryAndMissingCallbacks) {
  GENASubscriber* keep = Subscribe();
  GENASubscriber* expired = Subscribe();
  GENASubscriber* edge = Subscribe();
  const int64_t now = std::time(nullptr);
  expired->expires = now - 1;
  edge->expires = now + 60;
  GENA_DeliverEvents(&device);
  EXPECT_EQ(Count(), 2);
  EXPECT_EQ(services[0].subscribers, edge);
  EXPECT_EQ(edge->next, keep);

  // Without both callbacks nothing is due and keys stay put.
  device.makeEventBody = nullptr;
  GENASubscriber* fresh = Subscribe();
  GENA_DeliverEvents(&device);
  EXPECT_EQ(fresh->seq, 0u);
}

}  // namespace
