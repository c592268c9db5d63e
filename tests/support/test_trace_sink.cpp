#include "test_trace_sink.h"

#include <mutex>

#include "common/trace.h"

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

namespace {

std::wstring WithoutLineEnd(const std::wstring& line) {
    return line.size() >= 2 && line.compare(line.size() - 2, 2, L"\r\n") == 0 ? line.substr(0, line.size() - 2)
                                                                               : line;
}

// The trace strips trailing white space before adding its line end, so compare without it too.
std::wstring Trimmed(std::wstring text) {
    while (!text.empty() && (text.back() == L'\n' || text.back() == L'\r' || text.back() == L' ')) {
        text.pop_back();
    }
    return text;
}

}  // namespace

size_t TraceCapture::Count(const std::wstring& text) const {
    size_t count = 0;
    for (const auto& line : Lines()) {
        count += WithoutLineEnd(line) == Trimmed(text) ? 1 : 0;
    }
    return count;
}

long TraceCapture::IndexOf(const std::wstring& text) const {
    const auto lines = Lines();
    for (size_t i = 0; i < lines.size(); ++i) {
        if (WithoutLineEnd(lines[i]) == Trimmed(text)) {
            return static_cast<long>(i);
        }
    }
    return -1;
}

std::vector<std::wstring> TraceCapture::StartingWith(const std::wstring& prefix) const {
    std::vector<std::wstring> matching;
    for (const auto& line : Lines()) {
        if (line.compare(0, prefix.size(), prefix) == 0) {
            matching.push_back(WithoutLineEnd(line));
        }
    }
    return matching;
}
