#include "wpd_events_listener.h"

#include <objbase.h>

#include <cstring>

#include "../common/module_state.h"
#include "../common/trace.h"
#include "../common/error_text.h"
#include "notification_names.h"
#include "wpd_core.h"
#include "wpd_events_processor.h"

namespace {

constexpr wchar_t kWindowClassName[] = L"dorWEXWMIWPDHiddenWindowClass";


// A device-interface record of one of the two portable-device classes, or null.
const DEV_BROADCAST_DEVICEINTERFACE_W* PortableDeviceRecord(LPARAM lParam_in) {
    const auto* l_pHeader = reinterpret_cast<const DEV_BROADCAST_HDR*>(lParam_in);
    if (l_pHeader == nullptr || l_pHeader->dbch_devicetype != DBT_DEVTYP_DEVICEINTERFACE) {
        return nullptr;
    }
    const auto* l_pRecord = reinterpret_cast<const DEV_BROADCAST_DEVICEINTERFACE_W*>(l_pHeader);
    return l_pRecord->dbcc_classguid == kGUID_DEVINTERFACE_WPD || l_pRecord->dbcc_classguid == kGUID_DEVINTERFACE_WPD_2
               ? l_pRecord
               : nullptr;
}

// The interface name of a record, bounded by the record's own size.
std::wstring RecordName(const DEV_BROADCAST_DEVICEINTERFACE_W* pRecord_in) {
    const size_t l_sizeHeader = offsetof(DEV_BROADCAST_DEVICEINTERFACE_W, dbcc_name);
    if (pRecord_in->dbcc_size <= l_sizeHeader) {
        return {};
    }
    const size_t l_sizeChars = (pRecord_in->dbcc_size - l_sizeHeader) / sizeof(wchar_t);
    return std::wstring(pRecord_in->dbcc_name, wcsnlen(pRecord_in->dbcc_name, l_sizeChars));
}

void TraceLastError(const wchar_t* pwcharFormat_in) {
    const DWORD l_dwordError = GetLastError();
    Trace(pwcharFormat_in, l_dwordError, GetErrorText(HRESULT_FROM_WIN32(l_dwordError)).c_str());
}

}  // namespace

CDorWEXWMIWPDEventsListener::CDorWEXWMIWPDEventsListener(CDorWEXWMIWPDCore* pOwner_in) : m_pOwner(pOwner_in) {
    Trace(L"CDorWEXWMIWPDEventsListener::CDorWEXWMIWPDEventsListener");
}

