"""The finished library and agent for Windows, and that the checks find faults."""

import os
import pathlib
import subprocess
import tempfile
import unittest

import image_checks
from pe_image import OBJCOPY, PeImage

MODULE = pathlib.Path(os.environ["ZELTA_MODULE"])
AGENT = pathlib.Path(os.environ["ZELTA_AGENT"])
SETUP = pathlib.Path(os.environ["ZELTA_SETUP"])
VERSION = os.environ["ZELTA_VERSION"]


class WindowsImages(unittest.TestCase):
    def test_library_is_as_the_driver_host_needs_it(self):
        self.assertEqual(image_checks.module_problems(PeImage(MODULE), VERSION), [])

    def test_library_exports_the_five_names(self):
        self.assertEqual(len(PeImage(MODULE).exports()), 5)

    def test_programs_need_windows_only_and_are_hardened(self):
        for path in (AGENT, SETUP):
            program = PeImage(path)
            self.assertEqual(image_checks.program_problems(program), [], path)
            self.assertIn("KERNEL32.dll", program.imported_libraries())

    def test_images_have_control_flow_guard_if_the_compiler_has_it(self):
        offered = os.environ["ZELTA_CONTROL_FLOW_GUARD"] == "1"
        for path in (MODULE, AGENT, SETUP):
            self.assertEqual("GUARD_CF" in PeImage(path).characteristics(), offered, path)

    def test_setup_has_its_version_and_asks_for_no_rights_by_itself(self):
        setup = PeImage(SETUP)
        self.assertEqual(image_checks.version_problems(setup, VERSION), [])
        self.assertTrue(setup.holds(b'<requestedExecutionLevel level="asInvoker"'))


class WindowsImageChecks(unittest.TestCase):
    """Each check fails for an image that has been spoilt in its respect."""

    def setUp(self):
        folder = self.enterContext(tempfile.TemporaryDirectory())
        self.copy = pathlib.Path(folder, MODULE.name)

    def spoilt(self, original, changed, image=MODULE):
        content = image.read_bytes()
        self.assertEqual(len(original), len(changed))
        self.assertIn(original, content)
        self.copy.write_bytes(content.replace(original, changed))
        return PeImage(self.copy)

    def test_import_of_a_run_time_is_found(self):
        for image in (MODULE, AGENT):
            spoilt = self.spoilt(b"KERNEL32.dll\0", b"runtime8.dll\0", image)
            self.assertEqual(image_checks.import_problems(spoilt), ["imports runtime8.dll"])

    def test_image_that_is_not_hardened_is_found(self):
        content = bytearray(MODULE.read_bytes())
        header = int.from_bytes(content[0x3C:0x40], "little")
        flags = header + 24 + 70  # in the optional header, after the file header
        self.assertEqual(content[flags] & 0x60, 0x60)
        content[flags] &= ~0x40 & 0xFF
        content[header + 22] |= 1
        self.copy.write_bytes(content)
        self.assertEqual(image_checks.hardening_problems(PeImage(self.copy)),
                         ["is without DYNAMIC_BASE", "cannot be moved"])
        subprocess.run([OBJCOPY, "--remove-section=.reloc", MODULE, self.copy], check=True)
        self.assertIn("cannot be moved", image_checks.hardening_problems(PeImage(self.copy)))

    def test_control_flow_guard_is_found(self):
        content = bytearray(MODULE.read_bytes())
        header = int.from_bytes(content[0x3C:0x40], "little")
        content[header + 24 + 71] ^= 0x40
        self.copy.write_bytes(content)
        changed = PeImage(MODULE).characteristics() ^ PeImage(self.copy).characteristics()
        self.assertEqual(changed, {"GUARD_CF"})

    def test_call_that_is_missing_is_found(self):
        problems = ["does not import DisableThreadLibraryCalls"]
        spoilt = self.spoilt(b"DisableThreadLibraryCalls\0", b"DisableThreadLibraryTales\0")
        self.assertEqual(image_checks.call_problems(spoilt), problems)
        # Importing it from another library does not count.
        spoilt = self.spoilt(b"KERNEL32.dll\0", b"KERNEL64.dll\0")
        self.assertEqual(image_checks.call_problems(spoilt), problems)

    def test_export_that_is_missing_or_too_many_is_found(self):
        spoilt = self.spoilt(b"DllCanUnloadNow\0", b"DllCanUnloadAll\0")
        self.assertEqual(image_checks.export_problems(spoilt),
                         ["does not export DllCanUnloadNow", "exports DllCanUnloadAll"])

    def test_other_framework_version_is_found(self):
        content = bytearray(MODULE.read_bytes())
        numbers = b"".join(n.to_bytes(4, "little") for n in image_checks.FRAMEWORK_VERSION)
        self.assertIn(numbers, content)
        self.copy.write_bytes(content.replace(numbers, b"\x02" + numbers[1:]))
        self.assertEqual(image_checks.framework_version_problems(PeImage(self.copy)),
                         ["asks for version (2, 11, 0) of the framework"])

    def test_missing_version_resource_is_found(self):
        subprocess.run([OBJCOPY, "--remove-section=.rsrc", MODULE, self.copy], check=True)
        self.assertEqual(image_checks.version_problems(PeImage(self.copy), VERSION),
                         ["has no version resource"])

    def test_other_version_is_found(self):
        problems = image_checks.version_problems(PeImage(MODULE), "9.8.7")
        self.assertEqual(len(problems), 4, problems)

    def test_other_texts_of_the_version_resource_are_found(self):
        spoilt = self.spoilt("Vornhalt\0".encode("utf-16-le"), "Vornholz\0".encode("utf-16-le"))
        self.assertEqual(image_checks.version_problems(spoilt, VERSION),
                         ["version resource: CompanyName is Vornholz, not Vornhalt"])

    def test_file_that_is_no_image_is_refused(self):
        self.copy.write_bytes(b"\x7fELF" + bytes(1000))
        with self.assertRaises(subprocess.CalledProcessError):
            PeImage(self.copy)


if __name__ == "__main__":
    unittest.main(verbosity=2)
