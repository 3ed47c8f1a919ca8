"""The shells complete every option that the programs have, and the manual pages name it."""

import os
import pathlib
import re
import shutil
import subprocess
import unittest

import zsh_completion

SOURCE = pathlib.Path(__file__).resolve().parents[3]
BUILD = pathlib.Path(os.environ["ZELTA_BUILD_DIR"])
BASH = SOURCE / "packaging" / "completions" / "zelta"
ZSH = SOURCE / "packaging" / "completions" / "_zelta"
MANUAL = SOURCE / "packaging" / "man"
AGENT = str(BUILD / "bin" / "zelta-agent")
LOGS = str(BUILD / "bin" / "zelta-logs")
STATUS = str(BUILD / "bin" / "zelta-status")
TRACE = str(BUILD / "bin" / "zelta-trace")
ZELTA = str(SOURCE / "zelta")
INSTALLED = str(SOURCE / "packaging" / "zelta")
CHECKOUT_COMMANDS = {"up", "down", "status", "card", "trace", "logs", "test", "check", "mutate",
                     "models", "package", "soak", "bench"}


def help_of(*command):
    return subprocess.run(command + ("--help",), capture_output=True, text=True, check=True).stdout


def options_of(*command):
    return set(re.findall(r"(?m)^  (?:-\w, ?)?(--[a-z-]+)", help_of(*command)))


def manual_options(page):
    return set(re.findall(r"--[a-z-]+", (MANUAL / page).read_text().replace("\\-", "-")))


def complete(function, *words):
    """Bash's completions of the last word."""
    line = " ".join(f'"{word}"' for word in words)
    script = (f'source "{BASH}"; COMP_WORDS=({line}); COMP_CWORD={len(words) - 1}; {function}; '
              'printf "%s\\n" "${COMPREPLY[@]}"')
    shown = subprocess.run(["bash", "-c", script], capture_output=True, text=True, check=True)
    return set(shown.stdout.split())

STAGES_WITH_T = {"test", "tsan", "tidy", "tidy-tests"}


