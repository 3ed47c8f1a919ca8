"""Each of the examples brings its card to pcscd. As root."""

import os
import pathlib
import re
import subprocess
import unittest

import stack
from stack import BUILD, SOURCE, Process, run, wait_until

EXAMPLES = SOURCE / "examples"
HELLO = "68656C6C6F9000"
READER = "Zelta Virtual SmartCard Reader 00 00"
SLOW_AGENT = """
import time
from agent import Agent

class SlowCard:
    def reset(self):
        return bytes.fromhex("3B 80 80 01 01")
    atr = reset

    def transmit(self, apdu):
        time.sleep(apdu[2])
        return apdu[:3] + bytes.fromhex("90 00")

Agent(SlowCard()).run()
"""


def atr():
    """The card's, as opensc-tool shows it; None if there is no card."""
    shown = run("opensc-tool", "--reader", "0", "--atr", check=False)
    return shown.stdout.strip() if shown.returncode == 0 else None


def send(*apdus):
    """The responses to the commands, in hexadecimal."""
    words = [word for apdu in apdus for word in ("--send-apdu", apdu)]
    shown = run("opensc-tool", "--reader", "0", *words).stdout
    responses = []
    for status, data in re.findall(r"(?ms)^Received \((SW1=.*?)\):?\n(.*?)(?=^Sending|\Z)", shown):
        # The bytes of a line are followed by the same bytes as text.
        data = "".join(re.findall(r"(?m)^(?:[0-9A-F]{2} )+", data)).replace(" ", "")
        responses.append(data + "".join(re.findall(r"0x(\w\w)", status)))
    return responses


def setUpModule():
    stack.enter_namespace()


class Examples(stack.StackTest):
    def setUp(self):
        super().setUp()
        self.environment = dict(self.stack.environment, PYTHONPATH=str(EXAMPLES),
                                PYTHONDONTWRITEBYTECODE="1")

    def start(self, *command, **variables):
        log = self.stack.folder / f"{pathlib.Path(command[0]).name}.log"
        process = Process(command, log, dict(self.environment, **variables))
        self.addCleanup(process.end)
        return process

    def wait_for_card(self):
        wait_until(lambda: atr() is not None, "a card")

    def test_agent_on_one_page_answers_and_starts_again(self):
        self.stack.start_pcscd()
        agent = self.start(EXAMPLES / "hello_agent.py")
        self.wait_for_card()
        self.assertEqual(atr(), "3b:85:80:01:68:65:6c:6c:6f:66")
        self.assertEqual(send("00A4040000", "00B0000000"), [HELLO, HELLO])
        agent.end()
        self.start(EXAMPLES / "hello_agent.py")
        self.wait_for_card()
        self.assertEqual(send("00A4040000"), [HELLO])

    def test_agent_with_a_yaml_file_answers_as_it_says(self):
        self.stack.start_pcscd()
        self.start(EXAMPLES / "yaml_agent.py", EXAMPLES / "card.yaml")
        self.wait_for_card()
        self.assertEqual(atr(), "3b:84:80:01:79:61:6d:6c:1c")
        self.assertEqual(send("00A4040000", "80CA000000", "00B0000000"),
                         ["6F038401019000", "010203049000", "6D00"])

    def test_agent_that_forwards_follows_the_real_card(self):
        # The real reader belongs to another pcscd, which leaves the default place to the first.
        real = self.enterContext(stack.Stack())
        real.environment["ZELTA_PIPE_ROOT"] = str(real.folder / "pipe")
        real.start_pcscd()
        os.rename("/run/pcscd", "/run/real")
        os.mkdir("/run/pcscd")
        self.stack.start_pcscd()

        def insert():
            return self.start(EXAMPLES / "hello_agent.py",
                              ZELTA_PIPE_ROOT=real.environment["ZELTA_PIPE_ROOT"])

        self.start(EXAMPLES / "forward_agent.py", READER,
                   PCSCLITE_CSOCK_NAME="/run/real/pcscd.comm")
        card = insert()
        self.wait_for_card()
        self.assertEqual(atr(), "3b:85:80:01:68:65:6c:6c:6f:66")
        self.assertEqual(send("00A4040000"), [HELLO])
        card.end()
        wait_until(lambda: atr() is None, "the removal")
        insert()
        self.wait_for_card()
        self.assertEqual(send("00A4040000"), [HELLO])
        log = (self.stack.folder / "forward_agent.py.log").read_text()
        self.assertIn("command  00 A4 04 00 00\nresponse 68 65 6C 6C 6F 90 00\n", log)

    def test_card_in_cpp_is_built_with_the_installed_library(self):
        prefix = self.stack.folder / "installed"
        run("cmake", "--install", BUILD, "--component", "development", "--prefix", prefix)
        [description] = prefix.rglob("zelta-agent.pc")
        flags = run("pkg-config", f"--define-variable=prefix={prefix}", "--cflags", "--libs",
                    "zelta-agent",
                    env=dict(os.environ, PKG_CONFIG_PATH=str(description.parent))).stdout.split()
        program = self.stack.folder / "hello_card"
        run("c++", "-std=c++17", "-Wall", "-Wextra", "-Werror", EXAMPLES / "hello_card.cpp",
            *flags, "-o", program)
        self.stack.start_pcscd()
        card = self.start(program)
        self.wait_for_card()
        self.assertEqual(atr(), "3b:85:80:01:68:65:6c:6c:6f:66")
        hello, *counts = send("00A4040000", "00B0000000", "00B0000000")
        self.assertEqual(hello, HELLO)
        # opensc-tool sends its own commands first.
        first, second = (int.from_bytes(bytes.fromhex(count.removesuffix("9000")), "big")
                         for count in counts)
        self.assertEqual(second, first + 1)
        card.end()
        wait_until(lambda: atr() is None, "the removal")

    def test_card_that_is_too_slow_is_answered_for_in_time(self):
        program = self.stack.folder / "slow_agent.py"
        program.write_text(SLOW_AGENT)
        self.stack.start_pcscd()
        self.start("/usr/bin/python3", program)
        self.wait_for_card()
        self.assertEqual(send("00A4000000", "00A4060000", "00A4010000"),
                         ["00A4009000", "6F00", "00A4019000"])


if __name__ == "__main__":
    unittest.main(verbosity=2)
