// Request parsing, the request accessors and the reply writer of the HTTP
// server, with its text utilities. The parser works in place on the header
// block so that header names and values are never copied; the reply writer
// resolves byte ranges against a region of a file and sends file bodies with
// sendfile straight from the page cache.
#include "http/HTTPRequest.h"

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <strings.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>
#include <string_view>

#include "base/Text.h"
#include "base/UniqueFd.h"

namespace {

constexpr int kIoWaitMs = 10000;
constexpr int64_t kBodyPiece = 4 * 1024 * 1024;
constexpr size_t kRangeLinesMax = 128;
constexpr size_t kDateMax = 30;
constexpr size_t kLengthLineMax = 48;
// Room for the status line, Date, Content-Type, Content-Length and Connection
// beyond the range lines and the extra headers; anything longer is cut.
constexpr size_t kReplyHeaderSlack = 256;

constexpr const char* kAcceptRanges = "Accept-Ranges: bytes\r\n";

struct MethodName {
  const char* name;
  int number;
};

constexpr MethodName kMethods[] = {
    {"GET", HTTP_METHOD_GET},           {"POST", HTTP_METHOD_POST},
    {"PUT", HTTP_METHOD_PUT},           {"OPTIONS", HTTP_METHOD_OPTIONS},
    {"HEAD", HTTP_METHOD_HEAD},         {"LOCK", HTTP_METHOD_LOCK},
    {"UNLOCK", HTTP_METHOD_UNLOCK},     {"MKCOL", HTTP_METHOD_MKCOL},
    {"DELETE", HTTP_METHOD_DELETE},     {"COPY", HTTP_METHOD_COPY},
    {"MOVE", HTTP_METHOD_MOVE},         {"PROPFIND", HTTP_METHOD_PROPFIND},
    {"PROPPATCH", HTTP_METHOD_PROPPATCH},
};

struct MimeName {
  const char* extension;
  const char* type;
};

constexpr MimeName kMimeTypes[] = {
    {"css", "text/css"},         {"htm", "text/html"},        {"html", "text/html"},
    {"jpeg", "image/jpeg"},      {"jpg", "image/jpeg"},       {"js", "text/javascript"},
    {"pdf", "application/pdf"},  {"png", "image/png"},        {"svg", "image/svg+xml"},
    {"txt", "text/plain"},       {"xml", "text/xml"},
};

constexpr const char* kDefaultMimeType = "application/octet-stream";

constexpr char kBase64Alphabet[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr int8_t kNotBase64 = -1;

constexpr std::array<int8_t, 256> MakeBase64Values() {
  std::array<int8_t, 256> values{};
  values.fill(kNotBase64);
  for (int i = 0; i < 64; ++i) values[static_cast<unsigned char>(kBase64Alphabet[i])] = static_cast<int8_t>(i);
  return values;
}
constexpr std::array<int8_t, 256> kBase64Values = MakeBase64Values();

const char* SkipSpaces(const char* text) {
  while (*text == ' ') ++text;
  return text;
}

int MethodNumber(const char* word) {
  for (const MethodName& method : kMethods) {
    if (strcasecmp(word, method.name) == 0) return method.number;
  }
  return HTTP_METHOD_UNKNOWN;
}

// "METHOD TARGET VERSION": texts point into `line`, which is cut with zero bytes.
void ParseRequestLine(HTTPRequest& request, char* line) {
  char* space = std::strchr(line, ' ');
  if (space == nullptr) return;
  *space = '\0';
  request.methodString = line;
  request.method = MethodNumber(line);

  char* target = space + 1;
  char* version = std::strchr(target, ' ');
  if (version != nullptr) *version++ = '\0';
  if (char* question = std::strchr(target, '?')) {
    *question = '\0';
    request.query = question + 1;
  }
  // An absolute target keeps only its path: "http://host/a" serves "/a".
  if (char* scheme = std::strstr(target, "://")) target = std::strchr(scheme + 3, '/');
  if (target != nullptr) {
    HTTP_UrlDecode(target);
    request.path = target;
  } else {
    request.path = "/";
  }
  if (version != nullptr && *version != '\0') {
    request.version = version;
    request.keepAlive = Text_ContainsNoCase(version, "HTTP/1.1");
  }
}

// Parses "%lld-%lld" of a Range value: the number of fields converted.
int ScanRange(const char* text, int64_t& first, int64_t& last) {
  char* end = nullptr;
  long long value = std::strtoll(text, &end, 10);
  if (end == text) return 0;
  first = value;
  if (*end != '-') return 1;
  const char* second = end + 1;
  value = std::strtoll(second, &end, 10);
  if (end == second) return 1;
  last = value;
  return 2;
}

void ParseRange(HTTPRequest& request, const char* value) {
  request.rangeRequested = true;
  const char* ranges = SkipSpaces(value + Text_FindNoCase(value, "bytes=") + 6);
  if (*ranges == '\0') return;
  int64_t first = -1;
  int64_t last = -1;
  int fields = ScanRange(ranges, first, last);
  if (fields == 1 && first >= 0) {
    request.rangeOffset = first;
    request.rangeLength = 0;
  } else if (fields == 2 && first >= 0 && first <= last) {
    request.rangeOffset = first;
    // The whole 64-bit span saturates; any length past the end is cut later.
    request.rangeLength = last - first < INT64_MAX ? last - first + 1 : INT64_MAX;
  } else {
    request.rangeLength = -1;
  }
}

void ParseAuthorization(HTTPRequest& request, const char* value) {
  const char* encoded = SkipSpaces(value + Text_FindNoCase(value, "Basic") + 5);
  size_t encodedLength = std::strlen(encoded);
  std::string decoded(encodedLength + 1, '\0');
  if (Base64Decode(decoded.data(), decoded.size(), encoded, encodedLength) <= 1) return;
  decoded.resize(std::strlen(decoded.c_str()));
  size_t colon = decoded.find(':');
  if (colon == std::string::npos) return;
  request.userName = decoded.substr(0, colon);
  request.password = decoded.substr(colon + 1);
}

void ApplyHeader(HTTPRequest& request, const char* name, const char* value) {
  if (strcasecmp(name, "Connection") == 0) {
    if (Text_ContainsNoCase(value, "keep-alive")) {
      request.keepAlive = true;
    } else if (Text_ContainsNoCase(value, "close")) {
      request.keepAlive = false;
    }
  } else if (strcasecmp(name, "Expect") == 0) {
    if (Text_ContainsNoCase(value, "100") && Text_ContainsNoCase(value, "continue")) request.expectContinue = true;
  } else if (strcasecmp(name, "Content-Length") == 0) {
    request.contentLength = std::strtoll(value, nullptr, 10);
  } else if (strcasecmp(name, "Authorization") == 0) {
    if (!request.userName && !request.password && Text_ContainsNoCase(value, "Basic")) {
      try {
        ParseAuthorization(request, value);
      } catch (const std::bad_alloc&) {
        request.userName.reset();
        request.password.reset();
      }
    }
  } else if (strcasecmp(name, "Range") == 0) {
    if (!request.rangeRequested && Text_ContainsNoCase(value, "bytes=")) ParseRange(request, value);
  }
}

// Every line that ends in "\r\n" after the request line is one header.
void ParseHeaderLines(HTTPRequest& request, char* lines) {
  size_t count = 0;
  for (const char* at = std::strstr(lines, "\r\n"); at != nullptr; at = std::strstr(at + 2, "\r\n")) ++count;
  if (count == 0) return;
  try {
    request.headers.reserve(count);
  } catch (const std::bad_alloc&) {
    return;
  }
  char* line = lines;
  for (size_t i = 0; i < count; ++i) {
    char* end = std::strstr(line, "\r\n");
    *end = '\0';
    char* name = line;
    while (*name == ' ') ++name;
    const char* value = "";
    if (char* colon = std::strchr(name, ':')) {
      *colon = '\0';
      value = SkipSpaces(colon + 1);
    }
    request.headers.push_back({name, value});
    ApplyHeader(request, name, value);
    line = end + 2;
  }
}

// Where the body of a reply comes from and what the range lines say.
struct ReplyPlan {
  UniqueFd file;
  int64_t fileStart = 0;  // first byte to send from the file
  int64_t contentLength = 0;
  char rangeLines[kRangeLinesMax] = "";
};

// Resolves the request's byte range against the response's file region.
void PlanFileReply(const HTTPRequest& request, HTTPResponse& response, ReplyPlan& plan) {
  plan.contentLength = 0;
  // Opened without waiting, so that a FIFO put in a file's place is refused
  // like any other file that is not regular instead of holding the thread.
  UniqueFd file(open(response.filePath->c_str(), O_RDONLY | O_LARGEFILE | O_NONBLOCK | O_CLOEXEC));
  struct stat info;
  if (!file.valid() || fstat(file.get(), &info) != 0 || !S_ISREG(info.st_mode)) return;
  fcntl(file.get(), F_SETFL, O_RDONLY | O_LARGEFILE);

  int64_t size = info.st_size;
  int64_t offset = std::max<int64_t>(response.fileOffset, 0);
  int64_t length = std::max<int64_t>(response.fileLength, 0);
  if (offset > size) {
    offset = size;
    length = 0;
  } else if (length == 0 || length > size - offset) {
    length = size - offset;
  }

  int64_t rangeOffset = request.rangeOffset;
  int64_t rangeLength = request.rangeLength;
  if (rangeLength != -1 && rangeOffset <= length) {
    if (rangeLength == 0 || rangeLength > length - rangeOffset) rangeLength = length - rangeOffset;
    if (request.rangeRequested && rangeLength > 0) {
      response.status = "206 Partial Content";
      std::snprintf(plan.rangeLines, sizeof plan.rangeLines,
                    "Accept-Ranges: bytes\r\nContent-Range: bytes %lld-%lld/%lld\r\n",
                    static_cast<long long>(rangeOffset),
                    static_cast<long long>(rangeOffset + rangeLength - 1), static_cast<long long>(length));
    } else {
      response.status = "200 OK";
      std::snprintf(plan.rangeLines, sizeof plan.rangeLines, "%s", kAcceptRanges);
    }
    plan.contentLength = rangeLength;
  } else {
    response.status = request.rangeRequested && rangeLength != -1 ? "416 Requested Range Not Satisfiable"
                                                                  : "400 Bad Request";
    std::snprintf(plan.rangeLines, sizeof plan.rangeLines, "%s", kAcceptRanges);
    rangeOffset = 0;
  }
  plan.fileStart = offset + rangeOffset;
  plan.file = std::move(file);
}

// Status line and header lines, cut to their fixed budget like any reply
// header. A negative `contentLength` announces a chunked body instead.
std::string MakeReplyHeader(const HTTPResponse& response, const char* rangeLines, int64_t contentLength) {
  char date[kDateMax] = "";
  time_t now = time(nullptr);
  struct tm utc;
  if (gmtime_r(&now, &utc) != nullptr) std::strftime(date, sizeof date, "%a, %d %b %Y %H:%M:%S GMT", &utc);
  char lengthLine[kLengthLineMax] = "Transfer-Encoding: chunked\r\n";
  if (contentLength >= 0) {
    std::snprintf(lengthLine, sizeof lengthLine, "Content-Length: %lld\r\n", static_cast<long long>(contentLength));
  }

  bool typed = response.contentType != nullptr;
  std::string header(std::strlen(rangeLines) + response.extraHeaders.size() + kReplyHeaderSlack, '\0');
  int written = std::snprintf(
      header.data(), header.size(), "%s %s\r\nDate: %s\r\n%s%s%s%s%sConnection: %s\r\n%s\r\n",
      response.version ? response.version : "", response.status ? response.status : "", date, rangeLines,
      typed ? "Content-Type: " : "", typed ? response.contentType : "", typed ? "\r\n" : "", lengthLine,
      response.keepAlive ? "keep-alive" : "close", response.extraHeaders.c_str());
  header.resize(std::min<size_t>(written < 0 ? 0 : static_cast<size_t>(written), header.size() - 1));
  return header;
}

void SetCork(int socket, int value) {
  if (socket >= 0) setsockopt(socket, IPPROTO_TCP, TCP_CORK, &value, sizeof value);
}

int64_t SendFileBody(int socket, const ReplyPlan& plan) {
  off_t position = plan.fileStart;
  int64_t sent = 0;
  while (sent < plan.contentLength) {
    size_t piece = static_cast<size_t>(std::min(plan.contentLength - sent, kBodyPiece));
    ssize_t count = sendfile(socket, plan.file.get(), &position, piece);
    if (count < 1) break;
    sent += count;
  }
  return sent;
}

int64_t SendMemoryBody(HTTPRequest* request, const HTTPResponse& response, int64_t contentLength) {
  if (!response.body) return 0;
  int64_t available = std::min<int64_t>(contentLength, static_cast<int64_t>(response.body->size()));
  int64_t sent = 0;
  while (sent < available) {
    size_t piece = static_cast<size_t>(std::min(available - sent, kBodyPiece));
    if (!HTTPRequest_WriteData(request, response.body->data() + sent, piece)) break;
    sent += static_cast<int64_t>(piece);
  }
  return sent;
}

bool AddressText(const sockaddr_storage& address, socklen_t length, char* host, size_t hostSize, uint16_t* port) {
  if (host != nullptr && hostSize > 0) {
    host[0] = '\0';
    if (getnameinfo(reinterpret_cast<const sockaddr*>(&address), length, host, static_cast<socklen_t>(hostSize),
                    nullptr, 0, NI_NUMERICHOST) != 0) {
      host[0] = '\0';
      return false;
    }
  }
  if (port != nullptr) {
    if (address.ss_family == AF_INET) {
      *port = ntohs(reinterpret_cast<const sockaddr_in*>(&address)->sin_port);
    } else if (address.ss_family == AF_INET6) {
      *port = ntohs(reinterpret_cast<const sockaddr_in6*>(&address)->sin6_port);
    } else {
      *port = 0;
    }
  }
  return true;
}

using NameQuery = int (*)(int, sockaddr*, socklen_t*);

bool SocketAddress(const HTTPRequest* request, NameQuery query, char* host, size_t hostSize, uint16_t* port) {
  if (host != nullptr && hostSize > 0) host[0] = '\0';
  if (request == nullptr) return false;
  sockaddr_storage address{};
  socklen_t length = sizeof address;
  if (query(request->socket, reinterpret_cast<sockaddr*>(&address), &length) != 0) return false;
  return AddressText(address, length, host, hostSize, port);
}

}  // namespace

void HTTPResponse_SetBody(HTTPResponse* response, std::string body) {
  if (response == nullptr) return;
  response->contentLength = static_cast<int64_t>(body.size());
  response->body = std::move(body);
}

int HTTPRequest_GetMethod(const HTTPRequest* request) { return request ? request->method : HTTP_METHOD_UNKNOWN; }
const char* HTTPRequest_GetMethodString(const HTTPRequest* request) { return request ? request->methodString : ""; }
const char* HTTPRequest_GetPath(const HTTPRequest* request) { return request ? request->path : ""; }
const char* HTTPRequest_GetQuery(const HTTPRequest* request) { return request ? request->query : ""; }
const char* HTTPRequest_GetVersion(const HTTPRequest* request) { return request ? request->version : ""; }
int64_t HTTPRequest_GetContentLength(const HTTPRequest* request) { return request ? request->contentLength : 0; }

const char* HTTPRequest_GetHeader(const HTTPRequest* request, const char* name) {
  if (request == nullptr || name == nullptr) return "";
  for (const HTTPHeader& header : request->headers) {
    if (strcasecmp(header.name, name) == 0) return header.value;
  }
  return "";
}

int HTTPRequest_GetHeaderCount(const HTTPRequest* request) {
  return request ? static_cast<int>(request->headers.size()) : 0;
}

const char* HTTPRequest_GetHeaderName(const HTTPRequest* request, int index) {
  if (index < 0 || index >= HTTPRequest_GetHeaderCount(request)) return "";
  return request->headers[static_cast<size_t>(index)].name;
}

const char* HTTPRequest_GetHeaderValue(const HTTPRequest* request, int index) {
  if (index < 0 || index >= HTTPRequest_GetHeaderCount(request)) return "";
  return request->headers[static_cast<size_t>(index)].value;
}

const char* HTTPRequest_GetUserName(const HTTPRequest* request) {
  return request && request->userName ? request->userName->c_str() : "";
}

const char* HTTPRequest_GetPassword(const HTTPRequest* request) {
  return request && request->password ? request->password->c_str() : "";
}

ssize_t HTTPRequest_ReadData(HTTPRequest* request, void* buffer, size_t length) {
  if (request == nullptr || buffer == nullptr) return -1;
  pollfd ready{request->socket, POLLIN, 0};
  if (poll(&ready, 1, kIoWaitMs) != 1) return -1;
  ssize_t count = recv(request->socket, buffer, length, 0);
  return count < 0 ? -1 : count;
}

bool HTTPRequest_WriteData(HTTPRequest* request, const void* data, size_t length) {
  if (request == nullptr || data == nullptr) return length == 0;
  const char* bytes = static_cast<const char*>(data);
  while (length > 0) {
    pollfd ready{request->socket, POLLOUT, 0};
    if (poll(&ready, 1, kIoWaitMs) != 1) return false;
    ssize_t count = send(request->socket, bytes, length, MSG_NOSIGNAL);
    if (count < 1) return false;
    bytes += count;
    length -= static_cast<size_t>(count);
  }
  return true;
}

HTTPRequest_CorkScope::HTTPRequest_CorkScope(const HTTPRequest* request) : socket_(request ? request->socket : -1) {
  SetCork(socket_, 1);
}

HTTPRequest_CorkScope::~HTTPRequest_CorkScope() { SetCork(socket_, 0); }

bool HTTPRequest_GetSockName(const HTTPRequest* request, char* host, size_t hostSize, uint16_t* port) {
  return SocketAddress(request, getsockname, host, hostSize, port);
}

bool HTTPRequest_GetPeerName(const HTTPRequest* request, char* host, size_t hostSize, uint16_t* port) {
  return SocketAddress(request, getpeername, host, hostSize, port);
}

bool HTTPRequest_IsConnected(const HTTPRequest* request) {
  if (request == nullptr) return false;
  pollfd ready{request->socket, POLLOUT, 0};
  return poll(&ready, 1, 0) == 1 && (ready.revents & (POLLHUP | POLLERR)) == 0;
}

void HTTPRequest_Reset(HTTPRequest* request) {
  request->method = HTTP_METHOD_UNKNOWN;
  request->methodString = "";
  request->path = "";
  request->query = "";
  request->version = "";
  request->headers.clear();
  request->userName.reset();
  request->password.reset();
  request->contentLength = 0;
  request->keepAlive = false;
  request->expectContinue = false;
  request->rangeRequested = false;
  request->rangeOffset = 0;
  request->rangeLength = 0;
}

void HTTPRequest_Parse(HTTPRequest* request, char* block) {
  HTTPRequest_Reset(request);
  char* lines = nullptr;
  if (char* end = std::strstr(block, "\r\n")) {
    *end = '\0';
    lines = end + 2;
  }
  ParseRequestLine(*request, block);
  if (lines != nullptr) ParseHeaderLines(*request, lines);
  if (request->contentLength < 0) request->contentLength = 0;
}

bool HTTPResponse_Send(HTTPRequest* request, HTTPResponse* response) {
  ReplyPlan plan;
  plan.contentLength = std::max<int64_t>(response->contentLength, 0);
  if (response->filePath) PlanFileReply(*request, *response, plan);

  std::string header = MakeReplyHeader(*response, plan.rangeLines, plan.contentLength);
  // Corked, the header rides with the first body bytes.
  std::optional<HTTPRequest_CorkScope> cork;
  if (plan.file.valid() && request->method != HTTP_METHOD_HEAD) cork.emplace(request);
  if (!HTTPRequest_WriteData(request, header.data(), header.size())) return false;
  if (request->method == HTTP_METHOD_HEAD) return true;

  int64_t sent = plan.file.valid() ? SendFileBody(request->socket, plan)
                                   : SendMemoryBody(request, *response, plan.contentLength);
  return sent == plan.contentLength;
}

std::string HTTPResponse_MakeChunkedHeader(const HTTPResponse* response) { return MakeReplyHeader(*response, "", -1); }

void HTTP_UrlDecode(char* text) {
  if (text == nullptr) return;
  char* out = text;
  for (const char* in = text; *in != '\0';) {
    int high = in[0] == '%' ? Text_HexValue(in[1]) : -1;
    int low = high >= 0 ? Text_HexValue(in[2]) : -1;
    if (low >= 0) {
      *out++ = static_cast<char>(high * 16 + low);
      in += 3;
    } else {
      *out++ = *in++;
    }
  }
  *out = '\0';
}

size_t Base64Encode(char* out, size_t outSize, const void* in, size_t inLength) {
  if (out == nullptr || in == nullptr || inLength == 0) return 0;
  size_t groups = inLength / 3 + (inLength % 3 != 0 ? 1 : 0);
  if (groups > (SIZE_MAX - 1) / 4 || outSize < groups * 4 + 1) return 0;
  const auto* bytes = static_cast<const unsigned char*>(in);
  size_t written = 0;
  for (size_t i = 0; i < inLength; i += 3) {
    size_t left = inLength - i;
    uint32_t group = static_cast<uint32_t>(bytes[i]) << 16;
    if (left > 1) group |= static_cast<uint32_t>(bytes[i + 1]) << 8;
    if (left > 2) group |= bytes[i + 2];
    out[written++] = kBase64Alphabet[(group >> 18) & 63];
    out[written++] = kBase64Alphabet[(group >> 12) & 63];
    out[written++] = left > 1 ? kBase64Alphabet[(group >> 6) & 63] : '=';
    out[written++] = left > 2 ? kBase64Alphabet[group & 63] : '=';
  }
  out[written] = '\0';
  return written;
}

size_t Base64Decode(void* out, size_t outSize, const char* in, size_t inLength) {
  if (out == nullptr || in == nullptr) return 0;
  size_t count = 0;
  for (size_t i = 0; i < inLength && in[i] != '='; ++i) {
    unsigned char c = static_cast<unsigned char>(in[i]);
    if (c == '\r' || c == '\n') continue;
    if (kBase64Values[c] == kNotBase64) return 0;
    ++count;
  }
  if (count == 0 || outSize < (count / 8) * 6 + ((count % 8) * 6 + 7) / 8) return 0;

  auto* bytes = static_cast<unsigned char*>(out);
  size_t written = 0;
  uint32_t group = 0;
  int collected = 0;
  for (size_t i = 0; i < inLength && in[i] != '='; ++i) {
    unsigned char c = static_cast<unsigned char>(in[i]);
    if (c == '\r' || c == '\n') continue;
    group = (group << 6) | static_cast<uint32_t>(kBase64Values[c]);
    if (++collected == 4) {
      bytes[written++] = static_cast<unsigned char>(group >> 16);
      bytes[written++] = static_cast<unsigned char>(group >> 8);
      bytes[written++] = static_cast<unsigned char>(group);
      group = 0;
      collected = 0;
    }
  }
  if (collected == 3) {
    bytes[written++] = static_cast<unsigned char>(group >> 10);
    bytes[written++] = static_cast<unsigned char>(group >> 2);
  } else if (collected == 2) {
    bytes[written++] = static_cast<unsigned char>(group >> 4);
  } else if (collected == 1) {
    // A lone sixth bit group still yields a byte: its six bits, shifted up.
    bytes[written++] = static_cast<unsigned char>(group << 2);
  }
  return written;
}

const char* HTTP_GetMimeType(const char* name) {
  if (name == nullptr) return kDefaultMimeType;
  const char* dot = std::strrchr(name, '.');
  if (dot == nullptr) return kDefaultMimeType;
  for (const MimeName& mime : kMimeTypes) {
    if (strcasecmp(dot + 1, mime.extension) == 0) return mime.type;
  }
  return kDefaultMimeType;
}

std::optional<std::string> HTTP_ResolvePath(const char* documentRoot, const char* requestPath,
                                            const char* prefix) {
  if (documentRoot == nullptr || requestPath == nullptr || prefix == nullptr) return std::nullopt;
  size_t prefixLength = std::strlen(prefix);
  if (std::strncmp(requestPath, prefix, prefixLength) != 0) return std::nullopt;
  std::string joined = std::string(documentRoot) + (requestPath + prefixLength);
  char resolved[PATH_MAX];
  if (realpath(joined.c_str(), resolved) == nullptr) return std::nullopt;
  // The root ends in "/"; the canonical form of the root itself does not.
  size_t rootLength = std::strlen(documentRoot);
  if (strncasecmp(resolved, documentRoot, rootLength > 0 ? rootLength - 1 : 0) != 0) return std::nullopt;
  return std::string(resolved);
}
