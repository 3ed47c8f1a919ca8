"""The checkout's commands in the test's own surroundings: stand-ins for programs, and a folder for
temporary files that shows leftovers."""

import os
import pathlib
import subprocess
import tempfile
import time
import unittest

SOURCE = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(os.environ["ZELTA_BUILD_DIR"])
LIMIT = 30  # the most seconds for any operation

# A user's sudo: forgets the password after $SUDO_MEMORY seconds, and counts how often it asks.
SUDO = r"""
state=$FAKE/sudo
now=$(date +%s%N)
noninteractive=
while [ $# -gt 0 ]; do
  case "$1" in
    -n) noninteractive=1 ;;
    -v) ;;
    --preserve-env=*) ;;
    *) break ;;
  esac
  shift
done
until=$(cat "$state.until" 2>/dev/null || echo 0)
if [ "$now" -gt "$until" ]; then
  [ -z "$noninteractive" ] || exit 1
  [ ! -e "$state.refuses" ] || exit 1
  echo asked >>"$state.asked"
fi
echo $((now + ${SUDO_MEMORY:-1000} * 1000000000)) >"$state.until"
echo "$*" >>"$state.commands"
[ $# -eq 0 ] || exec "$@"
"""


class CheckoutTest(unittest.TestCase):
    def setUp(self):
        self.folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        self.programs = self.folder / "programs"
        self.temporary = self.folder / "tmp"
        self.run_dir = self.folder / "up"
        for folder in (self.programs, self.temporary):
            folder.mkdir()
        self.environment = dict(
            os.environ, PATH=f"{self.programs}:{os.environ['PATH']}", FAKE=str(self.folder),
            TMPDIR=str(self.temporary), ZELTA_RUN_DIR=str(self.run_dir),
            ZELTA_BUILD_DIR=str(self.folder / "build"))

    def fake(self, name, script):
        """A program of that name that commands find instead of the system's."""
        path = self.programs / name
        path.write_text(f"#!/bin/bash\n{script}\n")
        path.chmod(0o755)

    def pretend_to_be_a_user(self):
        self.fake("id", 'case "$1" in -un) echo user ;; *) echo 1000 ;; esac')
        self.fake("sudo", SUDO)
        self.fake("chown", "")

    def pretend_to_build(self):
        """Everything is installed, and a build takes no time."""
        self.fake("dpkg-query", "echo installed")
        self.fake("cmake", "")

    def pretend_to_build_the_debug_preset_slowly(self):
        """Its first build takes longer than anything may."""
        self.fake("cmake", '[ "$1 $2" = "--build $FAKE/build-debug" ] && [ ! -e "$FAKE/early" ] || '
                  'exit 0\necho $$ >"$FAKE/early.new"; mv "$FAKE/early.new" "$FAKE/early"; sleep 60')

    def assert_early_build_has_ended(self):
        early = int((self.folder / "early").read_text())
        self.assertRaises(ProcessLookupError, os.kill, early, 0)

    def asked(self):
        """How often the password was asked for."""
        path = self.folder / "sudo.asked"
        return len(path.read_text().splitlines()) if path.exists() else 0

    def start(self, *words, **options):
        return subprocess.Popen([str(word) for word in words], env=self.environment,
                                stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                stderr=subprocess.STDOUT, text=True, start_new_session=True,
                                **options)

    def run_command(self, *words, code=0, **options):
        process = self.start(*words, **options)
        output, _ = process.communicate(timeout=LIMIT)
        self.assertEqual(process.returncode, code, output)
        return output

    def zelta(self, *words, **options):
        return self.run_command(SOURCE / "zelta", *words, **options)

    def shell(self, script, **options):
        """Runs a script that has what the commands share."""
        return self.run_command("bash", "-euc", f'source "{SOURCE}/scripts/common.sh"; {script}',
                                **options)

    def assert_nothing_left(self, process):
        self.assertEqual(list(self.temporary.iterdir()), [])
        wait_until(lambda: not session(process.pid), f"the end of {session(process.pid)}")


def session(leader):
    """The processes that a command has started and that are still there."""
    listing = subprocess.run(["ps", "-o", "stat=,args=", "-s", str(leader)], capture_output=True,
                             text=True, check=False).stdout
    return [line for line in listing.splitlines() if line[0] != "Z"]


def wait_until(condition, what):
    end = time.monotonic() + LIMIT
    while not condition():
        if time.monotonic() > end:
            raise AssertionError(f"{what} did not come about")
        time.sleep(0.02)
