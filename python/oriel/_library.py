"""The shared library and the few calls of its platform layer that waiting takes. State: the loaded libraries.

The functions that take ANSI text are used throughout: of these each value comes with its status, also the empty ones.
"""

from __future__ import annotations

import ctypes
import functools
import os
import sys
from ctypes import POINTER, byref, c_char_p, c_int, c_int32, c_size_t, c_uint16, c_uint32, c_void_p
from datetime import datetime, timezone
from typing import Optional

Manager = c_size_t  # TvsManager: uintptr_t
Registration = c_size_t

INFINITE = 0xFFFFFFFF
WAIT_OBJECT_0 = 0
MAXIMUM_WAIT_OBJECTS = 64

_WINDOWS = sys.platform == "win32"


class SystemTime(ctypes.Structure):
    """SYSTEMTIME, 16 bytes, UTC."""

    _fields_ = [
        (name, c_uint16)
        for name in ("year", "month", "day_of_week", "day", "hour", "minute", "second", "milliseconds")
    ]

    def to_datetime(self) -> Optional[datetime]:
        """None for the time of a value that was never written."""
        if self.year == 0:
            return None
        return datetime(
            self.year, self.month, self.day, self.hour, self.minute, self.second, self.milliseconds * 1000, timezone.utc
        )


class Library:
    """The functions, with their C types. ctypes lets other Python threads run during each call."""

    def __init__(self) -> None:
        if _WINDOWS:
            library = ctypes.WinDLL(os.environ.get("ORIEL_LIBRARY", "TVSQDZ.DLL"))
            platform = ctypes.WinDLL("kernel32", use_last_error=True)
        else:
            library = ctypes.CDLL(os.environ.get("ORIEL_LIBRARY", "libtvsqdz.so.1"))
            platform = ctypes.CDLL("liborielplatform.so.0")  # which the library has loaded, from wherever it is

        def function(owner: ctypes.CDLL, name: str, result: object, *arguments: object):
            found = getattr(owner, name)
            found.restype = result
            found.argtypes = arguments
            return found

        size_out = POINTER(c_uint32)
        value_in = (Manager, c_char_p, c_void_p, c_uint32)
        self.open_manager = function(library, "OpenManagerExA", c_int32, c_char_p, c_char_p, c_uint32, POINTER(Manager))
        self.close_manager = function(library, "CloseManager", c_int32, Manager)
        self.get = function(library, "GetPrinterStatusA", c_int32, *value_in, size_out)
        self.get_direct = function(library, "GetPrinterStatusDirectA", c_int32, *value_in, size_out)
        self.set = function(library, "UpdatePrinterStatusA", c_int32, *value_in)
        self.set_direct = function(library, "SetPrinterStatusDirectA", c_int32, *value_in)
        self.info = function(library, "GetPrinterStatusInfoA", c_int32, Manager, c_char_p, POINTER(SystemTime))
        self.watch = function(library, "SetNotificationEventExA", c_int32, Manager, c_uint32, c_char_p,
                              POINTER(c_void_p), POINTER(Registration))
        self.unwatch = function(library, "KillNotificationEvent", c_int32, Manager, Registration)

        self.code_page = function(platform, "GetACP", c_uint32)
        self._create_event = function(platform, "CreateEventA", c_void_p, c_void_p, c_int, c_int, c_char_p)
        self.set_event = function(platform, "SetEvent", c_int, c_void_p)
        self.close_handle = function(platform, "CloseHandle", c_int, c_void_p)
        self._wait = function(platform, "WaitForMultipleObjects", c_uint32, c_uint32, POINTER(c_void_p), c_int, c_uint32)
        self._wait_one = function(platform, "WaitForSingleObject", c_uint32, c_void_p, c_uint32)

    def create_event(self) -> int:
        """An auto-reset event. Raises OSError."""
        handle = self._create_event(None, False, False, None)
        if not handle:
            raise OSError("the system has no resources left for an event")
        return int(handle)

    def wait_any(self, handles: "ctypes.Array[c_void_p]") -> Optional[int]:
        """Waits without bound; the index of a handle that was set, None when the wait failed."""
        index = self._wait(len(handles), handles, False, INFINITE) - WAIT_OBJECT_0
        return index if 0 <= index < len(handles) else None

    def take_event(self, handle: int) -> bool:
        """Whether the auto-reset event was set; it no longer is."""
        return self._wait_one(handle, 0) == WAIT_OBJECT_0

    def write_time(self, manager: int, name: bytes) -> "tuple[int, Optional[datetime]]":
        time = SystemTime()
        status = self.info(manager, name, byref(time))
        return status, time.to_datetime() if status == 0 else None

    @functools.cached_property
    def codec(self) -> str:
        """Python's name of the ANSI code page."""
        page = self.code_page()
        return "utf-8" if page == 65001 else f"cp{page}"


@functools.lru_cache(maxsize=None)
def library() -> Library:
    """Loads the library at the first use. Raises OSError when it is not installed; ORIEL_LIBRARY names another file."""
    return Library()
