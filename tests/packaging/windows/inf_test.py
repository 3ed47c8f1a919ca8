"""The finished INF against the library and the sources, and that the checks find faults."""

import datetime
import os
import pathlib
import re
import subprocess
import tempfile
import unittest
import uuid

import inf_checks
from image_checks import FRAMEWORK_VERSION
from inf_file import InfFile
from pe_image import PeImage

INF = pathlib.Path(os.environ["ZELTA_INF"])
MODULE = pathlib.Path(os.environ["ZELTA_MODULE"])
SOURCE = pathlib.Path(os.environ["ZELTA_SOURCE"])
VERSION = os.environ["ZELTA_VERSION"]
HARDWARE_ID = r"Root\Vornhalt\ZeltaSmartCardReader"


def text_of_inf():
    return INF.read_bytes().decode()


def guid_in_code(name):
    """The number of that name in contract/class_ids.h."""
    text = (SOURCE / "contract" / "class_ids.h").read_text()
    definition = re.search(name + r" = \{(.*?)\};", text, re.S).group(1)
    parts = [int(part, 16) for part in re.findall(r"0x([0-9A-Fa-f]+)", definition)]
    assert len(parts) == 11, parts
    return uuid.UUID(fields=(*parts[:3], parts[3], parts[4],
                             int.from_bytes(bytes(parts[5:]), "big")))


def facts():
    return inf_checks.Facts(
        module=MODULE.name,
        version=VERSION,
        class_id="{" + str(guid_in_code("kDriverClassId")) + "}",
        interface_class="{" + str(guid_in_code("kSmartCardReaderInterface")) + "}",
        hardware_id=HARDWARE_ID,
        framework_version=".".join(str(number) for number in FRAMEWORK_VERSION),
    )


class Inf(unittest.TestCase):
    def test_inf_is_as_windows_and_the_library_need_it(self):
        self.assertEqual(inf_checks.inf_problems(InfFile(text_of_inf()), facts()), [])

    def test_library_has_the_class_id_in_it(self):
        class_id = InfFile(text_of_inf()).value("ZeltaVsc.Install", "DriverCLSID")
        image = PeImage(MODULE)
        self.assertTrue(image.holds(uuid.UUID(class_id).bytes_le))
        self.assertFalse(image.holds(uuid.UUID("{a44a2df4-dca4-4767-8ec4-86fe611c2ea8}").bytes_le))

    def test_framework_version_is_the_librarys(self):
        exported = PeImage(MODULE).exported_numbers("Microsoft_WDF_UMDF_Version", 3)
        inf = InfFile(text_of_inf())
        self.assertEqual(inf.value("ZeltaVsc.Install", "UmdfLibraryVersion"),
                         ".".join(str(number) for number in exported))

    def test_setup_writes_the_same_settings(self):
        text = (SOURCE / "tools" / "setup" / "settings.cpp").read_text()
        table = text.split("kSettings[] = {")[1].split("\n};")[0]
        rows = re.findall(r'\{L"([^"]+)",\s+L"([^"]+)",\s+REG_\w+,\s+(?:L"(\w+)"|nullptr),\s+(\d+)\}',
                          table)
        written = {(key.replace("\\\\", "\\"), name, data or number)
                   for key, name, data, number in rows}
        listed = {tuple(line.split(",")[i].strip('"') for i in (1, 2, 4))
                  for line in inf_checks.SETTINGS}
        self.assertEqual(written, listed)

    def test_documentation_installs_by_the_hardware_id(self):
        text = (SOURCE / "docs" / "windows.md").read_text()
        named = set(re.findall(r"Root\\\w+\\\w+", text))
        self.assertEqual(named, {HARDWARE_ID})


