# dms-probe: one JSON line per file with the record the library scan would get,
# whether the scan publishes it and why not; a folder is walked with a summary.
#
# The demo library from dms-mkdemo supplies real files of each format; more are
# written here byte by byte to reach the JSON escaping, the UTF-8 filter and
# every rule that keeps a file unpublished. Nothing here touches the network.
import json
import os
import struct
import subprocess
import zlib

from conftest import BUILD

STREAM_KEYS = ["number", "kind", "enabled", "duration", "timescale", "sampleRate", "channels",
               "bitsPerSample", "width", "height", "bitsPerPixel"]
RECORD_KEYS = ["file", "published", "recognised", "mediaType", "mimeType", "duration", "timescale", "title", "artist",
               "album", "genre", "date", "coverMimeType", "coverOffset", "coverLength", "streams", "notes"]


def probe(*paths):
    result = subprocess.run([str(BUILD / "dms-probe"), *map(os.fsencode, paths)],
                            capture_output=True, timeout=30)
    assert b"Sanitizer" not in result.stderr and b"runtime error" not in result.stderr, result.stderr
    lines = result.stdout.decode("utf-8").splitlines()
    return result.returncode, [json.loads(line) for line in lines], result.stderr.decode(errors="replace")


def png_chunk(kind, data):
    return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data))


def png_with_title(title):
    header = struct.pack(">IIBBBBB", 3, 2, 8, 6, 0, 0, 0)
    return (b"\x89PNG\r\n\x1a\n" + png_chunk(b"IHDR", header) + png_chunk(b"tEXt", b"Title\0" + title)
            + png_chunk(b"IEND", b""))


# What the scan reads from each demo file: MIME type, duration and its
# timescale, title, artist, album, genre, date (UTC), cover type, and per
# stream its kind, width, height, sample rate and channels.
DEMO_FILES = [
    ("Music/Demo Artist/Demo Album/01 Demo Song.flac", "audio/flac", 441000, 44100, "Demo Song", "Demo Artist",
     "Demo Album", "Jazz", 1245024000, "image/jpeg", [(1, 0, 0, 44100, 2)]),
    ("Music/Demo Artist/Demo Album/01 Demo Song.mp3", "audio/mpeg", 13824, 44100, "Demo Song", "Demo Artist",
     "Demo Album", "Rock", 1072915200, "image/jpeg", [(1, 0, 0, 44100, 2)]),
    ("Music/Demo Artist/Demo Album/Demo Song.m4a", "audio/mp4", 88200, 44100, "Demo Song", "Demo Artist",
     "Demo Album", "Jazz Fusion", 1305849600, "image/png", [(1, 0, 0, 44100, 2)]),
    ("Music/Demo Artist/tone.wav", "audio/wave", 4000, 8000, "Tone", "Demo Artist", None, None, 1559347200, None,
     [(1, 0, 0, 8000, 1)]),
    ("Music/Night Drive.mka", "audio/x-matroska", 184000, 1000, "Night Drive", None, None, None, 0, None,
     [(1, 0, 0, 44100, 2)]),
    ("Pictures/Gradient.png", "image/png", 0, 1000, "Demo Gradient", None, None, None, 1245061230, None,
     [(3, 32, 24, 0, 0)]),
    ("Pictures/Holiday/harbour.jpg", "image/jpeg", 0, 1000, "Harbour at dawn", "Demo Photographer", None, None,
     1628923530, "image/jpeg", [(3, 64, 48, 0, 0)]),
    ("Pictures/Scans/letter.tif", "image/tiff", 0, 1000, "Scanned letter", None, None, None, 1551547200, None,
     [(3, 24, 16, 0, 0)] * 2),
    ("Pictures/Stripes.gif", "image/gif", 0, 1000, None, None, None, None, 0, None, [(3, 32, 24, 0, 0)]),
    ("Videos/Demo Clip.mkv", "video/x-matroska", 12500, 1000, "Demo Clip", None, None, None, 1735689600, "image/jpeg",
     [(2, 320, 240, 0, 0), (1, 0, 0, 48000, 2)]),
    ("Videos/Demo Clip.mp4", "video/mp4", 2000, 1000, "Demo Clip", None, None, None, 1623715200, None,
     [(2, 160, 120, 0, 0), (1, 0, 0, 48000, 2)]),
    ("Videos/Demo Movie.mov", "video/mp4", 7500, 2500, None, None, None, None, 0, None, [(2, 320, 240, 0, 0)]),
    ("Videos/clip.avi", "video/avi", 50, 25, "Clip", None, None, None, 0, None,
     [(2, 320, 240, 0, 0), (1, 0, 0, 8000, 1)]),
]
COVER_MAGIC = {"image/jpeg": b"\xff\xd8", "image/png": b"\x89PNG"}


