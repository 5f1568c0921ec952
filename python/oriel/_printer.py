"""A printer: an open manager of the library."""

from __future__ import annotations

import ctypes
import os
import weakref
from ctypes import byref, c_uint32
from datetime import datetime
from typing import Callable, Dict, List, NamedTuple, Optional, TypeVar, Union

from . import _errors, _values
from ._library import Library, Manager, library
from ._values import BUILT_IN, Value
from ._watch import Watch, Watching

# Needs no initialised product, owns no printer and starts no desktop agent.
_ORDINARY_CLIENT = 3

_READ_ATTEMPTS = 8  # of a value that grows while it is read

_Default = TypeVar("_Default")


class Variable(NamedTuple):
    """A variable of a printer: its type as in tvsqdz_variables.h, its size in bytes, 0 where it varies."""

    name: str
    type: str
    size: int


def _close(manager: int, process: int, watches: "List[weakref.ref[Watching]]") -> None:
    if os.getpid() != process:
        return  # a fork child has no handles of its parent
    for reference in watches:
        watching = reference()
        if watching is not None:
            watching.stop()
    library().close_manager(manager)


class Printer:
    """A printer, by name. Its variables are items: ``printer["PageCount"]``. Any thread may use it.

    Numbers are int, or None while they are not known; texts are str. A record is a named tuple where its fields have names
    (Job, Port, ...), else a tuple of numbers. A job queue is a list of Job; what has no known form is bytes. A variable of a
    printer model is a number if it has 1, 2 or 4 bytes, else bytes; text() reads one that is a text.
    """

    def __init__(self, name: str, *, user: Optional[str] = None, kind: int = _ORDINARY_CLIENT) -> None:
        """As open() of this module."""
        self.name = name
        self._library: Library = library()
        codec = self._library.codec
        manager = Manager()
        ansi = _values.encode_text(name, codec, 0, "the printer name")[:-1]
        ansi_user = None if user is None else _values.encode_text(user, codec, 0, "the user name")[:-1]
        status = self._library.open_manager(ansi, ansi_user, kind, byref(manager))
        _errors.check(status, f"cannot open the printer {name!r}")
        self._manager = manager.value
        self._kinds: Dict[str, Variable] = {}
        self._watches: "List[weakref.ref[Watching]]" = []
        self._close = weakref.finalize(self, _close, self._manager, os.getpid(), self._watches)

    # ---- life

    def close(self) -> None:
        """Closes the printer and ends its watches. Calls afterwards raise Error. A second close does nothing."""
        self._close()

    def __enter__(self) -> "Printer":
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def __repr__(self) -> str:
        return f"<oriel.Printer {self.name!r}{'' if self._close.alive else ', closed'}>"

    # ---- values

    def __getitem__(self, name: str) -> Value:
        return self.read(name)

    def __setitem__(self, name: str, value: Value) -> None:
        self.write(name, value)

    def __contains__(self, name: object) -> bool:
        """Whether a variable of that name can be read."""
        return isinstance(name, str) and self._find(name) is not None

    def get(self, name: str, default: _Default = None) -> "Union[Value, _Default]":  # type: ignore[assignment]
        """The value; the default where the printer has no such variable. Raises Error for other failures."""
        try:
            return self.read(name)
        except _errors.UnknownVariable:
            return default

    def read(self, name: str, *, direct: bool = False) -> Value:
        """The value of a variable. direct: asks the printer itself, however long that takes."""
        variable = self._variable(name)
        function = self._library.get_direct if direct else self._library.get
        what = f"cannot read {name} of {self.name!r}"
        data = read_bytes(function, self._manager, self._ansi(name), variable.size, what)
        return _values.decode(name, kind_of(variable, data), data, self._library.codec)

    def text(self, name: str) -> str:
        """The value of a variable as a text, up to its NUL: of a model's variable, or of "PrinterDisplay"."""
        what = f"cannot read {name} of {self.name!r}"
        data = read_bytes(self._library.get, self._manager, self._ansi(name), self._variable(name).size, what)
        return str(_values.decode(name, "STRING", data, self._library.codec))

    def write(self, name: str, value: Value, *, direct: bool = False) -> None:
        """Writes a variable. direct: has the printer itself changed, and waits for its answer.

        None writes "not known". Raises TypeError or ValueError for a value that the variable cannot hold.
        """
        variable = self._find(name) or Variable(name, *BUILT_IN.get(name, ("VARIABLE", 0)))
        data = _values.encode(name, variable.type, variable.size, value, self._library.codec)
        function = self._library.set_direct if direct else self._library.set
        _errors.check(
            function(self._manager, self._ansi(name), data, len(data)), f"cannot write {name} of {self.name!r}"
        )

    def info(self, name: str) -> Optional[datetime]:
        """When the variable was last written (UTC); None: never."""
        status, time = self._library.write_time(self._manager, self._ansi(name))
        _errors.check(status, f"cannot tell when {name} of {self.name!r} was written")
        return time

    def variables(self) -> List[Variable]:
        """The built-in variables of the printer that can be read. Those that its model adds work by their names."""
        return [variable for variable in map(self._find, BUILT_IN) if variable is not None]

    def values(self) -> Dict[str, Value]:
        """The values of all of them, by name."""
        return {variable.name: self.read(variable.name) for variable in self.variables()}

    def watch(self, *names: str, initial: bool = False) -> Watch:
        """Watches variables, from now on; without names, all of variables().

        Iterate over it, with ``for`` or ``async for``; each item is a Change. initial: begins with the present values.
        """
        watched = [self._variable(name) for name in names] if names else self.variables()
        unique = {variable.name: variable for variable in watched}
        watching = Watching(self._library, self._manager, self.name, [self._ansi(name) for name in unique],
                            [self._reader(variable) for variable in unique.values()], list(unique), initial)
        self._watches[:] = [reference for reference in self._watches if reference() is not None]
        self._watches.append(weakref.ref(watching))
        return Watch(self, watching)

    # ---- details

    def _ansi(self, name: str) -> bytes:
        try:
            return _values.encode_text(name, self._library.codec, 0, "the name")[:-1]
        except ValueError:
            raise _errors.UnknownVariable(_errors.UNKNOWN, f"{name!r} of {self.name!r}") from None

    def _reader(self, variable: Variable) -> Callable[[], Value]:
        """Reads the variable without a reference to this object, which a watch must not keep open."""
        return _Reader(self._library, self._manager, self._ansi(variable.name), variable, self.name)

    def _find(self, name: str) -> Optional[Variable]:
        try:
            return self._variable(name)
        except _errors.UnknownVariable:
            return None

    def _variable(self, name: str) -> Variable:
        """Type and size of a variable. A model may replace a built-in one by another type, so the library is asked once."""
        found = self._kinds.get(name)
        if found is None:
            found = self._kinds[name] = self._ask_for(name)
        return found

    def _ask_for(self, name: str) -> Variable:
        what = f"cannot read {name} of {self.name!r}"
        size = c_uint32()
        status = self._library.get(self._manager, self._ansi(name), None, 0, byref(size))
        if status != _errors.SIZE:
            _errors.check(status, what)
        kind, room = BUILT_IN.get(name, ("", -1))
        if room in (0, size.value):
            return Variable(name, kind, room)
        # The library does not tell the types of what a model has.
        return Variable(name, "NUMBER", size.value) if size.value in (1, 2, 4) else Variable(name, "VARIABLE", 0)


