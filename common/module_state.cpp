#include "module_state.h"

LONG g_longOSVersionCode = 0;
volatile LONG g_longShuttingDown = 0;
volatile LONG g_longWPDEventsThreadIsRunning = 0;
volatile LONG g_longModuleThreadsRunning = 0;
volatile LONG g_longModuleCallbacksAlive = 0;

HMODULE ThisModule() {
    HMODULE l_HMODULE = nullptr;
    GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                       reinterpret_cast<LPCWSTR>(&ThisModule), &l_HMODULE);
    return l_HMODULE;
}
