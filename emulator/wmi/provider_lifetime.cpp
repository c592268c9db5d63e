// How the emulated WMI service holds its provider, as WMI's provider host does: loaded through COM on the
// first request, initialised (IWbemProviderInit) before anything is dispatched to it, asked for events
// when the first consumer subscribes, released when it has been idle for the ClearAfter interval (or when
// a test unloads it), and its DLL freed when its DllCanUnloadNow allows. The next request loads it again.
//
// Idle means no provider call in flight and no event consumer: WMI keeps an event provider while consumers
// have queries registered with it. An unload asked for directly (DorwexWmiUnloadProvider) waits only for
// calls in flight; the subscriptions survive it and are registered with the provider again (ProvideEvents,
// then NewQuery for each) when the next request loads it.
//
// WMI does not promise one object for every role the provider is registered for. With separate roles the
// instance/method role and the event role each get their own object from the class factory, each
// initialised on its own.
#include <objbase.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>

#include "emulator/common/com_object.h"
#include "emulator/common/detached_thread.h"
#include "forwarding_services.h"
#include "namespace.h"
#include "provider_host.h"

namespace dorwex::emulator::wmi {

namespace {

std::atomic<long> g_eventSinks{0};

// Receives the events the provider indicates and hands them to the consumers.
class ProviderEventSink final : public ComObject<IWbemObjectSink> {
public:
    ProviderEventSink() { ++g_eventSinks; }
    ~ProviderEventSink() override { --g_eventSinks; }
    HRESULT STDMETHODCALLTYPE Indicate(LONG lObjectCount, IWbemClassObject** apObjArray) override {
        for (LONG i = 0; i < lObjectCount; ++i) {
            if (apObjArray != nullptr && apObjArray[i] != nullptr) {
                Namespace::Get().DeliverEvent(apObjArray[i]);
            }
        }
        return WBEM_S_NO_ERROR;
    }
    HRESULT STDMETHODCALLTYPE SetStatus(LONG, HRESULT, BSTR, IWbemClassObject*) override { return WBEM_S_NO_ERROR; }
};

// What a provider reports from Initialize. Only SetStatus(WBEM_S_INITIALIZED, 0) makes it ready: a provider
// that reports nothing, reports WBEM_E_FAILED or passes flags (reserved, must be 0) has not initialised.
// The report may come from any thread, before or after Initialize returns ("IWbemProviderInit::Initialize":
// the provider may "create a separate thread to complete its initialization and immediately return"); WMI
// takes the provider as "fully capable of immediately servicing requests" from the moment it hears
// WBEM_S_INITIALIZED ("IWbemProviderInitSink::SetStatus").
class InitSink final : public ComObject<IWbemProviderInitSink> {
public:
    InitSink()
        : m_settled(CreateEventW(nullptr, TRUE, FALSE, nullptr)), m_returnedEvent(CreateEventW(nullptr, TRUE, FALSE, nullptr)) {}
    ~InitSink() override {
        CloseHandle(m_settled);
        CloseHandle(m_returnedEvent);
    }
    HRESULT STDMETHODCALLTYPE SetStatus(LONG lStatus, LONG lFlags) override {
        std::lock_guard<std::mutex> guard(m_lock);
        if (lFlags != 0) {
            m_refused = true;
            SetEvent(m_settled);
            return WBEM_E_INVALID_PARAMETER;
        }
        m_reported = true;
        m_status = lStatus;
        SetEvent(m_settled);
        return WBEM_S_NO_ERROR;
    }
    // Initialize returned (and the service's thread let go of the provider): a failure settles the load, a
    // success leaves it to SetStatus.
    void Returned(HRESULT hr) {
        std::lock_guard<std::mutex> guard(m_lock);
        if (FAILED(hr)) {
            m_refused = true;
            SetEvent(m_settled);
        }
        SetEvent(m_returnedEvent);
    }
    bool WaitReturned(DWORD milliseconds) { return WaitForSingleObject(m_returnedEvent, milliseconds) == WAIT_OBJECT_0; }
    // Waits until the provider settled its initialisation, at most the time given.
    bool WaitSettled(DWORD milliseconds) { return WaitForSingleObject(m_settled, milliseconds) == WAIT_OBJECT_0; }
    bool Initialized() {
        std::lock_guard<std::mutex> guard(m_lock);
        return m_reported && !m_refused && m_status == WBEM_S_INITIALIZED;
    }

private:
    std::mutex m_lock;
    HANDLE m_settled;
    HANDLE m_returnedEvent;
    bool m_reported = false;
    bool m_refused = false;
    HRESULT m_status = WBEM_E_PROVIDER_LOAD_FAILURE;
};

// One provider call: forwards to the provider's IWbemServices and counts as a call in flight while any
// reference to it is held.
class ProviderCall final : public ForwardingServices<NoCallScope> {
public:
    explicit ProviderCall(IWbemServices* provider) : ForwardingServices(provider, false) {
        Namespace::Get().CallStarted();
    }
    ~ProviderCall() override { Namespace::Get().CallEnded(); }
};

template <class T>
void ReleaseAndClear(T*& pointer) {
    if (pointer != nullptr) {
        pointer->Release();
        pointer = nullptr;
    }
}

DWORD EnvironmentNumber(const wchar_t* name, DWORD fallback) {
    wchar_t text[32] = {};
    const DWORD length = GetEnvironmentVariableW(name, text, 32);
    if (length == 0 || length >= 32) {
        return fallback;
    }
    wchar_t* end = nullptr;
    const unsigned long value = wcstoul(text, &end, 10);
    return end != text && *end == L'\0' ? static_cast<DWORD>(value) : fallback;
}

}  // namespace

bool Namespace::ProviderLoaded() {
    std::lock_guard<std::mutex> guard(m_lock);
    return m_provider != nullptr || m_eventProvider != nullptr;
}

void Namespace::CallStarted() {
    std::lock_guard<std::mutex> guard(m_lock);
    ++m_callsInFlight;
}

void Namespace::CallEnded() {
    std::lock_guard<std::mutex> guard(m_lock);
    --m_callsInFlight;
    m_lastActivity = GetTickCount();
}

Namespace::LifetimeCounts Namespace::Counts() {
    std::lock_guard<std::mutex> guard(m_lock);
    LifetimeCounts counts = m_counts;
    const bool both = m_provider != nullptr && m_eventProvider != nullptr;
    counts.objects = (m_provider != nullptr ? 1 : 0) + (m_eventProvider != nullptr ? 1 : 0) -
                     (both && m_rolesShared ? 1 : 0);
    counts.eventSinks = g_eventSinks.load();
    return counts;
}

void Namespace::SetClearAfter(DWORD milliseconds) {
    {
        std::lock_guard<std::mutex> guard(m_lock);
        m_settingsRead = true;
        m_clearAfter = milliseconds;
    }
    m_serviceWake.notify_all();
}

void Namespace::SetFreeDelay(DWORD milliseconds) {
    std::lock_guard<std::mutex> guard(m_lock);
    m_settingsRead = true;
    m_freeDelay = milliseconds;
}

void Namespace::SetInitializeTimeout(DWORD milliseconds) {
    std::lock_guard<std::mutex> guard(m_lock);
    m_settingsRead = true;
    m_initializeTimeout = milliseconds;
}

void Namespace::SetSeparateRoles(bool separate) {
    std::lock_guard<std::mutex> guard(m_lock);
    m_settingsRead = true;
    m_separateRoles = separate;
}

HRESULT Namespace::Provider(IWbemServices** provider_out) {
    *provider_out = nullptr;
    std::lock_guard<std::mutex> roles(m_roleLock);
    DropRolesOfEndedHost();
    bool eventsWanted = false;
    {
        std::lock_guard<std::mutex> guard(m_lock);
        const HRESULT hr = LoadLocked();
        if (FAILED(hr)) {
            return hr;
        }
        eventsWanted = !m_subscriptions.empty();
    }
    HRESULT hr = EnsureInstanceRole();
    if (FAILED(hr)) {
        return hr;
    }
    if (eventsWanted) {
        // Consumers that subscribed before an unload get their events again from the reloaded provider.
        bool activated = false;
        EnsureEventRole(&activated);
    }
    auto* call = new (std::nothrow) ProviderCall(m_provider);
    if (call == nullptr) {
        return WBEM_E_OUT_OF_MEMORY;
    }
    *provider_out = call;
    return WBEM_S_NO_ERROR;
}

HRESULT Namespace::CreateRoleObject(IUnknown** object_out) {
    *object_out = nullptr;
    StartServiceThread();
    CLSID clsid;
    std::wstring knownModule;
    {
        std::lock_guard<std::mutex> guard(m_lock);
        clsid = m_providerClsid;
        knownModule = m_modulePath;
    }
    if (clsid == GUID_NULL) {
        return WBEM_E_PROVIDER_NOT_FOUND;  // no __Win32Provider is registered for the class
    }
    auto& hosting = ProviderHosting::Get();
    const bool wasMapped = hosting.ModuleMapped(knownModule);
    DWORD initializeTimeout;
    {
        std::lock_guard<std::mutex> guard(m_lock);
        initializeTimeout = m_initializeTimeout;
    }
    IUnknown* created = nullptr;
    std::wstring module;
    DWORD generation = 0;
    if (FAILED(hosting.Create(clsid, &created, &module, &generation))) {
        return WBEM_E_PROVIDER_LOAD_FAILURE;
    }
    IWbemProviderInit* init = nullptr;
    const HRESULT isProvider = created->QueryInterface(IID_IWbemProviderInit, reinterpret_cast<void**>(&init));
    created->Release();
    if (FAILED(isProvider)) {
        return WBEM_E_PROVIDER_LOAD_FAILURE;
    }
    IWbemServices* services = nullptr;
    if (FAILED(CreateServices(IID_IWbemServices, reinterpret_cast<void**>(&services)))) {
        init->Release();
        return WBEM_E_PROVIDER_LOAD_FAILURE;
    }
    // Initialize runs on a thread of the service's own; the request goes on from here as soon as the
    // provider reports, whether Initialize has returned or not. The time Initialize held its thread is
    // recorded: WMI allows a provider to hold none of its threads.
    auto* initSink = new InitSink();
    init->AddRef();
    initSink->AddRef();
    {
        std::lock_guard<std::mutex> guard(m_lock);
        ++m_initializeCalls;
    }
    // What ends an Initialize call, on its thread or here when no thread could be had.
    const auto finish = [this, init, services, initSink](HRESULT initialized, LONG held) {
        services->Release();
        init->Release();
        {
            std::lock_guard<std::mutex> guard(m_lock);
            m_counts.longestInitializeMs = std::max(m_counts.longestInitializeMs, held);
            --m_initializeCalls;
        }
        m_initializeDone.notify_all();
        initSink->Returned(initialized);
        initSink->Release();
    };
    const bool started = StartDetachedThread([init, services, initSink, finish] {
        const HRESULT apartment = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
        const DWORD started = GetTickCount();
        const HRESULT initialized =
            init->Initialize(nullptr, 0, const_cast<LPWSTR>(L"root\\cimv2"), nullptr, services, nullptr, initSink);
        finish(initialized, static_cast<LONG>(GetTickCount() - started));
        if (SUCCEEDED(apartment)) {
            CoUninitialize();
        }
    });
    if (!started) {
        finish(E_OUTOFMEMORY, 0);
    }
    const bool settled = initSink->WaitSettled(initializeTimeout);
    HRESULT hr = settled && initSink->Initialized() ? WBEM_S_NO_ERROR : WBEM_E_PROVIDER_LOAD_FAILURE;
    if (FAILED(hr)) {
        // Answered only once its Initialize is over (however long its report was waited for): the provider
        // is released when nothing of the service uses it any more.
        initSink->WaitReturned(std::max<DWORD>(initializeTimeout, 60000));
    }
    initSink->Release();
    {
        std::lock_guard<std::mutex> guard(m_lock);
        if (!module.empty()) {
            m_modulePath = module;
        }
        m_roleGeneration = generation;
        if (!wasMapped) {
            ++m_counts.moduleLoads;
        }
        if (SUCCEEDED(hr)) {
            ++m_counts.initializations;
        }
    }
    if (FAILED(hr)) {
        init->Release();  // a provider that did not initialise is released without a call
        return hr;
    }
    *object_out = init;  // IWbemProviderInit derives from IUnknown
    return WBEM_S_NO_ERROR;
}

HRESULT Namespace::EnsureInstanceRole() {
    if (m_provider != nullptr) {
        return WBEM_S_NO_ERROR;
    }
    bool separate;
    {
        std::lock_guard<std::mutex> guard(m_lock);
        separate = m_separateRoles;
    }
    IUnknown* object = nullptr;
    if (!separate && m_eventProvider != nullptr) {
        object = m_eventProvider;
        object->AddRef();
    } else {
        const HRESULT hr = CreateRoleObject(&object);
        if (FAILED(hr)) {
            return hr;
        }
    }
    IWbemServices* services = nullptr;
    const HRESULT hr = ProviderHosting::Get().Calls(object, ProviderImpersonates(), &services);
    if (FAILED(hr)) {
        object->Release();
        return WBEM_E_PROVIDER_LOAD_FAILURE;
    }
    std::lock_guard<std::mutex> guard(m_lock);
    m_provider = services;
    m_instanceObject = object;
    m_rolesShared = !separate && m_eventProvider != nullptr;
    m_freePending = false;
    m_lastActivity = GetTickCount();
    return WBEM_S_NO_ERROR;
}

HRESULT Namespace::EnsureEventRole(bool* activated_out) {
    *activated_out = false;
    if (m_eventProvider == nullptr) {
        bool separate;
        {
            std::lock_guard<std::mutex> guard(m_lock);
            separate = m_separateRoles;
        }
        IUnknown* object = nullptr;
        if (!separate && m_instanceObject != nullptr) {
            object = m_instanceObject;
            object->AddRef();
        } else {
            const HRESULT hr = CreateRoleObject(&object);
            if (FAILED(hr)) {
                return hr;
            }
        }
        std::lock_guard<std::mutex> guard(m_lock);
        m_eventProvider = object;
        m_rolesShared = !separate && m_provider != nullptr;
        m_freePending = false;
        m_eventsProvided = false;
        m_lastActivity = GetTickCount();
    }
    if (m_eventsProvided) {
        return WBEM_S_NO_ERROR;
    }
    // ProvideEvents once per object, then every live query: those registered before an unload as well.
    auto* sink = new ProviderEventSink();
    std::vector<std::pair<ULONG, std::wstring>> queries;
    {
        std::lock_guard<std::mutex> guard(m_lock);
        ReleaseAndClear(m_eventSink);
        m_eventSink = sink;
        m_eventsProvided = true;
        for (const auto& subscription : m_subscriptions) {
            queries.emplace_back(subscription.id, subscription.text);
        }
    }
    IWbemEventProvider* events = nullptr;
    if (SUCCEEDED(m_eventProvider->QueryInterface(IID_IWbemEventProvider, reinterpret_cast<void**>(&events)))) {
        events->ProvideEvents(sink, 0);
        events->Release();
    }
    IWbemEventProviderQuerySink* querySink = nullptr;
    if (SUCCEEDED(
            m_eventProvider->QueryInterface(IID_IWbemEventProviderQuerySink, reinterpret_cast<void**>(&querySink)))) {
        for (auto& query : queries) {
            querySink->NewQuery(query.first, const_cast<LPWSTR>(L"WQL"), &query.second[0]);
        }
        querySink->Release();
    }
    *activated_out = true;
    return WBEM_S_NO_ERROR;
}

HRESULT Namespace::Subscribe(const wchar_t* text, IWbemObjectSink* sink) {
    Query query;
    if (sink == nullptr || !ParseQuery(text, query)) {
        return WBEM_E_INVALID_QUERY;
    }
    {
        std::lock_guard<std::mutex> guard(m_lock);
        LoadLocked();
        const auto definition = FindClassLocked(query.className);
        if (!definition) {
            return WBEM_E_INVALID_CLASS;
        }
        bool isEvent = false;
        for (const auto& ancestor : definition->ancestors) {
            isEvent = isEvent || ancestor == L"__Event";
        }
        if (!isEvent) {
            return WBEM_E_NOT_EVENT_CLASS;
        }
    }
    std::lock_guard<std::mutex> roles(m_roleLock);
    DropRolesOfEndedHost();
    ULONG id;
    {
        std::lock_guard<std::mutex> guard(m_lock);
        const HRESULT hr = LoadLocked();
        if (FAILED(hr)) {
            return hr;
        }
        id = m_nextQueryId++;
        sink->AddRef();
        m_subscriptions.push_back({id, text, query, sink});
    }
    bool activated = false;
    const HRESULT hr = EnsureEventRole(&activated);
    if (FAILED(hr)) {
        std::lock_guard<std::mutex> guard(m_lock);
        m_subscriptions.pop_back();
        sink->Release();
        return hr;
    }
    if (!activated) {  // an activation registered every live query already
        IWbemEventProviderQuerySink* querySink = nullptr;
        if (SUCCEEDED(m_eventProvider->QueryInterface(IID_IWbemEventProviderQuerySink,
                                                      reinterpret_cast<void**>(&querySink)))) {
            querySink->NewQuery(id, const_cast<LPWSTR>(L"WQL"), const_cast<LPWSTR>(text));
            querySink->Release();
        }
    }
    std::lock_guard<std::mutex> guard(m_lock);
    m_lastActivity = GetTickCount();
    return WBEM_S_NO_ERROR;
}

HRESULT Namespace::Unsubscribe(IWbemObjectSink* sink) {
    std::vector<Subscription> cancelled = RemoveSubscriptions(sink);
    if (cancelled.empty()) {
        return WBEM_E_NOT_FOUND;
    }
    for (auto& subscription : cancelled) {
        subscription.sink->SetStatus(WBEM_STATUS_COMPLETE, WBEM_E_CALL_CANCELLED, nullptr, nullptr);
        subscription.sink->Release();
    }
    m_serviceWake.notify_all();
    return WBEM_S_NO_ERROR;
}

HRESULT Namespace::UnloadProvider(bool* module_freed_out) {
    return UnloadProviderIf(false, module_freed_out);
}

HRESULT Namespace::UnloadProviderIf(bool idle_only, bool* module_freed_out) {
    *module_freed_out = false;
    HeldRoles held;
    std::wstring module;
    {
        // Not under an Initialize still running on one of the service's threads.
        std::unique_lock<std::mutex> guard(m_lock);
        m_initializeDone.wait_for(guard, std::chrono::milliseconds(m_initializeTimeout),
                                  [this] { return m_initializeCalls == 0; });
    }
    {
        std::lock_guard<std::mutex> roles(m_roleLock);
        std::lock_guard<std::mutex> guard(m_lock);
        if (m_provider == nullptr && m_eventProvider == nullptr) {
            return S_FALSE;
        }
        if (m_callsInFlight > 0) {
            return HRESULT_FROM_WIN32(ERROR_BUSY);
        }
        if (idle_only && (!m_subscriptions.empty() || m_clearAfter == 0 ||
                          GetTickCount() - m_lastActivity < m_clearAfter)) {
            return HRESULT_FROM_WIN32(ERROR_BUSY);
        }
        held = TakeRolesLocked();
        module = m_modulePath;
        ++m_counts.unloads;
    }
    // Released outside the locks: the provider's Release may call back into the namespace. The provider
    // releases the sink it was given in ProvideEvents and the namespace it was given in Initialize.
    held.Release();
    // COM asks every DLL of the apartment that it loaded whether it can be unloaded; one that answers S_OK
    // is freed once the delay has passed (at once without one), if it still answers S_OK then.
    DWORD freeDelay;
    {
        std::lock_guard<std::mutex> guard(m_lock);
        freeDelay = m_freeDelay;
    }
    auto& hosting = ProviderHosting::Get();
    hosting.FreeUnusedLibraries(freeDelay);
    *module_freed_out = !module.empty() && !hosting.ModuleMapped(module);
    std::lock_guard<std::mutex> guard(m_lock);
    m_freePending = !*module_freed_out && !module.empty() && m_provider == nullptr && m_eventProvider == nullptr;
    return S_OK;
}

void Namespace::HostEnded() {
    {
        std::lock_guard<std::mutex> guard(m_lock);
        m_hostEnded = true;
    }
    m_serviceWake.notify_all();
}

Namespace::HeldRoles Namespace::TakeRolesLocked() {
    HeldRoles held;
    std::swap(held.calls, m_provider);
    std::swap(held.instanceObject, m_instanceObject);
    std::swap(held.events, m_eventProvider);
    std::swap(held.sink, m_eventSink);
    m_eventsProvided = false;
    return held;
}

void Namespace::HeldRoles::Release() {
    ReleaseAndClear(calls);
    ReleaseAndClear(instanceObject);
    ReleaseAndClear(events);
    ReleaseAndClear(sink);
}

void Namespace::DropRolesOfEndedHost() {
    DWORD generation;
    {
        std::lock_guard<std::mutex> guard(m_lock);
        if (m_provider == nullptr && m_eventProvider == nullptr) {
            return;
        }
        generation = m_roleGeneration;
    }
    if (ProviderHosting::Get().Running(generation)) {
        return;
    }
    HeldRoles held;
    {
        std::lock_guard<std::mutex> guard(m_lock);
        held = TakeRolesLocked();
    }
    // Calls in flight on the old objects hold references of their own and fail as the host's calls fail.
    held.Release();
}

// The host died under the provider: its objects are dropped, and a provider that had event consumers is
// loaded again in a new host at once, with every live query, as WMI restarts event providers its consumers
// still need.
void Namespace::ResumeAfterHostEnded() {
    std::lock_guard<std::mutex> roles(m_roleLock);
    DropRolesOfEndedHost();
    bool eventsWanted;
    {
        std::lock_guard<std::mutex> guard(m_lock);
        eventsWanted = !m_subscriptions.empty() && m_eventProvider == nullptr;
    }
    if (eventsWanted) {
        bool activated = false;
        EnsureEventRole(&activated);
    }
}

void Namespace::StartServiceThread() {
    std::lock_guard<std::mutex> guard(m_lock);
    if (m_serviceThreadStarted) {
        return;
    }
    m_serviceThreadStarted = true;
    if (!m_settingsRead) {
        m_settingsRead = true;
        m_clearAfter = EnvironmentNumber(L"DORWEX_WMI_CLEAR_AFTER_MS", 0);
        m_separateRoles = EnvironmentNumber(L"DORWEX_WMI_SEPARATE_ROLES", 0) != 0;
        m_freeDelay = EnvironmentNumber(L"DORWEX_WMI_FREE_DELAY_MS", 0);
        m_initializeTimeout = EnvironmentNumber(L"DORWEX_WMI_INITIALIZE_TIMEOUT_MS", 60000);
    }
    // The thread belongs to the multithreaded apartment for the life of the process, so the apartment the
    // provider is loaded in outlives the short-lived threads that load and free it. Its code stays mapped
    // as long as it runs.
    HMODULE self = nullptr;
    GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_PIN,
                       reinterpret_cast<LPCWSTR>(&EnvironmentNumber), &self);
    HANDLE joined = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    std::thread([this, joined] {
        CoInitializeEx(nullptr, COINIT_MULTITHREADED);
        SetEvent(joined);
        ServiceThread();
    }).detach();
    WaitForSingleObject(joined, INFINITE);
    CloseHandle(joined);
}

