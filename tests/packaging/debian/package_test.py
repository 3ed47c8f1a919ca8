"""The Debian package: its contents, and the effect of installing and purging it on a system."""

import os
import pathlib
import re
import shutil
import tempfile
import unittest

import docs_commands
import stack
from booted_system import BootedSystem
from copied_system import CopiedSystem
from stack import PIN, run, wait_until

READER = "Zelta Virtual SmartCard Reader 00 00"
ENTRY = "/etc/reader.conf.d/zelta"
CONFFILES = (ENTRY, "/etc/zelta/agent0.conf", "/etc/zelta/registry.reg")
CARD = "/var/lib/zelta/card"
LOGS = "/var/log/Vornhalt/ZeltaAgent/logs"
AGENT = "zelta-agent@0.service"
AGENT_UNIT = "lib/systemd/system/zelta-agent@.service"
PRUNE_UNIT = "lib/systemd/system/zelta-logs-prune.service"
ACCOUNTS = ("/etc/passwd", "/etc/group", "/etc/shadow", "/etc/gshadow")
# Files of the package manager and its triggers, and of systemd for its services.
OF_THE_SYSTEM = re.compile(r"/var/(lib/(dpkg|systemd)|cache|log/((dpkg|alternatives)\.log|journal))(/|$)"
                           r"|/etc/[a-z]+-$|/etc/systemd/system/[a-z-]+\.(service|socket|automount)$")


def package(name="zelta-vsc"):
    found = list(pathlib.Path(os.environ["ZELTA_PACKAGE_FOLDER"]).glob(f"{name}_*.deb"))
    assert len(found) == 1, found
    return found[0]


def field(name):
    return run("dpkg-deb", "--field", package(), name).stdout.strip()


def files_of(name):
    listing = run("dpkg-deb", "--contents", package(name)).stdout
    return {line.split(" ./", 1)[1].removesuffix(".gz")
            for line in listing.splitlines() if line[0] == "-"}


OLD_FILE = "usr/lib/zelta/of_the_version_before"
OLD_LINE = "# Of the version before.\n"


def earlier_package(folder):
    """An earlier version: other programs, module, unit and settings, and a file since removed."""
    content = pathlib.Path(folder, "content")
    run("dpkg-deb", "--raw-extract", package(), content)
    control = content / "DEBIAN" / "control"
    control.write_text(re.sub(r"(?m)^Version: .*$", "Version: 0.9.0", control.read_text()))
    for name in ("usr/bin/zelta-agent", "usr/lib/zelta/libzelta_vsc.so",
                 "usr/lib/zelta/libifdzelta.so"):
        with (content / name).open("ab") as file:
            file.write(b"another build")  # after the part that is loaded
    for name in (AGENT_UNIT, *(path.lstrip("/") for path in CONFFILES)):
        with (content / name).open("a") as file:
            file.write(OLD_LINE.replace("#", ";") if name.endswith(".reg") else OLD_LINE)
    (content / OLD_FILE).write_text("gone since\n")
    earlier = pathlib.Path(folder, "earlier.deb")
    run("dpkg-deb", "--root-owner-group", "-Znone", "--build", content, earlier)
    return earlier


