"""zelta-status, zelta-trace and the agent's --record with a card that programs use."""

import json
import os
import pathlib
import re
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import unittest

import stack
from stack import AGENT, BUILD, PIN, SOURCE, CardTest, Process, StackTest, run, wait_until

sys.path.insert(0, str(SOURCE / "scripts"))
import chromium  # noqa: E402  (its folder is known from here on)

STATUS = BUILD / "bin" / "zelta-status"
TRACE = BUILD / "bin" / "zelta-trace"
PIN_DIGITS = PIN.encode().hex().upper()
MASKED = "*" * len(PIN_DIGITS)
SAMPLE = SOURCE / "tests" / "tools" / "trace" / "sample.jsonl"


def records(path):
    return [json.loads(line) for line in path.read_text().splitlines()]


def exchanges(path):
    return [(record["command"], record["response"]) for record in records(path)
            if record["kind"] == "transmit"]


def setUpModule():
    stack.enter_namespace()


class Status(CardTest):
    def status(self, *options, check=True):
        return run(STATUS, "--control", self.stack.control, *options,
                   env=self.stack.environment, check=check)

    def test_table_has_reader_card_agent_and_log(self):
        run("opensc-tool", "--send-apdu", "00A4040007A0000000790100")
        text = self.status().stdout
        for line in (r"reader:    0", r"name:      Zelta Virtual SmartCard Reader 00 00",
                     r"state:     (powered|negotiable|specific)", r"protocol:  T=[01]",
                     r"driver:    connected", r"back end:  emulated", r"card:      in",
                     r"ATR:       3B[0-9A-F]+", r"  protocols   T=0.*", r"  clock       at most .* MHz .*",
                     r"  rate        at most \d+ bit/s .*", r"  historical  [0-9A-F]+ \".*\".*",
                     r"session:   [0-9a-f-]{36}",
                     r"counts:    [1-9]\d* APDUs, 0 errors, 0 time-outs, 0 reconnects",
                     rf"log file:  {self.stack.logs}/zelta_vsc_.*\.txt"):
            self.assertRegex(text, rf"(?m)^{line}$")

    def test_json_is_one_object(self):
        status = json.loads(self.status("--json").stdout)
        self.assertEqual((status["reader"], status["card"], status["connected"]), (0, "in", True))
        self.assertEqual(status["name"], "Zelta Virtual SmartCard Reader 00 00")
        self.assertIn("T=0", status["atr_decoded"]["protocols"])

    def test_watch_shows_each_change(self):
        log = self.folder / "watch.log"
        watch = Process([STATUS, "--control", self.stack.control, "--watch", "--json"], log,
                        self.stack.environment)
        self.addCleanup(watch.end)
        wait_until(lambda: '"card":"in"' in log.read_text(), "the first status")
        self.stack.ctl("remove")
        wait_until(lambda: re.search(r'"card":"out".*"state":"absent"', log.read_text()),
                   "the removal")

    def test_without_an_agent_it_says_so_and_fails(self):
        missing = run(STATUS, "--control", self.folder / "none", env=self.stack.environment,
                      check=False)
        self.assertEqual(missing.returncode, 1)
        self.assertIn(f"agent:     no agent is running at {self.folder}/none\n", missing.stdout)
        self.assertIn("state:     ", missing.stdout)


