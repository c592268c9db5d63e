// A command-line WMI client, in the manner of wmic or PowerShell's CIM cmdlets, for root\cimv2:
//
//   wmi_client COMMAND [ARGS...] [";" COMMAND [ARGS...]]...
//
//   list CLASS [PROPERTY...]            the instances of a class, with the chosen properties (all without)
//   query "WQL"                         the instances a WQL query selects
//   call PATH METHOD [NAME=VALUE...] [--context NAME=VALUE...]
//                                       calls a method; VALUE is text, or #N for a number; prints the out
//                                       parameters, or the error and its __ExtendedStatus. In a VALUE,
//                                       {pid} stands for this process's id and {return} for the ReturnValue
//                                       of the last call.
//   subscribe "WQL"                     starts receiving events (printed by wait)
//   wait SECONDS                        prints the events that arrive within SECONDS
//   wpd-put DEVICE-ID PARENT-ID NAME    writes a small file onto a portable device through WPD, as another
//                                       program on the machine would
//   simulate-arrival NAME, simulate-removal NAME
//                                       sends the device-change message that the system sends for a portable
//                                       device interface to the provider's hidden window, wherever the
//                                       provider runs
//   processes                           which processes the client, the WMI service and the provider host
//                                       are (with DORWEX_WMI_SERVICE=shared, three; else all this one)
//
// All commands run in one process, one after the other.
#include <comdef.h>
#include <dbt.h>
#include <wbemcli.h>
#include <wrl/client.h>

#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "device/portable_device_api.h"
#include "dorwex_wmi_service.h"
#include "emulator/wmi/service_entry.h"

using Microsoft::WRL::ComPtr;

