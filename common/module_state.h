// The module's process-wide state that every part of the provider reads: whether it is shutting down,
// how many of its threads and callbacks are still alive, and the OS version it recorded at load.
#pragma once

#include <windows.h>

extern LONG g_longOSVersionCode;  // see os_version_code.h
extern volatile LONG g_longShuttingDown;
extern volatile LONG g_longWPDEventsThreadIsRunning;  // WPD events worker running
extern volatile LONG g_longModuleThreadsRunning;      // threads of the module not yet ended (see thread_base.h)
extern volatile LONG g_longModuleCallbacksAlive;      // callbacks handed to other components, not yet freed

// A member of every callback object the module hands to another component (the device runtime): that
// component calls and releases it on its own threads, at a moment of its choosing, so the DLL may not be
// freed (DllCanUnloadNow) while one lives.
class ModuleCallbackCount {
public:
    ModuleCallbackCount() { InterlockedIncrement(&g_longModuleCallbacksAlive); }
    ~ModuleCallbackCount() { InterlockedDecrement(&g_longModuleCallbacksAlive); }
    ModuleCallbackCount(const ModuleCallbackCount&) = delete;
    ModuleCallbackCount& operator=(const ModuleCallbackCount&) = delete;
};

// The module this code is part of (the provider DLL, or a program that links the code), whatever module
// the host process was started from.
HMODULE ThisModule();
