# Browse and media transfer through the running server, on the demo library
# plus a folder large enough to need several DIDL-Lite pages and a picture of
# more than two 4 MiB pieces; the HTTP rules (ranges, keep-alive, bodies,
# limits and idle timeouts) as a control point meets them.
import json
import os
import shutil
import subprocess
import time
from concurrent.futures import ThreadPoolExecutor

import pytest

import dms_client
from conftest import passes_held_off
from conftest import BUILD, Dms
from dms_client import Client, browse, browse_raw, by_title, get, rewrite, until, walk

MANY = 150  # pictures in one folder: well over one 8 KB page
BIG = 9 * 1024 * 1024 + 12345


@pytest.fixture(scope="module")
def library(tmp_path_factory, demo):
    root = tmp_path_factory.mktemp("browse")
    media = shutil.copytree(demo, root / "media")
    many = media / "Many"
    many.mkdir()
    for index in range(MANY):
        shutil.copy(media / "Pictures" / "Stripes.gif", many / f"picture number {index:03d} with a long name.gif")
    stripes = (media / "Pictures" / "Stripes.gif").read_bytes()
    (media / "Big.gif").write_bytes(stripes + bytes(range(251)) * ((BIG - len(stripes)) // 251) + b"." * ((BIG - len(stripes)) % 251))
    server = Dms(root / "server", f'path = "{media}"\ndmsModelName = "Model"\nmodelNumber = "7"\n')
    port = server.wait_ready()
    folder = until(lambda: [o["id"] for o in browse(port, "0.1")[1] if o.get("dc:title") == "Many"], bool)
    until(lambda: browse(port, folder[0])[3], MANY.__eq__)
    yield port, media
    server.stop()


def child(port, parent, title):
    return by_title(browse(port, parent)[1], title)


def test_fixed_tree_exact_didl_with_full_and_empty_filters(library):
    port, media = library
    didl, objects, returned, total, update, _ = browse(port, "0", filt="")
    head = ('<DIDL-Lite xmlns:dc="http://purl.org/dc/elements/1.1/" '
            'xmlns:upnp="urn:schemas-upnp-org:metadata-1-0/upnp/" '
            'xmlns="urn:schemas-upnp-org:metadata-1-0/DIDL-Lite/">')
    containers = [("0.4", "Music", "object.container"), ("0.3", "Videos", "object.container"),
                  ("0.2", "Pictures", "object.container"), ("0.1", "Volume", "object.container.storageVolume")]
    expected = "".join(f'<container id="{i}" parentID="0"  restricted="0" ><upnp:class>{c}</upnp:class>'
                       f"<dc:title>{t}</dc:title></container>" for i, t, c in containers)
    assert (didl, returned, total) == (head + expected + "</DIDL-Lite>", 4, 4)

    views = [(o["id"], o["parentID"], o["dc:title"], o["upnp:class"], o["childCount"]) for o in browse(port, "0.4")[1]]
    assert views == [("0.10", "0.4", "All Music", "object.container", "5"),
                     ("0.11", "0.4", "Artists", "object.container.person.musicArtist", "2"),
                     ("0.12", "0.4", "Albums", "object.container.album.musicAlbum", "2"),
                     ("0.13", "0.4", "Genres", "object.container.genre.musicGenre", "4")]


def test_metadata_versus_children_and_items(library):
    port, _ = library
    _, objects, returned, total, update, _ = browse(port, " \t0\r\n", flag="BrowseMetadata")  # values are trimmed
    root = objects[0]
    assert (returned, total, root["id"], root["parentID"], root["childCount"]) == (1, 1, "0", "-1", "4")

    song = child(port, "0.10", "Night Drive")
    assert song["refID"] and song["parentID"] == "0.10"
    for flag in ("BrowseMetadata", "BrowseDirectChildren"):
        _, objects, returned, total, *_ = browse(port, song["id"], flag=flag)
        assert (returned, total, objects[0]["id"]) == (1, 1, song["id"])


def test_paging_over_several_chunks(library):
    port, _ = library
    folder = child(port, "0.1", "Many")["id"]
    didl, objects, returned, total, _, sizes = browse(port, folder)
    # Head, at least two pages, tail and last chunk.
    assert returned == total == MANY and len(sizes) >= 5 and max(sizes) <= 8200
    assert [o["dc:title"] for o in objects] == sorted(o["dc:title"] for o in objects)
    assert all(o["res"][0]["resolution"] == "32x24" for o in objects)

    for start, count, end in ((100, 30, 130), (140, 0, MANY)):
        _, window, returned, total, *_ = browse(port, folder, start=start, count=count)
        assert (returned, total, [o["id"] for o in window]) == \
            (end - start, MANY, [o["id"] for o in objects[start:end]])


def test_unknown_object_is_an_empty_success(library):
    port, _ = library
    didl, objects, returned, total, update, _ = browse(port, "12345.678")
    assert objects == [] and (returned, total, update) == (0, 0, 0)


@pytest.mark.parametrize("arguments", [{"object_id": "1" * 24}, {"object_id": "x.1"}, {"flag": "BrowseEverything"},
                                       {"start": "1234567890"}, {"count": "ten"}])
def test_bad_arguments_give_fault_720(library, arguments):
    port, _ = library
    reply = browse_raw(port, arguments.pop("object_id", "0"), **arguments)
    assert reply.status == "HTTP/1.1 500 Internal Server Error" and b"<errorCode>720</errorCode>" in reply.body
    assert b"Cannot Process the Request" in reply.body


def test_head_gets_only_the_header(library):
    port, _ = library
    client = dms_client.Client(port)
    arguments = dms_client.browse_arguments("0", "BrowseMetadata")
    reply = client.send(dms_client.soap("Browse", arguments, method="HEAD")).reply(body=False)
    headers = reply.headers
    assert (reply.status, headers["transfer-encoding"], headers["ext"]) == ("HTTP/1.1 200 OK", "chunked", "")
    assert headers["server"].endswith("UPnP/1.0 Model/7") and client.buffer == b"" and client.closed()


def test_categorised_views(library):
    port, _ = library
    artists = browse(port, "0.11")[1]
    assert [a["dc:title"] for a in artists] == ["Demo Artist", "Unknown"]
    songs = browse(port, by_title(artists, "Demo Artist")["id"])[1]
    assert {s["dc:title"] for s in songs} == {"Demo Song", "Tone"}
    assert all(s["id"].split(".")[0] != s["refID"].split(".")[0] for s in songs)  # view bit in the id
    moments = [m["dc:title"] for m in browse(port, "0.31")[1]]
    assert moments == sorted(moments, reverse=True)  # newest day first
    assert {"2021-08-14", "2009-06-15"} <= set(moments)
    videos = [v["dc:title"] for v in browse(port, "0.20")[1]]
    assert sorted(videos) == ["Clip", "Demo Clip", "Demo Clip", "Demo Movie"]


def media_item(port, title, view="0.10"):
    # The item behind a reference, with its DIDL fields.
    return browse(port, child(port, view, title)["refID"], flag="BrowseMetadata")[1][0]


def test_item_rendering_and_thumbnail_of_an_mp3(library):
    port, media = library
    mp3 = [o for o in browse(port, "0.10")[1] if o["res"][0]["protocolInfo"].startswith("http-get:*:audio/mpeg")][0]
    item = browse(port, mp3["refID"], flag="BrowseMetadata")[1][0]
    assert (item["upnp:artist"], item["upnp:album"], item["upnp:genre"]) == ("Demo Artist", "Demo Album", "Rock")
    media_res, thumb_res = item["res"]
    assert media_res["duration"].startswith("0:00:00.")
    assert media_res["url"] == f"http://127.0.0.1:{port}/mediaitem/{item['id']}"
    assert thumb_res["url"] == item["upnp:albumArtURI"] == f"http://127.0.0.1:{port}/thumbnail/{item['id']}"

    _, picture = cover_bytes(media, "Music/Demo Artist/Demo Album/01 Demo Song.mp3")
    reply = get(port, f"/thumbnail/{item['id']}")
    assert (reply.status, reply.body, reply.headers["content-type"], reply.headers["transfermode.dlna.org"],
            reply.headers["contentfeatures.dlna.org"]) == ("HTTP/1.1 200 OK", picture, "image/jpeg", "Interactive",
                                                           "DLNA.ORG_PN=JPEG_TN;DLNA.ORG_OP=01;DLNA.ORG_CI=1")
    # A cover is a region of its file, and the region is the resource.
    n = len(picture)
    for value, status, content_range, body in (
            (f"bytes={n - 10}-", "206 Partial Content", f"bytes {n - 10}-{n - 1}/{n}", picture[-10:]),
            (f"bytes={n}-", "200 OK", None, b""),
            (f"bytes={n + 1}-", "416 Requested Range Not Satisfiable", None, b"")):
        reply = get(port, f"/thumbnail/{item['id']}", f"Range: {value}")
        assert (reply.status, reply.headers.get("content-range"), reply.body) == \
            ("HTTP/1.1 " + status, content_range, body), value


def test_media_transfer_rules(library):
    port, media = library
    song = media_item(port, "Tone")
    path = f"/mediaitem/{song['id']}"
    wav = (media / "Music/Demo Artist/tone.wav").read_bytes()
    reply = get(port, path)
    assert (reply.status, reply.body, reply.headers["content-type"], reply.headers["accept-ranges"],
            reply.headers["transfermode.dlna.org"], reply.headers["contentfeatures.dlna.org"]) == \
        ("HTTP/1.1 200 OK", wav, "audio/wave", "bytes", "Streaming", "DLNA.ORG_OP=01")

    picture = media_item(port, "Demo Gradient", "0.30")["id"]
    cases = [
        (path, ("transferMode.dlna.org: Interactive",), "406 Not Acceptable"),
        (path, ("transferMode.dlna.org: background",), "200 OK"),
        (path, ("timeSeekRange.dlna.org: npt=0-",), "406 Not Acceptable"),
        (path, ("getContentFeatures.dlna.org: 1",), "200 OK"),
        (path, ("getContentFeatures.dlna.org: 2",), "400 Bad Request"),
        (f"/mediaitem/{picture}", ("transferMode.dlna.org: Interactive",), "200 OK"),
        (f"/mediaitem/{picture}", ("transferMode.dlna.org: Streaming",), "406 Not Acceptable"),
        (f"/thumbnail/{song['id']}", (), "404 Not Found"),  # no embedded picture
        ("/mediaitem/0.3", (), "404 Not Found"),
        ("/mediaitem/abc", (), "404 Not Found"),
        (f"/mediaitems/{song['id']}", (), "400 Bad Request"),  # not ours: the device answers
    ]
    for target, headers, expected in cases:
        reply = get(port, target, *headers)
        assert reply.status == f"HTTP/1.1 {expected}", (target, headers)
        if expected != "200 OK":
            assert reply.headers["content-length"] == "0" and reply.body == b""
    assert get(port, path, host=None).status == "HTTP/1.1 400 Bad Request"  # no Host header


def cover_bytes(media, relative):
    # The embedded picture of a demo file, located by dms-probe.
    path = media / relative
    probe = json.loads(subprocess.run([str(BUILD / "dms-probe"), str(path)], check=True, capture_output=True,
                                      text=True).stdout)
    return probe, path.read_bytes()[probe["coverOffset"]:probe["coverOffset"] + probe["coverLength"]]


def test_photo_and_video_metadata_in_didl(library):
    port, _ = library
    photo = media_item(port, "Harbour at dawn", "0.30")
    assert (photo["upnp:artist"], photo["dc:date"], photo["res"][0]["resolution"]) == \
        ("Demo Photographer", "2021-08-14", "64x48")

    mkv = [v for v in browse(port, "0.20")[1] if "x-matroska" in v["res"][0]["protocolInfo"]][0]
    assert (mkv["upnp:class"], mkv["res"][0]["duration"]) == ("object.item.videoItem", "0:00:12.500000")


def test_ranges_and_head_of_a_file(library):
    port, media = library
    data = (media / "Music/Demo Artist/tone.wav").read_bytes()
    size, path = len(data), f"/mediaitem/{media_item(port, 'Tone')['id']}"
    whole, partial = "200 OK", "206 Partial Content"
    cases = [
        (None, whole, None, data), ("bytes=100-", partial, f"bytes 100-{size - 1}/{size}", data[100:]),
        ("bytes=0-0", partial, f"bytes 0-0/{size}", data[:1]),
        (f"bytes=500-{size * 5}", partial, f"bytes 500-{size - 1}/{size}", data[500:]),
        (f"bytes={size}-", whole, None, b""), (f"bytes={size + 1}-", "416 Requested Range Not Satisfiable", None, b""),
        ("bytes=-500", "400 Bad Request", None, b""), ("bytes=9-3", "400 Bad Request", None, b""),
        ("bytes=", partial, f"bytes 0-{size - 1}/{size}", data),
        ("bytes=10-19,30-39", partial, f"bytes 10-19/{size}", data[10:20]), ("items=1-2", whole, None, data),
        ("bytes=0-9223372036854775807", partial, f"bytes 0-{size - 1}/{size}", data),
    ]
    for value, status, content_range, body in cases:
        reply = get(port, path, *([f"Range: {value}"] if value is not None else []))
        assert (reply.status, reply.headers.get("content-range"), reply.body) == \
            ("HTTP/1.1 " + status, content_range, body), value
    # HEAD sends the same header lines (the date aside) without the body.
    client = Client(port)
    for target in (f"/thumbnail/{media_item(port, 'Harbour at dawn', '0.30')['id']}", path):
        head, full = client.get(target, "Range: bytes=1-", method="HEAD"), client.get(target, "Range: bytes=1-")
        head.headers.pop("date", None), full.headers.pop("date", None)
        assert (head.status, head.order, head.headers) == (full.status, full.order, full.headers) and full.body


def test_bodies_in_pieces_and_slow_clients(library):
    port, _ = library
    [big] = [o for o in browse(port, "0.1")[1] if o["element"] == "item" and o["res"][0].get("size") == str(BIG)]
    data = (library[1] / "Big.gif").read_bytes()
    client = Client(port, timeout=30)
    path = "/" + big["res"][0]["url"].split("/", 3)[3]
    start, end = 4 * 1024 * 1024 - 100, 8 * 1024 * 1024 + 100
    reply = client.get(path, f"Range: bytes={start}-{end}")
    assert (reply.headers["content-range"], reply.body) == (f"bytes {start}-{end}/{BIG}", data[start:end + 1])
    assert client.get(path).body == data  # the next request on the connection starts afresh
    # Twenty connections in the middle of their headers hold nobody up.
    slow = [Client(port).send(b"GET /DMS/Device HTTP/1.1\r\n") for _ in range(20)]
    assert get(port, "/DMS/Device").status == "HTTP/1.1 200 OK"
    assert [c.send(b"Host: x\r\n\r\n").reply().status for c in slow] == ["HTTP/1.1 200 OK"] * 20


def test_keep_alive_continue_and_header_limit(library):
    port, _ = library
    old = Client(port)
    assert (old.get("/DMS/Device", version="HTTP/1.0").headers["connection"], old.closed()) == ("close", True)
    kept = Client(port)
    assert kept.get("/DMS/Device", "Connection: Keep-Alive", version="HTTP/1.0").headers["connection"] == "keep-alive"
    assert (kept.get("/DMS/Device", version="HTTP/1.0").headers["connection"], kept.closed()) == ("close", True)
    # Two requests in one segment: the header reader takes exactly one block at a time.
    # The second names its target in the absolute form.
    pipelined = Client(port).send(b"GET /DMS/Device HTTP/1.1\r\n\r\nGET http://test:80/DMS/Device HTTP/1.1\r\n"
                                  b"Connection: close\r\n\r\n")
    assert [r.status for r in pipelined.replies()] == ["HTTP/1.1 200 OK"] * 2
    # No version at all is answered (the device writes HTTP/1.1), and the connection closes.
    bare = Client(port).send(b"GET /DMS/Device\r\n\r\n")
    assert (bare.reply().status, bare.closed()) == ("HTTP/1.1 200 OK", True)

    head, body = dms_client.soap("GetSystemUpdateID", []).split(b"\r\n\r\n", 1)
    client = Client(port).send(head.replace(b"HTTP/1.1", b"HTTP/1.0") + b"\r\nExpect: 100-continue\r\n\r\n")
    assert client.read_exact(25) == b"HTTP/1.1 100 Continue\r\n\r\n"
    reply = client.send(body).reply()
    assert reply.status == "HTTP/1.1 200 OK" and b"<Id>" in reply.body

    def block(size):
        start = b"GET /DMS/Device HTTP/1.1\r\nX-Pad: "
        return start + b"x" * (size - len(start) - 4) + b"\r\n\r\n"
    assert Client(port).send(block(8192)).reply().status == "HTTP/1.1 200 OK"
    assert all(Client(port).send(block(size)).closed() for size in (8193, 20000))


def test_idle_connections_are_dropped(library):
    # The waits run in parallel; each gives the time until the server closed.
    port = library[0]

    def closed_after(target=None):
        client = Client(port, timeout=20)
        if target:
            client.get(target)
        start = time.monotonic()
        assert client.closed(timeout=20)
        return time.monotonic() - start

    def unterminated_block():
        # A block that stops without its blank line is parsed as it stands
        # after a pause, and answered again on every pass since it stays unread.
        client, start = Client(port, timeout=20).send(b"GET /DMS/Device HTTP/1.1\r\nHost: x"), time.monotonic()
        first = client.reply()
        return time.monotonic() - start, [first.status, client.reply().status]

    with ThreadPoolExecutor(3) as pool:
        waits = [pool.submit(closed_after), pool.submit(closed_after, "/DMS/Device"), pool.submit(unterminated_block)]
    (first, keep_alive, (unterminated, replies)) = [wait.result() for wait in waits]
    assert 4.0 <= first <= 8.0 and 9.0 <= keep_alive <= 13.0, (first, keep_alive)
    assert 1.5 <= unterminated <= 5.0 and replies == ["HTTP/1.1 200 OK"] * 2, (unterminated, replies)


def our_walk(port, host):
    # Every container from "0" down, browsed by our client, in the probe's shape.
    browses = {}
    for object_id, (_, objects, returned, total, *_) in walk(port, host=host).items():
        assert returned == total == len(objects), object_id
        found = [{"id": o["id"], "parentID": o["parentID"], "title": o["dc:title"], "class": o["upnp:class"],
                  "res": [{"uri": r["url"], "mime": r["protocolInfo"].split(":")[2], "protocolInfo": r["protocolInfo"]}
                          for r in o.get("res", [])],
                  **({"childCount": int(o.get("childCount", -1))} if o["element"] == "container" else {})}
                 for o in objects]
        browses[object_id] = {"objects": found, "total": total}
    return browses


def test_gupnp_av_parses_every_browse_result_like_our_client(library):
    # A real control-point library reads our Browse output: GUPnP walks the
    # whole tree and GUPnP-AV's DIDL-Lite parser sees what our client sees,
    # down to each protocolInfo, which it writes back as it was sent.
    port, host = library[0], os.environ["DMS_NETNS_ADDR"]
    theirs, ours = dms_client.gupnp("browse", 10), our_walk(port, host)
    assert sorted(theirs) == sorted(ours)
    for object_id, seen in ours.items():
        assert theirs[object_id] == seen, object_id
    items = [o for b in ours.values() for o in b["objects"] if "childCount" not in o]
    assert {o["class"].split(".")[2] for o in items} >= {"audioItem", "videoItem", "imageItem"}
    assert all(o["res"][0]["uri"].startswith(f"http://{host}:{port}/mediaitem/") for o in items)


def id3_mp3(audio, title, cover):
    # An MP3 file: an ID3v2.3 tag with a title and a cover, then `audio`'s frames.
    def frame(name, data):
        return name + len(data).to_bytes(4, "big") + b"\0\0" + data
    frames = frame(b"TIT2", b"\0" + title.encode()) + frame(b"APIC", b"\0image/jpeg\0\3\0" + cover)
    size = bytes(len(frames) >> shift & 0x7F for shift in (21, 14, 7, 0))
    return b"ID3\3\0\0" + size + frames + audio


@pytest.mark.parametrize("watch", ["off", "on"])
def test_changed_files_are_described_as_they_are_now(dms, tmp_path, demo, watch):
    # Between the scan and the next rescan an item is described from its file
    # as it is now, in its folder, in the views and in both transfers; with the
    # watch on too, where the watch's events alone say which memos to check.
    media = tmp_path / "media"
    tagged = (demo / "Music/Demo Artist/Demo Album/01 Demo Song.mp3").read_bytes()
    audio = tagged[10 + sum(b << (21 - 7 * i) for i, b in enumerate(tagged[6:10])):]
    before = id3_mp3(audio, "Alpha", b"\xff\xd8old cover")

    def replace(path):
        path.with_suffix(".new").write_bytes(id3_mp3(audio, "Replacement", b"\xff\xd8other"))
        os.replace(path.with_suffix(".new"), path)

    cases = [  # file, change after the scan, title and cover afterwards (None: gone)
        ("unchanged.mp3", None, "Alpha", b"\xff\xd8old cover"),
        ("tags.mp3", lambda p: p.write_bytes(id3_mp3(audio, "Longer title", b"\xff\xd8bigger cover")),
         "Longer title", b"\xff\xd8bigger cover"),
        ("same size.mp3", lambda p: rewrite(p, id3_mp3(audio, "Omega", b"\xff\xd8new cover")), "Omega",
         b"\xff\xd8new cover"),
        ("replaced.mp3", replace, "Replacement", b"\xff\xd8other"),
        ("removed.mp3", os.remove, "removed", None),
        ("fifo.mp3", lambda p: (os.remove(p), os.mkfifo(p)), "fifo", None),  # refused, never waited on
    ]
    (media / "Busy").mkdir(parents=True)
    for name, *_ in cases:
        (media / name).write_bytes(before)
    port = dms(f'path = "{media}"\nrefreshInterval = "600"\nwatchChanges = "{watch}"\n').wait_ready()
    until(lambda: browse(port, "0.10")[3], len(cases).__le__, 10, 0.1)
    ids = {name: f"{(media / name).stat().st_dev + 1}.{(media / name).stat().st_ino}" for name, *_ in cases}
    with passes_held_off(media / "Busy" / "busy.gif"):
        for name, change, *_ in cases:
            if change:
                change(media / name)
        for listing in (browse(port, "0.1")[1], browse(port, "0.10")[1]):
            for name, _, title, cover in cases:
                [item] = [o for o in listing if ids[name] in (o["id"], o.get("refID"))]
                file = media / name
                sizes = [r["size"] for r in item.get("res", []) if "size" in r]
                assert (item["dc:title"], sizes) == (title, [str(file.stat().st_size)] if cover else []), name
                media_reply, thumbnail = get(port, f"/mediaitem/{ids[name]}"), get(port, f"/thumbnail/{ids[name]}")
                assert (media_reply.body, thumbnail.body) == ((file.read_bytes(), cover) if cover else (b"", b"")), \
                    name
