#!/usr/bin/env bash
# Clients nobody here wrote, against the provider behind the emulated WMI service: Wine's wmic lists the
# Win32ext_WPD instances, and a VBScript run by Wine's cscript goes through the WMI scripting API
# ("winmgmts:") to list the devices, call a method and read its ReturnValue, and report a refused call.
# Then the C++ consumer example of examples/cpp.
#   real_clients_test.sh PREFIX BIN-DIR SAMPLES-DIR WORK-DIR
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
. "$here/../../tools/wine/env.sh"
prefix=$1
bin=$2
samples=$3
work=$4
dorwex_wine_environment "$prefix"
wine=$(dorwex_find_wine)
fail() {
    echo "FAIL: $*"
    exit 1
}
expect_line() {  # expect_line TEXT PATTERN WHAT
    grep -Eq "$2" <<<"$1" || fail "$3"
}

dorwex_regsvr32 "$bin/dorwex_wpd_provider.dll" || fail "regsvr32 of the provider returned $?"
dorwex_regsvr32 "$bin/dorwex_wmi_emulator.dll" || fail "regsvr32 of the WMI service returned $?"
rm -rf "$work" && mkdir -p "$work" && cp -r "$samples" "$work/devices"
export DORWEX_WPD_DEVICES
DORWEX_WPD_DEVICES=$(dorwex_winpath "$work/devices")

# wmic writes UTF-16 with a byte-order mark when its output is a file.
"$wine" wmic path Win32ext_WPD get strFriendlyName,strManufacturer >"$work/wmic.out" 2>"$work/wmic.err" ||
    fail "wmic returned $?: $(cat "$work/wmic.err")"
listing=$(iconv -f UTF-16 -t UTF-8 "$work/wmic.out" | tr -d '\r' | sed 's/ *$//')
echo "$listing"
header=$(head -n 1 <<<"$listing")
# As from Windows WMI: the system properties, then the selected ones, and nothing else.
expect_line "$header" '^__GENUS +__CLASS +__SUPERCLASS +__DYNASTY +__RELPATH +__PROPERTY_COUNT +__DERIVATION +__SERVER +__NAMESPACE +__PATH +strFriendlyName +strManufacturer$' \
    "wmic's columns: $header"
rows=$(tail -n +2 <<<"$listing" | grep -c .) || true
[ "$rows" = 4 ] || fail "wmic listed $rows devices, not the four portable ones (the USB stick is no portable device)"
expect_line "$listing" '^2 +Win32ext_WPD +Win32ext_WPD +2 +\{\} +[^ ]+ +ROOT\\CIMV2 +Galaxy S9 +SAMSUNG Electronics Co\., Ltd\.$' \
    "the Galaxy row"
expect_line "$listing" ' Apple iPhone +Apple Inc\.$' "the iPhone row"
expect_line "$listing" ' Lumia 950 +NOKIA$' "the Lumia row"
expect_line "$listing" ' BLACKBERRY_2A3B4C5D +Research In Motion$' "the BlackBerry row"

# A property the class does not have: wmic checks the class first and gives up.
if "$wine" wmic path Win32ext_WPD get strNoSuchProperty >"$work/wmic-bad.out" 2>"$work/wmic-bad.err"; then
    fail "wmic accepted a property that Win32ext_WPD does not have"
fi

script=$("$wine" cscript //nologo "$(dorwex_winpath "$here/real_clients.vbs")" 2>"$work/cscript.err" | tr -d '\r') ||
    fail "cscript returned $?: $(cat "$work/cscript.err")"
echo "$script"
expect_line "$script" '^device: Galaxy S9 \| SAMSUNG Electronics Co\., Ltd\. \| Phone$' "the script's Galaxy"
expect_line "$script" '^device: Apple iPhone \| Apple Inc\. \| Internal Storage$' "the script's iPhone"
[ "$(grep -c '^device: ' <<<"$script")" = 4 ] || fail "the script did not see four devices"
expect_line "$script" '^ReturnValue: DCIM@[^@]+@DIR~$' "EnumerateDevicePath's ReturnValue through the scripting API"
expect_line "$script" '^error: 80004005 Invalid PID specified when requesting a write token\.$' \
    "the refused RequestWriteToken and its reason"
expect_line "$script" '^static: \[\]$' "SetDebugLevel called on the class bound by its moniker"
# The C++ consumer example (IWbemServices directly): lists, copies a file onto the first device with a
# write token, and receives the write event.
echo "from the example" >"$work/example.txt"
example=$("$wine" "$bin/wpd_consumer.exe" "$(dorwex_winpath "$work/example.txt")" 5 2>&1 | tr -d '\r') ||
    fail "wpd_consumer returned $?: $example"
echo "$example"
expect_line "$example" '^4 device\(s\)$' "the example's device count"
expect_line "$example" '^write token: [0-9a-f-]{36}$' "the example's write token"
expect_line "$example" '^copied to Phone\\example.txt on Lumia 950: ReturnValue 1$' "the example's copy"
expect_line "$example" '^event: WPD_EVENT_OBJECT_ADDED example.txt on ' "the example's write event"
cmp -s "$work/example.txt" "$work/devices/lumia/example.txt" || fail "the copied file is not on the device"
echo "wmic, cscript and the C++ consumer example answered as from Windows WMI"
