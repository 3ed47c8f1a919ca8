"""The reports of `./zelta test` and `./zelta check` about tests that failed or could not run."""

import unittest

from checkout import CheckoutTest

LOG = """1/6 Testing: ZeltaCommand.test_up
setUpModule (__main__) ... skipped 'no mounts are possible here: Operation not permitted'
2/6 Testing: DebianService.test_upgrade
test_upgrade (__main__.DebianService.test_upgrade) ... skipped "it isn't systemd that runs"
3/6 Testing: PcscdEndTest.Signal
/sources/tests/pcsc/pcscd_fixture.h:147: Skipped
no mounts are possible here: Operation not permitted

4/6 Testing: Parser.SaysWhatItSkipped
"""
RESULT = """100% tests passed, 0 tests failed out of 6

The following tests did not run:
\t  1 - ZeltaCommand.test_up (Skipped)
\t  2 - DebianService.test_upgrade (Skipped)
\t  3 - PcscdEndTest.Signal (Skipped)
"""
FAILED_LOG = """1/6 Testing: Pipe.Reads
1/6 Test: Pipe.Reads
Output:
----------------------------------------------------------
[ OK ] Pipe.Reads
<end of output>
Test Passed.
2/6 Testing: Pipe.ReadsLate
2/6 Test: Pipe.ReadsLate
Output:
----------------------------------------------------------
""" + "".join(f"line {number}\n" for number in range(100)) + """<end of output>
Test Failed.
"""
FAILED_RESULT = """83% tests passed, 1 tests failed out of 6

The following tests FAILED:
\t 2 - Pipe.ReadsLate (Failed)
"""

PROGRAM_RESULT = FAILED_RESULT.replace("Pipe.ReadsLate", "pipe_test")


def passed_test(name):
    return [f"[ RUN      ] {name}", f"[       OK ] {name} (0 ms)"]


def failed_test(name, *lines):
    return [f"[ RUN      ] {name}", *lines, f"[  FAILED  ] {name} (7 ms)"]


def program_log(*lines):
    """The log of a program of many tests, with these lines."""
    return "\n".join(["2/6 Testing: pipe_test", "2/6 Test: pipe_test", "Output:", "-" * 58, *lines,
                      "<end of output>", "Test Failed.", ""])


