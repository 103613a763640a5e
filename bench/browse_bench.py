"""Browse benchmark: one folder of 1,000 small media files of mixed formats,
browsed whole (RequestedCount 0) and in pages of 50 over one keep-alive
connection, and whole again on a new connection per request; beside it, in
the same run, the raw loop (lstat + open + read 4 KB + close, in C, by
scan_bench --raw-loop) over the same files. The target compares the server's
CPU time per Browse of 1,000 children with the raw loop's CPU time, since other
jobs on the machine stretch wall times. Page cache is warm (one untimed pass of
each first). Files of a format that an installed tool makes (bench/reallib.py:
ffmpeg, lame, flac, ImageMagick, exiftool) are real ones; the others are the
byte-built demo files. Run: tools/netns-run /usr/bin/python3 bench/browse_bench.py"""
import os
import re
import shutil
import socket
import subprocess
import sys
import tempfile
import time
from pathlib import Path

import reallib
from benchlib import BUILD, Dms, dms_client, median_ms, require_namespace, verdict

FILES = 1000
PAGE = 50
ROUNDS = 100  # timed whole-folder Browses (and walks of 20 pages) per mode
TARGET_MS = 10.0
TARGET_RAW_SHARE = 1.5  # Browse CPU time against the raw loop's
NO_RESCAN_SECONDS = 3600  # no periodic rescan of the library during the timed runs
SCAN_TIMEOUT = 60
RECV_SIZE = 1 << 20
LAST_CHUNK = b"\r\n0\r\n\r\n"  # the CRLF that ends the tail chunk, then the empty last chunk
EXTENSIONS = (".mp3", ".m4a", ".mp4", ".mkv", ".flac", ".wav", ".jpg", ".png", ".gif", ".tif", ".avi", ".mov")


def build_library(root):
    demo = root / "demo"
    subprocess.run([str(BUILD / "dms-mkdemo"), str(demo)], check=True, stdout=subprocess.DEVNULL)
    sources = sorted(p for p in demo.rglob("*") if p.is_file() and p.suffix.lower() in EXTENSIONS)
    real = reallib.make(root / "real")
    sources = [real.get(p.suffix.lower(), p) for p in sources]
    folder = root / "media" / "Thousand"
    folder.mkdir(parents=True)
    for index in range(FILES):
        source = sources[index % len(sources)]
        shutil.copy(source, folder / f"item {index:04d}{source.suffix}")
    shutil.rmtree(demo)
    return folder, len({p.suffix.lower() for p in sources}), sorted(real)


def request(index_start, count, folder_id, connection):
    arguments = [("ObjectID", folder_id), ("BrowseFlag", "BrowseDirectChildren"), ("Filter", "*"),
                 ("StartingIndex", index_start), ("RequestedCount", count), ("SortCriteria", "")]
    return dms_client.soap_request("Browse", arguments, connection=connection)


def timed(conn, raw):
    """Seconds from sending `raw` to the last byte of the chunked reply, and the
    reply. The test client's decoder copies the body once per chunk, which
    would cost more than the server's work here, so the reply is collected in
    one buffer and only its end is looked at while the clock runs."""
    reply = bytearray()
    view = memoryview(bytearray(RECV_SIZE))
    start = time.perf_counter()
    conn.sendall(raw)
    while not reply.endswith(LAST_CHUNK):
        count = conn.recv_into(view)
        if not count:
            raise ConnectionError("closed inside the reply")
        reply += view[:count]
    elapsed = time.perf_counter() - start
    assert reply.startswith(b"HTTP/1.1 200 OK\r\n"), bytes(reply[:100])
    return elapsed, bytes(reply)


def wait_for_folder(port):
    deadline = time.monotonic() + SCAN_TIMEOUT
    while time.monotonic() < deadline:
        _, objects, *_ = dms_client.browse(port, "0.1")
        match = [o for o in objects if o.get("dc:title") == "Thousand"]
        if match and dms_client.browse(port, match[0]["id"], count=1)[3] == FILES:
            return match[0]["id"]
        time.sleep(0.2)
    sys.exit("the scan did not list the folder in time")


