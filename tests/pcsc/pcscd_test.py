"""The handler under the real pcscd, with the real driver module and the test's agent."""

import contextlib
import signal
import socket
import threading
import time
import unittest

import hostile_agent
import stack
from hostile_agent import INSERTED, NOTIFY_CARD_READY, OK, QUERY_TRANSMIT, REMOVED, field, number

QUERY_ATR_RESET = 0
ATR = bytes.fromhex("3B80800101")  # T=0 and T=1
READER = "Zelta Virtual SmartCard Reader 00 00"
NAME = 'FRIENDLYNAME "Zelta Virtual SmartCard Reader"\n'
LIBRARY = f"LIBPATH {stack.BUILD / 'lib' / 'libifdzelta.so'}\n"
SELECT = bytes.fromhex("00A4040001A0")
PROMPT = 10  # seconds
LONGEST_ANSWER = 65536 + 2


def setUpModule():
    stack.enter_namespace()


class Agent:
    """An agent whose card follows the test. It answers on its own thread."""

    def __init__(self, atr=b""):
        self.atr = atr  # empty: no card is in
        self.respond = lambda apdu: apdu + OK  # none: the command is not answered
        self.resets_to_fail = range(0)  # by their numbers, from 0
        self.resets = 0
        self.asked = threading.Event()  # for a card
        self.sent = threading.Event()  # a command
        self.pipes = hostile_agent.Agent(limit=stack.LIMIT)
        self.pipes.command.settimeout(None)
        self.thread = threading.Thread(target=self._serve, daemon=True)
        self.thread.start()
        assert self.asked.wait(stack.LIMIT), "the driver does not ask for the card"

    def _serve(self):
        try:
            while True:
                code, apdu = self.pipes.read_command()
                if code == NOTIFY_CARD_READY:
                    continue
                answer = self._transmit(apdu) if code == QUERY_TRANSMIT else self._give_atr(code)
                if answer is not None:
                    self.pipes.command.sendall(field(answer))
        except OSError:
            pass  # the driver dropped it

    def _give_atr(self, code):
        fails = code == QUERY_ATR_RESET and self.resets in self.resets_to_fail
        self.resets += code == QUERY_ATR_RESET
        self.asked.set()
        return b"" if fails else self.atr

    def _transmit(self, apdu):
        self.sent.set()
        return self.respond(apdu) if self.atr else b""

    def fail_resets(self, count, skip=0):
        self.resets_to_fail = range(self.resets + skip, self.resets + skip + count)

    def report(self, *events):
        self.pipes.event.sendall(b"".join(number(event) for event in events))

    def insert(self):
        self.atr = ATR
        self.report(INSERTED)

    def remove(self):
        self.atr = b""
        self.report(REMOVED)

    def swap(self):
        self.report(REMOVED, INSERTED)

    def die(self):
        with contextlib.suppress(OSError):  # which the driver may have dropped
            self.pipes.event.shutdown(socket.SHUT_RDWR)
        self.thread.join(stack.LIMIT)
        self.pipes.close()


class Client:
    """A connection of one application."""

    def __init__(self, scard):
        self.scard = scard
        self.card = None
        self.protocol = 0
        self.context = None
        stack.wait_until(self._establish, "a context")

    def _establish(self):
        error, self.context = self.scard.SCardEstablishContext(self.scard.SCARD_SCOPE_SYSTEM)
        return error == self.scard.SCARD_S_SUCCESS

    def leave(self):
        if self.card is not None:
            self.scard.SCardDisconnect(self.card, self.scard.SCARD_LEAVE_CARD)
        self.scard.SCardReleaseContext(self.context)

    def readers(self):
        return self.scard.SCardListReaders(self.context, [])[1]

    def _change(self, known):
        error, states = self.scard.SCardGetStatusChange(self.context, 1000 * stack.LIMIT,
                                                        [(READER, known)])
        assert error == self.scard.SCARD_S_SUCCESS, "the reader's state does not change"
        return states[0][1], bytes(states[0][2])

    def wait_for(self, present, counter=0):
        """The number of insertions and removals, once it is at least that and a card is there or
        not; and the state's bits and the ATR."""
        known = self.scard.SCARD_STATE_UNAWARE
        while True:
            known, atr = self._change(known)
            is_present = bool(known & self.scard.SCARD_STATE_PRESENT)
            if is_present == present and known >> 16 >= counter:
                return known >> 16, known & 0xFFFF, atr

    def counter(self):
        return self._change(self.scard.SCARD_STATE_UNAWARE)[0] >> 16

    def connect(self, protocols=None):
        protocols = protocols or self.scard.SCARD_PROTOCOL_T0 | self.scard.SCARD_PROTOCOL_T1
        error, card, self.protocol = self.scard.SCardConnect(
            self.context, READER, self.scard.SCARD_SHARE_SHARED, protocols)
        self.card = card if error == self.scard.SCARD_S_SUCCESS else None
        return error

    def reconnect(self, initialisation):
        error, self.protocol = self.scard.SCardReconnect(
            self.card, self.scard.SCARD_SHARE_SHARED,
            self.scard.SCARD_PROTOCOL_T0 | self.scard.SCARD_PROTOCOL_T1, initialisation)
        return error

    def disconnect(self, disposition):
        card, self.card = self.card, None
        return self.scard.SCardDisconnect(card, disposition)

    def transmit(self, apdu):
        is_t0 = self.protocol == self.scard.SCARD_PROTOCOL_T0
        pci = self.scard.SCARD_PCI_T0 if is_t0 else self.scard.SCARD_PCI_T1
        error, answer = self.scard.SCardTransmit(self.card, pci, list(apdu))
        return error, bytes(value & 0xFF for value in answer)

    def attribute(self, tag):
        error, value = self.scard.SCardGetAttrib(self.card, tag)
        return error, bytes(value)

    def control(self, code):
        error, answer = self.scard.SCardControl(self.card, code, [])
        return error, bytes(value & 0xFF for value in answer)


