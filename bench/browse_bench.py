"""Browse benchmark on the library of bench/reallib.py: 10,000 real media files
(made by ffmpeg, lame, flac, ImageMagick and exiftool where installed:
`tools/install-deps bench`), a folder of 1,000 of 12 formats among them, and
7,000 in All Music. A client in the peer namespace times, over the
link: Browse of the folder's 1,000 children with the page cache warm, the same
with the page cache dropped before each request (root), and the whole All
Music view; beside them, in the same run, the raw loop (lstat + open + read
4 KB + close, in C: scan_bench --raw-loop) over the same 1,000 files, warm and
cold. Medians of wall times; targets are reported, never asserted.
--quick: a few byte-built files and one round of each, to show that it works.
Run: tools/netns-run /usr/bin/python3 bench/browse_bench.py [--quick]"""
import json
import os
import re
import socket
import statistics
import subprocess
import sys
import tempfile
import time
from pathlib import Path

import reallib
from benchlib import BUILD, Dms, dms_client, require_namespace, verdict

ROUNDS = {"warm": 21, "cold": 5, "view": 11}
QUICK_ROUNDS = {"warm": 1, "cold": 1, "view": 1}
TARGET_WARM_SHARE = 1.0   # warm Browse against the warm raw loop
TARGET_COLD_SHARE = 0.2   # cold Browse against the cold raw loop
TARGET_VIEW_US = 4.0      # per item of the whole view
NO_RESCAN_SECONDS = 3600  # no periodic rescan of the library during the timed runs
SCAN_TIMEOUT = 300
RECV_SIZE = 1 << 20
LAST_CHUNK = b"\r\n0\r\n\r\n"  # the CRLF that ends the tail chunk, then the empty last chunk


def wait_listed(port, folder_files, view_items):
    """The id of the folder once the scan lists it whole and All Music is full."""
    deadline = time.monotonic() + SCAN_TIMEOUT
    while time.monotonic() < deadline:
        match = [o for o in dms_client.browse(port, "0.1")[1] if o.get("dc:title") == "Thousand"]
        if match and dms_client.browse(port, match[0]["id"], count=1)[3] == folder_files and \
                dms_client.browse(port, "0.10", count=1)[3] == view_items:
            return match[0]["id"]
        time.sleep(0.5)
    sys.exit("the scan did not list the library in time")


def drop_caches():
    os.sync()
    Path("/proc/sys/vm/drop_caches").write_text("3")


def timed(conn, raw):
    """Seconds from sending `raw` to the last byte of the chunked reply, and the reply."""
    reply = bytearray()
    view = memoryview(bytearray(RECV_SIZE))
    start = time.perf_counter()
    conn.sendall(raw)
    while not reply.endswith(LAST_CHUNK):
        count = conn.recv_into(view)
        if not count:
            raise ConnectionError("closed inside the reply")
        reply += view[:count]
    return time.perf_counter() - start, bytes(reply)


def client(host, port, folder_id, rounds):
    """Runs in the peer namespace: the timings of each kind, as JSON on stdout."""
    def request(object_id):
        raw = dms_client.soap("Browse", dms_client.browse_arguments(object_id, count=0))
        return raw.replace(b"Connection: close", b"Connection: keep-alive")

    kinds = {"warm": request(folder_id), "cold": request(folder_id), "view": request("0.10")}
    found = {}
    with socket.create_connection((host, port), timeout=60) as conn:
        timed(conn, kinds["warm"])  # warms the page cache and the server
        for kind, raw in kinds.items():
            times = []
            for _ in range(rounds[kind]):
                if kind == "cold":
                    drop_caches()
                elapsed, reply = timed(conn, raw)
                assert reply.startswith(b"HTTP/1.1 200 OK\r\n"), reply[:100]
                times.append(elapsed)
            returned = re.search(rb"<NumberReturned>(\d+)</NumberReturned>", reply)
            found[kind] = {"seconds": times, "returned": int(returned.group(1)), "bytes": len(reply)}
    print(json.dumps(found))


