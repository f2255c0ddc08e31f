"""Checks a linked uvc_drv.sys, prints what is wrong and exits with 1 when anything is.

    check_driver.py DRIVER               the checks
    check_driver.py --self-test DRIVER   damages copies of a good driver; every check must notice, and no other may

The PDB is expected beside the driver, the allow lists in platform/windows/, the version in camera/banner.h.
"""

import pathlib
import re
import struct
import sys

from pe_image import EXECUTE, WRITE, PeImage

HERE = pathlib.Path(__file__).resolve().parent

# The only names of the C run-time that the kernel exports and that the driver may use. Any other import that does not
# begin with the capital of a kernel prefix is one by accident, whatever the allow lists say.
RUN_TIME = {"memcmp", "memcpy", "memmove", "memset", "_vsnprintf", "_vsnwprintf"}
SYSTEM_WITH_SMALL_NAMES = {"__C_specific_handler", "_KsEdit"}

HEADER = {
    "machine": 0x8664,
    "magic": 0x20B,
    "subsystem": 1,  # native
    "subsystem version major": 6,
    "subsystem version minor": 1,
    "OS version major": 6,
    "OS version minor": 1,
    "image version major": 6,
    "image version minor": 1,
}

# Header field: (flags that must be set, flags that must be clear).
FLAGS = {
    "file characteristics": (
        {"EXECUTABLE_IMAGE": 0x2, "LARGE_ADDRESS_AWARE": 0x20},
        {"RELOCS_STRIPPED": 0x1, "DLL": 0x2000},
    ),
    "DLL characteristics": (
        {"DYNAMIC_BASE": 0x40, "NX_COMPAT": 0x100, "WDM_DRIVER": 0x2000},
        {"NO_SEH": 0x400, "TERMINAL_SERVER_AWARE": 0x8000},
    ),
}

# Section names of static constructors, destructors and thread-local storage, as far as a section header holds them.
INITIALISER_SECTIONS = (".CRT", ".ctors", ".dtors", ".init_ar", ".fini_ar", ".tls")

# Of the bytes of code. A lost compiler flag or tables that the linker drops cost most of it; leaf functions have none.
LEAST_UNWIND_COVER = 0.9


def allow_lists():
    """Module name: names that may be imported from it."""
    lists = {}
    for path in sorted((HERE.parent / "platform" / "windows").glob("*.def")):
        lines = [line.split(";")[0].split() for line in path.read_text().splitlines()]
        words = [line for line in lines if line and line[0] != "EXPORTS"]
        module = next(line[1].strip('"') for line in words if line[0] == "LIBRARY")
        lists[module] = {line[0] for line in words if line[0] != "LIBRARY"}
    return lists


def check_header(image, _):
    for field, wanted in HEADER.items():
        if image[field] != wanted:
            yield f"{field} is {image[field]:#x}, not {wanted:#x}"
    for field, (wanted, unwanted) in FLAGS.items():
        yield from (f"{name} is clear" for name, bit in wanted.items() if not image[field] & bit)
        yield from (f"{name} is set" for name, bit in unwanted.items() if image[field] & bit)


def check_checksum(image, _):
    if image["checksum"] != image.computed_checksum():
        yield f"the header says {image['checksum']:#x}, the file sums to {image.computed_checksum():#x}"


def check_imports(image, _):
    allowed = allow_lists()
    for item in image.imports():
        if item.module not in allowed:
            yield f"{item.module} is not a module to import from"
        elif not item.name:
            yield f"an import from {item.module} by ordinal"
        elif item.name not in allowed[item.module]:
            yield f"{item.module}!{item.name} is not in the allow list"
    for directory in ("bound import", "delay import"):
        if any(image.directory(directory)):
            yield f"it has a {directory} table"


def check_run_time(image, _):
    for item in image.imports():
        if item.name and not item.name[0].isupper() and item.name not in RUN_TIME | SYSTEM_WITH_SMALL_NAMES:
            yield f"{item.module}!{item.name} belongs to the C run-time"


def check_initialisers(image, _):
    for section in image.sections():
        if section.name.startswith(INITIALISER_SECTIONS):
            yield f"section {section.name} holds what must run before DriverEntry, or per thread"
    if any(image.directory("TLS")):
        yield "it has thread-local storage"


