' A management script of the kind administrators write, run by cscript through the WMI scripting API
' ("winmgmts:"): lists the portable devices, lists a folder of one through EnumerateDevicePath, and shows
' the reason WMI reports for a call that is refused.
Option Explicit
Dim services, devices, device, galaxy, wpdClass, inParams, outParams

Set services = GetObject("winmgmts:{impersonationLevel=impersonate}!\\.\root\cimv2")
Set devices = services.ExecQuery("SELECT * FROM Win32ext_WPD")
For Each device In devices
    WScript.Echo "device: " & device.strFriendlyName & " | " & device.strManufacturer & " | " & device.strDisk1Name
    If device.strFriendlyName = "Galaxy S9" Then galaxy = device.strId
Next

' The in-parameters come from the method's definition; Wine's scripting API cannot spawn an instance of
' them, so the definition itself carries the values, which WMI accepts the same way.
Set wpdClass = services.Get("Win32ext_WPD")
Set inParams = wpdClass.Methods_("EnumerateDevicePath").InParameters
inParams.strObjectStoragePath = "Phone"
inParams.strObjectDeviceId = galaxy
inParams.uint32ContentType = 0
Set outParams = services.ExecMethod("Win32ext_WPD", "EnumerateDevicePath", inParams)
WScript.Echo "ReturnValue: " & outParams.ReturnValue

' A write token is only for the process that asks for it, named in the call's context: without that the
' call fails, and the reason comes with the error.
Set inParams = wpdClass.Methods_("RequestWriteToken").InParameters
inParams.uint32ProcessId = 4
On Error Resume Next
Set outParams = wpdClass.ExecMethod_("RequestWriteToken", inParams)
WScript.Echo "error: " & Hex(Err.Number) & " " & Err.Description
On Error GoTo 0

' The way scripts call a static method: bind to the class by its moniker and call the method on the class.
' (Wine's scripting API resolves neither a direct call such as staticClass.SetDebugLevel(0) nor
' Qualifiers_; those two forms are for a Windows host.)
Dim staticClass
Set staticClass = GetObject("winmgmts:root\cimv2:Win32ext_WPD")
Set inParams = staticClass.Methods_("SetDebugLevel").InParameters
inParams.uint32DebugLevel = 0
Set outParams = staticClass.ExecMethod_("SetDebugLevel", inParams)
WScript.Echo "static: [" & outParams.ReturnValue & "]"
