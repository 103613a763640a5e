"""Start and stop of the real server: the configuration file beside the
executable, the running and stopped lines, and prompt exits on signals."""
import signal
import time

import pytest


def run_and_stop(dms, config, sig=signal.SIGTERM):
    server = dms(config)
    time.sleep(0.3)
    started = time.monotonic()
    out, status = server.stop(sig)
    return out, status, time.monotonic() - started


@pytest.mark.parametrize("sig", [signal.SIGTERM, signal.SIGINT])
def test_signal_stops_promptly_with_both_lines(dms, media_dir, sig):
    config = f'path = "{media_dir}"\nmodelDescription = "Shelf"\n'
    out, status, took = run_and_stop(dms, config, sig)
    assert out == "\n[Shelf] running\n\n\n[Shelf] stopped\n\n"
    assert status == 0
    assert took < 2.5


# The lookup's quirks are unit-tested; here the server's own use of a missing value.
@pytest.mark.parametrize("config, label", [
    (None, "(null)"),                                                # no file at all
    ('deviceName = "Box"\n', "(null)"),                              # key absent
    ('modelDescription = Plain\nmanufacturer = "Acme"\n', "Acme"),   # next quotes win
])
def test_configuration_lookup_quirks(dms, config, label):
    out, status, _ = run_and_stop(dms, config)
    assert out == f"\n[{label}] running\n\n\n[{label}] stopped\n\n"
    assert status == 0


def test_file_is_read_once(dms):
    server = dms('modelDescription = "First"\n')
    time.sleep(0.3)
    (server.folder / "dmsConfig").write_text('modelDescription = "Second"\n')
    out, status = server.stop()
    assert out == "\n[First] running\n\n\n[First] stopped\n\n"
    assert status == 0
