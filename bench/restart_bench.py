"""Start-up benchmark on the library of bench/reallib.py (10,000 real media
files where the tools are installed), the page cache dropped before each run
(root): the server's first scan with an empty cache directory, the raw loop
(lstat + open + read 4 KB + close over every file, in C: scan_bench
--raw-loop), and a restart with the memo file that first scan wrote. For each:
the time from the start until the All views are full, and the bytes read from
the device (read_bytes of /proc/PID/io). Medians; targets are reported, never
asserted. --quick: a few byte-built files, one run of each, to show that it works.
Run: tools/netns-run /usr/bin/python3 bench/restart_bench.py [--quick]"""
import os
import re
import statistics
import subprocess
import sys
import tempfile
import time
from pathlib import Path

import reallib
from benchlib import BUILD, Dms, dms_client, require_namespace, verdict

RUNS, QUICK_RUNS = 3, 1
TARGET_RESTART_BYTES = 0.1  # against the cold first scan's
TARGET_RESTART_TIME = 0.2
TARGET_SCAN_BYTES = 1.0     # against the cold raw loop's
NO_RESCAN_SECONDS = 3600
LIST_TIMEOUT = 300
POLL_SECONDS = 0.02
VIEWS = {"0.10": reallib.AUDIO, "0.20": (".mp4", ".mkv", ".avi", ".mov"), "0.30": (".jpg", ".png", ".gif", ".tif")}


def drop_caches():
    os.sync()
    Path("/proc/sys/vm/drop_caches").write_text("3")


def device_bytes(pid):
    for line in Path(f"/proc/{pid}/io").read_text().splitlines():
        if line.startswith("read_bytes:"):
            return int(line.split()[1])
    raise RuntimeError("no read_bytes")


def started(root, run, cache, expected):
    """Seconds from the start until the All views hold `expected` items, and the device bytes read by then."""
    media = root / "media"
    drop_caches()
    begin = time.perf_counter()
    server = Dms(root / f"server-{run}", f'path = "{media}"\nrefreshInterval = "{NO_RESCAN_SECONDS}"\n',
                 env={"CACHE_DIRECTORY": str(cache)})
    try:
        port = server.wait_ready()
        while time.perf_counter() - begin < LIST_TIMEOUT:
            counts = [dms_client.browse(port, view, count=1)[3] for view in VIEWS]
            if counts == expected:
                return time.perf_counter() - begin, device_bytes(server.pid)
            time.sleep(POLL_SECONDS)
        sys.exit(f"the views were not full in time: {counts} of {expected}")
    finally:
        server.stop()


def raw_loop(media):
    """Median wall seconds and device bytes of the raw loop over every file, cold."""
    out = subprocess.run([str(BUILD / "scan_bench"), "--raw-loop", str(media), "--cold"], check=True,
                         capture_output=True, text=True).stdout
    match = re.search(r"median ([0-9.]+) ms wall, [0-9.]+ ms cpu, (\d+) device bytes", out)
    if not match:
        sys.exit(f"unexpected raw loop output: {out!r}")
    return float(match.group(1)) / 1000.0, int(match.group(2))


def main():
    require_namespace()
    quick = sys.argv[1:] == ["--quick"]
    shape, runs = (reallib.QUICK, QUICK_RUNS) if quick else (reallib.FULL, RUNS)
    with tempfile.TemporaryDirectory(prefix="dms-restart-bench-", dir=os.environ.get("BENCH_DIR", "/tmp")) as temp:
        root = Path(temp)
        _, real = reallib.library(root, BUILD, shape)
        files = [p for p in (root / "media").rglob("*") if p.is_file()]
        expected = [sum(p.suffix in kinds for p in files) for kinds in VIEWS.values()]
        first, again = [], []
        for run in range(runs):
            cache = root / f"cache-{run}"
            cache.mkdir()
            first.append(started(root, f"first-{run}", cache, expected))
            if not (cache / "dms.memo").is_file():
                sys.exit("the first scan wrote no memo file")
            again.append(started(root, f"again-{run}", cache, expected))
        raw_seconds, raw_bytes = raw_loop(root / "media")
        memo_bytes = (root / "cache-0" / "dms.memo").stat().st_size

    def medians(results):
        return statistics.median(r[0] for r in results), statistics.median(r[1] for r in results)

    (first_s, first_b), (again_s, again_b) = medians(first), medians(again)
    print(f"restart_bench: {len(files)} files, {sum(expected)} in the All views, page cache dropped before each "
          f"run, medians of {runs}{' (quick mode)' if quick else ''}")
    print(f"real files from installed tools: {', '.join(real) or 'none (all byte-built)'}; "
          f"memo file {memo_bytes} bytes, {memo_bytes / max(len(files), 1):.0f} an item")
    print("| cold, this machine's disk | time until the All views are full | device bytes | target |")
    print("| --- | ---: | ---: | --- |")
    print(f"| first scan | {first_s:.2f} s | {first_b / 1e6:.1f} MB | bytes <= the raw loop's: "
          f"{verdict(first_b <= TARGET_SCAN_BYTES * raw_bytes)} ({first_b / max(raw_bytes, 1):.2f}) |")
    print(f"| raw loop: lstat, open, read 4 KiB, close | {raw_seconds:.2f} s | {raw_bytes / 1e6:.1f} MB | reference |")
    print(f"| restart with the memo file | {again_s:.2f} s | {again_b / 1e6:.1f} MB | bytes <= "
          f"{TARGET_RESTART_BYTES} of the first scan's: {verdict(again_b <= TARGET_RESTART_BYTES * first_b)} "
          f"({again_b / max(first_b, 1):.3f}); time <= {TARGET_RESTART_TIME}: "
          f"{verdict(again_s <= TARGET_RESTART_TIME * first_s)} ({again_s / first_s:.3f}) |")


if __name__ == "__main__":
    main()
