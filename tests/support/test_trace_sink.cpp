#include "test_trace_sink.h"

#include <mutex>

#include "wmi/trace.h"

namespace {

std::mutex g_mutexLines;
std::vector<std::wstring> g_vectorLines;

void WINAPI CaptureLine(LPCWSTR line) {
    std::lock_guard<std::mutex> lock(g_mutexLines);
    g_vectorLines.emplace_back(line);
}

}  // namespace

TraceCapture::TraceCapture(ULONG level) {
    Clear();
    SetTraceSink(&CaptureLine);
    SetTraceLevel(level);
}

TraceCapture::~TraceCapture() {
    SetTraceLevel(0);
    SetTraceSink(nullptr);
}

std::vector<std::wstring> TraceCapture::Lines() const {
    std::lock_guard<std::mutex> lock(g_mutexLines);
    return g_vectorLines;
}

void TraceCapture::Clear() {
    std::lock_guard<std::mutex> lock(g_mutexLines);
    g_vectorLines.clear();
}
