"""dms-probe: one JSON line per file with the record the library scan would get.

The demo library from dms-mkdemo supplies real files of each format; a few
more are written here byte by byte to reach the JSON escaping and the UTF-8
filter. Nothing here touches the network.
"""
import json
import os
import struct
import subprocess
import zlib

import pytest

from conftest import BUILD

FLAC_SONG = "Music/Demo Artist/Demo Album/01 Demo Song.flac"
STREAM_KEYS = ["number", "kind", "enabled", "duration", "timescale", "sampleRate", "channels",
               "bitsPerSample", "width", "height", "bitsPerPixel"]
RECORD_KEYS = ["file", "recognised", "mediaType", "mimeType", "duration", "timescale", "title", "artist",
               "album", "genre", "date", "coverMimeType", "coverOffset", "coverLength", "streams"]


def probe(*paths):
    result = subprocess.run([str(BUILD / "dms-probe"), *map(os.fsencode, paths)],
                            capture_output=True, timeout=30)
    assert b"Sanitizer" not in result.stderr and b"runtime error" not in result.stderr, result.stderr
    lines = result.stdout.decode("utf-8").splitlines()
    return result.returncode, [json.loads(line) for line in lines], result.stderr.decode(errors="replace")


@pytest.fixture(scope="module")
def demo(tmp_path_factory):
    root = tmp_path_factory.mktemp("demo")
    subprocess.run([str(BUILD / "dms-mkdemo"), str(root)], check=True, timeout=30)
    return root


def png_chunk(kind, data):
    return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data))


def png_with_title(title):
    header = struct.pack(">IIBBBBB", 3, 2, 8, 6, 0, 0, 0)
    return (b"\x89PNG\r\n\x1a\n" + png_chunk(b"IHDR", header) + png_chunk(b"tEXt", b"Title\0" + title)
            + png_chunk(b"IEND", b""))


def flac_with_comments(*comments):
    info = struct.pack(">HH3s3s", 4096, 4096, b"\0\0\0", b"\0\0\0")
    info += ((8000 << 44) | (0 << 41) | (15 << 36) | 16000).to_bytes(8, "big") + bytes(16)
    vendor = b"test"
    body = struct.pack("<I", len(vendor)) + vendor + struct.pack("<I", len(comments))
    body += b"".join(struct.pack("<I", len(c)) + c for c in comments)
    return (b"fLaC" + bytes([0]) + len(info).to_bytes(3, "big") + info
            + bytes([0x84]) + len(body).to_bytes(3, "big") + body + bytes(32))


def test_demo_files_of_each_format(demo):
    status, records, _ = probe(demo / FLAC_SONG, demo / "Pictures/Gradient.png", demo / "Pictures/Stripes.gif")
    assert status == 0
    assert len(records) == 3
    for record in records:
        assert list(record) == RECORD_KEYS
        assert record["recognised"] is True
        for stream in record["streams"]:
            assert list(stream) == STREAM_KEYS

    flac, png, gif = records
    assert flac["file"] == str(demo / FLAC_SONG)
    assert (flac["mediaType"], flac["mimeType"]) == (1, "audio/flac")
    assert (flac["duration"], flac["timescale"]) == (441000, 44100)
    assert (flac["title"], flac["artist"], flac["album"], flac["genre"]) == (
        "Demo Song", "Demo Artist", "Demo Album", "Jazz")
    assert flac["date"] == 1245024000  # 15 June 2009, UTC
    assert flac["coverMimeType"] == "image/jpeg"
    cover = (demo / FLAC_SONG).read_bytes()[flac["coverOffset"]:flac["coverOffset"] + flac["coverLength"]]
    assert cover[:2] == b"\xff\xd8" and cover[-2:] == b"\xff\xd9"
    assert flac["streams"] == [dict(zip(STREAM_KEYS, [1, 1, 1, 441000, 44100, 44100, 2, 16, 0, 0, 0]))]

    assert (png["mediaType"], png["mimeType"], png["title"]) == (3, "image/png", "Demo Gradient")
    assert png["date"] == 1245061230
    assert (png["duration"], png["coverLength"], png["coverMimeType"]) == (0, 0, None)
    assert png["streams"] == [dict(zip(STREAM_KEYS, [1, 3, 1, 5000, 1000, 0, 0, 0, 32, 24, 24]))]

    assert (gif["mimeType"], gif["title"], gif["date"]) == ("image/gif", None, 0)
    assert gif["streams"] == [dict(zip(STREAM_KEYS, [1, 3, 1, 5000, 1000, 0, 0, 0, 32, 24, 4]))]


def test_unrecognised_and_missing_files(tmp_path, demo):
    text = tmp_path / "notes.mp3"
    text.write_bytes(b"just some words, no media here\n" * 10)
    empty = tmp_path / "empty.flac"
    empty.write_bytes(b"")
    missing = tmp_path / "missing.flac"

    status, records, errors = probe(text, missing, empty, demo / "Pictures/Stripes.gif")
    assert status == 1
    assert records[:2] == [{"file": str(text), "recognised": False}, {"file": str(empty), "recognised": False}]
    assert records[2]["mimeType"] == "image/gif"  # later files are still probed
    assert str(missing) in errors

    status, records, errors = probe(tmp_path)
    assert (status, records) == (1, [])
    assert "not a regular file" in errors

    status, records, _ = probe(text)
    assert (status, records) == (0, [{"file": str(text), "recognised": False}])


def test_texts_are_escaped_and_filtered(tmp_path):
    tricky = tmp_path / "tricky.png"
    tricky.write_bytes(png_with_title(b'say "hi"\\ \x01\x1f\ttab\nnew \xe2\x82\xac'))
    latin1 = tmp_path / "latin1.png"
    latin1.write_bytes(png_with_title(b"caf\xe9"))
    tags = tmp_path / "tags.flac"
    tags.write_bytes(flac_with_comments(b"TITLE=smile \xf0\x9f\x98\x80", b"ARTIST=\xc3\xa9t\xc3\xa9",
                                        b"GENRE=a\x7fb"))
    odd_name = tmp_path / os.fsdecode(b"odd\xffname.png")
    odd_name.write_bytes(png_with_title(b"named"))

    status, records, _ = probe(tricky, latin1, tags, odd_name)
    assert status == 0
    assert records[0]["title"] == 'say "hi"\\ \x01\x1f\ttab\nnew \u20ac'
    assert records[1]["title"] is None
    assert records[1]["streams"][0]["bitsPerPixel"] == 32
    assert (records[2]["title"], records[2]["artist"], records[2]["genre"]) == (None, "\u00e9t\u00e9", "a\x7fb")
    assert records[2]["streams"][0]["sampleRate"] == 8000
    assert records[3]["file"] == str(tmp_path) + "/odd\ufffdname.png"
    assert records[3]["title"] == "named"
