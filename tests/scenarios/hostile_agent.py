"""Agents that break the rules of docs/wire-protocol.md, or strain them.

Whatever a malformed answer carries is filler, which a client can tell from any right answer. The
flooding agents answer rightly.
"""

import collections
import pathlib
import select
import socket
import time

PIPES = pathlib.Path("/run/zelta/pipe/ProtectedPrefix/LocalService")
COMMAND, EVENT = "zelta_smartcard_command0", "zelta_smartcard_event0"
QUERY_TRANSMIT, NOTIFY_CARD_READY = 2, 3
REMOVED, INSERTED, SESSION_ID = 0, 1, 2
ENOUGH = 3  # answers of one malformed kind
LONGEST = 0.6  # seconds that one is played
FILLER = b"\xEE"
OK = b"\x90\x00"


def number(value):
    return value.to_bytes(4, "little")


def field(data):
    return number(len(data)) + data


def is_filler(data):
    """Whether the bytes can be a malformed answer's."""
    return not data.removesuffix(OK).removeprefix(HEAD).strip(FILLER)


HEAD = b"\x3B\x05"  # of an ATR with five historical bytes
HOSTILE_ATR = field(HEAD + 5 * FILLER)
RESPONSE = field(4 * FILLER + OK)
MIB = 1 << 20

# The action after an answer's bytes.
HOLD, CLOSE, CLOSE_EVENT = "hold", "close", "close the event pipe"
Malformed = collections.namedtuple(
    "Malformed", "name atr response after events unasked",
    defaults=(HOSTILE_ATR, RESPONSE, HOLD, number(INSERTED), b""))

MALFORMED = (
    Malformed("ATR: closed instead", b"", after=CLOSE),
    Malformed("ATR: nothing comes", b""),
    Malformed("ATR: one byte of the length, closed", b"\x0A", after=CLOSE),
    Malformed("ATR: three bytes of the length", b"\x0A\0\0"),
    Malformed("ATR: the length alone", number(10)),
    Malformed("ATR: length 0", number(0)),
    Malformed("ATR: length 0 and bytes", number(0) + 8 * FILLER),
    Malformed("ATR: of one byte", field(FILLER)),
    Malformed("ATR: of 34 bytes", field(34 * FILLER)),
    Malformed("ATR: of 255 bytes", field(255 * FILLER)),
    Malformed("ATR: of 64 KiB", field((64 << 10) * FILLER)),
    Malformed("ATR: of 1 MiB and a byte", field((MIB + 1) * FILLER)),
    Malformed("ATR: cut, closed", number(36) + 10 * FILLER, after=CLOSE),
    Malformed("ATR: cut, held", number(36) + 10 * FILLER),
    Malformed("ATR: of 2 GiB less a byte", number(0x7FFFFFFF) + 10 * FILLER),
    Malformed("ATR: of 4 GiB less a byte, closed", number(0xFFFFFFFF) + 10 * FILLER, after=CLOSE),
    Malformed("ATR: length the other way round", b"\0\0\0\x0A" + 10 * FILLER),
    Malformed("ATR: bytes too many", HOSTILE_ATR + 7 * FILLER),
    Malformed("ATR: twice", 2 * HOSTILE_ATR),
    Malformed("ATR: no initial character", field(10 * FILLER)),
    Malformed("ATR: the event pipe is closed", HOSTILE_ATR, after=CLOSE_EVENT),
    Malformed("response: closed instead", response=b"", after=CLOSE),
    Malformed("response: nothing comes", response=b""),
    Malformed("response: two bytes of the length, closed", response=b"\x02\0", after=CLOSE),
    Malformed("response: the length alone", response=number(2)),
    Malformed("response: length 0", response=number(0)),
    Malformed("response: length 0 and bytes", response=number(0) + 8 * FILLER),
    Malformed("response: of one byte", response=field(FILLER)),
    Malformed("response: cut, closed", response=number(100) + 10 * FILLER, after=CLOSE),
    Malformed("response: cut, held", response=number(100) + 10 * FILLER),
    Malformed("response: of 64 KiB and a byte", response=field(((64 << 10) + 1) * FILLER)),
    Malformed("response: of 1 MiB", response=field(MIB * FILLER)),
    Malformed("response: of 2 GiB less a byte", response=number(0x7FFFFFFF) + 10 * FILLER),
    Malformed("response: of 4 GiB less a byte, closed", response=number(0xFFFFFFFF) + 10 * FILLER,
              after=CLOSE),
    Malformed("response: length the other way round", response=b"\0\0\0\x06" + 6 * FILLER),
    Malformed("response: bytes too many", response=RESPONSE + 7 * FILLER),
    Malformed("response: twice", response=2 * RESPONSE),
    Malformed("response: the event pipe is closed", after=CLOSE_EVENT),
    Malformed("unasked answer", unasked=RESPONSE),
    Malformed("unasked megabyte", unasked=field(MIB * FILLER)),
    Malformed("event: unknown codes", events=number(3) + number(0xFFFFFFFF) + number(INSERTED)),
    Malformed("event: half a code", events=number(INSERTED) + b"\x01"),
    Malformed("event: session id of 0 bytes", events=number(SESSION_ID) + number(0)),
    Malformed("event: session id of 4 GiB",
              events=number(SESSION_ID) + number(0xFFFFFFFF) + b"abc"),
    Malformed("event: session id cut", events=number(SESSION_ID) + number(36) + b"abc"),
)


