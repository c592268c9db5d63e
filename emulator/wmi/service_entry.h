// The emulated WMI service's entry for clients in other processes: the class COM starts the service
// process for, and what that process runs.
#pragma once

#include <windows.h>
#include <wbemcli.h>

namespace dorwex::emulator::wmi {

// {5B0F4B6E-3C7A-4D52-9D1E-7A2F60C81A02}
constexpr CLSID kCLSID_EmulatedWmiService = {
    0x5b0f4b6e, 0x3c7a, 0x4d52, {0x9d, 0x1e, 0x7a, 0x2f, 0x60, 0xc8, 0x1a, 0x02}};

// Whether this process's clients reach the service in its own process (DORWEX_WMI_SERVICE=shared) rather
// than in theirs. Never true inside the service process itself.
bool UseSharedService();
// Connects a client of this process to the namespace in the service process.
HRESULT ConnectSharedService(const wchar_t* nameSpace, IWbemServices** services);
// Registers the service's class as a local server (the service program next to this DLL) and the proxy
// DLL next to this DLL; nothing when either is missing.
HRESULT RegisterSharedService(HMODULE module);

}  // namespace dorwex::emulator::wmi
