// Process-wide state of the module: what the entry point records at load, the core it owns, and the
// counters that decide whether the module may be unloaded.
#pragma once

#include <windows.h>

#include <mutex>

#include "../common/module_state.h"

class IDorWEXMonitor;

extern HMODULE g_HMODULEModule;
extern wchar_t g_wcharModulePath[MAX_PATH];
extern wchar_t g_wcharModuleDirectory[MAX_PATH];  // drive and directory of the module path, ending in '\'
extern IDorWEXMonitor* g_pCDorWEXWMIWPDCore;  // created by the first provider Initialize, owned here
// Held while a provider object takes the core (or creates it) and while the module takes it away to stop it.
extern std::mutex g_mutexCore;

extern volatile LONG g_longInstanceCountOfDorWEXWMIWPDClass;              // live provider objects
extern volatile LONG g_longInstanceCountOfDorWEXWPDWMIClassFactoryClass;  // server locks

// What DllMain does on process attach and detach (the entry point itself lives with the DLL). A terminating
// process (ExitProcess) has already ended every other thread wherever it was: the detach then leaves the
// core and its threads alone. On an unload the core still there is stopped and deleted.
BOOL ModuleProcessAttach(HINSTANCE hinstanceModule_in);
BOOL ModuleProcessDetach(bool boolProcessTerminating_in = false);
// With no provider object and no server lock left, takes the core away and stops it: its threads end
// before this returns (within the processors' bounded waits). Never under the loader lock, where those
// threads could not end. True when no core remains.
bool ModuleShutdownCore();
