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
HRESULT CreateContent(const std::shared_ptr<EmulatedDevice>& device, IPortableDeviceContent** content_out);

// The error every call on a device gives once the device has gone.
constexpr HRESULT kDeviceGone = HRESULT_FROM_WIN32(ERROR_DEVICE_NOT_CONNECTED);
// IPortableDevice calls made before Open.
constexpr HRESULT kDeviceNotOpen = E_WPD_DEVICE_NOT_OPEN;

}  // namespace dorwex::emulator