class PcscdTest(stack.StackTest):
    def configure(self, text):
        (self.stack.folder / "reader.conf.d" / "zelta").write_text(text)

    def start(self, *options):
        self.stack.start_pcscd(*options)
        # Which connects to pcscd when it is imported.
        from smartcard import scard

        self.scard = scard
        self.client = Client(scard)

    def start_agent(self, atr=b""):
        self.agent = Agent(atr)
        self.addCleanup(self.agent.die)

    def start_with_card(self):
        self.start()
        self.start_agent(ATR)
        self.client.wait_for(True)

    def start_connected(self):
        self.start_with_card()
        self.assertEqual(self.client.connect(), self.scard.SCARD_S_SUCCESS)

    def assert_usable(self):
        self.assertEqual(self.client.transmit(SELECT), (self.scard.SCARD_S_SUCCESS, SELECT + OK))

    def assert_prompt_end(self, how, bound=PROMPT):
        """Expects an end without a crash. The exit code is 1 for an interrupt, with any handler."""
        code, seconds = self.stack.pcscd.end(how)
        self.stack.pcscd = None
        self.assertGreaterEqual(code, 0, "pcscd died")
        self.assertLess(seconds, bound)


class PcscdReader(PcscdTest):
    def test_without_an_agent_is_listed_and_empty_also_by_its_channel_number(self):
        for configuration in (NAME + "DEVICENAME zelta:0\n" + LIBRARY,
                              NAME + "CHANNELID 0\n" + LIBRARY):
            self.configure(configuration)
            self.start()
            self.assertEqual(self.client.readers(), [READER])
            self.client.wait_for(False)
            self.assertEqual(self.client.connect(), self.scard.SCARD_E_NO_SMARTCARD)
            self.client.leave()
            self.assert_prompt_end(signal.SIGINT)

    def test_configuration_that_names_it_twice_and_others_leaves_it_usable(self):
        self.configure(NAME + "DEVICENAME zelta:0\n" + LIBRARY + "".join(
            f'FRIENDLYNAME "{name}"\nDEVICENAME zelta:{index}\n{LIBRARY}'
            for name, index in (("Twice", "0"), ("Other", "1"), ("Nameless", "x"))))
        self.start_with_card()
        self.assertEqual(self.client.readers(), [READER])
        log = self.stack.pcscd.log.read_text()
        for line in ("zelta: reader dev0 is in use already: two entries of reader.conf name it",
                     "zelta: the driver has no reader dev1",
                     "zelta: DEVICENAME 'zelta:x' has no reader index after its colon"):
            self.assertIn(line, log)

    def test_attributes_and_features_are_the_drivers_and_the_handlers(self):
        self.start_connected()
        scard = self.scard
        for tag, value in (
                (scard.SCARD_ATTR_VENDOR_NAME, b"Vornhalt"),
                (scard.SCARD_ATTR_VENDOR_IFD_TYPE, b"Zelta Virtual SmartCard Reader"),
                (scard.SCARD_ATTR_CHANNEL_ID, b"\x00\x00\xF0\x00"),
                (scard.SCARD_ATTR_CURRENT_PROTOCOL_TYPE, b"\x02\x00\x00\x00"),
                (scard.SCARD_ATTR_ATR_STRING, ATR),
                (scard.SCARD_ATTR_DEVICE_UNIT, bytes(4))):
            self.assertEqual(self.client.attribute(tag), (scard.SCARD_S_SUCCESS, value), hex(tag))
        self.assertIn(b"Zelta Virtual SmartCard Reader",
                      self.client.attribute(scard.SCARD_ATTR_DEVICE_FRIENDLY_NAME_A)[1])
        self.assertNotEqual(self.client.attribute(scard.SCARD_ATTR_VENDOR_IFD_VERSION)[0],
                            scard.SCARD_S_SUCCESS)
        features = self.client.control(0x42000D48)[1]
        self.assertEqual(features[:2], b"\x12\x04")  # TLV properties
        self.assertEqual(self.client.control(int.from_bytes(features[2:6], "big"))[1],
                         b"\x0A\x04\x00\x00\x01\x00")
        self.assertEqual(self.client.control(0x42000001)[0], scard.SCARD_E_UNSUPPORTED_FEATURE)


