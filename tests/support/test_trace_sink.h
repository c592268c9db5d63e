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
    // How many captured lines are exactly this text (the trace's own "\r\n" ending aside).
    size_t Count(const std::wstring& text) const;
    bool Has(const std::wstring& text) const { return Count(text) > 0; }
    // Position of the first such line, or -1.
    long IndexOf(const std::wstring& text) const;
    // Lines that start with the prefix.
    std::vector<std::wstring> StartingWith(const std::wstring& prefix) const;
};
