// Prints the interface list of NetworkInterface_new, one line per node:
// "index name mac address". Prints nothing when the list is empty.
#include <arpa/inet.h>

#include <cstdio>

#include "http/NetworkInterface.h"

int main() {
  NetworkInterfacePtr list(NetworkInterface_new());
  for (const NetworkInterface* node = list.get(); node != nullptr; node = node->next) {
    char address[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &node->address.sin_addr, address, sizeof address);
    std::printf("%d %s %02x:%02x:%02x:%02x:%02x:%02x %s\n", node->index, node->name, node->mac[0], node->mac[1],
                node->mac[2], node->mac[3], node->mac[4], node->mac[5], address);
  }
  return 0;
}
