// The processors of the Apple and BlackBerry companion channels. The core starts one when the first
// device of its kind arrives and stops it when the last one leaves. Their workers serve the companion
// pipes.
#pragma once

#include <memory>

#include "../channels/companion_channels.h"
#include "thread_base.h"

// What the two companion processors have in common.
class CDorWEXWMIThreadCompanionProcessor : public CDorWEXWMIThreadBase {
public:
    CDorWEXWMIThreadCompanionProcessor(CDorWEXWMIWPDCore* pCore_in, WorkerEntry pWorkerEntry_in,
                                       LONG longThreadType_in);
    ~CDorWEXWMIThreadCompanionProcessor() override;
    int Stop() override;
    int ProcessApplicationEvent() override;

    // The worker-done event (manual reset): cleared when a worker starts, set when it has left its pipe, so
    // that whoever watches the processor knows the pipe is no longer served.
    HANDLE GetWorkerDoneEvent() const { return m_HANDLEWorkerDone; }

protected:
    // A worker's pipe run between the two states of the worker-done event.
    void ServePipe(IDorWEXCompanionChannel& channel_in);
    // Ends the pipe loop through the terminate event, waits for the worker and closes the handles, tracing
    // each step with the processor's own texts (traceName_in: "CDorWEXWMIThreadAppleEventsProcessor::Stop:
    // TheMonitorThreadForThreadAppleEventsProcessor", traced when the type is typeTraced_in).
    int StopTraced(const wchar_t* pwcharTraceName_in, LONG longTypeTraced_in);

private:
    HANDLE m_HANDLEWorkerDone = CreateEventW(nullptr, TRUE, FALSE, nullptr);
};

class CDorWEXWMIThreadAppleEventsProcessor : public CDorWEXWMIThreadCompanionProcessor {
public:
    explicit CDorWEXWMIThreadAppleEventsProcessor(CDorWEXWMIWPDCore* pCore_in);
    // Stops with this processor's own Stop while it still can.
    ~CDorWEXWMIThreadAppleEventsProcessor() override;
    // Ends the pipe loop through the terminate event, waits for the worker and closes the handles.
    int Stop() override;
    static DWORD WINAPI WorkerThreadAppleEventsProcessor(LPVOID pCDorWEXWMIThreadBase_in);
};

class CDorWEXWMIThreadBlackBerryEventsProcessor : public CDorWEXWMIThreadCompanionProcessor {
public:
    explicit CDorWEXWMIThreadBlackBerryEventsProcessor(CDorWEXWMIWPDCore* pCore_in);
    ~CDorWEXWMIThreadBlackBerryEventsProcessor() override;
    int Stop() override;
    static DWORD WINAPI WorkerThreadBlackBerryEventsProcessor(LPVOID pCDorWEXWMIThreadBase_in);

    // The listener with the list of watched BlackBerry shares. It lives as long as the processor, so the
    // list survives a restart of the worker.
    IDorWEXBlackBerryChannel* GetListener() const { return m_pListener.get(); }

private:
    std::unique_ptr<IDorWEXBlackBerryChannel> m_pListener;
};
