# A third-party control point for the system tests, built on GSSDP and GUPnP.
#
# `gupnp_probe.py device IFACE SECONDS` waits for a MediaServer device proxy,
# introspects every service it lists and prints its fields, action names and
# state variable names. Exits 1 when nothing was found in time.
# `gupnp_probe.py browse IFACE SECONDS` waits for a ContentDirectory service
# proxy, walks the whole tree from "0" through its Browse action, parses every
# Result with GUPnP-AV's DIDL-Lite parser and prints what that parser saw.
import json
import sys

import gi

gi.require_version("GSSDP", "1.6")
gi.require_version("GUPnP", "1.6")
gi.require_version("GUPnPAV", "1.0")
from gi.repository import GLib, GObject, GSSDP, GUPnP, GUPnPAV  # noqa: E402

MEDIA_SERVER = "urn:schemas-upnp-org:device:MediaServer:1"
CONTENT_DIRECTORY = "urn:schemas-upnp-org:service:ContentDirectory:1"
MAX_BROWSES = 1000  # bounds the walk should a container ever list itself


def control_point(loop, interface, seconds, target, signal, handler):
    # A control point for `target` whose `signal` goes to `handler`, active while `loop` runs (`seconds` at most).
    context = GUPnP.Context.new_full(interface, None, 0, GSSDP.UDAVersion.VERSION_1_0)
    point = GUPnP.ControlPoint.new(context, target)
    point.connect(signal, handler)
    point.set_active(True)
    GLib.timeout_add_seconds(seconds, loop.quit)
    loop.run()
    return context, point


def introspect_device(interface, seconds):
    loop, result, pending = GLib.MainLoop(), {"services": {}}, []

    def introspected(proxy, outcome, service_type):
        introspection = proxy.introspect_finish(outcome)
        result["services"][service_type] = {"actions": sorted(introspection.list_action_names()),
                                            "variables": sorted(introspection.list_state_variable_names())}
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
            pending.append(service.get_service_type())
            service.introspect_async(None, introspected, pending[-1])

    control_point(loop, interface, seconds, MEDIA_SERVER, "device-proxy-available", available)
    print(json.dumps(result))
    return 0 if result.get("udn") and not pending else 1


def parsed_object(didl_object):
    found = {"id": didl_object.get_id(), "parentID": didl_object.get_parent_id(),
             "title": didl_object.get_title(), "class": didl_object.get_upnp_class(), "res": []}
    if isinstance(didl_object, GUPnPAV.DIDLLiteContainer):
        found["childCount"] = didl_object.get_child_count()
    for resource in didl_object.get_resources():
        # protocolInfo as GUPnP-AV writes it back from the fields (DLNA profile, operations, ...) it parsed.
        info = resource.get_protocol_info()
        found["res"].append({"uri": resource.get_uri(), "mime": info.get_mime_type(), "protocolInfo": info.to_string()})
    return found


def browse_page(proxy, object_id, start):
    names = ["ObjectID", "BrowseFlag", "Filter", "StartingIndex", "RequestedCount", "SortCriteria"]
    values = [object_id, "BrowseDirectChildren", "*", start, 0, ""]
    action = proxy.call_action(GUPnP.ServiceProxyAction.new_from_list("Browse", names, values), None)
    ok, (didl, returned, total) = action.get_result_list(
        ["Result", "NumberReturned", "TotalMatches"], [GObject.TYPE_STRING, GObject.TYPE_UINT, GObject.TYPE_UINT])
    if not ok:
        raise RuntimeError(f"Browse {object_id} gave no result")
    objects = []
    parser = GUPnPAV.DIDLLiteParser.new()
    parser.connect("object-available", lambda _parser, didl_object: objects.append(didl_object))
    parser.parse_didl(didl)
    return [parsed_object(o) for o in objects], returned, total


def walk_tree(interface, seconds):
    loop, found = GLib.MainLoop(), []
    # The context and control point stay alive while the proxy is used.
    _keep = control_point(loop, interface, seconds, CONTENT_DIRECTORY, "service-proxy-available",
                          lambda _control_point, proxy: (found.append(proxy), loop.quit()))
    if not found:
        return 1
    proxy = found[0]
    browses, pending = {}, ["0"]
    while pending and len(browses) < MAX_BROWSES:
        object_id = pending.pop(0)
        if object_id in browses:
            continue
        objects, returned, total = browse_page(proxy, object_id, 0)
        while returned and len(objects) < total:
            more, returned, total = browse_page(proxy, object_id, len(objects))
            objects += more
        browses[object_id] = {"objects": objects, "total": total}
        pending += [o["id"] for o in objects if "childCount" in o]
    print(json.dumps(browses))
    return 0


MODES = {"device": introspect_device, "browse": walk_tree}

if __name__ == "__main__":
    sys.exit(MODES[sys.argv[1]](sys.argv[2], int(sys.argv[3])))
