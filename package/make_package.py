"""Makes the archive of driver packages from the built driver: build/windows/uvc_drv.zip, and the same unpacked beside it.

windows10/ and windows7/ hold what Windows installs: uvc_drv.sys, .pdb, .inf, .cat and .cer. What serves every system, such
as a program, belongs at the top of the archive.
The same commit, tools and key give the same bytes. The archive appears only when it has passed check_package.py.
"""

import argparse
import datetime
import os
import pathlib
import shutil
import subprocess
import sys
import tempfile
import zipfile

from camera_entry import CameraEntry, known_cameras, own_cameras
from inf_writer import SYSTEMS, System, write_inf
from pe_image import PeImage
from signing_key import SigningKey, default_folder
from trust_list import VERSION_1, VERSION_2, CatalogFile, write_catalog

HERE = pathlib.Path(__file__).resolve().parent
OUTPUT = HERE.parent / "build" / "windows"
GENERIC_ID = "UVC_DRV_GENERIC_CAMERA"


def commit_time() -> int:
    """Seconds since 1970 of the last commit; of SOURCE_DATE_EPOCH, if that is set."""
    if "SOURCE_DATE_EPOCH" in os.environ:
        return int(os.environ["SOURCE_DATE_EPOCH"])
    done = subprocess.run(["git", "-C", HERE, "log", "-1", "--format=%ct"], capture_output=True, text=True)
    if done.returncode:
        raise RuntimeError("no commit to take the driver's date from: set SOURCE_DATE_EPOCH\n" + done.stderr)
    return int(done.stdout)


def make_folder(folder: pathlib.Path, system: System, cameras: list[CameraEntry], key: SigningKey, time: int,
                check: list[str]) -> None:
    when = datetime.datetime.fromtimestamp(time, datetime.timezone.utc)
    driver, pdb, inf = (folder / f"uvc_drv.{suffix}" for suffix in ("sys", "pdb", "inf"))
    folder.mkdir(parents=True)
    for file in (driver, pdb):
        shutil.copy(OUTPUT / "package" / file.name, file)
    version = PeImage(driver.read_bytes()).version()[0]
    inf.write_bytes(write_inf(system, when.strftime("%m/%d/%Y"), version, cameras))
    subprocess.run([sys.executable, HERE / "check_inf.py", *check, system.folder, inf], check=True)
    key.sign(driver, time)
    # Windows asks for the driver and the INF in the catalog. The PDB is there so that it can be trusted as they are.
    catalog = folder / "uvc_drv.cat"
    catalog.write_bytes(write_catalog(
        VERSION_1 if system.folder == "windows7" else VERSION_2,
        [CatalogFile.of(file.name, file.read_bytes()) for file in (inf, driver, pdb)],
        [camera.hardware_id for camera in cameras] + [GENERIC_ID], when))
    key.sign(catalog, time)
    (folder / "uvc_drv.cer").write_bytes(key.certificate_der())


def write_archive(path: pathlib.Path, folder: pathlib.Path, time: int) -> None:
    when = datetime.datetime.fromtimestamp(time, datetime.timezone.utc).timetuple()[:6]
    with zipfile.ZipFile(path, "w") as archive:
        for file in sorted(file for file in folder.rglob("*") if file.is_file()):
            entry = zipfile.ZipInfo(file.relative_to(folder).as_posix(), when)
            entry.compress_type, entry.external_attr = zipfile.ZIP_DEFLATED, 0o644 << 16
            archive.writestr(entry, file.read_bytes())


def make_package(cameras: list[CameraEntry], key: SigningKey, check: list[str]) -> pathlib.Path:
    """check: options of the checks."""
    time = commit_time()
    key.make_when_missing()
    archive = OUTPUT / "uvc_drv.zip"
    archive.unlink(missing_ok=True)
    with tempfile.TemporaryDirectory(dir=OUTPUT) as temporary:
        folder, unchecked = pathlib.Path(temporary) / "files", pathlib.Path(temporary) / archive.name
        for system in SYSTEMS:
            make_folder(folder / system.folder, system, cameras, key, time, check)
        write_archive(unchecked, folder, time)
        subprocess.run([sys.executable, HERE / "check_package.py", *check, unchecked, key.certificate], check=True)
        for system in SYSTEMS:
            shutil.rmtree(OUTPUT / system.folder, ignore_errors=True)
            (folder / system.folder).rename(OUTPUT / system.folder)
        unchecked.rename(archive)
    return archive


def main() -> int:
    parser = argparse.ArgumentParser(prog="./dev package", allow_abbrev=False,
                                     description="Makes build/windows/uvc_drv.zip: signed driver packages for Windows.")
    parser.add_argument("--keys", metavar="FOLDER", type=pathlib.Path, default=default_folder(),
                        help="key.pem and certificate.pem, made when the folder is empty (default: %(default)s)")
    parser.add_argument("--camera", metavar="VID:PID[:MODEL]=Name", action="append", default=[],
                        help="a camera of your own, driven as MODEL (a product id of the driver's table) or as a generic one")
    parser.add_argument("--self-test", action="store_true", help="prove that the checks notice damage of every kind")
    parser.add_argument("--only-arguments", action="store_true", help=argparse.SUPPRESS)
    options = parser.parse_args()
    try:
        cameras = known_cameras() + own_cameras(options.camera)
        key = SigningKey(options.keys)
    except ValueError as error:
        print(f"./dev package: {error}", file=sys.stderr)
        return 2
    if options.only_arguments:
        return 0
    try:
        print(make_package(cameras, key, ["--self-test"] if options.self_test else []))
    except subprocess.CalledProcessError:
        return 1  # it has said why
    except RuntimeError as error:
        print(f"./dev package: {error}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
