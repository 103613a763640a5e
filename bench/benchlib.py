"""Shared pieces of the Python benchmarks: they reuse the system tests' server
launcher and SOAP client, refuse to run outside the private namespace, and
print targets as PASS or MISS without ever failing on them."""
import os
import statistics
import sys
from pathlib import Path

REPO = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(REPO / "tests" / "system"))
os.environ.setdefault("DMS_BUILD_DIR", str(REPO / "build"))

from conftest import BUILD, Dms, passes_held_off  # noqa: E402,F401
import dms_client  # noqa: E402,F401


def require_namespace():
    if not os.environ.get("DMS_NETNS"):
        sys.exit("this benchmark starts a server that multicasts: run it through tools/netns-run")


def median_ms(seconds):
    return statistics.median(seconds) * 1000.0


def verdict(ok):
    return "PASS" if ok else "MISS"
