// debug_view PROGRAM [ARGS...]
// Starts PROGRAM under the debug API and prints every string it writes to the debugger channel, one per
// line, the way DebugView shows them. Exits with the program's exit code.
#include <cstdio>
#include <string>

#include "debug_capture.h"

namespace {

std::wstring QuoteArgument(const std::wstring& argument) {
    if (!argument.empty() && argument.find_first_of(L" \t\"") == std::wstring::npos) {
        return argument;
    }
    std::wstring quoted = L"\"";
    for (wchar_t c : argument) {
        if (c == L'"') {
            quoted += L'\\';
        }
        quoted += c;
    }
    return quoted + L"\"";
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: debug_view PROGRAM [ARGS...]\n");
        return 2;
    }
    std::wstring commandLine;
    for (int i = 1; i < argc; ++i) {
        commandLine += (i > 1 ? L" " : L"") + QuoteArgument(argv[i]);
    }
    const DebugCaptureResult result = RunUnderDebugger(commandLine, 120000, [](const std::string& text) {
        std::string line = text;
        while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) {
            line.pop_back();
        }
        std::printf("[debug] %s\n", line.c_str());
        std::fflush(stdout);
    });
    if (!result.boolStarted) {
        std::fprintf(stderr, "debug_view: could not start the program (error %lu)\n", GetLastError());
        return 1;
    }
    return result.boolTimedOut ? 1 : static_cast<int>(result.dwordExitCode);
}
