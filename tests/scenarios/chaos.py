"""The soak's disturbances: a table, each with a begin, an end and what must hold afterwards."""

import collections
import contextlib
import errno
import itertools
import os
import random
import resource
import signal
import socket
import threading
import time

import hostile_agent
from hostile_agent import INSERTED, MALFORMED, PIPES, REMOVED, SESSION_ID, field, number
from standstill import USABLE_AGAIN, Standstill

BROUGHT_UP = 5.0  # seconds that a reader has whose processes were started anew
# Seconds after a flood. When its agent goes, the pipe holds thousands of removals, and each begins
# a log file, no two in the same millisecond.
FLOODED = 15.0
CROWD = 20  # new clients
AT_A_TIME = 12  # malformed answers of one hostile agent
SESSIONS = 40  # session ids of one agent: each makes a log file
FREE = range(8, 21)  # powers of two: bytes that are left to a pcscd short of memory


def leave_descriptors(pid, free):
    """Limits the process to so many free descriptors. Returns its previous limits."""
    used = {int(name) for name in os.listdir(f"/proc/{pid}/fd")}
    limit = 0
    while limit - sum(1 for number in used if number < limit) < free or limit in used:
        limit += 1
    before = resource.prlimit(pid, resource.RLIMIT_NOFILE)
    resource.prlimit(pid, resource.RLIMIT_NOFILE, (limit, before[1]))
    return before


def leave_memory(pid, free):
    """The same for bytes of memory."""
    with open(f"/proc/{pid}/statm", encoding="ascii") as sizes:
        used = int(sizes.read().split()[0]) * resource.getpagesize()
    before = resource.prlimit(pid, resource.RLIMIT_AS)
    resource.prlimit(pid, resource.RLIMIT_AS, (used + free, before[1]))
    return before


# Answers that need memory.
LARGE = [kind for kind in MALFORMED if "MiB" in kind.name or "GiB" in kind.name]


class Stage:
    """The targets of disturbances, and a record of their actions."""

    def __init__(self, reader, record, seed):
        self.reader = reader
        self.record = record
        self.seed = seed
        self.random = None
        self.played = collections.Counter()  # answers by malformed kind
        self.event_bytes = 0
        chance = random.Random(f"malformed {seed}")
        self._malformed = itertools.chain.from_iterable(
            chance.sample(MALFORMED, len(MALFORMED)) for _ in itertools.count())

    def begin(self, number):
        """A disturbance's choices do not depend on how many those before it have made."""
        self.random = random.Random(f"{self.seed} {number}")

    def next_malformed(self):
        return next(self._malformed)

    @contextlib.contextmanager
    def without_agent(self):
        self.reader.agent.end(signal.SIGKILL)
        try:
            yield
        finally:
            self.reader.start_agent_again()


# If the soak is interrupted, its processes continue: the report needs them.
def stop(process, seconds):
    still = Standstill(process)
    still.begin()
    try:
        time.sleep(seconds)
    finally:
        still.end()


def stop_agent(stage, seconds):
    stop(stage.reader.agent, seconds)


def stop_pcscd(stage, seconds):
    stop(stage.reader.pcscd, seconds)


def kill_agent(stage, seconds):
    with stage.without_agent():
        time.sleep(seconds)


def kill_pcscd(stage, seconds):
    stage.reader.pcscd.end(signal.SIGKILL)
    try:
        time.sleep(seconds)
    finally:
        stage.reader.start_pcscd()


def kill_both(stage, seconds):
    with stage.without_agent():
        kill_pcscd(stage, seconds)


def be_hostile(stage, _):
    stage.record.begin_hostile()
    with stage.without_agent():
        for _ in range(AT_A_TIME):
            kind = stage.next_malformed()
            stage.played[kind.name] += hostile_agent.play_malformed(kind)
        stage.record.end_hostile_answers()


def flood(stage, seconds, make_events):
    from clients import ATR

    with stage.without_agent():
        stage.event_bytes += hostile_agent.play_flood(field(ATR), make_events, seconds)


def flood_with_swaps(stage, seconds):
    flood(stage, seconds, lambda: 500 * (number(REMOVED) + number(INSERTED)))


