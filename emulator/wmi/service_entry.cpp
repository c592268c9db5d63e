// The emulated WMI service in a process of its own, as Windows runs it: clients' locators connect to it
// through COM activation of a local server, and every client of the prefix then shares one namespace. The
// service loads the provider into a provider host process of its own, with the portable-device stack.
#include "service_entry.h"

#include <objbase.h>
#include <oleauto.h>
#include <wbemcli.h>

#include <atomic>
#include <iterator>
#include <string>

#include "controls.h"
#include "dorwex_wmi_service.h"
#include "emulator/common/com_object.h"
#include "emulator/common/com_server.h"
#include "namespace.h"
#include "provider_host.h"

namespace dorwex::emulator::wmi {

namespace {

std::atomic<bool> g_inServiceProcess{false};
HANDLE g_exitRequested = nullptr;

// The service's own controls; those of the portable-device stack run where the provider runs.
const ControlEntry kServiceControls[] = {
    {L"Exit", [](ControlCall&) { return SetEvent(g_exitRequested) ? S_OK : E_FAIL; }},
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
    {L"ProviderHostProcessId",
     [](ControlCall& call) {
         call.result = static_cast<LONG>(ProviderHosting::Get().HostProcessId());
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
        if (const ControlEntry* entry = FindControl(kServiceControls, std::size(kServiceControls), strFunction)) {
            return RunControl(*entry, lFirst, lSecond, strText, plResult, pstrText);
        }
        const ControlEntry* entry = FindStackControl(strFunction);
        if (entry == nullptr) {
            return E_NOTIMPL;
        }
        auto& hosting = ProviderHosting::Get();
        const bool environment = lstrcmpW(strFunction, L"SetEnvironment") == 0 ||
                                 lstrcmpW(strFunction, L"GetEnvironment") == 0;
        if (!hosting.Separate() || environment) {
            // A host started later inherits this process's environment; a running one is told as well.
            const HRESULT hr = RunControl(*entry, lFirst, lSecond, strText, plResult, pstrText);
            if (SUCCEEDED(hr) && hosting.Separate() && lstrcmpW(strFunction, L"SetEnvironment") == 0) {
                LONG ignored = 0;
                BSTR out = nullptr;
                hosting.Control(strFunction, lFirst, lSecond, strText, &ignored, &out, false);
                SysFreeString(out);
            }
            return hr;
        }
        return hosting.Control(strFunction, lFirst, lSecond, strText, plResult, pstrText, true);
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

namespace {

// Registers a class as a local server: the program of that name next to this DLL.
HRESULT RegisterLocalServer(const CLSID& clsid, const std::wstring& program) {
    wchar_t text[64];
    StringFromGUID2(clsid, text, 64);
    const std::wstring key = std::wstring(L"Software\\Classes\\CLSID\\") + text + L"\\LocalServer32";
    const std::wstring server = ThisModuleDirectory() + program;
    HKEY serverKey = nullptr;
    LSTATUS status = RegCreateKeyW(HKEY_LOCAL_MACHINE, key.c_str(), &serverKey);
    if (status != ERROR_SUCCESS) {
        return HRESULT_FROM_WIN32(status);
    }
    status = RegSetValueExW(serverKey, nullptr, 0, REG_SZ, reinterpret_cast<const BYTE*>(server.c_str()),
                            static_cast<DWORD>((server.size() + 1) * sizeof(wchar_t)));
    RegCloseKey(serverKey);
    return HRESULT_FROM_WIN32(status);
}

}  // namespace

HRESULT RegisterSharedService(HMODULE) {
    const std::wstring directory = ThisModuleDirectory();
    // A DLL copied alone (into a package's test, say) serves clients in their own processes only.
    for (const wchar_t* file : {L"dorwex_wmi_service.exe", L"dorwex_provider_host.exe", L"dorwex_wmi_proxy.dll"}) {
        if (GetFileAttributesW((directory + file).c_str()) == INVALID_FILE_ATTRIBUTES) {
            return S_OK;
        }
    }
    HRESULT hr = RegisterLocalServer(kCLSID_EmulatedWmiService, L"dorwex_wmi_service.exe");
    if (FAILED(hr)) {
        return hr;
    }
    // The proxies and stubs the calls between processes need, registered as regsvr32 would.
    HMODULE proxies = LoadLibraryW((directory + L"dorwex_wmi_proxy.dll").c_str());
    if (proxies == nullptr) {
        return HRESULT_FROM_WIN32(GetLastError());
    }
    using RegisterFunction = HRESULT(WINAPI*)();
    auto registerProxies =
        reinterpret_cast<RegisterFunction>(reinterpret_cast<void*>(GetProcAddress(proxies, "DllRegisterServer")));
    hr = registerProxies == nullptr ? E_NOTIMPL : registerProxies();
    FreeLibrary(proxies);
    return hr;
}

}  // namespace dorwex::emulator::wmi

// Runs in the service process: serves clients of other processes until one asks the service to end.
extern "C" HRESULT WINAPI DorwexWmiServeLocalClients() {
    using namespace dorwex::emulator::wmi;
    g_inServiceProcess = true;
    g_exitRequested = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    ProviderHosting::Get().UseSeparateHost([] { Namespace::Get().HostEnded(); });
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
