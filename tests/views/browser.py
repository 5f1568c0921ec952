"""A headless Chromium, spoken to by its DevTools protocol over a pipe: NUL-terminated JSON on descriptors 3 and 4."""
import base64
import json
import os
import select
import subprocess
import time


class Browser:
    def __init__(self, directory, width=1000, height=800):
        to_read, self.write_end = os.pipe()
        self.read_end, to_write = os.pipe()
        inner = [os.dup(to_read), os.dup(to_write)]

        def take_descriptors():
            for place, descriptor in zip((3, 4), [os.dup(each) for each in inner]):
                os.dup2(descriptor, place)

        self.errors = []  # of scripts and of the policy, as the page reports them
        self.process = subprocess.Popen(
            ["chromium", "--headless=new", "--no-sandbox", "--disable-gpu", "--remote-debugging-pipe",
             f"--user-data-dir={directory}", f"--window-size={width},{height}", "--no-first-run", "about:blank"],
            preexec_fn=take_descriptors, close_fds=False, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
            stderr=subprocess.DEVNULL)
        for descriptor in [to_read, to_write, *inner]:
            os.close(descriptor)
        self.number, self.buffer, self.session = 0, b"", None
        targets = self.call("Target.getTargets")["targetInfos"]
        page = next(target for target in targets if target["type"] == "page")["targetId"]
        self.session = self.call("Target.attachToTarget", targetId=page, flatten=True)["sessionId"]
        for domain in ("Page", "Runtime", "Log"):
            self.call(domain + ".enable")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.kill()
        self.process.wait()
        os.close(self.write_end)
        os.close(self.read_end)

    def call(self, method, deadline=30, **parameters):
        self.number += 1
        message = {"id": self.number, "method": method, "params": parameters}
        if self.session:
            message["sessionId"] = self.session
        os.write(self.write_end, json.dumps(message).encode() + b"\0")
        end = time.monotonic() + deadline
        while True:
            answer = self.hear(end)
            if answer.get("id") == self.number:
                assert "error" not in answer, answer
                return answer["result"]
            self.note(answer)

    def hear(self, end):
        while b"\0" not in self.buffer:
            ready, _, _ = select.select([self.read_end], [], [], max(0, end - time.monotonic()))
            assert ready, "the browser does not answer"
            piece = os.read(self.read_end, 65536)
            assert piece, "the browser ended"
            self.buffer += piece
        message, self.buffer = self.buffer.split(b"\0", 1)
        return json.loads(message)

    def note(self, event):
        if event.get("method") == "Runtime.exceptionThrown":
            self.errors.append(event["params"]["exceptionDetails"].get("exception", {}).get("description"))
        entry = event.get("params", {}).get("entry", {})
        if event.get("method") == "Log.entryAdded" and entry.get("source") in ("security", "javascript"):
            self.errors.append(entry["text"])
        if event.get("method") == "Page.javascriptDialogOpening":
            self.errors.append("a dialog: " + event["params"]["message"])

    def open(self, url):
        self.call("Page.navigate", url=url)

    def size(self, width, height, dark=False):
        self.call("Emulation.setDeviceMetricsOverride", width=width, height=height, deviceScaleFactor=1, mobile=False)
        self.call("Emulation.setEmulatedMedia",
                  features=[{"name": "prefers-color-scheme", "value": "dark" if dark else "light"}])

    def value(self, script):
        result = self.call("Runtime.evaluate", expression=script, returnByValue=True, awaitPromise=True)
        assert "exceptionDetails" not in result, result
        return result["result"].get("value")

    def wait(self, script, deadline=15):
        """Until the script's value is true; returns it."""
        end = time.monotonic() + deadline
        while not (value := self.value(f"((value) => value instanceof Node || value)({script})")):
            assert time.monotonic() < end, f"{script}: {self.value('document.body.innerText')}"
            time.sleep(0.01)
        return value

    def press(self, key, **more):
        for kind in ("keyDown", "keyUp"):
            self.call("Input.dispatchKeyEvent", type=kind, key=key, **more)

    def screenshot(self):
        return base64.b64decode(self.call("Page.captureScreenshot", format="png")["data"])
