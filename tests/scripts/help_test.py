"""Every command's help fits a terminal of 80 columns and says what the command is for."""

import os
import pathlib
import subprocess
import unittest

SOURCE = pathlib.Path(__file__).resolve().parents[2]
BIN = pathlib.Path(os.environ["ZELTA_BUILD_DIR"]) / "bin"
ZELTA = SOURCE / "zelta"
COMMANDS = [
    [ZELTA],
    *([ZELTA, word] for word in ("up", "down", "status", "card", "trace", "logs", "test", "check",
                                 "mutate", "models", "package", "soak", "bench")),
    [SOURCE / "scripts" / "fuzz.sh"],
    [SOURCE / "scripts" / "lint.sh"],
    [SOURCE / "scripts" / "make-demo-db.sh"],
    [SOURCE / "scripts" / "sign-windows.sh"],
    [SOURCE / "packaging" / "zelta"],
    [SOURCE / "packaging" / "zelta", "card"],
    [BIN / "zelta-agent"],
    *([BIN / "zelta-agent", "ctl", *words] for words in ([], ["insert"], ["remove"], ["status"])),
    [BIN / "zelta-logs"],
    [BIN / "zelta-logs", "prune"],
    [BIN / "zelta-status"],
    [BIN / "zelta-trace"],
]


class Help(unittest.TestCase):
    def test_every_help_fits_80_columns(self):
        for command in COMMANDS:
            shown = subprocess.run([*command, "--help"], capture_output=True, text=True,
                                   check=False)
            with self.subTest(command=[str(word) for word in command]):
                self.assertEqual(shown.returncode, 0, shown.stderr)
                self.assertIn("Usage: ", shown.stdout)
                self.assertEqual([line for line in shown.stdout.splitlines() if len(line) > 80], [])


if __name__ == "__main__":
    unittest.main(verbosity=2)
