"""A client of the status database that shares no code with it: an independent implementation of DCE/RPC and NDR.

ndr_client.py SOCKET: makes a database, creates, writes and reads a variable, and prints "ok". Prints "skipped" and the
reason where the package that it stands on is not installed.
"""

import socket
import sys

try:
    from impacket.dcerpc.v5 import rpcrt, transport
    from impacket.dcerpc.v5.dtypes import LONG, STR, ULONG
    from impacket.dcerpc.v5.ndr import NDRCALL, NDRUniConformantArray
    from impacket.uuid import uuidtup_to_bin
except ImportError as reason:
    print(f"skipped: {reason}")
    sys.exit(0)

INTERFACE = ("57856c31-165f-42cc-8b23-81aad6f3a7b6", "1.0")
VARIABLE_LENGTH = 5


class UnixTransport(transport.DCERPCTransport):
    """The frames of a connection over a Unix stream socket."""

    def __init__(self, path):
        super().__init__("", 0)
        self.path = path
        self.socket = None

    def connect(self):
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.socket.settimeout(20)
        self.socket.connect(self.path)
        return 1

    def disconnect(self):
        self.socket.close()

    def send(self, data, forceWriteAndx=0, forceRecv=0):
        self.socket.sendall(data)

    def recv(self, forceRecv=0, count=0):
        data = b""
        while not data or len(data) < count:
            more = self.socket.recv(count - len(data) if count else 8192)
            if not more:
                raise EOFError("the service closed the connection")
            data += more
        return data


class BYTES(NDRUniConformantArray):
    item = "c"


# A reply's class is found by the name of its request's and "Response".
class CreateDatabase(NDRCALL):
    opnum = 0
    structure = (("Name", STR),)


class CreateDatabaseResponse(NDRCALL):
    structure = (("Handle", ULONG), ("Status", LONG))


class EndDatabaseInitialization(NDRCALL):
    opnum = 7
    structure = (("Handle", ULONG),)


class EndDatabaseInitializationResponse(NDRCALL):
    structure = (("Status", LONG),)


class CreateVariable(NDRCALL):
    opnum = 8
    structure = (
        ("Handle", ULONG), ("Name", STR), ("Type", ULONG), ("Size", ULONG), ("Reserved", ULONG), ("Value", BYTES),
    )


class CreateVariableResponse(NDRCALL):
    structure = (("Status", LONG),)


class WriteVariable(NDRCALL):
    opnum = 9
    structure = (("Handle", ULONG), ("Name", STR), ("Value", BYTES), ("Size", ULONG))


class WriteVariableResponse(NDRCALL):
    structure = (("Status", LONG),)


class ReadVariable(NDRCALL):
    opnum = 10
    structure = (("Handle", ULONG), ("Name", STR), ("Size", ULONG))


class ReadVariableResponse(NDRCALL):
    structure = (("Buffer", BYTES), ("ValueSize", ULONG), ("Status", LONG))


class GetVariableInfo(NDRCALL):
    opnum = 14
    structure = (("Handle", ULONG), ("Name", STR))


class GetVariableInfoResponse(NDRCALL):
    structure = (
        ("Type", ULONG), ("Size", ULONG), ("SizeLimit", ULONG),
        ("WriteTime", "16s"), ("Status", LONG),
    )


def call(connection, request_class, **fields):
    request = request_class()
    for name, value in fields.items():
        request[name] = value
    return connection.request(request, checkError=False)  # of the status; a fault is raised all the same


def main(path):
    connection = rpcrt.DCERPC_v5(UnixTransport(path))
    connection.connect()
    connection.bind(uuidtup_to_bin(INTERFACE))

    created = call(connection, CreateDatabase, Name="FromPython\0")
    assert created["Status"] == 0, created["Status"]
    handle = created["Handle"]
    name = "Greeting\0"
    initial = b"hello"
    status = call(connection, CreateVariable, Handle=handle, Name=name, Type=VARIABLE_LENGTH, Size=len(initial),
                  Reserved=0, Value=initial)["Status"]
    assert status == 0, status
    assert call(connection, EndDatabaseInitialization, Handle=handle)["Status"] == 0
    assert call(connection, CreateDatabase, Name="FromPython\0")["Status"] == -2

    # Longer than a fragment, so that requests and replies come in several.
    for value in (initial, b"", b"x", bytes(range(256)) * 300):
        assert call(connection, WriteVariable, Handle=handle, Name=name, Value=value, Size=len(value))["Status"] == 0
        size = len(value) + 3
        read = call(connection, ReadVariable, Handle=handle, Name=name, Size=size)
        assert read["Status"] == 0 and read["ValueSize"] == len(value), read["Status"]
        assert b"".join(read["Buffer"]) == value + bytes(3)

    read = call(connection, ReadVariable, Handle=handle, Name="Missing\0", Size=4)
    assert read["Status"] == -5 and b"".join(read["Buffer"]) == bytes(4)
    info = call(connection, GetVariableInfo, Handle=handle, Name=name)
    assert (info["Type"], info["Size"], info["Status"]) == (VARIABLE_LENGTH, 256 * 300, 0)

    try:
        call(connection, WriteVariable, Handle=handle, Name=name, Value=b"abc", Size=4)
    except rpcrt.DCERPCException as fault:
        assert "bad_stub_data" in str(fault), fault
    else:
        raise AssertionError("an array and a size that differ were taken")
    print("ok")


main(sys.argv[1])
