"""Checks an archive of driver packages as it will be installed: every byte of every file is vouched for by a signature of
the certificate or by the catalog that it signs. Says what is wrong and exits with 1.

    check_package.py [--self-test] ARCHIVE CERTIFICATE

    --self-test  also damages copies of a good archive in many ways; each must be noticed

Shares no code with what makes the packages: OpenSSL reads the catalogs, osslsigncode verifies the signatures.
"""

import hashlib
import pathlib
import re
import shutil
import struct
import subprocess
import sys
import tempfile
import zipfile
from collections.abc import Callable, Iterator

FILES = {f"uvc_drv.{suffix}" for suffix in ("sys", "pdb", "inf", "cat", "cer")}
# Folder: setup class, the kind of members that the catalog has.
SYSTEMS = {"windows10": ("Camera", "1.3.6.1.4.1.311.12.1.3"), "windows7": ("Image", "1.3.6.1.4.1.311.12.1.2")}


def run(*command: str | pathlib.Path) -> subprocess.CompletedProcess:
    return subprocess.run(command, capture_output=True)


def verified(*arguments: str | pathlib.Path) -> bool:
    done = run("osslsigncode", "verify", *arguments)
    return done.returncode == 0 and b"Succeeded" in done.stdout + done.stderr


def image_sum(data: bytes) -> tuple[int, int]:
    """The checksum that the header of an image has, and the one that it should have."""
    at = struct.unpack_from("<I", data, 60)[0] + 88
    padded = data[:at] + bytes(4) + data[at + 4:] + bytes(len(data) % 2)
    total = sum(struct.unpack(f"<{len(padded) // 2}H", padded))
    while total > 0xFFFF:
        total = (total & 0xFFFF) + (total >> 16)
    return struct.unpack_from("<I", data, at)[0], total + len(data)


def image_version(data: bytes) -> str:
    at = data.index(struct.pack("<II", 0xFEEF04BD, 0x10000))
    minor, major, low, high = struct.unpack_from("<4H", data, at + 8)
    return f"{major}.{minor}.{high}.{low}"


def check_driver(path: pathlib.Path, certificate: pathlib.Path) -> Iterator[str]:
    data = path.read_bytes()
    if not verified("-CAfile", certificate, "-in", path):
        yield "its signature is not good, or not of this certificate"
        return
    # Neither the signature nor the catalog covers the checksum and what pads the signature.
    told, right = image_sum(data)
    if told != right:
        yield f"the checksum is {told:#x}, not {right:#x}"
    if not verified("-CAfile", certificate, "-catalog", path.with_name("uvc_drv.cat"), "-in", path):
        yield "it is not in the catalog"


def check_catalog(path: pathlib.Path, certificate: pathlib.Path, kind: str) -> Iterator[str]:
    """And that the files beside it, the driver but for one, are in it as they are."""
    if not verified("-CAfile", certificate, "-in", path):
        yield "its signature is not good, or not of this certificate"
    listing = run("openssl", "asn1parse", "-inform", "DER", "-in", path).stdout.decode()
    outer = re.match(r"\s*0:d=0\s+hl=(\d+)\s+l=\s*(\d+) cons: SEQUENCE", listing)
    if not outer or int(outer[1]) + int(outer[2]) != path.stat().st_size:
        yield "it is not one sequence from the first byte to the last"
    if f":{kind}\n" not in listing:
        yield "it is of the version for another system"
    strings = {bytes.fromhex(text) for text in re.findall(r"OCTET STRING\s*\[HEX DUMP\]:([0-9A-F]+)", listing)}
    for name in ("uvc_drv.inf", "uvc_drv.pdb"):
        data = path.with_name(name).read_bytes()
        member = (hashlib.sha256(data).digest() if kind.endswith(".3") else
                  (hashlib.sha1(data).hexdigest().upper() + "\0").encode("utf-16-le"))
        if member not in strings:
            yield f"{name} is not in it"


