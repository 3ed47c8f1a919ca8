"""Runs every command in the documentation, except those listed below with a reason."""

import itertools
import os
import pathlib
import re
import shlex
import shutil
import signal
import subprocess
import sys
import tempfile
import unittest

import docs_commands
import stack
from sshd import Sshd, add_users
from stack import AGENT, BUILD, PIN, SOURCE, Process, run, wait_until
from tls_server import TlsServer

sys.path.insert(0, str(SOURCE / "scripts"))
import screenshot  # noqa: E402  (its folder is known from here on)

PACKAGE = "tests/packaging/debian/package_test.py"
OPENSC = "/usr/lib/x86_64-linux-gnu/opensc-pkcs11.so"

# Commands that are not run: the reason, and a file and text that cover them instead.
EXCUSED = {
    "docs/changing.md": {
        "./zelta mutate NAME": ("builds a broken copy", "tests/mutations/CMakeLists.txt",
                                "mutations_test.py"),
    },
    "README.md": {
        "./zelta test": ("runs the suite that this test is in", ".ci/run", "./zelta check"),
    },
    "docs/operation.md": {
        "ctest --preset release":
            ("runs the suite that this test is in", "scripts/test.sh", 'ctest "${arguments[@]}"'),
        "scripts/fuzz.sh --seconds N":
            ("builds everything with clang", "scripts/check.sh", "scripts/fuzz.sh"),
    },
    "docs/performance.md": {
        "strace -c -f":
            ("is what a benchmark calls", "benchmarks/measurements.py", '"strace", "-c", "-f"'),
    },
    "docs/reliability.md": {
        "./zelta soak 2": ("takes two minutes", "scripts/check.sh", "./zelta soak 2"),
    },
    "docs/windows.md": {
        "cmake --preset windows && cmake --build --preset windows && ctest --preset windows":
            ("runs another suite", "scripts/test.sh", "presets=(release windows)"),
        "./zelta test --preset windows":
            ("runs another suite", "scripts/test.sh", "presets=(release windows)"),
        "(cd build-windows && cpack)":
            ("is the Windows suite's", "tests/packaging/windows/CMakeLists.txt", "CPackConfig"),
        **{text: ("needs the Windows build", "tests/packaging/windows/docs_test.py",
                  "test_commands_for_debian_work_in_the_pages_order") for text in (
            "cd build-windows; export WINEPREFIX=$PWD/wine-look WINEDEBUG=-all "
            "WINEDLLOVERRIDES=mscoree,mshtml=",
            "wine bin/zelta-agent.exe --backend script --script ../packaging/windows/card.txt "
            "--verbose &",
            "printf '%s\\n' 'submit 310028' result 'control 310004 64 01000000' "
            "'control 310030 4 02000000' 'control 310014 64 02000000080000000084000008' down | "
            "wine bin/module_host_program.exe lib/zelta_vsc.dll",
            "wineserver -k; rm -r wine-look",
            "scripts/sign-windows.sh --new-certificate certificate "
            "PACKAGE/zelta_vsc.dll PACKAGE/zelta-agent.exe PACKAGE/zelta-setup.exe",
            "scripts/sign-windows.sh --certificate certificate/zelta-test.pem "
            "--key certificate/zelta-test.key "
            "PACKAGE/zelta_vsc.dll PACKAGE/zelta-agent.exe PACKAGE/zelta-setup.exe")},
    },
}
# Run by the package's tests, in a copy of the system, with systemd or without.
OF_THE_PACKAGE = (docs_commands.is_for_systemd, docs_commands.is_for_package_manager)

# Messages of other programs that the troubleshooting page quotes.
MESSAGES_OF_OTHERS = {
    "Error with library", "No such file or directory", "invalid directory",  # pcscd
    "Permission denied", "PIN code or key incorrect", "PIN length out of range",
    "Will attempt key", "Offering public key", "agent refused operation", "CAC ID Certificate",
    "OpenPGP card not available",
}
PRODUCT = ("agent", "agent_link", "driver", "host", "pcsc", "reader")

BLOCK_LIMIT = 120  # seconds
# Follows until it is interrupted.
STAYS = {"./zelta logs --level error", "./zelta trace", "./zelta trace --html page.html",
         "sudo zelta trace", "sudo zelta-logs"}
