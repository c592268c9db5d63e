// Control functions that tests run in the process of the emulated service or of its provider host, by name,
// through IDorwexWmiService::Control and IDorwexProviderHost::Control: two numbers and a text in, a number
// and a text out.
#pragma once

#include <windows.h>
#include <oleauto.h>

#include <string>

namespace dorwex::emulator::wmi {

struct ControlCall {
    LONG first = 0;
    LONG second = 0;
    const wchar_t* text = nullptr;
    LONG result = 0;
    std::wstring textOut;
};

using ControlFunction = HRESULT (*)(ControlCall& call);

struct ControlEntry {
    const wchar_t* name;
    ControlFunction run;
};

// The entry of that name among count entries; null when there is none.
const ControlEntry* FindControl(const ControlEntry* entries, size_t count, const wchar_t* name);

// The controls of the process's environment and of the portable-device stack loaded in it: SetEnvironment
// ("NAME=value", an empty value removes it), GetEnvironment, and the stack's DorwexEmulator* functions.
const ControlEntry* FindStackControl(const wchar_t* name);

// Runs a control for a COM caller: its out values set, the text as a BSTR (null when empty).
HRESULT RunControl(const ControlEntry& entry, LONG first, LONG second, BSTR text, LONG* result_out,
                   BSTR* text_out);

}  // namespace dorwex::emulator::wmi
