// A bare UPnP device that lists one mDNS service and no SSDP targets, so that
// system tests can watch the device thread start a responder per interface
// and stop it with the device. Runs until SIGTERM or SIGINT.
#include <pthread.h>
#include <signal.h>

#include <cstdio>

#include "mdns/MDNS.h"
#include "upnp/UPnPDevice.h"

int main() {
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGTERM);
  sigaddset(&stopSignals, SIGINT);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

  // The port is written by UPnPDevice_Open with the bound HTTP port.
  MDNSService services[] = {{"Test Device", "_upnp-test._tcp", 1, "path=/Device"}};
  UPnPService noServices[] = {{}};
  UPnPDevice device;
  device.deviceType = "urn:schemas-upnp-org:device:Basic:1";
  device.friendlyName = "mDNS test device";
  device.udn = "00000000-0000-0000-0000-000000000000";
  device.descriptionPath = "/Device";
  device.mdnsServices = services;
  device.mdnsServiceCount = 1;
  device.services = noServices;
  if (!UPnPDevice_Open(&device, 0)) {
    std::fprintf(stderr, "UPnPDevice_Open failed\n");
    return 1;
  }
  int signal = 0;
  sigwait(&stopSignals, &signal);
  UPnPDevice_Close(&device);
  return 0;
}
