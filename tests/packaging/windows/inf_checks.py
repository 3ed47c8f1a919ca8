"""Requirements on the INF. Each check returns the problems that it finds."""

import dataclasses
import datetime
import re

SETUP_CLASS = "SmartCardReader"
FILES_FOLDER = "12,UMDF"  # drivers\UMDF
REFLECTOR = "WUDFRd"
DECORATION = "NTamd64.10.0"  # Windows 10 and later; without the number, 7 to 8.1 as well

# Key and value of HKEY_LOCAL_MACHINE, flags (no clobbering; text or number) and data.
SETTINGS = {
    r'HKLM,SOFTWARE\Vornhalt\ZeltaAgent,ZeltaLogRotationTime,0x00000002,"60"',
    r"HKLM,SOFTWARE\Policies\Vornhalt\Zelta\zelta_admin_defaults,zelta.event_filter_mode,"
    r"0x00010003,2",
}


@dataclasses.dataclass
class Facts:
    """Values from the rest of the project."""

    module: str  # the library's file name
    version: str  # the project's, of three numbers
    class_id: str  # the driver object's class, in braces
    interface_class: str  # the device interface's class, in braces
    hardware_id: str
    framework_version: str


def differs(inf, section, key, wanted):
    found = inf.value(section, key)
    if found is not None and found.lower() == wanted.lower():
        return []
    return [f"[{section}] {key} is {found}, not {wanted}"]


def form_problems(inf):
    problems = [f"[{name}] is there twice" for name in inf.repeated]
    problems += [f"line {number} is in no section" for number in inf.strays]
    if not inf.text.isascii():
        problems.append("has letters beyond ASCII")
    if re.search(r"(?<!\r)\n", inf.text):
        problems.append("has lines that do not end as Windows' do")
    if "@" in inf.text:
        problems.append("has a place that the build has not filled in")
    defined = {key.lower() for key, _ in inf.lines("Strings")}
    problems += [f"%{name}% is not in [Strings]" for name in sorted(inf.tokens() - defined)]
    problems += [f"%{name}% is used nowhere" for name in sorted(defined - inf.tokens())]
    return problems


def version_problems(inf, facts):
    problems = differs(inf, "Version", "Signature", "$Windows NT$")
    problems += differs(inf, "Version", "Class", SETUP_CLASS)
    problems += differs(inf, "Version", "ClassGuid", facts.interface_class)
    problems += differs(inf, "Version", "PnpLockdown", "1")
    problems += differs(inf, "Version", "CatalogFile", facts.module.replace(".dll", ".cat"))
    if not inf.value("Version", "Provider"):
        problems.append("[Version] names no provider")
    return problems + driver_version_problems(inf, facts)


def driver_version_problems(inf, facts):
    found = inf.value("Version", "DriverVer") or ""
    form = re.fullmatch(r"(\d\d/\d\d/\d{4}),(\d+\.\d+\.\d+\.\d+)", found)
    if not form:
        return [f"[Version] DriverVer has not the form mm/dd/yyyy,w.x.y.z: {found}"]
    problems = []
    try:
        date = datetime.datetime.strptime(form.group(1), "%m/%d/%Y").date()
        # A driver of tomorrow is not signed.
        if date > datetime.datetime.now(datetime.timezone.utc).date():
            problems.append(f"[Version] DriverVer is of the future: {form.group(1)}")
    except ValueError:
        problems.append(f"[Version] DriverVer is of no day: {form.group(1)}")
    if form.group(2) != facts.version + ".0":
        problems.append(f"[Version] DriverVer has version {form.group(2)}, not {facts.version}.0")
    return problems


def install_section(inf):
    """The section that the one device of the one manufacturer is installed by, and its id."""
    manufacturers = [value for _, value in inf.lines("Manufacturer")]
    if manufacturers != [f"Models,{DECORATION}"]:
        return None, None
    models = [value for _, value in inf.lines(f"Models.{DECORATION}")]
    if len(models) != 1 or not models[0] or models[0].count(",") != 1:
        return None, None
    section, hardware_id = models[0].split(",")
    return section.strip(), hardware_id.strip()


def model_problems(inf, facts):
    section, hardware_id = install_section(inf)
    if section is None:
        return [f"does not name one device of one manufacturer for {DECORATION}"]
    problems = []
    if not re.fullmatch(r"Root\\\w+\\\w+", hardware_id):
        problems.append(f"the hardware id has not the form Root\\company\\device: {hardware_id}")
    if hardware_id != facts.hardware_id:
        problems.append(f"the hardware id is {hardware_id}, not {facts.hardware_id}")
    for suffix in (".NT", ".NT.hw", ".NT.Services", ".NT.Wdf"):
        if (section + suffix).lower() not in inf.sections:
            problems.append(f"there is no [{section}{suffix}]")
    if inf.lines(section + ".NT.hw"):
        problems.append("the device has hardware entries; the reflector is no filter here")
    return problems


