"""The bridge to a real mosquitto, and the fleet that reads it."""
import json
import os
import pathlib
import re
import signal
import subprocess
import sys
import urllib.request

import pytest
from broker import Broker, broker  # noqa: F401
from conftest import BIN, SOURCES, Machine, wait_until

PRINTER = "Front/desk +#%1"
LEVEL = "Front%2Fdesk %2B%23%251"


def bridge(machine, broker, *words, name="here"):
    started = machine.start("bridge", "mqtt", "--host", "127.0.0.1", "--port", broker.port, "--machine", name, "--json", *words)
    started.json(lambda event: event["event"] == "connected")
    return started


def value_of(broker, variable, machine="here", level=LEVEL):
    return broker.retained(f"oriel/{machine}/printers/{level}/values/{variable}").get(
        f"oriel/{machine}/printers/{level}/values/{variable}", {}).get("value")


def test_every_value_has_a_topic_and_an_end_of_any_kind_is_told(up, broker):
    up.add(PRINTER)
    up.set(PRINTER, "ErrPaperJam", 2)
    started = bridge(up, broker)
    top = f"oriel/here/printers/{LEVEL}"
    wait_until(lambda: len(broker.retained(f"{top}/values/+")) > 50, "the snapshot")
    retained = broker.retained()
    jam = retained[f"{top}/values/ErrPaperJam"]
    assert (jam["value"], jam["meaning"], jam["severity"], jam["source"]) == (2, "paper jam", "error", "device")
    assert jam["seq"] > 0 and jam["time"] > 1.7e12
    assert retained[f"{top}/about"]["name"] == PRINTER
    assert retained[f"{top}/about"]["variables"] == len([topic for topic in retained if "/values/" in topic])
    assert retained["oriel/here/available"] == "online"

    up.set(PRINTER, "PageCount", 17)
    wait_until(lambda: value_of(broker, "PageCount") == 17, "the change")
    started.kill()  # the will
    wait_until(lambda: broker.retained("oriel/here/available") == {"oriel/here/available": "offline"}, "the will")

    # What was removed meanwhile is cleared by the next run, and what is removed now by this one.
    up.add("Second")
    up.run("printers", "remove", PRINTER)
    up.down()
    up.up()
    up.run("get", "Second", "PageCount")
    started = bridge(up, broker)
    wait_until(lambda: {topic.split("/")[3] for topic in broker.retained("oriel/here/printers/#")} == {"Second"}, "clearing")
    up.run("printers", "remove", "Second")
    wait_until(lambda: not broker.retained("oriel/here/printers/#"), "clearing")
    assert started.end() == 0
    assert broker.retained() == {"oriel/here/available": "offline"}


def test_broker_that_is_killed_or_stands_still_has_the_last_values_afterwards(up, broker):
    up.add(PRINTER)
    started = bridge(up, broker)
    wait_until(lambda: value_of(broker, "TonerLevel") == 100, "the snapshot")
    writer = ("import ctypes, sys; sys.path.insert(0, sys.argv[1]); import oriel\n"
              "with oriel.open(sys.argv[2]) as p:\n"
              "    for i in range(10000): p['ErrPaperState'] = i; p['PrinterMemory'] = i // 100")
    library = str(BIN.parent / "lib/libtvsqdz.so.1")

    # The run-time of a sanitizer comes before all else.
    runtime = re.findall(r"/\S*lib[at]san\S*", subprocess.run(["ldd", library], capture_output=True, text=True).stdout)
    env = dict(up.env, ORIEL_LIBRARY=library, LD_PRELOAD=" ".join(runtime), ASAN_OPTIONS="detect_leaks=0")

    def write_much():
        subprocess.run([sys.executable, "-c", writer, SOURCES / "python", PRINTER], check=True, env=env)

    broker.kill()
    started.json(lambda event: event["event"] == "disconnected")
    write_much()
    broker.start()
    started.json(lambda event: event["event"] == "connected")
    wait_until(lambda: value_of(broker, "ErrPaperState") == 9999 and value_of(broker, "PrinterMemory") == 99, "the last values")
    wait_until(lambda: value_of(broker, "TonerLevel") == 100, "what has not changed")

    before = memory_of(up)
    broker.signal(signal.SIGSTOP)
    write_much()
    up.set(PRINTER, "ErrPaperState", 4711)
    assert memory_of(up) < before + 8000  # kB: what could not be sent is not kept
    broker.signal(signal.SIGCONT)
    wait_until(lambda: value_of(broker, "ErrPaperState") == 4711, "the last value")
    assert started.process.poll() is None


