# Eventing and the small actions against running servers: SUBSCRIBE,
# renewal and UNSUBSCRIBE replies, the exact NOTIFY requests received by
# callback servers of our own, the change event after a file is added,
# subscribers that never answer, and the exact envelopes of the six small
# actions.
#
# One server serves the module. Its media folder is empty when it starts, so
# the first scan is over before anyone subscribes; a file is copied in right
# after the first subscriptions, and the refresh pass that follows (about 40 s
# after start) reports it. The change test runs last and waits only for what is
# left of that time.
import os
import re
import shutil
import socket
import threading
import time

import pytest

import dms_client
from dms_client import CONNECTION_MANAGER, CONTENT_DIRECTORY, XML_TYPE, Client, action, browse, get, until

CD_EVENT = "/DMS/ContentDirectory/event"
CM_EVENT = "/DMS/ConnectionManager/event"
ADDRESS = os.environ["DMS_NETNS_ADDR"]
BLACKHOLE = "10.77.0.3"  # on the namespace's link, but nobody answers there
CHANGE_DEADLINE = 50.0  # seconds after start; the second refresh pass comes at about 40 s
EVENT_WAIT = 3.0
SOURCE_PROTOCOLS = (
    "http-get:*:image/jpeg:DLNA.ORG_PN=JPEG_TN;DLNA.ORG_OP=01;DLNA.ORG_CI=1,http-get:*:image/jpeg:*,"
    "http-get:*:image/png:*,http-get:*:image/tiff:*,http-get:*:image/gif:*,http-get:*:audio/flac:*,"
    "http-get:*:audio/mpeg:*,http-get:*:audio/mp4:*,http-get:*:audio/x-matroska:*,http-get:*:audio/webm:*,"
    "http-get:*:audio/wav:*,http-get:*:audio/x-wav:*,http-get:*:video/mpeg:*,http-get:*:video/mp4:*,"
    "http-get:*:video/x-matroska:*,http-get:*:video/webm:*,http-get:*:video/avi:*,http-get:*:video/x-msvideo:*")
SID = re.compile(r"uuid:[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12}")


class NotifySink:
    # A callback server on the namespace address that records every request
    # and answers 200; a silent one accepts connections and never reads them.

    def __init__(self, port=0, silent=False):
        self.events, self.connections, self.silent = [], [], silent
        self.changed, self.accepted = threading.Condition(), threading.Event()
        self.sock = socket.create_server((ADDRESS, port), backlog=16)
        self.port = self.sock.getsockname()[1]
        threading.Thread(target=self._accept, daemon=True).start()

    def _accept(self):
        while True:
            try:
                conn, _ = self.sock.accept()
            except OSError:
                return
            self.connections.append(conn)
            self.accepted.set()
            if not self.silent:
                threading.Thread(target=self._serve, args=(conn,), daemon=True).start()

    def _serve(self, conn):
        try:
            event = Client(sock=conn, timeout=5).reply()
            conn.sendall(b"HTTP/1.1 200 OK\r\nContent-Length: 0\r\nConnection: close\r\n\r\n")
        except (OSError, EOFError):
            return
        finally:
            conn.close()
        with self.changed:
            self.events.append(event)
            self.changed.notify_all()

    def wait(self, sid, count, timeout=EVENT_WAIT):
        found = lambda: [e for e in self.events if e.headers.get("sid") == "uuid:" + sid]  # noqa: E731
        with self.changed:
            self.changed.wait_for(lambda: len(found()) >= count, timeout)
            return found()

    def close(self):
        for conn in self.connections:
            conn.close()
        self.sock.close()


def event_request(port, method, path, *headers):
    reply = Client(port).request(method, path, f"Host: {ADDRESS}:{port}", *headers, "Connection: close")
    return reply.status, reply.headers, reply.body


def subscribe(port, path, callback):
    # A new subscription; returns its SID without "uuid:".
    status, headers, _ = event_request(port, "SUBSCRIBE", path, f"CALLBACK: <{callback}>", "NT: upnp:event",
                                       "TIMEOUT: Second-1800")
    assert status == "HTTP/1.1 200 OK"
    return headers["sid"][len("uuid:"):]


