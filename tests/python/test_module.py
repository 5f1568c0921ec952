"""The Python module against the real product."""

import asyncio
import datetime
import os
import re
import signal
import subprocess
import sys
import threading

import pytest
from real_product import SOURCE, wait_for

import oriel
from oriel import _errors, _values

PRINTER = "Front desk"


@pytest.fixture
def printer(product):
    with oriel.open(PRINTER) as opened:
        yield opened


def watching_threads():
    return [thread for thread in threading.enumerate() if thread.name.startswith("oriel")]


def rows_of(header, pattern):
    return re.findall(pattern, (SOURCE / "include" / header).read_text())


def test_tables_are_those_of_the_headers():
    variables = rows_of("tvsqdz_variables.h", r"X\((\w+), ([A-Z]+), (\d+)\)")
    assert {name: (kind, int(size)) for name, kind, size in variables} == _values.BUILT_IN
    names = {name: int(code) for name, code in rows_of("tvsqdz.h", r"#define (TVS_\w+) \(?(-?\d+)\)?")}
    statuses = rows_of("tvsqdz_status.h", r'X\(([\w-]+), "([^"]+)"\)')
    assert {int(names.get(code, code)): text for code, text in statuses} == _errors.TEXTS
    sizes = rows_of("tvsqdz_records.h", r"sizeof\(Tvs(Job|PrintingJob|Port|PortEx)Record(2?)\) == (\d+)")
    assert {name + second: int(size) for name, second, size in sizes} == {
        record.__name__: _values.size_of(record) for record in _values.RECORDS.values()
    }


def test_values_have_the_form_of_their_type(printer):
    job = oriel.Job("Büro.pdf", "anna", 7)
    port = oriel.Port(8, "usb", "1")
    written = {
        "PageCount": 3,
        "PrinterMemory": None,
        "PrinterLocation": "2nd flöör €",
        "PrinterStatus": (1, 2, 3),
        "ErrPaperState": 0x10000,
        "SendingJobInfo": job,
        "PrinterQueue": [job, job._replace(jobId=8)],
        "PrinterBinConfig": b"\x08\0\0\0\1\0\0\0",
        "Port": port,
        "TonerLevel": 40,  # of the model
    }
    printer["ServiceNote"] = "cleaned"
    assert printer.text("ServiceNote") == "cleaned" and printer["ServiceNote"].startswith(b"cleaned")
    begin = datetime.datetime.now(datetime.timezone.utc)
    for name, value in written.items():
        printer[name] = value
        assert printer[name] == value, name
    assert printer["PortEx"] == oriel.PortEx(printer["PrinterExtStatus"], port)
    age = printer.info("TonerLevel") - begin
    assert abs(age.total_seconds()) < 20
    names = [variable.name for variable in printer.variables()]
    assert "PageCount" in names and "AccessControlList" not in names
    assert printer.values()["PageCount"] == 3


def test_what_cannot_be_stored_is_refused_and_stores_nothing(printer):
    printer["PrinterLocation"], printer["PageCount"] = "here", 1
    for name, value, kind in [
        ("PrinterLocation", "x" * 260, ValueError),
        ("PrinterLocation", "日本", ValueError),
        ("PrinterLocation", "a\0b", ValueError),
        ("PrinterLocation", 4, TypeError),
        ("PageCount", "4", TypeError),
        ("PageCount", 1 << 32, ValueError),
        ("PageCount", b"123", oriel.Error),
        ("Port", (1, "a"), ValueError),
        ("Nope", b"", KeyError),
    ]:
        with pytest.raises(kind):
            printer[name] = value
    assert (printer["PrinterLocation"], printer["PageCount"]) == ("here", 1)
    with pytest.raises(oriel.Error, match=r"no driver.*\(status -33\)") as failure:
        oriel.open("Nobody")
    assert failure.value.code == -33
    assert printer.get("Nope", 5) == 5 and "Nope" not in printer
    printer.close()
    with pytest.raises(oriel.Error, match="not open"):
        printer["PageCount"]


def test_watch_has_what_came_before_and_ends_with_its_printer(printer):
    printer["PageCount"] = 1
    watch = printer.watch("PageCount", "PrinterLocation", initial=True)
    assert {next(watch).variable, next(watch).variable} == {"PageCount", "PrinterLocation"}
    printer["PageCount"] = 2
    change = next(watch)
    assert (change.variable, change.before, change.value) == ("PageCount", 1, 2)
    assert change.time == printer.info("PageCount")
    assert watch.wait(0) is None
    threading.Timer(0.05, printer.close).start()
    assert list(watch) == []
    wait_for(lambda: not watching_threads(), "a thread is left")


def test_the_last_of_many_writes_is_seen_however_slow_the_reader(printer):
    with printer.watch("PageCount", "TonerLevel", initial=True) as watch:
        for number in range(1000):
            printer["PageCount"] = number
        printer["TonerLevel"] = 1000
        seen = {}
        for change in watch:
            seen[change.variable] = change.value
            if seen.get("PageCount") == 999 and seen.get("TonerLevel") == 1000:
                break
        assert len(watch._watching._pending) <= 2


def test_event_loop_gets_changes_of_another_process_and_of_a_new_service(product, printer):
    async def main():
        async with printer.watch("PageCount") as watch:
            with pytest.raises(asyncio.TimeoutError):  # a wait that is cancelled loses nothing
                await asyncio.wait_for(watch.__anext__(), 0.05)
            script = f"import oriel; oriel.open({PRINTER!r})['PageCount'] = 77"
            await asyncio.to_thread(subprocess.run, [sys.executable, "-c", script], check=True)
            assert (await asyncio.wait_for(watch.__anext__(), 20)).value == 77
            os.kill(product.service(), signal.SIGKILL)
            await asyncio.to_thread(product.until, "service-started")
            async for change in watch:  # once, as the library may have missed a write
                assert change.value == 77  # of the driver data
                break
            printer["PageCount"] = 78
            async for change in watch:
                if change.value == 78:
                    break

    asyncio.run(asyncio.wait_for(main(), 60))


def test_fork_child_opens_its_own_and_the_interpreter_ends_in_the_midst_of_a_watch(product):
    script = f"""
import oriel, os, threading
printer = oriel.open({PRINTER!r})
watch = printer.watch("PageCount")
child = os.fork()
if child == 0:
    codes = []
    for call in (lambda: printer["PageCount"], lambda: next(watch)):
        try:
            call()
        except oriel.Error as error:
            codes.append(error.code)
    own = oriel.open({PRINTER!r})
    own.watch("PageCount", initial=True).wait(20)
    own["PageCount"] = 99
    printer.close()
    watch.close()
    os._exit(0 if codes == [-1, -1] else 1)
assert os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]) == 0
assert next(watch).value == 99
threading.Thread(target=lambda: list(watch), daemon=True).start()
more = [oriel.open({PRINTER!r}).watch() for _ in range(3)]
"""
    done = subprocess.run([sys.executable, "-X", "faulthandler", "-c", script], capture_output=True, text=True, timeout=60)
    assert (done.returncode, done.stderr) == (0, "")


def test_watch_that_nobody_has_any_more_keeps_nothing(product):
    printer = oriel.open(PRINTER)
    for change in printer.watch("PageCount", initial=True):
        break
    del printer, change
    wait_for(lambda: not watching_threads(), "a thread is left")
