"""The key and certificate that sign a package, in a folder outside the source tree; and what they do.

certificate.pem and key.pem, both PEM, the key without a password. An empty or missing folder gets a self-signed test
certificate.
"""

import os
import pathlib
import subprocess

SOURCES = pathlib.Path(__file__).resolve().parent.parent


def default_folder() -> pathlib.Path:
    data = os.environ.get("XDG_DATA_HOME") or pathlib.Path.home() / ".local" / "share"
    return pathlib.Path(data) / "uvc_drv" / "signing"


class SigningKey:
    def __init__(self, folder: pathlib.Path):
        """ValueError when the folder may not or cannot hold keys."""
        folder = folder.expanduser().resolve()
        if folder == SOURCES or SOURCES in folder.parents:
            raise ValueError(f"{folder} is in the source tree, where a key would be committed some day")
        if folder.exists() and not folder.is_dir():
            raise ValueError(f"{folder} is not a folder")
        self.folder, self.certificate, self.key = folder, folder / "certificate.pem", folder / "key.pem"
        if folder.exists() and any(folder.iterdir()) and not (self.certificate.exists() and self.key.exists()):
            raise ValueError(f"{folder} is not empty, and has no certificate.pem or no key.pem")

    def make_when_missing(self) -> None:
        self.folder.mkdir(mode=0o700, parents=True, exist_ok=True)
        if self.key.exists():
            return
        # The certificate is made last: an interrupted run leaves a folder that is refused, not half a pair that is used.
        with open(os.open(self.key, os.O_WRONLY | os.O_CREAT | os.O_EXCL, 0o600), "wb") as file:
            file.write(run("openssl", "genrsa", "3072"))
        run("openssl", "req", "-x509", "-key", self.key, "-sha256", "-days", "3650", "-subj", "/CN=uvc_drv test signing",
            "-addext", "basicConstraints=critical,CA:FALSE", "-addext", "keyUsage=critical,digitalSignature",
            "-addext", "extendedKeyUsage=codeSigning", "-out", self.certificate)

    def sign(self, file: pathlib.Path, time: int) -> None:
        """Signs a driver or a catalog in place. RSA as it is used here has no random part, so the same file, key and time
        give the same bytes."""
        signed = file.with_suffix(".signed")
        run("osslsigncode", "sign", "-certs", self.certificate, "-key", self.key, "-h", "sha256", "-time", str(time),
            "-n", "uvc_drv", "-in", file, "-out", signed)
        signed.replace(file)

    def certificate_der(self) -> bytes:
        return run("openssl", "x509", "-in", self.certificate, "-outform", "DER")


def run(*command: str | pathlib.Path) -> bytes:
    done = subprocess.run(command, capture_output=True)
    if done.returncode:
        raise RuntimeError(f"{' '.join(map(str, command[:2]))}: {(done.stdout + done.stderr).decode(errors='replace')}")
    return done.stdout
