// The module's process-wide state that every part of the provider reads: whether it is shutting down,
// how many of its threads still run, and the OS version it recorded at load.
#pragma once

#include <windows.h>

extern LONG g_longOSVersionCode;  // see os_version_code.h
extern volatile LONG g_longShuttingDown;
extern volatile LONG g_longWPDEventsThreadIsRunning;  // WPD events worker running
extern volatile LONG g_longModuleThreadsRunning;      // threads of the module not yet ended (see thread_base.h)

// The module this code is part of (the provider DLL, or a program that links the code), whatever module
// the host process was started from.
HMODULE ThisModule();