def cpu_seconds(pid):
    """User plus system CPU time the process has used so far."""
    fields = Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def raw_loop(folder):
    """Median wall and CPU milliseconds of the raw loop over the folder's files."""
    out = subprocess.run([str(BUILD / "scan_bench"), "--raw-loop", str(folder)], check=True,
                         capture_output=True, text=True).stdout
    match = re.search(r"median ([0-9.]+) ms wall, ([0-9.]+) ms cpu", out)
    if not match:
        sys.exit(f"unexpected raw loop output: {out!r}")
    return float(match.group(1)), float(match.group(2))


def main():
    require_namespace()
    with tempfile.TemporaryDirectory(prefix="dms-browse-bench-") as temp:
        root = Path(temp)
        folder, formats, real = build_library(root)
        server = Dms(root / "server", f'path = "{root / "media"}"\nrefreshInterval = "{NO_RESCAN_SECONDS}"\n')
        try:
            port = server.wait_ready()
            folder_id = wait_for_folder(port)
            whole = request(0, 0, folder_id, "keep-alive")
            pages = [request(start, PAGE, folder_id, "keep-alive") for start in range(0, FILES, PAGE)]
            with socket.create_connection(("127.0.0.1", port), timeout=10) as conn:
                timed(conn, whole)  # warms the page cache and the server
                cpu_before = cpu_seconds(server.pid)
                whole_times, replies = zip(*(timed(conn, whole) for _ in range(ROUNDS)))
                whole_cpu_ms = (cpu_seconds(server.pid) - cpu_before) * 1000.0 / ROUNDS
                page_times, page_replies = zip(*(timed(conn, raw) for _ in range(ROUNDS) for raw in pages))
            closing = request(0, 0, folder_id, "close")
            fresh_times = []
            for _ in range(ROUNDS):
                with socket.create_connection(("127.0.0.1", port), timeout=10) as conn:
                    fresh_times.append(timed(conn, closing)[0])
            raw_wall_ms, raw_cpu_ms = raw_loop(folder)
        finally:
            server.stop()

    # Whole replies only: a listing cut short would time less work.
    assert all(f"<NumberReturned>{FILES}</NumberReturned>".encode() in r for r in replies)
    assert all(f"<NumberReturned>{PAGE}</NumberReturned>".encode() in r for r in page_replies)
    whole_ms = median_ms(whole_times)
    rows = [
        ("Browse 1,000 children, RequestedCount 0, keep-alive", whole_ms, 1000.0 / whole_ms),
        ("Browse 1,000 children, RequestedCount 0, new connection each", median_ms(fresh_times),
         1000.0 / median_ms(fresh_times)),
        (f"Browse one page of {PAGE}, keep-alive", median_ms(page_times), 1000.0 / median_ms(page_times)),
        ("raw loop: lstat + open + read 4 KB + close, 1,000 files (C)", raw_wall_ms, 1000.0 / raw_wall_ms),
    ]
    print(f"browse_bench: {FILES} files of {formats} formats in one folder, reply of {len(replies[0])} bytes, "
          f"{ROUNDS} rounds per row, warm page cache")
    print(f"real files from installed tools: {', '.join(real) or 'none (all byte-built)'}")
    print("| measurement | median ms | requests (loops) per s |")
    print("| --- | ---: | ---: |")
    for name, ms, rate in rows:
        print(f"| {name} | {ms:.2f} | {rate:.0f} |")
    share = whole_cpu_ms / raw_cpu_ms
    print(f"CPU time per 1,000 children: server Browse {whole_cpu_ms:.2f} ms (keep-alive rounds), "
          f"raw loop {raw_cpu_ms:.2f} ms")
    print(f"Browse of 1,000 children / raw loop over the same files: {share:.2f} cpu, "
          f"{whole_ms / raw_wall_ms:.2f} wall  [{verdict(share <= TARGET_RAW_SHARE)} target <= {TARGET_RAW_SHARE} cpu]")
    print(f"Browse of 1,000 children in a median of at most {TARGET_MS:.0f} ms: "
          f"{verdict(whole_ms <= TARGET_MS)} ({whole_ms:.2f} ms)")


if __name__ == "__main__":
    main()
