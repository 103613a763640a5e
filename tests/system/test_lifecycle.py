# Start and stop of the real server: the configuration file beside the
# executable, read once, the running and stopped lines, and prompt, clean
# exits on signals, also in the middle of replies and with the network gone;
# the server back on a network that went away and came back. The lookup's
# quirks are unit-tested.
import os
import shutil
import signal
import socket
import subprocess
import time

import pytest

from conftest import REPO
from dms_client import Client, browse, browse_arguments, in_peer_namespace, soap, ssdp_search, until

ADDRESS, PEER_ADDRESS = os.environ["DMS_NETNS_ADDR"], os.environ["DMS_NETNS_PEER_ADDR"]
UNLINK, LINK = "tools/netns-run --unlink", "tools/netns-run --link"


def catches_signal(pid, sig):
    # Waits until the process has installed its handler for `sig`.
    caught = lambda: int(open(f"/proc/{pid}/status").read().split("SigCgt:")[1].split()[0], 16)  # noqa: E731
    assert until(caught, lambda mask: mask >> (sig - 1) & 1, 10, 0.05) >> (sig - 1) & 1, f"no handler for {sig}"


@pytest.mark.parametrize("config, sig, label, errors", [
    ('path = "{media}"\nmodelDescription = "Shelf"\n', signal.SIGTERM, "Shelf", ""),
    ('modelDescription = Plain\nmanufacturer = "Acme"\n', signal.SIGINT, "Acme", ""),  # the next quotes win
    (None, signal.SIGTERM, "(null)", ""),  # no file at all
    # A folder that cannot be read is named once; the server runs all the same.
    ('path = "{media}/gone"\nmodelDescription = "Gone"\n', signal.SIGTERM, "Gone",
     'dms: path "{media}/gone": No such file or directory; the library stays empty until it can be read\n'),
])
def test_signal_stops_promptly_with_both_lines(dms, tmp_path, config, sig, label, errors):
    server = dms(config and config.replace("{media}", str(tmp_path)))
    # With a library the server listens; a connection still open does not hold the stop up.
    idle = Client(server.wait_ready()) if label == "Shelf" else None
    catches_signal(server.pid, sig)
    if config:
        (server.folder / "dmsConfig").write_text('modelDescription = "Second"\n')  # read once, at start
    started = time.monotonic()
    assert server.stop(sig) == (f"\n[{label}] running\n\n\n[{label}] stopped\n\n", 0)
    assert time.monotonic() - started < 2.5 and server.errors == errors.replace("{media}", str(tmp_path))
    if idle:
        idle.close()


def test_stop_in_the_middle_of_browse_replies_and_downloads(dms, tmp_path, demo):
    media_dir = tmp_path / "media"
    media_dir.mkdir()
    for index in range(300):  # a Browse reply of some 200 KB
        shutil.copy(demo / "Pictures" / "Stripes.gif", media_dir / f"picture {index:03d} with a long name.gif")
    with open(media_dir / "Big.mp3", "wb") as big:
        big.write((demo / "Music" / "Demo Artist" / "Demo Album" / "01 Demo Song.mp3").read_bytes())
        big.truncate(64 << 20)
    server = dms(f'path = "{media_dir}"\nmodelDescription = "Shelf"\n')
    port = server.wait_ready()
    until(lambda: browse(port, "0.1", count=1)[3], (301).__le__, 30)
    item = [o["id"] for o in browse(port, "0.1")[1] if o["res"][0].get("size") == str(64 << 20)][0]

    download = f"GET /mediaitem/{item} HTTP/1.1\r\nHost: test\r\n\r\n".encode()
    readers = []
    for raw in [soap("Browse", browse_arguments("0.1"))] * 3 + [download] * 3:
        # The slowest of readers: a small receive buffer, and only the reply's start is read.
        reader = socket.socket()
        reader.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
        reader.connect(("127.0.0.1", port))
        reader.sendall(raw)
        assert reader.recv(1024).startswith(b"HTTP/1.1 200 OK")
        readers.append(reader)
    started = time.monotonic()
    # The replies under way do not hold the stop up; stop() also fails on any sanitizer report.
    assert server.stop() == ("\n[Shelf] running\n\n\n[Shelf] stopped\n\n", 0) and time.monotonic() - started < 2.5
    for reader in readers:
        reader.close()


def change_link(script):
    # Runs a bash script of tools/netns-run calls that change the veth pair.
    subprocess.run(["bash", "-ec", script], check=True, cwd=REPO)


def answered(port, address, within):
    # True once a search from the peer host is answered with the description at `address`.
    location = f"Location: http://{address}:{port}/DMS/Device\r\n".encode()
    search = lambda: in_peer_namespace(lambda: ssdp_search("ssdp:all", PEER_ADDRESS))  # noqa: E731
    return until(lambda: any(location in answer for answer in search()), bool, within, 0)


def census(pid):
    return [len(os.listdir(f"/proc/{pid}/{kind}")) for kind in ("task", "fd")]


@pytest.fixture
def network():
    yield
    change_link(f"{UNLINK}; {LINK}")  # as it was, for the tests that follow


@pytest.mark.parametrize("script, address", [
    pytest.param(f"{UNLINK}; sleep 8; {LINK}", ADDRESS, id="back after 8 s"),
    pytest.param("tools/netns-run --address 10.77.0.5", "10.77.0.5", id="new address"),
    pytest.param(f"{UNLINK}; sleep 1.5; {LINK}; for flap in $(seq 19); do sleep 1.5; {UNLINK}; sleep 1.5; {LINK}; done",
                 ADDRESS, id="20 flaps 3 s apart"),
    pytest.param(UNLINK, None, id="gone for good, then SIGTERM"),
])
def test_network_goes_and_comes_back(dms, tmp_path, network, script, address):
    server = dms(f'path = "{tmp_path}"\nmodelDescription = "Shelf"\n')
    assert answered(server.wait_ready(), ADDRESS, within=10)  # after the first interface check
    before = census(server.pid)
    change_link(script)
    if address:
        assert answered(server.port, address, within=12) and census(server.pid) == before
        return
    started = time.monotonic()
    assert server.stop() == ("\n[Shelf] running\n\n\n[Shelf] stopped\n\n", 0) and time.monotonic() - started < 2
