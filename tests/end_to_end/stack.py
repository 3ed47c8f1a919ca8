"""The test's own pcscd with the reader, and its agent.

Runs as root. `enter_namespace` moves the process into a private mount namespace with an empty /run,
so that tests disturb neither each other nor the system's pcscd.
"""

import contextlib
import ctypes
import errno
import glob
import os
import pathlib
import shutil
import signal
import subprocess
import tempfile
import time
import unittest

SOURCE = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(os.environ["ZELTA_BUILD_DIR"])
AGENT = BUILD / "bin" / "zelta-agent"
PIN = "12345678"
LIMIT = 60  # the most seconds for any operation

_CLONE_NEWNS = 0x00020000
_MS_REC = 0x4000
_MS_PRIVATE = 1 << 18


class NoMounts(unittest.SkipTest):
    """The system does not permit a mount that the test needs; skips the test."""

    def __init__(self, reason):
        super().__init__(f"no mounts are possible here: {reason}")
        self.reason = reason

    def __reduce__(self):
        return NoMounts, (self.reason,)


def unshare_mounts():
    """Makes later mounts of the process private to it; they end with it."""
    libc = ctypes.CDLL(None, use_errno=True)
    if (libc.unshare(_CLONE_NEWNS) != 0
            or libc.mount(b"none", b"/", None, ctypes.c_ulong(_MS_REC | _MS_PRIVATE), None) != 0):
        number = ctypes.get_errno()
        raise NoMounts("the root is not a mount point, as in a plain chroot"
                       if number == errno.EINVAL else os.strerror(number))


def mount(*words):
    result = run("mount", *words, check=False)
    if result.returncode != 0:
        raise NoMounts(result.stdout.strip().splitlines()[0])


def enter_namespace():
    unshare_mounts()
    mount("-t", "tmpfs", "tmpfs", "/run")
    os.makedirs("/run/pcscd")


def wait_until(condition, what, limit=LIMIT):
    """For conditions without an event to wait for, such as the start of a foreign program."""
    end = time.monotonic() + limit
    while not condition():
        if time.monotonic() > end:
            raise AssertionError(f"{what} did not come about within {limit} seconds")
        time.sleep(0.02)


def run(*command, check=True, **options):
    """Runs a program and returns its output, which a failure shows."""
    result = subprocess.run(
        [str(word) for word in command],
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        text=True,
        **{"timeout": LIMIT, **options},
    )
    if check and result.returncode != 0:
        raise AssertionError(f"{command} ended with {result.returncode}:\n{result.stdout}")
    return result


def make_demo_card(folder):
    """A copy of $ZELTA_DEMO_CARD, if there is one: making the keys takes a second."""
    made = os.environ.get("ZELTA_DEMO_CARD")
    if made:
        shutil.copytree(made, folder)
    else:
        run(SOURCE / "scripts" / "make-demo-db.sh", folder, PIN)


def pkcs11_module():
    return glob.glob("/usr/lib/*/opensc-pkcs11.so")[0]


