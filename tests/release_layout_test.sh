#!/usr/bin/env bash
# The release folder holds what an administrator needs, and the DLL in it is the one just built:
#   release_layout_test.sh RELEASE_DIR BUILT_DLL msi|no-msi
# (no-msi: the build had no wixl, so it made no installer package.)
set -euo pipefail
release=$1
dll=$2
package=$3
status=0
files=(dorwex_wpd_provider.dll dorwex_wpd_provider.mof dorwex_wpd_provider_uninstall.mof acceptance.ps1 README.md
       docs/security.md docs/wmi-reference.md docs/architecture.md docs/emulated-environment.md
       examples/README.md examples/cpp/wpd_consumer.cpp examples/powershell/Get-WpdDevice.ps1
       examples/powershell/Copy-ToWpdDevice.ps1 examples/powershell/Watch-WpdEvent.ps1
       examples/powershell/Set-WpdTraceLevel.ps1)
if [ "$package" = msi ]; then
    files+=(dorwex_wpd_provider.msi)
fi
for file in "${files[@]}"; do
    if [ -s "$release/$file" ]; then
        echo "present: $file"
    else
        echo "missing: $file"
        status=1
    fi
done
cmp -s "$dll" "$release/dorwex_wpd_provider.dll" || { echo "the release DLL is not the built one"; status=1; }
exit $status
