// Instantiates the portable-device GUIDs and property keys declared in portable_device_api.h, once for the
// module, the way the SDK's PortableDeviceGuids.lib provides them.
#include <initguid.h>

#include "portable_device_api.h"
#include "../monitor/write_token_hook.h"
#include "apple_companion.h"
