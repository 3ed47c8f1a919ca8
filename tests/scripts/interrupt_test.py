"""Ctrl-C says what it ends, and leaves neither processes nor temporary files."""

import fcntl
import os
import signal
import unittest

from checkout import SOURCE, CheckoutTest, wait_until


class Interrupt(CheckoutTest):
    def setUp(self):
        super().setUp()
        self.pretend_to_build()

    def interrupt(self, *words, code=130):
        """Interrupts as a terminal does: the whole process group gets the signal."""
        process = self.start(SOURCE / "zelta", *words)
        wait_until((self.folder / "begun").exists, "the long step")
        os.killpg(process.pid, signal.SIGINT)
        output, _ = process.communicate(timeout=30)
        self.assertEqual(process.returncode, code, output)
        self.assert_nothing_left(process)
        (self.folder / "begun").unlink()
        return output

    def test_build_of_each_command_is_named_as_ended(self):
        self.fake("cmake", '[ "$1" != --build ] || { touch "$FAKE/begun"; sleep 20; }')
        for words in (("up",), ("soak",), ("bench",), ("test", "--preset", "release"),
                      ("check", "--stage", "clang")):
            with self.subTest(words=words):
                self.assertRegex(self.interrupt(*words),
                                 r"zelta: interrupted; ended: (Building \((release|clang)\)|Stage clang)")

    def test_program_that_is_watched_until_then_ends_as_it_likes(self):
        self.run_dir.mkdir()
        lock = self.enterContext(open(self.run_dir / "up.pid", "w"))
        fcntl.flock(lock, fcntl.LOCK_EX)
        (self.folder / "build" / "bin").mkdir(parents=True)
        for words in (("trace",), ("status", "--watch")):
            program = self.folder / "build" / "bin" / f"zelta-{words[0]}"
            program.write_text("#!/bin/bash\ntrap 'echo bye; exit 0' INT\n"
                               'touch "$FAKE/begun"; sleep 20\n')
            program.chmod(0o755)
            self.assertEqual(self.interrupt(*words, code=0), "bye\n")

    def test_suite_takes_what_its_tests_have_left_along(self):
        self.fake("ctest", 'mkdir "$TMPDIR/zelta-test-1"; touch "$FAKE/begun"; sleep 20')
        output = self.interrupt("test", "--preset", "release")
        self.assertIn("zelta: interrupted; ended: Testing (release)", output)

    def test_suite_takes_the_next_ones_build_along(self):
        self.pretend_to_build_the_debug_preset_slowly()
        self.fake("ctest", 'until [ -e "$FAKE/early" ]; do sleep 0.05; done\n'
                  'touch "$FAKE/begun"; sleep 20')
        self.interrupt("test", "--preset", "release", "--preset", "debug")
        self.assert_early_build_has_ended()

    def test_package_in_the_making_is_named_as_ended(self):
        self.fake("dpkg-buildpackage", 'touch "$FAKE/begun"; sleep 20')
        self.assertRegex(self.interrupt("package", self.folder / "dist"),
                         r"zelta: interrupted; ended: Making the package \(version ")

    def test_installation_is_named_as_ended(self):
        self.fake("dpkg-query", "")
        self.pretend_to_be_a_user()
        self.fake("apt-get", 'touch "$FAKE/begun"; sleep 20')
        self.assertIn("zelta: interrupted; ended: Installing", self.interrupt("up"))

    def test_suite_that_a_stage_runs_ends_with_the_stage(self):
        self.fake("ctest", 'mkdir "$TMPDIR/zelta-test-1"; touch "$FAKE/begun"; sleep 20')
        self.assertIn("zelta: interrupted; ended: Stage tsan",
                      self.interrupt("check", "--stage", "tsan"))

    def test_end_without_an_interruption_leaves_nothing_either(self):
        self.fake("ctest", 'echo "100% tests passed, 0 tests failed out of 3"')
        process = self.start(SOURCE / "zelta", "test", "--preset", "release")
        output, _ = process.communicate(timeout=30)
        self.assertEqual(process.returncode, 0, output)
        self.assertEqual(output.splitlines()[-1], "3 passed, 0 failed")
        self.assert_nothing_left(process)


if __name__ == "__main__":
    unittest.main(verbosity=2)