def check_sections(image, _):
    for section in image.sections():
        if section.flags & WRITE and section.flags & EXECUTE:
            yield f"{section.name} is both writable and executable"


def check_exports(image, _):
    if any(image.directory("export")):
        yield "it exports something"


def check_relocations(image, _):
    rva, size = image.directory("relocation")
    section = image.section_of(rva)
    if not size or section is None or section.name != ".reloc":
        yield "the relocation directory is not in a .reloc section"


def check_unwind(image, _):
    rva, size = image.directory("exception")
    section = image.section_of(rva)
    if not size or section is None or section.name != ".pdata":
        yield "the exception directory is not in a .pdata section"
        return
    functions = image.runtime_functions()
    code = [s for s in image.sections() if s.flags & EXECUTE]
    last = 0
    for begin, end in functions:
        if not last <= begin < end or not any(s.rva <= begin and end <= s.rva + s.size for s in code):
            yield f"the entry for {begin:#x} is out of order or outside the code"
            return
        last = end
    cover = sum(end - begin for begin, end in functions) / max(1, sum(s.size for s in code))
    if cover < LEAST_UNWIND_COVER:
        yield f"unwind information covers only {cover:.0%} of the code"


def check_entry(image, _):
    section = image.section_of(image["entry"])
    if not image["entry"]:
        yield "there is no entry point"
    elif section is None or not section.flags & EXECUTE:
        yield "the entry point is not in executable memory"
    elif image.runtime_functions() and image["entry"] not in {begin for begin, _ in image.runtime_functions()}:
        yield "the entry point is not where a function begins"


def check_version(image, _):
    banner = (HERE.parent / "camera" / "banner.h").read_text()
    driver_version = re.search(r'kDriverVersion = ConstantString\(L"([\d.]+)"\)', banner)[1]
    if image.version() is None:
        yield "there is no version resource"
    elif set(image.version()) != {driver_version}:
        yield f"the resource says {' and '.join(image.version())}, camera/banner.h {driver_version}"


def check_pdb(image, path):
    pdb = image.pdb()
    if pdb is None:
        yield "it names no PDB"
    elif pdb[1] != "uvc_drv.pdb":
        yield f"it names the PDB {pdb[1]}"
    elif pdb[0] not in path.with_name("uvc_drv.pdb").read_bytes():
        yield "the PDB beside it is of another build"


CHECKS = {
    "header": check_header,
    "checksum": check_checksum,
    "imports": check_imports,
    "run-time": check_run_time,
    "initialisers": check_initialisers,
    "sections": check_sections,
    "exports": check_exports,
    "relocations": check_relocations,
    "unwind": check_unwind,
    "entry": check_entry,
    "version": check_version,
    "pdb": check_pdb,
}


def run_checks(image, path):
    """Check name: its complaints, for the checks that have any."""
    found = {name: list(check(image, path)) for name, check in CHECKS.items()}
    return {name: complaints for name, complaints in found.items() if complaints}


