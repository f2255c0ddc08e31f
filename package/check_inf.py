"""Checks an INF against what Windows asks of a driver package and against the driver's model table. Says what is wrong
and exits with 1.

    check_inf.py [--self-test] windows10|windows7 INF

    --self-test  also damages copies of a good INF; the right check must notice
"""

import pathlib
import re
import shutil
import sys
import tempfile
from collections.abc import Iterator

from camera_entry import GENERIC, product_ids
from inf_file import Inf

GUIDS = {"camera": "{ca3e7ab9-b4c3-4ae6-8251-579ef933890f}", "image": "{6bdd1fc6-810f-11d0-bec7-08002be2092f}"}
# Files run from the driver store (directory 13) from build 16299 on.
TARGETS = {"windows10": ("camera", "ntamd64.10.0...16299", "13"), "windows7": ("image", "ntamd64", "12")}
CATEGORIES = ["{65E8773D-8F56-11D0-A3B9-00A0C9223196}", "{6994AD05-93EF-11D0-A3CC-00A0C9223196}"]
PROXY = "{17CCA71B-ECD7-11D0-B908-00A0C9223196}"
DWORD = "0x00010001"

Complaints = Iterator[str]


class Package:
    """What the checks look at: the file, what it says, and what the system wants."""

    def __init__(self, path: pathlib.Path, system: str):
        self.path, self.inf = path, Inf(path)
        self.setup_class, self.decoration, self.directory = TARGETS[system]

    def install_sections(self) -> list[str]:
        """The sections that the models name, as x64 Windows takes them."""
        return [name + ".NT" for name in dict.fromkeys(section for _, section, _ in self.inf.models())]

    def registry(self, section: str) -> list[list[str]]:
        return [fields for name in self.inf.entry(section, "AddReg") for _, fields in self.inf.section(name)]


def check_text(package: Package) -> Complaints:
    data = package.path.read_bytes()
    if data.count(b"\n") != data.count(b"\r\n") or data.count(b"\r") != data.count(b"\r\n"):
        yield "a line that does not end as lines do on Windows"


def check_version(package: Package) -> Complaints:
    inf = package.inf
    wanted = {"Signature": ["$Windows NT$"], "Class": [package.setup_class], "ClassGUID": [GUIDS[package.setup_class]],
              "CatalogFile": ["uvc_drv.cat"], "PnpLockdown": ["1"]}
    for key, value in wanted.items():
        if [field.lower() for field in inf.entry("Version", key)] != [field.lower() for field in value]:
            yield f"{key} is {inf.entry('Version', key)}, not {value}"
    date, version = (inf.entry("Version", "DriverVer") + ["", ""])[:2]
    match = re.fullmatch(r"(0[1-9]|1[0-2])/(0[1-9]|[12]\d|3[01])/(\d{4})", date)
    if not match or (match[3], match[1], match[2]) < ("2009", "04", "21"):
        yield f"driver date '{date}': 64-bit Windows takes none before 04/21/2009"
    if not re.fullmatch(r"\d+(\.\d+){3}", version) or max(map(int, version.split("."))) > 65534:
        yield f"driver version '{version}': not four numbers below 65535"


def check_models(package: Package) -> Complaints:
    inf = package.inf
    for _, fields in inf.section("Manufacturer"):
        if [decoration.lower() for decoration in fields[1:]] != [package.decoration]:
            yield f"models for {fields[1:]}, not for {package.decoration}"
    table = {f"usb\\vid_f055&pid_{product.lower()}" for product in product_ids()}
    models = [int(product, 16) for product in [*product_ids(), GENERIC]]
    ids = [hardware_id.lower() for _, _, hardware_ids in inf.models() for hardware_id in hardware_ids]
    yield from (f"{i} twice" for i in sorted({i for i in ids if ids.count(i) > 1}))
    yield from (f"{i} of the model table is missing" for i in sorted(table - set(ids)))
    for name, section, hardware_ids in inf.models():
        if len(hardware_ids) != 1:
            yield f"{name}: not one hardware id"
            continue
        hardware_id = hardware_ids[0].lower()
        if hardware_id != "uvc_drv_generic_camera" and not re.fullmatch(r"usb\\vid_[0-9a-f]{4}&pid_[0-9a-f]{4}", hardware_id):
            yield f"{hardware_id} is not the id of a whole device"
        values = [fields for fields in package.registry(f"{section}.NT.HW") if fields[2] == "CameraModel"]
        if hardware_id in table:
            yield from (f"{hardware_id}: the table decides, not CameraModel" for _ in values)
        elif len(values) != 1 or values[0][3] != DWORD or int(values[0][4], 0) not in models:
            yield f"{hardware_id}: no CameraModel, or none that the driver knows"


