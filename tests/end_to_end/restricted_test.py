"""A part of the suite as it runs on a machine that permits less: tests that cannot run there are
skipped with a reason, nothing fails, and nothing is left behind."""

import os
import pathlib
import re
import shutil
import tempfile
import unittest

import stack
from stack import BUILD

PASSES = ("Completions.test_bash_offers_commands_and_values",
          "DocumentedCommands.test_names_of_our_commands_and_options_exist", "UnloadTest")
# One test of each program that mounts something, and of each way to do it.
NEEDS_MOUNTS = (
    "CardElsewhere.test_opensc_signs_with_it_through_an_agent_without_root",
    "DebianInstallation.test_reader_and_service_user_work_after_installation",
    "DebianService.test_confined_agent_signs", "DebianUpgrade", "DocumentedInstallation",
    "DocumentedPages", "EndToEnd.test_every_key_signs_and_openssl_verifies",
    "Examples.test_agent_on_one_page_answers_and_starts_again", "FullDisk", "GnupgPkcs11Scd",
    "OpenscTool", "PcscdEnd", "ReadmePage", "ReaderComesBack",
    "Soak.test_each_disturbance_once_under_load_leaves_every_answer_right",
    "Ssh.test_wrong_pin_is_no_login", "Tstclnt", "ZeltaCommand.test_bad_use_is_refused")
# The folders of the sources and the build, if they are in the folder for temporary files.
HIDDEN = {path.relative_to("/tmp").parts[0] for path in (stack.SOURCE, BUILD)
          if path.is_relative_to("/tmp")}
LIMIT = 280  # seconds
RESULT = re.compile(r"Test +#\d+: (\S+) \.+ *(Passed|\*\*\*\S+(?: \w+)?)")


class Restricted(unittest.TestCase):
    def setUp(self):
        self.folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))

    def run_part(self, temporary, *prefix, reason):
        """Runs with `temporary` as the tests' /tmp or TMPDIR."""
        # ctest keeps its notes beside the list of tests: not in the folder of the suite that runs.
        mirror = temporary / "suite"
        mirror.mkdir()
        (mirror / "CTestTestfile.cmake").write_text(f'subdirs("{BUILD}")\n')
        names = "|".join(re.escape(name) for name in (*PASSES, *NEEDS_MOUNTS))
        seen = pathlib.Path("/tmp") if prefix[0] == "chroot" else temporary
        output = stack.run(*prefix, "env", f"TMPDIR={seen}", "ctest", "--test-dir", seen / "suite",
                           "--tests-regex", rf"^({names})(\.|$)", "--fixture-exclude-any", ".*",
                           "--parallel", "2", timeout=LIMIT).stdout
        results = dict(RESULT.findall(output))
        log = (mirror / "Testing" / "Temporary" / "LastTest.log").read_text()
        for names, outcome in ((PASSES, "Passed"), (NEEDS_MOUNTS, "***Skipped")):
            for name in names:
                outcomes = {result for test, result in results.items() if test.startswith(name)}
                self.assertEqual(outcomes, {outcome}, f"{name}\n{output}")
        skipped = [test for test, result in results.items() if result == "***Skipped"]
        self.assertEqual(log.count(f"no mounts are possible here: {reason}"), len(skipped))
        shutil.rmtree(mirror)
        self.assertEqual({entry.name for entry in temporary.iterdir()} - HIDDEN, set())

    def test_without_the_right_to_mount_tests_are_skipped_with_the_reason(self):
        self.run_part(self.folder, "setpriv", "--bounding-set=-sys_admin", "--inh-caps=-sys_admin",
                      reason="Operation not permitted")

    def test_in_a_plain_chroot_tests_are_skipped_with_the_reason(self):
        stack.unshare_mounts()
        for entry in pathlib.Path("/").iterdir():
            inside = self.folder / entry.name
            if entry.is_symlink():
                inside.symlink_to(os.readlink(entry))
            elif entry.is_dir():
                inside.mkdir()
                if entry.name != "tmp":
                    stack.mount("--rbind", entry, inside)
                    self.addCleanup(stack.run, "umount", "--recursive", "--lazy", inside)
        for name in HIDDEN:
            inside = self.folder / "tmp" / name
            inside.mkdir()
            stack.mount("--rbind", pathlib.Path("/tmp") / name, inside)
            self.addCleanup(stack.run, "umount", "--recursive", "--lazy", inside)
        self.run_part(self.folder / "tmp", "chroot", self.folder,
                      reason="the root is not a mount point, as in a plain chroot")


if __name__ == "__main__":
    unittest.main(verbosity=2)
