#!/usr/bin/env bash
# Signing with tools/sign.sh through tools/package-msi.sh, with a throwaway certificate made here: the
# package and the two DLLs inside it carry SHA-256 Authenticode signatures that osslsigncode verifies
# against that certificate; without a certificate nothing is signed; a wrong password fails the build and
# leaves no package.
#   sign_test.sh BIN-DIR WORK-DIR
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
bin=$1
work=$2
fail() {
    echo "FAIL: $*"
    exit 1
}
rm -rf "$work" && mkdir -p "$work"
cd "$work"
unset DORWEX_SIGN_PFX DORWEX_SIGN_PASSWORD DORWEX_SIGN_TIMESTAMP_URL

openssl req -x509 -newkey rsa:2048 -nodes -keyout key.pem -out cert.pem -days 2 -subj "/CN=dorWEX test signing" \
    -addext "extendedKeyUsage=codeSigning" 2>/dev/null
openssl pkcs12 -export -inkey key.pem -in cert.pem -out cert.pfx -passout pass:throwaway-secret

verify() {  # verify FILE: a SHA-256 signature by the throwaway certificate
    local report
    report=$(osslsigncode verify -CAfile cert.pem -in "$1" 2>&1) || fail "$1 does not verify: $report"
    # osslsigncode 2.5 (Debian 12) and 2.9 word these lines a little differently.
    grep -Eqi 'digest algorithm *: *SHA-?256' <<<"$report" || fail "$1 is not signed with SHA-256: $report"
    grep -q 'CN *= *dorWEX test signing' <<<"$report" || fail "$1 is not signed by the throwaway certificate: $report"
}
contents() {  # contents MSI DIR: the package's files and its custom-action DLL, unpacked
    mkdir -p "$2"
    (cd "$2" && msiextract "$work/$1" >/dev/null && msiinfo extract "$work/$1" Binary.DorwexMsiActions >actions.dll)
}

unsigned=$(bash "$root/tools/package-msi.sh" --bin "$bin" --output unsigned.msi)
grep -q 'left unsigned' <<<"$unsigned" || fail "no word that the package is unsigned: $unsigned"
osslsigncode verify -in unsigned.msi >/dev/null 2>&1 && fail "a package built without a certificate is signed"

DORWEX_SIGN_PFX="$work/cert.pfx" DORWEX_SIGN_PASSWORD=throwaway-secret \
    bash "$root/tools/package-msi.sh" --bin "$bin" --output signed.msi >package.log
grep -q throwaway-secret package.log && fail "the password appears in the output"
verify signed.msi
contents signed.msi signed
verify "$(find signed -name dorwex_wpd_provider.dll)"
verify signed/actions.dll
cmp -s "$bin/dorwex_wpd_provider.dll" "$(find signed -name dorwex_wpd_provider.dll)" &&
    fail "the packed DLL is the unsigned build"
# The build's own files stay as built: signing works on copies.
osslsigncode verify -in "$bin/dorwex_wpd_provider.dll" >/dev/null 2>&1 && fail "the build's DLL was signed in place"

if DORWEX_SIGN_PFX="$work/cert.pfx" DORWEX_SIGN_PASSWORD=wrong \
    bash "$root/tools/package-msi.sh" --bin "$bin" --output wrong.msi >wrong.log 2>&1; then
    fail "a wrong password built a package"
fi
[ ! -e wrong.msi ] && [ ! -e wrong.msi.partial ] || fail "a failed signing left a package behind"
echo "the package and both DLLs in it are signed and verify; unsigned without a certificate"
