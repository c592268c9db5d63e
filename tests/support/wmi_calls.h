// What the WMI test programs do as a management client: register a COM server of the build, connect to
// the (emulated) WMI service, query, read properties and call methods of Win32ext_WPD.
#pragma once

#include <windows.h>
#include <comdef.h>
#include <wbemcli.h>
#include <wrl/client.h>

#include <string>
#include <utility>
#include <vector>

std::wstring ProgramDirectory();
// Registers a COM server built next to the test program, as regsvr32 does.
void Register(const wchar_t* dll);

Microsoft::WRL::ComPtr<IWbemServices> Connect();
std::vector<Microsoft::WRL::ComPtr<IWbemClassObject>> Query(IWbemServices* services, const std::wstring& wql);
// The next event of a subscription within the time, or null.
Microsoft::WRL::ComPtr<IWbemClassObject> NextEvent(IEnumWbemClassObject* events, long milliseconds = 10000);
// A text property, or "<none>".
std::wstring Text(IWbemClassObject* object, const wchar_t* name);

struct Outcome {
    HRESULT status = S_OK;
    std::wstring returnValue;
    std::wstring description;
    // The __ExtendedStatus's "Operation": the provider's own from CallProviderMethod; through WMI
    // (CallMethodAsync) the one WMI puts in ("ExecMethod"); not read by CallMethod.
    std::wstring operation;
};

using Parameters = std::vector<std::pair<const wchar_t*, _variant_t>>;

// The context value "dorWEXWPDClientPID" of a call: a process id >= 0 as clients put it (VT_UI4), any other
// value as it is given, or none (-1).
struct ClientPid {
    ClientPid(LONG pid = -1) {
        if (pid >= 0) {
            value.vt = VT_UI4;
            value.ulVal = static_cast<ULONG>(pid);
        }
    }
    ClientPid(const _variant_t& given) : value(given) {}
    _variant_t value;
};

// Calls a method of Win32ext_WPD; a client process id goes into the call's context. Parameters the
// method does not have are refused by the class (WBEM_E_NOT_FOUND) and left out; a value WMI will not take
// for the parameter's type ends the call before the provider with WBEM_E_TYPE_MISMATCH as its status.
Outcome CallMethod(const wchar_t* method, const Parameters& parameters, const ClientPid& clientPid = ClientPid());
// The same call through ExecMethodAsync: what the provider indicated (its "ReturnValue", "<none>" when it
// put none) is read even when the call fails, with the status object's description.
Outcome CallMethodAsync(const wchar_t* method, const Parameters& parameters,
                        const ClientPid& clientPid = ClientPid());

// The same call made on a provider object itself, as the WMI service makes it (the in-parameters of the
// class's method, the client's process id in the context, a client call context the provider can
// impersonate): what the provider indicates, and the status and
// status object it hands its response handler, before WMI fills in its own parts.
Outcome CallProviderMethod(IWbemServices* provider, const wchar_t* method, const Parameters& parameters,
                           const ClientPid& clientPid = ClientPid());

// What the system sends to the provider's hidden window when a portable device comes or goes.
// The provider's hidden window in this process, or null.
HWND OwnHiddenWindow();
void Notify(WPARAM change, const std::wstring& interfaceName);
// Whether a Win32ext_WPD instance with this key (compared without regard to case) is published; looked up
// by enumeration, so the key needs no escaping in a query.
bool PublishedWithId(const std::wstring& id);
