# The memos kept across restarts in CACHE_DIRECTORY: a start with the memo
# file lists and serves the library byte for byte as a start without it,
# whatever changed while the server was stopped, and a bad memo file is a
# memo file that is not there.
import os
import shutil
import subprocess
import time

from conftest import BUILD
from dms_client import browse, get

FILE, NEW = "dms.memo", "dms.memo.new"


def fnv(data):
    value = 14695981039346656037
    for byte in data:
        value = (value ^ byte) * 1099511628211 % (1 << 64)
    return value


def resealed(data, *patches):
    # The memo file with bytes replaced, (position, value) each, and its checksum made right again.
    data = bytearray(data[:-8])
    for at, value in patches:
        data[at] = value
    return bytes(data) + fnv(data).to_bytes(8, "little")


def listing(port):
    # Every container browsed whole, and both transfers of every item, with the port left out.
    found, pending = {}, ["0"]
    while pending:
        object_id = pending.pop(0)
        didl, objects, *counts = browse(port, object_id)
        found[object_id] = (didl.replace(f":{port}/", ":PORT/"), counts[:3])
        pending += [o["id"] for o in objects if o["element"] == "container"]
        for o in objects:
            if o["element"] == "item" and "refID" not in o:
                found[o["id"]] = [(r.status, r.body) for r in (get(port, f"/mediaitem/{o['id']}"),
                                                               get(port, f"/thumbnail/{o['id']}"))]
    return found


def served(dms, media, cache=None):
    # The listing of a server started on `media`, once its first pass is over; the server stops cleanly.
    server = dms(f'path = "{media}"\nrefreshInterval = "600"\n', env=cache and {"CACHE_DIRECTORY": str(cache)})
    port, last, deadline = server.wait_ready(), None, time.monotonic() + 20
    while time.monotonic() < deadline:  # the same views twice in a row
        counts = [browse(port, view)[3] for view in ("0.10", "0.20", "0.30")]
        if counts == last:
            break
        last = counts
        time.sleep(0.3)
    found = listing(port)
    assert server.stop()[1] == 0
    return found


def change_library(media):
    music = media / "Music/Demo Artist/Demo Album"
    flac = music / "01 Demo Song.flac"
    times, data = flac.stat(), flac.read_bytes()
    flac.write_bytes(data.replace(b"Demo Song", b"Xemo Song"))  # the same size, its times put back
    os.utime(flac, ns=(times.st_atime_ns, times.st_mtime_ns))
    with open(media / "Music/Demo Artist/tone.wav", "ab") as wav:
        wav.write(b"\0" * 4096)
    (media / "Pictures/incoming").write_bytes((media / "Pictures/Stripes.gif").read_bytes())
    os.replace(media / "Pictures/incoming", media / "Pictures/Gradient.png")
    (media / "Videos/clip.avi").unlink()
    shutil.copy(music / "01 Demo Song.mp3", media / "Music/added.mp3")


def test_a_restart_with_memos_lists_and_serves_as_without(dms, tmp_path):
    media, cache = tmp_path / "media", tmp_path / "cache"
    subprocess.run([str(BUILD / "dms-mkdemo"), str(media)], check=True)
    cache.mkdir()
    expected = served(dms, media)
    assert served(dms, media, cache) == expected and (cache / FILE).is_file()  # empty cache: written
    written = (cache / FILE).read_bytes()
    # The memo file is read: a title changed in it (and resealed) is what the
    # restart shows, since the file itself is not opened. Each bad header
    # below comes with that change, which must then not be shown.
    title = (written.index(b"Demo Gradient"), ord("X"))
    (cache / FILE).write_bytes(resealed(written, title))
    assert served(dms, media, cache) != expected
    path_at = written.index(str(media).encode()) + 1

    bad_caches = [  # what is done to the memo file before the restart
        lambda: (cache / FILE).write_bytes(written),  # as written: used
        lambda: (cache / FILE).write_bytes(written[:len(written) // 2]),
        lambda: (cache / FILE).write_bytes(written[:40] + bytes([written[40] ^ 1]) + written[41:]),
        lambda: (cache / FILE).write_bytes(b""),
        lambda: (cache / FILE).write_bytes(written + b"garbage"),
        lambda: (cache / FILE).write_bytes(resealed(written, title, (7, written[7] + 1))),  # format version
        lambda: (cache / FILE).write_bytes(resealed(written, title, (8, 12))),  # word size
        lambda: (cache / FILE).write_bytes(resealed(written, title, (9, 2))),  # byte order
        lambda: (cache / FILE).write_bytes(resealed(written, title, (path_at, ord("#")))),  # published path
        lambda: ((cache / FILE).unlink(), (cache / FILE).mkdir()),
        lambda: (shutil.rmtree(cache / FILE), os.mkfifo(cache / FILE)),
        lambda: ((cache / FILE).unlink(), (cache / FILE).write_bytes(written), (cache / NEW).write_bytes(b"cut")),
    ]
    for number, spoil in enumerate(bad_caches):
        spoil()
        assert served(dms, media, cache) == expected, number
    unwritable = tmp_path / "not a directory"
    unwritable.write_text("")
    assert served(dms, media, unwritable) == expected

    (cache / FILE).write_bytes(written)
    change_library(media)
    assert served(dms, media, cache) == served(dms, media)
