"""The reader recovers by itself, whatever it lost."""

import os
import pathlib
import signal
import socket
import time
import unittest

import stack
import standstill
from standstill import USABLE_AGAIN, Cast, Standstill

STANDSTILL = 11.0  # seconds: longer than the driver serves without anybody asking for a card
BACK_OFF = 8.0  # more seconds that a reader may take if it was brought up anew
SWAPS = 200
PIPES = pathlib.Path("/run/zelta/pipe/ProtectedPrefix/LocalService")


def use(problems, since, allowed):
    """Has callers use the reader; returns the line about how it went."""
    cast = Cast()
    cast.go()
    return cast.conclude(since, allowed, problems)


def start(reader):
    """Starts with a card that a client has used; returns the client."""
    reader.start_all()
    import clients

    client = clients.Client("first", clients.Record())
    client.connect_in_the_end()
    return client


def agent_lost_and_pcscd_still(reader, problems, seconds_between):
    client = start(reader)
    client.disconnect()
    still = Standstill(reader.pcscd)
    reader.agent.process.send_signal(signal.SIGKILL)
    end = time.monotonic() + seconds_between
    while time.monotonic() < end:
        pass  # a sleep is not as exact
    still.begin()
    still.last(STANDSTILL)
    reader.start_agent_again()
    return use(problems, still.ended, BACK_OFF + USABLE_AGAIN)


def pipes_could_not_be_made(reader, problems):
    os.makedirs("/run/zelta")
    pathlib.Path("/run/zelta/pipe").touch()  # in the place of the folder
    reader.start_pcscd()
    stack.wait_until(lambda: "zelta:" in reader.pcscd.log.read_text(errors="replace"),
                     "a line about the pipes in pcscd's log", 20)
    os.unlink("/run/zelta/pipe")
    since = time.monotonic()
    reader.start_clients_card()
    return use(problems, since, BACK_OFF + USABLE_AGAIN)


def client_of_the_command_pipe_alone(reader, problems):
    begun = time.monotonic()
    reader.start_scripted_agent("atr 3B00\n")
    stack.wait_until(lambda: "Waiting for the driver" in reader.agent.log.read_text(),
                     "an agent that waits for the driver")
    plain_start = time.monotonic() - begun  # on this machine, with its load
    reader.agent.end(signal.SIGKILL)
    reader.start_pcscd()
    pipe = PIPES / "zelta_smartcard_command0"
    stack.wait_until(pipe.exists, "the command pipe")
    with socket.socket(socket.AF_UNIX) as other:
        other.connect(str(pipe))
        stack.wait_until(lambda: "Command named pipe connected" in reader.log_text(),
                         "the driver's taking the client")
    since = time.monotonic()
    reader.start_clients_card()
    return use(problems, since, plain_start + USABLE_AGAIN / 4)


def burst_of_swaps(reader, problems):
    _client = start(reader)  # connected meanwhile
    for _ in range(SWAPS):
        reader.swap_card()
    return use(problems, time.monotonic(), USABLE_AGAIN / 2)


class ReaderComesBack(unittest.TestCase):
    def test_from_an_agent_lost_just_before_a_long_standstill_of_pcscd(self):
        rows = [(step / 10000,) for step in range(32)]
        standstill.assert_good(self, agent_lost_and_pcscd_still, rows)

    def test_from_pipes_that_could_not_be_made(self):
        standstill.assert_good(self, pipes_could_not_be_made, [()])

    def test_at_once_from_a_client_of_the_command_pipe_alone(self):
        standstill.assert_good(self, client_of_the_command_pipe_alone, [()])

    def test_at_once_from_a_burst_of_swaps(self):
        standstill.assert_good(self, burst_of_swaps, [()])


if __name__ == "__main__":
    unittest.main(verbosity=2)
