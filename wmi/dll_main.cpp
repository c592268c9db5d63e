// The DLL's entry point. Kept apart from module.cpp so that test programs can link the module's code
// and drive attach and detach themselves.
#include <windows.h>

#include "module.h"

extern "C" BOOL WINAPI DllMain(HINSTANCE hinstDLL, DWORD fdwReason, LPVOID lpvReserved) {
    switch (fdwReason) {
        case DLL_PROCESS_ATTACH:
            return ModuleProcessAttach(hinstDLL);
        case DLL_PROCESS_DETACH:
            // Not null when the process is terminating rather than unloading the module.
            return ModuleProcessDetach(lpvReserved != nullptr);
        default:
            return TRUE;
    }
}
