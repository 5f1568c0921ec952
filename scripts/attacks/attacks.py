"""The attacks: what another local user tries. Each is a function of an Attacker; the table is made by @attack.

A function prepares, calls `hold`, which runs until root has measured, and tidies up where a departing user would not leave it
to the product. What should have been refused and was not is a breach.
"""
import ctypes
import fcntl
import os
import random
import re
import resource
import select
import shutil
import signal
import socket
import struct
import subprocess
import sys
import time

from machine import *  # noqa: F403: the vocabulary of the attacks

ATTACKS = []
VARIABLES = ["PrinterStatus", "PageCount", "ErrPaperJam", "Port", "PrinterLocation", "TonerLevel", "PrinterQueue", "RWResult",
             "SpoolerQueue", "TerminateManager", "ReadRequest", "WriteRequest", "ForwardMailbox", "CurrentStatus"]
DATABASES = ["TVORSQD_DB"] + [f"TVORSQD_DB{number}" for number in range(1, 8)]
LIBC = ctypes.CDLL(None, use_errno=True)


def attack(area, what, design="", allows=(), check=""):
    """design: why success is meant, for the report. allows: variables that everybody may write, and this attack does write;
    "the times of values" when only their times may change.
    check: a further measure of root's."""
    def note(function):
        ATTACKS.append({"name": function.__name__, "area": area, "what": what, "run": function, "design": design,
                        "allows": set(allows), "check": check})
        return function
    return note


class Attacker:
    """user: 0 or 1, which of the two. home: a directory of the attacker's own."""

    def __init__(self, user, home, servers):
        self.user, self.home, self.servers = user, home, servers
        self.breaches, self.bounds = [], {}
        self.kept = []
        self.held = False

    def breach(self, text):
        if len(self.breaches) < 8:
            self.breaches.append(text)

    def refused(self, what, call, *arguments):
        """The call has to raise."""
        try:
            result = call(*arguments)
        except (OSError, ValueError, EOFError):
            return True
        self.breach(f"{what} was not refused")
        if isinstance(result, int) and result > 2 and call is os.open:
            os.close(result)
        return False

    def answered(self, what, answer, *expected):
        if answer not in expected:
            self.breach(f"{what}: answer {answer}")

    def until_refused(self, what, call, most):
        """Takes what the call gives, up to `most`; the number is a bound to report."""
        taken = 0
        try:
            while taken < most:
                self.kept.append(call())
                taken += 1
        except (OSError, EOFError, ConnectionError):
            pass
        self.bounds[what] = taken
        return taken

    def hold(self, again=None):
        """Root measures from here on; `again` is called all the time until root has done so."""
        if not self.held:
            print("ready", flush=True)
        self.held = True
        while not select.select([sys.stdin], [], [], 0 if again else None)[0]:
            again()

    def run(self, *command, **environment):
        """A command of the product as this user; its exit code and output."""
        done = subprocess.run([str(part) for part in command], env={**os.environ, **environment}, stdin=subprocess.DEVNULL,
                              capture_output=True, text=True, timeout=60, errors="replace")
        return done.returncode, done.stdout + done.stderr


def raise_descriptors():
    most = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    resource.setrlimit(resource.RLIMIT_NOFILE, (most, most))


def foreign_paths():
    """Paths that belong to root."""
    for path in all_paths():
        try:
            if path.lstat().st_uid == 0:
                yield path
        except OSError:
            continue


def is_open_to_all(path):
    # The last job's number, which every user counts up, and its second names.
    return path.name.endswith("last") or path.is_socket()


def readable_files():
    for path in foreign_paths():
        try:
            yield path, os.open(path, os.O_RDONLY | os.O_NONBLOCK)
        except OSError:
            continue


def published_sections():
    """The names that the service tells."""
    service = Service()
    for database in DATABASES:
        handle, status = service.numbers("Ll", OPEN_DATABASE, database)
        if status == 0:
            reply, _ = service.call(FIND_PUBLISHED, handle)
            yield from {name.decode().removeprefix("Global\\") for name in re.findall(rb"[\\\w]*TVOR\w*:[\w:]+", reply)}


def object_names():
    for database in DATABASES:
        for variable in VARIABLES:
            yield f"TVOR:{database}:{variable}:Updated", MANUAL_EVENT
            yield f"TVOR:{database}:{variable}:Changed", MANUAL_EVENT
        yield f"TVOR:{database}:Nsr:Initialize", MANUAL_EVENT
        yield f"{database}:Initialized", MANUAL_EVENT
        yield f"TVORSQD:Owner:{database}", MANUAL_EVENT
        yield f"TVORSQD:ReqMutex:{database}", MUTEX
        yield f"TVORSQD:PrinterSide:{database}", MUTEX
        yield from ((f"TVOR:{database}:Values:{number}", SECTION) for number in range(1, 20))
    yield from ((f"TVORSDB:Life:{number}", SECTION) for number in range(1, 20))
    yield from ((name, SECTION) for name in published_sections())
    yield "TVORSDB:Started", MANUAL_EVENT
    yield "TVORSQD:Mutex:DabaBase", MUTEX
    yield "TVORSQD:TerminateManager", MANUAL_EVENT
    yield "TVORSQD:SharedCounters", SECTION
    yield "TVORSQD:DesktopAgent", MUTEX
    yield "TVORPWD:INITIALIZED", MANUAL_EVENT
    yield "TVORPWDMutex", MUTEX


def only_owner_makes(name):
    return any(part in name for part in (":Values:", ":Life:", ":PrinterSide:", "PWDMutex", ":Initialized"))


# ---- files

@attack("files", "truncates and writes every file of the product")
def truncate(a):
    for path in foreign_paths():
        if path.is_file() and not is_open_to_all(path):
            a.refused(f"truncate {path}", os.truncate, path, 0)
            a.refused(f"open {path} to write", os.open, path, os.O_RDWR)
            a.refused(f"append to {path}", os.open, path, os.O_WRONLY | os.O_APPEND)
    a.hold()


