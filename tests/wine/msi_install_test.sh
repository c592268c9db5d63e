#!/usr/bin/env bash
# The installer package as an administrator uses it, in a fresh Wine prefix that has the emulated WMI
# service and portable-device stack but no provider: msiexec /i installs it (files, COM keys, classes and
# registrations compiled by the custom action), wmi_client lists the devices through it, a newer build
# replaces it, msiexec /x removes it without a trace, and a package whose MOF fails to compile fails and
# leaves nothing behind.
#   msi_install_test.sh WORK-DIR BIN-DIR RELEASE-MSI SAMPLES-DIR
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
root=$(cd "$here/../.." && pwd)
. "$root/tools/wine/env.sh"
work=$1
bin=$2
release_msi=$3
samples=$4
prefix="$work/prefix"
fail() {
    echo "FAIL: $*"
    exit 1
}

rm -rf "$work" && mkdir -p "$work"
# The prefix (some 700 MB) is kept only when the test failed, to look into.
finish() {
    local status=$?
    bash "$root/tools/wine/prefix.sh" down "$prefix" >/dev/null
    [ "$status" != 0 ] || rm -rf "$prefix"
}
trap finish EXIT
bash "$root/tools/wine/prefix.sh" up "$prefix" >/dev/null
dorwex_wine_environment "$prefix"
wine=$(dorwex_find_wine)

# WMI and the portable-device stack as on a machine without the provider: the service's DLL without the
# provider's MOF beside it.
services="$prefix/drive_c/emulated"
mkdir -p "$services"
cp "$bin/dorwex_wmi_emulator.dll" "$bin/dorwex_wpd_emulator.dll" "$services/"
dorwex_regsvr32 "$services/dorwex_wmi_emulator.dll" || fail "registering the emulated WMI service"
dorwex_regsvr32 "$services/dorwex_wpd_emulator.dll" || fail "registering the emulated portable-device stack"
cp -r "$samples" "$work/devices"
export DORWEX_WPD_DEVICES
DORWEX_WPD_DEVICES=$(dorwex_winpath "$work/devices")

# The packages: the build's own, a newer build of the same, and one whose MOF cannot be stored: after the
# provider's registration and classes it declares a class derived from a class that does not exist.
version=$(sed -n 's/^project([^)]*VERSION \([0-9.]*\).*/\1/p' "$root/CMakeLists.txt")
newer="${version%.*}.$((${version##*.} + 1))"
bash "$root/tools/package-msi.sh" --bin "$bin" --output "$work/newer.msi" --version "$newer" >/dev/null
{ cat "$root/wmi/dorwex_wpd_provider.mof"; printf '\nclass Win32ext_WPDBroken : Win32ext_NoSuchClass\n{\n    string s;\n};\n'; } \
    >"$work/broken.mof"
bash "$root/tools/package-msi.sh" --bin "$bin" --output "$work/broken.msi" --mof "$work/broken.mof" >/dev/null

clsid=$(grep -o '{[0-9A-Fa-f-]*}' "$root/wmi/provider_clsid.h" | head -n 1)
class_key="HKLM\\Software\\Classes\\CLSID\\$clsid"
folder="$prefix/drive_c/Program Files/dorWEX/WPD Provider"
installed_dll='C:\Program Files\dorWEX\WPD Provider\dorwex_wpd_provider.dll'
wmi_client="$(dorwex_winpath "$bin/wmi_client.exe")"
repository="$prefix/drive_c/windows/system32/wbem/Repository/dorwex-emulated"

msiexec() {  # msiexec LOG ARGS...: the exit code of Windows Installer, with a verbose log
    local log=$1 status=0
    shift
    "$wine" msiexec "$@" /qn /l*v "$(dorwex_winpath "$work")\\$log" </dev/null >/dev/null 2>&1 || status=$?
    echo "$status"
}
client() { "$wine" "$wmi_client" "$@" 2>&1 | tr -d '\r' || true; }  # its output; the checks read it
log_text() {  # an installer log as UTF-8 text, whether it was written as UTF-16 (with its mark) or ANSI
    if [ "$(head -c 2 "$work/$1" | od -An -tx1 | tr -d ' ')" = fffe ]; then
        iconv -f UTF-16 -t UTF-8 "$work/$1" | tr -d '\r'
    else
        tr -d '\r' <"$work/$1"
    fi
}
product_entries() {  # the Uninstall entries of the product, by DisplayVersion
    "$wine" reg query 'HKLM\Software\Microsoft\Windows\CurrentVersion\Uninstall' /s 2>/dev/null | tr -d '\r' |
        awk '/^HKEY/ { if (ours && version != "") print version; ours = 0; version = "" }
             /DisplayName.*dorWEX WPD WMI provider/ { ours = 1 }
             /DisplayVersion/ { version = $3 }
             END { if (ours && version != "") print version }'
}