class DebianPackage(unittest.TestCase):
    def test_package_holds_what_is_used(self):
        files = files_of("zelta-vsc")
        documents = {f"usr/share/doc/zelta-vsc/docs/{path.name}"
                     for pattern in ("*.md", "*.svg", "*.png")
                     for path in (stack.SOURCE / "docs").glob(pattern)}
        self.assertEqual(documents - files, set())
        self.assertEqual(files - documents, {
            "etc/reader.conf.d/zelta",
            "etc/zelta/agent0.conf",
            "etc/zelta/registry.reg",
            "lib/systemd/system/pcscd.service.d/zelta.conf",
            "lib/systemd/system/zelta-agent@.service",
            "lib/systemd/system/zelta-logs-prune.service",
            "lib/systemd/system/zelta-logs-prune.timer",
            "usr/bin/zelta",
            "usr/bin/zelta-agent",
            "usr/bin/zelta-logs",
            "usr/bin/zelta-status",
            "usr/bin/zelta-trace",
            "usr/lib/sysusers.d/zelta-vsc.conf",
            "usr/lib/tmpfiles.d/zelta-vsc.conf",
            "usr/lib/zelta/libifdzelta.so",
            "usr/lib/zelta/libzelta_vsc.so",
            "usr/share/doc/zelta-vsc/README.md",
            "usr/share/doc/zelta-vsc/changelog",
            "usr/share/doc/zelta-vsc/copyright",
            "usr/share/bash-completion/completions/zelta",
            "usr/share/bash-completion/completions/zelta-agent",
            "usr/share/bash-completion/completions/zelta-logs",
            "usr/share/bash-completion/completions/zelta-status",
            "usr/share/bash-completion/completions/zelta-trace",
            "usr/share/man/man1/zelta.1",
            "usr/share/man/man1/zelta-agent.1",
            "usr/share/man/man1/zelta-logs.1",
            "usr/share/man/man1/zelta-status.1",
            "usr/share/man/man1/zelta-trace.1",
            "usr/share/man/man5/zelta-agent.conf.5",
            "usr/share/man/man5/zelta-card-script.5",
            "usr/share/man/man5/zelta-registry.5",
            "usr/share/man/man8/libifdzelta.8",
            "usr/share/zelta/first-card.sh",
            "usr/share/zelta/make-demo-db.sh",
            "usr/share/zsh/vendor-completions/_zelta",
        })

    def test_development_package_holds_the_library_and_the_examples(self):
        files = {re.sub("^usr/lib/[a-z0-9_-]+/", "", name) for name in files_of("zelta-vsc-dev")}
        self.assertEqual(files, {
            "libzelta-agent.a",
            "pkgconfig/zelta-agent.pc",
            "usr/include/zelta/agent.h",
            "usr/share/doc/zelta-vsc-dev/changelog",
            "usr/share/doc/zelta-vsc-dev/copyright",
            *(f"usr/share/doc/zelta-vsc-dev/examples/{path.name}"
              for path in (stack.SOURCE / "examples").iterdir() if path.is_file()),
        })

    def test_everyone_may_read_and_root_alone_write(self):
        for name in ("zelta-vsc", "zelta-vsc-dev"):
            for line in run("dpkg-deb", "--contents", package(name)).stdout.splitlines():
                self.assertRegex(line, r"^(drwxr-xr-x|-rwxr-xr-x|-rw-r--r--) root/root ")

    def test_control_fields_name_what_is_needed_and_what_is_kept(self):
        self.assertEqual(field("Package"), "zelta-vsc")
        self.assertRegex(field("Version"), r"^\d+\.\d+\.\d+(~git\d+)?$")
        depends = {word.split()[0] for word in field("Depends").split(", ")}
        needed = {"pcscd", "libnss3-tools", "libc6", "libcacard0", "libnss3", "libpcsclite1"}
        self.assertEqual(needed - depends, set())
        conffiles = run("dpkg-deb", "--info", package(), "conffiles").stdout.split()
        self.assertEqual(set(conffiles), set(CONFFILES))

    def test_services_are_confined(self):
        folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        run("dpkg-deb", "--extract", package(), folder)
        for file, name in ((AGENT_UNIT, AGENT), (PRUNE_UNIT, pathlib.Path(PRUNE_UNIT).name)):
            unit = folder / name
            unit.write_bytes((folder / file).read_bytes())
            # In tenths; ends with an error if the exposure is higher.
            review = run("systemd-analyze", "security", "--offline=true", "--no-pager",
                         "--threshold=25", unit).stdout
            self.assertIn(f"Overall exposure level for {name}", review)

    def test_lintian_finds_neither_errors_nor_warnings(self):
        # It leaves a file among the temporary ones.
        folder = self.enterContext(tempfile.TemporaryDirectory())
        found = run("lintian", "--allow-root", "--fail-on", "error,warning", package(),
                    package("zelta-vsc-dev"), env=dict(os.environ, TMPDIR=folder)).stdout
        self.assertEqual(found, "")


