"""What all views have in common: how `oriel` finds them, and how they fail."""
import os
import signal
import subprocess

from conftest import BIN, wait_until


def test_oriel_becomes_the_view(machine):
    assert machine.run("log", "--help").splitlines()[1].startswith("Usage: oriel log")
    assert machine.run("help", "log") == machine.run("--json", "log", "--help")
    assert "unknown-option" in machine.json("log", "--unknown-option", code=2)["error"]["what"]
    assert "log" in [line.split()[0] for line in machine.run("--help").splitlines() if line.startswith("  ")]


def test_a_view_that_is_not_installed_is_not_listed(machine):
    alone = machine.folder / "alone"
    alone.mkdir()
    (alone / "oriel").write_bytes((BIN / "oriel").read_bytes())
    (alone / "oriel").chmod(0o755)
    env = machine.env | {"LD_LIBRARY_PATH": str(BIN.parent / "lib")}
    run = lambda *words: subprocess.run([alone / "oriel", *words], env=env, capture_output=True, text=True)
    assert "recorded" not in run("--help").stdout
    done = run("log", "Front desk")
    assert done.returncode == 1 and "install the package oriel-views" in done.stderr


def test_up_runs_the_views_of_the_setting(up):
    assert up.json("config", "Views")["setting"] == {"name": "Views", "value": [], "default": True}
    up.run("config", "Views", "log --record")
    up.run("config", "Views", "--add", "log --record")  # is there already
    assert up.json("config", "views")["setting"]["value"] == ["log --record"]
    up.product.json(lambda event: event["event"] == "view-started")
    recorder, = wait_until(lambda: up.processes("oriel-log"))
    os.kill(recorder, signal.SIGKILL)
    assert up.product.json(lambda event: event["event"] == "view-ended")["pauseMs"] == 50
    up.product.json(lambda event: event["event"] == "view-started")
    up.run("config", "Views", "--default")
    assert up.product.json(lambda event: event["event"] == "view-ended") == {
        "event": "view-ended", "command": "log --record", "code": 0, "pauseMs": 0}
    assert not up.processes("oriel-log")
    # When `up` ends, and when it is killed.
    up.run("config", "Views", "log --record")
    for ending in ("end", "kill"):
        wait_until(lambda: up.processes("oriel-log"))
        getattr(up.product, ending)()
        wait_until(lambda: not up.processes("oriel-log"))
        up.product = None
        up.up()


def test_config_checks_what_it_stores(machine):
    for words, message in ((("HistoryDays", "0"), "1 to 3660"), (("HistoryDays", "x"), "1 to 3660"),
                           (("HistoryDaze",), "did you mean HistoryDays"), (("Views", "nonsense"), "no view"),
                           (("HistoryDays", "--add", "1"), "no list"), (("Views", "--default", "log"), "no value")):
        assert message in machine.run("config", *words, code=2)
    machine.run("config", "HistoryDays", "7")
    assert [row[:2] for row in map(str.split, machine.run("config").splitlines()) if row[0] == "HistoryDays"] == [["HistoryDays", "7"]]
