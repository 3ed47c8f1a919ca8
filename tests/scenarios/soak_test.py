"""The soak for a short while, and its end by Ctrl-C."""

import pathlib
import signal
import subprocess
import sys
import unittest

import stack

SOAK = pathlib.Path(__file__).with_name("soak.py")


def setUpModule():
    stack.unshare_mounts()  # as the soak does


class Soak(unittest.TestCase):
    def start(self, *words):
        return subprocess.Popen([sys.executable, SOAK, *words], stdout=subprocess.PIPE,
                                stderr=subprocess.STDOUT, text=True)

    def test_18_random_stops_under_load_leave_every_answer_right(self):
        # These moments and durations have several standstills beyond every limit.
        soak = self.start("--stops", "18", "--seed", "16")
        output = soak.communicate()[0]
        self.assertEqual(soak.returncode, 0, output)
        self.assertRegex(output, r"18 stops, 18 recoveries in time")
        self.assertRegex(output, r"[1-9]\d* right, 0 wrong")

    def test_interrupted_soak_ends_with_its_summary(self):
        soak = self.start("--minutes", "5")
        begun = [soak.stdout.readline() for _ in range(2)]
        self.assertIn("Ctrl-C ends it", begun[1])
        soak.send_signal(signal.SIGINT)
        output = soak.communicate()[0]
        self.assertEqual(soak.returncode, 0, output)
        self.assertRegex(begun[0], r"Seed \d+")
        self.assertRegex(output, r"Interrupted.\n\d+ stops, \d+ recoveries in time")


if __name__ == "__main__":
    unittest.main(verbosity=2)
