#include "thread_base.h"

#include <algorithm>
#include <memory>
#include <new>
#include <type_traits>

#include "../common/module_state.h"
#include "../common/trace.h"

namespace {

struct ModuleThreadStart {
    LPTHREAD_START_ROUTINE pEntry;
    LPVOID pParameter;
    HMODULE hModule;  // the thread's own reference
};

struct ModuleReferenceDeleter {
    void operator()(HMODULE hModule_in) const { FreeLibrary(hModule_in); }
};
using ModuleReference = std::unique_ptr<std::remove_pointer_t<HMODULE>, ModuleReferenceDeleter>;

DWORD WINAPI ModuleThreadEntry(LPVOID pStart_in) {
    const ModuleThreadStart l_Start = *static_cast<ModuleThreadStart*>(pStart_in);
    delete static_cast<ModuleThreadStart*>(pStart_in);
    const DWORD l_dwordExitCode = l_Start.pEntry(l_Start.pParameter);
    InterlockedDecrement(&g_longModuleThreadsRunning);
    // The module stays mapped until this call has left its code.
    FreeLibraryAndExitThread(l_Start.hModule, l_dwordExitCode);
}

}  // namespace

HANDLE CreateModuleThread(LPTHREAD_START_ROUTINE pEntry_in, LPVOID pParameter_in, DWORD dwordFlags_in) {
    HMODULE l_HMODULE = nullptr;
    if (!GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS, reinterpret_cast<LPCWSTR>(&ModuleThreadEntry),
                            &l_HMODULE)) {
        return nullptr;
    }
    ModuleReference l_Reference(l_HMODULE);
    std::unique_ptr<ModuleThreadStart> l_pStart(new (std::nothrow)
                                                    ModuleThreadStart{pEntry_in, pParameter_in, l_HMODULE});
    if (!l_pStart) {
        return nullptr;
    }
    InterlockedIncrement(&g_longModuleThreadsRunning);
    const HANDLE l_HANDLEThread = CreateThread(nullptr, 0, ModuleThreadEntry, l_pStart.get(), dwordFlags_in, nullptr);
    if (l_HANDLEThread == nullptr) {
        InterlockedDecrement(&g_longModuleThreadsRunning);
        return nullptr;
    }
    // The thread owns its start record and its reference from here on.
    l_pStart.release();
    l_Reference.release();
    return l_HANDLEThread;
}

CDorWEXWMIThreadBase::CDorWEXWMIThreadBase(CDorWEXWMIWPDCore* pCore_in, WorkerEntry pWorkerEntry_in,
                                           LONG longThreadType_in)
    : m_pCore(pCore_in), m_longThreadType(longThreadType_in), m_pWorkerEntry(pWorkerEntry_in) {
    Trace(L"CDorWEXWMIThreadBase::CDorWEXWMIThreadBase");
}

CDorWEXWMIThreadBase::~CDorWEXWMIThreadBase() {
    // Every processor begins its destruction in its own destructor (or its owner did before): the trace
    // and the stop are done. What is left is for a processor that did not.
    if (!m_boolDestructionBegun) {
        Trace(L"CDorWEXWMIThreadBase::~CDorWEXWMIThreadBase");
    }
    // A derived destructor has run by now, so only the base part of stopping is left to do here.
    if (IsRunning()) {
        Trace(L"CDorWEXWMIThreadBase::ManageThread, STOP");
        StopThreads();
    }
}

void CDorWEXWMIThreadBase::BeginDestruction() {
    if (m_boolDestructionBegun) {
        return;
    }
    m_boolDestructionBegun = true;
    Trace(L"CDorWEXWMIThreadBase::~CDorWEXWMIThreadBase");
    if (IsRunning()) {
        Trace(L"CDorWEXWMIThreadBase::ManageThread, STOP");
        Stop();
    }
}

