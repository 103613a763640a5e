// The table-driven UPnP root device: the description and SCPD documents
// built from the records of UPnPTypes.h, the running device (HTTP server,
// request dispatch, device thread with the SSDP engines), and the exported
// type and id tables by whose rows services are recognised.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

// Servers that fill the records answer their actions with the SOAP builders.
#include "upnp/UPnPSoap.h"
#include "upnp/UPnPTypes.h"

// Device and service type rows; code compares service types with these
// pointers, never by content.
constexpr size_t kDlnaDeviceTypeCount = 2;
constexpr size_t kDlnaServiceTypeCount = 4;
extern const char* const dlnaDeviceTypes[kDlnaDeviceTypeCount];
extern const char* const dlnaServiceTypes[kDlnaServiceTypeCount];
extern const char* const dlnaServiceIDs[kDlnaServiceTypeCount];
// Rows of dlnaServiceTypes and dlnaServiceIDs for the media server's services.
constexpr size_t kDlnaConnectionManagerRow = 0;
constexpr size_t kDlnaContentDirectoryRow = 1;

// "system/release" of the host (at most 127 characters), computed once; the
// product token of every Server line and SSDP message.
const char* UPnP_OsToken();

// Starts the HTTP server on `port` (0: any free port; the bound port is then
// in device->port) and the device thread. True when running.
bool UPnPDevice_Open(UPnPDevice* device, uint16_t port);
// Stops a running device; null or stopped devices are ignored.
void UPnPDevice_Close(UPnPDevice* device);

// The HTTP handler behind every request of the device's server; the
// connection's user data is the device.
int UPnPDevice_HandleRequest(HTTPResponse* response, void* handlerContext, const char* path, const char* entryPath,
                             HTTPRequest* request, void* userData);

// The description document for a client that reached us on `localAddress`
// (null: no presentation URL); cut at 2047 characters. Empty on failure.
std::string UPnPDevice_MakeDescription(const UPnPDevice* device, const char* localAddress);
// The service description document; cut at 16383 characters.
std::string UPnPDevice_MakeSCPD(const UPnPService* service);

// A copy of `text` with the five XML special characters escaped; null gives
// the empty text.
std::string XML_Escape(const char* text);
// Appends `text` with the five XML special characters escaped; `twice`
// escapes the ampersand of each entity once more ("&amp;lt;"), for XML that
// travels escaped inside other XML.
void XML_AppendEscaped(std::string& out, std::string_view text, bool twice);
// The most characters one character becomes escaped twice ("&amp;quot;").
inline constexpr size_t XML_MaxEscapedTwice = 10;
// The same escaping written at `out`, which has room for XML_MaxEscapedTwice
// characters per character of `text`; returns the end of what it wrote.
char* XML_WriteEscaped(char* out, std::string_view text, bool twice);
