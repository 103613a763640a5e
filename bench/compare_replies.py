"""Compares the replies of two builds of the server, request for request: both
serve the same library side by side; every container is browsed with several
Filters and windows, every object with BrowseMetadata, and every item's media
and thumbnail URLs are fetched whole and in ranges. Then files are changed
behind the servers' backs (tags rewritten, a same-size rewrite with its
modification time put back, replaced under the same name, removed, truncated,
turned into a symbolic link or a FIFO) and everything is asked again before
the next rescan (but the transfers of the FIFO, whose open waits for a writer). Each pair of replies must be byte-identical but for the Date
header and the port inside URLs. Prints the counts; exits 1 on a difference.
--watch: both servers with watchChanges on; while the changed files are asked
for, a file of an otherwise empty folder is written every 0.1 s, so that the
watch holds the rescan off (it waits for a second of quiet) and the replies
are those of memos the watch's events alone say to check.
Run: tools/netns-run /usr/bin/python3 bench/compare_replies.py [--watch] OLD_BUILD_DIR [NEW_BUILD_DIR]"""
import contextlib
import os
import shutil
import subprocess
import sys
import tempfile
import time
from pathlib import Path

import reallib
from benchlib import BUILD, dms_client, passes_held_off, require_namespace
from conftest import Process

FILTERS = ["*", "", "dc:title", "upnp:artist,upnp:album,upnp:genre", "res", "res@size,upnp:albumArtURI",
           "dc:date,@refID", "@childCount,res@duration", "upnp:artist@role,upnp:album@x,res@resolution"]
WINDOWS = [(0, 0), (1, 2), (40, 25)]
OBJECT_FILTERS = ["*", "", "res,dc:date,@refID,upnp:genre"]
MANY = 120
SCAN_TIMEOUT = 60
NO_RESCAN_SECONDS = 3600  # no rescan after the first pass: the changed files stay listed


def build_library(root, mkdemo):
    media = root / "media"
    subprocess.run([str(mkdemo), str(media)], check=True, stdout=subprocess.DEVNULL)
    real = reallib.make(root / "real-made")
    (media / "Real").mkdir()
    for extension, path in real.items():
        shutil.copy(path, media / "Real" / f"real{extension}")
    (media / "Busy").mkdir()
    many = media / "Many"
    many.mkdir()
    sources = sorted(p for p in media.rglob("*") if p.is_file() and "Many" not in p.parts)
    for index in range(MANY):
        source = sources[index % len(sources)]
        shutil.copy(source, many / f"item {index:03d}{source.suffix}")
    return media


class Server:
    def __init__(self, build, folder, media, watch):
        folder.mkdir(parents=True)
        shutil.copy2(Path(build) / "dms", folder / "dms")
        (folder / "dmsConfig").write_text(f'path = "{media}"\nrefreshInterval = "{NO_RESCAN_SECONDS}"\n'
                                          f'watchChanges = "{"on" if watch else "off"}"\n')
        self.process = Process([str(folder / "dms")], cwd=folder)
        self.port = self.process.wait_port()

    def ask(self, raw):
        reply = dms_client.Client(self.port).send(raw).reply()
        headers = [line for line in reply.head.decode().split("\r\n") if not line.lower().startswith("date:")]
        body = reply.body.replace(f":{self.port}/".encode(), b":PORT/")
        return headers, reply.sizes if len(str(self.port)) == 5 else None, body


def walk(server):
    """The ids of the containers, of every object and of the items (not references) below the root."""
    objects, pending, containers, items = [], ["0"], [], []
    while pending:
        object_id = pending.pop(0)
        containers.append(object_id)
        for o in dms_client.browse(server.port, object_id)[1]:
            objects.append(o["id"])
            if o["element"] == "container":
                pending.append(o["id"])
            elif "refID" not in o:
                items.append(o["id"])
    return containers, objects, items


def requests(containers, objects, items, skipped=()):
    for object_id in containers:
        for filt in FILTERS:
            for start, count in WINDOWS:
                yield dms_client.soap("Browse", dms_client.browse_arguments(object_id, "BrowseDirectChildren",
                                                                            filt, start, count))
    for object_id in ["0"] + objects:
        for filt in OBJECT_FILTERS:
            yield dms_client.soap("Browse", dms_client.browse_arguments(object_id, "BrowseMetadata", filt))
    for object_id in (i for i in items if i not in skipped):
        for kind in ("mediaitem", "thumbnail"):
            for extra in ("", "Range: bytes=0-99\r\n", "Range: bytes=7-\r\n", "transferMode.dlna.org: Interactive\r\n"):
                yield f"GET /{kind}/{object_id} HTTP/1.1\r\nHost: test\r\n{extra}Connection: close\r\n\r\n".encode()


