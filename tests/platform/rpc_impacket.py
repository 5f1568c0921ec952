"""A client of another implementation, impacket: binds, alters the context, calls with and without fragments.

rpc_impacket.py SOCKET: prints "ok" and ends with 0, or says what is wrong. Ends with 77 when there is no impacket.
The test interface is the one of rpc_kit.h; its client's fragments are of 4280 bytes at most.
"""
import socket
import struct
import sys

try:
    from impacket.dcerpc.v5 import transport
    from impacket.dcerpc.v5.rpcrt import DCERPCException, DCERPC_v5
    from impacket.uuid import uuidtup_to_bin
except ImportError as error:
    print("no impacket:", error)
    sys.exit(77)

ECHO, MAKE, TOUCH = 0, 1, 5
INTERFACE = uuidtup_to_bin(("8d1f7a10-52c4-4a0e-9d3b-0f1e2d3c4b5a", "1.2"))
OLDER = uuidtup_to_bin(("8d1f7a10-52c4-4a0e-9d3b-0f1e2d3c4b5a", "1.0"))
UNKNOWN = uuidtup_to_bin(("8d1f7a11-52c4-4a0e-0102-030405060708", "1.0"))


class UnixTransport(transport.DCERPCTransport):
    """The endpoint's socket, in place of impacket's TCP."""

    def __init__(self, path):
        transport.DCERPCTransport.__init__(self, "localhost", 0)
        self.path = path
        self.stream = None

    def connect(self):
        self.stream = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.stream.settimeout(20)
        self.stream.connect(self.path)
        return 1

    def disconnect(self):
        self.stream.close()
        return 1

    def send(self, data, forceWriteAndx=0, forceRecv=0):
        self.stream.sendall(data)

    def recv(self, forceRecv=0, count=0):
        if not count:
            return self.stream.recv(8192)
        data = b""
        while len(data) < count:
            more = self.stream.recv(count - len(data))
            if not more:
                raise EOFError("the server has closed the connection")
            data += more
        return data


def expect(what, got, wanted):
    if got != wanted:
        print(what, "is", repr(got)[:200], "and not", repr(wanted)[:200])
        sys.exit(1)


def refused(what, action):
    try:
        action()
    except DCERPCException as error:
        return str(error)
    print(what, "was taken")
    sys.exit(1)


def pattern(size):
    return bytes((i * 7) & 0xFF for i in range(size))


def connect():
    rpc = DCERPC_v5(UnixTransport(sys.argv[1]))
    rpc.connect()
    return rpc


def call(rpc, procedure, stub):
    rpc.call(procedure, stub)
    return rpc.recv()


rpc = connect()
rpc.bind(INTERFACE, bogus_binds=3)
for size in (0, 1, 60, 4255, 4256, 4257, 8512, 8513, 300000):
    expect("echo of %d bytes" % size, call(rpc, ECHO, pattern(size)), pattern(size))
    expect("%d bytes" % size, call(rpc, MAKE, struct.pack("<L", size)), pattern(size))
expect("bad stub data", "BAD_STUB_DATA" in refused("a bad stub", lambda: call(rpc, MAKE, b"")).upper(), True)
expect("procedure", "nca_s_op_rng_error" in refused("procedure 400", lambda: call(rpc, 400, b"")), True)
expect("a call after faults", call(rpc, TOUCH, b""), struct.pack("<L", 1))

altered = rpc.alter_ctx(OLDER)
expect("a call in the altered context", call(altered, ECHO, pattern(9000)), pattern(9000))
expect("an altered context", "abstract_syntax_not_supported" in refused("an unknown interface", lambda: rpc.alter_ctx(UNKNOWN)), True)

expect("a bind", "abstract_syntax_not_supported" in refused("an unknown interface", lambda: connect().bind(UNKNOWN)), True)
ndr64 = ("71710533-beba-4937-8319-b5dbef9ccc36", "1.0")
expect("a syntax", "transfer_syntaxes_not_supported" in refused("NDR64", lambda: connect().bind(INTERFACE, transfer_syntax=ndr64)), True)
print("ok")
