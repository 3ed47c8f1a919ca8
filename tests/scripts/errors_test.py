"""Error messages name the cause and what to do next."""

import fcntl
import os
import shutil
import socket
import unittest

from checkout import BUILD, SOURCE, CheckoutTest

NOBODY = 65534
LOGS = "Vornhalt/ZeltaAgent/logs"


class Checkout(CheckoutTest):
    def come_up(self):
        """Holds the lock as `up` does; ends with the test."""
        self.run_dir.mkdir()
        lock = self.enterContext(open(self.run_dir / "up.pid", "w"))
        fcntl.flock(lock, fcntl.LOCK_EX)
        (self.run_dir / "stage").write_text("still coming up (Making the demo card)\n")

    def test_command_works_through_symbolic_links(self):
        link, second = self.folder / "link", self.folder / "second"
        link.symlink_to(SOURCE / "zelta")
        second.symlink_to("link")
        for command in (link, second):
            self.assertRegex(self.run_command(command, "--version"), r"^zelta \d")
            self.assertIn("Nothing is up.", self.run_command(command, "down"))

    def test_commands_say_that_the_reader_is_still_coming_up(self):
        self.come_up()
        (self.folder / "build" / "bin").mkdir(parents=True)
        (self.folder / "build" / "bin" / "zelta-logs").symlink_to(BUILD / "bin" / "zelta-logs")
        for words in (["status"], ["card", "insert"], ["logs"]):
            self.assertEqual(self.zelta(*words, code=1),
                             "zelta: the reader is still coming up (Making the demo card); "
                             "try again in a few seconds\n")

    def test_commands_say_how_to_bring_a_reader_up(self):
        for words in (["status"], ["card", "insert"]):
            self.assertEqual(self.zelta(*words, code=1),
                             "zelta: no reader is up here; ./zelta up brings one up\n")
        self.assertEqual(self.zelta("logs", code=1),
                         "zelta: zelta-logs is not built; ./zelta up builds it\n")

    def test_wrong_words_lead_to_the_help(self):
        for words in (["fly"], ["up", "--fast"], ["down", "x"], ["status", "x"], ["card"],
                      ["card", "insert", "now"], ["test", "x"],
                      ["check", "x"], ["package", "--x"], ["soak", "x"], ["bench", "x"]):
            self.assertRegex(self.zelta(*words, code=2), r"^zelta: .*; see \./zelta .*--help\n$")

    def test_folder_for_the_package_that_cannot_be_made_is_named(self):
        self.pretend_to_build()
        (self.folder / "file").touch()
        output = self.zelta("package", self.folder / "file" / "dist", code=1)
        self.assertIn(f"zelta: the package cannot be put into {self.folder}/file/dist; "
                      "name another folder: ./zelta package FOLDER", output)

    def test_folder_that_is_not_ups_is_left_alone(self):
        self.run_dir.mkdir()
        (self.run_dir / "precious").touch()
        output = self.zelta("up", "--run-only", code=1)
        self.assertIn(f"{self.run_dir} is not empty and not of ./zelta up; "
                      "set ZELTA_RUN_DIR to another folder", output)
        self.assertTrue((self.run_dir / "precious").exists())

    def test_machine_without_debians_packages_is_told(self):
        output = self.shell("command() { return 1; }; need_packages g++", code=1)
        self.assertIn("zelta: the packages are Debian's, and there is no apt-get here", output)


