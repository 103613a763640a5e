// Any bytes as a request header block: the request line and header parser
// runs on them as the server hands them over (last byte replaced by the
// terminating zero), then every accessor reads the result.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "http/HTTPRequest.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  std::vector<char> block(data, data + size);
  block.back() = '\0';
  HTTPRequest request;
  HTTPRequest_Parse(&request, block.data());
  HTTPRequest_GetMethod(&request);
  HTTPRequest_GetMethodString(&request);
  HTTPRequest_GetPath(&request);
  HTTPRequest_GetQuery(&request);
  HTTPRequest_GetVersion(&request);
  HTTPRequest_GetHeader(&request, "Host");
  for (int i = 0; i < HTTPRequest_GetHeaderCount(&request); ++i) {
    HTTPRequest_GetHeaderName(&request, i);
    HTTPRequest_GetHeaderValue(&request, i);
  }
  HTTPRequest_GetUserName(&request);
  HTTPRequest_GetPassword(&request);
  HTTPRequest_GetContentLength(&request);
  // The same bytes once more through the record, as a second request on a connection does.
  std::vector<char> again(data, data + size);
  again.back() = '\0';
  HTTPRequest_Parse(&request, again.data());
  return 0;
}