# Brings a card until it is ended.
BRINGS_A_CARD = re.compile(r"zelta-agent(?! ctl)|sudo examples/")
# Asks for the PIN on the terminal, and nowhere else.
ASKS_FOR_THE_PIN = re.compile(r"curl ")
# The preparation that the text before a command supposes.
NEW_PROFILE = "rm -rf PROFILE; mkdir PROFILE; certutil -N -d sql:PROFILE --empty-password"
FIRST = {
    "sudo zelta card insert": "sudo zelta card remove",
    "zelta-agent --db FOLDER --pin-file FILE":
        f"cp -r /var/lib/zelta/card FOLDER; echo {PIN} >FILE",
    "zelta-agent --backend script --script FILE": "cp packaging/windows/card.txt FILE",
    "zelta trace FILE": "timeout 1 zelta trace --save FILE || true",
    "modutil -dbdir sql:PROFILE -list": NEW_PROFILE,
    f"modutil -dbdir sql:PROFILE -force -add OpenSC -libfile {OPENSC}": NEW_PROFILE,
    "g++ -std=c++17 hello_card.cpp $(pkg-config --cflags --libs zelta-agent) -o hello_card":
        f"cmake --install {BUILD} --component development; cd examples",
}
# pcscd sees a card a moment after it was put in.
CARD_IS_SEEN = "until opensc-tool --atr; do sleep 0.1; done"
# The commands that undo it.
THEN = {"zelta card remove": f"zelta card insert; {CARD_IS_SEEN}",
        "sudo zelta card insert": CARD_IS_SEEN, f"ssh-add -s {OPENSC}": f"ssh-add -e {OPENSC}"}
# Replaces the build tool: plans the build that a command asks for, and then gives the folder the
# tests of the build that this one belongs to.
PLANNING_NINJA = f"""#!/bin/sh
[ $# -eq 0 ] || exec /usr/bin/ninja "$@"  # for configuring
/usr/bin/ninja -t commands >/dev/null && echo 'subdirs("{BUILD}")' >CTestTestfile.cmake
"""


def is_run(command):
    return not (any(belongs(command) for belongs in OF_THE_PACKAGE)
                or command.text in EXCUSED.get(command.page, {}))