class Process:
    """A program in the background, its output in a file."""

    def __init__(self, command, log, environment, **options):
        self.log = log
        with open(log, "ab") as output:
            self.process = subprocess.Popen(
                [str(word) for word in command],
                stdin=subprocess.DEVNULL,
                stdout=output,
                stderr=subprocess.STDOUT,
                env=environment,
                **options,
            )

    def end(self, how=signal.SIGTERM):
        """Returns the exit code, and how many seconds the end took."""
        begin = time.monotonic()
        # pcscd can lose a signal that arrives just before it waits for signals.
        for _ in range(LIMIT // 2):
            if self.process.poll() is None:
                self.process.send_signal(how)
            with contextlib.suppress(subprocess.TimeoutExpired):
                return self.process.wait(2), time.monotonic() - begin
        raise AssertionError("a process does not end")


class Stack(contextlib.AbstractContextManager):
    process_options = {}

    def __init__(self):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="zelta-e2e-"))
        self.logs = self.folder / "data" / "Vornhalt" / "ZeltaAgent" / "logs"
        self.logs.mkdir(parents=True)
        self.control = self.folder / "agent.ctl"
        self.environment = dict(
            os.environ,
            ZELTA_PROGRAM_DATA=str(self.folder / "data"),
            ZELTA_REGISTRY=str(self.folder / "registry.reg"),
            ZELTA_MODULE=str(BUILD / "lib" / "libzelta_vsc.so"),
        )
        self.pcscd = None
        self.agent = None
        readers = self.folder / "reader.conf.d"
        readers.mkdir()
        (readers / "zelta").write_text(
            'FRIENDLYNAME "Zelta Virtual SmartCard Reader"\n'
            "DEVICENAME zelta:0\n"
            f"LIBPATH {BUILD / 'lib' / 'libifdzelta.so'}\n"
        )

    def __exit__(self, kind, value, traceback):
        for process in (self.pcscd, self.agent):
            if process is not None:
                process.end()
        shutil.rmtree(self.folder, ignore_errors=True)

    def show_logs(self):
        for log in [*self.folder.glob("*.log"), *sorted(self.logs.glob("*.txt"))]:
            print(f"--- {log.name}\n{log.read_text(errors='replace')[-8000:]}")

    def start_pcscd(self, *options):
        # A pcscd that was ended early leaves its socket, which would look like the new one's.
        pathlib.Path("/run/pcscd/pcscd.comm").unlink(missing_ok=True)
        self.pcscd = Process(
            ["pcscd", "--foreground", "--info", "--config", self.folder / "reader.conf.d",
             *options],
            self.folder / "pcscd.log",
            self.environment,
            **self.process_options,
        )
        wait_until(lambda: os.path.exists("/run/pcscd/pcscd.comm"), "pcscd's socket")

    def make_card(self):
        make_demo_card(self.folder / "card")
        (self.folder / "pin").write_text(PIN)

    def start_agent(self, *options):
        if not (self.folder / "card").exists():
            self.make_card()
        self.run_agent("--db", self.folder / "card", "--pin-file", self.folder / "pin", *options)

    def run_agent(self, *options):
        self.agent = Process([AGENT, "--control", self.control, *options],
                             self.folder / "agent.log", self.environment,
                             **self.process_options)

    def start(self, *agent_options):
        self.start_pcscd()
        self.start_agent(*agent_options)
        return self

    def ctl(self, word):
        return run(AGENT, "ctl", word, "--control", self.control).stdout

    def wait_for_card(self):
        wait_until(lambda: run("opensc-tool", "--atr", check=False).returncode == 0, "a card")

    def log_text(self):
        return "".join(path.read_text() for path in sorted(self.logs.glob("*.txt")))


class StackTest(unittest.TestCase):
    """A test with its own stack, whose logs are shown if it fails."""

    def setUp(self):
        self.stack = self.enterContext(Stack())

    def tearDown(self):
        outcome = self._outcome.result
        if any(test is self for test, _ in outcome.failures + outcome.errors):
            self.stack.show_logs()


class CardTest(StackTest):
    """A test with the demo card in the reader. It works in the stack's folder, which is also its
    programs' home."""

    def setUp(self):
        super().setUp()
        self.stack.start().wait_for_card()
        self.folder = self.stack.folder
        # Programs' leftovers in their caller's home go here.
        self.home = dict(os.environ, HOME=str(self.folder), LC_ALL="C.UTF-8")

    def run_here(self, *command, **options):
        return run(*command, cwd=self.folder, env=options.pop("env", self.home), **options)

    def nss_database(self, name):
        """A new certificate database that knows the card's PKCS#11 module."""
        folder = self.folder / name
        folder.mkdir()
        self.run_here("certutil", "-N", "-d", f"sql:{folder}", "--empty-password")
        self.run_here("modutil", "-dbdir", f"sql:{folder}", "-force", "-add", "zelta",
                      "-libfile", pkcs11_module())
        return folder