@unittest.skipIf(os.geteuid() != 0, "another user can only be played by root")
class OrdinaryUser(CheckoutTest):
    """The programs, and what belongs to root, in a folder that everyone may enter."""

    def setUp(self):
        super().setUp()
        self.folder.chmod(0o755)
        for name in ("zelta-agent", "zelta-logs", "zelta-trace"):
            shutil.copy(BUILD / "bin" / name, self.folder / name)
        self.environment.pop("XDG_RUNTIME_DIR", None)

    def as_nobody(self, program, *words, **options):
        return self.run_command("setpriv", f"--reuid={NOBODY}", f"--regid={NOBODY}",
                                "--clear-groups", self.folder / program, *words, **options)

    def listen(self, path):
        server = self.enterContext(socket.socket(socket.AF_UNIX))
        server.bind(str(path))
        server.listen()
        path.chmod(0o600)

    def test_agent_of_another_user_is_asked_with_sudo(self):
        path = self.folder / "control"
        self.listen(path)
        for word in ("status", "insert", "remove"):
            self.assertEqual(self.as_nobody("zelta-agent", "ctl", word, "--control", path, code=1),
                             f"zelta-agent: permission denied at {path}: an agent answers its own "
                             "user, root, and for the service the group zelta; run this with sudo\n")

    def test_agent_that_does_not_run_is_named_with_what_starts_it(self):
        self.environment["XDG_RUNTIME_DIR"] = str(self.folder)
        output = self.run_command(self.folder / "zelta-agent", "ctl", "status", "--reader", "77",
                                  code=1)
        self.assertEqual(output,
                         f"zelta-agent: no agent is running at {self.folder}/zelta-agent77.ctl, "
                         "/run/zelta/agent77.ctl, /run/zelta-agent77/control; to start the "
                         "service: sudo systemctl start zelta-agent@77; an agent with --to "
                         "answers at the path of its --control only\n")

    def test_control_path_without_an_agent_is_named(self):
        (self.folder / "file").touch()
        for path in (self.folder / "none", self.folder / "file", self.folder / "file" / "below",
                     self.folder):
            self.assertEqual(self.as_nobody("zelta-agent", "ctl", "status", "--control", path,
                                            code=1),
                             f"zelta-agent: no agent is running at {path}\n")

    def test_files_that_make_no_card_are_named_with_the_reason(self):
        closed = self.folder / "closed"
        closed.mkdir(0o700)
        none = self.folder / "none"
        script = ["--backend", "script", "--script"]
        for words, problem in (
                (["--pin-file", none], f"cannot read {none}: No such file or directory"),
                (["--pin-file", closed / "pin"], f"cannot read {closed}/pin: Permission denied"),
                ([*script, none], f"cannot read {none}: No such file or directory"),
                ([*script, self.folder], f"cannot read {self.folder}: Is a directory"),
                (["--db", none],
                 f"no card database in {none} (to make one: make-demo-db.sh, in /usr/share/zelta "
                 "or a checkout's scripts)"),
                (["--db", closed], f"the card database in {closed}: Permission denied")):
            self.temporary.chmod(0o777)
            output = self.as_nobody("zelta-agent", "--control", self.temporary / "control", *words,
                                    code=2)
            self.assertTrue(output.endswith(f"Z error: {problem}\n"), output)

    def test_trace_that_cannot_be_read_or_written_is_named_with_the_reason(self):
        none, saved = self.folder / "none", self.folder / "saved"
        saved.touch()
        for words, problem in (([none], f"{none}: No such file or directory"),
                               ([self.folder], f"{self.folder}: Is a directory"),
                               ([saved, "--html", none], f"{none}: Permission denied")):
            self.assertEqual(self.as_nobody("zelta-trace", *words, code=1),
                             f"zelta-trace: {problem}\n")

    def test_systems_logs_without_the_group_are_explained(self):
        logs = self.folder / "data" / LOGS
        logs.mkdir(parents=True)
        logs.parent.chmod(0o750)
        self.environment["ZELTA_PROGRAM_DATA"] = str(self.folder / "data")
        output = self.as_nobody("zelta-logs", "--no-follow", code=1)
        self.assertEqual(output,
                         f"zelta-logs: permission denied: {logs}; the logs are for root and the "
                         "group adm: use sudo, or join the group (sudo usermod -aG adm $USER) and "
                         "log in again\n")

    def test_log_file_that_may_not_be_read_is_named(self):
        for words in ([], ["--all"]):
            logs = self.folder / f"logs{len(words)}"
            logs.mkdir()
            log = logs / "zelta_vsc_2024_03_05T14_07_09_042Z.txt"
            log.write_text("line\n")
            log.chmod(0o600)
            self.assertEqual(self.as_nobody("zelta-logs", "--dir", logs, *words, code=1),
                             f"zelta-logs: {log}: Permission denied\n")

    def test_wrong_folder_of_logs_is_named(self):
        (self.folder / "file").touch()
        for folder, problem in ((self.folder / "none", "there is no folder {}"),
                                (self.folder / "file", "{} is not a folder"),
                                (self.folder / "tmp" / "x", "there is no folder {}")):
            self.assertEqual(self.as_nobody("zelta-logs", "--dir", folder, code=1),
                             f"zelta-logs: {problem.format(folder)}\n")

    def test_build_folder_of_another_user_is_named(self):
        build = self.folder / "build"
        build.mkdir()
        script = (f'source "{SOURCE}/scripts/common.sh"; build_preset release')
        output = self.run_command("setpriv", f"--reuid={NOBODY}", f"--regid={NOBODY}",
                                  "--clear-groups", "bash", "-euc", script, code=1)
        self.assertIn(f"zelta: {build} belongs to root; take it over", output)
        self.assertIn("or set ZELTA_BUILD_DIR to another folder", output)


if __name__ == "__main__":
    unittest.main(verbosity=2)
