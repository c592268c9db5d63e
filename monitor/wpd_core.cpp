#include "wpd_core.h"

#include <rpc.h>
#include <wrl/client.h>

#include <algorithm>
#include <new>

#include "../channels/companion_channels.h"
#include "../common/com_memory.h"
#include "../common/module_state.h"
#include "../common/trace.h"
#include "../device/portable_device_api.h"
#include "../wmi/event_sink.h"
#include "companion_processors.h"
#include "thread_base.h"
#include "wpd_collection.h"
#include "wpd_events_listener.h"
#include "wpd_events_processor.h"
#include "write_token_hook.h"

using Microsoft::WRL::ComPtr;

CDorWEXWMIWPDCore::CDorWEXWMIWPDCore(IDorWEXEventSink* pOwner_in) : m_pOwner(pOwner_in) {
    if (pOwner_in != nullptr) {
        m_Providers.push_back(pOwner_in);
    }
    Trace(L"CDorWEXWMIWPDCore::CDorWEXWMIWPDCore");
    m_pCollection = std::make_unique<CDorWEXWPDCollection>(this);
    m_HANDLEStarted = CreateEventW(nullptr, TRUE, FALSE, nullptr);
}

// The WPD processor stops first, so that no notification arrives while the devices are dropped, then
// companion processors still running (the module normally stops them before).
CDorWEXWMIWPDCore::~CDorWEXWMIWPDCore() {
    // The start adds devices to the collection: it ends (after the device it is opening) before anything
    // goes. One that does not end in time is a thread that still uses this core, as below.
    bool l_boolStartupRunning = false;
    if (m_HANDLEStartupThread != nullptr) {
        InterlockedExchange(&m_longStopStartup, 1);
        l_boolStartupRunning = WaitForSingleObject(m_HANDLEStartupThread, kStartupWaitMilliseconds) != WAIT_OBJECT_0;
        CloseHandle(m_HANDLEStartupThread);
        m_HANDLEStartupThread = nullptr;
    }
    {
        std::lock_guard<std::mutex> l_guard(m_mutexCompanions);
        std::unique_ptr<CDorWEXWMIThreadBase> l_Processors[] = {std::move(m_pWPDEventsProcessor),
                                                                std::move(m_pAppleEventsProcessor),
                                                                std::move(m_pBlackBerryEventsProcessor)};
        for (auto& l_pProcessor : l_Processors) {
            if (l_pProcessor) {
                l_pProcessor->BeginDestruction();
                RetireProcessor(std::move(l_pProcessor));
            }
        }
        // A thread that still runs after its bounded stop uses its processor, and through it this core:
        // neither may be freed under it, so both are left to the process.
        if (!m_RetiredProcessors.empty() || l_boolStartupRunning) {
            Trace(L"CDorWEXWMIWPDCore::~CDorWEXWMIWPDCore, %ld processor threads still running, left to the "
                  L"process.\n",
                  static_cast<LONG>(m_RetiredProcessors.size()));
            for (auto& l_pProcessor : m_RetiredProcessors) {
                l_pProcessor.release();
            }
            m_RetiredProcessors.clear();
            m_pCollection.release();
            return;
        }
    }
    m_pCollection.reset();
    for (auto& l_Entry : m_DiskMountMap) {
        CoTaskMemFree(l_Entry.second);
    }
    if (m_HANDLEStarted != nullptr) {
        CloseHandle(m_HANDLEStarted);
    }
}

void CDorWEXWMIWPDCore::AttachProvider(IDorWEXEventSink* pProvider_in) {
    std::lock_guard<std::mutex> l_guard(m_mutexProviders);
    m_Providers.push_back(pProvider_in);
    m_pOwner = pProvider_in;
}

void CDorWEXWMIWPDCore::DetachProvider(IDorWEXEventSink* pProvider_in) {
    std::lock_guard<std::mutex> l_guard(m_mutexProviders);
    m_Providers.erase(std::remove(m_Providers.begin(), m_Providers.end(), pProvider_in), m_Providers.end());
    if (m_pOwner == pProvider_in) {
        m_pOwner = m_Providers.empty() ? nullptr : m_Providers.back();
    }
}

