// The listener and the connection threads of the HTTP server. The accept
// thread hands every connection to a detached thread of its own, which reads
// one header block at a time, lets one handler answer, writes the reply and
// waits for the next request while the connection is kept alive. What a
// connection needs is copied into its request when it is accepted; the server
// record only keeps the list of open connections, which HTTP_delete ends.
#include "http/HTTPServer.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>

#include <cassert>
#include <climits>
#include <cstring>
#include <exception>
#include <memory>
#include <new>
#include <string_view>
#include <vector>

#include "base/MemoryReserve.h"
#include "base/UniqueFd.h"

// One open connection: its request record and its place in the server's list.
struct HTTPConnection {
  HTTPServer* server = nullptr;
  HTTPConnection* previous = nullptr;
  HTTPConnection* next = nullptr;
  HTTPRequest request;
};

namespace {

constexpr int kListenBacklog = 128;
constexpr int kFirstRequestWaitMs = 5000;
constexpr int kKeepAliveWaitMs = 10000;
constexpr size_t kHeaderBufferStart = 512;
// The header block, terminator included, must fit in this many bytes.
constexpr size_t kHeaderBlockMax = 8192;
constexpr int kHeaderMoreWaitMs = 2000;
constexpr int kLingerSeconds = 3;
constexpr int kSocketTimeoutSeconds = 600;
constexpr int kKeepIdleSeconds = 10;
constexpr int kKeepIntervalSeconds = 2;
constexpr int kKeepCount = 10;
constexpr std::string_view kContinueLine = "HTTP/1.1 100 Continue\r\n\r\n";
constexpr std::string_view kHeaderEnd = "\r\n\r\n";
// Stack of a connection thread, its control block included. The deepest use
// measured is about 12 KiB (a Browse of 1,000 media files, every parser over
// the fuzz corpus, file transfers), 17 KiB with AddressSanitizer, whose own
// reports need room on top; 128 KiB leaves wide headroom while thousands of
// connections still fit in a 32-bit address space.
#if defined(__SANITIZE_ADDRESS__)
constexpr size_t kConnectionStackBytes = size_t{512} << 10;
#else
constexpr size_t kConnectionStackBytes = size_t{128} << 10;
#endif

void SetIntOption(int socket, int level, int name, int value) {
  setsockopt(socket, level, name, &value, sizeof value);
}

void SetConnectionOptions(int socket) {
  linger lingerOption{1, kLingerSeconds};
  setsockopt(socket, SOL_SOCKET, SO_LINGER, &lingerOption, sizeof lingerOption);
  timeval timeout{kSocketTimeoutSeconds, 0};
  setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
  setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
  SetIntOption(socket, SOL_SOCKET, SO_KEEPALIVE, 1);
  SetIntOption(socket, IPPROTO_TCP, TCP_KEEPIDLE, kKeepIdleSeconds);
  SetIntOption(socket, IPPROTO_TCP, TCP_KEEPINTVL, kKeepIntervalSeconds);
  SetIntOption(socket, IPPROTO_TCP, TCP_KEEPCNT, kKeepCount);
  SetIntOption(socket, IPPROTO_TCP, TCP_NODELAY, 1);
}

// Waits up to the header wait for more than `have` bytes to be readable, or
// for the peer to stop sending. Bytes already peeked stay in the socket, so
// the wait uses a low-water mark above them rather than plain readiness.
bool WaitForMoreInput(int socket, size_t have) {
  SetIntOption(socket, SOL_SOCKET, SO_RCVLOWAT, static_cast<int>(have + 1));
  pollfd ready{socket, POLLIN | POLLRDHUP, 0};
  int result = poll(&ready, 1, kHeaderMoreWaitMs);
  SetIntOption(socket, SOL_SOCKET, SO_RCVLOWAT, 1);
  return result == 1;
}

bool Consume(int socket, char* buffer, size_t length) {
  while (length > 0) {
    ssize_t count = recv(socket, buffer, length, 0);
    if (count < 1) return false;
    buffer += count;
    length -= static_cast<size_t>(count);
  }
  return true;
}

// Takes exactly one header block from the socket into `buffer` (which keeps
// one byte beyond its capacity for a terminating zero) and returns its length.
// Bytes after the block stay in the socket for the handler. A block that stops
// arriving without its blank line is returned as it stands, unconsumed; an
// over-long block or a lost buffer gives 0, a failed read its result.
ssize_t ReadHeaderBlock(int socket, std::vector<char>& buffer) {
  size_t length = 0;
  for (;;) {
    size_t capacity = buffer.size() - 1;
    if (length == capacity) {
      capacity *= 2;
      try {
        buffer.resize(capacity + 1);
      } catch (const std::bad_alloc&) {
        return 0;
      }
      buffer[capacity] = '\0';
    }
    ssize_t peeked = recv(socket, buffer.data(), capacity, MSG_PEEK);
    if (peeked < 1) return peeked;
    size_t got = static_cast<size_t>(peeked);
    assert(length <= got && got <= capacity);
    buffer[got] = '\0';
    std::string_view text(buffer.data(), std::strlen(buffer.data()));
    size_t end = text.find(kHeaderEnd);
    if (end != std::string_view::npos) {
      size_t blockLength = end + kHeaderEnd.size();
      return Consume(socket, buffer.data(), blockLength) ? static_cast<ssize_t>(blockLength) : 0;
    }
    if (got >= kHeaderBlockMax) return 0;
    // Nothing new after a wait (or the peer has stopped sending): parse what came.
    if ((length == got && length != 0) || !WaitForMoreInput(socket, got)) return static_cast<ssize_t>(got);
    length = got;
  }
}

bool MethodMatches(const HTTPHandlerEntry& entry, int method) {
  return entry.method == HTTP_METHOD_ANY || entry.method == method;
}

const HTTPHandlerEntry* ChooseHandler(const HTTPRequest& request) {
  for (const HTTPHandlerEntry* entry = request.exactHandlers; entry && entry->handler; ++entry) {
    if (MethodMatches(*entry, request.method) && entry->path && std::strcmp(entry->path, request.path) == 0) {
      return entry;
    }
  }
  for (const HTTPHandlerEntry* entry = request.prefixHandlers; entry && entry->handler; ++entry) {
    if (MethodMatches(*entry, request.method) && entry->path &&
        std::strncmp(request.path, entry->path, std::strlen(entry->path)) == 0) {
      return entry;
    }
  }
  const HTTPHandlerEntry* fallback = request.defaultHandler;
  return fallback && fallback->handler ? fallback : nullptr;
}

// The keep-alive loop of one connection.
void ServeConnection(HTTPRequest& request) {
  std::vector<char> buffer(kHeaderBufferStart + 1, '\0');
  bool keepAlive = true;
  int waitMs = kFirstRequestWaitMs;
  while (keepAlive) {
    pollfd ready{request.socket, POLLIN, 0};
    if (poll(&ready, 1, waitMs < INT_MAX ? waitMs + 1 : waitMs) != 1) return;
    HTTPRequest_Reset(&request);
    keepAlive = false;
    waitMs = kKeepAliveWaitMs;

    ssize_t length = ReadHeaderBlock(request.socket, buffer);
    if (length < 4) return;
    // The last line feed of the block becomes the terminating zero.
    buffer[static_cast<size_t>(length) - 1] = '\0';
    HTTPRequest_Parse(&request, buffer.data());
    keepAlive = request.keepAlive;
    if (request.expectContinue) HTTPRequest_WriteData(&request, kContinueLine.data(), kContinueLine.size());

    HTTPResponse response;
    response.version = request.version;
    response.keepAlive = keepAlive;
    response.keepAliveWait = kKeepAliveWaitMs;
    if (const HTTPHandlerEntry* entry = ChooseHandler(request)) {
      entry->handler(&response, entry->handlerContext, request.path, entry->path, &request, request.userData);
    }
    keepAlive = response.keepAlive;
    waitMs = response.keepAliveWait > 0 ? response.keepAliveWait : 0;
    if (response.contentLength < 0) response.contentLength = 0;
    if (!response.handled && !HTTPResponse_Send(&request, &response)) keepAlive = false;
  }
}

// Adds a connection to the server's list, or takes it off; the last one off
// wakes HTTP_delete.
void Remember(HTTPServer& server, HTTPConnection& connection) {
  std::lock_guard lock(server.connectionsMutex);
  connection.next = server.connections;
  if (connection.next) connection.next->previous = &connection;
  server.connections = &connection;
}

void Forget(HTTPServer& server, HTTPConnection& connection) {
  std::lock_guard lock(server.connectionsMutex);
  if (connection.previous) connection.previous->next = connection.next;
  else server.connections = connection.next;
  if (connection.next) connection.next->previous = connection.previous;
  if (!server.connections) server.connectionsEnded.notify_all();
}

void* ConnectionRun(void* argument) {
  std::unique_ptr<HTTPConnection> connection(static_cast<HTTPConnection*>(argument));
  UniqueFd socket(connection->request.socket);
  HTTP_RunConnection(&connection->request);
  // From here on the server may be gone: only the socket and the request are left.
  Forget(*connection->server, *connection);
  return nullptr;
}

bool StartConnectionThread(HTTPConnection* connection) {
  pthread_attr_t attributes;
  if (pthread_attr_init(&attributes) != 0) return false;
  pthread_t thread;
  bool started = pthread_attr_setstacksize(&attributes, kConnectionStackBytes) == 0 &&
                 pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED) == 0 &&
                 pthread_create(&thread, &attributes, ConnectionRun, connection) == 0;
  pthread_attr_destroy(&attributes);
  return started;
}

