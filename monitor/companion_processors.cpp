#include "companion_processors.h"

#include "../wmi/trace.h"

namespace {

// A companion worker without its pipe server waits for the processor's stop.
void WaitForTerminate(LPVOID pCDorWEXWMIThreadBase_in) {
    auto* l_pProcessor = static_cast<CDorWEXWMIThreadBase*>(pCDorWEXWMIThreadBase_in);
    WaitForSingleObject(l_pProcessor->GetTerminateEvent(), INFINITE);
}

}  // namespace

CDorWEXWMIThreadAppleEventsProcessor::CDorWEXWMIThreadAppleEventsProcessor(CDorWEXWMIWPDCore* pCore_in)
    : CDorWEXWMIThreadBase(pCore_in, WorkerThreadAppleEventsProcessor, THREAD_TYPE_APPLE) {
    SetApplicationEvent(CreateEventW(nullptr, TRUE, FALSE, nullptr));
}

CDorWEXWMIThreadAppleEventsProcessor::~CDorWEXWMIThreadAppleEventsProcessor() {
    StopAndCloseApplicationEvent();
}

int CDorWEXWMIThreadAppleEventsProcessor::Stop() {
    StopThreads();
    return 0;
}

int CDorWEXWMIThreadAppleEventsProcessor::ProcessApplicationEvent() {
    return 0;
}

DWORD WINAPI CDorWEXWMIThreadAppleEventsProcessor::WorkerThreadAppleEventsProcessor(LPVOID pCDorWEXWMIThreadBase_in) {
    Trace(L"CDorWEXWMIThreadAppleEventsProcessor::WorkerThreadAppleEventsProcessor");
    WaitForTerminate(pCDorWEXWMIThreadBase_in);
    return 0;
}

CDorWEXWMIThreadBlackBerryEventsProcessor::CDorWEXWMIThreadBlackBerryEventsProcessor(CDorWEXWMIWPDCore* pCore_in)
    : CDorWEXWMIThreadBase(pCore_in, WorkerThreadBlackBerryEventsProcessor, THREAD_TYPE_BLACKBERRY) {
    SetApplicationEvent(CreateEventW(nullptr, TRUE, FALSE, nullptr));
}

CDorWEXWMIThreadBlackBerryEventsProcessor::~CDorWEXWMIThreadBlackBerryEventsProcessor() {
    StopAndCloseApplicationEvent();
}

int CDorWEXWMIThreadBlackBerryEventsProcessor::Stop() {
    StopThreads();
    return 0;
}

int CDorWEXWMIThreadBlackBerryEventsProcessor::ProcessApplicationEvent() {
    return 0;
}

DWORD WINAPI CDorWEXWMIThreadBlackBerryEventsProcessor::WorkerThreadBlackBerryEventsProcessor(
    LPVOID pCDorWEXWMIThreadBase_in) {
    Trace(L"CDorWEXWMIThreadBlackBerryEventsProcessor::WorkerThreadBlackBerryEventsProcessor");
    WaitForTerminate(pCDorWEXWMIThreadBase_in);
    return 0;
}
