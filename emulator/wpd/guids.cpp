// The portable-device and hook GUIDs, instantiated once for the emulator.
#include <initguid.h>

#include "device/apple_companion.h"
#include "device/portable_device_api.h"
#include "monitor/write_token_hook.h"