def check_sections(package: Package) -> Complaints:
    inf = package.inf
    used = {"version", "sourcedisksnames", "sourcedisksfiles", "destinationdirs", "manufacturer"}
    used |= {f"{fields[0]}.{decoration}".lower() for _, fields in inf.section("Manufacturer") for decoration in fields[1:]}

    def refer(name: str, by: str) -> Complaints:
        used.add(name.lower())
        if not inf.section(name):
            yield f"[{by}] names [{name}], which is missing or empty"

    for name in package.install_sections():
        for part in ("", ".Services", ".Interfaces"):
            yield from refer(name + part, "Cameras")
        if not inf.entry(name, "Include") or not inf.entry(name, "Needs"):
            yield f"[{name}] does not register kernel streaming"
        if inf.section(name + ".HW"):
            used.add((name + ".HW").lower())
        for section, key in ((name, "CopyFiles"), (name + ".HW", "AddReg")):
            for named in inf.entry(section, key):
                yield from refer(named, section)
        services = [fields for _, fields in inf.section(name + ".Services")]
        if [fields[:2] for fields in services] != [["uvc_drv", "2"]]:
            yield f"[{name}.Services] does not tie the service to the device"
        for fields in services:
            yield from refer(fields[2], name + ".Services")
        interfaces = [fields for _, fields in inf.section(name + ".Interfaces")]
        if sorted(fields[0].upper() for fields in interfaces) != CATEGORIES:
            yield f"[{name}.Interfaces] has other categories than the filter"
        for fields in interfaces:
            if fields[1] != "GLOBAL":
                yield f"[{name}.Interfaces] names the factory {fields[1]}"
            yield from refer(fields[2], name + ".Interfaces")
            for registry in inf.entry(fields[2], "AddReg"):
                yield from refer(registry, fields[2])
            if ["HKR", "", "CLSID", "", PROXY] not in package.registry(fields[2]):
                yield f"[{fields[2]}] lacks the proxy"
    yield from (f"[{section}] is not used" for section in inf.sections if section not in used)


def check_names(package: Package) -> Complaints:
    descriptions = {section: name for name, section, _ in package.inf.models()}
    for section, description in descriptions.items():
        for _, fields in package.inf.section(f"{section}.NT.Interfaces"):
            shown = [values[4] for values in package.registry(fields[2]) if values[2] == "FriendlyName"]
            if shown != [description]:
                yield f"applications see {description} as {shown}"


def check_files(package: Package) -> Complaints:
    inf, directory = package.inf, package.directory
    if inf.entry("DestinationDirs", "DefaultDestDir") != [directory]:
        yield f"files do not go to directory {directory}"
    listed = set(inf.source_files())
    for name in package.install_sections():
        copied = {fields[0] for section in inf.entry(name, "CopyFiles") for _, fields in inf.section(section)}
        if copied != listed:
            yield f"[{name}] copies {sorted(copied)}, on the disk are {sorted(listed)}"
        for _, fields in inf.section(f"{name}.Services"):
            if inf.entry(fields[2], "ServiceBinary") not in [[f"%{directory}%\\{file}"] for file in listed]:
                yield f"[{fields[2]}] runs {inf.entry(fields[2], 'ServiceBinary')}, which is not where the file goes"
    yield from (f"{file} is not in the folder" for file in sorted(listed) if not package.path.with_name(file).exists())


def check_strings(package: Package) -> Complaints:
    inf = package.inf
    yield from (f"%{name}% is not in [Strings]" for name in sorted(inf.used - set(inf.strings)))
    yield from (f"string {name} is not used" for name in sorted(set(inf.strings) - inf.used))


CHECKS = {"text": check_text, "version": check_version, "models": check_models, "sections": check_sections,
          "names": check_names, "files": check_files, "strings": check_strings}


