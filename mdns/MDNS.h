// A minimal multicast DNS responder for one network interface. It makes a
// host name resolvable in the .local domain and advertises DNS-SD service
// records: one fixed packet, multicast about a second after start, every 30
// seconds, at once when a query asks for one of its service types, and a last
// time with time-to-live 0 when it stops. It keeps no cache and answers
// nothing else.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

inline constexpr uint16_t mdnsPort = 5353;
inline constexpr const char* mdnsGroup = "224.0.0.251";
inline constexpr uint32_t mdnsTimeToLive = 120;            // seconds
inline constexpr uint32_t mdnsInterval = mdnsTimeToLive / 4;  // between announcements
inline constexpr size_t mdnsPacketSize = 1024;             // the announcement's buffer
inline constexpr size_t mdnsReceiveSize = 512;             // the largest query read
inline constexpr size_t mdnsAddressSize = 16;              // dotted IPv4 text with its end

// One advertised service as the caller describes it; MDNS_new copies it.
struct MDNSService {
  const char* instanceName;  // one label, sent as it is
  const char* serviceType;   // dotted, without the local domain: "_http._tcp"
  uint16_t port;             // 0 is invalid
  const char* text;          // the TXT strings, separated by line feeds
};

struct MDNSResponder;

// Starts a responder for the interface with IPv4 address `interfaceAddress`
// (dotted text), announcing `hostName` (without domain) and the services.
// Null when an argument is invalid (no host name, no services, a port of 0,
// a missing text) or the socket or thread cannot be set up; nothing is left
// open then.
MDNSResponder* MDNS_new(const char* hostName, const char* interfaceAddress, const MDNSService* services,
                        int32_t serviceCount);

// Stops the responder after its goodbye packet and frees it; null is ignored.
void MDNS_delete(MDNSResponder* responder);
// Gives the responder a fresh socket on its interface, which was removed and
// made again under the same address; it goes on with nothing resent.
void MDNS_Renew(MDNSResponder* responder);

// The packet side of a responder, free of sockets so that tests can drive it.
// Names are kept in label form: labels separated by line feeds.
struct MDNSServiceRecord {
  std::string instanceName;
  std::string serviceType;  // label form
  uint16_t port = 0;
  std::string text;
  size_t instanceOffset = 0;  // where the last packet wrote the instance name
};

struct MDNSRecords {
  std::string interfaceAddress;  // dotted text, at most 15 characters
  std::string hostName;          // label form
  uint32_t timeToLive = mdnsTimeToLive;
  std::vector<MDNSServiceRecord> services;
};

// Copies the caller's description into label form; false under the same
// argument rules as MDNS_new.
bool MDNS_MakeRecords(const char* hostName, const char* interfaceAddress, const MDNSService* services,
                      int32_t serviceCount, MDNSRecords& records);

// Writes the announcement into `packet` (never past its end) and returns its
// length. Remembers each service's instance-name offset for compression.
size_t MDNS_MakeAnnouncement(MDNSRecords& records, std::span<uint8_t, mdnsPacketSize> packet);

// True when `datagram` is a query with a PTR question whose name begins with
// one of the service types; responses and malformed datagrams are false.
bool MDNS_WantsAnnouncement(const MDNSRecords& records, std::span<const uint8_t> datagram);
