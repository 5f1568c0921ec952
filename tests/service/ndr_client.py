"""A client of the status database that shares no code with it: an independent implementation of DCE/RPC and NDR.

ndr_client.py SOCKET: makes a database, creates, writes and reads a variable, and prints "ok".
"""

import socket
import sys

from impacket.dcerpc.v5 import rpcrt, transport
from impacket.dcerpc.v5.dtypes import LONG, STR, ULONG
from impacket.dcerpc.v5.ndr import NDRCALL, NDRUniConformantArray
from impacket.uuid import uuidtup_to_bin

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


def define(name, number, request, reply):
    """Makes the classes of a procedure; that of the reply is found by the name of the request's and "Response"."""
    globals()[name] = type(name, (NDRCALL,), {"opnum": number, "structure": request, "__module__": __name__})
    globals()[name + "Response"] = type(
        name + "Response", (NDRCALL,), {"structure": (*reply, ("Status", LONG)), "__module__": __name__})


HANDLE, NAME, SIZE, VALUE = ("Handle", ULONG), ("Name", STR), ("Size", ULONG), ("Value", BYTES)
define("CreateDatabase", 0, (NAME,), (HANDLE,))
define("EndDatabaseInitialization", 7, (HANDLE,), ())
define("CreateVariable", 8, (HANDLE, NAME, ("Type", ULONG), SIZE, ("Reserved", ULONG), VALUE), ())
define("WriteVariable", 9, (HANDLE, NAME, VALUE, SIZE), ())
define("ReadVariable", 10, (HANDLE, NAME, SIZE), (("Buffer", BYTES), ("ValueSize", ULONG)))


def call(connection, procedure, **fields):
    request = globals()[procedure]()
    for name, value in fields.items():
        request[name] = value
    return connection.request(request, checkError=False)  # of the status; a fault is raised all the same


def main(path):
    connection = rpcrt.DCERPC_v5(UnixTransport(path))
    connection.connect()
    connection.bind(uuidtup_to_bin(INTERFACE))

    created = call(connection, "CreateDatabase", Name="FromPython\0")
    assert created["Status"] == 0, created["Status"]
    assert call(connection, "CreateDatabase", Name="FromPython\0")["Status"] == -2
    handle = created["Handle"]
    variable = {"Handle": handle, "Name": "Greeting\0"}
    status = call(connection, "CreateVariable", **variable, Type=VARIABLE_LENGTH, Size=5, Reserved=0, Value=b"hello")
    assert status["Status"] == 0, status["Status"]
    assert call(connection, "EndDatabaseInitialization", Handle=handle)["Status"] == 0

    # The last is longer than a fragment, so that requests and replies come in several.
    for value in (b"", b"x", bytes(range(256)) * 300):
        assert call(connection, "WriteVariable", **variable, Value=value, Size=len(value))["Status"] == 0
        read = call(connection, "ReadVariable", **variable, Size=len(value) + 3)
        assert read["Status"] == 0 and read["ValueSize"] == len(value), read["Status"]
        assert b"".join(read["Buffer"]) == value + bytes(3)
    read = call(connection, "ReadVariable", Handle=handle, Name="Missing\0", Size=4)
    assert read["Status"] == -5 and b"".join(read["Buffer"]) == bytes(4)

    try:
        call(connection, "WriteVariable", **variable, Value=b"abc", Size=4)
    except rpcrt.DCERPCException as fault:
        assert "bad_stub_data" in str(fault), fault
    else:
        raise AssertionError("an array and a size that differ were taken")
    print("ok")


main(sys.argv[1])
