"""No standstill of agent or pcscd, wherever it falls, makes a wrong answer, and the reader comes
back by itself."""

import itertools
import os
import threading
import time
import unittest

import standstill
from standstill import USABLE_AGAIN, Cast, Standstill

# Seconds; the agent's limit is 4.5 s, the driver's 5 s. One below and one beyond are enough for the
# second run, with serialised callbacks.
DURATIONS = ((1.5, 6.0) if os.environ.get("ZELTA_HOST_SERIALISE") == "1"
             else (1.5, 4.5, 6.0, 8.0))
CARD_TIME = 0.2  # seconds that the card takes for the call under test

# Whether others ask at the same time. Different rules apply to a query that waits for its turn
# after the stuck one than to one that comes later.
COMPANIES = ("alone", "with others")


def status_for_a_while(client):
    end = time.monotonic() + 2 * CARD_TIME
    while time.monotonic() < end:
        client.status()


# name: (the client's state before, the call, whether it is the ATR that takes the card's time)
CALLS = {
    "connect": ("unpowered", lambda reader, client: client.connect(), True),
    "reset": ("connected", lambda reader, client: client.reset(), True),
    "transaction": ("connected", lambda reader, client: client.transaction(), True),
    "transmit": ("connected", lambda reader, client: client.ask(slow=True), False),
    "presence": ("connected", lambda reader, client: reader.swap_card(), True),
    "status": ("connected", lambda reader, client: status_for_a_while(client), False),
}


def prepare(client, call):
    from clients import scard

    client.connect_in_the_end()
    if CALLS[call][0] == "unpowered":
        client.disconnect(scard.SCARD_UNPOWER_CARD)


def stop_within(reader, still, client, call, moment):
    """Begins the call and the standstill; gives the call's thread."""
    thread = threading.Thread(target=CALLS[call][1], args=(reader, client), daemon=True)
    if moment == "before":
        still.begin()
        thread.start()
        return thread
    begun = time.monotonic()
    thread.start()
    if moment == "after":
        thread.join()
    else:
        time.sleep(max(0, begun + moment - time.monotonic()))
    still.begin()
    return thread


def story(reader, problems, who, call, moment, seconds, company, card_time):
    """`moment`: when the standstill begins, "before" the call, "after" it or seconds into it."""
    _, _, is_atr = CALLS[call]
    reader.start_all(**{"atr_after" if is_atr else "slow": int(1000 * card_time)})
    cast = Cast()
    prepare(cast.actor, call)
    still = Standstill(getattr(reader, who))
    thread = stop_within(reader, still, cast.actor, call, moment)
    if company == "with others":
        cast.go()
    still.last(seconds)
    cast.go()
    # The card may still be busy, or its ATR is needed: for the presence, the power-up, the protocol
    # and the reset.
    needed = card_time * (4 if is_atr else 1)
    return cast.conclude(still.ended, USABLE_AGAIN + needed, problems, thread)


class AgentOrPcscdStandsStill(unittest.TestCase):
    """The processes stand still in each call, at each moment, for each duration and in each
    company."""

    def tell(self, call):
        # Another moment each time, within 2 ms of the card's answer.
        rows = [(who, call, moment, seconds, company, CARD_TIME)
                for who in ("agent", "pcscd")
                for index, (seconds, company) in enumerate(itertools.product(DURATIONS, COMPANIES))
                for moment in ("before", CARD_TIME / 2, CARD_TIME + (index - 3.5) / 2000, "after")]
        standstill.assert_good(self, story, rows)

    def test_in_a_connect_and_the_reader_recovers(self):
        self.tell("connect")

    def test_in_a_reset_and_the_reader_recovers(self):
        self.tell("reset")

    def test_in_a_transaction_that_ends_with_a_reset_and_the_reader_recovers(self):
        self.tell("transaction")

    def test_in_a_transmit_and_the_reader_recovers(self):
        self.tell("transmit")

    def test_in_a_swap_of_the_card_and_the_reader_recovers(self):
        self.tell("presence")

    def test_in_a_question_for_the_status_and_the_reader_recovers(self):
        self.tell("status")


class SlowCard(unittest.TestCase):
    """A card that is near the limits, and a standstill that alone would do no harm."""

    def test_reader_recovers_from_a_standstill_of_1500_ms_beside_a_card_of_4300_ms(self):
        rows = [(who, "transmit", moment, 1.5, company, 4.3)
                for who in ("agent", "pcscd") for moment in (0.001, 1.0, 2.9, 3.5, 4.2, 4.299)
                for company in COMPANIES]
        standstill.assert_good(self, story, rows)

    def test_reader_recovers_from_a_standstill_of_6_s_beside_a_card_of_300_ms(self):
        rows = [("pcscd", call, moment, 6.0, "alone", 0.3)
                for call in ("transmit", "reset")
                for moment in (0.0005, 0.001, 0.002, 0.005, 0.02, 0.1, 0.2, 0.29)]
        standstill.assert_good(self, story, rows)


if __name__ == "__main__":
    unittest.main(verbosity=2)
