// The device's request handler and the SOAP dispatcher driven directly: the
// server hook sees the decoded body first and can take the request over, and
// control requests reach the action handler with their arguments or get the
// one fault.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "http/HTTPRequest.h"
#include "upnp/UPnPDevice.h"

namespace {

struct Seen {
  std::string path;
  std::string body;
  std::vector<std::string> args;
  bool takeOver = false;
};
Seen gSeen;

bool RecordingHook(HTTPRequest*, HTTPResponse* response, const char* path, const char* body, size_t bodyLength,
                   UPnPDevice*) {
  gSeen.path = path;
  gSeen.body = body ? std::string(body, bodyLength) : "";
  if (gSeen.takeOver) response->status = "204 No Content";
  return gSeen.takeOver;
}

void RecordingAction(HTTPRequest*, const char* serviceType, const char* actionName, const UPnPArgValue* args,
                     int32_t count, HTTPResponse* response) {
  gSeen.args.assign({serviceType, actionName});
  for (int32_t i = 0; i < count; ++i) gSeen.args.push_back(std::string(args[i].value, args[i].length));
  response->status = "200 OK";
}

const UPnPArgument kIn[] = {{"First", "A"}, {"Second", "A"}, {nullptr, nullptr}};
UPnPAction gActions[] = {{"Act", RecordingAction, kIn, nullptr},
                         {"Idle", nullptr, nullptr, nullptr},
                         {nullptr, nullptr, nullptr, nullptr}};
UPnPService gServices[] = {{"urn:x:service:T:1", "urn:x:serviceId:T", "/doc", "/ctl", "/evt", gActions, nullptr,
                            nullptr},
                           {nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr}};

// One request whose header block is parsed as the server would, with the
// body waiting on the other end of a socket pair.
class DeviceRequest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds_), 0);
    request_.socket = fds_[0];
    device_.modelName = "Model";
    device_.modelNumber = "2";
    device_.descriptionPath = "/desc";
    device_.services = gServices;
    device_.httpHook = RecordingHook;
    gSeen = {};
  }
  void TearDown() override {
    close(fds_[0]);
    close(fds_[1]);
  }

  // `endStream` closes the client's side after the body, so a short body
  // ends in end-of-stream instead of a wait.
  HTTPResponse Handle(std::string head, const std::string& body, bool endStream = false) {
    EXPECT_EQ(write(fds_[1], body.data(), body.size()), static_cast<ssize_t>(body.size()));
    if (endStream) shutdown(fds_[1], SHUT_WR);
    head_ = std::move(head);
    HTTPRequest_Parse(&request_, head_.data());
    HTTPResponse response;
    response.keepAlive = request_.keepAlive;
    UPnPDevice_HandleRequest(&response, nullptr, request_.path, "", &request_, &device_);
    return response;
  }

 private:

  int fds_[2] = {-1, -1};
  std::string head_;
  HTTPRequest request_;
  UPnPDevice device_;
};

TEST_F(DeviceRequest, HookSeesTheDecodedBodyAndMayAnswer) {
  gSeen.takeOver = true;
  HTTPResponse response =
      Handle("POST /media/1 HTTP/1.1\r\nTransfer-Encoding: chunked\r\n", "3\r\nabc\r\nA\r\n0123456789\r\n0\r\n\r\n");
  EXPECT_EQ(gSeen.path, "/media/1");
  EXPECT_EQ(gSeen.body, "abc0123456789");
  EXPECT_STREQ(response.status, "204 No Content");
  // An answered request gets nothing added by the device.
  EXPECT_EQ(response.extraHeaders, "");
}

TEST_F(DeviceRequest, ControlRequestReachesTheHandler) {
  std::string body =
      "<s:Envelope><s:Body><u:Act xmlns:u=\"urn:x\"><First>1</First><Second> two </Second></u:Act></s:Body>"
      "</s:Envelope>";
  HTTPResponse response = Handle("POST /ctl HTTP/1.1\r\nContent-Length: " + std::to_string(body.size()) + "\r\n", body);
  EXPECT_EQ(gSeen.body, body);
  EXPECT_EQ(gSeen.args, (std::vector<std::string>{"urn:x:service:T:1", "Act", "1", "two"}));
  EXPECT_STREQ(response.status, "200 OK");
  EXPECT_STREQ(response.contentType, "text/xml; charset=\"utf-8\"");
  EXPECT_NE(response.extraHeaders.find(" UPnP/1.0 Model/2\r\nEXT:\r\n"), std::string::npos);
}

TEST_F(DeviceRequest, ActionWithoutHandlerIsAFault) {
  std::string body = "<s:Envelope><s:Body><u:Idle xmlns:u=\"urn:x\"/></s:Body></s:Envelope>";
  HTTPResponse response = Handle("POST /ctl HTTP/1.1\r\nContent-Length: " + std::to_string(body.size()) + "\r\n", body);
  EXPECT_TRUE(gSeen.args.empty());
  EXPECT_STREQ(response.status, "500 Internal Server Error");
  ASSERT_TRUE(response.body);
  EXPECT_EQ(*response.body, UPnP_MakeActionResponseError("602", "Optional Action Not Implemented"));
  EXPECT_EQ(response.contentLength, static_cast<int64_t>(response.body->size()));
}

void ExpectUnanswered(const HTTPResponse& response) {
  EXPECT_FALSE(response.keepAlive);
  EXPECT_STREQ(response.status, "404 Not Found");
  EXPECT_FALSE(response.body);
  EXPECT_EQ(gSeen.path, "");
}

TEST_F(DeviceRequest, ShortBodyClosesTheConnectionUnanswered) {
  ExpectUnanswered(Handle("POST /ctl HTTP/1.1\r\nContent-Length: 10\r\n", "short", true));
}

TEST_F(DeviceRequest, ChunkExtensionClosesTheConnectionUnanswered) {
  ExpectUnanswered(
      Handle("POST /ctl HTTP/1.1\r\nTransfer-Encoding: chunked\r\n", "5;ext=1\r\nhello\r\n0\r\n\r\n", true));
}

}  // namespace
