#!/usr/bin/env bash
# The release folder holds what an installation needs, and the DLL in it is the one just built:
#   release_layout_test.sh RELEASE_DIR BUILT_DLL
set -euo pipefail
release=$1
dll=$2
status=0
for file in dorwex_wpd_provider.dll dorwex_wpd_provider.mof install.ps1 uninstall.ps1 Assert-Elevated.ps1 README.md \
            docs/security.md docs/wmi-reference.md docs/architecture.md docs/emulated-environment.md \
            examples/README.md examples/cpp/wpd_consumer.cpp examples/powershell/Get-WpdDevice.ps1 \
            examples/powershell/Copy-ToWpdDevice.ps1 examples/powershell/Watch-WpdEvent.ps1 \
            examples/powershell/Set-WpdTraceLevel.ps1; do
    if [ -s "$release/$file" ]; then
        echo "present: $file"
    else
        echo "missing: $file"
        status=1
    fi
done
cmp -s "$dll" "$release/dorwex_wpd_provider.dll" || { echo "the release DLL is not the built one"; status=1; }
# The install script registers, compiles the MOF and checks the classes; the uninstall script undoes it.
grep -q 'regsvr32.exe' "$release/install.ps1" && grep -q 'mofcomp.exe' "$release/install.ps1" &&
    grep -q 'Get-CimInstance -Namespace root\\cimv2 -ClassName Win32ext_WPD' "$release/install.ps1" ||
    { echo "install.ps1 lacks a step"; status=1; }
grep -q "'/u'" "$release/uninstall.ps1" || { echo "uninstall.ps1 does not unregister"; status=1; }
for script in install.ps1 uninstall.ps1; do
    grep -q '^Assert-Elevated ' "$release/$script" || { echo "$script does not check elevation"; status=1; }
done
exit $status
