"""Every command in the documentation is run, or stands below with the reason why it is not."""

import os
import pathlib
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import unittest

import docs_commands
import stack
from stack import AGENT, BUILD, SOURCE, Process, run

sys.path.insert(0, str(SOURCE / "scripts"))
import screenshot  # noqa: E402  (its folder is known from here on)

ZELTA_COMMAND = "tests/end_to_end/end_to_end_test.py"
SSH = "tests/end_to_end/ssh_test.py"
REMOTE = "tests/end_to_end/remote_test.py"
TLS = "tests/end_to_end/tls_test.py"
EXAMPLES = "tests/examples/examples_test.py"
PACKAGE = "tests/packaging/debian/package_test.py"
OPENSC = "/usr/lib/x86_64-linux-gnu/opensc-pkcs11.so"

# Commands that are not run here: why, and a file with the text there that covers them instead.
LISTED = {
    "README.md": {
        "./zelta up": ("stays until Ctrl-C", ZELTA_COMMAND, "test_up_stays_until_interrupted"),
        "./zelta test": ("runs this test, too", ".ci/run", "./zelta check"),
    },
    "CONTRIBUTING.md": {
        "cmake --preset release && cmake --build --preset release":
            ("builds all of what is tested here", "scripts/common.sh", "cmake --build"),
        "ctest --preset release -R '^Reader'":
            ("runs other tests", "scripts/test.sh", 'ctest "${arguments[@]}"'),
        "cmake -DSOURCE=$PWD -P cmake/CheckLayers.cmake":
            ("is a test of its own", "tests/layers/layers_test.py", "CheckLayers.cmake"),
    },
    "docs/agent.md": {
        "zelta-agent": ("stays", "tests/end_to_end/docs_test.py", "self.start(AGENT"),
        "zelta-agent --db FOLDER --pin-file FILE":
            ("stays", "tests/end_to_end/stack.py", '"--db", self.folder / "card", "--pin-file"'),
        'zelta-agent --backend pcsc --pcsc-reader "NAME"':
            ("needs a real reader", "tests/agent/card/pcsc_card_test.cpp", "CardOfTheRealReader"),
        "zelta-agent --backend script --script FILE":
            ("stays", ZELTA_COMMAND, '"--backend", "script"'),
        "zelta-agent --to ssh://HOST": ("stays", REMOTE, '"--to", f"ssh://'),
    },
    "docs/operation.md": {
        "./zelta package dist":
            ("builds everything once more", "tests/packaging/debian/CMakeLists.txt", "package.sh"),
        "sudo apt install ./dist/zelta-vsc_*.deb":
            ("changes the system", PACKAGE, 'self.dpkg("--install", "/tmp/zelta.deb")'),
        "cmake -S . -B build && cmake --build build --parallel":
            ("builds all of what is tested here", "scripts/common.sh", "cmake --build"),
        "ctest --preset release": ("runs this test, too", "scripts/test.sh", "ctest"),
        "sudo apt remove zelta-vsc":
            ("changes the system", PACKAGE, 'self.dpkg("--remove", "zelta-vsc")'),
        "sudo apt purge zelta-vsc":
            ("changes the system", PACKAGE, 'self.dpkg("--purge", "zelta-vsc")'),
    },
    "docs/own-cards.md": {
        "sudo examples/yaml_agent.py examples/card.yaml":
            ("stays", EXAMPLES, 'EXAMPLES / "yaml_agent.py", EXAMPLES / "card.yaml"'),
        "g++ -std=c++17 hello_card.cpp $(pkg-config --cflags --libs zelta-agent) -o hello_card":
            ("needs the library installed", EXAMPLES, '"pkg-config", f"--define-variable=prefix'),
    },
    "docs/programs.md": {
        f"ssh -o PKCS11Provider={OPENSC} USER@HOST":
            ("needs a server", SSH, "test_login_with_the_cards_key"),
        f"ssh-add -s {OPENSC}": ("asks for the PIN", SSH, "test_agent_of_ssh_keeps_the_card"),
        "curl --engine pkcs11 --cert-type ENG --cert 'pkcs11:id=%00%01;type=cert' "
        "--key-type ENG --key 'pkcs11:id=%00%01;type=private' https://HOST/":
            ("needs a server", TLS, "class Curl"),
        f"modutil -dbdir sql:PROFILE -force -add OpenSC -libfile {OPENSC}":
            ("needs a profile", TLS, "test_it_asks_for_the_pin"),
    },
    "docs/remote.md": {
        'zelta-agent --to ssh://me@host.example --backend pcsc --pcsc-reader "NAME"':
            ("needs a real reader", REMOTE, '"--to", f"ssh://'),
    },
    "docs/reliability.md": {
        "./zelta soak 2": ("takes two minutes", "scripts/check.sh", "./zelta soak 2"),
    },
    "docs/troubleshooting.md": {
        "sudo dpkg --force-confmiss --install zelta-vsc_*.deb":
            ("changes the system", PACKAGE, '"--force-confmiss", "--install"'),
        "sudo adduser USER zelta": ("needs a user", PACKAGE, '"--regid=zelta"'),
        f"ssh -v -o PKCS11Provider={OPENSC} USER@HOST":
            ("needs a server", SSH, "test_login_with_the_cards_key"),
        "modutil -dbdir sql:PROFILE -list":
            ("needs a profile", "docs/programs.md", "modutil -dbdir sql:$HOME/.pki/nssdb -list"),
    },
    "docs/windows.md": {
        "cmake --preset windows && cmake --build --preset windows && ctest --preset windows":
            ("runs another suite", "scripts/test.sh", "presets=(release windows)"),
        "./zelta test --preset windows":
            ("runs another suite", "scripts/test.sh", "presets=(release windows)"),
        "(cd build-windows && cpack)":
            ("is the Windows suite's", "tests/packaging/windows/CMakeLists.txt", "CPackConfig"),
        "cd build-windows; export WINEPREFIX=$PWD/wine-look WINEDEBUG=-all "
        "WINEDLLOVERRIDES=mscoree,mshtml=":
            ("needs the Windows build", "tests/Wine.cmake", "WINEDLLOVERRIDES"),
        "wine bin/zelta-agent.exe --backend script --script ../packaging/windows/card.txt "
        "--verbose &":
            ("needs the Windows build", "tests/module/processes_test.cpp", "AgentProcessTest"),
        "printf '%s\\n' 'submit 310028' result 'control 310004 64 01000000' "
        "'control 310030 4 02000000' 'control 310014 64 02000000080000000084000008' down | "
        "wine bin/module_host_program.exe lib/zelta_vsc.dll":
            ("needs the Windows build", "tests/module/processes_test.cpp", "AgentProcessTest"),
        "wineserver -k; rm -r wine-look":
            ("needs the Windows build", "tests/wine_prefix.sh", "wineserver"),
    },
}
# Run by the package's tests, beside systemd.
FOR_SYSTEMD = (PACKAGE, "is_for_systemd")

