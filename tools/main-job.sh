#!/usr/bin/env bash
# The provider in a Wine prefix: builds it, registers it with regsvr32, shows the registration, loads it
# through COM as the WMI service does, starts its monitoring core on emulated portable devices, and shows
# the module's trace lines at a raised level as a debugger (DebugView) receives them.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
"$root/tools/install-deps.sh"
"$root/tools/build.sh" >/dev/null
. "$root/tools/wine/env.sh"
prefix="$root/build/win/wineprefix"
bin="$root/build/win/bin"
bash "$root/tools/wine/prefix.sh" up "$prefix"
trap 'bash "$root/tools/wine/prefix.sh" down "$prefix" >/dev/null' EXIT
dorwex_wine_environment "$prefix"
wine=$(dorwex_find_wine)
dll=$("$wine" winepath -w "$bin/dorwex_wpd_provider.dll" 2>/dev/null | tr -d '\r')
clsid=$(sed -n 's/.*DORWEX_PROVIDER_CLSID_TEXT L"\({[^"]*}\)".*/\1/p' "$root/wmi/provider_clsid.h")

echo
echo "== regsvr32 $dll"
"$wine" regsvr32 /s "$dll"
"$wine" reg query "HKLM\\Software\\Classes\\CLSID\\$clsid" /s | tr -d '\r'

echo "== a host loads the provider through COM, as the WMI service does"
"$wine" "$bin/provider_host.exe" | tr -d '\r'

echo
echo "== the monitoring core on the emulated devices of emulator/samples"
"$wine" regsvr32 /s "$("$wine" winepath -w "$bin/dorwex_wpd_emulator.dll" 2>/dev/null | tr -d '\r')"
DORWEX_WPD_DEVICES=$("$wine" winepath -w "$root/emulator/samples" 2>/dev/null | tr -d '\r') \
    "$wine" "$bin/device_probe.exe" | tr -d '\r'

echo
echo "== the same module code at trace level 1, as DebugView shows it"
"$wine" "$bin/debug_view.exe" "$("$wine" winepath -w "$bin/trace_probe.exe" 2>/dev/null | tr -d '\r')" lifecycle |
    tr -d '\r'
