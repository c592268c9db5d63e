<#
.SYNOPSIS
    Prints the provider's Win32ext_WPDEvent notifications (files written to, copied from or deleted on a
    portable device) until Ctrl+C.
.EXAMPLE
    .\Watch-WpdEvent.ps1
    .\Watch-WpdEvent.ps1 -Query "SELECT * FROM Win32ext_WPDEvent WHERE strEventId = 'WPD_EVENT_OBJECT_ADDED'"
#>
[CmdletBinding()]
param(
    [string] $Query = 'SELECT * FROM Win32ext_WPDEvent'
)

$id = 'dorWEX.WPD.' + [guid]::NewGuid()
Register-CimIndicationEvent -Namespace root\cimv2 -Query $Query -SourceIdentifier $id
try {
    while ($true) {
        $arrived = Wait-Event -SourceIdentifier $id
        $wpd = $arrived.SourceEventArgs.NewEvent
        '{0:u} {1} {2} on {3} (process {4})' -f $arrived.TimeGenerated, $wpd.strEventId, $wpd.strObjectName,
            $wpd.strDeviceName, $wpd.strPID
        Remove-Event -EventIdentifier $arrived.EventIdentifier
    }
}
finally {
    Unregister-Event -SourceIdentifier $id
}