def elements(*values):
    # <name>value</name> for each (name, value), <name/> for an empty value.
    return "".join(f"<{name}/>" if value == "" else f"<{name}>{value}</{name}>" for name, value in values)


def property_set(*values):
    properties = "".join(f"<e:property>{elements(value)}</e:property>" for value in values)
    return ('<?xml version="1.0" encoding="UTF-8"?><e:propertyset xmlns:e="urn:schemas-upnp-org:event-1-0">'
            f"{properties}</e:propertyset>").encode()


def content_directory_event(update_id):
    return property_set(("SystemUpdateID", update_id), ("ContainerUpdateIDs", ""))


CONNECTION_MANAGER_EVENT = property_set(("CurrentConnectionIDs", "0"), ("SourceProtocolInfo", SOURCE_PROTOCOLS),
                                        ("SinkProtocolInfo", ""))


def notify_head(path, port, body, sid, seq):
    return (f"NOTIFY {path} HTTP/1.1\r\nHost: {ADDRESS}:{port}\r\n"
            f'Content-Type: text/xml; charset="utf-8"\r\nContent-Length: {len(body)}\r\nConnection: close\r\n'
            f"NT: upnp:event\r\nNTS: upnp:propchange\r\nSID: uuid:{sid}\r\nSEQ: {seq}").encode()


def envelope(name, service, outputs):
    text = ('<?xml version="1.0" encoding="UTF-8"?><s:Envelope '
            's:encodingStyle="http://schemas.xmlsoap.org/soap/encoding/" '
            f'xmlns:s="http://schemas.xmlsoap.org/soap/envelope/"><s:Body><u:{name}Response xmlns:u="{service}">')
    return (text + elements(*outputs) + f"</u:{name}Response></s:Body></s:Envelope>").encode()


def system_update_id(port):
    return re.search(rb"<Id>(\d+)</Id>", action(port, "GetSystemUpdateID").body).group(1).decode()


class Eventing:
    # The module's server, its callback server and two watching subscribers,
    # all in place before the file arrives.

    def __init__(self, folder, demo):
        self.server = dms_client.start_server(folder)
        self.started = time.monotonic()
        self.port = self.server.port
        self.sink = NotifySink()
        self.replies = {name: event_request(self.port, "SUBSCRIBE", path,
                                            f"CALLBACK: <http://{ADDRESS}:{self.sink.port}/watch/{name}?x=1>",
                                            "NT: upnp:event") for path, name in ((CD_EVENT, "cd"), (CM_EVENT, "cm"))}
        self.watchers = {name: headers["sid"][len("uuid:"):] for name, (_, headers, _) in self.replies.items()}
        self.initial_update_id = system_update_id(self.port)
        assert len(self.sink.wait(self.watchers["cd"], 1)) == 1
        shutil.copy(demo / "Pictures" / "Stripes.gif", folder / "media" / "Added.gif")

    def left(self):
        return max(0.0, self.started + CHANGE_DEADLINE - time.monotonic())

    def close(self):
        self.server.stop()
        self.sink.close()


@pytest.fixture(scope="module")
def eventing(tmp_path_factory, demo):
    yield (found := Eventing(tmp_path_factory.mktemp("gena"), demo))
    found.close()


def test_subscribe_replies_and_initial_events(eventing):
    for name, path, body in (("cd", "/watch/cd?x=1", content_directory_event(eventing.initial_update_id)),
                             ("cm", "/watch/cm?x=1", CONNECTION_MANAGER_EVENT)):
        status, headers, reply_body = eventing.replies[name]
        assert (status, headers["timeout"], headers["server"], reply_body) == \
            ("HTTP/1.1 200 OK", "Second-300", dms_client.server_token(), b"")
        assert SID.fullmatch(headers["sid"]) and "content-type" not in headers and "ext" not in headers
        sid = eventing.watchers[name]
        [event] = eventing.sink.wait(sid, 1)
        assert (event.head, event.body) == (notify_head(path, eventing.sink.port, body, sid, 0), body)
    assert eventing.watchers["cd"] != eventing.watchers["cm"]