// Unloads the provider once it has been idle for the ClearAfter interval. The interval is checked at least
// every half interval, so an unload comes between one and one and a half intervals after the last call.
// A DLL that refused to go when it was unloaded is asked again every second, as WMI's host keeps asking.
void Namespace::ServiceThread() {
    std::unique_lock<std::mutex> guard(m_lock);
    for (;;) {
        if (m_hostEnded) {
            m_hostEnded = false;
            guard.unlock();
            ResumeAfterHostEnded();
            guard.lock();
        }
        if (m_freePending) {
            const std::wstring module = m_modulePath;
            const DWORD freeDelay = m_freeDelay;
            guard.unlock();
            auto& hosting = ProviderHosting::Get();
            hosting.FreeUnusedLibraries(freeDelay);
            const bool mapped = hosting.ModuleMapped(module);
            guard.lock();
            if (!mapped || m_provider != nullptr || m_eventProvider != nullptr) {
                m_freePending = false;
            }
        }
        const DWORD clearAfter = m_clearAfter;
        const bool loaded = m_provider != nullptr || m_eventProvider != nullptr;
        if (clearAfter == 0 || !loaded || !m_subscriptions.empty() || m_callsInFlight > 0) {
            m_serviceWake.wait_for(guard,
                                   std::chrono::milliseconds(clearAfter == 0 || m_freePending ? 1000 : clearAfter / 2 + 1));
            continue;
        }
        const DWORD idle = GetTickCount() - m_lastActivity;
        if (idle < clearAfter) {
            m_serviceWake.wait_for(guard, std::chrono::milliseconds(clearAfter - idle));
            continue;
        }
        guard.unlock();
        bool freed = false;
        UnloadProviderIf(true, &freed);
        guard.lock();
    }
}

}  // namespace dorwex::emulator::wmi
