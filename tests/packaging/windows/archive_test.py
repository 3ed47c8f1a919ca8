"""The finished archive: its contents, and that they are the built files."""

import os
import pathlib
import re
import subprocess
import tempfile
import unittest
import zipfile
import zlib

import image_checks
from pe_image import PeImage

VERSION = os.environ["ZELTA_VERSION"]
NAME = f"zelta-vsc-{VERSION}-windows-x64"
ARCHIVE = pathlib.Path(os.environ["ZELTA_ARCHIVE_FOLDER"], NAME + ".zip")
SOURCE = pathlib.Path(os.environ["ZELTA_SOURCE"])
INF = pathlib.Path(os.environ["ZELTA_INF"])
BUILT = [pathlib.Path(os.environ[name]) for name in ("ZELTA_MODULE", "ZELTA_AGENT", "ZELTA_SETUP")]


def pictures():
    return [f"docs/{path.name}" for path in (SOURCE / "docs").iterdir()
            if path.suffix in (".svg", ".png")]


def documents():
    """Relative to the sources, and to the archive's folder as well."""
    return ["README.md", *(f"docs/{path.name}" for path in (SOURCE / "docs").glob("*.md"))]


def dead_links(folder, document):
    """The links of a page that lead to nothing in the folder."""
    text = (folder / document).read_text()
    targets = re.findall(r"\]\(([^)#:]+)(?:#[^)]*)?\)", text)
    return [target for target in targets
            if not ((folder / document).parent / target).resolve().is_file()]


class WindowsArchive(unittest.TestCase):
    def setUp(self):
        self.folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        with zipfile.ZipFile(ARCHIVE) as archive:
            self.assertIsNone(archive.testzip())
            archive.extractall(self.folder)
            self.names = [name for name in archive.namelist() if not name.endswith("/")]
        self.unpacked = self.folder / NAME

    def test_archive_holds_programs_symbols_and_documentation_in_one_folder(self):
        wanted = {path.name for path in BUILT} | {f"symbols/{path.name}.debug" for path in BUILT}
        wanted |= {INF.name, "card.txt", "LICENSE", *documents(), *pictures()}
        self.assertIn("docs/windows.md", wanted)
        self.assertEqual(set(self.names), {f"{NAME}/{name}" for name in wanted})

    def test_binaries_are_as_the_driver_host_needs_them(self):
        module, *programs = (PeImage(self.unpacked / path.name) for path in BUILT)
        self.assertEqual(image_checks.module_problems(module, VERSION), [])
        for program in programs:
            self.assertEqual(image_checks.program_problems(program), [], program.path)

    def test_binaries_are_without_debug_information(self):
        for path in BUILT:
            self.assertLess((self.unpacked / path.name).stat().st_size, path.stat().st_size)

    def test_binaries_name_their_symbols(self):
        for path in BUILT:
            symbols = self.unpacked / "symbols" / f"{path.name}.debug"
            self.assertEqual(PeImage(self.unpacked / path.name).debug_link(),
                             (symbols.name, zlib.crc32(symbols.read_bytes())))
            self.assertIsNone(PeImage(path).debug_link())

    def test_symbols_lead_to_the_sources(self):
        module = PeImage(self.unpacked / BUILT[0].name)
        address = module.base() + module.exports()["DllGetClassObject"]
        line = subprocess.run(
            [os.environ["ZELTA_ADDR2LINE"], "-e",
             self.unpacked / "symbols" / f"{BUILT[0].name}.debug", hex(address)],
            check=True, capture_output=True, text=True).stdout
        self.assertRegex(line, r"driver/module/module_exports\.cpp:\d+")

    def test_inf_and_documents_are_the_projects(self):
        self.assertEqual((self.unpacked / INF.name).read_bytes(), INF.read_bytes())
        self.assertEqual((self.unpacked / "card.txt").read_text(),
                         (SOURCE / "packaging" / "windows" / "card.txt").read_text())
        for name in ("LICENSE", *documents()):
            self.assertEqual((self.unpacked / name).read_bytes(), (SOURCE / name).read_bytes())

    def test_everything_the_inf_copies_is_there(self):
        text = INF.read_bytes().decode()
        section = text.split("[SourceDisksFiles]")[1].split("[")[0]
        files = re.findall(r"^(\S+)=1\r?$", section, re.M)
        self.assertEqual(files, ["zelta_vsc.dll"])
        for name in files:
            self.assertTrue((self.unpacked / name).is_file(), name)

    def test_links_in_the_documents_lead_somewhere(self):
        for name in documents():
            self.assertEqual(dead_links(self.unpacked, name), [], name)

    def test_dead_link_would_be_found(self):
        (self.unpacked / "docs" / "agent.md").unlink()
        self.assertIn("docs/agent.md", dead_links(self.unpacked, "README.md"))
        self.assertIn("agent.md", dead_links(self.unpacked, "docs/operation.md"))


if __name__ == "__main__":
    unittest.main(verbosity=2)
