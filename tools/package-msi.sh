#!/usr/bin/env bash
# Builds the Windows Installer package dorwex_wpd_provider.msi with wixl (Debian's msitools) from
# packaging/dorwex_wpd_provider.wxs:
#   package-msi.sh --bin DIR --output FILE [--version X.Y.Z] [--mof FILE]
# DIR holds the built dorwex_wpd_provider.dll and dorwex_msi_actions.dll (which carries the uninstall MOF).
# The version defaults to the project's (the VERSION of project() in CMakeLists.txt); the MOF to the
# provider's own, wmi/dorwex_wpd_provider.mof.
# With a certificate in the environment (tools/sign.sh) both DLLs and the package are signed.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
bin=""
output=""
version=""
mof="$root/wmi/dorwex_wpd_provider.mof"
while [ $# -gt 0 ]; do
    case "$1" in
    --bin) bin=$2; shift 2 ;;
    --output) output=$2; shift 2 ;;
    --version) version=$2; shift 2 ;;
    --mof) mof=$2; shift 2 ;;
    *) echo "package-msi.sh: unknown argument $1" >&2; exit 2 ;;
    esac
done
if [ -z "$bin" ] || [ -z "$output" ]; then
    echo "usage: package-msi.sh --bin DIR --output FILE [--version X.Y.Z] [--mof FILE]" >&2
    exit 2
fi
for tool in wixl msibuild msiinfo; do
    command -v "$tool" >/dev/null || { echo "package-msi.sh: $tool not found (apt-get install wixl msitools)" >&2; exit 1; }
done
if [ -z "$version" ]; then
    version=$(sed -n 's/^project([^)]*VERSION \([0-9.]*\).*/\1/p' "$root/CMakeLists.txt" | head -n 1)
fi
[[ "$version" =~ ^[0-9]+\.[0-9]+\.[0-9]+$ ]] || { echo "package-msi.sh: version '$version' is not X.Y.Z" >&2; exit 1; }
clsid=$(grep -o '{[0-9A-Fa-f-]*}' "$root/wmi/provider_clsid.h" | head -n 1)
[ -n "$clsid" ] || { echo "package-msi.sh: no CLSID in wmi/provider_clsid.h" >&2; exit 1; }
for file in "$bin/dorwex_wpd_provider.dll" "$bin/dorwex_msi_actions.dll" "$mof"; do
    [ -s "$file" ] || { echo "package-msi.sh: missing $file" >&2; exit 1; }
done

mkdir -p "$(dirname "$output")"
output=$(realpath "$output")
partial="$output.partial"
rm -f "$partial"
# wixl 0.101 finds sources only by relative names: it runs in a folder that holds them.
stage=$(mktemp -d)
trap 'rm -rf "$stage"; rm -f "$partial"' EXIT
cp "$bin/dorwex_wpd_provider.dll" "$bin/dorwex_msi_actions.dll" "$stage/"
cp "$mof" "$stage/provider.mof"
# With a certificate in the environment the DLLs are signed before they are packed (tools/sign.sh).
bash "$root/tools/sign.sh" "$stage/dorwex_wpd_provider.dll" "$stage/dorwex_msi_actions.dll"
(cd "$stage" && wixl -a x64 -o "$partial" \
    -D Version="$version" -D Clsid="$clsid" \
    -D ProviderDll=dorwex_wpd_provider.dll -D ActionsDll=dorwex_msi_actions.dll \
    -D ProviderMof=provider.mof \
    "$root/packaging/dorwex_wpd_provider.wxs")

# wixl 0.101 writes Execute="rollback" as a plain deferred action: the two rollback actions get their
# rollback bit (msidbCustomActionTypeRollback, 0x100) here. 3073 = DLL in the Binary table (1) + in-script
# (0x400) + no impersonation (0x800).
for action in RollbackCompileMof RollbackRemoveClasses; do
    type=$(msiinfo export "$partial" CustomAction | awk -F'\t' -v a="$action" '$1 == a { print $2 }')
    [ "$type" = 3073 ] || { echo "package-msi.sh: $action has type '$type', expected 3073" >&2; exit 1; }
    msibuild "$partial" -q "UPDATE CustomAction SET Type = 3329 WHERE Action = '$action'"
done
bash "$root/tools/sign.sh" "$partial"
mv -f "$partial" "$output"
echo "package-msi.sh: $output (version $version)"
