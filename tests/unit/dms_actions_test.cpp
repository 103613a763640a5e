// The media server's eventing callbacks: which service gets which property
// set, and the change test that reports each counter move once.
#include <gtest/gtest.h>

#include <string>

#include "dms/DmsActions.h"
#include "dms/DmsDevice.h"
#include "dms/DmsObject.h"
#include "http/HTTPRequest.h"

namespace {

constexpr const char* kHead =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?><e:propertyset xmlns:e=\"urn:schemas-upnp-org:event-1-0\">";

const char* ContentDirectory() { return dlnaServiceTypes[kDlnaContentDirectoryRow]; }
const char* ConnectionManager() { return dlnaServiceTypes[kDlnaConnectionManagerRow]; }

TEST(DmsEventing, ChangeIsReportedOnceWithTheNewestValue) {
  DmsServer_SystemUpdateChanged(ContentDirectory());  // settle on the current value
  EXPECT_FALSE(DmsServer_SystemUpdateChanged(ContentDirectory()));

  DmsContent_RaiseSystemUpdateId();
  DmsContent_RaiseSystemUpdateId();
  // Other services never change, and asking them consumes nothing.
  EXPECT_FALSE(DmsServer_SystemUpdateChanged(ConnectionManager()));
  EXPECT_TRUE(DmsServer_SystemUpdateChanged(ContentDirectory()));
  EXPECT_FALSE(DmsServer_SystemUpdateChanged(ContentDirectory()));
  EXPECT_EQ(DmsActions_MakeEventBody(ContentDirectory(), false),
            std::string(kHead) + "<e:property><SystemUpdateID>" + std::to_string(DmsContent_SystemUpdateId()) +
                "</SystemUpdateID></e:property><e:property><ContainerUpdateIDs/></e:property></e:propertyset>");
}

TEST(DmsEventing, BodiesByServiceIdentity) {
  EXPECT_EQ(DmsActions_MakeEventBody(ConnectionManager(), true),
            std::string(kHead) + "<e:property><CurrentConnectionIDs>0</CurrentConnectionIDs></e:property>"
                                 "<e:property><SourceProtocolInfo>" + dmsSourceProtocolInfo +
                "</SourceProtocolInfo></e:property><e:property><SinkProtocolInfo/></e:property></e:propertyset>");
  // Services are recognised by the row pointer, not by the text.
  const std::string copy = ContentDirectory();
  EXPECT_EQ(DmsActions_MakeEventBody(copy.c_str(), true), "");
  EXPECT_FALSE(DmsServer_SystemUpdateChanged(copy.c_str()));
  EXPECT_EQ(DmsActions_MakeEventBody(dlnaServiceTypes[2], true), "");
}

TEST(DmsActions, CounterTextAndSelfClosedEmptyValues) {
  HTTPResponse response;
  DmsActions_GetSystemUpdateID(nullptr, "urn:t", "GetSystemUpdateID", nullptr, 0, &response);
  EXPECT_STREQ(response.status, "200 OK");
  const std::string id = "<Id>" + std::to_string(DmsContent_SystemUpdateId()) + "</Id>";
  ASSERT_TRUE(response.body.has_value());
  EXPECT_NE(response.body->find(id), std::string::npos);
  EXPECT_EQ(response.contentLength, static_cast<int64_t>(response.body->size()));

  HTTPResponse protocols;
  DmsActions_GetProtocolInfo(nullptr, "urn:t", "GetProtocolInfo", nullptr, 0, &protocols);
  ASSERT_TRUE(protocols.body.has_value());
  EXPECT_NE(protocols.body->find(std::string("<Source>") + dmsSourceProtocolInfo + "</Source><Sink/>"),
            std::string::npos);
}

}  // namespace
