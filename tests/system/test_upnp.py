"""The device's HTTP side: description and SCPD documents, exact-path
dispatch, request bodies (limits and chunking) and SOAP faults, all against
one running server."""
import os
import socket

import pytest

import dms_device
from dms_device import CONNECTION_MANAGER, CONTENT_DIRECTORY, XML_TYPE

MAX_BODY = 2097152
FAULT_602 = (b'<?xml version="1.0" encoding="UTF-8"?><s:Envelope '
             b'xmlns:s="http://schemas.xmlsoap.org/soap/envelope/" '
             b's:encodingStyle="http://schemas.xmlsoap.org/soap/encoding/"><s:Body><s:Fault>'
             b"<faultcode>s:Client</faultcode><faultstring>UPnPError</faultstring><detail>"
             b'<UPnPError xmlns="urn:schemas-upnp-org:control-1-0"><errorCode>602</errorCode>'
             b"<errorDescription>Optional Action Not Implemented</errorDescription></UPnPError></detail>"
             b"</s:Fault></s:Body></s:Envelope>")


@pytest.fixture(scope="module")
def server(tmp_path_factory):
    started = dms_device.start_server(tmp_path_factory.mktemp("upnp"))
    yield started
    started.stop()


def parse_responses(data):
    """Splits a byte stream into (status line, headers dict, body) triples."""
    responses = []
    while data:
        head, _, rest = data.partition(b"\r\n\r\n")
        lines = head.decode().split("\r\n")
        headers = {}
        for line in lines[1:]:
            name, _, value = line.partition(":")
            headers[name.strip().lower()] = value.strip()
        length = int(headers.get("content-length", "0"))
        responses.append((lines[0], headers, rest[:length]))
        data = rest[length:]
    return responses


def exchange(port, raw, host="127.0.0.1"):
    """Sends raw requests on one connection and reads until the server closes."""
    with socket.create_connection((host, port), timeout=10) as conn:
        conn.sendall(raw)
        chunks = []
        while True:
            try:
                data = conn.recv(65536)
            except ConnectionResetError:
                break
            if not data:
                break
            chunks.append(data)
    return parse_responses(b"".join(chunks))


def request(method, path, body=b"", headers=(), close=True):
    lines = [f"{method} {path} HTTP/1.1", "Host: test"]
    lines += list(headers)
    if body:
        lines.append(f"Content-Length: {len(body)}")
    if close:
        lines.append("Connection: close")
    return ("\r\n".join(lines) + "\r\n\r\n").encode() + body


def test_description_for_each_local_address_and_method(server):
    for host in ("127.0.0.1", os.environ["DMS_NETNS_ADDR"]):
        for method in ("GET", "POST", "SUBSCRIBE"):
            [(status, headers, body)] = exchange(server.port, request(method, "/DMS/Device"), host)
            assert status == "HTTP/1.1 200 OK"
            assert headers["content-type"] == XML_TYPE
            assert headers["server"] == dms_device.server_line()[len("Server: "):]
            assert "ext" not in headers
            assert body == dms_device.description(host)


def test_scpd_documents(server):
    for service_type, name in ((CONTENT_DIRECTORY, "ContentDirectory"), (CONNECTION_MANAGER, "ConnectionManager")):
        [(status, headers, body)] = exchange(server.port, request("GET", f"/DMS/{name}/document"))
        assert status == "HTTP/1.1 200 OK"
        assert headers["content-type"] == XML_TYPE
        # Every action has a handler, so every one is listed, in table order.
        listed = dms_device.served_actions(body)
        assert listed == [action[0] for action in dms_device.ACTIONS[service_type]]
        assert body == dms_device.scpd(service_type, listed)


