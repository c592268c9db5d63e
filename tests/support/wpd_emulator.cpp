#include "wpd_emulator.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>

#include "emulator/wpd/file_tree.h"

using dorwex::emulator::RemoveTree;

namespace {

template <class F>
F Resolve(HMODULE module, const char* name) {
    auto* function = reinterpret_cast<F>(reinterpret_cast<void*>(GetProcAddress(module, name)));
    if (function == nullptr) {
        ADD_FAILURE() << "emulator does not export " << name;
    }
    return function;
}

std::wstring ProgramDirectory() {
    wchar_t path[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, path, MAX_PATH);
    std::wstring directory(path);
    return directory.substr(0, directory.find_last_of(L'\\'));
}

}  // namespace

std::wstring Wide(const std::string& text) {
    return std::wstring(text.begin(), text.end());
}

WpdEmulator::WpdEmulator() {
    m_module = LoadLibraryW((ProgramDirectory() + L"\\dorwex_wpd_emulator.dll").c_str());
    if (m_module == nullptr) {
        ADD_FAILURE() << "cannot load dorwex_wpd_emulator.dll next to the test program";
        return;
    }
    m_reset = Resolve<DorwexEmulatorResetFunction>(m_module, "DorwexEmulatorReset");
    m_errors = Resolve<DorwexEmulatorErrorsFunction>(m_module, "DorwexEmulatorErrors");
    Rescan = Resolve<DorwexEmulatorRescanFunction>(m_module, "DorwexEmulatorRescan");
    RemoveDevice = Resolve<DorwexEmulatorRemoveDeviceFunction>(m_module, "DorwexEmulatorRemoveDevice");
    RaiseEvent = Resolve<DorwexEmulatorRaiseEventFunction>(m_module, "DorwexEmulatorRaiseEvent");
    WaitForEvents = Resolve<DorwexEmulatorWaitForEventsFunction>(m_module, "DorwexEmulatorWaitForEvents");
    SetCallbackHold = Resolve<DorwexEmulatorSetCallbackHoldFunction>(m_module, "DorwexEmulatorSetCallbackHold");
    CallCount = Resolve<DorwexEmulatorCallCountFunction>(m_module, "DorwexEmulatorCallCount");
    Requests = Resolve<DorwexEmulatorRequestsFunction>(m_module, "DorwexEmulatorRequests");
    OpenSessions = Resolve<DorwexEmulatorOpenSessionsFunction>(m_module, "DorwexEmulatorOpenSessions");
    Subscriptions = Resolve<DorwexEmulatorSubscriptionsFunction>(m_module, "DorwexEmulatorSubscriptions");
    LastClient = Resolve<DorwexEmulatorLastClientFunction>(m_module, "DorwexEmulatorLastClient");
    LiveObjects = Resolve<DorwexEmulatorLiveObjectsFunction>(m_module, "DorwexEmulatorLiveObjects");
    SetHookResult = Resolve<DorwexEmulatorSetHookResultFunction>(m_module, "DorwexEmulatorSetHookResult");
    HookCalls = Resolve<DorwexEmulatorHookCallsFunction>(m_module, "DorwexEmulatorHookCalls");
    SetFault = Resolve<DorwexEmulatorSetFaultFunction>(m_module, "DorwexEmulatorSetFault");
    SetStreamEnd = Resolve<DorwexEmulatorSetStreamEndFunction>(m_module, "DorwexEmulatorSetStreamEnd");
    ChangeByOtherClient =
        Resolve<DorwexEmulatorChangeByOtherClientFunction>(m_module, "DorwexEmulatorChangeByOtherClient");
    MostOpeningAtOnce = Resolve<DorwexEmulatorMostOpeningAtOnceFunction>(m_module, "DorwexEmulatorMostOpeningAtOnce");

    wchar_t temp[MAX_PATH] = {};
    GetTempPathW(MAX_PATH, temp);
    static LONG sequence = 0;
    m_directory = std::wstring(temp) + L"dorwex-wpd-" + std::to_wstring(GetCurrentProcessId()) + L"-" +
                  std::to_wstring(InterlockedIncrement(&sequence));
    RemoveTree(m_directory);
    CreateDirectoryW(m_directory.c_str(), nullptr);
    SetEnvironmentVariableW(L"DORWEX_WPD_DEVICES", m_directory.c_str());
    m_reset();
    SetHookResult(S_OK);
}