class Completions(unittest.TestCase):
    def zsh(self, *words):
        """Zsh's completions of the last word."""
        if shutil.which("zsh") is None:
            self.skipTest("zsh is not installed")
        return zsh_completion.complete(ZSH.parent, *words)

    def test_bash_offers_every_option_of_each_program(self):
        self.assertEqual(complete("_zelta_agent", "zelta-agent", "--"), options_of(AGENT))
        self.assertEqual(complete("_zelta_logs", "zelta-logs", "--"), options_of(LOGS))
        self.assertEqual(complete("_zelta", "zelta", "logs", "--"), options_of(LOGS))
        for command, program in (("status", STATUS), ("trace", TRACE)):
            self.assertEqual(complete(f"_zelta_{command}", program, "--"), options_of(program))
            self.assertEqual(complete("_zelta", "zelta", command, "--"), options_of(program))
        self.assertEqual(complete("_zelta", "/usr/bin/zelta", "logs", "--"), options_of(LOGS))
        for words in ("_zelta_logs", "zelta-logs"), ("_zelta", "zelta", "logs"):
            self.assertEqual(complete(*words, "prune", "--"), options_of(LOGS, "prune"))
        for command in ("insert", "remove", "status"):
            self.assertEqual(complete("_zelta_agent", "zelta-agent", "ctl", command, "--"),
                             options_of(AGENT, "ctl", command))
        self.assertEqual(complete("_zelta", "zelta", "--"), options_of(INSTALLED))

    def test_bash_offers_every_command_and_option_of_a_checkout(self):
        self.assertEqual(complete("_zelta", ZELTA, ""), CHECKOUT_COMMANDS | options_of(ZELTA))
        for command in CHECKOUT_COMMANDS:
            options = options_of(ZELTA, command) | {"--help"}
            self.assertEqual(complete("_zelta", ZELTA, command, "--"), options, command)
        self.assertEqual(complete("_zelta", ZELTA, "test", "--folder", "pac"), {"packaging"})
        self.assertEqual(complete("_zelta", ZELTA, "check", "--stage", "t"), STAGES_WITH_T)

    def test_bash_offers_commands_and_values(self):
        self.assertEqual(complete("_zelta", "zelta", "st"), {"status"})
        self.assertEqual(complete("_zelta", "zelta", "card", ""), {"insert", "remove", "--help"})
        self.assertEqual(complete("_zelta_agent", "zelta-agent", "c"), {"ctl"})
        self.assertEqual(complete("_zelta_logs", "zelta-logs", "p"), {"prune"})
        self.assertEqual(complete("_zelta_agent", "zelta-agent", "--backend", "p"), {"pcsc"})

    def test_zsh_offers_every_option_of_each_program(self):
        for words, program in (
                (["zelta-agent"], (AGENT,)), (["zelta-logs"], (LOGS,)), (["zelta", "logs"], (LOGS,)),
                (["zelta-status"], (STATUS,)), (["zelta", "status"], (STATUS,)),
                (["zelta-trace"], (TRACE,)), (["/usr/bin/zelta", "trace"], (TRACE,)),
                (["zelta-logs", "prune"], (LOGS, "prune")),
                (["zelta", "logs", "prune"], (LOGS, "prune")),
                (["zelta-agent", "ctl", "status"], (AGENT, "ctl", "status"))):
            self.assertEqual(self.zsh(*words, "--"), options_of(*program), words)

    def test_zsh_offers_every_command_and_option_of_a_checkout(self):
        self.assertEqual(self.zsh(ZELTA, ""), CHECKOUT_COMMANDS | options_of(ZELTA))
        for command in CHECKOUT_COMMANDS:
            options = options_of(ZELTA, command) | {"--help"}
            self.assertEqual(self.zsh(ZELTA, command, "--"), options, command)

    def test_zsh_offers_commands_and_values(self):
        for words, offered in (
                (["zelta", "st"], {"status"}), (["zelta", "card", ""], {"insert", "remove"}),
                (["zelta", ""], {"status", "card", "trace", "logs"} | options_of(INSTALLED)),
                (["zelta-agent", "c"], {"ctl"}), (["zelta-agent", "--backend", "p"], {"pcsc"}),
                (["zelta-agent", "ctl", ""], {"insert", "remove", "status"}),
                (["zelta-logs", "p"], {"prune"}),
                ([ZELTA, "test", "--folder", "pac"], {"packaging"}),
                ([ZELTA, "check", "--stage", "t"], STAGES_WITH_T)):
            self.assertEqual(self.zsh(*words), offered, words)

    def test_help_names_every_command_of_a_checkout(self):
        self.assertEqual(set(re.findall(r"(?m)^  ([a-z]+) ", help_of(ZELTA))), CHECKOUT_COMMANDS)


class Manual(unittest.TestCase):
    def test_pages_name_every_option_of_each_program(self):
        ctl = options_of(AGENT, "ctl", "status")
        for page, options in (("zelta-agent.1", options_of(AGENT) | ctl),
                              ("zelta-logs.1", options_of(LOGS) | options_of(LOGS, "prune")),
                              ("zelta-status.1", options_of(STATUS)),
                              ("zelta-trace.1", options_of(TRACE)),
                              ("zelta.1", options_of(INSTALLED) | ctl - {"--control"})):
            self.assertEqual(options - manual_options(page), set(), page)

    def test_pages_name_no_option_that_is_not_there(self):
        known = options_of(AGENT) | options_of(AGENT, "ctl", "status")
        for program in (LOGS, STATUS, TRACE):
            known |= options_of(program)
        known |= options_of(LOGS, "prune")
        for page in MANUAL.iterdir():
            self.assertEqual(manual_options(page.name) - known, set(), page.name)

    def test_pages_name_every_command_of_the_installed_reader(self):
        text = (MANUAL / "zelta.1").read_text()
        for command in re.findall(r"(?m)^  ([a-z]+) ", help_of(INSTALLED)):
            self.assertIn(f"\n.B zelta {command}\n", text)


if __name__ == "__main__":
    unittest.main(verbosity=2)
