"""watchChanges benchmark on the library of bench/reallib.py (10,000 byte-built
files in some 110 folders). A server with watchChanges "on" and an interval
of 3600 s: the time from a file's close (a picture written into a small
folder) to its item in that folder's Browse, and from a file's removal to its
item gone, polled every 20 ms; then a copy of a folder of 1,000 files, with
the passes that changed the library counted by SystemUpdateID (a pass raises
it once for each folder in which it found a change) and the time from the end
of the copy until all 1,000 are listed. Beside it a server without the
setting at the minimum interval of 30 s, and one without it at 3600 s (the
idle work of the device thread alone): the CPU time each uses over an idle
window (a few minutes, scaled to an hour), and the memory the watch costs
(the kernel's per watch, from its slab sizes; the server's own 24 bytes per
folder, compared by VmRSS). Targets are reported, never asserted.
--quick: a few files, a few rounds and a 3-second window, to show that it works.
Run: tools/netns-run /usr/bin/python3 bench/watch_bench.py [--quick]"""
import os
import re
import shutil
import statistics
import sys
import tempfile
import time
from pathlib import Path

import reallib
from benchlib import BUILD, Dms, dms_client, require_namespace, verdict

ROUNDS, QUICK_ROUNDS = 21, 3
IDLE_SECONDS, QUICK_IDLE_SECONDS = 240, 3
WATCHED_INTERVAL, PERIODIC_INTERVAL = 3600, 30
POLL_SECONDS = 0.02
SCAN_TIMEOUT = 300
TARGET_MAX_S, TARGET_MEDIAN_S = 3.0, 1.5
TARGET_CPU_SHARE = 0.1  # the watched server's idle CPU against the periodic one's
TARGET_COPY_PASSES = 5
KERNEL_SLABS = ("inotify_inode_mark", "fsnotify_mark_connector")  # per watch, per watched inode


def titles(port, folder_id):
    return {o["dc:title"] for o in dms_client.browse(port, folder_id)[1]}


def folder_id(port, title):
    deadline = time.monotonic() + SCAN_TIMEOUT
    while time.monotonic() < deadline:
        match = [o["id"] for o in dms_client.browse(port, "0.1")[1] if o.get("dc:title") == title]
        if match:
            return match[0]
        time.sleep(0.2)
    sys.exit(f"the scan did not list {title} in time")


def wait_until(check, timeout):
    """Seconds until check() holds, polled; None when it did not within `timeout`."""
    start = time.perf_counter()
    while not check():
        if time.perf_counter() - start > timeout:
            return None
        time.sleep(POLL_SECONDS)
    return time.perf_counter() - start


def system_update_id(port):
    body = dms_client.action(port, "GetSystemUpdateID").body.decode()
    return int(re.search(r"<Id>(\d+)</Id>", body).group(1))


def cpu_seconds(pid):
    fields = Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def status_kb(pid, name):
    for line in Path(f"/proc/{pid}/status").read_text().splitlines():
        if line.startswith(name + ":"):
            return int(line.split()[1])
    raise RuntimeError(f"no {name}")


def watch_count(pid):
    """The inotify watches the process holds, from its descriptors' fdinfo."""
    count = 0
    for fd in Path(f"/proc/{pid}/fd").iterdir():
        if os.readlink(fd) == "anon_inode:inotify":
            count += Path(f"/proc/{pid}/fdinfo/{fd.name}").read_text().count("inotify wd:")
    return count


def slab_bytes(name):
    try:
        return int(Path(f"/sys/kernel/slab/{name}/object_size").read_text())
    except OSError:
        return 0


def latencies(port, media, rounds, picture):
    """Close-to-listed and removal-to-gone seconds, `rounds` of each, in the folder Incoming."""
    incoming = folder_id(port, "Incoming")
    listed, gone = [], []
    for index in range(rounds):
        path, title = media / "Incoming" / f"new {index:03d}.gif", f"new {index:03d}"
        with open(path, "wb") as out:
            out.write(picture)
        listed.append(wait_until(lambda: title in titles(port, incoming), SCAN_TIMEOUT))
        path.unlink()
        gone.append(wait_until(lambda: title not in titles(port, incoming), SCAN_TIMEOUT))
    return listed, gone


def copy_passes(port, media, source):
    """SystemUpdateID's rise over a copy of `source` and the listing of every file, and the
    seconds from the end of the copy until all are listed."""
    before = system_update_id(port)
    files = sum(1 for _ in source.iterdir())
    shutil.copytree(source, media / "Copied")
    copied = time.perf_counter()
    listing = folder_id(port, "Copied")
    wait_until(lambda: dms_client.browse(port, listing, count=1)[3] == files, SCAN_TIMEOUT)
    delay = time.perf_counter() - copied
    time.sleep(2)  # any pass still to come
    return files, system_update_id(port) - before, delay


