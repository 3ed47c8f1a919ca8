"""A card on another machine: its agent reaches the one at the driver over ssh.

Both machines are this one. The user at the driver is no more than a member of the group zelta.
"""

import json
import os
import pathlib
import shutil
import signal
import struct
import sys
import time
import unittest

import stack
from sshd import FIRST_ID, Sshd, add_users
from stack import AGENT, BUILD, PIN, Process, StackTest, run, wait_until

MEMBER, STRANGER = "cardholder", "stranger"
HERE = pathlib.Path(__file__).parent
READER = "Zelta Virtual SmartCard Reader 00 00"
SELECT = list(bytes.fromhex("00A4040007A0000000790300"))
EVENTS_SHIFT = 16  # where pcscd counts a reader's insertions and removals


def far_agents():
    """Process ids of the agents that ssh has started for the member, in this test."""
    found = []
    here = os.readlink("/proc/self/ns/mnt")
    for folder in pathlib.Path("/proc").glob("[0-9]*"):
        try:
            words = (folder / "cmdline").read_bytes().split(b"\0")
            if (folder.stat().st_uid == FIRST_ID and words[0].endswith(b"zelta-agent") and
                    os.readlink(folder / "ns" / "mnt") == here):
                found.append(int(folder.name))
        except (FileNotFoundError, ProcessLookupError):
            pass
    return found


def setUpModule():
    stack.enter_namespace()


class RemoteTest(StackTest):
    @classmethod
    def setUpClass(cls):
        add_users(MEMBER, STRANGER, group="zelta", members=[MEMBER])

    def setUp(self):
        super().setUp()
        self.folder = self.stack.folder
        self.stack.make_card()
        programs = self.folder / "programs"
        programs.mkdir()
        shutil.copy(AGENT, programs)
        run("ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", self.folder / "key")
        self.start_sshd(programs)
        wrapper = self.folder / "ssh"
        wrapper.write_text(f'#!/bin/sh\nexec {sys.executable} {HERE}/cutting_ssh.py '
                           f'{self.folder} "$@"\n')
        wrapper.chmod(0o755)
        self.near = None

    def tearDown(self):
        if self.near is not None:
            self.near.end()
        wait_until(lambda: not far_agents(), "the end of the agent at the driver")
        super().tearDown()

    def start_sshd(self, programs):
        self.sshd = Sshd(self.folder, self.folder / "key.pub",
                         f"SetEnv PATH={programs}:/usr/bin:/bin")
        (self.folder / "ssh_config").write_text(
            f"IdentityFile {self.folder}/key\n"
            "IdentitiesOnly yes\n"
            f"UserKnownHostsFile {self.folder}/known\n"
            "StrictHostKeyChecking yes\n"
            "BatchMode yes\n")

    def start_near(self, user=MEMBER, *options):
        self.near = Process(
            [AGENT, "--to", f"ssh://{user}@127.0.0.1:{self.sshd.port}/0",
             "--ssh", self.folder / "ssh", "--db", self.folder / "card",
             "--pin-file", self.folder / "pin", "--verbose", *options],
            self.folder / "near.log", self.stack.environment, start_new_session=True)

    def near_log(self):
        return self.near.log.read_text()

    def start(self):
        self.stack.start_pcscd()
        self.start_near()
        self.stack.wait_for_card()

    def expect_signature(self):
        message = self.folder / "message"
        message.write_text("hello")
        key, signature = self.folder / "public", self.folder / "signature"
        run("pkcs11-tool", "--read-object", "--type", "pubkey", "--id", "0001", "-o", key)
        run("pkcs11-tool", "--login", "--pin", PIN, "--sign", "--id", "0001",
            "-m", "SHA256-RSA-PKCS", "-i", message, "-o", signature)
        self.assertIn("Verified OK", run("openssl", "dgst", "-sha256", "-verify", key, "-keyform",
                                         "DER", "-signature", signature, message).stdout)

    def cut_next(self, request):
        (self.folder / "cut").write_text(request)

    def wait_for_line(self, count):
        wait_until(lambda: self.near_log().count("Connected to zelta-agent") == count,
                   f"line {count}")
        self.assertFalse((self.folder / "cut").exists())


