<#
.SYNOPSIS
    Sets the provider's trace level (0 writes nothing; 1 and above write the module's trace lines).
.DESCRIPTION
    The provider writes its trace with OutputDebugString from the WMI provider host (WmiPrvSE.exe), which
    runs as a service in session 0. To read it, start Sysinternals DebugView as administrator and enable
    Capture > Capture Global Win32; the lines begin with the provider's class and method names.
    A provider host that WMI unloads and loads again starts at level 0: set the level again after that.
.EXAMPLE
    .\Set-WpdTraceLevel.ps1 -Level 5
    .\Set-WpdTraceLevel.ps1 -Level 0
#>
[CmdletBinding()]
param(
    [Parameter(Mandatory)] [uint32] $Level
)

$result = Invoke-CimMethod -Namespace root\cimv2 -ClassName Win32ext_WPD -MethodName SetDebugLevel `
    -Arguments @{ uint32DebugLevel = $Level }
"trace level $Level set (ReturnValue '$($result.ReturnValue)')"