# What the troubleshooting page quotes of other programs.
MESSAGES_OF_OTHERS = {
    "Error with library", "No such file or directory", "invalid directory",  # pcscd
    "Permission denied", "PIN code or key incorrect", "PIN length out of range",
    "Will attempt key", "Offering public key", "agent refused operation", "CAC ID Certificate",
    "OpenPGP card not available",
}
PRODUCT = ("agent", "agent_link", "driver", "host", "pcsc", "reader")

# Follows until it is interrupted.
STAYS = {"./zelta logs --level error", "./zelta trace", "sudo zelta trace", "sudo zelta-logs"}
# What the text before a command supposes.
FIRST = {"sudo zelta card insert": "sudo zelta card remove"}


def is_run(command):
    return not (docs_commands.is_for_systemd(command)
                or command.text in LISTED.get(command.page, {}))


class DocumentedCommands(unittest.TestCase):
    def test_listed_commands_are_in_the_docs_and_covered(self):
        found = {(command.page, command.text) for command in docs_commands.every_command()}
        for page, commands in LISTED.items():
            for text, (_, file, covering) in commands.items():
                self.assertIn((page, text), found)
                self.assertIn(covering, (SOURCE / file).read_text(), f"{text}: {file}")
        file, covering = FOR_SYSTEMD
        self.assertIn(covering, (SOURCE / file).read_text())

    def test_commands_of_another_system_are_on_its_page_only(self):
        for page in docs_commands.pages():
            if page.name != "windows.md":
                self.assertLessEqual(docs_commands.languages(page),
                                     {"", "sh", "console", "cpp", "ini", "mermaid"}, page)

    def test_messages_that_troubleshooting_quotes_exist(self):
        page = docs_commands.without_blocks(SOURCE / "docs" / "troubleshooting.md")
        parts = {part.strip() for quoted in re.findall(r'"([^"]+)"', " ".join(page.split()))
                 for part in re.split(r"\.\.\.|: |:$|dev0", quoted)} - {""}
        sources = "".join(file.read_text() for folder in PRODUCT
                          for file in (SOURCE / folder).rglob("*.cpp"))
        self.assertGreater(len(parts), 20)
        self.assertEqual({part for part in parts if part not in sources}, MESSAGES_OF_OTHERS)

    def test_no_command_stands_in_a_block_of_another_kind(self):
        """Indented text and blocks without a language are for bytes, files and pictures."""
        command = re.compile(r"^(    )?(\$ )?(sudo |\./zelta|zelta-|scripts/|cmake |ctest |ssh-|"
                             r"opensc-tool|pkcs1[15]-|p11tool|certutil |modutil |gpg|curl )")
        for page in docs_commands.pages():
            text = re.sub(r"(?ms)^```(sh|console|bat|powershell)\n.*?^```$", "", page.read_text())
            for block in re.findall(r"(?ms)^```\w*\n(.*?)^```$", text):
                self.assertEqual([line for line in block.splitlines() if command.match(line)], [],
                                 page)
            indented = [line for line in text.splitlines() if line.startswith("    ")]
            self.assertEqual([line for line in indented if command.match(line)], [], page)