HRESULT CDorWEXWMIWPDEventsListener::CreateWindowForListening(CDorWEXWMIThreadWPDEventsProcessor* pProcessor_in) {
    m_pProcessor = pProcessor_in;
    Trace(L"CDorWEXWMIWPDEventsListener::CreateWindowForListening");
    // No lock is held while the window is made: making it may load system libraries, and a module that is
    // being unloaded holds the loader lock while it stops this processor. The stopping flag is checked
    // before and after instead; a Stop that begins in between finds the window, or the worker finds the flag.
    if (pProcessor_in->IsStopping()) {
        return S_OK;  // a Stop has begun: no window, so nothing to wait for
    }
    // The class belongs to this module, whose window procedure it names: the system does not unregister a
    // DLL's classes when the DLL is unloaded, so the worker unregisters it itself before it ends.
    const HINSTANCE l_HINSTANCE = ThisModule();
    WNDCLASSEXW l_WNDCLASSEXW{};
    l_WNDCLASSEXW.cbSize = sizeof(l_WNDCLASSEXW);
    l_WNDCLASSEXW.style = CS_VREDRAW | CS_HREDRAW | CS_OWNDC;
    l_WNDCLASSEXW.lpfnWndProc = dorWEXWMIWPDWindowProcCallback;
    l_WNDCLASSEXW.cbWndExtra = 8;
    l_WNDCLASSEXW.hInstance = l_HINSTANCE;
    l_WNDCLASSEXW.hIcon = LoadIconW(nullptr, IDI_APPLICATION);
    l_WNDCLASSEXW.hIconSm = LoadIconW(nullptr, IDI_APPLICATION);
    l_WNDCLASSEXW.hCursor = LoadCursorW(nullptr, IDC_ARROW);
    l_WNDCLASSEXW.hbrBackground = CreateSolidBrush(RGB(0xC0, 0xC0, 0xC0));  // freed with the class
    l_WNDCLASSEXW.lpszClassName = kWindowClassName;
    bool l_boolRegistered = RegisterClassExW(&l_WNDCLASSEXW) != 0;
    if (!l_boolRegistered && GetLastError() == ERROR_CLASS_ALREADY_EXISTS) {
        // Left by an earlier worker that could not end cleanly: its procedure may be code that is gone.
        // It is replaced, never used.
        UnregisterClassW(kWindowClassName, l_HINSTANCE);
        l_boolRegistered = RegisterClassExW(&l_WNDCLASSEXW) != 0;
    }
    if (!l_boolRegistered) {
        TraceLastError(L"CDorWEXWMIWPDEventsListener::CreateWindowForListening, RegisterClassEx FAILED %x: %s.\n");
        DeleteObject(l_WNDCLASSEXW.hbrBackground);
        return ListenForWPDEvents();
    }
    HWND l_HWND = CreateWindowExW(WS_EX_APPWINDOW | WS_EX_CLIENTEDGE, kWindowClassName, L"dorWEX14",
                                  WS_OVERLAPPEDWINDOW, CW_USEDEFAULT, 0, 640, 480, nullptr, nullptr, l_HINSTANCE,
                                  nullptr);
    HRESULT l_HRESULT = S_OK;
    if (l_HWND != nullptr) {
        SetWindowLongPtrW(l_HWND, GWLP_USERDATA, reinterpret_cast<LONG_PTR>(this));
        m_HWND = l_HWND;
        // A window of a new worker, perhaps of a new monitor in a module that stayed loaded: the flag of the
        // window before it says nothing about this one.
        InterlockedExchange(&g_longWindowClosing, 0);
        if (pProcessor_in->IsStopping()) {
            m_HWND = nullptr;
        } else {
            l_HRESULT = ListenForWPDEvents();
        }
    } else {
        TraceLastError(L"CDorWEXWMIWPDEventsListener::CreateWindowForListening, CreateWindowEx FAILED %x: %s.\n");
        l_HRESULT = ListenForWPDEvents();
    }
    // On this thread, which owns the window: first the window, then its class.
    if (l_HWND != nullptr && IsWindow(l_HWND)) {
        DestroyWindow(l_HWND);
    }
    if (!UnregisterClassW(kWindowClassName, l_HINSTANCE)) {
        TraceLastError(L"CDorWEXWMIWPDEventsListener::CreateWindowForListening, UnregisterClass FAILED %x: %s.\n");
    }
    return l_HRESULT;
}

HRESULT CDorWEXWMIWPDEventsListener::ListenForWPDEvents() {
    Trace(L"CDorWEXWMIWPDEventsListener::ListenForWPDEvents enter.\n");
    if (RegisterWithOSToReceiveWPDEvents() == 0) {
        Trace(L"CDorWEXWMIWPDEventsListener::RunWindowsMessagePumpForListening entered...");
        // Without a window there is nothing to pump: GetMessage would wait for thread messages forever.
        // The worker then ends and its monitor starts another; the pause keeps that from spinning.
        if (m_HWND == nullptr && m_pProcessor != nullptr && m_pProcessor->GetTerminateEvent() != nullptr) {
            WaitForSingleObject(m_pProcessor->GetTerminateEvent(), 1000);
        }
        if (m_HWND != nullptr) {
            MSG l_MSG;
            BOOL l_BOOLResult;
            while ((l_BOOLResult = GetMessageW(&l_MSG, nullptr, 0, 0)) != 0 && l_BOOLResult != -1) {
                TranslateMessage(&l_MSG);
                DispatchMessageW(&l_MSG);
            }
        }
        Trace(L"CDorWEXWMIWPDEventsListener::RunWindowsMessagePumpForListening exiting...");
    }
    Trace(L"CDorWEXWMIWPDEventsListener::ListenForWPDEvents exit.\n");
    return S_OK;
}

int CDorWEXWMIWPDEventsListener::RegisterWithOSToReceiveWPDEvents() {
    Trace(L"CDorWEXWMIWPDEventsListener::RegisterWithOSToReceiveWPDEvents");
    m_DEV_BROADCAST_DEVICEINTERFACEFilter = {};
    m_DEV_BROADCAST_DEVICEINTERFACEFilter.dbcc_size = sizeof(DEV_BROADCAST_DEVICEINTERFACE_W);
    m_DEV_BROADCAST_DEVICEINTERFACEFilter.dbcc_devicetype = DBT_DEVTYP_DEVICEINTERFACE;
    m_DEV_BROADCAST_DEVICEINTERFACEFilter.dbcc_reserved = 0;
    m_DEV_BROADCAST_DEVICEINTERFACEFilter.dbcc_classguid = kGUID_DEVINTERFACE_WPD;
    // Every interface class: the window procedure picks the portable-device ones itself.
    m_HDEVNOTIFYWPD = RegisterDeviceNotificationW(m_HWND, &m_DEV_BROADCAST_DEVICEINTERFACEFilter,
                                                  DEVICE_NOTIFY_WINDOW_HANDLE | DEVICE_NOTIFY_ALL_INTERFACE_CLASSES);
    if (m_HDEVNOTIFYWPD == nullptr) {
        TraceLastError(L"CDorWEXWMIWPDEventsListener::RegisterWithOSToReceiveWPDEvents, RegisterDeviceNotification "
                       L"FAILED %x: %s.\n");
    }
    return 0;
}

