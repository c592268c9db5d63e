#include "com_object.h"

#include <objbase.h>

#include <cstring>

namespace dorwex::emulator {

std::atomic<long> g_liveObjects{0};

LPWSTR CoTaskStrDup(const wchar_t* text) {
    const size_t bytes = (wcslen(text) + 1) * sizeof(wchar_t);
    auto* copy = static_cast<LPWSTR>(CoTaskMemAlloc(bytes));
    if (copy != nullptr) {
        std::memcpy(copy, text, bytes);
    }
    return copy;
}

}  // namespace dorwex::emulator