class DocumentedCommands(unittest.TestCase):
    def test_excused_commands_are_in_the_docs_and_covered(self):
        found = {(command.page, command.text) for command in docs_commands.every_command()}
        for page, commands in EXCUSED.items():
            for text, (_, file, covering) in commands.items():
                self.assertIn((page, text), found)
                self.assertIn(covering, (SOURCE / file).read_text(), f"{text}: {file}")

    def test_special_cases_are_in_the_docs(self):
        found = {command.text for command in docs_commands.every_command()}
        self.assertEqual({*STAYS, *FIRST, *THEN} - found, set())

    def test_commands_for_a_whole_system_are_run_by_the_packages_test(self):
        text = (SOURCE / PACKAGE).read_text()
        for belongs in OF_THE_PACKAGE:
            self.assertTrue(f"docs_commands.{belongs.__name__}" in text, belongs.__name__)

    def test_names_of_our_commands_and_options_exist(self):
        programs = {"./zelta": SOURCE / "zelta", "zelta": SOURCE / "packaging" / "zelta"}
        for page in docs_commands.pages():
            for program, word in docs_commands.names(page):
                path = programs.get(program, BUILD / "bin" / program)
                self.assertRegex(run(path, "--help").stdout, rf"(?m)^ .*(?<![\w-]){word}(?![\w-])",
                                 f"{page}: {program} {word}")

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
    """Changes /etc, /var, /usr/local and the checkout for this process and its children only."""

    @classmethod
    def setUpClass(cls):
        stack.enter_namespace()

    def setUp(self):
        self.folder = pathlib.Path(tempfile.mkdtemp(dir="/run"))
        self.addCleanup(shutil.rmtree, self.folder)
        self.programs = self.new_folder("programs")
        tools = [BUILD / "bin" / f"zelta-{name}" for name in ("logs", "status", "trace")]
        for program in (SOURCE / "packaging" / "zelta", AGENT, *tools):
            (self.programs / program.name).symlink_to(program)
        self.add_program("sudo", '#!/bin/sh\nexec "$@"\n')  # these tests run as root
        self.checkout = self.new_folder("checkout")
        for changed, shown_at in (("/etc", "/etc"), ("/var", "/var"), ("/usr/local", "/usr/local"),
                                  (SOURCE, self.checkout)):
            name = pathlib.Path(changed).name
            changes, work = self.new_folder(f"{name}-changes"), self.new_folder(f"{name}-work")
            self.mount(shown_at, "-t", "overlay", "overlay", "-o",
                       f"lowerdir={changed},upperdir={changes},workdir={work}")
        # As in a new checkout.
        (self.checkout / "build").mkdir(exist_ok=True)
        self.mount(self.checkout / "build", "-t", "tmpfs", "tmpfs")
        self.environment = dict(os.environ, HOME=str(self.new_folder("home")), LC_ALL="C.UTF-8",
                                PATH=f"{self.programs}:{os.environ['PATH']}",
                                CMAKE_GENERATOR="Ninja")
        self.environment.pop("XDG_RUNTIME_DIR", None)
        self.addCleanup(run, "gpgconf", "--kill", "all", env=self.environment)

    def mount(self, folder, *words):
        stack.mount(*words, folder)
        self.addCleanup(run, "umount", "--lazy", folder)

    def new_folder(self, name):
        folder = self.folder / name
        folder.mkdir(mode=0o755)
        return folder

    def add_program(self, name, script):
        (self.programs / name).write_text(script)
        (self.programs / name).chmod(0o755)

    def start(self, *command, **variables):
        process = Process(command, self.folder / "background.log",
                          dict(self.environment, **variables), cwd=self.checkout)
        self.addCleanup(process.end)
        return process

    def source_of(self, command):
        if command.text in STAYS:
            return f"status=0; timeout 1 {command.text} || status=$?; [ $status -eq 124 ]"
        if ASKS_FOR_THE_PIN.match(command.text):
            asking = shlex.quote(command.source)
            return f"script --quiet --return --command {asking} /dev/null <<<{PIN}"
        return command.source

    def run_block(self, block):
        """Runs the block in one shell, as if pasted."""
        script = ["set -e -o pipefail"]
        for number, command in enumerate(block):
            script += [FIRST.get(command.text, ""), f"printf '<<{number}>>\\n'",
                       self.source_of(command), THEN.get(command.text, "")]
        result = run("bash", "-c", "\n".join(script), check=False, cwd=self.checkout,
                     env=self.environment, stdin=subprocess.DEVNULL, errors="backslashreplace",
                     timeout=BLOCK_LIMIT)
        answers = re.split(r"<<\d+>>\n", result.stdout)[1:]
        if result.returncode != 0:
            failed = block[len(answers) - 1] if answers else block[0]
            self.fail(f"{failed.page}: {failed.text}: {result.returncode}\n{answers[-1:]}")
        for command, answer in zip(block, answers, strict=True):
            if command.answer is not None:
                self.assertRegex(answer, pattern_of(command.answer), command.text)

    def run_page(self, page, chosen=is_run):
        """Returns the number of commands that were run."""
        count = 0
        alone = ([command] for command in docs_commands.inline(page))
        for block in [*alone, *docs_commands.blocks(page)]:
            to_run = [command for command in block if chosen(command)]
            for brings, commands in itertools.groupby(
                    to_run, lambda command: bool(BRINGS_A_CARD.match(command.text))):
                if brings:
                    for command in commands:
                        self.run_agent(command)
                else:
                    self.run_block(list(commands))
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
        self.add_program("ninja", PLANNING_NINJA)
        # With the names that the pages use.
        add_users("me", "USER", group="zelta", members=["me"])
        self.start_real_reader()
        self.start_reader()
        self.offer_ssh()
        self.offer_tls()

    def start_real_reader(self):
        """Starts the reader of another pcscd, which leaves the default place to the first."""
        self.real = self.enterContext(stack.Stack())
        self.real.environment["ZELTA_PIPE_ROOT"] = str(self.real.folder / "pipe")
        self.real.start()
        self.real.wait_for_card()
        os.rename("/run/pcscd", "/run/real")
        os.mkdir("/run/pcscd")

    def start_reader(self):
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
        wait_until(lambda: os.path.exists("/run/pcscd/pcscd.comm"), "pcscd's socket")
        self.start_agent()

    def start_agent(self):
        self.agent = self.start(AGENT, "--control", "/run/zelta-agent0/control")
        self.wait_for_card()

    def wait_for_card(self):
        wait_until(lambda: run("opensc-tool", "--atr", check=False).returncode == 0, "a card")

    def offer_ssh(self):
        """The pages' hosts are this one. `me` and root have a key there, USER that of the card."""
        run("ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", self.folder / "key")
        for user in ("me", "root"):
            shutil.copy(self.folder / "key.pub", self.folder / f"authorized.{user}")
        (self.folder / "authorized.USER").write_text(run("ssh-keygen", "-D", OPENSC).stdout)
        self.sshd = Sshd(self.folder, self.folder / "authorized.%u",
                         f"SetEnv PATH={BUILD / 'bin'}:/usr/bin:/bin")
        (self.folder / "ssh_config").write_text(
            f"HostName 127.0.0.1\nPort {self.sshd.port}\nStrictHostKeyChecking yes\n"
            f"UserKnownHostsFile {self.folder}/known\n"
            f"Match user me,root\nIdentityFile {self.folder}/key\nIdentitiesOnly yes\n")
        self.add_program("ssh", f'#!/bin/sh\nexec /usr/bin/ssh -F {self.folder}/ssh_config "$@"\n')
        self.add_program("askpass", f"#!/bin/sh\necho {PIN}\n")
        self.environment.update(SSH_ASKPASS=str(self.programs / "askpass"),
                                SSH_ASKPASS_REQUIRE="force",
                                SSH_AUTH_SOCK=str(self.folder / "ssh-agent"))
        self.start("ssh-agent", "-D", "-a", self.folder / "ssh-agent")
        wait_until((self.folder / "ssh-agent").exists, "ssh-agent's socket")

    def offer_tls(self):
        self.server = TlsServer(self.folder, pathlib.Path("/var/lib/zelta/card/ca.pem"))
        (self.folder / "home" / ".curlrc").write_text(
            f'cacert = "{self.folder}/authority.pem"\n'
            f'connect-to = "HOST:443:127.0.0.1:{self.server.port}"\n')

    def run_agent(self, command):
        """Replaces the existing one."""
        self.agent.end()
        wait_until(lambda: run("opensc-tool", "--atr", check=False).returncode != 0, "no card")
        source, variables = command.source, {}
        if "--pcsc-reader" in source:
            source = source.replace('"NAME"', "'Zelta Virtual SmartCard Reader 00 00'")
            variables = {"PCSCLITE_CSOCK_NAME": "/run/real/pcscd.comm"}
        first = FIRST.get(command.text, ":")
        agent = self.start("bash", "-c", f"{first}; exec {source}", **variables)
        try:
            self.wait_for_card()
        except AssertionError:
            self.fail(f"{command.page}: {command.text}: {agent.log.read_text()[-2000:]}")
        self.assertIsNone(agent.process.poll(), command.text)
        agent.end()
        self.start_agent()

    def test_commands_of_the_pages_work(self):
        counts = {page.name: self.run_page(page) for page in docs_commands.pages()
                  if page.name != "README.md"}
        for name in ("agent.md", "operation.md", "programs.md", "troubleshooting.md"):
            self.assertGreater(counts[name], 0, name)
        self.assertGreater(self.run_page(SOURCE / "README.md", is_for_an_agent), 0)
        self.assertIn("Accepted publickey for USER", self.sshd.log.read_text())
        self.assertEqual(self.server.clients, ["Demo Card Authentication"])


