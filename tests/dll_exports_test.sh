#!/usr/bin/env bash
# The provider DLL exports exactly the four COM entry points and imports only system DLLs (the C++
# runtime and winpthread are linked in): dll_exports_test.sh OBJDUMP DLL
set -euo pipefail
objdump=$1
dll=$2
dump=$("$objdump" -p "$dll")

exports=$(printf '%s\n' "$dump" | sed -n '/\[Ordinal\/Name Pointer\] Table/,/^$/p' |
    sed -n 's/^[[:space:]]*\[[[:space:]]*[0-9]*\][[:space:]]*\([A-Za-z_][A-Za-z0-9_]*\).*/\1/p' | sort)
expected=$(printf '%s\n' DllCanUnloadNow DllGetClassObject DllRegisterServer DllUnregisterServer)
grep -q "file format pei-x86-64" <<<"$dump" || { echo "not a 64-bit PE image"; exit 1; }
if [ "$exports" != "$expected" ]; then
    echo "exports differ from the four COM entry points:"
    printf '%s\n' "$exports"
    exit 1
fi

allowed=" advapi32.dll gdi32.dll kernel32.dll msvcrt.dll ole32.dll oleaut32.dll user32.dll rpcrt4.dll setupapi.dll \
cfgmgr32.dll mpr.dll shlwapi.dll ntdll.dll "
imports=$(printf '%s\n' "$dump" | sed -n 's/^[[:space:]]*DLL Name:[[:space:]]*//p' | tr 'A-Z' 'a-z' | sort -u)
[ -n "$imports" ] || { echo "no import table found"; exit 1; }
status=0
for name in $imports; do
    case "$allowed" in
    *" $name "*) echo "import ok: $name" ;;
    *) echo "not a system DLL: $name"; status=1 ;;
    esac
done
echo "exports: $(echo $exports)"
exit $status
