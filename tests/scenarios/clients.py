"""Clients of the reader that check every answer.

Each client's questions are its own and never the same twice; the scripted card echoes them, so an
answer that belongs to another question shows itself. A call may fail, with an error code; what
must never come is a success with other bytes, or an ATR that is not the card's.
"""

import collections
import random
import threading
import time

from hostile_agent import is_filler

# pyscard connects to pcscd when it is imported, so this module is imported when pcscd is up.
from smartcard import scard

ATR = bytes.fromhex("3B951381018073FF01000B")
ECHO, SLOW_ECHO = 0xE0, 0xE1  # instructions of the scripted card
PACE = 0.002  # seconds between two questions of a client
LONGEST = 20000  # bytes of a question
CANCEL_LIMIT = 30  # seconds: longer than any standstill
PROTOCOLS = scard.SCARD_PROTOCOL_T0 | scard.SCARD_PROTOCOL_T1
READER = "Zelta Virtual SmartCard Reader 00 00"
OTHER_READER = "Null 00 00"
DISTURBED = 2.0  # seconds that a call to the other reader may take
# After these a client begins with a new context: pcscd is gone, or has been.
LOST = {scard.SCARD_E_NO_SERVICE, scard.SCARD_E_INVALID_HANDLE, scard.SCARD_F_COMM_ERROR,
        scard.SCARD_F_INTERNAL_ERROR, scard.SCARD_E_SERVICE_STOPPED}
# pcscd (1.9.9) has a race: if a disconnect powers the card down while another client connects or
# resets it, pcscd may take the card for unpowered and in use, and refuses every connect from then
# on without asking its handler. So these calls exclude each other here.
POWER_LOCK = threading.Lock()
ATTRIBUTES = (scard.SCARD_ATTR_ATR_STRING, scard.SCARD_ATTR_VENDOR_NAME,
              scard.SCARD_ATTR_CURRENT_PROTOCOL_TYPE)


def script(slow=0, atr_after=0):
    """The card's script: milliseconds that a slow echo and an ATR take."""
    return (f"atr {ATR.hex()} after {atr_after}ms\n"
            f"command 80 {SLOW_ECHO:02X} * -> echo after {slow}ms\n"
            f"command 80 {ECHO:02X} * -> echo\n")


def short(data):
    text = data[:24].hex(" ")
    return f"{len(data)} bytes, {text}{' ...' if len(data) > 24 else ''}"


class Record:
    """The results of all clients of a story. Any thread."""

    def __init__(self):
        self.right = 0
        self.failures = collections.Counter()  # by call and error
        self.wrong = []
        self._asked = {}  # client's name: when its last right answer was asked for
        self._origin = time.monotonic()
        self._changed = threading.Condition()
        self.cancelled = 0  # waits
        self.excused = False  # the other reader may fail
        self._answers_until = self._atrs_until = 0

    def begin_hostile(self):
        """Lets later answers and ATRs be a hostile agent's."""
        self._answers_until = self._atrs_until = float("inf")

    def end_hostile_answers(self):
        self._answers_until = time.monotonic()

    def end_hostile_atrs(self):
        self._atrs_until = min(self._atrs_until, time.monotonic())

    def may_answer(self, asked, answer):
        """Whether a hostile agent may have given this answer to a question asked at that time."""
        return asked < self._answers_until and answer and is_filler(answer)

    def may_be_atr(self, asked, atr):
        return asked < self._atrs_until and is_filler(atr)

    def note_cancelled(self):
        with self._changed:
            self.cancelled += 1

    def note_right(self, name, asked):
        with self._changed:
            self.right += 1
            self._asked[name] = asked
            self._changed.notify_all()

    def note_failure(self, call, why):
        with self._changed:
            self.failures[f"{call}: {why}"] += 1

    def note_wrong(self, text):
        with self._changed:
            self.wrong.append(f"{time.monotonic() - self._origin:.3f} s: {text}")
            self._changed.notify_all()

    def wait_right(self, names, since, limit):
        """Waits until each client has had the right answer to a question that it asked after
        `since`; gives the names of those that have not. A wrong answer ends the wait."""
        def missing():
            return [name for name in names if self._asked.get(name, 0) < since]

        with self._changed:
            self._changed.wait_for(lambda: self.wrong or not missing(),
                                   max(0, limit - time.monotonic()))
            return missing()

    def summary(self):
        failures = ", ".join(f"{count} x {what}" for what, count in self.failures.most_common())
        return f"{self.right} right, {len(self.wrong)} wrong, failed: {failures or 'none'}"


