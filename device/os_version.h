// The version of Windows the kernel reports, unaffected by compatibility shims: what the event callback
// reads to tell whether the system delivers every content event.
#pragma once

#include <windows.h>

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

// The kernel's version call that ReadOSVersion makes: ntdll's RtlGetVersion unless replaced (tests answer
// with versions of their own). Null restores ntdll's; returns the replacement it ends (null when none).
using RtlGetVersionFunction = LONG(WINAPI*)(OSVERSIONINFOEXW*);
RtlGetVersionFunction SetRtlGetVersion(RtlGetVersionFunction pFunction_in);
