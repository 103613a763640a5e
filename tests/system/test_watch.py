# watchChanges "on": each kind of change to the library is listed within
# seconds, long before the periodic pass; with any other value the same
# changes wait for that pass. Where the system gives no watch, one line on
# standard error says so and how many folders go without. (The times
# themselves are bench/watch_bench.py's.)
import shutil

import pytest

from conftest import BUILD, Process
from dms_client import browse, until

INTERVAL = 600
SEEN_WITHIN = 10  # seconds: well within the interval, with room for a loaded machine


def pictures(port):
    return sorted(o["dc:title"] for o in browse(port, "0.30")[1])


def wait_for(port, expected):
    return until(lambda: pictures(port), expected.__eq__, SEEN_WITHIN, 0.1)


@pytest.fixture
def gif(demo):
    return (demo / "Pictures" / "Stripes.gif").read_bytes()


def test_changes_are_listed_at_once_only_with_the_watch_on(dms, tmp_path, gif):
    media = tmp_path / "media"
    media.mkdir()
    for name, data in (("a.gif", gif), ("b.gif", gif), ("half.gif", b"")):
        (media / name).write_bytes(data)
    cases = [  # change, then the titles in All Pictures
        (lambda: (media / "c.gif").write_bytes(gif), ["a", "b", "c"]),
        (lambda: (media / "a.gif").unlink(), ["b", "c"]),
        (lambda: (media / "b.gif").rename(media / "d.gif"), ["c", "d"]),
        (lambda: (media / "half.gif").write_bytes(gif), ["c", "d", "half"]),
        (lambda: ((media / "New").mkdir(), (media / "New" / "e.gif").write_bytes(gif)),
         ["c", "d", "e", "half"]),
        (lambda: ((media / "Early").mkdir(), (media / "New" / "e.gif").rename(media / "Early" / "f.gif")),
         ["c", "d", "f", "half"]),
    ]
    on, off = (dms(f'path = "{media}"\nrefreshInterval = "{INTERVAL}"\nwatchChanges = "{value}"\n').wait_ready()
               for value in ("on", "yes"))
    assert wait_for(on, ["a", "b"]) == wait_for(off, ["a", "b"]) == ["a", "b"]
    for change, expected in cases:
        change()
        assert wait_for(on, expected) == expected
    assert pictures(off) == ["a", "b"]


@pytest.mark.parametrize("limit, line", [
    ("max_inotify_instances", "cannot watch folders for changes (inotify_init1: Too many open files): 3 folders"),
    ("max_inotify_watches", "the inotify watch limit is reached (sysctl fs.inotify.max_user_watches): 2 folders"),
])
def test_folders_without_a_watch_are_told_once(tmp_path, gif, limit, line):
    # The server in a user namespace of its own, whose inotify limit is 0 instances or 1 watch.
    (tmp_path / "media" / "x").mkdir(parents=True)
    (tmp_path / "media" / "y").mkdir()
    (tmp_path / "media" / "y" / "a.gif").write_bytes(gif)
    shutil.copy2(BUILD / "dms", tmp_path / "dms")
    (tmp_path / "dmsConfig").write_text(f'path = "{tmp_path / "media"}"\nwatchChanges = "on"\n')
    server = Process(["unshare", "--user", "--map-root-user", "sh", "-c",
                      f"echo {int(limit == 'max_inotify_watches')} > /proc/sys/user/{limit} && exec ./dms 2>err"],
                     cwd=tmp_path)
    assert wait_for(server.wait_port(), ["a"]) == ["a"]
    assert server.stop()[1] == 0
    assert (tmp_path / "err").read_text() == (
        f"dms: {line} are not watched, their changes are seen by the periodic pass only\n")
