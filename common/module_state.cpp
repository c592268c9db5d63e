#include "module_state.h"

LONG g_longOSVersionCode = 0;
volatile LONG g_longShuttingDown = 0;
volatile LONG g_longWPDEventsThreadIsRunning = 0;
volatile LONG g_longModuleThreadsRunning = 0;
