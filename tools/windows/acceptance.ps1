# Acceptance check on a real Windows machine (it cannot run under Wine): installs the MSI, checks the
# registration WMI and COM hold, lists Win32ext_WPD, calls SetDebugLevel, subscribes to Win32ext_WPDEvent
# for a few seconds, uninstalls and checks that nothing of the provider is left. Prints PASS or FAIL per
# step and exits 1 when a step failed. Run elevated, from 64-bit PowerShell:
#   powershell -ExecutionPolicy Bypass -File acceptance.ps1 [-Msi dorwex_wpd_provider.msi] [-EventSeconds 5]
[CmdletBinding()]
param(
    [string] $Msi = (Join-Path $PSScriptRoot 'dorwex_wpd_provider.msi'),
    [int] $EventSeconds = 5
)
$ErrorActionPreference = 'Stop'
$clsid = '{5C2F4E1A-7B3D-4E8A-9D61-2A4F0B7C3E91}'
$providerName = 'Win32ext_WPD_Provider'
$installDir = Join-Path $env:ProgramFiles 'dorWEX\WPD Provider'
$failures = 0

function Step([string] $Name, [scriptblock] $Check) {
    try {
        $detail = & $Check
        Write-Host "PASS $Name $detail"
    } catch {
        $script:failures++
        Write-Host "FAIL $Name $($_.Exception.Message)"
    }
}

function Invoke-Msiexec([string[]] $Arguments) {
    $process = Start-Process -FilePath "$env:SystemRoot\System32\msiexec.exe" -ArgumentList $Arguments -Wait -PassThru
    if ($process.ExitCode -ne 0) { throw "msiexec $($Arguments[0]) exited with $($process.ExitCode)" }
}

$principal = New-Object Security.Principal.WindowsPrincipal([Security.Principal.WindowsIdentity]::GetCurrent())
if (-not $principal.IsInRole([Security.Principal.WindowsBuiltInRole]::Administrator) -or -not [Environment]::Is64BitProcess) {
    Write-Host 'FAIL prerequisites: run elevated from 64-bit PowerShell'
    exit 1
}
$msiPath = (Resolve-Path $Msi).Path
$log = Join-Path $env:TEMP 'dorwex_wpd_provider-acceptance.log'

Step 'install' {
    Invoke-Msiexec @('/i', "`"$msiPath`"", '/qn', '/norestart', '/l*v', "`"$log`"")
    "log $log"
}
Step 'provider registered' {
    $provider = Get-CimInstance -Namespace root\cimv2 -ClassName __Win32Provider -Filter "Name='$providerName'"
    if (-not $provider) { throw 'no __Win32Provider' }
    if ($provider.CLSID -ne $clsid) { throw "CLSID $($provider.CLSID)" }
    foreach ($registration in '__InstanceProviderRegistration', '__MethodProviderRegistration', '__EventProviderRegistration') {
        $found = Get-CimInstance -Namespace root\cimv2 -ClassName $registration |
            Where-Object { "$($_.Provider)" -match $providerName }
        if (-not $found) { throw "no $registration" }
    }
    $server = Get-ItemProperty "Registry::HKEY_LOCAL_MACHINE\Software\Classes\CLSID\$clsid\InprocServer32"
    if ($server.'(default)' -ne (Join-Path $installDir 'dorwex_wpd_provider.dll')) { throw "InprocServer32 $($server.'(default)')" }
    if ($server.ThreadingModel -ne 'Both') { throw "ThreadingModel $($server.ThreadingModel)" }
    "HostingModel $($provider.HostingModel)"
}
Step 'list Win32ext_WPD' {
    $devices = @(Get-CimInstance -Namespace root\cimv2 -ClassName Win32ext_WPD)
    "$($devices.Count) device(s)"
}
Step 'SetDebugLevel' {
    $result = Invoke-CimMethod -Namespace root\cimv2 -ClassName Win32ext_WPD -MethodName SetDebugLevel -Arguments @{ uint32DebugLevel = [uint32]1 }
    Invoke-CimMethod -Namespace root\cimv2 -ClassName Win32ext_WPD -MethodName SetDebugLevel -Arguments @{ uint32DebugLevel = [uint32]0 } | Out-Null
    "ReturnValue $($result.ReturnValue)"
}
Step 'subscribe to Win32ext_WPDEvent' {
    Register-CimIndicationEvent -Namespace root\cimv2 -ClassName Win32ext_WPDEvent -SourceIdentifier DorwexAcceptance
    try {
        $event = Wait-Event -SourceIdentifier DorwexAcceptance -Timeout $EventSeconds
        "subscribed for $EventSeconds s, $(if ($event) { 'an event arrived' } else { 'no event (none expected without a device change)' })"
    } finally {
        Unregister-Event -SourceIdentifier DorwexAcceptance
    }
}
Step 'uninstall' {
    Invoke-Msiexec @('/x', "`"$msiPath`"", '/qn', '/norestart', '/l*v', "`"$log.uninstall`"")
}
Step 'nothing left' {
    foreach ($class in 'Win32ext_WPD', 'Win32ext_WPDEvent') {
        if (Get-CimClass -Namespace root\cimv2 -ClassName $class -ErrorAction SilentlyContinue) { throw "class $class" }
    }
    if (Get-CimInstance -Namespace root\cimv2 -ClassName __Win32Provider -Filter "Name='$providerName'") { throw '__Win32Provider' }
    foreach ($registration in '__InstanceProviderRegistration', '__MethodProviderRegistration', '__EventProviderRegistration') {
        if (Get-CimInstance -Namespace root\cimv2 -ClassName $registration | Where-Object { "$($_.Provider)" -match $providerName }) {
            throw $registration
        }
    }
    if (Test-Path "Registry::HKEY_LOCAL_MACHINE\Software\Classes\CLSID\$clsid") { throw 'CLSID key' }
    if (Test-Path $installDir) { throw $installDir }
}

if ($failures -gt 0) {
    Write-Host "$failures step(s) failed"
    exit 1
}
Write-Host 'all steps passed'
