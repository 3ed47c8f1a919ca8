"""The whole path with the real pcscd and the programs that people use."""

import os
import pathlib
import re
import signal
import subprocess
import tempfile
import threading
import unittest
import unittest.mock

import stack
from stack import PIN, StackTest, run

# pyscard connects to pcscd when it is imported, so its users import it when pcscd is up.


def setUpModule():
    stack.enter_namespace()


def pkcs11(*words, **options):
    return run("pkcs11-tool", "--module", stack.pkcs11_module(), *words, **options)


def certificate_ids():
    ids = re.findall(r"^ *ID: *([0-9a-f]+)", pkcs11("-O", "--type", "cert").stdout, re.M)
    return sorted(set(ids))

# The output of `./zelta status` while pcscd sees a card.
PRESENT = "state:     (present|powered|negotiable|specific)"


class EndToEnd(StackTest):
    def sign_and_verify(self, key):
        folder = self.stack.folder
        (folder / "message").write_bytes(os.urandom(200))
        pkcs11("--read-object", "--type", "cert", "--id", key, "-o", folder / "cert")
        public = run("openssl", "x509", "-inform", "der", "-in", folder / "cert", "-noout",
                     "-pubkey").stdout
        (folder / "public").write_text(public)
        pkcs11("--login", "--pin", PIN, "--sign", "--id", key, "-m", "SHA256-RSA-PKCS",
               "-i", folder / "message", "-o", folder / "signature")
        run("openssl", "dgst", "-sha256", "-verify", folder / "public",
            "-signature", folder / "signature", folder / "message")

    def test_opensc_tool_shows_atr_and_card_name(self):
        self.stack.start().wait_for_card()
        self.assertIn("3b:", run("opensc-tool", "-a").stdout)
        self.assertIn("CAC", run("opensc-tool", "-n").stdout)

    def test_reader_is_listed_without_an_agent(self):
        self.stack.start_pcscd()
        self.assertRegex(run("opensc-tool", "--list-readers").stdout,
                         r"0 +No +Zelta Virtual SmartCard Reader 00 00")

    def test_three_certificates_are_listed(self):
        self.stack.start().wait_for_card()
        self.assertEqual(len(certificate_ids()), 3)

    def test_every_key_signs_and_openssl_verifies(self):
        self.stack.start().wait_for_card()
        keys = certificate_ids()
        self.assertEqual(len(keys), 3)
        for key in keys:
            self.sign_and_verify(key)

    def test_wrong_pin_is_refused_and_the_right_one_still_works(self):
        self.stack.start().wait_for_card()
        refused = pkcs11("--login", "--pin", "87654321", "-O", check=False)
        self.assertNotEqual(refused.returncode, 0)
        self.assertIn("CKR_PIN_INCORRECT", refused.stdout)
        self.sign_and_verify(certificate_ids()[0])

    def test_ssh_keygen_lists_the_keys(self):
        self.stack.start().wait_for_card()
        keys = run("ssh-keygen", "-D", stack.pkcs11_module()).stdout
        self.assertEqual(len(re.findall(r"^ssh-rsa ", keys, re.M)), 3)

    def test_scriptor_exchanges_apdus(self):
        self.stack.start().wait_for_card()
        # The card is a T=0 one: its answer to a selection is fetched.
        answer = run("scriptor", input="reset\n00A4040007A0000000790100\n00C000000D\n").stdout
        self.assertRegex(answer, r"< 61 0D\b")
        self.assertRegex(answer, r"< ([0-9A-F]{2} ){13}90 00")

    def test_card_that_comes_with_the_windows_archive_answers(self):
        self.stack.start_pcscd()
        self.stack.run_agent("--backend", "script",
                             "--script", stack.SOURCE / "packaging" / "windows" / "card.txt")
        self.stack.wait_for_card()
        answer = run("scriptor", input="00A4040005A000000001\n0084000008\n00B0000000\n").stdout
        self.assertRegex(answer, r"< 90 00\b")
        self.assertRegex(answer, r"< 01 23 45 67 89 AB CD EF 90 00\b")
        self.assertIn("<" + bytes(range(256)).hex().upper() + "9000", re.sub(r"\s", "", answer))

    def test_card_taken_out_and_put_in_is_seen(self):
        self.stack.start().wait_for_card()
        self.stack.ctl("remove")
        stack.wait_until(lambda: " No " in run("opensc-tool", "-l").stdout, "the removal")
        self.stack.ctl("insert")
        self.stack.wait_for_card()
        self.sign_and_verify(certificate_ids()[0])

    def test_agent_killed_and_started_again_brings_its_card_back(self):
        self.stack.start().wait_for_card()
        self.stack.agent.end(signal.SIGKILL)
        stack.wait_until(lambda: " No " in run("opensc-tool", "-l").stdout, "the removal")
        self.stack.start_agent()
        self.stack.wait_for_card()
        self.sign_and_verify(certificate_ids()[0])

    def test_pcscd_started_again_under_a_running_agent_finds_the_card(self):
        self.stack.start().wait_for_card()
        for how in (signal.SIGTERM, signal.SIGINT, signal.SIGKILL):
            code, seconds = self.stack.pcscd.end(how)
            self.assertLess(seconds, 10, f"end by {how.name}")
            # Expects that pcscd ended with any exit code, not by a crash.
            self.assertTrue(code >= 0 or code == -how.value, f"end by {how.name}: {code}")
            self.stack.start_pcscd()
            self.stack.wait_for_card()
        self.assertIsNone(self.stack.agent.process.poll())

    def test_monitor_sees_100_of_100_quick_swaps(self):
        self.stack.start().wait_for_card()
        from smartcard.scard import (SCARD_SCOPE_USER, SCARD_STATE_PRESENT, SCARD_STATE_UNAWARE,
                                     SCardEstablishContext, SCardGetStatusChange, SCardListReaders)

        _, context = SCardEstablishContext(SCARD_SCOPE_USER)
        _, readers = SCardListReaders(context, [])

        def status(known, limit):
            result, states = SCardGetStatusChange(context, limit, [(readers[0], known)])
            self.assertEqual(result, 0, "no change within the limit")
            return states[0][1]

        # The high half of the state counts insertions and removals.
        state = status(SCARD_STATE_UNAWARE, 0)
        for swap in range(1, 101):
            begin = state >> 16
            self.stack.ctl("remove")
            self.stack.ctl("insert")
            while not (state & SCARD_STATE_PRESENT and (state >> 16) - begin >= 2):
                state = status(state, 20000)
            self.assertEqual((state >> 16) - begin, 2, f"swap {swap}")

    def test_log_explains_the_session(self):
        self.stack.start("--session-id", "11111111-2222-3333-4444-555555555555").wait_for_card()
        run("opensc-tool", "-n")
        text = self.stack.log_text()
        self.assertIn("Vornhalt Virtual Smartcard Reader driver build", text)
        self.assertIn("Command named pipe connected", text)
        self.assertRegex(text, r"11111111-2222-3333-4444-555555555555 0 +<INFO> .*\[TRSM\]")


