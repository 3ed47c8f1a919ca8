"""A headless Firefox, driven by its own remote protocol, Marionette."""

import json
import os
import socket

import stack

SETTINGS = {
    "marionette.port": 0,  # the kernel's choice
    "security.default_personal_cert": "Select Automatically",
    "services.settings.server": "http://127.0.0.1:9/",  # nothing is fetched from elsewhere
    "app.normandy.enabled": False,
    "network.captive-portal-service.enabled": False,
    "network.connectivity-service.enabled": False,
}

# The prompt keeps the thread of the browser's sockets waiting, so a script inside the browser does
# what its user would.
ANSWER_PROMPTS = """
  const pin = arguments[0];
  Services.obs.addObserver(dialog => {
    const document = dialog.document;
    Services.prefs.setStringPref(
        "test.asked", document.getElementById("infoBody").textContent);
    document.getElementById("password1Textbox").value = pin;
    document.getElementById("commonDialog").acceptDialog();
  }, "common-dialog-loaded");
"""


class Firefox:
    def __init__(self, profile, home):
        lines = (f"user_pref({json.dumps(name)}, {json.dumps(value)});\n"
                 for name, value in SETTINGS.items())
        (profile / "user.js").write_text("".join(lines))
        self._process = stack.Process(
            ["firefox-esr", "--headless", "--no-remote", "--profile", profile, "--marionette",
             "--remote-allow-system-access"],
            home / "firefox.log", dict(os.environ, HOME=str(home), MOZ_CRASHREPORTER_DISABLE="1"))
        port = profile / "MarionetteActivePort"
        stack.wait_until(lambda: port.exists() and port.read_text().strip(), "Firefox")
        self._socket = socket.create_connection(("127.0.0.1", int(port.read_text())), stack.LIMIT)
        self._stream = self._socket.makefile("rb")
        self._messages = 0
        self._read()  # the greeting
        self._ask("WebDriver:NewSession")

    def close(self):
        self._socket.close()
        self._process.end()

    def _read(self):
        length = b""
        while not length.endswith(b":"):
            byte = self._stream.read(1)
            if not byte:
                raise AssertionError("Firefox has closed the connection")
            length += byte
        return json.loads(self._stream.read(int(length[:-1])))

    def _ask(self, name, **parameters):
        self._messages += 1
        message = json.dumps([0, self._messages, name, parameters]).encode()
        self._socket.sendall(b"%d:%s" % (len(message), message))
        _, _, error, result = self._read()
        if error:
            raise AssertionError(f"{name}: {error['error']}: {error['message']}")
        return result

    def _run_inside(self, script, *words):
        self._ask("Marionette:SetContext", value="chrome")
        result = self._ask("WebDriver:ExecuteScript", script=script, args=words)
        self._ask("Marionette:SetContext", value="content")
        return result["value"]

    def answer_prompts(self, pin):
        self._run_inside(ANSWER_PROMPTS, pin)

    def asked(self):
        """The text of the last prompt."""
        return self._run_inside('return Services.prefs.getStringPref("test.asked", "");')

    def go_to(self, url):
        self._ask("WebDriver:Navigate", url=url)

    def page(self):
        """The source of the page; empty if the browser is between two documents."""
        script = "return document.documentElement?.outerHTML;"
        return self._ask("WebDriver:ExecuteScript", script=script, args=())["value"] or ""