WpdEmulator::~WpdEmulator() {
    if (WaitForEvents != nullptr) {
        WaitForEvents(5000);
    }
    if (m_reset != nullptr) {
        m_reset();
    }
    SetEnvironmentVariableW(L"DORWEX_WPD_DEVICES", nullptr);
    RemoveTree(m_directory);
    // The emulator stays loaded: COM holds it too.
}

std::wstring WpdEmulator::FileFor(const EmulatedDeviceSpec& spec) const {
    // One file per device, named after a hash of its id so that any id makes a valid file name.
    return m_directory + L"\\device-" + std::to_wstring(std::hash<std::string>()(spec.id)) + L".wpd";
}

std::wstring WpdEmulator::StorageDirectory(const EmulatedDeviceSpec& spec, size_t index) const {
    return FileFor(spec) + L"." + Wide(spec.storages.at(index).objectId);
}

void WpdEmulator::WriteFile(const std::wstring& path, const std::string& content) const {
    HANDLE file = CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
    ASSERT_NE(file, INVALID_HANDLE_VALUE) << "cannot write " << std::string(path.begin(), path.end());
    DWORD written = 0;
    ::WriteFile(file, content.data(), static_cast<DWORD>(content.size()), &written, nullptr);
    CloseHandle(file);
}

std::wstring WpdEmulator::Attach(const EmulatedDeviceSpec& spec) {
    std::string text = "[device]\nid = " + spec.id + "\nmanufacturer = " + spec.manufacturer +
                       "\nfriendly_name = " + spec.friendlyName + "\ncategories = " + spec.categories + "\n";
    for (const auto& line : spec.deviceLines) {
        text += line + "\n";
    }
    text += "[registry]\n";
    for (const auto& line : spec.registryLines) {
        text += line + "\n";
    }
    for (size_t i = 0; i < spec.storages.size(); ++i) {
        const EmulatedStorage& storage = spec.storages[i];
        const std::wstring directory = StorageDirectory(spec, i);
        CreateDirectoryW(directory.c_str(), nullptr);
        const std::wstring name = directory.substr(directory.find_last_of(L'\\') + 1);
        text += "[storage]\nobject_id = " + storage.objectId + "\nname = " + storage.name +
                "\npersistent_unique_id = " + storage.persistentUniqueId + "\ndescription = " + storage.description +
                "\ndirectory = " + std::string(name.begin(), name.end()) + "\n";
    }
    text += "[fault]\n";
    for (const auto& line : spec.faultLines) {
        text += line + "\n";
    }
    const std::wstring file = FileFor(spec);
    WriteFile(file, text);
    return file;
}

void WpdEmulator::Detach(const EmulatedDeviceSpec& spec) {
    DeleteFileW(FileFor(spec).c_str());
    RemoveDevice(Wide(spec.id).c_str());
}

std::wstring WpdEmulator::Errors() const {
    wchar_t buffer[4096] = {};
    m_errors(buffer, 4096);
    return buffer;
}

EmulatedDeviceSpec PhoneSpec(const std::string& id, const std::string& manufacturer, const std::string& serial,
                             int storages) {
    EmulatedDeviceSpec spec;
    spec.id = id;
    spec.manufacturer = manufacturer;
    spec.friendlyName = "Phone of " + id;
    spec.deviceLines = {"WPD_DEVICE_SERIAL_NUMBER = " + serial, "WPD_DEVICE_MODEL = Model-" + serial,
                        "WPD_DEVICE_POWER_LEVEL = 80", "WPD_DEVICE_NETWORK_IDENTIFIER = 18446744073709551615"};
    spec.storages.push_back({"s10001", "Phone", "{PUID-" + serial + "-1}", "Internal storage"});
    if (storages > 1) {
        spec.storages.push_back({"s20001", "Card", "{PUID-" + serial + "-2}", "SD card"});
    }
    return spec;
}
