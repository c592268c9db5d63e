#include "trace_helpers.h"

#include <cstring>

#include "error_text_fallback.h"

char* ConvertWideToNarrow(UINT uintCodePage_in, const wchar_t* pwcharText_in, char* pcharBuffer_out,
                          int intBufferSize_in) {
    if (pwcharText_in == nullptr || pcharBuffer_out == nullptr) {
        return nullptr;
    }
    if (intBufferSize_in > 0) {
        std::memset(pcharBuffer_out, 0, static_cast<size_t>(intBufferSize_in));
    }
    if (WideCharToMultiByte(uintCodePage_in, 0, pwcharText_in, -1, pcharBuffer_out, intBufferSize_in, nullptr,
                            nullptr) == 0) {
        return nullptr;
    }
    return pcharBuffer_out;
}

namespace {

using RtlGetVersionFunction = LONG(WINAPI*)(OSVERSIONINFOEXW*);

struct LibraryHandle {
    HMODULE m_HMODULE;
    explicit LibraryHandle(const wchar_t* name) : m_HMODULE(LoadLibraryW(name)) {}
    ~LibraryHandle() {
        if (m_HMODULE != nullptr) {
            FreeLibrary(m_HMODULE);
        }
    }
    LibraryHandle(const LibraryHandle&) = delete;
    LibraryHandle& operator=(const LibraryHandle&) = delete;
};

}  // namespace

int ReadOSVersion(DorWEXOSVersion* pOSVersion_out) {
    if (pOSVersion_out == nullptr) {
        return 0;
    }
    pOSVersion_out->dwordValid = 1;
    LibraryHandle l_LibraryHandleNtdll(L"ntdll.dll");
    if (l_LibraryHandleNtdll.m_HMODULE == nullptr) {
        return 0;
    }
    const auto l_RtlGetVersion = reinterpret_cast<RtlGetVersionFunction>(
        reinterpret_cast<void*>(GetProcAddress(l_LibraryHandleNtdll.m_HMODULE, "RtlGetVersion")));
    if (l_RtlGetVersion == nullptr) {
        return 0;
    }
    OSVERSIONINFOEXW l_OSVERSIONINFOEXW{};
    l_OSVERSIONINFOEXW.dwOSVersionInfoSize = sizeof(OSVERSIONINFOEXW);  // 284
    l_RtlGetVersion(&l_OSVERSIONINFOEXW);
    pOSVersion_out->dwordMajorVersion = l_OSVERSIONINFOEXW.dwMajorVersion;
    pOSVersion_out->dwordMinorVersion = l_OSVERSIONINFOEXW.dwMinorVersion;
    pOSVersion_out->dwordBuildNumber = l_OSVERSIONINFOEXW.dwBuildNumber;
    pOSVersion_out->dwordPlatformId = l_OSVERSIONINFOEXW.dwPlatformId;
    // The service-pack text is plain ASCII; it is narrowed one code unit at a time.
    static_assert(sizeof pOSVersion_out->charServicePack == sizeof l_OSVERSIONINFOEXW.szCSDVersion / sizeof(WCHAR),
                  "service-pack buffers differ");
    for (size_t l_size_tIndex = 0; l_size_tIndex < sizeof pOSVersion_out->charServicePack; ++l_size_tIndex) {
        pOSVersion_out->charServicePack[l_size_tIndex] = static_cast<char>(l_OSVERSIONINFOEXW.szCSDVersion[l_size_tIndex]);
    }
    pOSVersion_out->charServicePack[sizeof pOSVersion_out->charServicePack - 1] = '\0';
    return 1;
}

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