namespace {

std::wstring ValueText(const VARIANT& value) {
    if (value.vt == VT_NULL || value.vt == VT_EMPTY) {
        return L"(null)";
    }
    if (value.vt == VT_BOOL) {
        return value.boolVal ? L"TRUE" : L"FALSE";
    }
    _variant_t text;
    if (FAILED(VariantChangeType(&text, const_cast<VARIANT*>(&value), 0, VT_BSTR))) {
        return L"(?)";
    }
    return text.bstrVal != nullptr ? text.bstrVal : L"";
}

void PrintObject(IWbemClassObject* object, const std::vector<std::wstring>& properties) {
    std::vector<std::wstring> names = properties;
    if (names.empty()) {
        object->BeginEnumeration(WBEM_FLAG_NONSYSTEM_ONLY);
        BSTR name = nullptr;
        while (object->Next(0, &name, nullptr, nullptr, nullptr) == WBEM_S_NO_ERROR) {
            names.emplace_back(name);
            SysFreeString(name);
        }
        object->EndEnumeration();
    }
    _variant_t className;
    object->Get(L"__CLASS", 0, &className, nullptr, nullptr);
    wprintf(L"%ls\n", ValueText(className).c_str());
    for (const auto& name : names) {
        _variant_t value;
        if (SUCCEEDED(object->Get(name.c_str(), 0, &value, nullptr, nullptr))) {
            wprintf(L"  %ls = %ls\n", name.c_str(), ValueText(value).c_str());
        } else {
            wprintf(L"  %ls: no such property\n", name.c_str());
        }
    }
}

void PrintError(const wchar_t* what, HRESULT hr) {
    wprintf(L"%ls failed: 0x%08lX\n", what, static_cast<unsigned long>(hr));
    ComPtr<IErrorInfo> error;
    ComPtr<IWbemClassObject> status;
    if (GetErrorInfo(0, &error) == S_OK && SUCCEEDED(error.As(&status))) {
        PrintObject(status.Get(), {L"Description", L"Operation", L"ProviderName", L"StatusCode"});
    }
}

int PrintAll(IEnumWbemClassObject* enumerator, const std::vector<std::wstring>& properties) {
    int count = 0;
    IWbemClassObject* object = nullptr;
    ULONG returned = 0;
    while (enumerator->Next(WBEM_INFINITE, 1, &object, &returned) == WBEM_S_NO_ERROR && returned == 1) {
        PrintObject(object, properties);
        object->Release();
        ++count;
    }
    wprintf(L"(%d instance%ls)\n", count, count == 1 ? L"" : L"s");
    return count;
}

// The ReturnValue of the last method call, for {return}.
std::wstring g_lastReturnValue;

std::wstring Substituted(std::wstring text) {
    const std::pair<std::wstring, std::wstring> substitutions[] = {
        {L"{pid}", std::to_wstring(GetCurrentProcessId())}, {L"{return}", g_lastReturnValue}};
    for (const auto& [token, value] : substitutions) {
        for (size_t at = text.find(token); at != std::wstring::npos; at = text.find(token, at + value.size())) {
            text.replace(at, token.size(), value);
        }
    }
    return text;
}

// NAME=VALUE, VALUE text or #N.
bool ParseAssignment(const std::wstring& text, std::wstring& name, _variant_t& value, VARTYPE numberType) {
    const auto equals = text.find(L'=');
    if (equals == std::wstring::npos || equals == 0) {
        return false;
    }
    name = text.substr(0, equals);
    const std::wstring raw = text.substr(equals + 1);
    if (!raw.empty() && raw[0] == L'#') {
        value = _variant_t(static_cast<long>(wcstoul(raw.c_str() + 1, nullptr, 0)), VT_I4);
        if (numberType == VT_UI4) {
            value.vt = VT_UI4;
        }
    } else {
        value = _variant_t(raw.c_str());
    }
    return true;
}

int Call(IWbemServices* services, const std::vector<std::wstring>& args) {
    if (args.size() < 2) {
        wprintf(L"call PATH METHOD [NAME=VALUE...] [--context NAME=VALUE...]\n");
        return 2;
    }
    const _bstr_t path(args[0].c_str());
    const _bstr_t method(args[1].c_str());
    const auto parsed = args[0].find_first_of(L".=");
    ComPtr<IWbemClassObject> wmiClass;
    HRESULT hr = services->GetObject(_bstr_t(args[0].substr(0, parsed).c_str()), 0, nullptr, &wmiClass, nullptr);
    if (FAILED(hr)) {
        PrintError(L"GetObject", hr);
        return 1;
    }
    ComPtr<IWbemClassObject> inSignature;
    ComPtr<IWbemClassObject> in;
    if (SUCCEEDED(wmiClass->GetMethod(method, 0, &inSignature, nullptr)) && inSignature) {
        inSignature->SpawnInstance(0, &in);
    }
    ComPtr<IWbemContext> context;
    bool contextValues = false;
    for (size_t i = 2; i < args.size(); ++i) {
        std::wstring name;
        _variant_t value;
        if (args[i] == L"--context") {
            contextValues = true;
            continue;
        }
        if (!ParseAssignment(Substituted(args[i]), name, value, contextValues ? VT_UI4 : VT_I4)) {
            wprintf(L"not NAME=VALUE: %ls\n", args[i].c_str());
            return 2;
        }
        if (contextValues) {
            if (!context) {
                CoCreateInstance(CLSID_WbemContext, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&context));
            }
            context->SetValue(name.c_str(), 0, &value);
        } else if (!in || FAILED(in->Put(name.c_str(), 0, &value, 0))) {
            wprintf(L"%ls has no parameter %ls\n", args[1].c_str(), name.c_str());
            return 2;
        }
    }
    ComPtr<IWbemClassObject> out;
    hr = services->ExecMethod(path, method, 0, context.Get(), in.Get(), &out, nullptr);
    if (FAILED(hr)) {
        PrintError(args[1].c_str(), hr);
        return 1;
    }
    if (out) {
        PrintObject(out.Get(), {});
        _variant_t returnValue;
        if (SUCCEEDED(out->Get(L"ReturnValue", 0, &returnValue, nullptr, nullptr)) && returnValue.vt == VT_BSTR) {
            g_lastReturnValue = returnValue.bstrVal != nullptr ? returnValue.bstrVal : L"";
        }
    }
    return 0;
}

// What wpd-put writes.
constexpr char kText[] = "written by wmi_client\n";

