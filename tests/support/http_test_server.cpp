// Test-only HTTP server for the system tests: the HTTP module with handler
// tables that serve memory bodies, file regions from a folder, request echoes
// and a few special behaviours. Listens on a free port (found by the tests
// from /proc) until SIGTERM or SIGINT, then deletes the server and exits.
//
// Usage: http_test_server DIR      serve DIR under /file/
//        http_test_server --none   no handler tables at all
#include <pthread.h>
#include <signal.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

#include "http/HTTPServer.h"

namespace {

std::string documentRoot;

// The number in "name=N" of a query, or `fallback`.
long long QueryNumber(const char* query, const char* name, long long fallback) {
  std::string key = std::string(name) + "=";
  for (const char* at = query; (at = std::strstr(at, key.c_str())) != nullptr; at += key.size()) {
    if (at == query || at[-1] == '&') return std::strtoll(at + key.size(), nullptr, 10);
  }
  return fallback;
}

int MemoryBody(HTTPResponse* response, void*, const char*, const char*, HTTPRequest* request, void*) {
  long long size = QueryNumber(HTTPRequest_GetQuery(request), "size", -1);
  std::string body = "hello from memory\n";
  if (size >= 0) {
    body.resize(static_cast<size_t>(size));
    for (size_t i = 0; i < body.size(); ++i) body[i] = static_cast<char>('a' + i % 26);
  }
  response->status = "200 OK";
  response->contentType = "text/plain";
  HTTPResponse_SetBody(response, std::move(body));
  return 1;
}

int KeepAliveWait(HTTPResponse* response, void*, const char*, const char*, HTTPRequest* request, void*) {
  response->status = "200 OK";
  response->keepAliveWait = static_cast<int>(QueryNumber(HTTPRequest_GetQuery(request), "wait", 10000));
  return 1;
}

int Echo(HTTPResponse* response, void*, const char*, const char*, HTTPRequest* request, void*) {
  std::string body;
  char buffer[4096];
  for (int64_t left = HTTPRequest_GetContentLength(request); left > 0;) {
    ssize_t count = HTTPRequest_ReadData(request, buffer, left < 4096 ? static_cast<size_t>(left) : sizeof buffer);
    if (count < 1) break;
    body.append(buffer, static_cast<size_t>(count));
    left -= count;
  }
  response->status = "200 OK";
  HTTPResponse_SetBody(response, std::move(body));
  return 1;
}

// Lines "key=value" of everything the request accessors report.
int Describe(HTTPResponse* response, void*, const char* path, const char* entryPath, HTTPRequest* request, void*) {
  std::string text;
  auto line = [&text](const char* key, const std::string& value) { text += std::string(key) + "=" + value + "\n"; };
  line("method", std::to_string(HTTPRequest_GetMethod(request)));
  line("methodString", HTTPRequest_GetMethodString(request));
  line("path", path);
  line("entryPath", entryPath);
  line("query", HTTPRequest_GetQuery(request));
  line("version", HTTPRequest_GetVersion(request));
  line("contentLength", std::to_string(HTTPRequest_GetContentLength(request)));
  line("user", HTTPRequest_GetUserName(request));
  line("password", HTTPRequest_GetPassword(request));
  line("host", HTTPRequest_GetHeader(request, "host"));
  line("headerCount", std::to_string(HTTPRequest_GetHeaderCount(request)));
  char host[64];
  uint16_t port = 0;
  HTTPRequest_GetSockName(request, host, sizeof host, &port);
  line("sock", std::string(host) + ":" + std::to_string(port));
  HTTPRequest_GetPeerName(request, host, sizeof host, &port);
  line("peer", std::string(host) + ":" + std::to_string(port));
  line("connected", HTTPRequest_IsConnected(request) ? "1" : "0");
  response->status = "200 OK";
  response->contentType = "text/plain";
  HTTPResponse_SetBody(response, std::move(text));
  return 1;
}

int ServeFile(HTTPResponse* response, void*, const char* path, const char* entryPath, HTTPRequest* request, void*) {
  std::optional<std::string> file = HTTP_ResolvePath(documentRoot.c_str(), path, entryPath);
  if (!file) return 0;
  const char* query = HTTPRequest_GetQuery(request);
  response->contentType = HTTP_GetMimeType(file->c_str());
  response->fileOffset = QueryNumber(query, "offset", 0);
  response->fileLength = QueryNumber(query, "length", 0);
  response->filePath = std::move(file);
  return 1;
}

int Exact(HTTPResponse* response, void*, const char*, const char*, HTTPRequest*, void*) {
  response->status = "200 OK";
  HTTPResponse_SetBody(response, "exact");
  return 1;
}

int GetOnly(HTTPResponse* response, void*, const char*, const char*, HTTPRequest*, void*) {
  response->status = "200 OK";
  HTTPResponse_SetBody(response, "get only");
  return 1;
}

// A reply the handler writes itself, in chunks.
int Chunked(HTTPResponse* response, void*, const char*, const char*, HTTPRequest* request, void*) {
  const std::string reply =
      "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\nConnection: close\r\n\r\n"
      "5\r\nhello\r\n6\r\n world\r\n0\r\n\r\n";
  HTTPRequest_WriteData(request, reply.data(), reply.size());
  response->handled = true;
  response->keepAlive = false;
  return 1;
}

// Answers only when `n` requests are inside their handlers at the same time
// (or after 5 s without them): proves that connections do not wait for each other.
std::mutex gateMutex;
std::condition_variable gateChanged;
int gateArrivals = 0;

int Gate(HTTPResponse* response, void*, const char*, const char*, HTTPRequest* request, void*) {
  long long wanted = QueryNumber(HTTPRequest_GetQuery(request), "n", 1);
  std::unique_lock lock(gateMutex);
  ++gateArrivals;
  gateChanged.notify_all();
  bool together = gateChanged.wait_for(lock, std::chrono::seconds(5), [&] { return gateArrivals >= wanted; });
  response->status = "200 OK";
  HTTPResponse_SetBody(response, together ? "together" : "alone");
  return 1;
}

int Default(HTTPResponse* response, void*, const char* path, const char*, HTTPRequest*, void*) {
  response->status = "200 OK";
  HTTPResponse_SetBody(response, std::string("default ") + path);
  return 1;
}

const HTTPHandlerEntry kExact[] = {
    {HTTP_METHOD_ANY, nullptr, "/mem", MemoryBody},
    {HTTP_METHOD_ANY, nullptr, "/keepalive", KeepAliveWait},
    {HTTP_METHOD_POST, nullptr, "/echo", Echo},
    {HTTP_METHOD_ANY, nullptr, "/file/exact", Exact},
    {HTTP_METHOD_GET, nullptr, "/get-only", GetOnly},
    {HTTP_METHOD_ANY, nullptr, "/chunked", Chunked},
    {HTTP_METHOD_ANY, nullptr, "/gate", Gate},
    {0, nullptr, nullptr, nullptr},
};

const HTTPHandlerEntry kPrefix[] = {
    {HTTP_METHOD_ANY, nullptr, "/file/", ServeFile},
    {HTTP_METHOD_ANY, nullptr, "/describe/", Describe},
    {0, nullptr, nullptr, nullptr},
};

const HTTPHandlerEntry kDefault = {0, nullptr, "", Default};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s DIR | --none\n", argv[0]);
    return 2;
  }
  bool bare = std::strcmp(argv[1], "--none") == 0;
  if (!bare) {
    documentRoot = argv[1];
    if (documentRoot.empty() || documentRoot.back() != '/') documentRoot += '/';
  }
  signal(SIGPIPE, SIG_IGN);
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGTERM);
  sigaddset(&stopSignals, SIGINT);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

  uint16_t port = 0;
  HTTPServer* server = bare ? HTTP_new(&port, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr)
                            : HTTP_new(&port, nullptr, nullptr, nullptr, nullptr, kExact, kPrefix, &kDefault, nullptr);
  if (server == nullptr) return 1;
  int received = 0;
  sigwait(&stopSignals, &received);
  HTTP_delete(server);
  return 0;
}