def test_demo_files_of_each_format(demo):
    status, records, _ = probe(*(demo / row[0] for row in DEMO_FILES))
    assert status == 0 and [list(record) for record in records] == [RECORD_KEYS] * len(DEMO_FILES)
    assert list(records[0]["streams"][0]) == STREAM_KEYS
    for record, (path, *fields, cover, streams) in zip(records, DEMO_FILES):
        assert [record[key] for key in RECORD_KEYS[4:13]] == [*fields, cover], path
        assert [(s["kind"], s["width"], s["height"], s["sampleRate"], s["channels"])
                for s in record["streams"]] == streams, path
        data = (demo / path).read_bytes()[record["coverOffset"]:][:record["coverLength"]]
        assert data.startswith(COVER_MAGIC.get(cover, b"")) and (cover is None) == (record["coverLength"] == 0)


def test_unrecognised_and_missing_files(tmp_path, demo):
    text, empty, missing = tmp_path / "notes.mp3", tmp_path / "empty.flac", tmp_path / "missing.flac"
    text.write_bytes(b"just some words, no media here\n" * 10)
    empty.write_bytes(b"")

    status, records, errors = probe(text, missing, empty, demo / "Pictures/Stripes.gif")
    assert status == 1
    unrecognised = {"published": False, "reason": "no parser recognises the content", "recognised": False, "notes": []}
    assert records[:2] == [{"file": str(text), **unrecognised}, {"file": str(empty), **unrecognised}]
    assert records[2]["mimeType"] == "image/gif" and str(missing) in errors  # later files are still probed

    os.mkfifo(tmp_path / "pipe.mp3")
    status, records, errors = probe(tmp_path / "pipe.mp3")
    assert (status, records) == (1, []) and "not a regular file" in errors

    status, records, _ = probe(text)
    assert (status, records) == (0, [{"file": str(text), **unrecognised}])


def test_texts_are_escaped_and_filtered(tmp_path):
    files = {"tricky.png": b'say "hi"\\ \x01\x1f\ttab\nnew \xe2\x82\xac', "latin1.png": b"caf\xe9",
             "utf8.png": "\u00e9t\u00e9 a\x7fb".encode(), os.fsdecode(b"odd\xffname.png"): b"named"}
    for name, title in files.items():
        (tmp_path / name).write_bytes(png_with_title(title))
    status, records, _ = probe(*(tmp_path / name for name in files))
    assert status == 0 and [r["title"] for r in records] == ['say "hi"\\ \x01\x1f\ttab\nnew \u20ac', None,
                                                              "\u00e9t\u00e9 a\x7fb", "named"]
    assert records[1]["notes"] == ["tags: the title is not UTF-8 (Latin-1?) and is dropped"]
    assert records[1]["streams"][0]["bitsPerPixel"] == 32
    assert records[3]["file"] == str(tmp_path) + "/odd\ufffdname.png"


def mp3_frames(*headers, length=417, first_body=b""):
    # Frames of `length` bytes with the given 4-byte headers, zero payload.
    frames = [(bytes.fromhex(h) + (first_body if i == 0 else b"")).ljust(length, b"\0") for i, h in enumerate(headers)]
    return b"".join(frames).ljust(1024, b"\0")


def box(kind, payload=b""):
    return struct.pack(">I", 8 + len(payload)) + kind + payload


