"""pcscd is started by its first client, which finds the card.

As systemd does, the test listens in pcscd's place and starts pcscd for a client that waits already.
"""

import os
import pathlib
import signal
import socket
import sys
import unittest

import standstill
from stack import AGENT, Process, run, wait_until

ATR = "3b:95:13:81:01:80:73:ff:01:00:0b"
SOCKET = pathlib.Path("/run/pcscd/pcscd.comm")
LINK = pathlib.Path("/run/zelta/pipe-agent0")  # to the control socket, wherever that is
# Where the agent listens as a service, by default, and somewhere else.
CONTROLS = ("/run/zelta-agent0/control", "/run/zelta/agent0.ctl", "/run/elsewhere/control")
# How pcscd ends: in good order, as a minute after its last client, or at once, as when the service
# is stopped; the driver's pipes then stay behind.
ENDS = (signal.SIGINT, signal.SIGTERM)
STARTS = 9  # for each of these: 54 in all

# Passes its first argument, a listening socket, to the program in the others.
ACTIVATE = """
import os, sys
os.dup2(int(sys.argv[1]), 3)
os.environ.update(LISTEN_FDS="1", LISTEN_PID=str(os.getpid()))
os.execvp(sys.argv[2], sys.argv[2:])
"""


def start_agent(reader, control):
    (reader.folder / "card.txt").write_text(f"atr {ATR.replace(':', ' ')}\n")
    reader.control = control
    reader.start_agent_again()
    status = [AGENT, "ctl", "status", "--control", control]
    wait_until(lambda: run(*status, check=False).returncode == 0, "the agent's control socket")
    if control != CONTROLS[-1]:  # as if the agent could not make it
        LINK.unlink()


def start_cold(reader):
    """Starts pcscd for a program; returns what the program has printed."""
    with socket.socket(socket.AF_UNIX) as listener:
        listener.bind(str(SOCKET))
        listener.listen()
        reader.pcscd = Process(
            [sys.executable, "-c", ACTIVATE, listener.fileno(), "pcscd", "--foreground", "--info",
             "--config", reader.folder / "reader.conf.d"],
            reader.folder / "pcscd.log", reader.environment, pass_fds=(listener.fileno(),))
        return run("opensc-tool", "--reader", "0", "--atr", check=False).stdout.strip()


def cold_starts(reader, problems, control, end):
    """The first of them makes the folder of the pipes, for which the agent waits by then."""
    start_agent(reader, control)
    for start in range(STARTS):
        answer = start_cold(reader)
        if answer != ATR:
            problems.append(f"start {start}: {answer}")
        reader.pcscd.end(end)
        SOCKET.unlink()
    return f"{STARTS - len(problems)} of {STARTS} found the card"


class FirstProgram(unittest.TestCase):
    def test_finds_the_card_of_an_agent_that_runs(self):
        rows = [(control, end) for control in CONTROLS for end in ENDS]
        standstill.assert_good(self, cold_starts, rows)


if __name__ == "__main__":
    unittest.main(verbosity=2)
