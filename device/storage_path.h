// Storage paths as WMI callers name files on a device: the first component is a storage's name, the
// others are object names, separated by backslashes. Pure logic, no Windows headers.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace dorwex {

// The longest path a caller may give. A longer one is refused whole: cut short, it would name a folder on
// the way to what the caller meant.
inline constexpr std::size_t kStoragePathChars = 260;

struct StoragePath {
    std::wstring storage;              // the first component ("" for a path that starts with a backslash)
    std::vector<std::wstring> names;   // the object names below it, empty ones (doubled separators) dropped
    bool tooLong = false;              // over kStoragePathChars: names nothing
};

// Splits the path; a path over the limit is split as far as its first 260 characters (for traces) and
// marked too long.
StoragePath SplitStoragePath(std::wstring_view path);

}  // namespace dorwex
