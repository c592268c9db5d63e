// trace_probe SCENARIO
// The module's code linked into a program, driven through one scenario with the trace level raised,
// so that a debugger can check what reaches the debugger channel.
//   lifecycle  attach, class factory, lock, provider object, release, unload answers, detach (level 1)
//   silent     the same at level 0: nothing may be written
//   format     format conversions, trailing white space, a truncated line (level 1)
#include <windows.h>
#include <objbase.h>

#include <cstring>
#include <string>

#include "wmi/module.h"
#include "wmi/provider_clsid.h"
#include "common/trace.h"

namespace {

int RunLifecycle() {
    ModuleProcessAttach(GetModuleHandleW(nullptr));
    IClassFactory* factory = nullptr;
    if (FAILED(DllGetClassObject(CLSID_DorWEXWPDWMIProvider, IID_IClassFactory, reinterpret_cast<void**>(&factory)))) {
        return 1;
    }
    factory->LockServer(TRUE);
    DllCanUnloadNow();
    factory->LockServer(FALSE);
    IUnknown* provider = nullptr;
    if (FAILED(factory->CreateInstance(nullptr, IID_IUnknown, reinterpret_cast<void**>(&provider)))) {
        return 1;
    }
    DllCanUnloadNow();
    provider->Release();
    factory->Release();
    DllCanUnloadNow();
    ModuleProcessDetach();
    return 0;
}

int RunFormat() {
    Trace(L"%s|%S|%ld|%lx|%I64u", L"wide", "narrow", -5L, 0x80004005L, 18446744073709551615ull);
    Trace(L"CDorWEXWPDWMI::Example, trailing blanks   \t\n");
    const std::wstring longText(5000, L'x');
    Trace(L"%s", longText.c_str());
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const char* scenario = argc > 1 ? argv[1] : "";
    if (std::strcmp(scenario, "lifecycle") == 0) {
        SetTraceLevel(1);
        return RunLifecycle();
    }
    if (std::strcmp(scenario, "silent") == 0) {
        return RunLifecycle();
    }
    if (std::strcmp(scenario, "format") == 0) {
        SetTraceLevel(1);
        return RunFormat();
    }
    return 2;
}
