"""Watching variables. State: a thread for each watch of up to 60 variables, which waits in the library's events.

The library could call a function instead, but on a thread of its own that it ends by force when a call does not return in
time; Python code must not run there. Of each variable only the last value that nobody has taken yet is kept, so a slow reader
takes no memory, and still sees the last one.
"""

from __future__ import annotations

import asyncio
import atexit
import collections
import ctypes
import os
import threading
import time
import weakref
from ctypes import byref
from datetime import datetime
from typing import TYPE_CHECKING, AsyncIterator, Callable, Dict, Iterator, List, NamedTuple, Optional, Sequence, Tuple

from . import _errors
from ._library import Library, Registration
from ._values import Value

if TYPE_CHECKING:
    from ._printer import Printer

# A thread waits for at most 64 handles, one of which ends it; a list of the library has at most 63 variables.
_GROUP = 60
_END_SECONDS = 5.0  # for a thread to end, which may be in a call

# The service was away. It tells of every variable again when it is back.
_WAITED_OUT = (_errors.RPC_UNAVAILABLE, _errors.RPC_CALL_FAILED, _errors.RPC_CALL_FAILED_DNE, _errors.DATABASE_GONE)


class Change(NamedTuple):
    """A variable was written. Several writes in a row may be one change, whose value is the last one."""

    printer: str
    variable: str
    value: Value
    before: Value  # of the change before, or when the watch began; equal to value when it changed and changed back
    time: Optional[datetime]  # of the last write, UTC; None: never, or not known


class Watching:
    """What the threads of a watch share with its iterators. It does not keep the printer open."""

    def __init__(self, library: Library, manager: int, printer: str, ansi_names: Sequence[bytes],
                 readers: Sequence[Callable[[], Value]], names: Sequence[str], initial: bool) -> None:
        self._library = library
        self._manager = manager
        self._printer = printer
        self._names = names
        self._ansi = ansi_names
        self._readers = readers
        self._process = os.getpid()
        self._changed = threading.Condition()
        self._known: List[Value] = [None] * len(names)
        # By the place of the variable, the one that waits longest first: what came before, and the value and its time, or
        # why it cannot be read.
        self._pending: "collections.OrderedDict[int, Tuple[Value, object, Optional[datetime]]]" = collections.OrderedDict()
        self._loops: List[Tuple[asyncio.AbstractEventLoop, "asyncio.Future[None]"]] = []
        self._ended = False
        self._threads: List[threading.Thread] = []
        self._ends: List[int] = []
        try:
            for first in range(0, len(names), _GROUP):
                self._begin(range(first, min(first + _GROUP, len(names))))
            for place, read in enumerate(readers):
                value = read()
                with self._changed:
                    self._known[place] = value
                    if place in self._pending:  # written meanwhile
                        self._pending[place] = (value, *self._pending[place][1:])
                    elif initial:
                        self._put(place, value, self._time(place))
        except BaseException:
            self.stop()
            raise
        _alive.add(self)

    def _begin(self, places: range) -> None:
        """Registers a group of variables, and starts its thread."""
        library = self._library
        events: List[int] = []
        try:
            for _ in range(len(places) + 1):
                events.append(library.create_event())
            registration = Registration()
            status = library.watch(self._manager, len(places), b";".join(self._ansi[place] for place in places),
                                   (ctypes.c_void_p * len(places))(*events[1:]), byref(registration))
            _errors.check(status, f"cannot watch {', '.join(self._names[place] for place in places)} of {self._printer!r}")
        except BaseException:
            for event in events:
                library.close_handle(event)
            raise
        thread = threading.Thread(target=self._run, args=(places, events, registration.value),
                                  name=f"oriel watch of {self._printer}", daemon=True)
        self._ends.append(events[0])
        self._threads.append(thread)
        thread.start()

    # ---- the threads

    def _run(self, places: range, events: List[int], registration: int) -> None:
        handles = (ctypes.c_void_p * len(events))(*events)
        # Index 0 is the end. A wait reports the first handle that is set; the others are looked at as well, so that no
        # variable that is written all the time hides those behind it.
        while True:
            index = self._library.wait_any(handles)
            if not index or self._ended:
                break
            self._read(places[index - 1])
            for later in range(index + 1, len(events)):
                if self._library.take_event(events[later]):
                    self._read(places[later - 1])
        self._library.unwatch(self._manager, registration)
        with self._changed:
            self._ends.remove(events[0])
            for event in events:
                self._library.close_handle(event)
        self._finish()

    def _read(self, place: int) -> None:
        value: object
        try:
            value = self._readers[place]()
        except _errors.Error as error:
            if error.code in _WAITED_OUT or self._ended:
                return
            value = error
        with self._changed:
            self._put(place, value, self._time(place))

    def _time(self, place: int) -> Optional[datetime]:
        return self._library.write_time(self._manager, self._ansi[place])[1]

    def _put(self, place: int, value: object, written: Optional[datetime]) -> None:
        before = self._pending[place][0] if place in self._pending else self._known[place]
        self._pending[place] = (before, value, written)
        self._wake()

    def _finish(self) -> None:
        with self._changed:
            self._ended = True
            self._wake()

    def _wake(self) -> None:
        self._changed.notify_all()
        loops, self._loops = self._loops, []
        for loop, future in loops:
            try:
                loop.call_soon_threadsafe(_resolve, future)
            except RuntimeError:  # the loop was closed
                pass

    # ---- the iterators

    def _take(self) -> Optional[Change]:
        """With the lock held. None: there is nothing yet. Raises StopIteration at the end."""
        if not self._pending:
            if self._ended:
                raise StopIteration
            return None
        place, (before, value, written) = self._pending.popitem(last=False)
        if isinstance(value, _errors.Error):
            raise value
        self._known[place] = value  # type: ignore[assignment]
        return Change(self._printer, self._names[place], value, before, written)  # type: ignore[arg-type]

    def _check_process(self) -> None:
        if os.getpid() != self._process:
            raise _errors.Error(_errors.HANDLE, f"the watch of {self._printer!r} belongs to the parent of this process")

    def next(self, timeout: Optional[float]) -> Optional[Change]:
        self._check_process()
        deadline = None if timeout is None else time.monotonic() + timeout
        with self._changed:
            while True:
                change = self._take()
                if change is not None:
                    return change
                left = None if deadline is None else deadline - time.monotonic()
                if left is not None and left <= 0:
                    return None
                self._changed.wait(left)

    async def next_async(self) -> Optional[Change]:
        """None at the end."""
        self._check_process()
        while True:
            with self._changed:
                try:
                    change = self._take()
                except StopIteration:
                    return None
                if change is not None:
                    return change
                loop = asyncio.get_running_loop()
                future = loop.create_future()
                self._loops.append((loop, future))
            try:
                await future
            finally:
                with self._changed:
                    self._loops = [entry for entry in self._loops if entry[1] is not future]

    def stop(self) -> None:
        """Ends the threads and the iterators. What is pending can still be taken."""
        if os.getpid() != self._process:
            return
        self._finish()
        with self._changed:
            for end in self._ends:
                self._library.set_event(end)
        for thread in self._threads:
            if thread is not threading.current_thread():
                thread.join(_END_SECONDS)


