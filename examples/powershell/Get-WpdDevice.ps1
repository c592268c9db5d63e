<#
.SYNOPSIS
    Lists the portable devices the dorWEX WPD provider sees: one Win32ext_WPD instance per attached phone,
    camera or media player.
.EXAMPLE
    .\Get-WpdDevice.ps1
    .\Get-WpdDevice.ps1 | Where-Object strManufacturer -like 'Apple*'
#>
[CmdletBinding()]
param()

Get-CimInstance -Namespace root\cimv2 -ClassName Win32ext_WPD |
    Select-Object strFriendlyName, strManufacturer, strSerialNumber, strDisk1Name, strDisk2Name, strId
