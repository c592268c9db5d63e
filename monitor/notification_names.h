// Texts derived from device notifications. Pure logic, no Windows headers.
#pragma once

#include <string>

namespace dorwex {

// The named event of the surrounding security service for a device: "dorWEXEvent", the state ("ONLINE" or
// "OFFLINE") and the device interface name, every backslash replaced by a tilde, all upper case (ASCII).
std::wstring MultiFactorEventName(const std::wstring& state, const std::wstring& deviceName);

}  // namespace dorwex
