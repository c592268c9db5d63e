// The repository of the emulated WMI service: where the MOF a process starts with lies, and the compiles
// kept for later processes, one file each (a first line "//statements=N namespace=NS", then the text).
#include "repository.h"

#include <algorithm>
#include <cwchar>

#include "emulator/common/com_server.h"

namespace dorwex::emulator::wmi {

std::wstring PreloadMofPath(bool& required) {
    wchar_t path[MAX_PATH] = {};
    const DWORD length = GetEnvironmentVariableW(L"DORWEX_WMI_MOF", path, MAX_PATH);
    required = length > 0 && length < MAX_PATH;
    if (required) {
        return path;
    }
    return ThisModuleDirectory() + L"dorwex_wpd_provider.mof";
}

// The machine's repository; DORWEX_WMI_REPOSITORY names another folder (tests that must not change the
// prefix's).
std::wstring RepositoryDirectory() {
    wchar_t other[MAX_PATH] = {};
    const DWORD length = GetEnvironmentVariableW(L"DORWEX_WMI_REPOSITORY", other, MAX_PATH);
    if (length > 0 && length < MAX_PATH) {
        return other;
    }
    wchar_t system[MAX_PATH] = {};
    GetSystemDirectoryW(system, MAX_PATH);
    return std::wstring(system) + L"\\wbem\\Repository\\dorwex-emulated";
}

bool ReadText(const std::wstring& path, std::string& text) {
    HANDLE file = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        return false;
    }
    char buffer[4096];
    DWORD read = 0;
    while (ReadFile(file, buffer, sizeof buffer, &read, nullptr) && read > 0) {
        text.append(buffer, read);
    }
    CloseHandle(file);
    return true;
}

// The repository's compiles in the order they were made.
std::vector<std::wstring> RepositoryEntries() {
    std::vector<std::wstring> names;
    WIN32_FIND_DATAW found;
    HANDLE search = FindFirstFileW((RepositoryDirectory() + L"\\*.mof").c_str(), &found);
    if (search == INVALID_HANDLE_VALUE) {
        return names;
    }
    do {
        names.push_back(RepositoryDirectory() + L"\\" + found.cFileName);
    } while (FindNextFileW(search, &found));
    FindClose(search);
    std::sort(names.begin(), names.end());
    return names;
}

bool WriteEntry(size_t statements, const std::wstring& defaultNamespace, const std::string& text) {
    const std::wstring directory = RepositoryDirectory();
    const size_t cut = directory.find_last_of(L'\\');
    CreateDirectoryW(directory.substr(0, cut).c_str(), nullptr);
    CreateDirectoryW(directory.c_str(), nullptr);
    wchar_t name[32];
    swprintf(name, 32, L"\\%08lu.mof", static_cast<unsigned long>(RepositoryEntries().size() + 1));
    const int nsBytes = WideCharToMultiByte(CP_UTF8, 0, defaultNamespace.c_str(), -1, nullptr, 0, nullptr, nullptr);
    std::string ns(static_cast<size_t>(nsBytes > 0 ? nsBytes - 1 : 0), '\0');
    if (!ns.empty()) {
        WideCharToMultiByte(CP_UTF8, 0, defaultNamespace.c_str(), -1, &ns[0], nsBytes, nullptr, nullptr);
    }
    const std::string entry = "//statements=" + std::to_string(statements) + " namespace=" + ns + "\n" + text;
    const std::wstring path = directory + name;
    const std::wstring partial = path + L".partial";
    HANDLE file = CreateFileW(partial.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        return false;
    }
    DWORD written = 0;
    const bool ok = WriteFile(file, entry.data(), static_cast<DWORD>(entry.size()), &written, nullptr) &&
                    written == entry.size();
    CloseHandle(file);
    // Whole or not at all: a later process never replays half a compile.
    return ok && MoveFileExW(partial.c_str(), path.c_str(), MOVEFILE_REPLACE_EXISTING);
}

}  // namespace dorwex::emulator::wmi
