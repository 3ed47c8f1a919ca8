"""Measures the cost of a command whose card is on another machine, and of one round trip of the
same line, with a delay added each way.

    sudo ZELTA_BUILD_DIR=build PYTHONPATH=tests/end_to_end /usr/bin/python3 benchmarks/remote.py

The line is ssh to an sshd of its own on the loopback. The script plays the driver; the card is a
scripted one, which answers at once. The round trip is that of `cat` over the same ssh.
"""

import contextlib
import os
import pathlib
import queue
import shutil
import socket
import statistics
import struct
import subprocess
import tempfile
import threading
import time

import stack
from sshd import Sshd, add_users
from stack import AGENT, run

USER = "cardholder"
PIPES = pathlib.Path("/run/zelta/pipe/ProtectedPrefix/LocalService")
DELAYS = {0: 400, 10: 100, 50: 40}  # milliseconds each way: exchanges
WARM_UP = 10
COMMAND = bytes.fromhex("00A40400023F00")
QUERY_TRANSMIT = 2


class DelayedPort:
    """Passes connections on to another port; what is sent takes so many seconds longer."""

    def __init__(self, port, delay):
        self._target = port
        self._delay = delay
        self._listener = socket.create_server(("127.0.0.1", 0))
        self.port = self._listener.getsockname()[1]
        threading.Thread(target=self._serve, daemon=True).start()

    def _serve(self):
        while True:
            near, _ = self._listener.accept()
            far = socket.create_connection(("127.0.0.1", self._target))
            for source, target in ((near, far), (far, near)):
                source.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
                waiting = queue.Queue()
                threading.Thread(target=self._read, args=(source, waiting), daemon=True).start()
                threading.Thread(target=self._write, args=(target, waiting), daemon=True).start()

    def _read(self, source, waiting):
        data = b"first"
        while data:
            with contextlib.suppress(ConnectionError):
                data = b""
                data = source.recv(65536)
            waiting.put((time.monotonic() + self._delay, data))

    @staticmethod
    def _write(target, waiting):
        while True:
            due, data = waiting.get()
            time.sleep(max(0, due - time.monotonic()))
            with contextlib.suppress(OSError):
                if not data:
                    target.shutdown(socket.SHUT_WR)
                    return
                target.sendall(data)


def median_time(exchange, count):
    """Durations in milliseconds."""
    times = []
    for _ in range(WARM_UP + count):
        begin = time.perf_counter()
        exchange()
        times.append((time.perf_counter() - begin) * 1000)
    return statistics.median(times[WARM_UP:])


def read_exactly(read, size):
    data = b""
    while len(data) < size:
        part = read(size - len(data))
        if not part:
            raise EOFError("the line has ended")
        data += part
    return data


def round_trip(ssh, count):
    cat = subprocess.Popen([ssh, f"{USER}@127.0.0.1", "cat"], stdin=subprocess.PIPE,
                           stdout=subprocess.PIPE, bufsize=0)

    def exchange():
        cat.stdin.write(COMMAND)
        read_exactly(cat.stdout.read, len(COMMAND))

    result = median_time(exchange, count)
    cat.stdin.close()
    cat.wait()
    cat.stdout.close()
    return result


def listen(name):
    path = PIPES / name
    path.unlink(missing_ok=True)
    listener = socket.socket(socket.AF_UNIX)
    listener.bind(str(path))
    path.chmod(0o666)
    listener.listen()
    return listener


def command(folder, ssh, count):
    PIPES.mkdir(parents=True, exist_ok=True)
    commands, events = (listen(f"zelta_smartcard_{kind}0") for kind in ("command", "event"))
    near = stack.Process([AGENT, "--to", f"ssh://{USER}@127.0.0.1", "--ssh", ssh,
                          "--backend", "script", "--script", folder / "card"],
                         folder / "near.log", os.environ)
    driver, listening = (listener.accept()[0] for listener in (commands, events))

    def ask(code, payload=b""):
        driver.sendall(struct.pack("<I", code) + payload)
        return read_exactly(driver.recv,
                            struct.unpack("<I", read_exactly(driver.recv, 4))[0])

    stack.wait_until(lambda: ask(0), "the card")

    def exchange():
        answer = ask(QUERY_TRANSMIT, struct.pack("<I", len(COMMAND)) + COMMAND)
        if answer != b"\x90\x00":
            raise AssertionError(f"the card has answered {answer}")

    result = median_time(exchange, count)
    near.end()
    for end in (driver, listening, commands, events):
        end.close()
    return result


def measure(folder, delay, count):
    """The medians of a round trip and of a command, in milliseconds."""
    sshd = Sshd(folder, folder / "key.pub", f"SetEnv PATH={folder}:/usr/bin:/bin")
    port = DelayedPort(sshd.port, delay / 1000).port
    host = (folder / "host.pub").read_text()
    (folder / "known").write_text(f"[127.0.0.1]:{port} {host}")
    (folder / "ssh_config").write_text(
        f"Port {port}\nIdentityFile {folder}/key\nIdentitiesOnly yes\n"
        f"UserKnownHostsFile {folder}/known\nBatchMode yes\n")
    return round_trip(folder / "ssh", count), command(folder, folder / "ssh", count)


def prepare(folder):
    add_users(USER)
    shutil.copy(AGENT, folder)
    (folder / "card").write_text("atr 3B 95 13 81 01 00 00 00 00 00\notherwise 9000\n")
    (folder / "ssh").write_text(f'#!/bin/sh\nexec ssh -F {folder}/ssh_config "$@"\n')
    (folder / "ssh").chmod(0o755)
    run("ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", folder / "key")


def main():
    stack.enter_namespace()
    with tempfile.TemporaryDirectory(prefix="zelta-remote-") as name:
        folder = pathlib.Path(name)
        prepare(folder)
        print("| Added each way | Round trip | Command | Command less round trip |")
        print("|---|---|---|---|")
        for delay, count in DELAYS.items():
            trip, apdu = measure(folder, delay, count)
            print(f"| {delay} ms | {trip:.2f} ms | {apdu:.2f} ms | {apdu - trip:.2f} ms |",
                  flush=True)


if __name__ == "__main__":
    main()
