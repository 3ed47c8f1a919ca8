"""zelta-agent on Linux: control socket, signals, readiness, lack of file descriptors."""

import fcntl
import json
import os
import pathlib
import resource
import signal
import socket
import struct
import subprocess
import tempfile
import termios
import time
import unittest

AGENT = os.environ["ZELTA_AGENT_PROGRAM"]
SESSION = "01234567-89ab-cdef-0123-456789abcdef"
ATR = bytes.fromhex("3B00")
SELECT = bytes.fromhex("00A40400")
OK = b"\x90\x00"
QUERY_ATR_RESET, QUERY_TRANSMIT = 0, 2
REMOVED, INSERTED, SESSION_ID = 0, 1, 2
PLAIN = "atr 3B00\ncommand 00A4* -> 9000\n"
SLOW = "atr 3B00\ncommand * -> 9000 after 1000s\n"  # blocks its card in every command
LIMIT = 60  # seconds


def number(value):
    return value.to_bytes(4, "little")


def read(pipe, size):
    """None if the agent has dropped the connection."""
    data = b""
    while len(data) < size:
        try:
            more = pipe.recv(size - len(data))
        except ConnectionResetError:
            return None
        if not more:
            return None
        data += more
    return data


class Driver:
    """The driver's side of both pipes."""

    def __init__(self, root):
        folder = root / "ProtectedPrefix" / "LocalService"
        folder.mkdir(parents=True)
        self.listening = [self._listen(folder / f"zelta_smartcard_{pipe}0")
                          for pipe in ("command", "event")]
        self.command = self.event = None

    @staticmethod
    def _listen(path):
        listening = socket.socket(socket.AF_UNIX)
        listening.settimeout(LIMIT)
        listening.bind(str(path))
        listening.listen()
        return listening

    def close(self):
        self.disconnect()
        for listening in self.listening:
            listening.close()

    def accept_session(self):
        self.command, self.event = (listening.accept()[0] for listening in self.listening)
        for pipe in (self.command, self.event):
            pipe.settimeout(LIMIT)
        assert self.read_event() == SESSION_ID
        return self._read_field(self.event).decode()

    def disconnect(self):
        for pipe in (self.command, self.event):
            if pipe is not None:
                pipe.close()
        self.command = self.event = None

    @staticmethod
    def _read_field(pipe):
        length = read(pipe, 4)
        return length and read(pipe, int.from_bytes(length, "little"))

    def read_event(self):
        code = read(self.event, 4)
        return code and int.from_bytes(code, "little")

    def read_answer(self):
        return self._read_field(self.command)

    def query_atr(self):
        self.command.sendall(number(QUERY_ATR_RESET))
        return self.read_answer()

    def send_transmit(self, apdu):
        self.command.sendall(number(QUERY_TRANSMIT) + number(len(apdu)) + apdu)

    def flush(self):
        """Until the agent has read everything."""
        while struct.unpack("i", fcntl.ioctl(self.command, termios.TIOCOUTQ, bytes(4)))[0] > 0:
            time.sleep(0.001)

    def is_dropped(self):
        return read(self.command, 1) is None


class ProgramTest(unittest.TestCase):
    def setUp(self):
        self.folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        self.control = self.folder / "ctl"
        self.environment = {**os.environ, "ZELTA_PIPE_ROOT": str(self.folder / "p")}
        self.driver = None

    def start_driver(self):
        self.driver = Driver(self.folder / "p")
        self.addCleanup(self.driver.close)

    def run_agent(self, *words, **options):
        """With its output, the errors' with it."""
        options = {"stdout": subprocess.PIPE, "stderr": subprocess.STDOUT, **options}
        return subprocess.run([AGENT, "--control", self.control, *words], text=True,
                              timeout=LIMIT, env=self.environment, check=False, **options)

    def start_agent(self, script=PLAIN, *options):
        (self.folder / "script").write_text(script)
        agent = self.enterContext(subprocess.Popen(
            [AGENT, "--control", self.control, "--backend", "script", "--script",
             self.folder / "script", "-v", *options], stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT, text=True, env=self.environment))
        self.addCleanup(agent.kill)
        return agent

    def start_ready_agent(self, script=PLAIN):
        """Its control socket and its signals work."""
        agent = self.start_agent(script)
        for line in agent.stdout:
            if " card, session " in line:
                return agent
        return self.fail("the agent has ended")

    def start_connected_agent(self, script=PLAIN):
        self.start_driver()
        agent = self.start_ready_agent(script)
        self.driver.accept_session()
        return agent

    def ctl(self, *words):
        return self.run_agent("ctl", *words)

    def assert_ends(self, agent, code, text=""):
        output = agent.stdout.read()
        self.assertEqual(agent.wait(LIMIT), code, output)
        self.assertIn(text, output)


