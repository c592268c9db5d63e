// Module entry, the exported COM entry points and self-registration.
#include "module.h"

#include <objbase.h>
#include <olectl.h>

#include <cwchar>
#include <cstdlib>
#include <new>

#include "../monitor/monitor.h"
#include "class_factory.h"
#include "os_version_code.h"
#include "provider_clsid.h"
#include "../common/trace.h"

HMODULE g_HMODULEModule = nullptr;
wchar_t g_wcharModulePath[MAX_PATH] = {};
wchar_t g_wcharModuleDirectory[MAX_PATH] = {};
IDorWEXMonitor* g_pCDorWEXWMIWPDCore = nullptr;
std::mutex g_mutexCore;

volatile LONG g_longInstanceCountOfDorWEXWMIWPDClass = 0;
volatile LONG g_longInstanceCountOfDorWEXWPDWMIClassFactoryClass = 0;

namespace {

constexpr wchar_t kCLSIDKey[] = L"Software\\classes\\CLSID";
constexpr wchar_t kProviderDescription[] = L"dorWEX WPD WMI Provider";

LONG ComputeModuleOSVersionCode() {
    OSVERSIONINFOW l_OSVERSIONINFOW{};
    l_OSVERSIONINFOW.dwOSVersionInfoSize = sizeof(OSVERSIONINFOW);  // 276
#if defined(__GNUC__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
#endif
    // Deliberately the shimmed API: without a manifest it reports what the host process is told.
    const BOOL l_BOOLResult = GetVersionExW(&l_OSVERSIONINFOW);
#if defined(__GNUC__)
#pragma GCC diagnostic pop
#endif
    return dorwex::ComputeOSVersionCode(l_BOOLResult, l_OSVERSIONINFOW.dwMajorVersion,
                                        l_OSVERSIONINFOW.dwMinorVersion);
}

// A registry key closed when it goes out of scope.
class RegistryKey {
public:
    RegistryKey() = default;
    ~RegistryKey() {
        if (m_HKEY != nullptr) {
            RegCloseKey(m_HKEY);
        }
    }
    RegistryKey(const RegistryKey&) = delete;
    RegistryKey& operator=(const RegistryKey&) = delete;

    LSTATUS Create(HKEY hkeyParent_in, const wchar_t* pwcharSubKey_in) {
        return RegCreateKeyW(hkeyParent_in, pwcharSubKey_in, &m_HKEY);
    }
    LSTATUS Open(HKEY hkeyParent_in, const wchar_t* pwcharSubKey_in) {
        return RegOpenKeyW(hkeyParent_in, pwcharSubKey_in, &m_HKEY);
    }
    // REG_SZ with the byte count including the terminating zero.
    LSTATUS SetString(const wchar_t* pwcharName_in, const wchar_t* pwcharValue_in) {
        const DWORD l_dwordBytes = static_cast<DWORD>((wcslen(pwcharValue_in) + 1) * sizeof(wchar_t));
        return RegSetValueExW(m_HKEY, pwcharName_in, 0, REG_SZ, reinterpret_cast<const BYTE*>(pwcharValue_in),
                              l_dwordBytes);
    }
    HKEY Get() const { return m_HKEY; }

private:
    HKEY m_HKEY = nullptr;
};

// The companions first, then the core with its WPD processor.
void StopAndDeleteCore(IDorWEXMonitor* pCore_in) {
    pCore_in->Shutdown();
    delete pCore_in;
}

// "Software\classes\CLSID\{...}" for the provider's class.
void FormatProviderClassKey(wchar_t (&wcharKey_out)[MAX_PATH], wchar_t (&wcharCLSID_out)[128]) {
    StringFromGUID2(CLSID_DorWEXWPDWMIProvider, wcharCLSID_out, 128);
    wcscpy_s(wcharKey_out, kCLSIDKey);
    wcscat_s(wcharKey_out, L"\\");
    wcscat_s(wcharKey_out, wcharCLSID_out);
}

}  // namespace

