// The ContentDirectory Browse action. Unlike the other actions it writes its
// own chunked reply on the connection, one page of DIDL-Lite (at most about
// 8 KB) per chunk, taking the content mutex only while a page is built.
#pragma once

#include <cstdint>
#include <string_view>

#include "upnp/UPnPSoap.h"

struct HTTPRequest;
struct HTTPResponse;

// The two BrowseFlag values, in this order.
extern const char* const dlnaBrowseFlags[2];

// The action handler (inputs: ObjectID, BrowseFlag, Filter, StartingIndex,
// RequestedCount, SortCriteria). SortCriteria is accepted and ignored.
void DmsBrowse_Browse(HTTPRequest* request, const char* serviceType, const char* actionName,
                      const UPnPArgValue* args, int32_t count, HTTPResponse* response);

// Writes `text` as one chunk ("%x\r\n", text, "\r\n"); an empty text is the
// last chunk. False, with keep-alive cleared, when a write fails.
bool DmsHttp_WriteChunk(HTTPRequest* request, HTTPResponse* response, std::string_view text);
