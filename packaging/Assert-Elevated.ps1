# Dot-sourced by install.ps1 and uninstall.ps1: both change machine-wide registrations.
function Assert-Elevated([string] $Reason) {
    $principal = New-Object Security.Principal.WindowsPrincipal([Security.Principal.WindowsIdentity]::GetCurrent())
    if (-not $principal.IsInRole([Security.Principal.WindowsBuiltInRole]::Administrator)) {
        throw "$Reason must run elevated (Run as administrator)."
    }
}
