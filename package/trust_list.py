"""The unsigned security catalog of a driver package, as the driver kit makes it: a PKCS #7 envelope around a certificate
trust list with a member for each file.

Windows 8 and later look files up by SHA-256 (version 2 of the format). Windows 7 knows version 1 only, with SHA-1. An INF
cannot choose a catalog by the version of Windows.
"""

import dataclasses
import datetime
import hashlib
import struct
from collections.abc import Iterator

from asn1crypto import algos, core

SIGNED_DATA = "1.2.840.113549.1.7.2"
TRUST_LIST = "1.3.6.1.4.1.311.10.1"
CATALOG_LIST = "1.3.6.1.4.1.311.12.1.1"
MEMBER_V1 = "1.3.6.1.4.1.311.12.1.2"
MEMBER_V2 = "1.3.6.1.4.1.311.12.1.3"
NAME_VALUE = "1.3.6.1.4.1.311.12.2.1"
MEMBER_INFO = "1.3.6.1.4.1.311.12.2.2"
MEMBER_INFO2 = "1.3.6.1.4.1.311.12.2.3"
INDIRECT_DATA = "1.3.6.1.4.1.311.2.1.4"
PE_IMAGE = "1.3.6.1.4.1.311.2.1.15"
FLAT_FILE = "1.3.6.1.4.1.311.2.1.25"

# Of a name and value: authenticated, both as plain text.
PLAIN_TEXT = 0x10010001

# The subject interfaces that hash the two kinds of file.
PE_SUBJECT = "{C689AAB8-8E78-11D0-8C47-00C04FC295EE}"
FLAT_SUBJECT = "{DE351A42-8E59-11D0-8C47-00C04FC295EE}"


class NameValue(core.Sequence):
    _fields = [("name", core.BMPString), ("flags", core.Integer), ("value", core.OctetString)]


class MemberInfo(core.Sequence):
    _fields = [("subject", core.BMPString), ("version", core.Integer)]


class MemberInfo2(core.Choice):
    _alternatives = [("pe", core.Null, {"implicit": 0}), ("cabinet", core.Null, {"implicit": 1}),
                     ("flat", core.Null, {"implicit": 2})]


class Text(core.Choice):
    _alternatives = [("unicode", core.BMPString, {"implicit": 0})]


class Link(core.Choice):
    _alternatives = [("file", Text, {"explicit": 2})]


class PeImageData(core.Sequence):
    _fields = [("flags", core.BitString), ("file", Link, {"explicit": 0})]


class DataType(core.Sequence):
    _fields = [("type", core.ObjectIdentifier), ("value", core.Any)]
    _oid_pair = ("type", "value")
    _oid_specs = {PE_IMAGE: PeImageData, FLAT_FILE: Link}


class IndirectData(core.Sequence):
    _fields = [("data", DataType), ("digest", algos.DigestInfo)]


class AnySet(core.SetOf):
    _child_spec = core.Any


class Attribute(core.Sequence):
    _fields = [("type", core.ObjectIdentifier), ("values", AnySet)]


class Attributes(core.SetOf):
    _child_spec = Attribute


class Member(core.Sequence):
    _fields = [("identifier", core.OctetString), ("attributes", Attributes)]


class Members(core.SequenceOf):
    _child_spec = Member


class Extension(core.Sequence):
    _fields = [("type", core.ObjectIdentifier), ("value", core.ParsableOctetString)]


class Extensions(core.SequenceOf):
    _child_spec = Extension


class Usage(core.SequenceOf):
    _child_spec = core.ObjectIdentifier


class Algorithm(core.Sequence):
    _fields = [("algorithm", core.ObjectIdentifier), ("parameters", core.Null)]


class TrustList(core.Sequence):
    _fields = [("usage", Usage), ("list_id", core.OctetString), ("this_update", core.UTCTime),
               ("member_kind", Algorithm), ("members", Members), ("extensions", Extensions, {"explicit": 0})]


class Content(core.Sequence):
    _fields = [("type", core.ObjectIdentifier), ("content", TrustList, {"explicit": 0})]


class SignedData(core.Sequence):
    _fields = [("version", core.Integer), ("digest_algorithms", AnySet), ("content", Content), ("signers", AnySet)]


class Envelope(core.Sequence):
    _fields = [("type", core.ObjectIdentifier), ("content", SignedData, {"explicit": 0})]