BOOL ModuleProcessAttach(HINSTANCE hinstanceModule_in) {
    Trace(L"dorWEX14 DllMain, DLL_PROCESS_ATTACH");
    g_HMODULEModule = hinstanceModule_in;
    GetModuleFileNameW(hinstanceModule_in, g_wcharModulePath, MAX_PATH);
    wchar_t l_wcharDrive[3] = {};
    wchar_t l_wcharDirectory[256] = {};
    _wsplitpath_s(g_wcharModulePath, l_wcharDrive, 3, l_wcharDirectory, 256, nullptr, 0, nullptr, 0);
    wcscpy_s(g_wcharModuleDirectory, l_wcharDrive);
    wcscat_s(g_wcharModuleDirectory, l_wcharDirectory);
    g_longOSVersionCode = ComputeModuleOSVersionCode();
    return TRUE;
}

BOOL ModuleProcessDetach(bool boolProcessTerminating_in) {
    Trace(L"dorWEX14 DllMain, DLL_PROCESS_DETACH");
    if (boolProcessTerminating_in) {
        // The system ended the core's threads wherever they were, some perhaps holding a lock that stopping
        // them would wait for forever; nothing is waited for or freed, the process's end reclaims it all.
        return TRUE;
    }
    // An unload. The module's threads hold module references while they run, so none runs now and
    // stopping what is left waits for nothing. (A program that links the module's code and calls this
    // itself stops a running core here, waiting for its threads as before.)
    IDorWEXMonitor* l_pCore = nullptr;
    {
        std::lock_guard<std::mutex> l_guard(g_mutexCore);
        l_pCore = g_pCDorWEXWMIWPDCore;
        g_pCDorWEXWMIWPDCore = nullptr;
    }
    if (l_pCore != nullptr) {
        StopAndDeleteCore(l_pCore);
    }
    return TRUE;
}

bool ModuleShutdownCore() {
    IDorWEXMonitor* l_pCore = nullptr;
    {
        std::lock_guard<std::mutex> l_guard(g_mutexCore);
        // A provider object or a lock still reaches the core; a new object takes the lock to attach.
        if (g_longInstanceCountOfDorWEXWMIWPDClass != 0 || g_longInstanceCountOfDorWEXWPDWMIClassFactoryClass != 0) {
            return g_pCDorWEXWMIWPDCore == nullptr;
        }
        l_pCore = g_pCDorWEXWMIWPDCore;
        g_pCDorWEXWMIWPDCore = nullptr;
    }
    // Stopped outside the lock: a thread of the core that calls into WMI may cause a provider Initialize.
    if (l_pCore != nullptr) {
        StopAndDeleteCore(l_pCore);
    }
    return true;
}

STDAPI DllCanUnloadNow() {
    // COM asks outside the loader lock. With no provider object and no lock left, the core stops here, where
    // its threads can still end, and not in the detach of the unload that follows, where they could not.
    const bool l_boolNoCore = ModuleShutdownCore();
    const LONG l_longInstances = g_longInstanceCountOfDorWEXWMIWPDClass;
    const LONG l_longLocks = g_longInstanceCountOfDorWEXWPDWMIClassFactoryClass;
    const LONG l_longWorker = g_longWPDEventsThreadIsRunning;
    const bool l_boolCanUnload = l_longInstances == 0 && l_longLocks == 0 && l_longWorker == 0 && l_boolNoCore &&
                                 g_longModuleThreadsRunning == 0 && g_longModuleCallbacksAlive == 0;
    Trace(L"dorWEXWPD DllMain, DllCanUnloadNow:g_longInstanceCountOfDorWEXWMIWPDClass=%ld,"
          L"g_longInstanceCountOfDorWEXWPDWMIClassFactoryClass=%ld,g_longWPDEventsThreadIsRunning=%ld,"
          L"CanUnloadNow=%s",
          l_longInstances, l_longLocks, l_longWorker, l_boolCanUnload ? L"TRUE" : L"FALSE");
    return l_boolCanUnload ? S_OK : S_FALSE;
}

