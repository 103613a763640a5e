// A small HTTP/1.1 server: one listening socket, one accept thread and one
// detached thread per connection, each on a small stack of its own. It knows
// nothing of what it serves: its user hands it handler tables and callbacks;
// for each request one handler fills the response (see HTTPRequest.h) and the
// server writes the reply.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>

#include "http/HTTPRequest.h"

struct HTTPServer;
struct HTTPConnection;

// Called on the accept thread when it starts and just before it ends.
using HTTPServerStartFunc = void (*)(HTTPServer* server, void* context);
using HTTPServerStopFunc = void (*)(HTTPServer* server, void* context);
// Called for every accepted connection; what it stores through `userData` is
// handed to every handler call of that connection and to the close callback.
using HTTPConnectionOpenFunc = void (*)(HTTPRequest* request, void* context, void** userData);
// Answers a request by filling `response`, or by writing the whole reply itself
// and setting response->handled. `path` is the URL-decoded request path,
// `entryPath` the path of the matching entry. The result is ignored.
using HTTPHandlerFunc = int (*)(HTTPResponse* response, void* handlerContext, const char* path,
                                const char* entryPath, HTTPRequest* request, void* userData);

// One route. In a table, an entry whose handler is null ends the table.
struct HTTPHandlerEntry {
  int method;  // an HTTPMethod number, or HTTP_METHOD_ANY
  void* handlerContext;
  const char* path;
  HTTPHandlerFunc handler;
};

struct HTTPServer {
  int listenSocket = -1;
  std::thread acceptThread;
  std::atomic<bool> running{false};
  HTTPServerStartFunc onServerStart = nullptr;
  HTTPServerStopFunc onServerStop = nullptr;
  HTTPConnectionOpenFunc onConnectionOpen = nullptr;
  const HTTPHandlerEntry* exactHandlers = nullptr;   // path equal, table order
  const HTTPHandlerEntry* prefixHandlers = nullptr;  // path prefix, table order
  const HTTPHandlerEntry* defaultHandler = nullptr;  // one entry, any method and path
  HTTPConnectionCloseFunc onConnectionClose = nullptr;
  void* context = nullptr;

  // The connections whose threads still run, so that HTTP_delete can end them
  // and wait for them.
  std::mutex connectionsMutex;
  std::condition_variable connectionsEnded;
  HTTPConnection* connections = nullptr;
};

// Listens on `*port` (host order; a null pointer or 0 lets the system choose)
// on every IPv4 address and writes the bound port back through `port`. Null on
// failure. The server does not own the tables or the context; they and the
// callbacks must stay valid until HTTP_delete returns.
HTTPServer* HTTP_new(uint16_t* port, void* context, HTTPServerStartFunc onServerStart,
                     HTTPServerStopFunc onServerStop, HTTPConnectionOpenFunc onConnectionOpen,
                     const HTTPHandlerEntry* exactHandlers, const HTTPHandlerEntry* prefixHandlers,
                     const HTTPHandlerEntry* defaultHandler, HTTPConnectionCloseFunc onConnectionClose);

// The keep-alive loop of one accepted connection, run to its end on the
// calling thread: then the close callback is called and the socket shut down.
// The request and its socket stay the caller's. Each connection thread runs this.
void HTTP_RunConnection(HTTPRequest* request);

// Stops accepting, joins the accept thread, shuts the sockets of the open
// connections down, waits until their threads have let go of the server and
// its user's callbacks, and frees the server. Null is ignored.
void HTTP_delete(HTTPServer* server);
