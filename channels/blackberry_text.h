// The BlackBerry channel's text rules: its pipe messages, the share names it filters, the long form of
// share paths, the texts of network-connection results and the share listing. Pure logic, no Windows
// headers.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

namespace dorwex {

enum class BlackBerryMessageKind { kFileWrite, kCredentials, kIgnored };

// "BlackBerryFileWrite*" anywhere makes a file-write report; otherwise "BlackBerryCredentials*" anywhere
// makes credentials; anything else is ignored.
BlackBerryMessageKind ClassifyBlackBerryMessage(std::wstring_view message);

// Tokens 1 to 5 of a message split at "*" and "~" (runs count as one; later tokens are ignored; missing
// ones are empty). File-write report: 1 process id, 3 path, 5 device key. Credentials: 3 share, 4 user,
// 5 password.
std::array<std::wstring, 5> BlackBerryTokens(std::wstring_view message);

// A share whose name ends in "\dtm" (any case) after at least one other character is not connected.
bool IsFilteredShare(std::wstring_view share);

// The host of a share path: what stands between its leading "\\" and the next "\" (or its end); empty when
// the path does not begin with "\\".
std::wstring_view ShareHost(std::wstring_view path);

// Whether an id names the BlackBerry at this address: the host of the id's share path is the address, whole
// and case-blind (169.254.0.1 does not name \\169.254.0.17\media). An empty address names nothing.
bool IdNamesShareHost(std::wstring_view id, std::wstring_view address);

// Whether a path lies inside the share \\host\name (itself included), in canonical form: the share's host
// and name (case-blind), then plain names only. Refused: another host or share, a drive letter, the
// "\\?\" and "\\.\" namespaces, empty components, "." and ".." (and any name ending in a dot or a space,
// which the system would trim), ":" (streams), "/", wildcards, control characters, DOS device names.
bool IsPathInsideShare(std::wstring_view path, std::wstring_view share);

// \\server\share\path becomes \\?\UNC\server\share\path; any other path stays as it is.
std::wstring LongSharePath(std::wstring_view path);

// The text traced for a network-connection result. Code 1208 (extended error) is composed by the caller
// from the network's own error; this returns an empty text for it.
std::wstring WNetResultText(std::uint32_t code, std::wstring_view shareName);

// One entry of a share listing: "name@NA@DIR" or "name@NA@FILE", after a "~" when the listing is not
// empty. Mode 0 lists both kinds, 1 directories only, 2 files only, any other nothing.
void AppendShareListingEntry(std::wstring& listing, std::wstring_view name, bool directory, std::uint32_t mode);

}  // namespace dorwex