@attack("files", "removes, renames and replaces every file and directory")
def replace(a):
    mine = a.home / "mine"
    for path in foreign_paths():
        mine.write_bytes(b"mine")
        a.refused(f"rename over {path}", os.rename, mine, path)
        a.refused(f"rename {path}", os.rename, path, a.home / "taken")
        a.refused(f"remove {path}", os.rmdir if path.is_dir() else os.unlink, path)
    a.hold()


@attack("files", "gives every file a second name")
def hard_links(a):
    for path in list(foreign_paths()):
        for place in (a.home, STATE / "jobs", RUN / "windows"):
            try:
                os.link(path, place / f"link{a.user}{path.name}")
            except OSError:
                continue
    a.hold()


def plant(a, make):
    """In the folders for everybody, under the names that the product will use next."""
    made = []
    names = [STATE / "jobs" / f"{number}{suffix}" for number in range(1, 40) for suffix in ("", ".data")]
    names += [STATE / "jobs/last", STATE / "registry/users/0", STATE / "registry/users/1", STATE / "registry/users/65534"]
    names += [RUN / "windows" / f"{number:08x}{suffix}" for number in (1, 2, 0x7FFFFFFF) for suffix in (".queue", ".window", ".reply")]
    for path in names:
        try:
            make(path)
            made.append(path)
        except OSError:
            continue
    a.hold()
    for path in made:
        try:
            os.rmdir(path) if path.is_dir() and not path.is_symlink() else os.unlink(path)
        except OSError:
            continue


@attack("files", "plants symbolic links to root's files under the next names", check="print")
def plant_links(a):
    targets = [os.environ["ATTACK_SECRET"], STATE / "registry/HKLM.sqlite", "/etc/passwd"]
    plant(a, lambda path: os.symlink(random.choice(targets), path))


@attack("files", "plants FIFOs, which hang whoever opens them", check="print")
def plant_fifos(a):
    plant(a, lambda path: os.mkfifo(path, 0o666))


@attack("files", "plants sockets", check="print")
def plant_sockets(a):
    def make(path):
        a.kept.append(socket.socket(socket.AF_UNIX))
        a.kept[-1].bind(str(path))
        a.kept[-1].listen(1)
    plant(a, make)


@attack("files", "plants directories with something in them", check="print")
def plant_directories(a):
    plant(a, lambda path: os.mkdir(path, 0o777))


@attack("files", "plants large files and files of zeros", check="print")
def plant_files(a):
    def make(path):
        file = os.open(path, os.O_CREAT | os.O_EXCL | os.O_RDWR, 0o666)
        os.ftruncate(file, random.choice((0, 1, 1184, 552, 1 << 40)))
        os.close(file)
    plant(a, make)


@attack("files", "plants journals, locks, records and endpoints in the directories that root alone writes")
def plant_elsewhere(a):
    for folder in (STATE, STATE / "registry", RUN, RUN / "rpc", RUN / "services"):
        for name in ("HKLM.sqlite-journal", "HKLM.sqlite-wal", "HKLM.seq.new", ".x", "TVORSDB_RPC2", "objects2", "up.lock"):
            for make in (os.mkdir, os.mkfifo, lambda path: os.symlink("/etc/passwd", path),
                         lambda path: os.close(os.open(path, os.O_CREAT | os.O_WRONLY))):
                a.refused(f"make {folder / name}", make, folder / name)
    a.hold()


@attack("files", "changes modes, owners, times and attributes")
def change_modes(a):
    for path in foreign_paths():
        a.refused(f"chmod {path}", os.chmod, path, 0o777)
        a.refused(f"chown {path}", os.chown, path, os.getuid(), -1)
        a.refused(f"utime {path}", os.utime, path, (0, 0))
        if not is_open_to_all(path) and path.name != "jobs" and path.name != "windows" and path.name != "users":
            a.refused(f"setxattr {path}", os.setxattr, path, "user.x", b"x")
    a.hold()


@attack("files", "leaves 6,000 files in the folders for everybody, and directories nested 2,000 deep")
def litter(a):
    for number in range(3000):
        for folder in (STATE / "jobs", RUN / "windows"):
            with open(folder / f"{a.user}litter{number}", "wb") as file:
                file.write(b"x" * 100)
    for folder in (STATE / "jobs", RUN / "windows", STATE / "registry/users"):
        os.mkdir(folder / f"litter{a.user}")
        os.chdir(folder / f"litter{a.user}")
        for _ in range(2000):  # deeper than a process has descriptors
            os.mkdir("deeper")
            os.chdir("deeper")
    a.hold()


@attack("files", "reads what is root's own: locks, documents, memory and environment of its processes")
def read_secrets(a):
    for path in [os.environ["ATTACK_SECRET"], *foreign_paths()]:
        if os.path.isfile(path) and os.stat(path).st_mode & 0o007 == 0:
            a.refused(f"read {path}", os.open, path, os.O_RDONLY)
    for process in a.servers:
        for name in ("mem", "environ", "maps", "stack", "auxv", "io"):
            a.refused(f"read /proc/{process}/{name}", lambda path: os.read(os.open(path, os.O_RDONLY), 1), f"/proc/{process}/{name}")
        a.refused(f"list the descriptors of {process}", os.listdir, f"/proc/{process}/fd")
        a.refused(f"use the descriptors of {process}", os.open, f"/proc/{process}/fd/3", os.O_RDONLY)
    a.hold()


# ---- locks

@attack("locks", "flock, exclusive, on everything that can be read")
def lock_files(a):
    a.kept = list(readable_files())
    locked = 0
    for _, file in a.kept:
        try:
            fcntl.flock(file, fcntl.LOCK_EX | fcntl.LOCK_NB)
            locked += 1
        except OSError:
            continue
    a.bounds["locked"] = locked
    a.hold()


@attack("locks", "record locks of a process on everything that can be read")
def lock_records(a):
    a.kept = list(readable_files())
    for _, file in a.kept:
        for start, length in ((0, 0), (0x40000000, 512), (1 << 62, 1)):
            try:
                fcntl.lockf(file, fcntl.LOCK_SH | fcntl.LOCK_NB, length, start)
            except OSError:
                continue
    a.hold()


