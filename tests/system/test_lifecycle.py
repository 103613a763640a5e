"""Start and stop of the real server: the configuration file beside the
executable, read once, the running and stopped lines, and prompt exits on
signals. The lookup's quirks are unit-tested."""
import signal
import time

import pytest

from dms_client import Client


@pytest.mark.parametrize("config, sig, label", [
    ('path = "{media}"\nmodelDescription = "Shelf"\n', signal.SIGTERM, "Shelf"),
    ('modelDescription = Plain\nmanufacturer = "Acme"\n', signal.SIGINT, "Acme"),  # the next quotes win
    (None, signal.SIGTERM, "(null)"),  # no file at all
])
def test_signal_stops_promptly_with_both_lines(dms, tmp_path, config, sig, label):
    server = dms(config and config.replace("{media}", str(tmp_path)))
    # With a library the server listens; a connection still open does not hold the stop up.
    idle = Client(server.wait_ready()) if label == "Shelf" else None
    time.sleep(0.3)
    if config:
        (server.folder / "dmsConfig").write_text('modelDescription = "Second"\n')  # read once, at start
    started = time.monotonic()
    assert server.stop(sig) == (f"\n[{label}] running\n\n\n[{label}] stopped\n\n", 0)
    assert time.monotonic() - started < 2.5
    if idle:
        idle.close()