void CDorWEXWMIThreadBase::StopThreads() {
    SignalTerminate();
    WaitForThreads(5000);
    CloseThreadHandles();
}

bool CDorWEXWMIThreadBase::IsRunning() {
    std::lock_guard<std::mutex> l_guard(m_mutexHandles);
    return m_HANDLEWait[kWorker] != nullptr || m_HANDLEMonitorThread != nullptr;
}

int CDorWEXWMIThreadBase::ManageThread(CDorWEXWMIWPDCore* pCore_in, int intAction_in) {
    if (pCore_in != nullptr) {
        m_pCore = pCore_in;
    }
    if (intAction_in == START) {
        Trace(L"CDorWEXWMIThreadBase::ManageThread, START");
        if (IsRunning()) {
            if (Stop() != 0) {
                return 0;
            }
        }
        if (g_longShuttingDown == 0 && StartMonitorThread()) {
            switch (m_longThreadType) {
            case THREAD_TYPE_WPD:
                m_wstringThreadName = L"TheMonitorThreadForThreadWPD";
                break;
            case THREAD_TYPE_APPLE:
                m_wstringThreadName = L"TheMonitorThreadForThreadApple";
                break;
            case THREAD_TYPE_BLACKBERRY:
                m_wstringThreadName = L"TheMonitorThreadForThreadBlackBerry";
                break;
            default:
                break;
            }
            Trace(L"CDorWEXWMIThreadBase::Start: %s\n", m_wstringThreadName.c_str());
            ResumeThread(m_HANDLEMonitorThread);
        }
    } else if (intAction_in == STOP) {
        Trace(L"CDorWEXWMIThreadBase::ManageThread, STOP");
        Stop();
    }
    return 0;
}

bool CDorWEXWMIThreadBase::StartMonitorThread() {
    // The terminate event exists before the monitor runs, so that a Stop right after START always has
    // something to signal.
    if (m_HANDLEWait[kTerminate] == nullptr) {
        m_HANDLEWait[kTerminate] = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    }
    // The monitor starts suspended so that its name is set before its first trace.
    m_HANDLEMonitorThread = CreateModuleThread(MonitorThreadEntry, this, CREATE_SUSPENDED);
    if (m_HANDLEMonitorThread == nullptr) {
        return false;
    }
    return true;
}

DWORD WINAPI CDorWEXWMIThreadBase::MonitorThreadEntry(LPVOID pThis_in) {
    const HRESULT l_HRESULTInit = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    try {
        static_cast<CDorWEXWMIThreadBase*>(pThis_in)->TheMonitorThread2();
    } catch (...) {
        // Nothing may leave a thread: the job simply ends.
    }
    if (SUCCEEDED(l_HRESULTInit)) {
        CoUninitialize();
    }
    return 0;
}

bool CDorWEXWMIThreadBase::ShouldEndMonitoring() const {
    return g_longShuttingDown != 0;
}

