"""The journal: what was recorded is shown, whatever ends the recorder and whatever happens to the file."""
import contextlib
import json
import os
import re
import shutil
import sqlite3
import subprocess

from conftest import BIN, wait_until


def recorded(machine, *words, code=0):
    return [json.loads(line) for line in machine.run("log", *words, "--json", code=code).splitlines()]


def recorder(machine, printer):
    """Starts one, and waits until it has seen the printer."""
    presents = lambda: sum(row[0] for row in rows(machine, "SELECT count(*) FROM change WHERE told = 8 AND printer = ?",
                                                  printer))
    before = presents()
    started = machine.start("log", "--record")
    wait_until(lambda: presents() > before or started.process.poll() is not None, "the recorder")
    assert started.process.poll() is None, started.errors
    return started


def rows(machine, query, *parameters):
    """Of copies: SQLite would put the log into the file at its end."""
    found = []
    for segment in sorted((machine.state / "history").glob("*.sqlite")):
        copy = machine.folder / "copy.sqlite"
        for part in ("", "-wal"):
            machine.folder.joinpath(copy.name + part).unlink(missing_ok=True)
            if os.path.exists(f"{segment}{part}"):
                shutil.copyfile(f"{segment}{part}", f"{copy}{part}")
        with contextlib.closing(sqlite3.connect(copy)) as database:
            found += database.execute(query, parameters).fetchall()
    return found


