// The write tokens handed to processes that the security service's hook accepted.
#pragma once

#include <windows.h>
#include <comdef.h>

class IDorWEXWriteTokens {
public:
    // A new token for a process the hook accepted, or the empty string. A process keeps at most one token:
    // asking again drops the old one. A failing hook call raises a _com_error.
    virtual _bstr_t RequestWPDWriteToken(DWORD dwordProcessId_in) = 0;
    // The process a token was handed to, or 0.
    virtual DWORD GetPidForWriteToken(const wchar_t* pwcharToken_in) = 0;

protected:
    ~IDorWEXWriteTokens() = default;
};
