// The emulated WMI service in a process of its own, as the shared-service tests reach it: its entry (the
// process id and the control functions run there), a fixture that starts each program with a service of
// its own and one phone, and other client processes, which are this program run again in a child mode.
#pragma once

#include <gtest/gtest.h>

#include <windows.h>
#include <wrl/client.h>

#include <string>
#include <vector>

#include "dorwex_wmi_service.h"
#include "support/wmi_calls.h"
#include "support/wpd_emulator.h"

Microsoft::WRL::ComPtr<IDorwexWmiService> Service();
// A control function run in the service's process (see IDorwexWmiService::Control): its number.
LONG Control(const wchar_t* function, LONG first = 0, const std::wstring& text = L"");
DWORD ServiceProcess();

// The phone every shared-service test uses: storage "Phone", its data at 100 MB/s, so that a large copy
// takes long enough for a client to die during it.
EmulatedDeviceSpec SharedPhone();
const wchar_t* SharedPhoneId();

class SharedService : public testing::Test {
protected:
    static void SetUpTestSuite();
    static void TearDownTestSuite();
    static std::wstring PhoneStorage();  // the backing directory of the phone's storage "Phone"
    static WpdEmulator* s_emulator;
};

// Copies a local file whose bytes are NAME onto the phone's storage with the token of the client process
// id. The device names its copy after the local file: Stored(NAME).
Outcome Upload(const std::wstring& name, const std::wstring& token, LONG client);
std::wstring Stored(const std::wstring& name);
std::wstring RequestWriteToken();

// This program run as another client process of the service: "PROGRAM MODE READY PARENT ARGUMENTS...".
// The constructor returns once the child has signalled the named event READY or has ended; the destructor
// kills a child still running. A child mode is a function of the child's arguments (wmain's table).
class ClientProcess {
public:
    ClientProcess(const wchar_t* mode, const std::vector<std::wstring>& arguments);
    ~ClientProcess();
    ClientProcess(const ClientProcess&) = delete;
    ClientProcess& operator=(const ClientProcess&) = delete;

    bool Ready() const { return m_ready; }
    // Ends the child at once, as a crash or the task manager would, and waits until it is gone.
    bool Kill();
    // Waits for the child to end by itself.
    bool Ended(DWORD milliseconds);

private:
    PROCESS_INFORMATION m_process = {};
    bool m_ready = false;
};

// What a child is given: its ready event, its parent's process id, the mode's own arguments.
struct ChildArguments {
    std::wstring ready;
    DWORD parent = 0;
    std::vector<std::wstring> rest;

    // Tells the parent the child is ready.
    void SignalReady() const;
    // Waits for the parent's end: a child that is to be killed does not outlive a program that failed to.
    void WaitForParent() const;
};

// The child modes, each defined by the test file that uses it.
int RunSubscriber(const ChildArguments& arguments);
int RunDyingSubscriber(const ChildArguments& arguments);
int RunDyingCopier(const ChildArguments& arguments);
int RunCopier(const ChildArguments& arguments);
int RunWpdListener(const ChildArguments& arguments);
