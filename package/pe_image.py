"""A 64-bit PE image: its header fields by name, sections, imports, unwind table, version and checksum."""

import dataclasses
import struct

# Field name: (offset from the PE signature, struct format).
FIELDS = {
    "machine": (4, "H"),
    "file characteristics": (22, "H"),
    "magic": (24, "H"),
    "entry": (40, "I"),
    "OS version major": (64, "H"),
    "OS version minor": (66, "H"),
    "image version major": (68, "H"),
    "image version minor": (70, "H"),
    "subsystem version major": (72, "H"),
    "subsystem version minor": (74, "H"),
    "checksum": (88, "I"),
    "subsystem": (92, "H"),
    "DLL characteristics": (94, "H"),
}

DIRECTORIES = ["export", "import", "resource", "exception", "certificate", "relocation", "debug", "architecture",
               "global pointer", "TLS", "load config", "bound import", "import address", "delay import"]

EXECUTE = 0x20000000
WRITE = 0x80000000


@dataclasses.dataclass
class Section:
    name: str
    header: int  # file offset of the section header
    rva: int
    size: int  # in memory
    raw: int
    raw_size: int
    flags: int


@dataclasses.dataclass
class Import:
    module: str
    name: str  # empty when imported by ordinal
    module_at: int  # file offset of the module's name
    name_at: int
    thunk_at: int  # file offset of the lookup entry


class PeImage:
    def __init__(self, data):
        self.data = bytearray(data)
        if len(self.data) < 64 or self.data[:2] != b"MZ":
            raise ValueError("not a PE image")
        self.pe = self._read(60, "I")
        if self.data[self.pe:self.pe + 4] != b"PE\0\0":
            raise ValueError("not a PE image")

    def _read(self, offset, form):
        return struct.unpack_from("<" + form, self.data, offset)[0]

    def _text(self, offset):
        return self.data[offset:self.data.index(0, offset)].decode("ascii")

    def __getitem__(self, field):
        offset, form = FIELDS[field]
        return self._read(self.pe + offset, form)

    def __setitem__(self, field, value):
        offset, form = FIELDS[field]
        struct.pack_into("<" + form, self.data, self.pe + offset, value)

    def directory_at(self, name):
        return self.pe + 136 + 8 * DIRECTORIES.index(name)

    def directory(self, name):
        """(rva, size)"""
        return struct.unpack_from("<II", self.data, self.directory_at(name))

    def set_directory(self, name, rva, size):
        struct.pack_into("<II", self.data, self.directory_at(name), rva, size)

    def sections(self):
        first = self.pe + 24 + self._read(self.pe + 20, "H")
        for header in range(first, first + 40 * self._read(self.pe + 6, "H"), 40):
            size, rva, raw_size, raw = struct.unpack_from("<IIII", self.data, header + 8)
            name = self.data[header:header + 8].rstrip(b"\0").decode("ascii")
            yield Section(name, header, rva, size, raw, raw_size, self._read(header + 36, "I"))

    def section_of(self, rva):
        return next((s for s in self.sections() if s.rva <= rva < s.rva + s.size), None)

    def offset_of(self, rva):
        section = self.section_of(rva)
        if section is None or rva - section.rva >= section.raw_size:
            raise ValueError(f"address {rva:#x} is in no section")
        return rva - section.rva + section.raw

    def imports(self):
        rva, size = self.directory("import")
        if not size:
            return
        descriptor = self.offset_of(rva)
        while name_rva := self._read(descriptor + 12, "I"):
            module_at = self.offset_of(name_rva)
            thunk_at = self.offset_of(self._read(descriptor, "I"))
            while thunk := self._read(thunk_at, "Q"):
                name_at = 0 if thunk >> 63 else self.offset_of(thunk) + 2
                name = self._text(name_at) if name_at else ""
                yield Import(self._text(module_at), name, module_at, name_at, thunk_at)
                thunk_at += 8
            descriptor += 20

    def runtime_functions(self):
        """(begin, end) of every function with unwind information, in table order."""
        rva, size = self.directory("exception")
        offset = self.offset_of(rva) if size else 0
        return [struct.unpack_from("<II", self.data, offset + 12 * i) for i in range(size // 12)]

    def version_at(self):
        """File offset of VS_FIXEDFILEINFO, or -1."""
        rva, size = self.directory("resource")
        if not size:
            return -1
        start = self.offset_of(rva)
        return self.data.find(struct.pack("<II", 0xFEEF04BD, 0x10000), start, start + size)

    def version(self):
        """File and product version as text, or None."""
        at = self.version_at()
        if at < 0:
            return None
        words = struct.unpack_from("<8H", self.data, at + 8)
        return tuple(".".join(str(words[i + j]) for j in (1, 0, 3, 2)) for i in (0, 4))

    def codeview_at(self):
        """File offset of the CodeView record that names the PDB, or -1."""
        rva, size = self.directory("debug")
        for i in range(size // 28):
            entry = self.offset_of(rva) + 28 * i
            pointer = self._read(entry + 24, "I")
            if self._read(entry + 12, "I") == 2 and self.data[pointer:pointer + 4] == b"RSDS":
                return pointer
        return -1

    def pdb(self):
        """(GUID bytes, file name), or None."""
        at = self.codeview_at()
        return None if at < 0 else (bytes(self.data[at + 4:at + 20]), self._text(at + 24))

    def computed_checksum(self):
        """The sum of all 16-bit words with end-around carry, the checksum field taken as zero, plus the length."""
        data = bytearray(self.data)
        struct.pack_into("<I", data, self.pe + FIELDS["checksum"][0], 0)
        data += b"\0" * (len(data) % 2)
        total = sum(struct.unpack(f"<{len(data) // 2}H", data))
        while total >> 16:
            total = (total & 0xFFFF) + (total >> 16)
        return total + len(self.data)
