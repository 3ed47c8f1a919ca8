"""Follows docs/windows.md under Wine, with the archive; steps that need Windows are listed below,
with the reason."""

import os
import pathlib
import re
import shutil
import subprocess
import tempfile
import time
import unittest
import zipfile

import wine_machine as machine

SOURCE = pathlib.Path(os.environ["ZELTA_SOURCE"])
BUILD = pathlib.Path(os.environ["ZELTA_BUILD_DIR"])
NAME = f"zelta-vsc-{os.environ['ZELTA_VERSION']}-windows-x64"
ARCHIVE = pathlib.Path(os.environ["ZELTA_ARCHIVE_FOLDER"], NAME + ".zip")
PAGE = (SOURCE / "docs" / "windows.md").read_text()
TRIAL = (SOURCE / "docs" / "windows-trial.md").read_text()
PROGRAMS = machine.DRIVE / "Program Files" / "Zelta"

KIT = "is of the Windows Driver Kit"
DEVICES = "Wine has no command for devices"
NEEDS_WINDOWS = {
    "inf2cat /driver:. /os:10_X64": KIT,
    "signtool sign /fd sha256 /f zelta-test.pfx /p PASSWORD zelta_vsc.cat": KIT,
    "signtool verify /pa /c zelta_vsc.cat zelta_vsc.dll": KIT,
    r"icacls C:\ProgramData\Vornhalt\ZeltaAgent\logs /inheritance:r "
    r'/grant "*S-1-5-18:(OI)(CI)F" "*S-1-5-32-544:(OI)(CI)F" "*S-1-5-19:(OI)(CI)M"':
        "Wine's access lists have no effect",
    r"devgen /add /bus ROOT /hardwareid Root\Vornhalt\ZeltaSmartCardReader": KIT,
    "pnputil /add-driver zelta_vsc.inf /install": DEVICES,
    "pnputil /enum-devices /class SmartCardReader": DEVICES,
    'pnputil /remove-device "INSTANCE ID FROM THE LIST"': DEVICES,
    "pnputil /enum-drivers /class SmartCardReader": DEVICES,
    "pnputil /delete-driver oemNN.inf /uninstall": DEVICES,
    r'psexec -i -s cmd /k cd /d "C:\Program Files\Zelta"': "Wine knows one account",
    "zelta-agent --backend script --script card.txt --verbose": "stays; is started here",
    r"forfiles /p C:\ProgramData\Vornhalt\ZeltaAgent\logs /m zelta_vsc_*.txt /d -30 "
    r'/c "cmd /c del @path"': "Wine has no forfiles",
    r"powershell Get-Content -Wait (Get-ChildItem "
    r"C:\ProgramData\Vornhalt\ZeltaAgent\logs\zelta_vsc_*)[-1]": "Wine has no PowerShell",
}
# The page's sh blocks that the suites run or that make this test's input.
BUILDING = ("./zelta test", "cmake --preset windows")

LIMIT = 60


def setUpModule():
    unittest.addModuleCleanup(machine.stop)
    machine.start()
    with zipfile.ZipFile(ARCHIVE) as archive:
        archive.extractall(PROGRAMS.parent)
    (PROGRAMS.parent / NAME).rename(PROGRAMS)
    machine.make_installable(PROGRAMS)


def blocks(language):
    """The lists of the page's commands in that language, and with each what stands after it."""
    found = re.findall(rf"(?ms)^```{language}\n(.*?)^```$(.*?)(?=^```\w+$|\Z)", PAGE)
    return [(re.sub(r"\\\n\s*", "", commands).splitlines(), after) for commands, after in found]


def answer(after):
    return re.search(r"(?ms)^```\n(.*?)^```$", after).group(1).splitlines()


