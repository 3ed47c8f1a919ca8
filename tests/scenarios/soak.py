"""Stops the reader's processes at random under load; `./zelta soak` runs it.

Four clients ask all the time, each with habits of its own, while the agent or pcscd is stopped at
random moments for random times. Every answer is checked, and after each standstill every client
must have a right answer within two seconds.
"""

import argparse
import random
import signal
import sys
import time

import stack
from standstill import USABLE_AGAIN, Reader, Standstill, check_usable

SHORTEST, LONGEST = 0.05, 8.0  # seconds of a standstill
LONGEST_PAUSE = 1.0  # seconds between two
CLIENTS = {"Alice": "asks", "Bob": "resets", "Carol": "begins anew", "Dave": "ends transactions"}
SHOWN = 10  # wrong answers
EVERY = 10  # stops between two lines about how it goes


def options(words):
    parser = argparse.ArgumentParser(prog="./zelta soak")
    parser.add_argument("--stops", type=int)
    parser.add_argument("--minutes", type=float)
    parser.add_argument("--seed", type=int, default=random.randrange(2**32))
    chosen = parser.parse_args(words)
    if chosen.stops is None:
        chosen.stops = float("inf") if chosen.minutes else 200
    return chosen


class Soak:
    """One run, and what it has counted."""

    def __init__(self, reader, record, callers, seed):
        self.reader = reader
        self.record = record
        self.callers = callers
        self.random = random.Random(seed)
        self.stops = 0
        self.recovered = []  # seconds
        self.problems = []
        self.shown = 0

    def run(self, stops, end):
        """False if the reader does not come back."""
        while self.stops < stops and time.monotonic() < end:
            if not self.stop_once():
                return False
            if self.stops % EVERY == 0:
                print(f"{self.stops} stops, {self.record.right} right, "
                      f"{len(self.record.wrong)} wrong", flush=True)
        return True

    def stop_once(self):
        time.sleep(self.random.uniform(0, LONGEST_PAUSE))
        who = self.random.choice(("agent", "pcscd"))
        seconds = SHORTEST * (LONGEST / SHORTEST) ** self.random.random()
        still = Standstill(getattr(self.reader, who))
        self.stops += 1
        still.begin()
        still.last(seconds)
        problems = []
        took = check_usable(self.record, self.callers, still.ended, USABLE_AGAIN, problems)
        self.say_wrong_answers()
        for problem in problems:
            self.problems.append(problem)
            print(f"stop {self.stops} ({who} for {seconds:.2f} s): {problem}", flush=True)
        if not problems:
            self.recovered.append(took)
        return not self.record.wrong and not any("no right" in each for each in problems)

    def say_wrong_answers(self):
        for text in self.record.wrong[self.shown:SHOWN]:
            print(f"WRONG {text}", flush=True)
        self.shown = len(self.record.wrong)

    def summary(self):
        slowest = max(self.recovered, default=0)
        return (f"{self.stops} stops, {len(self.recovered)} recoveries in time, the slowest after "
                f"{slowest:.2f} s\n{self.record.summary()}")

    @property
    def good(self):
        return not self.problems and not self.record.wrong


def interrupt(number, frame):
    raise KeyboardInterrupt


def soak(chosen):
    """Gives the exit code."""
    stack.enter_namespace()
    with Reader() as reader:
        reader.start_all()
        import clients

        record = clients.Record()
        clients.Client("first", record).connect_in_the_end()
        callers = [clients.Caller(clients.Client(name, record, chosen.seed), habit)
                   for name, habit in CLIENTS.items()]
        run = Soak(reader, record, callers, chosen.seed)
        for caller in callers:
            caller.go()
        try:
            print("The reader is up and in use. Ctrl-C ends it.", flush=True)
            run.run(chosen.stops, time.monotonic() + 60 * (chosen.minutes or float("inf")))
        except KeyboardInterrupt:
            print("Interrupted.")
        for caller in callers:
            caller.end()
        run.say_wrong_answers()
        print(run.summary(), flush=True)
        if not run.good:
            print(reader.log_tails())
        return 0 if run.good else 1


def main(words):
    chosen = options(words)
    signal.signal(signal.SIGTERM, interrupt)
    print(f"Seed {chosen.seed}", flush=True)
    try:
        return soak(chosen)
    except stack.NoMounts as problem:
        sys.exit(f"zelta: {problem}")


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
