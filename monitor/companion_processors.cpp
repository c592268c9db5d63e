#include "companion_processors.h"

#include <memory>

#include "../channels/apple_named_pipe.h"
#include "../wmi/trace.h"

CDorWEXWMIThreadCompanionProcessor::CDorWEXWMIThreadCompanionProcessor(CDorWEXWMIWPDCore* pCore_in,
                                                                       WorkerEntry pWorkerEntry_in,
                                                                       LONG longThreadType_in)
    : CDorWEXWMIThreadBase(pCore_in, pWorkerEntry_in, longThreadType_in) {
    SetApplicationEvent(CreateEventW(nullptr, TRUE, FALSE, nullptr));
}

CDorWEXWMIThreadCompanionProcessor::~CDorWEXWMIThreadCompanionProcessor() {
    StopAndCloseApplicationEvent();
}

int CDorWEXWMIThreadCompanionProcessor::Stop() {
    StopThreads();
    return 0;
}

int CDorWEXWMIThreadCompanionProcessor::ProcessApplicationEvent() {
    return 0;
}

void CDorWEXWMIThreadCompanionProcessor::WaitForTerminate(LPVOID pCDorWEXWMIThreadBase_in) {
    auto* l_pProcessor = static_cast<CDorWEXWMIThreadBase*>(pCDorWEXWMIThreadBase_in);
    WaitForSingleObject(l_pProcessor->GetTerminateEvent(), INFINITE);
}

CDorWEXWMIThreadAppleEventsProcessor::CDorWEXWMIThreadAppleEventsProcessor(CDorWEXWMIWPDCore* pCore_in)
    : CDorWEXWMIThreadCompanionProcessor(pCore_in, WorkerThreadAppleEventsProcessor, THREAD_TYPE_APPLE) {}

int CDorWEXWMIThreadAppleEventsProcessor::Stop() {
    if (GetThreadType() == THREAD_TYPE_WPD) {
        Trace(L"CDorWEXWMIThreadAppleEventsProcessor::Stop: TheMonitorThreadForThreadAppleEventsProcessor\n");
    }
    SignalTerminate();
    const bool l_boolApple = GetThreadType() == THREAD_TYPE_APPLE;
    if (l_boolApple) {
        Trace(L"CDorWEXWMIThreadAppleEventsProcessor::Stop: TheMonitorThreadForThreadAppleEventsProcessor, waiting "
              L"for child thread to terminate...\n");
    }
    // Bounded, unlike the wait of the pipe's own design: a stop at module unload runs under the loader
    // lock, and a worker that needs the lock to end would otherwise never be waited out.
    WaitForThreads(5000);
    if (l_boolApple) {
        Trace(L"CDorWEXWMIThreadAppleEventsProcessor::Stop: TheMonitorThreadForThreadAppleEventsProcessor, child "
              L"thread is terminated!!!!\n");
    }
    CloseThreadHandles();
    if (l_boolApple) {
        Trace(L"CDorWEXWMIThreadAppleEventsProcessor::Stop: TheMonitorThreadForThreadAppleEventsProcessor exiting\n");
    }
    return 0;
}

DWORD WINAPI CDorWEXWMIThreadAppleEventsProcessor::WorkerThreadAppleEventsProcessor(LPVOID pCDorWEXWMIThreadBase_in) {
    Trace(L"CDorWEXWMIThreadAppleEventsProcessor::WorkerThreadAppleEventsProcessor");
    auto* l_pProcessor = static_cast<CDorWEXWMIThreadAppleEventsProcessor*>(
        static_cast<CDorWEXWMIThreadBase*>(pCDorWEXWMIThreadBase_in));
    try {
        CDorWEXWMIAppleEventsListener l_Listener(l_pProcessor->GetOwner());
        l_Listener.ListenForAppleEvents(l_pProcessor);
    } catch (...) {
        // Out of memory: the worker ends and its monitor starts it again.
    }
    Trace(L"CDorWEXWMIThreadAppleEventsProcessor::WorkerThreadAppleEventsProcessor shutting down...\n");
    return 0;
}

CDorWEXWMIThreadBlackBerryEventsProcessor::CDorWEXWMIThreadBlackBerryEventsProcessor(CDorWEXWMIWPDCore* pCore_in)
    : CDorWEXWMIThreadCompanionProcessor(pCore_in, WorkerThreadBlackBerryEventsProcessor, THREAD_TYPE_BLACKBERRY) {}

DWORD WINAPI CDorWEXWMIThreadBlackBerryEventsProcessor::WorkerThreadBlackBerryEventsProcessor(
    LPVOID pCDorWEXWMIThreadBase_in) {
    Trace(L"CDorWEXWMIThreadBlackBerryEventsProcessor::WorkerThreadBlackBerryEventsProcessor");
    WaitForTerminate(pCDorWEXWMIThreadBase_in);
    return 0;
}