def check_inf(path: pathlib.Path, setup_class: str) -> Iterator[str]:
    text = path.read_bytes().decode("latin-1")
    version = image_version(path.with_name("uvc_drv.sys").read_bytes())
    for pattern in (rf"Class\s*=\s*{setup_class}", r"CatalogFile\s*=\s*uvc_drv\.cat", r"PnpLockdown\s*=\s*1",
                    r"DriverVer\s*=\s*\d\d/\d\d/\d{4}," + re.escape(version)):
        if not re.search(rf"^{pattern}\r$", text, re.M):
            yield f"it has no line {pattern}"
    ids = re.findall(r"^%Camera[\w.]+% = Camera[\w.]+,(\S+)\r$", text, re.M)
    catalog = path.with_name("uvc_drv.cat").read_bytes()
    yield from (f"{i} is not in the catalog" for i in ids if (i.lower() + "\0").encode("utf-16-le") not in catalog)
    if not ids:
        yield "it is for no camera"


def check_folder(folder: pathlib.Path, certificate: pathlib.Path) -> Iterator[str]:
    setup_class, kind = SYSTEMS[folder.name]
    names = {path.name for path in folder.iterdir()}
    yield from (f"{name}: it is missing" for name in sorted(FILES - names))
    yield from (f"{name}: it does not belong here" for name in sorted(names - FILES))
    if FILES - names:
        return
    yield from (f"uvc_drv.sys: {complaint}" for complaint in check_driver(folder / "uvc_drv.sys", certificate))
    yield from (f"uvc_drv.cat: {complaint}" for complaint in check_catalog(folder / "uvc_drv.cat", certificate, kind))
    der = run("openssl", "x509", "-in", certificate, "-outform", "DER").stdout
    if not der or (folder / "uvc_drv.cer").read_bytes() != der:
        yield "uvc_drv.cer: it is another certificate"
    try:
        yield from (f"uvc_drv.inf: {complaint}" for complaint in check_inf(folder / "uvc_drv.inf", setup_class))
    except (ValueError, struct.error):
        yield "uvc_drv.sys: it has no version"


def check_tree(tree: pathlib.Path, certificate: pathlib.Path) -> list[str]:
    names = {path.name for path in tree.iterdir()}
    found = [f"{name}: it is missing" for name in sorted(set(SYSTEMS) - names)]
    found += [f"{name}: it does not belong here" for name in sorted(names - set(SYSTEMS))]
    for name in sorted(names & set(SYSTEMS)):
        found += [f"{name}/{complaint}" for complaint in check_folder(tree / name, certificate)]
    return found


def flip(offset: Callable[[bytes], int]) -> Callable[[pathlib.Path], None]:
    def damage(path: pathlib.Path) -> None:
        data = bytearray(path.read_bytes())
        data[offset(data)] ^= 1
        path.write_bytes(data)
    return damage


