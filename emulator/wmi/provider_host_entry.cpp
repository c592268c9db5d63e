// The provider host's side: the process the service starts to load providers into, as WMI loads them into
// its provider host. It makes provider objects on the service's request, calls each instance or method
// call in the client's call context, holds the portable-device stack the provider uses, and ends when the
// service lets go of it or the service's process ends.
#include <objbase.h>
#include <wbemprov.h>

#include <atomic>
#include <cwchar>
#include <iterator>
#include <string>

#include "client_context.h"
#include "controls.h"
#include "dorwex_wmi_service.h"
#include "emulator/common/com_object.h"
#include "emulator/common/com_server.h"
#include "forwarding_services.h"
#include "provider_host.h"

namespace dorwex::emulator::wmi {

namespace {

HANDLE g_hostExit = nullptr;
std::atomic<long> g_hostEntries{0};
HANDLE g_serviceProcess = nullptr;
HANDLE g_serviceWait = nullptr;

void CALLBACK ServiceEnded(void*, BOOLEAN) {
    SetEvent(g_hostExit);
}

const ControlEntry kHostControls[] = {
    {L"ModuleMapped",
     [](ControlCall& call) {
         call.result = call.text != nullptr && ModuleMapped(call.text) ? 1 : 0;
         return S_OK;
     }},
    {L"FreeUnusedLibraries",
     [](ControlCall& call) {
         CoFreeUnusedLibrariesEx(static_cast<DWORD>(call.first), 0);
         return S_OK;
     }},
};

// Each call on the provider's instance and method role runs in a client call context when the provider
// is registered for impersonation, as WMI's host calls it.
using HostedCalls = ForwardingServices<ClientCallScope>;

class ProviderHostEntry final : public ComObject<IDorwexProviderHost> {
public:
    ProviderHostEntry() { ++g_hostEntries; }
    ~ProviderHostEntry() override {
        if (--g_hostEntries == 0) {
            SetEvent(g_hostExit);
        }
    }

