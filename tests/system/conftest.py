# Fixtures for the black-box system tests.
#
# Every test here runs inside the private network namespace made by
# tools/netns-run; the fixtures refuse to start anything outside it. `dms`
# starts a copy of the real server in a temporary folder with a dmsConfig
# beside it, `process` starts any other helper executable; both find the TCP
# port the program listens on, and stop it on request or at the end. `demo`
# is the demo library, written once per run.
import contextlib
import os
import shutil
import signal
import subprocess
import threading
import time
from pathlib import Path

import pytest

REPO = Path(__file__).resolve().parents[2]
BUILD = Path(os.environ.get("DMS_BUILD_DIR", REPO / "build"))


def pytest_configure(config):
    if not os.environ.get("DMS_NETNS"):
        raise pytest.UsageError(
            "system tests start servers that multicast: run them through tools/netns-run")


def socket_inodes(pid):
    # The inodes of the sockets process `pid` holds.
    inodes = set()
    for fd in Path(f"/proc/{pid}/fd").iterdir():
        try:
            target = os.readlink(fd)
        except OSError:  # closed meanwhile
            continue
        if target.startswith("socket:["):
            inodes.add(target[8:-1])
    return inodes


def listening_tcp_ports(pid):
    # The TCP ports on which process `pid` listens (IPv4).
    inodes = socket_inodes(pid)
    rows = [line.split() for line in Path("/proc/net/tcp").read_text().splitlines()[1:]]
    return sorted(int(row[1].split(":")[1], 16) for row in rows if row[3] == "0A" and row[9] in inodes)


class Process:
    # A program started for a test; stop() returns (stdout, exit status) and keeps stderr in `errors`.

    def __init__(self, argv, cwd, env=None):
        self.popen = subprocess.Popen(argv, cwd=cwd, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                      stdin=subprocess.DEVNULL, env=env and {**os.environ, **env})
        self.result = None

    @property
    def pid(self):
        return self.popen.pid

    def wait_port(self, timeout=10.0):
        deadline = time.monotonic() + timeout
        while time.monotonic() < deadline:
            if self.popen.poll() is not None:
                raise RuntimeError(f"exited early with {self.popen.returncode}: "
                                   f"{self.popen.stderr.read().decode(errors='replace')}")
            if ports := listening_tcp_ports(self.pid):
                return ports[0]
            time.sleep(0.05)
        raise TimeoutError("no listening port")

    def stop(self, sig=signal.SIGTERM, timeout=10.0):
        if self.result is None:
            if self.popen.poll() is None:
                self.popen.send_signal(sig)
            try:
                out, err = self.popen.communicate(timeout=timeout)
            except subprocess.TimeoutExpired:
                self.popen.kill()
                out, err = self.popen.communicate()
                raise
            self.result = (out.decode(errors="replace"), self.popen.returncode)
            self.errors = err.decode(errors="replace")
            if err:
                # Sanitizer reports land on stderr: a test must not pass over them.
                assert b"Sanitizer" not in err and b"runtime error" not in err, err.decode(errors="replace")
        return self.result


@pytest.fixture(scope="session")
def demo(tmp_path_factory):
    # The demo library as dms-mkdemo writes it, made once: a test copies what it changes.
    root = tmp_path_factory.mktemp("demo")
    subprocess.run([str(BUILD / "dms-mkdemo"), str(root)], check=True, stdout=subprocess.DEVNULL, timeout=30)
    return root


def stopped_at_end(make):
    # A fixture's body: yields a function that starts make(number, *args) (number counts from 0); each is
    # stopped at the end.
    started = []
    yield lambda *args, **kwargs: started.append(make(len(started), *args, **kwargs)) or started[-1]
    for proc in started:
        proc.stop()


@pytest.fixture
def process(tmp_path):
    # process(name, *args) starts a build/<name> helper executable.
    yield from stopped_at_end(lambda _, name, *args: Process([str(BUILD / name), *map(str, args)], cwd=tmp_path))


class Dms(Process):
    # A copy of the server in its own folder, with `dmsConfig` beside it.

    def __init__(self, folder, config, env=None):
        folder.mkdir(parents=True, exist_ok=True)
        exe = folder / "dms"
        shutil.copy2(BUILD / "dms", exe)
        if config is not None:
            (folder / "dmsConfig").write_bytes(config.encode() if isinstance(config, str) else config)
        self.folder = folder
        self.port = None
        super().__init__([str(exe)], cwd=folder, env=env)

    def wait_ready(self, timeout=10.0):
        self.port = self.wait_port(timeout)
        return self.port


@pytest.fixture
def dms(tmp_path):
    # dms(config_text or None, folder=None, env=None) starts the server; config None writes no file.
    yield from stopped_at_end(lambda number, config=None, folder=None, env=None:
                              Dms(folder or tmp_path / f"server{number}", config, env))


@contextlib.contextmanager
def passes_held_off(path):
    # Writes `path` every 0.1 s: with the watch on, no pass runs meanwhile (it waits for a second of quiet).
    stop = threading.Event()

    def write():
        while not stop.wait(0.1):
            path.write_bytes(b"")
    writer = threading.Thread(target=write)
    writer.start()
    try:
        yield
    finally:
        stop.set()
        writer.join()
