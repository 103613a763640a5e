# Clients that the Browse rules refuse, answered once the server runs with
# clientCompatibility "on": their requests on the wire in both modes, and a
# real MPD (Debian's mpd and mpc) in the peer namespace.
import os
import shutil
import subprocess
import wave

import pytest

import dms_client
from dms_client import browse, browse_raw, until

NAME = "Shelf"
MUSIC = 6  # the demo library's music files and a longer tone
TABLE_ORDER = [name for name, _ in dms_client.browse_arguments("0")]
# A real client's Filter, from public property names: Kodi's 37 properties (545 characters).
KODI_FILTER = ("dc:title,dc:creator,dc:date,dc:description,dc:publisher,upnp:userAnnotation,dc:rights,"
    "res@sampleFrequency,upnp:class,upnp:artist,upnp:album,upnp:genre,upnp:albumArtURI,upnp:originalTrackNumber,"
    "upnp:longDescription,upnp:rating,upnp:actor,upnp:director,upnp:producer,upnp:author,upnp:episodeNumber,"
    "upnp:episodeCount,upnp:episodeSeason,upnp:programTitle,upnp:seriesTitle,upnp:lastPlaybackTime,"
    "upnp:lastPlaybackPosition,upnp:playbackCount,upnp:storageMedium,@refID,res,res@duration,res@size,res@resolution,"
    "res@bitrate,res@nrAudioChannels,@childCount")
MPD_ORDER = ["ObjectID", "BrowseFlag", "Filter", "SortCriteria", "StartingIndex", "RequestedCount"]
# MPD's UPnP database on the peer's interface, no sound card, nothing outside its folder.
MPD_CONFIG = ('database {{\nplugin "upnp"\ninterface "dms1"\n}}\naudio_output {{\ntype "null"\nname "null"\n}}\n'
              'bind_to_address "{0}/socket"\nlog_file "{0}/log"\nzeroconf_enabled "no"\n')


@pytest.fixture(scope="module")
def media(tmp_path_factory, demo):
    media = shutil.copytree(demo, tmp_path_factory.mktemp("clients") / "media")
    with wave.open(str(media / "Music" / "Long tone.wav"), "wb") as tone:  # 4 seconds
        tone.setparams((1, 2, 8000, 0, "NONE", None)), tone.writeframes(bytes(range(256)) * 250)
    return media


def start(dms, media, setting):
    server = dms(f'path = "{media}"\ndeviceName = "{NAME}"\n' + (setting and f'clientCompatibility = "{setting}"\n'))
    port = server.wait_ready()
    until(lambda: browse(port, "0.10")[3], MUSIC.__le__, pause=0.1)
    return port


def test_captured_requests_refused_as_designed_answered_with_compatibility(dms, media):
    off, on = start(dms, media, "yes"), start(dms, media, "on")  # only "on" switches it on
    fault = browse_raw(off, "1" * 24)
    for filt, order in ((KODI_FILTER, TABLE_ORDER), ("*", MPD_ORDER), ("," * 99999 + "*", TABLE_ORDER)):
        arguments = dict(dms_client.browse_arguments("0.10", filt=filt))
        captured = [(name, arguments[name]) for name in order]
        refused = browse_raw(off, "0.10", arguments=captured)
        assert (refused.status, refused.body) == (fault.status, fault.body), (len(filt), order)
        assert browse(on, "0.10", arguments=captured)[:5] == browse(on, "0.10")[:5], (len(filt), order)
    assert browse(on, "0.10", filt="@refID")[0] == browse(off, "0.10", filt="@refID")[0].replace(
        "audioItem<", "audioItem.musicTrack<")  # with it audio items are music tracks, all else as designed
    # Without the setting a Filter is answered up to 255 characters.
    assert [browse_raw(off, "0", filt=KODI_FILTER[:n]).status[9:12] for n in (255, 256)] == ["200", "500"]


@pytest.mark.parametrize("setting", ["on", ""], ids=["on", "absent"])
def test_mpd_lists_and_plays_a_track_from_its_database_only_with_compatibility(dms, media, tmp_path, request, setting):
    announcements = dms_client.multicast_socket("239.255.255.250", 1900, os.environ["DMS_NETNS_ADDR"])
    start(dms, media, setting)
    announcements.settimeout(15)
    announcements.recv(2048)  # MPD searches once, as it starts: the server must be announcing by then
    (tmp_path / "mpd.conf").write_text(MPD_CONFIG.format(tmp_path))
    mpd = subprocess.Popen(["ip", "netns", "exec", os.environ["DMS_NETNS_PEER"], "mpd", "--no-daemon",
                            str(tmp_path / "mpd.conf")], stdin=subprocess.DEVNULL)
    request.addfinalizer(lambda: (mpd.kill(), mpd.wait()))

    def mpc(*args):
        return subprocess.run(["mpc", *args], env={**os.environ, "MPD_HOST": str(tmp_path / "socket")},
                              capture_output=True, text=True, timeout=10)
    until(lambda: mpc("ls").stdout, (NAME + "\n").__eq__)
    track = f"{NAME}/Music/All Music/Long tone"
    listing = mpc("ls", track.rsplit("/", 1)[0])
    if not setting:
        assert (listing.returncode, listing.stdout) == (1, "") and "UpnpSendAction() failed" in listing.stderr
        return
    assert track in listing.stdout.splitlines()
    assert mpc("add", track).returncode == mpc("play").returncode == 0
    status = until(lambda: mpc("status").stdout, lambda text: "0:01/" in text)
    assert "[playing]" in status and "0:01/" in status, status
