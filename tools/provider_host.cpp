// provider_host
// Loads the registered provider the way the WMI service does, through COM's class factory for the
// provider's CLSID, and reports each step and the module's unload answer on standard output.
#include <windows.h>
#include <objbase.h>
#include <wbemcli.h>

#include <cstdio>

#include "../wmi/provider_clsid.h"

namespace {

using DllCanUnloadNowFunction = HRESULT(STDAPICALLTYPE*)();

void Report(const char* step, HRESULT result) {
    std::printf("%-58s 0x%08lX%s\n", step, static_cast<unsigned long>(result), SUCCEEDED(result) ? "" : " (failed)");
}

}  // namespace

int wmain() {
    HRESULT result = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    Report("CoInitializeEx", result);
    if (FAILED(result)) {
        return 1;
    }
    int exitCode = 0;
    {
        IClassFactory* factory = nullptr;
        result = CoGetClassObject(CLSID_DorWEXWPDWMIProvider, CLSCTX_INPROC_SERVER, nullptr, IID_IClassFactory,
                                  reinterpret_cast<void**>(&factory));
        std::printf("provider CLSID %ls\n", DORWEX_PROVIDER_CLSID_TEXT);
        Report("CoGetClassObject(IClassFactory)", result);
        if (SUCCEEDED(result)) {
            HMODULE module = nullptr;
            GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                               reinterpret_cast<LPCWSTR>(*reinterpret_cast<void**>(factory)), &module);
            wchar_t path[MAX_PATH] = {};
            GetModuleFileNameW(module, path, MAX_PATH);
            std::printf("module loaded from %ls\n", path);
            const auto canUnloadNow = reinterpret_cast<DllCanUnloadNowFunction>(
                reinterpret_cast<void*>(GetProcAddress(module, "DllCanUnloadNow")));

            IUnknown* provider = nullptr;
            result = factory->CreateInstance(nullptr, IID_IUnknown, reinterpret_cast<void**>(&provider));
            Report("IClassFactory::CreateInstance(IUnknown)", result);
            if (SUCCEEDED(result)) {
                std::printf("provider object created\n");
                if (canUnloadNow != nullptr) {
                    Report("DllCanUnloadNow with a provider object alive", canUnloadNow());
                }
                IWbemServices* services = nullptr;
                Report("QueryInterface(IWbemServices)",
                       provider->QueryInterface(IID_IWbemServices, reinterpret_cast<void**>(&services)));
                if (services != nullptr) {
                    services->Release();
                }
                provider->Release();
            } else {
                exitCode = 1;
            }
            factory->Release();
            if (canUnloadNow != nullptr) {
                Report("DllCanUnloadNow after release", canUnloadNow());
            }
        } else {
            exitCode = 1;
        }
    }
    CoUninitialize();
    return exitCode;
}
