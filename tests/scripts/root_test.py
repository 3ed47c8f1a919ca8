"""A user's commands ask for the password once, first, and not again however long they take."""

import unittest

from checkout import SOURCE, CheckoutTest


class Root(CheckoutTest):
    def setUp(self):
        super().setUp()
        self.pretend_to_be_a_user()

    def test_two_things_for_root_take_one_password(self):
        self.shell('as_root "to try" true; as_root "to try again" true')
        self.assertEqual(self.asked(), 1)

    def test_password_is_kept_alive_while_a_command_runs(self):
        self.environment["SUDO_MEMORY"] = "2"  # seconds
        self.shell('SUDO_PERIOD=0.2; ask_root "to try"; sleep 4; as_root "to try" true')
        self.assertEqual(self.asked(), 1)

    def test_password_that_is_not_kept_alive_is_asked_for_again(self):
        self.environment["SUDO_MEMORY"] = "2"
        self.shell('SUDO_PERIOD=100; ask_root "to try"; sleep 4; as_root "to try" true')
        self.assertEqual(self.asked(), 2)

    def test_password_is_kept_alive_no_longer_than_the_command_runs(self):
        process = self.start("bash", "-euc", 'source scripts/common.sh; ask_root "to try"',
                             cwd=SOURCE)
        process.communicate(timeout=30)
        self.assert_nothing_left(process)

    def test_no_password_is_asked_for_if_none_is_needed(self):
        (self.folder / "sudo.until").write_text("9" + "0" * 18)
        self.assertNotIn("Root is needed to try.", self.shell('ask_root "to try"'))
        self.assertEqual(self.asked(), 0)

    def test_each_command_asks_once_and_first(self):
        self.pretend_to_build()
        self.fake("dpkg-query", "echo not-installed")
        self.fake("apt-get", 'echo "pmstatus:package:50.0:Installing package"')
        self.fake("ctest", 'echo "100% tests passed, 0 tests failed out of 3"')
        self.fake("env", 'while [[ $1 == *=* ]]; do shift; done; '
                         'case "$1" in */python3) ;; *) exec "$@" ;; esac')
        for words, purpose in ((("soak",), "to run pcscd"), (("bench",), "to run pcscd"),
                               (("test", "--preset", "release"), "to run pcscd"),
                               (("check", "--stage", "test"), "to run pcscd")):
            with self.subTest(words=words):
                for name in ("asked", "until"):
                    (self.folder / f"sudo.{name}").unlink(missing_ok=True)
                output = self.zelta(*words)
                self.assertEqual(self.asked(), 1, output)
                self.assertTrue(output.startswith(f"Root is needed {purpose}"), output)

    def test_up_asks_before_it_builds(self):
        self.pretend_to_build()
        self.fake("cmake", 'cat "$FAKE/sudo.asked" >"$FAKE/asked-before"')
        (self.programs / "sudo").write_text(
            (self.programs / "sudo").read_text().replace('exec "$@"', "true"))
        self.zelta("up")
        self.assertEqual((self.folder / "asked-before").read_text(), "asked\n")
        self.assertEqual(self.asked(), 1)
        self.assertIn("up.sh --run-only", (self.folder / "sudo.commands").read_text())

    def test_suites_without_root_ask_for_nothing(self):
        self.pretend_to_build()
        self.fake("ctest", 'echo "100% tests passed, 0 tests failed out of 3"')
        self.assertIn("3 passed, 0 failed", self.zelta("test", "--preset", "windows"))
        self.assertEqual(self.asked(), 0)

    def test_refused_password_ends_the_command_with_its_purpose(self):
        (self.folder / "sudo.refuses").touch()
        self.assertIn("zelta: root is needed to try, and sudo does not allow it: run this as root",
                      self.shell('ask_root "to try"', code=1))

    def test_missing_sudo_is_named(self):
        self.fake("sudo", "")
        output = self.shell('hash -r; command() { return 1; }; ask_root "to try"', code=1)
        self.assertIn("zelta: root is needed to try, and there is no sudo: run this as root", output)


if __name__ == "__main__":
    unittest.main(verbosity=2)
