// Runs a program under the Win32 debug API and collects what it writes with OutputDebugString, exactly
// as a debugger (or DebugView) receives it: one entry per call, line end included.
#pragma once

#include <windows.h>

#include <functional>
#include <string>
#include <vector>

struct DebugCaptureResult {
    bool boolStarted = false;   // CreateProcessW succeeded
    bool boolTimedOut = false;  // the program was ended after the timeout
    DWORD dwordExitCode = 0;
    std::vector<std::string> vectorStrings;  // narrow text; Unicode strings arrive as UTF-8
};

// `onString` (optional) sees each string as it arrives, for live display.
DebugCaptureResult RunUnderDebugger(const std::wstring& wstringCommandLine_in, DWORD dwordTimeoutMs_in,
                                    const std::function<void(const std::string&)>& onString = {});

// The directory of the running program, with a trailing backslash.
std::wstring GetProgramDirectory();