class Suite(CheckoutTest):
    def setUp(self):
        super().setUp()
        self.pretend_to_build()
        self.log = self.folder / "build" / "Testing" / "Temporary" / "LastTest.log"
        self.log.parent.mkdir(parents=True)
        self.log.write_text(LOG)

    def with_result(self, result, *command, code=0):
        (self.folder / "result").write_text(result)
        self.fake("ctest", 'cat "$FAKE/result"')
        return self.zelta(*command, code=code).splitlines()

    def run_suite(self, result, code=0):
        return self.with_result(result, "test", "--preset", "release", code=code)

    def test_failed_tests_are_shown_again_at_the_end_with_the_last_lines_of_what_they_printed(self):
        self.log.write_text(FAILED_LOG)
        shown = ["Pipe.ReadsLate (release)", *(f"    line {number}" for number in range(70, 100))]
        self.assertEqual(self.run_suite(FAILED_RESULT, code=1)[-33:],
                         ["==> Failed tests", *shown, "5 passed, 1 failed"])

    def shown_of_program(self, *lines):
        """What is shown again of a failed program of many tests that printed these lines."""
        self.log.write_text(FAILED_LOG.replace("2/6", "1/6") + program_log(*lines))
        output = self.run_suite(PROGRAM_RESULT, code=1)
        begin = output.index("pipe_test (release)")
        self.assertEqual(output[begin - 1], "==> Failed tests")
        return [line[4:] for line in output[begin + 1:-1]]

    def test_program_with_failures_is_shown_with_these_only(self):
        first = failed_test("Pipe.Opens", "pipe_test.cpp:8: Failure", "Value of: opened")
        second = failed_test("Pipe.Closes", "pipe_test.cpp:9: Failure")
        many = [line for number in range(50) for line in passed_test(f"Pipe.Reads/{number}")]
        skipped = ["[ RUN      ] Pipe.Hangs", "no pipes", "[  SKIPPED ] Pipe.Hangs (0 ms)"]
        listed = [" 2 FAILED TESTS", "[  FAILED  ] Pipe.Opens", "[  FAILED  ] Pipe.Closes"]
        self.assertEqual(
            self.shown_of_program(*many, *first, *many, *skipped, *second, *many, *listed),
            first + second)

    def test_failure_of_many_lines_is_shown_without_its_middle(self):
        lines = [f"line {number}" for number in range(100)]
        self.assertEqual(self.shown_of_program(*failed_test("Pipe.Opens", *lines)),
                         failed_test("Pipe.Opens", *lines[:19], "... 62 lines ...", *lines[-19:]))

    def test_program_that_ended_inside_a_test_is_shown_with_its_failures_and_its_last_lines(self):
        failure = failed_test("Pipe.Opens", "pipe_test.cpp:8: Failure")
        last = [*passed_test("Pipe.Reads"), "[ RUN      ] Pipe.Closes", "terminate called"]
        self.assertEqual(self.shown_of_program(*failure, *last), failure + last)
        many = [line for number in range(50) for line in passed_test(f"Pipe.Reads/{number}")]
        self.assertEqual(self.shown_of_program(*failure, *many, *last),
                         failure + (many + last)[-30:])

    def test_check_shows_the_failed_tests_of_its_stages_at_the_end(self):
        log = self.folder / "build-tsan" / "Testing" / "Temporary" / "LastTest.log"
        log.parent.mkdir(parents=True)
        log.write_text(FAILED_LOG)
        checked = self.with_result(FAILED_RESULT, "check", "--stage", "tsan", code=1)
        begin = checked.index("==> Stage tsan failed")
        self.assertEqual(checked[begin + 1], "Pipe.ReadsLate (tsan)")
        self.assertEqual(checked[begin + 31:begin + 33], ["    line 99", "==> Stages"])

    def test_check_shows_the_end_of_a_stage_without_tests_that_failed(self):
        self.fake("shellcheck", "seq -f 'remark %g' 100; exit 1")
        checked = self.zelta("check", "--stage", "shellcheck", code=1).splitlines()
        begin = checked.index("==> Stage shellcheck failed")
        self.assertEqual(checked[begin + 1], "remark 61")
        self.assertEqual(checked[begin + 40:begin + 42], ["remark 100", "==> Stages"])

    def test_skipped_tests_are_counted_by_their_reason_and_not_as_passed(self):
        self.assertEqual(self.run_suite(RESULT)[-3:],
                         ["1 skipped: it isn't systemd that runs",
                          "2 skipped: no mounts are possible here: Operation not permitted",
                          "3 passed, 0 failed"])

    def test_failures_count_beside_skipped_tests(self):
        failed = RESULT.replace("100% tests passed, 0 tests", "66% tests passed, 2 tests")
        self.assertEqual(self.run_suite(failed, code=1)[-1], "1 passed, 2 failed")

    def test_suite_without_skipped_tests_says_nothing_of_them(self):
        lines = self.run_suite("100% tests passed, 0 tests failed out of 6\n")
        self.assertEqual(lines[-2:], ["100% tests passed, 0 tests failed out of 6",
                                      "6 passed, 0 failed"])

    def test_next_suite_is_built_meanwhile_and_ended_when_its_turn_comes(self):
        self.pretend_to_build_the_debug_preset_slowly()
        self.fake("ctest", 'until [ -e "$FAKE/early" ]; do sleep 0.05; done\n'
                  'echo "100% tests passed, 0 tests failed out of 3"')
        output = self.zelta("test", "--preset", "release", "--preset", "debug").splitlines()
        self.assertEqual([line for line in output if line.startswith("==>")],
                         ["==> Building (release)", "==> Testing (release)", "==> Building (debug)",
                          "==> Testing (debug)"])
        self.assertEqual(output[-1], "6 passed, 0 failed")
        self.assert_early_build_has_ended()

    def test_suite_of_skipped_tests_only_is_no_failure(self):
        result = RESULT.replace("out of 6", "out of 3")
        self.assertEqual(self.run_suite(result)[-1], "0 passed, 0 failed")


if __name__ == "__main__":
    unittest.main(verbosity=2)