def file_problems(inf, facts):
    section, _ = install_section(inf)
    copied = inf.value(f"{section}.NT", "CopyFiles")
    if copied is None:
        return ["copies no files"]
    problems = differs(inf, "DestinationDirs", copied, FILES_FOLDER)
    files = [key for key, _ in inf.lines(copied)]
    if files != [f"{facts.module},,,0x00004000"]:
        problems.append(f"[{copied}] has {files}, not {facts.module} with renaming while in use")
    disk = inf.value("SourceDisksFiles", facts.module)
    if disk is None or not inf.values("SourceDisksNames", disk):
        problems.append(f"{facts.module} is on no disk")
    return problems


def setting_problems(inf):
    section, _ = install_section(inf)
    added = inf.value(f"{section}.NT", "AddReg")
    if added is None:
        return ["adds nothing to the registry"]
    found = {key for key, _ in inf.lines(added)}
    problems = [f"[{added}] has no {line}" for line in sorted(SETTINGS - found)]
    return problems + [f"[{added}] has {line}" for line in sorted(found - SETTINGS)]


def service_problems(inf):
    section, _ = install_section(inf)
    added = (inf.value(f"{section}.NT.Services", "AddService") or "").split(",")
    if len(added) != 3 or added[:2] != [REFLECTOR, "0x000001fa"]:
        return [f"the reflector is not the device's service: {added}"]
    service = added[2]
    problems = differs(inf, service, "ServiceBinary", rf"%12%\{REFLECTOR}.sys")
    problems += differs(inf, service, "ServiceType", "1")
    problems += differs(inf, service, "StartType", "3")
    return problems + differs(inf, service, "ErrorControl", "1")


def framework_problems(inf, facts):
    section, _ = install_section(inf)
    wdf = f"{section}.NT.Wdf"
    service = (inf.value(wdf, "UmdfService") or "").split(",")
    if len(service) != 2:
        return ["installs no user-mode driver"]
    name, details = service
    problems = differs(inf, wdf, "UmdfServiceOrder", name)
    if len(name) > 31:
        problems.append(f"the driver's name {name} is longer than 31 characters")
    problems += differs(inf, wdf, "UmdfKernelModeClientPolicy", "AllowKernelModeClients")
    problems += differs(inf, wdf, "UmdfHostProcessSharing", "ProcessSharingDisabled")
    if inf.values(wdf, "UmdfFileObjectPolicy"):
        problems.append("has a policy for file objects")
    problems += differs(inf, details, "UmdfLibraryVersion", facts.framework_version)
    problems += differs(inf, details, "ServiceBinary", rf"%12%\UMDF\{facts.module}")
    return problems + differs(inf, details, "DriverCLSID", facts.class_id)


def co_installer_problems(inf):
    """Co-installers are not needed from Windows 10 on, and a package with one is not signed."""
    if "coinstall" in inf.text.lower():
        return ["has a co-installer"]
    return []


def reference_problems(inf):
    """Sections that nothing leads to."""
    section, _ = install_section(inf)
    known = {"version", "manufacturer", f"models.{DECORATION}".lower(), "sourcedisksnames",
             "sourcedisksfiles", "destinationdirs", "strings"}
    known.update(f"{section}{suffix}".lower()
                 for suffix in (".NT", ".NT.hw", ".NT.Services", ".NT.Wdf"))
    copied = inf.value(f"{section}.NT", "CopyFiles") or ""
    settings = inf.value(f"{section}.NT", "AddReg") or ""
    added = (inf.value(f"{section}.NT.Services", "AddService") or "").split(",")[-1]
    details = (inf.value(f"{section}.NT.Wdf", "UmdfService") or "").split(",")[-1]
    known.update(name.lower() for name in (copied, settings, added, details))
    return [f"nothing leads to [{name}]" for name in sorted(set(inf.sections) - known)]


def inf_problems(inf, facts):
    problems = form_problems(inf) + version_problems(inf, facts) + model_problems(inf, facts)
    problems += file_problems(inf, facts) + setting_problems(inf)
    problems += service_problems(inf) + framework_problems(inf, facts)
    problems += co_installer_problems(inf)
    return problems + reference_problems(inf)