    HRESULT STDMETHODCALLTYPE CreateProvider(const GUID* pClsid, IUnknown** ppProvider, BSTR* pstrModule) override {
        if (pClsid == nullptr || ppProvider == nullptr || pstrModule == nullptr) {
            return E_POINTER;
        }
        *ppProvider = nullptr;
        *pstrModule = nullptr;
        IClassFactory* factory = nullptr;
        HRESULT hr = CoGetClassObject(*pClsid, CLSCTX_INPROC_SERVER, nullptr, IID_IClassFactory,
                                      reinterpret_cast<void**>(&factory));
        if (FAILED(hr)) {
            return hr;
        }
        IWbemProviderInit* init = nullptr;
        hr = factory->CreateInstance(nullptr, IID_IWbemProviderInit, reinterpret_cast<void**>(&init));
        factory->Release();
        if (FAILED(hr) || init == nullptr) {
            return FAILED(hr) ? hr : E_NOINTERFACE;
        }
        const std::wstring module = ModuleOf(init);
        *pstrModule = module.empty() ? nullptr : SysAllocString(module.c_str());
        *ppProvider = init;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE Calls(IUnknown* pProvider, LONG lImpersonate, IWbemServices** ppCalls) override {
        if (pProvider == nullptr || ppCalls == nullptr) {
            return E_POINTER;
        }
        *ppCalls = nullptr;
        IWbemServices* services = nullptr;
        HRESULT hr = pProvider->QueryInterface(IID_IWbemServices, reinterpret_cast<void**>(&services));
        if (FAILED(hr)) {
            return hr;
        }
        hr = CreateComObject<HostedCalls>(IID_IWbemServices, reinterpret_cast<void**>(ppCalls), services,
                                          lImpersonate != 0);
        services->Release();
        return hr;
    }
    HRESULT STDMETHODCALLTYPE Control(BSTR strFunction, LONG lFirst, LONG lSecond, BSTR strText, LONG* plResult,
                                      BSTR* pstrText) override {
        const ControlEntry* entry = FindControl(kHostControls, std::size(kHostControls), strFunction);
        if (entry == nullptr) {
            entry = FindStackControl(strFunction);
        }
        return entry == nullptr ? E_NOTIMPL : RunControl(*entry, lFirst, lSecond, strText, plResult, pstrText);
    }
};

// Hands the service a reference to a new host entry: marshalled for another process, written to the pipe
// the service gave on the command line (its size first).
HRESULT HandHostToService(HANDLE pipe) {
    IDorwexProviderHost* entry = nullptr;
    HRESULT hr = CreateComObject<ProviderHostEntry>(IID_IDorwexProviderHost, reinterpret_cast<void**>(&entry));
    IStream* stream = nullptr;
    if (SUCCEEDED(hr)) {
        hr = CreateStreamOnHGlobal(nullptr, TRUE, &stream);
    }
    if (SUCCEEDED(hr)) {
        hr = CoMarshalInterface(stream, IID_IDorwexProviderHost, entry, MSHCTX_LOCAL, nullptr, MSHLFLAGS_NORMAL);
    }
    HGLOBAL memory = nullptr;
    if (SUCCEEDED(hr)) {
        hr = GetHGlobalFromStream(stream, &memory);
    }
    if (SUCCEEDED(hr)) {
        ULARGE_INTEGER end = {};
        stream->Seek(LARGE_INTEGER{}, STREAM_SEEK_CUR, &end);
        const DWORD length = static_cast<DWORD>(end.QuadPart);
        const void* bytes = GlobalLock(memory);
        DWORD written = 0;
        const bool sent = WriteFile(pipe, &length, sizeof(length), &written, nullptr) &&
                          WriteFile(pipe, bytes, length, &written, nullptr) && written == length;
        GlobalUnlock(memory);
        hr = sent ? S_OK : HRESULT_FROM_WIN32(GetLastError());
    }
    if (stream != nullptr) {
        stream->Release();
    }
    if (entry != nullptr) {
        entry->Release();  // the marshalled reference keeps it
    }
    return hr;
}

}  // namespace

}  // namespace dorwex::emulator::wmi

// Runs in the provider host process: hands itself to the service that started it and serves it until the
// service lets go of the host or ends. The command line's last two words are the service's process id and
// the pipe's handle.
extern "C" HRESULT WINAPI DorwexWmiHostProviders() {
    using namespace dorwex::emulator::wmi;
    g_hostExit = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    // The command line ends "... SERVICE PIPE".
    const std::wstring command = GetCommandLineW();
    const size_t pipeAt = command.find_last_of(L' ');
    const size_t serviceAt = pipeAt == std::wstring::npos || pipeAt == 0 ? std::wstring::npos
                                                                         : command.find_last_of(L' ', pipeAt - 1);
    const auto number = [](const wchar_t* text, ULONG_PTR& value_out) {
        wchar_t* end = nullptr;
        value_out = wcstoull(text, &end, 10);
        return value_out != 0 && end != text && (*end == L'\0' || *end == L' ');
    };
    ULONG_PTR service = 0;
    ULONG_PTR pipe = 0;
    if (serviceAt == std::wstring::npos || !number(command.c_str() + serviceAt + 1, service) ||
        !number(command.c_str() + pipeAt + 1, pipe)) {
        return E_INVALIDARG;
    }
    HANDLE pipeHandle = reinterpret_cast<HANDLE>(pipe);
    // The host ends with its service.
    g_serviceProcess = OpenProcess(SYNCHRONIZE, FALSE, static_cast<DWORD>(service));
    HRESULT hr = g_serviceProcess != nullptr &&
                         RegisterWaitForSingleObject(&g_serviceWait, g_serviceProcess, ServiceEnded, nullptr,
                                                     INFINITE, WT_EXECUTEONLYONCE)
                     ? S_OK
                     : HRESULT_FROM_WIN32(GetLastError());
    if (SUCCEEDED(hr)) {
        hr = HandHostToService(pipeHandle);
    }
    CloseHandle(pipeHandle);
    if (SUCCEEDED(hr)) {
        WaitForSingleObject(g_hostExit, INFINITE);
    }
    return hr;
}