void CDorWEXWMIWPDEventsListener::UnregisterWithOSToReceiveEvents() {
    if (m_HDEVNOTIFYWPD != nullptr) {
        if (!UnregisterDeviceNotification(m_HDEVNOTIFYWPD)) {
            TraceLastError(L"CDorWEXWMIWPDEventsListener::UnregisterWithOSToReceiveWPDEvents, "
                           L"UnregisterDeviceNotification FAILED %x: %s.\n");
        }
        m_HDEVNOTIFYWPD = nullptr;
    }
    if (m_HDEVNOTIFYWCEUSBS != nullptr) {
        if (!UnregisterDeviceNotification(m_HDEVNOTIFYWCEUSBS)) {
            TraceLastError(L"CDorWEXWMIWPDEventsListener::UnregisterWithOSToReceiveWCEUSBSEvents, "
                           L"UnregisterDeviceNotification FAILED %x: %s.\n");
        }
        m_HDEVNOTIFYWCEUSBS = nullptr;
    }
}

void CDorWEXWMIWPDEventsListener::DestroyWindowForListening() {
    const HWND l_HWND = m_HWND;
    if (l_HWND != nullptr && IsWindow(l_HWND)) {
        // From the stopping thread this fails (a window belongs to its thread); WM_CLOSE, posted before,
        // destroys it on its own thread.
        if (!DestroyWindow(l_HWND)) {
            TraceLastError(L"CDorWEXWMIWPDEventsListener::DestroyWindowForListening, DestroyWindow FAILED %x: %s.\n");
        }
    }
}

LRESULT CALLBACK CDorWEXWMIWPDEventsListener::dorWEXWMIWPDWindowProcCallback(HWND hwnd_in, UINT uintMessage_in,
                                                                            WPARAM wParam_in, LPARAM lParam_in) {
    switch (uintMessage_in) {
    case WM_DESTROY: {
        Trace(L"CDorWEXWMIWPDEventsListener ==> dorWEXWMIWPDWindowProcCallback, WM_DESTROY");
        auto* l_pListener =
            reinterpret_cast<CDorWEXWMIWPDEventsListener*>(GetWindowLongPtrW(hwnd_in, GWLP_USERDATA));
        if (l_pListener != nullptr) {
            l_pListener->DropQueuedDiskMounts();
        }
        PostQuitMessage(0);
        InterlockedExchange(&g_longWindowClosing, 1);
        return 0;
    }
    case WM_CLOSE: {
        Trace(L"CDorWEXWMIWPDEventsListener ==> dorWEXWMIWPDWindowProcCallback, WM_CLOSE");
        const LRESULT l_LRESULT = DefWindowProcW(hwnd_in, uintMessage_in, wParam_in, lParam_in);
        InterlockedExchange(&g_longWindowClosing, 1);
        return l_LRESULT;
    }
    case WM_DEVICECHANGE: {
        auto* l_pListener =
            reinterpret_cast<CDorWEXWMIWPDEventsListener*>(GetWindowLongPtrW(hwnd_in, GWLP_USERDATA));
        if (l_pListener == nullptr) {
            return TRUE;
        }
        // The system sends DBT_DEVNODES_CHANGED without a record. Any other process of the session can
        // post it with any value: that value is never read or freed here. Disk mounts come through the
        // listener's own queue.
        if (wParam_in == DBT_DEVICEARRIVAL) {
            if (PortableDeviceRecord(lParam_in) != nullptr) {
                l_pListener->ProcessWPDOnline(wParam_in, reinterpret_cast<const DEV_BROADCAST_HDR*>(lParam_in));
            }
        } else if (wParam_in == DBT_DEVICEREMOVECOMPLETE) {
            if (const auto* l_pRecord = PortableDeviceRecord(lParam_in)) {
                Trace(L"CDorWEXWMIWPDEventsListener::dorWEXWMIWPDWindowProcCallback, DBT_DEVICEREMOVECOMPLETE");
                l_pListener->ProcessWPDOfflineEvent(l_pRecord);
            }
        }
        return TRUE;
    }
    case kDiskMountsQueuedMessage: {
        // Whoever posted it, the window takes only what its listener queued.
        auto* l_pListener =
            reinterpret_cast<CDorWEXWMIWPDEventsListener*>(GetWindowLongPtrW(hwnd_in, GWLP_USERDATA));
        if (l_pListener != nullptr) {
            l_pListener->ProcessQueuedDiskMounts();
        }
        return 0;
    }
    default:
        Trace(L"CDorWEXWMIWPDEventsListener ==> dorWEXWMIWPDWindowProcCallback, send message to default");
        return DefWindowProcW(hwnd_in, uintMessage_in, wParam_in, lParam_in);
    }
}

