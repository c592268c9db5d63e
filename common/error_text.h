// The text for an HRESULT that traces and error objects carry: the system's message, else the module's own.
#pragma once

#include <windows.h>

#include <string>

// The system's message text for an HRESULT without its trailing line end, or the module's fallback text
// when the system has none.
std::wstring GetErrorText(HRESULT hresultCode_in);
// The system's message text alone; false when the system has none for the code.
bool GetSystemErrorText(HRESULT hresultCode_in, std::wstring& wstringText_out);
