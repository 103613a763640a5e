// Downloads of media items ("/mediaitem/<id>") and of the pictures embedded
// in them ("/thumbnail/<id>"), with the DLNA transfer-mode rules. The bytes,
// ranges included, are sent by the HTTP server's file transfer.
#pragma once

struct HTTPRequest;
struct HTTPResponse;

// False when `path` is neither URL form (the device then handles the request);
// true otherwise, with the response filled for the HTTP server to send.
bool DmsTransfer_HandleRequest(HTTPRequest* request, HTTPResponse* response, const char* path);
