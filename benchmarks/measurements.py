"""What `./zelta bench` measures: the driver alone, commands through pcscd, cards that come and go,
and the system calls of a command. Each function gives values by name; times are in microseconds."""

import collections
import contextlib
import os
import re
import shutil
import signal
import subprocess
import threading
import time

import stack
from stack import BUILD
from standstill import Reader

Time = collections.namedtuple("Time", "median p90 count")

NULL_READER = "Null 00 00"
READER = "Zelta Virtual SmartCard Reader 00 00"
CARD = ("atr 3B 95 13 81 01 00 00 00 00 00\n"
        "command 00 B0 * -> fill 65520\n"
        "otherwise 9000\n")
COMMAND = [0x00, 0xA4, 0x04, 0x00, 0x02, 0x3F, 0x00]
LIMIT = 30  # seconds
STRACED = 500  # commands
QUIET = 0.02  # seconds between two movements that are timed


def times_of(values):
    values = sorted(values)
    return Time(values[len(values) // 2], values[len(values) * 9 // 10], len(values))


def run_program(name, environment, *words):
    """A benchmark's lines, by name."""
    output = subprocess.run([BUILD / "bin" / name, *map(str, words)], env=environment, check=True,
                            stdout=subprocess.PIPE, text=True).stdout
    lines = (line.split("\t") for line in output.splitlines())
    return {name: Time(float(median), float(p90), int(count))
            for name, median, p90, count in lines}


def processors():
    """The processors of the asking and of the answering programs, by the name of the placement. The
    placement decides the cost of a wake-up, so each is measured by itself."""
    usable = sorted(os.sched_getaffinity(0))
    placements = {"one processor": (usable[0], usable[0])}
    if len(usable) > 1:
        placements["two processors"] = (usable[0], usable[1])
    return placements


@contextlib.contextmanager
def processes_on(processor):
    """Keeps the programs that are started meanwhile on the processor."""
    usable = os.sched_getaffinity(0)
    os.sched_setaffinity(0, {processor})
    try:
        yield
    finally:
        os.sched_setaffinity(0, usable)


def driver_alone(rounds, count):
    asking, _ = processors()["one processor"]
    with Reader() as reader, processes_on(asking):
        return run_program("driver_benchmark", reader.environment, rounds, count)


class Measured(Reader):
    """pcscd with the reader and a handler that answers at once."""

    def __init__(self, pcscd_on=None):
        super().__init__()
        (self.folder / "reader.conf.d" / "null").write_text(
            f'FRIENDLYNAME "Null"\nDEVICENAME null:0\nLIBPATH {BUILD / "lib" / "libifdnull.so"}\n')
        with processes_on(pcscd_on) if pcscd_on is not None else contextlib.nullcontext():
            self.start_pcscd()

    def start_least_agent(self):
        self.agent = stack.Process([BUILD / "bin" / "least_agent"], self.folder / "agent.log",
                                   self.environment)

    def swap(self):
        if not self.swap_card():
            raise RuntimeError("the agent refused to move the card")

    def start_our_agent(self):
        self.start_scripted_agent(CARD)


def commands(start_agent, placement, rounds, count):
    """Times of commands. The client and the agent share one processor, pcscd is on the other, so
    that each wake-up is one from processor to processor if there are two."""
    asking, answering = placement
    with Measured(pcscd_on=answering) as measured, processes_on(asking):
        start_agent(measured)
        return run_program("pcscd_benchmark", measured.environment, rounds, count, answering)


def movements_and_calls(swaps):
    """Movements and system calls on the processors that the kernel chooses."""
    with Measured() as measured:
        measured.start_our_agent()
        return card_movements(measured, swaps), system_calls(measured)


class Watcher(threading.Thread):
    """A client that waits for changes of the reader, and notes when it was told of each."""

    def __init__(self, name):
        from smartcard import scard

        super().__init__(daemon=True)
        self._scard = scard
        self._name = name
        self._changed = threading.Condition()
        self._ended = False
        _, self._context = scard.SCardEstablishContext(scard.SCARD_SCOPE_SYSTEM)
        _, states = scard.SCardGetStatusChange(self._context, 0,
                                               [(name, scard.SCARD_STATE_UNAWARE)])
        self.state = states[0][1]
        self.told = []  # (when, state)
        self.start()

    def run(self):
        while not self._ended:
            error, states = self._scard.SCardGetStatusChange(
                self._context, 500, [(self._name, self.state & ~self._scard.SCARD_STATE_CHANGED)])
            now = time.monotonic()
            if error != self._scard.SCARD_S_SUCCESS:
                continue
            with self._changed:
                self.state = states[0][1]
                self.told.append((now, self.state))
                self._changed.notify_all()

    def end(self):
        self._ended = True
        self.join()

    @property
    def counter(self):
        """How many insertions and removals pcscd has counted."""
        return self.state >> 16

    def present(self):
        return bool(self.state & self._scard.SCARD_STATE_PRESENT)

    def wait_for_card(self):
        with self._changed:
            if not self._changed.wait_for(self.present, LIMIT):
                raise RuntimeError(f"there is no card after {LIMIT} s")

    def when_told(self, begun, bit):
        """The time at which it was told of a state with the bit, from the `begun`th on; none if
        that does not happen."""
        def hits():
            return [when for when, state in self.told[begun:] if state & bit]

        with self._changed:
            self._changed.wait_for(hits, LIMIT)
            return next(iter(hits()), None)

    def wait_for_swap(self, counter, limit):
        """True when a removal and an insertion were counted since, and the card is in."""
        with self._changed:
            return self._changed.wait_for(
                lambda: (self.counter - counter) & 0xFFFF >= 2 and self.present(), limit)


def card_movements(measured, swaps):
    """Insertion and removal as a client sees them, from the request to the agent; quick swaps one
    by one; a burst of swaps and the time until a client sees the card as it is."""
    watcher = Watcher(READER)
    watcher.wait_for_card()
    result = timed_movements(measured, watcher)
    result["swaps"], result["missed"] = swaps, 0
    for _ in range(swaps):
        counter = watcher.counter
        measured.swap()
        result["missed"] += not watcher.wait_for_swap(counter, 1)
    watcher.wait_for_swap(watcher.counter - 2, LIMIT)
    counter = watcher.counter
    for _ in range(swaps):
        measured.swap()
    end = time.monotonic()
    result["seen"] = watcher.wait_for_swap(counter, LIMIT)
    result["after burst"] = 1e6 * (time.monotonic() - end)
    watcher.end()
    return result


def timed_movements(measured, watcher, count=100):
    from smartcard import scard

    times = {"remove": [], "insert": []}
    bits = {"remove": scard.SCARD_STATE_EMPTY, "insert": scard.SCARD_STATE_PRESENT}
    for _ in range(count):
        for word, bit in bits.items():
            told = len(watcher.told)
            begun = time.monotonic()
            measured.move_card(word)
            seen = watcher.when_told(told, bit)
            if seen is None:
                raise RuntimeError(f"a client was not told within {LIMIT} s: {word}")
            times[word].append(1e6 * (seen - begun))
            time.sleep(QUIET)
    return {"insertion": times_of(times["insert"]), "removal": times_of(times["remove"])}


def counted_calls(pid, operation):
    """System calls of the process and its threads, each time that `operation` runs; none if there
    is no strace or it may not trace."""
    if shutil.which("strace") is None:
        return None
    strace = subprocess.Popen(["strace", "-c", "-f", "-p", str(pid)], stderr=subprocess.PIPE,
                              text=True)
    line = strace.stderr.readline()
    if "attached" not in line:
        strace.communicate()
        return None
    for _ in range(STRACED):
        operation()
    strace.send_signal(signal.SIGINT)
    rows = re.findall(r"^ *[\d.]+ +[\d.]+ +\d+ +(\d+) +(?:\d+ +)?(\w+)$",
                      strace.communicate()[1], re.M)
    return {name: int(calls) / STRACED for calls, name in rows if name != "total"}


def system_calls(measured):
    """Of a short command: pcscd with the handler that answers at once, pcscd with the reader, the
    agent. None if they cannot be counted."""
    from smartcard import scard

    def transmit_to(reader):
        _, context = scard.SCardEstablishContext(scard.SCARD_SCOPE_SYSTEM)
        error, card, _ = scard.SCardConnect(context, reader, scard.SCARD_SHARE_SHARED,
                                            scard.SCARD_PROTOCOL_T1)
        if error != scard.SCARD_S_SUCCESS:
            raise RuntimeError(f"{reader}: {scard.SCardGetErrorMessage(error)}")
        return lambda: scard.SCardTransmit(card, scard.SCARD_PCI_T1, COMMAND)

    to_null, to_reader = transmit_to(NULL_READER), transmit_to(READER)
    pcscd, agent = measured.pcscd.process.pid, measured.agent.process.pid
    calls = {"pcscd, nothing behind it": counted_calls(pcscd, to_null),
             "pcscd, the reader": counted_calls(pcscd, to_reader),
             "agent": counted_calls(agent, to_reader)}
    return None if None in calls.values() else calls


def machine():
    with open("/proc/cpuinfo", encoding="utf-8") as cpus:
        model = re.search(r"^model name\s*: (.*)$", cpus.read(), re.M)
    return f"{os.cpu_count()} x {model.group(1) if model else 'CPU'}, Linux {os.uname().release}"
