// Where the emulated WMI service keeps its namespace between processes: the MOF read at the start (the
// provider's next to the service's DLL, or the one DORWEX_WMI_MOF names) and the compiles made since, in
// %SystemRoot%\System32\wbem\Repository\dorwex-emulated (DORWEX_WMI_REPOSITORY names another folder).
#pragma once

#include <windows.h>

#include <string>
#include <vector>

namespace dorwex::emulator::wmi {

// The MOF a process starts with; required tells that DORWEX_WMI_MOF named it (it must then be there).
std::wstring PreloadMofPath(bool& required);
bool ReadText(const std::wstring& path, std::string& text);
// The kept compiles, oldest first.
std::vector<std::wstring> RepositoryEntries();
// Keeps a compile whole or not at all: how many of its statements were stored, its default namespace,
// its text.
bool WriteEntry(size_t statements, const std::wstring& defaultNamespace, const std::string& text);

}  // namespace dorwex::emulator::wmi
