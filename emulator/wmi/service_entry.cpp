// The emulated WMI service in a process of its own, as Windows runs it: clients' locators connect to it
// through COM activation of a local server, and every client of the prefix then shares one namespace, one
// provider host and one portable-device stack, in the service's process.
#include "service_entry.h"

#include <objbase.h>
#include <oleauto.h>
#include <wbemcli.h>

#include <atomic>
#include <functional>
#include <string>

#include "dorwex_wmi_service.h"
#include "emulator/common/com_object.h"
#include "emulator/common/com_server.h"
#include "emulator/wpd/control.h"
#include "namespace.h"

namespace dorwex::emulator::wmi {

namespace {

std::atomic<bool> g_inServiceProcess{false};
HANDLE g_exitRequested = nullptr;

// A control function of the portable-device stack loaded in this process (the one the provider uses).
template <class F>
F DeviceControl(const char* name) {
    static const HMODULE stack = LoadLibraryW((ThisModuleDirectory() + L"dorwex_wpd_emulator.dll").c_str());
    return stack == nullptr ? nullptr : reinterpret_cast<F>(reinterpret_cast<void*>(GetProcAddress(stack, name)));
}

struct ControlCall {
    LONG first;
    LONG second;
    const wchar_t* text;
    LONG result = 0;
    std::wstring textOut;
};

struct ControlEntry {
    const wchar_t* name;
    std::function<HRESULT(ControlCall&)> run;
};

const ControlEntry kControls[] = {
    {L"Exit", [](ControlCall&) { return SetEvent(g_exitRequested) ? S_OK : E_FAIL; }},
    {L"SetEnvironment",
     [](ControlCall& call) {
         const std::wstring text = call.text != nullptr ? call.text : L"";
         const size_t equals = text.find(L'=');
         if (equals == std::wstring::npos || equals == 0) {
             return E_INVALIDARG;
         }
         const std::wstring value = text.substr(equals + 1);
         return SetEnvironmentVariableW(text.substr(0, equals).c_str(), value.empty() ? nullptr : value.c_str())
                    ? S_OK
                    : HRESULT_FROM_WIN32(GetLastError());
     }},
    {L"DorwexEmulatorReset",
     [](ControlCall&) {
         auto reset = DeviceControl<DorwexEmulatorResetFunction>("DorwexEmulatorReset");
         return reset == nullptr ? E_NOTIMPL : (reset(), S_OK);
     }},
    {L"DorwexEmulatorRescan",
     [](ControlCall& call) {
         auto rescan = DeviceControl<DorwexEmulatorRescanFunction>("DorwexEmulatorRescan");
         return rescan == nullptr ? E_NOTIMPL : (call.result = static_cast<LONG>(rescan()), S_OK);
     }},
    {L"DorwexEmulatorWaitForEvents",
     [](ControlCall& call) {
         auto wait = DeviceControl<DorwexEmulatorWaitForEventsFunction>("DorwexEmulatorWaitForEvents");
         return wait == nullptr ? E_NOTIMPL : (call.result = wait(static_cast<DWORD>(call.first)), S_OK);
     }},
    {L"DorwexEmulatorErrors",
     [](ControlCall& call) {
         auto errors = DeviceControl<DorwexEmulatorErrorsFunction>("DorwexEmulatorErrors");
         if (errors == nullptr) {
             return E_NOTIMPL;
         }
         call.textOut.resize(errors(nullptr, 0));
         errors(call.textOut.data(), static_cast<DWORD>(call.textOut.size()));
         call.textOut.resize(call.textOut.empty() ? 0 : call.textOut.size() - 1);
         return S_OK;
     }},
    {L"GetEnvironment",
     [](ControlCall& call) {
         wchar_t value[1024] = {};
         GetEnvironmentVariableW(call.text != nullptr ? call.text : L"", value, 1024);
         call.textOut = value;
         return S_OK;
     }},
    {L"DorwexWmiSubscriptions",
     [](ControlCall& call) {
         call.result = static_cast<LONG>(Namespace::Get().SubscriptionCount());
         return S_OK;
     }},
    {L"DorwexWmiProviderLoaded",
     [](ControlCall& call) {
         call.result = Namespace::Get().ProviderLoaded() ? 1 : 0;
         return S_OK;
     }},
    {L"DorwexWmiLoadError",
     [](ControlCall& call) {
         call.textOut = Namespace::Get().LoadError();
         return S_OK;
     }},
};

class ServiceEntry final : public ComObject<IDorwexWmiService> {
public:
    HRESULT STDMETHODCALLTYPE ConnectNamespace(BSTR strNamespace, IWbemServices** ppServices) override {
        if (ppServices == nullptr) {
            return WBEM_E_INVALID_PARAMETER;
        }
        *ppServices = nullptr;
        if (strNamespace == nullptr || !IsServedNamespace(strNamespace)) {
            return WBEM_E_INVALID_NAMESPACE;
        }
        Namespace::Get().Load();
        return CreateServices(IID_IWbemServices, reinterpret_cast<void**>(ppServices));
    }
    HRESULT STDMETHODCALLTYPE ProcessId(DWORD* pdwProcessId) override {
        if (pdwProcessId == nullptr) {
            return E_POINTER;
        }
        *pdwProcessId = GetCurrentProcessId();
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE Control(BSTR strFunction, LONG lFirst, LONG lSecond, BSTR strText, LONG* plResult,
                                      BSTR* pstrText) override {
        if (plResult == nullptr || pstrText == nullptr) {
            return E_POINTER;
        }
        *plResult = 0;
        *pstrText = nullptr;
        for (const auto& entry : kControls) {
            if (strFunction != nullptr && lstrcmpW(strFunction, entry.name) == 0) {
                ControlCall call{lFirst, lSecond, strText, 0, {}};
                const HRESULT hr = entry.run(call);
                *plResult = call.result;
                *pstrText = call.textOut.empty() ? nullptr : SysAllocString(call.textOut.c_str());
                return hr;
            }
        }
        return E_NOTIMPL;
    }
};

HRESULT CreateServiceEntry(REFIID riid, void** ppv) {
    return CreateComObject<ServiceEntry>(riid, ppv);
}

const ServedClass kServiceClass[] = {{&kCLSID_EmulatedWmiService, CreateServiceEntry, L"Emulated WMI service"}};

}  // namespace

bool UseSharedService() {
    wchar_t mode[16] = {};
    const DWORD length = GetEnvironmentVariableW(L"DORWEX_WMI_SERVICE", mode, 16);
    return !g_inServiceProcess && length > 0 && length < 16 && lstrcmpiW(mode, L"shared") == 0;
}

HRESULT ConnectSharedService(const wchar_t* nameSpace, IWbemServices** services) {
    IDorwexWmiService* service = nullptr;
    HRESULT hr = CoCreateInstance(kCLSID_EmulatedWmiService, nullptr, CLSCTX_LOCAL_SERVER, IID_IDorwexWmiService,
                                  reinterpret_cast<void**>(&service));
    if (FAILED(hr)) {
        return hr;
    }
    BSTR name = SysAllocString(nameSpace);
    IWbemServices* namespaceServices = nullptr;
    hr = name == nullptr ? E_OUTOFMEMORY : service->ConnectNamespace(name, &namespaceServices);
    SysFreeString(name);
    service->Release();
    *services = namespaceServices;
    return hr;
}

HRESULT RegisterSharedService(HMODULE) {
    const std::wstring directory = ThisModuleDirectory();
    // A DLL copied alone (into a package's test, say) serves clients in their own processes only.
    if (GetFileAttributesW((directory + L"dorwex_wmi_service.exe").c_str()) == INVALID_FILE_ATTRIBUTES ||
        GetFileAttributesW((directory + L"dorwex_wmi_proxy.dll").c_str()) == INVALID_FILE_ATTRIBUTES) {
        return S_OK;
    }
    wchar_t clsid[64];
    StringFromGUID2(kCLSID_EmulatedWmiService, clsid, 64);
    const std::wstring key = std::wstring(L"Software\\Classes\\CLSID\\") + clsid + L"\\LocalServer32";
    const std::wstring server = directory + L"dorwex_wmi_service.exe";
    HKEY serverKey = nullptr;
    LSTATUS status = RegCreateKeyW(HKEY_LOCAL_MACHINE, key.c_str(), &serverKey);
    if (status != ERROR_SUCCESS) {
        return HRESULT_FROM_WIN32(status);
    }
    status = RegSetValueExW(serverKey, nullptr, 0, REG_SZ, reinterpret_cast<const BYTE*>(server.c_str()),
                            static_cast<DWORD>((server.size() + 1) * sizeof(wchar_t)));
    RegCloseKey(serverKey);
    if (status != ERROR_SUCCESS) {
        return HRESULT_FROM_WIN32(status);
    }
    // The proxies and stubs the calls between processes need, registered as regsvr32 would.
    HMODULE proxies = LoadLibraryW((directory + L"dorwex_wmi_proxy.dll").c_str());
    if (proxies == nullptr) {
        return HRESULT_FROM_WIN32(GetLastError());
    }
    using RegisterFunction = HRESULT(WINAPI*)();
    auto registerProxies =
        reinterpret_cast<RegisterFunction>(reinterpret_cast<void*>(GetProcAddress(proxies, "DllRegisterServer")));
    const HRESULT hr = registerProxies == nullptr ? E_NOTIMPL : registerProxies();
    FreeLibrary(proxies);
    return hr;
}

}  // namespace dorwex::emulator::wmi

// Runs in the service process: serves clients of other processes until one asks the service to end.
extern "C" HRESULT WINAPI DorwexWmiServeLocalClients() {
    using namespace dorwex::emulator::wmi;
    g_inServiceProcess = true;
    g_exitRequested = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    IUnknown* factory = nullptr;
    HRESULT hr = dorwex::emulator::GetServedClassObject(kServiceClass, 1, kCLSID_EmulatedWmiService, IID_IUnknown,
                                                        reinterpret_cast<void**>(&factory));
    DWORD cookie = 0;
    if (SUCCEEDED(hr)) {
        hr = CoRegisterClassObject(kCLSID_EmulatedWmiService, factory, CLSCTX_LOCAL_SERVER, REGCLS_MULTIPLEUSE,
                                   &cookie);
        factory->Release();
    }
    if (SUCCEEDED(hr)) {
        WaitForSingleObject(g_exitRequested, INFINITE);
        CoRevokeClassObject(cookie);
    }
    return hr;
}
