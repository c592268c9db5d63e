// Whether lines were traced in a given order: each line's first occurrence comes after that of the line
// before it. A line that is missing or early is named in the failure, after the context given.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "test_trace_sink.h"

inline void ExpectInOrder(const TraceCapture& trace, const std::vector<std::wstring>& lines,
                          const std::string& context = std::string()) {
    long previous = -1;
    for (const auto& line : lines) {
        const long index = trace.IndexOf(line);
        EXPECT_GT(index, previous) << context << std::string(line.begin(), line.end());
        previous = index;
    }
}
