#include "pnp_name_match.h"

namespace dorwex {

std::wstring NormalizeDeviceName(std::wstring_view name) {
    std::wstring normalized(name);
    for (auto& c : normalized) {
        if (c == L'#' || c == L'\\') {
            c = L'~';
        } else if (c >= L'a' && c <= L'z') {
            c = static_cast<wchar_t>(c - L'a' + L'A');
        }
    }
    return normalized;
}

bool DeviceNamesMatch(std::wstring_view instanceId, std::wstring_view interfaceName) {
    if (instanceId.empty() || interfaceName.empty()) {
        return false;
    }
    const std::wstring first = NormalizeDeviceName(instanceId);
    const std::wstring second = NormalizeDeviceName(interfaceName);
    const bool firstShorter = first.size() <= second.size();
    const std::wstring& shorter = firstShorter ? first : second;
    const std::wstring& longer = firstShorter ? second : first;
    return longer.find(shorter) != std::wstring::npos;
}

}  // namespace dorwex
