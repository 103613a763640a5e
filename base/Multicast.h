// The UDP multicast set-up that SSDP and the mDNS responder share: one
// socket joined to a group on one interface, and the group's address to
// send to.
#pragma once

#include <netinet/in.h>

#include <cstdint>

#include "base/UniqueFd.h"

// The IPv4 socket address of `group` (dotted text) and `port`.
sockaddr_in Multicast_Address(const char* group, uint16_t port);

// A non-blocking UDP socket bound to `port` on every local address (with
// address reuse, so that several engines share the port), joined to `group`
// on the interface with the dotted address `interfaceAddress`, and sending
// there with time-to-live 255 (every hop may forward) and loopback on (other
// engines and local clients on this host hear it, and a byte sent to the
// group wakes the socket's own reader). Invalid on any failure.
UniqueFd Multicast_Open(const char* group, uint16_t port, const char* interfaceAddress);