class Agent:
    """Both pipes, and what has been asked on them. A broken pipe is an OSError."""

    def __init__(self, limit=5.0):
        """Waits until the driver takes an agent (seconds); a TimeoutError if it does not."""
        end = time.monotonic() + limit
        while True:
            self.command, self.event = (socket.socket(socket.AF_UNIX) for _ in range(2))
            try:
                self.command.connect(str(PIPES / COMMAND))
                self.event.connect(str(PIPES / EVENT))
                break
            except OSError as problem:
                self.close()
                if time.monotonic() > end:
                    raise TimeoutError(f"the driver takes no agent: {problem}") from problem
                time.sleep(0.01)
        for pipe in (self.command, self.event):
            pipe.settimeout(LONGEST)

    def __enter__(self):
        return self

    def __exit__(self, kind, value, traceback):
        self.close()

    def close(self):
        self.command.close()
        self.event.close()

    def read_command(self):
        """Reads a command: its code, and the APDU of a transmit."""
        code = int.from_bytes(self._read(4), "little")
        if code != QUERY_TRANSMIT:
            return code, b""
        return code, self._read(int.from_bytes(self._read(4), "little"))

    def _read(self, size):
        data = b""
        while len(data) < size:
            more = self.command.recv(size - len(data))
            if not more:
                raise ConnectionResetError("the driver dropped the agent")
            data += more
        return data


def play_malformed(kind):
    """Answers until the driver has dropped it; returns the number of answers."""
    answered = 0
    end = time.monotonic() + LONGEST
    with Agent() as agent:
        try:
            agent.event.sendall(kind.events)
            agent.command.sendall(kind.unasked)
            while answered < ENOUGH and time.monotonic() < end:
                if not select.select([agent.command], [], [], end - time.monotonic())[0]:
                    break
                code, _ = agent.read_command()
                if code == NOTIFY_CARD_READY:
                    continue
                # The malformed half counts, and the action after its bytes.
                meant = (code == QUERY_TRANSMIT) == (kind.atr == HOSTILE_ATR)
                agent.command.sendall(kind.response if code == QUERY_TRANSMIT else kind.atr)
                answered += meant
                if meant and kind.after == CLOSE:
                    break
                if meant and kind.after == CLOSE_EVENT:
                    agent.event.close()
                    time.sleep(0.02)
                    break
        except OSError:
            pass  # the driver dropped it
    return answered


def play_flood(atr, make_events, seconds):
    """Answers as the scripted card does, and meanwhile sends all events that the pipe takes.
    `make_events` gives the next bytes, or none for a pause. Returns how many bytes were sent."""
    sent = 0
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        with Agent() as agent:
            agent.event.setblocking(False)
            pending = number(INSERTED)
            try:
                while time.monotonic() < end:
                    pending = pending or make_events()
                    asked, free, _ = select.select([agent.command],
                                                   [agent.event] if pending else [], [], 0.01)
                    if asked:
                        code, apdu = agent.read_command()
                        if code != NOTIFY_CARD_READY:
                            agent.command.sendall(
                                field(apdu + OK if code == QUERY_TRANSMIT else atr))
                    if free:
                        count = agent.event.send(pending)
                        pending = pending[count:]
                        sent += count
            except OSError:
                pass  # dropped; once more
    return sent
