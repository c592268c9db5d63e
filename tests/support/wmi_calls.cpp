#include "support/wmi_calls.h"

#include <gtest/gtest.h>

#include <windows.h>
#include <dbt.h>

#include <cstddef>
#include <cstring>

#include "support/stack_com.h"
#include "support/wait_until.h"

using Microsoft::WRL::ComPtr;

std::wstring ProgramDirectory() {
    wchar_t path[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, path, MAX_PATH);
    std::wstring directory(path);
    return directory.substr(0, directory.find_last_of(L'\\'));
}

// Registers a COM server of the build in the prefix, as regsvr32 does.
void Register(const wchar_t* dll) {
    HMODULE module = LoadLibraryW((ProgramDirectory() + L"\\" + dll).c_str());
    ASSERT_NE(module, nullptr) << "cannot load " << std::string(dll, dll + wcslen(dll));
    auto* registerServer = reinterpret_cast<HRESULT(WINAPI*)()>(
        reinterpret_cast<void*>(GetProcAddress(module, "DllRegisterServer")));
    ASSERT_NE(registerServer, nullptr);
    ASSERT_EQ(registerServer(), S_OK);
}

ComPtr<IWbemServices> Connect() {
    ComPtr<IWbemLocator> locator;
    EXPECT_EQ(CoCreateInstance(CLSID_WbemLocator, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&locator)), S_OK);
    ComPtr<IWbemServices> services;
    if (locator) {
        EXPECT_EQ(locator->ConnectServer(_bstr_t(L"ROOT\\CIMV2"), nullptr, nullptr, nullptr, 0, nullptr, nullptr,
                                         &services),
                  S_OK);
    }
    return services;
}

std::vector<ComPtr<IWbemClassObject>> Query(IWbemServices* services, const std::wstring& wql) {
    std::vector<ComPtr<IWbemClassObject>> objects;
    ComPtr<IEnumWbemClassObject> enumerator;
    EXPECT_EQ(services->ExecQuery(_bstr_t(L"WQL"), _bstr_t(wql.c_str()), WBEM_FLAG_FORWARD_ONLY, nullptr, &enumerator),
              S_OK);
    IWbemClassObject* object = nullptr;
    ULONG returned = 0;
    while (enumerator && enumerator->Next(WBEM_INFINITE, 1, &object, &returned) == S_OK && returned == 1) {
        objects.emplace_back(object);
        object->Release();
    }
    return objects;
}

std::wstring Text(IWbemClassObject* object, const wchar_t* name) {
    _variant_t value;
    if (FAILED(object->Get(name, 0, &value, nullptr, nullptr)) || value.vt != VT_BSTR || value.bstrVal == nullptr) {
        return L"<none>";
    }
    return value.bstrVal;
}

namespace {

// The in-parameters and the context of a method call, as a client makes them. False when WMI refused a
// value before any provider saw it (the outcome then holds the refusal).
bool PrepareCall(IWbemServices* services, const wchar_t* method, const Parameters& parameters,
                 const ClientPid& clientPid, ComPtr<IWbemClassObject>& in, ComPtr<IWbemContext>& context, Outcome& outcome) {
    ComPtr<IWbemClassObject> wpdClass;
    services->GetObject(_bstr_t(L"Win32ext_WPD"), 0, nullptr, &wpdClass, nullptr);
    ComPtr<IWbemClassObject> inSignature;
    wpdClass->GetMethod(method, 0, &inSignature, nullptr);
    if (inSignature) {
        inSignature->SpawnInstance(0, &in);
        for (const auto& parameter : parameters) {
            const HRESULT put = in->Put(parameter.first, 0, const_cast<_variant_t*>(&parameter.second), 0);
            if (put == static_cast<HRESULT>(WBEM_E_TYPE_MISMATCH)) {
                outcome.status = put;  // WMI refuses the value before any provider sees it
                return false;
            }
            EXPECT_TRUE(put == S_OK || put == static_cast<HRESULT>(WBEM_E_NOT_FOUND));
        }
    }
    if (clientPid.value.vt != VT_EMPTY) {
        CoCreateInstance(CLSID_WbemContext, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&context));
        context->SetValue(L"dorWEXWPDClientPID", 0, const_cast<_variant_t*>(&clientPid.value));
    }
    return true;
}

