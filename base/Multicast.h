// The UDP multicast set-up that SSDP and the mDNS responder share: one
// socket joined to a group on one interface, the group's address to send to,
// and the event by which deleting an engine ends its thread's wait.
#pragma once

#include <netinet/in.h>

#include <cstdint>

#include "base/UniqueFd.h"

// The IPv4 socket address of `group` (dotted text) and `port`.
sockaddr_in Multicast_Address(const char* group, uint16_t port);

// What one engine thread waits on: its socket, and an event of the process's
// own that ends the wait whatever became of the network.
struct MulticastChannel {
  UniqueFd socket;
  UniqueFd wake;
  sockaddr_in group{};

  bool valid() const { return socket.valid() && wake.valid(); }
};

// A non-blocking UDP socket bound to `port` on every local address (with
// address reuse, so that several engines share the port), joined to `group`
// on the interface with the dotted address `interfaceAddress`, and sending
// there with time-to-live 255 (every hop may forward) and loopback on (other
// engines and local clients on this host hear it); and its wake-up event.
// Invalid on any failure, with nothing left open.
MulticastChannel Multicast_Open(const char* group, uint16_t port, const char* interfaceAddress);

// Waits up to `timeoutMs` for a datagram or a wake-up (which it takes, so
// that the next wait waits again); false when the wait itself failed.
bool Multicast_Wait(const MulticastChannel& channel, int timeoutMs);

// Replaces the channel's socket by a fresh one under the same descriptor
// number and wakes the channel's thread, whose next wait is on the new one:
// an interface removed and made again under the same address (an adapter
// plugged back in) leaves the old socket outside the group and sending to an
// interface that is gone. False, with the old socket kept, when no new one
// could be made.
bool Multicast_Renew(const MulticastChannel& channel, const char* interfaceAddress);

// Ends the channel thread's wait: raises the channel's event, which arrives
// whatever became of the network.
void Multicast_Wake(const MulticastChannel& channel);

// Sends the one zero byte that an engine sends to its group when it stops,
// from the channel's own socket. Every receiver, the engine's own thread
// included, ignores it; it wakes nothing (that is Multicast_Wake's job).
void Multicast_SendStopByte(const MulticastChannel& channel);
