#include "companion_processors.h"

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

DWORD WINAPI CDorWEXWMIThreadAppleEventsProcessor::WorkerThreadAppleEventsProcessor(LPVOID pCDorWEXWMIThreadBase_in) {
    Trace(L"CDorWEXWMIThreadAppleEventsProcessor::WorkerThreadAppleEventsProcessor");
    WaitForTerminate(pCDorWEXWMIThreadBase_in);
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
