// Polls a condition until it holds or the time is up: for what another thread does in its own time.
#pragma once

#include <windows.h>

#include <functional>

inline bool WaitUntil(const std::function<bool()>& condition, DWORD milliseconds = 10000) {
    const DWORD start = GetTickCount();
    while (!condition()) {
        if (GetTickCount() - start > milliseconds) {
            return false;
        }
        Sleep(5);
    }
    return true;
}
