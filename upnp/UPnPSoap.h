// SOAP control: finds the called action and its input arguments in a control
// request with a deliberately small text scan, calls the action's handler,
// and builds the success and fault envelopes that handlers answer with.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "upnp/UPnPTypes.h"

// A control request as the scan understood it: the action row that matched
// and the input values found, in table order.
struct UPnPControlCall {
  const UPnPAction* action = nullptr;
  std::vector<UPnPArgValue> args;
};

// Scans a SOAP body for one of the service's actions. Its input arguments are
// looked for in table order, each after the one before; with `anyOrder`, as
// elements of their names anywhere inside the action element. Empty when the
// body is not an envelope or names none of the actions.
std::optional<UPnPControlCall> UPnP_ParseControl(const UPnPService& service, std::string_view body,
                                                 bool anyOrder);

// Dispatches a control request: 1 when a handler was called, 0 when the
// fault 602 was put in the response.
int UPnP_HandleControl(HTTPRequest* request, UPnPService* service, const char* body, HTTPResponse* response,
                       bool anyOrder);

// The success envelope for `outputs` (null or ended by a null name). Empty
// when memory runs out.
std::string UPnP_MakeActionResponseSuccess(const char* serviceType, const char* actionName,
                                           const UPnPArgValue* outputs);

// A UPnP fault envelope of at most 511 characters. Empty when memory runs out.
std::string UPnP_MakeActionResponseError(const char* code, const char* description);

// Error codes and texts of the ContentDirectory (rows 0-4), ConnectionManager
// (5-11), AVTransport (12-29) and RenderingControl (30-31) services.
struct UPnPError {
  const char* code;
  const char* description;
};
constexpr int kDlnaErrorCount = 32;
extern const UPnPError dlnaErrors[kDlnaErrorCount];
