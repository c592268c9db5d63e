// Helpers that go with the trace: narrowing text for narrow-string traces, reading the real OS version,
// and the system's message for an HRESULT.
#pragma once

#include <windows.h>

#include <string>

// WideCharToMultiByte of a whole zero-terminated text into `pcharBuffer_out` (emptied first). Returns
// the buffer, or null when either pointer is null or the conversion fails.
char* ConvertWideToNarrow(UINT uintCodePage_in, const wchar_t* pwcharText_in, char* pcharBuffer_out,
                          int intBufferSize_in);

// The version the kernel reports, unaffected by compatibility shims.
struct DorWEXOSVersion {
    DWORD dwordValid;  // always set to 1 by ReadOSVersion
    DWORD dwordMajorVersion;
    DWORD dwordMinorVersion;
    DWORD dwordBuildNumber;
    DWORD dwordPlatformId;
    char charServicePack[128];
};

// Calls ntdll's RtlGetVersion. Returns 1 on success, 0 when ntdll or the entry cannot be found.
int ReadOSVersion(DorWEXOSVersion* pOSVersion_out);

// The system's message text for an HRESULT without its trailing line end, or the module's fallback text
// when the system has none.
std::wstring GetErrorText(HRESULT hresultCode_in);
// The system's message text alone; false when the system has none for the code.
bool GetSystemErrorText(HRESULT hresultCode_in, std::wstring& wstringText_out);