# What is done to each file of each folder: the first byte, one in the middle and the last, and other lengths.
DAMAGES: dict[str, Callable[[pathlib.Path], None]] = {
    "first byte": flip(lambda data: 0), "a third in": flip(lambda data: len(data) // 3),
    "two thirds in": flip(lambda data: 2 * len(data) // 3), "last byte": flip(lambda data: len(data) - 1),
    "cut": lambda path: path.write_bytes(path.read_bytes()[:-1]), "empty": lambda path: path.write_bytes(b""),
    "longer": lambda path: path.write_bytes(path.read_bytes() + b"\0"), "missing": lambda path: path.unlink(),
}


def other_certificate(folder: pathlib.Path) -> pathlib.Path:
    """A certificate of the same name, good for the same, of another key (key.pem beside it)."""
    certificate = folder / "certificate.pem"
    run("openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", folder / "key.pem", "-days", "2", "-subj",
        "/CN=uvc_drv test signing", "-addext", "extendedKeyUsage=codeSigning", "-out", certificate)
    run("openssl", "x509", "-in", certificate, "-outform", "DER", "-out", folder / "uvc_drv.cer")
    return certificate


def sign_again(path: pathlib.Path, keys: pathlib.Path) -> None:
    """With another key, in place of the signature that it has."""
    signed = path.with_suffix(".signed")
    run("osslsigncode", "sign", "-certs", keys / "certificate.pem", "-key", keys / "key.pem", "-h", "sha256",
        "-in", path, "-out", signed)
    signed.replace(path)


def self_test(good: pathlib.Path, certificate: pathlib.Path) -> bool:
    failures = count = 0
    with tempfile.TemporaryDirectory() as temporary:
        keys = pathlib.Path(temporary) / "keys"
        keys.mkdir()
        stranger = other_certificate(keys)

        def attempt(what: str, expected: str, change: Callable[[pathlib.Path], object], system: str = "",
                    trusted: pathlib.Path = certificate) -> None:
            """Changes a copy; a complaint must begin as expected. With a system only its folder is checked."""
            nonlocal failures, count
            count += 1
            tree = pathlib.Path(temporary) / "tree"
            shutil.copytree(good, tree)
            change(tree)
            found = list(check_folder(tree / system, trusted)) if system else check_tree(tree, trusted)
            shutil.rmtree(tree)
            if not any(re.match(expected, complaint) for complaint in found):
                failures += 1
                print(f"self-test: {system} {what}: {found or 'nothing'} found, not {expected}")

        for system, other in zip(SYSTEMS, reversed(SYSTEMS)):
            driver, inf, catalog, cer = (f"{system}/uvc_drv.{suffix}" for suffix in ("sys", "inf", "cat", "cer"))
            for name in sorted(FILES):
                for what, damage in DAMAGES.items():
                    # The catalog speaks for INF and PDB.
                    attempt(f"{name}: {what}", f"{name}: |uvc_drv.cat: {name} ", lambda tree: damage(tree / system / name),
                            system)
            # (what, the complaint, the change)
            for what, expected, change in (
                ("a wrong checksum", "uvc_drv.sys: the checksum",
                 lambda tree: flip(lambda data: struct.unpack_from("<I", data, 60)[0] + 88)(tree / driver)),
                ("a driver signed by another", "uvc_drv.sys: its signature", lambda tree: sign_again(tree / driver, keys)),
                ("a catalog signed by another", "uvc_drv.cat: its signature", lambda tree: sign_again(tree / catalog, keys)),
                ("a certificate of another key", "uvc_drv.cer: it is another",
                 lambda tree: shutil.copy(keys / "uvc_drv.cer", tree / cer)),
                ("the other system's INF", "uvc_drv.cat: uvc_drv.inf is not in it",
                 lambda tree: shutil.copy(tree / other / "uvc_drv.inf", tree / inf)),
                ("an INF with another camera", r"uvc_drv.inf: USB\\VID_F055&PID_8209 is not in",
                 lambda tree: (tree / inf).write_bytes((tree / inf).read_bytes().replace(b"&PID_8202", b"&PID_8209"))),
                ("the other version's catalog", "uvc_drv.cat: it is of the version",
                 lambda tree: shutil.copy(tree / other / "uvc_drv.cat", tree / catalog)),
                ("a file more", "more.dll: it does not belong", lambda tree: (tree / system / "more.dll").touch()),
            ):
                attempt(what, expected, change, system)
            attempt("another certificate asked for", "uvc_drv.sys: its signature", lambda tree: None, system, stranger)
        attempt("a system less", "windows7: it is missing", lambda tree: shutil.rmtree(tree / "windows7"))
        attempt("a file more", "more.exe: it does not belong", lambda tree: (tree / "more.exe").touch())
    print(f"self-test: {count} damages, {failures} failures")
    return failures == 0


def main() -> int:
    arguments = sys.argv[1:]
    testing = arguments[:1] == ["--self-test"]
    if len(arguments) != 2 + testing:
        print(__doc__, file=sys.stderr)
        return 2
    archive, certificate = pathlib.Path(arguments[-2]), pathlib.Path(arguments[-1])
    with tempfile.TemporaryDirectory() as temporary:
        tree = pathlib.Path(temporary)
        with zipfile.ZipFile(archive) as opened:
            opened.extractall(tree)
        found = check_tree(tree, certificate)
        print("\n".join(f"{archive.name}: {complaint}" for complaint in found) or
              f"{archive.name}: {len(SYSTEMS)} packages, signatures, catalogs and files checked")
        return 0 if not found and (not testing or self_test(tree, certificate)) else 1


if __name__ == "__main__":
    sys.exit(main())
