"""A Wine prefix that stands for the tests' own machine, and its contents."""

import os
import pathlib
import re
import shutil
import subprocess
import tempfile

WINE = os.environ["ZELTA_WINE"]
_folder = tempfile.TemporaryDirectory(prefix="zelta-wine.")
_resident = None
PREFIX = pathlib.Path(_folder.name, "prefix")
os.environ["WINEPREFIX"] = str(PREFIX)
DRIVE = PREFIX / "drive_c"
MODULE = pathlib.Path(os.environ["ZELTA_MODULE"])
SETUP = pathlib.Path(os.environ["ZELTA_SETUP"])
INF = pathlib.Path(os.environ["ZELTA_INF"])

LOGS = DRIVE / "ProgramData" / "Vornhalt" / "ZeltaAgent" / "logs"
INSTALLED_MODULE = DRIVE / "windows" / "system32" / "drivers" / "UMDF" / MODULE.name
STORED_INF = DRIVE / "windows" / "inf" / INF.name
DEVICES = r"HKLM\SYSTEM\CurrentControlSet\Enum\ROOT\SMARTCARDREADER"
SERVICES = r"HKLM\SYSTEM\CurrentControlSet\Services"
ROTATION = (r"HKLM\SOFTWARE\Vornhalt\ZeltaAgent", "ZeltaLogRotationTime")
LEVEL = (r"HKLM\SOFTWARE\Policies\Vornhalt\Zelta\zelta_admin_defaults", "zelta.event_filter_mode")
POLICY = (r"HKLM\SOFTWARE\Policies\Vornhalt\Zelta\zelta_admin", "zelta.event_filter_mode")

LIMIT = 120


def wine(*command, **options):
    """Its output goes to a file: the services that Wine starts with it would hold a pipe open."""
    with tempfile.TemporaryFile("w+", newline="") as output:
        result = subprocess.run([WINE, *command], stdout=output, stderr=subprocess.STDOUT,
                                check=False, timeout=LIMIT, stdin=subprocess.DEVNULL, **options)
        output.seek(0)
        result.stdout = output.read().replace("\r", "")
    return result


def start():
    """Makes the machine. A program stays up until `stop`: when the last one ends, Wine ends the
    services, and a program that starts meanwhile gets a second list of them."""
    global _resident
    PREFIX.mkdir()
    _resident = subprocess.Popen([WINE, "cmd"], stdin=subprocess.PIPE, stdout=subprocess.DEVNULL,
                                 stderr=subprocess.DEVNULL)
    wine("cmd", "/c", "exit")  # returns when the machine has been made


def stop():
    _resident.stdin.close()
    _resident.wait(LIMIT)
    subprocess.run(["wineserver", "-k"], check=False, timeout=LIMIT)
    subprocess.run(["wineserver", "-w"], check=False, timeout=LIMIT)
    _folder.cleanup()


def values(key):
    """Of a key in the registry: {name: (type, text)}; None if it is not there."""
    result = wine("reg", "query", key)
    if result.returncode != 0:
        return None
    return {name: (kind, text) for name, kind, text in
            re.findall(r"^    (\S+) +(REG_\w+) +(.*)$", result.stdout, re.M)}


def value(place):
    key, name = place
    return (values(key) or {}).get(name)


def set_value(place, kind, data):
    key, name = place
    result = wine("reg", "add", key, "/v", name, "/t", kind, "/d", data, "/f")
    assert result.returncode == 0, result.stdout


def subkeys(key):
    """The names of the keys in it."""
    result = wine("reg", "query", key)
    lines = result.stdout.splitlines()
    return [line.rpartition("\\")[2] for line in lines
            if line.upper().startswith("HKEY_") and line.count("\\") > key.count("\\")]


def make_package(folder, agent):
    """What a user has unpacked, as Wine can install it."""
    for file in (MODULE, SETUP, INF):
        shutil.copy(file, folder)
    shutil.copy(agent, pathlib.Path(folder, "zelta-agent.exe"))
    make_installable(folder)


def make_installable(folder):
    """Wine wants a catalog and does not read it. It knows no sections for Windows 10 and later."""
    pathlib.Path(folder, "zelta_vsc.cat").write_bytes(b"catalog")
    inf = pathlib.Path(folder, INF.name)
    content = inf.read_bytes()
    assert content.count(b"NTamd64.10.0") == 2
    inf.write_bytes(content.replace(b"NTamd64.10.0", b"NTamd64"))


def clean():
    """What removing leaves: the library, which Windows keeps, and the reflector's service."""
    INSTALLED_MODULE.unlink(missing_ok=True)
    wine("sc", "delete", "WUDFRd")