def memory_of(machine):
    process = machine.processes("oriel-bridge")[0]
    status = pathlib.Path(f"/proc/{process}/status").read_text()
    return int(status.split("VmRSS:")[1].split()[0])


def test_home_assistant_finds_printers(up, broker):
    up.add("Lab")
    started = bridge(up, broker, "--home-assistant")
    wait_until(lambda: len(broker.retained("homeassistant/#")) == 4, "discovery")
    for topic, document in broker.retained("homeassistant/#").items():
        assert topic == topic.encode("ascii").decode() and " " not in topic
        assert document["state_topic"] in broker.retained("oriel/#") and document["device"]["name"] == "Lab"
    up.run("printers", "remove", "Lab")
    wait_until(lambda: not broker.retained("homeassistant/#"), "clearing")
    assert started.end() == 0


def test_commands_are_refused_unless_they_run_as_the_user_that_is_named(up, broker):
    words = ("bridge", "mqtt", "--host", "127.0.0.1", "--port", broker.port, "--accept-commands")
    assert "run the bridge as that user" in up.run(*words, "nobody", code=2)
    if os.geteuid() == 0:
        assert "not carried out as root" in up.run(*words, "root", code=2)

    up.add("Lab")
    job = up.json("print", "Lab", pathlib.Path(__file__), "--held")["job"]
    plain = bridge(up, broker)
    answers = broker.listen("oriel/+/printers/+/answer")
    command = json.dumps({"command": "cancel", "job": job, "id": "a"})
    broker.publish("oriel/here/printers/Lab/command", command)
    broker.publish("oriel/here/printers/Lab/command", command, "-r")
    up.set("Lab", "PageCount", 3)
    wait_until(lambda: value_of(broker, "PageCount", level="Lab") == 3, "a change after the command")
    assert len(up.json("jobs", "Lab")["spooler"]) == 1
    plain.end()

    if os.geteuid() != 0:
        return
    # As the user of the product's directories, who may not cancel a job of root's, but one of its own.
    for path in (up.folder, up.state, up.run_folder):
        path.chmod(0o755)
    as_nobody = ["setpriv", "--reuid=nobody", "--regid=nogroup", "--clear-groups"]
    own = subprocess.run([*as_nobody, BIN / "oriel", "print", "Lab", "--held", "--json", "-"], input="x", env=up.env,
                         capture_output=True, text=True)
    own_job = json.loads(own.stdout)["job"]
    started = up.start(*words[:6], "--machine", "here", "--accept-commands", "nobody", "--json",
                       wrap=as_nobody)
    started.json(lambda event: event["event"] == "connected")
    answer = {}
    for document, done in (("{", False), (json.dumps({"command": "cancel", "job": job, "id": 1}), False),
                           (json.dumps({"command": "cancel", "job": own_job, "id": 2}), True)):
        broker.publish("oriel/here/printers/Lab/command", document)
        answer = json.loads(answers.line().split("\t", 1)[1])
        assert answer["done"] == done and ("error" in answer) != done, answer
    assert answer["id"] == 2
    assert [entry["job"] for entry in up.json("jobs", "Lab")["spooler"]] == [job]


@pytest.fixture
def secured(tmp_path):
    def openssl(*words):
        subprocess.run(["openssl", *words], check=True, capture_output=True, cwd=tmp_path)

    openssl("req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", "ca.key", "-out", "ca.pem", "-subj", "/CN=ca",
            "-days", "2", "-addext", "basicConstraints=critical,CA:TRUE")
    for name in "server", "client":
        openssl("req", "-newkey", "rsa:2048", "-nodes", "-keyout", f"{name}.key", "-out", f"{name}.csr", "-subj", f"/CN={name}")
        (tmp_path / "names").write_text("subjectAltName=IP:127.0.0.1")
        openssl("x509", "-req", "-in", f"{name}.csr", "-CA", "ca.pem", "-CAkey", "ca.key", "-CAcreateserial", "-out",
                f"{name}.pem", "-days", "2", "-extfile", "names")
    subprocess.run(["mosquitto_passwd", "-b", "-c", tmp_path / "users", "anna", "right"], check=True)
    started = Broker(tmp_path, f"""listener PORT 127.0.0.1
cafile {tmp_path}/ca.pem
certfile {tmp_path}/server.pem
keyfile {tmp_path}/server.key
require_certificate true
password_file {tmp_path}/users
""").start()
    started.client = ["--cafile", f"{tmp_path}/ca.pem", "--cert", f"{tmp_path}/client.pem", "--key", f"{tmp_path}/client.key",
                      "-u", "anna", "-P", "right"]
    yield started, tmp_path
    started.kill()


