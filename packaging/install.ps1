# Installs the dorWEX WPD WMI provider on this machine: registers the COM server, compiles its MOF into
# root\cimv2 and checks that WMI answers for Win32ext_WPD. Run from the release folder, elevated:
#   powershell -ExecutionPolicy Bypass -File install.ps1
[CmdletBinding()]
param(
    # Where the DLL is copied to; the WMI service loads it from there.
    [string] $Destination = (Join-Path $env:ProgramFiles 'dorWEX\WPD Provider')
)
$ErrorActionPreference = 'Stop'

. (Join-Path $PSScriptRoot 'Assert-Elevated.ps1')
Assert-Elevated 'install.ps1 (it registers a COM server and a WMI provider)'
if (-not [Environment]::Is64BitOperatingSystem -or -not [Environment]::Is64BitProcess) {
    throw 'The provider is a 64-bit DLL: run install.ps1 from 64-bit PowerShell on 64-bit Windows.'
}

$here = Split-Path -Parent $MyInvocation.MyCommand.Path
$dll = Join-Path $here 'dorwex_wpd_provider.dll'
$mof = Join-Path $here 'dorwex_wpd_provider.mof'
foreach ($file in @($dll, $mof)) {
    if (-not (Test-Path $file)) { throw "missing from the release folder: $file" }
}

New-Item -ItemType Directory -Force -Path $Destination | Out-Null
Copy-Item -Force $dll, $mof -Destination $Destination
$installedDll = Join-Path $Destination 'dorwex_wpd_provider.dll'
$installedMof = Join-Path $Destination 'dorwex_wpd_provider.mof'

Write-Host "registering $installedDll"
$regsvr = Start-Process -FilePath "$env:SystemRoot\System32\regsvr32.exe" -ArgumentList '/s', "`"$installedDll`"" -Wait -PassThru
if ($regsvr.ExitCode -ne 0) { throw "regsvr32 failed with exit code $($regsvr.ExitCode)" }

Write-Host "compiling $installedMof"
& "$env:SystemRoot\System32\wbem\mofcomp.exe" $installedMof
if ($LASTEXITCODE -ne 0) { throw "mofcomp failed with exit code $LASTEXITCODE" }

# WMI loads the provider on the first request: an empty list is fine, an error is not.
$devices = @(Get-CimInstance -Namespace root\cimv2 -ClassName Win32ext_WPD -ErrorAction Stop)
Write-Host "Win32ext_WPD answers: $($devices.Count) portable device(s) attached"
Get-CimClass -Namespace root\cimv2 -ClassName Win32ext_WPDEvent -ErrorAction Stop | Out-Null
Write-Host 'installed'