class InfDate(unittest.TestCase):
    def date(self, folder, epoch):
        environment = {name: value for name, value in os.environ.items()
                       if name != "SOURCE_DATE_EPOCH"}
        if epoch is not None:
            environment["SOURCE_DATE_EPOCH"] = str(epoch)
        script = SOURCE / "packaging" / "windows" / "InfDate.cmake"
        result = subprocess.run([os.environ["ZELTA_CMAKE"], f"-DSOURCE={folder}", "-P", script],
                                check=True, capture_output=True, text=True, env=environment)
        return result.stdout.strip().removeprefix("-- ")

    def today(self):
        return datetime.datetime.now(datetime.timezone.utc).strftime("%m/%d/%Y")

    def test_date_is_that_of_the_sources_and_no_later_than_now(self):
        folder = self.enterContext(tempfile.TemporaryDirectory())
        self.assertEqual(self.date(folder, 86400), "01/02/1970")
        for epoch in (None, "word", 99986400000):
            with self.subTest(epoch=epoch):
                before = self.today()
                self.assertIn(self.date(folder, epoch), (before, self.today()))

    def test_date_is_the_last_commits(self):
        folder = self.enterContext(tempfile.TemporaryDirectory())
        git = ["git", "-C", folder, "-c", "user.name=a", "-c", "user.email=a@b.example"]
        subprocess.run([*git, "init", "--quiet"], check=True)
        subprocess.run([*git, "commit", "--quiet", "--allow-empty", "-m", "first"], check=True,
                       env=dict(os.environ, GIT_COMMITTER_DATE="2020-02-03T23:00:00-0500"))
        self.assertEqual(self.date(folder, None), "02/04/2020")
        self.assertEqual(self.date(folder, 0), "01/01/1970")


TOMORROW = datetime.datetime.now(datetime.timezone.utc) + datetime.timedelta(days=1)

# The text to change, its replacement, and the problem that must be found.
SPOILT = [
    # form
    ("[Version]\r\n", "[Version]\r\n[version]\r\n", "[version] is there twice"),
    ("[Version]", "Stray=1\r\n[Version]", "is in no section"),
    ("Vornhalt\"", "V\u00f6rnhalt\"", "letters beyond ASCII"),
    ("PnpLockdown=1\r\n", "PnpLockdown=1\n", "do not end as Windows'"),
    ("DiskName=\"", "DiskName=\"@ZELTA@", "has not filled in"),
    ("WudfRdName=", "OtherName=", "%wudfrdname% is not in [Strings]"),
    ("DisplayName=%WudfRdName%", "DisplayName=%DeviceName%", "%wudfrdname% is used nowhere"),
    # version
    ("\"$Windows NT$\"", "\"$CHICAGO$\"", "[Version] Signature"),
    ("Class=SmartCardReader", "Class=Sample", "[Version] Class is Sample"),
    ("{50DD5230", "{50DD5231", "[Version] ClassGuid"),
    ("PnpLockdown=1", "PnpLockdown=0", "[Version] PnpLockdown"),
    ("zelta_vsc.cat", "other.cat", "[Version] CatalogFile"),
    ("Provider=%ProviderName%", "Provider=", "names no provider"),
    (f",{VERSION}.0", ",9.8.7.0", "DriverVer has version 9.8.7.0"),
    ("DriverVer=", "DriverVer=1/", "has not the form"),
    ("DriverVer=", "DriverVersion=", "has not the form"),
    # models
    ("Models,NTamd64", "Models,NTx86", "does not name one device"),
    ("NTamd64.10.0", "NTamd64", "does not name one device"),
    ("Root\\Vornhalt\\ZeltaSmartCardReader", "Root\\ZeltaSmartCardReader", "has not the form Root"),
    ("Root\\Vornhalt\\ZeltaSmartCardReader", "Root\\Vornhalt\\Other", "the hardware id is"),
    ("[ZeltaReader.NT.Services]", "[ZeltaReader.NT.Service]", "no [ZeltaReader.NT.Services]"),
    ("[ZeltaReader.NT.hw]", "[ZeltaReader.NT.hw]\r\nAddReg=Filter", "has hardware entries"),
    # files
    ("CopyFiles=", "CopyFile=", "copies no files"),
    ("=12,UMDF", "=12", "[DestinationDirs]"),
    (",,,0x00004000", "", "with renaming while in use"),
    ("zelta_vsc.dll=1", "zelta_vsc.dll=2", "is on no disk"),
    ("1=%DiskName%", "2=%DiskName%", "is on no disk"),
    # settings
    ("AddReg=", "AddRegistry=", "adds nothing to the registry"),
    ("0x00000002,", "0x00000000,", "has no HKLM,SOFTWARE\\Vornhalt"),
    (",2\r\n", ",3\r\n", "zelta.event_filter_mode,0x00010003,3"),
    # services
    ("0x000001fa", "0x000001f8", "not the device's service"),
    ("AddService=WUDFRd", "AddService=WinUsb", "not the device's service"),
    ("%12%\\WUDFRd.sys", "%12%\\WinUsb.sys", "[WudfRd.Service] ServiceBinary"),
    ("ServiceType=1", "ServiceType=2", "[WudfRd.Service] ServiceType"),
    ("StartType=3", "StartType=2", "[WudfRd.Service] StartType"),
    ("ErrorControl=1", "ErrorControl=0", "[WudfRd.Service] ErrorControl"),
    # framework
    ("UmdfService=", "UmdfServices=", "installs no user-mode driver"),
    ("UmdfServiceOrder=ZeltaVsc", "UmdfServiceOrder=Other", "UmdfServiceOrder"),
    ("ZeltaVsc", "ZeltaVirtualSmartCardReaderDriver", "longer than 31"),
    ("=AllowKernelModeClients", "=RejectKernelModeClients", "UmdfKernelModeClientPolicy"),
    ("UmdfKernelModeClientPolicy=", ";", "UmdfKernelModeClientPolicy is None"),
    ("=ProcessSharingDisabled", "=ProcessSharingEnabled", "UmdfHostProcessSharing"),
    ("UmdfServiceOrder=", "UmdfFileObjectPolicy=AllowNullFileObjects\r\nUmdfServiceOrder=",
     "policy for file objects"),
    ("=1.11.0", "=1.9.0", "UmdfLibraryVersion is 1.9.0"),
    ("\\UMDF\\zelta_vsc.dll", "\\UMDF\\other.dll", "[ZeltaVsc.Install] ServiceBinary"),
    ("{A44A2DF4", "{A44A2DF5", "DriverCLSID"),
    # the rest
    ("[Strings]", "[ZeltaReader.NT.CoInstallers]\r\n[Strings]", "has a co-installer"),
    ("[Strings]", "[Forgotten]\r\n[Strings]", "nothing leads to [forgotten]"),
]