def test_tls_certificates_and_passwords(up, secured):
    broker, folder = secured
    for name, password in ("right", "right"), ("wrong", "wrong"), ("open", "right"):
        (folder / name).write_text(password + "\n")
        (folder / name).chmod(0o644 if name == "open" else 0o600)
    up.add("Lab")
    tls = ["--cert-file", folder / "client.pem", "--key-file", folder / "client.key", "--broker-user", "anna"]
    own = [*tls, "--ca-file", folder / "ca.pem"]
    started = bridge(up, broker, *own, "--password-file", folder / "right")
    wait_until(lambda: value_of(broker, "TonerLevel", level="Lab") == 100, "the snapshot")
    for words in ([*own, "--password-file", folder / "wrong"], [*tls[4:], *own[6:], "--password-file", folder / "right"],
                  [*tls, "--tls", "--password-file", folder / "right"]):
        other = up.start("bridge", "mqtt", "--host", "127.0.0.1", "--port", broker.port, "--machine", "other", "--json", *words)
        assert other.json()["event"] == "disconnected", words
        other.kill()
    open_words = ("bridge", "mqtt", "--port", broker.port, *own, "--password-file", folder / "open")
    assert "others can read the password file" in up.run(*open_words, code=2)
    assert started.end() == 0


def test_fleet_shows_two_machines_and_no_nonsense(up, broker, tmp_path_factory):
    other = Machine(tmp_path_factory.mktemp("other", numbered=True))
    try:
        other.up()
        for machine, name in (up, "here"), (other, "there"):
            machine.add(PRINTER)
            bridge(machine, broker, name=name)
        other.set(PRINTER, "ErrPaperJam", 2)
        other.run("set", PRINTER, "PrinterStatus", "--hex", "10 00 00 00 01 00 00 00 00 00 00 00")
        wait_until(lambda: value_of(broker, "ErrPaperJam", machine="there") == 2, "the jam")

        # What anybody might publish.
        nested = '{"value":' + "[" * 50000 + "]" * 50000 + "}"
        for topic, payload in {
            "oriel/here/printers/Evil/about": '{"name": "Evil", "driver": 3, "variables": -1, "trouble": "\\u001b[2J"}',
            "oriel/here/printers/Evil/values/PrinterStatus": nested,
            "oriel/here/printers/Evil/values/PageCount": '{"value": "\\u001b]0;x\\u0007", "seq": 1e300, "meaning": {}}',
            "oriel/here/printers/%1B/about": "{}",
            "oriel/here/printers/%zz/about": "{}",
            "oriel//printers/x/about": "{}",
            "oriel/here/printers/Broken/about": "[1",
        }.items():
            broker.publish(topic, payload, "-r")

        fleet = ("fleet", "--host", "127.0.0.1", "--port", broker.port)
        printers = wait_until(lambda: shown(up.json(*fleet), 3))
        assert set(printers) == {("here", PRINTER), ("there", PRINTER), ("here", "Evil")}
        assert "\x1b" not in up.run(*fleet) and "\x1b" not in up.run(*fleet, "top", "--once")
        assert printers["here", PRINTER]["severity"] == "none" != printers["there", PRINTER]["severity"]
        assert "there" in up.run(*fleet, "top", "--once")

        page = up.start(*fleet, "--json", "serve", "--listen-port", 0)
        url = page.json(lambda event: event["event"] == "listening")["url"]
        wait_until(lambda: shown(json.load(urllib.request.urlopen(url + "api/printers")), 3), "the page's printers")

        other.programs[-1].kill()
        wait_until(lambda: shown(up.json(*fleet), 3)["there", PRINTER]["stale"], "the machine's absence")
        assert not shown(up.json(*fleet), 3)["here", PRINTER]["stale"]
        broker.kill()
        assert "cannot reach the broker" in up.run(*fleet, code=3)
    finally:
        other.close()


def shown(document, count):
    printers = {(each["machine"], each["name"]): each for each in document["printers"]}
    assert len(printers) == count, list(printers)
    return printers
