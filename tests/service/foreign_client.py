"""A client of the status database that shares no code with it, in the byte order of either kind of machine.

foreign_client.py SOCKET big|little: makes a database with a variable, writes and reads it, and prints "ok". The frames
are those of DCE 1.1 RPC, connection-oriented, version 5.0 (C706, chapter 12).
"""
import socket
import struct
import sys
import uuid

INTERFACE = uuid.UUID("57856c31-165f-42cc-8b23-81aad6f3a7b6")
NDR = uuid.UUID("8a885d04-1ceb-11c9-9fe8-08002b104860")
REQUEST, RESPONSE, FAULT, BIND, BIND_ACK = 0, 2, 3, 11, 12
FIRST, LAST = 1, 2
FRAGMENT = 4280
VARIABLE_LENGTH = 5
BAD_STUB_DATA = 1783


class Client:
    def __init__(self, path, big):
        self.order, self.mark = (">", b"\0\0\0\0") if big else ("<", b"\x10\0\0\0")
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.socket.settimeout(20)
        self.socket.connect(path)
        self.stream = self.socket.makefile("rwb")
        self.call_id = 0
        interface, transfer = (each.bytes if big else each.bytes_le for each in (INTERFACE, NDR))
        syntaxes = interface + self.pack("L", 1) + transfer + self.pack("L", 2)  # minor, major
        self.send(BIND, FIRST | LAST, self.pack("HHLBxxxHBx", FRAGMENT, FRAGMENT, 0, 1, 0, 1) + syntaxes)
        assert self.receive()[0] == BIND_ACK

    def pack(self, form, *values):
        return struct.pack(self.order + form, *values)

    def send(self, kind, flags, body):
        self.stream.write(self.pack("BBBB4sHHL", 5, 0, kind, flags, self.mark, 16 + len(body), 0, self.call_id) + body)
        self.stream.flush()

    def receive(self):
        """A frame: its kind, its flags, its body, and the mark of its byte order for struct."""
        header = self.stream.read(16)
        order = "<" if header[4] & 0xF0 else ">"
        length, _, call_id = struct.unpack(order + "HHL", header[8:])
        assert call_id == self.call_id, header
        return header[2], header[3], self.stream.read(length - 16), order

    def call(self, procedure, *parameters):
        """Parameters are numbers, text or bytes; gives the reply, or its fault, and the mark of its byte order."""
        body = b""
        for parameter in parameters:
            if isinstance(parameter, str):
                parameter = parameter.encode() + b"\0"
                body += self.pack("LL", len(parameter), 0)
            body += self.pack("L", parameter if isinstance(parameter, int) else len(parameter))
            if isinstance(parameter, bytes):
                body += parameter + bytes(-len(parameter) % 4)
        self.call_id += 1
        room = FRAGMENT - 24
        for at in range(0, len(body), room):
            flags = (FIRST if at == 0 else 0) | (LAST if at + room >= len(body) else 0)
            self.send(REQUEST, flags, self.pack("LHH", len(body) - at, 0, procedure) + body[at:at + room])
        reply, flags = b"", 0
        while not flags & LAST:
            kind, flags, body, order = self.receive()
            if kind == FAULT:
                return body[8:12], order
            assert kind == RESPONSE, kind
            reply += body[8:]
        return reply, order

    def numbers(self, procedure, *parameters):
        body, order = self.call(procedure, *parameters)
        return struct.unpack(order + "%dL" % (len(body) // 4), body)


def main(path, order):
    client = Client(path, order == "big")
    handle, status = client.numbers(0, "Of " + order)
    assert status == 0, status
    assert client.numbers(8, handle, "Value", VARIABLE_LENGTH, 5, 0, b"\1\2\3\4\5") == (0,)
    # The last is longer than a fragment, so that requests and replies come in several.
    for value in (b"", b"\x09\x08", bytes(range(256)) * 300):
        assert client.numbers(9, handle, "Value", value, len(value)) == (0,)
        body, mark = client.call(10, handle, "Value", len(value) + 1)
        array = struct.pack(mark + "L", len(value) + 1) + value + b"\0"
        assert body == array + bytes(-len(array) % 4) + struct.pack(mark + "Ll", len(value), 0), body[:40]
    assert client.numbers(9, handle, "Value", b"abc", 4) == (BAD_STUB_DATA,)
    assert client.numbers(7, handle) == (0,)
    print("ok")


main(*sys.argv[1:])
