"""zelta-logs as a user runs it."""

import os
import pathlib
import shlex
import shutil
import signal
import subprocess
import tempfile
import time
import unittest

PROGRAM = os.environ["ZELTA_LOGS_PROGRAM"]
NOBODY = "00000000-0000-0000-0000-000000000000"
HEADER = ("Thread   Time                     Elapsed  Session Log Id                       Cat   "
          "Level      RC          Message\n")
INFO = f"[1234  ] 2024-03-05T14:07:09.042Z 12       {NOBODY} 0     <INFO>     0           "
INFO += "[TRSM]IOCTL_SMARTCARD_TRANSMIT\n"
ERROR = ("[123456789] 2024-03-05T14:07:10.000Z 970      a1b2c3d4-0000-0000-0000-000000000000 0     "
         "<ERROR>    -1073741448 [GATT]SCARD_ATTR_ATR_STRING: STATUS_NO_MEDIA\n")
DEBUG_COLUMNS = f"[1234  ] 2024-03-05T14:08:00.500Z 51470    {NOBODY} 0     <DEBUG>    0           "
DEBUG = DEBUG_COLUMNS + "Start section:CMyDevice::OnD0Entry\n"
LIMIT = 60  # seconds


def run(*words, **variables):
    """The exit code, and standard output and standard error together."""
    result = subprocess.run([PROGRAM, *map(str, words)], stdout=subprocess.PIPE,
                            stderr=subprocess.STDOUT, text=True, timeout=LIMIT,
                            env={**os.environ, **variables}, check=False)
    return result.returncode, result.stdout


class LogsTest(unittest.TestCase):
    def setUp(self):
        self.folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        self.older = self.folder / "zelta_vsc_2024_03_05T14_07_09_042Z.txt"
        self.newest = self.folder / "zelta_vsc_2024_03_05T14_08_00_000Z.txt"
        self.older.write_text(HEADER + INFO + ERROR)
        self.newest.write_text(HEADER + DEBUG)

    def append(self, path, text):
        with path.open("a") as file:
            file.write(text)

    def show(self, *options):
        return run("--no-follow", "--dir", self.folder, *options)[1]

    def show_on_terminal(self, *options, **variables):
        """`script` gives its command its own terminal."""
        command = shlex.join([PROGRAM, "--no-follow", "--dir", str(self.folder), *options])
        result = subprocess.run(["script", "-qec", command, "/dev/null"], capture_output=True,
                                text=True, timeout=LIMIT, env={**os.environ, **variables},
                                check=False)
        return result.stdout.replace("\r", "")


