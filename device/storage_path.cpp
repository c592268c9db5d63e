#include "storage_path.h"

namespace dorwex {

StoragePath SplitStoragePath(std::wstring_view path) {
    StoragePath split;
    split.tooLong = path.size() > kStoragePathChars;
    path = path.substr(0, kStoragePathChars);
    const std::size_t first = path.find(L'\\');
    split.storage.assign(path.substr(0, first));
    if (first == std::wstring_view::npos) {
        return split;
    }
    std::wstring_view rest = path.substr(first + 1);
    while (!rest.empty()) {
        const std::size_t next = rest.find(L'\\');
        const std::wstring_view name = rest.substr(0, next);
        if (!name.empty()) {
            split.names.emplace_back(name);
        }
        if (next == std::wstring_view::npos) {
            break;
        }
        rest.remove_prefix(next + 1);
    }
    return split;
}

}  // namespace dorwex
