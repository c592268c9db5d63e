// What the emulators' COM servers share: the classes each serves, a class factory, and registration of
// those classes under HKLM\Software\Classes\CLSID with threading model Both.
#pragma once

#include <windows.h>
#include <unknwn.h>

#include <cstddef>

namespace dorwex::emulator {

struct ServedClass {
    const CLSID* clsid;
    HRESULT (*create)(REFIID, void**);
    const wchar_t* description;
};

HRESULT GetServedClassObject(const ServedClass* classes, size_t count, REFCLSID clsid, REFIID riid, void** ppv);
HRESULT RegisterServedClasses(HMODULE module, const ServedClass* classes, size_t count);
HRESULT UnregisterServedClasses(const ServedClass* classes, size_t count);

}  // namespace dorwex::emulator
