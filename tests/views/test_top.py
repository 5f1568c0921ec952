"""`oriel top` in a real terminal (tmux), and where there is none."""
import json
import os
import shlex
import subprocess

import pytest
from conftest import BIN, wait_until
from test_serve import JAM


class Terminal:
    def __init__(self, machine, *words, width=80, height=24, **env):
        self.socket = machine.folder / "tmux"
        self.env = machine.env | {"TERM": "xterm"}
        command = " ".join(shlex.quote(str(word)) for word in
                           ["env", *(f"{name}={value}" for name, value in env.items()), BIN / "oriel", "top", *words])
        self.tmux("-f", "/dev/null", "new-session", "-d", "-x", str(width), "-y", str(height),
                  f"{command}; echo ended with $?; exec cat")

    def tmux(self, *words):
        done = subprocess.run(["tmux", "-u", "-S", str(self.socket), *words], env=self.env, capture_output=True, text=True)
        assert done.returncode == 0, done.stderr
        return done.stdout

    def keys(self, *keys):
        self.tmux("send-keys", *keys)

    def screen(self, *options):
        return self.tmux("capture-pane", "-p", *options)

    def see(self, *texts, gone=(), options=()):
        def shown():
            self.last = self.screen(*options)
            return all(text in self.last for text in texts) and not any(text in self.last for text in gone)
        try:
            return wait_until(shown, "the screen", 20) and self.last
        except AssertionError as error:
            raise AssertionError(f"{texts}, without {gone}, in:\n{self.last}") from error

    def end(self):
        subprocess.run(["tmux", "-S", str(self.socket), "kill-server"], env=self.env, capture_output=True)


@pytest.fixture
def terminal(machine):
    made = []

    def start(*words, **options):
        made.append(Terminal(machine, *words, **options))
        return made[-1]
    yield start
    for each in made:
        each.end()


def test_state_keys_and_sizes(machine, terminal):
    machine.env["ORIEL_ANSI_CODE_PAGE"] = "65001"
    up = machine.up()
    up.add("Front desk")
    up.add("Büro 東京")
    screen = terminal()
    rows = screen.see("Front desk", "Büro 東京", "2 printers", "ready", "100%", "q quit").splitlines()
    assert len(rows) == 24 and all(len(row) <= 80 for row in rows)
    up.run("set", "Front desk", "PrinterStatus", "--hex", JAM)
    up.run("set", "Front desk", "TonerLevel", "7")
    seen = screen.see(" paper jam, unit 2 ", "7%", "with an error", "PrinterStatus stopped by an error, paper jam")
    assert "! Front desk" in seen
    assert "\x1b[31m" in screen.screen("-e") or "\x1b[1m\x1b[31m" in screen.screen("-e")
    screen.keys("/", "x", "y", "z")
    screen.see("/xyz_", "no printer matches")
    screen.keys("BSpace", "BSpace", "BSpace", "d", "e", "s", "k", "Enter")
    screen.see('only "desk"', "Front desk", gone=["東京 "])
    screen.keys("Escape")
    screen.see("東京 ", gone=['only "desk"'])
    screen.keys("s")
    screen.see("sort: name")
    screen.keys("?")
    screen.see("cancel the chosen job", "press a key")
    screen.keys("x")
    screen.tmux("resize-window", "-x", "120", "-y", "40")
    assert len(screen.see("JOBS PAGES").splitlines()) == 40
    screen.tmux("resize-window", "-x", "50", "-y", "8")
    screen.see("Front desk", gone=["SUPPLIES"])
    screen.tmux("resize-window", "-x", "10", "-y", "3")
    screen.see("too small")
    screen.keys("q")
    screen.see("ended", options=["-J", "-S", "-"])


def test_jobs_are_cancelled_once_the_user_says_so(up, terminal):
    up.add("Front desk", script="jobs hold\nwait 1h\n")
    up.file("text", "text")
    job = up.json("print", "Front desk", up.folder / "text", "--title", "Répört")["job"]
    up.json("print", "Front desk", up.folder / "text", "--title", "Second")
    screen = terminal()
    screen.see(f"job {job}  ", "Répört", "Second")
    screen.keys("c")
    screen.see(f'cancel job {job} "Répört" of Front desk? y/N')
    screen.keys("Enter")
    screen.see("not cancelled", "Répört")
    screen.keys("c", "y")
    screen.see(f"cancelled job {job}")
    wait_until(lambda: job not in [each["job"] for each in up.json("jobs", "Front desk")["spooler"]], "the end of the job")
    screen.keys("p")
    screen.see("Front desk")
    assert len(up.json("jobs", "Front desk")["spooler"]) == 1


def test_many_printers_scroll_and_a_restart_is_survived(up, terminal):
    for number in range(1, 61):
        up.add(f"Printer {number:03}")
    screen = terminal(NO_COLOR="1")
    screen.see("60 printers", "Printer 001", gone=["Printer 030 "])
    screen.keys("End")
    screen.see("Printer 060", gone=["Printer 001 "])
    screen.keys("Home", "Down", "Down", "NPage")
    screen.see("Printer 015", gone=["Printer 014"])
    assert "\x1b[3" not in screen.screen("-e").replace("\x1b[39m", "")
    up.kill_service()
    screen.see("60 printers", gone=["NOT CONNECTED", "not sure"])
    screen.tmux("send-keys", "C-c")
    screen.see("ended with 0", options=["-S", "-"])


def test_without_a_terminal_there_is_one_snapshot(up):
    up.add("Front desk")
    up.run("set", "Front desk", "PrinterStatus", "--hex", JAM)
    text = up.run("top")
    assert text.splitlines()[1].split()[:3] == ["Front", "desk", "error"] and "\x1b" not in text
    printer = up.json("top", "desk")["printers"][0]
    assert (printer["name"], printer["severity"]) == ("Front desk", "error")
    assert up.json("top", "nobody")["printers"] == []
    # script(1) gives it a terminal, which cannot move its cursor.
    dumb = subprocess.run(["script", "-qec", f"{BIN}/oriel top", os.devnull], env=up.env | {"TERM": "dumb"},
                          stdin=subprocess.DEVNULL, capture_output=True, text=True)
    assert "cannot" in dumb.stdout or "Front desk" in dumb.stdout
    up.down()
    assert json.loads(up.run("top", "--json", code=3))["error"]["exitCode"] == 3