HRESULT CDorWEXWMIWPDCore::SendEvent(const DorWEXWPDEvent& event_in) {
    // WMI releases provider objects whenever it likes: the event holds a reference of its own, taken under
    // the providers' lock from one that is not already on its way out. WMI may give the event role an
    // object of its own: the newest object WMI asked for events goes first, else the newest of all.
    ComPtr<IDorWEXEventSink> l_pOwner;
    {
        std::lock_guard<std::mutex> l_guard(m_mutexProviders);
        for (const bool l_boolAskedForEvents : {true, false}) {
            for (auto l_It = m_Providers.rbegin(); l_It != m_Providers.rend() && !l_pOwner; ++l_It) {
                if ((*l_It)->ProvidesEvents() == l_boolAskedForEvents && (*l_It)->TryAddRef()) {
                    // ComPtr::Attach adds a reference in mingw-w64 but not in the Windows SDK: take one
                    // through assignment and give back the one taken here.
                    l_pOwner = *l_It;
                    (*l_It)->Release();
                }
            }
        }
    }
    if (!l_pOwner) {
        return S_OK;  // nobody to publish through
    }
    return l_pOwner->SendEvent(event_in);
}

IDorWEXMonitor* CreateWPDMonitor(IDorWEXEventSink* pOwner_in) {
    return new CDorWEXWMIWPDCore(pOwner_in);
}

IDorWEXDeviceRegistry* CDorWEXWMIWPDCore::Devices() {
    return m_pCollection.get();
}

IDorWEXDeviceRegistry* CDorWEXWMIWPDCore::DevicesWhenStarted() {
    if (m_HANDLEStarted != nullptr && WaitForSingleObject(m_HANDLEStarted, kStartupWaitMilliseconds) != WAIT_OBJECT_0) {
        Trace(L"CDorWEXWMIWPDCore::DevicesWhenStarted, devices still opening after %lu ms.\n",
              kStartupWaitMilliseconds);
    }
    return m_pCollection.get();
}

void CDorWEXWMIWPDCore::Shutdown() {
    Trace(L"CDorWEXWMIWPDCore::Shutdown");
    InterlockedExchange(&g_longShuttingDown, 1);
    if (HasAppleMonitoring()) {
        StopAppleMonitoring();
    }
    if (HasBlackBerryMonitoring()) {
        StopBlackBerryMonitoring();
    }
}

int CDorWEXWMIWPDCore::Initialize() {
    Trace(L"CDorWEXWMIWPDCore::Initialize");
    InterlockedExchange(&g_longShuttingDown, 0);
    if (!m_pWPDEventsProcessor) {
        m_pWPDEventsProcessor = std::make_unique<CDorWEXWMIThreadWPDEventsProcessor>(this);
    }
    m_pWPDEventsProcessor->ManageThread(this, CDorWEXWMIThreadBase::START);
    if (m_pOwner == nullptr || !m_pCollection || m_HANDLEStartupThread != nullptr) {
        SetEvent(m_HANDLEStarted);
        return 1;
    }
    m_HANDLEStartupThread = CreateModuleThread(StartupThread, this, 0);
    if (m_HANDLEStartupThread == nullptr) {
        AddAttachedDevices();  // no thread to be had: here, late rather than never
        SetEvent(m_HANDLEStarted);
    }
    return 1;
}

DWORD WINAPI CDorWEXWMIWPDCore::StartupThread(LPVOID pCore_in) {
    auto* l_pCore = static_cast<CDorWEXWMIWPDCore*>(pCore_in);
    const HRESULT l_HRESULTCom = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    l_pCore->AddAttachedDevices();
    SetEvent(l_pCore->m_HANDLEStarted);
    if (SUCCEEDED(l_HRESULTCom)) {
        CoUninitialize();
    }
    return 0;
}

