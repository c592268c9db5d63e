// What the emulators' COM servers share: the classes each serves, a class factory, and registration of
// those classes under HKLM\Software\Classes\CLSID with threading model Both.
#pragma once

#include <windows.h>
#include <unknwn.h>

#include <cstddef>
#include <iterator>
#include <string>

namespace dorwex::emulator {

struct ServedClass {
    const CLSID* clsid;
    HRESULT (*create)(REFIID, void**);
    const wchar_t* description;
};

HRESULT GetServedClassObject(const ServedClass* classes, size_t count, REFCLSID clsid, REFIID riid, void** ppv);
HRESULT RegisterServedClasses(HMODULE module, const ServedClass* classes, size_t count);
HRESULT UnregisterServedClasses(const ServedClass* classes, size_t count);
// The folder of the emulator DLL this code is built into, with its closing backslash: the files that go
// with it (a MOF, a program, another DLL) lie there.
std::wstring ThisModuleDirectory();

}  // namespace dorwex::emulator

// The module entry and the four COM exports of an emulator that serves the classes of the given array. An
// emulator stays loaded once used: its state lives as long as the process.
#define DORWEX_EMULATOR_COM_SERVER(classes) DORWEX_EMULATOR_COM_SERVER_AND(classes, nullptr)
// The same, with what registration also does once the classes are registered (null for nothing).
#define DORWEX_EMULATOR_COM_SERVER_AND(classes, registerMore)                                 \
    static HMODULE g_dorwexEmulatorModule = nullptr;                                        \
    extern "C" BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID) {                \
        if (reason == DLL_PROCESS_ATTACH) {                                                   \
            g_dorwexEmulatorModule = instance;                                                \
            DisableThreadLibraryCalls(instance);                                              \
        }                                                                                     \
        return TRUE;                                                                          \
    }                                                                                         \
    extern "C" HRESULT WINAPI DllGetClassObject(REFCLSID clsid, REFIID riid, void** ppv) {    \
        return dorwex::emulator::GetServedClassObject(classes, std::size(classes), clsid, riid, ppv); \
    }                                                                                         \
    extern "C" HRESULT WINAPI DllCanUnloadNow() { return S_FALSE; }                           \
    extern "C" HRESULT WINAPI DllRegisterServer() {                                           \
        const HRESULT hr = dorwex::emulator::RegisterServedClasses(g_dorwexEmulatorModule, classes, std::size(classes)); \
        HRESULT (*more)(HMODULE) = registerMore;                                              \
        return FAILED(hr) || more == nullptr ? hr : more(g_dorwexEmulatorModule);             \
    }                                                                                         \
    extern "C" HRESULT WINAPI DllUnregisterServer() {                                         \
        return dorwex::emulator::UnregisterServedClasses(classes, std::size(classes));        \
    }
