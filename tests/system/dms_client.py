# The system tests' one HTTP client and control point: raw requests on a
# connection, replies framed by Content-Length or chunks, SOAP actions and
# Browse results parsed into dicts, and the server's test configuration.
import ctypes
import json
import os
import socket
import subprocess
import time
import xml.etree.ElementTree as ET
from pathlib import Path

from conftest import Dms

MEDIA_SERVER = "urn:schemas-upnp-org:device:MediaServer:1"
CONTENT_DIRECTORY = "urn:schemas-upnp-org:service:ContentDirectory:1"
CONNECTION_MANAGER = "urn:schemas-upnp-org:service:ConnectionManager:1"
XML_TYPE = 'text/xml; charset="utf-8"'
DIDL = "{urn:schemas-upnp-org:metadata-1-0/DIDL-Lite/}"
DC = "{http://purl.org/dc/elements/1.1/}"
UPNP = "{urn:schemas-upnp-org:metadata-1-0/upnp/}"
CLONE_NEWNET = 0x40000000
SSDP_GROUP, SSDP_PORT = "239.255.255.250", 1900
CONFIG_VALUES = {"deviceName": "Test DMS & Co", "manufacturer": "ACME <Labs>", "dmsModelName": "DMSModel",
                 "modelNumber": "1.5", "modelDescription": "Unit 'test' > demo"}


class Reply:
    # One HTTP message: first line, headers (lower-case names; `order` keeps
    # the names as sent), body and, for chunked bodies, the chunk sizes.

    def __init__(self, head):
        lines = head.decode().split("\r\n")
        self.head, self.status, self.headers, self.order = head, lines[0], {}, []
        for line in lines[1:]:
            name, _, value = line.partition(":")
            self.headers[name.strip().lower()] = value.strip()
            self.order.append(name)
        self.body, self.sizes = b"", None


class Client:
    # One connection (made, or accepted by a test's own listener).

    def __init__(self, port=None, host="127.0.0.1", timeout=10.0, sock=None):
        self.sock = sock or socket.create_connection((host, port), timeout=timeout)
        self.sock.settimeout(timeout)
        self.buffer = b""

    def send(self, raw):
        self.sock.sendall(raw)
        return self

    def _fill(self):
        data = self.sock.recv(1 << 20)
        if not data:
            raise EOFError("connection closed")
        self.buffer += data

    def read_exact(self, count):
        while len(self.buffer) < count:
            self._fill()
        data, self.buffer = self.buffer[:count], self.buffer[count:]
        return data

    def read_line(self):
        while b"\r\n" not in self.buffer:
            self._fill()
        line, self.buffer = self.buffer.split(b"\r\n", 1)
        return line

    def reply(self, body=True):
        while b"\r\n\r\n" not in self.buffer:
            self._fill()
        head, self.buffer = self.buffer.split(b"\r\n\r\n", 1)
        reply = Reply(head)
        if not body:
            return reply
        if reply.headers.get("transfer-encoding") != "chunked":
            reply.body = self.read_exact(int(reply.headers.get("content-length", "0")))
            return reply
        reply.sizes = []
        while not reply.sizes or reply.sizes[-1]:
            reply.sizes.append(int(self.read_line(), 16))
            reply.body += self.read_exact(reply.sizes[-1])
            assert self.read_exact(2) == b"\r\n", "chunk not followed by CRLF"
        return reply

    def request(self, method, target, *headers, version="HTTP/1.1", host="Host: test"):
        # Sends a request (with `host` unless a Host header is given) and reads the reply.
        named = host and not any(h.lower().startswith("host:") for h in headers)
        lines = [f"{method} {target} {version}", *([host] if named else []), *headers]
        return self.send(("\r\n".join(lines) + "\r\n\r\n").encode()).reply(body=method != "HEAD")

    def get(self, target, *headers, method="GET", version="HTTP/1.1"):
        return self.request(method, target, *headers, version=version)

    def replies(self):
        # Every reply until the server closes the connection.
        found = []
        try:
            while True:
                found.append(self.reply())
        except (EOFError, ConnectionResetError):
            return found

    def closed(self, timeout=3.0):
        # True when the server ends the connection, sending nothing more, within `timeout`.
        self.sock.settimeout(timeout)
        try:
            data = self.sock.recv(1 << 16)
        except ConnectionResetError:
            return True
        except socket.timeout:
            return False
        assert data == b"", data[:200]
        return True

    def close(self):
        self.sock.close()


