# Allocation failures, tried the way SQLite's out-of-memory tests and curl's
# torture tests try them. The sanitizer build links an allocator
# (tests/inject) that fails allocation N of a process, or, in mode "after",
# every allocation from N on until the process gets SIGUSR1. One scripted
# session (start-up and first scan of the demo library, its folders watched, description and SCPDs,
# Browse of a large folder and of every view, a ranged media item and a
# thumbnail, a SUBSCRIBE and its first NOTIFY, an M-SEARCH answer, the memo
# file loaded and written; then dms-probe over the library) is replayed for N = 1, 2, ... up to its count of
# allocations. For every N: no crash, no sanitizer report, no leak, no hang,
# and once allocations succeed again the server answers as it does without
# failures. `make check` samples N; `make alloc-failures` runs every N (with
# DMS_ALLOC_TRACE=1 the allocator prints where each failure happens).
import os
import queue
import shutil
import signal
import socket
import subprocess
import time
from concurrent.futures import ThreadPoolExecutor

import pytest

from conftest import BUILD, listening_tcp_ports
from dms_client import MEDIA_SERVER, browse_raw, get

pytestmark = pytest.mark.skipif(not os.environ.get("DMS_ALLOC_FAILURES"), reason="not the failure-injection build")

VIEWS = ["0", "0.1", "0.2", "0.3", "0.4", "0.10", "0.11", "0.12", "0.13", "0.20", "0.21", "0.22", "0.23", "0.30",
         "0.31"]
LARGE_FOLDER = 40  # pictures: a Browse of several pages
SEARCH_AFTER = 4.5  # seconds after start: the first interface check (3.8 s) has made the SSDP engine
SAMPLES = int(os.environ.get("DMS_ALLOC_SAMPLES", "8"))  # of each mode, unless DMS_ALLOC_SWEEP is "full"
JOBS = int(os.environ.get("DMS_ALLOC_JOBS", "4"))
ADDRESS = os.environ.get("DMS_NETNS_ADDR")


def object_id(path):
    return f"{path.stat().st_dev + 1}.{path.stat().st_ino}"


@pytest.fixture(scope="module")
def library(tmp_path_factory):
    # The demo library with a large folder, and one server folder per job.
    root = tmp_path_factory.mktemp("alloc")
    subprocess.run([str(BUILD / "dms-mkdemo"), str(root / "media")], check=True)
    seed_memo_file(root)
    (root / "media" / "Large").mkdir()
    for index in range(LARGE_FOLDER):
        shutil.copy(root / "media" / "Pictures" / "Stripes.gif", root / "media" / "Large" / f"{index}.gif")
    slots = queue.Queue()
    for index in range(JOBS):
        (slot := root / f"server{index}").mkdir()
        shutil.copy2(BUILD / "dms", slot / "dms")
        (slot / "dmsConfig").write_text(f'path = "{root / "media"}"\nmodelDescription = "Sweep"\n'
                                        'watchChanges = "on"\n')
        slots.put(slot)
    return root / "media", slots


def seed_memo_file(root):
    # A memo file of the demo library before the large folder is added: each
    # session loads it, takes the demo files from it, parses the large
    # folder's and writes the file anew.
    (root / "seed").mkdir()
    (root / "seed" / "dmsConfig").write_text(f'path = "{root / "media"}"\n')
    shutil.copy2(BUILD / "dms", root / "seed" / "dms")
    env = {**os.environ, "CACHE_DIRECTORY": str(root / "seed")}
    server = subprocess.Popen([str(root / "seed" / "dms")], cwd=root / "seed", env=env, stdout=subprocess.DEVNULL)
    deadline = time.monotonic() + 20
    while not (root / "seed" / "dms.memo").exists() and time.monotonic() < deadline:
        time.sleep(0.05)
    server.send_signal(signal.SIGTERM)
    server.wait(20)
    assert (root / "seed" / "dms.memo").exists()


def scripted(port, media, sink_port):
    song = object_id(media / "Music" / "Demo Artist" / "Demo Album" / "01 Demo Song.mp3")
    for path in ("/DMS/Device", "/DMS/ContentDirectory/document", "/DMS/ConnectionManager/document"):
        yield lambda: get(port, path)
    for view in [object_id(media / "Large")] + VIEWS:
        yield lambda: browse_raw(port, view)
    yield lambda: get(port, f"/mediaitem/{song}", "Range: bytes=100-")
    yield lambda: get(port, f"/thumbnail/{song}")
    # The first NOTIFY lands in the backlog of a listener that never accepts.
    yield lambda: get(port, "/DMS/ContentDirectory/event", f"CALLBACK: <http://127.0.0.1:{sink_port}/>",
                      "NT: upnp:event", method="SUBSCRIBE")


