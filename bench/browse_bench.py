"""Browse benchmark on the library of bench/reallib.py: 10,000 real media files
(made by ffmpeg, lame, flac, ImageMagick and exiftool where installed:
`tools/install-deps bench`), a folder of 1,000 of 12 formats among them, and
7,000 in All Music. A client in the peer namespace times, over the link, warm
Browses of the folder and of the All Music view: the folder's 1,000 children,
the view's first 1,000, a client's page of 50 from the middle of each, and the
whole view; beside them the folder's 1,000 with the page cache dropped before
each request (root). The server's CPU time per Browse (all its threads, from
/proc) is taken around each kind, and its resident memory once the scan has
listed everything. In the same run the raw loop (lstat + open + read 4 KB +
close, in C: scan_bench --raw-loop) goes over the same 1,000 files, warm and
cold. Medians of wall times; targets are reported, never asserted.
--large: 100,000 files, 70,000 of them in All Music (resident memory per
file against the peer's, and the whole view of 70,000).
--quick: a few byte-built files and one round of each, to show that it works.
The server runs with watchChanges on, as the package sets it (items are then
described from their memos without a stat while the watch reports no change);
--watch-off: without it, every item looked at on every Browse.
Run: tools/netns-run /usr/bin/python3 bench/browse_bench.py [--quick | --large] [--watch-off]"""
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

LARGE = reallib.Shape(100000, 1000, 70000)
PAGE = 50                  # a client's page, as a television asks while it scrolls
ROUNDS = {"folder": 21, "view page": 21, "folder 50": 41, "view 50": 41, "cold": 5, "view": 11}
QUICK_ROUNDS = dict.fromkeys(ROUNDS, 1)
LARGE_ROUNDS = {**ROUNDS, "view": 5}
TARGET_PAGE_MS = 1.0       # 1,000 items, warm
TARGET_COLD_SHARE = 0.2    # cold Browse against the cold raw loop
TARGET_VIEW_US = 1.0       # per item of the whole view
TARGET_LARGE_BYTES = 300   # resident bytes per file at 100,000 files: the peer's main process
NO_RESCAN_SECONDS = 3600   # no periodic rescan of the library during the timed runs
SCAN_TIMEOUT = 1800
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