def is_for_an_agent(command):
    return BRINGS_A_CARD.match(command.text)


class ReadmePage(PagesTest):
    """The README, in a checkout where everything is installed and built."""

    UP, CHECK = "./zelta up", "./zelta up --check"

    def setUp(self):
        super().setUp()
        self.add_program("dpkg-query", "#!/bin/sh\necho installed\n")
        self.add_program("cmake", "#!/bin/sh\n")

    def bring_up(self):
        self.up = subprocess.Popen(self.UP.split(), text=True, cwd=self.checkout,
                                   env=self.environment, stdin=subprocess.DEVNULL,
                                   stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
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

    def is_run_while_it_is_up(self, command):
        return (is_run(command) and not is_for_an_agent(command)
                and command.text not in (self.UP, self.CHECK))

    def test_commands_of_the_readme_work(self):
        readme = SOURCE / "README.md"
        self.assertEqual(self.run_page(readme, lambda command: command.text == self.CHECK), 1)
        self.assertIn(self.UP, [command.text for block in docs_commands.blocks(readme)
                                for command in block])
        self.bring_up()
        self.assertGreater(self.run_page(readme, self.is_run_while_it_is_up), 5)
        self.assertEqual((self.checkout / "signature").stat().st_size, 256)
        self.assertIn("<html", (self.checkout / "page.html").read_text())
        self.assertEqual(self.up.wait(stack.LIMIT), 0)  # `./zelta down` was the last one

    def test_picture_shows_what_up_prints(self):
        self.bring_up()
        shown = screenshot.lines_of((SOURCE / "docs" / "up.svg").read_text())
        self.assertEqual(shown, [f"$ {self.UP}", *self.lines])


if __name__ == "__main__":
    unittest.main(verbosity=2)
