"""A small control point for the tests: SOAP actions over raw sockets, the
chunked framing decoded by hand, and DIDL-Lite results parsed into dicts."""
import socket
import xml.etree.ElementTree as ET

CONTENT_DIRECTORY = "urn:schemas-upnp-org:service:ContentDirectory:1"
DIDL = "{urn:schemas-upnp-org:metadata-1-0/DIDL-Lite/}"
DC = "{http://purl.org/dc/elements/1.1/}"
UPNP = "{urn:schemas-upnp-org:metadata-1-0/upnp/}"


def read_reply(conn, expect_body=True):
    """Reads one HTTP reply: (status line, headers dict, body, chunk sizes)."""
    data = b""
    while b"\r\n\r\n" not in data:
        more = conn.recv(65536)
        if not more:
            raise ConnectionError(f"closed after {data!r}")
        data += more
    head, _, rest = data.partition(b"\r\n\r\n")
    lines = head.decode().split("\r\n")
    headers = {}
    for line in lines[1:]:
        name, _, value = line.partition(":")
        headers[name.strip().lower()] = value.strip()

    def need(count):
        nonlocal rest
        while len(rest) < count:
            more = conn.recv(65536)
            if not more:
                raise ConnectionError("closed inside the body")
            rest += more

    if not expect_body:
        return lines[0], headers, rest, None
    if headers.get("transfer-encoding") != "chunked":
        length = int(headers.get("content-length", "0"))
        need(length)
        return lines[0], headers, rest[:length], None
    body, sizes = b"", []
    while True:
        while b"\r\n" not in rest:
            need(len(rest) + 1)
        size_line, _, rest = rest.partition(b"\r\n")
        size = int(size_line, 16)
        sizes.append(size)
        need(size + 2)
        assert rest[size:size + 2] == b"\r\n", "chunk not followed by CRLF"
        body += rest[:size]
        rest = rest[size + 2:]
        if size == 0:
            return lines[0], headers, body, sizes


def exchange(port, raw, host="127.0.0.1", expect_body=True):
    with socket.create_connection((host, port), timeout=10) as conn:
        conn.sendall(raw)
        return read_reply(conn, expect_body)


def soap_request(action, arguments, service=CONTENT_DIRECTORY, method="POST", path="/DMS/ContentDirectory/control",
                 connection="close"):
    inner = "".join(f"<{name}>{value}</{name}>" for name, value in arguments)
    body = ('<?xml version="1.0"?><s:Envelope xmlns:s="http://schemas.xmlsoap.org/soap/envelope/" '
            's:encodingStyle="http://schemas.xmlsoap.org/soap/encoding/"><s:Body>'
            f'<u:{action} xmlns:u="{service}">{inner}</u:{action}></s:Body></s:Envelope>').encode()
    head = (f"{method} {path} HTTP/1.1\r\nHost: test\r\nContent-Type: text/xml; charset=\"utf-8\"\r\n"
            f"SOAPACTION: \"{service}#{action}\"\r\nContent-Length: {len(body)}\r\nConnection: {connection}\r\n\r\n")
    return head.encode() + body


def browse_raw(port, object_id, flag="BrowseDirectChildren", filt="*", start=0, count=0, method="POST",
               extra=None, host="127.0.0.1"):
    arguments = [("ObjectID", object_id), ("BrowseFlag", flag), ("Filter", filt),
                 ("StartingIndex", start), ("RequestedCount", count), ("SortCriteria", "")]
    return exchange(port, soap_request("Browse", extra if extra is not None else arguments, method=method),
                    host=host, expect_body=method != "HEAD")


def browse(port, object_id, **kwargs):
    """Browse result: (didl text, objects, NumberReturned, TotalMatches, UpdateID, chunk sizes)."""
    status, headers, body, sizes = browse_raw(port, object_id, **kwargs)
    assert status == "HTTP/1.1 200 OK", (status, body)
    envelope = ET.fromstring(body)
    response = envelope.find(".//{%s}BrowseResponse" % CONTENT_DIRECTORY)
    values = {child.tag: child.text or "" for child in response}
    didl = values["Result"]
    objects = [didl_object(node) for node in ET.fromstring(didl)]
    return (didl, objects, int(values["NumberReturned"]), int(values["TotalMatches"]),
            int(values["UpdateID"]), sizes)


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


def get(port, path, headers=("Host: test",), method="GET", host="127.0.0.1"):
    lines = [f"{method} {path} HTTP/1.1", *headers, "Connection: close"]
    return exchange(port, ("\r\n".join(lines) + "\r\n\r\n").encode(), host, expect_body=method != "HEAD")
