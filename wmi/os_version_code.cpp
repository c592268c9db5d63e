#include "os_version_code.h"

namespace dorwex {

std::int32_t ComputeOSVersionCode(std::int64_t getVersionResult, std::uint32_t major, std::uint32_t minor) {
    if (getVersionResult < 0) {
        return kOSVersionCodeNewer;
    }
    if (major > 10 || (major == 10 && minor != 0)) {
        return kOSVersionCodeNewer;
    }
    if (major == 10) {
        return 100;
    }
    if (major == 6 && minor <= 3) {
        return 60 + static_cast<std::int32_t>(minor);
    }
    if (major == 5 && (minor == 1 || minor == 2)) {
        return 50 + static_cast<std::int32_t>(minor);
    }
    return kOSVersionCodeUnknown;
}

}  // namespace dorwex
