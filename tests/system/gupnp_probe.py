"""A third-party control point for the system tests, built on GSSDP and GUPnP.

`gupnp_probe.py ssdp IFACE SECONDS` prints, as JSON, every resource that a
GSSDP browser for ssdp:all saw on IFACE (USN and locations).
`gupnp_probe.py device IFACE SECONDS` waits for a MediaServer device proxy,
introspects every service it lists and prints its fields, action names and
state variable names. Exits 1 when nothing was found in time.
"""
import json
import sys

import gi

gi.require_version("GSSDP", "1.6")
gi.require_version("GUPnP", "1.6")
from gi.repository import GLib, GSSDP, GUPnP  # noqa: E402

MEDIA_SERVER = "urn:schemas-upnp-org:device:MediaServer:1"


def browse_ssdp(interface, seconds):
    loop = GLib.MainLoop()
    client = GSSDP.Client.new_full(interface, None, 0, GSSDP.UDAVersion.VERSION_1_0)
    browser = GSSDP.ResourceBrowser.new(client, "ssdp:all")
    seen = {}

    def available(_browser, usn, locations):
        seen[usn] = list(locations)

    browser.connect("resource-available", available)
    browser.set_active(True)
    GLib.timeout_add_seconds(seconds, loop.quit)
    loop.run()
    print(json.dumps(seen))
    return 0 if seen else 1


def introspect_device(interface, seconds):
    loop = GLib.MainLoop()
    context = GUPnP.Context.new_full(interface, None, 0, GSSDP.UDAVersion.VERSION_1_0)
    control_point = GUPnP.ControlPoint.new(context, MEDIA_SERVER)
    result = {"services": {}}
    pending = []

    def introspected(proxy, outcome, service_type):
        introspection = proxy.introspect_finish(outcome)
        result["services"][service_type] = {
            "actions": sorted(introspection.list_action_names()),
            "variables": sorted(introspection.list_state_variable_names()),
        }
        pending.remove(service_type)
        if not pending:
            loop.quit()

    def available(_control_point, device):
        if result.get("udn"):
            return
        result.update(udn=device.get_udn(), friendlyName=device.get_friendly_name(),
                      modelName=device.get_model_name(), modelNumber=device.get_model_number(),
                      location=device.get_location())
        for service in device.list_services():
            service_type = service.get_service_type()
            pending.append(service_type)
            service.introspect_async(None, introspected, service_type)

    control_point.connect("device-proxy-available", available)
    control_point.set_active(True)
    GLib.timeout_add_seconds(seconds, loop.quit)
    loop.run()
    print(json.dumps(result))
    return 0 if result.get("udn") and not pending else 1


if __name__ == "__main__":
    mode, interface, seconds = sys.argv[1], sys.argv[2], int(sys.argv[3])
    sys.exit(browse_ssdp(interface, seconds) if mode == "ssdp" else introspect_device(interface, seconds))