class Client:
    """One application. Used by one thread at a time."""

    reader = READER

    def __init__(self, name, record, seed=0):
        self.name = name
        self.record = record
        self.random = random.Random(f"{name} {seed}")
        self.serial = 0
        self.card = None
        self.protocol = 0
        self.state = "idle"
        self.error = scard.SCARD_S_SUCCESS  # of the last call
        self.asked = 0  # when the last call began
        _, self.context = scard.SCardEstablishContext(scard.SCARD_SCOPE_SYSTEM)

    def begin_anew_if_lost(self):
        """Takes a new context if pcscd was started anew. If none can be had, keeps the old one,
        which is useless but still a context."""
        if self.error in LOST:
            values = self._call("establish context", scard.SCardEstablishContext,
                                scard.SCARD_SCOPE_SYSTEM)
            if values is not None:
                scard.SCardReleaseContext(self.context)
                self.context = values[0]

    def leave(self):
        self.disconnect()
        scard.SCardReleaseContext(self.context)

    def _call(self, what, function, *arguments):
        """The rest of a successful call's results, or None."""
        self.asked = time.monotonic()
        self.state = f"in {what} since {self.asked - self.record._origin:.3f} s"
        result = function(*arguments)
        self.state = "idle"
        self.error, *values = result if isinstance(result, (list, tuple)) else [result]
        if self.error != scard.SCARD_S_SUCCESS:
            self.record.note_failure(what, scard.SCardGetErrorMessage(self.error).strip() +
                                     f" ({self.error & 0xFFFFFFFF:08X})")
            return None
        return values

    def _power_call(self, what, function, *arguments):
        with POWER_LOCK:
            return self._call(what, function, *arguments)

    def connect(self):
        if self.card is not None:
            self.disconnect()
        values = self._power_call("connect", scard.SCardConnect, self.context, self.reader,
                                  scard.SCARD_SHARE_SHARED, PROTOCOLS)
        if values is not None:
            self.card, self.protocol = values
        return values is not None

    def connect_in_the_end(self):
        """Called before anything has gone wrong: the card is in, and the answer is right."""
        assert self.await_card(30), "the card did not come in"
        while not self.connect() or not self.ask():
            time.sleep(0.05)

    def disconnect(self, disposition=scard.SCARD_LEAVE_CARD):
        if self.card is not None:
            self._power_call("disconnect", scard.SCardDisconnect, self.card, disposition)
            self.card = None

    def reset(self):
        values = self._power_call("reset", scard.SCardReconnect, self.card,
                                  scard.SCARD_SHARE_SHARED, PROTOCOLS, scard.SCARD_RESET_CARD)
        if values is not None:
            self.protocol = values[0]
        return values is not None

    def transaction(self):
        """Ends the transaction with a reset of the card."""
        with POWER_LOCK:  # a reset waits for the end of the transaction
            if self._call("begin transaction", scard.SCardBeginTransaction, self.card) is None:
                return False
            return self._call("end transaction", scard.SCardEndTransaction, self.card,
                              scard.SCARD_RESET_CARD) is not None

    def transaction_with_questions(self):
        if self._call("begin transaction", scard.SCardBeginTransaction, self.card) is not None:
            for _ in range(3):
                self.ask()
            self._call("end transaction", scard.SCardEndTransaction, self.card,
                       scard.SCARD_LEAVE_CARD)

    def cancel_a_wait(self):
        """Waits for a change without a time limit, on its own context, and is cancelled."""
        error, context = scard.SCardEstablishContext(scard.SCARD_SCOPE_SYSTEM)
        if error != scard.SCARD_S_SUCCESS:
            return
        waiter = threading.Thread(target=self._wait_for_change, args=(context,), daemon=True)
        waiter.start()
        waiter.join(self.random.uniform(0, 0.05))
        end = time.monotonic() + CANCEL_LIMIT
        self.state = "cancelling"
        while waiter.is_alive() and time.monotonic() < end:  # one may come before the wait
            scard.SCardCancel(context)
            waiter.join(0.05)
        self.state = "idle"
        if waiter.is_alive():
            self.record.note_wrong(f"{self.name}'s wait has not ended {CANCEL_LIMIT} s after the "
                                   "cancel")
        scard.SCardReleaseContext(context)

    def _wait_for_change(self, context):
        error, states = scard.SCardGetStatusChange(context, 0, [(READER, 0)])
        if error == scard.SCARD_S_SUCCESS:
            known = states[0][1] & ~scard.SCARD_STATE_CHANGED
            error, _ = scard.SCardGetStatusChange(context, scard.INFINITE, [(READER, known)])
        if error == scard.SCARD_E_CANCELLED:
            self.record.note_cancelled()

    def question(self, slow):
        """The next question, and its right answer."""
        size = self.random.randrange(4, 200)
        if self.random.randrange(20) == 0:
            size = self.random.randrange(200, LONGEST)
        data = self.serial.to_bytes(4, "big") + self.random.randbytes(size)
        instruction = SLOW_ECHO if slow else ECHO
        question = bytes((0x80, instruction, ord(self.name[0]), 0, size & 0xFF)) + data
        return question, question + b"\x90\x00"

    def ask(self, slow=False):
        """True for the right answer, False for a failure and for a wrong one."""
        self.serial += 1
        question, right = self.question(slow)
        pci = scard.SCARD_PCI_T0 if self.protocol == scard.SCARD_PROTOCOL_T0 else scard.SCARD_PCI_T1
        asked = time.monotonic()
        values = self._call("transmit", scard.SCardTransmit, self.card, pci, list(question))
        if values is None:
            return False
        answer = bytes(value & 0xFF for value in values[0])
        if answer == right:
            self.record.note_right(self.name, asked)
            return True
        if answer in (b"\x6F\x00", b"\x69\x01"):  # the card's and the driver's own refusals
            self.record.note_failure("transmit", answer.hex(" "))
            return False
        if self.record.may_answer(asked, answer):
            self.record.note_failure("transmit", "a hostile agent's answer")
            return False
        self.record.note_wrong(f"{self.name} asked ({short(question)}) and after "
                               f"{time.monotonic() - asked:.3f} s was told ({short(answer)})")
        return False

    def check_atr(self, what, atr):
        atr = bytes(value & 0xFF for value in atr)
        if atr and atr != ATR and not self.record.may_be_atr(self.asked, atr):
            self.record.note_wrong(f"{self.name} was told by {what} that the ATR is {short(atr)}")
        return atr == ATR

    def status(self):
        """Checks everything that reports the card; true if it is in, with its ATR."""
        values = self._call("status change", scard.SCardGetStatusChange, self.context, 0,
                            [(READER, scard.SCARD_STATE_UNAWARE)])
        if values is None or not values[0]:
            return False
        present = self.check_atr("status change", values[0][0][2])
        if self.card is None:
            return present
        values = self._call("status", scard.SCardStatus, self.card)
        if values is not None:
            self.check_atr("status", values[3])
        for attribute in ATTRIBUTES:
            values = self._call("attribute", scard.SCardGetAttrib, self.card, attribute)
            if values is not None and attribute == scard.SCARD_ATTR_ATR_STRING:
                self.check_atr("attribute", values[0])
        return present

    def await_card(self, limit):
        """Waits until the card is in and has told its ATR."""
        end = time.monotonic() + limit
        known = scard.SCARD_STATE_UNAWARE
        while time.monotonic() < end:
            values = self._call("status change", scard.SCardGetStatusChange, self.context, 200,
                                [(READER, known)])
            if values is None:
                time.sleep(0.02)  # a time-out, or pcscd does not know the reader yet
                continue
            known = values[0][0][1] & ~scard.SCARD_STATE_CHANGED
            if known & scard.SCARD_STATE_PRESENT and self.check_atr("status change",
                                                                    values[0][0][2]):
                return True
        return False


