"""A third-party event subscriber for the system tests, built on GUPnP.

`gupnp_events.py IFACE SECONDS PORT COUNT` waits for the MediaServer whose
description is served on PORT, subscribes to its ContentDirectory through
the service proxy and prints one JSON line per SystemUpdateID value that
GUPnP delivers. It exits 0 after COUNT values, 1 when SECONDS pass first.
"""
import json
import sys

import gi

gi.require_version("GSSDP", "1.6")
gi.require_version("GUPnP", "1.6")
from gi.repository import GLib, GObject, GSSDP, GUPnP  # noqa: E402

MEDIA_SERVER = "urn:schemas-upnp-org:device:MediaServer:1"
CONTENT_DIRECTORY = "urn:schemas-upnp-org:service:ContentDirectory:1"


def main(interface, seconds, port, count):
    loop = GLib.MainLoop()
    context = GUPnP.Context.new_full(interface, None, 0, GSSDP.UDAVersion.VERSION_1_0)
    control_point = GUPnP.ControlPoint.new(context, MEDIA_SERVER)
    state = {"proxy": None, "values": 0}

    def notified(_proxy, variable, value):
        print(json.dumps({variable: value}), flush=True)
        state["values"] += 1
        if state["values"] >= count:
            loop.quit()

    def available(_control_point, device):
        if state["proxy"] or f":{port}/" not in device.get_location():
            return
        proxy = device.get_service(CONTENT_DIRECTORY)
        proxy.add_notify("SystemUpdateID", GObject.TYPE_UINT, notified)
        proxy.set_subscribed(True)
        state["proxy"] = proxy

    control_point.connect("device-proxy-available", available)
    control_point.set_active(True)
    GLib.timeout_add_seconds(seconds, loop.quit)
    loop.run()
    return 0 if state["values"] >= count else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1], int(sys.argv[2]), int(sys.argv[3]), int(sys.argv[4])))