class CardElsewhere(RemoteTest):
    def test_opensc_signs_with_it_through_an_agent_without_root(self):
        self.start()
        self.expect_signature()
        self.assertEqual(len(far_agents()), 1)
        self.assertIn(f"Accepted publickey for {MEMBER} from 127.0.0.1",
                      self.sshd.log.read_text())
        self.assertIn("Connected to zelta-agent 1.", self.near_log())

    def test_its_own_agent_is_asked_over_the_control_socket_that_it_was_given(self):
        control = self.folder / "near.ctl"
        self.stack.start_pcscd()
        self.start_near(MEMBER, "--control", control)
        self.stack.wait_for_card()

        def ctl(*words):
            return run(AGENT, "ctl", *words, "--control", control).stdout

        run("opensc-tool", "--name")
        status = json.loads(ctl("status", "--json"))
        self.assertEqual((status["connected"], status["backend"], status["card"], status["reader"],
                          status["reconnects"]), (True, "emulated", "in", 0, 0))
        self.assertGreater(status["apdus"], 0)
        ctl("remove")
        wait_until(lambda: run("opensc-tool", "--atr", check=False).returncode != 0, "no card")
        ctl("insert")
        self.stack.wait_for_card()
        shown = run(BUILD / "bin" / "zelta-status", "--control", control).stdout
        self.assertIn("driver:    connected\nback end:  emulated\ncard:      in\n", shown)
        trace = Process([BUILD / "bin" / "zelta-trace", "--control", control, "--count", "1"],
                        self.folder / "trace.log", self.stack.environment)
        wait_until(lambda: " reader 0, " in trace.log.read_text(), "the trace's beginning")
        run("opensc-tool", "--send-apdu", "00A4040007A0000000790300")
        self.assertEqual(trace.process.wait(stack.LIMIT), 0)
        self.assertIn(" > ISO SELECT", trace.log.read_text())
        self.near.end()
        self.assertFalse(control.exists())

    def test_interrupt_ends_both_ends(self):
        self.start()
        # As from a terminal: all processes that the agent has started also get it.
        os.killpg(self.near.process.pid, signal.SIGINT)
        self.assertEqual(self.near.process.wait(stack.LIMIT), 0)
        wait_until(lambda: not far_agents(), "the end of the agent at the driver")
        self.assertIn("info: Ending: interrupted", self.near_log())
        self.assertNotIn("calling again", self.near_log())
        wait_until(lambda: run("opensc-tool", "--atr", check=False).returncode != 0, "no card")

    def test_user_outside_the_group_is_told_so(self):
        self.stack.start_pcscd()
        self.start_near(STRANGER)
        wait_until(lambda: "only root and members of the group zelta may connect"
                   in self.near_log(), "the reason")

    def test_missing_agent_ends_the_program_and_is_named(self):
        self.start_sshd(self.folder / "nothing")
        self.start_near()
        wait_until(lambda: self.near.process.poll() is not None, "the agent's end")
        self.assertEqual(self.near.process.returncode, 1)
        self.assertIn("zelta-agent is not installed there, or not in the PATH", self.near_log())


    def test_agent_of_another_version_ends_the_program_and_both_are_named(self):
        other = self.folder / "other"
        other.mkdir()
        hello = struct.pack("<IBI4sI", 16, 1, 0, b"ZLTA", 2) + b"9.9"
        program = other / "zelta-agent"
        program.write_text("#!/usr/bin/python3\nimport sys\n"
                           f"sys.stdout.buffer.write({hello!r})\nsys.stdout.flush()\n"
                           "sys.stdin.read()\n")
        program.chmod(0o755)
        self.start_sshd(other)
        self.start_near()
        wait_until(lambda: self.near.process.poll() is not None, "the agent's end")
        self.assertEqual(self.near.process.returncode, 1)
        self.assertRegex(self.near_log(),
                         r"zelta-agent 9\.9 there speaks version 2 of the protocol, "
                         r"zelta-agent 1\.\S+ here version 1; the two must be the same")


