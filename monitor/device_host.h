// What a device object asks of the monitor that holds it: the other attached devices, a way to raise an
// event, and a way to report a storage that came up.
#pragma once

#include <windows.h>

#include "../common/wpd_event.h"

class IDorWEXDeviceRegistry;

class IDorWEXDeviceHost {
public:
    // The attached devices; null when there are none to look at.
    virtual IDorWEXDeviceRegistry* Devices() = 0;
    // Forwards an event to the provider the monitor publishes through; 0 when there is none.
    virtual HRESULT SendEvent(const DorWEXWPDEvent& event_in) = 0;
    // A storage that has just come up on a device: the notification worker handles it as a disk mount.
    virtual void PostDiskMount(const wchar_t* pwcharPnPDeviceId_in) = 0;

protected:
    ~IDorWEXDeviceHost() = default;
};
