"""pcscd runs out of descriptors in the middle of a call: only that call may fail."""

import itertools
import resource
import threading
import time
import unittest

import standstill
from chaos import leave_descriptors
from standstill import USABLE_AGAIN, Cast

SCARCE = 1.0  # seconds
# The descriptors that are left, so that each step of a call that makes one can fail.
LEFT = range(5)


def begin_anew(reader, client):
    from clients import scard

    client.disconnect(scard.SCARD_UNPOWER_CARD)
    client.connect()


CALLS = {
    "connect": begin_anew,
    "reset": lambda reader, client: client.reset(),
    "transmit": lambda reader, client: client.ask(),
    "presence": lambda reader, client: reader.swap_card(),
    "the agent's connection": lambda reader, client: reader.lose_agent(),
}


def story(reader, problems, call, free):
    reader.start_all()
    cast = Cast()
    cast.actor.connect_in_the_end()
    for caller in cast.callers:
        caller.client.connect()
    pid = reader.pcscd.process.pid
    before = leave_descriptors(pid, free)
    end = time.monotonic() + SCARCE
    thread = threading.Thread(target=CALLS[call], args=(reader, cast.actor), daemon=True)
    thread.start()
    thread.join(SCARCE / 2)
    cast.go()
    time.sleep(max(0, end - time.monotonic()))
    resource.prlimit(pid, resource.RLIMIT_NOFILE, before)
    return cast.conclude(time.monotonic(), USABLE_AGAIN, problems, thread)


class DescriptorsRunOut(unittest.TestCase):
    def test_at_each_step_of_each_call_and_the_reader_recovers(self):
        standstill.assert_good(self, story, list(itertools.product(CALLS, LEFT)))


if __name__ == "__main__":
    unittest.main(verbosity=2)