def main():
    require_namespace()
    quick = sys.argv[1:] == ["--quick"]
    shape = reallib.QUICK if quick else reallib.FULL
    rounds, idle = (QUICK_ROUNDS, QUICK_IDLE_SECONDS) if quick else (ROUNDS, IDLE_SECONDS)
    with tempfile.TemporaryDirectory(prefix="dms-watch-bench-", dir=os.environ.get("BENCH_DIR", "/tmp")) as temp:
        root = Path(temp)
        thousand, _ = reallib.library(root, BUILD, shape, real=False)
        media = root / "media"
        picture = next(p for p in sorted(thousand.iterdir()) if p.suffix == ".gif").read_bytes()
        (media / "Incoming").mkdir()
        (media / "Incoming" / "first.gif").write_bytes(picture)
        folders = 1 + sum(1 for p in media.rglob("*") if p.is_dir())
        watched = Dms(root / "watched", f'path = "{media}"\nrefreshInterval = "{WATCHED_INTERVAL}"\n'
                                        'watchChanges = "on"\n')
        periodic = Dms(root / "periodic", f'path = "{media}"\nrefreshInterval = "{PERIODIC_INTERVAL}"\n')
        unwatched = Dms(root / "unwatched", f'path = "{media}"\nrefreshInterval = "{WATCHED_INTERVAL}"\n')
        servers = (watched, periodic, unwatched)
        try:
            port = watched.wait_ready()
            for server_port in [port] + [s.wait_ready() for s in servers[1:]]:
                folder_id(server_port, "Incoming")
                wait_until(lambda: dms_client.browse(server_port, folder_id(server_port, thousand.name),
                                                     count=1)[3] == shape.folder_files, SCAN_TIMEOUT)
            time.sleep(1)
            rss = [status_kb(s.pid, "VmRSS") for s in servers]
            watches = watch_count(watched.pid)
            start = [cpu_seconds(s.pid) for s in servers]
            time.sleep(idle)
            used = [cpu_seconds(s.pid) - before for s, before in zip(servers, start)]
            listed, gone = latencies(port, media, rounds, picture)
            files, passes, copy_delay = copy_passes(port, media, thousand)
        finally:
            for server in servers:
                server.stop()

    missed = [s for s in listed + gone if s is None]
    listed, gone = [s for s in listed if s is not None], [s for s in gone if s is not None]
    per_hour = [seconds * 3600 / idle for seconds in used]
    kernel = sum(slab_bytes(name) for name in KERNEL_SLABS)
    print(f"watch_bench: {shape.files} byte-built files in {folders} folders; a server with watchChanges on "
          f"(interval {WATCHED_INTERVAL} s) and one without (interval {PERIODIC_INTERVAL} s) on the same library"
          f"{' (quick mode)' if quick else ''}")
    print("| measurement | figure | target |")
    print("| --- | ---: | --- |")
    for name, found in (("a written file's close to its item in Browse", listed),
                        ("a file's removal to its item gone from Browse", gone)):
        print(f"| {name}, {len(found)} rounds | median {statistics.median(found):.2f} s, "
              f"most {max(found):.2f} s | most <= {TARGET_MAX_S:.0f} s, median <= {TARGET_MEDIAN_S} s: "
              f"{verdict(not missed and max(found) <= TARGET_MAX_S and statistics.median(found) <= TARGET_MEDIAN_S)} |")
    print(f"| a copy of {files} files: SystemUpdateID rose by | {passes} | at most {TARGET_COPY_PASSES} passes: "
          f"{verdict(passes <= TARGET_COPY_PASSES)} |")
    print(f"| the copy's end to all {files} listed | {copy_delay:.2f} s | |")
    print(f"| CPU idle, watch on, interval {WATCHED_INTERVAL} s | {used[0]:.2f} s in {idle} s: "
          f"{per_hour[0]:.1f} s an hour | |")
    print(f"| CPU idle, no watch, interval {PERIODIC_INTERVAL} s | {used[1]:.2f} s in {idle} s: "
          f"{per_hour[1]:.1f} s an hour | |")
    print(f"| CPU idle, no watch, interval {WATCHED_INTERVAL} s (the device thread's share) | {used[2]:.2f} s "
          f"in {idle} s: {per_hour[2]:.1f} s an hour | |")
    share = used[0] / used[1] if used[1] else float("inf")
    print(f"| the watched server's idle CPU against the periodic one's | {share:.2f} | at most {TARGET_CPU_SHARE}: "
          f"{verdict(share <= TARGET_CPU_SHARE)} |")
    scans = (used[1] - used[2]) or float("inf")
    print(f"| the same, the device thread's share taken from both | {(used[0] - used[2]) / scans + 0.0:.2f} | |")
    print(f"| inotify watches held | {watches} of {folders} folders | |")
    print(f"| kernel memory per watch ({' + '.join(KERNEL_SLABS)} slab objects) | {kernel} bytes | |")
    print(f"| VmRSS after the first pass: watch on; off, interval {PERIODIC_INTERVAL} s; off, "
          f"{WATCHED_INTERVAL} s | {rss[0]} KB; {rss[1]} KB; {rss[2]} KB | |")


if __name__ == "__main__":
    main()
