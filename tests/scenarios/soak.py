"""Disturbs the reader at random under load; `./zelta soak` runs it.

Twelve clients ask all the time, each with habits of its own, and the card is swapped, while one
disturbance of the table in chaos.py after the other happens. Every answer is checked, after each
disturbance every client must have a right answer in time, and pcscd's other reader must not notice
anything but pcscd's own standstills and ends.
"""

import argparse
import contextlib
import os
import pathlib
import random
import resource
import shutil
import signal
import sys
import threading
import time

import soak_report
import stack
from chaos import KINDS, Stage
from standstill import Reader, check_usable

SHORTEST = 0.05  # seconds of a disturbance
LONGEST_PAUSE = 1.0  # seconds between two
PACE = 0.01  # seconds between two questions of a client
CLIENTS = {"Alice": "asks", "Bob": "resets", "Carol": "begins anew", "Dave": "ends transactions",
           "Erin": "asks in transactions", "Frank": "cancels", "Grace": "asks", "Heidi": "cancels",
           "Ivan": "asks in transactions", "Judy": "resets", "Karl": "ends transactions",
           "Lena": "asks"}
SWAP_AFTER = 0.3, 2.0  # seconds
EVERY = 10  # disturbances between two lines about how it goes
LOG_DISK = "64m"
LOGS_KEPT = 5
LARGE_LOG = 32 << 20  # bytes


def options(words):
    parser = argparse.ArgumentParser(prog="./zelta soak")
    parser.add_argument("--stops", type=int)
    parser.add_argument("--minutes", type=float)
    parser.add_argument("--seed", type=int, default=random.randrange(2**32))
    parser.add_argument("--reports", type=pathlib.Path)
    chosen = parser.parse_args(words)
    if chosen.stops is None:
        chosen.stops = float("inf") if chosen.minutes else 200
    return chosen


def plan(seed):
    """Yields for each disturbance the pause before it, its kind and its length, without end. Every
    kind comes before one comes again."""
    chance = random.Random(seed)
    while True:
        for kind in chance.sample(KINDS, len(KINDS)):
            yield (chance.uniform(0, LONGEST_PAUSE), kind,
                   SHORTEST * (kind.longest / SHORTEST) ** chance.random())


class SoakedReader(Reader):
    """The reader beside another one, with its own small disk for the log. A terminal's Ctrl-C does
    not reach its processes."""

    process_options = {"start_new_session": True}

    def __init__(self):
        super().__init__()
        with open(self.folder / "reader.conf.d" / "zelta", "a", encoding="ascii") as readers:
            readers.write(f'FRIENDLYNAME "Null"\nDEVICENAME null:0\n'
                          f'LIBPATH {stack.BUILD / "lib" / "libifdnull.so"}\n')
        self.data = self.folder / "data"
        stack.mount("-t", "tmpfs", "-o", f"size={LOG_DISK}", "tmpfs", self.data)
        self.logs.mkdir(parents=True)

    def __exit__(self, kind, value, traceback):
        for process in (self.pcscd, self.agent):
            if process is not None:
                process.end(signal.SIGKILL)
        stack.run("umount", "--lazy", self.data)
        return super().__exit__(kind, value, traceback)

    def tidy(self):
        """Leaves the newest log files, so that a long run does not fill the disk by itself."""
        logs = sorted(self.logs.glob("*.txt"), key=lambda path: path.stat().st_mtime)
        for path in logs[:-LOGS_KEPT]:
            path.unlink()
        for log in (self.pcscd.log, self.agent.log):
            if log.stat().st_size > LARGE_LOG:
                os.truncate(log, 0)


class Swapper(threading.Thread):
    """Takes the card out and puts it in while there is an agent."""

    def __init__(self, reader, seed):
        super().__init__(daemon=True)
        self.reader = reader
        self.random = random.Random(f"swaps {seed}")
        self.swaps = 0
        self._ended = threading.Event()

    def run(self):
        while not self._ended.wait(self.random.uniform(*SWAP_AFTER)):
            with contextlib.suppress(OSError):  # no agent
                self.swaps += self.reader.swap_card()

    def end(self):
        self._ended.set()
        self.join(30)


