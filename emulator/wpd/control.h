// What tests can do to the emulated portable-device stack besides using it through COM: reload the
// device descriptions, remove a device, raise events, and read back what the stack saw. The functions are
// exported by the emulator DLL; tests look them up with GetProcAddress (see tests/support/wpd_emulator.h).
#pragma once

#include <windows.h>

extern "C" {
// Forgets every device and its state (object ids, fault counters, subscriptions stay with open sessions).
typedef void(WINAPI* DorwexEmulatorResetFunction)();
// Reads the description directory again; returns the number of devices present.
typedef DWORD(WINAPI* DorwexEmulatorRescanFunction)();
// Why description files were refused, one per line; returns the characters needed.
typedef DWORD(WINAPI* DorwexEmulatorErrorsFunction)(LPWSTR buffer, DWORD chars);
// Marks a device as gone and raises WPD_EVENT_DEVICE_REMOVED to its subscribers.
typedef HRESULT(WINAPI* DorwexEmulatorRemoveDeviceFunction)(LPCWSTR deviceId);
// Raises an event about an object (or, with a null object id, about the device) to the subscribers.
typedef HRESULT(WINAPI* DorwexEmulatorRaiseEventFunction)(LPCWSTR deviceId, const GUID* eventId, LPCWSTR objectId);
// Waits until every raised event has been delivered and every started bulk property operation has ended.
typedef BOOL(WINAPI* DorwexEmulatorWaitForEventsFunction)(DWORD milliseconds);
// Pool threads wait this long between their last call into a callback (OnEvent, OnEnd) and its release,
// as a runtime thread that loses the processor there does; 0 releases at once.
typedef void(WINAPI* DorwexEmulatorSetCallbackHoldFunction)(DWORD milliseconds);
// How often a call was made on a device (names as in the [fault] section: "Open", "GetFunctionalObjects").
typedef ULONG(WINAPI* DorwexEmulatorCallCountFunction)(LPCWSTR deviceId, LPCSTR call);
// Requests that reached a device (each one answered after the device's latency_us); with reset set the
// count starts again from 0 after it is read. 0 for an unknown device.
typedef ULONG(WINAPI* DorwexEmulatorRequestsFunction)(LPCWSTR deviceId, BOOL reset);
// From now on the call (names as in the [fault] section) fails with result: the next count calls, every
// call for -1, none for 0. Replaces what the description says for that call.
typedef HRESULT(WINAPI* DorwexEmulatorSetFaultFunction)(LPCWSTR deviceId, LPCSTR call, HRESULT result, LONG count);
// Another client renames or moves an object of a storage (storage index, paths relative to its directory), or
// deletes it when to is null: the object keeps its id, as MTP handles do; no event is raised.
typedef HRESULT(WINAPI* DorwexEmulatorChangeByOtherClientFunction)(LPCWSTR deviceId, ULONG storage, LPCWSTR from,
                                                                   LPCWSTR to);
// Streams over object data end after this many bytes (0: at the object's real end): a transfer cut short.
typedef HRESULT(WINAPI* DorwexEmulatorSetStreamEndFunction)(LPCWSTR deviceId, ULONGLONG bytes);
typedef LONG(WINAPI* DorwexEmulatorOpenSessionsFunction)(LPCWSTR deviceId);
// The most sessions that were in their device's open time (open_ms) at once, over all devices; with reset
// set the count starts again from those opening now.
typedef LONG(WINAPI* DorwexEmulatorMostOpeningAtOnceFunction)(BOOL reset);
typedef LONG(WINAPI* DorwexEmulatorSubscriptionsFunction)(LPCWSTR deviceId);
// The client information of the last Open: "name=...;major=1;minor=0;revision=2;qos=131072".
typedef HRESULT(WINAPI* DorwexEmulatorLastClientFunction)(LPCWSTR deviceId, LPWSTR buffer, DWORD chars);
// COM objects of the emulator still alive.
typedef LONG(WINAPI* DorwexEmulatorLiveObjectsFunction)();
// The write-token hook double: the result its Hook call returns, and what the last call carried.
typedef void(WINAPI* DorwexEmulatorSetHookResultFunction)(HRESULT result);
typedef LONG(WINAPI* DorwexEmulatorHookCallsFunction)(LPWSTR operation, DWORD chars, LONG* processId,
                                                      VARTYPE* reservedType, HRESULT* reservedCode);
}
