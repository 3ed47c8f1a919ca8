"""What `./zelta test` says of the tests that the machine does not let run."""

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


class Suite(CheckoutTest):
    def setUp(self):
        super().setUp()
        self.pretend_to_build()
        log = self.folder / "build" / "Testing" / "Temporary" / "LastTest.log"
        log.parent.mkdir(parents=True)
        log.write_text(LOG)

    def run_suite(self, result, code=0):
        (self.folder / "result").write_text(result)
        self.fake("ctest", 'cat "$FAKE/result"')
        return self.zelta("test", "--preset", "release", code=code).splitlines()

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

    def test_suite_of_skipped_tests_only_is_no_failure(self):
        result = RESULT.replace("out of 6", "out of 3")
        self.assertEqual(self.run_suite(result)[-1], "0 passed, 0 failed")


if __name__ == "__main__":
    unittest.main(verbosity=2)
