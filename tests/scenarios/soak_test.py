"""The soak for a short while, and its end by Ctrl-C."""

import itertools
import os
import pathlib
import signal
import subprocess
import sys
import tempfile
import unittest

import chaos
import soak
import soak_report
import stack

SOAK = pathlib.Path(__file__).with_name("soak.py")
# The soak with a disturbance that must make it fail.
WITH = f"""
import sys
sys.path.insert(0, {str(SOAK.parent)!r})
import chaos, hostile_agent, soak
def stranger(stage, seconds):
    with stage.without_agent():
        hostile_agent.play_malformed(hostile_agent.Malformed("none"))
soak.KINDS = chaos.Kind("bad", %s, 1.0, 5.0, False),
sys.exit(soak.main(sys.argv[1:]))
"""


def setUpModule():
    stack.unshare_mounts()  # as the soak does


class Soak(unittest.TestCase):
    def start(self, *words, program=(SOAK,)):
        return subprocess.Popen([sys.executable, *program, *words], stdout=subprocess.PIPE,
                                stderr=subprocess.STDOUT, text=True, start_new_session=True)

    def test_each_disturbance_once_under_load_leaves_every_answer_right(self):
        count = len(chaos.KINDS)
        with tempfile.TemporaryDirectory() as folder:
            run = self.start("--stops", str(count), "--reports", folder)
            output = run.communicate()[0]
            self.assertEqual(run.returncode, 0, output)
            self.assertIn(f"{count} disturbances, {count} recoveries in time", output)
            self.assertRegex(output, r"[1-9]\d* right, 0 wrong")
            [report] = pathlib.Path(folder).glob("soak-*.md")
            page = report.read_text()
        for kind in chaos.KINDS:
            self.assertIn(f"| {kind.name} | 1 |", page)

    def test_seed_repeats_the_disturbances(self):
        def plan(seed):
            return list(itertools.islice(soak.plan(seed), 3 * len(chaos.KINDS)))

        def malformed(seed):
            stage = chaos.Stage(None, None, seed)
            return [stage.next_malformed() for _ in range(3 * len(chaos.MALFORMED))]

        def questions(seed):
            import clients  # which tries to reach pcscd; to make questions it need not be there

            client = clients.Client("Alice", None, seed)
            return [client.question(slow=False) for _ in range(20)]

        for begin in (plan, malformed, questions):
            with self.subTest(begin.__name__):
                self.assertEqual(begin(5), begin(5))
                self.assertNotEqual(begin(5), begin(6))

    def assert_fails(self, disturbance, evidence):
        run = self.start("--stops", "3", program=("-c", WITH % disturbance))
        output = run.communicate()[0]
        self.assertEqual(run.returncode, 1, output)
        self.assertRegex(output, evidence)
        self.assertIn("--- end of pcscd.log", output)

    def test_bytes_of_an_unannounced_agent_fail_the_run_with_the_evidence(self):
        self.assert_fails("stranger", r"WRONG [\d.]+ s: \w+ (asked|was told) .*\bee ee\b")

    def test_disturbed_other_reader_fails_the_run(self):
        self.assert_fails("chaos.kill_pcscd", r"WRONG [\d.]+ s: the other reader is disturbed")

    def test_process_that_ended_by_itself_fails_the_run(self):
        self.assert_fails("lambda stage, seconds: stage.reader.agent.end(9)",
                          r"1 \(bad, [\d.]+ s\): agent has ended with -9")

    def test_only_more_descriptors_and_threads_than_allowed_are_growth(self):
        start = {"pcscd": (1000, 10, 5)}
        self.assertEqual(soak_report.grown(start, {"pcscd": (9000, 14, 9)}), [])
        self.assertEqual(soak_report.grown(start, {"pcscd": (1000, 15, 10)}),
                         ["pcscd has 15 descriptors, 10 at the start",
                          "pcscd has 10 threads, 5 at the start"])

    def test_interrupted_soak_ends_with_its_summary(self):
        run = self.start("--minutes", "5")
        begun = [run.stdout.readline() for _ in range(2)]
        self.assertIn("Ctrl-C ends it", begun[1])
        os.killpg(run.pid, signal.SIGINT)  # as a terminal does
        output = run.communicate()[0]
        self.assertEqual(run.returncode, 0, output)
        self.assertRegex(begun[0], r"Seed \d+")
        self.assertRegex(output, r"Interrupted.\n\d+ disturbances, \d+ recoveries in time")


if __name__ == "__main__":
    unittest.main(verbosity=2)
