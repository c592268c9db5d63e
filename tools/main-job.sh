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
echo "== the emulated portable-device stack and WMI service take the place of what Wine lacks"
winpath() { "$wine" winepath -w "$1" 2>/dev/null | tr -d '\r'; }
"$wine" regsvr32 /s "$(winpath "$bin/dorwex_wpd_emulator.dll")"
"$wine" regsvr32 /s "$(winpath "$bin/dorwex_wmi_emulator.dll")"
# The sample devices are copied, so that what the run writes onto them stays in the build tree.
devices="$root/build/win/main-job-devices"
rm -rf "$devices" && cp -r "$root/emulator/samples" "$devices"
export DORWEX_WPD_DEVICES
DORWEX_WPD_DEVICES=$(winpath "$devices")
galaxy='\\?\usb#vid_04e8&pid_6860&mi_00#7&2a8f3e1&0&0000#{6ac27878-a6fa-4155-ba85-f98f491d4f33}'
lumia='\\?\usb#vid_0421&pid_0661#lumia950#{6ac27878-a6fa-4155-ba85-f98f491d4f33}'

echo
echo "== the monitoring core on its own: what it makes of each sample device"
"$wine" "$bin/device_probe.exe" | tr -d '\r'

echo
echo "== a WMI client: list the devices, watch an event, call a method, see a device leave"
"$wine" "$bin/wmi_client.exe" \
    list Win32ext_WPD strId strFriendlyName strManufacturer strDisk1Name strDisk2Name \; \
    subscribe "SELECT * FROM Win32ext_WPDEvent" \; \
    wpd-put "$galaxy" s10001 hello.txt \; \
    wait 3 \; \
    call Win32ext_WPD SetDebugLevel uint32DebugLevel=#0 \; \
    call Win32ext_WPD SetDebugLevel uint32DebugLevel=#5 \; \
    simulate-removal "$lumia" \; \
    list Win32ext_WPD strFriendlyName | tr -d '\r'

echo
echo "== the same module code at trace level 1, as DebugView shows it"
"$wine" "$bin/debug_view.exe" "$("$wine" winepath -w "$bin/trace_probe.exe" 2>/dev/null | tr -d '\r')" lifecycle |
    tr -d '\r'