class LogsProgram(LogsTest):
    def test_piped_shows_the_newest_file_plain(self):
        self.assertEqual(run("--no-follow", "--dir", self.folder), (0, HEADER + DEBUG))

    def test_all_reads_rotated_files_in_order(self):
        self.assertEqual(self.show("--all"), HEADER + INFO + ERROR + DEBUG)

    def test_several_filters_combine(self):
        text = self.show("--all", "--level", "error", "--tag", "GATT", "--session", "a1")
        self.assertIn(ERROR, text)
        self.assertNotIn(INFO, text)
        self.assertNotIn(ERROR, self.show("--since", "2024-03-05T14:08"))

    def test_tag_is_found_with_and_without_brackets(self):
        bare = self.show("--all", "--tag", "TRSM")
        self.assertIn(INFO, bare)
        self.assertNotIn(ERROR, bare)
        self.assertEqual(self.show("--all", "--tag", "[TRSM]"), bare)

    def test_json_names_the_file_of_each_record(self):
        text = self.show("--all", "--json", "--level", "error")
        self.assertIn('"code":-1073741448', text)
        self.assertIn(f'"file":"{self.older.name}"}}', text)

    def test_colours_are_for_terminals_unless_it_is_told_otherwise(self):
        self.assertIn("\x1b[31m[", self.show("--all", "--color", "always"))
        self.assertIn("\x1b[31m14:07", self.show_on_terminal("--all", NO_COLOR=""))
        self.assertNotIn("\x1b[", self.show_on_terminal("--all", NO_COLOR="1"))

    def test_view_is_compact_on_a_terminal_unless_another_is_asked_for(self):
        plain = ("--all", "--color", "never")
        compact = self.show_on_terminal(*plain)
        self.assertIn("14:07:09.042 INFO                 [TRSM]IOCTL_SMARTCARD", compact)
        self.assertEqual(self.show("--all", "--view", "compact"), compact)
        self.assertEqual(self.show("--all"), self.show_on_terminal(*plain, "--view", "full"))
        self.assertIn('"tag":"TRSM"', self.show_on_terminal(*plain, "--json"))

    def test_control_characters_are_escaped_on_a_terminal(self):
        self.append(self.newest, INFO.rstrip() + "\x1b[31m\n")
        text = self.show_on_terminal("--color", "never")
        self.assertIn("\\x1b[31m", text)
        self.assertNotIn("\x1b[", text)
        self.assertIn("\x1b[31m", self.show("--color", "never"))

    def test_pin_in_a_dump_is_hidden_unless_it_is_asked_for(self):
        self.append(self.newest, DEBUG_COLUMNS + "9 byte dump:\n" + DEBUG_COLUMNS +
                    "00 20 00 81 04 31 32 33 34 \n")
        self.assertIn("00 20 00 81 04 .. .. .. .. \n", self.show())
        self.assertNotIn("31 32", self.show())
        self.assertIn("00 20 00 81 04 31 32 33 34 \n", self.show("--show-secrets"))

    def test_bad_use_is_refused_with_code_2(self):
        for options in ("--level loud", "--since yesterday", "--color blue", "--view wide",
                        "--view full --json", "--nonsense"):
            code, text = run("--no-follow", "--dir", self.folder, *options.split())
            self.assertEqual(code, 2, options)
            self.assertTrue(text)

    def test_missing_or_empty_folder_is_an_error(self):
        code, text = run("--dir", self.folder / "none")
        self.assertEqual(code, 1)
        self.assertIn("there is no folder", text)
        (self.folder / "empty").mkdir()
        code, text = run("--no-follow", "--dir", self.folder / "empty")
        self.assertEqual(code, 1)
        self.assertIn("no log file", text)

    def test_help_and_version_succeed(self):
        self.assertEqual(run("--help")[0], 0)
        self.assertIn("zelta-logs ", run("--version")[1])

    def test_following_goes_on_in_a_new_file_and_ends_cleanly_on_interrupt(self):
        program = self.enterContext(subprocess.Popen([PROGRAM, "--dir", self.folder],
                                                     stdout=subprocess.PIPE, text=True))
        self.addCleanup(program.kill)
        self.assertEqual([program.stdout.readline() for _ in range(2)], [HEADER, DEBUG])
        self.append(self.newest, INFO)
        self.assertEqual(program.stdout.readline(), INFO)
        (self.folder / "zelta_vsc_2024_03_06T00_00_00_000Z.txt").write_text(HEADER + ERROR)
        self.assertEqual(program.stdout.readline(), ERROR)
        self.append(self.newest, DEBUG)  # another process's file
        self.assertEqual(program.stdout.readline(), DEBUG)
        self.newest.unlink()
        self.newest.write_text(HEADER + INFO)
        self.assertEqual(program.stdout.readline(), INFO)
        program.send_signal(signal.SIGINT)
        self.assertEqual(program.wait(LIMIT), 0)

    def test_following_a_folder_that_is_removed_says_so_and_fails(self):
        program = self.enterContext(subprocess.Popen(
            [PROGRAM, "--dir", self.folder], stdout=subprocess.PIPE, stderr=subprocess.PIPE,
            text=True))
        self.addCleanup(program.kill)
        program.stdout.readline()
        shutil.rmtree(self.folder)
        _, problem = program.communicate(timeout=LIMIT)
        self.folder.mkdir()  # for the removal at the end
        self.assertEqual((program.returncode, problem),
                         (1, f"zelta-logs: there is no folder {self.folder}\n"))


