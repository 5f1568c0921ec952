"""The real product on a private machine, for the tests of views: state and run directories of its own, gone afterwards.

    def test_it(up):                       # or `machine`, which has nothing running yet
        up.add("Front desk")               # of the example model; script="...": with a printer side that plays it
        up.set("Front desk", "PageCount", 17)
        log = up.start("log", "--follow", "--json")
        change = log.json(lambda event: event.get("variable") == "PageCount")
"""
import json
import os
import pathlib
import queue
import shutil
import signal
import subprocess
import tempfile
import threading
import time

import pytest

SOURCES = pathlib.Path(__file__).resolve().parents[2]
BIN = pathlib.Path(os.environ.get("ORIEL_BIN_DIR", SOURCES / "build/release/bin"))
PATIENCE = int(os.environ.get("ORIEL_TEST_PATIENCE", 60))  # seconds, for everything that must happen


def wait_until(holds, what="it", seconds=PATIENCE):
    """Polls until holds() is true, and returns what it returned. It may raise while it does not hold."""
    deadline = time.monotonic() + seconds
    while True:
        try:
            result, error = holds(), None
        except (AssertionError, LookupError, OSError, ValueError) as raised:
            result, error = None, raised
        if result:
            return result
        if time.monotonic() > deadline:
            raise AssertionError(f"{what} did not happen within {seconds} s") from error
        time.sleep(0.02)


class Program:
    """A program that runs; its lines are read as they come."""

    def __init__(self, words, env):
        self.process = subprocess.Popen(words, env=env, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                        stderr=subprocess.PIPE, text=True)
        self.pid = self.process.pid
        self.lines, self.heard, self.errors = queue.Queue(), [], []
        for stream, take in ((self.process.stdout, self.lines.put), (self.process.stderr, self.errors.append)):
            threading.Thread(target=self._read, args=(stream, take), daemon=True).start()

    def _read(self, stream, take):
        for line in stream:
            take(line.rstrip("\n"))
        if stream is self.process.stdout:
            take(None)

    def line(self, wanted=lambda line: True, seconds=PATIENCE):
        """The next line that is wanted; those before it are dropped (self.heard has them all)."""
        deadline = time.monotonic() + seconds
        while True:
            try:
                line = self.lines.get(timeout=max(0.0, deadline - time.monotonic()))
            except queue.Empty:
                line = None
            if line is None:
                raise AssertionError(f"no such line from {self.process.args}: {self.heard[-20:]} {self.errors}")
            self.heard.append(line)
            if wanted(line):
                return line

    def json(self, wanted=lambda event: True, seconds=PATIENCE):
        return json.loads(self.line(lambda line: wanted(json.loads(line)), seconds))

    def kill(self, number=signal.SIGKILL):
        self.process.send_signal(number)
        return self.process.wait(PATIENCE)

    def end(self):
        """Ctrl-C; the exit code."""
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGINT)
        return self.process.wait(PATIENCE)


class Machine:
    def __init__(self, folder):
        self.folder = folder
        self.state, self.run_folder = folder / "state", folder / "run"
        for each in (self.state, self.run_folder):
            each.mkdir()
        self.env = {name: value for name, value in os.environ.items() if not name.startswith("ORIEL_")}
        self.env.update(ORIEL_STATE_DIR=str(self.state), ORIEL_RUNTIME_DIR=str(self.run_folder), LC_ALL="C.UTF-8",
                        CUPS_SERVER=str(folder / "no-print-server"))
        self.programs = []
        self.product = None

    def run(self, *words, code=0):
        """`oriel WORDS`: its output. code: the exit code that it must have; None: any."""
        done = subprocess.run([BIN / "oriel", *map(str, words)], env=self.env, capture_output=True, text=True,
                              timeout=PATIENCE)
        assert code is None or done.returncode == code, f"{words}: {done.returncode}: {done.stdout}{done.stderr}"
        return done.stdout if done.stdout or code == 0 else done.stderr

    def json(self, *words, code=0):
        return json.loads(self.run(*words, "--json", code=code))

    def start(self, *words, wrap=()):
        program = Program([*wrap, BIN / "oriel", *map(str, words)], self.env)
        self.programs.append(program)
        return program

    def file(self, name, text):
        path = self.folder / name
        path.write_text(text)
        return path

    def add(self, name, script=None, driver="Example Laser"):
        """Adds a printer and opens it once, so that it has a database (when the product is up)."""
        if "Example Laser" not in self.run("reg", "query", r"HKLM\SOFTWARE\Tavik\Oriel\Printers", "-r", code=None):
            self.run("reg", "import", SOURCES / "examples/example_laser.reg")
        words = ["--script", self.file(f"{len(name)}-{abs(hash(name))}.script", script)] if script else []
        self.run("printers", "add", name, "--driver", driver, *words)
        if self.product:
            self.run("get", name, "PrinterStatus")

    def set(self, printer, variable, *words):
        self.run("set", printer, variable, "--", *words)

    def get(self, printer, variable):
        return self.json("get", printer, variable)["variables"][0]["value"]

    def up(self, *words):
        self.product = self.start("up", "--json", *words)
        self.product.json(lambda event: event["event"] == "up")
        return self

    def down(self):
        if self.product:
            assert self.product.end() == 0, self.product.errors
            self.programs.remove(self.product)
            self.product = None

    def processes(self, program):
        """Ids of the processes of that program on this machine."""
        found = []
        for folder in pathlib.Path("/proc").glob("[0-9]*"):
            try:
                if (os.path.basename(os.readlink(folder / "exe")) == program and
                        f"ORIEL_STATE_DIR={self.state}".encode() in (folder / "environ").read_bytes().split(b"\0")):
                    found.append(int(folder.name))
            except OSError:
                pass
        return found

    def kill_service(self):
        """And waits until it is started again."""
        os.kill(self.processes("TVSDBN.EXE")[0], signal.SIGKILL)
        self.product.json(lambda event: event["event"] == "service-started")

    def close(self):
        try:
            for program in [each for each in self.programs if each is not self.product]:
                if program.process.poll() is None:
                    program.kill()
            self.down()
        finally:
            for program in self.programs:
                if program.process.poll() is None:
                    program.kill()
            shutil.rmtree(self.folder, ignore_errors=True)


@pytest.fixture
def machine():
    made = Machine(pathlib.Path(tempfile.mkdtemp(prefix="oriel-view-", dir="/dev/shm")))
    try:
        yield made
    finally:
        made.close()


@pytest.fixture
def up(machine):
    return machine.up()
