#include "wpd_events_processor.h"

#include <comdef.h>
#include <wrl/client.h>
#include <wbemcli.h>

#include <deque>
#include <mutex>
#include <string>

#include "../common/module_state.h"
#include "../wmi/object_path.h"
#include "../wmi/schema.h"
#include "../common/trace.h"
#include "../device/pnp_topology.h"
#include "wpd_events_listener.h"

HANDLE g_HANDLEApplicationEvent = nullptr;
volatile LONG g_longWindowClosing = 0;

namespace {

// The device notifications the window handed over and the monitor thread has not taken yet, oldest first:
// a name of at most 511 characters, as the window's buffer held it, and 1 for an arrival, 0 for a removal.
struct PendingDevice {
    std::wstring wstringName;
    LONG longOnline = 0;
};
std::mutex g_mutexPendingDevice;
std::deque<PendingDevice> g_PendingDevices;

// {CB8555CC-9128-11D1-AD9B-00C04FD8FDFF}
constexpr CLSID kCLSID_WbemAdministrativeLocator = {
    0xcb8555cc, 0x9128, 0x11d1, {0xad, 0x9b, 0x00, 0xc0, 0x4f, 0xd8, 0xfd, 0xff}};

// root\cimv2 through the administrative locator, as the provider's own publication connects.
HRESULT ConnectToNamespace(IWbemServices** ppIWbemServices_out, bool& boolLocatorCreated_out) {
    Microsoft::WRL::ComPtr<IWbemLocator> l_Locator;
    HRESULT l_HRESULT = CoCreateInstance(kCLSID_WbemAdministrativeLocator, nullptr, CLSCTX_INPROC_SERVER,
                                         IID_IWbemLocator, reinterpret_cast<void**>(l_Locator.ReleaseAndGetAddressOf()));
    boolLocatorCreated_out = SUCCEEDED(l_HRESULT);
    if (FAILED(l_HRESULT)) {
        return l_HRESULT;
    }
    const _bstr_t l_bstr_tNamespace(dorwex::schema::kNamespace);
    return l_Locator->ConnectServer(l_bstr_tNamespace, nullptr, nullptr, nullptr, WBEM_FLAG_CONNECT_USE_MAX_WAIT,
                                      nullptr, nullptr, ppIWbemServices_out);
}

}  // namespace

void SetPendingDevice(const wchar_t* pwcharName_in, LONG longOnline_in) {
    try {
        std::lock_guard<std::mutex> l_guard(g_mutexPendingDevice);
        g_PendingDevices.push_back({std::wstring(pwcharName_in, wcsnlen(pwcharName_in, 511)), longOnline_in});
    } catch (...) {
        return;  // out of memory: this notification is lost
    }
    if (g_HANDLEApplicationEvent != nullptr) {
        SetEvent(g_HANDLEApplicationEvent);
    }
}