void CDorWEXWMIThreadBase::TheMonitorThread2() {
    Trace(L"CDorWEXWMIThreadBase::TheMonitorThread2 (%s) - enter\n", m_wstringThreadName.c_str());
    bool l_boolFirstPass = true;
    DWORD l_dwordWait = WAIT_FAILED;
    ULONGLONG l_ulonglongWorkerStart = 0;  // 0 before the first start
    while (!ShouldEndMonitoring()) {
        if (m_HANDLEWait[kTerminate] == nullptr) {
            m_HANDLEWait[kTerminate] = CreateEventW(nullptr, TRUE, FALSE, nullptr);
        }
        if (l_boolFirstPass || l_dwordWait == WAIT_OBJECT_0) {
            l_boolFirstPass = false;
            WaitBeforeRestart(l_ulonglongWorkerStart);
            // A worker that ended because it was told to stop is not started again.
            if (WaitForSingleObject(m_HANDLEWait[kTerminate], 0) == WAIT_OBJECT_0) {
                TraceTerminating();
                break;
            }
            Trace(L"CDorWEXWMIThreadBase::StartThread.\n");
            l_ulonglongWorkerStart = GetTickCount64();
            {
                std::lock_guard<std::mutex> l_guard(m_mutexHandles);
                m_HANDLEWait[kWorker] = CreateModuleThread(m_pWorkerEntry, this, 0);
            }
            if (m_HANDLEWait[kWorker] == nullptr && m_boolRestartFailed) {
                Trace(L"CDorWEXWMIThreadBase::TheMonitorThread2 (%s)- failed to start thread.\n",
                      m_wstringThreadName.c_str());
                if (WaitForSingleObject(m_HANDLEWait[kTerminate], 0) == WAIT_OBJECT_0) {
                    break;
                }
                Sleep(15000);
            }
        }
        HANDLE l_HANDLEWait[3];
        {
            std::lock_guard<std::mutex> l_guard(m_mutexHandles);
            l_HANDLEWait[0] = m_HANDLEWait[kWorker];
            l_HANDLEWait[1] = m_HANDLEWait[kTerminate];
            l_HANDLEWait[2] = m_HANDLEWait[kApplication];
        }
        l_dwordWait = WaitForMultipleObjectsEx(3, l_HANDLEWait, FALSE, INFINITE, FALSE);
        if (l_dwordWait == WAIT_OBJECT_0) {
            Trace(L"CDorWEXWMIThreadBase::TheMonitorThread2  (%s) - handle 0 posted - thread I am watching "
                  L"terminated.\n",
                  m_wstringThreadName.c_str());
            std::lock_guard<std::mutex> l_guard(m_mutexHandles);
            CloseHandle(m_HANDLEWait[kWorker]);
            m_HANDLEWait[kWorker] = nullptr;
        } else if (l_dwordWait == WAIT_OBJECT_0 + 1) {
            TraceTerminating();
            break;
        } else if (l_dwordWait == WAIT_OBJECT_0 + 2) {
            Trace(L"CDorWEXWMIThreadBase::TheMonitorThread2 (%s) - handle 2 posted - calling "
                  L"ProcessApplicationEvent.\n",
                  m_wstringThreadName.c_str());
            // Reset before the handler: a signal that comes while it runs calls it once more, so a device
            // notification handed over meanwhile is not dropped.
            ResetEvent(m_HANDLEWait[kApplication]);
            ProcessApplicationEvent();
        } else if (l_dwordWait == WAIT_FAILED) {
            // A worker that could not be created leaves a null handle, and the wait fails. Waiting on the
            // terminate event alone keeps this from spinning until the next worker start is due.
            if (WaitForSingleObject(m_HANDLEWait[kTerminate], 100) == WAIT_OBJECT_0) {
                TraceTerminating();
                break;  // going round again would only fail the same wait
            }
            l_dwordWait = WAIT_OBJECT_0;  // try to start the worker again
        }
    }
    Trace(L"CDorWEXWMIThreadBase::TheMonitorThread2 (%s) - exiting.\n", m_wstringThreadName.c_str());
}

void CDorWEXWMIThreadBase::TraceTerminating() const {
    Trace(L"CDorWEXWMIThreadBase::TheMonitorThread2 (%s) - handle 1 posted - we are programmatically "
          L"terminating.\n",
          m_wstringThreadName.c_str());
}

// A worker that ends right after it started (its pipe name taken by another process, say) is started
// again only after a pause that doubles with each such end, so the monitor does not spin. A terminate
// event ends the pause.
void CDorWEXWMIThreadBase::WaitBeforeRestart(ULONGLONG ulonglongLastStart_in) {
    constexpr ULONGLONG kShortRun = 1000;
    constexpr DWORD kFirstPause = 100;
    constexpr DWORD kLongestPause = 15000;
    if (ulonglongLastStart_in == 0 || GetTickCount64() - ulonglongLastStart_in >= kShortRun) {
        m_dwordRestartPause = 0;
        return;
    }
    m_dwordRestartPause = m_dwordRestartPause == 0 ? kFirstPause : std::min(m_dwordRestartPause * 2, kLongestPause);
    Trace(L"CDorWEXWMIThreadBase::TheMonitorThread2 (%s) - worker ended at once, restart in %lu ms.\n",
          m_wstringThreadName.c_str(), m_dwordRestartPause);
    WaitForSingleObject(m_HANDLEWait[kTerminate], m_dwordRestartPause);
}

