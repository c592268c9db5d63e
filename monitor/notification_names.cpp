#include "notification_names.h"

namespace dorwex {

std::wstring MultiFactorEventName(const std::wstring& state, const std::wstring& deviceName) {
    std::wstring name = L"dorWEXEvent" + state + deviceName;
    for (auto& c : name) {
        if (c == L'\\') {
            c = L'~';
        } else if (c >= L'a' && c <= L'z') {
            c = static_cast<wchar_t>(c - L'a' + L'A');
        }
    }
    return name;
}

}  // namespace dorwex
