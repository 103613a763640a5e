# The device's HTTP side: the description document, exact-path dispatch,
# request bodies (limits and chunking) and SOAP faults, all against one
# running server. GUPnP reads both SCPDs in the SSDP tests.
import os
import xml.etree.ElementTree as ET

import pytest

import dms_client
from dms_client import CONTENT_DIRECTORY, XML_TYPE, Client

MAX_BODY = 2097152
DEVICE = "{urn:schemas-upnp-org:device-1-0}"
FAULT_602 = (b'<?xml version="1.0" encoding="UTF-8"?><s:Envelope '
             b'xmlns:s="http://schemas.xmlsoap.org/soap/envelope/" '
             b's:encodingStyle="http://schemas.xmlsoap.org/soap/encoding/"><s:Body><s:Fault>'
             b"<faultcode>s:Client</faultcode><faultstring>UPnPError</faultstring><detail>"
             b'<UPnPError xmlns="urn:schemas-upnp-org:control-1-0"><errorCode>602</errorCode>'
             b"<errorDescription>Optional Action Not Implemented</errorDescription></UPnPError></detail>"
             b"</s:Fault></s:Body></s:Envelope>")


@pytest.fixture(scope="module")
def server(tmp_path_factory):
    started = dms_client.start_server(tmp_path_factory.mktemp("upnp"))
    yield started
    started.stop()


def request(method, path, body=b"", headers=(), close=True):
    lines = [f"{method} {path} HTTP/1.1", "Host: test", *headers]
    lines += [f"Content-Length: {len(body)}"] if body else []
    lines += ["Connection: close"] if close else []
    return ("\r\n".join(lines) + "\r\n\r\n").encode() + body


def replies(port, raw, host="127.0.0.1"):
    return [(r.status, r.headers, r.body) for r in Client(port, host).send(raw).replies()]


def test_description_for_each_local_address_and_method(server):
    for host in ("127.0.0.1", os.environ["DMS_NETNS_ADDR"]):
        # The path is URL-decoded before it is looked up.
        for method, path in (("GET", "/DMS/Device"), ("POST", "/DMS/Device"), ("SUBSCRIBE", "/DMS/%44evic%65")):
            [(status, headers, body)] = replies(server.port, request(method, path), host)
            assert (status, headers["content-type"], headers["server"]) == \
                ("HTTP/1.1 200 OK", XML_TYPE, dms_client.server_token())
            assert "ext" not in headers
            device = ET.fromstring(body).find(DEVICE + "device")
            fields = {child.tag.split("}")[1]: child.text for child in device}
            assert (fields["friendlyName"], fields["manufacturer"], fields["modelDescription"]) == \
                tuple(dms_client.CONFIG_VALUES[key] for key in ("deviceName", "manufacturer", "modelDescription"))
            assert fields["presentationURL"] == f"http://{host}" and fields["UDN"] == "uuid:" + dms_client.udn()
            assert [e.text for e in device if e.tag.endswith("X_DLNADOC")] == ["DMS-1.50", "M-DMS-1.50"]


def test_unknown_paths_are_bad_requests(server):
    for path in ("/DMS/Device/", "/dms/device", "/DMS/ContentDirectory/document/", "/DMS"):
        [(status, headers, _)] = replies(server.port, request("GET", path))
        assert (status, headers["content-type"], headers["content-length"], headers["server"]) == \
            ("HTTP/1.1 400 Bad Request", XML_TYPE, "0", dms_client.server_token()), path
    # Download paths belong to the server's hook, whose answer stands as given.
    [(status, headers, _)] = replies(server.port, request("GET", "/mediaitem/9.9"))
    assert status == "HTTP/1.1 404 Not Found" and "server" not in headers


def test_body_size_limit(server):
    # The largest body is read whole: the next request on the connection is answered too.
    raw = request("POST", "/DMS/Device", b"x" * MAX_BODY, close=False) + request("GET", "/DMS/Device")
    assert [reply[0] for reply in replies(server.port, raw)] == ["HTTP/1.1 200 OK"] * 2
    too_large = request("POST", "/DMS/Device", headers=[f"Content-Length: {MAX_BODY + 1}"])
    [(status, headers, _)] = replies(server.port, too_large)
    assert status == "HTTP/1.1 413 Request Entity Too Large" and "server" in headers


def chunked(chunks, close=False):
    return request("POST", "/DMS/Device", headers=["Transfer-Encoding: Chunked"], close=close) + chunks


def test_chunked_bodies(server):
    body = b"x" * 26
    for size_line in (b"1A", b"1a"):
        raw = chunked(size_line + b"\r\n" + body + b"\r\n5\r\nhello\r\n0\r\n\r\n") + request("GET", "/DMS/Device")
        assert [reply[0] for reply in replies(server.port, raw)] == ["HTTP/1.1 200 OK"] * 2
    # A chunk extension, trailers or a missing chunk end fail the request: the
    # connection closes with no document.
    for chunks in (b"1a;name=value\r\n" + body + b"\r\n0\r\n\r\n", b"5\r\nhello\r\n0\r\nTrailer: x\r\n\r\n",
                   b"5\r\nhelloXX0\r\n\r\n"):
        found = replies(server.port, chunked(chunks) + request("GET", "/DMS/Device"))
        assert len(found) <= 1 and all(reply[0] != "HTTP/1.1 200 OK" and not reply[2] for reply in found)
    # A body that would pass the limit is refused as too large.
    [(status, _, _)] = replies(server.port, chunked(b"%x\r\n" % (MAX_BODY + 1) + b"x" * 16, close=True))
    assert status == "HTTP/1.1 413 Request Entity Too Large"


def envelope(inner):
    return ('<?xml version="1.0"?><s:Envelope xmlns:s="http://schemas.xmlsoap.org/soap/envelope/" '
            f"><s:Body>{inner}</s:Body></s:Envelope>").encode()


def test_control_faults(server):
    for body in (envelope(f'<u:Search xmlns:u="{CONTENT_DIRECTORY}"><ObjectID>0</ObjectID></u:Search>'),
                 envelope("<u:Browse><ObjectID>0</ObjectID></u:Browse>"), b"<Envelope><Body/></Envelope>", b""):
        raw = request("POST", "/DMS/ContentDirectory/control", body,
                      headers=[f'SOAPAction: "{CONTENT_DIRECTORY}#Browse"'])
        [(status, headers, reply)] = replies(server.port, raw)
        assert (status, headers["content-type"], headers["ext"], headers["server"], reply) == \
            ("HTTP/1.1 500 Internal Server Error", XML_TYPE, "", dms_client.server_token(), FAULT_602), body