class OtherReadersClient(Client):
    """Uses the second reader of pcscd, which only a standstill or the end of pcscd may disturb:
    without that excuse, a failure or a late answer is as bad as a wrong one."""

    reader = OTHER_READER

    def question(self, slow):
        """The answer has as many bytes as are asked for."""
        size = self.random.randrange(1, 2000)
        return (bytes((0x00, 0xB0, 0, 0, 0)) + size.to_bytes(2, "big"),
                size * b"\x55" + b"\x90\x00")

    def _call(self, what, function, *arguments):
        excused = self.record.excused
        values = super()._call(what, function, *arguments)
        took = time.monotonic() - self.asked
        if (values is None or took > DISTURBED) and not (excused or self.record.excused):
            said = "succeeded" if values else scard.SCardGetErrorMessage(self.error).strip()
            self.record.note_wrong(f"the other reader is disturbed: {what} {said} after "
                                   f"{took:.3f} s")
        return values

    def status(self):
        """The card of that reader is always in."""


# What a client occasionally does besides asking.
HABITS = {
    "asks": lambda client: None,
    "resets": Client.reset,
    "begins anew": lambda client: client.disconnect(scard.SCARD_UNPOWER_CARD),
    "ends transactions": Client.transaction,
    "asks in transactions": Client.transaction_with_questions,
    "cancels": Client.cancel_a_wait,
}


class Caller(threading.Thread):
    """A client that asks from `go` until `end`, and connects if needed."""

    def __init__(self, client, habit="asks", pace=PACE):
        super().__init__(daemon=True)
        self.pace = pace
        self.client = client
        self.habit = HABITS[habit]
        self._go = threading.Event()
        self._ended = threading.Event()
        self.start()

    def go(self):
        self._go.set()

    def end(self):
        self._ended.set()
        self._go.set()

    def run(self):
        self._go.wait()
        while not self._ended.wait(self.pace):
            self._ask_once()

    def _ask_once(self):
        client = self.client
        if client.card is None and not client.connect():
            client.begin_anew_if_lost()
            time.sleep(10 * PACE)
        elif not client.ask():
            client.disconnect()
        elif client.serial % 10 == 0:
            client.status()
        elif client.serial % 25 == 0:
            self.habit(client)
