"""The agent's alerts on a session bus of the test's own."""

import json
import os
import pathlib
import queue
import subprocess
import sys
import threading

import pytest
from real_product import BUILD, DEADLINE, run

KEY = r"HKLM\SOFTWARE\Tavik\Oriel\Alerts"


class Desktop:
    """A session bus and a server of notifications; events come in a queue."""

    def __init__(self, folder):
        self.bus = subprocess.Popen(
            ["dbus-daemon", "--session", "--nofork", "--print-address", f"--address=unix:path={folder}/bus"],
            stdout=subprocess.PIPE, text=True)
        self.environment = dict(os.environ, DBUS_SESSION_BUS_ADDRESS=self.bus.stdout.readline().strip(),
                                ORIEL_WINDOW_STATION="WinSta0")
        self.server = subprocess.Popen(
            [sys.executable, pathlib.Path(__file__).with_name("notification_server.py")],
            stdout=subprocess.PIPE, text=True, env=self.environment)
        self.events = queue.Queue()
        threading.Thread(target=self._read, daemon=True).start()
        assert self.next() == {}

    def _read(self):
        for line in self.server.stdout:
            self.events.put(json.loads(line))

    def next(self):
        return self.events.get(timeout=DEADLINE)

    def start_agent(self):
        subprocess.run([BUILD / "bin/TVORPZ.EXE", "/S"], check=True, env=self.environment, timeout=DEADLINE)

    def end(self):
        for process in self.server, self.bus:
            process.kill()
            process.wait()


@pytest.fixture
def desktop(product, tmp_path):
    started = Desktop(tmp_path)
    yield started
    started.end()


def jam(printer, number):
    run("set", printer, "ErrPaperJam", str(number))


def test_a_condition_that_lasts_is_shown_once_and_what_is_ignored_never(desktop):
    for printer in ("Lab <b>&", "Ignored"):
        run("printers", "add", printer, "--driver", "Example Laser")
    run("reg", "set", KEY, "Ignore", "ignored", "cover OPEN", "--type", "multi")
    jam("Ignored", 2)
    run("set", "Front desk", "ErrCoverOpen", "1")  # a condition that is ignored
    run("set", "Front desk", "ErrPaperState", "1")  # a warning
    jam("Front desk", 2)
    desktop.start_agent()
    shown = {"shown": 1, "title": "Front desk", "body": "paper jam", "urgency": 2}
    assert desktop.next() == shown

    run("set", "Front desk", "ErrNoPaper", "1")
    assert desktop.next() == dict(shown, body="no paper, paper jam")
    jam("Lab <b>&", 2)
    assert desktop.next() == dict(shown, shown=2, title="Lab <b>&")

    for name in "ErrPaperJam", "ErrNoPaper":
        run("set", "Front desk", name, "0")
    assert desktop.next() == {"closed": 1}

    run("reg", "set", KEY, "LowestSeverity", "warning")
    assert desktop.next() == {"shown": 3, "title": "Front desk", "body": "paper low", "urgency": 1}
    run("terminate", "Front desk")  # what is shown ends with the agent
    assert {desktop.next()["closed"], desktop.next()["closed"]} == {2, 3}