void StartConnection(HTTPServer& server, UniqueFd socket) {
  std::unique_ptr<HTTPConnection> connection(new (std::nothrow) HTTPConnection);
  if (!connection) return;
  SetConnectionOptions(socket.get());
  connection->server = &server;
  HTTPRequest& request = connection->request;
  request.socket = socket.get();
  request.exactHandlers = server.exactHandlers;
  request.prefixHandlers = server.prefixHandlers;
  request.defaultHandler = server.defaultHandler;
  request.onConnectionClose = server.onConnectionClose;
  request.userData = nullptr;
  if (server.onConnectionOpen) server.onConnectionOpen(&request, server.context, &request.userData);
  Remember(server, *connection);
  // No room for a stack: the memory reserve is there for this too.
  if (!StartConnectionThread(connection.get()) &&
      !(MemoryReserve_Spend() && StartConnectionThread(connection.get()))) {
    Forget(server, *connection);
    if (request.onConnectionClose) request.onConnectionClose(&request, request.userData);
    return;
  }
  connection.release();
  socket.release();
}

void AcceptRun(HTTPServer* server) {
  if (server->onServerStart) server->onServerStart(server, server->context);
  while (server->running) {
    int socket = accept4(server->listenSocket, nullptr, nullptr, SOCK_CLOEXEC);
    if (socket < 0) continue;
    StartConnection(*server, UniqueFd(socket));
  }
  if (server->onServerStop) server->onServerStop(server, server->context);
}

}  // namespace

