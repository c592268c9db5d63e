// A background job run as two threads: a monitor thread that starts the worker thread, restarts it when
// it dies, hands application events to the derived class and ends on request; and the worker itself.
#pragma once

#include <windows.h>

#include <mutex>
#include <string>

class CDorWEXWMIWPDCore;

// Creates a thread of the module that holds a reference on the module from before its first instruction
// until its last one (it ends with FreeLibraryAndExitThread), and counts it in g_longModuleThreadsRunning
// while it runs: a host that frees the module while such a thread still runs does not unmap its code.
// Null when the thread could not be created.
HANDLE CreateModuleThread(LPTHREAD_START_ROUTINE pEntry_in, LPVOID pParameter_in, DWORD dwordFlags_in);

class CDorWEXWMIThreadBase {
public:
    enum { START = 1, STOP = 2 };
    enum { THREAD_TYPE_WPD = 4, THREAD_TYPE_APPLE = 5, THREAD_TYPE_BLACKBERRY = 6 };
    using WorkerEntry = DWORD(WINAPI*)(LPVOID pCDorWEXWMIThreadBase_in);

    CDorWEXWMIThreadBase(CDorWEXWMIWPDCore* pCore_in, WorkerEntry pWorkerEntry_in, LONG longThreadType_in);
    virtual ~CDorWEXWMIThreadBase();
    CDorWEXWMIThreadBase(const CDorWEXWMIThreadBase&) = delete;
    CDorWEXWMIThreadBase& operator=(const CDorWEXWMIThreadBase&) = delete;

    // START or STOP; returns 0.
    int ManageThread(CDorWEXWMIWPDCore* pCore_in, int intAction_in);
    // Ends the worker and the monitor thread; returns 0.
    virtual int Stop() = 0;
    // Runs on the monitor thread each time the application event is signalled; returns 0.
    virtual int ProcessApplicationEvent() = 0;

    CDorWEXWMIWPDCore* GetOwner() const { return m_pCore; }
    void SetOwner(CDorWEXWMIWPDCore* pCore_in) { m_pCore = pCore_in; }
    HANDLE GetApplicationEvent() const { return m_HANDLEWait[kApplication]; }
    HANDLE GetTerminateEvent() const { return m_HANDLEWait[kTerminate]; }
    LONG GetThreadType() const { return m_longThreadType; }
    const std::wstring& GetThreadName() const { return m_wstringThreadName; }
    bool IsRunning();
    // Closes the thread handles and the terminate event once both threads have ended; while one still
    // runs (a stop gave up waiting for it) it closes nothing, leaves the object running and returns false.
    bool CloseThreadHandles();
    // What destroying a processor does first, while the whole object still stands: trace the destruction
    // ("~CDorWEXWMIThreadBase") and, when its threads were started, "ManageThread, STOP" and its own Stop,
    // so that the worker ends before anything it uses is freed. An owner that may have to keep a processor
    // whose threads outlive the stop calls it before freeing; every derived destructor calls it too. Once
    // only.
    void BeginDestruction();
    // True when neither thread runs any more (a stop's handles can then be closed).
    bool ThreadsHaveEnded();

protected:
    // The derived constructor creates the application event; the derived destructor closes it.
    void SetApplicationEvent(HANDLE hApplicationEvent_in) { m_HANDLEWait[kApplication] = hApplicationEvent_in; }

    // The pieces every Stop is made of.
    void SignalTerminate();
    // Waits for the monitor thread to leave its loop (so it restarts nothing), then for the worker, at most
    // ulongMilliseconds_in for both. Returns the worker wait's result.
    DWORD WaitForThreads(DWORD ulongMilliseconds_in);
    // All three in order, with the 5000 ms wait: the whole Stop of a processor without a window.
    void StopThreads();
    // What every derived destructor does first: BeginDestruction while its own Stop is still reachable,
    // then close the application event.
    void StopAndCloseApplicationEvent();

private:
    enum { kWorker = 0, kTerminate = 1, kApplication = 2 };

    static DWORD WINAPI MonitorThreadEntry(LPVOID pThis_in);
    void TheMonitorThread2();
    bool StartMonitorThread();
    bool ShouldEndMonitoring() const;
    void WaitBeforeRestart(ULONGLONG ulonglongLastStart_in);
    void TraceTerminating() const;

    CDorWEXWMIWPDCore* m_pCore;
    // Worker thread, terminate event, application event: one wait covers them in this order.
    HANDLE m_HANDLEWait[3] = {nullptr, nullptr, nullptr};
    LONG m_longThreadType;
    HANDLE m_HANDLEMonitorThread = nullptr;
    DWORD m_dwordRestartPause = 0;  // grows while workers keep ending right after their start
    bool m_boolRestartFailed = false;  // retry path of a worker that cannot be started; never set
    bool m_boolDestructionBegun = false;
    WorkerEntry m_pWorkerEntry;
    std::wstring m_wstringThreadName;
    // Guards the worker handle, which the monitor thread replaces while a stopping thread reads it.
    std::mutex m_mutexHandles;
};
