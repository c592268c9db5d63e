#include "companion_processors.h"

#include <memory>

#include "../channels/companion_channels.h"
#include "../common/trace.h"
#include "wpd_core.h"

namespace {

// The devices a companion's messages are looked up in.
IDorWEXDeviceRegistry* DevicesOf(CDorWEXWMIWPDCore* pCore_in) {
    return pCore_in != nullptr ? pCore_in->Devices() : nullptr;
}

}  // namespace

CDorWEXWMIThreadCompanionProcessor::CDorWEXWMIThreadCompanionProcessor(CDorWEXWMIWPDCore* pCore_in,
                                                                       WorkerEntry pWorkerEntry_in,
                                                                       LONG longThreadType_in)
    : CDorWEXWMIThreadBase(pCore_in, pWorkerEntry_in, longThreadType_in) {
    SetApplicationEvent(CreateEventW(nullptr, TRUE, FALSE, nullptr));
}

CDorWEXWMIThreadCompanionProcessor::~CDorWEXWMIThreadCompanionProcessor() {
    StopAndCloseApplicationEvent();
    if (m_HANDLEWorkerDone != nullptr) {
        CloseHandle(m_HANDLEWorkerDone);
    }
}

void CDorWEXWMIThreadCompanionProcessor::ServePipe(IDorWEXCompanionChannel& channel_in) {
    ResetEvent(m_HANDLEWorkerDone);
    channel_in.Listen(GetTerminateEvent());
    SetEvent(m_HANDLEWorkerDone);
}

int CDorWEXWMIThreadCompanionProcessor::Stop() {
    StopThreads();
    return 0;
}

int CDorWEXWMIThreadCompanionProcessor::ProcessApplicationEvent() {
    return 0;
}

int CDorWEXWMIThreadCompanionProcessor::StopTraced(const wchar_t* pwcharTraceName_in, LONG longTypeTraced_in) {
    SignalTerminate();
    const bool l_boolTraced = GetThreadType() == longTypeTraced_in;
    if (l_boolTraced) {
        Trace(L"%s, waiting for child thread to terminate...\n", pwcharTraceName_in);
    }
    // Bounded, unlike the wait of the pipe's own design: a stop at module unload runs under the loader
    // lock, and a worker that needs the lock to end would otherwise never be waited out.
    WaitForThreads(5000);
    if (l_boolTraced) {
        Trace(L"%s, child thread is terminated!!!!\n", pwcharTraceName_in);
    }
    CloseThreadHandles();
    if (l_boolTraced) {
        Trace(L"%s exiting\n", pwcharTraceName_in);
    }
    return 0;
}

CDorWEXWMIThreadAppleEventsProcessor::CDorWEXWMIThreadAppleEventsProcessor(CDorWEXWMIWPDCore* pCore_in)
    : CDorWEXWMIThreadCompanionProcessor(pCore_in, WorkerThreadAppleEventsProcessor, THREAD_TYPE_APPLE) {}

CDorWEXWMIThreadAppleEventsProcessor::~CDorWEXWMIThreadAppleEventsProcessor() {
    BeginDestruction();
}

int CDorWEXWMIThreadAppleEventsProcessor::Stop() {
    // The first line is traced for the WPD type only, which this processor never has.
    if (GetThreadType() == THREAD_TYPE_WPD) {
        Trace(L"CDorWEXWMIThreadAppleEventsProcessor::Stop: TheMonitorThreadForThreadAppleEventsProcessor\n");
    }
    return StopTraced(L"CDorWEXWMIThreadAppleEventsProcessor::Stop: TheMonitorThreadForThreadAppleEventsProcessor",
                      THREAD_TYPE_APPLE);
}

DWORD WINAPI CDorWEXWMIThreadAppleEventsProcessor::WorkerThreadAppleEventsProcessor(LPVOID pCDorWEXWMIThreadBase_in) {
    Trace(L"CDorWEXWMIThreadAppleEventsProcessor::WorkerThreadAppleEventsProcessor");
    auto* l_pProcessor = static_cast<CDorWEXWMIThreadAppleEventsProcessor*>(
        static_cast<CDorWEXWMIThreadBase*>(pCDorWEXWMIThreadBase_in));
    try {
        l_pProcessor->ServePipe(*CreateAppleChannel(DevicesOf(l_pProcessor->GetOwner())));
    } catch (...) {
        // Out of memory: the worker ends and its monitor starts it again.
        SetEvent(l_pProcessor->GetWorkerDoneEvent());
    }
    Trace(L"CDorWEXWMIThreadAppleEventsProcessor::WorkerThreadAppleEventsProcessor shutting down...\n");
    return 0;
}

CDorWEXWMIThreadBlackBerryEventsProcessor::CDorWEXWMIThreadBlackBerryEventsProcessor(CDorWEXWMIWPDCore* pCore_in)
    : CDorWEXWMIThreadCompanionProcessor(pCore_in, WorkerThreadBlackBerryEventsProcessor, THREAD_TYPE_BLACKBERRY),
      m_pListener(CreateBlackBerryChannel(DevicesOf(pCore_in))) {}

CDorWEXWMIThreadBlackBerryEventsProcessor::~CDorWEXWMIThreadBlackBerryEventsProcessor() {
    // The worker uses the listener: it ends first.
    StopAndCloseApplicationEvent();
}

int CDorWEXWMIThreadBlackBerryEventsProcessor::Stop() {
    if (GetThreadType() == THREAD_TYPE_BLACKBERRY) {
        Trace(L"CDorWEXWMIThreadBlackBerryEventsProcessor::Stop: TheMonitorThreadForThreadBlackBerryEventsProcessor\n");
    }
    return StopTraced(L"CDorWEXWMIThreadBlackBerryEventsProcessor::Stop: TheMonitorThreadForThreadBlackBerryEventsProcessor",
                      THREAD_TYPE_BLACKBERRY);
}

DWORD WINAPI CDorWEXWMIThreadBlackBerryEventsProcessor::WorkerThreadBlackBerryEventsProcessor(
    LPVOID pCDorWEXWMIThreadBase_in) {
    Trace(L"CDorWEXWMIThreadBlackBerryEventsProcessor::WorkerThreadBlackBerryEventsProcessor");
    auto* l_pProcessor = static_cast<CDorWEXWMIThreadBlackBerryEventsProcessor*>(
        static_cast<CDorWEXWMIThreadBase*>(pCDorWEXWMIThreadBase_in));
    try {
        l_pProcessor->ServePipe(*l_pProcessor->m_pListener);
    } catch (...) {
        // Out of memory: the worker ends and its monitor starts it again.
        SetEvent(l_pProcessor->GetWorkerDoneEvent());
    }
    Trace(L"CDorWEXWMIThreadBlackBerryEventsProcessor::WorkerThreadBlackBerryEventsProcessor shutting down...\n");
    return 0;
}
