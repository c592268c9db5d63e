// The module's coded Windows version. Pure logic, no Windows headers.
#pragma once

#include <cstdint>

namespace dorwex {

// Codes the module keeps for the running system. Newer systems than it knows get kOSVersionCodeNewer.
constexpr std::int32_t kOSVersionCodeUnknown = 0;
constexpr std::int32_t kOSVersionCodeNewer = 0x7FFFFFFF;

// Maps what GetVersionExW reported to the module's version code: 51, 52, 60, 61, 62, 63 and 100 for the
// versions they name, kOSVersionCodeNewer for 10.x with x > 0 and for majors above 10, 0 for everything
// older or unassigned (5.0 and below, 5.3+, 6.4+, 7, 8, 9).
//
// `getVersionResult` is the call's return value. Only a negative result counts as a failure (it gives
// kOSVersionCodeNewer); an ordinary failure (zero) leaves the zero-filled record, which lands on 0.
std::int32_t ComputeOSVersionCode(std::int64_t getVersionResult, std::uint32_t major, std::uint32_t minor);

}  // namespace dorwex
