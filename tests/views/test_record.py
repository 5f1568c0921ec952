"""A recorded script, played on a fresh product, gives the same sequence of changes."""
import datetime
import json
import pathlib
import signal
import tempfile

import pytest

from conftest import Machine, wait_until

DAY = r'''
set PrinterStatus 0 0 0
set ErrPaperJam 0
set PageCount 1500
set PrinterDisplay "Ready \"A4\" \\ 100 %"
set PrinterLocation "2nd floor"
set PrinterBinConfig hex:020000000100010009000100000000000200020009000100fa000000
wait 2s
set PrinterStatus 0x10 1 2
set ErrPaperJam 2
set PrinterDisplay "Jam"
wait 200ms
set TonerLevel 17
set PrinterDisplay zero:132
wait 300ms
set ErrPaperJam 0
set PrinterStatus 0 0 0
set PageCount 1501
set PrinterBinConfig hex:0100000001000100090001000a000000
wait 200ms
set PrinterLocation ""
set PageCount -1
wait 200ms
set ServiceMessage "ignored: no such variable"
set PageCount 1502
'''
JAM = ("PrinterStatus", "10 00 00 00 01 00 00 00 02 00 00 00")


@pytest.fixture
def fresh():
    made = Machine(pathlib.Path(tempfile.mkdtemp(prefix="oriel-view-", dir="/dev/shm")))
    yield made.up()
    made.close()


def follow(machine, name):
    """Follows the printer, and waits until the follower has seen it."""
    follower = machine.start("log", name, "--follow", "--since", "0s", "--json")
    follower.json(lambda event: event["event"] == "following")
    return follower


def changes_until_the_end(follower, old=1502):
    """The steps of what the printer tells, from the jam on: the (variable, value) of each. A step's order is not known."""
    follower.json(lambda event: event.get("name") == "PageCount" and event["value"] == old and event["old"] is None)
    steps, last = [], None
    for event in map(json.loads, follower.heard):
        if event["event"] != "change" or event["from"] not in ("device", "model"):
            continue
        if last is None or time_of(event) - last > datetime.timedelta(milliseconds=100):
            steps.append(set())
        last = time_of(event)
        steps[-1].add((event["name"], event["hex"]))
    return steps[next(place for place, step in enumerate(steps) if JAM in step):]


def time_of(event):
    return datetime.datetime.strptime(event["time"], "%Y-%m-%dT%H:%M:%S.%fZ")


@pytest.mark.parametrize("from_journal", [False, True])
def test_a_replay_gives_the_same_changes(up, fresh, from_journal):
    script = up.folder / "recorded.script"
    follower = follow(up, "Lab")
    up.add("Lab", script=DAY)
    recorder = up.start("log", "--record") if from_journal else up.start("record", "Lab", script)
    original = changes_until_the_end(follower)
    assert [len(step) for step in original] == [3, 2, 4, 2, 1], original
    if from_journal:
        recorded = lambda: [json.loads(line) for line in up.run("log", "Lab", "PageCount", "--json").splitlines()]
        wait_until(lambda: recorded()[-1]["value"] == 1502)
        assert "recorded 12 changes" in up.run("record", "Lab", script, "--since", recorded_start(up)), script.read_text()
    else:
        wait_until(lambda: script.read_text().endswith("set PageCount 1502\n"))
        assert recorder.kill(signal.SIGTERM) == 0
    follower = follow(fresh, "Copy")
    fresh.add("Copy", script=script.read_text())
    assert changes_until_the_end(follower) == original


def recorded_start(machine):
    """A second before the jam, in the journal."""
    jam = next(json.loads(line) for line in machine.run("log", "Lab", "PrinterStatus", "--json").splitlines()
               if '"value":[16,1,2]' in line)
    time = time_of(jam) - datetime.timedelta(seconds=1)
    return time.strftime("%Y-%m-%dT%H:%M:%S.") + f"{time.microsecond // 1000:03}Z"


def test_refuses_what_it_cannot_do(up):
    assert "no printer is called" in up.run("record", "Lab", "-", code=1)
    up.add("Lab")
    assert "nothing was recorded" in up.run("record", "Lab", "-", "--since", "1h", code=1)
    assert "cannot write" in up.run("record", "Lab", up.folder / "nowhere/file", code=1)
