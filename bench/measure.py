"""What bench/run and bench/peers share: measuring programs, a private installation with its service, and the report."""
import json
import os
import pathlib
import shutil
import signal
import statistics
import subprocess
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
PRINTER = "Front desk"
HEADER = 24  # of a request or a reply


def text(name):
    """Size of a string in a request: three counts, the characters with the NUL, padding to 4 bytes."""
    return 12 + (len(name) + 1 + 3) // 4 * 4


def read_bytes(variable, size):
    """Sizes of the request that reads a value, and of its reply."""
    return HEADER + 4 + text(variable) + 4, HEADER + 4 + (size + 3) // 4 * 4 + 4 + 4


READ_BYTES = read_bytes("PrinterStatus", 12)
INFO_BYTES = (HEADER + 4 + text("PrinterStatus"), HEADER + 28 + 4)
UPDATE_BYTES = (HEADER + 4 + text("JobStatus") + 4 + 4 + 4, HEADER + 4)


class Program:
    """A measuring program; rounds.h has its protocol."""

    def __init__(self, machine, name, *arguments):
        self.name = " ".join(map(str, (name, *arguments)))[:100]
        self.process = subprocess.Popen([str(machine.bin / name), *map(str, arguments)], env=machine.environment,
                                        text=True, stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        if self.process.stdout.readline() != "ready\n":
            sys.exit(f"bench: {self.name} did not start")

    def _ask(self, line):
        self.process.stdin.write(line + "\n")
        self.process.stdin.flush()

    def _numbers(self):
        answer = self.process.stdout.readline()
        if not answer:
            sys.exit(f"bench: {self.name} ended")
        return list(map(float, answer.split()))

    def go(self, seconds):
        self._ask(f"go {seconds}")

    def result(self):
        """Nanoseconds per operation, operations per second."""
        operations, nanoseconds = self._numbers()
        return nanoseconds / operations, operations / nanoseconds * 1e9

    def round(self, seconds):
        self.go(seconds)
        return self.result()[0]

    def each(self, count, pause=0):
        """The numbers of one round of timed operations, in nanoseconds. pause: in seconds."""
        self._ask(f"each {count} {round(pause * 1e6)}")
        return self._numbers()

    def end(self):
        self.process.stdin.close()
        self.process.wait(60)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.end()


class Machine:
    """Private state and run directories with a registered installation and a running service."""

    def __init__(self, build, printers):
        self.bin = build / "bin"
        self.directory = pathlib.Path(tempfile.mkdtemp(prefix="oriel-bench-", dir="/dev/shm"))
        self.run_directory = self.directory / "run"
        self.environment = dict(os.environ, ORIEL_STATE_DIR=str(self.directory / "state"),
                                ORIEL_RUNTIME_DIR=str(self.run_directory))
        for name in ("state", "run"):
            (self.directory / name).mkdir()
        lines = ["REGEDIT4", "", r"[HKEY_LOCAL_MACHINE\SOFTWARE\Tavik\Oriel]",
                 '"DIRPATH"="%s"' % (str(self.bin) + "/").replace("/", "\\\\"), ""]
        for name in printers:
            lines += [rf"[HKEY_LOCAL_MACHINE\System\CurrentControlSet\Control\Print\Printers\{name}]",
                      '"Printer Driver"="Bench driver"', ""]
        registry = self.directory / "bench.reg"
        registry.write_text("\r\n".join(lines))
        subprocess.run([self.bin / "oriel", "reg", "import", registry], env=self.environment, check=True,
                       stdout=subprocess.DEVNULL)
        self.service = subprocess.Popen([self.bin / "TVSDBN.EXE"], env=self.environment)
        deadline = time.monotonic() + 10
        while not list(self.run_directory.glob("rpc/*")):
            if time.monotonic() > deadline or self.service.poll() is not None:
                sys.exit("bench: the service did not start")
            time.sleep(0.01)

    def service_memory(self, *fields):
        """Bytes of the service: the sum of fields of /proc/PID/status, by default all that is resident."""
        status = dict(line.split(":", 1) for line in pathlib.Path(f"/proc/{self.service.pid}/status").read_text().splitlines())
        return sum(int(status[field].split()[0]) * 1024 for field in fields or ("VmRSS",))

    def objects(self):
        """The named objects: what stat tells of each one's memory, by its name."""
        wanted = f"oriel-objects\0{self.run_directory}\0".encode()
        for process in pathlib.Path("/proc").glob("[0-9]*"):
            try:
                if process.joinpath("cmdline").read_bytes().endswith(wanted):
                    links = {os.readlink(file): file for file in process.glob("fd/*")}
                    return {name.removeprefix("/memfd:").removesuffix(" (deleted)"): os.stat(file)
                            for name, file in links.items() if name.startswith("/memfd:")}
            except OSError:  # it has ended
                continue
        return {}

    def end(self):
        self.service.send_signal(signal.SIGTERM)
        self.service.wait(20)
        shutil.rmtree(self.directory)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.end()


class Report:
    """Prints the rows as they come and remembers them."""

    def __init__(self):
        self.rows = []
        print(f"{'cost over the bare limit of the same run':<66}{'ratio':>8}")

    def add(self, name, ratio, target=None, detail=""):
        met = None if target is None else ratio <= target
        self.rows.append({"what": name, "ratio": round(ratio, 3), "target": target, "met": met, "detail": detail})
        verdict = "" if target is None else f"   at most {target:g}: {'met' if met else 'NOT MET'}"
        print(f"{name:<66}{ratio:8.2f}{verdict}   {detail}", flush=True)

    def missed(self):
        return [row["what"] for row in self.rows if row["met"] is False]

    def save(self, path, facts):
        path.parent.mkdir(exist_ok=True)
        path.write_text(json.dumps({**facts, "rows": self.rows}, indent=1))


def medians(rounds):
    """Of rounds of several numbers each, the median of each number."""
    return [statistics.median(numbers) for numbers in zip(*rounds)]