def raw_loop(folder, cold):
    """Median wall milliseconds of the raw loop over the folder's files."""
    out = subprocess.run([str(BUILD / "scan_bench"), "--raw-loop", str(folder), *(["--cold"] if cold else [])],
                         check=True, capture_output=True, text=True).stdout
    match = re.search(r"median ([0-9.]+) ms wall", out)
    if not match:
        sys.exit(f"unexpected raw loop output: {out!r}")
    return float(match.group(1))


def main():
    if sys.argv[1:2] == ["--client"]:
        host, port, folder_id, rounds = sys.argv[2], int(sys.argv[3]), sys.argv[4], json.loads(sys.argv[5])
        return client(host, port, folder_id, rounds)
    require_namespace()
    quick = sys.argv[1:] == ["--quick"]
    shape = reallib.QUICK if quick else reallib.FULL
    folder_files, view_items = shape.folder_files, shape.audio_files
    rounds = QUICK_ROUNDS if quick else ROUNDS
    with tempfile.TemporaryDirectory(prefix="dms-browse-bench-", dir=os.environ.get("BENCH_DIR", "/tmp")) as temp:
        root = Path(temp)
        folder, real = reallib.library(root, BUILD, shape)
        server = Dms(root / "server", f'path = "{root / "media"}"\nrefreshInterval = "{NO_RESCAN_SECONDS}"\n')
        try:
            port = server.wait_ready()
            folder_id = wait_listed(port, folder_files, view_items)
            peer = ["ip", "netns", "exec", os.environ["DMS_NETNS_PEER"], "/usr/bin/python3", __file__, "--client",
                    os.environ["DMS_NETNS_ADDR"], str(port), folder_id, json.dumps(rounds)]
            found = json.loads(subprocess.run(peer, check=True, capture_output=True, text=True).stdout)
            raw_warm, raw_cold = raw_loop(folder, False), raw_loop(folder, True)
        finally:
            server.stop()

    assert found["warm"]["returned"] == found["cold"]["returned"] == folder_files, found
    assert found["view"]["returned"] == view_items, found
    warm, cold, whole = (statistics.median(found[k]["seconds"]) * 1000.0 for k in ("warm", "cold", "view"))
    per_item_us = whole * 1000.0 / view_items
    print(f"browse_bench: {shape.files} files; a folder of {folder_files} files of {len(reallib.EXTENSIONS)} formats, "
          f"All Music of {view_items} "
          f"items; Browse from the peer namespace over the link, medians of "
          f"{rounds['warm']} warm, {rounds['cold']} cold and {rounds['view']} whole-view requests"
          f"{' (quick mode)' if quick else ''}")
    print(f"real files from installed tools: {', '.join(real) or 'none (all byte-built)'}")
    print("| measurement | median ms | target |")
    print("| --- | ---: | --- |")
    print(f"| Browse of {folder_files} children, page cache warm | {warm:.2f} | "
          f"<= the warm raw loop: {verdict(warm <= TARGET_WARM_SHARE * raw_warm)} ({warm / raw_warm:.2f}) |")
    print(f"| raw loop over the same files, warm | {raw_warm:.2f} | reference |")
    print(f"| Browse of {folder_files} children, page cache dropped before each | {cold:.2f} | "
          f"<= {TARGET_COLD_SHARE} of the cold raw loop: {verdict(cold <= TARGET_COLD_SHARE * raw_cold)} "
          f"({cold / raw_cold:.3f}) |")
    print(f"| raw loop over the same files, cold | {raw_cold:.2f} | reference |")
    print(f"| whole All Music view, {view_items} items ({found['view']['bytes'] / 1e6:.1f} MB) | {whole:.2f} | "
          f"<= {TARGET_VIEW_US:.0f} us an item: {verdict(per_item_us <= TARGET_VIEW_US)} ({per_item_us:.2f} us) |")


if __name__ == "__main__":
    main()