class AgentProgram(ProgramTest):
    def test_help_and_errors_go_to_their_own_streams(self):
        hidden = subprocess.DEVNULL
        self.assertEqual(self.run_agent("--help", stdout=hidden, stderr=subprocess.PIPE).stderr, "")
        for words in (["--nonsense"], ["ctl", "status"]):
            self.assertEqual(self.run_agent(*words, stderr=hidden).stdout, "")

    def test_what_is_missing_ends_with_1_and_a_message(self):
        missing = self.folder / "none"
        for option, text in (("--db", f"error: no card database in {missing}"),
                             ("--pin-file", f"error: cannot read {missing}")):
            ended = self.run_agent(option, missing)
            self.assertEqual(ended.returncode, 1)
            self.assertIn(text, ended.stdout)
        self.assertFalse(self.control.exists())

    def test_remote_card_without_its_other_end_says_hello_and_ends_with_a_message(self):
        ended = self.run_agent("--backend", "remote", stdin=subprocess.DEVNULL,
                               stderr=subprocess.PIPE)
        self.assertEqual(ended.returncode, 1)
        self.assertIn("error: no card: the line is broken\n", ended.stderr)
        self.assertIn("ZLTA\x01", ended.stdout)
        self.assertFalse(self.control.exists())

    def test_pin_on_the_command_line_is_warned_of_and_not_repeated(self):
        text = self.run_agent("--pin", "1234", "--db", self.folder / "none").stdout
        self.assertIn("warning: The PIN stands on the command line, where others can read it; use "
                      "--pin-file", text)
        self.assertNotIn("1234", text)

    def test_log_lines_have_time_severity_and_text(self):
        agent = self.start_agent(PLAIN, "--session-id", SESSION)
        self.assertRegex(agent.stdout.readline(),
                         r"^[0-9-]{10}T[0-9:]{8}\.[0-9]{3}Z info: zelta-agent .*: reader 0, script "
                         r"card, session .*\n$")
        agent.terminate()
        self.assert_ends(agent, 0, "Z info: Ending: asked to terminate\n")

    def test_readiness_is_told_to_systemd(self):
        notify = self.enterContext(socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM))
        notify.settimeout(LIMIT)
        notify.bind(str(self.folder / "notify"))
        self.environment["NOTIFY_SOCKET"] = str(self.folder / "notify")
        self.start_agent()
        told = ""
        while "READY=1" not in told:
            told += notify.recv(256).decode()
        self.assertIn("STATUS=Waiting for the driver", told)
        self.assertTrue(self.control.exists())

    def test_ctl_moves_the_card_and_tells_the_state(self):
        self.start_driver()
        self.start_agent(PLAIN, "--no-card", "--session-id", SESSION)
        self.assertEqual(self.driver.accept_session(), SESSION)
        self.assertEqual(self.driver.query_atr(), b"")
        self.assertEqual(self.ctl("insert").returncode, 0)
        self.assertEqual(self.driver.read_event(), INSERTED)
        self.assertEqual(self.driver.query_atr(), ATR)
        self.assertEqual(json.loads(self.ctl("status", "--json").stdout), {
            "reader": 0, "connected": True, "backend": "script", "card": "in", "atr": "3B00",
            "session_id": SESSION, "apdus": 0, "errors": 0, "timeouts": 0, "reconnects": 0})
        again = self.ctl("insert")
        self.assertEqual((again.returncode, again.stdout),
                         (1, "zelta-agent: a card is in already\n"))
        self.assertEqual(self.ctl("remove").returncode, 0)
        self.assertEqual(self.driver.read_event(), REMOVED)
        text = self.ctl("status").stdout
        self.assertIn("driver:    connected\n", text)
        self.assertIn("card:      out\n", text)

    def test_ctl_without_an_agent_ends_with_1(self):
        ended = self.ctl("status")
        self.assertEqual((ended.returncode, ended.stdout),
                         (1, f"zelta-agent: no agent is running at {self.control}\n"))

    def test_user_signals_move_the_card(self):
        agent = self.start_connected_agent()
        self.assertEqual(self.driver.query_atr(), ATR)
        agent.send_signal(signal.SIGUSR1)
        self.assertEqual(self.driver.read_event(), REMOVED)
        agent.send_signal(signal.SIGUSR2)
        self.assertEqual(self.driver.read_event(), INSERTED)


