"""SSDP discovery of the running server from inside the namespace: alive
announcements, M-SEARCH answers and the rules that suppress them, goodbyes
on stop, and a third-party control point (GSSDP and GUPnP) that finds the
device and reads its description and both SCPDs. One server serves the
whole module; the goodbye test stops it and therefore runs last."""
import json
import os
import socket
import subprocess
import time
from pathlib import Path

import pytest

import dms_client
from dms_client import CONNECTION_MANAGER, CONTENT_DIRECTORY, MEDIA_SERVER

GROUP = "239.255.255.250"
SSDP_PORT = 1900
PROBE = Path(__file__).with_name("gupnp_probe.py")
FIRST_ANNOUNCEMENT_TIMEOUT = 15.0


def notification_types():
    return ["uuid:" + dms_client.udn(), "upnp:rootdevice", MEDIA_SERVER, CONNECTION_MANAGER, CONTENT_DIRECTORY]


def usn(nt):
    return "uuid:" + dms_client.udn() + ("" if nt.startswith("uuid:") else "::" + nt)


def parse(datagram):
    lines = datagram.decode().split("\r\n")
    headers = {}
    for line in lines[1:]:
        name, sep, value = line.partition(":")
        if sep:
            headers[name.strip().upper()] = value.strip()
    return lines[0], headers


def drain(sock, seconds):
    """Every datagram that arrives on `sock` within `seconds`."""
    received = []
    deadline = time.monotonic() + seconds
    while (left := deadline - time.monotonic()) > 0:
        sock.settimeout(left)
        try:
            received.append(sock.recvfrom(2048))
        except socket.timeout:
            break
    return received


def notifies(datagrams, nts):
    found = []
    for data, _ in datagrams:
        first, headers = parse(data)
        if first == "NOTIFY * HTTP/1.1" and headers.get("NTS") == nts:
            found.append(headers)
    return found


def group_listener():
    sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    sock.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    sock.bind(("", SSDP_PORT))
    membership = socket.inet_aton(GROUP) + socket.inet_aton(os.environ["DMS_NETNS_ADDR"])
    sock.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP, membership)
    return sock


class Discovery:
    def __init__(self, folder):
        self.listener = group_listener()
        self.server = dms_client.start_server(folder)
        self.announced = []
        deadline = time.monotonic() + FIRST_ANNOUNCEMENT_TIMEOUT
        while len(notifies(self.announced, "ssdp:alive")) < 10 and time.monotonic() < deadline:
            self.announced += drain(self.listener, 0.5)
        self.announced += drain(self.listener, 0.3)

    def search(self, st, source_port=0, wait=0.6):
        """Sends one M-SEARCH (no ST header when `st` is None); returns the answers."""
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as client:
            client.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            client.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF,
                              socket.inet_aton(os.environ["DMS_NETNS_ADDR"]))
            client.bind(("", source_port))
            lines = ["M-SEARCH * HTTP/1.1", f"HOST: {GROUP}:{SSDP_PORT}", 'MAN: "ssdp:discover"', "MX: 1"]
            if st is not None:
                lines.append(f"ST: {st}")
            client.sendto(("\r\n".join(lines) + "\r\n\r\n").encode(), (GROUP, SSDP_PORT))
            # A client on the SSDP port also hears the group's own traffic.
            answers = [parse(data) for data, _ in drain(client, wait) if data.startswith(b"HTTP/1.1")]
        # An answer to a port shared with the listener may land there instead.
        stray = [parse(data) for data, _ in drain(self.listener, 0.05) if data.startswith(b"HTTP/1.1")]
        return answers + stray


@pytest.fixture(scope="module")
def discovery(tmp_path_factory):
    found = Discovery(tmp_path_factory.mktemp("ssdp"))
    yield found
    found.server.stop()
    found.listener.close()


def location(discovery):
    return f"http://{os.environ['DMS_NETNS_ADDR']}:{discovery.server.port}/DMS/Device"


def test_alive_announcements(discovery):
    alive = notifies(discovery.announced, "ssdp:alive")
    # Each sweep names every type once, and the sweep is sent twice.
    assert sorted(headers["NT"] for headers in alive) == sorted(notification_types() * 2)
    for h in alive:
        assert (h["USN"], h["LOCATION"], h["CACHE-CONTROL"], h["HOST"]) == \
            (usn(h["NT"]), location(discovery), "max-age=1800", f"{GROUP}:{SSDP_PORT}")
        assert dms_client.server_token().endswith(h["SERVER"])
    # The engine says goodbye once before its first announcement.
    assert len(notifies(discovery.announced, "ssdp:byebye")) == 5


