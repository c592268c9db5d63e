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
        $line = '{0:u} {1} {2} on {3}' -f $arrived.TimeGenerated, $wpd.strEventId, $wpd.strObjectName, $wpd.strObjectDeviceId
        # A companion's write report names the writing process where WPD events have the persistent unique id.
        if ($wpd.strEventId -eq '{A726DA95-E207-4B02-8D44-BEF2E86CBFFC}') {
            $line += ' (written by process {0})' -f $wpd.strObjectDevicePersistentUniqueId
        }
        $line
        Remove-Event -EventIdentifier $arrived.EventIdentifier
    }
}
finally {
    Unregister-Event -SourceIdentifier $id
}
