// The processors of the Apple and BlackBerry companion channels. The core starts one when the first
// device of its kind arrives and stops it when the last one leaves. Their workers serve the companion
// pipes (the BlackBerry worker, until its pipe server comes, just waits for its stop).
#pragma once

#include "thread_base.h"

// What the two companion processors have in common.
class CDorWEXWMIThreadCompanionProcessor : public CDorWEXWMIThreadBase {
public:
    CDorWEXWMIThreadCompanionProcessor(CDorWEXWMIWPDCore* pCore_in, WorkerEntry pWorkerEntry_in,
                                       LONG longThreadType_in);
    ~CDorWEXWMIThreadCompanionProcessor() override;
    int Stop() override;
    int ProcessApplicationEvent() override;

protected:
    // The body of a worker without its pipe server.
    static void WaitForTerminate(LPVOID pCDorWEXWMIThreadBase_in);
};

class CDorWEXWMIThreadAppleEventsProcessor : public CDorWEXWMIThreadCompanionProcessor {
public:
    explicit CDorWEXWMIThreadAppleEventsProcessor(CDorWEXWMIWPDCore* pCore_in);
    // Ends the pipe loop through the terminate event, waits for the worker and closes the handles.
    int Stop() override;
    static DWORD WINAPI WorkerThreadAppleEventsProcessor(LPVOID pCDorWEXWMIThreadBase_in);
};

class CDorWEXWMIThreadBlackBerryEventsProcessor : public CDorWEXWMIThreadCompanionProcessor {
public:
    explicit CDorWEXWMIThreadBlackBerryEventsProcessor(CDorWEXWMIWPDCore* pCore_in);
    static DWORD WINAPI WorkerThreadBlackBerryEventsProcessor(LPVOID pCDorWEXWMIThreadBase_in);
};