def search(port, started):
    # One M-SEARCH, answered unless the engine could not be made.
    time.sleep(max(0.0, started + SEARCH_AFTER - time.monotonic()))
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as client:
        client.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, socket.inet_aton(ADDRESS))
        client.settimeout(1.0)
        client.sendto(f'M-SEARCH * HTTP/1.1\r\nHOST: 239.255.255.250:1900\r\nMAN: "ssdp:discover"\r\nMX: 1\r\n'
                      f"ST: {MEDIA_SERVER}\r\n\r\n".encode(), ("239.255.255.250", 1900))
        try:
            while f"Location: http://{ADDRESS}:{port}/".encode() not in client.recv(2048):
                pass
        except socket.timeout:
            pass


def serve(server, media, reference):
    # The scripted requests; then, with allocations succeeding again, the
    # description and the root's children, which must be the normal ones.
    problems, normal, port, started = [], None, None, time.monotonic()
    while port is None and server.poll() is None and time.monotonic() < started + 10:
        time.sleep(0.02)
        port = next(iter(listening_tcp_ports(server.pid)), None)
    if port is not None:
        with socket.create_server(("127.0.0.1", 0)) as sink:
            for index, step in enumerate(scripted(port, media, sink.getsockname()[1])):
                try:
                    step()
                except socket.timeout:
                    problems.append(f"hang in step {index}")
                except (OSError, EOFError):
                    pass  # refused: the connection ended
            search(port, started)
        server.send_signal(signal.SIGUSR1)
        time.sleep(0.1)
        ended = server.poll() is not None  # the start failed after all
        for attempt in range(0 if ended else 2):  # the first may meet the one failure of mode "once"
            try:
                normal = get(port, "/DMS/Device").body, browse_raw(port, "0", filt="").body.split(b"Result>")[1]
            except (OSError, EOFError) as error:
                normal = error
            if normal == (reference or normal):
                break
        if not ended and normal != (reference or normal):
            problems.append(f"no normal answer once allocations succeed: {normal!r:.300}")
    server.send_signal(signal.SIGTERM)
    return problems, normal


def session(media, slot, n, mode, reference, probe):
    # Problems found, the allocation count and, without failures, the normal answers.
    env = {**os.environ, "DMS_ALLOC_COUNT": str(slot / "count"), "DMS_ALLOC_FAIL": str(n), "DMS_ALLOC_FAIL_MODE": mode,
           "CACHE_DIRECTORY": str(slot / "cache")}
    (slot / "count").unlink(missing_ok=True)
    shutil.rmtree(slot / "cache", ignore_errors=True)
    (slot / "cache").mkdir()
    shutil.copy(media.parent / "seed" / "dms.memo", slot / "cache")
    argv = [str(BUILD / "dms-probe"), str(media)] if probe else [str(slot / "dms")]
    process = subprocess.Popen(argv, cwd=slot, env=env, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    problems, normal = ([], None) if probe else serve(process, media, reference)
    try:
        out, err = process.communicate(timeout=20)
    except subprocess.TimeoutExpired:
        process.kill()
        out, err = process.communicate()
        problems.append("hang at exit")
    # The server ends with its stop line and status 0; the probe with status 1
    # when a file could not be examined, naming on stderr each argument that
    # ran out of memory.
    ended = process.returncode in (0, 1) if probe else process.returncode == 0 and out.endswith(b"] stopped\n\n")
    if not ended or any(not line.endswith(b": out of memory") for line in err.splitlines()):
        problems.append(f"exit {process.returncode}: {out[-200:]!r} {err[-3000:].decode(errors='replace')}")
    return problems, int((slot / "count").read_text()) if (slot / "count").exists() else 0, normal


@pytest.mark.parametrize("probe", [False, True], ids=["dms", "dms-probe"])
def test_every_allocation_failure_is_answered(library, probe):
    media, slots = library

    def run(n, mode, reference=None):
        slot = slots.get()
        try:
            return session(media, slot, n, mode, reference, probe)
        finally:
            slots.put(slot)

    problems, count, reference = run(0, "once")
    assert not problems and count > 0, problems
    every = os.environ.get("DMS_ALLOC_SWEEP") == "full"
    chosen = range(1, count + 1) if every else sorted({1 + (count - 1) * i // (SAMPLES - 1) for i in range(SAMPLES)})
    cases = [(n, mode) for mode in ("once", "after") for n in chosen]
    started = time.monotonic()
    with ThreadPoolExecutor(JOBS) as pool:
        results = list(pool.map(lambda case: run(*case, reference), cases))
    failed = [(f"{n}:{mode}", found) for (n, mode), (found, _, _) in zip(cases, results) if found]
    print(f"\n{'dms-probe' if probe else 'dms'}: {count} allocations; {len(cases)} runs with failures "
          f"in {time.monotonic() - started:.0f} s, {len(failed)} failed")
    assert not failed, ([case for case, _ in failed], failed[:3])
