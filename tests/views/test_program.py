"""What all views have in common: how `oriel` finds them, and how they fail."""
import subprocess

from conftest import BIN


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