class WindowsPage(unittest.TestCase):
    def command(self, line):
        result = machine.wine("cmd", "/c", line, cwd=PROGRAMS)
        self.assertEqual(result.returncode, 0, f"{line}\n{result.stdout}")
        return result.stdout

    def until_it_works(self, line):
        """An agent takes a moment to come up."""
        end = time.monotonic() + LIMIT
        while machine.wine("cmd", "/c", line, cwd=PROGRAMS).returncode != 0:
            self.assertLess(time.monotonic(), end, line)
            time.sleep(0.1)

    def follow(self, commands):
        """What each printed."""
        printed = {}
        for line in commands:
            if line.startswith("cd "):
                folder = re.fullmatch(r'cd (?:/d )?"C:\\(.+)"', line).group(1).replace("\\", "/")
                self.assertEqual(machine.DRIVE / folder, PROGRAMS)
            elif line == "zelta-agent ctl status":
                self.until_it_works(line)
            elif line not in NEEDS_WINDOWS:
                printed[line] = self.command(line)
        return printed

    def start_agent(self):
        agent = subprocess.Popen(
            [machine.WINE, PROGRAMS / "zelta-agent.exe", "--backend", "script", "--script",
             "card.txt", "--verbose"],
            cwd=PROGRAMS, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
            stderr=subprocess.DEVNULL)
        self.addCleanup(agent.wait, LIMIT)
        self.addCleanup(agent.kill)
        return agent

    def end_programs(self, prefix):
        """Those that a block has left because it failed."""
        if prefix.exists():
            subprocess.run(["wineserver", "-k"], check=False, timeout=LIMIT,
                           env=dict(os.environ, WINEPREFIX=str(prefix)))

    def test_commands_for_windows_work_in_the_pages_order(self):
        install, by_hand, console, control, service, remove, remove_by_hand, level = (
            block for block in blocks("bat") if "inf2cat" not in block[0][0])

        printed = self.follow(install[0])
        shown = [line.split(":")[0] for line in printed["zelta-setup status"].splitlines()]
        self.assertEqual(shown, [line.split(":")[0] for line in answer(install[1])])

        self.command("zelta-setup remove --purge")
        self.follow(by_hand[0])
        self.assertTrue(machine.LOGS.is_dir())

        self.follow(console[0])
        agent = self.start_agent()
        self.follow(control[0])
        agent.kill()
        agent.wait(LIMIT)

        self.follow(service[0])
        self.assertIn("ZeltaAgent0", self.command("zelta-setup status"))

        printed = self.follow(remove[0])
        self.assertIn("agent service:  removed: ZeltaAgent0", printed["zelta-setup remove"])
        self.assertRegex(printed["zelta-setup remove --purge"], r"log folder: +removed")
        self.assertFalse(machine.LOGS.exists())

        self.command("zelta-agent service install --backend script --script card.txt")
        self.follow(remove_by_hand[0])
        status = machine.wine(PROGRAMS / "zelta-setup.exe", "status").stdout
        self.assertRegex(status, r"agent service: +none")

        self.follow(level[0])
        self.assertEqual(machine.value(machine.POLICY), ("REG_DWORD", "0x3"))

    def test_commands_for_debian_work_in_the_pages_order(self):
        folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        built = folder / "build-windows"
        built.mkdir()
        for name in ("bin", "lib"):
            (built / name).symlink_to(BUILD / name)
        for name in ("packaging", "scripts"):
            (folder / name).symlink_to(SOURCE / name)
        shutil.copytree(PROGRAMS, folder / "PACKAGE")
        run = 0
        for commands, after in blocks("sh"):
            if commands[0].startswith(BUILDING):
                continue
            run += 1
            self.addCleanup(self.end_programs, built / "wine-look")
            with tempfile.TemporaryFile("w+") as output:
                result = subprocess.run(["bash", "-e", "-o", "pipefail", "-c", "\n".join(commands)],
                                        cwd=folder, stdin=subprocess.DEVNULL, stdout=output,
                                        stderr=subprocess.STDOUT, timeout=4 * LIMIT, check=False)
                output.seek(0)
                printed = output.read().replace("\r", "")
            self.assertEqual(result.returncode, 0, f"{commands}\n{printed}")
            if "wine" in commands[0]:
                lines = iter([line.rstrip() for line in printed.splitlines()])
                for line in answer(after):
                    self.assertIn(line, lines, printed)  # in this order, others between
            else:
                self.assertEqual(printed.count("signed: PACKAGE/"), 6, printed)
        self.assertEqual(run, 2)

    def test_every_command_that_needs_windows_is_on_the_page(self):
        lines = {line for commands, _ in blocks("bat") for line in commands}
        self.assertLessEqual(set(NEEDS_WINDOWS), lines)

    def test_trial_uses_the_commands_that_are_followed(self):
        followed = {line for commands, _ in blocks("bat") for line in commands}
        commands = set(re.findall(r"`(zelta-(?:setup|agent) [^`]+)`", TRIAL))
        self.assertGreaterEqual(len(commands), 7)
        self.assertLessEqual(commands, followed)

    def test_archive_is_what_the_page_lists(self):
        table = PAGE.split("| In the archive |")[1].split("\n\n")[0]
        listed = {name.rstrip("/") for row in table.splitlines()[2:]
                  for name in re.findall(r"`([^`]+)`", row.split("|")[1])}
        self.assertEqual({path.name for path in PROGRAMS.iterdir()} - {"zelta_vsc.cat"}, listed)


if __name__ == "__main__":
    unittest.main(verbosity=2)