class PagesTest(unittest.TestCase):
    """Changes /etc and /var for this process and its children only."""

    def setUp(self):
        self.folder = pathlib.Path(tempfile.mkdtemp(dir="/run"))
        self.addCleanup(shutil.rmtree, self.folder)
        for name in ("etc", "var"):
            changes, work = self.new_folder(f"{name}-changes"), self.new_folder(f"{name}-work")
            run("mount", "-t", "overlay", "overlay", "-o",
                f"lowerdir=/{name},upperdir={changes},workdir={work}", f"/{name}")
            self.addCleanup(run, "umount", "--lazy", f"/{name}")
        programs = self.new_folder("programs")
        tools = [BUILD / "bin" / f"zelta-{name}" for name in ("logs", "status", "trace")]
        for program in (SOURCE / "packaging" / "zelta", AGENT, *tools):
            (programs / program.name).symlink_to(program)
        (programs / "sudo").write_text('#!/bin/sh\nexec "$@"\n')  # these tests run as root
        (programs / "sudo").chmod(0o755)
        # What commands leave in the checkout is left here.
        self.checkout = self.new_folder("checkout")
        for entry in SOURCE.iterdir():
            (self.checkout / entry.name).symlink_to(entry)
        self.environment = dict(os.environ, HOME=str(self.new_folder("home")), LC_ALL="C.UTF-8",
                                PATH=f"{programs}:{os.environ['PATH']}")
        self.addCleanup(run, "gpgconf", "--kill", "all", env=self.environment)

    def new_folder(self, name):
        folder = self.folder / name
        folder.mkdir(mode=0o755)
        return folder

    def start(self, *command):
        process = Process(command, self.folder / "background.log", self.environment)
        self.addCleanup(process.end)

    def run_block(self, block):
        """In one shell, as somebody who pastes it."""
        script = ["set -e -o pipefail"]
        for number, command in enumerate(block):
            source = command.source
            if command.text in STAYS:
                source = f"status=0; timeout 1 {command.text} || status=$?; [ $status -eq 124 ]"
            script += [FIRST.get(command.text, ""), f"printf '<<{number}>>\\n'", source]
        result = run("bash", "-c", "\n".join(script), check=False, cwd=self.checkout,
                     env=self.environment, stdin=subprocess.DEVNULL, errors="backslashreplace")
        answers = re.split(r"<<\d+>>\n", result.stdout)[1:]
        if result.returncode != 0:
            failed = block[len(answers) - 1] if answers else block[0]
            self.fail(f"{failed.page}: {failed.text}: {result.returncode}\n{answers[-1:]}")
        for command, answer in zip(block, answers, strict=True):
            if command.answer is not None:
                self.assertRegex(answer, pattern_of(command.answer), command.text)

    def run_page(self, page):
        """Gives how many commands were run."""
        count = 0
        alone = ([command] for command in docs_commands.inline(page))
        for block in [*docs_commands.blocks(page), *alone]:
            to_run = [command for command in block if is_run(command)]
            if to_run:
                self.run_block(to_run)
            count += len(to_run)
        return count


