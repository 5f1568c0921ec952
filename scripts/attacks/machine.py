"""The product as a process of any user finds it: the calls of its two libraries, the wire of the service and of the object
server, and the files of its directories.
"""
import ctypes
import os
import pathlib
import socket
import struct

from foreign_client import Client

STATE, RUN = (pathlib.Path(os.environ.get(name, "/nonexistent")) for name in ("ORIEL_STATE_DIR", "ORIEL_RUNTIME_DIR"))
PRODUCT = pathlib.Path(os.environ.get("ATTACK_PRODUCT", "/nonexistent"))
ORIEL = str(PRODUCT / "bin/oriel")
ENDPOINT, OBJECTS = str(RUN / "rpc/TVORSDB_RPC"), str(RUN / "objects")

QUIET = "Front desk"    # its values may not change
ARCHIVE = "Archive"     # keeps its jobs: nothing prints them
OFFICE = "Back office"  # prints its jobs

# The service's procedures and answers (docs/service.md).
CREATE_DATABASE, OPEN_DATABASE, CLOSE_DATABASE, INSTANCE, DATABASE_INFO = 0, 1, 2, 3, 4
END_INITIALIZATION, CREATE_VARIABLE, WRITE, READ, SET_MEMBERS, WATCH, UNWATCH, FORWARD = 7, 8, 9, 10, 12, 15, 16, 18
FIND_PUBLISHED, LEAVE, MAY_WRITE = 19, 22, 23
ACCESS_DENIED, LIMIT_REACHED, UNKNOWN_DATABASE = 5, -11, -3
VALUE_MOST = 8 * 1024 * 1024 - 64 * 1024
SYNCHRONIZE, EVENT_MODIFY, EVENT_ALL, MUTEX_ALL = 0x100000, 0x2, 0x1F0003, 0x1F0001

# The object server's record and its words (platform/linux/objects/protocol.h).
OBJECT_PROTOCOL, RECORD = 0x316A624F, "<9I252s"
OPEN, CREATE, CLOSE, CLOSE_OWNED, COUNT = 1, 2, 3, 4, 5
MANUAL_EVENT, AUTO_EVENT, MUTEX, SECTION = 1, 2, 3, 4
NOTHING, READING, ALL = 0, 1, 2
READING_IS_ENOUGH = 1


class ObjectServer:
    """A connection to the object server that speaks its records itself."""

    def __init__(self):
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        self.socket.settimeout(10)
        self.socket.connect(OBJECTS)
        self.number = 0

    def send(self, action, name="", kind=0, size=0, flags=0, hold=0, everyone=ALL, word=0):
        self.number += 1
        record = struct.pack(RECORD, OBJECT_PROTOCOL, self.number, action, flags, hold, kind, size, word, everyone,
                             name.encode())
        self.socket.send(record)

    def ask(self, *arguments, **fields):
        """The Win32 error, the rest of the reply, and the descriptor that came with it (or None)."""
        self.send(*arguments, **fields)
        reply, files, _, _ = socket.recv_fds(self.socket, 64, 4)
        if len(reply) != 28:
            raise ConnectionError("the object server closed the connection")
        protocol, number, error, *rest = struct.unpack("<7I", reply)
        return error, rest, files[0] if files else None

    def count(self):
        """Objects and holds; for root."""
        error, (_, holds, objects, _), _ = self.ask(COUNT)
        assert error == 0, error
        return objects, holds


class DocInfo(ctypes.Structure):
    _fields_ = [(name, ctypes.c_char_p) for name in ("name", "output", "datatype")]


class JobInfo(ctypes.Structure):
    _fields_ = [("id", ctypes.c_uint32)] + [(name, ctypes.c_char_p) for name in
                                            ("printer", "machine", "user", "document", "datatype", "statusText")] + \
               [("status", ctypes.c_uint32), ("rest", ctypes.c_uint32 * 8)]


