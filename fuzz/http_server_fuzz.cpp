// Any bytes as everything a client sends on one connection before it stops
// sending: the server's keep-alive loop reads header block after header block
// from a socket pair and lets a small handler table answer each request, from
// memory, from a region of a file (ranges applied) or by writing the reply
// itself.
#include <cstring>
#include <memory>
#include <string>

#include "fuzz/FuzzSupport.h"
#include "http/HTTPServer.h"

namespace {

// Enough requests for the loop's every turn; a header block that never ends
// is read again and again by design, so the handlers close the connection
// after this many.
constexpr int kMaxRequests = 32;
constexpr size_t kEchoMax = 64;
constexpr size_t kFileSize = 1000;

struct Connection {
  int requests = 0;
};

int Finish(HTTPResponse* response, void* userData) {
  auto* connection = static_cast<Connection*>(userData);
  if (++connection->requests >= kMaxRequests) response->keepAlive = false;
  return 0;
}

int AnswerMemory(HTTPResponse* response, void*, const char* path, const char*, HTTPRequest*, void* userData) {
  response->status = "200 OK";
  response->contentType = "text/plain";
  HTTPResponse_SetBody(response, std::string(path, strnlen(path, kEchoMax)));
  return Finish(response, userData);
}

int AnswerFile(HTTPResponse* response, void* file, const char*, const char*, HTTPRequest* request, void* userData) {
  response->filePath = static_cast<const fuzz::MemoryFile*>(file)->Path();
  response->fileOffset = HTTPRequest_GetQuery(request)[0] == '\0' ? 0 : 100;
  response->fileLength = 500;
  return Finish(response, userData);
}

int AnswerItself(HTTPResponse* response, void*, const char*, const char*, HTTPRequest* request, void* userData) {
  static constexpr char kReply[] = "HTTP/1.1 204 No Content\r\nContent-Length: 0\r\n\r\n";
  response->handled = true;
  if (!HTTPRequest_WriteData(request, kReply, sizeof kReply - 1)) response->keepAlive = false;
  return Finish(response, userData);
}

const fuzz::MemoryFile& File() {
  static const fuzz::MemoryFile file(std::string(kFileSize, 'x'));
  return file;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const HTTPHandlerEntry exact[] = {{HTTP_METHOD_GET, nullptr, "/", AnswerMemory},
                                           {HTTP_METHOD_ANY, nullptr, "/self", AnswerItself},
                                           {0, nullptr, nullptr, nullptr}};
  static const HTTPHandlerEntry prefix[] = {
      {HTTP_METHOD_ANY, const_cast<fuzz::MemoryFile*>(&File()), "/file", AnswerFile},
      {HTTP_METHOD_POST, nullptr, "/", AnswerMemory},
      {0, nullptr, nullptr, nullptr}};
  static const HTTPHandlerEntry fallback = {HTTP_METHOD_ANY, nullptr, "", AnswerMemory};

  fuzz::SocketPair pair(fuzz::Text(data, size));
  if (!pair.valid()) return 0;
  fuzz::ClientReader reader(pair.client());
  Connection connection;
  auto request = std::make_unique<HTTPRequest>();
  request->socket = pair.server();
  request->exactHandlers = exact;
  request->prefixHandlers = prefix;
  request->defaultHandler = &fallback;
  request->userData = &connection;
  HTTP_RunConnection(request.get());
  return 0;
}