def pe_hash_input(data: bytes) -> bytes:
    """What the Authenticode hash of a 64-bit image covers: all but its checksum, the directory entry of its certificates
    and the certificates. Signing therefore leaves the hash as it is."""
    pe = struct.unpack_from("<I", data, 60)[0]
    checksum, directory = pe + 88, pe + 136 + 8 * 4
    at, size = struct.unpack_from("<II", data, directory)
    if at and at + size != len(data):
        raise ValueError("the certificates are not at the end of the image")
    return data[:checksum] + data[checksum + 4:directory] + data[directory + 8:at or len(data)]


@dataclasses.dataclass(frozen=True)
class CatalogFile:
    name: str
    is_pe: bool
    hashed: bytes

    @classmethod
    def of(cls, name: str, data: bytes) -> "CatalogFile":
        is_pe = data[:2] == b"MZ"
        return cls(name.lower(), is_pe, pe_hash_input(data) if is_pe else data)

    def digest(self, algorithm: str) -> bytes:
        return hashlib.new(algorithm, self.hashed).digest()


def attribute(kind: str, value: core.Asn1Value) -> Attribute:
    return Attribute({"type": kind, "values": [core.Any(value)]})


def name_value(name: str, text: str) -> NameValue:
    return NameValue({"name": name, "flags": PLAIN_TEXT, "value": (text + "\0").encode("utf-16-le")})


def indirect_data(file: CatalogFile, algorithm: str) -> Attribute:
    nameless = Link("file", Text("unicode", core.BMPString("")))
    data = ({"type": PE_IMAGE, "value": PeImageData({"flags": (1, 0, 1), "file": nameless})} if file.is_pe else
            {"type": FLAT_FILE, "value": nameless})
    digest = {"digest_algorithm": {"algorithm": algorithm, "parameters": core.Null()}, "digest": file.digest(algorithm)}
    return attribute(INDIRECT_DATA, IndirectData({"data": data, "digest": digest}))


def members_v1(file: CatalogFile, common: list[Attribute]) -> Iterator[tuple[bytes, list[Attribute]]]:
    info = MemberInfo({"subject": PE_SUBJECT if file.is_pe else FLAT_SUBJECT, "version": 512})
    tag = (file.digest("sha1").hex().upper() + "\0").encode("utf-16-le")
    yield tag, common + [indirect_data(file, "sha1"), attribute(MEMBER_INFO, info)]


def members_v2(file: CatalogFile, common: list[Attribute]) -> Iterator[tuple[bytes, list[Attribute]]]:
    info = attribute(MEMBER_INFO2, MemberInfo2("pe" if file.is_pe else "flat", core.Null()))
    yield file.digest("sha1"), common + [info]
    yield file.digest("sha256"), common + [info, indirect_data(file, "sha256")]


@dataclasses.dataclass(frozen=True)
class CatalogVersion:
    member_kind: str
    systems: str  # that the catalog is for
    system_versions: str
    members: object


VERSION_1 = CatalogVersion(MEMBER_V1, "7X64,_v100_X64", "2:6.1,2:10.0", members_v1)
VERSION_2 = CatalogVersion(MEMBER_V2, "_v100_X64", "2:10.0", members_v2)


def write_catalog(version: CatalogVersion, files: list[CatalogFile], hardware_ids: list[str],
                  time: datetime.datetime) -> bytes:
    """The same arguments give the same bytes: the list's id, which may be anything unique, comes from the members."""
    members = {}
    for file in files:
        common = [attribute(NAME_VALUE, name_value("OSAttr", version.system_versions)),
                  attribute(NAME_VALUE, name_value("File", file.name))]
        members.update(version.members(file, common))
    # The highest number comes first, as in the driver kit's.
    names = [("OS", version.systems)]
    names += [(f"HWID{n}", hardware_id.lower()) for n, hardware_id in reversed(list(enumerate(hardware_ids, 1)))]
    content = TrustList({
        "usage": [CATALOG_LIST],
        "list_id": hashlib.sha256(b"".join(sorted(members))).digest()[:16],
        "this_update": core.UTCTime(time),
        "member_kind": {"algorithm": version.member_kind, "parameters": core.Null()},
        "members": [{"identifier": i, "attributes": members[i]} for i in sorted(members)],
        "extensions": [{"type": NAME_VALUE, "value": name_value(name, text).dump()} for name, text in names],
    })
    return Envelope({"type": SIGNED_DATA, "content": {
        "version": 1, "digest_algorithms": [], "content": {"type": TRUST_LIST, "content": content},
        "signers": []}}).dump()