STDAPI DllGetClassObject(REFCLSID rclsid, REFIID riid, LPVOID* ppv) {
    Trace(L"dorWEXWPD DllMain, DllGetClassObject");
    if (!IsEqualCLSID(rclsid, CLSID_DorWEXWPDWMIProvider)) {
        return E_FAIL;
    }
    auto* l_pCDorWEXWPDWMIClassFactory = new (std::nothrow) CDorWEXWPDWMIClassFactory();
    if (l_pCDorWEXWPDWMIClassFactory == nullptr) {
        return E_OUTOFMEMORY;
    }
    const HRESULT l_HRESULT = l_pCDorWEXWPDWMIClassFactory->QueryInterface(riid, ppv);
    if (FAILED(l_HRESULT)) {
        // The factory was never handed out; its count is still 0.
        delete l_pCDorWEXWPDWMIClassFactory;
    }
    return l_HRESULT;
}

STDAPI DllRegisterServer() {
    wchar_t l_wcharKey[MAX_PATH];
    wchar_t l_wcharCLSID[128];
    FormatProviderClassKey(l_wcharKey, l_wcharCLSID);

    // Any key or value not written is reported, so that regsvr32 and installers do not take a half
    // registration for a whole one.
    RegistryKey l_RegistryKeyClass;
    RegistryKey l_RegistryKeyServer;
    const bool l_boolWritten = l_RegistryKeyClass.Create(HKEY_LOCAL_MACHINE, l_wcharKey) == ERROR_SUCCESS &&
                               l_RegistryKeyClass.SetString(nullptr, kProviderDescription) == ERROR_SUCCESS &&
                               l_RegistryKeyServer.Create(l_RegistryKeyClass.Get(), L"InprocServer32") == ERROR_SUCCESS &&
                               l_RegistryKeyServer.SetString(nullptr, g_wcharModulePath) == ERROR_SUCCESS &&
                               l_RegistryKeyServer.SetString(L"ThreadingModel", L"Both") == ERROR_SUCCESS;
    return l_boolWritten ? S_OK : SELFREG_E_CLASS;
}

STDAPI DllUnregisterServer() {
    wchar_t l_wcharKey[MAX_PATH];
    wchar_t l_wcharCLSID[128];
    FormatProviderClassKey(l_wcharKey, l_wcharCLSID);

    // A key that is not there is removed already; one that stays (another program's subkey under the class
    // key, a key it may not delete) is reported.
    const auto l_Removed = [](LSTATUS lstatus_in) {
        return lstatus_in == ERROR_SUCCESS || lstatus_in == ERROR_FILE_NOT_FOUND;
    };
    bool l_boolRemoved = true;
    {
        RegistryKey l_RegistryKeyClass;
        const LSTATUS l_lstatusOpened = l_RegistryKeyClass.Open(HKEY_LOCAL_MACHINE, l_wcharKey);
        if (l_lstatusOpened == ERROR_SUCCESS) {
            l_boolRemoved = l_Removed(RegDeleteKeyW(l_RegistryKeyClass.Get(), L"InprocServer32"));
        } else if (l_lstatusOpened != ERROR_FILE_NOT_FOUND) {
            l_boolRemoved = false;
        }
    }
    RegistryKey l_RegistryKeyCLSID;
    const LSTATUS l_lstatusOpened = l_RegistryKeyCLSID.Open(HKEY_LOCAL_MACHINE, kCLSIDKey);
    if (l_lstatusOpened == ERROR_SUCCESS) {
        l_boolRemoved = l_Removed(RegDeleteKeyW(l_RegistryKeyCLSID.Get(), l_wcharCLSID)) && l_boolRemoved;
    } else if (l_lstatusOpened != ERROR_FILE_NOT_FOUND) {
        l_boolRemoved = false;
    }
    return l_boolRemoved ? S_OK : SELFREG_E_CLASS;
}
