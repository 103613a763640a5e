// The two records that pass between the HTTP server and its handlers: the
// parsed request together with its connection, and the response a handler
// fills so that the server can write the reply (status line, date, byte
// ranges, a body from memory or from a region of a file). Also the small text
// utilities of the server: URL decoding, Base64, MIME types, document roots.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

// Method numbers of a request; a method word not in the list gives
// HTTP_METHOD_UNKNOWN. HTTP_METHOD_ANY is only used in handler entries.
enum HTTPMethod : int {
  HTTP_METHOD_UNKNOWN = 0,
  HTTP_METHOD_GET = 1,
  HTTP_METHOD_POST = 2,
  HTTP_METHOD_PUT = 3,
  HTTP_METHOD_OPTIONS = 4,
  HTTP_METHOD_HEAD = 5,
  HTTP_METHOD_LOCK = 6,
  HTTP_METHOD_UNLOCK = 7,
  HTTP_METHOD_MKCOL = 8,
  HTTP_METHOD_DELETE = 9,
  HTTP_METHOD_COPY = 10,
  HTTP_METHOD_MOVE = 11,
  HTTP_METHOD_PROPFIND = 12,
  HTTP_METHOD_PROPPATCH = 13,
  HTTP_METHOD_ANY = 255,
};

struct HTTPRequest;
struct HTTPHandlerEntry;

// Called once per connection, when it ends, with the connection's user data.
using HTTPConnectionCloseFunc = void (*)(HTTPRequest* request, void* userData);

// One header line; both texts point into the connection's header buffer.
struct HTTPHeader {
  const char* name;
  const char* value;
};

// One per connection, reused for every request on it. The texts point into the
// connection's header buffer: they are valid only during the handler call and
// are "" when absent, never null.
struct HTTPRequest {
  int socket = -1;
  const HTTPHandlerEntry* exactHandlers = nullptr;   // not owned
  const HTTPHandlerEntry* prefixHandlers = nullptr;  // not owned
  const HTTPHandlerEntry* defaultHandler = nullptr;  // not owned
  HTTPConnectionCloseFunc onConnectionClose = nullptr;
  void* userData = nullptr;  // set by the server's onConnectionOpen callback

  int method = HTTP_METHOD_UNKNOWN;
  const char* methodString = "";
  const char* path = "";     // URL-decoded, without the query
  const char* query = "";    // after the first "?", not decoded
  const char* version = "";  // the third word of the request line, as sent
  std::vector<HTTPHeader> headers;
  std::optional<std::string> userName;  // from Basic authorisation
  std::optional<std::string> password;
  int64_t contentLength = 0;  // never negative

  // Parse results the server acts on.
  bool keepAlive = false;       // from the version and the Connection header
  bool expectContinue = false;  // Expect asked for 100-continue
  bool rangeRequested = false;  // a Range line with "bytes=" was seen
  int64_t rangeOffset = 0;      // first byte asked for
  int64_t rangeLength = 0;      // 0: up to the end; -1: malformed range
};

// Filled by a handler. Unless the handler sets `handled` (it then wrote the
// whole reply itself, for example a chunked one, with HTTPRequest_WriteData),
// the server writes the reply from these fields after the handler returns.
struct HTTPResponse {
  bool handled = false;
  const char* version = "";                // for the status line; not owned
  const char* status = "404 Not Found";    // code and reason phrase; not owned
  const char* contentType = nullptr;       // not owned; null: no Content-Type line
  std::string extraHeaders;                // complete lines, each ending "\r\n"
  std::optional<std::string> filePath;     // when set, the body is taken from this file
  int64_t fileOffset = 0;                  // first byte of the file region that is the resource
  int64_t fileLength = 0;                  // length of that region; 0: to the end of the file
  std::optional<std::string> body;         // memory body, used when no file is sent
  int64_t contentLength = 0;               // length of the memory body
  bool keepAlive = false;                  // as the request decided; the handler may change it
  int keepAliveWait = 10000;               // ms to wait for the next request on the connection
};

// Sets the memory body and its content length together.
void HTTPResponse_SetBody(HTTPResponse* response, std::string body);

