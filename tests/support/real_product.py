"""The real product in directories of the tests' own, for pytest."""

import json
import os
import pathlib
import signal
import subprocess
import sys
import tempfile
import time

import pytest

SOURCE = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(os.environ["ORIEL_BUILD"])
ORIEL = str(BUILD / "bin/oriel")
DEADLINE = 30

os.environ["ORIEL_LIBRARY"] = str(BUILD / "lib/libtvsqdz.so.1")
sys.path.insert(0, str(SOURCE / "python"))
os.environ["PYTHONPATH"] = str(SOURCE / "python")  # of the programs that tests start


def run(*words, **more):
    """`oriel` with those words; its output."""
    return subprocess.run([ORIEL, *words], check=True, capture_output=True, text=True, timeout=DEADLINE, **more).stdout


class Product:
    def __init__(self):
        self.up = subprocess.Popen([ORIEL, "up", "--json"], stdout=subprocess.PIPE, text=True)
        self.until("up")

    def until(self, event):
        for line in self.up.stdout:
            if json.loads(line).get("event") == event:
                return
        raise AssertionError(f"the product ended before {event}")

    def service(self):
        """Its process."""
        found = subprocess.run(["pgrep", "-P", str(self.up.pid), "-f", "TVSDBN"], capture_output=True, text=True)
        return int(found.stdout.split()[0])

    def stop(self):
        self.up.send_signal(signal.SIGINT)
        assert self.up.wait(DEADLINE) == 0


@pytest.fixture(scope="session")
def product():
    with tempfile.TemporaryDirectory(prefix="oriel-", dir="/dev/shm") as folder:
        os.environ["ORIEL_STATE_DIR"] = folder + "/state"
        os.environ["ORIEL_RUNTIME_DIR"] = folder + "/run"
        run("reg", "import", str(SOURCE / "examples/example_laser.reg"))
        run("printers", "add", "Front desk", "--driver", "Example Laser")
        running = Product()
        yield running
        running.stop()


def wait_for(condition, what):
    end = time.monotonic() + DEADLINE
    while not condition():
        assert time.monotonic() < end, what
        time.sleep(0.01)