int PutFile(const std::vector<std::wstring>& args) {
    if (args.size() != 3) {
        wprintf(L"wpd-put DEVICE-ID PARENT-ID NAME\n");
        return 2;
    }
    ComPtr<IPortableDevice> device;
    ComPtr<IPortableDeviceValues> client;
    ComPtr<IPortableDeviceContent> content;
    ComPtr<IPortableDeviceValues> properties;
    ComPtr<IStream> data;
    HRESULT hr = CoCreateInstance(CLSID_PortableDeviceFTM, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&device));
    if (SUCCEEDED(hr)) {
        hr = CoCreateInstance(CLSID_PortableDeviceValues, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&client));
    }
    if (SUCCEEDED(hr)) {
        client->SetStringValue(WPD_CLIENT_NAME, L"wmi_client");
        hr = device->Open(args[0].c_str(), client.Get());
    }
    if (SUCCEEDED(hr)) {
        hr = device->Content(&content);
    }
    if (SUCCEEDED(hr)) {
        hr = CoCreateInstance(CLSID_PortableDeviceValues, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&properties));
    }
    if (SUCCEEDED(hr)) {
        properties->SetStringValue(WPD_OBJECT_PARENT_ID, args[1].c_str());
        properties->SetStringValue(WPD_OBJECT_ORIGINAL_FILE_NAME, args[2].c_str());
        properties->SetStringValue(WPD_OBJECT_NAME, args[2].c_str());
        properties->SetUnsignedLargeIntegerValue(WPD_OBJECT_SIZE, sizeof kText - 1);  // what Commit checks
        hr = content->CreateObjectWithPropertiesAndData(properties.Get(), &data, nullptr, nullptr);
    }
    if (SUCCEEDED(hr)) {
        data->Write(kText, sizeof kText - 1, nullptr);
        hr = data->Commit(STGC_DEFAULT);
    }
    if (device) {
        device->Close();
    }
    wprintf(L"wpd-put %ls: 0x%08lX\n", args[2].c_str(), static_cast<unsigned long>(hr));
    return SUCCEEDED(hr) ? 0 : 1;
}

// The process ids of this client, of the WMI service and of the provider host it started.
int PrintProcesses() {
    wprintf(L"client process %lu\n", GetCurrentProcessId());
    wchar_t mode[16] = {};
    if (GetEnvironmentVariableW(L"DORWEX_WMI_SERVICE", mode, 16) == 0 || _wcsicmp(mode, L"shared") != 0) {
        wprintf(L"the WMI service and the provider run in this process\n");
        return 0;
    }
    ComPtr<IDorwexWmiService> service;
    DWORD serviceProcess = 0;
    LONG host = 0;
    BSTR text = nullptr;
    HRESULT hr = CoCreateInstance(dorwex::emulator::wmi::kCLSID_EmulatedWmiService, nullptr, CLSCTX_LOCAL_SERVER,
                                  IID_IDorwexWmiService, reinterpret_cast<void**>(service.GetAddressOf()));
    if (SUCCEEDED(hr)) {
        hr = service->ProcessId(&serviceProcess);
    }
    if (SUCCEEDED(hr)) {
        hr = service->Control(_bstr_t(L"ProviderHostProcessId"), 0, 0, nullptr, &host, &text);
        SysFreeString(text);
    }
    if (FAILED(hr)) {
        PrintError(L"processes", hr);
        return 1;
    }
    wprintf(L"WMI service process %lu\n", serviceProcess);
    if (host != 0) {
        wprintf(L"provider host process %ld\n", host);
    } else {
        wprintf(L"no provider host runs\n");
    }
    return 0;
}

