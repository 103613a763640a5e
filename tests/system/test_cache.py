# The memos kept across restarts in CACHE_DIRECTORY: a start with the memo
# file lists and serves the library byte for byte as a start without it,
# whatever changed while the server was stopped, and a bad memo file is a
# memo file that is not there. On a USB stick (exFAT, whose inode numbers
# change at each mount) that is still so, without opening unchanged files,
# and a pass that does not see the stick never costs the memo file.
import os
import re
import shutil
import subprocess
import threading

import pytest

from dms_client import browse, get, rewrite, until, walk

FILE, NEW = "dms.memo", "dms.memo.new"
VIEWS = ("0.10", "0.20", "0.30")


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
    found = {}
    for object_id, (didl, objects, *counts) in walk(port).items():
        found[object_id] = (didl.replace(f":{port}/", ":PORT/"), counts[:3])
        for o in objects:
            if o["element"] == "item" and "refID" not in o:
                found[o["id"]] = [(r.status, r.body) for r in (get(port, f"/mediaitem/{o['id']}"),
                                                               get(port, f"/thumbnail/{o['id']}"))]
    return found


def masked(found):
    # A listing with what a remount may change left out: the ids of scanned objects (in URLs too) and of
    # groups (made in the order a folder lists its files), update ids.
    values = [(v[0], v[1][:2]) if isinstance(v, tuple) else v for v in found.values()]
    return re.sub(r"\b([1-9][0-9]*\.[0-9]+|0\.1[0-9]{4,})\b", "ID", repr(values))


def served(dms, media, cache=None):
    # The listing of a server started on `media`, once its first pass is over; the server stops cleanly.
    server = dms(f'path = "{media}"\nrefreshInterval = "600"\n', env=cache and {"CACHE_DIRECTORY": str(cache)})
    port, seen = server.wait_ready(), [None]
    until(lambda: seen.append(view_counts(port)) or seen[-2] == seen[-1], bool, pause=0.3)  # the same twice in a row
    found = listing(port)
    assert server.stop()[1] == 0
    return found


def change_library(media):
    music = media / "Music/Demo Artist/Demo Album"
    flac = music / "01 Demo Song.flac"
    rewrite(flac, flac.read_bytes().replace(b"Demo Song", b"Xemo Song"))  # the same size, its times put back
    with open(media / "Music/Demo Artist/tone.wav", "ab") as wav:
        wav.write(b"\0" * 4096)
    (media / "Pictures/incoming").write_bytes((media / "Pictures/Stripes.gif").read_bytes())
    os.replace(media / "Pictures/incoming", media / "Pictures/Gradient.png")
    (media / "Videos/clip.avi").unlink()
    shutil.copy(music / "01 Demo Song.mp3", media / "Music/added.mp3")


