"""A real control-point library reads our Browse output: GUPnP's service proxy
walks the demo library's whole tree and GUPnP-AV's DIDL-Lite parser must see
the same objects, titles, classes, resource URIs and protocolInfo fields that
our own client reads from the same server."""
import json
import os
import subprocess
import time
from pathlib import Path

import pytest

from conftest import BUILD, Dms
from dms_client import browse

try:
    import gi

    gi.require_version("GUPnP", "1.6")
    gi.require_version("GUPnPAV", "1.0")
except (ImportError, ValueError) as missing:
    pytest.skip(f"GUPnP introspection data unavailable: {missing}", allow_module_level=True)

PROBE = Path(__file__).with_name("gupnp_probe.py")
DISCOVERY_SECONDS = 10
SCAN_TIMEOUT = 10


def protocol_fields(protocol_info):
    """The parts of a protocolInfo value a DLNA parser exposes, from our text."""
    protocol, network, mime, extra = protocol_info.split(":", 3)
    params = dict(p.split("=", 1) for p in extra.split(";")) if extra != "*" else {}
    return {"protocol": protocol, "network": network, "mime": mime, "profile": params.get("DLNA.ORG_PN"),
            "operation": int(params.get("DLNA.ORG_OP", "0"), 16),
            "conversion": int(params.get("DLNA.ORG_CI", "0")),
            "flags": int(params.get("DLNA.ORG_FLAGS", "0" * 8)[:8], 16)}


def our_walk(port, host):
    """Every container from "0" down, browsed by our client, in the probe's shape."""
    browses, pending = {}, ["0"]
    while pending:
        object_id = pending.pop(0)
        _, objects, returned, total, *_ = browse(port, object_id, host=host)
        assert returned == total == len(objects), object_id
        found = []
        for o in objects:
            entry = {"id": o["id"], "parentID": o["parentID"], "title": o["dc:title"], "class": o["upnp:class"],
                     "res": [{"uri": r["url"], **protocol_fields(r["protocolInfo"])} for r in o.get("res", [])]}
            if o["element"] == "container":
                entry["childCount"] = int(o.get("childCount", -1))
                pending.append(o["id"])
            found.append(entry)
        browses[object_id] = {"objects": found, "total": total}
    return browses


@pytest.fixture(scope="module")
def server(tmp_path_factory):
    root = tmp_path_factory.mktemp("gupnp_av")
    media = root / "media"
    subprocess.run([str(BUILD / "dms-mkdemo"), str(media)], check=True)
    dms = Dms(root / "server", f'path = "{media}"\n')
    port = dms.wait_ready()
    host = os.environ["DMS_NETNS_ADDR"]
    # The scan has settled once two walks a moment apart agree.
    deadline, previous = time.monotonic() + SCAN_TIMEOUT, None
    while time.monotonic() < deadline:
        current = our_walk(port, host)
        if current == previous and len(current) > 10:
            break
        previous = current
        time.sleep(0.3)
    yield port, host
    dms.stop()


def test_gupnp_av_parses_every_browse_result_like_our_client(server):
    port, host = server
    result = subprocess.run(["/usr/bin/python3", str(PROBE), "browse", "dms0", str(DISCOVERY_SECONDS)],
                            capture_output=True, timeout=DISCOVERY_SECONDS + 15)
    assert result.returncode == 0, result.stderr.decode(errors="replace")
    theirs = json.loads(result.stdout)
    ours = our_walk(port, host)

    assert sorted(theirs) == sorted(ours)
    for object_id, seen in ours.items():
        assert theirs[object_id] == seen, object_id
    items = [o for b in ours.values() for o in b["objects"] if "childCount" not in o]
    # The walk reached real media: items with a resource of every demo kind.
    assert {o["class"].split(".")[2] for o in items} >= {"audioItem", "videoItem", "imageItem"}
    assert all(o["res"] and o["res"][0]["uri"].startswith(f"http://{host}:{port}/mediaitem/") for o in items)
