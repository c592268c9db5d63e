// Storage paths as WMI callers name files on a device: the first component is a storage's name, the
// others are object names, separated by backslashes. Pure logic, no Windows headers.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace dorwex {

// At most this many characters of a path are considered.
inline constexpr std::size_t kStoragePathChars = 260;

struct StoragePath {
    std::wstring storage;              // the first component ("" for a path that starts with a backslash)
    std::vector<std::wstring> names;   // the object names below it, empty ones (doubled separators) dropped
};

// Cuts the path at 260 characters, then splits it.
StoragePath SplitStoragePath(std::wstring_view path);

}  // namespace dorwex
