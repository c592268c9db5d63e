#include "error_text.h"

#include <cstdint>

#include "error_text_fallback.h"

bool GetSystemErrorText(HRESULT hresultCode_in, std::wstring& wstringText_out) {
    LPWSTR l_pwcharMessage = nullptr;
    const DWORD l_dwordLength = FormatMessageW(
        FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
        static_cast<DWORD>(hresultCode_in), MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT),
        reinterpret_cast<LPWSTR>(&l_pwcharMessage), 0, nullptr);
    if (l_dwordLength == 0 || l_pwcharMessage == nullptr) {
        return false;
    }
    wstringText_out.assign(l_pwcharMessage, l_dwordLength);
    LocalFree(l_pwcharMessage);
    if (wstringText_out.size() >= 2 && wstringText_out.compare(wstringText_out.size() - 2, 2, L"\r\n") == 0) {
        wstringText_out.resize(wstringText_out.size() - 2);
    }
    return true;
}

std::wstring GetErrorText(HRESULT hresultCode_in) {
    std::wstring l_wstringText;
    if (!GetSystemErrorText(hresultCode_in, l_wstringText)) {
        const std::string l_stringFallback = dorwex::FallbackErrorText(static_cast<std::uint32_t>(hresultCode_in));
        l_wstringText.assign(l_stringFallback.begin(), l_stringFallback.end());
    }
    return l_wstringText;
}