@attack("locks", "record locks of a description (OFD) on everything that can be read")
def lock_descriptions(a):
    a.kept = list(readable_files())
    for _, file in a.kept:
        try:
            fcntl.fcntl(file, 37, struct.pack("hhqqi4x", fcntl.F_RDLCK, 0, 0, 0, 0))  # F_OFD_SETLK
        except OSError:
            continue
    a.hold()


@attack("locks", "leases on everything that can be read")
def leases(a):
    a.kept = list(readable_files())
    for path, file in a.kept:
        a.refused(f"a lease on {path}", fcntl.fcntl, file, fcntl.F_SETLEASE, fcntl.F_RDLCK)
    a.hold()


@attack("locks", "maps all files and reads them all the time")
def map_files(a):
    files = [file for _, file in readable_files()]
    a.hold(lambda: [os.pread(file, 1 << 16, 0) for file in files if os.fstat(file).st_size > 0 and os.path.isfile(f"/proc/self/fd/{file}")])


# ---- names of objects

@attack("names", "takes every name of the product before it does")
def squat(a):
    server = ObjectServer()
    for name, kind in object_names():
        error, (_, _, _, flags), file = server.ask(CREATE, name, kind, 4096 if kind == SECTION else 0)
        if file is not None:
            a.kept.append(file)
        if error == 0 and not flags & 1 and only_owner_makes(name):
            a.breach(f"made {name}")
    a.hold()


@attack("names", "takes every name with a wrong kind")
def squat_kinds(a):
    server = ObjectServer()
    for name, kind in object_names():
        for wrong in {MANUAL_EVENT, MUTEX, SECTION} - {kind}:
            error, (_, _, _, flags), _ = server.ask(CREATE, name, wrong, 4096 if wrong == SECTION else 0)
            if error == 0:
                a.breach(f"{name} as kind {wrong}")
    a.hold()


@attack("names", "takes every name with rights for nobody else")
def squat_rights(a):
    server = ObjectServer()
    for name, kind in object_names():
        server.ask(CREATE, name, kind, 4096 if kind == SECTION else 0, everyone=NOTHING)
    a.hold()


def opened(a, flags=0):
    """All objects that this user gets, with what the server said of them."""
    server = ObjectServer()
    a.kept.append(server)
    for name, kind in object_names():
        error, reply, file = server.ask(OPEN, name, kind, flags=flags)
        if error == 0:
            yield name, kind, reply, file


@attack("names", "opens anew, for writing, what was given for reading")
def reopen_for_writing(a):
    seen = 0
    for name, _, (_, _, _, flags), file in opened(a, READING_IS_ENOUGH):
        if not flags & 2:
            continue
        seen += 1
        path = f"/proc/self/fd/{file}"
        a.refused(f"open {name} to write", os.open, path, os.O_RDWR)
        a.refused(f"write {name}", os.pwrite, file, b"x", 0)
        a.refused(f"truncate {name}", os.truncate, path, 0)
        a.refused(f"chmod {name}", os.fchmod, file, 0o777)
        LIBC.mmap.restype = ctypes.c_ssize_t
        if LIBC.mmap(None, ctypes.c_size_t(64), 3, 1, file, ctypes.c_long(0)) != -1:
            a.breach(f"maps {name} to write")
    if seen == 0:
        a.breach("nothing was open for reading: nothing was tried")
    a.hold()


