"""The shells complete every option that the programs have."""

import os
import pathlib
import re
import subprocess
import unittest

SOURCE = pathlib.Path(__file__).resolve().parents[3]
BUILD = pathlib.Path(os.environ["ZELTA_BUILD_DIR"])
BASH = SOURCE / "packaging" / "completions" / "zelta"
ZSH = SOURCE / "packaging" / "completions" / "_zelta"


def options_of(*command):
    help_text = subprocess.run(command + ("--help",), capture_output=True, text=True,
                               check=True).stdout
    return set(re.findall(r"(?m)^  (?:-\w,)?(--[a-z-]+)", help_text))


def complete(function, *words):
    """What bash offers for the last of the words."""
    line = " ".join(f'"{word}"' for word in words)
    script = (f'source "{BASH}"; COMP_WORDS=({line}); COMP_CWORD={len(words) - 1}; {function}; '
              'printf "%s\\n" "${COMPREPLY[@]}"')
    shown = subprocess.run(["bash", "-c", script], capture_output=True, text=True, check=True)
    return set(shown.stdout.split())


class Completions(unittest.TestCase):
    def test_bash_offers_every_option_of_each_program(self):
        agent = str(BUILD / "bin" / "zelta-agent")
        logs = str(BUILD / "bin" / "zelta-logs")
        self.assertEqual(complete("_zelta_agent", "zelta-agent", "--"), options_of(agent))
        self.assertEqual(complete("_zelta_logs", "zelta-logs", "--"), options_of(logs))
        self.assertEqual(complete("_zelta", "zelta", "logs", "--"), options_of(logs))
        for words in ("_zelta_logs", "zelta-logs"), ("_zelta", "zelta", "logs"):
            self.assertEqual(complete(*words, "prune", "--"), options_of(logs, "prune"))
        self.assertEqual(complete("_zelta_agent", "zelta-agent", "ctl", "status", "--"),
                         options_of(agent, "ctl", "status"))

    def test_bash_offers_commands_and_values(self):
        self.assertEqual(complete("_zelta", "zelta", "st"), {"status"})
        self.assertEqual(complete("_zelta", "zelta", "card", ""), {"insert", "remove"})
        self.assertEqual(complete("_zelta_agent", "zelta-agent", "c"), {"ctl"})
        self.assertEqual(complete("_zelta_logs", "zelta-logs", "p"), {"prune"})
        self.assertEqual(complete("_zelta_agent", "zelta-agent", "--backend", "p"), {"pcsc"})

    def test_zsh_knows_every_option_of_each_program(self):
        known = set(re.findall(r"--[a-z-]+", ZSH.read_text()))
        for command in ("zelta-agent",), ("zelta-logs",), ("zelta-logs", "prune"):
            program = str(BUILD / "bin" / command[0])
            self.assertEqual(options_of(program, *command[1:]) - known, set())


if __name__ == "__main__":
    unittest.main(verbosity=2)
