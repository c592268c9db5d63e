#include "error_text_fallback.h"

#include <cstdio>

namespace dorwex {

std::string FallbackErrorText(std::uint32_t code) {
    char text[64];
    if (code >= 0x80040201u && code <= 0x8004FFFFu) {
        std::snprintf(text, sizeof text, "IDispatch error #%d", static_cast<int>(code - 0x80040200u));
    } else {
        std::snprintf(text, sizeof text, "Unknown error 0x%0lX", static_cast<unsigned long>(code));
    }
    return text;
}

}  // namespace dorwex