def kind_of(variable: Variable, data: bytes) -> str:
    """A number that has another size after all (its type cannot be told from its size) is bytes."""
    return "VARIABLE" if variable.type == "NUMBER" and len(data) != variable.size else variable.type


def read_bytes(function: Callable[..., int], manager: int, name: bytes, size: int, what: str) -> bytes:
    """One value. size: expected; 0: it is asked for."""
    returned = c_uint32()
    status = _errors.SIZE
    for _ in range(_READ_ATTEMPTS):
        if size == 0:
            status = function(manager, name, None, 0, byref(returned))
            if status == _errors.OK or (status == _errors.SIZE and returned.value == 0):
                return b""
            if status != _errors.SIZE:
                break
            size = returned.value
        buffer = ctypes.create_string_buffer(size)
        status = function(manager, name, buffer, size, byref(returned))
        if status == _errors.OK:
            return buffer.raw[: returned.value]
        if status not in (_errors.SIZE, _errors.VALUE_GREW):
            break
        size = 0
    _errors.check(status, what)
    raise AssertionError("unreachable")


class _Reader:
    def __init__(self, used: Library, manager: int, name: bytes, variable: Variable, printer: str) -> None:
        self._library = used
        self._manager = manager
        self._name = name
        self._variable = variable
        self._what = f"cannot read {variable.name} of {printer!r}"

    def __call__(self) -> Value:
        data = read_bytes(self._library.get, self._manager, self._name, self._variable.size, self._what)
        return _values.decode(self._variable.name, kind_of(self._variable, data), data, self._library.codec)


def open(name: str, *, user: Optional[str] = None, kind: int = _ORDINARY_CLIENT) -> Printer:  # noqa: A001
    """Opens a printer; close it, or use it in a ``with``.

    user: on whose behalf; None: the user of this process. kind: the client kind of OpenManagerExA. Raises Error, and
    ValueError for a name that the product's code page cannot spell.
    """
    return Printer(name, user=user, kind=kind)
