"""A Windows program or library as the loading system sees it, read with objdump."""

import os
import pathlib
import re
import struct
import subprocess
import tempfile

OBJDUMP = os.environ["ZELTA_OBJDUMP"]
OBJCOPY = os.environ["ZELTA_OBJCOPY"]

_VERSION_RESOURCE = "VS_VERSION_INFO".encode("utf-16-le")
_FIXED_INFO_SIGNATURE = struct.pack("<I", 0xFEEF04BD)


class PeImage:
    """Raises subprocess.CalledProcessError for a file that is no image for 64-bit Windows."""

    def __init__(self, path):
        self.path = pathlib.Path(path)
        self._headers = self._dump("--private-headers")

    def _dump(self, *options):
        return subprocess.run(
            [OBJDUMP, "--target=pei-x86-64", *options, str(self.path)],
            check=True, capture_output=True, text=True,
        ).stdout

    def characteristics(self):
        """The names of the optional header's flags that are set."""
        flags = re.search(r"^DllCharacteristics\s.*\n((?:\t+ *\w+\n)*)", self._headers, re.M)
        return set(flags.group(1).split())

    def is_fixed(self):
        """Whether it can only be loaded at the address that it was linked for."""
        words = re.search(r"^Characteristics 0x([0-9a-f]+)$", self._headers, re.M)
        relocations_stripped = 0x0001
        has_table = re.search(r"^Entry 5 \S+ (?!0+ )[0-9a-f]+ Base Relocation", self._headers,
                              re.M)
        return int(words.group(1), 16) & relocations_stripped != 0 or not has_table

    def debug_link(self):
        """Name and checksum of the file with its debug information; None: it names none."""
        with tempfile.TemporaryDirectory() as folder:
            content = pathlib.Path(folder, "link")
            subprocess.run([OBJCOPY, f"--dump-section=.gnu_debuglink={content}", str(self.path),
                            f"{folder}/image"], check=False, capture_output=True)
            if not content.exists():
                return None
            name, _, rest = content.read_bytes().partition(b"\0")
            return name.decode(), struct.unpack("<I", rest[-4:])[0]

    def imported_libraries(self):
        return set(re.findall(r"^\s*DLL Name: (\S+)$", self._headers, re.M))

    def imported_functions(self, library):
        """The names that are imported from the library of that name."""
        # "DLL Name: <library>", a heading, a line for each name that ends in it, and an empty line.
        lists = re.findall(rf"^\s*DLL Name: {re.escape(library)}\n(.*(?:\n.+)*)", self._headers,
                           re.M)
        return {line.split()[-1] for names in lists for line in names.splitlines()[1:]}

    def exports(self):
        """The exported names and their addresses relative to the image's base."""
        # "[ordinal] +base[ n] <address> Export RVA", then "[ordinal] <name>"; the second part's
        # first line has a different form from one release to the next, so only its end counts.
        addresses = {
            int(ordinal): int(address, 16)
            for ordinal, address in re.findall(
                r"^\s*\[\s*(\d+)\] \+base\[\s*\d+\]\s+([0-9a-f]+) Export RVA", self._headers, re.M)
        }
        names = re.search(r"^\[Ordinal/Name Pointer\] Table.*\n((?:\s*\[.*\n)*)", self._headers,
                          re.M)
        found = {}
        for line in names.group(1).splitlines() if names else ():
            ordinal = int(re.match(r"\s*\[\s*(\d+)\]", line).group(1))
            found[line.split()[-1]] = addresses[ordinal]
        return found

    def base(self):
        return int(re.search(r"^ImageBase\s+([0-9a-f]+)$", self._headers, re.M).group(1), 16)

    def exported_numbers(self, name, count):
        """The first `count` 32-bit numbers of exported data."""
        begin = self.base() + self.exports()[name]
        dump = self._dump("--full-contents", f"--start-address={begin:#x}",
                          f"--stop-address={begin + 4 * count:#x}")
        words = re.findall(r"^ [0-9a-f]+ ((?:[0-9a-f]{1,8} ){1,4})", dump, re.M)
        content = bytes.fromhex("".join(words).replace(" ", ""))
        return struct.unpack(f"<{count}I", content)

    def holds(self, content):
        return content in self.path.read_bytes()

    def version_resource(self):
        """The version resource's texts and, as "file" and "product", its numbers; None: none."""
        resources = self._resource_section()
        at = resources.find(_VERSION_RESOURCE)
        if at < 0:
            return None
        fixed = resources.find(_FIXED_INFO_SIGNATURE, at)
        numbers = struct.unpack_from("<4I", resources, fixed + 8)
        values = {
            "file": _dotted(numbers[0], numbers[1]),
            "product": _dotted(numbers[2], numbers[3]),
        }
        values.update(_texts(resources[fixed:]))
        return values

    def _resource_section(self):
        with tempfile.TemporaryDirectory() as folder:
            content = pathlib.Path(folder, "resources")
            # Written to a separate file: without an output file objcopy would rewrite the image.
            subprocess.run(
                [OBJCOPY, f"--dump-section=.rsrc={content}", str(self.path), f"{folder}/image"],
                check=False, capture_output=True,
            )
            return content.read_bytes() if content.exists() else b""


def _dotted(high, low):
    return f"{high >> 16}.{high & 0xFFFF}.{low >> 16}.{low & 0xFFFF}"


def _texts(block):
    """The names and values of a StringFileInfo: each in UTF-16, with a zero at the end."""
    values = {}
    names = ("CompanyName", "FileDescription", "FileVersion", "InternalName", "OriginalFilename",
             "ProductName", "ProductVersion")
    for name in names:
        key = (name + "\0").encode("utf-16-le")
        at = block.find(key)
        if at < 0:
            continue
        rest = block[at + len(key):]
        text = rest[: len(rest) // 2 * 2].decode("utf-16-le", "replace").lstrip("\0")
        values[name] = text.split("\0", 1)[0]
    return values