// Keeps what a call indicates and the status it completes with.
class MethodSink : public IWbemObjectSink {
public:
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override {
        if (riid != IID_IUnknown && riid != IID_IWbemObjectSink) {
            *ppv = nullptr;
            return E_NOINTERFACE;
        }
        *ppv = static_cast<IWbemObjectSink*>(this);
        AddRef();
        return S_OK;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return InterlockedIncrement(&refs); }
    ULONG STDMETHODCALLTYPE Release() override { return InterlockedDecrement(&refs); }
    HRESULT STDMETHODCALLTYPE Indicate(LONG count, IWbemClassObject** objects) override {
        for (LONG i = 0; i < count; ++i) {
            indicated.emplace_back(objects[i]);
        }
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE SetStatus(LONG, HRESULT result, BSTR, IWbemClassObject* statusObject) override {
        ++completions;
        status = result;
        statusObjectReceived = statusObject;
        return S_OK;
    }
    LONG refs = 1;
    std::vector<ComPtr<IWbemClassObject>> indicated;
    int completions = 0;
    HRESULT status = S_OK;
    ComPtr<IWbemClassObject> statusObjectReceived;
};

}  // namespace

Outcome CallMethod(const wchar_t* method, const Parameters& parameters, const ClientPid& clientPid) {
    Outcome outcome;
    auto services = Connect();
    ComPtr<IWbemClassObject> in;
    ComPtr<IWbemContext> context;
    if (!PrepareCall(services.Get(), method, parameters, clientPid, in, context, outcome)) {
        return outcome;
    }
    ComPtr<IWbemClassObject> out;
    outcome.status = services->ExecMethod(_bstr_t(L"Win32ext_WPD"), _bstr_t(method), 0, context.Get(), in.Get(), &out,
                                          nullptr);
    if (out) {
        outcome.returnValue = Text(out.Get(), L"ReturnValue");
    }
    ComPtr<IErrorInfo> error;
    ComPtr<IWbemClassObject> status;
    if (FAILED(outcome.status) && GetErrorInfo(0, &error) == S_OK && SUCCEEDED(error.As(&status))) {
        outcome.description = Text(status.Get(), L"Description");
    }
    return outcome;
}

namespace {

// An asynchronous method call on target (the WMI service or a provider object), completed before it returns.
Outcome CallAsyncOn(IWbemServices* target, const wchar_t* method, const Parameters& parameters,
                    const ClientPid& clientPid) {
    Outcome outcome;
    auto services = Connect();
    ComPtr<IWbemClassObject> in;
    ComPtr<IWbemContext> context;
    if (!PrepareCall(services.Get(), method, parameters, clientPid, in, context, outcome)) {
        return outcome;
    }
    MethodSink sink;
    EXPECT_EQ(target->ExecMethodAsync(_bstr_t(L"Win32ext_WPD"), _bstr_t(method), 0, context.Get(), in.Get(), &sink),
              WBEM_S_NO_ERROR);
    EXPECT_EQ(sink.completions, 1) << "a method call is completed before it returns";
    outcome.status = sink.status;
    outcome.returnValue = sink.indicated.empty() ? L"<no object>" : Text(sink.indicated.front().Get(), L"ReturnValue");
    if (sink.statusObjectReceived) {
        outcome.description = Text(sink.statusObjectReceived.Get(), L"Description");
        outcome.operation = Text(sink.statusObjectReceived.Get(), L"Operation");
    }
    return outcome;
}

}  // namespace

Outcome CallMethodAsync(const wchar_t* method, const Parameters& parameters, const ClientPid& clientPid) {
    return CallAsyncOn(Connect().Get(), method, parameters, clientPid);
}