CDorWEXWMIThreadWPDEventsProcessor::CDorWEXWMIThreadWPDEventsProcessor(CDorWEXWMIWPDCore* pCore_in)
    : CDorWEXWMIThreadBase(pCore_in, WorkerThreadWPDEventsProcessor, THREAD_TYPE_WPD) {
    SetApplicationEvent(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    g_HANDLEApplicationEvent = GetApplicationEvent();
    // COM may keep an unused module mapped for a while and hand it the next request: what the monitor
    // before this one left in the module's state is not this one's. Its notifications went with it (the
    // new monitor lists the attached devices itself), and its window's end does not close this one.
    InterlockedExchange(&g_longWindowClosing, 0);
    std::lock_guard<std::mutex> l_guard(g_mutexPendingDevice);
    g_PendingDevices.clear();
}

CDorWEXWMIThreadWPDEventsProcessor::~CDorWEXWMIThreadWPDEventsProcessor() {
    if (g_HANDLEApplicationEvent == GetApplicationEvent()) {
        g_HANDLEApplicationEvent = nullptr;
    }
    StopAndCloseApplicationEvent();
    delete m_pListener;
    m_pListener = nullptr;
}

void CDorWEXWMIThreadWPDEventsProcessor::ReplaceListener(CDorWEXWMIWPDEventsListener* pListener_in) {
    std::lock_guard<std::mutex> l_guard(m_mutexListener);
    // The listener of a worker that died has no window left (windows end with their thread).
    delete m_pListener;
    m_pListener = pListener_in;
}

int CDorWEXWMIThreadWPDEventsProcessor::Stop() {
    const bool l_boolWPD = GetThreadType() == THREAD_TYPE_WPD;
    if (l_boolWPD) {
        Trace(L"CDorWEXWMIThreadWPDEventsProcessor::Stop: TheMonitorThreadForThreadWPDEventsProcessor\n");
    }
    {
        std::lock_guard<std::mutex> l_guard(m_mutexListener);
        m_boolStopping = true;
        if (m_pListener != nullptr) {
            Trace(L"CDorWEXWMIThreadWPDEventsProcessor::Stop:PostMessage WM_CLOSE");
            PostMessageW(m_pListener->GetWindow(), WM_CLOSE, 0, 0);
            Trace(L"CDorWEXWMIThreadWPDEventsProcessor::Stop:PostMessage WM_DESTROY");
            PostMessageW(m_pListener->GetWindow(), WM_DESTROY, 0, 0);
            m_pListener->UnregisterWithOSToReceiveEvents();
            m_pListener->DestroyWindowForListening();
        }
    }
    SignalTerminate();
    if (l_boolWPD) {
        Trace(L"CDorWEXWMIThreadWPDEventsProcessor::Stop: TheMonitorThreadForThreadWPDEventsProcessor, waiting for "
              L"child thread to terminate...\n");
    }
    WaitForThreads(5000);
    if (l_boolWPD) {
        Trace(L"CDorWEXWMIThreadWPDEventsProcessor::Stop: TheMonitorThreadForThreadWPDEventsProcessor, child thread "
              L"is terminated!!!!\n");
    }
    CloseThreadHandles();
    {
        std::lock_guard<std::mutex> l_guard(m_mutexListener);
        m_boolStopping = false;
    }
    if (l_boolWPD) {
        Trace(L"CDorWEXWMIThreadWPDEventsProcessor::Stop: TheMonitorThreadForThreadWPDEventsProcessor exiting\n");
    }
    return 0;
}

int CDorWEXWMIThreadWPDEventsProcessor::ProcessApplicationEvent() {
    Trace(L"CDorWEXWMIThreadWPDEventsProcessor::ProcessApplicationEvent");
    // One notification per call, the oldest first; when more wait, the event is signalled again for the next.
    PendingDevice l_Pending;
    {
        std::lock_guard<std::mutex> l_guard(g_mutexPendingDevice);
        if (g_PendingDevices.empty()) {
            return 0;
        }
        l_Pending = std::move(g_PendingDevices.front());
        g_PendingDevices.pop_front();
        if (!g_PendingDevices.empty() && g_HANDLEApplicationEvent != nullptr) {
            SetEvent(g_HANDLEApplicationEvent);
        }
    }
    const wchar_t* const l_wcharName = l_Pending.wstringName.c_str();
    try {
        if (l_Pending.longOnline != 1) {
            Trace(L"CDorWEXWMIThreadWPDEventsProcessor::ProcessApplicationEvent, calling OfflineEvent");
            OfflineEvent(l_wcharName);
            return 0;
        }
        // A device whose Plug and Play view shows a disk drive is plain USB storage, not a portable device.
        CDorWEXWPDObjectInWin32 l_Win32;
        if (SUCCEEDED(l_Win32.ProcessDeviceNotification(l_wcharName, 1)) &&
            (!l_Win32.GetEntry(CDorWEXWPDObjectInWin32::kNotifiedNode).wstringDiskDrive.empty() ||
             !l_Win32.GetEntry(CDorWEXWPDObjectInWin32::kDiskDriveNode).wstringDiskDrive.empty())) {
            Trace(L"CDorWEXWMIThreadWPDEventsProcessor::ProcessApplicationEvent, FilterPureUSBDevice=TRUE");
            return 0;
        }
        Trace(L"CDorWEXWMIThreadWPDEventsProcessor::ProcessApplicationEvent, calling OnlineEvent");
        OnlineEvent(l_wcharName);
    } catch (...) {
        // Out of memory while building texts: the notification is lost, the monitor goes on.
    }
    return 0;
}

HRESULT CDorWEXWMIThreadWPDEventsProcessor::OnlineEvent(const wchar_t* pwcharName_in) {
    Trace(L"CDorWEXWMIThreadWPDEventsProcessor::OnlineEvent, enter.\n");
    Microsoft::WRL::ComPtr<IWbemServices> l_Services;
    bool l_boolLocator = false;
    HRESULT l_HRESULT = ConnectToNamespace(l_Services.ReleaseAndGetAddressOf(), l_boolLocator);
    if (FAILED(l_HRESULT) || l_Services.Get() == nullptr) {
        return l_HRESULT;
    }
    Microsoft::WRL::ComPtr<IWbemClassObject> l_Class;
    Microsoft::WRL::ComPtr<IWbemClassObject> l_Instance;
    const _bstr_t l_bstr_tClass(dorwex::schema::kClassWPD);
    l_HRESULT = l_Services->GetObject(l_bstr_tClass, 0, nullptr, l_Class.ReleaseAndGetAddressOf(), nullptr);
    if (SUCCEEDED(l_HRESULT)) {
        l_HRESULT = l_Class->SpawnInstance(0, l_Instance.ReleaseAndGetAddressOf());
    }
    if (FAILED(l_HRESULT)) {
        return l_HRESULT;
    }
    Trace(L"CDorWEXWMIThreadWPDEventsProcessor::OnlineEvent, SpawnInstance succeeded.\n");
    _variant_t l_variant_tId(pwcharName_in);
    l_HRESULT = l_Instance->Put(dorwex::schema::kKeyProperty, 0, &l_variant_tId, 0);
    if (FAILED(l_HRESULT)) {
        Trace(L"CDorWEXWMIThreadWPDEventsProcessor::OnlineEvent, WPDInstance->Put strIdfailed, HRESULT = 0x%08x.\n",
              l_HRESULT);
        return l_HRESULT;
    }
    Trace(L"CDorWEXWMIThreadWPDEventsProcessor::OnlineEvent, WPDInstance->Put strId succeeded.\n");
    Microsoft::WRL::ComPtr<IWbemContext> l_Context;
    l_HRESULT = CoCreateInstance(CLSID_WbemContext, nullptr, CLSCTX_INPROC_SERVER, IID_IWbemContext,
                                 reinterpret_cast<void**>(l_Context.ReleaseAndGetAddressOf()));
    if (SUCCEEDED(l_HRESULT)) {
        _variant_t l_variant_tToken(dorwex::schema::kTokenWPD);
        l_HRESULT = l_Context->SetValue(dorwex::schema::kContextWPDProp, 0, &l_variant_tToken);
    }
    if (FAILED(l_HRESULT)) {
        Trace(L"CDorWEXWMIThreadWPDEventsProcessor::OnlineEvent, IWbemContext->SetValue failed, HRESULT = 0x%08x.\n",
              l_HRESULT);
        return l_HRESULT;
    }
    Trace(L"CDorWEXWMIThreadWPDEventsProcessor::OnlineEvent, IWbemContext->SetValue succeeded.\n");
    l_HRESULT = l_Services->PutInstance(l_Instance.Get(), 0, l_Context.Get(), nullptr);
    if (FAILED(l_HRESULT)) {
        Trace(L"CDorWEXWMIThreadWPDEventsProcessor::OnlineEvent, PutInstance for WMI Context failed, HRESULT = "
              L"0x%08x.\n",
              l_HRESULT);
    } else {
        Trace(L"CDorWEXWMIThreadWPDEventsProcessor::OnlineEvent, PutInstance for WMI Context succeeded.\n");
    }
    return l_HRESULT;
}

HRESULT CDorWEXWMIThreadWPDEventsProcessor::OfflineEvent(const wchar_t* pwcharName_in) {
    Trace(L"CDorWEXWMIThreadWPDEventsProcessor::OfflineEvent, enter.\n");
    Microsoft::WRL::ComPtr<IWbemServices> l_Services;
    bool l_boolLocator = false;
    HRESULT l_HRESULT = ConnectToNamespace(l_Services.ReleaseAndGetAddressOf(), l_boolLocator);
    if (!l_boolLocator) {
        Trace(L"CDorWEXWMIThreadWPDEventsProcessor::OfflineEvent, CoCreateInstance(CLSID_WbemAdministrativeLocator "
              L"failed.\n");
        return l_HRESULT;
    }
    if (l_Services.Get() == nullptr) {
        Trace(L"CDorWEXWMIThreadWPDEventsProcessor::OfflineEvent, l_IWbemServices == NULL\n");
        return l_HRESULT;
    }
    // Win32ext_WPD.strId="<name>" with the name escaped: an interface name is full of backslashes
    // ("\\?\usb#..."), which WMI's path grammar reads as escapes.
    const std::wstring l_wstringPath = std::wstring(dorwex::schema::kClassWPD) + L"." + dorwex::schema::kKeyProperty +
                                       L"=" + dorwex::QuotedKeyValue(pwcharName_in);
    const _bstr_t l_bstr_tPath(l_wstringPath.c_str());
    l_HRESULT = l_Services->DeleteInstance(l_bstr_tPath, 0, nullptr, nullptr);
    Trace(L"CDorWEXWMIThreadWPDEventsProcessor::OfflineEvent, DeleteInstance, %s, HRESULT = 0x%08x.\n",
          l_wstringPath.c_str(), l_HRESULT);
    return l_HRESULT;
}

DWORD WINAPI CDorWEXWMIThreadWPDEventsProcessor::WorkerThreadWPDEventsProcessor(LPVOID pCDorWEXWMIThreadBase_in) {
    Trace(L"CDorWEXWMIThreadWPDEventsProcessor::WorkerThreadWPDEventsProcessor");
    auto* l_pProcessor = static_cast<CDorWEXWMIThreadWPDEventsProcessor*>(
        static_cast<CDorWEXWMIThreadBase*>(pCDorWEXWMIThreadBase_in));
    try {
        auto* l_pListener = new CDorWEXWMIWPDEventsListener(l_pProcessor->GetOwner());
        l_pProcessor->ReplaceListener(l_pListener);
        InterlockedIncrement(&g_longWPDEventsThreadIsRunning);
        l_pListener->CreateWindowForListening(l_pProcessor);
        InterlockedDecrement(&g_longWPDEventsThreadIsRunning);
    } catch (...) {
        // Out of memory: the worker ends and the monitor starts another.
    }
    Trace(L"CDorWEXWMIThreadWPDEventsProcessor::WorkerThreadWPDEventsProcessor shutting down...\n");
    return 0;
}
