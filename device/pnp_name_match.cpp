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
    for (size_t at = longer.find(shorter); at != std::wstring::npos; at = longer.find(shorter, at + 1)) {
        const size_t end = at + shorter.size();
        const bool startsComponent = at == 0 || longer[at - 1] == L'~' || (at >= 4 && longer.compare(at - 4, 4, L"_??_") == 0);
        const bool endsComponent = end == longer.size() || longer[end] == L'~';
        if (startsComponent && endsComponent) {
            return true;
        }
    }
    return false;
}

bool NameIsOfInstance(std::wstring_view instanceId, std::wstring_view deviceName) {
    if (instanceId.empty()) {
        return false;
    }
    const std::wstring id = NormalizeDeviceName(instanceId);
    const std::wstring normalizedName = NormalizeDeviceName(deviceName);
    std::wstring_view name = normalizedName;
    for (const wchar_t* prefix : {L"~~?~", L"~??~", L"~~.~"}) {
        if (name.compare(0, 4, prefix) == 0) {
            name.remove_prefix(4);
            break;
        }
    }
    if (name.compare(0, id.size(), id) != 0) {
        return false;
    }
    const std::wstring_view rest = name.substr(id.size());
    return rest.empty() || rest.compare(0, 2, L"~{") == 0;
}

}  // namespace dorwex

namespace dorwex {

std::wstring SerialNumberFromInstanceId(std::wstring_view instanceId) {
    const size_t firstSeparator = instanceId.find(L'\\');
    const size_t lastSeparator = instanceId.rfind(L'\\');
    if (firstSeparator == std::wstring_view::npos || firstSeparator == lastSeparator) {
        return std::wstring();  // an enumerator and a device part at the least, then the serial
    }
    const std::wstring_view last = instanceId.substr(lastSeparator + 1);
    if (last.empty() || last.find(L'&') != std::wstring_view::npos) {
        return std::wstring();
    }
    return std::wstring(last);
}

int PortFromLocationText(std::wstring_view locationText) {
    const size_t open = locationText.rfind(L'(');
    const size_t close = locationText.rfind(L')');
    if (open == std::wstring_view::npos || close == std::wstring_view::npos || close <= open + 1) {
        return 0;
    }
    long port = 0;
    for (size_t i = open + 1; i < close; ++i) {
        const wchar_t c = locationText[i];
        if (c == L' ' && port == 0) {
            continue;
        }
        if (c < L'0' || c > L'9' || port > 0xFFFF) {
            return 0;
        }
        port = port * 10 + (c - L'0');
    }
    return static_cast<int>(port);
}

}  // namespace dorwex
