"""Serves the driver of one reader for a card. For Linux.

docs/wire-protocol.md has the rules; the numbers in brackets are theirs. A card has these methods,
which come one at a time, on a thread of their own, and may take as long as they like:

    reset()          the card is reset; its ATR, or b"" if no card is in
    atr()            the ATR without a reset
    transmit(apdu)   the response, or b"" if no card is in
"""

import concurrent.futures
import contextlib
import fcntl
import os
import socket
import struct
import termios
import threading
import time

RESET, ATR, TRANSMIT, READY = range(4)
REMOVED, INSERTED = struct.pack("<I", 0), struct.pack("<I", 1)
DRIVER_LIMIT = 5  # seconds that the driver waits for an answer
LIMIT = 4.5  # seconds that the card has for it
PAUSE = 0.1  # seconds before connecting again
TOO_LATE = bytes.fromhex("6F 00")


class DriverGone(Exception):
    """The connection can no longer be used."""


class Agent:
    def __init__(self, card, reader=0):
        self.card = card
        root = os.environ.get("ZELTA_PIPE_ROOT", "/run/zelta/pipe")
        self.names = [f"{root}/ProtectedPrefix/LocalService/zelta_smartcard_{pipe}{reader}"
                      for pipe in ("command", "event")]
        self.lock = threading.Lock()  # guards the members below
        self.events = None
        self.is_in = None  # the card; None if nobody reports it
        self.told = False  # the driver knows that the card is in
        self.asking = True  # the driver asks for the ATR, or will: it learns of the card so

    def run(self):
        """Serves for ever."""
        with concurrent.futures.ThreadPoolExecutor(1) as thread:
            while True:
                with contextlib.suppress(OSError, DriverGone):
                    self.serve_once(thread)
                time.sleep(PAUSE)

    def report(self, is_in):
        """Whether the card is in; may be repeated. Any thread. A card that is pulled reports that
        before its command ends."""
        with self.lock:
            self.is_in = is_in
            self.tell()

    def tell(self):
        if self.events is None or self.is_in in (None, self.told) or (self.is_in and self.asking):
            return
        self.told = self.is_in
        with contextlib.suppress(OSError):  # the commands' pipe is gone then, too
            self.events.sendall(INSERTED if self.is_in else REMOVED)

    def serve_once(self, thread):
        with socket.socket(socket.AF_UNIX) as commands, socket.socket(socket.AF_UNIX) as events:
            for pipe, name in zip((commands, events), self.names):
                pipe.settimeout(0)  # one that is busy is tried again
                pipe.connect(name)
            commands.settimeout(None)
            events.settimeout(LIMIT)
            with self.lock:
                self.events, self.told, self.asking = events, False, True
            try:
                while True:
                    self.serve_command(commands, thread)
            finally:
                with self.lock:
                    self.events = None

    def serve_command(self, pipe, thread):
        if not pipe.recv(1, socket.MSG_PEEK) or unread(pipe, termios.TIOCOUTQ) > 1:
            raise DriverGone  # or it no longer waits for the last answer [6]
        begin = time.monotonic()
        code = number(pipe)
        apdu = read(pipe, number(pipe)) if code == TRANSMIT else None
        if code == READY:
            return
        if code > READY:
            raise DriverGone
        if code != TRANSMIT:
            with self.lock:
                self.asking = True
        response = self.ask_card(thread, code, apdu, begin + LIMIT)
        if unread(pipe, termios.FIONREAD) or time.monotonic() > begin + DRIVER_LIMIT:
            raise DriverGone  # it has given this command up [5, 6]
        answer = struct.pack("<I", len(response)) + response
        if pipe.send(answer, socket.MSG_DONTWAIT) != len(answer):
            raise DriverGone
        if code != TRANSMIT:
            with self.lock:
                self.asking = False
                self.told = self.told or bool(response)
                self.tell()

    def ask_card(self, thread, code, apdu, deadline):
        if code == TRANSMIT:
            call = thread.submit(self.card.transmit, apdu)
        else:
            call = thread.submit(self.card.reset if code == RESET else self.card.atr)
        try:
            return call.result(deadline - time.monotonic())
        except concurrent.futures.TimeoutError:
            call.cancel()  # unless it has begun; its late answer is discarded [5]
            return TOO_LATE if code == TRANSMIT else b""


def unread(pipe, what):
    """The bytes in the pipe: TIOCOUTQ those that the driver has not read, FIONREAD its own."""
    return struct.unpack("i", fcntl.ioctl(pipe, what, bytes(4)))[0]


def read(pipe, size):
    data = pipe.recv(size, socket.MSG_WAITALL)
    if len(data) < size:
        raise DriverGone
    return data


def number(pipe):
    return struct.unpack("<I", read(pipe, 4))[0]