def damages(good):
    """(checks that must complain, what is done, the damage as a function of the image)."""

    def field(name, value):
        return lambda image: image.__setitem__(name, value)

    for name, value in HEADER.items():
        yield {"header"}, f"{name} {value + 1:#x}", field(name, value + 1)
    for name, groups in FLAGS.items():
        for flag, bit in (groups[0] | groups[1]).items():
            yield {"header"}, f"{flag} turned over", field(name, good[name] ^ bit)

    yield {"checksum"}, "checksum 0", field("checksum", 0)
    yield {"checksum"}, "one bit of the last byte", lambda image: flip(image, len(image.data) - 1)

    first = next(item for item in good.imports() if item.name[0].isupper() and len(item.name) >= 6)
    yield {"imports"}, "an import outside the list", lambda image: write(image, first.name_at, b"Unlist\0")
    yield {"imports"}, "another module", lambda image: write(image, first.module_at, b"a")
    yield {"imports"}, "an import by ordinal", \
        lambda image: write(image, first.thunk_at, struct.pack("<Q", 1 << 63 | 5))
    yield {"imports"}, "a delay import table", lambda image: image.set_directory("delay import", first.name_at, 32)
    yield {"imports"}, "a bound import table", lambda image: image.set_directory("bound import", first.name_at, 32)
    for name in (b"strlen\0", b"malloc\0", b"_purec\0"):
        yield {"imports", "run-time"}, f"an import of {name[:-1].decode()}", \
            lambda image, name=name: write(image, first.name_at, name)

    sections = {section.name: section for section in good.sections()}
    resources = sections[".rsrc"]
    for name in INITIALISER_SECTIONS:
        yield {"initialisers"}, f"a section {name}", \
            lambda image, name=name: write(image, resources.header, name.encode().ljust(8, b"\0"))
    yield {"initialisers"}, "a TLS directory", lambda image: image.set_directory("TLS", resources.rva, 40)
    yield {"sections"}, "code that is writable", lambda image: set_flags(image, sections[".text"], WRITE)
    yield {"exports"}, "an export directory", lambda image: image.set_directory("export", resources.rva, 40)

    yield {"relocations"}, "no relocation directory", lambda image: image.set_directory("relocation", 0, 0)
    yield {"relocations"}, "no .reloc section", lambda image: write(image, sections[".reloc"].header, b".other\0")
    pdata, size = good.directory("exception")
    yield {"unwind"}, "no exception directory", lambda image: image.set_directory("exception", 0, 0)
    yield {"unwind"}, "no .pdata section", lambda image: write(image, sections[".pdata"].header, b".other\0")
    yield {"unwind"}, "an unwind entry outside the code", \
        lambda image: write(image, good.offset_of(pdata + size - 12),
                            struct.pack("<II", resources.rva, resources.rva + 9))
    yield {"unwind"}, "unwind information for the entry point only", keep_unwind_of_entry

    yield {"entry"}, "no entry point", field("entry", 0)
    yield {"entry"}, "an entry point among the data", field("entry", sections[".data"].rva)
    yield {"entry"}, "an entry point inside a function", field("entry", good["entry"] + 1)

    version = good.version_at()
    yield {"version"}, "no version resource", lambda image: flip(image, version)
    yield {"version"}, "another file version", lambda image: flip(image, version + 8)
    yield {"version"}, "another product version", lambda image: flip(image, version + 16)
    codeview = good.codeview_at()
    yield {"pdb"}, "no CodeView record", lambda image: flip(image, codeview)
    yield {"pdb"}, "a PDB of another build", lambda image: flip(image, codeview + 4)
    yield {"pdb"}, "a PDB of another name", lambda image: flip(image, codeview + 24)


def write(image, offset, data):
    image.data[offset:offset + len(data)] = data


def flip(image, offset):
    image.data[offset] ^= 1


def set_flags(image, section, flags):
    write(image, section.header + 36, struct.pack("<I", section.flags | flags))


def keep_unwind_of_entry(image):
    rva, _ = image.directory("exception")
    table = image.offset_of(rva)
    index = [begin for begin, _ in image.runtime_functions()].index(image["entry"])
    write(image, table, image.data[table + 12 * index:table + 12 * index + 12])
    image.set_directory("exception", rva, 12)


def self_test(data, path):
    failures = count = 0
    proved = set()
    for expected, what, damage in damages(PeImage(data)):
        image = PeImage(data)
        damage(image)
        # Only the checksum's own damages may show as a wrong checksum.
        if expected != {"checksum"}:
            image["checksum"] = image.computed_checksum()
        found = set(run_checks(image, path))
        count += 1
        proved |= expected
        if image.data == data or found != expected:
            failures += 1
            print(f"self-test: {what}: {sorted(found)} complain, not {sorted(expected)}")
    for name in CHECKS.keys() - proved:
        failures += 1
        print(f"self-test: nothing damages what '{name}' checks")
    print(f"self-test: {count} damages, {failures} failures")
    return failures == 0


def main():
    arguments = sys.argv[1:]
    testing = arguments[:1] == ["--self-test"]
    if len(arguments) != 1 + testing:
        print(__doc__, file=sys.stderr)
        return 2
    path = pathlib.Path(arguments[-1])
    data = path.read_bytes()
    image = PeImage(data)
    found = run_checks(image, path)
    for name, complaints in found.items():
        print("\n".join(f"{path.name}: {name}: {complaint}" for complaint in complaints))
    if not found:
        print(f"{path.name}: {len(CHECKS)} checks passed, {len(list(image.imports()))} imports, "
              f"{len(image.runtime_functions())} functions with unwind information")
    return 0 if not found and (not testing or self_test(data, path)) else 1


if __name__ == "__main__":
    sys.exit(main())