def compare(old, new, tree, skipped=()):
    counts = {"Browse": 0, "GET": 0}
    for raw in requests(*tree, skipped):
        theirs, ours = old.ask(raw), new.ask(raw)
        if theirs != ours:
            print(f"DIFFERENT reply to {raw[:160]!r}:\n  old {theirs!r:.2000}\n  new {ours!r:.2000}")
            sys.exit(1)
        counts["GET" if raw.startswith(b"GET") else "Browse"] += 1
    return counts


def change_files(media):
    """Changes behind the servers' backs; returns what was done and the id of the FIFO."""
    music = media / "Music" / "Demo Artist" / "Demo Album"
    many = sorted((media / "Many").iterdir())
    done = []
    # Tags rewritten: other content in place, so the size changes.
    (music / "01 Demo Song.mp3").write_bytes((music / "01 Demo Song.flac").read_bytes())
    done.append("content rewritten in place (size changed)")
    # The same size, one byte of a title changed, the modification time put back.
    target = next(p for p in many if p.suffix == ".flac")
    data = bytearray(target.read_bytes())
    at = data.find(b"Demo Song")
    data[at] = ord("X")
    stat = target.stat()
    target.write_bytes(bytes(data))
    os.utime(target, ns=(stat.st_atime_ns, stat.st_mtime_ns))
    done.append("same-size rewrite, modification time put back")
    # Replaced under the same name by another file (a new inode).
    replaced = next(p for p in many if p.suffix == ".mp3")
    temporary = replaced.with_name("incoming.tmp")
    temporary.write_bytes((media / "Pictures" / "Gradient.png").read_bytes())
    os.replace(temporary, replaced)
    done.append("replaced under the same name")
    picks = [p for p in many if p.suffix in (".jpg", ".mkv", ".m4a", ".gif", ".wav", ".png")]
    picks[0].unlink()
    done.append("removed")
    picks[1].write_bytes(b"")
    done.append("truncated to nothing")
    picks[2].unlink()
    picks[2].symlink_to(media / "Music" / "Night Drive.mka")
    done.append("turned into a symbolic link")
    fifo = f"{picks[3].stat().st_dev + 1}.{picks[3].stat().st_ino}"
    picks[3].unlink()
    os.mkfifo(picks[3])
    done.append("turned into a FIFO")
    picks[4].chmod(0)
    done.append("made unreadable (mode 0)")
    with open(picks[5], "r+b") as file:
        file.truncate(picks[5].stat().st_size // 2)
    done.append("cut to half")
    return done, fifo


def wait_scanned(server, expected):
    deadline = time.monotonic() + SCAN_TIMEOUT
    while time.monotonic() < deadline:
        if len(walk(server)[1]) == expected:
            return
        time.sleep(0.2)
    sys.exit("the scan did not finish in time")


def main():
    require_namespace()
    watch = sys.argv[1:2] == ["--watch"]
    arguments = sys.argv[1 + watch:]
    if len(arguments) not in (1, 2):
        sys.exit(__doc__)
    old_build, new_build = Path(arguments[0]), Path(arguments[1] if len(arguments) == 2 else BUILD)
    with tempfile.TemporaryDirectory(prefix="dms-compare-") as temp:
        root = Path(temp)
        media = build_library(root, new_build / "dms-mkdemo")
        old = Server(old_build, root / "old", media, watch)
        new = Server(new_build, root / "new", media, watch)
        try:
            time.sleep(1.0)
            expected = len(walk(old)[1])
            while True:  # both scans complete: the same object count twice in a row
                time.sleep(0.5)
                count = len(walk(old)[1])
                if count == expected:
                    break
                expected = count
            wait_scanned(new, expected)
            started = time.monotonic()
            tree = walk(old)
            first = compare(old, new, tree)
            update_ids = [dms_client.browse(server.port, "0")[4] for server in (old, new)]
            with passes_held_off(media / "Busy" / "busy.gif") if watch else contextlib.nullcontext():
                done, fifo = change_files(media)
                second = compare(old, new, tree, {fifo})
                if [dms_client.browse(server.port, "0")[4] for server in (old, new)] != update_ids:
                    sys.exit("a pass ran while the changed files were asked for: run again")
            elapsed = time.monotonic() - started
        finally:
            old.process.stop()
            new.process.stop()
    print(f"compare_replies: {len(tree[0])} containers, {len(tree[1])} objects, {len(tree[2])} items; "
          f"old {old_build}, new {new_build}; watchChanges {'on' if watch else 'off'}")
    print(f"unchanged library: {first['Browse']} Browse requests and {first['GET']} transfers, all identical")
    print(f"after the changes ({'; '.join(done)}): {second['Browse']} Browse requests and {second['GET']} transfers, "
          f"all identical")
    print(f"both rounds in {elapsed:.1f} s")


if __name__ == "__main__":
    main()
