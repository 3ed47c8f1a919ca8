"""zelta-setup.exe under Wine, whose device manager shows what Windows would be asked for."""

import os
import pathlib
import tempfile
import unittest

import wine_machine as machine

VERSION = os.environ["ZELTA_VERSION"]
STAND_IN = pathlib.Path(os.environ["ZELTA_AGENT_STAND_IN"])
AGENT_SERVICE = "ZeltaAgent7"  # the name that the agent's stand-in uses

DONE, FAILED, USAGE = 0, 1, 2


def setUpModule():
    unittest.addModuleCleanup(machine.stop)
    machine.start()


class SetupProgram(unittest.TestCase):
    def setUp(self):
        self.package = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        machine.make_package(self.package, STAND_IN)
        self.addCleanup(machine.clean)
        self.addCleanup(self.run_setup, "remove", "--purge")

    def run_setup(self, *arguments):
        return machine.wine(str(self.package / "zelta-setup.exe"), *arguments)

    def assert_ends(self, code, *arguments):
        result = self.run_setup(*arguments)
        self.assertEqual(result.returncode, code, result.stdout)
        return result.stdout

    def assert_nothing_is_there(self):
        self.assertEqual(machine.subkeys(machine.DEVICES), [])
        self.assertFalse(machine.STORED_INF.exists())
        self.assertFalse(machine.LOGS.parent.parent.exists())
        for key, _ in (machine.ROTATION, machine.LEVEL, machine.POLICY):
            self.assertIsNone(machine.values(key))
        self.assertNotIn(AGENT_SERVICE, machine.subkeys(machine.SERVICES))
        output = self.assert_ends(FAILED, "status")
        self.assertRegex(output, r"log folder: +none\nsettings: +no HKLM.*\n"
                                 r"driver package: none\ndevice: +none\nagent service: +none\n")

    def test_install_makes_the_device_with_its_driver(self):
        output = self.assert_ends(DONE, "install")
        self.assertIn("device:         installed: ROOT\\SMARTCARDREADER\\0000\n", output)
        self.assertEqual(machine.subkeys(machine.DEVICES), ["0000"])
        device = machine.values(machine.DEVICES + r"\0000")
        self.assertEqual(device["HardwareID"][1].split(r"\0")[0],
                         r"Root\Vornhalt\ZeltaSmartCardReader")
        self.assertEqual(device["ClassGUID"][1].upper(), "{50DD5230-BA8A-11D1-BF5D-0000F805F530}")
        self.assertEqual(device["Class"][1], "SmartCardReader")
        self.assertEqual(device["Service"][1], "WUDFRd")
        self.assertEqual(machine.INSTALLED_MODULE.read_bytes(), machine.MODULE.read_bytes())
        self.assertEqual(machine.STORED_INF.read_bytes(),
                         (self.package / machine.INF.name).read_bytes())

    def test_install_makes_the_reflectors_service(self):
        self.assert_ends(DONE, "install")
        service = machine.values(machine.SERVICES + r"\WUDFRd")
        self.assertEqual(service["Type"], ("REG_DWORD", "0x1"))
        self.assertEqual(service["Start"], ("REG_DWORD", "0x3"))
        self.assertTrue(service["ImagePath"][1].lower().endswith(r"\drivers\wudfrd.sys"))

    def test_install_makes_log_folder_and_settings(self):
        self.assert_ends(DONE, "install")
        self.assertTrue(machine.LOGS.is_dir())
        self.assertEqual(machine.value(machine.ROTATION), ("REG_SZ", "60"))
        self.assertEqual(machine.value(machine.LEVEL), ("REG_DWORD", "0x2"))
        self.assertIsNone(machine.value(machine.POLICY))

    def test_status_tells_what_is_there(self):
        self.assert_nothing_is_there()
        self.assert_ends(DONE, "install")
        self.assertRegex(
            self.assert_ends(DONE, "status"),
            r"log folder: +C:\\ProgramData\\Vornhalt\\ZeltaAgent\\logs\nsettings: +all there\n"
            rf"driver package: zelta_vsc.inf, \d\d/\d\d/\d{{4}},{VERSION}.0\n"
            r"device: +ROOT\\SMARTCARDREADER\\0000, not started\nagent service: +none\n")

    def test_second_install_makes_no_second_device(self):
        self.assert_ends(DONE, "install")
        machine.INSTALLED_MODULE.unlink()
        output = self.assert_ends(DONE, "install")
        self.assertEqual(output.count("there already"), 4, output)
        self.assertEqual(machine.subkeys(machine.DEVICES), ["0000"])
        self.assertTrue(machine.INSTALLED_MODULE.exists())

    def test_install_keeps_settings_that_are_there(self):
        machine.set_value(machine.ROTATION, "REG_SZ", "5")
        machine.set_value(machine.LEVEL, "REG_DWORD", "3")
        self.assert_ends(DONE, "install")
        self.assertEqual(machine.value(machine.ROTATION), ("REG_SZ", "5"))
        self.assertEqual(machine.value(machine.LEVEL), ("REG_DWORD", "0x3"))

    def test_remove_keeps_logs_and_settings(self):
        self.assert_ends(DONE, "install")
        (machine.LOGS / "zelta_vsc_1.txt").write_text("line\n")
        self.assert_ends(DONE, "remove")
        self.assertEqual(machine.subkeys(machine.DEVICES), [])
        self.assertFalse(machine.STORED_INF.exists())
        self.assertTrue((machine.LOGS / "zelta_vsc_1.txt").exists())
        self.assertEqual(machine.value(machine.ROTATION), ("REG_SZ", "60"))

    def test_purge_removes_logs_and_settings(self):
        self.assert_ends(DONE, "install")
        (machine.LOGS / "zelta_vsc_1.txt").write_text("line\n")
        machine.set_value(machine.POLICY, "REG_DWORD", "3")
        self.assert_ends(DONE, "remove", "--purge")
        self.assert_nothing_is_there()

    def test_purge_keeps_what_others_have_beside(self):
        self.assert_ends(DONE, "install")
        other = (r"HKLM\SOFTWARE\Vornhalt\Other", "Value")
        machine.set_value(other, "REG_SZ", "kept")
        self.addCleanup(machine.wine, "reg", "delete", r"HKLM\SOFTWARE\Vornhalt", "/f")
        self.assert_ends(DONE, "remove", "--purge")
        self.assertEqual(machine.value(other), ("REG_SZ", "kept"))
        self.assertIsNone(machine.values(machine.ROTATION[0]))

    def test_remove_of_nothing_is_done(self):
        output = self.assert_ends(DONE, "remove", "--purge")
        self.assertEqual(output.count("not there"), 5, output)

    def test_package_that_cannot_be_added_leaves_nothing(self):
        (self.package / "zelta_vsc.cat").unlink()
        output = self.assert_ends(FAILED, "install")
        self.assertRegex(output, r"driver package: failed: cannot add .*zelta_vsc.inf: .*\(2\)\n"
                                 r"settings: +undone\nlog folder: +undone\n$")
        self.assert_nothing_is_there()

    def test_agent_becomes_a_running_service(self):
        self.assert_ends(DONE, "install", "--agent-service", "--", "--backend", "two words\\")
        service = machine.values(f"{machine.SERVICES}\\{AGENT_SERVICE}")
        self.assertTrue(
            service["ImagePath"][1].endswith("service run --backend two words\\"), service)
        state = machine.wine("sc", "query", AGENT_SERVICE).stdout
        self.assertIn("RUNNING", state)
        self.assertIn(f"agent service:  {AGENT_SERVICE}\n", self.assert_ends(DONE, "status"))
        self.assert_ends(DONE, "remove")
        self.assertNotIn(AGENT_SERVICE, machine.subkeys(machine.SERVICES))

    def test_agent_service_that_cannot_be_made_undoes_everything(self):
        output = self.assert_ends(FAILED, "install", "--agent-service", "--", "fail")
        self.assertIn("service install \"fail\" ended with 7\ndevice:         undone", output)
        self.assert_nothing_is_there()

    def test_agent_service_that_does_not_start_undoes_everything(self):
        output = self.assert_ends(FAILED, "install", "--agent-service", "--", "mute")
        self.assertIn(f"failed: cannot start the service {AGENT_SERVICE}", output)
        self.assert_nothing_is_there()

    def test_wrong_usage_changes_nothing(self):
        for arguments in ((), ("install", "word"), ("instal",), ("remove", "--all"),
                          ("install", "remove")):
            with self.subTest(arguments=arguments):
                self.assert_ends(USAGE, *arguments)
        self.assert_nothing_is_there()

    def test_help_names_commands_and_exit_codes(self):
        text = self.assert_ends(DONE, "--help")
        for part in ("install", "remove", "status", "Exit codes: 0 done; 1 failed"):
            self.assertIn(part, text)
        self.assertEqual([line for line in text.splitlines() if len(line) > 80], [])
        self.assertNotIn("--console-of", text)  # for the program itself
        self.assertIn("--agent-service", self.assert_ends(DONE, "install", "--help"))
        self.assertIn("--purge", self.assert_ends(DONE, "remove", "--help"))

    def test_version_is_the_projects(self):
        self.assertEqual(self.assert_ends(DONE, "--version"), f"zelta-setup {VERSION}\n")


if __name__ == "__main__":
    unittest.main(verbosity=2)