def multicast_socket(group, port, address):
    # A UDP socket on `port` in `group`, on the interface of `address`, that
    # does not hear what it sends itself.
    sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    sock.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    sock.bind(("", port))
    sock.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP, socket.inet_aton(group) + socket.inet_aton(address))
    sock.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, socket.inet_aton(address))
    sock.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_LOOP, 0)
    return sock


def drain(sock, seconds):
    # Every datagram that arrives on `sock` within `seconds`.
    received = []
    deadline = time.monotonic() + seconds
    while (left := deadline - time.monotonic()) > 0:
        sock.settimeout(left)
        try:
            received.append(sock.recvfrom(2048))
        except socket.timeout:
            break
    return [data for data, _ in received]


def ssdp_search(st, interface, source_port=0, wait=0.6):
    # Sends one M-SEARCH (no ST header when `st` is None) on the interface with
    # the address `interface`; returns the answers.
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as client:
        client.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        client.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, socket.inet_aton(interface))
        client.bind(("", source_port))
        lines = ["M-SEARCH * HTTP/1.1", f"HOST: {SSDP_GROUP}:{SSDP_PORT}", 'MAN: "ssdp:discover"', "MX: 1"]
        if st is not None:
            lines.append(f"ST: {st}")
        client.sendto(("\r\n".join(lines) + "\r\n\r\n").encode(), (SSDP_GROUP, SSDP_PORT))
        # A client on the SSDP port also hears the group's own traffic.
        return [data for data in drain(client, wait) if data.startswith(b"HTTP/1.1")]


def gupnp(mode, seconds):
    # What tests/system/gupnp_probe.py, GUPnP's control point, finds on dms0 in `mode` ("device" or "browse").
    result = subprocess.run(["/usr/bin/python3", str(Path(__file__).with_name("gupnp_probe.py")), mode, "dms0",
                             str(seconds)], capture_output=True, timeout=seconds + 30)
    assert result.returncode == 0, result.stderr.decode(errors="replace")
    return json.loads(result.stdout)


def in_peer_namespace(make):
    # Calls make() with this thread moved into the peer namespace; sockets it
    # creates stay there.
    libc = ctypes.CDLL(None, use_errno=True)
    with open("/proc/thread-self/ns/net") as home, \
            open(f"/run/netns/{os.environ['DMS_NETNS_PEER']}") as peer:
        if libc.setns(peer.fileno(), CLONE_NEWNET) != 0:
            raise OSError(ctypes.get_errno(), "setns to the peer namespace")
        try:
            return make()
        finally:
            if libc.setns(home.fileno(), CLONE_NEWNET) != 0:
                raise OSError(ctypes.get_errno(), "setns back")


def get(port, path, *headers, method="GET", address="127.0.0.1", host="Host: test"):
    return Client(port, address).request(method, path, *headers, "Connection: close", host=host)


def soap(action, arguments, service=CONTENT_DIRECTORY, method="POST"):
    inner = "".join(f"<{name}>{value}</{name}>" for name, value in arguments)
    body = ('<?xml version="1.0"?><s:Envelope xmlns:s="http://schemas.xmlsoap.org/soap/envelope/" '
            's:encodingStyle="http://schemas.xmlsoap.org/soap/encoding/"><s:Body>'
            f'<u:{action} xmlns:u="{service}">{inner}</u:{action}></s:Body></s:Envelope>').encode()
    path = "/DMS/" + service.split(":")[-2] + "/control"
    head = (f"{method} {path} HTTP/1.1\r\nHost: test\r\nContent-Type: {XML_TYPE}\r\n"
            f"SOAPACTION: \"{service}#{action}\"\r\nContent-Length: {len(body)}\r\nConnection: close\r\n\r\n")
    return head.encode() + body