installed() {  # installed VERSION: everything the package puts on the machine is there and works
    local query listing registration
    query=$("$wine" reg query "$class_key" /s | tr -d '\r') || fail "no $class_key"
    grep -Eq '^\s+\(Default\)\s+REG_SZ\s+dorWEX WPD WMI Provider$' <<<"$query" || fail "class description: $query"
    grep -Fq "REG_SZ    $installed_dll" <<<"$query" || fail "InprocServer32 is not $installed_dll: $query"
    grep -Eq '^\s+ThreadingModel\s+REG_SZ\s+Both$' <<<"$query" || fail "ThreadingModel Both: $query"
    cmp -s "$bin/dorwex_wpd_provider.dll" "$folder/dorwex_wpd_provider.dll" || fail "the installed DLL is not the built one"
    cmp -s "$root/wmi/dorwex_wpd_provider.mof" "$folder/dorwex_wpd_provider.mof" || fail "the MOF is not installed"
    registration=$(client query "SELECT * FROM __Win32Provider WHERE Name = 'Win32ext_WPD_Provider'" ";" \
                          query "SELECT * FROM __EventProviderRegistration")
    grep -Fqi "CLSID = $clsid" <<<"$registration" || fail "the provider registration was not compiled: $registration"
    grep -Fq 'Provider = __Win32Provider.Name="Win32ext_WPD_Provider"' <<<"$registration" ||
        fail "the event registration was not compiled: $registration"
    # The classes are there and WMI reaches the provider through the package's COM registration.
    listing=$(client list Win32ext_WPD strFriendlyName)
    echo "$listing"
    grep -q '^(4 instances)$' <<<"$listing" || fail "wmi_client did not list the four sample devices"
    grep -q 'strFriendlyName = Galaxy S9$' <<<"$listing" || fail "the Galaxy is not listed"
    [ "$(product_entries)" = "$1" ] || fail "installed products: '$(product_entries)', expected $1 alone"
}

nothing_left() {  # nothing_left WHAT: no key, file, class or registration of the provider
    local listing registration
    if "$wine" reg query "$class_key" >/dev/null 2>&1; then fail "$1: $class_key is still there"; fi
    [ ! -e "$prefix/drive_c/Program Files/dorWEX" ] || fail "$1: files are left: $(find "$prefix/drive_c/Program Files/dorWEX")"
    # Both classes are unknown (WBEM_E_INVALID_CLASS).
    listing=$(client list Win32ext_WPD ";" list Win32ext_WPDEvent)
    [ "$(grep -c '^list failed: 0x80041010$' <<<"$listing")" = 2 ] || fail "$1: a class is left: $listing"
    registration=$(client query "SELECT * FROM __Win32Provider" ";" query "SELECT * FROM __ProviderRegistration")
    [ "$(grep -c '^(0 instances)$' <<<"$registration")" = 2 ] || fail "$1: registrations are left: $registration"
    [ -z "$(product_entries)" ] || fail "$1: the product is still registered: $(product_entries)"
}

nothing_left "before the installation"

status=$(msiexec install.log /i "$(dorwex_winpath "$release_msi")")
[ "$status" = 0 ] || fail "msiexec /i returned $status: $(log_text install.log | grep -i 'dorWEX\|error')"
grep -Fq 'dorWEX WPD provider: compiled C:\Program Files\dorWEX\WPD Provider\dorwex_wpd_provider.mof' <<<"$(log_text install.log)" ||
    fail "the installer log does not show the compile"
installed "$version"
echo "installed $version"

status=$(msiexec upgrade.log /i "$(dorwex_winpath "$work/newer.msi")")
[ "$status" = 0 ] || fail "the upgrade to $newer returned $status"
# The older version went first (its classes deleted), then the newer one was compiled: the service's
# repository holds the compiles in order. (Wine's msiexec does not write the older version's removal into
# the upgrade's log.)
compiled=("$repository"/*.mof)
[ ${#compiled[@]} = 3 ] || fail "the repository holds ${#compiled[@]} compiles, not install, removal, install"
tail -n +2 "${compiled[1]}" | cmp -s - "$root/wmi/dorwex_wpd_provider_uninstall.mof" ||
    fail "the upgrade did not remove the older version's classes first"
tail -n +2 "${compiled[2]}" | cmp -s - "$root/wmi/dorwex_wpd_provider.mof" || fail "the upgrade did not compile the MOF"
installed "$newer"
echo "upgraded to $newer"

status=$(msiexec uninstall.log /x "$(dorwex_winpath "$work/newer.msi")")
[ "$status" = 0 ] || fail "msiexec /x returned $status"
nothing_left "after msiexec /x"
echo "uninstalled"

status=$(msiexec broken.log /i "$(dorwex_winpath "$work/broken.msi")")
# ERROR_INSTALL_FAILURE (1603); wine64 hands the Windows exit code on as a Unix status, its low byte.
[ "$status" = $((1603 % 256)) ] || fail "the package with a MOF that cannot be stored returned $status, not 1603's low byte"
broken=$(log_text broken.log)
grep -Eq 'dorWEX WPD provider: compiling C:\\Program Files\\dorWEX\\WPD Provider\\dorwex_wpd_provider\.mof failed: CompileFile returned 0x00000001, storing error 0x8004100D in object [0-9]+ \(lines [0-9]+-[0-9]+\)' <<<"$broken" ||
    fail "the installer log lacks the compiler's message: $(grep -i 'dorWEX' <<<"$broken" | head)"
grep -Fq 'dorWEX WPD provider: removed the classes and registrations' <<<"$broken" ||
    fail "the rollback did not compile the uninstall MOF"
nothing_left "after the failed installation"
echo "msiexec installed, upgraded and removed the provider; a MOF that fails rolled the installation back"