def test_small_actions_exact_envelopes(eventing):
    port = eventing.port
    unknown_connection = [("ConnectionID", "12345")]
    connection_info = [("RcsID", "-1"), ("AVTransportID", "-1"), ("ProtocolInfo", ""),
                       ("PeerConnectionManager", ""), ("PeerConnectionID", "-1"), ("Direction", "Output"),
                       ("Status", "Unknown")]
    cases = [
        ("GetSearchCapabilities", CONTENT_DIRECTORY, [], [("SearchCaps", "")]),
        ("GetSortCapabilities", CONTENT_DIRECTORY, [], [("SortCaps", "")]),
        ("GetSystemUpdateID", CONTENT_DIRECTORY, [], [("Id", eventing.initial_update_id)]),
        ("GetCurrentConnectionIDs", CONNECTION_MANAGER, [], [("ConnectionIDs", "0")]),
        ("GetCurrentConnectionInfo", CONNECTION_MANAGER, [("ConnectionID", "0")], connection_info),
        ("GetCurrentConnectionInfo", CONNECTION_MANAGER, unknown_connection, connection_info),
        ("GetProtocolInfo", CONNECTION_MANAGER, [], [("Source", SOURCE_PROTOCOLS), ("Sink", "")]),
    ]
    for name, service, arguments, outputs in cases:
        reply = action(port, name, service, arguments)
        assert (reply.status, reply.headers["content-type"], reply.headers["ext"], reply.body) == \
            ("HTTP/1.1 200 OK", XML_TYPE, "", envelope(name, service, outputs)), name


def test_renewal_cancellation_and_refusals(eventing):
    port, sink = eventing.port, eventing.sink
    sid = subscribe(port, CM_EVENT, f"http://{ADDRESS}:{sink.port}/renew")
    for given in (sid, sid.lower()):
        status, headers, _ = event_request(port, "SUBSCRIBE", CM_EVENT, f"SID: uuid:{given}")
        assert (status, headers["sid"], headers["timeout"]) == ("HTTP/1.1 200 OK", f"uuid:{given}", "Second-300")

    # NT together with a SID is a new subscription, with its own initial event.
    status, headers, _ = event_request(port, "SUBSCRIBE", CM_EVENT, f"SID: uuid:{sid}", "NT: upnp:event",
                                       f"CALLBACK: <http://{ADDRESS}:{sink.port}/again>")
    assert status == "HTTP/1.1 200 OK"
    fresh = headers["sid"][len("uuid:"):]
    assert SID.fullmatch(headers["sid"]) and fresh != sid
    [event] = sink.wait(fresh, 1)
    assert event.head == notify_head("/again", sink.port, CONNECTION_MANAGER_EVENT, fresh, 0)

    # Cancelling is answered with success even when the SID is unknown.
    for _ in range(2):
        status, headers, _ = event_request(port, "UNSUBSCRIBE", CM_EVENT, f"SID: uuid:{sid}")
        assert status == "HTTP/1.1 200 OK" and "sid" not in headers and "content-type" not in headers
    assert event_request(port, "UNSUBSCRIBE", CD_EVENT, "SID: uuid:not-known")[0] == "HTTP/1.1 200 OK"

    refused = [
        ("SUBSCRIBE", CM_EVENT, [f"SID: uuid:{sid}"]),  # renewal of a cancelled subscription
        ("SUBSCRIBE", CD_EVENT, [f"SID: uuid:{fresh}"]),  # known, but on the other service
        ("SUBSCRIBE", CD_EVENT, [f"CALLBACK: <http://{ADDRESS}:{sink.port}/x>"]),
        ("SUBSCRIBE", CD_EVENT, ["NT: upnp:propchange", f"CALLBACK: <http://{ADDRESS}:{sink.port}/x>"]),
        ("SUBSCRIBE", CD_EVENT, [f"SID: {fresh}"]),
        ("UNSUBSCRIBE", CM_EVENT, []),
        ("UNSUBSCRIBE", CM_EVENT, [f"SID: {fresh}"]),
        ("GET", CD_EVENT, ["NT: upnp:event"]),
        ("NOTIFY", CM_EVENT, [f"SID: uuid:{fresh}"]),
    ]
    for method, path, headers in refused:
        status, reply_headers, body = event_request(port, method, path, *headers)
        assert (status, reply_headers.get("content-type"), body, reply_headers["server"]) == \
            ("HTTP/1.1 412 Precondition Failed", None, b"", dms_client.server_token()), (method, headers)
    assert len(sink.wait(fresh, 2, timeout=0.5)) == 1