class Library:
    """The product's two libraries. Handles are pointers; what fails raises, with the code."""

    def __init__(self):
        ctypes.CDLL(str(PRODUCT / "lib/liborielplatform.so.0"), mode=ctypes.RTLD_GLOBAL)
        self.win = ctypes.CDLL(str(PRODUCT / "lib/liborielplatform.so.0"))
        self.tvs = ctypes.CDLL(str(PRODUCT / "lib/libtvsqdz.so.1"))
        for name in ("CreateEventA", "OpenEventA", "CreateMutexA", "OpenMutexA", "CreateWindowExA", "FindWindowA"):
            getattr(self.win, name).restype = ctypes.c_void_p

    def last_error(self):
        return self.win.GetLastError()

    def call(self, name, *arguments):
        """A call that answers with a status or a registry code, 0 for success."""
        code = getattr(self.tvs if hasattr(self.tvs, name) else self.win, name)(*arguments)
        if code != 0:
            raise OSError(code, name)

    def true(self, name, *arguments):
        """A call that answers with something other than 0."""
        result = getattr(self.win, name)(*arguments)
        if not result:
            raise OSError(self.last_error(), name)
        return result

    def event(self, name, create=True, access=EVENT_ALL):
        if create:
            return ctypes.c_void_p(self.true("CreateEventA", None, 1, 0, name.encode()))
        return ctypes.c_void_p(self.true("OpenEventA", access, 0, name.encode()))

    def hold_mutex(self, name):
        """False when another process keeps it for a second."""
        mutex = ctypes.c_void_p(self.true("CreateMutexA", None, 0, name.encode()))
        return self.win.WaitForSingleObject(mutex, 1000) in (0, 0x80)

    def open(self, printer=QUIET, kind=3):
        manager = ctypes.c_void_p()
        self.call("OpenManagerExA", printer.encode(), None, kind, ctypes.byref(manager))
        return manager

    def close(self, manager):
        self.call("CloseManager", manager)

    def get(self, manager, variable, size=4):
        buffer, returned = ctypes.create_string_buffer(size), ctypes.c_uint32()
        self.call("GetPrinterStatusA", manager, variable.encode(), buffer, size, ctypes.byref(returned))
        return buffer.raw[:returned.value]

    def set(self, manager, variable, value):
        self.call("UpdatePrinterStatusA", manager, variable.encode(), value, len(value))

    def set_registry(self, root, key, name, value):
        opened = ctypes.c_void_p()
        self.call("RegCreateKeyExA", ctypes.c_void_p(root), key.encode(), 0, None, 0, 0x2001F, None, ctypes.byref(opened), None)
        try:
            self.call("RegSetValueExA", opened, name.encode(), 0, 1, value, len(value))
        finally:
            self.call("RegCloseKey", opened)

    def printer(self, name):
        printer = ctypes.c_void_p()
        self.true("OpenPrinterA", name.encode(), ctypes.byref(printer), None)
        return printer

    def spool(self, printer, document=b"text", end=True):
        info = DocInfo(b"A document", None, None)
        job = self.true("StartDocPrinterA", printer, 1, ctypes.byref(info))
        self.true("WritePrinter", printer, document, len(document), ctypes.byref(ctypes.c_uint32()))
        if end:
            self.true("EndDocPrinter", printer)
        return job

    def jobs(self, printer):
        size, count = ctypes.c_uint32(), ctypes.c_uint32()
        buffer = ctypes.create_string_buffer(1 << 20)
        self.true("EnumJobsA", printer, 0, 5000, 1, buffer, len(buffer), ctypes.byref(size), ctypes.byref(count))
        return [job.id for job in (JobInfo * count.value).from_buffer(buffer)]

    def change_job(self, printer, job, command):
        self.true("SetJobA", printer, job, 0, None, command)


HKLM, HKCU = 0x80000002, 0x80000001
PAUSE_JOB, RESUME_JOB, CANCEL_JOB = 1, 2, 3


class Service(Client):
    """A connection to the service that speaks its wire itself."""

    def __init__(self):
        super().__init__(ENDPOINT, False)

    def status(self, procedure, *parameters):
        """The service's answer, or the fault."""
        reply, mark = self.call(procedure, *parameters)
        return struct.unpack(mark + "l", reply[-4:])[0]

    def database(self, name):
        handle, status = self.numbers("Ll", OPEN_DATABASE, name)
        if status != 0:
            raise OSError(status, name)
        return handle

    def write(self, handle, name, value):
        return self.status(WRITE, handle, name, value, len(value))

    def value(self, handle, name):
        reply, mark = self.call(READ, handle, name, 0)
        size, status = struct.unpack(mark + "Ll", reply[-8:])
        if status != 0 or size == 0:
            return b""
        reply, _ = self.call(READ, handle, name, size)
        return reply[4:4 + size]

    def printer_list(self):
        handle = self.database("TVORSQD_DB")
        listed = self.value(handle, "PrinterDatabase")
        self.status(CLOSE_DATABASE, handle)
        return listed


def printers(listed):
    """The numbers, names and databases in a printer list."""
    text = lambda field: field.split(b"\0")[0].decode("latin-1")
    return [(struct.unpack_from("<I", listed, at)[0], text(listed[at + 8:at + 268]), text(listed[at + 268:at + 300]))
            for at in range(8, len(listed) - 559, 560)]


def raw_connection():
    connection = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    connection.settimeout(10)
    connection.connect(ENDPOINT)
    return connection


def all_paths():
    """Every path of the state and run directories that this user can see, the directories themselves included."""
    for top in (STATE, RUN):
        yield top
        for folder, folders, files in os.walk(top):
            for name in sorted(folders + files):
                yield pathlib.Path(folder) / name


def processes_of_product():
    """The numbers and names of the processes that run the product's programs, whatever path they were started by."""
    found = {}
    for entry in os.listdir("/proc"):
        if entry.isdigit():
            try:
                command = pathlib.Path("/proc", entry, "cmdline").read_bytes().split(b"\0")
            except OSError:
                continue
            program = os.path.normpath(command[0].decode("latin-1").replace("\\", "/"))
            if program.startswith(str(PRODUCT)) and str(PRODUCT) != "/nonexistent":
                found[int(entry)] = os.path.basename(program)
    return found