def requests(folder_id, folder_files, view_items):
    """Each kind of Browse: (object id, StartingIndex, RequestedCount)."""
    return {"folder": (folder_id, 0, 0), "view page": ("0.10", 0, folder_files),
            "folder 50": (folder_id, folder_files // 2, PAGE), "view 50": ("0.10", view_items // 2, PAGE),
            "cold": (folder_id, 0, 0), "view": ("0.10", 0, 0)}


def client(host, port, kinds, rounds):
    """Runs in the peer namespace: the timings of each kind, as JSON on stdout.
    Before and after each kind it says so on stdout and waits for a line on
    stdin, while the caller reads the server's CPU time."""
    def request(object_id, start, count):
        raw = dms_client.soap("Browse", dms_client.browse_arguments(object_id, start=start, count=count))
        return raw.replace(b"Connection: close", b"Connection: keep-alive")

    def handshake(word):
        print(word, flush=True)
        sys.stdin.readline()

    found = {}
    with socket.create_connection((host, port), timeout=600) as conn:
        timed(conn, request(*kinds["folder"]))  # warms the page cache and the server
        for kind, arguments in kinds.items():
            raw = request(*arguments)
            timed(conn, raw)
            times = []
            handshake("start")
            for _ in range(rounds[kind]):
                if kind == "cold":
                    drop_caches()
                elapsed, reply = timed(conn, raw)
                assert reply.startswith(b"HTTP/1.1 200 OK\r\n"), reply[:100]
                times.append(elapsed)
            handshake("stop")
            returned = re.search(rb"<NumberReturned>(\d+)</NumberReturned>", reply)
            found[kind] = {"seconds": times, "returned": int(returned.group(1)), "bytes": len(reply)}
    print(json.dumps(found), flush=True)


def cpu_seconds(pid):
    """CPU time of every thread of the process so far (/proc/PID/task/*/schedstat)."""
    total = 0
    for task in Path(f"/proc/{pid}/task").iterdir():
        try:
            total += int((task / "schedstat").read_text().split()[0])
        except (OSError, IndexError):  # a thread that ended meanwhile
            continue
    return total / 1e9


def resident_bytes(pid):
    status = Path(f"/proc/{pid}/status").read_text()
    return int(re.search(r"VmRSS:\s+(\d+) kB", status).group(1)) * 1024


def run_client(pid, argv, kinds):
    """Runs the client; returns its timings with the server's CPU seconds per kind."""
    peer = subprocess.Popen(argv, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
    cpu = {}
    for kind in kinds:
        for word in ("start", "stop"):
            line = peer.stdout.readline().strip()
            if line != word:
                sys.exit(f"the client said {line!r}")
            cpu.setdefault(kind, []).append(cpu_seconds(pid))
            peer.stdin.write("\n")
            peer.stdin.flush()
    found = json.loads(peer.stdout.read())
    if peer.wait() != 0:
        sys.exit("the client failed")
    for kind, (before, after) in cpu.items():
        found[kind]["cpu"] = (after - before) / len(found[kind]["seconds"])
    return found


def raw_loop(folder, cold):
    """Median wall milliseconds of the raw loop over the folder's files."""
    out = subprocess.run([str(BUILD / "scan_bench"), "--raw-loop", str(folder), *(["--cold"] if cold else [])],
                         check=True, capture_output=True, text=True).stdout
    match = re.search(r"median ([0-9.]+) ms wall", out)
    if not match:
        sys.exit(f"unexpected raw loop output: {out!r}")
    return float(match.group(1))


def report(shape, rounds, found, memory, raw_warm, raw_cold, mode):
    folder_files, view_items = shape.folder_files, shape.audio_files
    ms = {kind: statistics.median(entry["seconds"]) * 1000.0 for kind, entry in found.items()}
    cpu = {kind: entry["cpu"] * 1000.0 for kind, entry in found.items()}
    print(f"browse_bench: {shape.files} files; a folder of {folder_files} files of {len(reallib.EXTENSIONS)} formats, "
          f"All Music of {view_items} items; Browse from the peer namespace over the link, medians of "
          f"{rounds['folder']} warm, {rounds['cold']} cold and {rounds['view']} whole-view requests{mode}")
    print(f"load average at the end: {os.getloadavg()[0]:.1f}")
    print("| Browse, page cache warm | items | median ms | us an item | server CPU ms | target |")
    print("| --- | ---: | ---: | ---: | ---: | --- |")
    rows = [("folder", f"folder, all {folder_files} children", True), ("view page", f"All Music, the first {folder_files}", True),
            ("folder 50", f"folder, a page from index {folder_files // 2}", False),
            ("view 50", f"All Music, a page from index {view_items // 2}", False),
            ("view", f"the whole All Music view ({found['view']['bytes'] / 1e6:.1f} MB)", False)]
    for kind, label, paged in rows:
        count = found[kind]["returned"]
        per_item = ms[kind] * 1000.0 / count
        target = ""
        if paged:
            target = f"<= {TARGET_PAGE_MS:g} ms: {verdict(ms[kind] <= TARGET_PAGE_MS)}"
        elif kind == "view":
            target = f"<= {TARGET_VIEW_US:g} us an item: {verdict(per_item <= TARGET_VIEW_US)}"
        print(f"| {label} | {count} | {ms[kind]:.2f} | {per_item:.2f} | {cpu[kind]:.2f} | {target} |")
    print(f"| raw loop over the folder's files, warm | {folder_files} | {raw_warm:.2f} | "
          f"{raw_warm * 1000.0 / folder_files:.2f} | | reference |")
    print(f"| folder, page cache dropped before each | {folder_files} | {ms['cold']:.2f} | "
          f"{ms['cold'] * 1000.0 / folder_files:.2f} | {cpu['cold']:.2f} | <= {TARGET_COLD_SHARE} of the cold raw loop: "
          f"{verdict(ms['cold'] <= TARGET_COLD_SHARE * raw_cold)} ({ms['cold'] / raw_cold:.3f}) |")
    print(f"| raw loop over the folder's files, cold | {folder_files} | {raw_cold:.2f} | | | reference |")
    per_file = memory / shape.files
    target = f" (<= {TARGET_LARGE_BYTES}: {verdict(per_file <= TARGET_LARGE_BYTES)})" if shape == LARGE else ""
    print(f"resident memory once the library is listed: {memory / 2**20:.1f} MiB, {per_file:.0f} bytes a file{target}")


def main():
    if sys.argv[1:2] == ["--client"]:
        host, port, kinds, rounds = sys.argv[2], int(sys.argv[3]), json.loads(sys.argv[4]), json.loads(sys.argv[5])
        return client(host, port, kinds, rounds)
    require_namespace()
    watch = "--watch-off" not in sys.argv[1:]
    options = [argument for argument in sys.argv[1:] if argument != "--watch-off"]
    mode = options[0] if options in (["--quick"], ["--large"]) else ""
    shape = {"--quick": reallib.QUICK, "--large": LARGE}.get(mode, reallib.FULL)
    rounds = {"--quick": QUICK_ROUNDS, "--large": LARGE_ROUNDS}.get(mode, ROUNDS)
    with tempfile.TemporaryDirectory(prefix="dms-browse-bench-", dir=os.environ.get("BENCH_DIR", "/tmp")) as temp:
        root = Path(temp)
        folder, real = reallib.library(root, BUILD, shape)
        server = Dms(root / "server", f'path = "{root / "media"}"\nrefreshInterval = "{NO_RESCAN_SECONDS}"\n'
                                      f'watchChanges = "{"on" if watch else "off"}"\n')
        try:
            port = server.wait_ready()
            folder_id = wait_listed(port, shape.folder_files, shape.audio_files)
            memory = resident_bytes(server.pid)
            kinds = requests(folder_id, shape.folder_files, shape.audio_files)
            peer = ["ip", "netns", "exec", os.environ["DMS_NETNS_PEER"], "/usr/bin/python3", __file__, "--client",
                    os.environ["DMS_NETNS_ADDR"], str(port), json.dumps(kinds), json.dumps(rounds)]
            found = run_client(server.pid, peer, kinds)
            raw_warm, raw_cold = raw_loop(folder, False), raw_loop(folder, True)
        finally:
            server.stop()

    expected = {"folder": shape.folder_files, "cold": shape.folder_files, "view page": shape.folder_files,
                "folder 50": min(PAGE, shape.folder_files - shape.folder_files // 2),
                "view 50": min(PAGE, shape.audio_files - shape.audio_files // 2), "view": shape.audio_files}
    assert {kind: entry["returned"] for kind, entry in found.items()} == expected, found
    print(f"real files from installed tools: {', '.join(real) or 'none (all byte-built)'}")
    report(shape, rounds, found, memory, raw_warm, raw_cold,
           (f" ({mode[2:]} mode)" if mode else "") + f"; watchChanges {'on' if watch else 'off'}")


if __name__ == "__main__":
    main()