void CDorWEXWMIWPDEventsListener::ProcessWPDOnline(WPARAM wParam_in, const DEV_BROADCAST_HDR* pDEV_BROADCAST_HDR_in) {
    Trace(L"CDorWEXWMIWPDEventsListener::ProcessWPDOnline\n");
    if (pDEV_BROADCAST_HDR_in == nullptr) {
        Trace(L"   lParam is NULL");
        return;
    }
    switch (pDEV_BROADCAST_HDR_in->dbch_devicetype) {
    case DBT_DEVTYP_OEM:
        Trace(L"   DBT_DEVTYP_OEM, dropped");
        return;
    case DBT_DEVTYP_VOLUME:
        Trace(L"   DBT_DEVTYP_VOLUME, dropped");
        return;
    case DBT_DEVTYP_PORT:
        Trace(L"   DBT_DEVTYP_PORT, dropped");
        return;
    case DBT_DEVTYP_HANDLE:
        Trace(L"   DBT_DEVTYP_HANDLE, dropped");
        return;
    case DBT_DEVTYP_DEVICEINTERFACE:
        Trace(L"   DBT_DEVTYP_DEVICEINTERFACE, processing");
        break;
    default:
        return;
    }
    const auto* l_pRecord = PortableDeviceRecord(reinterpret_cast<LPARAM>(pDEV_BROADCAST_HDR_in));
    if (l_pRecord == nullptr) {
        return;
    }
    const std::wstring l_wstringName = RecordName(l_pRecord);
    if (wParam_in == DBT_DEVNODES_CHANGED) {
        ProcessWPDDiskMount(l_wstringName.c_str(), l_pRecord);
    }
    HandleMultiFactorAuthenticationEvents(l_wstringName.c_str(), L"ONLINE");
    Trace(L"CDorWEXWMIWPDEventsListener::ProcessWPDOnlineEvent");
    SetPendingDevice(l_wstringName.c_str(), 1);
}

void CDorWEXWMIWPDEventsListener::ProcessWPDOfflineEvent(const DEV_BROADCAST_DEVICEINTERFACE_W* pRecord_in) {
    const std::wstring l_wstringName = RecordName(pRecord_in);
    HandleMultiFactorAuthenticationEvents(l_wstringName.c_str(), L"OFFLINE");
    Trace(L"CDorWEXWMIWPDEventsListener::ProcessWPDOfflineEvent");
    SetPendingDevice(l_wstringName.c_str(), 0);
}

int CDorWEXWMIWPDEventsListener::ProcessWPDDiskMount(const wchar_t* pwcharName_in,
                                                     const DEV_BROADCAST_DEVICEINTERFACE_W* pRecord_in) {
    Trace(L"CDorWEXWMIWPDEventsListener::ProcessWPDDiskMount\n");
    if (g_longWindowClosing != 0 || g_longShuttingDown != 0 || m_pOwner == nullptr) {
        return 0;
    }
    // The map keeps its own copy: the record that came with the message belongs to its sender.
    auto* l_pCopy = static_cast<DEV_BROADCAST_DEVICEINTERFACE_W*>(CoTaskMemAlloc(pRecord_in->dbcc_size));
    if (l_pCopy == nullptr) {
        return 0;
    }
    std::memcpy(l_pCopy, pRecord_in, pRecord_in->dbcc_size);
    std::lock_guard<std::mutex> l_guard(m_pOwner->GetDiskMountLock());
    auto& l_DiskMountMap = m_pOwner->GetDiskMountMap();
    const auto l_Found = l_DiskMountMap.find(pwcharName_in);
    if (l_Found != l_DiskMountMap.end()) {
        Trace(L"CDorWEXWMIWPDEventsListener::ProcessWPDDiskMount, removing previous entry.\n");
        CoTaskMemFree(l_Found->second);
        l_DiskMountMap.erase(l_Found);
        Trace(L"CDorWEXWMIWPDEventsListener::ProcessWPDDiskMount, removed previous entry.\n");
    }
    l_DiskMountMap.emplace(pwcharName_in, l_pCopy);
    Trace(L"CDorWEXWMIWPDEventsListener::ProcessWPDDiskMount, inserted new entry.\n");
    return 0;
}

