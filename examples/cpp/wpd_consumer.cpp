// A consumer of the dorWEX WPD provider written against IWbemServices directly, as a management or
// security product would write it:
//
//   wpd_consumer                 lists the portable devices (Win32ext_WPD)
//   wpd_consumer FILE [SECONDS]  also copies FILE onto the first device's first storage with a write
//                                token, and prints the Win32ext_WPDEvent notifications that arrive within
//                                SECONDS (5 by default)
//
// Builds with Visual C++ and the Windows SDK (cl /EHsc /std:c++17 wpd_consumer.cpp wbemuuid.lib ole32.lib
// oleaut32.lib) as with mingw-w64. Exit code 0 when every step worked.
#include <windows.h>
#include <comdef.h>
#include <wbemcli.h>
#include <wrl/client.h>

#include <cstdio>
#include <cwchar>
#include <string>
#include <vector>

using Microsoft::WRL::ComPtr;

namespace {

struct Device {
    std::wstring id;
    std::wstring name;
    std::wstring storage;
};

void PrintFailure(const wchar_t* what, HRESULT hr) {
    fwprintf(stderr, L"%ls failed: 0x%08lX\n", what, static_cast<unsigned long>(hr));
    // A provider describes a refused call in an __ExtendedStatus object, the thread's COM error object.
    ComPtr<IErrorInfo> error;
    ComPtr<IWbemClassObject> status;
    if (GetErrorInfo(0, &error) == S_OK && SUCCEEDED(error.As(&status))) {
        _variant_t description;
        if (SUCCEEDED(status->Get(L"Description", 0, &description, nullptr, nullptr)) && description.vt == VT_BSTR) {
            fwprintf(stderr, L"  reason: %ls\n", description.bstrVal);
        }
    }
}

std::wstring Text(IWbemClassObject* object, const wchar_t* name) {
    _variant_t value;
    if (FAILED(object->Get(name, 0, &value, nullptr, nullptr)) || value.vt != VT_BSTR || value.bstrVal == nullptr) {
        return std::wstring();
    }
    return value.bstrVal;
}

HRESULT Connect(ComPtr<IWbemServices>& services) {
    ComPtr<IWbemLocator> locator;
    HRESULT hr = CoCreateInstance(CLSID_WbemLocator, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&locator));
    if (FAILED(hr)) {
        return hr;
    }
    hr = locator->ConnectServer(_bstr_t(L"ROOT\\CIMV2"), nullptr, nullptr, nullptr, 0, nullptr, nullptr, &services);
    if (FAILED(hr)) {
        return hr;
    }
    // The provider impersonates its callers for local files: let it.
    return CoSetProxyBlanket(services.Get(), RPC_C_AUTHN_WINNT, RPC_C_AUTHZ_NONE, nullptr, RPC_C_AUTHN_LEVEL_CALL,
                             RPC_C_IMP_LEVEL_IMPERSONATE, nullptr, EOAC_NONE);
}

HRESULT ListDevices(IWbemServices* services, std::vector<Device>& devices) {
    ComPtr<IEnumWbemClassObject> results;
    HRESULT hr = services->ExecQuery(
        _bstr_t(L"WQL"), _bstr_t(L"SELECT strId, strFriendlyName, strManufacturer, strDisk1Name FROM Win32ext_WPD"),
        WBEM_FLAG_FORWARD_ONLY | WBEM_FLAG_RETURN_IMMEDIATELY, nullptr, &results);
    if (FAILED(hr)) {
        return hr;
    }
    for (;;) {
        ComPtr<IWbemClassObject> device;
        ULONG returned = 0;
        hr = results->Next(WBEM_INFINITE, 1, &device, &returned);
        if (FAILED(hr) || returned == 0) {
            break;
        }
        devices.push_back({Text(device.Get(), L"strId"), Text(device.Get(), L"strFriendlyName"),
                           Text(device.Get(), L"strDisk1Name")});
        wprintf(L"device: %ls (%ls), storage \"%ls\"\n", devices.back().name.c_str(),
                Text(device.Get(), L"strManufacturer").c_str(), devices.back().storage.c_str());
        wprintf(L"  id %ls\n", devices.back().id.c_str());
    }
    return FAILED(hr) ? hr : S_OK;
}

// Calls a static method of Win32ext_WPD; returns its ReturnValue through returnValue.
HRESULT CallMethod(IWbemServices* services, const wchar_t* method,
                   const std::vector<std::pair<const wchar_t*, _variant_t>>& parameters, IWbemContext* context,
                   std::wstring& returnValue) {
    ComPtr<IWbemClassObject> wpdClass;
    HRESULT hr = services->GetObject(_bstr_t(L"Win32ext_WPD"), 0, nullptr, &wpdClass, nullptr);
    ComPtr<IWbemClassObject> signature;
    if (SUCCEEDED(hr)) {
        hr = wpdClass->GetMethod(method, 0, &signature, nullptr);
    }
    ComPtr<IWbemClassObject> in;
    if (SUCCEEDED(hr)) {
        hr = signature->SpawnInstance(0, &in);
    }
    for (const auto& [name, value] : parameters) {
        if (SUCCEEDED(hr)) {
            hr = in->Put(name, 0, const_cast<VARIANT*>(static_cast<const VARIANT*>(&value)), 0);
        }
    }
    ComPtr<IWbemClassObject> out;
    if (SUCCEEDED(hr)) {
        hr = services->ExecMethod(_bstr_t(L"Win32ext_WPD"), _bstr_t(method), 0, context, in.Get(), &out, nullptr);
    }
    if (SUCCEEDED(hr) && out) {
        returnValue = Text(out.Get(), L"ReturnValue");
    }
    return hr;
}

