"""`oriel serve` as programs use it: documents, metrics, events, and what hostile clients may send."""
import http.client
import json
import socket
import subprocess
import time
import urllib.parse

import pytest
from conftest import wait_until

HOSTILE = 'Lab "<b>1</b>" & co'
JAM = "10 00 00 00 01 00 00 00 02 00 00 00"
HOST = b"Host: localhost\r\n"


class Server:
    def __init__(self, machine, *words):
        self.program = machine.start("serve", "--json", "--port", "0", *words)
        self.url = self.program.json(lambda event: event["event"] == "listening")["url"]
        self.port = urllib.parse.urlsplit(self.url).port

    def get(self, path, seconds=10, **headers):
        """Status, headers and body."""
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=seconds)
        connection.request("GET", path, headers={name.replace("_", "-"): value for name, value in headers.items()})
        answer = connection.getresponse()
        return answer.status, answer.headers, answer.read().decode()

    def json(self, path):
        status, _, body = self.get(path)
        assert status == 200, body
        return json.loads(body)

    def connect(self, data=b"", buffer=None):
        client = socket.socket()
        if buffer:
            client.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, buffer)
        client.settimeout(20)
        client.connect(("127.0.0.1", self.port))
        client.sendall(data)
        return client

    def status_of(self, request):
        """Of a raw request; 0: the connection was reset before the answer was read, as while more is sent."""
        with self.connect() as client:
            try:
                client.sendall(request)
                line = client.makefile("rb").readline().split()
            except ConnectionError:
                return 0
            return int(line[1]) if line else 0

    def events(self, last=""):
        client = self.connect(b"GET /events HTTP/1.1\r\n" + HOST + f"Last-Event-ID: {last}\r\n\r\n".encode())
        return Events(client)


class Events:
    def __init__(self, client):
        self.answer, self.id = http.client.HTTPResponse(client), ""
        self.answer.begin()

    def next(self):
        """Name and data of the next event."""
        name = data = None
        while line := self.answer.readline().decode():
            field, _, text = line.rstrip("\n").partition(": ")
            if field == "event":
                name = text
            elif field == "data":
                data = json.loads(text)
            elif field == "id":
                self.id = text
            elif not field and name:
                return name, data
        raise AssertionError("the events ended")

    def until(self, wanted):
        seen = []
        while True:
            seen.append(self.next())
            if wanted(*seen[-1]):
                return seen


def jammed(name, data):
    return name == "printer" and data["severity"] == "error"


@pytest.fixture
def serve(up):
    up.add("Front desk")
    up.add(HOSTILE)
    server = Server(up)
    wait_until(lambda: len(server.json("/api/printers")["printers"]) == 2)
    server.machine = up
    return server


def test_documents_name_state_and_values(serve):
    serve.machine.run("set", HOSTILE, "PrinterStatus", "--hex", JAM)
    path = "/api/printers/" + urllib.parse.quote(HOSTILE, safe="")
    wait_until(lambda: serve.json(path)["state"] == "paper jam, unit 2")
    printer = serve.json(path)
    assert printer["values"]["PrinterStatus"]["value"] == [16, 1, 2]
    assert printer["supplies"] == [{"name": "Toner", "percent": 100, "low": False}]
    spans = serve.json("/api/timeline?printer=" + urllib.parse.quote(HOSTILE) + "&since=1h")["printers"][0]["spans"]
    assert [span["severity"] for span in spans] == ["none", "error"]
    assert serve.get("/api/printers/Nobody")[0] == 404
    taken = serve.machine.json("serve", "--port", str(serve.port), code=1)["error"]
    assert taken["why"] == "Address already in use" and "--port" in taken["next"]


def test_the_day_goes_back_to_what_was_recorded(up):
    up.add("Front desk")
    recorder = up.start("log", "--record")
    wait_until(lambda: "Front desk" in up.run("log", code=None), "the recorder")
    for value in (JAM, JAM.replace("10", "00").replace("01", "00").replace("02", "00")):
        up.run("set", "Front desk", "PrinterStatus", "--hex", value)
        wait_until(lambda: ("jam" in up.run("log", "Front desk", "PrinterStatus", code=None).splitlines()[-1])
                   == (value == JAM), "the record")
    recorder.end()
    spans = wait_until(lambda: Server(up).json("/api/timeline")["printers"])[0]["spans"]
    assert [(span["severity"], span["known"]) for span in spans] == \
        [("none", True), ("error", True), ("none", True), ("none", False), ("none", True)]


def test_metrics_pass_promtool(serve):
    for _ in range(3):
        serve.machine.set("Front desk", "PageCount", "17")
        serve.machine.set("Front desk", "PageCount", "18")
    told = 'oriel_printer_notifications_total{machine="%s",printer="Front desk"} 6\n' % socket.gethostname()
    metrics = wait_until(lambda: (text := serve.get("/metrics")[2]) and told in text and text)
    assert 'variable="PageCount",field=""} 18\n' in metrics
    checked = subprocess.run(["promtool", "check", "metrics"], input=metrics, capture_output=True, text=True)
    assert (checked.returncode, checked.stdout + checked.stderr) == (0, "")
    assert r'printer="Lab \"<b>1</b>\" & co"' in metrics
    assert 'supply="Toner",number="1"} 1\n' in metrics


