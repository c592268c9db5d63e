// The emulated portable-device stack as tests use it: a scratch directory of device descriptions (the
// stack reads it through DORWEX_WPD_DEVICES) and the control functions the emulator DLL exports.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

#include "emulator/wpd/control.h"

struct EmulatedStorage {
    std::string objectId;  // "s10001"
    std::string name;      // "Phone"
    std::string persistentUniqueId;
    std::string description;
};

// The text of a device description, with the usual sections filled from the arguments.
struct EmulatedDeviceSpec {
    std::string id;
    std::string manufacturer;
    std::string friendlyName;
    std::string categories = "storage";
    std::vector<EmulatedStorage> storages;
    std::vector<std::string> deviceLines;    // extra "name = value" lines of [device]
    std::vector<std::string> registryLines;  // lines of [registry]
    std::vector<std::string> faultLines;     // lines of [fault]
};

class WpdEmulator {
public:
    // Loads the emulator (built next to the test program), points it at a fresh directory and forgets
    // every device it knew.
    WpdEmulator();
    ~WpdEmulator();
    WpdEmulator(const WpdEmulator&) = delete;
    WpdEmulator& operator=(const WpdEmulator&) = delete;

    // Writes the description and creates each storage's directory; returns the description file name.
    std::wstring Attach(const EmulatedDeviceSpec& spec);
    // Deletes the description and tells the stack the device is gone.
    void Detach(const EmulatedDeviceSpec& spec);
    // A storage's backing directory, to put files in.
    std::wstring StorageDirectory(const EmulatedDeviceSpec& spec, size_t index) const;
    void WriteFile(const std::wstring& path, const std::string& content) const;

    const std::wstring& Directory() const { return m_directory; }
    std::wstring Errors() const;

    DorwexEmulatorRescanFunction Rescan = nullptr;
    DorwexEmulatorRemoveDeviceFunction RemoveDevice = nullptr;
    DorwexEmulatorRaiseEventFunction RaiseEvent = nullptr;
    DorwexEmulatorWaitForEventsFunction WaitForEvents = nullptr;
    DorwexEmulatorSetCallbackHoldFunction SetCallbackHold = nullptr;
    DorwexEmulatorCallCountFunction CallCount = nullptr;
    DorwexEmulatorRequestsFunction Requests = nullptr;
    DorwexEmulatorOpenSessionsFunction OpenSessions = nullptr;
    DorwexEmulatorSubscriptionsFunction Subscriptions = nullptr;
    DorwexEmulatorLastClientFunction LastClient = nullptr;
    DorwexEmulatorLiveObjectsFunction LiveObjects = nullptr;
    DorwexEmulatorSetHookResultFunction SetHookResult = nullptr;
    DorwexEmulatorHookCallsFunction HookCalls = nullptr;
    DorwexEmulatorSetFaultFunction SetFault = nullptr;
    DorwexEmulatorSetStreamEndFunction SetStreamEnd = nullptr;
    DorwexEmulatorChangeByOtherClientFunction ChangeByOtherClient = nullptr;
    DorwexEmulatorMostOpeningAtOnceFunction MostOpeningAtOnce = nullptr;

private:
    std::wstring FileFor(const EmulatedDeviceSpec& spec) const;

    HMODULE m_module = nullptr;
    std::wstring m_directory;
    DorwexEmulatorResetFunction m_reset = nullptr;
    DorwexEmulatorErrorsFunction m_errors = nullptr;
};

// A device of the given maker with one storage "Phone" (s10001) and, optionally, a second "Card" (s20001).
EmulatedDeviceSpec PhoneSpec(const std::string& id, const std::string& manufacturer, const std::string& serial,
                             int storages = 1);

std::wstring Wide(const std::string& text);