void CDorWEXWMIWPDEventsListener::QueueDiskMount(const wchar_t* pwcharName_in) {
    const size_t l_sizeName = wcslen(pwcharName_in) + 1;
    const size_t l_sizeRecord = offsetof(DEV_BROADCAST_DEVICEINTERFACE_W, dbcc_name) + l_sizeName * sizeof(wchar_t);
    DiskMountRecord l_pRecord(static_cast<DEV_BROADCAST_DEVICEINTERFACE_W*>(CoTaskMemAlloc(l_sizeRecord)));
    if (!l_pRecord) {
        return;
    }
    std::memset(l_pRecord.get(), 0, l_sizeRecord);
    l_pRecord->dbcc_size = static_cast<DWORD>(l_sizeRecord);
    l_pRecord->dbcc_devicetype = DBT_DEVTYP_DEVICEINTERFACE;
    l_pRecord->dbcc_classguid = kGUID_DEVINTERFACE_WPD;
    std::memcpy(l_pRecord->dbcc_name, pwcharName_in, l_sizeName * sizeof(wchar_t));
    {
        std::lock_guard<std::mutex> l_guard(m_mutexDiskMounts);
        if (m_boolWindowGone) {
            return;
        }
        try {
            m_DiskMounts.push_back(std::move(l_pRecord));
        } catch (...) {
            return;  // out of memory: this mount is lost
        }
    }
    // A post that fails (a full message queue) leaves the record queued for the next message, or for the
    // window's end.
    PostMessageW(m_HWND, kDiskMountsQueuedMessage, 0, 0);
}

void CDorWEXWMIWPDEventsListener::ProcessQueuedDiskMounts() {
    for (;;) {
        DiskMountRecord l_pRecord;
        {
            std::lock_guard<std::mutex> l_guard(m_mutexDiskMounts);
            if (m_DiskMounts.empty()) {
                return;
            }
            l_pRecord = std::move(m_DiskMounts.front());
            m_DiskMounts.pop_front();
        }
        ProcessWPDOnline(DBT_DEVNODES_CHANGED, reinterpret_cast<const DEV_BROADCAST_HDR*>(l_pRecord.get()));
    }
}

void CDorWEXWMIWPDEventsListener::DropQueuedDiskMounts() {
    std::deque<DiskMountRecord> l_Dropped;
    std::lock_guard<std::mutex> l_guard(m_mutexDiskMounts);
    m_boolWindowGone = true;
    l_Dropped.swap(m_DiskMounts);
}

BOOL CDorWEXWMIWPDEventsListener::HandleMultiFactorAuthenticationEvents(const wchar_t* pwcharName_in,
                                                                        const wchar_t* pwcharState_in) {
    Trace(L"CDorWEXWMIWPDEventsListener::HandleMultiFactorAuthenticationEvents, enter: %s %s.\n", pwcharName_in,
          pwcharState_in);
    BOOL l_BOOLResult = FALSE;
    // The event exists only while the surrounding service waits for it.
    const std::wstring l_wstringEventName = dorwex::MultiFactorEventName(pwcharState_in, pwcharName_in);
    HANDLE l_HANDLEEvent = OpenEventW(EVENT_ALL_ACCESS, FALSE, l_wstringEventName.c_str());
    if (l_HANDLEEvent != nullptr) {
        if (SetEvent(l_HANDLEEvent)) {
            Trace(L"CDorWEXWMIWPDEventsListener::HandleMultiFactorAuthenticationEvents, SetEvent succeeded\n");
            l_BOOLResult = TRUE;
        } else {
            Trace(L"CDorWEXWMIWPDEventsListener::HandleMultiFactorAuthenticationEvents, ERROR: SetEvent FAILED\n");
        }
        CloseHandle(l_HANDLEEvent);
    }
    Trace(L"CDorWEXWMIWPDEventsListener::HandleMultiFactorAuthenticationEvents, return %s\n",
          l_BOOLResult ? L"TRUE" : L"FALSE");
    return l_BOOLResult;
}