def test_search_all(discovery):
    answers = [(first, h["ST"], h["USN"], h["EXT"], h["LOCATION"], "NTS" in h or "HOST" in h)
               for first, h in discovery.search("ssdp:all")]
    assert answers == [("HTTP/1.1 200 OK", nt, usn(nt), "", location(discovery), False) for nt in notification_types()]


def test_search_single_targets(discovery):
    udn = dms_client.udn()
    cases = [
        ("upnp:rootdevice", "upnp:rootdevice", usn("upnp:rootdevice")),
        ("uuid:" + udn.lower(), "uuid:" + udn, "uuid:" + udn),
        (CONTENT_DIRECTORY, CONTENT_DIRECTORY, usn(CONTENT_DIRECTORY)),
        (MEDIA_SERVER, MEDIA_SERVER, usn(MEDIA_SERVER)),
    ]
    for st, answered_st, answered_usn in cases:
        assert [(h["ST"], h["USN"]) for _, h in discovery.search(st)] == [(answered_st, answered_usn)], st


def test_searches_that_get_no_answer(discovery):
    for st in (CONTENT_DIRECTORY[:-1] + "2", CONTENT_DIRECTORY[:-1] + "0", None, "uuid:0000",
               "urn:schemas-upnp-org:service:AVTransport:1"):
        assert discovery.search(st, wait=0.4) == [], st
    # Requests from the SSDP port itself or from a privileged port are ignored.
    for port in (SSDP_PORT, 1000):
        assert discovery.search("ssdp:all", source_port=port, wait=0.4) == [], port
    # The same search from an ordinary port is answered.
    assert len(discovery.search("ssdp:all", source_port=1025)) == 5


def run_probe(mode, seconds):
    result = subprocess.run(["/usr/bin/python3", str(PROBE), mode, "dms0", str(seconds)],
                            capture_output=True, timeout=seconds + 20)
    assert result.returncode == 0, result.stderr.decode(errors="replace")
    return json.loads(result.stdout)


def test_gssdp_finds_every_resource(discovery):
    seen = run_probe("ssdp", 3)
    assert [seen.get(usn(nt)) for nt in notification_types()] == [[location(discovery)]] * 5


# What a control point reads from the two SCPDs: every action (each has a
# handler) and every state variable.
SERVICES = {
    CONTENT_DIRECTORY: (
        ["Browse", "GetSearchCapabilities", "GetSortCapabilities", "GetSystemUpdateID"],
        ["A_ARG_TYPE_BrowseFlag", "A_ARG_TYPE_Count", "A_ARG_TYPE_Filter", "A_ARG_TYPE_Index",
         "A_ARG_TYPE_ObjectID", "A_ARG_TYPE_Result", "A_ARG_TYPE_SortCriteria", "A_ARG_TYPE_UpdateID",
         "ContainerUpdateIDs", "SearchCapabilities", "SortCapabilities", "SystemUpdateID"]),
    CONNECTION_MANAGER: (
        ["GetCurrentConnectionIDs", "GetCurrentConnectionInfo", "GetProtocolInfo"],
        ["A_ARG_TYPE_AVTransportID", "A_ARG_TYPE_ConnectionID", "A_ARG_TYPE_ConnectionManager",
         "A_ARG_TYPE_ConnectionStatus", "A_ARG_TYPE_Direction", "A_ARG_TYPE_ProtocolInfo", "A_ARG_TYPE_RcsID",
         "CurrentConnectionIDs", "SinkProtocolInfo", "SourceProtocolInfo"]),
}


def test_gupnp_reads_the_description_and_both_services(discovery):
    device = run_probe("device", 10)
    values = dms_client.CONFIG_VALUES
    assert (device["udn"], device["friendlyName"], device["modelName"], device["modelNumber"]) == \
        ("uuid:" + dms_client.udn(), values["deviceName"], values["dmsModelName"], values["modelNumber"])
    assert device["location"] == location(discovery)
    assert {service: (found["actions"], found["variables"]) for service, found in device["services"].items()} \
        == SERVICES


def test_goodbye_after_sigterm(discovery):
    drain(discovery.listener, 0.1)
    discovery.server.stop()
    goodbye = notifies(drain(discovery.listener, 1.0), "ssdp:byebye")
    assert sorted(headers["NT"] for headers in goodbye) == sorted(notification_types() * 2)
    assert all(headers["USN"] == usn(headers["NT"]) for headers in goodbye)
