"""A camera that the INF installs the driver for: its ids, its name, and the model it is driven as."""

import dataclasses
import pathlib
import re

HERE = pathlib.Path(__file__).resolve().parent

# The model of a camera that is driven as any other video camera.
GENERIC = "0000"

# Names go into a quoted string of an ASCII file, in which a percent sign begins the name of a string.
PATTERN = re.compile(r'(?P<vendor>[0-9A-F]{4}):(?P<product>[0-9A-F]{4})(?::(?P<model>[0-9A-F]{4}))?=(?P<name>[^"%]{1,80})',
                     re.IGNORECASE)


@dataclasses.dataclass(frozen=True)
class CameraEntry:
    vendor: str  # four upper-case hexadecimal digits, as all ids here
    product: str
    model: str | None  # product id of a row of the model table; None: none was given
    name: str

    @classmethod
    def parse(cls, text: str) -> "CameraEntry":
        """From VID:PID[:MODEL]=Name; ValueError says what is wrong."""
        match = PATTERN.fullmatch(text)
        if not match or not match["name"].isprintable() or not match["name"].isascii() or not match["name"].strip():
            raise ValueError(f"'{text}' is not VID:PID[:MODEL]=Name: ids of four hexadecimal digits, and a name of at most "
                             "80 printable ASCII characters without quotes and percent signs")
        model = match["model"]
        return cls(match["vendor"].upper(), match["product"].upper(), model and model.upper(), match["name"].strip())

    @property
    def section(self) -> str:
        return f"Camera.{self.vendor}.{self.product}"

    @property
    def hardware_id(self) -> str:
        return f"USB\\VID_{self.vendor}&PID_{self.product}"


def product_ids() -> list[str]:
    """The product ids of the driver's model table."""
    table = (HERE.parent / "camera" / "model_table.cpp").read_text()
    return re.findall(r"\.productId = 0x([0-9A-F]{4}), \.factory = MakeCamera<", table)


def known_cameras() -> list[CameraEntry]:
    lines = (HERE / "cameras.txt").read_text().splitlines()
    return [CameraEntry.parse(line) for line in lines if line and not line.startswith("#")]


def own_cameras(texts: list[str]) -> list[CameraEntry]:
    """The cameras that the user names, each with a model; ValueError says what is wrong with them."""
    taken = {camera.hardware_id for camera in known_cameras()}
    models = [*product_ids(), GENERIC]
    cameras = []
    for text in texts:
        camera = CameraEntry.parse(text)
        if camera.hardware_id in taken:
            raise ValueError(f"'{text}': the package already has {camera.vendor}:{camera.product}")
        if camera.model and camera.model not in models:
            raise ValueError(f"'{text}': the driver has no model {camera.model}, only {', '.join(models)}")
        taken.add(camera.hardware_id)
        cameras.append(dataclasses.replace(camera, model=camera.model or GENERIC))
    return cameras
