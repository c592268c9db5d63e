// Whether two names on a device are the same: ordinal and without regard to case, as file names on Windows.
#pragma once

#include <windows.h>
#include <comdef.h>

#include <string_view>

inline bool SameName(const wchar_t* pwcharA_in, const wchar_t* pwcharB_in) {
    return CompareStringOrdinal(pwcharA_in, -1, pwcharB_in, -1, TRUE) == CSTR_EQUAL;
}

inline bool SameName(std::wstring_view a_in, std::wstring_view b_in) {
    return CompareStringOrdinal(a_in.data(), static_cast<int>(a_in.size()), b_in.data(), static_cast<int>(b_in.size()),
                                TRUE) == CSTR_EQUAL;
}

inline bool SameName(const _bstr_t& bstr_tA_in, const wchar_t* pwcharB_in) {
    return bstr_tA_in.length() != 0 && SameName(static_cast<const wchar_t*>(bstr_tA_in), pwcharB_in);
}
