// The monitor/worker thread pair: restarts, START and STOP, shutdown, application events, and the WPD
// processor's hidden window.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "monitor/companion_processors.h"
#include "monitor/thread_base.h"
#include "monitor/wpd_events_listener.h"
#include "monitor/wpd_core.h"
#include "monitor/wpd_events_processor.h"
#include "support/import_patch.h"
#include "support/system_text.h"
#include "support/test_trace_sink.h"
#include "support/trace_gate.h"
#include "support/trace_order.h"
#include "support/wait_until.h"
#include "wmi/module.h"

namespace {

// A processor whose worker dies twice before it stays up, and whose application handler can be held.
class TestProcessor : public CDorWEXWMIThreadBase {
public:
    explicit TestProcessor(WorkerEntry worker = Worker) : CDorWEXWMIThreadBase(nullptr, worker, THREAD_TYPE_APPLE) {
        SetApplicationEvent(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    }
    ~TestProcessor() override {
        StopAndCloseApplicationEvent();
        CloseHandle(m_release);
        CloseHandle(m_entered);
    }
    int Stop() override {
        ++stops;
        StopThreads();
        return 0;
    }
    int ProcessApplicationEvent() override {
        ++handled;
        SetEvent(m_entered);
        WaitForSingleObject(m_release, 5000);
        return 0;
    }
    static DWORD WINAPI Worker(LPVOID self) {
        auto* processor = static_cast<TestProcessor*>(static_cast<CDorWEXWMIThreadBase*>(self));
        if (++processor->workerStarts < 3) {
            return 0;  // dies; the monitor starts another
        }
        WaitForSingleObject(processor->GetTerminateEvent(), INFINITE);
        return 0;
    }

    std::atomic<int> workerStarts{0};
    std::atomic<int> stops{0};
    std::atomic<int> handled{0};
    HANDLE m_entered = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    HANDLE m_release = CreateEventW(nullptr, TRUE, FALSE, nullptr);
};

TEST(ThreadBase, DeadWorkerIsRestartedAndStopEndsBothThreads) {
    TraceCapture trace(1);
    TestProcessor processor;
    EXPECT_EQ(processor.ManageThread(nullptr, CDorWEXWMIThreadBase::START), 0);
    EXPECT_TRUE(trace.Has(L"CDorWEXWMIThreadBase::Start: TheMonitorThreadForThreadApple\n"));
    ASSERT_TRUE(WaitUntil([&] { return processor.workerStarts >= 3; }));
    EXPECT_GE(trace.Count(L"CDorWEXWMIThreadBase::TheMonitorThread2  (TheMonitorThreadForThreadApple) - handle 0 "
                          L"posted - thread I am watching terminated.\n"),
              2u);
    EXPECT_EQ(trace.Count(L"CDorWEXWMIThreadBase::StartThread.\n"), 3u);

    processor.ManageThread(nullptr, CDorWEXWMIThreadBase::STOP);
    EXPECT_FALSE(processor.IsRunning());
    EXPECT_TRUE(trace.Has(L"CDorWEXWMIThreadBase::TheMonitorThread2 (TheMonitorThreadForThreadApple) - exiting.\n"));
    EXPECT_EQ(processor.workerStarts, 3) << "no worker is started after the stop";
}

TEST(ThreadBase, StartWhileRunningStopsFirst) {
    TestProcessor processor;
    processor.ManageThread(nullptr, CDorWEXWMIThreadBase::START);
    ASSERT_TRUE(WaitUntil([&] { return processor.workerStarts >= 3; }));
    EXPECT_EQ(processor.stops, 0);
    processor.workerStarts = 2;  // the next worker stays up at once
    processor.ManageThread(nullptr, CDorWEXWMIThreadBase::START);
    EXPECT_EQ(processor.stops, 1);
    EXPECT_TRUE(processor.IsRunning());
    ASSERT_TRUE(WaitUntil([&] { return processor.workerStarts >= 3; }));
}

TEST(ThreadBase, StartWhileShuttingDownStartsNothing) {
    TraceCapture trace(1);
    TestProcessor processor;
    InterlockedExchange(&g_longShuttingDown, 1);
    EXPECT_EQ(processor.ManageThread(nullptr, CDorWEXWMIThreadBase::START), 0);
    InterlockedExchange(&g_longShuttingDown, 0);
    EXPECT_FALSE(processor.IsRunning());
    EXPECT_TRUE(trace.StartingWith(L"CDorWEXWMIThreadBase::Start:").empty());
    EXPECT_EQ(processor.workerStarts, 0);
}

// A signal that comes while the handler runs calls it once more after it returns: a device notification
// handed over meanwhile is handled, not dropped.
TEST(ThreadBase, SignalDuringProcessApplicationEventCallsItAgain) {
    TraceCapture trace(1);
    TestProcessor processor;
    processor.workerStarts = 2;
    processor.ManageThread(nullptr, CDorWEXWMIThreadBase::START);
    SetEvent(processor.GetApplicationEvent());
    ASSERT_EQ(WaitForSingleObject(processor.m_entered, 5000), WAIT_OBJECT_0);
    SetEvent(processor.GetApplicationEvent());  // arrives while the handler runs
    SetEvent(processor.m_release);
    ASSERT_TRUE(WaitUntil([&] { return processor.handled == 2; })) << "the signal during the handler was dropped";
    EXPECT_EQ(trace.Count(L"CDorWEXWMIThreadBase::TheMonitorThread2 (TheMonitorThreadForThreadApple) - handle 2 "
                          L"posted - calling ProcessApplicationEvent.\n"),
              2u);

    // A signal after the handler returned is handled again.
    SetEvent(processor.GetApplicationEvent());
    ASSERT_TRUE(WaitUntil([&] { return processor.handled == 3; }));
}

// A worker that ends as soon as it starts (a pipe name another process holds) is restarted after pauses
// that grow, not in a tight loop, and a stop still ends the monitor at once.
TEST(ThreadBase, WorkerEndingAtOnceIsRestartedWithGrowingPauses) {
    TraceCapture trace(1);
    TestProcessor processor([](LPVOID self) -> DWORD {
        ++static_cast<TestProcessor*>(static_cast<CDorWEXWMIThreadBase*>(self))->workerStarts;
        return 0;
    });
    processor.ManageThread(nullptr, CDorWEXWMIThreadBase::START);
    const std::wstring pause = L"CDorWEXWMIThreadBase::TheMonitorThread2 (TheMonitorThreadForThreadApple) - worker ended "
                               L"at once, restart in ";
    ASSERT_TRUE(WaitUntil([&] { return trace.Count(pause + L"800 ms.\n") == 1; }));
    EXPECT_EQ(trace.StartingWith(pause),
              (std::vector<std::wstring>{pause + L"100 ms.", pause + L"200 ms.", pause + L"400 ms.", pause + L"800 ms."}));
    EXPECT_LE(processor.workerStarts, 5) << "one start per pause";
    const ULONGLONG start = GetTickCount64();
    processor.ManageThread(nullptr, CDorWEXWMIThreadBase::STOP);
    EXPECT_LT(GetTickCount64() - start, 1000u) << "the stop does not wait out the pause";
    EXPECT_FALSE(processor.IsRunning());
}

// Lets the first creations through, then fails as many as asked, counting both down.
std::atomic<int> g_threadCreationsLeft{0};
std::atomic<int> g_threadFailuresLeft{0};
decltype(&CreateThread) g_realCreateThread = nullptr;  // the call below would reach the patched entry
HANDLE WINAPI FailingCreateThread(LPSECURITY_ATTRIBUTES security, SIZE_T stack, LPTHREAD_START_ROUTINE entry,
                                  LPVOID parameter, DWORD flags, LPDWORD id) {
    if (g_threadCreationsLeft.fetch_sub(1) <= 0 && g_threadFailuresLeft.fetch_sub(1) > 0) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    return g_realCreateThread(security, stack, entry, parameter, flags, id);
}

// A worker that could not be created (no memory for its stack) is created again after a pause, and a stop
// during the retries still ends the monitor at once.
TEST(ThreadBase, WorkerThatCouldNotBeCreatedIsCreatedAgain) {
    for (const bool stopWhileFailing : {false, true}) {
        SCOPED_TRACE(stopWhileFailing ? "stopped while failing" : "creation succeeds again");
        TestProcessor processor([](LPVOID self) -> DWORD {
            auto* owner = static_cast<TestProcessor*>(static_cast<CDorWEXWMIThreadBase*>(self));
            ++owner->workerStarts;
            WaitForSingleObject(owner->GetTerminateEvent(), INFINITE);
            return 0;
        });
        g_threadCreationsLeft = 1;  // the monitor thread
        g_threadFailuresLeft = stopWhileFailing ? 1000000 : 3;
        ImportPatch patch("kernel32.dll", "CreateThread", reinterpret_cast<void*>(&FailingCreateThread));
        ASSERT_TRUE(patch.Patched());
        g_realCreateThread = reinterpret_cast<decltype(&CreateThread)>(patch.Original());
        processor.ManageThread(nullptr, CDorWEXWMIThreadBase::START);
        // Five failed creations in a row, or three and then the worker.
        ASSERT_TRUE(WaitUntil(
            [&] { return stopWhileFailing ? g_threadFailuresLeft <= 1000000 - 5 : processor.workerStarts == 1; }));
        if (!stopWhileFailing) {
            EXPECT_LE(g_threadFailuresLeft, 0);
        }
        const ULONGLONG start = GetTickCount64();
        processor.ManageThread(nullptr, CDorWEXWMIThreadBase::STOP);
        EXPECT_LT(GetTickCount64() - start, 1000u) << "the stop does not wait out the pause";
        EXPECT_FALSE(processor.IsRunning());
        g_threadFailuresLeft = 0;
        EXPECT_EQ(processor.workerStarts, stopWhileFailing ? 0 : 1);
    }
}

// A worker that does not see the terminate event until it is released, and then reports what waiting on
// that event gave it.
class StuckProcessor : public TestProcessor {
public:
    StuckProcessor() : TestProcessor(StuckWorker) { workerStarts = 2; }
    static DWORD WINAPI StuckWorker(LPVOID self) {
        auto* processor = static_cast<StuckProcessor*>(static_cast<CDorWEXWMIThreadBase*>(self));
        ++processor->workerStarts;
        WaitForSingleObject(processor->workerRelease, INFINITE);
        processor->terminateSeen = WaitForSingleObject(processor->GetTerminateEvent(), 0);
        return 0;
    }
    HANDLE workerRelease = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    std::atomic<DWORD> terminateSeen{0xFFFF};
};

// A stop gives both threads one 5000 ms budget, and a thread that outlives it keeps every handle it uses.
TEST(ThreadBase, ThreadsOutlivingTheBoundedStopKeepTheirHandles) {
    TraceCapture trace(1);
    auto processor = std::make_unique<StuckProcessor>();
    processor->ManageThread(nullptr, CDorWEXWMIThreadBase::START);
    ASSERT_TRUE(WaitUntil([&] { return processor->workerStarts == 3; }));
    // The monitor is held inside the application handler, the worker in its own wait.
    SetEvent(processor->GetApplicationEvent());
    ASSERT_EQ(WaitForSingleObject(processor->m_entered, 5000), WAIT_OBJECT_0);

    const ULONGLONG start = GetTickCount64();
    processor->ManageThread(nullptr, CDorWEXWMIThreadBase::STOP);
    const ULONGLONG elapsed = GetTickCount64() - start;
    EXPECT_GE(elapsed, 4900u);
    EXPECT_LT(elapsed, 8000u) << "one budget for the monitor and the worker, not 5000 ms each";
    EXPECT_TRUE(processor->IsRunning()) << "the handles of threads that still run are kept";
    EXPECT_FALSE(processor->ThreadsHaveEnded());
    EXPECT_FALSE(processor->CloseThreadHandles());
    EXPECT_TRUE(trace.Has(L"CDorWEXWMIThreadBase::CloseThreadHandles (TheMonitorThreadForThreadApple) - a thread is "
                          L"still running, kept.\n"));

    SetEvent(processor->m_release);
    SetEvent(processor->workerRelease);
    ASSERT_TRUE(WaitUntil([&] { return processor->ThreadsHaveEnded(); }));
    EXPECT_EQ(processor->terminateSeen, static_cast<DWORD>(WAIT_OBJECT_0))
        << "the worker still found its terminate event open and signalled";
    EXPECT_TRUE(processor->CloseThreadHandles());
    EXPECT_FALSE(processor->IsRunning());
    CloseHandle(processor->workerRelease);
}

TEST(WPDEventsProcessor, WorkerOwnsTheHiddenWindowUntilStop) {
    TraceCapture trace(1);
    CDorWEXWMIThreadWPDEventsProcessor processor(nullptr);
    processor.ManageThread(nullptr, CDorWEXWMIThreadBase::START);
    // The first window of a fresh prefix starts Wine's desktop process, which can take a while.
    ASSERT_TRUE(WaitUntil(
        [&] {
            auto lock = processor.LockListener();
            return processor.GetListener() != nullptr && processor.GetListener()->GetWindow() != nullptr;
        },
        30000))
        << testing::PrintToString(trace.StartingWith(L"CDorWEXWMIWPDEventsListener"));
    ASSERT_TRUE(WaitUntil([&] { return g_longWPDEventsThreadIsRunning == 1; }));
    const HWND window = processor.GetListener()->GetWindow();
    wchar_t className[64] = {};
    GetClassNameW(window, className, 64);
    EXPECT_STREQ(className, L"dorWEXWMIWPDHiddenWindowClass");
    // The class is this module's: a DLL's classes outlive it unless it unregisters them.
    WNDCLASSEXW registered{};
    registered.cbSize = sizeof(registered);
    EXPECT_TRUE(GetClassInfoExW(GetModuleHandleW(nullptr), L"dorWEXWMIWPDHiddenWindowClass", &registered));
    EXPECT_EQ(reinterpret_cast<HINSTANCE>(GetClassLongPtrW(window, GCLP_HMODULE)), GetModuleHandleW(nullptr));
    EXPECT_FALSE(IsWindowVisible(window));
    // A device-change message of no interest is answered TRUE.
    EXPECT_EQ(SendMessageW(window, WM_DEVICECHANGE, 0x0018 /* DBT_CONFIGCHANGED */, 0), TRUE);

    processor.ManageThread(nullptr, CDorWEXWMIThreadBase::STOP);
    EXPECT_FALSE(IsWindow(window));
    EXPECT_FALSE(GetClassInfoExW(GetModuleHandleW(nullptr), L"dorWEXWMIWPDHiddenWindowClass", &registered))
        << "the class outlived the worker";
    EXPECT_EQ(g_longWindowClosing, 1);
    EXPECT_EQ(g_longWPDEventsThreadIsRunning, 0);
    ExpectInOrder(trace, {
        L"CDorWEXWMIThreadWPDEventsProcessor::Stop: TheMonitorThreadForThreadWPDEventsProcessor\n",
        L"CDorWEXWMIThreadWPDEventsProcessor::Stop:PostMessage WM_CLOSE",
        L"CDorWEXWMIThreadWPDEventsProcessor::Stop:PostMessage WM_DESTROY",
        L"CDorWEXWMIThreadWPDEventsProcessor::Stop: TheMonitorThreadForThreadWPDEventsProcessor, waiting for child "
        L"thread to terminate...\n",
        L"CDorWEXWMIThreadWPDEventsProcessor::Stop: TheMonitorThreadForThreadWPDEventsProcessor, child thread is "
        L"terminated!!!!\n",
        L"CDorWEXWMIThreadWPDEventsProcessor::Stop: TheMonitorThreadForThreadWPDEventsProcessor exiting\n",
    });
    EXPECT_TRUE(trace.Has(L"CDorWEXWMIWPDEventsListener ==> dorWEXWMIWPDWindowProcCallback, WM_CLOSE"));
    EXPECT_TRUE(trace.Has(L"CDorWEXWMIThreadWPDEventsProcessor::WorkerThreadWPDEventsProcessor shutting down...\n"));
    EXPECT_FALSE(processor.IsRunning());

    // It starts again after a stop.
    processor.ManageThread(nullptr, CDorWEXWMIThreadBase::START);
    ASSERT_TRUE(WaitUntil([&] {
        auto lock = processor.LockListener();
        return processor.GetListener() != nullptr && processor.GetListener()->GetWindow() != nullptr &&
               IsWindow(processor.GetListener()->GetWindow());
    }));
}

// A processor destroyed while its threads run traces its destruction first, then the stop, with its own
// Stop's lines; the stop ends the worker before anything it uses is freed.
TEST(ThreadBase, DestroyedWhileRunningTracesTheDestructionThenStops) {
    CDorWEXWMIWPDCore core;
    const struct {
        const char* name;
        std::function<std::unique_ptr<CDorWEXWMIThreadBase>()> make;
        const wchar_t* started;
        const wchar_t* stopTrace;
    } cases[] = {
        {"WPD", [] { return std::make_unique<CDorWEXWMIThreadWPDEventsProcessor>(nullptr); },
         L"CDorWEXWMIWPDEventsListener::RunWindowsMessagePumpForListening entered...",
         L"CDorWEXWMIThreadWPDEventsProcessor::Stop: TheMonitorThreadForThreadWPDEventsProcessor"},
        {"Apple", [&] { return std::make_unique<CDorWEXWMIThreadAppleEventsProcessor>(&core); },
         L"CDorWEXWMIAppleEventsListener::ListenForAppleEvents entered...\n",
         L"CDorWEXWMIThreadAppleEventsProcessor::Stop: TheMonitorThreadForThreadAppleEventsProcessor"},
        {"BlackBerry", [&] { return std::make_unique<CDorWEXWMIThreadBlackBerryEventsProcessor>(&core); },
         L"CDorWEXWMIBlackBerryEventsListener::ListenForBlackBerryEventsUsingNamedPipe entered...\n",
         L"CDorWEXWMIThreadBlackBerryEventsProcessor::Stop: TheMonitorThreadForThreadBlackBerryEventsProcessor"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        TraceCapture trace(1);
        auto processor = c.make();
        processor->ManageThread(nullptr, CDorWEXWMIThreadBase::START);
        ASSERT_TRUE(WaitUntil([&] { return trace.Has(c.started); }, 30000));
        trace.Clear();
        const ULONGLONG start = GetTickCount64();
        processor.reset();
        EXPECT_LT(GetTickCount64() - start, 5000u) << "the worker ended when told, not at the time-out";
        const std::wstring stopTrace = c.stopTrace;
        ExpectInOrder(trace, {
            L"CDorWEXWMIThreadBase::~CDorWEXWMIThreadBase",
            L"CDorWEXWMIThreadBase::ManageThread, STOP",
            stopTrace + L", waiting for child thread to terminate...\n",
            stopTrace + L", child thread is terminated!!!!\n",
            stopTrace + L" exiting\n",
        });
        EXPECT_EQ(trace.Count(L"CDorWEXWMIThreadBase::~CDorWEXWMIThreadBase"), 1u);
        EXPECT_EQ(trace.Count(L"CDorWEXWMIThreadBase::ManageThread, STOP"), 1u);
    }
}

// Stopping right after starting, before the worker has made its window, must not leave a worker behind.
TEST(WPDEventsProcessor, ImmediateStopLeavesNoWorker) {
    for (int i = 0; i < 20; ++i) {
        CDorWEXWMIThreadWPDEventsProcessor processor(nullptr);
        processor.ManageThread(nullptr, CDorWEXWMIThreadBase::START);
        const DWORD start = GetTickCount();
        processor.ManageThread(nullptr, CDorWEXWMIThreadBase::STOP);
        EXPECT_LT(GetTickCount() - start, 4000u) << "the worker ended without the 5 s time-out";
        EXPECT_FALSE(processor.IsRunning());
    }
    EXPECT_TRUE(WaitUntil([] { return g_longWPDEventsThreadIsRunning == 0; }));
}

// Each line in the order given, each written once (lines of one thread, so their order is fixed).
void ExpectOnceEachInOrder(const TraceCapture& trace, const std::vector<std::wstring>& lines, const char* thread) {
    ExpectInOrder(trace, lines, std::string(thread) + ": ");
    for (const auto& line : lines) {
        EXPECT_EQ(trace.Count(line), 1u) << thread << ": " << std::string(line.begin(), line.end());
    }
}

// A WPD processor started and stopped: what each of the four threads involved writes, in its order.
TEST(WPDEventsProcessor, StartAndStopTraceEachThreadsSteps) {
    TraceCapture trace(1);
    {
        CDorWEXWMIThreadWPDEventsProcessor processor(nullptr);
        processor.ManageThread(nullptr, CDorWEXWMIThreadBase::START);
        ASSERT_TRUE(WaitUntil([&] {
            return trace.Has(L"CDorWEXWMIWPDEventsListener::RunWindowsMessagePumpForListening entered...");
        }));
        processor.ManageThread(nullptr, CDorWEXWMIThreadBase::STOP);
        EXPECT_FALSE(processor.IsRunning());
    }
    ExpectOnceEachInOrder(trace,
                          {L"CDorWEXWMIThreadBase::CDorWEXWMIThreadBase", L"CDorWEXWMIThreadBase::ManageThread, START",
                           L"CDorWEXWMIThreadBase::Start: TheMonitorThreadForThreadWPD",
                           L"CDorWEXWMIThreadBase::ManageThread, STOP",
                           L"CDorWEXWMIThreadWPDEventsProcessor::Stop: TheMonitorThreadForThreadWPDEventsProcessor",
                           L"CDorWEXWMIThreadWPDEventsProcessor::Stop:PostMessage WM_CLOSE",
                           L"CDorWEXWMIThreadWPDEventsProcessor::Stop:PostMessage WM_DESTROY",
                           L"CDorWEXWMIThreadWPDEventsProcessor::Stop: TheMonitorThreadForThreadWPDEventsProcessor, "
                           L"waiting for child thread to terminate...",
                           L"CDorWEXWMIThreadWPDEventsProcessor::Stop: TheMonitorThreadForThreadWPDEventsProcessor, "
                           L"child thread is terminated!!!!",
                           L"CDorWEXWMIThreadWPDEventsProcessor::Stop: TheMonitorThreadForThreadWPDEventsProcessor exiting",
                           L"CDorWEXWMIThreadBase::~CDorWEXWMIThreadBase"},
                          "caller");
    ExpectOnceEachInOrder(trace,
                          {L"CDorWEXWMIThreadBase::TheMonitorThread2 (TheMonitorThreadForThreadWPD) - enter",
                           L"CDorWEXWMIThreadBase::StartThread.",
                           L"CDorWEXWMIThreadBase::TheMonitorThread2 (TheMonitorThreadForThreadWPD) - handle 1 posted "
                           L"- we are programmatically terminating.",
                           L"CDorWEXWMIThreadBase::TheMonitorThread2 (TheMonitorThreadForThreadWPD) - exiting."},
                          "monitor");
    ExpectOnceEachInOrder(trace,
                          {L"CDorWEXWMIThreadWPDEventsProcessor::WorkerThreadWPDEventsProcessor",
                           L"CDorWEXWMIWPDEventsListener::CDorWEXWMIWPDEventsListener",
                           L"CDorWEXWMIWPDEventsListener::CreateWindowForListening",
                           L"CDorWEXWMIWPDEventsListener::ListenForWPDEvents enter.",
                           L"CDorWEXWMIWPDEventsListener::RegisterWithOSToReceiveWPDEvents",
                           L"CDorWEXWMIWPDEventsListener::RunWindowsMessagePumpForListening entered...",
                           L"CDorWEXWMIWPDEventsListener ==> dorWEXWMIWPDWindowProcCallback, WM_CLOSE",
                           L"CDorWEXWMIWPDEventsListener ==> dorWEXWMIWPDWindowProcCallback, WM_DESTROY",
                           L"CDorWEXWMIWPDEventsListener::RunWindowsMessagePumpForListening exiting...",
                           L"CDorWEXWMIWPDEventsListener::ListenForWPDEvents exit.",
                           L"CDorWEXWMIThreadWPDEventsProcessor::WorkerThreadWPDEventsProcessor shutting down..."},
                          "worker");
}

// A worker without a window has no queue the stop can reach: posting WM_CLOSE to no window posts it to the
// stopping thread. So a worker whose class or window could not be made waits on the terminate event instead
// of pumping, and one that a stop reaches before its window makes none; either way the stop ends it.
TEST(WPDEventsProcessor, AWorkerWithoutAWindowStillEndsAtTheStop) {
    const wchar_t* const kClass = L"dorWEXWMIWPDHiddenWindowClass";
    const struct {
        const char* name;
        bool classTaken;  // the class is registered with a window of its own, so the worker cannot have it
    } cases[] = {{"the class cannot be registered", true}, {"the stop comes before the window", false}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        HWND foreign = nullptr;
        if (c.classTaken) {
            WNDCLASSEXW taken{};
            taken.cbSize = sizeof(taken);
            taken.lpfnWndProc = DefWindowProcW;
            taken.hInstance = GetModuleHandleW(nullptr);
            taken.lpszClassName = kClass;
            ASSERT_NE(RegisterClassExW(&taken), 0);
            foreign = CreateWindowExW(0, kClass, L"foreign", 0, 0, 0, 1, 1, HWND_MESSAGE, nullptr, taken.hInstance,
                                      nullptr);
            ASSERT_NE(foreign, nullptr);
        }
        TraceCapture trace(1);
        CDorWEXWMIThreadWPDEventsProcessor processor(nullptr);
        {
            TraceGate gate(L"CDorWEXWMIWPDEventsListener::CreateWindowForListening");
            processor.ManageThread(nullptr, CDorWEXWMIThreadBase::START);
            ASSERT_TRUE(gate.WaitHeld());
            std::thread stopper;
            if (c.classTaken) {
                gate.Release();
                ASSERT_TRUE(WaitUntil([&] { return trace.Has(L"CDorWEXWMIWPDEventsListener::RunWindowsMessagePumpForListening entered..."); }));
                processor.ManageThread(nullptr, CDorWEXWMIThreadBase::STOP);
            } else {
                stopper = std::thread([&] { processor.ManageThread(nullptr, CDorWEXWMIThreadBase::STOP); });
                EXPECT_TRUE(WaitUntil([&] { return trace.Has(L"CDorWEXWMIThreadWPDEventsProcessor::Stop:PostMessage WM_CLOSE"); }));
                gate.Release();
                stopper.join();
            }
        }
        EXPECT_FALSE(processor.IsRunning()) << "the worker outlived the stop";
        EXPECT_TRUE(trace.Has(L"CDorWEXWMIThreadWPDEventsProcessor::WorkerThreadWPDEventsProcessor shutting down...\n"));
        if (c.classTaken) {
            EXPECT_FALSE(trace.StartingWith(L"CDorWEXWMIWPDEventsListener::CreateWindowForListening, RegisterClassEx FAILED ").empty());
            DestroyWindow(foreign);
            EXPECT_TRUE(UnregisterClassW(kClass, GetModuleHandleW(nullptr)));
        } else {
            EXPECT_FALSE(trace.Has(L"CDorWEXWMIWPDEventsListener::RunWindowsMessagePumpForListening entered..."))
                << "a window was made after the stop had begun";
        }
    }
}

// The window belongs to the worker's thread: when the stop comes to destroy it while the worker is still
// handling the posted WM_CLOSE, the destruction from the stopping thread fails and is traced with the
// system's error and its text; the worker's own WM_CLOSE then destroys it.
TEST(WPDEventsProcessor, WindowStillThereWhenTheStopDestroysItIsTracedAsAFailure) {
    CDorWEXWMIThreadWPDEventsProcessor processor(nullptr);
    TraceCapture trace(1);
    processor.ManageThread(nullptr, CDorWEXWMIThreadBase::START);
    ASSERT_TRUE(WaitUntil([&] {
        return trace.Has(L"CDorWEXWMIWPDEventsListener::RunWindowsMessagePumpForListening entered...");
    }));
    const std::wstring failure = L"CDorWEXWMIWPDEventsListener::DestroyWindowForListening, DestroyWindow FAILED ";
    {
        TraceGate gate(L"CDorWEXWMIWPDEventsListener ==> dorWEXWMIWPDWindowProcCallback, WM_CLOSE");
        std::thread stopper([&] { processor.ManageThread(nullptr, CDorWEXWMIThreadBase::STOP); });
        EXPECT_TRUE(gate.WaitHeld()) << "the worker took the posted WM_CLOSE";
        EXPECT_TRUE(WaitUntil([&] { return !trace.StartingWith(failure).empty(); }));
        gate.Release();
        stopper.join();
    }
    EXPECT_FALSE(processor.IsRunning());
    const std::wstring message = SystemText(ERROR_ACCESS_DENIED);
    ASSERT_FALSE(message.empty());
    EXPECT_EQ(trace.StartingWith(failure), std::vector<std::wstring>{failure + L"5: " + message + L"."});
    EXPECT_TRUE(trace.Has(L"CDorWEXWMIThreadWPDEventsProcessor::WorkerThreadWPDEventsProcessor shutting down...\n"));
}

// The Apple and BlackBerry processors started and stopped: each thread's lines in order, the pipe server's
// set-up and close included. The Apple stop's first line is written only by a WPD processor, so never.
TEST(CompanionProcessors, StartAndStopTraceEachThreadsSteps) {
    CDorWEXWMIWPDCore core;
    const std::wstring pipeBase = L"CDorWEXWMIWPDNamedPipeBase::";
    const std::vector<std::wstring> pipeSetUp = {
        pipeBase + L"GetInternalProcessOwnerSID, succeeded.", pipeBase + L"GetExternalProcessOwnerSID, succeeded.",
        pipeBase + L"CreateSecurityDescriptor, succeeded."};
    const std::vector<std::wstring> pipeLoop = {pipeBase + L"ProcessPipe: entered...",
                                                pipeBase + L"ProcessPipe, request to stop received...",
                                                pipeBase + L"ClosePipe: entered...", pipeBase + L"ClosePipe: exit."};
    const struct {
        const char* name;
        std::function<std::unique_ptr<CDorWEXWMIThreadBase>()> make;
        std::wstring thread;
        std::wstring pipe;
        std::wstring stop;
        bool stopNamesItself;
        std::vector<std::wstring> workerBefore;
        std::vector<std::wstring> workerAfter;
    } cases[] = {
        {"Apple", [&] { return std::make_unique<CDorWEXWMIThreadAppleEventsProcessor>(&core); },
         L"TheMonitorThreadForThreadApple", L"\\\\.\\pipe\\dorWEXApplePipe",
         L"CDorWEXWMIThreadAppleEventsProcessor::Stop: TheMonitorThreadForThreadAppleEventsProcessor", false,
         {L"CDorWEXWMIThreadAppleEventsProcessor::WorkerThreadAppleEventsProcessor",
          L"CDorWEXWMIAppleEventsListener::ListenForAppleEvents entered..."},
         {L"CDorWEXWMIAppleEventsListener::ListenForAppleEvents exiting...",
          L"CDorWEXWMIThreadAppleEventsProcessor::WorkerThreadAppleEventsProcessor shutting down..."}},
        {"BlackBerry", [&] { return std::make_unique<CDorWEXWMIThreadBlackBerryEventsProcessor>(&core); },
         L"TheMonitorThreadForThreadBlackBerry", L"\\\\.\\pipe\\dorWEX14BlackBerryPipe",
         L"CDorWEXWMIThreadBlackBerryEventsProcessor::Stop: TheMonitorThreadForThreadBlackBerryEventsProcessor", true,
         {L"CDorWEXWMIThreadBlackBerryEventsProcessor::WorkerThreadBlackBerryEventsProcessor",
          L"CDorWEXWMIBlackBerryEventsListener::ListenForBlackBerryEvents entered...",
          L"CDorWEXWMIBlackBerryEventsListener::ListenForBlackBerryEventsUsingNamedPipe entered..."},
         {L"CDorWEXWMIBlackBerryEventsListener::ListenForBlackBerryEventsUsingNamedPipe exiting...",
          L"CDorWEXWMIBlackBerryEventsListener::ListenForBlackBerryEvents exiting...",
          L"CDorWEXWMIThreadBlackBerryEventsProcessor::WorkerThreadBlackBerryEventsProcessor shutting down..."}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        TraceCapture trace(1);
        {
            auto processor = c.make();
            const HANDLE workerDone =
                static_cast<CDorWEXWMIThreadCompanionProcessor*>(processor.get())->GetWorkerDoneEvent();
            processor->ManageThread(nullptr, CDorWEXWMIThreadBase::START);
            ASSERT_TRUE(WaitUntil([&] { return trace.Has(pipeLoop[0]); }, 30000));
            EXPECT_EQ(WaitForSingleObject(workerDone, 0), static_cast<DWORD>(WAIT_TIMEOUT)) << "the worker serves";
            processor->ManageThread(nullptr, CDorWEXWMIThreadBase::STOP);
            EXPECT_EQ(WaitForSingleObject(workerDone, 0), WAIT_OBJECT_0) << "the worker said it is done";
        }
        std::vector<std::wstring> caller = {L"CDorWEXWMIThreadBase::CDorWEXWMIThreadBase",
                                            L"CDorWEXWMIThreadBase::ManageThread, START",
                                            L"CDorWEXWMIThreadBase::Start: " + c.thread,
                                            L"CDorWEXWMIThreadBase::ManageThread, STOP"};
        if (c.stopNamesItself) {
            caller.push_back(c.stop);
        }
        caller.push_back(c.stop + L", waiting for child thread to terminate...");
        caller.push_back(c.stop + L", child thread is terminated!!!!");
        caller.push_back(c.stop + L" exiting");
        caller.push_back(L"CDorWEXWMIThreadBase::~CDorWEXWMIThreadBase");
        ExpectOnceEachInOrder(trace, caller, "caller");
        EXPECT_EQ(trace.Count(c.stop), c.stopNamesItself ? 1u : 0u);
        ExpectOnceEachInOrder(trace,
                              {L"CDorWEXWMIThreadBase::TheMonitorThread2 (" + c.thread + L") - enter",
                               L"CDorWEXWMIThreadBase::StartThread.",
                               L"CDorWEXWMIThreadBase::TheMonitorThread2 (" + c.thread +
                                   L") - handle 1 posted - we are programmatically terminating.",
                               L"CDorWEXWMIThreadBase::TheMonitorThread2 (" + c.thread + L") - exiting."},
                              "monitor");
        std::vector<std::wstring> worker = c.workerBefore;
        worker.insert(worker.end(), pipeSetUp.begin(), pipeSetUp.end());
        worker.push_back(pipeBase + L"SetupNamedPipe, for " + c.pipe + L" succeeded.");
        worker.insert(worker.end(), pipeLoop.begin(), pipeLoop.end());
        worker.insert(worker.end(), c.workerAfter.begin(), c.workerAfter.end());
        ExpectOnceEachInOrder(trace, worker, "worker");
        EXPECT_EQ(trace.Count(pipeBase + L"ConnectToNewClient: entered..."), 4u) << "one connect for each instance";
        EXPECT_LT(trace.IndexOf(pipeBase + L"ConnectToNewClient: entered..."),
                  trace.IndexOf(pipeBase + L"SetupNamedPipe, for " + c.pipe + L" succeeded."));
    }
}

}  // namespace