def _resolve(future: "asyncio.Future[None]") -> None:
    if not future.done():
        future.set_result(None)


_alive: "weakref.WeakSet[Watching]" = weakref.WeakSet()


@atexit.register
def _end_all() -> None:
    """While the interpreter is complete: a thread must not come back from a call later."""
    for watching in list(_alive):
        watching.stop()


class Watch:
    """Changes of variables, one after another: for ``for`` and ``async for``, by any number of threads and tasks, each
    change going to one of them. It keeps its printer open, and ends when it is closed, with the printer, or when nobody has
    it any more."""

    def __init__(self, printer: "Printer", watching: Watching) -> None:
        self.printer = printer
        self._watching = watching
        self._close = weakref.finalize(self, watching.stop)

    def close(self) -> None:
        """Ends the watch; the iterators end after what is pending."""
        self._close()

    def wait(self, timeout: Optional[float] = None) -> Optional[Change]:
        """The next change; None when none comes within that many seconds, or when the watch has ended."""
        try:
            return self._watching.next(timeout)
        except StopIteration:
            return None

    def __iter__(self) -> Iterator[Change]:
        return self

    def __next__(self) -> Change:
        change = self._watching.next(None)
        assert change is not None
        return change

    def __aiter__(self) -> AsyncIterator[Change]:
        return self

    async def __anext__(self) -> Change:
        change = await self._watching.next_async()
        if change is None:
            raise StopAsyncIteration
        return change

    def __enter__(self) -> "Watch":
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    async def __aenter__(self) -> "Watch":
        return self

    async def __aexit__(self, *_: object) -> None:
        self.close()
