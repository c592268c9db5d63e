// Holds the first thread that traces a given line until the test releases it: a way to stop a thread at a
// known step of the module (the trace sink runs on the tracing thread, under no lock of the module).
#pragma once

#include <windows.h>

#include <atomic>
#include <cwchar>

#include "common/trace.h"

class TraceGate {
public:
    explicit TraceGate(const wchar_t* line) {
        s_line = line;
        s_taken = false;
        ResetEvent(s_held);
        ResetEvent(s_release);
        s_previous = SetTraceSink(&Sink);
    }
    ~TraceGate() {
        Release();
        SetTraceSink(s_previous);
    }
    TraceGate(const TraceGate&) = delete;
    TraceGate& operator=(const TraceGate&) = delete;

    // True once a thread is held (at most 10 s).
    bool WaitHeld() { return WaitForSingleObject(s_held, 10000) == WAIT_OBJECT_0; }
    void Release() { SetEvent(s_release); }

private:
    static void WINAPI Sink(LPCWSTR line) {
        if (wcsstr(line, s_line) != nullptr && !s_taken.exchange(true)) {
            SetEvent(s_held);
            WaitForSingleObject(s_release, INFINITE);
        }
        s_previous(line);
    }
    static inline const wchar_t* s_line = nullptr;
    static inline TraceSinkFunction s_previous = nullptr;
    static inline std::atomic<bool> s_taken{false};
    static inline HANDLE s_held = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    static inline HANDLE s_release = CreateEventW(nullptr, TRUE, FALSE, nullptr);
};