def test_shows_what_changed_to_other_users_too(up):
    up.add("Front desk")
    up.add("Back office")
    assert "oriel config Views" in up.run("log", code=1)
    recorder(up, "Front desk")
    assert "already recorded" in up.run("log", "--record", code=1)
    up.set("Front desk", "ErrPaperJam", 2)
    up.set("Back office", "PageCount", 17)
    changes = lambda: [each for each in recorded(up, "Front desk", "ErrPaperJam") if each["event"] == "change"]
    change = wait_until(changes)[0]
    assert (change["old"], change["value"], change["hex"], change["from"]) == (None, 2, "02 00 00 00", "device")
    assert (change["meaning"], change["severity"], change["missed"]) == ("paper jam", "error", 0)
    assert re.fullmatch(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z", change["time"])
    wait_until(lambda: "Back office  PageCount: unknown -> 17 (0x11)" in up.run("log"))
    assert "Front desk" not in up.run("log", "Back office")
    assert up.run("log", "--since", "2099-01-01", code=1).startswith("oriel: nothing was recorded in this time")
    assert "is no time" in up.run("log", "--since", "yesterday", code=2)
    # Reads are open, and a reader needs no right to write.
    (up.folder).chmod(0o755)
    done = subprocess.run(["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", BIN / "oriel", "log", "--json"],
                          env=up.env, capture_output=True, text=True)
    assert done.returncode == 0 and '"name":"ErrPaperJam"' in done.stdout, done.stderr


def test_nothing_acknowledged_is_lost_when_the_recorder_is_killed(up):
    up.add("Front desk", script="".join(f"set PageCount {count}\nwait 10ms\n" for count in range(3000)))
    values = lambda: [each["value"] for each in recorded(up, "Front desk", "PageCount", code=None)
                      if each["event"] == "change"]
    for _ in range(3):
        before = values()
        running = recorder(up, "Front desk")
        acknowledged = wait_until(lambda: (found := values())[len(before):] and found)
        running.kill()  # the printer counts on
        assert values()[:len(acknowledged)] == acknowledged
    recorder(up, "Front desk")
    gaps = wait_until(lambda: (found := [each for each in recorded(up) if each["event"] == "gap"])[2:] and found)
    assert len(gaps) == 3 and all(gap["since"] < gap["time"] for gap in gaps)
    assert (final := values()) == sorted(final)


def test_a_restart_of_the_service_is_a_gap(up):
    up.add("Front desk")
    recorder(up, "Front desk")
    up.kill_service()
    events = wait_until(lambda: (found := [each["event"] for each in recorded(up)]).count("connected") == 2 and found)
    assert [each for each in events if each in ("disconnected", "connected", "gap")] == ["connected", "disconnected", "connected", "gap"]


def test_a_damaged_segment_is_put_aside(up):
    up.add("Front desk")
    recorder(up, "Front desk").end()
    segment, = (up.state / "history").glob("*.sqlite")
    log = segment.with_name(segment.name + "-wal")
    with open(log, "r+b") as file:  # what was not committed whole counts as not there
        file.truncate(log.stat().st_size - 100)
    assert up.run("log")
    with open(segment, "r+b") as file:
        file.seek(100)
        file.write(os.urandom(8000))
    log.unlink()
    assert "cannot read" in up.run("log", code=1)
    running = up.start("log", "--record")
    changes = lambda: [each for each in recorded(up, "Front desk", "PageCount", code=None) if each["event"] == "change"]
    wait_until(lambda: [each for each in recorded(up, code=None) if each["event"] == "added"])
    up.set("Front desk", "PageCount", 5)
    wait_until(changes)
    assert segment.with_suffix(".damaged").exists() and "put aside" in "".join(running.errors)


def test_whoever_looks_at_the_file_or_removes_it_loses_no_later_change(up):
    up.add("Front desk")
    recorder(up, "Front desk")
    folder = up.state / "history"
    segment, = folder.glob("*.sqlite")
    count = lambda: len([each for each in recorded(up, "Front desk", "PageCount", code=None) if each["event"] == "change"])
    with contextlib.closing(sqlite3.connect(segment)) as shell:
        assert shell.execute("SELECT count(*) FROM change").fetchone()[0] > 0
    up.set("Front desk", "PageCount", 1)
    wait_until(lambda: count() == 1)
    assert [each.name for each in folder.glob("*.sqlite")] == [segment.name], "its log was not taken away"
    for file in folder.glob(segment.name + "*"):
        file.unlink()
    up.set("Front desk", "PageCount", 2)
    wait_until(lambda: count() == 1)


def test_the_journal_keeps_its_bounds_and_the_users_their_share(up):
    up.add("Front desk")
    up.run("config", "HistoryMegabytes", 8)
    recorder(up, "Front desk")
    folder = up.state / "history"
    large = up.folder / "large"

    def write(variable, count, done):
        for number in range(count):
            large.write_text(f"{number:05}" * 3200)
            up.run("set", "Front desk", variable, "--file", large)
            if done():
                return

    told = lambda: sum(row[0] for row in rows(up, "SELECT count(*) FROM change WHERE told = 0 AND variable = 'PrinterQueue'"))
    follower = up.start("log", "Front desk", "--follow", "--since", "0s", "--json")
    follower.json(lambda event: event["event"] == "following")
    # So slowly that the recorder sees most of them.
    write("PrinterQueue", 40, lambda: not follower.json(lambda event: event.get("name") == "PrinterQueue"))
    assert 1 < told() < 20  # anybody may write it: half a mebibyte of old and new values
    follower.kill()
    seen = set()

    def is_cut():
        names = {each.name for each in folder.glob("*.sqlite")}
        seen.update(names)
        assert sum(each.stat().st_size for each in folder.iterdir()) <= 8 << 20
        return min(seen) not in names

    write("PrinterBinConfig", 5000, is_cut)  # a recorder that gets little time sees few of them
    assert len(seen) > 6 and not (folder / min(seen)).exists()


def test_states_and_jams_by_day(up):
    up.add("Front desk")
    recorder(up, "Front desk")
    for jam, status in ((2, "10 00 00 00 01 00 00 00 00 00 00 00"), (0, "00 " * 12), (2, "10 00 00 00 01 00 00 00 00 00 00 00")):
        up.set("Front desk", "ErrPaperJam", jam)
        up.run("set", "Front desk", "PrinterStatus", "--hex", status)
        wait_until(lambda: [each for each in recorded(up, "Front desk", "ErrPaperJam")][-1]["value"] == jam)
    states = lambda: up.json("log", "--states", "Front desk", code=None)["days"]
    wait_until(lambda: states()[-1]["jams"] == 2)
    days = wait_until(lambda: (found := states())[-1]["states_ms"].keys() >= {"ready", "stopped by an error"} and found)
    assert all(each["printer"] == "Front desk" for each in days)
    assert "ready" in up.run("log", "--states", "Front desk")