// A write token is only for the process that asks for it, named in the call's context: the same
// context then goes with the copy.
HRESULT CopyToDevice(IWbemServices* services, const Device& device, const std::wstring& file) {
    ComPtr<IWbemContext> context;
    HRESULT hr = CoCreateInstance(CLSID_WbemContext, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&context));
    if (FAILED(hr)) {
        return hr;
    }
    _variant_t pid(static_cast<long>(GetCurrentProcessId()), VT_I4);
    context->SetValue(L"dorWEXWPDClientPID", 0, &pid);

    std::wstring token;
    hr = CallMethod(services, L"RequestWriteToken", {{L"uint32ProcessId", pid}}, context.Get(), token);
    if (FAILED(hr)) {
        PrintFailure(L"RequestWriteToken", hr);
        return hr;
    }
    wprintf(L"write token: %ls\n", token.c_str());

    const size_t slash = file.find_last_of(L"\\/");
    const std::wstring target = device.storage + L"\\" + (slash == std::wstring::npos ? file : file.substr(slash + 1));
    std::wstring result;
    hr = CallMethod(services, L"CopyFileToDevice",
                    {{L"strObjectStoragePath", _variant_t(target.c_str())},
                     {L"strFileToCopy", _variant_t(file.c_str())},
                     {L"strWriteToken", _variant_t(token.c_str())},
                     {L"strObjectDeviceId", _variant_t(device.id.c_str())}},
                    context.Get(), result);
    if (FAILED(hr)) {
        PrintFailure(L"CopyFileToDevice", hr);
        return hr;
    }
    wprintf(L"copied to %ls on %ls: ReturnValue %ls\n", target.c_str(), device.name.c_str(), result.c_str());
    return result == L"1" ? S_OK : E_FAIL;
}

int PrintEvents(IEnumWbemClassObject* events, DWORD seconds) {
    int received = 0;
    const ULONGLONG until = GetTickCount64() + 1000ULL * seconds;
    for (ULONGLONG now; (now = GetTickCount64()) < until;) {
        ComPtr<IWbemClassObject> event;
        ULONG returned = 0;
        if (events->Next(static_cast<LONG>(until - now), 1, &event, &returned) == WBEM_S_NO_ERROR && returned == 1) {
            wprintf(L"event: %ls %ls on %ls\n", Text(event.Get(), L"strEventId").c_str(),
                    Text(event.Get(), L"strObjectName").c_str(), Text(event.Get(), L"strObjectDeviceId").c_str());
            ++received;
        }
    }
    wprintf(L"%d event(s)\n", received);
    return received;
}

int Run(int argc, wchar_t** argv) {
    ComPtr<IWbemServices> services;
    HRESULT hr = Connect(services);
    if (FAILED(hr)) {
        PrintFailure(L"connecting to ROOT\\CIMV2", hr);
        return 1;
    }
    // Subscribe before acting, so that the event of our own copy is not missed.
    ComPtr<IEnumWbemClassObject> events;
    if (argc > 1) {
        hr = services->ExecNotificationQuery(_bstr_t(L"WQL"), _bstr_t(L"SELECT * FROM Win32ext_WPDEvent"),
                                             WBEM_FLAG_RETURN_IMMEDIATELY | WBEM_FLAG_FORWARD_ONLY, nullptr, &events);
        if (FAILED(hr)) {
            PrintFailure(L"subscribing to Win32ext_WPDEvent", hr);
            return 1;
        }
    }
    std::vector<Device> devices;
    hr = ListDevices(services.Get(), devices);
    if (FAILED(hr)) {
        PrintFailure(L"listing Win32ext_WPD", hr);
        return 1;
    }
    wprintf(L"%u device(s)\n", static_cast<unsigned>(devices.size()));
    if (argc < 2) {
        return 0;
    }
    if (devices.empty() || devices.front().storage.empty()) {
        fwprintf(stderr, L"no device with a storage to copy to\n");
        return 1;
    }
    if (FAILED(CopyToDevice(services.Get(), devices.front(), argv[1]))) {
        return 1;
    }
    return PrintEvents(events.Get(), argc > 2 ? wcstoul(argv[2], nullptr, 10) : 5) > 0 ? 0 : 1;
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    HRESULT hr = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    if (FAILED(hr)) {
        return 1;
    }
    hr = CoInitializeSecurity(nullptr, -1, nullptr, nullptr, RPC_C_AUTHN_LEVEL_DEFAULT, RPC_C_IMP_LEVEL_IMPERSONATE,
                              nullptr, EOAC_NONE, nullptr);
    int result = 1;
    if (SUCCEEDED(hr) || hr == RPC_E_TOO_LATE) {
        result = Run(argc, argv);
    }
    CoUninitialize();
    return result;
}
