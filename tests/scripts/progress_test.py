"""Long steps show their progress, on a terminal and in a pipe, and a failed one shows its error."""

import contextlib
import os
import pty
import re
import subprocess
import unittest

from checkout import SOURCE, CheckoutTest

COMMON = 'PROGRESS_PERIOD=1; log=$(mktemp); trap \'rm -f "$log"\' EXIT; '


class Progress(CheckoutTest):
    def on_terminal(self, script):
        """The script's output on a terminal."""
        ours, theirs = pty.openpty()
        script = f'stty columns 40 <&1; source "{SOURCE}/scripts/common.sh"; {script}'
        with subprocess.Popen(["bash", "-euc", script], env=self.environment, stdin=theirs,
                              stdout=theirs, stderr=theirs) as process:
            os.close(theirs)
            shown = b""
            with open(ours, "rb", buffering=0) as terminal, contextlib.suppress(OSError):
                while data := terminal.read(1024):  # fails once nobody has the other end
                    shown += data
        self.assertEqual(process.returncode, 0, shown)
        return shown.decode()

    def test_piped_step_says_so_in_a_line_each_period(self):
        output = self.shell(COMMON + 'slow() { echo "[ 25%] Building"; sleep 3.5; }; '
                                     'with_progress build_progress "$log" slow')
        lines = output.splitlines()
        self.assertIn(len(lines), (1, 2, 3), output)
        self.assertEqual(set(lines), {"    25 % built"})

    def test_terminal_has_one_line_which_is_gone_at_the_end(self):
        shown = self.on_terminal(COMMON + 'slow() { echo "[ 25%] Building"; sleep 3.5; }; '
                                          'with_progress build_progress "$log" slow')
        self.assertGreaterEqual(shown.count("\r\x1b[K    25 % built"), 1, shown)
        self.assertNotIn("\n", shown)
        self.assertTrue(shown.endswith("\r\x1b[K"), shown)

    def test_line_fits_the_terminal(self):
        shown = self.on_terminal(COMMON + 'far() { printf "%060d" 0; }; '
                                          'with_progress far "$log" sleep 3')
        self.assertEqual(max(len(line) for line in re.split(r"\r\x1b\[K", shown)), 39)

    def test_time_left_is_told_from_the_time_that_it_took(self):
        script = ('for at in "0 60" "50 4" "50 60" "25 30" "25 300" "100 60"; do '
                  'echo "$at:$(eta $at)"; done')
        self.assertEqual(self.shell(script).splitlines(),
                         ["0 60:", "50 4:", "50 60:, about 60 s left", "25 30:, about 2 min left",
                          "25 300:, about 15 min left", "100 60:, about 0 s left"])

    def test_builds_own_percentage_is_told(self):
        script = ('log=$(mktemp); printf "[  1%%] one\\n[ 42%%] two\\nwarning: [3%%]\\n" >"$log"; '
                  'build_progress "$log" 3; rm "$log"')
        self.assertEqual(self.shell(script), "42 % built")

    def test_package_that_is_being_installed_is_named(self):
        script = ('log=$(mktemp); printf "dlstatus:1:20.5:Retrieving file 1\\n'
                  'pmstatus:dpkg-exec:40.0000:Running dpkg\\npmstatus:g++:61.5:Unpacking g++ '
                  '(amd64)\\nUnpacking g++ ...\\n" >"$log"; apt_progress "$log" 3; rm "$log"')
        self.assertEqual(self.shell(script), "61 % Unpacking g++ (amd64)")

    def test_step_that_has_said_nothing_yet_is_at_the_beginning(self):
        script = ('log=$(mktemp); build_progress "$log" 60; echo; apt_progress "$log" 60; rm "$log"')
        self.assertEqual(self.shell(script), "0 % built\n0 % ")

    def test_failed_build_shows_its_first_error_however_much_follows(self):
        self.pretend_to_build()
        self.fake("cmake", 'if [ "$1" = --build ]; then '
                           'echo "[ 10%] Building"; echo "FAILED: a.o"; echo "a.cpp:1: error: boom"; '
                           'seq 200; exit 1; fi')
        output = self.zelta("up", code=1)
        self.assertIn("a.cpp:1: error: boom", output)
        self.assertNotIn("[ 10%]", output)
        self.assertIn(f"zelta: the build in {self.folder}/build failed", output)

    def test_failed_configuration_shows_its_error(self):
        self.pretend_to_build()
        self.fake("cmake", 'seq 200; echo "CMake Error at CMakeLists.txt:1: boom"; seq 200; exit 1')
        self.assertIn("CMake Error at CMakeLists.txt:1: boom", self.zelta("up", code=1))

    def test_failure_without_an_error_shows_the_end(self):
        self.pretend_to_build()
        self.fake("cmake", 'seq 200; echo last words; exit 1')
        self.assertIn("last words", self.zelta("up", code=1))

    def test_failed_installation_shows_its_error_and_what_to_try(self):
        self.pretend_to_be_a_user()
        self.fake("dpkg-query", '[ "${@: -1}" = pcscd ] || echo installed')
        self.fake("apt-get", 'echo "E: Unable to locate package pcscd"; exit 100')
        output = self.zelta("up", code=1)
        self.assertIn("==> Installing 1 packages: pcscd", output)
        self.assertIn("E: Unable to locate package pcscd", output)
        self.assertIn("try: sudo apt-get install pcscd", output)

    def test_failed_package_shows_its_error(self):
        self.pretend_to_build()
        self.fake("dpkg-buildpackage", 'echo "dh_missing: error: boom"; seq 200; exit 1')
        output = self.zelta("package", self.folder / "dist", code=1)
        self.assertIn("dh_missing: error: boom", output)
        self.assertIn("the package could not be made", output)


if __name__ == "__main__":
    unittest.main(verbosity=2)