class PcscdCard(PcscdTest):
    def test_insertion_and_removal_are_seen(self):
        self.start()
        for _ in range(5):  # an agent that comes and goes without a card changes nothing
            Agent().die()
        self.start_agent()
        before = self.client.counter()
        self.agent.insert()
        counter, _, atr = self.client.wait_for(True)
        self.assertEqual((counter, atr), (before + 1, ATR))
        self.agent.remove()
        self.assertEqual(self.client.wait_for(False)[0], before + 2)

    def test_resets_power_cycles_and_both_protocols_leave_a_usable_card(self):
        self.start_connected()
        scard = self.scard
        for disposition in (scard.SCARD_RESET_CARD, scard.SCARD_UNPOWER_CARD,
                            scard.SCARD_LEAVE_CARD):
            self.assertEqual(self.client.reconnect(disposition), scard.SCARD_S_SUCCESS)
            self.assert_usable()
            self.assertEqual(self.client.disconnect(disposition), scard.SCARD_S_SUCCESS)
            self.assertEqual(self.client.connect(), scard.SCARD_S_SUCCESS)
            self.assert_usable()
        for protocol in (scard.SCARD_PROTOCOL_T0, scard.SCARD_PROTOCOL_T1):
            self.client.disconnect(scard.SCARD_RESET_CARD)
            self.assertEqual(self.client.connect(protocol), scard.SCARD_S_SUCCESS)
            self.assertEqual(self.client.protocol, protocol)
            self.assert_usable()

    def test_longest_command_and_answer_pass(self):
        self.start_connected()
        longest = bytes(7 + 65535 + 2)  # header, extended Lc, data, extended Le
        received = []
        self.agent.respond = lambda apdu: received.append(apdu) or bytes(LONGEST_ANSWER)
        self.assertEqual(self.client.transmit(longest),
                         (self.scard.SCARD_S_SUCCESS, bytes(LONGEST_ANSWER)))
        self.assertEqual(received, [longest])
        self.agent.respond = lambda apdu: bytes(LONGEST_ANSWER + 100)
        self.assertEqual(self.client.transmit(SELECT)[0], self.scard.SCARD_E_NOT_TRANSACTED)
        self.agent.respond = lambda apdu: apdu + OK
        self.assert_usable()

    def test_hundred_swaps_under_a_connected_client_each_flag_its_handle(self):
        self.start_connected()
        begin = self.client.counter()
        for swap in range(1, 101):
            self.assert_usable()
            self.agent.swap()
            self.assertEqual(self.client.wait_for(True, begin + 2 * swap)[0], begin + 2 * swap)
            self.assertEqual(self.client.transmit(SELECT)[0], self.scard.SCARD_W_REMOVED_CARD)
            self.assertEqual(self.client.reconnect(self.scard.SCARD_LEAVE_CARD),
                             self.scard.SCARD_S_SUCCESS)


