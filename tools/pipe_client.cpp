// A companion service's side of a pipe, for tests and the main job: connects to a companion pipe and
// writes messages as UTF-16 text, as the Apple and BlackBerry companions do.
//
//   pipe_client PIPE MESSAGE [COUNT [HOLD_MS]]
//
// Writes MESSAGE COUNT times (default 1) in message mode, then keeps the connection HOLD_MS milliseconds
// (default 0) before closing it. Exit code 0 when every message was written, 1 otherwise.
#include <windows.h>

#include <cstdio>
#include <cwchar>
#include <string>

int wmain(int argc, wchar_t** argv) {
    if (argc < 3) {
        fwprintf(stderr, L"usage: pipe_client PIPE MESSAGE [COUNT [HOLD_MS]]\n");
        return 2;
    }
    const wchar_t* pipeName = argv[1];
    const std::wstring message = argv[2];
    const long count = argc > 3 ? wcstol(argv[3], nullptr, 10) : 1;
    const DWORD holdMs = argc > 4 ? wcstoul(argv[4], nullptr, 10) : 0;

    HANDLE pipe = INVALID_HANDLE_VALUE;
    for (int attempt = 0; attempt < 100 && pipe == INVALID_HANDLE_VALUE; ++attempt) {
        pipe = CreateFileW(pipeName, GENERIC_WRITE | FILE_READ_ATTRIBUTES, 0, nullptr, OPEN_EXISTING, 0, nullptr);
        if (pipe == INVALID_HANDLE_VALUE) {
            if (GetLastError() != ERROR_PIPE_BUSY && GetLastError() != ERROR_FILE_NOT_FOUND) {
                break;
            }
            WaitNamedPipeW(pipeName, 100);
        }
    }
    if (pipe == INVALID_HANDLE_VALUE) {
        fwprintf(stderr, L"cannot open %ls: error %lu\n", pipeName, GetLastError());
        return 1;
    }
    DWORD mode = PIPE_READMODE_MESSAGE;
    SetNamedPipeHandleState(pipe, &mode, nullptr, nullptr);
    const DWORD bytes = static_cast<DWORD>((message.size() + 1) * sizeof(wchar_t));
    int result = 0;
    for (long i = 0; i < count; ++i) {
        DWORD written = 0;
        if (!WriteFile(pipe, message.c_str(), bytes, &written, nullptr) || written != bytes) {
            fwprintf(stderr, L"write %ld failed: error %lu\n", i + 1, GetLastError());
            result = 1;
            break;
        }
    }
    Sleep(holdMs);
    CloseHandle(pipe);
    if (result == 0) {
        wprintf(L"wrote %ld message(s) to %ls\n", count, pipeName);
    }
    return result;
}
