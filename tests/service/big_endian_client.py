"""A client of the status database on a big-endian machine: its frames and bodies are in that byte order.

big_endian_client.py SOCKET: makes a database with a variable, writes and reads it, and prints "ok". The frames are those of
DCE 1.1 RPC, connection-oriented, version 5.0 (C706, chapter 12).
"""

import socket
import struct
import sys
import uuid

INTERFACE = uuid.UUID("57856c31-165f-42cc-8b23-81aad6f3a7b6")
NDR = uuid.UUID("8a885d04-1ceb-11c9-9fe8-08002b104860")
REQUEST, RESPONSE, BIND, BIND_ACK = 0, 2, 11, 12
FIRST_AND_LAST = 3
RECORD = 4


class Client:
    def __init__(self, path):
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.socket.settimeout(20)
        self.socket.connect(path)
        self.call_id = 0
        syntaxes = INTERFACE.bytes + struct.pack(">L", 1) + NDR.bytes + struct.pack(">L", 2)  # minor, major
        self.exchange(BIND, struct.pack(">HHLBxxxHBx", 4280, 4280, 0, 1, 0, 1) + syntaxes, BIND_ACK)

    def receive(self, count):
        data = b""
        while len(data) < count:
            more = self.socket.recv(count - len(data))
            if not more:
                raise EOFError("the service closed the connection")
            data += more
        return data

    def exchange(self, kind, body, answer):
        """Sends a frame; gives the body of the answer, and the mark of the byte order that it came in."""
        self.call_id += 1
        header = struct.pack(">BBBB4sHHL", 5, 0, kind, FIRST_AND_LAST, bytes(4), 16 + len(body), 0, self.call_id)
        self.socket.sendall(header + body)
        header = self.receive(16)
        order = "<" if header[4] & 0xF0 else ">"
        length, _, call_id = struct.unpack(order + "HHL", header[8:])
        body = self.receive(length - 16)
        assert (header[2], call_id) == (answer, self.call_id), header + body
        return body, order

    def call(self, procedure, *parameters):
        """Parameters are numbers, text or bytes; gives the reply's numbers after its bytes, if it has some."""
        body = b""
        for parameter in parameters:
            if isinstance(parameter, int):
                body += struct.pack(">L", parameter)
                continue
            if isinstance(parameter, str):
                parameter = parameter.encode() + b"\0"
                body += struct.pack(">LL", len(parameter), 0)
            body += struct.pack(">L", len(parameter)) + parameter
            body += bytes(-len(body) % 4)
        reply, order = self.exchange(REQUEST, struct.pack(">LHH", len(body), 0, procedure) + body, RESPONSE)
        return reply[8:], order


def numbers(reply):
    body, order = reply
    return struct.unpack(order + "%dl" % (len(body) // 4), body)


def main(path):
    client = Client(path)
    handle, status = numbers(client.call(0, "BigEndian"))
    assert status == 0, status
    handle &= 0xFFFFFFFF
    assert numbers(client.call(8, handle, "Value", RECORD, 5, 0, b"\1\2\3\4\5")) == (0,)
    assert numbers(client.call(9, handle, "Value", b"\x09\x08", 2)) == (0,)
    body, order = client.call(10, handle, "Value", 3)
    count, value, size, status = struct.unpack(order + "L4sLl", body)
    assert (count, value, size, status) == (3, b"\x09\x08\0\0", 2, 0), body
    assert numbers(client.call(7, handle)) == (0,)
    print("ok")


main(sys.argv[1])
