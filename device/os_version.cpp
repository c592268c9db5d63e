#include "os_version.h"

#include <atomic>
#include <cstddef>

namespace {

std::atomic<RtlGetVersionFunction> g_RtlGetVersionReplacement{nullptr};

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

RtlGetVersionFunction SetRtlGetVersion(RtlGetVersionFunction pFunction_in) {
    return g_RtlGetVersionReplacement.exchange(pFunction_in);
}

int ReadOSVersion(DorWEXOSVersion* pOSVersion_out) {
    if (pOSVersion_out == nullptr) {
        return 0;
    }
    pOSVersion_out->dwordValid = 1;
    LibraryHandle l_LibraryHandleNtdll(L"ntdll.dll");
    if (l_LibraryHandleNtdll.m_HMODULE == nullptr) {
        return 0;
    }
    RtlGetVersionFunction l_RtlGetVersion = g_RtlGetVersionReplacement.load();
    if (l_RtlGetVersion == nullptr) {
        l_RtlGetVersion = reinterpret_cast<RtlGetVersionFunction>(
            reinterpret_cast<void*>(GetProcAddress(l_LibraryHandleNtdll.m_HMODULE, "RtlGetVersion")));
    }
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