def test_odd_callbacks(eventing):
    port = eventing.port
    # A callback without a port is notified on port 65535.
    portless = NotifySink(65535)
    try:
        sid = subscribe(port, CM_EVENT, f"http://{ADDRESS}/portless")
        [event] = portless.wait(sid, 1)
        assert event.head == notify_head("/portless", 65535, CONNECTION_MANAGER_EVENT, sid, 0)
    finally:
        portless.close()
    # A callback too short to be a URL still makes a subscription, which can
    # be renewed and cancelled like any other.
    for callback in ("<http://a>", ""):
        status, headers, _ = event_request(port, "SUBSCRIBE", CM_EVENT, "NT: upnp:event", f"CALLBACK: {callback}")
        statuses = [event_request(port, method, CM_EVENT, f"SID: {headers['sid']}")[0]
                    for method in ("SUBSCRIBE", "UNSUBSCRIBE")]
        assert [status] + statuses == ["HTTP/1.1 200 OK"] * 3


def test_unanswering_subscribers_do_not_hold_up_browse_and_transfers(dms, tmp_path, demo):
    media = tmp_path / "media"
    media.mkdir()
    shutil.copy(demo / "Pictures" / "Stripes.gif", media / "Stripes.gif")
    server = dms(dms_client.config_text(media))
    port = server.wait_ready()
    items = until(lambda: [o for o in browse(port, "0.1")[1] if o["element"] == "item"], bool, 10, 0.1)
    item_path = "/" + items[0]["res"][0]["url"].split("/", 3)[3]

    silent = NotifySink(silent=True)
    sink = NotifySink()
    try:
        # The first blackholed subscriber keeps a delivery pass busy for a
        # second; the subscriptions sent meanwhile all wait for it and so
        # join the next pass together: the silent one on ContentDirectory,
        # then three blackholed ones on ConnectionManager, at least three
        # seconds of delivery after the silent one is reached.
        subscribe(port, CD_EVENT, f"http://{BLACKHOLE}:80/first")
        time.sleep(0.3)
        batch = [(CD_EVENT, f"http://{ADDRESS}:{silent.port}/silent")]
        batch += [(CM_EVENT, f"http://{BLACKHOLE}:{80 + n}/hole") for n in range(3)]
        threads = [threading.Thread(target=subscribe, args=(port, path, callback)) for path, callback in batch]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join(5)
        assert silent.accepted.wait(5)

        # A subscription waits for the pass to end; Browse and transfers do not.
        late = []
        late_callback = f"http://{ADDRESS}:{sink.port}/late"
        waiting = threading.Thread(target=lambda: late.append(subscribe(port, CD_EVENT, late_callback)))
        waiting.start()
        for _ in range(3):
            _, objects, returned, *_ = browse(port, "0.1")
            assert returned == 1 and objects[0]["id"] == items[0]["id"]
            reply = get(port, item_path)
            assert (reply.status, reply.body) == ("HTTP/1.1 200 OK", (media / "Stripes.gif").read_bytes())
        assert waiting.is_alive() and not late
        waiting.join(6)
        assert len(late) == 1 and len(sink.wait(late[0], 1)) == 1
    finally:
        silent.close()
        sink.close()


def test_change_event_after_a_file_is_added(eventing):
    port, sink = eventing.port, eventing.sink
    events = sink.wait(eventing.watchers["cd"], 2, timeout=eventing.left())
    assert len(events) == 2, "no change event"
    change = content_directory_event(update_id := system_update_id(port))
    assert int(update_id) > int(eventing.initial_update_id)
    assert (events[1].head, events[1].body) == \
        (notify_head("/watch/cd?x=1", sink.port, change, eventing.watchers["cd"], 1), change)
    assert [o["dc:title"] for o in browse(port, "0.1")[1]] == ["Added"]
    # ConnectionManager never changes: its watcher has only its initial event.
    assert len(sink.wait(eventing.watchers["cm"], 2, timeout=0.3)) == 1