def ebml(doc_type, rest=b""):
    return b"\x1a\x45\xdf\xa3" + bytes([0x80 | len(doc_type) + 3, 0x42, 0x82, 0x80 | len(doc_type)]) + doc_type + rest


def riff(form, chunks=b"", extra=0):
    return b"RIFF" + struct.pack("<I", 4 + len(chunks) + extra) + form + chunks


def flac(rate=8000, bits=16, total=16000, length=34):
    info = bytes(10) + ((rate << 44) | (1 << 41) | ((bits - 1) << 36) | total).to_bytes(8, "big") + bytes(16)
    return b"fLaC\x80" + length.to_bytes(3, "big") + info[:length]


def jpeg_frame(precision, components, length):
    return (b"\xff\xd8\xff\xc0" + struct.pack(">HBHHB", length, precision, 8, 8, components)).ljust(4 + length, b"\0")


ID3 = b"ID3\x03\0\0\0\0\0\0"  # an empty ID3v2.3 tag
MONO_TEXT_TRACK = box(b"trak", box(b"tkhd", struct.pack(">III", 1, 0, 0) + struct.pack(">I", 1) + bytes(68))
                      + box(b"mdia", box(b"mdhd", bytes(12) + struct.pack(">IIHH", 1000, 1000, 0, 0))
                            + box(b"hdlr", bytes(8) + b"text") + box(b"minf")))
FTYP = box(b"ftyp", b"isom\0\0\0\0")

# Every rule of every parser that leaves a file with an accepted extension unpublished.
UNPUBLISHED = [
    ("mp3", ID3 + bytes(100), "mp3: fewer than 1024 bytes behind the ID3 tag"),
    ("mp3", ID3 + bytes(2000), "mp3: no frame header in the first 512 bytes behind the ID3 tag"),
    ("mp3", mp3_frames("fffbe800"), "mp3: the first frame runs past the end"),
    ("mp3", mp3_frames("fffbe800", length=1442), "mp3: the file ends where the second frame should start"),
    ("mp3", mp3_frames("fffb9000"), "mp3: no frame header where the first frame ends"),
    ("mp3", mp3_frames("fffb9000", "fff39000"), "mp3: the frame after the first has another MPEG version"),
    ("mp3", mp3_frames("fffb9000", "fffd9000"), "mp3: the frame after the first has another layer"),
    ("mp3", mp3_frames("fffb9000", "fffb9400"), "mp3: the frame after the first has another sample rate"),
    ("mp3", mp3_frames("fffb9000", "fffb9040"), "mp3: the frame after the first has another channel mode"),
    ("mp3", mp3_frames("fffb9000", "fffb9000", first_body=bytes(32) + b"Xing" + struct.pack(">II", 1, 0)),
     'mp3: the frame count comes out 0 (a "Xing" header counting no frames)'),
    ("flac", flac(length=17), "flac: STREAMINFO shorter than 18 bytes"),
    ("flac", flac(total=1 << 32), "flac: STREAMINFO counts 2^32 samples or more"),
    ("flac", flac(rate=0), "flac: STREAMINFO gives a sample rate of 0"),
    ("flac", flac(bits=3), "flac: STREAMINFO gives fewer than 4 bits per sample"),
    ("flac", flac(total=0), "flac: no usable STREAMINFO block (or its total of samples is 0)"),
    ("mp4", FTYP + box(b"free") * 8 + box(b"moov"), "mp4: no moov box among the first 8 top-level boxes"),
    ("mp4", FTYP + box(b"moov"), "mp4: no track with a usable tkhd and mdia box"),
    ("mp4", FTYP + box(b"moov", MONO_TEXT_TRACK), "mp4: no audio or video track"),
    ("mkv", ebml(b"avi"), "mkv: the document type is neither matroska nor webm"),
    ("mkv", ebml(b"webm"), "mkv: no Segment behind the EBML header"),
    ("mkv", ebml(b"matroska", b"\x18\x53\x80\x67\x80"), "mkv: no usable audio or video track"),
    ("wav", riff(b"WAVE", extra=100), "riff: the RIFF size runs past the end of the file"),
    ("wav", riff(b"WAVE", b"data\4\0\0\0" + bytes(4)),
     "wav: no usable fmt chunk (sample rate and channels not 0) among the first 8 chunks"),
    ("avi", riff(b"AVI ", b"JUNK\4\0\0\0" + bytes(4)), "avi: no stream list with a usable strh in the hdrl list"),
    ("png", b"\x89PNG\r\n\x1a\n" + png_chunk(b"IEND", b""), "png: no valid IHDR chunk before the image data"),
    ("gif", b"GIF88a" + bytes(7), "gif: the version is neither 87a nor 89a"),
    ("gif", b"GIF89a" + bytes(7), "gif: the screen width or height is 0"),
    ("tif", b"II*\0\x08\0\0\0" + bytes(6), "tiff: no directory gives width, height and bits per sample"),
    ("jpg", jpeg_frame(7, 3, 17), "jpeg: start-of-frame precision is not 8, 12 or 16"),
    ("jpg", jpeg_frame(8, 2, 14), "jpeg: start-of-frame has not 1, 3 or 4 components"),
    ("jpg", jpeg_frame(8, 3, 18), "jpeg: start-of-frame length does not match its components"),
    ("jpg", b"\xff\xd8\xff\xd9", "jpeg: no usable start-of-frame in the first 16 segments"),
]


