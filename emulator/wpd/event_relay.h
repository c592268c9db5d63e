// A device is one device for the machine: the objects one process's stack adds or removes raise their
// events in every process of the prefix that advised on the device, as a driver's events reach every
// application. The stacks meet through the events journal of their devices directory (see
// docs/emulated-environment.md, "Object events across processes").
#pragma once

#include <windows.h>

#include <string>

#include "emulated_device.h"

namespace dorwex::emulator {

// Raises an object event (added, removed) to this process's subscribers of the device, and has the stack of
// every other listening process raise it to its own, with the ids that process gives the object.
void RaiseObjectEvent(EmulatedDevice& device, REFGUID event, const ObjectInfo& object);

// From now on this process raises the object events the other processes' stacks make on the devices of
// directory. Called when a client first advises on one of them; the process listens until it ends.
void ListenToOtherProcesses(const std::wstring& directory);

}  // namespace dorwex::emulator
