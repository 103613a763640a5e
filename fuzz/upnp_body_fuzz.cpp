// Any bytes as everything a client sends on one connection to the media
// server's device: each request's body is read as the device reads it
// (chunked or by Content-Length, within the size cap), then the request goes
// on to the transfer hook, the documents, SOAP control or eventing, as the
// path says. The content tree is empty.
#include <memory>

#include "dms/DmsDevice.h"
#include "fuzz/FuzzSupport.h"
#include "http/HTTPServer.h"
#include "upnp/GENA.h"

namespace {

// A header block that never ends is read again and again by design, so the
// connection is closed after this many requests.
constexpr int kMaxRequests = 32;

struct Connection {
  UPnPDevice* device;
  int requests = 0;
};

int Answer(HTTPResponse* response, void* handlerContext, const char* path, const char* entryPath,
           HTTPRequest* request, void* userData) {
  auto* connection = static_cast<Connection*>(userData);
  UPnPDevice_HandleRequest(response, handlerContext, path, entryPath, request, connection->device);
  if (++connection->requests >= kMaxRequests) response->keepAlive = false;
  return 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const DmsServerInfo info;
  static const HTTPHandlerEntry entry = {HTTP_METHOD_UNKNOWN, nullptr, "", Answer};
  DmsDevice_Fill(info);
  UPnP_OsToken();

  fuzz::SocketPair pair(fuzz::Text(data, size));
  if (!pair.valid()) return 0;
  fuzz::ClientReader reader(pair.client());
  Connection connection{&dmsDevice};
  auto request = std::make_unique<HTTPRequest>();
  request->socket = pair.server();
  request->defaultHandler = &entry;
  request->userData = &connection;
  HTTP_RunConnection(request.get());
  GENA_FreeSubscribers(&dmsDevice);
  return 0;
}
