// What the BlackBerry share's operations have in common, for its own files only.
#pragma once

#include <windows.h>

#include <string>

// The system's text for an error.
std::wstring ShareSystemText(DWORD dwordError_in);
// Leaves an error-info object naming the failing operation and describing the failure on the calling
// thread, for the WMI method that called it.
void SetShareErrorInfo(const wchar_t* pwcharSource_in, DWORD dwordError_in);
bool IsShareDirectory(const std::wstring& wstringPath_in);
