// SSDP discovery: one engine per network interface announces the device's
// notification types on the SSDP multicast group, answers M-SEARCH requests
// and says goodbye when it is deleted. The search parser and the message
// builder are exposed as well so that they can be exercised on their own.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

struct SSDP;

// Starts an engine on the interface with the dotted address `address`.
// `types` holds `count` notification types (1 to 19; copying stops at a null
// entry); "uuid:" stands for the device UUID itself. `extra` (may be null) is
// appended verbatim to the header block of every message. Returns null on
// any failure, with nothing left open.
SSDP* SSDP_new(const char* const* types, int count, const char* udn, const char* address, uint16_t port,
               const char* descriptionPath, int maxAge, const char* osToken, const char* product,
               const char* extra);

// Stops the engine (two goodbye sweeps) and frees it; null is ignored.
void SSDP_delete(SSDP* engine);
// Gives the engine a fresh socket on its interface, which was removed and
// made again under the same address; it goes on with nothing resent.
void SSDP_Renew(SSDP* engine);

// What an M-SEARCH asked for: every notification type, or one target text.
struct SSDPSearch {
  bool all = false;
  std::string target;
};

// Parses one received datagram as an M-SEARCH and matches its ST header
// against the notification types and the UDN. Empty when the datagram is
// not a search, has no ST header, or asks for something not offered.
std::optional<SSDPSearch> SSDP_ParseSearch(std::string_view datagram, const std::vector<std::string>& types,
                                           std::string_view udn);

// The fixed values every message of one engine carries.
struct SSDPMessageFields {
  int maxAge = 1800;
  std::string address;
  uint16_t port = 0;
  std::string descriptionPath;
  std::string osToken;
  std::string product;
  std::string udn;
  std::string extra;
};

// Builds one datagram (at most 511 bytes, longer output is cut): a NOTIFY
// carrying `nts` ("ssdp:alive" or "ssdp:byebye"), or, when `nts` is null, a
// search response for `type`.
std::string SSDP_MakeMessage(const SSDPMessageFields& fields, const std::string& type, const char* nts);

// What the engine does with one received datagram from `from`: nothing
// (empty) when the datagram is empty or its source is refused (port 1900 or
// a privileged port); otherwise the search responses to send back after the
// answer pause, none when it is not a search for something offered.
std::optional<std::vector<std::string>> SSDP_Answers(const std::vector<std::string>& types,
                                                     const SSDPMessageFields& fields, std::string_view datagram,
                                                     const sockaddr_in& from, socklen_t fromLength);