void CDorWEXWMIWPDCore::AddAttachedDevices() {
    ComPtr<IPortableDeviceManager> l_pManager;
    if (FAILED(CoCreateInstance(CLSID_PortableDeviceManager, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&l_pManager)))) {
        return;
    }
    DWORD l_dwordCount = 0;
    if (FAILED(l_pManager->GetDevices(nullptr, &l_dwordCount)) || l_dwordCount == 0) {
        return;
    }
    std::unique_ptr<LPWSTR[]> l_pIds(new (std::nothrow) LPWSTR[l_dwordCount]());
    if (!l_pIds) {
        return;
    }
    if (FAILED(l_pManager->GetDevices(l_pIds.get(), &l_dwordCount))) {
        return;
    }
    try {
        m_StartupIds.assign(l_pIds.get(), l_pIds.get() + l_dwordCount);
    } catch (const std::bad_alloc&) {
        m_StartupIds.clear();
    }
    for (DWORD l_dwordIndex = 0; l_dwordIndex < l_dwordCount; ++l_dwordIndex) {
        CoTaskMemFree(l_pIds[l_dwordIndex]);
    }
    // Opening a phone is an MTP session that may take a second: the devices open side by side, so that a
    // cart of phones is published in the time of one. Each opener is a thread of the module and ends
    // before this thread does, which the core's stop waits for: none outlives the core or the module.
    // A thread that cannot be had leaves its devices to those there are, this one included.
    using OwnedHandle = std::unique_ptr<void, decltype(&CloseHandle)>;
    std::vector<OwnedHandle> l_Openers;
    try {
        l_Openers.reserve(kMostOpeningAtOnce);
    } catch (const std::bad_alloc&) {
        // no room to keep a thread's handle: this thread opens them all
    }
    // This thread is one of the openers: the others are one fewer than the devices, at most.
    const size_t l_sizeOthers = std::min(m_StartupIds.size(), kMostOpeningAtOnce) - (m_StartupIds.empty() ? 0 : 1);
    while (l_Openers.size() < std::min(l_sizeOthers, l_Openers.capacity())) {
        OwnedHandle l_Thread(CreateModuleThread(OpenerThread, this, 0), &CloseHandle);
        if (!l_Thread) {
            break;
        }
        l_Openers.push_back(std::move(l_Thread));  // within the capacity reserved: does not throw
    }
    OpenStartupDevices();
    for (const auto& l_Thread : l_Openers) {
        WaitForSingleObject(l_Thread.get(), INFINITE);
    }
    // Devices known only to the Apple companion join here once the Apple channel reports them.
}

DWORD WINAPI CDorWEXWMIWPDCore::OpenerThread(LPVOID pCore_in) {
    const HRESULT l_HRESULTCom = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    static_cast<CDorWEXWMIWPDCore*>(pCore_in)->OpenStartupDevices();
    if (SUCCEEDED(l_HRESULTCom)) {
        CoUninitialize();
    }
    return 0;
}

// Each device listed at the start is taken by one opener; a stop ends them between two devices.
void CDorWEXWMIWPDCore::OpenStartupDevices() {
    for (size_t l_index = m_sizeNextStartupId++; l_index < m_StartupIds.size() && m_longStopStartup == 0;
         l_index = m_sizeNextStartupId++) {
        const wchar_t* const l_pwcharId = m_StartupIds[l_index].c_str();
        try {
            if (!m_pCollection->FindWPDObjectById(l_pwcharId)) {
                m_pCollection->AddWPD(l_pwcharId);
            }
        } catch (...) {
            // Out of memory: this device is not added; its openers are still waited for.
        }
    }
}

namespace {

// A companion processor is created on the first start and reused if a start follows a start.
template <class Processor>
void StartCompanion(CDorWEXWMIWPDCore* pCore_in, std::unique_ptr<Processor>& pProcessor_io) {
    if (!pProcessor_io) {
        pProcessor_io = std::make_unique<Processor>(pCore_in);
    }
    pProcessor_io->ManageThread(nullptr, CDorWEXWMIThreadBase::START);
}

}  // namespace