class Soak:
    """One run, and what it has counted."""

    def __init__(self, reader, record, callers, seed):
        self.reader = reader
        self.record = record
        self.callers = callers
        self.plan = plan(seed)
        self.stage = Stage(reader, record, seed)
        self.swapper = Swapper(reader, seed)
        self.stops = 0
        self.recovered = {kind.name: [] for kind in KINDS}  # seconds
        self.problems = []
        self.shown = 0

    def run(self, stops, end):
        """Disturbs the reader `stops` times, or until `end`, or until it does not recover."""
        while self.stops < stops and time.monotonic() < end:
            pause, kind, seconds = next(self.plan)
            time.sleep(pause)
            if not self.disturb(kind, seconds):
                return
            self.reader.tidy()
            if self.stops % EVERY == 0:
                print(f"{self.stops} disturbances, {self.record.right} right, "
                      f"{len(self.record.wrong)} wrong", flush=True)

    def disturb(self, kind, seconds):
        """False if the run is over."""
        self.stops += 1
        self.record.excused = kind.excuses
        self.stage.begin(self.stops)
        kind.act(self.stage, seconds)
        since = time.monotonic()
        problems = self._dead_processes()
        took = check_usable(self.record, self.callers, since, kind.usable, problems)
        self.record.end_hostile_atrs()
        self.record.excused = False
        self.say_wrong_answers()
        for problem in problems:
            self.problems.append(f"{self.stops} ({kind.name}, {seconds:.2f} s): {problem}")
            print(self.problems[-1], flush=True)
        if not problems:
            self.recovered[kind.name].append(took)
        return not self.record.wrong and not any("no right" in each for each in problems)

    def _dead_processes(self):
        """The processes do not end by themselves, whatever is done to them."""
        problems = []
        for name, begin_again in (("pcscd", self.reader.start_pcscd),
                                  ("agent", self.reader.start_agent_again)):
            code = getattr(self.reader, name).process.poll()
            if code is not None:
                problems.append(f"{name} has ended with {code}")
                begin_again()
        return problems

    def say_wrong_answers(self):
        for text in self.record.wrong[self.shown:soak_report.SHOWN]:
            print(f"WRONG {text}", flush=True)
        self.shown = len(self.record.wrong)

    def summary(self):
        recovered = [took for times in self.recovered.values() for took in times]
        return (f"{self.stops} disturbances, {len(recovered)} recoveries in time, the slowest "
                f"after {max(recovered, default=0):.2f} s\n{self.record.summary()}")

    @property
    def good(self):
        return not self.problems and not self.record.wrong


def interrupt(number, frame):
    raise KeyboardInterrupt


def figures_without_clients(reader, start):
    """Waits until pcscd has noticed that the clients are gone, which may take a moment."""
    end = time.monotonic() + 5
    while True:
        now = soak_report.figures_of(reader)
        if not soak_report.grown(start, now) or time.monotonic() > end:
            return now
        time.sleep(0.1)


def write_report(folder, seed, text):
    """Gives the report to the folder's owner."""
    report = folder / time.strftime(f"soak-%Y%m%d-%H%M%S-{seed}.md")
    report.write_text(text)
    shutil.chown(report, folder.stat().st_uid, folder.stat().st_gid)
    print(f"Report: {report}", flush=True)


def soak(chosen):
    """Gives the exit code."""
    stack.enter_namespace()
    # A context of a pcscd that was killed keeps its socket in this process.
    hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
    with SoakedReader() as reader:
        reader.start_all()
        import clients

        record = clients.Record()
        first = clients.Client("first", record)
        first.connect_in_the_end()
        first.leave()
        start = soak_report.figures_of(reader)
        callers = [clients.Caller(clients.Client(name, record, chosen.seed), habit, PACE)
                   for name, habit in CLIENTS.items()]
        callers.append(clients.Caller(clients.OtherReadersClient("other", record), pace=PACE))
        run = Soak(reader, record, callers, chosen.seed)
        begun = time.monotonic()
        for thread in (*callers, run.swapper):
            getattr(thread, "go", thread.start)()
        try:
            print("The reader is up and in use. Ctrl-C ends it.\n"
                  f"At the start {soak_report.line(start)}", flush=True)
            run.run(chosen.stops, begun + 60 * (chosen.minutes or float("inf")))
        except KeyboardInterrupt:
            print("Interrupted.")
        seconds = time.monotonic() - begun
        return conclude(run, chosen, seconds, start)


def conclude(run, chosen, seconds, start):
    """Gives the exit code."""
    run.swapper.end()
    for caller in run.callers:
        caller.end()
    for caller in run.callers:
        caller.join(10)
        if not caller.is_alive():
            caller.client.leave()
    end = figures_without_clients(run.reader, start)
    run.problems.extend(soak_report.grown(start, end))
    run.say_wrong_answers()
    print(f"{run.summary()}\nAt the end {soak_report.line(end)}\n")
    report = soak_report.text(run, chosen.seed, seconds, start, end)
    print(report, flush=True)
    if chosen.reports:
        write_report(chosen.reports, chosen.seed, report)
    if not run.good:
        print(run.reader.log_tails())
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