class DebianInstallation(unittest.TestCase):
    """In a copy of the system, with the system's own pcscd and its usual configuration."""

    def setUp(self):
        self.system = CopiedSystem()
        self.addCleanup(self.system.close)
        self.processes = []
        self.addCleanup(self.end_processes)
        self.accounts = {name: self.system.path(name).read_bytes() for name in ACCOUNTS}
        self.system.path("/tmp/zelta.deb").write_bytes(package().read_bytes())
        self.dpkg("--install", "/tmp/zelta.deb")

    def dpkg(self, *words):
        # The copy is in memory: there is no disk to wait for.
        return self.system.run("dpkg", "--force-unsafe-io", *words)

    def readers(self):
        return self.system.run("opensc-tool", "--list-readers", check=False).stdout

    def start(self, *command):
        self.processes.append(self.system.start(*command))
        return self.processes[-1].process

    def end_processes(self):
        while self.processes:
            self.processes.pop().end()

    def start_pcscd(self, *as_user):
        self.system.path("/run/pcscd").mkdir(exist_ok=True)
        pcscd = self.start(*as_user, "pcscd", "--foreground", "--info")
        wait_until(lambda: self.system.path("/run/pcscd/pcscd.comm").exists(), "pcscd's socket")
        return pcscd

    def start_agent(self):
        """Runs as the service's user, with the card in the folder where the agent looks for one."""
        self.system.run("/usr/share/zelta/make-demo-db.sh", CARD, PIN)
        self.system.run("chown", "-R", "zelta-agent:zelta", CARD)
        self.system.path("/tmp").chmod(0o1777)
        self.start("setpriv", "--reuid=zelta-agent", "--regid=zelta", "--clear-groups",
                   "--no-new-privs", "zelta-agent", "--control", "/tmp/agent.ctl")
        try:
            wait_until(lambda: re.search("Yes +" + READER, self.readers()), "the card")
        except AssertionError:
            print(self.system.output())
            raise

    def test_reader_and_service_user_work_after_installation(self):
        self.start_pcscd()
        self.assertRegex(self.readers(), "No +" + READER, self.system.output())
        self.start_agent()
        self.system.path("/tmp/message").write_bytes(os.urandom(100))
        self.system.run("pkcs11-tool", "--module", stack.pkcs11_module(), "--login", "--pin", PIN,
                        "--sign", "--id", "0001", "--mechanism", "SHA256-RSA-PKCS",
                        "--input-file", "/tmp/message", "--output-file", "/tmp/signature")
        self.assertEqual(self.system.path("/tmp/signature").stat().st_size, 256)
        log = self.system.run("zelta-logs", "--no-follow", "--all").stdout
        self.assertIn("Command named pipe connected", log)

    def test_pcscd_of_another_user_serves_the_card_and_writes_the_log(self):
        self.system.run("useradd", "--system", "--no-create-home", "some-pcscd")
        self.system.path("/run/pcscd").mkdir()
        self.system.run("chown", "some-pcscd", "/run/pcscd")
        # Started as systemd does by the package's drop-in.
        self.start_pcscd("setpriv", "--reuid=some-pcscd", "--regid=some-pcscd", "--groups=zelta",
                         "--no-new-privs")
        self.start_agent()
        folder = "/run/zelta/pipe/ProtectedPrefix/LocalService/"
        owners = self.system.run("stat", "--format=%U:%G %a", folder + "zelta_smartcard_command0",
                                 folder + "zelta_smartcard_event0").stdout.split("\n")
        self.assertEqual(owners, ["some-pcscd:zelta 660"] * 2 + [""])
        logs = self.system.run("find", LOGS, "-type", "f", "-printf", "%u:%g\n").stdout.split()
        self.assertEqual(set(logs), {"some-pcscd:zelta"})
        log = self.system.run("zelta-logs", "--no-follow", "--all").stdout
        self.assertIn("Command named pipe connected", log)

    def test_group_adm_alone_reads_logs_and_group_zelta_adds_but_removes_no_others(self):
        def can(user, group, *command):
            return self.system.run("setpriv", f"--reuid={user}", f"--regid={group}",
                                   "--clear-groups", *command, check=False).returncode == 0

        log = LOGS + "/zelta_vsc_2024_03_05T14_07_09_042Z.txt"
        self.assertTrue(can("games", "zelta", "touch", log))
        self.assertTrue(can("nobody", "adm", "cat", log))
        self.assertFalse(can("nobody", "adm", "touch", log))
        self.assertFalse(can("nobody", "nogroup", "cat", log))
        self.assertFalse(can("nobody", "zelta", "rm", "-f", log))
        self.assertTrue(can("games", "zelta", "rm", log))

    def test_first_log_has_no_error_about_the_registry(self):
        self.start_pcscd()
        self.readers()
        wait_until(lambda: list(self.system.path(LOGS).iterdir()), "a log")
        for log in self.system.path(LOGS).iterdir():
            self.assertNotIn("registry", log.read_text())
            self.assertEqual(log.stat().st_mode & 0o7777, 0o640)
        groups = self.system.run("find", LOGS, "-type", "f", "-printf", "%g\n").stdout.split()
        self.assertEqual(set(groups), {"zelta"})

    def test_entry_that_was_lost_comes_back_as_the_docs_say(self):
        entry = self.system.path(ENTRY).read_text()
        self.system.path(ENTRY).unlink()
        self.dpkg("--install", "/tmp/zelta.deb")
        self.assertFalse(self.system.path(ENTRY).exists())
        self.dpkg("--force-confmiss", "--install", "/tmp/zelta.deb")
        self.assertEqual(self.system.path(ENTRY).read_text(), entry)

    def test_demo_card_is_made_for_the_emulated_card_of_the_usual_folder_only(self):
        for options in ("--backend pcsc --pcsc-reader NAME", "--backend script --script FILE",
                        "--backend remote", "--backend=remote", "--db /srv/card", "--version"):
            self.system.run("/usr/share/zelta/first-card.sh", *options.split())
            self.assertFalse(self.system.path(CARD).exists(), options)
        for options in ([], ["--backend", "emulated"]):
            self.system.run("/usr/share/zelta/first-card.sh", *options)
            self.assertTrue((self.system.path(CARD) / "cert9.db").exists(), options)
            shutil.rmtree(self.system.path(CARD))

    def test_removed_package_leaves_a_pcscd_that_starts_and_the_logs(self):
        log = self.system.path(LOGS) / "zelta_vsc_2024_03_05T14_07_09_042Z.txt"
        log.write_text("kept\n")
        self.dpkg("--remove", "zelta-vsc")
        self.assertFalse(self.system.path(ENTRY).exists())
        self.assertEqual(log.read_text(), "kept\n")
        pcscd = self.start_pcscd()
        self.assertNotIn(READER, self.readers())
        self.assertIsNone(pcscd.poll())

    def test_purged_package_leaves_nothing(self):
        self.assertIn(ENTRY, self.system.new_paths())
        self.start_pcscd()
        self.start_agent()
        self.end_processes()
        self.dpkg("--purge", "zelta-vsc")
        left = [path for path in self.system.new_paths() if not OF_THE_SYSTEM.search(path)]
        self.assertEqual(left, [])
        for name, content in self.accounts.items():
            self.assertEqual(self.system.path(name).read_bytes(), content, name)