template <class Processor>
void CDorWEXWMIWPDCore::StopCompanion(std::unique_ptr<Processor>& pProcessor_io) {
    if (pProcessor_io) {
        pProcessor_io->SetOwner(this);
        Trace(L"CDorWEXWMIThreadBase::ManageThread, STOP");
        pProcessor_io->Stop();
        RetireProcessor(std::unique_ptr<CDorWEXWMIThreadBase>(pProcessor_io.release()));
    }
}

// A processor whose threads outlived the bounded stop is kept, with everything its threads use, until they
// have ended; those that have ended by now are destroyed here.
void CDorWEXWMIWPDCore::RetireProcessor(std::unique_ptr<CDorWEXWMIThreadBase> pProcessor_in) {
    if (pProcessor_in) {
        m_RetiredProcessors.push_back(std::move(pProcessor_in));
    }
    for (auto l_It = m_RetiredProcessors.begin(); l_It != m_RetiredProcessors.end();) {
        // Asked quietly first: the stop has already traced that a thread was kept.
        if ((*l_It)->ThreadsHaveEnded() && (*l_It)->CloseThreadHandles()) {
            l_It = m_RetiredProcessors.erase(l_It);
        } else {
            ++l_It;
        }
    }
}

int CDorWEXWMIWPDCore::StartAppleMonitoring() {
    Trace(L"CDorWEXWMIWPDCore::StartAppleMonitoring");
    std::lock_guard<std::mutex> l_guard(m_mutexCompanions);
    m_longAppleMonitoring = 1;
    RetireProcessor(nullptr);
    StartCompanion(this, m_pAppleEventsProcessor);
    return 1;
}

int CDorWEXWMIWPDCore::StartBlackBerryMonitoring() {
    Trace(L"CDorWEXWMIWPDCore::StartBlackBerryMonitoring");
    std::lock_guard<std::mutex> l_guard(m_mutexCompanions);
    m_longBlackBerryMonitoring = 1;
    RetireProcessor(nullptr);
    StartCompanion(this, m_pBlackBerryEventsProcessor);
    return 1;
}

size_t CDorWEXWMIWPDCore::ReapRetiredProcessors() {
    std::lock_guard<std::mutex> l_guard(m_mutexCompanions);
    RetireProcessor(nullptr);
    return m_RetiredProcessors.size();
}

int CDorWEXWMIWPDCore::AddBlackBerryToMonitoring(IDorWEXWPDDevice* pDevice_in) {
    std::lock_guard<std::mutex> l_guard(m_mutexCompanions);
    if (!m_pBlackBerryEventsProcessor || m_pBlackBerryEventsProcessor->GetListener() == nullptr) {
        return 0;
    }
    return m_pBlackBerryEventsProcessor->GetListener()->AddBlackBerryToMonitoring(pDevice_in);
}

int CDorWEXWMIWPDCore::RemoveBlackBerryFromMonitoring(IDorWEXWPDDevice* pDevice_in) {
    std::lock_guard<std::mutex> l_guard(m_mutexCompanions);
    if (!m_pBlackBerryEventsProcessor || m_pBlackBerryEventsProcessor->GetListener() == nullptr) {
        return 0;
    }
    return m_pBlackBerryEventsProcessor->GetListener()->RemoveBlackBerryFromMonitoring(pDevice_in);
}

int CDorWEXWMIWPDCore::StopAppleMonitoring() {
    Trace(L"CDorWEXWMIWPDCore::StopAppleMonitoring");
    std::lock_guard<std::mutex> l_guard(m_mutexCompanions);
    StopCompanion(m_pAppleEventsProcessor);
    m_longAppleMonitoring = 0;
    return 1;
}

int CDorWEXWMIWPDCore::StopBlackBerryMonitoring() {
    Trace(L"CDorWEXWMIWPDCore::StopBlackBerryMonitoring");
    std::lock_guard<std::mutex> l_guard(m_mutexCompanions);
    StopCompanion(m_pBlackBerryEventsProcessor);
    m_longBlackBerryMonitoring = 0;
    return 1;
}

