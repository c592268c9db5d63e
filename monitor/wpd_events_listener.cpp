#include "wpd_events_listener.h"

#include "../wmi/trace.h"
#include "../wmi/trace_helpers.h"
#include "wpd_events_processor.h"

namespace {

constexpr wchar_t kWindowClassName[] = L"dorWEXWMIWPDHiddenWindowClass";

// {6AC27878-A6FA-4155-BA85-F98F491D4F33}
constexpr GUID kGUID_DEVINTERFACE_WPD = {0x6ac27878, 0xa6fa, 0x4155, {0xba, 0x85, 0xf9, 0x8f, 0x49, 0x1d, 0x4f, 0x33}};

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
    {
        auto l_lock = pProcessor_in->LockListener();
        if (pProcessor_in->IsStopping()) {
            return S_OK;  // a Stop has begun: no window, so nothing to wait for
        }
        HINSTANCE l_HINSTANCE = GetModuleHandleW(nullptr);
        WNDCLASSEXW l_WNDCLASSEXW{};
        l_WNDCLASSEXW.cbSize = sizeof(l_WNDCLASSEXW);
        l_WNDCLASSEXW.style = CS_VREDRAW | CS_HREDRAW | CS_OWNDC;
        l_WNDCLASSEXW.lpfnWndProc = dorWEXWMIWPDWindowProcCallback;
        l_WNDCLASSEXW.cbWndExtra = 8;
        l_WNDCLASSEXW.hInstance = l_HINSTANCE;
        l_WNDCLASSEXW.hIcon = LoadIconW(nullptr, IDI_APPLICATION);
        l_WNDCLASSEXW.hIconSm = LoadIconW(nullptr, IDI_APPLICATION);
        l_WNDCLASSEXW.hCursor = LoadCursorW(nullptr, IDC_ARROW);
        l_WNDCLASSEXW.hbrBackground = CreateSolidBrush(RGB(0xC0, 0xC0, 0xC0));
        l_WNDCLASSEXW.lpszClassName = kWindowClassName;
        // A class left registered by a worker that died is still good to use.
        const bool l_boolRegistered =
            RegisterClassExW(&l_WNDCLASSEXW) != 0 || GetLastError() == ERROR_CLASS_ALREADY_EXISTS;
        if (l_boolRegistered) {
            m_HWND = CreateWindowExW(WS_EX_APPWINDOW | WS_EX_CLIENTEDGE, kWindowClassName, L"dorWEX14",
                                     WS_OVERLAPPEDWINDOW, CW_USEDEFAULT, 0, 640, 480, nullptr, nullptr, l_HINSTANCE,
                                     nullptr);
            if (m_HWND != nullptr) {
                SetWindowLongPtrW(m_HWND, GWLP_USERDATA, reinterpret_cast<LONG_PTR>(this));
            } else {
                TraceLastError(L"CDorWEXWMIWPDEventsListener::CreateWindowForListening, CreateWindowEx FAILED %x: "
                               L"%s.\n");
            }
        }
    }
    return ListenForWPDEvents();
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
    if (m_HWND != nullptr && IsWindow(m_HWND)) {
        // From the stopping thread this fails (a window belongs to its thread); WM_CLOSE, posted before,
        // destroys it on its own thread.
        if (!DestroyWindow(m_HWND)) {
            TraceLastError(L"CDorWEXWMIWPDEventsListener::DestroyWindowForListening, DestroyWindow FAILED %x: %s.\n");
        }
    }
}

void CDorWEXWMIWPDEventsListener::DestroyWindowClassForListening() {
    UnregisterClassW(kWindowClassName, GetModuleHandleW(nullptr));
}

LRESULT CALLBACK CDorWEXWMIWPDEventsListener::dorWEXWMIWPDWindowProcCallback(HWND hwnd_in, UINT uintMessage_in,
                                                                            WPARAM wParam_in, LPARAM lParam_in) {
    switch (uintMessage_in) {
    case WM_DESTROY:
        Trace(L"CDorWEXWMIWPDEventsListener ==> dorWEXWMIWPDWindowProcCallback, WM_DESTROY");
        PostQuitMessage(0);
        InterlockedExchange(&g_longWindowClosing, 1);
        return 0;
    case WM_CLOSE: {
        Trace(L"CDorWEXWMIWPDEventsListener ==> dorWEXWMIWPDWindowProcCallback, WM_CLOSE");
        const LRESULT l_LRESULT = DefWindowProcW(hwnd_in, uintMessage_in, wParam_in, lParam_in);
        InterlockedExchange(&g_longWindowClosing, 1);
        return l_LRESULT;
    }
    case WM_DEVICECHANGE:
        // Arrivals and removals are handed to the monitor thread by the device-notification handling of the
        // WMI publication path; nothing else is of interest here.
        return TRUE;
    default:
        Trace(L"CDorWEXWMIWPDEventsListener ==> dorWEXWMIWPDWindowProcCallback, send message to default");
        return DefWindowProcW(hwnd_in, uintMessage_in, wParam_in, lParam_in);
    }
}
