// What the fuzz targets share: the fuzzer's bytes as the UTF-16 text a pipe or WMI would carry (two bytes
// a code unit, little-endian; an odd last byte is dropped), and a check that aborts so the fuzzer reports it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace dorwex::fuzz {

inline std::wstring Utf16Text(const std::uint8_t* data, std::size_t size) {
    std::wstring text;
    text.reserve(size / 2);
    for (std::size_t i = 0; i + 1 < size; i += 2) {
        text.push_back(static_cast<wchar_t>(data[i] | (data[i + 1] << 8)));
    }
    return text;
}

inline void Check(bool condition, const char* what) {
    if (!condition) {
        std::fprintf(stderr, "invariant broken: %s\n", what);
        std::abort();
    }
}

}  // namespace dorwex::fuzz
