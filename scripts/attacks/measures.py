"""Root's measures: a process that does what root's applications do, and says how long each step took.

It takes a word a line on standard input: "round", or the name of a further check. For each step it prints what it is about to
do, then {"step", "ms", "error"}; after the last one {"done": true}.
"""
import ctypes
import json
import os
import subprocess
import sys
import time

from machine import *  # noqa: F403: the vocabulary of the attacks


class Measures:
    def __init__(self):
        self.tvs = Library()
        self.manager = self.tvs.open()
        self.archive = self.tvs.printer(ARCHIVE)
        self.office = self.tvs.printer(OFFICE)
        self.told = ctypes.c_void_p(self.tvs.true("CreateEventA", None, 0, 0, None))
        self.tvs.call("SetNotificationEventA", self.manager, b"PrinterLocation", self.told, ctypes.byref(ctypes.c_void_p()))
        self.number = os.getpid() * 1000  # not a place that an earlier process wrote: the same value is no news

    def place(self):
        return b"Room %d" % self.number

    def machine(self):
        """A program of the product that nobody attacks."""
        subprocess.run([ORIEL, "get", "Demo printer", "PageCount"], env={**os.environ, **json.loads(os.environ["ATTACK_TWIN"])},
                       check=True, capture_output=True)

    def read(self):
        self.tvs.get(self.manager, "PageCount")

    def update(self):
        self.number += 1
        self.tvs.win.ResetEvent(self.told)
        self.tvs.set(self.manager, "PrinterLocation", self.place() + b"\0")

    def notification(self):
        while self.tvs.get(self.manager, "PrinterLocation", 260).rstrip(b"\0") != self.place():
            raise ValueError("the value is not the one that was written")
        if self.tvs.win.WaitForSingleObject(self.told, 10000) != 0:
            raise TimeoutError("not told")

    def open(self):
        self.tvs.close(self.tvs.open())

    def program(self):
        done = subprocess.run([ORIEL, "get", QUIET, "PrinterLocation"], capture_output=True, text=True)
        if done.returncode != 0 or done.stdout.strip() != self.place().decode():
            raise ValueError(f"oriel get: {done.returncode} {done.stdout}{done.stderr}")

    def registry(self):
        self.tvs.set_registry(HKLM, "SOFTWARE\\Probe", "Round", self.place() + b"\0")

    def own_registry(self):
        self.tvs.set_registry(HKCU, "SOFTWARE\\Probe", "Round", self.place() + b"\0")

    def job(self):
        job = self.tvs.spool(self.archive)
        if job not in self.tvs.jobs(self.archive):
            raise ValueError("a job is not in the spool")
        self.tvs.change_job(self.archive, job, CANCEL_JOB)

    def window(self):
        self.tvs.win.FindWindowA(b"NoSuchClass", None)

    def print(self):
        job = self.tvs.spool(self.office)
        while job in self.tvs.jobs(self.office):
            time.sleep(0.01)

    def mutex(self):
        """An open while another user holds the database mutex."""
        try:
            self.tvs.close(self.tvs.open())
        except OSError as error:
            if error.errno != -16:
                raise


ROUND = ("machine", "read", "update", "notification", "open", "program", "registry", "own_registry", "job", "window")
WITHOUT_OPEN = tuple(step for step in ROUND if step not in ("open", "program"))


def main():
    measures = Measures()
    print(json.dumps({"done": True}), flush=True)
    for line in sys.stdin:
        word = line.strip()
        for step in {"round": ROUND, "without-open": WITHOUT_OPEN}.get(word, (word,)):
            print(json.dumps({"begins": step}), flush=True)
            begun, error = time.monotonic(), ""
            try:
                getattr(measures, step)()
            except Exception as raised:
                error = f"{type(raised).__name__} {raised}"
            print(json.dumps({"step": step, "ms": (time.monotonic() - begun) * 1000, "error": error}), flush=True)
        print(json.dumps({"done": True, "place": measures.place().decode()}), flush=True)
