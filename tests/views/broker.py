"""A real mosquitto, and what its clients see."""
import json
import os
import pathlib
import signal
import socket
import subprocess

import pytest
from conftest import PATIENCE, Program, wait_until

# Debian keeps the broker where only root's shell looks.
PATH = os.environ["PATH"] + ":/usr/sbin"


def free_port():
    with socket.socket() as taken:
        taken.bind(("127.0.0.1", 0))
        return taken.getsockname()[1]


class Broker:
    def __init__(self, folder, settings=""):
        self.port = free_port()
        self.file = pathlib.Path(folder) / f"mosquitto-{self.port}.conf"
        settings = settings or f"listener {self.port} 127.0.0.1\nallow_anonymous true\n"
        self.file.write_text(settings.replace("PORT", str(self.port)) + "max_queued_messages 0\nuser root\n")
        self.client = []  # options of its clients
        self.process = None

    def start(self):
        self.process = subprocess.Popen(["mosquitto", "-c", self.file], env={"PATH": PATH}, stdout=subprocess.DEVNULL,
                                        stderr=subprocess.DEVNULL)
        wait_until(lambda: socket.create_connection(("127.0.0.1", self.port)).close() is None, "the broker's start")
        return self

    def signal(self, number):
        self.process.send_signal(number)

    def kill(self):
        if self.process and self.process.poll() is None:
            self.process.kill()
            self.process.wait()

    def _client(self, program, *words):
        return [program, "-h", "127.0.0.1", "-p", str(self.port), "-V", "mqttv311", *self.client, *map(str, words)]

    def retained(self, filter="#"):
        """What a late subscriber gets: documents by topic."""
        done = subprocess.run(self._client("mosquitto_sub", "-t", filter, "--retained-only", "-W", 1, "-F", "%t\t%p"),
                              capture_output=True, text=True, timeout=PATIENCE)
        assert done.returncode in (0, 27), done.stderr  # 27: nothing came for a second
        pairs = (line.split("\t", 1) for line in done.stdout.splitlines())
        return {topic: json.loads(payload) if payload.startswith("{") else payload for topic, payload in pairs}

    def publish(self, topic, payload, *words):
        subprocess.run(self._client("mosquitto_pub", "-q", 1, "-t", topic, "-m", payload, *words), check=True,
                       timeout=PATIENCE)

    def listen(self, filter):
        return Program(self._client("mosquitto_sub", "-t", filter, "-F", "%t\t%p"), os.environ)


@pytest.fixture
def broker(tmp_path):
    started = Broker(tmp_path).start()
    yield started
    started.signal(signal.SIGCONT)
    started.kill()
