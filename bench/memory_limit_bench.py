"""Memory-limit benchmark for the board: the i386 server with a library of
10,000 files under address-space limits from 24 to 64 MiB in 2 MiB steps
(and from 12 MiB up, so that the smallest limit that serves shows).
At each limit the server starts and scans; then 200 clients send a Browse of
the biggest view at once (each request is sent before any reply is read, so
all of them hold their memory together) and one fresh Browse follows. For
each limit it reports whether the server ended cleanly at start or kept
answering, how much of the library it published and how the burst went, and
then the smallest limit at which the whole library is published. Targets are
reported, never asserted.

What runs: where the kernel starts i386 programs, build-i386/dms under
`prlimit --as`, as on the board. Elsewhere two stand-ins, each labelled: the
i386 build under qemu-i386 with the guest's address space reserved to the
limit (`-R`; guest stack `-s 256K`, about what the main thread maps natively),
and the x86-64 build under `prlimit --as` (64-bit pointers and libraries: it
needs more). --quick: 200 files, one of those ways at one limit, a burst of
20, to show that it works.
Run: tools/netns-run /usr/bin/python3 bench/memory_limit_bench.py [--quick]"""
import os
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
from pathlib import Path

from benchlib import BUILD, REPO, dms_client, require_namespace, verdict
from conftest import listening_tcp_ports

I386_BUILD = Path(os.environ.get("DMS_I386_BUILD_DIR", REPO / "build-i386"))
FILES = 10000
PER_FOLDER = 100
LIMITS_MIB = range(12, 65, 2)
BURST = 200
BURST_CHILDREN = 200  # RequestedCount of each burst Browse: a client's page of the biggest view
VIEWS = ("0.10", "0.20", "0.30")  # All Music, All Videos, All Pictures
QUICK_FILES, QUICK_LIMIT_MIB, QUICK_BURST = 200, 64, 20
SETTLED_POLLS = 4     # unchanged counts in a row, 0.5 s apart: the scan has stopped
SCAN_TIMEOUT = 300
REPLY_TIMEOUT = 60
QEMU_STACK = "256K"


def build_library(root, files):
    demo = root / "demo"
    subprocess.run([str(BUILD / "dms-mkdemo"), str(demo)], check=True, stdout=subprocess.DEVNULL)
    sources = sorted(p for p in demo.rglob("*") if p.is_file())
    for index in range(files):
        folder = root / "media" / f"Folder {index // PER_FOLDER:03d}"
        folder.mkdir(parents=True, exist_ok=True)
        source = sources[index % len(sources)]
        shutil.copy(source, folder / f"item {index:05d}{source.suffix}")
    shutil.rmtree(demo)
    return root / "media"


def i386_native():
    try:
        return subprocess.run(["/lib/ld-linux.so.2", "--version"], capture_output=True).returncode == 0
    except OSError:  # the kernel refuses the format
        return False


def runs():
    """(label, build, command for a limit in MiB) of each way the server runs here."""
    if i386_native():
        return [("i386, native, prlimit --as", I386_BUILD, lambda mib, exe: ["prlimit", f"--as={mib << 20}", exe])]
    return [("i386 under qemu-i386 -R (stand-in: this kernel cannot start i386 programs)", I386_BUILD,
             lambda mib, exe: ["qemu-i386", "-R", f"{mib}M", "-s", QEMU_STACK, exe]),
            ("x86-64, prlimit --as (stand-in)", BUILD, lambda mib, exe: ["prlimit", f"--as={mib << 20}", exe])]


def published(port):
    return sum(dms_client.browse(port, view, count=1)[3] for view in VIEWS)


def wait_scanned(port):
    counts, deadline = [], time.monotonic() + SCAN_TIMEOUT
    while time.monotonic() < deadline and (len(counts) < SETTLED_POLLS or len(set(counts[-SETTLED_POLLS:])) > 1):
        counts.append(published(port))
        time.sleep(0.5)
    return counts[-1]


def burst(port, size):
    """Sends every Browse first, then reads the replies: (answered, refused)."""
    request = dms_client.soap("Browse", dms_client.browse_arguments("0.10", count=BURST_CHILDREN))
    clients = []
    for _ in range(size):
        try:
            clients.append(dms_client.Client(port, timeout=REPLY_TIMEOUT).send(request))
        except OSError:
            clients.append(None)
    answered = 0
    for client in clients:
        try:
            answered += client is not None and client.reply().status == "HTTP/1.1 200 OK"
        except (OSError, EOFError):
            pass
        finally:
            if client:
                client.close()
    return answered, size - answered


def one_limit(command, folder, size):
    """One run: (outcome, published, burst answered, burst refused)."""
    server = subprocess.Popen(command, cwd=folder, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    port, deadline = None, time.monotonic() + 30
    while port is None and server.poll() is None and time.monotonic() < deadline:
        time.sleep(0.05)
        port = next(iter(listening_tcp_ports(server.pid)), None)
    count, answered, refused, fresh = 0, 0, 0, False
    if port is not None:
        try:
            count = wait_scanned(port)
            answered, refused = burst(port, size)
            fresh = len(dms_client.browse(port, "0")[1]) == 4
        except (OSError, EOFError, AssertionError):
            pass
        server.send_signal(signal.SIGTERM)
    try:
        out, err = server.communicate(timeout=60)
    except subprocess.TimeoutExpired:
        server.kill()
        out, err = server.communicate()
    clean = server.returncode == 0 and out.endswith(b"stopped\n\n") and not err
    if b"qemu-i386: " in err and not out:
        outcome = "not loaded: the reservation is too small for qemu-i386 itself"
    elif port is None:
        outcome = "ended cleanly at start" if clean else f"FAILED at start (status {server.returncode})"
    elif fresh and clean:
        outcome = "answered the fresh Browse"
    else:
        outcome = f"FAILED: fresh Browse {'answered' if fresh else 'not answered'}, status {server.returncode}"
    return outcome, count, answered, refused


def main():
    require_namespace()
    quick = sys.argv[1:] == ["--quick"]
    files, limits, size = (QUICK_FILES, [QUICK_LIMIT_MIB], QUICK_BURST) if quick else (FILES, LIMITS_MIB, BURST)
    with tempfile.TemporaryDirectory(prefix="dms-memory-bench-") as temp:
        root = Path(temp)
        media = build_library(root, files)
        for label, build, command in runs()[-1:] if quick else runs():
            if not (build / "dms").exists():
                print(f"memory_limit_bench: {label}: skipped, no {build / 'dms'}")
                continue
            folder = root / "server"
            shutil.rmtree(folder, ignore_errors=True)
            folder.mkdir()
            shutil.copy2(build / "dms", folder / "dms")
            (folder / "dmsConfig").write_text(f'path = "{media}"\nmodelDescription = "Board"\n')
            print(f"memory_limit_bench: {label}; {files} files; burst of {size} Browses of All Music "
                  f"(RequestedCount {BURST_CHILDREN}) and one fresh Browse of the root")
            print("limit MiB | outcome | published | burst answered | burst refused")
            whole, all_good = None, True
            for mib in limits:
                outcome, count, answered, refused = one_limit(command(mib, str(folder / "dms")), folder, size)
                print(f"{mib} | {outcome} | {count} | {answered} | {refused}", flush=True)
                all_good &= not outcome.startswith("FAILED")
                if whole is None and count == files:
                    whole = mib
            print(f"smallest limit publishing the whole library: {f'{whole} MiB' if whole else 'none up to 64 MiB'}")
            print(f"target: every limit ends cleanly at start or answers the fresh Browse: {verdict(all_good)}")


if __name__ == "__main__":
    sys.exit(main())