def pattern_of(lines):
    """`...` stands for any lines."""
    parts = [r"(.*\n)*?" if line == "..." else re.escape(line) + r"\s*\n" for line in lines]
    return r"\A" + "".join(parts) + r"\Z"


class DocumentedPages(PagesTest):
    """All pages but the README, with everything where the package puts it."""

    def setUp(self):
        super().setUp()
        entry = (SOURCE / "packaging" / "reader.conf.in").read_text()
        handler = str(BUILD / "lib" / "libifdzelta.so")
        os.makedirs("/etc/reader.conf.d", exist_ok=True)
        pathlib.Path("/etc/reader.conf.d/zelta").write_text(
            entry.replace("@ZELTA_HANDLER_PATH@", handler))
        os.makedirs("/etc/zelta", exist_ok=True)
        for name in ("agent0.conf", "registry.reg"):
            shutil.copy(SOURCE / "packaging" / name, "/etc/zelta")
        os.makedirs("/var/log/Vornhalt/ZeltaAgent/logs", exist_ok=True)
        stack.make_demo_card("/var/lib/zelta/card")
        os.makedirs("/run/zelta-agent0")
        self.start("pcscd", "--foreground")
        stack.wait_until(lambda: os.path.exists("/run/pcscd/pcscd.comm"), "pcscd's socket")
        self.start(AGENT, "--control", "/run/zelta-agent0/control")
        stack.wait_until(lambda: run("opensc-tool", "--atr", check=False).returncode == 0, "a card")

    def test_commands_of_the_pages_work(self):
        counts = {page.name: self.run_page(page) for page in docs_commands.pages()
                  if page.name != "README.md"}
        for name in ("agent.md", "operation.md", "programs.md", "troubleshooting.md"):
            self.assertGreater(counts[name], 0, name)


class ReadmePage(PagesTest):
    """While `./zelta up` is up."""

    def setUp(self):
        super().setUp()
        self.up = subprocess.Popen([SOURCE / "zelta", "up", "--run-only"], text=True,
                                   stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                   stderr=subprocess.STDOUT)
        self.addCleanup(self.end_up)
        self.lines = []
        for line in self.up.stdout:
            self.lines.append(line.rstrip())
            if line.startswith("Ctrl-C"):
                return
        self.fail("up ended:\n" + "\n".join(self.lines))

    def end_up(self):
        if self.up.poll() is None:
            self.up.send_signal(signal.SIGTERM)
        self.up.communicate(timeout=stack.LIMIT)

    def test_commands_of_the_readme_work_while_the_reader_is_up(self):
        self.assertGreater(self.run_page(SOURCE / "README.md"), 5)
        self.assertEqual((self.checkout / "signature").stat().st_size, 256)
        self.assertEqual(self.up.wait(stack.LIMIT), 0)  # `./zelta down` was the last one

    def test_picture_shows_what_up_prints(self):
        shown = screenshot.lines_of((SOURCE / "docs" / "up.svg").read_text())
        self.assertEqual(shown[:2], ["$ ./zelta up", "==> Building (release)"])
        self.assertEqual(shown[2:], self.lines)


if __name__ == "__main__":
    stack.enter_namespace()
    unittest.main(verbosity=2)
