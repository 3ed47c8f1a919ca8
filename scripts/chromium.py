"""A headless Chromium with one page, driven by its own protocol over two pipes. It makes no network
connections of its own: they are turned off."""

import base64
import contextlib
import json
import os
import shutil
import subprocess
import tempfile
import threading

PROGRAM = "chromium"
OPTIONS = ("--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
           "--disable-background-networking", "--disable-component-update", "--disable-sync",
           "--hide-scrollbars", "--remote-debugging-pipe")
LIMIT = 60  # seconds for an answer


def is_installed():
    return shutil.which(PROGRAM) is not None


class Chromium(contextlib.ExitStack):
    """Uses a new folder for the profile, which is removed at the end."""

    def __init__(self, url, width, height):
        super().__init__()
        profile = self.enter_context(tempfile.TemporaryDirectory(ignore_cleanup_errors=True))
        to_read, asking = os.pipe()
        answering, to_write = os.pipe()
        # The program has its pipes at the descriptors 3 and 4.
        command = ["bash", "-c", f'exec "$@" 3<&{to_read} 4>&{to_write}', "bash", PROGRAM, *OPTIONS,
                   f"--user-data-dir={profile}", f"--window-size={width},{height}", "about:blank"]
        self._process = subprocess.Popen(command, pass_fds=(to_read, to_write),
                                         env=dict(os.environ, HOME=profile),
                                         stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                         stderr=subprocess.DEVNULL)
        self.callback(self._end)
        os.close(to_read)
        os.close(to_write)
        self._asking = self.enter_context(open(asking, "wb", buffering=0))
        self._answers = self.enter_context(open(answering, "rb"))
        self._count = 0
        self._session = {}
        [page] = [target["targetId"] for target in self._ask("Target.getTargets")["targetInfos"]
                  if target["type"] == "page"]
        self._session = {"sessionId": self._ask("Target.attachToTarget", targetId=page,
                                                flatten=True)["sessionId"]}
        self._ask("Emulation.setDeviceMetricsOverride", width=width, height=height,
                  deviceScaleFactor=1, mobile=False)
        self._ask("Page.enable")
        self._ask("Page.navigate", url=url)
        self._read_until(lambda message: message.get("method") == "Page.loadEventFired")

    def _end(self):
        self._process.terminate()
        self._process.wait(LIMIT)

    def _read_until(self, wanted):
        # A browser that hangs is ended, and with it the pipe.
        timer = threading.Timer(LIMIT, self._process.kill)
        timer.start()
        try:
            text = bytearray()
            while byte := self._answers.read(1):
                text += byte
                if byte == b"\0":
                    message = json.loads(text[:-1])
                    if wanted(message):
                        return message
                    text.clear()
        finally:
            timer.cancel()
        raise AssertionError("Chromium has ended")

    def _ask(self, method, **parameters):
        self._count += 1
        question = {"id": self._count, "method": method, "params": parameters, **self._session}
        self._asking.write(json.dumps(question).encode() + b"\0")
        answer = self._read_until(lambda message: message.get("id") == question["id"])
        if "error" in answer:
            raise AssertionError(f"{method}: {answer['error']['message']}")
        return answer["result"]

    def evaluate(self, script, *words):
        """The result of the script inside the page."""
        result = self._ask("Runtime.evaluate", returnByValue=True, expression=(
            f"(function() {{ {script} }}).apply(null, {json.dumps(words)})"))
        if "exceptionDetails" in result:
            raise AssertionError(result["exceptionDetails"]["exception"]["description"])
        return result["result"].get("value")

    def screenshot(self):
        """A PNG of the window."""
        return base64.b64decode(self._ask("Page.captureScreenshot", format="png")["data"])
