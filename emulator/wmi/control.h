// What tests can do to the emulated WMI service besides using it through COM: the provider's lifetime
// (unload it, the idle interval after which it is unloaded, separate objects per role) and what it did.
// The functions are exported by the emulator DLL; tests look them up with GetProcAddress.
#pragma once

#include <windows.h>

extern "C" {
// Counts of the provider's lifetime since the process started.
struct DorwexWmiProviderCounts {
    LONG initializations;  // provider objects that completed IWbemProviderInit::Initialize
    LONG moduleLoads;      // loads that found the provider's DLL not mapped before
    LONG unloads;          // unloads that released provider objects
    LONG objects;          // distinct provider objects held now (1 for shared roles, 2 for separate ones)
    LONG eventSinks;       // sinks given to IWbemEventProvider::ProvideEvents still alive
    LONG longestInitializeMs;  // the longest a provider's IWbemProviderInit::Initialize held the calling thread
};

// Releases every provider object of every role and lets COM free the DLL if its DllCanUnloadNow allows;
// *moduleFreed (may be null) tells whether it is gone. S_OK: unloaded; S_FALSE: nothing was loaded;
// HRESULT_FROM_WIN32(ERROR_BUSY): a call is in flight, nothing was released. Subscriptions stay and are
// registered again with the provider the next request loads.
typedef HRESULT(WINAPI* DorwexWmiUnloadProviderFunction)(BOOL* moduleFreed);
// The idle interval after which the provider is unloaded, in milliseconds; 0 keeps it loaded. The
// environment variable DORWEX_WMI_CLEAR_AFTER_MS sets the first value.
typedef void(WINAPI* DorwexWmiSetClearAfterFunction)(DWORD milliseconds);
// Separate provider objects for the event role and the instance/method role from the next load on. The
// environment variable DORWEX_WMI_SEPARATE_ROLES=1 sets the first value.
typedef void(WINAPI* DorwexWmiSetSeparateRolesFunction)(BOOL separate);
// How long COM keeps the provider's DLL mapped after DllCanUnloadNow answered S_OK, in milliseconds
// (CoFreeUnusedLibrariesEx's delay); DORWEX_WMI_FREE_DELAY_MS sets the first value, 0 when unset.
typedef void(WINAPI* DorwexWmiSetFreeDelayFunction)(DWORD milliseconds);
// How long the service waits for the provider's SetStatus after calling Initialize, in milliseconds;
// DORWEX_WMI_INITIALIZE_TIMEOUT_MS sets the first value, 60000 when unset.
typedef void(WINAPI* DorwexWmiSetInitializeTimeoutFunction)(DWORD milliseconds);
typedef void(WINAPI* DorwexWmiProviderCountsFunction)(DorwexWmiProviderCounts* counts);
typedef BOOL(WINAPI* DorwexWmiProviderLoadedFunction)();
typedef LONG(WINAPI* DorwexWmiSubscriptionsFunction)();
typedef LONG(WINAPI* DorwexWmiLiveObjectsFunction)();
}
