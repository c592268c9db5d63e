#!/usr/bin/env bash
# The whole story in one run: builds the provider, brings up the emulated host in a Wine prefix (the
# provider registered with regsvr32, the emulated WMI service and portable-device stack standing in for
# what Wine lacks), attaches an Android phone and an iPhone, and then, as a management client through WMI
# (the client, the WMI service and the provider host in three processes, as on Windows): lists them, shows
# the three processes, obtains a write token and copies a file onto the phone with it, sees the write event,
# and ejects the phone. Wine's own wmic lists the devices too, through the same service and host, and the module's traces are shown as a debugger
# (DebugView) receives them. After the build, the story takes well under a minute.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
"$root/tools/install-deps.sh"
"$root/tools/build.sh" >/dev/null
. "$root/tools/wine/env.sh"
prefix="$root/build/win/wineprefix"
bin="$root/build/win/bin"
story="$root/build/win/main-job"
started=$(date +%s)
bash "$root/tools/wine/prefix.sh" up "$prefix"
trap 'bash "$root/tools/wine/prefix.sh" down "$prefix" >/dev/null' EXIT
dorwex_wine_environment "$prefix"
wine=$(dorwex_find_wine)
clsid=$(sed -n 's/.*DORWEX_PROVIDER_CLSID_TEXT L"\({[^"]*}\)".*/\1/p' "$root/wmi/provider_clsid.h")

echo
echo "== the emulated host: the provider registered as on Windows, and the stand-ins for what Wine lacks"
dorwex_regsvr32 "$bin/dorwex_wpd_provider.dll"
"$wine" reg query "HKLM\\Software\\Classes\\CLSID\\$clsid" /s | tr -d '\r' | grep -v '^$'
dorwex_regsvr32 "$bin/dorwex_wpd_emulator.dll"
dorwex_regsvr32 "$bin/dorwex_wmi_emulator.dll"

# Two devices attached: an Android phone and an iPhone, copied from the samples so that what the run
# writes onto them stays in the build tree. The file to copy onto the phone is a local one.
rm -rf "$story" && mkdir -p "$story/devices" "$story/files"
for device in galaxy iphone; do
    cp -r "$root/emulator/samples/$device" "$root/emulator/samples/$device.wpd" "$story/devices/"
done
echo "quarterly figures" >"$story/files/report.txt"
export DORWEX_WPD_DEVICES
DORWEX_WPD_DEVICES=$(dorwex_winpath "$story/devices")
galaxy='\\?\usb#vid_04e8&pid_6860&mi_00#7&2a8f3e1&0&0000#{6ac27878-a6fa-4155-ba85-f98f491d4f33}'
echo "attached: $(cd "$story/devices" && ls ./*.wpd | sed 's|^\./||' | tr '\n' ' ')"

# As on Windows, the client, the WMI service and the provider host run in three processes: the first
# client's connection starts the service, and the service starts the provider host.
export DORWEX_WMI_SERVICE=shared

echo
echo "== a management client through WMI (wmi_client): list, write token, copy, write event, eject"
# {pid} is the client's own process id: a write token is only for the process named in the call's context.
# {return} is the previous call's ReturnValue, here the token. The provider cannot eject a device that
# Wine's Plug and Play does not know, so EjectDevice answers "0"; the removal that Windows sends once a
# device is ejected is then sent as the system would.
"$wine" "$bin/wmi_client.exe" \
    list Win32ext_WPD strId strFriendlyName strManufacturer strDisk1Name \; \
    processes \; \
    subscribe "SELECT * FROM Win32ext_WPDEvent" \; \
    call Win32ext_WPD RequestWriteToken 'uint32ProcessId=#{pid}' --context 'dorWEXWPDClientPID=#{pid}' \; \
    call Win32ext_WPD CopyFileToDevice 'strObjectStoragePath=Phone\report.txt' \
        "strFileToCopy=$(dorwex_winpath "$story/files/report.txt")" 'strWriteToken={return}' \
        "strObjectDeviceId=$galaxy" --context 'dorWEXWPDClientPID=#{pid}' \; \
    wait 3 \; \
    call Win32ext_WPD EnumerateDevicePath strObjectStoragePath=Phone "strObjectDeviceId=$galaxy" \
        'uint32ContentType=#0' \; \
    call Win32ext_WPD EjectDevice "strObjectDeviceId=$galaxy" \; \
    simulate-removal "$galaxy" \; \
    list Win32ext_WPD strFriendlyName | tr -d '\r'

echo
echo "== Wine's own wmic, a client nobody here wrote"
"$wine" wmic path Win32ext_WPD get strFriendlyName,strManufacturer >"$story/wmic.out" 2>/dev/null
iconv -f UTF-16 -t UTF-8 "$story/wmic.out" | tr -d '\r' | sed 's/ *$//' |
    awk 'NR == 1 { print "strFriendlyName, strManufacturer"; next } { sub(/^.*ROOT\\CIMV2 +/, ""); print }'
echo "(after the ten system properties, __GENUS to __PATH, that come first as from Windows WMI;"
echo " wmic reaches the same service and provider host, so the ejected phone is gone here too)"

echo
echo "== the same module code at trace level 1, as DebugView shows it"
"$wine" "$bin/debug_view.exe" "$(dorwex_winpath "$bin/trace_probe.exe")" lifecycle | tr -d '\r'

echo
echo "story told in $(($(date +%s) - started)) s (after the build)"
