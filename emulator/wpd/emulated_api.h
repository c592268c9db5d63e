// Factories of the emulated portable-device stack's COM objects.
#pragma once

#include <memory>

#include "device/portable_device_api.h"
#include "emulated_device.h"

namespace dorwex::emulator {

HRESULT CreatePortableDeviceManager(REFIID riid, void** ppv);
HRESULT CreatePortableDevice(REFIID riid, void** ppv);
// The Apple companion object of the security service, over the emulated devices.
HRESULT CreateAppleCompanion(REFIID riid, void** ppv);
class DeviceSession;
HRESULT CreateContent(const std::shared_ptr<DeviceSession>& session, IPortableDeviceContent** content_out);

// The error every call on a device gives once the device has gone.
constexpr HRESULT kDeviceGone = HRESULT_FROM_WIN32(ERROR_DEVICE_NOT_CONNECTED);
// IPortableDevice calls made before Open, or after Close.
constexpr HRESULT kDeviceNotOpen = E_WPD_DEVICE_NOT_OPEN;
// Calls on an object obtained through a session that has since been closed ("The interface object has not been
// attached to the device", the code the runtime gives the attached interfaces of a closed service too).
constexpr HRESULT kSessionClosed = E_WPD_OBJECT_NOT_ATTACHED_TO_DEVICE;

}  // namespace dorwex::emulator