class AgentProgramEnds(ProgramTest):
    """By each of the signals that ask for it."""

    SIGNALS = (signal.SIGINT, signal.SIGTERM)

    def test_while_it_waits_for_a_driver(self):
        for how in self.SIGNALS:
            agent = self.start_ready_agent()
            self.assertTrue(self.control.exists())
            agent.send_signal(how)
            self.assert_ends(agent, 0)
            self.assertFalse(self.control.exists())

    def test_while_a_driver_is_connected(self):
        self.start_driver()
        for how in self.SIGNALS:
            agent = self.start_ready_agent()
            self.driver.accept_session()
            agent.send_signal(how)
            self.assert_ends(agent, 0)
            self.assertTrue(self.driver.is_dropped())
            self.driver.disconnect()

    def test_while_the_card_is_slow(self):
        self.start_driver()
        for how in self.SIGNALS:
            agent = self.start_ready_agent(SLOW + "on * remove after 900s\n")
            self.driver.accept_session()
            self.driver.send_transmit(SELECT)
            while "Connected to the driver" not in agent.stdout.readline():
                pass
            agent.send_signal(how)
            self.assert_ends(agent, 0)
            self.driver.disconnect()


@unittest.skipIf(os.environ["ZELTA_SANITIZE"],
                 "the sanitizers look into memory by a pipe that they open")
class AgentProgramWithoutDescriptors(ProgramTest):
    STANDARD_STREAMS = 3  # enough for polling

    def refuse_descriptors(self, agent, left):
        """From now on the program gets no further ones, and cannot poll more than `left`."""
        resource.prlimit(agent.pid, resource.RLIMIT_NOFILE, (left, left))

    def test_to_connect_again_ends_with_1_and_a_message(self):
        agent = self.start_connected_agent()
        self.refuse_descriptors(agent, self.STANDARD_STREAMS)
        self.driver.disconnect()
        self.assert_ends(agent, 1, " error: Ending: inotify_init1: Too many open files\n")
        self.assertFalse(self.control.exists())

    def test_for_a_control_client_ends_with_1_and_a_message(self):
        agent = self.start_connected_agent()
        self.refuse_descriptors(agent, self.STANDARD_STREAMS)
        self.assertEqual(self.ctl("status").returncode, 1)
        self.assert_ends(agent, 1, " error: Ending: the control socket: Too many open files\n")
        self.assertTrue(self.driver.is_dropped())

    def test_inside_a_command_drops_the_connection_unanswered(self):
        agent = self.start_connected_agent()
        self.driver.command.sendall(number(QUERY_TRANSMIT) + number(4) + SELECT[:2])
        self.driver.flush()
        self.refuse_descriptors(agent, 0)
        # The agent has to wait once more, and cannot. Its end may come before these bytes.
        try:
            self.driver.command.sendall(SELECT[2:3])
        except BrokenPipeError:
            pass
        self.assertTrue(self.driver.is_dropped())
        self.assert_ends(agent, 1)

    def test_while_the_card_works_leaves_a_whole_answer_or_none(self):
        agent = self.start_connected_agent("atr 3B00\ncommand 01 -> 9000 after 1s\n")
        self.driver.send_transmit(b"\x01")
        self.driver.flush()
        self.refuse_descriptors(agent, 0)
        # None if the event pipe could not be waited for any more before the card was done.
        self.assertIn(self.driver.read_answer(), (None, OK))
        self.assertTrue(self.driver.is_dropped())
        self.assert_ends(agent, 1)


if __name__ == "__main__":
    unittest.main(verbosity=2)
