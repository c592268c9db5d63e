// The companion channels as the monitor runs them. Each listener serves its named pipe on the calling
// thread (a companion processor's worker) until the stop event is set; the BlackBerry listener also keeps
// the list of watched shares, which outlives restarts of the worker.
#pragma once

#include <windows.h>

#include <cstddef>
#include <memory>

class IDorWEXDeviceRegistry;
class IDorWEXWPDDevice;

class IDorWEXCompanionChannel {
public:
    virtual ~IDorWEXCompanionChannel() = default;
    // Serves the pipe until handleStopEvent_in is set; E_FAIL when the pipe cannot be set up.
    virtual HRESULT Listen(HANDLE handleStopEvent_in) = 0;
};

class IDorWEXBlackBerryChannel : public IDorWEXCompanionChannel {
public:
    // 1 when the device was listed with its share access, else 0.
    virtual int AddBlackBerryToMonitoring(IDorWEXWPDDevice* pDevice_in) = 0;
    // 1 when the device's entry was found and removed (its share disconnected first), else 0.
    virtual int RemoveBlackBerryFromMonitoring(IDorWEXWPDDevice* pDevice_in) = 0;
    virtual size_t MonitoredCount() = 0;
};

// Listeners that find the devices their messages name in pDevices_in (which may be null).
std::unique_ptr<IDorWEXCompanionChannel> CreateAppleChannel(IDorWEXDeviceRegistry* pDevices_in);
std::unique_ptr<IDorWEXBlackBerryChannel> CreateBlackBerryChannel(IDorWEXDeviceRegistry* pDevices_in);
