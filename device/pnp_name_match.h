// Whether a device node's instance id and a device-interface name denote the same device. Pure logic, no
// Windows headers.
//
// Both texts are upper-cased (ASCII letters), every "#" and every "\" becomes "~", and the shorter is looked
// for in the longer as whole components: an interface name such as \\?\USB#VID_04E8&PID_6860#R58M#{6ac27878-...}
// contains the instance id USB\VID_04E8&PID_6860\R58M once both are written alike, and a volume's name
// contains its disk's id after "_??_". An id is never found inside a longer component: ...\R58M does not
// match ...#R58M1#.
#pragma once

#include <string>
#include <string_view>

namespace dorwex {

std::wstring NormalizeDeviceName(std::wstring_view name);
bool DeviceNamesMatch(std::wstring_view instanceId, std::wstring_view interfaceName);

// Whether a device name names exactly this node: written alike, it is the instance id itself, after an
// optional "\\?\", "\??\" or "\\.\" and before an optional interface class "#{...}" (with whatever
// follows it). Unlike DeviceNamesMatch, nothing else may stand around the id.
bool NameIsOfInstance(std::wstring_view instanceId, std::wstring_view deviceName);

}  // namespace dorwex

namespace dorwex {

// The serial number a USB device node carries as the last part of its instance id
// (USB\VID_04E8&PID_6860\R58M123 gives R58M123). A last part holding "&" was made up by the system for a
// device without a serial number, or is the interface number of a composite device's function: empty then.
std::wstring SerialNumberFromInstanceId(std::wstring_view instanceId);

// The port number a location text names between its last "(" and its last ")"; 0 when there is none.
int PortFromLocationText(std::wstring_view locationText);

}  // namespace dorwex
