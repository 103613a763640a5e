"""Start and stop of the real server: the configuration file beside the
executable, the running and stopped lines, and prompt, clean exits on
signals, also in the middle of replies."""
import shutil
import signal
import socket
import subprocess
import time

import pytest

from conftest import BUILD
from dms_client import browse, soap_request


def run_and_stop(dms, config, sig=signal.SIGTERM):
    server = dms(config)
    time.sleep(0.3)
    started = time.monotonic()
    out, status = server.stop(sig)
    return out, status, time.monotonic() - started


@pytest.mark.parametrize("sig", [signal.SIGTERM, signal.SIGINT])
def test_signal_stops_promptly_with_both_lines(dms, media_dir, sig):
    config = f'path = "{media_dir}"\nmodelDescription = "Shelf"\n'
    out, status, took = run_and_stop(dms, config, sig)
    assert out == "\n[Shelf] running\n\n\n[Shelf] stopped\n\n"
    assert status == 0
    assert took < 2.5


# The lookup's quirks are unit-tested; here the server's own use of a missing value.
@pytest.mark.parametrize("config, label", [
    (None, "(null)"),                                                # no file at all
    ('deviceName = "Box"\n', "(null)"),                              # key absent
    ('modelDescription = Plain\nmanufacturer = "Acme"\n', "Acme"),   # next quotes win
])
def test_configuration_lookup_quirks(dms, config, label):
    out, status, _ = run_and_stop(dms, config)
    assert out == f"\n[{label}] running\n\n\n[{label}] stopped\n\n"
    assert status == 0


def test_file_is_read_once(dms):
    server = dms('modelDescription = "First"\n')
    time.sleep(0.3)
    (server.folder / "dmsConfig").write_text('modelDescription = "Second"\n')
    out, status = server.stop()
    assert out == "\n[First] running\n\n\n[First] stopped\n\n"
    assert status == 0



def test_stop_in_the_middle_of_browse_replies_and_downloads(dms, media_dir):
    demo = media_dir.parent / "demo"
    subprocess.run([str(BUILD / "dms-mkdemo"), str(demo)], check=True, stdout=subprocess.DEVNULL)
    for index in range(300):  # a Browse reply of some 200 KB
        shutil.copy(demo / "Pictures" / "Stripes.gif", media_dir / f"picture {index:03d} with a long name.gif")
    with open(media_dir / "Big.mp3", "wb") as big:
        big.write((demo / "Music" / "Demo Artist" / "Demo Album" / "01 Demo Song.mp3").read_bytes())
        big.truncate(64 << 20)
    server = dms(f'path = "{media_dir}"\nmodelDescription = "Shelf"\n')
    port = server.wait_ready()
    deadline = time.monotonic() + 30
    while browse(port, "0.1", count=1)[3] < 301 and time.monotonic() < deadline:
        time.sleep(0.2)
    item = [o["id"] for o in browse(port, "0.1")[1] if o["res"][0].get("size") == str(64 << 20)][0]

    arguments = [("ObjectID", "0.1"), ("BrowseFlag", "BrowseDirectChildren"), ("Filter", "*"),
                 ("StartingIndex", 0), ("RequestedCount", 0), ("SortCriteria", "")]
    download = f"GET /mediaitem/{item} HTTP/1.1\r\nHost: test\r\n\r\n".encode()
    readers = []
    for raw in [soap_request("Browse", arguments)] * 3 + [download] * 3:
        # The slowest of readers: a small receive buffer, and only the reply's start is read.
        reader = socket.socket()
        reader.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
        reader.connect(("127.0.0.1", port))
        reader.sendall(raw)
        assert reader.recv(1024).startswith(b"HTTP/1.1 200 OK")
        readers.append(reader)
    started = time.monotonic()
    out, status = server.stop()  # also fails on any sanitizer report
    assert status == 0 and out == "\n[Shelf] running\n\n\n[Shelf] stopped\n\n"
    assert time.monotonic() - started < 2.5  # the replies under way do not hold the stop up
    for reader in readers:
        reader.close()
