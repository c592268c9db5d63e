# Removes the dorWEX WPD WMI provider: deletes its WMI classes and registrations, unregisters the COM
# server and removes the installed files. Run elevated:
#   powershell -ExecutionPolicy Bypass -File uninstall.ps1
[CmdletBinding()]
param(
    [string] $Destination = (Join-Path $env:ProgramFiles 'dorWEX\WPD Provider')
)
$ErrorActionPreference = 'Stop'

. (Join-Path $PSScriptRoot 'Assert-Elevated.ps1')
Assert-Elevated 'uninstall.ps1'

# The classes first, then the provider's registrations, so WMI no longer routes to the DLL.
foreach ($class in @('Win32ext_WPDEvent', 'Win32ext_WPD')) {
    $existing = Get-CimClass -Namespace root\cimv2 -ClassName $class -ErrorAction SilentlyContinue
    if ($existing) {
        Write-Host "deleting class $class"
        ([wmiclass]"\\.\root\cimv2:$class").Delete()
    }
}
Get-CimInstance -Namespace root\cimv2 -ClassName __Win32Provider -Filter "Name='Win32ext_WPD_Provider'" -ErrorAction SilentlyContinue |
    Remove-CimInstance

$installedDll = Join-Path $Destination 'dorwex_wpd_provider.dll'
if (Test-Path $installedDll) {
    Write-Host "unregistering $installedDll"
    $regsvr = Start-Process -FilePath "$env:SystemRoot\System32\regsvr32.exe" -ArgumentList '/s', '/u', "`"$installedDll`"" -Wait -PassThru
    if ($regsvr.ExitCode -ne 0) { Write-Warning "regsvr32 /u exited with $($regsvr.ExitCode)" }
    # The WMI provider host may still hold the DLL: it goes when the host does.
    Remove-Item -Recurse -Force $Destination -ErrorAction SilentlyContinue
}
Write-Host 'uninstalled'
