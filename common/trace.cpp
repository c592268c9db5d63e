#include "trace.h"

#include <atomic>
#include <cstdarg>
#include <cwchar>

#include "trace_line.h"

namespace {

// Read without a lock on every trace call; a change applies to lines started after it.
std::atomic<ULONG> g_ulongDebugLevel{0};
std::atomic<TraceSinkFunction> g_pTraceSink{&OutputDebugStringW};

}  // namespace

ULONG GetTraceLevel() {
    return g_ulongDebugLevel.load(std::memory_order_relaxed);
}

void SetTraceLevel(ULONG ulongLevel_in) {
    g_ulongDebugLevel.store(ulongLevel_in, std::memory_order_relaxed);
}

TraceSinkFunction SetTraceSink(TraceSinkFunction pTraceSink_in) {
    return g_pTraceSink.exchange(pTraceSink_in != nullptr ? pTraceSink_in : &OutputDebugStringW);
}

void Trace(const wchar_t* pwcharFormat_in, ...) {
    if (g_ulongDebugLevel.load(std::memory_order_relaxed) == 0 || pwcharFormat_in == nullptr) {
        return;
    }
    // Each line has its own stack buffer, so concurrent traces never share one.
    wchar_t l_wcharBuffer[dorwex::kTraceBufferChars];
    l_wcharBuffer[0] = L'\0';
    va_list l_va_listArguments;
    va_start(l_va_listArguments, pwcharFormat_in);
    // msvcrt's formatter keeps the Windows meaning of %s and %S whatever mingw's stdio mode is.
    const int l_intLength =
        _vsnwprintf_s(l_wcharBuffer, dorwex::kTraceFormatChars, _TRUNCATE, pwcharFormat_in, l_va_listArguments);
    va_end(l_va_listArguments);
    dorwex::FinishTraceLine(l_wcharBuffer, l_intLength);
    g_pTraceSink.load()(l_wcharBuffer);
}