def test_requests_of_any_form_are_answered_or_refused(serve):
    close = HOST + b"Connection: close\r\n\r\n"
    cases = [(b"GET / HTTP/1.1\r\n" + close, 200),
             (b"HEAD /events HTTP/1.1\r\n" + close, 200),
             (b"GET / HTTP/1.1\r\nHost: [::1]:99\r\n\r\n", 200),
             (b"GET / HTTP/1.1\r\nHost: evil.example\r\n\r\n", 421),
             (b"GET / HTTP/1.1\r\nHost: 127.0.0.1.evil.example\r\n\r\n", 421),
             (b"GET / HTTP/1.1\r\nHost: localhost\r\nHost: evil.example\r\n\r\n", 400),
             (b"GET / HTTP/1.1\r\n\r\n", 400),
             (b"GET /%00 HTTP/1.1\r\n" + close, 404),
             (b"GET /api/printers/%0 HTTP/1.1\r\n" + close, 400),
             (b"GET /api/printers/Front%20desk%00 HTTP/1.1\r\n" + close, 400),
             (b"GET /api/timeline?since=-1 HTTP/1.1\r\n" + close, 400),
             (b"GET /../../etc/passwd HTTP/1.1\r\n" + close, 404),
             (b"GET /" + b"a" * 100000 + b" HTTP/1.1\r\n" + close, 414),
             (b"GET / HTTP/1.1\r\nX: " + b"b" * 100000 + b"\r\n" + close, 431),
             (b"POST / HTTP/1.1\r\n" + HOST + b"Content-Length: 5\r\n\r\nhello", 405),
             (b"GET / HTTP/1.1\r\n" + HOST + b"Content-Length: 99999999999\r\n\r\n", 400),
             (b"GET / HTTP/1.1\r\n" + HOST + b"Transfer-Encoding: chunked\r\n\r\nFFFFFFFF\r\n", 400)]
    for request, status in cases:
        assert serve.status_of(request) in (status, 0 if len(request) > 50000 else status), request[:60]
    headers = serve.get("/")[1]
    assert "default-src 'none'" in headers["Content-Security-Policy"] and headers["X-Content-Type-Options"] == "nosniff"


def test_readers_are_told_once_and_go_on_where_they_were(serve):
    events = serve.events()
    seen = events.until(lambda name, _: name == "ready")
    assert seen[0][0] == "hello" and sorted(d["name"] for n, d in seen if n == "printer") == ["Front desk", HOSTILE]
    begun = time.monotonic()
    serve.machine.run("set", "Front desk", "PrinterStatus", "--hex", JAM)
    events.until(jammed)
    # The command takes its time too, so this is the bound that a page promises, and what starting a program costs.
    assert time.monotonic() - begun < 2
    serve.machine.set("Front desk", "PageCount", "5")
    events.until(lambda name, data: name == "printer" and data["pages"] == 5)
    serve.machine.set(HOSTILE, "PageCount", "6")
    again = serve.events(events.id).until(lambda name, data: name == "printer" and data["pages"] == 6)
    assert "hello" not in [name for name, _ in again]
    assert serve.events("1-1").next()[0] == "hello"


def test_crowds_harm_nobody(serve):
    def metrics_ms():
        begun = time.monotonic()
        assert serve.get("/metrics")[0] == 200
        return (time.monotonic() - begun) * 1000

    alone = sorted(metrics_ms() for _ in range(9))[4]
    crowd = [serve.connect(b"GET / HT") for _ in range(1000)]
    assert metrics_ms() < 1000
    slow = [serve.connect(b"GET /events HTTP/1.1\r\n" + HOST + b"\r\n", buffer=2048) for _ in range(100)]
    for count in range(20):
        serve.machine.set("Front desk", "PageCount", str(count))
    crowded = sorted(metrics_ms() for _ in range(9))[4]
    assert crowded < max(20 * alone, 200)
    with open(f"/proc/{serve.program.pid}/status") as status:
        resident = next(int(line.split()[1]) for line in status if line.startswith("VmRSS"))
    assert resident < 100 * 1024  # KiB
    # Who was away is told the last state, not each one.
    stream = Events(slow[0])
    pages = [d["pages"] for n, d in stream.until(lambda n, d: n == "printer" and d["pages"] == 19) if n == "printer"]
    assert len(pages) < 20
    for client in crowd + slow:
        client.close()


def test_other_machines_need_the_token(machine):
    token = "0123456789abcdef-token"
    file = machine.file("token", token + "\n")
    file.chmod(0o644)
    assert "a token is needed" in machine.json("serve", "--listen", "0.0.0.0", code=2)["error"]["what"]
    assert "other users" in machine.json("serve", "--token-file", file, code=1)["error"]["why"]
    file.chmod(0o600)
    server = Server(machine, "--listen", "0.0.0.0", "--token-file", file)
    assert server.get("/api/printers")[0] == server.get("/")[0] == server.get("/events")[0] == 401
    assert server.get("/metrics", Authorization="Bearer " + token)[0] == 200
    assert server.get("/metrics", Authorization="Bearer " + token[:-1])[0] == 401
    assert server.get("/?token=wrong")[0] == 401
    status, headers, _ = server.get("/?token=" + token)
    cookie = headers["Set-Cookie"]
    assert (status, headers["Location"]) == (303, "/") and "HttpOnly" in cookie
    assert server.get("/", Cookie=cookie.split(";")[0])[0] == 200