def test_each_rule_that_keeps_a_file_unpublished_is_named(tmp_path):
    paths = [tmp_path / f"case{index:02}.{extension}" for index, (extension, _, _) in enumerate(UNPUBLISHED)]
    for path, (_, content, _) in zip(paths, UNPUBLISHED):
        path.write_bytes(content)
    status, records, _ = probe(*paths)
    assert status == 0 and [(r["published"], r["reason"]) for r in records] == [(False, r) for *_, r in UNPUBLISHED]


def test_folder_walk_explains_every_entry_and_sums_up(tmp_path):
    song = mp3_frames(*["fffb9040"] * 4)
    files = {"song.mp3": song, "ffmpeg.mp3": mp3_frames("fffb9000", *["fffb9040"] * 3, first_body=bytes(32) + b"Info"),
             ".hidden.mp3": song, ".thumbnails/never.mp3": song, "notes.txt": b"text",
             "song.aac": b"\xff\xf1\x50\x80" + bytes(2000), "Bad\x01Folder/inner.mp3": song,
             os.fsdecode(b"caf\xe9.mp3"): song}
    for name, data in files.items():
        (tmp_path / name).parent.mkdir(exist_ok=True)
        (tmp_path / name).write_bytes(data)
    (tmp_path / "link.mp3").symlink_to("song.mp3")
    (tmp_path / "Empty\x02Folder").mkdir()  # holds nothing published, so it is never listed

    status, (*entries, summary), _ = probe(tmp_path)
    assert status == 0
    verdicts = {os.path.relpath(r["file"], tmp_path): r.get("reason") for r in entries}
    assert verdicts == {
        "song.mp3": None, "Bad\x01Folder/inner.mp3": None, "caf\ufffd.mp3": None,
        "ffmpeg.mp3": "mp3: the frame after the first has another channel mode",
        ".hidden.mp3": "the name starts with '.'", ".thumbnails": "the name starts with '.'",
        "notes.txt": "the extension is not one the scan accepts",
        "song.aac": "no parser recognises the content",
        "link.mp3": "not a regular file (links, devices and pipes are passed over)",
    }
    notes = {os.path.basename(r["file"]): r.get("notes") for r in entries}
    assert notes["song.mp3"] == ["mp3: no \"Xing\" header: duration from the first frame's bitrate"]
    assert notes["ffmpeg.mp3"] == ['mp3: the first frame is an "Info" header, not read: duration from the data length']
    assert summary == {"summary": {
        "files": 8, "published": {"audio": 3},
        "declined": {reason: 1 for name, reason in verdicts.items() if reason and name != ".thumbnails"},
        "brokenNames": [{"folder": str(tmp_path), "name": "caf\ufffd.mp3", "problem": "bytes that are not UTF-8"},
                        {"folder": str(tmp_path), "name": "Bad\x01Folder", "problem": "a control character"}]}}
