"""dms-probe: one JSON line per file with the record the library scan would get.

The demo library from dms-mkdemo supplies real files of each format; a few
more PNG pictures are written here to reach the JSON escaping and the UTF-8
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


def test_demo_files_of_each_format(demo):
    status, records, _ = probe(demo / FLAC_SONG, demo / "Pictures/Gradient.png", demo / "Pictures/Stripes.gif")
    assert status == 0 and [list(record) for record in records] == [RECORD_KEYS] * 3
    cover = (demo / FLAC_SONG).read_bytes()[records[0]["coverOffset"]:][:records[0]["coverLength"]]
    assert cover[:2] == b"\xff\xd8" and cover[-2:] == b"\xff\xd9"
    expected = [  # 15 June 2009, UTC; the PNG's creation time at 10:20:30
        (str(demo / FLAC_SONG), True, 1, "audio/flac", 441000, 44100, "Demo Song", "Demo Artist", "Demo Album", "Jazz",
         1245024000, "image/jpeg", [1, 1, 1, 441000, 44100, 44100, 2, 16, 0, 0, 0]),
        (str(demo / "Pictures/Gradient.png"), True, 3, "image/png", 0, 1000, "Demo Gradient", None, None, None,
         1245061230, None, [1, 3, 1, 5000, 1000, 0, 0, 0, 32, 24, 24]),
        (str(demo / "Pictures/Stripes.gif"), True, 3, "image/gif", 0, 1000, None, None, None, None, 0, None,
         [1, 3, 1, 5000, 1000, 0, 0, 0, 32, 24, 4]),
    ]
    for record, (*fields, stream) in zip(records, expected):
        assert [record[key] for key in RECORD_KEYS[:11] + ["coverMimeType"]] == fields
        assert record["streams"] == [dict(zip(STREAM_KEYS, stream))]


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
    utf8 = tmp_path / "utf8.png"
    utf8.write_bytes(png_with_title("\u00e9t\u00e9 a\x7fb".encode()))
    odd_name = tmp_path / os.fsdecode(b"odd\xffname.png")
    odd_name.write_bytes(png_with_title(b"named"))

    status, records, _ = probe(tricky, latin1, utf8, odd_name)
    assert status == 0
    assert records[0]["title"] == 'say "hi"\\ \x01\x1f\ttab\nnew \u20ac'
    assert records[1]["title"] is None
    assert records[1]["streams"][0]["bitsPerPixel"] == 32
    assert records[2]["title"] == "\u00e9t\u00e9 a\x7fb"
    assert records[3]["file"] == str(tmp_path) + "/odd\ufffdname.png"
    assert records[3]["title"] == "named"
