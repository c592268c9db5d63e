#include "support/shared_service.h"

#include <objbase.h>

#include <cwchar>
#include <fstream>

#include "emulator/wmi/service_entry.h"

using Microsoft::WRL::ComPtr;

namespace {

const char kPhone[] = "usb#vid_04e8&pid_6860#shared";

// Ends a service left by an earlier program, so that this one starts with a service of its own.
void EndService() {
    const DWORD process = ServiceProcess();
    HANDLE running = OpenProcess(SYNCHRONIZE, FALSE, process);
    Control(L"Exit");
    if (running != nullptr) {
        const DWORD start = GetTickCount();
        const DWORD waited = WaitForSingleObject(running, 10000);
        EXPECT_EQ(waited, WAIT_OBJECT_0) << "the service " << process << " ends when asked (" << GetLastError()
                                         << " after " << GetTickCount() - start << " ms)";
        CloseHandle(running);
    }
}

}  // namespace

ComPtr<IDorwexWmiService> Service() {
    ComPtr<IDorwexWmiService> service;
    EXPECT_EQ(CoCreateInstance(dorwex::emulator::wmi::kCLSID_EmulatedWmiService, nullptr, CLSCTX_LOCAL_SERVER,
                               IID_IDorwexWmiService, reinterpret_cast<void**>(service.GetAddressOf())),
              S_OK);
    return service;
}

LONG Control(const wchar_t* function, LONG first, const std::wstring& text) {
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

EmulatedDeviceSpec SharedPhone() {
    EmulatedDeviceSpec spec = PhoneSpec(kPhone, "SAMSUNG Electronics Co., Ltd.", "SH1");
    spec.deviceLines.push_back("transfer_mbps = 100");
    return spec;
}

const wchar_t* SharedPhoneId() {
    static const std::wstring id = Wide(kPhone);
    return id.c_str();
}

WpdEmulator* SharedService::s_emulator = nullptr;

void SharedService::SetUpTestSuite() {
    SetEnvironmentVariableW(L"DORWEX_WMI_SERVICE", L"shared");
    Register(L"dorwex_wpd_provider.dll");
    Register(L"dorwex_wpd_emulator.dll");
    Register(L"dorwex_wmi_emulator.dll");
    EndService();
    s_emulator = new WpdEmulator();
    s_emulator->Attach(SharedPhone());
    // The service's portable-device stack reads the same descriptions, before the provider starts.
    Control(L"SetEnvironment", 0, L"DORWEX_WPD_DEVICES=" + s_emulator->Directory());
    Control(L"DorwexEmulatorReset");
}

void SharedService::TearDownTestSuite() {
    EndService();
    delete s_emulator;
    s_emulator = nullptr;
}

std::wstring SharedService::PhoneStorage() {
    return s_emulator->StorageDirectory(SharedPhone(), 0);
}

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
                                         {L"strObjectDeviceId", _variant_t(SharedPhoneId())}},
                   client);
    DeleteFileW(local.c_str());
    return outcome;
}

std::wstring RequestWriteToken() {
    const LONG self = static_cast<LONG>(GetCurrentProcessId());
    return CallMethod(L"RequestWriteToken", {{L"uint32ProcessId", _variant_t(self, VT_I4)}}, self).returnValue;
}

ClientProcess::ClientProcess(const wchar_t* mode, const std::vector<std::wstring>& arguments) {
    wchar_t program[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, program, MAX_PATH);
    static LONG sequence = 0;
    const std::wstring readyName = L"dorwex-client-ready-" + std::to_wstring(GetCurrentProcessId()) + L"-" +
                                   std::to_wstring(InterlockedIncrement(&sequence));
    HANDLE ready = CreateEventW(nullptr, TRUE, FALSE, readyName.c_str());
    std::wstring command = L"\"" + std::wstring(program) + L"\" " + mode + L" " + readyName + L" " +
                           std::to_wstring(GetCurrentProcessId());
    for (const auto& argument : arguments) {
        command += L" \"" + argument + L"\"";
    }
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    if (CreateProcessW(nullptr, command.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup,
                       &m_process)) {
        CloseHandle(m_process.hThread);
        HANDLE waits[] = {ready, m_process.hProcess};
        m_ready = WaitForMultipleObjects(2, waits, FALSE, 30000) == WAIT_OBJECT_0;
    }
    CloseHandle(ready);
}

ClientProcess::~ClientProcess() {
    if (m_process.hProcess != nullptr) {
        TerminateProcess(m_process.hProcess, 1);
        CloseHandle(m_process.hProcess);
    }
}

bool ClientProcess::Kill() {
    return m_process.hProcess != nullptr && TerminateProcess(m_process.hProcess, 1) &&
           WaitForSingleObject(m_process.hProcess, 10000) == WAIT_OBJECT_0;
}

bool ClientProcess::Ended(DWORD milliseconds) {
    return m_process.hProcess != nullptr && WaitForSingleObject(m_process.hProcess, milliseconds) == WAIT_OBJECT_0;
}

void ChildArguments::SignalReady() const {
    HANDLE event = OpenEventW(EVENT_MODIFY_STATE, FALSE, ready.c_str());
    SetEvent(event);
    CloseHandle(event);
}

void ChildArguments::WaitForParent() const {
    HANDLE process = OpenProcess(SYNCHRONIZE, FALSE, parent);
    WaitForSingleObject(process, INFINITE);
    CloseHandle(process);
}

// The test program, or one of its child modes: "PROGRAM MODE READY PARENT ARGUMENTS...".
int wmain(int argc, wchar_t** argv) {
    const struct {
        const wchar_t* name;
        int (*run)(const ChildArguments&);
    } kModes[] = {{L"--subscriber", RunSubscriber},
                  {L"--dying-subscriber", RunDyingSubscriber},
                  {L"--dying-copier", RunDyingCopier},
                  {L"--copier", RunCopier},
                  {L"--wpd-listener", RunWpdListener}};
    CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    int result = 0;
    bool child = false;
    for (const auto& mode : kModes) {
        if (argc >= 4 && lstrcmpW(argv[1], mode.name) == 0) {
            SetEnvironmentVariableW(L"DORWEX_WMI_SERVICE", L"shared");
            ChildArguments arguments{argv[2], static_cast<DWORD>(_wtol(argv[3])),
                                     std::vector<std::wstring>(argv + 4, argv + argc)};
            result = mode.run(arguments);
            child = true;
        }
    }
    if (!child) {
        testing::InitGoogleTest(&argc, argv);
        result = RUN_ALL_TESTS();
    }
    CoUninitialize();
    return result;
}