namespace {

// The client call context WMI gives a provider registered for impersonation: the client is this test, so
// impersonating it is ImpersonateSelf.
class ClientSecurity final : public StackCom<IServerSecurity> {
public:
    HRESULT STDMETHODCALLTYPE QueryBlanket(DWORD*, DWORD*, OLECHAR**, DWORD*, DWORD*, void**, DWORD*) override {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE ImpersonateClient() override {
        return ImpersonateSelf(SecurityImpersonation) ? S_OK : HRESULT_FROM_WIN32(GetLastError());
    }
    HRESULT STDMETHODCALLTYPE RevertToSelf() override { return ::RevertToSelf() ? S_OK : E_FAIL; }
    BOOL STDMETHODCALLTYPE IsImpersonating() override { return FALSE; }
};

}  // namespace

Outcome CallProviderMethod(IWbemServices* provider, const wchar_t* method, const Parameters& parameters,
                           const ClientPid& clientPid) {
    ClientSecurity client;
    IUnknown* previous = nullptr;
    const bool switched = SUCCEEDED(CoSwitchCallContext(&client, &previous));
    Outcome outcome = CallAsyncOn(provider, method, parameters, clientPid);
    if (switched) {
        IUnknown* ours = nullptr;
        CoSwitchCallContext(previous, &ours);
    }
    return outcome;
}

ComPtr<IWbemClassObject> NextEvent(IEnumWbemClassObject* events, long milliseconds) {
    IWbemClassObject* event = nullptr;
    ULONG returned = 0;
    ComPtr<IWbemClassObject> received;
    if (events != nullptr && events->Next(milliseconds, 1, &event, &returned) == S_OK && returned == 1) {
        // Not Attach: mingw-w64's adds a reference, the Windows SDK's does not.
        received = event;
        event->Release();
    }
    return received;
}

HWND OwnHiddenWindow() {
    // Other processes of the prefix (tests that run beside this one) have hidden windows of the same class
    // and title: only this process's provider is meant.
    HWND window = nullptr;
    while ((window = FindWindowExW(nullptr, window, L"dorWEXWMIWPDHiddenWindowClass", L"dorWEX14")) != nullptr) {
        DWORD process = 0;
        GetWindowThreadProcessId(window, &process);
        if (process == GetCurrentProcessId()) {
            return window;
        }
    }
    return nullptr;
}

void Notify(WPARAM change, const std::wstring& interfaceName) {
    HWND window = nullptr;
    ASSERT_TRUE(WaitUntil([&] { return (window = OwnHiddenWindow()) != nullptr; }));
    std::vector<BYTE> buffer(offsetof(DEV_BROADCAST_DEVICEINTERFACE_W, dbcc_name) +
                             (interfaceName.size() + 1) * sizeof(wchar_t));
    auto* record = reinterpret_cast<DEV_BROADCAST_DEVICEINTERFACE_W*>(buffer.data());
    record->dbcc_size = static_cast<DWORD>(buffer.size());
    record->dbcc_devicetype = DBT_DEVTYP_DEVICEINTERFACE;
    record->dbcc_classguid = {0x6ac27878, 0xa6fa, 0x4155, {0xba, 0x85, 0xf9, 0x8f, 0x49, 0x1d, 0x4f, 0x33}};
    memcpy(record->dbcc_name, interfaceName.c_str(), (interfaceName.size() + 1) * sizeof(wchar_t));
    EXPECT_EQ(SendMessageW(window, WM_DEVICECHANGE, change, reinterpret_cast<LPARAM>(record)), TRUE);
}

bool PublishedWithId(const std::wstring& id) {
    auto services = Connect();
    for (const auto& device : Query(services.Get(), L"SELECT * FROM Win32ext_WPD")) {
        if (_wcsicmp(Text(device.Get(), L"strId").c_str(), id.c_str()) == 0) {
            return true;
        }
    }
    return false;
}
