// The system's message text for a code, as a test expects it in a trace line or a status: without the line
// end the message table gives it; empty when the system has none for the code.
#pragma once

#include <windows.h>

#include <string>

inline std::wstring SystemText(DWORD code) {
    wchar_t* text = nullptr;
    FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                   code, MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT), reinterpret_cast<wchar_t*>(&text), 0, nullptr);
    std::wstring message = text != nullptr ? text : L"";
    LocalFree(text);
    if (message.size() >= 2 && message.compare(message.size() - 2, 2, L"\r\n") == 0) {
        message.resize(message.size() - 2);
    }
    return message;
}
