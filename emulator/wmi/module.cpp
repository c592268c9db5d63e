// The emulated WMI service as an in-process COM server: the locators (clients connect through
// CLSID_WbemLocator, the provider's publication through CLSID_WbemAdministrativeLocator), the context
// class, registration, and the control functions tests call directly.
#include <objbase.h>
#include <wbemcli.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "context.h"
#include "namespace.h"

namespace dorwex::emulator::wmi {

namespace {

HMODULE g_module = nullptr;

// {CB8555CC-9128-11D1-AD9B-00C04FD8FDFF}
constexpr CLSID kCLSID_WbemAdministrativeLocator = {
    0xcb8555cc, 0x9128, 0x11d1, {0xad, 0x9b, 0x00, 0xc0, 0x4f, 0xd8, 0xfd, 0xff}};

bool IsOurNamespace(const wchar_t* resource) {
    if (resource == nullptr) {
        return false;
    }
    std::wstring name(resource);
    std::replace(name.begin(), name.end(), L'/', L'\\');
    for (const wchar_t* prefix : {L"\\\\.\\", L"\\\\localhost\\"}) {
        if (_wcsnicmp(name.c_str(), prefix, wcslen(prefix)) == 0) {
            name = name.substr(wcslen(prefix));
        }
    }
    return _wcsicmp(name.c_str(), L"root\\cimv2") == 0;
}

class Locator final : public ComObject<IWbemLocator> {
public:
    HRESULT STDMETHODCALLTYPE ConnectServer(const BSTR strNetworkResource, const BSTR, const BSTR, const BSTR, LONG,
                                            const BSTR, IWbemContext*, IWbemServices** ppNamespace) override {
        if (ppNamespace == nullptr) {
            return WBEM_E_INVALID_PARAMETER;
        }
        *ppNamespace = nullptr;
        if (!IsOurNamespace(strNetworkResource)) {
            return WBEM_E_INVALID_NAMESPACE;
        }
        return CreateServices(IID_IWbemServices, reinterpret_cast<void**>(ppNamespace));
    }
};

template <class T>
HRESULT Create(REFIID riid, void** ppv) {
    return CreateComObject<T>(riid, ppv);
}

struct ServedClass {
    const CLSID* clsid;
    HRESULT (*create)(REFIID, void**);
    const wchar_t* description;
};
const ServedClass kClasses[] = {
    {&CLSID_WbemLocator, Create<Locator>, L"Emulated WbemLocator"},
    {&kCLSID_WbemAdministrativeLocator, Create<Locator>, L"Emulated WbemAdministrativeLocator"},
    {&CLSID_WbemContext, Create<Context>, L"Emulated WbemContext"},
};

class ClassFactory final : public ComObject<IClassFactory> {
public:
    explicit ClassFactory(HRESULT (*create)(REFIID, void**)) : m_create(create) {}
    HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown* outer, REFIID riid, void** ppv) override {
        if (ppv == nullptr) {
            return E_POINTER;
        }
        *ppv = nullptr;
        return outer != nullptr ? CLASS_E_NOAGGREGATION : m_create(riid, ppv);
    }
    HRESULT STDMETHODCALLTYPE LockServer(BOOL) override { return S_OK; }

private:
    HRESULT (*m_create)(REFIID, void**);
};

std::wstring ClassKey(const CLSID& clsid) {
    wchar_t text[64];
    StringFromGUID2(clsid, text, 64);
    return std::wstring(L"Software\\Classes\\CLSID\\") + text;
}

LSTATUS SetString(HKEY key, const wchar_t* name, const std::wstring& value) {
    return RegSetValueExW(key, name, 0, REG_SZ, reinterpret_cast<const BYTE*>(value.c_str()),
                          static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t)));
}

}  // namespace
}  // namespace dorwex::emulator::wmi

using namespace dorwex::emulator;
using namespace dorwex::emulator::wmi;

extern "C" BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID) {
    if (reason == DLL_PROCESS_ATTACH) {
        g_module = instance;
        DisableThreadLibraryCalls(instance);
    }
    return TRUE;
}

extern "C" HRESULT WINAPI DllGetClassObject(REFCLSID clsid, REFIID riid, void** ppv) {
    if (ppv == nullptr) {
        return E_POINTER;
    }
    *ppv = nullptr;
    for (const auto& served : kClasses) {
        if (clsid == *served.clsid) {
            return CreateComObject<ClassFactory>(riid, ppv, served.create);
        }
    }
    return CLASS_E_CLASSNOTAVAILABLE;
}

// The namespace and the provider it loaded live as long as the process.
extern "C" HRESULT WINAPI DllCanUnloadNow() {
    return S_FALSE;
}

extern "C" HRESULT WINAPI DllRegisterServer() {
    wchar_t path[MAX_PATH];
    if (GetModuleFileNameW(g_module, path, MAX_PATH) == 0) {
        return HRESULT_FROM_WIN32(GetLastError());
    }
    for (const auto& served : kClasses) {
        HKEY classKey = nullptr;
        LSTATUS status = RegCreateKeyW(HKEY_LOCAL_MACHINE, ClassKey(*served.clsid).c_str(), &classKey);
        if (status != ERROR_SUCCESS) {
            return HRESULT_FROM_WIN32(status);
        }
        SetString(classKey, nullptr, served.description);
        HKEY serverKey = nullptr;
        status = RegCreateKeyW(classKey, L"InprocServer32", &serverKey);
        RegCloseKey(classKey);
        if (status != ERROR_SUCCESS) {
            return HRESULT_FROM_WIN32(status);
        }
        SetString(serverKey, nullptr, path);
        SetString(serverKey, L"ThreadingModel", L"Both");
        RegCloseKey(serverKey);
    }
    return S_OK;
}

// Wine's own WMI takes the class ids back when it is re-registered (wineboot -u); removing ours leaves them
// unregistered until then.
extern "C" HRESULT WINAPI DllUnregisterServer() {
    for (const auto& served : kClasses) {
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, ClassKey(*served.clsid).c_str());
    }
    return S_OK;
}

// --- Control functions ----------------------------------------------------------------------------

extern "C" BOOL WINAPI DorwexWmiProviderLoaded() {
    return Namespace::Get().ProviderLoaded() ? TRUE : FALSE;
}

extern "C" DWORD WINAPI DorwexWmiLoadError(LPWSTR buffer, DWORD chars) {
    const std::wstring error = Namespace::Get().LoadError();
    if (buffer != nullptr && chars > 0) {
        const size_t count = std::min<size_t>(error.size(), chars - 1);
        std::memcpy(buffer, error.c_str(), count * sizeof(wchar_t));
        buffer[count] = L'\0';
    }
    return static_cast<DWORD>(error.size() + 1);
}

extern "C" LONG WINAPI DorwexWmiSubscriptions() {
    return static_cast<LONG>(Namespace::Get().SubscriptionCount());
}

extern "C" LONG WINAPI DorwexWmiLiveObjects() {
    return g_liveObjects.load();
}