class DocumentedInstallation(unittest.TestCase):
    """The documentation's commands for apt and dpkg, in a checkout in a copy of the system."""

    def setUp(self):
        self.system = CopiedSystem()
        self.addCleanup(self.system.close)
        self.system.bring(stack.SOURCE)
        self.add_program("sudo", 'exec "$@"')  # this is root
        # It would make the package that is tested.
        self.system.path("/built").mkdir()
        for name in ("zelta-vsc", "zelta-vsc-dev"):
            shutil.copy(package(name), self.system.path("/built"))
        self.add_program("dpkg-buildpackage", "[ -x debian/rules ] && cp /built/*.deb ..")

    def add_program(self, name, script):
        path = self.system.path("/usr/local/bin") / name
        path.write_text(f"#!/bin/sh\n{script}\n")
        path.chmod(0o755)

    def status(self):
        result = self.system.run("dpkg-query", "-W", "-f=${db:Status-Status}", "zelta-vsc",
                                 check=False)
        return result.stdout if result.returncode == 0 else "unknown"

    def test_commands_of_the_docs_for_the_package_manager_work(self):
        commands = {command.text for command in docs_commands.every_command()
                    if docs_commands.is_for_package_manager(command)}

        def run_next(text, folder=stack.SOURCE):
            commands.remove(text)
            # apt asks before it removes something.
            self.system.run("sh", "-c", f"cd {folder} && {text}", input="y\n")

        run_next("./zelta package dist")
        run_next("sudo apt install ./dist/zelta-vsc_*.deb")
        self.assertEqual(self.status(), "installed")
        self.system.path(ENTRY).unlink()
        run_next("sudo dpkg --force-confmiss --install zelta-vsc_*.deb", stack.SOURCE / "dist")
        self.assertTrue(self.system.path(ENTRY).exists())
        self.system.run("useradd", "--badname", "USER")
        run_next("sudo adduser USER zelta")
        self.assertIn("zelta", self.system.run("id", "-nG", "USER").stdout.split())
        run_next("sudo apt remove zelta-vsc")
        self.assertEqual(self.status(), "config-files")
        run_next("sudo apt purge zelta-vsc")
        self.assertEqual(self.status(), "unknown")
        self.assertEqual(commands, set())


