// The process-wide monitoring of portable devices as the provider objects use it. One exists per loaded
// module: the first provider object that WMI initialises creates it, the module stops it on unload.
#pragma once

#include <windows.h>

class IDorWEXDeviceHost;
class IDorWEXDeviceRegistry;
class IDorWEXEventSink;
class IDorWEXWriteTokens;

class IDorWEXMonitor {
public:
    // Stops every worker and drops every device.
    virtual ~IDorWEXMonitor() = default;

    // Starts the WPD events processor, and a thread of the monitor that adds the devices already attached
    // (opening a device takes a while: never on the caller's thread, which is WMI's); returns 1.
    virtual int Initialize() = 0;
    // Stops the companion processors, with the shutting-down flag raised first so that no worker restarts
    // while they wind down; deleting the monitor then stops the rest.
    virtual void Shutdown() = 0;
    // Provider objects attach as WMI initialises them and detach as they go; the monitor publishes through
    // the newest one WMI asked for events, else the newest of all.
    virtual void AttachProvider(IDorWEXEventSink* pProvider_in) = 0;
    virtual void DetachProvider(IDorWEXEventSink* pProvider_in) = 0;

    virtual IDorWEXDeviceRegistry* Devices() = 0;
    // The same, for a request of a client: first waits, at most kStartupWaitMilliseconds, until the devices
    // attached when the monitor started have been added, so that a request made during the start does not
    // find its device missing.
    virtual IDorWEXDeviceRegistry* DevicesWhenStarted() = 0;
    static constexpr DWORD kStartupWaitMilliseconds = 30000;
    virtual IDorWEXWriteTokens& WriteTokens() = 0;
    // What a device object made for one request (an eject) is given to reach the monitor.
    virtual IDorWEXDeviceHost& DeviceHost() = 0;
};

// The monitor, publishing through pOwner_in first; the caller owns it.
IDorWEXMonitor* CreateWPDMonitor(IDorWEXEventSink* pOwner_in);