def run_checks(path: pathlib.Path, system: str) -> dict[str, list[str]]:
    """Check name: its complaints, for the checks that have any."""
    try:
        package = Package(path, system)
    except ValueError as error:
        return {"text": [str(error)]}
    found = {name: list(dict.fromkeys(check(package))) for name, check in CHECKS.items()}
    return {name: complaints for name, complaints in found.items() if complaints}


# (the check that must complain, pattern, replacement); each pattern is in a good INF.
DAMAGES = [
    ("text", rb"\r\n", b"\n"), ("text", rb"; Installs", b"; \xfcnstalls"), ("text", rb'DiskName = "', b"DiskName = "),
    ("version", rb"Class       = \w+", b"Class = Ports"), ("version", rb"ClassGUID   = \{\w", b"ClassGUID = {0"),
    ("version", rb"PnpLockdown = 1\r\n", b""), ("version", rb"CatalogFile", b"CatalogueFile"),
    ("version", rb"(DriverVer   = \d\d/\d\d/)\d{4}", rb"\g<1>2008"), ("version", rb"(DriverVer.*)\.\d+\r", rb"\1.65535\r"),
    ("models", rb"PID_8102", b"PID_8101"), ("models", rb"PID_8102", b"PID_8103"),
    ("models", rb"USB\\VID_F055&PID_8203", rb"USB\\Class_0E"), ("models", rb"= Cameras,NTamd64", b"= Cameras,NTx86"),
    ("models", rb"CameraModel,0x00010001,0x0000", b"CameraModel,0x00010001,0x8103"),
    ("models", rb"CameraModel,0x00010001,", b"CameraModel,,"),
    ("sections", rb"\[Camera.CopyFiles\]", b"[Camera.CopyFile]"), ("sections", rb",2,Camera.Service", b",0,Camera.Service"),
    ("sections", rb'%KSCATEGORY_VIDEO%,"GLOBAL"', b'%KSCATEGORY_VIDEO%,"Global"'),
    ("sections", rb"Needs     = .*\r\n", b""), ("sections", rb"6994AD05", b"6994AD06"),
    ("sections", rb"HKR,,CLSID", b"HKR,,CLASS"),
    ("names", rb"FriendlyName,,%[^%]+%", b"FriendlyName,,%Provider%"),
    ("files", rb"DefaultDestDir = 1\d", b"DefaultDestDir = 11"), ("files", rb"uvc_drv.sys = 1", b"uvc_drv2.sys = 1"),
    ("files", rb"ServiceBinary = %1\d%", rb"ServiceBinary = %11%"),
    ("strings", rb'\nKSPROXY_CLSID = ', b'\nUnused = '),
]


def self_test(path: pathlib.Path, system: str) -> bool:
    good, failures = path.read_bytes(), 0
    with tempfile.TemporaryDirectory() as folder:
        copy = pathlib.Path(folder) / path.name
        for name in Inf(path).source_files():
            shutil.copy(path.with_name(name), folder)
        for expected, pattern, replacement in DAMAGES:
            damaged = re.sub(pattern, replacement, good)
            copy.write_bytes(damaged)
            found = run_checks(copy, system)
            if damaged == good or expected not in found:
                failures += 1
                print(f"self-test: {pattern}: {sorted(found)} complain, not {expected}")
    print(f"self-test: {len(DAMAGES)} damages, {failures} failures")
    return failures == 0 and set(CHECKS) == {expected for expected, _, _ in DAMAGES}


def main() -> int:
    arguments = sys.argv[1:]
    testing = arguments[:1] == ["--self-test"]
    if len(arguments) != 2 + testing or arguments[-2] not in TARGETS:
        print(__doc__, file=sys.stderr)
        return 2
    system, path = arguments[-2], pathlib.Path(arguments[-1])
    found = run_checks(path, system)
    for name, complaints in found.items():
        print("\n".join(f"{path.name}: {name}: {complaint}" for complaint in complaints))
    if not found:
        print(f"{system}/{path.name}: {len(CHECKS)} checks passed")
    return 0 if not found and (not testing or self_test(path, system)) else 1


if __name__ == "__main__":
    sys.exit(main())