// Request accessors; a null request gives the stated default.
int HTTPRequest_GetMethod(const HTTPRequest* request);                // 0
const char* HTTPRequest_GetMethodString(const HTTPRequest* request);  // ""
const char* HTTPRequest_GetPath(const HTTPRequest* request);          // ""
const char* HTTPRequest_GetQuery(const HTTPRequest* request);         // ""
const char* HTTPRequest_GetVersion(const HTTPRequest* request);       // ""
int64_t HTTPRequest_GetContentLength(const HTTPRequest* request);     // 0
// Value of the first header whose name equals `name` case-insensitively, or "".
const char* HTTPRequest_GetHeader(const HTTPRequest* request, const char* name);
int HTTPRequest_GetHeaderCount(const HTTPRequest* request);
// Name and value of header `index`; "" when the index is out of range.
const char* HTTPRequest_GetHeaderName(const HTTPRequest* request, int index);
const char* HTTPRequest_GetHeaderValue(const HTTPRequest* request, int index);
const char* HTTPRequest_GetUserName(const HTTPRequest* request);  // Basic user name or ""
const char* HTTPRequest_GetPassword(const HTTPRequest* request);  // Basic password or ""

// Waits up to 10 s for input, then receives at most `length` bytes once: the
// count received (0 at the end of the stream), or -1 on time-out, error or
// null arguments.
ssize_t HTTPRequest_ReadData(HTTPRequest* request, void* buffer, size_t length);
// Writes every byte, waiting up to 10 s each time for the socket to take data.
// True only when all went out; with a null request or data, true only for 0.
bool HTTPRequest_WriteData(HTTPRequest* request, const void* data, size_t length);
// For its lifetime, holds back partial TCP segments on the request's socket,
// so that a reply written in pieces leaves in full segments; the tail goes
// out as soon as the scope ends. Does nothing for a null request.
class HTTPRequest_CorkScope {
 public:
  explicit HTTPRequest_CorkScope(const HTTPRequest* request);
  ~HTTPRequest_CorkScope();
  HTTPRequest_CorkScope(const HTTPRequest_CorkScope&) = delete;
  HTTPRequest_CorkScope& operator=(const HTTPRequest_CorkScope&) = delete;

 private:
  int socket_;
};
// Local (SockName) or remote (PeerName) address of the connection as numeric
// text into `host` (when given with a size above 0) and the port in host order
// through `port` (when given). False when the address cannot be read.
bool HTTPRequest_GetSockName(const HTTPRequest* request, char* host, size_t hostSize, uint16_t* port);
bool HTTPRequest_GetPeerName(const HTTPRequest* request, char* host, size_t hostSize, uint16_t* port);
// True when the connection could take data now and reports no hang-up or error.
bool HTTPRequest_IsConnected(const HTTPRequest* request);

// Clears everything a previous request on the connection left in the record.
void HTTPRequest_Reset(HTTPRequest* request);
// Parses a header block (request line and header lines, zero-terminated) in
// place: the texts of the request point into `block` afterwards. Resets the
// request first.
void HTTPRequest_Parse(HTTPRequest* request, char* block);

// Writes the reply for `response` (status line, Date, range lines,
// Content-Type, Content-Length, Connection, extra headers, then the body
// unless the method is HEAD). False when the header or the body did not go
// out in full: the connection must not be kept.
bool HTTPResponse_Send(HTTPRequest* request, HTTPResponse* response);

// The header HTTPResponse_Send would write for `response` (without range
// lines), for a handler that writes a chunked body itself:
// "Transfer-Encoding: chunked" stands where Content-Length would.
std::string HTTPResponse_MakeChunkedHeader(const HTTPResponse* response);

// Decodes "%XX" escapes of `text` in place; everything else, "+" included, stays.
void HTTP_UrlDecode(char* text);
// Standard Base64 with "=" padding into `out` (zero-terminated, the zero not
// counted). The number of characters written, 0 when the input is empty or
// `outSize` is too small.
size_t Base64Encode(char* out, size_t outSize, const void* in, size_t inLength);
// Decodes Base64 (line breaks skipped, "=" ends the input). The number of bytes
// written, 0 on a character outside the alphabet, no input or a short buffer.
size_t Base64Decode(void* out, size_t outSize, const char* in, size_t inLength);
// MIME type of a file name by its extension; "application/octet-stream" when unknown.
const char* HTTP_GetMimeType(const char* name);
// Canonical path of `requestPath` (less `prefix`) under `documentRoot` (which
// ends in "/"); nullopt when an argument is missing, the prefix does not match,
// the target does not exist or it lies outside the root.
std::optional<std::string> HTTP_ResolvePath(const char* documentRoot, const char* requestPath,
                                            const char* prefix);