class InfChecks(unittest.TestCase):
    """Each check fails for an INF that has been spoilt in its respect."""

    def problems(self, original, changed):
        text = text_of_inf()
        self.assertIn(original, text)
        return inf_checks.inf_problems(InfFile(text.replace(original, changed)), facts())

    def test_each_fault_is_found(self):
        for original, changed, wanted in SPOILT:
            with self.subTest(original=original, changed=changed):
                problems = self.problems(original, changed)
                self.assertTrue(any(wanted in problem for problem in problems), problems)

    def test_day_that_is_none_or_in_the_future_is_found(self):
        date = re.search(r"DriverVer=([0-9/]+)", text_of_inf()).group(1)
        self.assertEqual(self.problems(date, "13/32/2020"),
                         ["[Version] DriverVer is of no day: 13/32/2020"])
        self.assertEqual(self.problems(date, TOMORROW.strftime("%m/%d/%Y")),
                         [f"[Version] DriverVer is of the future: {TOMORROW:%m/%d/%Y}"])

    def test_empty_file_is_no_inf(self):
        self.assertGreater(len(inf_checks.inf_problems(InfFile(""), facts())), 10)

    def test_comments_do_not_count_and_quoted_semicolons_do(self):
        inf = InfFile("[A]\r\nkey=value ; said\r\n; key=other\r\ntext=\"a;b\"\r\n")
        self.assertEqual(inf.lines("a"), [("key", "value"), ("text", "\"a;b\"")])


if __name__ == "__main__":
    unittest.main(verbosity=2)
