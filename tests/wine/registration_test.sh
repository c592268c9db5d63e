#!/usr/bin/env bash
# Registers the provider with Wine's own regsvr32, reads the registration back with reg query, creates
# the provider through COM by its CLSID, then unregisters and checks the keys are gone:
#   registration_test.sh PREFIX DLL CLSID
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")/../../tools/wine" && pwd)
. "$here/env.sh"
prefix=$1
dll=$2
clsid=$3
dorwex_wine_environment "$prefix"
wine=$(dorwex_find_wine)
key="HKLM\\Software\\Classes\\CLSID\\$clsid"

winpath=$(dorwex_winpath "$dll")
fail() { echo "FAIL: $*"; exit 1; }

dorwex_regsvr32 "$dll" || fail "regsvr32 returned $?"
query=$("$wine" reg query "$key" /s | tr -d '\r')
echo "$query"
grep -Eq '^\s+\(Default\)\s+REG_SZ\s+dorWEX WPD WMI Provider$' <<<"$query" || fail "class description"
grep -Fq "$clsid\\InprocServer32" <<<"$query" || fail "no InprocServer32 key"
grep -Fqi "REG_SZ    $winpath" <<<"$query" || fail "InprocServer32 is not the module path $winpath"
grep -Eq '^\s+ThreadingModel\s+REG_SZ\s+Both$' <<<"$query" || fail "ThreadingModel Both"

host="$(dirname "$dll")/provider_host.exe"
created=$("$wine" "$host" | tr -d '\r')
echo "$created"
grep -q '^provider object created$' <<<"$created" || fail "COM did not create the provider by its CLSID"

dorwex_regsvr32 /u "$dll" || fail "regsvr32 /u returned $?"
if "$wine" reg query "$key" >/dev/null 2>&1; then
    fail "class key still present after unregistration"
fi
echo "registration and unregistration verified"