def test_a_restart_with_memos_lists_and_serves_as_without(dms, tmp_path, demo):
    media, cache = shutil.copytree(demo, tmp_path / "media"), tmp_path / "cache"
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
        lambda: (cache / FILE).write_bytes(written[:len(written) // 2]),  # checksum (as bytes changed or added)
        lambda: (cache / FILE).write_bytes(b""),
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


class Stick:
    # The demo library on an exFAT image, plugged in at `mount` through a loop device and exfat-fuse,
    # which numbers inodes in the order files are looked up; `opened` tells which files were opened on it.

    def __init__(self, root, demo):
        self.image, self.mount, self.daemon = root / "stick.img", root / "stick", None
        self.mount.mkdir()
        self.image.touch()
        os.truncate(self.image, 32 << 20)
        subprocess.run(["mkfs.exfat", str(self.image)], check=True, capture_output=True)
        self.plug()
        shutil.copytree(demo, self.mount, dirs_exist_ok=True)
        (self.mount / "notes.txt").write_text("not media")

    def run(self, *argv):
        return subprocess.run(argv, check=True, capture_output=True, text=True).stdout.strip()

    def plug(self):
        # Mounted again, and every file looked up in the reverse order of the last mount's.
        self.device = self.run("losetup", "-f", "--show", str(self.image))
        self.daemon = subprocess.Popen(["mount.exfat-fuse", "-d", self.device, str(self.mount)],
                                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        until(lambda: os.path.ismount(self.mount) or self.daemon.poll() is not None, bool, 10, 0.05)
        assert os.path.ismount(self.mount), "exfat-fuse did not mount"
        for path in sorted(self.mount.rglob("*"), reverse=True):
            path.stat()
        self.events, self.watch = [], subprocess.Popen(
            ["inotifywait", "-m", "-r", "-e", "open", "--format", "%e %w%f", str(self.mount)],
            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        while "Watches established" not in self.watch.stderr.readline():
            assert self.watch.poll() is None, "inotifywait failed"
        threading.Thread(target=lambda: self.events.extend(map(str.strip, self.watch.stdout)), daemon=True).start()

    def opened(self):
        # The files opened since the mount or the last look: an open of our own, seen last, shows that all were seen.
        marker = str(self.mount / "notes.txt")
        until(lambda: (self.mount / "notes.txt").read_text() and any(e.endswith(marker) for e in self.events), bool,
              10, 0.1)
        seen = self.events[:]
        del self.events[:len(seen)]
        return [e for e in seen if "ISDIR" not in e and not e.endswith(marker)]

    def unplug(self):
        self.watch.terminate()
        self.run("umount", "-l", str(self.mount))
        self.daemon.wait(timeout=10)
        self.run("losetup", "-d", self.device)
        self.daemon = None


def view_counts(port):
    return [browse(port, view)[3] for view in VIEWS]


PASS_SECONDS = 60  # the next pass comes about 40 s after the last with the shortest refresh interval
STICK_CASES = [  # what happens to the stick before the start, and then under the running server
    ("remounted", ["unplug", "plug"], []),
    ("not mounted yet", ["unplug"], ["plug"]),
    ("unplugged and plugged back in", [], ["unplug", "plug"]),
]


def test_a_library_on_an_exfat_stick_keeps_its_memos(dms, tmp_path, demo):
    # Every mount gives the files other inode numbers, so other ids and URLs.
    try:  # the tools come from tools/install-deps; only FUSE itself may be missing
        os.close(os.open("/dev/fuse", os.O_RDWR))
    except OSError as error:
        pytest.skip(f"no FUSE: /dev/fuse: {error}")
    stick, cache = Stick(tmp_path, demo), tmp_path / "cache"
    try:
        cache.mkdir()
        found = served(dms, stick.mount)
        views, expected = [found[view][1][1] for view in VIEWS], masked(found)
        assert masked(served(dms, stick.mount, cache)) == expected
        memo = (cache / FILE).read_bytes()
        for case, before, during in STICK_CASES:
            for step in before:
                getattr(stick, step)()
            if stick.daemon:
                stick.opened()  # what the cases before opened
            server = dms(f'path = "{stick.mount}"\nrefreshInterval = "30"\n', env={"CACHE_DIRECTORY": str(cache)})
            port = server.wait_ready()
            for step in [None, *during]:
                if step:
                    assert not stick.daemon or stick.opened() == [], case
                    getattr(stick, step)()
                if step == "unplug":  # answered, though the files are gone
                    listing(port)
                # A pass fills the views, answering all the while.
                counts = views if stick.daemon else [0, 0, 0]
                assert until(lambda: view_counts(port), counts.__eq__, PASS_SECONDS if step else 20, 0.5) == counts, case
                assert (cache / FILE).read_bytes() == memo, case
            # Not one file opened again, by the scan nor by Browse.
            assert stick.opened() == [] and masked(listing(port)) == expected, case
            assert server.stop()[1] == 0 and (cache / FILE).read_bytes() == memo, case
    finally:
        if stick.daemon:
            stick.unplug()
