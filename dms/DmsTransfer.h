// Downloads of media items ("/mediaitem/<id>") and of the pictures embedded
// in them ("/thumbnail/<id>"), with the DLNA transfer-mode rules. The bytes,
// ranges included, are sent by the HTTP server's file transfer.
#pragma once

#include <cstddef>

struct HTTPRequest;
struct HTTPResponse;
struct UPnPDevice;

// The device's HTTP hook. False when `path` is neither URL form (the device
// then handles the request); true otherwise, with the response filled for the
// HTTP server to send. The request body plays no part.
bool DmsTransfer_HandleRequest(HTTPRequest* request, HTTPResponse* response, const char* path, const char* body,
                               size_t bodyLength, UPnPDevice* device);
