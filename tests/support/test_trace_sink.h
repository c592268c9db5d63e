// Captures the module's trace lines in-process for the lifetime of the object, at the given level.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

class TraceCapture {
public:
    explicit TraceCapture(ULONG level);
    ~TraceCapture();
    TraceCapture(const TraceCapture&) = delete;
    TraceCapture& operator=(const TraceCapture&) = delete;

    std::vector<std::wstring> Lines() const;
    void Clear();
};
