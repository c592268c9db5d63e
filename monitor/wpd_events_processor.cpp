#include "wpd_events_processor.h"

#include "../wmi/module.h"
#include "../wmi/trace.h"
#include "wpd_events_listener.h"

HANDLE g_HANDLEApplicationEvent = nullptr;
volatile LONG g_longWindowClosing = 0;
wchar_t g_wcharPendingDeviceName[512] = {};
volatile LONG g_longPendingDeviceOnline = 0;

CDorWEXWMIThreadWPDEventsProcessor::CDorWEXWMIThreadWPDEventsProcessor(CDorWEXWMIWPDCore* pCore_in)
    : CDorWEXWMIThreadBase(pCore_in, WorkerThreadWPDEventsProcessor, THREAD_TYPE_WPD) {
    SetApplicationEvent(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    g_HANDLEApplicationEvent = GetApplicationEvent();
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
            m_pListener->DestroyWindowClassForListening();
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

// Publishing the pending arrival or removal into WMI belongs to the instance publication path, which is
// not part of this processor yet; until it is, a signalled application event is only acknowledged.
int CDorWEXWMIThreadWPDEventsProcessor::ProcessApplicationEvent() {
    return 0;
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