class ZeltaCommand(unittest.TestCase):
    """The work of `./zelta` once everything is built."""

    def setUp(self):
        self.run_dir = pathlib.Path("/run/zelta-up")
        self.up = None
        self.lines = []

    def tearDown(self):
        if self.up is not None:
            if self.up.poll() is None:
                self.up.send_signal(signal.SIGTERM)
            self.up.communicate(timeout=stack.LIMIT)

    def zelta(self, *words, **options):
        return run(stack.SOURCE / "zelta", *words, **options)

    def start(self, until="Ctrl-C ends it."):
        self.up = subprocess.Popen([stack.SOURCE / "zelta", "up", "--run-only"],
                                   stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                   stderr=subprocess.STDOUT, text=True, start_new_session=True)
        timer = threading.Timer(stack.LIMIT, self.up.kill)
        timer.start()
        for line in self.up.stdout:
            self.lines.append(line)
            if until in line:
                timer.cancel()
                return
        self.fail("up ended:\n" + "".join(self.lines))

    def press_ctrl_c(self):
        """Interrupts as a terminal does: the whole process group gets the signal. Returns the exit
        code."""
        os.killpg(self.up.pid, signal.SIGINT)
        self.lines.append(self.up.communicate(timeout=stack.LIMIT)[0])
        return self.up.returncode

    def assert_run_is_clean(self):
        # mount(8) has its own folder there.
        self.assertEqual(set(os.listdir("/run")) - {"mount"}, {"pcscd"})

    def assert_nothing_left(self):
        self.assert_run_is_clean()
        processes = run("ps", "-o", "stat=,comm=", "-s", self.up.pid, check=False).stdout
        # A process that has ended may not have been reaped yet.
        self.assertEqual([line for line in processes.splitlines() if line[0] != "Z"], [])

    def start_system_pcscd(self):
        """Starts a pcscd without readers in place of the system's. Ended after the test."""
        folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        (folder / "reader.conf.d").mkdir()
        pcscd = stack.Process(["pcscd", "--foreground", "--config", folder / "reader.conf.d"],
                              folder / "pcscd.log", dict(os.environ))
        self.addCleanup(pcscd.end)
        stack.wait_until(lambda: os.path.exists("/run/pcscd/pcscd.comm"), "pcscd's socket")
        return pcscd

    def test_up_check_signs_and_ends_with_nothing_left(self):
        text = self.zelta("up", "--run-only", "--check").stdout
        self.assertIn("All signatures are good.", text)
        self.assertEqual(text.count("good signature"), 3)
        self.assert_run_is_clean()

    def test_up_stays_until_interrupted_and_leaves_nothing(self):
        self.start()
        text = "".join(self.lines)
        self.assertIn("Reader: Zelta Virtual SmartCard Reader 00 00", text)
        self.assertIn("ATR:    3b:", text)
        folder = self.enterContext(tempfile.TemporaryDirectory())
        hints = [line for line in self.lines if re.match("  (echo|ssh-keygen) ", line)]
        self.assertEqual(len(hints), 2, text)
        for hint in hints:
            run("sh", "-e", "-c", hint, cwd=folder)
        self.assertEqual(os.path.getsize(os.path.join(folder, "signature")), 256)
        self.assertEqual(self.press_ctrl_c(), 0)
        self.assertIn("Ending the agent and pcscd.", "".join(self.lines))
        self.assert_nothing_left()

    def test_up_interrupted_on_its_way_leaves_nothing(self):
        for line in ("Making the demo card", "Starting the agent", "Waiting for the card"):
            self.start(until=line)
            self.assertEqual(self.press_ctrl_c(), 130, "".join(self.lines))
            self.assertIn("interrupted; ended: ", self.lines[-1])
            self.assert_nothing_left()

    def test_up_beside_the_systems_pcscd_leaves_that_alone(self):
        system = self.start_system_pcscd()
        text = self.zelta("up", "--run-only", "--check").stdout
        self.assertEqual(text.count("good signature"), 3)
        self.assert_run_is_clean()
        self.assertIsNone(system.process.poll())
        self.assertIn("No smart card readers found.", run("opensc-tool", "-l").stdout)

    def test_reader_beside_the_systems_pcscd_is_reached_as_up_says(self):
        system = self.start_system_pcscd()
        self.start()
        said = re.search(r"export (PCSCLITE_CSOCK_NAME)=(\S+)", "".join(self.lines))
        reader = "Zelta Virtual SmartCard Reader 00 00"
        own = run("opensc-tool", "-l", env=dict(os.environ, **{said.group(1): said.group(2)}))
        self.assertIn(reader, own.stdout)
        self.assertNotIn(reader, run("opensc-tool", "-l").stdout)
        self.assertRegex(self.zelta("status").stdout, PRESENT)
        self.assertEqual(self.press_ctrl_c(), 0)
        self.assert_nothing_left()
        self.assertIsNone(system.process.poll())
        self.assertIn("No smart card readers found.", run("opensc-tool", "-l").stdout)

    def test_up_beside_an_installed_reader_is_found_by_users(self):
        os.mkdir("/run/zelta", 0o700)  # the installed driver's
        self.addCleanup(os.rmdir, "/run/zelta")
        with unittest.mock.patch.dict(os.environ, SUDO_GID="65534"):
            self.start()
        user = ("setpriv", "--reuid=65534", "--regid=65534", "--clear-groups")
        self.assertEqual(run(*user, "cat", self.run_dir / "pcscd.socket").stdout,
                         "/run/pcscd/pcscd.comm\n")
        taken = run(*user, "flock", "--shared", "--nonblock", self.run_dir / "up.pid", "true",
                    check=False)
        self.assertEqual((taken.returncode, taken.stdout), (1, ""))
        run(*user, "sh", "-c", f"cat {self.run_dir}/data/Vornhalt/ZeltaAgent/logs/*.txt")

    def test_status_card_and_down_reach_the_running_reader(self):
        self.start()
        self.assertRegex(self.zelta("status").stdout, PRESENT)
        self.zelta("card", "remove")
        stack.wait_until(lambda: "state:     absent" in self.zelta("status").stdout, "the removal")
        self.zelta("card", "insert")
        stack.wait_until(lambda: re.search(PRESENT, self.zelta("status").stdout),
                         "the insertion")
        self.assertIn("[IPRE]", self.zelta("logs", "--no-follow", "--all", "--tag", "IPRE").stdout)
        second = self.zelta("up", "--run-only", check=False)
        self.assertEqual(second.returncode, 1)
        self.assertIn("already up", second.stdout)
        self.assertIn("Down.", self.zelta("down").stdout)
        self.assertEqual(self.up.wait(stack.LIMIT), 0)

    def test_commands_without_a_running_reader_say_so(self):
        for words in (["status"], ["card", "insert"]):
            result = self.zelta(*words, check=False)
            self.assertEqual(result.returncode, 1)
            self.assertIn("no reader is up", result.stdout)
        self.assertIn("Nothing is up.", self.zelta("down").stdout)

    def test_bad_use_is_refused(self):
        for words in (["fly"], ["up", "--fast"], ["card", "eat"], ["down", "now"], ["test", "x"],
                      ["soak", "--stops", "0"], ["soak", "--stops", "1", "--minutes", "1"],
                      ["soak", "--seed"], ["soak", "0"], ["soak", "2", "--stops", "1"],
                      ["bench", "x"], ["bench", "--page", "/none"]):
            result = self.zelta(*words, check=False)
            self.assertEqual(result.returncode, 2, words)
        self.assertEqual(self.zelta("--help").returncode, 0)
        self.assertRegex(self.zelta("--version").stdout, r"^zelta \d+\.\d+\.\d+$")


if __name__ == "__main__":
    unittest.main(verbosity=2)