class StatusAmongOthers(StackTest):
    """Beside two readers of another handler, one with a name that begins as ours."""

    def setUp(self):
        super().setUp()
        readers = self.stack.folder / "reader.conf.d"
        for name, device in (("Null", "null:0"), ("Zelta Virtual SmartCard Reader too", "null:1")):
            (readers / device).write_text(f'FRIENDLYNAME "{name}"\nDEVICENAME {device}\n'
                                          f'LIBPATH {BUILD / "lib" / "libifdnull.so"}\n')
        script = self.stack.folder / "script"
        script.write_text("atr 3B00\notherwise 9000\n")
        self.stack.start_pcscd()
        self.stack.run_agent("--backend", "script", "--script", script)
        self.name = self.wait_for("negotiable|specific|powered|present")["name"]

    def status(self, *options):
        return run(STATUS, "--control", self.stack.control, *options, env=self.stack.environment,
                   check=False).stdout

    def wait_for(self, state):
        found = {}

        def is_so():
            found.update(json.loads(self.status("--json")))
            return re.fullmatch(state, found["state"] or "")
        wait_until(is_so, state)
        return found

    def connect(self, name, mode):
        # It connects to pcscd when it is imported.
        from smartcard import scard
        context = scard.SCardEstablishContext(scard.SCARD_SCOPE_SYSTEM)[1]
        self.addCleanup(scard.SCardReleaseContext, context)
        result, card, protocol = scard.SCardConnect(context, name, getattr(scard, mode),
                                                    scard.SCARD_PROTOCOL_T0)
        self.assertEqual(result, scard.SCARD_S_SUCCESS)

        def transmit():
            self.assertEqual(scard.SCardTransmit(card, protocol, [0, 0xB0, 0, 0, 1]),
                             [scard.SCARD_S_SUCCESS, [0x90, 0x00]])
        return scard, card, transmit

    def test_the_agents_reader_is_told_from_another_of_nearly_its_name(self):
        listed = run("opensc-tool", "--list-readers").stdout
        self.assertEqual(listed.count("Zelta Virtual SmartCard Reader"), 2, listed)
        self.stack.ctl("remove")
        self.wait_for("absent")
        after = run("opensc-tool", "--list-readers").stdout
        [changed] = set(after.splitlines()) - set(listed.splitlines())
        self.assertTrue(changed.endswith(f" {self.name}"), changed)
        self.assertIn("name:      - (pcscd lists no such reader)", self.status("--reader", "1"))

    def test_program_that_has_the_reader_for_itself_keeps_it_and_its_card(self):
        scard, card, transmit = self.connect(self.name, "SCARD_SHARE_EXCLUSIVE")
        watch = Process([STATUS, "--control", self.stack.control, "--watch"],
                        self.stack.folder / "watch.log", self.stack.environment)
        self.addCleanup(watch.end)
        for _ in range(3):
            text = self.status()
            self.assertIn("state:     present\n"
                          "protocol:  - (a program has the reader for itself)\n", text)
            transmit()  # neither refused nor told of a reset
        scard.SCardDisconnect(card, scard.SCARD_LEAVE_CARD)
        self.wait_for("negotiable|specific|powered")

    def test_transaction_of_a_program_is_not_waited_for(self):
        scard, card, transmit = self.connect(self.name, "SCARD_SHARE_SHARED")
        self.assertEqual(scard.SCardBeginTransaction(card), scard.SCARD_S_SUCCESS)
        self.assertIn(f"name:      {self.name}\n", self.status())
        transmit()
        self.assertEqual(scard.SCardEndTransaction(card, scard.SCARD_LEAVE_CARD),
                         scard.SCARD_S_SUCCESS)


class Trace(CardTest):
    def follow(self, *options):
        """A trace that has begun."""
        log = self.folder / "trace.log"
        trace = Process([TRACE, "--control", self.stack.control, *options], log, self.home)
        wait_until(lambda: " reader 0, " in log.read_text(), "the trace's beginning")
        return trace, log

    def test_exchange_is_shown_saved_and_made_a_page_without_the_pin(self):
        saved, page = self.folder / "saved", self.folder / "page.html"
        trace, log = self.follow("--save", saved, "--html", page)
        self.run_here("pkcs15-tool", "--verify-pin", "--pin", PIN)
        self.stack.ctl("remove")
        self.stack.ctl("insert")
        wait_until(lambda: "card in\n" in log.read_text(), "the insertion")
        self.assertEqual(trace.end(signal.SIGINT)[0], 0)
        text = log.read_text()
        self.assertRegex(text, r"(?m)^\d\d:\d\d:\d\d\.\d{3} +[\d.]+ (us|ms)  > ISO SELECT .*"
                               r"< (9000 success|6A82 file or application not found)")
        self.assertRegex(text, rf"> ISO VERIFY PIN \[8\] {re.escape(MASKED)} < 9000 success")
        self.assertIn("-- card out\n", text)
        for shown in (text, saved.read_text(), page.read_text()):
            self.assertNotIn(PIN_DIGITS, shown)
        self.assertEqual(saved.stat().st_mode & 0o777, 0o600)
        # The saved trace is shown again.
        self.assertEqual(run(TRACE, saved).stdout, text)
        run(TRACE, saved, "--html", self.folder / "again.html")
        self.assertEqual((self.folder / "again.html").read_text(), page.read_text())

    def test_secrets_are_shown_to_whom_asks_twice(self):
        once = run(TRACE, "--control", self.stack.control, "--show-secrets", check=False)
        self.assertEqual(once.returncode, 2)
        self.assertIn("only if --show-secrets is given twice", once.stdout)
        saved = self.folder / "saved"
        trace, _ = self.follow("--save", saved, "--show-secrets", "--show-secrets")
        self.run_here("pkcs15-tool", "--verify-pin", "--pin", PIN)
        wait_until(lambda: PIN_DIGITS in saved.read_text(), "the PIN")
        trace.end(signal.SIGINT)

    def test_count_ends_the_trace_after_so_many_exchanges(self):
        trace, log = self.follow("--count", "1")
        self.run_here("opensc-tool", "--send-apdu", "00A4040007A0000000790100")
        self.assertEqual(trace.process.wait(stack.LIMIT), 0)
        self.assertEqual(len(re.findall(r" > ISO ", log.read_text())), 1)

    def test_end_of_the_agent_ends_the_trace(self):
        trace, _ = self.follow()
        self.stack.agent.end()
        self.assertEqual(trace.process.wait(stack.LIMIT), 0)

    def test_without_an_agent_it_fails(self):
        missing = run(TRACE, "--control", self.folder / "none", check=False)
        self.assertEqual((missing.returncode, missing.stdout),
                         (1, f"zelta-trace: no agent is running at {self.folder}/none\n"))


