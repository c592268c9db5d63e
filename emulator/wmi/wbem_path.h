// Object paths as the emulated WMI service reads them from clients, following WMI's object-path grammar:
// an optional namespace ("\\server\root\cimv2:", "//./root/cimv2:" or "root\cimv2:"), a class name, and then
// nothing (a class), "=@" (a singleton), "=value" (the one key, unnamed) or ".key=value,key=value". Values
// are quoted strings in either quote style, with backslash escapes as in C, decimal integers, or TRUE and
// FALSE. No white space anywhere. The service's own reading, kept apart from anything the provider parses.
// Pure logic, no Windows headers.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace dorwex::emulator::wmi {

struct WbemKey {
    enum class Kind { String, Integer, Boolean };
    std::wstring name;  // empty for the unnamed form Class=value
    Kind kind = Kind::String;
    std::wstring text;         // a string, unescaped
    std::int64_t integer = 0;  // an integer, or 1/0 for TRUE/FALSE
};

struct WbemPath {
    std::wstring server;                  // "." or a name; empty without a namespace part
    std::vector<std::wstring> namespaces; // "root", "cimv2"
    std::wstring className;
    bool singleton = false;  // Class=@
    std::vector<WbemKey> keys;

    bool IsClass() const { return !singleton && keys.empty(); }
};

// Nothing when the text does not follow the grammar.
std::optional<WbemPath> ParseWbemPath(std::wstring_view text);

// The relative path as WMI renders __RELPATH: Class, Class=@ or Class.key=value,... with strings in
// double quotes and '"' and '\' escaped.
std::wstring RenderRelativePath(const WbemPath& path);

}  // namespace dorwex::emulator::wmi
