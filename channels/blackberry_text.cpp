#include "blackberry_text.h"

#include <cwctype>
#include <vector>

#include "tokenizer.h"

namespace dorwex {

BlackBerryMessageKind ClassifyBlackBerryMessage(std::wstring_view message) {
    if (message.find(L"BlackBerryFileWrite*") != std::wstring_view::npos) {
        return BlackBerryMessageKind::kFileWrite;
    }
    if (message.find(L"BlackBerryCredentials*") != std::wstring_view::npos) {
        return BlackBerryMessageKind::kCredentials;
    }
    return BlackBerryMessageKind::kIgnored;
}

std::array<std::wstring, 5> BlackBerryTokens(std::wstring_view message) {
    std::array<std::wstring, 5> tokens;
    size_t count = 0;
    ForEachToken(message, L"*~", [&](std::wstring_view token) {
        tokens[count++] = std::wstring(token);
        return count < tokens.size();
    });
    return tokens;
}

bool IsFilteredShare(std::wstring_view share) {
    if (share.size() <= 4) {
        return false;
    }
    const std::wstring_view tail = share.substr(share.size() - 4);
    return tail[0] == L'\\' && std::towlower(tail[1]) == L'd' && std::towlower(tail[2]) == L't' &&
           std::towlower(tail[3]) == L'm';
}

namespace {

bool SameCaseBlind(std::wstring_view first, std::wstring_view second) {
    if (first.size() != second.size()) {
        return false;
    }
    for (size_t i = 0; i < first.size(); ++i) {
        if (std::towlower(first[i]) != std::towlower(second[i])) {
            return false;
        }
    }
    return true;
}

// A name the system opens as itself on a share: no character it gives a meaning, nothing it trims, no
// device.
bool IsPlainName(std::wstring_view name) {
    if (name.empty() || name.back() == L'.' || name.back() == L' ') {
        return false;
    }
    for (const wchar_t c : name) {
        if (c < 0x20 || std::wstring_view(L"\\/:*?\"<>|").find(c) != std::wstring_view::npos) {
            return false;
        }
    }
    std::wstring base(name.substr(0, name.find(L'.')));
    while (!base.empty() && base.back() == L' ') {
        base.pop_back();
    }
    for (auto& c : base) {
        c = static_cast<wchar_t>(std::towupper(c));
    }
    static const wchar_t* const kDevices[] = {L"CON", L"PRN", L"AUX", L"NUL", L"CONIN$", L"CONOUT$"};
    for (const wchar_t* device : kDevices) {
        if (base == device) {
            return false;
        }
    }
    return !(base.size() == 4 && (base.compare(0, 3, L"COM") == 0 || base.compare(0, 3, L"LPT") == 0) &&
             ((base[3] >= L'0' && base[3] <= L'9') || base[3] == 0xB9 || base[3] == 0xB2 || base[3] == 0xB3));
}

// The components after a leading "\\", or false when the path does not begin so or has an empty one.
bool SplitUncPath(std::wstring_view path, std::vector<std::wstring_view>& components) {
    if (path.size() < 2 || path[0] != L'\\' || path[1] != L'\\') {
        return false;
    }
    std::wstring_view rest = path.substr(2);
    for (;;) {
        const size_t separator = rest.find(L'\\');
        components.push_back(rest.substr(0, separator));
        if (components.back().empty()) {
            return false;
        }
        if (separator == std::wstring_view::npos) {
            return true;
        }
        rest = rest.substr(separator + 1);
    }
}

}  // namespace

std::wstring_view ShareHost(std::wstring_view path) {
    if (path.size() < 2 || path[0] != L'\\' || path[1] != L'\\') {
        return std::wstring_view();
    }
    const std::wstring_view rest = path.substr(2);
    return rest.substr(0, rest.find(L'\\'));
}

bool IdNamesShareHost(std::wstring_view id, std::wstring_view address) {
    return !address.empty() && SameCaseBlind(ShareHost(id), address);
}

bool IsPathInsideShare(std::wstring_view path, std::wstring_view share) {
    std::vector<std::wstring_view> shareParts;
    std::vector<std::wstring_view> pathParts;
    if (!SplitUncPath(share, shareParts) || shareParts.size() != 2 || !SplitUncPath(path, pathParts) ||
        pathParts.size() < 2) {
        return false;
    }
    for (size_t i = 0; i < pathParts.size(); ++i) {
        if (!IsPlainName(pathParts[i]) || (i < 2 && !SameCaseBlind(pathParts[i], shareParts[i]))) {
            return false;
        }
    }
    return IsPlainName(shareParts[0]) && IsPlainName(shareParts[1]);
}

std::wstring LongSharePath(std::wstring_view path) {
    if (path.size() >= 2 && path[0] == L'\\' && path[1] == L'\\') {
        return L"\\\\?\\UNC" + std::wstring(path.substr(1));
    }
    return std::wstring(path);
}

std::wstring WNetResultText(std::uint32_t code, std::wstring_view shareName) {
    const std::wstring name(shareName);
    switch (code) {
    case 0: return L"NO ERROR";
    case 5: return L"ERROR_ACCESS_DENIED: The caller does not have access to the network resource.";
    case 53: return L"ERROR_BAD_NETPATH: <" + name + L"> The network path was not found..";
    case 66: return L"ERROR_BAD_DEV_TYPE: The type of local device and the type of network resource do not match.";
    case 67:
        return L"ERROR_BAD_NET_NAME: The network name cannot be found.This value is returned if the lpRemoteName "
               L"member of the NETRESOURCE structure pointed to by the lpNetResource parameter specifies a resource "
               L"that is not acceptable to any network resource provider, either because the resource name is "
               L"empty, not valid, or because the named resource cannot be located.";
    case 85:
        return L"ERROR_ALREADY_ASSIGNED: The local device specified by the lpLocalName member is already connected "
               L"to a network resource.";
    case 86: return L"ERROR_INVALID_PASSWORD: The specified password is invalid and the CONNECT_INTERACTIVE flag is not set.";
    case 87:
        return L"ERROR_INVALID_PARAMETER: A parameter is incorrect.This error is returned if the dwType member of "
               L"the NETRESOURCE structure pointed to by the lpNetResource parameter specifies a value other than "
               L"RESOURCETYPE_DISK, RESOURCETYPE_PRINT, or RESOURCETYPE_ANY.This error is also returned if the "
               L"dwFlags parameter specifies an incorrect or unknown value.";
    case 170: return L"ERROR_BUSY: The router or provider is busy, possibly initializing.  The caller should retry.";
    case 487:
        return L"ERROR_INVALID_ADDRESS: An attempt was made to access an invalid address.This error is returned if "
               L"the dwFlags parameter specifies a value of CONNECT_REDIRECT, but the lpLocalName member of the "
               L"NETRESOURCE structure pointed to by the lpNetResource parameter was unspecified.";
    case 1200:
        return L"ERROR_BAD_DEVICE: The specified device name is not valid.This error is returned if the lpLocalName "
               L"member of the NETRESOURCE structure pointed to by the lpNetResource parameter specifies a device "
               L"that is not redirectable.";
    case 1202:
        return L"ERROR_DEVICE_ALREADY_REMEMBERED: The local device name has a remembered connection to another "
               L"network resource.This error is returned if an entry for the device specified by lpLocalName member "
               L"of the NETRESOURCE structure pointed to by the lpNetResource parameter specifies a value that is "
               L"already in the user profile for a different connection than that specified in the lpNetResource "
               L"parameter.";
    case 1203:
        return L"ERROR_NO_NET_OR_BAD_PATH: No network provider accepted the given network path.This error is "
               L"returned if no network provider recognized the lpRemoteName member of the NETRESOURCE structure "
               L"pointed to by the lpNetResource parameter.";
    case 1204:
        return L"ERROR_BAD_PROVIDER: The specified network provider name is not valid.This error is returned if the "
               L"lpProvider member of the NETRESOURCE structure pointed to by the lpNetResource parameter specifies "
               L"a value that does not match any network provider.";
    case 1205: return L"ERROR_CANNOT_OPEN_PROFILE: The system is unable to open the user profile to process persistent connections.";
    case 1206: return L"ERROR_BAD_PROFILE: The user profile is in an incorrect format.";
    case 1208: return std::wstring();
    case 1219:
        return L"Multiple connections to a server or shared resource by the same user, using more than one user "
               L"name, are not allowed. Disconnect all previous connections to the server or shared resource and "
               L"try again.";
    case 1222: return L"ERROR_NO_NETWORK: The network is unavailable.";
    case 1223:
        return L"ERROR_CANCELLED: The attempt to make the connection was canceled by the user through a dialog box "
               L"from one of the network resource providers, or by a called resource.";
    case 1312:
        return L"ERROR_NO_SUCH_LOGON_SESSION: <" + name +
               L"> A specified logon session does not exist. It may already have been terminated.";
    case 1326: return L"ERROR_LOGON_FAILURE: A logon failure because of an unknown user name or a bad password.";
    case 2202: return L"ERROR_BAD_USERNAME: The specified user name is not valid.  Userid: BlackBerry";
    default: return L"Use FormatMessage to obtain the message string for the returned error.";
    }
}

void AppendShareListingEntry(std::wstring& listing, std::wstring_view name, bool directory, std::uint32_t mode) {
    const bool listed = directory ? mode <= 1 : (mode & ~static_cast<std::uint32_t>(2)) == 0;
    if (!listed) {
        return;
    }
    if (!listing.empty()) {
        listing += L'~';
    }
    listing += name;
    listing += directory ? L"@NA@DIR" : L"@NA@FILE";
}

}  // namespace dorwex
