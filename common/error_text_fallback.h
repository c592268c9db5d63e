// The text the module gives an HRESULT that the system has no message for. Pure logic.
#pragma once

#include <cstdint>
#include <string>

namespace dorwex {

// "IDispatch error #N" for 0x80040201..0x8004FFFF (N = code - 0x80040200), as COM's own error objects
// name dispatch errors; "Unknown error 0x%0lX" with the code otherwise.
std::string FallbackErrorText(std::uint32_t code);

}  // namespace dorwex
