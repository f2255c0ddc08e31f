"""Writes the PE checksum, which the linker leaves zero: the kernel loads no image with a wrong one."""

import pathlib
import sys

from pe_image import PeImage

path = pathlib.Path(sys.argv[1])
image = PeImage(path.read_bytes())
image["checksum"] = image.computed_checksum()
path.write_bytes(image.data)
