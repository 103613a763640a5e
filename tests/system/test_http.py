"""The HTTP server over real sockets, through build/http_test_server.

Routes of the test server: /mem (memory body, ?size=N), /keepalive (?wait=ms
for the next request), /echo (POST: the body back), /gate (?n=N: answers when
N handlers run at once), /chunked (written by the handler itself), /file/exact
and /get-only (exact routes), /file/ (files of the served folder, ?offset= and
?length= make a region of the file the resource), /describe/ (what the request
accessors report), and a default handler that answers "default PATH".
"""
import os
import re
import shutil
import signal
import socket
import subprocess
import threading
import time
from pathlib import Path

import pytest

from conftest import BUILD, listening_tcp_ports

DATA = bytes((i * 7 + i // 256) % 256 for i in range(1000))
BIG_SIZE = 9 * 1024 * 1024 + 12345  # more than two 4 MiB pieces
CONTINUE = b"HTTP/1.1 100 Continue\r\n\r\n"


def big_data():
    block = bytes(range(251))
    return (block * (BIG_SIZE // len(block) + 1))[:BIG_SIZE]


@pytest.fixture
def files(tmp_path):
    folder = tmp_path / "files"
    folder.mkdir()
    (folder / "data.bin").write_bytes(DATA)
    (folder / "page.HTML").write_bytes(b"<p>hi</p>")
    (folder / "big.bin").write_bytes(big_data())
    (tmp_path / "secret.txt").write_bytes(b"outside the served folder")
    return folder


@pytest.fixture
def port(process, files):
    return process("http_test_server", files).wait_port()


class Response:
    def __init__(self, head):
        lines = head.split(b"\r\n")
        self.head = head
        self.status = lines[0].decode()
        self.headers = {}
        self.order = []
        for line in lines[1:]:
            name, value = line.decode().split(": ", 1)
            self.headers[name.lower()] = value
            self.order.append(name)
        self.body = b""

    @property
    def length(self):
        return int(self.headers["content-length"])


class Client:
    """One connection; reads replies one by one."""

    def __init__(self, port, timeout=10.0):
        self.sock = socket.create_connection(("127.0.0.1", port), timeout=timeout)
        self.buffer = b""

    def close(self):
        self.sock.close()

    def send(self, raw):
        self.sock.sendall(raw)

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

    def response(self, body=True):
        while b"\r\n\r\n" not in self.buffer:
            self._fill()
        head, self.buffer = self.buffer.split(b"\r\n\r\n", 1)
        reply = Response(head)
        if body:
            reply.body = self.read_exact(reply.length)
        return reply

    def get(self, target, *headers, method="GET", version="HTTP/1.1"):
        lines = [f"{method} {target} {version}", "Host: test", *headers]
        self.send(("\r\n".join(lines) + "\r\n\r\n").encode())
        return self.response(body=method != "HEAD")

    def closed(self, timeout=3.0):
        """True when the server ends the connection (with nothing more sent) within `timeout`."""
        self.sock.settimeout(timeout)
        try:
            data = self.sock.recv(1 << 16)
        except ConnectionResetError:
            return True
        except socket.timeout:
            return False
        assert data == b"", data[:200]
        return True


def test_range_table_on_a_whole_file(port):
    client = Client(port)
    cases = [
        # Range value, status, Content-Range, body
        (None, "200 OK", None, DATA),
        ("bytes=100-", "206 Partial Content", "bytes 100-999/1000", DATA[100:]),
        ("bytes=0-0", "206 Partial Content", "bytes 0-0/1000", DATA[:1]),
        ("bytes=500-5000", "206 Partial Content", "bytes 500-999/1000", DATA[500:]),
        ("bytes=999-999", "206 Partial Content", "bytes 999-999/1000", DATA[999:]),
        ("bytes=1000-", "200 OK", None, b""),
        ("bytes=1001-", "416 Requested Range Not Satisfiable", None, b""),
        ("bytes=-500", "400 Bad Request", None, b""),
        ("bytes=9-3", "400 Bad Request", None, b""),
        ("bytes=", "206 Partial Content", "bytes 0-999/1000", DATA),
        ("bytes=10-19,30-39", "206 Partial Content", "bytes 10-19/1000", DATA[10:20]),
        ("bytes=0-9223372036854775807", "206 Partial Content", "bytes 0-999/1000", DATA),
    ]
    for value, status, content_range, body in cases:
        reply = client.get("/file/data.bin", *([f"Range: {value}"] if value is not None else []))
        assert (reply.status, reply.headers.get("content-range"), reply.length, reply.body) == \
            ("HTTP/1.1 " + status, content_range, len(body), body), value
        assert (reply.headers["accept-ranges"], reply.headers["connection"]) == ("bytes", "keep-alive"), value

    # The exact header text of a ranged reply.
    client.send(b"GET /file/page.HTML HTTP/1.1\r\nRange: bytes=3-\r\n\r\n")
    reply = client.response()
    assert re.fullmatch(
        rb"HTTP/1\.1 206 Partial Content\r\nDate: [A-Z][a-z]{2}, \d\d [A-Z][a-z]{2} \d{4} \d\d:\d\d:\d\d GMT\r\n"
        rb"Accept-Ranges: bytes\r\nContent-Range: bytes 3-8/9\r\nContent-Type: text/html\r\n"
        rb"Content-Length: 6\r\nConnection: keep-alive", reply.head), reply.head
    assert reply.body == b"hi</p>"


def test_file_region_is_the_resource(port):
    client = Client(port)
    cases = [
        # query, Range value, status, Content-Range, body
        ("offset=100&length=300", None, "200 OK", None, DATA[100:400]),
        ("offset=100&length=300", "bytes=0-9", "206 Partial Content", "bytes 0-9/300", DATA[100:110]),
        ("offset=100&length=300", "bytes=290-", "206 Partial Content", "bytes 290-299/300", DATA[390:400]),
        ("offset=100&length=300", "bytes=250-400", "206 Partial Content", "bytes 250-299/300", DATA[350:400]),
        ("offset=100&length=300", "bytes=300-", "200 OK", None, b""),
        ("offset=100&length=300", "bytes=301-", "416 Requested Range Not Satisfiable", None, b""),
        ("offset=900&length=500", None, "200 OK", None, DATA[900:]),
        ("offset=900", "bytes=0-", "206 Partial Content", "bytes 0-99/100", DATA[900:]),
        ("offset=5000", None, "200 OK", None, b""),
        ("offset=-5&length=-3", "bytes=0-1", "206 Partial Content", "bytes 0-1/1000", DATA[:2]),
    ]
    for query, value, status, content_range, body in cases:
        reply = client.get(f"/file/data.bin?{query}", *([f"Range: {value}"] if value else []))
        assert (reply.status, reply.headers.get("content-range"), reply.body) == \
            ("HTTP/1.1 " + status, content_range, body), (query, value)


def test_head_sends_the_headers_without_body(port):
    client = Client(port)
    for target, headers in [("/file/data.bin", ["Range: bytes=10-"]), ("/mem", [])]:
        head = client.get(target, *headers, method="HEAD")
        get = client.get(target, *headers)
        assert head.status == get.status
        assert head.order == get.order
        assert {k: v for k, v in head.headers.items() if k != "date"} == \
               {k: v for k, v in get.headers.items() if k != "date"}
        assert head.length == len(get.body) > 0
    # Nothing followed the last HEAD reply: the next reply starts right away.
    assert client.get("/mem", method="HEAD").status == "HTTP/1.1 200 OK"
    assert client.get("/mem").body == b"hello from memory\n"


def test_keep_alive_follows_version_and_connection(port):
    old = Client(port)
    reply = old.get("/mem", version="HTTP/1.0")
    assert reply.status == "HTTP/1.0 200 OK"
    assert reply.headers["connection"] == "close"
    assert old.closed()

    old_kept = Client(port)
    assert old_kept.get("/mem", "Connection: Keep-Alive", version="HTTP/1.0").headers["connection"] == "keep-alive"
    assert old_kept.get("/mem", version="HTTP/1.0").headers["connection"] == "close"
    assert old_kept.closed()

    closing = Client(port)
    assert closing.get("/mem", "Connection: close").headers["connection"] == "close"
    assert closing.closed()

    # Two requests in one segment: the header reader takes exactly one block at a time.
    pipelined = Client(port)
    pipelined.send(b"GET /mem HTTP/1.1\r\n\r\nGET /file/exact HTTP/1.1\r\nConnection: close\r\n\r\n")
    assert pipelined.response().body == b"hello from memory\n"
    assert pipelined.response().body == b"exact"
    assert pipelined.closed()

    # No version at all: the status line starts with the empty version, and the connection closes.
    bare = Client(port)
    bare.send(b"GET /mem\r\n\r\n")
    reply = bare.response()
    assert reply.status == " 200 OK"
    assert bare.closed()


def test_expect_continue_and_request_bodies(port):
    client = Client(port)
    client.send(b"POST /echo HTTP/1.0\r\nConnection: keep-alive\r\nExpect: 100-continue\r\nContent-Length: 11\r\n\r\n")
    assert client.read_exact(len(CONTINUE)) == CONTINUE
    client.send(b"hello world")
    reply = client.response()
    assert reply.status == "HTTP/1.0 200 OK"
    assert reply.body == b"hello world"

    # A body sent with its header stays in the socket for the handler, and the
    # request after it is read as the next request.
    client.send(b"POST /echo HTTP/1.1\r\nContent-Length: 4\r\n\r\nabcdGET /mem HTTP/1.1\r\n\r\n")
    assert client.response().body == b"abcd"
    assert client.response().body == b"hello from memory\n"
    assert client.buffer == b""


def test_header_block_size_limit(port):
    def block(size):
        start = b"GET /mem HTTP/1.1\r\nX-Pad: "
        return start + b"x" * (size - len(start) - 4) + b"\r\n\r\n"

    fits = Client(port)
    fits.send(block(8192))
    assert fits.response().body == b"hello from memory\n"

    for size in (8193, 20000):
        too_long = Client(port)
        too_long.send(block(size))
        assert too_long.closed(), size


def test_idle_connections_are_dropped(port):
    """Waits run in parallel; each result is the time until the server closed."""
    results = {}

    def wait_after(name, target=None):
        client = Client(port, timeout=20)
        if target:
            client.get(target)
        start = time.monotonic()
        assert client.closed(timeout=20)
        results[name] = time.monotonic() - start

    def unterminated_block():
        # A block that stops without its blank line is parsed as it stands
        # after a pause, and answered again on every pass since it stays unread.
        client = Client(port, timeout=20)
        start = time.monotonic()
        client.send(b"GET /mem HTTP/1.1\r\nHost: x")
        first = client.response()
        results["unterminated"] = time.monotonic() - start
        second = client.response()
        results["replies"] = [first.body, second.body]

    threads = [threading.Thread(target=wait_after, args=args) for args in
               (("first",), ("keep-alive", "/mem"), ("handler", "/keepalive?wait=1500"))]
    threads.append(threading.Thread(target=unterminated_block))
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert 4.0 <= results["first"] <= 8.0, results
    assert 9.0 <= results["keep-alive"] <= 13.0, results
    assert 1.0 <= results["handler"] <= 4.0, results
    assert 1.5 <= results["unterminated"] <= 5.0, results
    assert results["replies"] == [b"hello from memory\n"] * 2


def test_without_handler_tables_everything_is_404(process):
    port = process("http_test_server", "--none").wait_port()
    client = Client(port)
    for method, target in [("GET", "/"), ("POST", "/mem"), ("BREW", "/file/data.bin")]:
        reply = client.get(target, method=method)
        assert reply.status == "HTTP/1.1 404 Not Found"
        assert reply.length == 0
        assert "content-type" not in reply.headers
        assert "accept-ranges" not in reply.headers


def test_dispatch_order_and_decoding(port):
    client = Client(port)
    assert client.get("/file/exact").body == b"exact"                     # exact before prefix
    assert client.get("/file%2Fdata.bin").body == DATA                    # decoded before dispatch
    assert client.get("/get-only").body == b"get only"
    assert client.get("/get-only", method="POST").body == b"default /get-only"  # method rule
    assert client.get("/mem/more").body == b"default /mem/more"          # exact means exact
    assert client.get("/MEM").body == b"default /MEM"                    # case-sensitive
    reply = client.get("/file/missing.bin")                                # handler declines
    assert (reply.status, reply.length) == ("HTTP/1.1 404 Not Found", 0)
    assert client.get("/file/../secret.txt").status == "HTTP/1.1 404 Not Found"
    assert client.get("/file/../files/data.bin").body == DATA

    reply = client.get("/describe/a+b%2Fc%41?q=%41+1", "Authorization: Basic dXNlcjpwYXNz",
                       "Content-Length: 0", method="propfind")
    fields = dict(line.split("=", 1) for line in reply.body.decode().splitlines())
    local_host, local_port = client.sock.getsockname()
    assert fields == {"method": "12", "methodString": "propfind", "path": "/describe/a+b/cA",
                      "entryPath": "/describe/", "query": "q=%41+1", "user": "user", "password": "pass",
                      "version": "HTTP/1.1", "contentLength": "0", "host": "test", "headerCount": "3",
                      "peer": f"{local_host}:{local_port}",
                      "sock": f"127.0.0.1:{port}", "connected": "1"}

    client.send(b"GET /chunked HTTP/1.1\r\n\r\n")
    raw = b""
    while True:
        data = client.sock.recv(4096)
        if not data:
            break
        raw += data
    assert raw == (b"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\nConnection: close\r\n\r\n"
                   b"5\r\nhello\r\n6\r\n world\r\n0\r\n\r\n")


def test_large_bodies_in_pieces(port):
    big = big_data()
    client = Client(port, timeout=30)
    reply = client.get("/file/big.bin")
    assert reply.length == BIG_SIZE
    assert reply.body == big
    start, end = 4 * 1024 * 1024 - 100, 8 * 1024 * 1024 + 100
    reply = client.get("/file/big.bin", f"Range: bytes={start}-{end}")
    assert reply.headers["content-range"] == f"bytes {start}-{end}/{BIG_SIZE}"
    assert reply.body == big[start:end + 1]
    reply = client.get(f"/mem?size={BIG_SIZE}")
    assert reply.length == BIG_SIZE
    assert reply.body == (bytes(range(ord("a"), ord("z") + 1)) * (BIG_SIZE // 26 + 1))[:BIG_SIZE]


@pytest.mark.skipif(shutil.which("strace") is None, reason="needs strace")
def test_file_bodies_go_out_with_sendfile(files, tmp_path):
    log = tmp_path / "trace"
    tracer = subprocess.Popen(["strace", "-f", "-qq", "-e", "trace=/^sendfile(64)?$", "-o", str(log),
                               str(BUILD / "http_test_server"), str(files)],
                              stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    try:
        deadline = time.monotonic() + 10
        server, ports = None, []
        while not ports and time.monotonic() < deadline:
            children = Path(f"/proc/{tracer.pid}/task/{tracer.pid}/children").read_text().split()
            server = int(children[0]) if children else None
            ports = listening_tcp_ports(server) if server else []
            time.sleep(0.05)
        assert ports
        client = Client(ports[0], timeout=30)
        assert client.get("/file/big.bin", "Range: bytes=10-").body == big_data()[10:]
        client.close()
        os.kill(server, signal.SIGTERM)
        tracer.wait(timeout=10)
    finally:
        if tracer.poll() is None:
            tracer.kill()
            tracer.wait()
    calls = [line for line in log.read_text().splitlines() if "sendfile" in line]  # sendfile64 on 32 bits
    # Pieces of at most 4 MiB, starting at the range offset.
    counts = [int(m.group(1)) for m in (re.search(r"sendfile(?:64)?\(\d+, \d+, \[\d+\] => \[\d+\], (\d+)\)", c)
                                        for c in calls) if m]
    assert counts and max(counts) <= 4 * 1024 * 1024
    assert any(", [10] => [" in c for c in calls), calls[:3]


def test_concurrent_slow_clients_do_not_block_each_other(port):
    slow = [Client(port) for _ in range(20)]
    for client in slow:
        client.send(b"GET /gate?n=20 HTTP/1.1\r\n")  # header block not finished yet
    # Twenty connections sit in the middle of their headers; another is served at once.
    assert Client(port).get("/mem").body == b"hello from memory\n"
    for client in slow:
        client.send(b"Host: x\r\n\r\n")
    # Each gate handler answers "together" only when all twenty run at the same time.
    assert [client.response().body for client in slow] == [b"together"] * 20


def test_stop_returns_promptly(process, files):
    server = process("http_test_server", files)
    port = server.wait_port()
    idle = Client(port)  # a connection thread still running does not hold the stop up
    assert Client(port).get("/mem").status == "HTTP/1.1 200 OK"
    out, status = server.stop(timeout=3)
    assert (out, status) == ("", 0)
    idle.close()

    quiet = process("http_test_server", files)
    quiet.wait_port()
    assert quiet.stop(timeout=3) == ("", 0)