class PcscdRemovalDuringACommand(PcscdTest):
    """The command ends and the handle is marked."""

    def removal(self, answer, lose):
        self.start_connected()
        before = self.client.counter()
        lost = threading.Event()
        self.agent.respond = lambda apdu: answer(lost)
        results = []
        command = threading.Thread(target=lambda: results.append(self.client.transmit(SELECT)[0]))
        command.start()
        self.assertTrue(self.agent.sent.wait(stack.LIMIT))
        lose()
        lost.set()
        command.join(stack.LIMIT)
        self.assertIn(results[0], (self.scard.SCARD_E_NO_SMARTCARD,
                                   self.scard.SCARD_W_REMOVED_CARD))
        # pcscd shows an empty reader at once after such an answer; the event marks the handle.
        self.client.wait_for(False, before + 1)
        self.assertEqual(self.client.transmit(SELECT)[0], self.scard.SCARD_W_REMOVED_CARD)

    def come_back(self):
        self.client.wait_for(True)
        self.assertEqual(self.client.reconnect(self.scard.SCARD_RESET_CARD),
                         self.scard.SCARD_S_SUCCESS)
        self.assert_usable()

    def test_with_an_empty_answer_ends_it_and_marks_the_handle(self):
        self.removal(lambda lost: lost.wait() and b"", lambda: self.agent.remove())
        self.agent.respond = lambda apdu: apdu + OK
        self.agent.insert()
        self.come_back()

    def test_without_an_answer_ends_it_and_marks_the_handle(self):
        # The driver itself waits five seconds for one.
        self.removal(lambda lost: None, lambda: self.agent.remove())
        self.agent.respond = lambda apdu: apdu + OK
        self.agent.insert()
        self.come_back()

    def test_with_the_loss_of_the_agent_ends_it_and_marks_the_handle(self):
        self.removal(lambda lost: None, lambda: self.agent.die())
        self.start_agent(ATR)
        self.come_back()


class PcscdMuteCard(PcscdTest):
    def test_at_its_insertion_answers_the_next_connect(self):
        self.start()
        self.start_agent()
        self.agent.fail_resets(1, skip=1)  # the driver's own question is answered, pcscd's is not
        self.agent.insert()
        self.assertTrue(self.client.wait_for(True)[1] & self.scard.SCARD_STATE_MUTE)
        self.assertEqual(self.client.connect(), self.scard.SCARD_S_SUCCESS)
        self.assert_usable()

    def test_after_an_idle_power_off_is_reinserted_once(self):
        for failures in (1, 1000):
            self.start_connected()
            # As after the idle time: without power, and no client connected.
            self.client.disconnect(self.scard.SCARD_UNPOWER_CARD)
            before = self.client.counter()
            self.agent.fail_resets(failures)
            self.assertNotEqual(self.client.connect(), self.scard.SCARD_S_SUCCESS)
            counter, state, _ = self.client.wait_for(True, before + 2)
            is_mute = bool(state & self.scard.SCARD_STATE_MUTE)
            self.assertEqual(is_mute, failures > 1)
            for _ in range(2 * is_mute):
                self.assertEqual(self.client.connect(), self.scard.SCARD_W_UNPOWERED_CARD)
            self.assertEqual(self.client.counter(), counter)
            self.assertEqual(counter, before + 2)
            self.agent.fail_resets(0)
            self.assertEqual(self.client.connect(), self.scard.SCARD_S_SUCCESS)
            self.assert_usable()
            self.client.leave()
            self.agent.die()
            self.assert_prompt_end(signal.SIGTERM)


class PcscdEnd(PcscdTest):
    def ends(self, how):
        self.start()
        self.client.leave()
        self.assert_prompt_end(how)
        for _ in range(3):
            self.start_connected()
            self.assert_usable()
            self.client.leave()
            self.assert_prompt_end(how)

    def ends_during_a_command(self, how):
        self.start_connected()
        done = threading.Event()
        self.agent.respond = lambda apdu: done.wait() and apdu + OK
        results = []
        command = threading.Thread(target=lambda: results.append(self.client.transmit(SELECT)[0]))
        command.start()
        self.assertTrue(self.agent.sent.wait(stack.LIMIT))
        # The command has up to five seconds left before the driver gives up on the agent.
        self.assert_prompt_end(how, 2 * PROMPT)
        done.set()
        command.join(stack.LIMIT)
        self.assertNotEqual(results, [self.scard.SCARD_S_SUCCESS])

    def test_by_an_interrupt_is_prompt(self):
        self.ends(signal.SIGINT)

    def test_by_a_termination_is_prompt(self):
        self.ends(signal.SIGTERM)

    def test_by_an_interrupt_during_a_command_is_prompt(self):
        self.ends_during_a_command(signal.SIGINT)

    def test_by_a_termination_during_a_command_is_prompt(self):
        self.ends_during_a_command(signal.SIGTERM)

    def test_by_itself_if_nobody_uses_it(self):
        self.start("--auto-exit")
        self.start_agent(ATR)
        self.client.wait_for(True)
        self.client.leave()
        time.sleep(0.1)
        self.assert_prompt_end(signal.SIGALRM)  # what its own alarm would send after a minute


if __name__ == "__main__":
    unittest.main(verbosity=2)
