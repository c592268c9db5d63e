// Files and companion pipes as the tests handle them from the client's side.
#pragma once

#include <windows.h>

#include <string>

// The whole content of a file, or "<missing>" when it cannot be opened.
inline std::string ReadAll(const std::wstring& path) {
    HANDLE file = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        return "<missing>";
    }
    std::string content;
    char buffer[65536];
    DWORD read = 0;
    while (ReadFile(file, buffer, sizeof buffer, &read, nullptr) && read > 0) {
        content.append(buffer, read);
    }
    CloseHandle(file);
    return content;
}

inline bool Exists(const std::wstring& path) {
    return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

// A companion's connection to a pipe in message mode, retried while the pipe is not there or busy.
inline HANDLE OpenPipeClient(const wchar_t* name, DWORD waitMs = 5000) {
    const DWORD start = GetTickCount();
    for (;;) {
        HANDLE client = CreateFileW(name, GENERIC_WRITE | FILE_READ_ATTRIBUTES, 0, nullptr, OPEN_EXISTING, 0, nullptr);
        if (client != INVALID_HANDLE_VALUE) {
            DWORD mode = PIPE_READMODE_MESSAGE;
            SetNamedPipeHandleState(client, &mode, nullptr, nullptr);
            return client;
        }
        if (GetTickCount() - start > waitMs) {
            return INVALID_HANDLE_VALUE;
        }
        Sleep(10);
    }
}

// One message of UTF-16 text with its terminator, as the companions write it.
inline bool SendText(HANDLE client, const std::wstring& text) {
    DWORD written = 0;
    const DWORD bytes = static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t));
    return WriteFile(client, text.c_str(), bytes, &written, nullptr) && written == bytes;
}
