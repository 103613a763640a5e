"""Media files made by the real tools, for the benchmarks: lame and flac
encode a generated tone (with tags and a cover), ffmpeg muxes M4A, MP4, MKV
and an MP3 without its Info frame, ImageMagick draws a JPEG and a PNG and
exiftool dates the JPEG. Only the tools that are installed are used; every
other format is filled in with the byte-built demo files. `library` lays
copies of them out as the benchmarks' library."""
import math
import shutil
import struct
import subprocess
import wave
from collections import namedtuple
from pathlib import Path

TAGS = {"title": "Real Song", "artist": "Real Artist", "album": "Real Album", "genre": "Rock", "date": "2021"}
SECONDS = 3
RATE = 44100


def _tone(path):
    with wave.open(str(path), "wb") as out:
        out.setnchannels(2)
        out.setsampwidth(2)
        out.setframerate(RATE)
        frames = bytearray()
        for i in range(SECONDS * RATE):
            sample = int(8000 * math.sin(2 * math.pi * 440 * i / RATE))
            frames += struct.pack("<hh", sample, sample)
        out.writeframes(bytes(frames))


def _run(*argv):
    return subprocess.run(argv, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL).returncode == 0


def _ffmpeg(out, *args):
    return _run("ffmpeg", "-nostdin", "-loglevel", "error", "-y", *args, str(out))


def make(folder):
    """Makes what the installed tools can in `folder`: {extension: path}."""
    folder.mkdir(parents=True, exist_ok=True)
    have = {tool: shutil.which(tool) is not None for tool in ("ffmpeg", "lame", "flac", "convert", "exiftool")}
    made = {}
    tone = folder / "tone.wav"
    _tone(tone)
    cover = folder / "cover.jpg"
    if have["convert"] and _run("convert", "-size", "640x480", "gradient:red-blue", str(cover)):
        made[".jpg"] = cover
        if have["exiftool"]:
            _run("exiftool", "-q", "-overwrite_original", "-DateTimeOriginal=2021:05:06 10:20:30",
                 f"-Artist={TAGS['artist']}", str(cover))
        png = folder / "drawing.png"
        if _run("convert", "-size", "320x240", "plasma:", str(png)):
            made[".png"] = png
    if have["lame"]:
        mp3 = folder / "lame.mp3"
        # -t: no Info frame, which the MP3 rule would decline.
        cover_args = ["--ti", str(cover)] if ".jpg" in made else []
        if _run("lame", "--quiet", "-t", "-b", "128", "--id3v2-only", "--tt", TAGS["title"], "--ta", TAGS["artist"],
                "--tl", TAGS["album"], "--tg", TAGS["genre"], "--ty", TAGS["date"], *cover_args, str(tone), str(mp3)):
            made[".mp3"] = mp3
    if have["flac"]:
        flac = folder / "tone.flac"
        cover_args = [f"--picture={cover}"] if ".jpg" in made else []
        tags = [f"--tag={key.upper()}={value}" for key, value in TAGS.items()]
        if _run("flac", "--silent", "-f", *tags, *cover_args, "-o", str(flac), str(tone)):
            made[".flac"] = flac
    if have["ffmpeg"]:
        metadata = [arg for key, value in TAGS.items() for arg in ("-metadata", f"{key}={value}")]
        targets = {
            ".m4a": ["-i", str(tone), "-c:a", "aac", *metadata],
            ".mp4": ["-f", "lavfi", "-i", f"testsrc=size=320x240:rate=25:duration={SECONDS}", "-i", str(tone),
                     "-c:v", "mpeg4", "-c:a", "aac", "-shortest", *metadata],
            ".mkv": ["-f", "lavfi", "-i", f"testsrc=size=320x240:rate=25:duration={SECONDS}", "-i", str(tone),
                     "-c:v", "mpeg4", "-c:a", "aac", "-shortest", *metadata],
        }
        if ".mp3" not in made:
            targets[".mp3"] = ["-i", str(tone), "-c:a", "libmp3lame", "-write_xing", "0", "-id3v2_version", "3",
                               *metadata]
        for extension, args in targets.items():
            out = folder / f"ffmpeg{extension}"
            if _ffmpeg(out, *args):
                made[extension] = out
    tone.unlink()
    return made


EXTENSIONS = (".mp3", ".m4a", ".mp4", ".mkv", ".flac", ".wav", ".jpg", ".png", ".gif", ".tif", ".avi", ".mov")
AUDIO = (".mp3", ".m4a", ".flac", ".wav")
OTHERS = tuple(e for e in EXTENSIONS if e not in AUDIO)
# A folder of files of every format, album folders of audio files up to
# `audio_files` in All Music, and folders of pictures and videos up to `files`.
Shape = namedtuple("Shape", "files folder_files audio_files")
FULL = Shape(10000, 1000, 7000)
QUICK = Shape(60, 24, 40)


def library(root, build, shape, real=True):
    """Writes the library under root/media; returns the mixed folder and the
    extensions of the real files in it. The byte-built files alone when the
    shape is QUICK."""
    demo = root / "demo"
    subprocess.run([str(build / "dms-mkdemo"), str(demo)], check=True, stdout=subprocess.DEVNULL)
    sources = {p.suffix.lower(): p for p in sorted(demo.rglob("*")) if p.suffix.lower() in EXTENSIONS}
    made = make(root / "real") if real and shape != QUICK else {}
    sources.update(made)
    media = root / "media"
    folder = media / "Thousand"
    folder.mkdir(parents=True)
    for index in range(shape.folder_files):
        source = sources[EXTENSIONS[index % len(EXTENSIONS)]]
        shutil.copyfile(source, folder / f"item {index:04d}{source.suffix}")
    audio = sum(EXTENSIONS[i % len(EXTENSIONS)] in AUDIO for i in range(shape.folder_files))
    others = shape.files - shape.folder_files - (shape.audio_files - audio)
    for kinds, count, folders in ((AUDIO, shape.audio_files - audio, "Albums/Album"), (OTHERS, others, "Sets/Set")):
        for index in range(count):
            target = media / f"{folders} {index // 100:03d}"
            target.mkdir(parents=True, exist_ok=True)
            source = sources[kinds[index % len(kinds)]]
            shutil.copyfile(source, target / f"{index % 100:02d} File {index:05d}{source.suffix}")
    shutil.rmtree(demo)
    return folder, sorted(made)
