"""The Debian package: what is in it, and what installing and purging it does to a system."""

import os
import pathlib
import re
import tempfile
import unittest

import stack
from copied_system import CopiedSystem
from stack import PIN, run, wait_until

VERSION = os.environ["ZELTA_VERSION"]
READER = "Zelta Virtual SmartCard Reader 00 00"
ENTRY = "/etc/reader.conf.d/zelta"
CARD = "/var/lib/zelta/card"
LOGS = "/var/log/Vornhalt/ZeltaAgent/logs"
ACCOUNTS = ("/etc/passwd", "/etc/group", "/etc/shadow", "/etc/gshadow")
# What the package manager and its triggers keep for themselves.
OF_THE_SYSTEM = re.compile(r"/var/(lib/dpkg|cache|log/(dpkg|alternatives)\.log)(/|$)|/etc/[a-z]+-$")


def package():
    architecture = run("dpkg", "--print-architecture").stdout.strip()
    return pathlib.Path(os.environ["ZELTA_PACKAGE_FOLDER"],
                        f"zelta-vsc_{VERSION}_{architecture}.deb")


class DebianPackage(unittest.TestCase):
    def test_package_holds_what_is_used(self):
        listing = run("dpkg-deb", "--contents", package()).stdout
        files = {line.split(" ./", 1)[1] for line in listing.splitlines() if line[0] == "-"}
        documents = {f"usr/share/doc/zelta-vsc/docs/{path.name}"
                     for pattern in ("*.md", "*.svg")
                     for path in (stack.SOURCE / "docs").glob(pattern)}
        self.assertEqual(documents - files, set())
        self.assertEqual(files - documents, {
            "usr/bin/zelta-agent",
            "usr/bin/zelta-logs",
            "usr/lib/systemd/system/zelta-agent@.service",
            "usr/lib/zelta/libifdzelta.so",
            "usr/lib/zelta/libzelta_vsc.so",
            "usr/share/doc/zelta-vsc/README.md",
            "usr/share/man/man1/zelta-agent.1.gz",
            "usr/share/man/man1/zelta-logs.1.gz",
            "usr/share/zelta/make-demo-db.sh",
            "usr/share/zelta/reader.conf",
        })

    def test_everyone_may_read_and_root_alone_write(self):
        for line in run("dpkg-deb", "--contents", package()).stdout.splitlines():
            self.assertRegex(line, r"^(drwxr-xr-x|-rwxr-xr-x|-rw-r--r--) root/root ")

    def test_control_fields_and_scripts(self):
        def field(name):
            return run("dpkg-deb", "--field", package(), name).stdout.strip()

        self.assertEqual(field("Package"), "zelta-vsc")
        self.assertEqual(field("Version"), VERSION)
        depends = {word.split()[0] for word in field("Depends").split(", ")}
        needed = {"pcscd", "passwd", "libc6", "libcacard0", "libnss3", "libpcsclite1"}
        self.assertEqual(needed - depends, set())
        folder = self.enterContext(tempfile.TemporaryDirectory())
        run("dpkg-deb", "--control", package(), folder)
        self.assertEqual(set(os.listdir(folder)),
                         {"control", "md5sums", "postinst", "prerm", "postrm"})
        for name in ("postinst", "prerm", "postrm"):
            self.assertEqual(pathlib.Path(folder, name).read_text(),
                             (stack.SOURCE / "packaging" / "debian" / name).read_text())


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
        # The copy is in memory: nothing is gained by waiting for a disk.
        return self.system.run("dpkg", "--force-unsafe-io", *words)

    def readers(self):
        return self.system.run("opensc-tool", "--list-readers", check=False).stdout

    def start(self, *command):
        self.processes.append(self.system.start(*command))
        return self.processes[-1].process

    def end_processes(self):
        while self.processes:
            self.processes.pop().end()

    def start_pcscd(self):
        self.system.path("/run/pcscd").mkdir(exist_ok=True)
        pcscd = self.start("pcscd", "--foreground", "--info")
        wait_until(lambda: self.system.path("/run/pcscd/pcscd.comm").exists(), "pcscd's socket")
        return pcscd

    def start_agent(self):
        """As the service's user, with the card where the agent looks for one."""
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

    def test_installing_again_leaves_settings_as_they_are(self):
        settings = {"/etc/zelta/registry.reg": "Windows Registry Editor Version 5.00\n",
                    "/etc/zelta/agent0.conf": "ZELTA_AGENT_OPTIONS=--no-card\n"}
        for name, text in settings.items():
            self.system.path(name).write_text(text)
        self.system.path(ENTRY).write_text("# of an earlier release\n")
        self.dpkg("--install", "/tmp/zelta.deb")
        for name, text in settings.items():
            self.assertEqual(self.system.path(name).read_text(), text)
        self.assertIn(READER[:-6], self.system.path(ENTRY).read_text())

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
        wants = self.system.path("/etc/systemd/system/multi-user.target.wants")
        wants.mkdir(parents=True, exist_ok=True)
        (wants / "zelta-agent@0.service").symlink_to("/lib/systemd/system/zelta-agent@.service")
        self.system.path("/etc/zelta/registry.reg").write_text("")
        self.dpkg("--purge", "zelta-vsc")
        left = [path for path in self.system.new_paths() if not OF_THE_SYSTEM.search(path)]
        self.assertEqual(left, [])
        for name, content in self.accounts.items():
            self.assertEqual(self.system.path(name).read_bytes(), content, name)


if __name__ == "__main__":
    unittest.main(verbosity=2)