class StrangeAgent(unittest.TestCase):
    def trace_of(self, answer):
        """Exit code and output of a trace that gets this from its agent."""
        folder = self.enterContext(tempfile.TemporaryDirectory())
        listener = self.enterContext(socket.socket(socket.AF_UNIX))
        listener.settimeout(stack.LIMIT)
        path = pathlib.Path(folder) / "control"
        listener.bind(str(path))
        listener.listen()
        trace = self.enterContext(subprocess.Popen(
            [TRACE, "--control", path], stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
            text=True))
        with listener.accept()[0] as agent:
            self.assertEqual(agent.recv(64), b"trace\n")
            agent.sendall(answer)
        output = trace.communicate(timeout=stack.LIMIT)[0]
        return trace.returncode, output

    def test_refusal_cannot_control_the_terminal(self):
        self.assertEqual(self.trace_of(b"error: \x1b[2Jno\n"),
                         (1, "zelta-trace: the agent: \\x1b[2Jno\n"))

    def test_line_without_an_end_ends_it(self):
        self.assertEqual(self.trace_of(b"ok\n" + ((1 << 20) + 1) * b"x"),
                         (1, "zelta-trace: the agent sent a line of more than 1 MiB\n"))


class Record(StackTest):
    COMMANDS = (["opensc-tool", "--atr"],
                ["opensc-tool", "--send-apdu", "00A4040007A0000000790100"],
                ["pkcs11-tool", "--module", None, "--list-objects", "--type", "cert"],
                ["pkcs15-tool", "--verify-pin", "--pin", PIN])

    def use(self, name, *agent_options):
        """What the programs print with this card, and the exchanges with it."""
        self.stack.run_agent(*agent_options)
        self.stack.wait_for_card()
        saved = self.stack.folder / f"{name}.jsonl"
        trace = Process([TRACE, "--control", self.stack.control, "--save", saved],
                        self.stack.folder / "trace.log", self.stack.environment)
        wait_until(lambda: saved.exists() and saved.read_text(), "the trace's beginning")
        home = dict(os.environ, HOME=str(self.stack.folder), LC_ALL="C.UTF-8")
        texts = [run(*(word or stack.pkcs11_module() for word in command), env=home).stdout
                 for command in self.COMMANDS]
        # Once the trace has the removal, it has everything before it.
        self.stack.ctl("remove")
        wait_until(lambda: '"kind":"remove"' in saved.read_text(), "the removal")
        trace.end(signal.SIGINT)
        self.assertEqual(self.stack.agent.end()[0], 0)
        return texts, exchanges(saved)

    def test_played_record_answers_as_the_card_did(self):
        script = self.stack.folder / "card.txt"
        self.stack.make_card()
        self.stack.start_pcscd()
        texts, answers = self.use("live", "--db", self.stack.folder / "card", "--record", script)
        text = script.read_text()
        self.assertNotIn(PIN_DIGITS, text)
        self.assertRegex(text, r"(?m)^command 00200000 \* -> 9000$")
        self.assertEqual(script.stat().st_mode & 0o777, 0o600)
        played = self.use("played", "--backend", "script", "--script", script)
        self.assertEqual(played, (texts, answers))
        self.assertGreater(len(answers), 20)

    def test_file_that_cannot_be_written_is_told_at_the_start(self):
        (self.stack.folder / "script").write_text("atr 3B00\n")
        refused = run(AGENT, "--control", self.stack.control, "--backend", "script", "--script",
                      self.stack.folder / "script", "--record", self.stack.folder / "none" / "x",
                      check=False)
        self.assertEqual(refused.returncode, 1)
        self.assertIn("none/x cannot be written", refused.stdout)


