"""The reader with a scripted card, one of its processes stopped for a while, and what follows.

A story is one such run in a process and a mount namespace of its own. `tell_all` runs many at the
same time, since they mostly wait.
"""

import collections
import contextlib
import multiprocessing
import os
import signal
import socket
import time
import traceback

import stack
from stack import Stack

USABLE_AGAIN = 2.0  # seconds that the reader has after a standstill
RIGHT_ANSWERS = 40  # of each caller, once it is usable
STORY_LIMIT = 120  # seconds
AT_ONCE = 32  # stories at the same time


class Reader(Stack):
    """pcscd, an agent and a card of the test's; their processes are killed at the end."""

    def start_all(self, **times):
        """pcscd, and the agent with the clients' card."""
        self.start_pcscd()
        self.start_clients_card(**times)

    def start_clients_card(self, **times):
        import clients

        self.start_scripted_agent(clients.script(**times))

    def start_scripted_agent(self, script):
        (self.folder / "card.txt").write_text(script)
        self.start_agent_again()

    def start_agent_again(self):
        self.run_agent("--backend", "script", "--script", self.folder / "card.txt")

    def lose_agent(self):
        self.agent.end(signal.SIGKILL)
        self.start_agent_again()

    def __exit__(self, kind, value, traceback_):
        for process in (self.pcscd, self.agent):
            if process is not None:
                process.end(signal.SIGKILL)
        return super().__exit__(kind, value, traceback_)

    def move_card(self, word):
        """`insert` or `remove`; waits for the agent, but for no longer than a story takes."""
        with socket.socket(socket.AF_UNIX) as control:
            control.settimeout(STORY_LIMIT)
            control.connect(str(self.control))
            control.sendall(word.encode() + b"\n")
            answer = b"".join(iter(lambda: control.recv(4096), b""))
        return answer.startswith(b"ok")

    def swap_card(self):
        return self.move_card("remove") and self.move_card("insert")

    def log_tails(self, size=2500):
        logs = [*self.folder.glob("*.log"), *sorted(self.logs.glob("*.txt"))]
        return "".join(f"--- end of {log.name}\n{log.read_text(errors='replace')[-size:]}\n"
                       for log in logs)


class Standstill:
    """A process that is stopped, and goes on."""

    def __init__(self, process):
        self.pid = process.process.pid
        self.begun = self.ended = None

    def begin(self):
        os.kill(self.pid, signal.SIGSTOP)
        self.begun = time.monotonic()
        while self._state() not in "TZX":
            time.sleep(0.0002)

    def end(self):
        os.kill(self.pid, signal.SIGCONT)
        self.ended = time.monotonic()

    def last(self, seconds):
        time.sleep(max(0, self.begun + seconds - time.monotonic()))
        self.end()

    def _state(self):
        with open(f"/proc/{self.pid}/stat", encoding="ascii", errors="replace") as stat:
            return stat.read().rpartition(")")[2].split()[0]


Outcome = collections.namedtuple("Outcome", "problems summary")


def check_usable(record, callers, since, allowed, problems):
    """Each caller must have a right answer to something it asked after `since`, in the time
    allowed (seconds). A late answer is a problem, and so is none at all."""
    names = [caller.client.name for caller in callers]
    late = record.wait_right(names, since, since + allowed)
    if not late:
        return time.monotonic() - since
    never = record.wait_right(names, since, since + allowed + 5 * USABLE_AGAIN)
    took = time.monotonic() - since
    if record.wrong:
        return took  # says more than its consequences
    states = "; ".join(f"{caller.client.name} {caller.client.state}" for caller in callers)
    problems.append(f"no right answer for {', '.join(never)} within {took:.1f} s ({states})"
                    if never else
                    f"right answers for {', '.join(late)} after {took:.2f} s, not {allowed} s")
    return took


class Cast:
    """The clients of a story: one that acts, and two that ask from `go` on."""

    def __init__(self):
        import clients

        self.record = clients.Record()
        self.actor = clients.Client("actor", self.record)
        self.callers = [clients.Caller(clients.Client(name, self.record))
                        for name in ("Alice", "Bob")]

    def go(self):
        for caller in self.callers:
            caller.go()

    def conclude(self, since, allowed, problems, *threads):
        """The reader must be usable in time, and stay so. Gives the line about how it went."""
        took = check_usable(self.record, self.callers, since, allowed, problems)
        self._use_for_a_while()
        for thread in (*threads, *self.callers):
            thread.join(3 * USABLE_AGAIN)
        states = {client.name: client.state
                  for client in (self.actor, *(each.client for each in self.callers))}
        if any(state != "idle" for state in states.values()):
            problems.append(f"a call has not ended: {states}")
        elif not self.actor.status():
            problems.append("the card's ATR is not there at the end")
        problems.extend(self.record.wrong[:5])
        return f"usable after {took:.2f} s; {self.record.summary()}"

    def _use_for_a_while(self):
        limit = time.monotonic() + USABLE_AGAIN
        enough = [caller.client.serial + RIGHT_ANSWERS for caller in self.callers]
        while (time.monotonic() < limit and not self.record.wrong and
               any(caller.client.serial < count for caller, count in zip(self.callers, enough))):
            time.sleep(0.05)
        for caller in self.callers:
            caller.end()


def _tell(story, arguments):
    """Runs in the story's own process."""
    stack.enter_namespace()
    problems = []
    summary = ""
    with contextlib.ExitStack() as ends:
        try:
            reader = ends.enter_context(Reader())
            summary = story(reader, problems, *arguments)
        except Exception:  # any failure belongs in the report of this story
            problems.append(traceback.format_exc())
        if problems:
            problems.append(reader.log_tails())
    return Outcome(problems, summary)


def tell_all(story, rows):
    """Runs `story(reader, problems, *row)` for each row; yields each row with its outcome. A story
    says what was wrong in `problems` and returns a line about how it went."""
    with multiprocessing.get_context("fork").Pool(AT_ONCE, maxtasksperchild=1) as pool:
        told = [(row, pool.apply_async(_tell, (story, row))) for row in rows]
        for row, result in told:
            try:
                yield row, result.get(STORY_LIMIT)
            except multiprocessing.TimeoutError:
                yield row, Outcome([f"not done within {STORY_LIMIT} s"], "")


def assert_good(test, story, rows):
    """Fails the test with every story that went wrong: what was wrong, and the logs' ends."""
    bad = []
    for row, outcome in tell_all(story, rows):
        name = ", ".join((story.__name__, *(str(value) for value in row)))
        print(f"{'BAD ' if outcome.problems else 'good'}  {name}: {outcome.summary}")
        if outcome.problems:
            bad.append(f"== {name}\n" + "\n".join(outcome.problems))
    if bad:  # the logs of a few are enough to read
        test.fail("\n".join([f"{len(bad)} of {len(rows)} stories went wrong", *bad[:3]]))