void CDorWEXWMIThreadBase::SignalTerminate() {
    if (m_HANDLEWait[kTerminate] != nullptr) {
        SetEvent(m_HANDLEWait[kTerminate]);
    }
}

DWORD CDorWEXWMIThreadBase::WaitForThreads(DWORD ulongMilliseconds_in) {
    // One budget for both threads: the monitor first, so that it restarts nothing, then the worker.
    const ULONGLONG l_ulonglongDeadline = GetTickCount64() + ulongMilliseconds_in;
    const auto l_Remaining = [l_ulonglongDeadline]() -> DWORD {
        const ULONGLONG l_ulonglongNow = GetTickCount64();
        return l_ulonglongNow >= l_ulonglongDeadline ? 0 : static_cast<DWORD>(l_ulonglongDeadline - l_ulonglongNow);
    };
    if (m_HANDLEMonitorThread != nullptr && GetCurrentThreadId() != GetThreadId(m_HANDLEMonitorThread)) {
        WaitForSingleObject(m_HANDLEMonitorThread, l_Remaining());
    }
    HANDLE l_HANDLEWorker;
    {
        std::lock_guard<std::mutex> l_guard(m_mutexHandles);
        l_HANDLEWorker = m_HANDLEWait[kWorker];
    }
    if (l_HANDLEWorker == nullptr || GetCurrentThreadId() == GetThreadId(l_HANDLEWorker)) {
        return WAIT_OBJECT_0;
    }
    return WaitForSingleObject(l_HANDLEWorker, l_Remaining());
}

bool CDorWEXWMIThreadBase::ThreadsHaveEnded() {
    std::lock_guard<std::mutex> l_guard(m_mutexHandles);
    for (HANDLE l_HANDLEThread : {m_HANDLEWait[kWorker], m_HANDLEMonitorThread}) {
        // A thread that asks is running, whatever it is about to do.
        if (l_HANDLEThread != nullptr && (GetCurrentThreadId() == GetThreadId(l_HANDLEThread) ||
                                          WaitForSingleObject(l_HANDLEThread, 0) == WAIT_TIMEOUT)) {
            return false;
        }
    }
    return true;
}

bool CDorWEXWMIThreadBase::CloseThreadHandles() {
    // A thread that outlived the bounded wait still waits on the terminate event and runs on this object:
    // nothing it uses is closed, and the object stays running for its owner to keep until the thread ends.
    if (!ThreadsHaveEnded()) {
        Trace(L"CDorWEXWMIThreadBase::CloseThreadHandles (%s) - a thread is still running, kept.\n",
              m_wstringThreadName.c_str());
        return false;
    }
    std::lock_guard<std::mutex> l_guard(m_mutexHandles);
    for (HANDLE* l_pHANDLE : {&m_HANDLEWait[kWorker], &m_HANDLEWait[kTerminate], &m_HANDLEMonitorThread}) {
        if (*l_pHANDLE != nullptr) {
            CloseHandle(*l_pHANDLE);
            *l_pHANDLE = nullptr;
        }
    }
    return true;
}

void CDorWEXWMIThreadBase::StopAndCloseApplicationEvent() {
    BeginDestruction();
    if (m_HANDLEWait[kApplication] != nullptr) {
        CloseHandle(m_HANDLEWait[kApplication]);
        m_HANDLEWait[kApplication] = nullptr;
    }
}
