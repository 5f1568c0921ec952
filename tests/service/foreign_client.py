# A client of the status database that shares no code with it, in the byte order of either kind of machine.
#
# foreign_client.py SOCKET big|little: calls each procedure, looks at the bytes of the replies, and prints "ok". The frames
# are those of DCE 1.1 RPC, connection-oriented, version 5.0 (C706, chapter 12).
import datetime
import socket
import struct
import sys
import uuid

INTERFACE = uuid.UUID("57856c31-165f-42cc-8b23-81aad6f3a7b6")
NDR = uuid.UUID("8a885d04-1ceb-11c9-9fe8-08002b104860")
REQUEST, RESPONSE, FAULT, BIND, BIND_ACK = 0, 2, 3, 11, 12
FIRST, LAST = 1, 2
FRAGMENT = 4280
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
        # A frame: its kind, its flags, its body, and the mark of its byte order for struct.
        header = self.stream.read(16)
        order = "<" if header[4] & 0xF0 else ">"
        length, _, call_id = struct.unpack(order + "HHL", header[8:])
        assert call_id == self.call_id, header
        return header[2], header[3], self.stream.read(length - 16), order

    def call(self, procedure, *parameters):
        # Parameters are numbers, text or bytes; gives the reply, or its fault, and the mark of its byte order.
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
        for at in range(0, len(body) or 1, room):
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

    def numbers(self, form, procedure, *parameters):
        body, mark = self.call(procedure, *parameters)
        return struct.unpack(mark + form, body)

    def expect(self, procedure, parameters, *reply):
        # The reply is these bytes and numbers.
        body, mark = self.call(procedure, *parameters)
        wanted = [part if isinstance(part, bytes) else struct.pack(mark + "l", part) for part in reply]
        assert body == b"".join(wanted), (procedure, parameters, body[:40])


def main(path, order):
    client = Client(path, order == "big")
    name = "Of " + order
    handle, status = client.numbers("Ll", 0, name)
    assert handle != 0 and status == 0, status
    v = (handle, "V")
    client.expect(8, (*v, 5, 5, 0, b"\1\2\3\4\5"), 0)
    client.expect(8, (handle, "C", 6, 0, 0, b""), 0)
    client.expect(8, (handle, "R", 4, 3, 0, b"\6\7\x08"), 0)
    client.expect(12, (handle, "C", "R;R;"), 0)
    client.expect(7, (handle,), 0)
    # The last is longer than a fragment, so that requests and replies come in several.
    for value in (b"", b"\x09\x08", bytes(range(256)) * 300):
        size = len(value)
        client.expect(9, (*v, value, size), 0)
        client.expect(10, (*v, size + 3), size + 3, value + bytes(3 + -(size + 3) % 4), size, 0)
    client.expect(10, (*v, 2), 2, bytes(4), size, -8)  # too small
    client.expect(10, (handle, "C", 7), 7, b"\6\7\x08\6\7\x08\0\0", 6, 0)
    client.expect(9, (*v, b"abc", 4), BAD_STUB_DATA)

    kind, size, writes, *written, status = client.numbers("3L8Hl", 14, handle, "R")
    assert (kind, size, writes, status) == (4, 3, 1, 0), (kind, size, writes, status)
    assert abs(written[0] - datetime.datetime.now(datetime.timezone.utc).year) < 2, written
    assert client.numbers("2L8Hl", 4, handle)[:2] == (1, 3)  # handles, variables
    first, second, status = instance = client.numbers("2Ll", 3)
    assert (first or second) and status == 0 and client.numbers("2Ll", 3) == instance, instance
    client.expect(15, (*v, 1), 0)
    client.expect(16, v, 0)
    client.expect(18, ("Refresh:Front desk",), -14)
    again, status = client.numbers("Ll", 1, name)
    assert again not in (0, handle) and status == 0, again
    client.expect(2, (again,), 0)
    print("ok")


if __name__ == "__main__":
    main(*sys.argv[1:])