def test_unknown_paths_are_bad_requests(server):
    for path in ("/DMS/Device/", "/dms/device", "/DMS/ContentDirectory/document/", "/DMS"):
        [(status, headers, _)] = exchange(server.port, request("GET", path))
        assert status == "HTTP/1.1 400 Bad Request", path
        assert headers["content-type"] == XML_TYPE
        assert headers["content-length"] == "0"
        assert headers["server"] == dms_device.server_line()[len("Server: "):]
    # Download paths belong to the server's hook, whose answer stands as given.
    [(status, headers, _)] = exchange(server.port, request("GET", "/mediaitem/9.9"))
    assert status == "HTTP/1.1 404 Not Found"
    assert "server" not in headers


def test_body_size_limit(server):
    # The largest body is read whole: the next request on the connection is
    # answered too.
    raw = request("POST", "/DMS/Device", b"x" * MAX_BODY, close=False) + request("GET", "/DMS/Device")
    replies = exchange(server.port, raw)
    assert [reply[0] for reply in replies] == ["HTTP/1.1 200 OK"] * 2
    too_large = ("POST /DMS/Device HTTP/1.1\r\nHost: test\r\nConnection: close\r\n"
                 f"Content-Length: {MAX_BODY + 1}\r\n\r\n").encode()
    [(status, headers, _)] = exchange(server.port, too_large)
    assert status == "HTTP/1.1 413 Request Entity Too Large"
    assert "server" in headers


def chunked(chunks, close=False):
    head = "POST /DMS/Device HTTP/1.1\r\nHost: test\r\nTransfer-Encoding: Chunked\r\n"
    if close:
        head += "Connection: close\r\n"
    return head.encode() + b"\r\n" + chunks


def test_chunked_bodies(server):
    body = b"x" * 26
    for size_line in (b"1A", b"1a"):
        raw = chunked(size_line + b"\r\n" + body + b"\r\n5\r\nhello\r\n0\r\n\r\n") + request("GET", "/DMS/Device")
        assert [reply[0] for reply in exchange(server.port, raw)] == ["HTTP/1.1 200 OK"] * 2
    # A chunk extension, trailers or a missing chunk end fail the request: the
    # connection closes with no document.
    for chunks in (b"1a;name=value\r\n" + body + b"\r\n0\r\n\r\n",
                   b"5\r\nhello\r\n0\r\nTrailer: x\r\n\r\n",
                   b"5\r\nhelloXX0\r\n\r\n"):
        replies = exchange(server.port, chunked(chunks) + request("GET", "/DMS/Device"))
        assert len(replies) <= 1
        assert all(reply[0] != "HTTP/1.1 200 OK" and not reply[2] for reply in replies)
    # A body that would pass the limit is refused as too large.
    big = b"%x\r\n" % (MAX_BODY + 1) + b"x" * 16
    [(status, _, _)] = exchange(server.port, chunked(big, close=True))
    assert status == "HTTP/1.1 413 Request Entity Too Large"


def envelope(inner):
    return ('<?xml version="1.0"?><s:Envelope xmlns:s="http://schemas.xmlsoap.org/soap/envelope/" '
            's:encodingStyle="http://schemas.xmlsoap.org/soap/encoding/"><s:Body>'
            f"{inner}</s:Body></s:Envelope>").encode()


def test_control_faults(server):
    bodies = [
        envelope(f'<u:Search xmlns:u="{CONTENT_DIRECTORY}"><ObjectID>0</ObjectID></u:Search>'),
        envelope("<u:Browse><ObjectID>0</ObjectID></u:Browse>"),
        b"<Envelope><Body/></Envelope>",
        b"",
    ]
    for body in bodies:
        action = f'"{CONTENT_DIRECTORY}#Browse"'
        raw = request("POST", "/DMS/ContentDirectory/control", body, headers=[f"SOAPAction: {action}"])
        [(status, headers, reply)] = exchange(server.port, raw)
        assert status == "HTTP/1.1 500 Internal Server Error", body
        assert headers["content-type"] == XML_TYPE
        assert "ext" in headers and headers["ext"] == ""
        assert headers["server"] == dms_device.server_line()[len("Server: "):]
        assert reply == FAULT_602