def action(port, name, service=CONTENT_DIRECTORY, arguments=(), method="POST", host="127.0.0.1"):
    return Client(port, host).send(soap(name, arguments, service, method)).reply(body=method != "HEAD")


def browse_arguments(object_id, flag="BrowseDirectChildren", filt="*", start=0, count=0):
    return [("ObjectID", object_id), ("BrowseFlag", flag), ("Filter", filt), ("StartingIndex", start),
            ("RequestedCount", count), ("SortCriteria", "")]


def browse_raw(port, object_id, flag="BrowseDirectChildren", filt="*", start=0, count=0, method="POST",
               arguments=None, host="127.0.0.1"):
    arguments = arguments or browse_arguments(object_id, flag, filt, start, count)
    return action(port, "Browse", arguments=arguments, method=method, host=host)


def browse(port, object_id, **kwargs):
    # Browse result: (didl text, objects, NumberReturned, TotalMatches, UpdateID, chunk sizes).
    reply = browse_raw(port, object_id, **kwargs)
    assert reply.status == "HTTP/1.1 200 OK", (reply.status, reply.body)
    response = ET.fromstring(reply.body).find(".//{%s}BrowseResponse" % CONTENT_DIRECTORY)
    values = {child.tag: child.text or "" for child in response}
    objects = [didl_object(node) for node in ET.fromstring(values["Result"])]
    return (values["Result"], objects, int(values["NumberReturned"]), int(values["TotalMatches"]),
            int(values["UpdateID"]), reply.sizes)


def walk(port, **kwargs):
    # Every container from "0" down, browsed whole: {object id: browse() result}, in breadth-first order.
    found, pending = {}, ["0"]
    while pending:
        object_id = pending.pop(0)
        found[object_id] = browse(port, object_id, **kwargs)
        pending += [o["id"] for o in found[object_id][1] if o["element"] == "container"]
    return found


def until(read, done, timeout=20.0, pause=0.2):
    # Calls read() until done(its value) holds or `timeout` seconds pass; returns the last value.
    deadline = time.monotonic() + timeout
    while not done(value := read()) and time.monotonic() < deadline:
        time.sleep(pause)
    return value


def didl_object(node):
    found = {"element": node.tag.replace(DIDL, ""), **node.attrib}
    for child in node:
        tag = child.tag.replace(DC, "dc:").replace(UPNP, "upnp:").replace(DIDL, "")
        if tag == "res":
            found.setdefault("res", []).append({**child.attrib, "url": child.text})
        else:
            found[tag] = child.text
    return found


def by_title(objects, title):
    matches = [o for o in objects if o.get("dc:title") == title]
    assert len(matches) == 1, (title, [o.get("dc:title") for o in objects])
    return matches[0]


def rewrite(path, data):
    # Writes `data` over the file and puts its times back, as a tool that keeps them does.
    times = path.stat()
    path.write_bytes(data)
    os.utime(path, ns=(times.st_atime_ns, times.st_mtime_ns))


def config_text(media_path):
    lines = [f'path = "{media_path}"', 'refreshInterval = "30"']
    return "\n".join(lines + [f'{key} = "{value}"' for key, value in CONFIG_VALUES.items()]) + "\n"


def start_server(folder):
    # A server in `folder` with the test configuration and an empty library.
    media = folder / "media"
    media.mkdir(parents=True, exist_ok=True)
    server = Dms(folder / "server", config_text(media))
    server.wait_ready()
    return server


def udn():
    # "DMS", three zero bytes, 0x10 0 0x80 0, then the MAC of the first interface.
    mac = Path("/sys/class/net/dms0/address").read_text().strip().replace(":", "").upper()
    return f"444D5300-0000-1000-8000-{mac}"


def server_token():
    system = os.uname()
    return f"{system.sysname}/{system.release} UPnP/1.0 {CONFIG_VALUES['dmsModelName']}/{CONFIG_VALUES['modelNumber']}"