int Simulate(WPARAM change, const std::vector<std::wstring>& args) {
    if (args.size() != 1) {
        wprintf(L"simulate-arrival|simulate-removal NAME\n");
        return 2;
    }
    HWND window = nullptr;
    for (int i = 0; i < 100 && window == nullptr; ++i) {
        window = FindWindowW(L"dorWEXWMIWPDHiddenWindowClass", L"dorWEX14");
        Sleep(window == nullptr ? 50 : 0);
    }
    if (window == nullptr) {
        wprintf(L"the provider's window is not there (is the provider loaded?)\n");
        return 1;
    }
    std::vector<BYTE> buffer(offsetof(DEV_BROADCAST_DEVICEINTERFACE_W, dbcc_name) +
                             (args[0].size() + 1) * sizeof(wchar_t));
    auto* record = reinterpret_cast<DEV_BROADCAST_DEVICEINTERFACE_W*>(buffer.data());
    record->dbcc_size = static_cast<DWORD>(buffer.size());
    record->dbcc_devicetype = DBT_DEVTYP_DEVICEINTERFACE;
    record->dbcc_classguid = {0x6ac27878, 0xa6fa, 0x4155, {0xba, 0x85, 0xf9, 0x8f, 0x49, 0x1d, 0x4f, 0x33}};
    memcpy(record->dbcc_name, args[0].c_str(), (args[0].size() + 1) * sizeof(wchar_t));
    SendMessageW(window, WM_DEVICECHANGE, change, reinterpret_cast<LPARAM>(record));
    wprintf(L"sent %ls for %ls\n", change == DBT_DEVICEARRIVAL ? L"DBT_DEVICEARRIVAL" : L"DBT_DEVICEREMOVECOMPLETE",
            args[0].c_str());
    Sleep(500);  // the provider publishes on its own thread
    return 0;
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    if (argc < 2) {
        wprintf(L"usage: wmi_client COMMAND [ARGS...] [\";\" COMMAND [ARGS...]]...\n");
        return 2;
    }
    CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    int exitCode = 0;
    {
        ComPtr<IWbemLocator> locator;
        ComPtr<IWbemServices> services;
        HRESULT hr = CoCreateInstance(CLSID_WbemLocator, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&locator));
        if (SUCCEEDED(hr)) {
            hr = locator->ConnectServer(_bstr_t(L"root\\cimv2"), nullptr, nullptr, nullptr, 0, nullptr, nullptr,
                                        &services);
        }
        if (FAILED(hr)) {
            wprintf(L"cannot connect to root\\cimv2: 0x%08lX\n", static_cast<unsigned long>(hr));
            return 1;
        }
        ComPtr<IEnumWbemClassObject> events;
        std::vector<std::vector<std::wstring>> commands(1);
        for (int i = 1; i < argc; ++i) {
            if (wcscmp(argv[i], L";") == 0) {
                commands.emplace_back();
            } else {
                commands.back().emplace_back(argv[i]);
            }
        }
        for (const auto& command : commands) {
            if (command.empty()) {
                continue;
            }
            const std::wstring& verb = command[0];
            const std::vector<std::wstring> args(command.begin() + 1, command.end());
            wprintf(L"> %ls\n", verb.c_str());
            int result = 0;
            if (verb == L"list" && !args.empty()) {
                ComPtr<IEnumWbemClassObject> instances;
                hr = services->CreateInstanceEnum(_bstr_t(args[0].c_str()), WBEM_FLAG_FORWARD_ONLY, nullptr, &instances);
                result = FAILED(hr) ? (PrintError(L"list", hr), 1)
                                    : (PrintAll(instances.Get(), {args.begin() + 1, args.end()}), 0);
            } else if (verb == L"query" && args.size() == 1) {
                ComPtr<IEnumWbemClassObject> instances;
                hr = services->ExecQuery(_bstr_t(L"WQL"), _bstr_t(args[0].c_str()), WBEM_FLAG_FORWARD_ONLY, nullptr,
                                         &instances);
                result = FAILED(hr) ? (PrintError(L"query", hr), 1) : (PrintAll(instances.Get(), {}), 0);
            } else if (verb == L"call") {
                result = Call(services.Get(), args);
            } else if (verb == L"subscribe" && args.size() == 1) {
                hr = services->ExecNotificationQuery(_bstr_t(L"WQL"), _bstr_t(args[0].c_str()),
                                                     WBEM_FLAG_RETURN_IMMEDIATELY | WBEM_FLAG_FORWARD_ONLY, nullptr,
                                                     &events);
                result = FAILED(hr) ? (PrintError(L"subscribe", hr), 1) : (wprintf(L"subscribed\n"), 0);
            } else if (verb == L"wait" && args.size() == 1 && events) {
                const DWORD until = GetTickCount() + 1000 * wcstoul(args[0].c_str(), nullptr, 10);
                int received = 0;
                for (LONG left; (left = static_cast<LONG>(until - GetTickCount())) > 0;) {
                    IWbemClassObject* event = nullptr;
                    ULONG returned = 0;
                    if (events->Next(left, 1, &event, &returned) == WBEM_S_NO_ERROR && returned == 1) {
                        PrintObject(event, {});
                        event->Release();
                        ++received;
                    }
                }
                wprintf(L"(%d event%ls)\n", received, received == 1 ? L"" : L"s");
            } else if (verb == L"processes" && args.empty()) {
                result = PrintProcesses();
            } else if (verb == L"wpd-put") {
                result = PutFile(args);
            } else if (verb == L"simulate-arrival" || verb == L"simulate-removal") {
                result = Simulate(verb == L"simulate-arrival" ? DBT_DEVICEARRIVAL : DBT_DEVICEREMOVECOMPLETE, args);
            } else {
                wprintf(L"unknown command or wrong arguments: %ls\n", verb.c_str());
                result = 2;
            }
            exitCode = exitCode != 0 ? exitCode : result;
        }
    }
    CoUninitialize();
    return exitCode;
}
