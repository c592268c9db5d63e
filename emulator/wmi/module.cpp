// The emulated WMI service as an in-process COM server: the locators (clients connect through
// CLSID_WbemLocator, the provider's publication through CLSID_WbemAdministrativeLocator), the context
// class, the MOF compiler, registration, and the control functions tests call directly.
#include <objbase.h>
#include <wbemcli.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <string>

#include "by_value.h"
#include "client_context.h"
#include "context.h"
#include "control.h"
#include "emulator/common/com_server.h"
#include "mof_compiler.h"
#include "namespace.h"
#include "remote_enumerator.h"
#include "service_entry.h"

namespace dorwex::emulator::wmi {

namespace {

// {CB8555CC-9128-11D1-AD9B-00C04FD8FDFF}
constexpr CLSID kCLSID_WbemAdministrativeLocator = {
    0xcb8555cc, 0x9128, 0x11d1, {0xad, 0x9b, 0x00, 0xc0, 0x4f, 0xd8, 0xfd, 0xff}};

class Locator final : public ComObject<IWbemLocator> {
public:
    HRESULT STDMETHODCALLTYPE ConnectServer(const BSTR strNetworkResource, const BSTR, const BSTR, const BSTR, LONG,
                                            const BSTR, IWbemContext*, IWbemServices** ppNamespace) override {
        if (ppNamespace == nullptr) {
            return WBEM_E_INVALID_PARAMETER;
        }
        *ppNamespace = nullptr;
        if (strNetworkResource == nullptr || !IsServedNamespace(strNetworkResource)) {
            return WBEM_E_INVALID_NAMESPACE;
        }
        if (UseSharedService()) {
            return ConnectSharedService(strNetworkResource, ppNamespace);
        }
        // The service has its repository loaded before a client connects: what the namespace holds (its
        // compiled instances among them) exists before the client's first call.
        Namespace::Get().Load();
        return CreateServices(IID_IWbemServices, reinterpret_cast<void**>(ppNamespace));
    }
};

template <class T>
HRESULT Create(REFIID riid, void** ppv) {
    return CreateComObject<T>(riid, ppv);
}

const ServedClass kClasses[] = {
    {&CLSID_WbemLocator, Create<Locator>, L"Emulated WbemLocator"},
    {&kCLSID_WbemAdministrativeLocator, Create<Locator>, L"Emulated WbemAdministrativeLocator"},
    {&CLSID_WbemContext, Create<Context>, L"Emulated WbemContext"},
    {&CLSID_MofCompiler, Create<MofCompiler>, L"Emulated MofCompiler"},
    // Creates, in the receiving process, the copies of class objects and contexts marshalled by value.
    {&kCLSID_ByValueUnmarshaller, Create<ByValueUnmarshaller>, L"Emulated WMI by-value unmarshaller"},
    // Creates, in a client's process, its copy of an enumerator of the service in another process.
    {&kCLSID_EnumeratorUnmarshaller, Create<EnumeratorUnmarshaller>, L"Emulated WMI enumerator unmarshaller"},
};

}  // namespace
}  // namespace dorwex::emulator::wmi

using namespace dorwex::emulator;
using namespace dorwex::emulator::wmi;

DORWEX_EMULATOR_COM_SERVER_AND(kClasses, RegisterSharedService)

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

// Provider calls from now on run in a client call context (1), in none (0), or as the provider's
// registration says (any other value, the default).
extern "C" void WINAPI DorwexWmiSetClientContext(int mode) {
    SetClientContextMode(mode);
}

extern "C" void WINAPI DorwexWmiImpersonations(LONG* impersonations, LONG* reverts) {
    ImpersonationCounts(impersonations, reverts);
}

// --- Provider lifetime ------------------------------------------------------------------------------

extern "C" HRESULT WINAPI DorwexWmiUnloadProvider(BOOL* moduleFreed) {
    bool freed = false;
    const HRESULT hr = Namespace::Get().UnloadProvider(&freed);
    if (moduleFreed != nullptr) {
        *moduleFreed = freed ? TRUE : FALSE;
    }
    return hr;
}

extern "C" void WINAPI DorwexWmiSetClearAfter(DWORD milliseconds) {
    Namespace::Get().SetClearAfter(milliseconds);
}

extern "C" void WINAPI DorwexWmiSetSeparateRoles(BOOL separate) {
    Namespace::Get().SetSeparateRoles(separate != FALSE);
}

extern "C" void WINAPI DorwexWmiSetFreeDelay(DWORD milliseconds) {
    Namespace::Get().SetFreeDelay(milliseconds);
}

extern "C" void WINAPI DorwexWmiSetInitializeTimeout(DWORD milliseconds) {
    Namespace::Get().SetInitializeTimeout(milliseconds);
}

extern "C" void WINAPI DorwexWmiProviderCounts(DorwexWmiProviderCounts* counts) {
    if (counts == nullptr) {
        return;
    }
    const Namespace::LifetimeCounts current = Namespace::Get().Counts();
    counts->initializations = current.initializations;
    counts->moduleLoads = current.moduleLoads;
    counts->unloads = current.unloads;
    counts->objects = current.objects;
    counts->eventSinks = current.eventSinks;
    counts->longestInitializeMs = current.longestInitializeMs;
}
