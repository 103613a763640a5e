// A snapshot of the machine's usable IPv4 interfaces (up, not loopback), one
// node per interface in the system's order, and how two snapshots differ:
// the device layer compares them to follow the network; the first node's
// MAC address seeds the device identity.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <memory>

struct NetworkInterface {
  int index = 0;            // from if_nametoindex
  char name[16] = {};       // zero-terminated, cut at the first ":" of an alias
  uint8_t mac[6] = {};      // hardware address
  sockaddr_in address = {};  // the interface's first IPv4 address in the list
  NetworkInterface* next = nullptr;
};

// The head of a new list, or null when there is no usable interface or a
// resource failed. Free it with NetworkInterface_delete.
NetworkInterface* NetworkInterface_new();
// Frees every node of the list; null is allowed.
void NetworkInterface_delete(NetworkInterface* list);

// True when both lists hold the same addresses in the same order.
bool NetworkInterface_SameAddresses(const NetworkInterface* before, const NetworkInterface* now);
// True when `now`, found at the place and address of `before` in a list with
// the same addresses, is another interface: removed and made again between
// the two snapshots (an adapter plugged back in).
inline bool NetworkInterface_Recreated(const NetworkInterface& before, const NetworkInterface& now) {
  return before.index != now.index;
}

struct NetworkInterfaceDeleter {
  void operator()(NetworkInterface* list) const { NetworkInterface_delete(list); }
};
using NetworkInterfacePtr = std::unique_ptr<NetworkInterface, NetworkInterfaceDeleter>;
