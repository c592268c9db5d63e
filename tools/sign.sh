#!/usr/bin/env bash
# Signs files with Authenticode (SHA-256) using osslsigncode: sign.sh FILE...
# The certificate is the operator's, from the environment:
#   DORWEX_SIGN_PFX            a PKCS#12 file with the certificate and its private key
#   DORWEX_SIGN_PASSWORD       its password (handed to osslsigncode in a file, never on a command line)
#   DORWEX_SIGN_TIMESTAMP_URL  an RFC 3161 timestamp server (optional)
# Without DORWEX_SIGN_PFX nothing is signed: it says so and succeeds. tools/package-msi.sh calls it on
# the provider DLL and the custom-action DLL before it packs them, and on the package after.
set -euo pipefail
if [ -z "${DORWEX_SIGN_PFX:-}" ]; then
    echo "sign.sh: DORWEX_SIGN_PFX not set, left unsigned: $*"
    exit 0
fi
command -v osslsigncode >/dev/null || { echo "sign.sh: osslsigncode not found (apt-get install osslsigncode)" >&2; exit 1; }
[ -r "$DORWEX_SIGN_PFX" ] || { echo "sign.sh: cannot read $DORWEX_SIGN_PFX" >&2; exit 1; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
chmod 700 "$work"
printf '%s' "${DORWEX_SIGN_PASSWORD:-}" >"$work/password"
options=(-pkcs12 "$DORWEX_SIGN_PFX" -readpass "$work/password" -h sha256 -n "dorWEX WPD WMI provider")
if [ -n "${DORWEX_SIGN_TIMESTAMP_URL:-}" ]; then
    options+=(-ts "$DORWEX_SIGN_TIMESTAMP_URL")
fi
for file in "$@"; do
    # Signed beside the file, then put in its place: a failed signature leaves the file as it was.
    signed="$work/signed"
    rm -f "$signed"
    osslsigncode sign "${options[@]}" -in "$file" -out "$signed" >"$work/log" 2>&1 ||
        { cat "$work/log" >&2; echo "sign.sh: signing $file failed" >&2; exit 1; }
    cat "$signed" >"$file"
    echo "sign.sh: signed $file"
done
