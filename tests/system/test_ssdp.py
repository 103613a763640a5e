# SSDP discovery of the running server from inside the namespace: alive
# announcements and M-SEARCH answers, each datagram compared whole, the rules
# that suppress answers, goodbyes on stop, and a third-party control point
# (GUPnP) that finds the device and reads its description and both SCPDs. One server serves the whole module; the goodbye test stops it and
# therefore runs last.
import os
import time

import pytest

import dms_client
from dms_client import CONNECTION_MANAGER, CONTENT_DIRECTORY, MEDIA_SERVER, SSDP_GROUP, SSDP_PORT, drain, ssdp_search

FIRST_ANNOUNCEMENT_TIMEOUT = 15.0


def notification_types():
    return ["uuid:" + dms_client.udn(), "upnp:rootdevice", MEDIA_SERVER, CONNECTION_MANAGER, CONTENT_DIRECTORY]


def usn(nt):
    return "uuid:" + dms_client.udn() + ("" if nt.startswith("uuid:") else "::" + nt)


def location(port):
    return f"http://{os.environ['DMS_NETNS_ADDR']}:{port}/DMS/Device"


def notify(nt, nts, port):
    return (f"NOTIFY * HTTP/1.1\r\nHost: {SSDP_GROUP}:{SSDP_PORT}\r\nCache-Control: max-age=1800\r\n"
            f"Location: {location(port)}\r\nNT: {nt}\r\nNTS: {nts}\r\nServer: {dms_client.server_token()}\r\n"
            f"USN: {usn(nt)}\r\n\r\n").encode()


def answer(st, port):
    return (f"HTTP/1.1 200 OK\r\nCache-Control: max-age=1800\r\nLocation: {location(port)}\r\nST: {st}\r\n"
            f"EXT:\r\nServer: {dms_client.server_token()}\r\nUSN: {usn(st)}\r\n\r\n").encode()


class Discovery:
    def __init__(self, folder):
        self.listener = dms_client.multicast_socket(SSDP_GROUP, SSDP_PORT, os.environ["DMS_NETNS_ADDR"])
        self.server = dms_client.start_server(folder)
        self.announced = []
        deadline = time.monotonic() + FIRST_ANNOUNCEMENT_TIMEOUT
        while sum(b"NTS: ssdp:alive" in d for d in self.announced) < 10 and time.monotonic() < deadline:
            self.announced += drain(self.listener, 0.5)
        self.announced += drain(self.listener, 0.3)

    def search(self, st, source_port=0, wait=0.6):
        answers = ssdp_search(st, os.environ["DMS_NETNS_ADDR"], source_port, wait)
        # An answer to a port shared with the listener may land there instead.
        return answers + [data for data in drain(self.listener, 0.05) if data.startswith(b"HTTP/1.1")]


@pytest.fixture(scope="module")
def discovery(tmp_path_factory):
    found = Discovery(tmp_path_factory.mktemp("ssdp"))
    yield found
    found.server.stop()
    found.listener.close()


def sweep(nts, port):
    return [notify(nt, nts, port) for nt in notification_types()]


def test_announcements_after_start(discovery):
    # One goodbye sweep before the first announcement, then the alive sweep twice.
    port = discovery.server.port
    assert discovery.announced == sweep("ssdp:byebye", port) + sweep("ssdp:alive", port) * 2


def test_search_answers(discovery):
    port, udn = discovery.server.port, dms_client.udn()
    assert discovery.search("ssdp:all") == [answer(nt, port) for nt in notification_types()]
    # A target matches whatever its case, and the answer repeats the type and version asked for.
    for st, answered in (("UPnP:RootDevice  ", "upnp:rootdevice"), ("uuid:" + udn.lower(), "uuid:" + udn),
                         (CONTENT_DIRECTORY, CONTENT_DIRECTORY), (MEDIA_SERVER.upper(), MEDIA_SERVER.upper())):
        assert discovery.search(st) == [answer(answered, port)], st


def test_searches_that_get_no_answer(discovery):
    for st in (CONTENT_DIRECTORY[:-1] + "2", CONTENT_DIRECTORY[:-1] + "0", None, "", "ssdp:allx", "uuid:0000",
               "urn:schemas-upnp-org:service:AVTransport:1"):
        assert discovery.search(st, wait=0.4) == [], st
    # Requests from the SSDP port itself or from a privileged port are ignored.
    for port in (SSDP_PORT, 1000):
        assert discovery.search("ssdp:all", source_port=port, wait=0.4) == [], port
    # The same search from an ordinary port is answered.
    assert len(discovery.search("ssdp:all", source_port=1025)) == 5


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
    device = dms_client.gupnp("device", 10)
    values = dms_client.CONFIG_VALUES
    assert (device["udn"], device["friendlyName"], device["modelName"], device["modelNumber"]) == \
        ("uuid:" + dms_client.udn(), values["deviceName"], values["dmsModelName"], values["modelNumber"])
    assert device["location"] == location(discovery.server.port)
    assert {service: (found["actions"], found["variables"]) for service, found in device["services"].items()} \
        == SERVICES


def test_goodbye_after_sigterm(discovery):
    drain(discovery.listener, 0.1)
    port = discovery.server.port
    discovery.server.stop()
    # On stop the engine wakes its own thread with one zero byte sent to the group.
    goodbye = [data for data in drain(discovery.listener, 1.0) if data != b"\0"]
    assert goodbye == sweep("ssdp:byebye", port) * 2