_bstr_t CDorWEXWMIWPDCore::RequestWPDWriteToken(DWORD dwordProcessId_in) {
    _bstr_t l_bstr_tToken(L"");
    Trace(L"CDorWEXWMIWPDCore::RequestWPDWriteToken enter.\n");
    HANDLE l_HANDLEProcess = OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, dwordProcessId_in);
    if (l_HANDLEProcess != nullptr) {
        CloseHandle(l_HANDLEProcess);
        ComPtr<IDorWEXPidHook> l_pHook;
        if (SUCCEEDED(CoCreateInstance(CLSID_DorWEXPidHook, nullptr, CLSCTX_ALL, IID_IDorWEXPidHook,
                                       reinterpret_cast<void**>(l_pHook.GetAddressOf())))) {
            _variant_t l_variant_tOperation(L"PIDHOOK");
            _variant_t l_variant_tProcessId(static_cast<long>(dwordProcessId_in), VT_I4);
            _variant_t l_variant_tMissing(DISP_E_PARAMNOTFOUND, VT_ERROR);
            _variant_t l_variant_tResult;
            const HRESULT l_HRESULT =
                l_pHook->Hook(l_variant_tOperation, l_variant_tProcessId, l_variant_tMissing, &l_variant_tResult);
            if (FAILED(l_HRESULT)) {
                throw _com_error(l_HRESULT);
            }
            UUID l_UUID;
            RPC_WSTR l_pwcharUUID = nullptr;
            if (UuidCreate(&l_UUID) == RPC_S_OK && UuidToStringW(&l_UUID, &l_pwcharUUID) == RPC_S_OK) {
                l_bstr_tToken = reinterpret_cast<const wchar_t*>(l_pwcharUUID);
                RpcStringFreeW(&l_pwcharUUID);
                std::lock_guard<std::mutex> l_guard(m_mutexWriteTokens);
                for (auto l_It = m_WriteTokens.begin(); l_It != m_WriteTokens.end(); ++l_It) {
                    if (l_It->second == dwordProcessId_in) {
                        Trace(L"CDorWEXWMIWPDCore::RequestWPDWriteToken erase old PID.\n");
                        m_WriteTokens.erase(l_It);
                        break;
                    }
                }
                m_WriteTokens[static_cast<const wchar_t*>(l_bstr_tToken)] = dwordProcessId_in;
            }
        }
    }
    Trace(L"CDorWEXWMIWPDCore::RequestWPDWriteToken <%s>.\n", static_cast<const wchar_t*>(l_bstr_tToken));
    return l_bstr_tToken;
}

DWORD CDorWEXWMIWPDCore::GetPidForWriteToken(const wchar_t* pwcharToken_in) {
    if (pwcharToken_in == nullptr) {
        return 0;
    }
    std::lock_guard<std::mutex> l_guard(m_mutexWriteTokens);
    const auto l_Found = m_WriteTokens.find(pwcharToken_in);
    return l_Found == m_WriteTokens.end() ? 0 : l_Found->second;
}

// Hands a storage arrival to the listener's window as a disk mount: the window's thread owns the
// listener's state. The record waits in the listener's queue; the message that announces it carries none.
void CDorWEXWMIWPDCore::PostDiskMount(const wchar_t* pwcharPnPDeviceId_in) {
    CDorWEXWMIThreadWPDEventsProcessor* l_pProcessor = m_pWPDEventsProcessor.get();
    if (l_pProcessor == nullptr) {
        return;
    }
    Trace(L"CDorWEXWMIThreadWPDEventsProcessor::ProcessDiskMount, calling OnlineEvent");
    auto l_lock = l_pProcessor->LockListener();
    CDorWEXWMIWPDEventsListener* l_pListener = l_pProcessor->GetListener();
    if (l_pListener == nullptr || l_pListener->GetWindow() == nullptr) {
        return;
    }
    l_pListener->QueueDiskMount(pwcharPnPDeviceId_in);
}