def flood_with_sessions(stage, seconds):
    def session_id():
        size = stage.random.choice((0, 1, 36, 36, 1023, 1024, 1025, 4096, 200000))
        text = stage.random.choice((b"\n", b"\0", b"\xFF", b"../", b"%s%n", b"a", b"\t"))
        return number(SESSION_ID) + field((size * text)[:size])

    ids = itertools.islice(iter(session_id, None), SESSIONS)
    flood(stage, seconds, lambda: next(ids, b""))
    strange = [str(path) for path in stage.reader.data.rglob("*")
               if path.is_file() and not (path.parent == stage.reader.logs and
                                          path.match("zelta_vsc_*.txt"))]
    if strange:
        stage.record.note_wrong(f"session ids have made {strange}")


def open_one_pipe(stage, seconds):
    with stage.without_agent(), socket.socket(socket.AF_UNIX) as half:
        name = stage.random.choice((hostile_agent.COMMAND, hostile_agent.EVENT))
        end = time.monotonic() + BROUGHT_UP
        while True:  # until the driver has noticed that the agent is gone
            try:
                half.connect(str(PIPES / name))
                break
            except OSError:
                if time.monotonic() > end:
                    raise
                time.sleep(0.01)
        time.sleep(seconds)


def fill_log_disk(stage, seconds):
    filler = stage.reader.data / "filler"
    with open(filler, "wb", buffering=0) as file:
        try:
            while True:
                file.write(bytes(1 << 20))
        except OSError as problem:
            if problem.errno != errno.ENOSPC:
                raise
    end = time.monotonic() + seconds
    while time.monotonic() < end:  # what becomes free when a log file goes is taken, too
        with contextlib.suppress(OSError), open(filler, "ab", buffering=0) as file:
            file.write(bytes(1 << 12))
        time.sleep(0.02)
    filler.unlink()


def come_and_go():
    """A client that pcscd may have no thread or descriptor for."""
    from clients import scard

    error, context = scard.SCardEstablishContext(scard.SCARD_SCOPE_SYSTEM)
    if error == scard.SCARD_S_SUCCESS:
        scard.SCardReleaseContext(context)


@contextlib.contextmanager
def crowd():
    """New clients, all at the same time; waits for them at the end."""
    clients = [threading.Thread(target=come_and_go, daemon=True) for _ in range(CROWD)]
    for client in clients:
        client.start()
    yield
    for client in clients:
        client.join(BROUGHT_UP)
    if any(client.is_alive() for client in clients):
        raise AssertionError("a new client of pcscd hangs after the shortage")


def leave_few_descriptors(stage, seconds):
    pid = stage.reader.pcscd.process.pid
    before = leave_descriptors(pid, stage.random.randrange(5))
    with crowd():
        try:
            time.sleep(seconds)
        finally:
            resource.prlimit(pid, resource.RLIMIT_NOFILE, before)


def leave_little_memory(stage, seconds):
    """Also lets an agent answer with more bytes than there is memory for."""
    pid = stage.reader.pcscd.process.pid
    before = leave_memory(pid, 1 << stage.random.choice(FREE))
    end = time.monotonic() + seconds
    stage.record.begin_hostile()
    with crowd(), stage.without_agent():
        try:
            for kind in itertools.cycle(LARGE):
                hostile_agent.play_malformed(kind)
                if time.monotonic() > end:
                    break
        finally:
            resource.prlimit(pid, resource.RLIMIT_AS, before)
        stage.record.end_hostile_answers()


# The longest duration, and how soon every client must have a right answer afterwards (seconds);
# whether the other reader may fail meanwhile, since pcscd itself stands still or is gone.
Kind = collections.namedtuple("Kind", "name act longest usable excuses")

KINDS = (
    Kind("agent stopped", stop_agent, 8.0, USABLE_AGAIN, False),
    Kind("pcscd stopped", stop_pcscd, 8.0, USABLE_AGAIN, True),
    Kind("agent killed", kill_agent, 2.0, BROUGHT_UP, False),
    Kind("pcscd killed", kill_pcscd, 2.0, BROUGHT_UP, True),
    Kind("both killed", kill_both, 2.0, BROUGHT_UP, True),
    Kind("hostile agent", be_hostile, 1.0, BROUGHT_UP, False),
    Kind("event flood", flood_with_swaps, 2.0, FLOODED, False),
    Kind("odd session ids", flood_with_sessions, 2.0, BROUGHT_UP, False),
    Kind("one pipe opened", open_one_pipe, 2.0, BROUGHT_UP, False),
    Kind("log disk full", fill_log_disk, 2.0, USABLE_AGAIN, False),
    Kind("descriptors short", leave_few_descriptors, 2.0, USABLE_AGAIN, False),
    Kind("memory short", leave_little_memory, 2.0, BROUGHT_UP, False),
)
