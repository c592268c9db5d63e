#include "controls.h"

#include <iterator>

#include "emulator/common/com_server.h"
#include "emulator/wpd/control.h"

namespace dorwex::emulator::wmi {

namespace {

// A control function of the portable-device stack loaded in this process (the one the provider uses).
template <class F>
F DeviceControl(const char* name) {
    static const HMODULE stack = LoadLibraryW((ThisModuleDirectory() + L"dorwex_wpd_emulator.dll").c_str());
    return stack == nullptr ? nullptr : reinterpret_cast<F>(reinterpret_cast<void*>(GetProcAddress(stack, name)));
}

const ControlEntry kStackControls[] = {
    {L"SetEnvironment",
     [](ControlCall& call) {
         const std::wstring text = call.text != nullptr ? call.text : L"";
         const size_t equals = text.find(L'=');
         if (equals == std::wstring::npos || equals == 0) {
             return E_INVALIDARG;
         }
         const std::wstring value = text.substr(equals + 1);
         return SetEnvironmentVariableW(text.substr(0, equals).c_str(), value.empty() ? nullptr : value.c_str())
                    ? S_OK
                    : HRESULT_FROM_WIN32(GetLastError());
     }},
    {L"GetEnvironment",
     [](ControlCall& call) {
         wchar_t value[1024] = {};
         GetEnvironmentVariableW(call.text != nullptr ? call.text : L"", value, 1024);
         call.textOut = value;
         return S_OK;
     }},
    {L"DorwexEmulatorReset",
     [](ControlCall&) {
         auto reset = DeviceControl<DorwexEmulatorResetFunction>("DorwexEmulatorReset");
         return reset == nullptr ? E_NOTIMPL : (reset(), S_OK);
     }},
    {L"DorwexEmulatorRescan",
     [](ControlCall& call) {
         auto rescan = DeviceControl<DorwexEmulatorRescanFunction>("DorwexEmulatorRescan");
         return rescan == nullptr ? E_NOTIMPL : (call.result = static_cast<LONG>(rescan()), S_OK);
     }},
    {L"DorwexEmulatorWaitForEvents",
     [](ControlCall& call) {
         auto wait = DeviceControl<DorwexEmulatorWaitForEventsFunction>("DorwexEmulatorWaitForEvents");
         return wait == nullptr ? E_NOTIMPL : (call.result = wait(static_cast<DWORD>(call.first)), S_OK);
     }},
    {L"DorwexEmulatorSubscriptions",
     [](ControlCall& call) {
         auto subscriptions = DeviceControl<DorwexEmulatorSubscriptionsFunction>("DorwexEmulatorSubscriptions");
         return subscriptions == nullptr ? E_NOTIMPL
                                         : (call.result = subscriptions(call.text != nullptr ? call.text : L""), S_OK);
     }},
    {L"DorwexEmulatorErrors",
     [](ControlCall& call) {
         auto errors = DeviceControl<DorwexEmulatorErrorsFunction>("DorwexEmulatorErrors");
         if (errors == nullptr) {
             return E_NOTIMPL;
         }
         call.textOut.resize(errors(nullptr, 0));
         errors(call.textOut.data(), static_cast<DWORD>(call.textOut.size()));
         call.textOut.resize(call.textOut.empty() ? 0 : call.textOut.size() - 1);
         return S_OK;
     }},
};

}  // namespace

const ControlEntry* FindControl(const ControlEntry* entries, size_t count, const wchar_t* name) {
    for (size_t i = 0; name != nullptr && i < count; ++i) {
        if (lstrcmpW(name, entries[i].name) == 0) {
            return &entries[i];
        }
    }
    return nullptr;
}

const ControlEntry* FindStackControl(const wchar_t* name) {
    return FindControl(kStackControls, std::size(kStackControls), name);
}

HRESULT RunControl(const ControlEntry& entry, LONG first, LONG second, BSTR text, LONG* result_out, BSTR* text_out) {
    if (result_out == nullptr || text_out == nullptr) {
        return E_POINTER;
    }
    ControlCall call;
    call.first = first;
    call.second = second;
    call.text = text;
    const HRESULT hr = entry.run(call);
    *result_out = call.result;
    *text_out = call.textOut.empty() ? nullptr : SysAllocString(call.textOut.c_str());
    return hr;
}

}  // namespace dorwex::emulator::wmi