class SystemdTest(unittest.TestCase):
    """In a copy of the system that systemd has started."""

    def setUp(self):
        self.system = BootedSystem()
        self.addCleanup(self.system.close)
        if self.system.problem:
            self.skipTest(f"systemd does not start here: {self.system.problem}")
        self.system.path("/zelta.deb").write_bytes(package().read_bytes())
        self.system.run("systemctl", "start", "pcscd.socket")

    def dpkg(self, *words):
        return self.system.run("dpkg", "--force-unsafe-io", *words)

    def edit_conffiles(self):
        for name in CONFFILES:
            with self.system.path(name).open("a") as file:
                file.write("# edited\n" if name != CONFFILES[2] else "; edited\n")

    def assert_edits_are_there(self):
        for name in CONFFILES:
            self.assertIn("edited", self.system.path(name).read_text(), name)

    def wait_for_card(self):
        def has_card():
            return self.system.run("opensc-tool", "--name", check=False).returncode == 0
        wait_until(has_card, "the card")

    def process_file(self, service, name):
        return self.system.run("cat", f"/proc/{self.system.main_pid(service)}/{name}").stdout


class DebianService(SystemdTest):
    def setUp(self):
        super().setUp()
        self.dpkg("--install", "/zelta.deb")

    def test_first_program_after_pcscd_has_ended_finds_the_card(self):
        self.wait_for_card()
        for program in (("opensc-tool", "--name"), ("ssh-keygen", "-D", stack.pkcs11_module())) * 5:
            # A pcscd that is stopped, unlike one that ends by itself, takes its socket with it.
            self.system.run("systemctl", "stop", "pcscd.service", "pcscd.socket")
            # More starts than systemd takes at once.
            self.system.run("systemctl", "reset-failed", "pcscd.service", "pcscd.socket")
            self.system.run("systemctl", "start", "pcscd.socket")
            self.system.run(*program)

    def test_agent_serves_a_demo_card_right_after_the_installation(self):
        self.assertTrue(self.system.is_active(AGENT))
        self.wait_for_card()
        self.assertIn("Common Access Card", self.system.run("opensc-tool", "--name").stdout)
        self.assertIn("connected", self.system.run("zelta", "status").stdout)
        self.system.run("zelta", "card", "remove")
        self.assertNotEqual(self.system.run("opensc-tool", "--name", check=False).returncode, 0)

    def test_timer_removes_old_logs(self):
        self.assertTrue(self.system.is_active("zelta-logs-prune.timer"))
        old = self.system.path(LOGS) / "zelta_vsc_2024_03_05T14_07_09_042Z.txt"
        old.write_text("old\n")
        os.utime(old, (0, 0))
        new = self.system.path(LOGS) / "zelta_vsc_2924_03_05T14_07_09_042Z.txt"
        new.write_text("new\n")
        self.system.run("systemctl", "start", "zelta-logs-prune.service")
        self.assertFalse(old.exists())
        self.assertTrue(new.exists())

    def sign(self):
        self.system.path("/root/message").write_bytes(os.urandom(100))
        self.system.run("pkcs11-tool", "--module", stack.pkcs11_module(), "--login", "--pin", PIN,
                        "--sign", "--id", "0001", "--mechanism", "SHA256-RSA-PKCS",
                        "--input-file", "/root/message", "--output-file", "/root/signature")
        return self.system.path("/root/signature").stat().st_size

    def test_confined_agent_signs(self):
        self.wait_for_card()
        self.assertEqual(self.sign(), 256)
        control = self.system.run("stat", "--format=%U:%G %a", "/run/zelta-agent0/control").stdout
        self.assertEqual(control, "zelta-agent:zelta 660\n")
        state = self.process_file(AGENT, "status")
        for line in ("CapPrm:\t0000000000000000", "CapBnd:\t0000000000000000", "NoNewPrivs:\t1",
                     "Seccomp:\t2", "Umask:\t0077"):
            self.assertIn(line + "\n", state)

    def test_confined_agent_reaches_the_card_of_a_real_reader(self):
        self.system.path("/etc/zelta/agent0.conf").write_text(
            "ZELTA_AGENT_OPTIONS=\"--backend pcsc --pcsc-reader 'Not there'\"\n")
        # It does not start without an answer of pcscd.
        self.system.run("systemctl", "restart", AGENT)
        self.assertTrue(self.system.is_active(AGENT))

    def test_neither_service_dumps_core_and_pcscd_has_the_group(self):
        self.wait_for_card()
        for service in (AGENT, "pcscd.service"):
            self.assertRegex(self.process_file(service, "limits"), r"Max core file size +0 +0 ")
        groups = re.search("Groups:(.*)", self.process_file("pcscd.service", "status")).group(1)
        zelta = self.system.run("getent", "group", "zelta").stdout.split(":")[2]
        self.assertIn(zelta, groups.split())

    def test_killed_agent_is_started_again_without_end(self):
        show = self.system.run("systemctl", "show", "--property",
                               "RestartUSec,StartLimitIntervalUSec", AGENT).stdout
        self.assertEqual(set(show.split()), {"RestartUSec=2s", "StartLimitIntervalUSec=0"})
        before = self.system.main_pid(AGENT)
        self.system.run("systemctl", "kill", "--kill-whom=main", "--signal=KILL", AGENT)
        wait_until(lambda: self.system.main_pid(AGENT) not in (0, before), "the next agent")
        self.wait_for_card()

    def test_agent_runs_again_with_edits_if_installed_again_after_a_removal(self):
        self.edit_conffiles()
        self.dpkg("--remove", "zelta-vsc")
        self.assertFalse(self.system.is_active(AGENT))
        self.assertFalse(self.system.path(ENTRY).exists())
        self.dpkg("--install", "/zelta.deb")
        self.assertTrue(self.system.is_active(AGENT))
        self.assert_edits_are_there()
        self.wait_for_card()

    def test_agents_that_ran_without_being_enabled_run_again_if_installed_again(self):
        others = [AGENT.replace("0", number) for number in "12"]
        for number in "12":
            self.system.path(f"/etc/zelta/agent{number}.conf").write_text(
                'ZELTA_AGENT_OPTIONS="--backend emulated"\n')
        self.system.run("systemctl", "start", *others)
        self.system.run("systemctl", "stop", others[1])
        self.dpkg("--remove", "zelta-vsc")
        self.assertFalse(self.system.is_active(others[0]))
        self.dpkg("--install", "/zelta.deb")
        self.assertEqual([self.system.is_active(unit) for unit in (AGENT, *others)],
                         [True, True, False])
        self.assertFalse(self.system.path("/run/zelta-vsc.ran").exists())

    def test_agent_that_was_disabled_stays_so_if_installed_again(self):
        self.system.run("systemctl", "disable", "--now", AGENT)
        self.dpkg("--remove", "zelta-vsc")
        self.dpkg("--install", "/zelta.deb")
        self.assertFalse(self.system.is_active(AGENT))

    def test_wrong_configuration_is_not_tried_again(self):
        for options in ("--no-such-option", "--db /none", "--pin-file /none", "--cert nobody",
                        "--pin 87654321", "--backend script --script /none"):
            with self.subTest(options=options):
                self.system.path("/etc/zelta/agent0.conf").write_text(
                    f'ZELTA_AGENT_OPTIONS="{options}"\n')
                self.system.run("systemctl", "restart", AGENT, check=False)
                show = self.system.run("systemctl", "show", "--property",
                                       "NRestarts,SubState,ExecMainStatus", AGENT).stdout
                self.assertEqual(set(show.split()),
                                 {"NRestarts=0", "SubState=failed", "ExecMainStatus=2"})

    def test_commands_of_the_docs_for_systemd_work(self):
        self.wait_for_card()
        commands = {command.text.removeprefix("sudo ")
                    for command in docs_commands.every_command()
                    if docs_commands.is_for_systemd(command)}
        self.assertGreater(len(commands), 4)
        # Commands that stop the agent run before those that start it.
        for command in sorted(commands, key=lambda text: (" stop " not in text, text)):
            if command.startswith("systemctl edit"):  # on a terminal only
                command = f"SYSTEMD_EDITOR=true script --quiet --return -c '{command}' /dev/null"
            result = self.system.run("sh", "-c", f"SYSTEMD_PAGER= {command}", check=False)
            # `systemctl status` exits with 3 if one of them is not running.
            self.assertIn(result.returncode, (0, 3) if "status" in command else (0,),
                          f"{command}: {result.stdout}")
        self.wait_for_card()

    def test_purge_leaves_nothing_behind(self):
        self.wait_for_card()
        self.dpkg("--purge", "zelta-vsc")
        left = [path for path in self.system.new_paths()
                if "zelta" in path.lower() or "vornhalt" in path.lower()]
        self.assertEqual(left, ["/zelta.deb"])
        # With a drop-in that names a group which has gone, pcscd would not start.
        show = self.system.run("systemctl", "show", "--property", "SupplementaryGroups", "--value",
                               "pcscd.service").stdout
        self.assertEqual(show.strip(), "")


