"""Requirements on the Windows binaries. Each check returns the problems that it finds."""

EXPORTS = {
    "DllCanUnloadNow",
    "DllGetClassObject",
    "DllRegisterServer",
    "DllUnregisterServer",
    "Microsoft_WDF_UMDF_Version",
}

# Libraries that every Windows has. A compiler's run-time would have to be installed as well.
WINDOWS_LIBRARIES = {
    "ADVAPI32.dll",
    "CFGMGR32.dll",
    "KERNEL32.dll",
    "msvcrt.dll",
    "newdev.dll",
    "ole32.dll",
    "SETUPAPI.dll",
    "SHELL32.dll",
    "SHLWAPI.dll",
    "WS2_32.dll",
    "WinSCard.dll",
}

# Flags that let Windows keep an intruder from guessing addresses and from executing data.
HARDENING = {"DYNAMIC_BASE", "HIGH_ENTROPY_VA", "NX_COMPAT"}

# Functions of KERNEL32.dll that the library must import.
CALLS = {"DisableThreadLibraryCalls"}

FRAMEWORK_VERSION = (1, 11, 0)  # major, minor, service


def import_problems(image):
    return [f"imports {name}" for name in sorted(image.imported_libraries() - WINDOWS_LIBRARIES)]


def hardening_problems(image):
    problems = [f"is without {name}" for name in sorted(HARDENING - image.characteristics())]
    return problems + (["cannot be moved"] if image.is_fixed() else [])


def program_problems(image):
    """`image` is a finished program."""
    return import_problems(image) + hardening_problems(image)


def call_problems(image):
    missing = CALLS - image.imported_functions("KERNEL32.dll")
    return [f"does not import {name}" for name in sorted(missing)]


def export_problems(image):
    found = set(image.exports())
    problems = [f"does not export {name}" for name in sorted(EXPORTS - found)]
    return problems + [f"exports {name}" for name in sorted(found - EXPORTS)]


def framework_version_problems(image):
    found = image.exported_numbers("Microsoft_WDF_UMDF_Version", len(FRAMEWORK_VERSION))
    if found == FRAMEWORK_VERSION:
        return []
    return [f"asks for version {found} of the framework"]


def version_problems(image, version):
    """`version` is the project's, of three numbers."""
    resource = image.version_resource()
    if resource is None:
        return ["has no version resource"]
    wanted = {
        "file": version + ".0",
        "product": version + ".0",
        "FileVersion": version,
        "ProductVersion": version,
        "CompanyName": "Vornhalt",
        "OriginalFilename": image.path.name,
    }
    return [f"version resource: {name} is {resource.get(name)}, not {value}"
            for name, value in wanted.items() if resource.get(name) != value]


def module_problems(image, version):
    """`image` is the driver's finished library."""
    return (import_problems(image) + hardening_problems(image) + call_problems(image) +
            export_problems(image) + framework_version_problems(image) +
            version_problems(image, version))
