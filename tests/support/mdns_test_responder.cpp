// Runs one mDNS responder without the UPnP layer, so that system tests can
// watch its packets: mdns_test_responder HOST ADDRESS [INSTANCE TYPE PORT TEXT]...
// Prints "ready" once the responder runs and stops it on SIGTERM or SIGINT,
// which sends the goodbye packet. Exits 1 when MDNS_new fails.
#include <pthread.h>
#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <vector>

#include "mdns/MDNS.h"

namespace {

constexpr int fieldsPerService = 4;

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3 || (argc - 3) % fieldsPerService != 0) {
    std::fprintf(stderr, "usage: %s HOST ADDRESS [INSTANCE TYPE PORT TEXT]...\n", argv[0]);
    return 2;
  }
  std::vector<MDNSService> services;
  for (int i = 3; i < argc; i += fieldsPerService) {
    unsigned long port = std::strtoul(argv[i + 2], nullptr, 10);
    services.push_back({argv[i], argv[i + 1], static_cast<uint16_t>(port), argv[i + 3]});
  }
  // Blocked before the receive thread exists, so that only sigwait sees them.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGTERM);
  sigaddset(&stopSignals, SIGINT);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

  MDNSResponder* responder =
      MDNS_new(argv[1], argv[2], services.data(), static_cast<int32_t>(services.size()));
  if (responder == nullptr) {
    std::fprintf(stderr, "MDNS_new failed\n");
    return 1;
  }
  std::printf("ready\n");
  std::fflush(stdout);
  int signal = 0;
  sigwait(&stopSignals, &signal);
  MDNS_delete(responder);
  return 0;
}