class PruneProgram(LogsTest):
    def setUp(self):
        super().setUp()
        self.oldest = self.folder / "zelta_vsc_2024_01_01T00_00_00_000Z.txt"
        self.other = self.folder / "another.txt"
        yesterday = time.time() - 25 * 3600
        for path in (self.oldest, self.other):
            path.write_text("x" * 2048)
            os.utime(path, (yesterday, yesterday))

    def prune(self, options):
        return run("prune", "--dir", self.folder, *shlex.split(options))

    def count(self):
        return len(list(self.folder.iterdir()))

    def test_each_limit_removes_the_oldest_log_files(self):
        for limit in ("--keep 2", "--max-age 1d", "--max-age 24h", "--max-size 2K"):
            self.assertEqual(self.prune(limit + " --dry-run"),
                             (0, f"would remove {self.oldest}\n"), limit)
            self.assertEqual(self.count(), 4)
        self.assertEqual(self.prune("--keep 3 --max-age 1d --max-size 1G"), (0, ""))
        self.assertFalse(self.oldest.exists())
        self.assertEqual(self.prune("--keep 1 --verbose")[1], f"removed {self.older}\n")
        self.assertEqual(self.prune("--keep 1 --max-size 1")[1], "")
        self.assertEqual(self.count(), 2, "the newest log file and one that is none")

    def test_file_that_is_being_written_stays(self):
        with self.oldest.open("a"):
            self.assertEqual(self.prune("--keep 1 --verbose"),
                             (0, f"kept {self.oldest}, it is in use\nremoved {self.older}\n"))
        self.assertTrue(self.oldest.exists())

    def test_link_with_a_log_files_name_stays_with_its_target(self):
        (self.folder / "zelta_vsc_2023_01_01T00_00_00_000Z.txt").symlink_to(self.other.name)
        self.assertEqual(self.prune("--keep 1 --verbose")[1],
                         f"removed {self.oldest}\nremoved {self.older}\n")
        self.assertEqual(self.count(), 3)

    def test_names_that_a_terminal_would_obey_are_escaped(self):
        name = self.folder / "zelta_vsc_2023\x1b[2J\nremoved.txt"
        name.write_text("x")
        shown = f"{self.folder}/zelta_vsc_2023\\x1b[2J\\x0aremoved.txt"
        self.assertEqual(self.prune("--keep 3 --dry-run")[1], f"would remove {shown}\n")
        with name.open("a"):
            self.assertEqual(self.prune("--keep 3 --verbose")[1], f"kept {shown}, it is in use\n")
        self.assertEqual(self.prune("--keep 3 --verbose")[1], f"removed {shown}\n")
        missing, escaped = self.folder / "\x1b[2J", f"{self.folder}/\\x1b[2J"
        self.assertIn(f"cannot read {escaped}",
                      run("prune", "--keep", 1, "--dir", missing)[1])
        self.assertIn(f"there is no folder {escaped}", run("--dir", missing)[1])

    def test_nonsense_is_refused_with_code_2_and_removes_nothing(self):
        for options in ("", "--keep 0", "--keep -1", "--keep many", "--keep 1.5", "--max-age 30",
                        "--max-age 0d", "--max-age -1d", "--max-age 30x", "--max-age ''",
                        "--max-size 0", "--max-size 1T", "--max-size M", "--keep 1 --nonsense",
                        "--keep 1 file"):
            code, text = self.prune(options)
            self.assertEqual(code, 2, options)
            self.assertTrue(text, options)
        self.assertIn("--keep, --max-age or --max-size", self.prune("")[1])
        self.assertIn("'30x' is not a limit such as 30d, 12h", self.prune("--max-age 30x")[1])
        self.assertEqual(self.count(), 4)

    def test_missing_folder_is_an_error(self):
        code, text = run("prune", "--keep", 1, "--dir", self.folder / "none")
        self.assertEqual(code, 1)
        self.assertIn(f"cannot read {self.folder / 'none'}", text)


if __name__ == "__main__":
    unittest.main(verbosity=2)