class StalledRemoteLine(RemoteTest):
    def test_late_answer_is_replaced_in_time_and_thrown_away(self):
        self.start()
        # It connects to pcscd when it is imported.
        from smartcard import scard
        context = scard.SCardEstablishContext(scard.SCARD_SCOPE_SYSTEM)[1]
        self.addCleanup(scard.SCardReleaseContext, context)
        result, card, protocol = scard.SCardConnect(context, READER, scard.SCARD_SHARE_SHARED,
                                                    scard.SCARD_PROTOCOL_T0)
        self.assertEqual(result, scard.SCARD_S_SUCCESS)
        selected = scard.SCardTransmit(card, protocol, SELECT)
        (self.folder / "stall").write_text("6")
        begun = time.monotonic()
        self.assertEqual(scard.SCardTransmit(card, protocol, SELECT),
                         [scard.SCARD_S_SUCCESS, [0x6F, 0x00]])
        self.assertLess(time.monotonic() - begun, 5)
        # The late answer, which comes before this one, would differ.
        self.assertEqual(scard.SCardTransmit(card, protocol, [0x00, 0xFF, 0x00, 0x00]),
                         [scard.SCARD_S_SUCCESS, [0x6D, 0x00]])
        self.assertEqual(scard.SCardTransmit(card, protocol, SELECT), selected)
        self.assertFalse((self.folder / "stall").exists())
        self.assertEqual(self.near_log().count("Connected to zelta-agent"), 1)


class BrokenRemoteLine(RemoteTest):
    def test_in_the_middle_of_an_apdu_the_card_leaves_and_comes_back(self):
        self.start()
        # It connects to pcscd when it is imported.
        from smartcard import scard
        context = scard.SCardEstablishContext(scard.SCARD_SCOPE_SYSTEM)[1]
        self.addCleanup(scard.SCardReleaseContext, context)

        def events():
            _, states = scard.SCardGetStatusChange(context, 0, [(READER, 0)])
            return states[0][1]

        def connect():
            return scard.SCardConnect(context, READER, scard.SCARD_SHARE_SHARED,
                                      scard.SCARD_PROTOCOL_T0 | scard.SCARD_PROTOCOL_T1)

        result, card, protocol = connect()
        self.assertEqual(result, scard.SCARD_S_SUCCESS)
        result, selected = scard.SCardTransmit(card, protocol, SELECT)
        self.assertEqual(result, scard.SCARD_S_SUCCESS)
        before = events()

        self.cut_next("transmit")
        result, answer = scard.SCardTransmit(card, protocol, SELECT)
        failed = result != scard.SCARD_S_SUCCESS or answer == [0x69, 0x01]
        self.assertTrue(failed, (result, answer))
        self.wait_for_line(2)
        wait_until(lambda: events() & scard.SCARD_STATE_PRESENT, "the card")
        wait_until(lambda: (events() >> EVENTS_SHIFT) - (before >> EVENTS_SHIFT) >= 2,
                   "removal and insertion")
        scard.SCardDisconnect(card, scard.SCARD_LEAVE_CARD)

        wait_until(lambda: connect()[0] == scard.SCARD_S_SUCCESS, "a connection to the card")
        result, card, protocol = connect()
        self.assertEqual(scard.SCardTransmit(card, protocol, SELECT),
                         [scard.SCARD_S_SUCCESS, selected])
        scard.SCardDisconnect(card, scard.SCARD_LEAVE_CARD)
        self.expect_signature()

    def test_in_the_middle_of_an_atr_the_card_comes_back(self):
        self.start()
        atr = run("opensc-tool", "--atr").stdout
        self.near.process.send_signal(signal.SIGUSR1)
        wait_until(lambda: run("opensc-tool", "--atr", check=False).returncode != 0, "no card")
        self.cut_next("reset")
        self.near.process.send_signal(signal.SIGUSR2)
        self.wait_for_line(2)
        self.stack.wait_for_card()
        self.assertEqual(run("opensc-tool", "--atr").stdout, atr)
        self.expect_signature()


if __name__ == "__main__":
    unittest.main(verbosity=2)
