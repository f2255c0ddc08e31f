#!/bin/bash
# Signs uvc_drv.sys of a package folder with a self-made certificate, for computers in test mode.
#
#   package/sign.sh PACKAGE-FOLDER [KEY-FOLDER]
#
# KEY-FOLDER (default: PACKAGE-FOLDER/../signing) keeps key and certificate for the next time; they are made when
# missing. uvc_drv.cer, the certificate to install on the test computer, goes beside the driver. Needs openssl and
# osslsigncode.
set -euo pipefail

package=${1:?usage: package/sign.sh PACKAGE-FOLDER [KEY-FOLDER]}
keys=${2:-$package/../signing}
driver=$package/uvc_drv.sys

mkdir -p "$keys"
if [[ ! -f $keys/key.pem || ! -f $keys/certificate.pem ]]; then
    (umask 077 && openssl genrsa -out "$keys/key.pem" 3072)
    openssl req -x509 -key "$keys/key.pem" -sha256 -days 3650 -subj "/CN=uvc_drv test signing" \
        -addext basicConstraints=critical,CA:FALSE -addext keyUsage=critical,digitalSignature \
        -addext extendedKeyUsage=codeSigning -out "$keys/certificate.pem"
fi

rm -f "$driver.signed"
osslsigncode sign -certs "$keys/certificate.pem" -key "$keys/key.pem" -h sha256 \
    -in "$driver" -out "$driver.signed"
osslsigncode verify -CAfile "$keys/certificate.pem" -in "$driver.signed" >/dev/null
mv "$driver.signed" "$driver"
openssl x509 -in "$keys/certificate.pem" -outform DER -out "$package/uvc_drv.cer"
python3 "$(dirname "$0")/check_driver.py" "$driver"