void HTTP_RunConnection(HTTPRequest* request) {
  try {
    ServeConnection(*request);
  } catch (...) {
    // Out of memory (or a throwing handler) ends the connection like any failure.
  }
  if (request->onConnectionClose) request->onConnectionClose(request, request->userData);
  shutdown(request->socket, SHUT_RDWR);
}

HTTPServer* HTTP_new(uint16_t* port, void* context, HTTPServerStartFunc onServerStart,
                     HTTPServerStopFunc onServerStop, HTTPConnectionOpenFunc onConnectionOpen,
                     const HTTPHandlerEntry* exactHandlers, const HTTPHandlerEntry* prefixHandlers,
                     const HTTPHandlerEntry* defaultHandler, HTTPConnectionCloseFunc onConnectionClose) {
  std::unique_ptr<HTTPServer> server(new (std::nothrow) HTTPServer);
  if (!server) return nullptr;
  server->onServerStart = onServerStart;
  server->onServerStop = onServerStop;
  server->onConnectionOpen = onConnectionOpen;
  server->exactHandlers = exactHandlers;
  server->prefixHandlers = prefixHandlers;
  server->defaultHandler = defaultHandler;
  server->onConnectionClose = onConnectionClose;
  server->context = context;
  server->running = true;

  UniqueFd listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP));
  if (!listener.valid()) return nullptr;
  SetIntOption(listener.get(), SOL_SOCKET, SO_REUSEADDR, 1);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_ANY);
  address.sin_port = htons(port ? *port : 0);
  if (bind(listener.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) return nullptr;
  if (listen(listener.get(), kListenBacklog) != 0) return nullptr;
  socklen_t length = sizeof address;
  if (getsockname(listener.get(), reinterpret_cast<sockaddr*>(&address), &length) != 0) return nullptr;

  server->listenSocket = listener.get();
  try {
    server->acceptThread = std::thread(AcceptRun, server.get());
  } catch (const std::exception&) {  // no thread, or no memory for one
    return nullptr;
  }
  listener.release();
  if (port) *port = ntohs(address.sin_port);
  return server.release();
}

void HTTP_delete(HTTPServer* server) {
  if (server == nullptr) return;
  std::unique_ptr<HTTPServer> owned(server);
  UniqueFd listener(server->listenSocket);
  sockaddr_in address{};
  socklen_t length = sizeof address;
  bool known = getsockname(listener.get(), reinterpret_cast<sockaddr*>(&address), &length) == 0;
  server->running = false;

  // The accept thread sleeps in accept(): a connection of our own wakes it.
  UniqueFd wake(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP));
  bool woken = known && wake.valid() &&
               connect(wake.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  if (wake.valid()) shutdown(wake.get(), SHUT_RDWR);
  wake.reset();
  // Without a route to ourselves, shutting the listener down fails the accept instead.
  if (!woken) shutdown(listener.get(), SHUT_RDWR);
  if (server->acceptThread.joinable()) server->acceptThread.join();

  // No connection is added any more. A connection thread blocked on its
  // socket ends once the socket is shut down; one busy in a handler ends at
  // its next read or write.
  std::unique_lock lock(server->connectionsMutex);
  for (HTTPConnection* connection = server->connections; connection; connection = connection->next) {
    shutdown(connection->request.socket, SHUT_RDWR);
  }
  server->connectionsEnded.wait(lock, [server] { return server->connections == nullptr; });
}
