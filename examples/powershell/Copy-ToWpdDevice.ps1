<#
.SYNOPSIS
    Copies a local file onto a portable device through the dorWEX WPD provider: obtains a write token for
    this PowerShell process, then calls CopyFileToDevice with it.
.DESCRIPTION
    A write token is only handed to the process that asks for it, and the provider learns who asks from the
    call's context value dorWEXWPDClientPID. Invoke-CimMethod has no parameter for context values; the
    CimSession method it is built on takes them as custom operation options, which WMI passes to the
    provider as its IWbemContext. The copy carries the same context.
.EXAMPLE
    .\Copy-ToWpdDevice.ps1 -Path C:\Reports\q3.pdf -DeviceId $device.strId -StoragePath 'Phone\Documents\q3.pdf'
#>
[CmdletBinding()]
param(
    [Parameter(Mandatory)] [string] $Path,
    [Parameter(Mandatory)] [string] $DeviceId,
    # Storage name, folders and file name on the device, separated by backslashes.
    [Parameter(Mandatory)] [string] $StoragePath
)
$ErrorActionPreference = 'Stop'

$session = New-CimSession
try {
    $options = [Microsoft.Management.Infrastructure.Options.CimOperationOptions]::new()
    $options.SetCustomOption('dorWEXWPDClientPID', [uint32]$PID, [Microsoft.Management.Infrastructure.CimType]::UInt32, $true)

    function Invoke-WpdMethod([string] $Method, [hashtable] $Arguments) {
        $parameters = [Microsoft.Management.Infrastructure.CimMethodParametersCollection]::new()
        foreach ($name in $Arguments.Keys) {
            $parameters.Add([Microsoft.Management.Infrastructure.CimMethodParameter]::Create(
                $name, $Arguments[$name], [Microsoft.Management.Infrastructure.CimFlags]::In))
        }
        $result = $session.InvokeMethod('root\cimv2', 'Win32ext_WPD', $Method, $parameters, $options)
        $result.ReturnValue.Value
    }

    $token = Invoke-WpdMethod RequestWriteToken @{ uint32ProcessId = [uint32]$PID }
    Write-Verbose "write token $token"
    $copied = Invoke-WpdMethod CopyFileToDevice @{
        strObjectStoragePath = $StoragePath
        strFileToCopy        = (Resolve-Path -LiteralPath $Path).ProviderPath
        strWriteToken        = $token
        strObjectDeviceId    = $DeviceId
    }
    if ($copied -ne '1') {
        throw "CopyFileToDevice answered '$copied'"
    }
    "copied $Path to $StoragePath"
}
finally {
    Remove-CimSession $session
}
# A refused call (a token for another process, a file the caller cannot read) raises a CimException whose
# ErrorData holds the provider's __ExtendedStatus; its Description property gives the reason.