class DebianUpgrade(SystemdTest):
    def setUp(self):
        super().setUp()
        with tempfile.TemporaryDirectory() as folder:
            self.system.path("/earlier.deb").write_bytes(earlier_package(folder).read_bytes())
        self.dpkg("--install", "/earlier.deb")

    def upgrade(self):
        # The administrator's answer wherever both have changed a file.
        self.dpkg("--force-confold", "--install", "/zelta.deb")
        self.assertEqual(
            self.system.run("dpkg-query", "-W", "-f=${Version}", "zelta-vsc").stdout,
            field("Version"))

    def assert_files_are_the_new_ones(self):
        self.assertFalse(self.system.path("/" + OLD_FILE).exists())
        self.assertNotIn(OLD_LINE, self.system.path("/" + AGENT_UNIT).read_text())
        # dpkg compares them with the package's contents.
        changed = {line.split()[-1]
                   for line in self.system.run("dpkg", "--verify", "zelta-vsc", check=False)
                   .stdout.splitlines()}
        self.assertEqual(changed - set(CONFFILES), set())

    def assert_new_code_runs(self):
        self.wait_for_card()
        for service, file in ((AGENT, "/usr/bin/zelta-agent"),
                              ("pcscd.service", "/usr/lib/zelta/libzelta_vsc.so")):
            maps = self.process_file(service, "maps")
            self.assertIn(file, maps)
            self.assertNotIn(f"{file} (deleted)", maps)

    def test_it_runs_the_new_code_with_the_new_settings(self):
        self.wait_for_card()
        for name in CONFFILES:
            self.assertIn("Of the version before", self.system.path(name).read_text())
        self.upgrade()
        self.assert_files_are_the_new_ones()
        for name in CONFFILES:
            self.assertNotIn("Of the version before", self.system.path(name).read_text())
        self.assert_new_code_runs()

    def test_it_keeps_settings_that_somebody_has_edited(self):
        for name in CONFFILES:
            path = self.system.path(name)
            path.write_text(path.read_text().replace("Of the version before", "Edited"))
        self.wait_for_card()
        before = self.system.main_pid(AGENT)
        self.upgrade()
        self.assertNotEqual(self.system.main_pid(AGENT), before)
        for name in CONFFILES:
            self.assertIn("Edited", self.system.path(name).read_text(), name)
            self.assertNotIn("Edited", self.system.path(name + ".dpkg-dist").read_text(), name)
        self.assert_new_code_runs()

    def test_it_leaves_a_stopped_agent_stopped(self):
        self.system.run("systemctl", "stop", AGENT)
        self.upgrade()
        self.assertFalse(self.system.is_active(AGENT))

    def test_it_restarts_an_agent_that_runs_without_being_enabled(self):
        other = AGENT.replace("0", "1")
        self.system.run("systemctl", "start", other)
        before = self.system.main_pid(other)
        self.upgrade()
        self.assertNotIn(self.system.main_pid(other), (0, before))


if __name__ == "__main__":
    unittest.main(verbosity=2)