@attack("names", "shortens, lengthens, punches and seals the memory of the objects")
def cut_memory(a):
    seen = 0
    for name, _, (_, _, _, flags), file in opened(a):
        seen += 1
        size = os.fstat(file).st_size
        a.refused(f"shorten {name}", os.ftruncate, file, size // 2)
        a.refused(f"lengthen {name}", os.ftruncate, file, size + 1 << 20)
        a.refused(f"extend {name}", os.posix_fallocate, file, size, 4096)
        a.refused(f"seal {name}", fcntl.fcntl, file, fcntl.F_ADD_SEALS, fcntl.F_SEAL_WRITE)
        if flags & 2 and LIBC.fallocate(file, 3, ctypes.c_long(0), ctypes.c_long(size)) == 0:
            a.breach(f"punches a hole into {name}")
    if seen == 0:
        a.breach("no object was open: nothing was tried")
    a.hold()


@attack("names", "writes random words into all events that it may set", check="print")
def scribble(a):
    files = [file for name, kind, (_, _, _, flags), file in opened(a) if kind == MANUAL_EVENT and not flags & 2]
    a.hold(lambda: [os.pwrite(file, random.randbytes(64), 0) for file in files])


@attack("names", "writes random words into the mutexes and the shared counters for everybody")
def scribble_mutexes(a):
    files = [(file, os.fstat(file).st_size) for name, kind, (_, _, _, flags), file in opened(a)
             if kind in (MUTEX, SECTION) and not flags & 2]
    a.hold(lambda: [os.pwrite(file, random.randbytes(size), 0) for file, size in files])


@attack("names", "gives back the holds of others, asks for the count, closes what is owned")
def foreign_holds(a):
    server = ObjectServer()
    a.answered("count", server.ask(COUNT)[0], 5)
    for hold in range(0, 4000):
        for action in (CLOSE, CLOSE_OWNED):
            if server.ask(action, hold=hold)[0] == 0:
                a.breach(f"gave back hold {hold}")
    a.hold()


# ---- the object server

@attack("object server", "sends it garbage of every length, with descriptors")
def object_garbage(a):
    null = os.open("/dev/null", os.O_RDONLY)

    def again():
        connection = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        try:
            connection.connect(OBJECTS)
            for _ in range(3):
                socket.send_fds(connection, [random.randbytes(random.choice((0, 1, 287, 288, 289, 4000)) or 1)], [null] * 200)
        except OSError:
            pass
        connection.close()
    a.hold(again)


@attack("object server", "asks on 200 connections and never reads a reply")
def object_replies(a):
    servers = []

    def connect():
        server = ObjectServer()
        server.socket.setblocking(False)
        servers.append(server)
        return server
    a.until_refused("connections", connect, 200)

    def again():
        for server in servers:
            try:
                server.send(CREATE, f"Unread{a.user}", MANUAL_EVENT)
            except OSError:
                server.number -= 1
    a.hold(again)


@attack("object server", "takes all connections that it gets")
def object_connections(a):
    raise_descriptors()

    def connect():
        server = ObjectServer()
        server.ask(OPEN, "None", MUTEX)
        return server
    a.until_refused("connections", connect, 9000)
    a.hold()


@attack("object server", "makes as many objects as it gets")
def object_count(a):
    server = ObjectServer()

    def make():
        error, _, file = server.ask(CREATE, f"Mine{a.user}:{server.number}", MANUAL_EVENT)
        if error:
            raise OSError(error, "create")
        os.close(file)
    a.until_refused("objects", make, 20000)
    a.hold()


@attack("object server", "takes as much memory and as many holds as it gets")
def object_memory(a):
    server = ObjectServer()

    def make():
        error, _, file = server.ask(CREATE, f"Large{a.user}:{server.number}", SECTION, 1 << 20)
        if error:
            raise OSError(error, "create")
        os.pwrite(file, b"x" * (1 << 16), 4096)
        os.close(file)

    def hold_one():
        error, _, file = server.ask(OPEN, "TVORSDB:Started", MANUAL_EVENT, flags=READING_IS_ENOUGH)
        if error:
            raise OSError(error, "open")
        os.close(file)
    a.until_refused("sections of 1 MiB", make, 1000)
    a.until_refused("holds", hold_one, 20000)
    a.hold()


@attack("object server", "connects, makes, opens and goes, all the time")
def object_storm(a):
    def again():
        try:
            server = ObjectServer()
            for name in ("TVORSDB:Started", f"Storm{a.user}"):
                file = server.ask(CREATE, name, MANUAL_EVENT)[2]
                if file is not None:
                    os.close(file)
            server.socket.close()
        except OSError:
            pass
    a.hold(again)


# ---- quotas of the service

@attack("quotas", "opens as many database handles as it gets")
def database_handles(a):
    service = Service()
    a.until_refused("handles", lambda: service.database("TVORSQD_DB1"), 70000 if os.environ.get("ATTACK_LONG") else 10000)
    a.hold()


@attack("quotas", "watches as often as it can")
def watches(a):
    service = Service()
    handles = [service.database(name) for name in DATABASES[1:3]]

    def watch():
        handle = random.choice(handles)
        if service.status(WATCH, handle, "PrinterLocation", random.randint(1, 2)) != 0:
            raise OSError("watch")
    a.until_refused("watches", watch, 20000 if os.environ.get("ATTACK_LONG") else 5000)
    a.hold()


@attack("quotas", "writes the largest values that it may", design="a user's share of the service's memory is theirs (service.md)",
        allows=("PrinterQueue",))
def service_memory(a):
    service = Service()
    handle = service.database("TVORSQD_DB1")
    for size in (1 << 20, VALUE_MOST - 4, VALUE_MOST, VALUE_MOST + 4):
        service.write(handle, "PrinterQueue", struct.pack("<I", size - 4) + bytes(size - 4))
    a.hold()
    service.write(handle, "PrinterQueue", struct.pack("<I", 0))


@attack("quotas", "makes databases and adds printers to the list that nobody has")
def add_printers(a):
    service = Service()
    for number in range(100, 120):
        a.answered("create a database", service.status(CREATE_DATABASE, f"TVORSQD_DB{number}"), ACCESS_DENIED)
    master = service.database("TVORSQD_DB")
    listed = service.value(master, "PrinterDatabase")
    body = listed[8:]
    entry = struct.pack("<II260s32s260s", 200, 0, b"Ghost", b"TVORSQD_DB200", b"Example Laser")
    changed = struct.pack("<II", 4 + len(body) + 560, len(body) // 560 + 1) + body + entry
    a.answered("add a printer that nobody has", service.write(master, "PrinterDatabase", changed), ACCESS_DENIED)
    a.hold()


# ---- the service's endpoint

@attack("endpoint", "connects 400 times and says nothing")
def silent(a):
    a.until_refused("connections", raw_connection, 400)
    a.hold()


@attack("endpoint", "connects as often as it can")
def service_connections(a):
    raise_descriptors()
    a.until_refused("connections", raw_connection, 20000)
    a.hold()


@attack("endpoint", "64 connections send one byte a second")
def slow(a):
    a.until_refused("connections", raw_connection, 64)
    head = struct.pack("<BBBB4sHHL", 5, 0, 11, 3, b"\x10\0\0\0", 72, 0, 1)
    sent = [0]

    def again():
        for connection in a.kept:
            try:
                connection.send(head[sent[0] % len(head):][:1])
            except OSError:
                continue
        sent[0] += 1
        select.select([sys.stdin], [], [], 1)
    a.hold(again)


@attack("endpoint", "sends garbage, whole and cut, all the time")
def garbage(a):
    def again():
        try:
            connection = raw_connection()
            head = struct.pack("<BBBB4sHHL", 5, random.choice((0, 1)), random.randrange(20), random.randrange(256),
                               random.choice((b"\x10\0\0\0", b"\0\0\0\0", b"\xff\xff\xff\xff")), random.choice((0, 15, 16, 24, 72, 65535)),
                               random.choice((0, 8, 65535)), random.randrange(1 << 32))
            connection.send(head + random.randbytes(random.randrange(300)))
            connection.close()
        except OSError:
            pass
    a.hold(again)


@attack("endpoint", "begins huge fragments on 64 connections and never ends them")
def huge_fragments(a):
    a.until_refused("connections", Service, 64)
    for service in a.kept:
        head = struct.pack("<BBBB4sHHL", 5, 0, 0, 1, b"\x10\0\0\0", 4280, 0, 1) + struct.pack("<LHH", 0x7FFFFFFF, 0, WRITE)
        for _ in range(3):
            service.stream.write((head + bytes(4280 - len(head))))
        service.stream.write(head + bytes(3000))
        try:
            service.stream.flush()
        except OSError:
            continue
    a.hold()


@attack("endpoint", "asks for large values on 32 connections and never reads them")
def unread_replies(a):
    services = []
    for _ in range(32):
        service = Service()
        handle = service.database("TVORSQD_DB1")
        service.socket.setblocking(False)
        services.append((service, handle))

    def again():
        for service, handle in services:
            body = struct.pack("<LHH", 0, 0, READ) + struct.pack("<LLLL", handle, 10, 0, 10) + b"PageCount\0\0\0" + struct.pack("<L", 1 << 20)
            frame = struct.pack("<BBBB4sHHL", 5, 0, 0, 3, b"\x10\0\0\0", 16 + len(body), 0, 99) + body
            try:
                service.socket.send(frame)
            except OSError:
                continue
        time.sleep(0.01)
    a.hold(again)


@attack("endpoint", "connects, binds, calls and goes, all the time")
def connection_storm(a):
    def again():
        try:
            service = Service()
            service.status(INSTANCE)
            service.stream.close()
            service.socket.close()
        except (OSError, AssertionError):
            pass
    a.hold(again)


@attack("endpoint", "calls every procedure, and numbers that there are not, with random bytes")
def random_calls(a):
    service = [Service()]

    def again():
        try:
            service[0].call(random.choice((*range(24), 1000, 65535)), *(random.choice(
                (random.randrange(1 << 32), "TVORSQD_DB1", random.randbytes(random.randrange(40)), 0)) for _ in range(random.randrange(5))))
        except (OSError, AssertionError, IndexError, TypeError, struct.error):
            service[0] = Service()
    a.hold(again)


@attack("endpoint", "puts a server at the product's places, and in place of its own")
def fake_server(a):
    for path in (ENDPOINT, OBJECTS, RUN / "rpc/TVORSDB_RPC_2", RUN / "in-use"):
        a.refused(f"bind {path}", socket.socket(socket.AF_UNIX).bind, str(path))
    for program in ("libexec/oriel/TVSDBN.EXE", "bin/oriel"):
        process = subprocess.Popen([PRODUCT / program, *(["up"] if program.endswith("oriel") else [])], stdin=subprocess.DEVNULL,
                                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        try:
            process.wait(3)
        except subprocess.TimeoutExpired:
            a.breach(f"{program} runs in root's directories")
            process.kill()
            process.wait()
    a.hold()


# ---- calls to the service

@attack("service", "writes each variable that tells the printer's state")
def write_state(a):
    service = Service()
    for database in DATABASES[1:4]:
        handle = service.database(database)
        code, text = a.run(ORIEL, "vars", QUIET, "--json")
        import json
        for row in json.loads(text)["variables"]:
            if service.status(MAY_WRITE, handle, row["name"]) == 0:
                continue
            size = max(row["size"], 4)
            for value in (bytes(size), b"\xff" * size, bytes(size + 4)):
                a.answered(f"write {row['name']}", service.write(handle, row["name"], value), ACCESS_DENIED, -5, -7, -20)
    a.hold()


@attack("service", "damages the printer list")
def write_list(a):
    service = Service()
    master = service.database("TVORSQD_DB")
    listed = service.value(master, "PrinterDatabase")
    entries = [listed[at:at + 560] for at in range(8, len(listed) - 559, 560)]
    for changed in ([], entries[1:], entries[::-1], entries + entries[:1], [b"\xff" * 560],
                    [entry[:8] + b"Mine\0" + entry[13:] for entry in entries],
                    [entry[:268] + b"TVORSQD_DB2\0" + entry[280:] for entry in entries],
                    [entry[:4] + struct.pack("<I", 1) + entry[8:] for entry in entries]):
        value = struct.pack("<II", 4 + 560 * len(changed), len(changed)) + b"".join(changed)
        a.answered("write the printer list", service.write(master, "PrinterDatabase", value), ACCESS_DENIED)
    for value in (b"", b"\0" * 4, b"\xff" * 4, b"\xff" * 560):
        a.answered("write no list", service.write(master, "PrinterDatabase", value), ACCESS_DENIED, -7)
    a.hold()


@attack("service", "writes access control lists, ports and names")
def write_access(a):
    service = Service()
    for database in DATABASES[1:4]:
        handle = service.database(database)
        for name, value in (("AccessControlList", struct.pack("<I", 8) + bytes(8)), ("Port", bytes(260)), ("PortEx", bytes(264)),
                            ("PortW", bytes(260)), ("AccessControlListW", bytes(4)), ("PrinterName", b"Mine".ljust(260, b"\0"))):
            a.answered(f"write {name}", service.write(handle, name, value), ACCESS_DENIED, -5, -7)
    a.hold()


@attack("service", "is a printer side: watches the mailbox, writes it, answers, ends the others")
def be_printer_side(a):
    service = Service()
    handle = service.database("TVORSQD_DB1")
    a.answered("watch the mailbox", service.status(WATCH, handle, "ForwardMailbox", 1), ACCESS_DENIED)
    a.answered("write the mailbox", service.write(handle, "ForwardMailbox", struct.pack("<II", 1, 4)), -20, ACCESS_DENIED)
    for number in range(64):
        a.answered("answer", service.write(handle, "ForwardAnswer", struct.pack("<Ii", number, 0)), ACCESS_DENIED)
    a.answered("write RWResult", service.write(handle, "RWResult", bytes(4)), ACCESS_DENIED)
    for command in (("--printer", QUIET, "--script", a.home / "script"),):
        (a.home / "script").write_text("set ErrPaperJam 7\n")
        process = subprocess.Popen([PRODUCT / "libexec/oriel/TVSPSD.EXE", *map(str, command)], stdin=subprocess.DEVNULL,
                                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        a.kept.append(process)
    a.hold()
    for process in a.kept:
        process.kill()


@attack("service", "asks all managers to terminate", design="applications that registered for it are asked to close; printer sides stay",
        allows=("TerminateManager",))
def terminate_managers(a):
    service = Service()
    handle = service.database("TVORSQD_DB1")
    a.hold(lambda: (service.write(handle, "TerminateManager", struct.pack("<I", 1)), time.sleep(0.01)))
    service.write(handle, "TerminateManager", bytes(4))


@attack("service", "uses handles that it does not have")
def foreign_handles(a):
    service, other = Service(), Service()
    own = other.database("TVORSQD_DB1")
    for handle in [own + step for step in range(-2000, 2000) if step] + [0, 1, 0xFFFFFFFF]:
        handle &= 0xFFFFFFFF
        a.answered("close a foreign handle", service.status(CLOSE_DATABASE, handle), UNKNOWN_DATABASE)
        if handle % 16 == 0:
            a.answered("leave by foreign handles", service.status(LEAVE, handle, handle + 1), UNKNOWN_DATABASE)
            a.answered("end an initialisation", service.status(END_INITIALIZATION, handle), UNKNOWN_DATABASE)
    a.hold()


@attack("service", "initialises, adds to and composes the databases of others")
def change_databases(a):
    service = Service()
    for database in DATABASES[:4]:
        handle = service.database(database)
        a.answered("end the initialisation", service.status(END_INITIALIZATION, handle), -12)
        a.answered("add a variable", service.status(CREATE_VARIABLE, handle, "Mine", 2, 4, 0, bytes(4)), ACCESS_DENIED)
        for name in ("PortEx", "PrinterStatusEx", "CurrentStatus"):
            a.answered(f"compose {name}", service.status(SET_MEMBERS, handle, name, "PageCount;"), ACCESS_DENIED, -5)
        a.answered("create it again", service.status(CREATE_DATABASE, database), -2, ACCESS_DENIED)
    a.hold()


@attack("service", "asks the printer for everything on 24 threads of calls", design="a printer handles one request at a time; a refresh writes its values again",
        allows=("the times of values",))
def forward_flood(a):
    services = [Service() for _ in range(24)]
    for service in services:
        service.socket.setblocking(False)
    number = [0]

    def again():
        number[0] += 1
        for service in services:
            text = b"Refresh:" + QUIET.encode() + b"\0"
            body = struct.pack("<LHH", 0, 0, FORWARD) + struct.pack("<LLL", len(text), 0, len(text)) + text
            try:
                service.socket.send(struct.pack("<BBBB4sHHL", 5, 0, 0, 3, b"\x10\0\0\0", 16 + len(body), 0, number[0]) + body)
                service.socket.recv(65536)
            except OSError:
                continue
        time.sleep(0.002)
    a.hold(again)


@attack("service", "writes all that everybody may write, as fast as it can", design="what applications report by is everybody's",
        allows=("ClientStatus", "JobStatus", "DeleteJobId", "RunningPSW", "CompulsivePolling"))
def write_storm(a):
    service = Service()
    handle = service.database("TVORSQD_DB1")

    def again():
        for name in ("ClientStatus", "JobStatus", "RunningPSW", "CompulsivePolling"):
            service.write(handle, name, random.randbytes(4))
    a.hold(again)


@attack("service", "changes the product with every command of the command line")
def commands(a):
    (a.home / "evil.reg").write_text('Windows Registry Editor Version 5.00\n\n[HKEY_LOCAL_MACHINE\\SOFTWARE\\Tavik\\Oriel]\n"DIRPATH"="x"\n')
    for command in (["set", QUIET, "PageCount", "1"], ["acl", "set", QUIET, "D:(A;;GA;;;WD)"], ["port", QUIET, "1", "x", "y"],
                    ["rename", QUIET, "Mine"], ["printers", "add", "Mine", "--driver", "Example Laser"],
                    ["printers", "remove", ARCHIVE], ["reg", "set", "HKLM\\SOFTWARE\\Tavik\\Oriel", "DIRPATH", "x"],
                    ["reg", "set", "HKLM\\SOFTWARE\\Tavik\\Oriel", "VariablesForEveryone", "*"],
                    ["reg", "delete", "HKLM\\SOFTWARE\\Tavik"], ["reg", "import", a.home / "evil.reg"],
                    ["set", QUIET, "PageCount", "1", "--direct"]):
        code, _ = a.run(ORIEL, *command)
        if code == 0:
            a.breach("oriel " + " ".join(map(str, command)))
    a.hold()


# ---- notifications

@attack("notifications", "sets, resets and pulses all events that it may", design="watchers wake for nothing")
def event_storm(a):
    library = Library()
    events = [library.event(f"TVOR:TVORSQD_DB{number}:{name}:{signal_}") for number in range(1, 5)
              for name in ("PrinterLocation", "PrinterStatus", "PageCount") for signal_ in ("Updated", "Changed")]

    def again():
        for event in events:
            for call in ("SetEvent", "PulseEvent", "ResetEvent"):
                getattr(library.win, call)(event)
    a.hold(again)


@attack("notifications", "leaves all events set")
def events_left_set(a):
    library = Library()
    for number in range(1, 5):
        for name in ("PrinterLocation", "PrinterStatus", "PageCount"):
            for signal_ in ("Updated", "Changed"):
                a.kept.append(library.event(f"TVOR:TVORSQD_DB{number}:{name}:{signal_}"))
                library.win.SetEvent(a.kept[-1])
    a.hold()


@attack("notifications", "resets the events all the time, so that no signal is seen")
def events_reset(a):
    library = Library()
    events = [library.event(f"TVOR:TVORSQD_DB{number}:PrinterLocation:{signal_}") for number in range(1, 5) for signal_ in ("Updated", "Changed")]
    a.hold(lambda: [library.win.ResetEvent(event) for event in events])


@attack("notifications", "holds the request mutexes and the mutex of the desktop agent", design="direct requests wait; all users share these objects")
def hold_request_mutexes(a):
    library = Library()
    for name in [f"TVORSQD:ReqMutex:{name}" for name in DATABASES] + ["TVORSQD:DesktopAgent"]:
        library.hold_mutex(name)
    a.hold()


@attack("notifications", "sets the termination event; makes the owners' events; resets the product's", design="all users share the first two",
        check="print")
def product_events(a):
    library = Library()
    for name in ("TVORSDB:Started", "TVORPWD:INITIALIZED"):
        a.refused(f"change {name}", library.event, name)
        a.refused(f"open {name} to change it", library.event, name, False)
    for name in ["TVORSQD:TerminateManager"] + [f"TVORSQD:Owner:{name}" for name in DATABASES]:
        a.kept.append(library.event(name))

    def again():
        library.win.SetEvent(a.kept[0])
        time.sleep(0.01)
    a.hold(again)
    library.win.ResetEvent(a.kept[0])


@attack("notifications", "holds the database mutex", design="an open waits for it, for at most 30 s", check="mutex")
def hold_database_mutex(a):
    library = Library()
    library.hold_mutex("TVORSQD:Mutex:DabaBase")
    a.hold()


# ---- the registry

@attack("registry", "writes keys and values of the machine")
def write_registry(a):
    library = Library()
    for key in ("SOFTWARE\\Tavik\\Oriel", "SOFTWARE\\Probe", "SYSTEM\\CurrentControlSet\\Services\\TVORSDB", "SOFTWARE\\New"):
        a.refused(f"write {key}", library.set_registry, HKLM, key, "Value", b"x\0")
    a.hold()


@attack("registry", "reads the machine's whole registry all the time")
def read_registry(a):
    def again():
        code, _ = a.run(ORIEL, "reg", "export", "HKLM", "-")
        if code != 0:
            a.breach(f"export ended with {code}")
    a.hold(again)


@attack("registry", "opens every store by SQLite, in a transaction that it never ends")
def sqlite_readers(a):
    import sqlite3
    for path in list(foreign_paths()):
        if path.suffix == ".sqlite":
            try:
                database = sqlite3.connect(f"file:{path}?mode=ro", uri=True, timeout=0)
                database.execute("BEGIN")
                database.execute("SELECT count(*) FROM sqlite_master").fetchall()
                a.kept.append(database)
            except sqlite3.Error:
                continue
    a.hold()


# ---- windows

@attack("windows", "makes 300 windows and goes without a word")
def many_windows(a):
    raise_descriptors()
    library = Library()
    a.until_refused("windows", lambda: library.true("CreateWindowExA", 0, b"Button", b"x", 0, 0, 0, 0, 0, None, None, None, None), 300)
    a.hold()
    os.kill(os.getpid(), signal.SIGKILL)


@attack("windows", "posts to every number and writes garbage to all queues")
def post(a):
    library = Library()
    for path in (RUN / "windows").glob("*.queue"):
        if path.stat().st_uid != os.getuid():
            number = int(path.name.split(".")[0], 16)
            library.win.PostMessageA(ctypes.c_void_p(number), 0x10, 0, 0)  # WM_CLOSE
            try:
                file = os.open(path, os.O_WRONLY | os.O_NONBLOCK)
                os.write(file, random.randbytes(4096))
                os.close(file)
            except OSError:
                continue
    a.hold()


@attack("windows", "plants records of windows that do not exist, with every class the product looks for")
def plant_windows(a):
    made = []
    for number in range(1, 60):
        for suffix in (".window", ".queue", ".reply"):
            path = RUN / "windows" / f"{0x10000 + number + 100 * a.user:08x}{suffix}"
            if suffix == ".window":
                name = random.choice((b"TVORSDB95WndClass", b"TVORRPWndClass", b"x" * 260))
                path.write_bytes(struct.pack("<6IQ260s260s", 0x4E49574F, 1, 0x10000 + number + 100 * a.user, 1, 1, 0, 0, name, b"y" * 260))
            else:
                os.mkfifo(path, 0o666)
                made.append(path)
                try:
                    a.kept.append(os.open(path, os.O_RDWR | os.O_NONBLOCK))
                except FileNotFoundError:  # swept away
                    continue
            made.append(path)
    a.hold()
    for path in made:
        try:
            os.unlink(path)
        except OSError:
            continue


# ---- the spool

@attack("spool", "pauses, resumes, cancels, reads and changes the jobs of others")
def foreign_jobs(a):
    library = Library()
    printer = library.printer(ARCHIVE)
    jobs = [job for job in library.jobs(printer) if (STATE / "jobs" / str(job)).stat().st_uid != os.getuid()]
    if not jobs:
        a.breach("there was no job: nothing was tried")
    for job in jobs:
        for command in (PAUSE_JOB, RESUME_JOB, CANCEL_JOB):
            a.refused(f"command {command} to job {job}", library.change_job, printer, job, command)
        a.refused(f"open the document of job {job}", library.printer, f"{ARCHIVE}, Job {job}")
        for name in (f"{job}.data", f"{job}"):
            a.refused(f"write {name}", os.open, STATE / "jobs" / name, os.O_WRONLY)
            a.refused(f"remove {name}", os.unlink, STATE / "jobs" / name)
        a.refused(f"read {job}.data", os.open, STATE / "jobs" / f"{job}.data", os.O_RDONLY)
    a.hold()


@attack("spool", "spools as many jobs as it may, and cancels them", design="1,000 jobs of a user (security.md)")
def many_jobs(a):
    library = Library()
    printer = library.printer(ARCHIVE)
    library.change_job(printer, library.spool(printer), CANCEL_JOB)
    # A thousand calls take a minute, so most jobs are written by hand.
    made = [STATE / "jobs" / str(300000 + 2000 * a.user + number) for number in range(995)]
    for path in [*made]:
        try:
            path.write_bytes(struct.pack("<4I2q1024s64s64s", 0x626A724F, 1, 0, 0, 999, 0, b"x", b"RAW", b"m"))
        except PermissionError:  # the number is another user's
            made.remove(path)
    if a.until_refused("jobs beside 995", lambda: library.spool(printer), 100) > 1000 - len(made):
        a.breach("spooled more than 1,000 jobs")
    a.hold()
    for job in a.kept:
        library.change_job(printer, job, CANCEL_JOB)
    for path in made:
        path.unlink(missing_ok=True)


@attack("spool", "spools more bytes than it may, in a sparse file")
def many_bytes(a):
    library = Library()
    printer = library.printer(ARCHIVE)
    job = library.spool(printer)
    os.truncate(STATE / "jobs" / f"{job}.data", 1 << 34)
    other = library.printer(ARCHIVE)
    a.refused("a document above the share", library.spool, other)
    a.hold()
    try:
        library.change_job(printer, job, CANCEL_JOB)
    except OSError:
        pass  # root has removed it: it was above the double


@attack("spool", "forges heads: other printers, texts without an end, links for documents", check="print")
def forged_jobs(a):
    made = []
    secret = os.environ["ATTACK_SECRET"]
    for number in range(1, 200):
        job = 100000 + 1000 * a.user + number
        head = struct.pack("<4I2q1024s64s64s", 0x626A724F, 1, 0, 0, number % 8, 0, b"x" * (1024 if number % 3 else 10), b"RAW", b"m")
        path = STATE / "jobs" / str(job)
        data = STATE / "jobs" / f"{job}.data"
        try:
            path.write_bytes(head)
            made.append(path)
            if number % 4 == 0:
                os.symlink(secret, data)
            elif number % 4 == 1:
                os.mkfifo(data)
            elif number % 4 == 2:
                data.write_bytes(b"text")
            made.append(data)
        except (FileExistsError, PermissionError):  # root's job has that number
            continue
    a.hold()
    for path in made:
        try:
            os.unlink(path)
        except OSError:
            continue


@attack("spool", "spools on 20 handles and never ends, and takes the next numbers", check="print")
def unfinished_jobs(a):
    library = Library()
    for _ in range(20):
        a.kept.append(library.printer(ARCHIVE))
        library.spool(a.kept[-1], end=False)
    try:
        (STATE / "jobs/last").write_bytes(struct.pack("<I", 0x7FFFFFFF))
    except OSError:
        pass
    a.hold()
    for printer in a.kept:
        library.win.ClosePrinter(printer)


@attack("spool", "changes the number of the last job all the time", check="print")
def last_number(a):
    def again():
        try:
            with open(STATE / "jobs/last", "r+b") as file:
                file.write(random.randbytes(random.randrange(9)))
                file.truncate(random.randrange(9))
        except OSError:
            pass
        time.sleep(0.001)
    a.hold(again)


# ---- signals and processes

@attack("signals", "sends every signal to every process of the product")
def signals(a):
    for process in a.servers:
        for number in range(0, 65):
            a.refused(f"signal {number} to {process}", os.kill, process, number)
        a.refused(f"a group signal to {process}", os.killpg, os.getpgid(process), 0)
    a.hold()


@attack("signals", "signals, and takes descriptors, through pidfds")
def pidfds(a):
    for process in a.servers:
        file = os.pidfd_open(process)
        a.refused(f"pidfd signal to {process}", signal.pidfd_send_signal, file, signal.SIGKILL)
        if LIBC.syscall(438, file, 3, 0) >= 0:  # pidfd_getfd
            a.breach(f"took a descriptor of {process}")
        a.kept.append(file)
    a.hold()


@attack("signals", "lets the kernel send signals: owners of files, of locks, of timers")
def kernel_signals(a):
    for process in a.servers:
        left, right = socket.socketpair()
        fcntl.fcntl(left, fcntl.F_SETFL, os.O_ASYNC | os.O_NONBLOCK)
        for number in (signal.SIGKILL, signal.SIGTERM, signal.SIGIO):
            try:
                fcntl.fcntl(left, fcntl.F_SETOWN, process)
                fcntl.fcntl(left, 10, number)  # F_SETSIG
            except OSError:
                continue
            right.send(b"x")
        a.kept += [left, right]
    a.hold()


@attack("signals", "traces, reads, writes, limits and slows the processes")
def trace(a):
    for process in a.servers:
        for request in (16, 0x4206):  # PTRACE_ATTACH, PTRACE_SEIZE
            if LIBC.ptrace(request, process, 0, 0) == 0:
                a.breach(f"traces {process}")
        vector = (ctypes.c_size_t * 2)(ctypes.addressof(ctypes.create_string_buffer(8)), 8)
        for name in ("process_vm_readv", "process_vm_writev"):
            if getattr(LIBC, name)(process, vector, 1, (ctypes.c_size_t * 2)(0x400000, 8), 1, 0) > 0:
                a.breach(f"{name} of {process}")
        a.refused(f"a limit for {process}", resource.prlimit, process, resource.RLIMIT_NOFILE, (3, 3))
        a.refused(f"a priority for {process}", os.setpriority, os.PRIO_PROCESS, process, 19)
        a.refused(f"an affinity for {process}", os.sched_setaffinity, process, {0})
        a.refused(f"a policy for {process}", os.sched_setscheduler, process, os.SCHED_IDLE, os.sched_param(0))
        a.refused(f"oom score of {process}", os.open, f"/proc/{process}/oom_score_adj", os.O_WRONLY)
    a.hold()


# ---- environment

@attack("environment", "brings libraries and directories of its own to the product's programs")
def environment(a):
    library = a.home / "evil.so"
    shutil.copy("/proc/self/exe", library)
    for variables in ({"LD_PRELOAD": str(library)}, {"LD_LIBRARY_PATH": str(a.home)}, {"ORIEL_STATE_DIR": "/"},
                      {"ORIEL_RUNTIME_DIR": "x" * 5000}, {"ORIEL_SCOPE": "nonsense"}, {"ORIEL_RUNTIME_DIR": "relative"},
                      {"ORIEL_STATE_DIR": str(RUN)}):
        try:
            code, _ = a.run(ORIEL, "get", QUIET, "PageCount", **variables)
        except OSError:
            continue
        if code < 0:
            a.breach(f"ended by signal {-code} with {next(iter(variables))}")
    a.hold()


@attack("environment", "runs a product of its own, and asks root's through its directories")
def own_product(a):
    state, run = a.home / "state", a.home / "run"
    for folder in (state, run):
        folder.mkdir(exist_ok=True)
    os.symlink(OBJECTS, run / "objects2")
    process = subprocess.Popen([ORIEL, "up"], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                               env={**os.environ, "ORIEL_STATE_DIR": str(state), "ORIEL_RUNTIME_DIR": str(run)})
    a.hold()
    process.terminate()
    process.wait(10)


@attack("environment", "starts an object server in root's directory, and with root's socket")
def own_object_server(a):
    for arguments in ((str(RUN),), (str(RUN), "--stay")):
        process = subprocess.Popen([next(PRODUCT.glob("**/oriel-objects")), *arguments], stdin=subprocess.DEVNULL,
                                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        a.kept.append(process)
    a.hold()
    for process in a.kept:
        process.kill()
        process.wait()
