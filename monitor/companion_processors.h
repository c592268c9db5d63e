// The processors of the Apple and BlackBerry companion channels. The core starts one when the first
// device of its kind arrives and stops it when the last one leaves. Their workers serve the companion
// pipes; until a pipe server is attached a worker just waits for its stop.
#pragma once

#include "thread_base.h"

class CDorWEXWMIThreadAppleEventsProcessor : public CDorWEXWMIThreadBase {
public:
    explicit CDorWEXWMIThreadAppleEventsProcessor(CDorWEXWMIWPDCore* pCore_in);
    ~CDorWEXWMIThreadAppleEventsProcessor() override;
    int Stop() override;
    int ProcessApplicationEvent() override;
    static DWORD WINAPI WorkerThreadAppleEventsProcessor(LPVOID pCDorWEXWMIThreadBase_in);
};

class CDorWEXWMIThreadBlackBerryEventsProcessor : public CDorWEXWMIThreadBase {
public:
    explicit CDorWEXWMIThreadBlackBerryEventsProcessor(CDorWEXWMIWPDCore* pCore_in);
    ~CDorWEXWMIThreadBlackBerryEventsProcessor() override;
    int Stop() override;
    int ProcessApplicationEvent() override;
    static DWORD WINAPI WorkerThreadBlackBerryEventsProcessor(LPVOID pCDorWEXWMIThreadBase_in);
};