def size_of(picture):
    """Width and height of a PNG in pixels."""
    return struct.unpack(">8x4x4sII", picture[:24])[1:] if picture[1:4] == b"PNG" else None


@unittest.skipUnless(chromium.is_installed(), "chromium is not installed")
class Page(StackTest):
    """The page of a saved trace, run in Chromium."""

    def setUp(self):
        super().setUp()
        self.page = self.stack.folder / "page.html"
        run(TRACE, SAMPLE, "--html", self.page)
        self.browser = self.enterContext(chromium.Chromium(self.page.as_uri(), 1000, 800))

    def count(self, selector):
        return self.browser.evaluate(
            "return document.querySelectorAll(arguments[0]).length;", selector)

    def test_time_line_has_a_bar_for_each_exchange_session_and_insertion(self):
        sample = records(SAMPLE)
        exchanged = [record for record in sample if "duration_us" in record]
        self.assertEqual(self.count("rect.bar.exchange"), len(exchanged))
        self.assertEqual(self.count("rect.bar.session"), 1)
        self.assertEqual(self.count("rect.bar.card"), 2)
        self.assertEqual(self.count("rect.exchange.bad"), 1)
        self.assertEqual(self.count("#list tr"), len(sample))
        self.assertEqual(self.count("rect.gap"), 1)
        self.assertIn("4 APDUs, 1 of them refused", self.browser.evaluate(
            "return document.getElementById('summary').textContent;"))

    def test_click_on_a_bar_opens_its_exchange(self):
        details = "return document.getElementById('details').textContent;"
        self.assertNotIn("VERIFY", self.browser.evaluate(details))
        self.browser.evaluate(
            "[...document.querySelectorAll('rect.exchange')].find(bar => bar.getAttribute("
            "'aria-label').startsWith('VERIFY')).dispatchEvent(new MouseEvent('click'));")
        shown = self.browser.evaluate(details)
        for part in ("VERIFY PIV PIN", "63C2 wrong PIN or key, 2 tries left", "0020008008" + MASKED,
                     "00 ISO"):
            self.assertIn(part, shown)
        self.assertEqual(self.count("rect.bar.open"), 1)

    def test_wider_makes_the_bars_wider(self):
        width = "return document.querySelector('#frame svg').width.baseVal.value;"
        before = self.browser.evaluate(width)
        self.browser.evaluate("document.getElementById('wider').click();")
        self.assertGreater(self.browser.evaluate(width), before)

    def test_text_from_outside_stays_text_and_nothing_is_fetched(self):
        self.assertEqual(self.browser.evaluate("return typeof window.harmed;"), "undefined")
        self.assertEqual(self.count("#list img"), 0)
        self.assertIn("<img src=x onerror=harmed=1></script>", self.browser.evaluate(
            "return document.getElementById('summary').textContent;"))
        self.assertEqual(self.browser.evaluate(
            "return performance.getEntriesByType('resource').length;"), 0)

    def test_picture_in_the_docs_is_made_by_its_script(self):
        picture = self.stack.folder / "trace.png"
        run(SOURCE / "scripts" / "trace_screenshot.py", picture)
        self.assertEqual(size_of(picture.read_bytes()),
                         size_of((SOURCE / "docs" / "trace.png").read_bytes()))
        # An empty page makes a far smaller file.
        self.assertGreater(picture.stat().st_size, 30000)


if __name__ == "__main__":
    unittest.main(verbosity=2)
