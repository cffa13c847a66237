"""A headless Chromium that is driven over a pipe, with what it says and asks for on the way."""

import base64
import json
import os
import subprocess
import tempfile

QUIET = [
    "--headless=new",
    "--no-sandbox",
    "--disable-gpu",
    "--disable-dev-shm-usage",
    "--disable-background-networking",
    "--disable-component-update",
    "--disable-extensions",
    "--no-first-run",
]


class Browser:
    def __init__(self):
        self.profile = tempfile.TemporaryDirectory(ignore_cleanup_errors=True)
        command_end, self.commands = os.pipe()
        self.answers, answer_end = os.pipe()
        # The browser reads commands at 3 and answers at 4.
        high = [os.dup(command_end), os.dup(answer_end)]
        self.process = subprocess.Popen(
            # Not every shell can copy a descriptor above 9, and the caller may have opened many.
            ["bash", "-c", 'exec chromium "$@" 3<&%d 4>&%d' % tuple(high), "chromium"]
            + QUIET
            + ["--remote-debugging-pipe", "--user-data-dir=" + self.profile.name, "about:blank"],
            pass_fds=high,
            stdout=subprocess.DEVNULL,
            stderr=subprocess.DEVNULL,
        )
        for descriptor in [command_end, answer_end, *high]:
            os.close(descriptor)
        self.number = 0
        self.session = None
        self.received = b""
        self.events = []
        target = self.call("Target.createTarget", url="about:blank")["targetId"]
        self.session = self.call("Target.attachToTarget", targetId=target, flatten=True)[
            "sessionId"
        ]
        for domain in ["Page", "Log", "Runtime", "Network"]:
            self.call(domain + ".enable")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.kill()
        self.process.wait()
        os.close(self.commands)
        os.close(self.answers)
        self.profile.cleanup()

    def call(self, method, **parameters):
        self.number += 1
        command = {"id": self.number, "method": method, "params": parameters}
        if self.session:
            command["sessionId"] = self.session
        os.write(self.commands, json.dumps(command).encode() + b"\0")
        while True:
            said = self.read()
            if said.get("id") == self.number:
                if "error" in said:
                    raise RuntimeError(method + ": " + said["error"]["message"])
                return said["result"]
            self.events.append(said)

    def read(self):
        while b"\0" not in self.received:
            more = os.read(self.answers, 1 << 20)
            if not more:
                raise RuntimeError("the browser has ended")
            self.received += more
        said, self.received = self.received.split(b"\0", 1)
        return json.loads(said)

    def open(self, path, width=1280, dark=False):
        self.call(
            "Emulation.setDeviceMetricsOverride",
            width=width,
            height=900,
            deviceScaleFactor=1,
            mobile=width < 600,
        )
        scheme = {"name": "prefers-color-scheme", "value": "dark" if dark else "light"}
        self.call("Emulation.setEmulatedMedia", features=[scheme])
        self.events = []
        self.call("Page.navigate", url="file://" + os.path.abspath(path))
        while not any(event.get("method") == "Page.loadEventFired" for event in self.events):
            self.events.append(self.read())

    def asked_for(self):
        """The addresses that were requested since `open`."""
        return [
            event["params"]["request"]["url"]
            for event in self.events
            if event.get("method") == "Network.requestWillBeSent"
        ]

    def complaints(self):
        """What stands on the console."""
        kinds = ["Log.entryAdded", "Runtime.consoleAPICalled", "Runtime.exceptionThrown"]
        return [event["params"] for event in self.events if event.get("method") in kinds]

    def evaluate(self, expression):
        result = self.call("Runtime.evaluate", expression=expression, returnByValue=True)
        if "exceptionDetails" in result:
            raise RuntimeError(json.dumps(result["exceptionDetails"]))
        return result["result"].get("value")

    def picture(self, path, width, height):
        clip = {"x": 0, "y": 0, "width": width, "height": height, "scale": 1}
        data = self.call("Page.captureScreenshot", clip=clip, captureBeyondViewport=True)["data"]
        with open(path, "wb") as file:
            file.write(base64.b64decode(data))

    def printed_pages(self):
        """How many sheets the page takes."""
        data = base64.b64decode(self.call("Page.printToPDF")["data"])
        return data.count(b"/Type /Page\n") + data.count(b"/Type /Page ")
