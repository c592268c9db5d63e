// WMI object paths as the provider receives them: a class name, optionally followed by "." and key=value
// pairs separated by ",", or by "=" and a single key-less value (Win32ext_WPD='...'), optionally behind a
// namespace ("\\.\root\cimv2:"). Pure logic, no Windows headers.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace dorwex {

struct ObjectPathKey {
    enum class Kind { String, Integer };
    std::wstring name;  // empty for a key-less value
    Kind kind = Kind::String;
    std::wstring text;         // a string value
    std::int32_t integer = 0;  // a number, or 1/0 for TRUE/FALSE

    // The value as text: the string itself, or the number in decimal.
    std::wstring ToText() const;
};

struct ObjectPath {
    std::wstring className;
    std::vector<ObjectPathKey> keys;
};

// Quoted strings ("..." with \" and \\ escapes, or '...' taken literally) give strings; decimal and
// hexadecimal numbers of at most 31 characters give 32-bit integers; TRUE and FALSE in any letter case
// give 1 and 0. Anything else does not parse.
std::optional<ObjectPath> ParseObjectPath(std::wstring_view path);

// A string key value for a path: in double quotes, with '"' and '\' escaped, as WMI writes __RELPATH.
std::wstring QuotedKeyValue(std::wstring_view value);

}  // namespace dorwex
