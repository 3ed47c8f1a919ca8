#!/usr/bin/python3
"""An agent that forwards the card in a real reader and logs all traffic. A log may hold PINs.

Needs python3-pyscard.
"""

import sys
import threading

from smartcard import scard
from smartcard.util import toHexString

from agent import Agent

SHARED = scard.SCARD_SHARE_SHARED, scard.SCARD_PROTOCOL_T0 | scard.SCARD_PROTOCOL_T1
PCI = {scard.SCARD_PROTOCOL_T0: scard.SCARD_PCI_T0, scard.SCARD_PROTOCOL_T1: scard.SCARD_PCI_T1}
WAIT = 500  # milliseconds before a missing reader is looked for again


def log(what, data):
    print(what, toHexString(list(data)) or "nothing", flush=True)
    return bytes(data)


class RealCard:
    def __init__(self, reader, *reader_index):
        self.reader = reader
        self.context = scard.SCardEstablishContext(scard.SCARD_SCOPE_SYSTEM)[1]
        self.card = self.protocol = None
        self.agent = Agent(self, *reader_index)

    def connect(self):
        if self.card is None:
            result, card, self.protocol = scard.SCardConnect(self.context, self.reader, *SHARED)
            self.card = card if result == scard.SCARD_S_SUCCESS else None
        return self.card is not None

    def disconnect(self):
        if self.card is not None:
            scard.SCardDisconnect(self.card, scard.SCARD_LEAVE_CARD)
        self.card = None

    def reset(self):
        if self.connect():
            result, self.protocol = scard.SCardReconnect(self.card, *SHARED,
                                                         scard.SCARD_RESET_CARD)
            if result != scard.SCARD_S_SUCCESS:
                self.disconnect()
        return self.atr()

    def atr(self):
        if not self.connect():
            return b""
        result, *_, atr = scard.SCardStatus(self.card)
        if result != scard.SCARD_S_SUCCESS:
            self.disconnect()
            return b""
        return log("ATR     ", atr)

    def transmit(self, apdu):
        log("command ", apdu)
        if not self.connect():
            return log("response", b"")
        result, response = scard.SCardTransmit(self.card, PCI[self.protocol], list(apdu))
        if result == scard.SCARD_W_RESET_CARD:  # by another program; the card has forgotten
            self.disconnect()
            return log("response", bytes.fromhex("69 85"))
        if result != scard.SCARD_S_SUCCESS:
            if result in (scard.SCARD_W_REMOVED_CARD, scard.SCARD_E_NO_SMARTCARD):
                self.agent.report(False)
            self.disconnect()
            return log("response", b"")
        return log("response", response)

    def watch(self):
        """Reports insertions and removals, on a thread of its own."""
        context = scard.SCardEstablishContext(scard.SCARD_SCOPE_SYSTEM)[1]
        state = scard.SCARD_STATE_UNAWARE
        while True:
            _, states = scard.SCardGetStatusChange(context, WAIT, [(self.reader, state)])
            state = states[0][1] & ~scard.SCARD_STATE_CHANGED if states else state
            self.agent.report(bool(state & scard.SCARD_STATE_PRESENT))


if len(sys.argv) not in (2, 3):
    sys.exit('Usage: forward_agent.py "NAME, as pcsc_scan -r shows it" [READER]')
card = RealCard(*sys.argv[1:])
threading.Thread(target=card.watch, daemon=True).start()
card.agent.run()
