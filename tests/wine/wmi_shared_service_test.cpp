// The WMI service in a process of its own and the provider in a host process the service starts, shared by
// every client process of the prefix, as Windows runs them: each client process reaches the one service
// through COM, and what one client does (a copy onto a device, a write token) the others see through the
// same provider.
//
// The program is also its own other clients: run with "--subscriber RESULT READY COUNT" it subscribes to
// the provider's events, signals the named event READY, asks for a write token of its own, and writes how
// many of COUNT events were additions, the service's process id and its token to the file RESULT; run with
// "--copier RESULT READY COUNT GO" it copies files on and off the phone (RunCopier).
#include <gtest/gtest.h>

#include <windows.h>
#include <objbase.h>

#include <fstream>
#include <memory>
#include <vector>
#include <string>

#include "dorwex_wmi_service.h"
#include "emulator/wmi/service_entry.h"
#include "support/wmi_calls.h"
#include "support/wpd_emulator.h"

using Microsoft::WRL::ComPtr;

namespace {

const char kPhone[] = "usb#vid_04e8&pid_6860#shared";

ComPtr<IDorwexWmiService> Service() {
    ComPtr<IDorwexWmiService> service;
    EXPECT_EQ(CoCreateInstance(dorwex::emulator::wmi::kCLSID_EmulatedWmiService, nullptr, CLSCTX_LOCAL_SERVER,
                               IID_IDorwexWmiService, reinterpret_cast<void**>(service.GetAddressOf())),
              S_OK);
    return service;
}

LONG Control(const wchar_t* function, LONG first = 0, const std::wstring& text = L"") {
    LONG result = -1;
    BSTR out = nullptr;
    auto service = Service();
    if (service) {
        _bstr_t in;
        if (!text.empty()) {
            in = text.c_str();
        }
        EXPECT_EQ(service->Control(_bstr_t(function), first, 0, in, &result, &out), S_OK)
            << "control " << std::string(function, function + wcslen(function));
    }
    SysFreeString(out);
    return result;
}

DWORD ServiceProcess() {
    DWORD process = 0;
    if (auto service = Service()) {
        EXPECT_EQ(service->ProcessId(&process), S_OK);
    }
    return process;
}

// Ends a service left by an earlier program, so that this one starts with a service of its own.
void EndService() {
    const DWORD process = ServiceProcess();
    HANDLE running = OpenProcess(SYNCHRONIZE, FALSE, process);
    Control(L"Exit");
    if (running != nullptr) {
        EXPECT_EQ(WaitForSingleObject(running, 10000), WAIT_OBJECT_0) << "the service ends when asked";
        CloseHandle(running);
    }
}

class SharedService : public testing::Test {
protected:
    static void SetUpTestSuite() {
        SetEnvironmentVariableW(L"DORWEX_WMI_SERVICE", L"shared");
        Register(L"dorwex_wpd_provider.dll");
        Register(L"dorwex_wpd_emulator.dll");
        Register(L"dorwex_wmi_emulator.dll");
        EndService();
        s_emulator = new WpdEmulator();
        s_emulator->Attach(PhoneSpec(kPhone, "SAMSUNG Electronics Co., Ltd.", "SH1"));
        // The service's portable-device stack reads the same descriptions, before the provider starts.
        Control(L"SetEnvironment", 0, L"DORWEX_WPD_DEVICES=" + s_emulator->Directory());
        Control(L"DorwexEmulatorReset");
    }
    static void TearDownTestSuite() {
        EndService();
        delete s_emulator;
        s_emulator = nullptr;
    }
    static WpdEmulator* s_emulator;
};
WpdEmulator* SharedService::s_emulator = nullptr;

// The child client: subscribes, says so, counts events.
int RunSubscriber(const wchar_t* resultFile, const wchar_t* ready, long expected) {
    SetEnvironmentVariableW(L"DORWEX_WMI_SERVICE", L"shared");
    auto services = Connect();
    ComPtr<IEnumWbemClassObject> events;
    if (!services || FAILED(services->ExecNotificationQuery(
                         _bstr_t(L"WQL"), _bstr_t(L"SELECT * FROM Win32ext_WPDEvent"),
                         WBEM_FLAG_RETURN_IMMEDIATELY | WBEM_FLAG_FORWARD_ONLY, nullptr, &events))) {
        return 2;
    }
    HANDLE readyEvent = OpenEventW(EVENT_MODIFY_STATE, FALSE, ready);
    SetEvent(readyEvent);
    CloseHandle(readyEvent);
    // A write token of this process's own, asked for while the other client holds one.
    const LONG self = static_cast<LONG>(GetCurrentProcessId());
    const std::wstring token =
        CallMethod(L"RequestWriteToken", {{L"uint32ProcessId", _variant_t(self, VT_I4)}}, self).returnValue;
    long added = 0;
    for (long received = 0; received < expected;) {
        auto event = NextEvent(events.Get(), 20000);
        if (!event) {
            break;
        }
        ++received;
        added += Text(event.Get(), L"strEventId") == L"WPD_EVENT_OBJECT_ADDED" ? 1 : 0;
    }
    const std::wstring file(resultFile);
    std::ofstream(std::string(file.begin(), file.end()))
        << added << " " << ServiceProcess() << " " << std::string(token.begin(), token.end()) << "\n";
    return 0;
}

struct ChildResult {
    long added = -1;
    DWORD serviceProcess = 0;
    std::wstring token;
};

// Starts this program as a subscriber and returns once it has subscribed; Finish waits for its result.
class Subscriber {
public:
    explicit Subscriber(long expected, const wchar_t* mode = L"--subscriber", const std::wstring& extra = L"") {
        wchar_t program[MAX_PATH] = {};
        GetModuleFileNameW(nullptr, program, MAX_PATH);
        static long s_children = 0;
        const std::wstring tag = std::to_wstring(GetCurrentProcessId()) + L"-" + std::to_wstring(++s_children);
        m_result = ProgramDirectory() + L"\\child-" + tag + L".txt";
        const std::wstring readyName = L"dorwex-child-ready-" + tag;
        HANDLE ready = CreateEventW(nullptr, TRUE, FALSE, readyName.c_str());
        std::wstring command = L"\"" + std::wstring(program) + L"\" " + mode + L" \"" + m_result + L"\" " + readyName +
                               L" " + std::to_wstring(expected) + (extra.empty() ? L"" : L" " + extra);
        STARTUPINFOW startup = {};
        startup.cb = sizeof(startup);
        if (CreateProcessW(nullptr, command.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup,
                           &m_process)) {
            CloseHandle(m_process.hThread);
            HANDLE waits[] = {ready, m_process.hProcess};
            m_subscribed = WaitForMultipleObjects(2, waits, FALSE, 30000) == WAIT_OBJECT_0;
        }
        CloseHandle(ready);
    }
    ~Subscriber() {
        if (m_process.hProcess != nullptr) {
            TerminateProcess(m_process.hProcess, 1);
            CloseHandle(m_process.hProcess);
        }
        DeleteFileW(m_result.c_str());
    }
    bool Subscribed() const { return m_subscribed; }
    DWORD ProcessId() const { return m_process.dwProcessId; }
    // What a copier child wrote: how many of its rounds succeeded; -1 when it did not finish.
    long FinishCopies() {
        long copied = -1;
        if (m_process.hProcess != nullptr && WaitForSingleObject(m_process.hProcess, 120000) == WAIT_OBJECT_0) {
            std::ifstream(std::string(m_result.begin(), m_result.end())) >> copied;
        }
        return copied;
    }
    ChildResult Finish() {
        ChildResult result;
        if (m_process.hProcess != nullptr && WaitForSingleObject(m_process.hProcess, 60000) == WAIT_OBJECT_0) {
            std::string token;
            std::ifstream(std::string(m_result.begin(), m_result.end())) >> result.added >> result.serviceProcess >>
                token;
            result.token.assign(token.begin(), token.end());
        }
        return result;
    }

private:
    PROCESS_INFORMATION m_process = {};
    std::wstring m_result;
    bool m_subscribed = false;
};

// The name a copy onto the device gets: the local file's, which Upload makes from the name it is given.
std::wstring Stored(const std::wstring& name) {
    return L"shared-" + name;
}

Outcome Upload(const std::wstring& name, const std::wstring& token, LONG client) {
    const std::wstring local = ProgramDirectory() + L"\\" + Stored(name);
    std::ofstream(std::string(local.begin(), local.end())) << std::string(name.begin(), name.end());
    const Outcome outcome =
        CallMethod(L"CopyFileToDevice", {{L"strObjectStoragePath", _variant_t((L"Phone\\" + name).c_str())},
                                         {L"strFileToCopy", _variant_t(local.c_str())},
                                         {L"strWriteToken", _variant_t(token.c_str())},
                                         {L"strObjectDeviceId", _variant_t(Wide(kPhone).c_str())}},
                   client);
    DeleteFileW(local.c_str());
    return outcome;
}

// The copier child: takes a write token, says it is ready, waits for the go, then COUNT times copies a file
// of its own onto the phone, lists the folder and copies the file back, and writes how many rounds gave
// back the bytes it wrote to the file RESULT.
int RunCopier(const wchar_t* resultFile, const wchar_t* ready, long rounds, const wchar_t* go) {
    SetEnvironmentVariableW(L"DORWEX_WMI_SERVICE", L"shared");
    const LONG self = static_cast<LONG>(GetCurrentProcessId());
    const std::wstring token =
        CallMethod(L"RequestWriteToken", {{L"uint32ProcessId", _variant_t(self, VT_I4)}}, self).returnValue;
    HANDLE goEvent = OpenEventW(SYNCHRONIZE, FALSE, go);
    HANDLE readyEvent = OpenEventW(EVENT_MODIFY_STATE, FALSE, ready);
    SetEvent(readyEvent);
    CloseHandle(readyEvent);
    if (goEvent == nullptr || WaitForSingleObject(goEvent, 30000) != WAIT_OBJECT_0) {
        return 2;
    }
    CloseHandle(goEvent);
    long good = 0;
    for (long i = 0; i < rounds; ++i) {
        const std::wstring name = L"c" + std::to_wstring(self) + L"-" + std::to_wstring(i) + L".jpg";
        const std::wstring back = ProgramDirectory() + L"\\back-" + name;
        const bool copied = Upload(name, token, self).returnValue == L"1";
        const std::wstring listing =
            L"~" + CallMethod(L"EnumerateDevicePath", {{L"strObjectStoragePath", _variant_t(L"Phone")},
                                                      {L"strObjectDeviceId", _variant_t(Wide(kPhone).c_str())},
                                                      {L"uint32ContentType", _variant_t(2L, VT_I4)}},
                              self)
                       .returnValue;
        const bool listed = listing.find(L"~" + Stored(name) + L"@") != std::wstring::npos;
        const Outcome fetch =
            CallMethod(L"CopyFileFromDevice", {{L"strObjectStoragePath", _variant_t((L"Phone\\" + Stored(name)).c_str())},
                                               {L"strLocalFileName", _variant_t(back.c_str())},
                                               {L"strObjectDeviceId", _variant_t(Wide(kPhone).c_str())}},
                       self);
        const bool fetched = fetch.returnValue == L"1";
        std::string bytes;
        std::ifstream(std::string(back.begin(), back.end())) >> bytes;
        DeleteFileW(back.c_str());
        good += copied && listed && fetched && bytes == std::string(name.begin(), name.end()) ? 1 : 0;
    }
    const std::wstring file(resultFile);
    std::ofstream(std::string(file.begin(), file.end())) << good << "\n";
    return 0;
}

// One service process serves this client and another, and the provider runs in a host process of its own:
// in none of the clients' processes and not in the service's.
TEST_F(SharedService, TheProviderRunsInAHostOfItsOwnForEveryClient) {
    auto services = Connect();
    ASSERT_TRUE(services);
    auto devices = Query(services.Get(), L"SELECT * FROM Win32ext_WPD");
    ASSERT_EQ(devices.size(), 1u);
    EXPECT_EQ(Text(devices[0].Get(), L"strFriendlyName"), L"Phone of " + Wide(kPhone));
    const DWORD service = ServiceProcess();
    const DWORD host = static_cast<DWORD>(Control(L"ProviderHostProcessId"));
    EXPECT_NE(service, 0u);
    EXPECT_NE(host, 0u);
    EXPECT_NE(host, service) << "the provider is not in the service's process";
    EXPECT_NE(service, GetCurrentProcessId());
    EXPECT_NE(host, GetCurrentProcessId()) << "the provider is not in the client's process";
    EXPECT_EQ(Control(L"DorwexWmiProviderLoaded"), 1);

    Subscriber other(0);
    ASSERT_TRUE(other.Subscribed());
    EXPECT_NE(host, other.ProcessId());
    const ChildResult child = other.Finish();
    EXPECT_EQ(child.serviceProcess, service) << "the other client reaches the same service";
    EXPECT_EQ(static_cast<DWORD>(Control(L"ProviderHostProcessId")), host) << "and the same provider host";
}

// Events from content one client puts on the device reach a subscriber in another process, and each
// process holds a write token of its own in the one provider: the other's is refused, and neither request
// drops the other's token.
TEST_F(SharedService, ASubscriberInAnotherProcessSeesTheContentAnotherClientAdds) {
    constexpr long kCopies = 3;
    const LONG subscriptions = Control(L"DorwexWmiSubscriptions");
    Subscriber subscriber(kCopies);
    ASSERT_TRUE(subscriber.Subscribed());
    ASSERT_EQ(Control(L"DorwexWmiSubscriptions"), subscriptions + 1);

    const LONG self = static_cast<LONG>(GetCurrentProcessId());
    const std::wstring token =
        CallMethod(L"RequestWriteToken", {{L"uint32ProcessId", _variant_t(self, VT_I4)}}, self).returnValue;
    ASSERT_FALSE(token.empty());
    for (long i = 0; i < kCopies; ++i) {
        EXPECT_EQ(Upload(L"photo" + std::to_wstring(i) + L".jpg", token, self).returnValue, L"1");
    }
    const ChildResult result = subscriber.Finish();
    EXPECT_EQ(result.added, kCopies) << "every added object reaches the other process";

    ASSERT_FALSE(result.token.empty());
    EXPECT_NE(result.token, token);
    const Outcome foreign = Upload(L"foreign.jpg", result.token, self);
    EXPECT_EQ(foreign.status, E_FAIL) << "the other process's token is not this one's";
    const std::wstring storage = s_emulator->StorageDirectory(PhoneSpec(kPhone, "", "SH1"), 0);
    EXPECT_EQ(GetFileAttributesW((storage + L"\\" + Stored(L"foreign.jpg")).c_str()), INVALID_FILE_ATTRIBUTES);
    EXPECT_NE(GetFileAttributesW((storage + L"\\" + Stored(L"photo0.jpg")).c_str()), INVALID_FILE_ATTRIBUTES)
        << "where the refused copy would have gone, the accepted ones went";
    EXPECT_EQ(Upload(L"own.jpg", token, self).returnValue, L"1") << "the other process's request left this token alone";
}

// A provider host that dies is replaced by a new one at the next request, as WMI starts its host again: the
// devices are published again, and a consumer that subscribed before receives the events of the new host.
TEST_F(SharedService, AKilledProviderHostIsStartedAgainWithItsConsumers) {
    Subscriber subscriber(1);
    ASSERT_TRUE(subscriber.Subscribed());
    const DWORD host = static_cast<DWORD>(Control(L"ProviderHostProcessId"));
    ASSERT_NE(host, 0u);
    HANDLE process = OpenProcess(PROCESS_TERMINATE | SYNCHRONIZE, FALSE, host);
    ASSERT_NE(process, nullptr);
    ASSERT_TRUE(TerminateProcess(process, 9));
    ASSERT_EQ(WaitForSingleObject(process, 10000), WAIT_OBJECT_0);
    CloseHandle(process);

    auto services = Connect();
    ASSERT_TRUE(services);
    EXPECT_EQ(Query(services.Get(), L"SELECT * FROM Win32ext_WPD").size(), 1u) << "the phone is published again";
    const DWORD restarted = static_cast<DWORD>(Control(L"ProviderHostProcessId"));
    EXPECT_NE(restarted, 0u);
    EXPECT_NE(restarted, host);

    const LONG self = static_cast<LONG>(GetCurrentProcessId());
    const std::wstring token =
        CallMethod(L"RequestWriteToken", {{L"uint32ProcessId", _variant_t(self, VT_I4)}}, self).returnValue;
    ASSERT_FALSE(token.empty());
    EXPECT_EQ(Upload(L"after-restart.jpg", token, self).returnValue, L"1");
    EXPECT_EQ(subscriber.Finish().added, 1) << "the consumer subscribed before the host died gets the new host's events";
}

// Four client processes call the one provider on one device at the same moment, each copying its own
// files on and off the phone and listing the folder: every call answers for its own caller, every file on
// the device holds the bytes its client wrote, and the host stays up.
TEST_F(SharedService, FourClientProcessesCallOneDeviceAtOnce) {
    constexpr long kRounds = 4;
    auto services = Connect();
    ASSERT_TRUE(services);
    ASSERT_EQ(Query(services.Get(), L"SELECT * FROM Win32ext_WPD").size(), 1u);
    const DWORD host = static_cast<DWORD>(Control(L"ProviderHostProcessId"));
    const std::wstring goName = L"dorwex-copiers-go-" + std::to_wstring(GetCurrentProcessId());
    HANDLE go = CreateEventW(nullptr, TRUE, FALSE, goName.c_str());
    std::vector<std::unique_ptr<Subscriber>> copiers;
    for (int i = 0; i < 4; ++i) {
        copiers.push_back(std::make_unique<Subscriber>(kRounds, L"--copier", goName));
        ASSERT_TRUE(copiers.back()->Subscribed());
    }
    SetEvent(go);
    const std::wstring storage = s_emulator->StorageDirectory(PhoneSpec(kPhone, "", "SH1"), 0);
    for (auto& copier : copiers) {
        EXPECT_EQ(copier->FinishCopies(), kRounds) << "copier " << copier->ProcessId();
        for (long i = 0; i < kRounds; ++i) {
            const std::wstring name = L"c" + std::to_wstring(copier->ProcessId()) + L"-" + std::to_wstring(i) + L".jpg";
            std::string bytes;
            const std::wstring stored = storage + L"\\" + Stored(name);
            std::ifstream(std::string(stored.begin(), stored.end())) >> bytes;
            EXPECT_EQ(bytes, std::string(name.begin(), name.end())) << "the device's copy holds its client's bytes";
        }
    }
    CloseHandle(go);
    EXPECT_EQ(static_cast<DWORD>(Control(L"ProviderHostProcessId")), host) << "the host stayed up";
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    int result = 0;
    if (argc == 5 && lstrcmpW(argv[1], L"--subscriber") == 0) {
        result = RunSubscriber(argv[2], argv[3], _wtol(argv[4]));
    } else if (argc == 6 && lstrcmpW(argv[1], L"--copier") == 0) {
        result = RunCopier(argv[2], argv[3], _wtol(argv[4]), argv[5]);
    } else {
        testing::InitGoogleTest(&argc, argv);
        result = RUN_ALL_TESTS();
    }
    CoUninitialize();
    return result;
}
