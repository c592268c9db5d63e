// Deleting a directory with everything in it, for the emulator's recursive delete and for tests that
// clean up their scratch directories.
#pragma once

#include <windows.h>

#include <string>

namespace dorwex::emulator {

inline bool RemoveTree(const std::wstring& path) {
    WIN32_FIND_DATAW found{};
    HANDLE search = FindFirstFileW((path + L"\\*").c_str(), &found);
    if (search != INVALID_HANDLE_VALUE) {
        bool ok = true;
        do {
            const std::wstring name = found.cFileName;
            if (name == L"." || name == L"..") {
                continue;
            }
            const std::wstring child = path + L"\\" + name;
            if (found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) {
                ok = RemoveTree(child);
            } else {
                SetFileAttributesW(child.c_str(), FILE_ATTRIBUTE_NORMAL);
                ok = DeleteFileW(child.c_str()) != 0;
            }
        } while (ok && FindNextFileW(search, &found));
        FindClose(search);
        if (!ok) {
            return false;
        }
    }
    return RemoveDirectoryW(path.c_str()) != 0;
}

}  // namespace dorwex::emulator
