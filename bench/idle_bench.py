"""Idle connection benchmark for the 32-bit build: the i386 server (build-i386,
made by `make cross`) runs under a 3 GiB address-space limit, as on the board,
and this client opens up to 6,000 connections that send nothing. While they
are held, a Browse on a new connection must still be answered. Reports how
many idle connections the server held and its resident memory per idle
connection. Where this machine cannot start 32-bit x86 programs the native
build stands in (its figures are then not the board's). --quick: 50
connections, to show that it works.
Run: tools/netns-run /usr/bin/python3 bench/idle_bench.py [--quick]"""
import os
import resource
import shutil
import socket
import subprocess
import sys
import tempfile
import time
from pathlib import Path

from benchlib import BUILD, REPO, dms_client, require_namespace, verdict
from conftest import Process, socket_inodes

I386_BUILD = Path(os.environ.get("DMS_I386_BUILD_DIR", REPO / "build-i386"))
ADDRESS_SPACE = 3 << 30  # bytes, as on the board
OPEN_FILES = 16384       # for the server and for this client
MAX_CONNECTIONS = 6000
QUICK_CONNECTIONS = 50
CONNECT_TIMEOUT = 2.0
BATCH = 64               # connections opened at once, well within the listen backlog of 128
BATCH_WAIT = 1.0         # seconds for the server to take a batch
SETTLE_SECONDS = 0.3     # no new accepted connection for this long: the server holds all it will
DEVICE_SETTLE = 5.0      # seconds after start: the device thread has set up its SSDP engine
TARGET_CONNECTIONS = 5000
TARGET_KB = 16.0
ESTABLISHED = "01"


def status_field(pid, name):
    """A number from /proc/PID/status: Threads, or VmRSS and VmSize in KB."""
    for line in Path(f"/proc/{pid}/status").read_text().splitlines():
        if line.startswith(name + ":"):
            return int(line.split()[1])
    raise RuntimeError(f"no {name}")


def held_connections(pid, port):
    """Established TCP connections on `port` that the server has accepted."""
    inodes = socket_inodes(pid)
    held = 0
    with open("/proc/net/tcp") as table:
        next(table)
        for line in table:
            fields = line.split()
            if fields[3] == ESTABLISHED and int(fields[1].split(":")[1], 16) == port and fields[9] in inodes:
                held += 1
    return held


def open_idle(pid, port, most):
    """Connects up to `most` times, a batch at a time: a batch larger
    than the listen backlog would see connections dropped and retried a second
    later. The next batch starts once the server has a thread for each
    connection; opening stops when it no longer gets one in time."""
    base = status_field(pid, "Threads")
    clients = []
    while len(clients) < most:
        for _ in range(min(BATCH, most - len(clients))):
            try:
                clients.append(socket.create_connection(("127.0.0.1", port), timeout=CONNECT_TIMEOUT))
            except OSError:
                return clients
        deadline = time.monotonic() + BATCH_WAIT
        while status_field(pid, "Threads") < base + len(clients):
            if time.monotonic() > deadline:
                return clients
            time.sleep(0.001)
    return clients


def wait_settled(pid, port):
    held, since = held_connections(pid, port), time.monotonic()
    while time.monotonic() - since < SETTLE_SECONDS:
        time.sleep(0.05)
        now = held_connections(pid, port)
        if now != held:
            held, since = now, time.monotonic()
    return held


def i386_runs_natively():
    """The same test as the Makefile's: the i386 loader starts."""
    try:
        return subprocess.run(["/lib/ld-linux.so.2", "--version"], capture_output=True).returncode == 0
    except OSError:
        return False


def main():
    require_namespace()
    quick = sys.argv[1:] == ["--quick"]
    server_binary = I386_BUILD / "dms"
    note = ""
    if not server_binary.exists() or not i386_runs_natively():
        note = f" (standing in for {server_binary}, which this machine cannot start)"
        server_binary = BUILD / "dms"
    resource.setrlimit(resource.RLIMIT_NOFILE, (OPEN_FILES, OPEN_FILES))
    with tempfile.TemporaryDirectory(prefix="dms-idle-bench-") as temp:
        root = Path(temp)
        subprocess.run([str(BUILD / "dms-mkdemo"), str(root / "media")], check=True, stdout=subprocess.DEVNULL)
        folder = root / "server"
        folder.mkdir()
        shutil.copy2(server_binary, folder / "dms")
        (folder / "dmsConfig").write_text(f'path = "{root / "media"}"\n')
        server = Process(["prlimit", f"--as={ADDRESS_SPACE}", f"--nofile={OPEN_FILES}", str(folder / "dms")],
                         cwd=folder)
        started = time.monotonic()
        clients = []
        try:
            port = server.wait_port()
            dms_client.browse(port, "0")
            time.sleep(max(0.0, DEVICE_SETTLE - (time.monotonic() - started)))
            before_kb = status_field(server.pid, "VmRSS")

            opening = time.monotonic()
            clients = open_idle(server.pid, port, QUICK_CONNECTIONS if quick else MAX_CONNECTIONS)
            opened_s = time.monotonic() - opening
            held = wait_settled(server.pid, port)
            after_kb = status_field(server.pid, "VmRSS")
            address_space_mb = status_field(server.pid, "VmSize") / 1024
            browse_start = time.perf_counter()
            try:
                objects = dms_client.browse(port, "0")[1]
            except OSError:
                objects = []
            browse_ms = (time.perf_counter() - browse_start) * 1000.0
            still_held = held_connections(server.pid, port)
        finally:
            for client in clients:
                client.close()
            status = server.stop()[1]

    per_kb = (after_kb - before_kb) / held if held else float("inf")
    print(f"idle_bench: {server_binary}{note} under prlimit --as={ADDRESS_SPACE} --nofile={OPEN_FILES}; "
          f"{len(clients)} connections opened in {opened_s:.1f} s, server exit status {status}")
    print(f"resident memory: {before_kb} KB before, {after_kb} KB with the idle connections; "
          f"address space in use: {address_space_mb:.0f} MB of {ADDRESS_SPACE >> 20} MB")
    print(f"Browse of the root on a new connection while they were held: {len(objects)} objects "
          f"in {browse_ms:.1f} ms, {still_held} idle connections still held after it")
    print(f"target: at least {TARGET_CONNECTIONS} idle connections held while a Browse is answered: "
          f"{verdict(min(held, still_held) >= TARGET_CONNECTIONS and len(objects) > 0)} ({min(held, still_held)})")
    print(f"target: at most {TARGET_KB:.0f} KB resident per idle connection: "
          f"{verdict(per_kb <= TARGET_KB)} ({per_kb:.1f} KB)")


if __name__ == "__main__":
    main()
