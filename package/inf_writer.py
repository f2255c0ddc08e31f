"""Writes the INF of a package for one system.

Windows 10 and later: setup class Camera, the driver runs from the driver store (directory 13, from build 16299 on).
Windows 7: class Image, the only one that it has for cameras, and the drivers' directory.

Cameras that the driver's table does not know, and the generic entry, carry in their hardware key the value CameraModel
(REG_DWORD): the product id of the model that they are driven as, 0 for none.
"""

import dataclasses

from camera_entry import GENERIC, CameraEntry

GENERIC_SECTION = "Camera.Generic"


@dataclasses.dataclass(frozen=True)
class System:
    folder: str  # in the archive
    title: str
    setup_class: str
    class_guid: str
    decoration: str
    directory: str  # where the driver's file goes


SYSTEMS = (
    System("windows10", "Windows 10, version 1709, and later", "Camera", "{ca3e7ab9-b4c3-4ae6-8251-579ef933890f}",
           "NTamd64.10.0...16299", "13"),
    System("windows7", "Windows 7 and later", "Image", "{6bdd1fc6-810f-11d0-bec7-08002be2092f}", "NTamd64", "12"),
)

FRAME = """\
; Installs uvc_drv.sys on 64-bit {system.title}. Generated: an edited copy no longer matches the catalog.

[Version]
Signature   = "$Windows NT$"
Class       = {system.setup_class}
ClassGUID   = {system.class_guid}
Provider    = %Provider%
CatalogFile = uvc_drv.cat
DriverVer   = {date},{version}
PnpLockdown = 1

[SourceDisksNames]
1 = %DiskName%,,,""

[SourceDisksFiles]
uvc_drv.sys = 1

[DestinationDirs]
DefaultDestDir = {system.directory}

[Manufacturer]
%Provider% = Cameras,{system.decoration}

[Cameras.{system.decoration}]
{models}
; Any other bulk camera, by hand only: no device reports this id. A class id here would take every webcam of the
; computer away from the system's own driver.
%{generic}% = {generic},UVC_DRV_GENERIC_CAMERA

[Camera.CopyFiles]
uvc_drv.sys

[Camera.Service]
DisplayName   = %ServiceName%
ServiceType   = 1 ; kernel driver
StartType     = 3 ; on demand
ErrorControl  = 1 ; normal
ServiceBinary = %{system.directory}%\\uvc_drv.sys
{sections}
[Strings]
Provider = "uvc_drv project"
DiskName = "uvc_drv installation files"
ServiceName = "USB Video Class camera driver (uvc_drv)"
{strings}
{generic} = "Industrial USB camera (generic, bulk transfers only)"

; Not to be translated.
KSCATEGORY_VIDEO = "{{6994AD05-93EF-11D0-A3CC-00A0C9223196}}"
KSCATEGORY_CAPTURE = "{{65E8773D-8F56-11D0-A3B9-00A0C9223196}}"
KSPROXY_CLSID = "{{17CCA71B-ECD7-11D0-B908-00A0C9223196}}"
"""

# Applications show the name that the interface has, so every camera has sections of its own. The reference string is that
# of the filter factory.
CAMERA = """
[{name}.NT]
Include   = ks.inf,kscaptur.inf
Needs     = KS.Registration,KSCAPTUR.Registration.NT
CopyFiles = Camera.CopyFiles

[{name}.NT.Services]
AddService = uvc_drv,2,Camera.Service

[{name}.NT.Interfaces]
AddInterface = %KSCATEGORY_VIDEO%,"GLOBAL",{name}.Interface
AddInterface = %KSCATEGORY_CAPTURE%,"GLOBAL",{name}.Interface

[{name}.Interface]
AddReg = {name}.Interface.AddReg

[{name}.Interface.AddReg]
HKR,,CLSID,,%KSPROXY_CLSID%
HKR,,FriendlyName,,%{name}%
"""

# 0x00010001: a REG_DWORD.
MODEL = """
[{name}.NT.HW]
AddReg = {name}.HW.AddReg

[{name}.HW.AddReg]
HKR,,CameraModel,0x00010001,0x{model}
"""


def sections(name: str, model: str | None) -> str:
    return CAMERA.format(name=name) + (MODEL.format(name=name, model=model) if model else "")


def write_inf(system: System, date: str, version: str, cameras: list[CameraEntry]) -> bytes:
    """date: MM/DD/YYYY; version: four numbers, W.X.Y.Z. Cameras without a model are those of the driver's table."""
    text = FRAME.format(
        system=system, date=date, version=version, generic=GENERIC_SECTION,
        models="\n".join(f"%{c.section}% = {c.section},{c.hardware_id}" for c in cameras),
        sections="".join(sections(c.section, c.model) for c in cameras) + sections(GENERIC_SECTION, GENERIC),
        strings="\n".join(f'{c.section} = "{c.name}"' for c in cameras))
    return text.replace("\n", "\r\n").encode("ascii")
