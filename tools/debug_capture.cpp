#include "debug_capture.h"

#include <memory>

namespace {

struct HandleCloser {
    void operator()(HANDLE handle) const {
        if (handle != nullptr && handle != INVALID_HANDLE_VALUE) {
            CloseHandle(handle);
        }
    }
};
using UniqueHandle = std::unique_ptr<void, HandleCloser>;

std::string ReadDebugString(HANDLE hProcess, const OUTPUT_DEBUG_STRING_INFO& info) {
    const size_t unitSize = info.fUnicode ? sizeof(wchar_t) : sizeof(char);
    std::string raw(static_cast<size_t>(info.nDebugStringLength) * unitSize, '\0');
    SIZE_T bytesRead = 0;
    if (raw.empty() ||
        !ReadProcessMemory(hProcess, info.lpDebugStringData, raw.data(), raw.size(), &bytesRead)) {
        return {};
    }
    raw.resize(bytesRead);
    if (!info.fUnicode) {
        raw.resize(strnlen(raw.data(), raw.size()));
        return raw;
    }
    std::wstring wide(reinterpret_cast<const wchar_t*>(raw.data()), raw.size() / sizeof(wchar_t));
    wide.resize(wcsnlen(wide.data(), wide.size()));
    const int bytes = WideCharToMultiByte(CP_UTF8, 0, wide.data(), static_cast<int>(wide.size()), nullptr, 0,
                                          nullptr, nullptr);
    std::string text(static_cast<size_t>(bytes), '\0');
    WideCharToMultiByte(CP_UTF8, 0, wide.data(), static_cast<int>(wide.size()), text.data(), bytes, nullptr,
                        nullptr);
    return text;
}

}  // namespace

DebugCaptureResult RunUnderDebugger(const std::wstring& wstringCommandLine_in, DWORD dwordTimeoutMs_in,
                                    const std::function<void(const std::string&)>& onString) {
    DebugCaptureResult result;
    STARTUPINFOW startupInfo{};
    startupInfo.cb = sizeof startupInfo;
    PROCESS_INFORMATION processInfo{};
    std::wstring commandLine = wstringCommandLine_in;  // CreateProcessW may write to it
    if (!CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, FALSE, DEBUG_ONLY_THIS_PROCESS, nullptr,
                        nullptr, &startupInfo, &processInfo)) {
        return result;
    }
    result.boolStarted = true;
    UniqueHandle process(processInfo.hProcess);
    UniqueHandle thread(processInfo.hThread);

    const ULONGLONG deadline = GetTickCount64() + dwordTimeoutMs_in;
    for (bool exited = false; !exited;) {
        const ULONGLONG now = GetTickCount64();
        const DWORD wait = now >= deadline ? 0 : static_cast<DWORD>(deadline - now);
        DEBUG_EVENT event{};
        if (!WaitForDebugEvent(&event, result.boolTimedOut ? 10000 : wait)) {
            if (result.boolTimedOut) {
                break;  // ended but no exit event: give up rather than hang
            }
            result.boolTimedOut = true;
            TerminateProcess(process.get(), 0xDEAD);
            continue;
        }
        DWORD continueStatus = DBG_CONTINUE;
        switch (event.dwDebugEventCode) {
            case CREATE_PROCESS_DEBUG_EVENT:
                HandleCloser()(event.u.CreateProcessInfo.hFile);
                break;
            case LOAD_DLL_DEBUG_EVENT:
                HandleCloser()(event.u.LoadDll.hFile);
                break;
            case OUTPUT_DEBUG_STRING_EVENT: {
                std::string text = ReadDebugString(process.get(), event.u.DebugString);
                if (onString) {
                    onString(text);
                }
                result.vectorStrings.push_back(std::move(text));
                break;
            }
            case EXCEPTION_DEBUG_EVENT:
                // The loader's initial breakpoint is ours to swallow; everything else goes back to the program.
                if (event.u.Exception.ExceptionRecord.ExceptionCode != EXCEPTION_BREAKPOINT) {
                    continueStatus = DBG_EXCEPTION_NOT_HANDLED;
                }
                break;
            case EXIT_PROCESS_DEBUG_EVENT:
                result.dwordExitCode = event.u.ExitProcess.dwExitCode;
                exited = true;
                break;
            default:
                break;
        }
        ContinueDebugEvent(event.dwProcessId, event.dwThreadId, continueStatus);
    }
    return result;
}

std::wstring GetProgramDirectory() {
    wchar_t path[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, path, MAX_PATH);
    std::wstring directory(path);
    directory.resize(directory.find_last_of(L"\\/") + 1);
    return directory;
}
