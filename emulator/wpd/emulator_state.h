// The emulator's process-wide state: the devices read from the description files, and the events on their
// way to pool threads.
#pragma once

#include <windows.h>

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "emulated_device.h"

namespace dorwex::emulator {

// All emulated devices, read from the description files (*.wpd) in the directory that the environment
// variable DORWEX_WPD_DEVICES names.
class EmulatorState {
public:
    static EmulatorState& Get();

    // Reads the directory again: new files add devices, known ids keep their state.
    std::vector<std::shared_ptr<EmulatedDevice>> Scan();
    std::shared_ptr<EmulatedDevice> Find(const std::wstring& id);
    void Reset();
    // Description files that could not be used, with the reason.
    std::vector<std::wstring> Errors();

    // Events queued to pool threads and not yet delivered.
    void EventQueued();
    void EventDelivered();
    bool WaitForEvents(DWORD milliseconds);

    // A runtime thread may lose the processor between its last call into a client's callback and its
    // release of it. Tests stretch that moment: pool threads wait this long before the release.
    void SetCallbackHold(DWORD milliseconds);
    void HoldCallback();
    // Sessions being opened (in a device's open time) at this moment, and the most there were at once.
    void OpeningStarted();
    void OpeningEnded();
    long MostOpeningAtOnce(bool reset);

private:
    EmulatorState();
    std::mutex m_lock;
    std::map<std::wstring, std::shared_ptr<EmulatedDevice>> m_devices;  // upper-case id -> device
    std::vector<std::wstring> m_errors;
    long m_pendingEvents = 0;
    DWORD m_callbackHold = 0;
    long m_opening = 0;
    long m_mostOpening = 0;
    HANDLE m_eventsIdle;
};

}  // namespace dorwex::emulator
