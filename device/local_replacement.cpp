#include "local_replacement.h"

#include <atomic>
#include <cwchar>

#include "../common/trace.h"

namespace {

HRESULT LastErrorResult() {
    const DWORD l_dwordError = GetLastError();
    return l_dwordError != ERROR_SUCCESS ? HRESULT_FROM_WIN32(l_dwordError) : E_FAIL;
}

// "<target>.<process>-<n>.partial": unique in the process, and a name no caller asked for.
std::wstring TemporaryName(const std::wstring& wstringTarget_in) {
    static std::atomic<unsigned long> s_ulongNext{0};
    wchar_t l_wcharSuffix[48];
    swprintf(l_wcharSuffix, sizeof(l_wcharSuffix) / sizeof(l_wcharSuffix[0]), L".%lx-%lx.partial",
             GetCurrentProcessId(), ++s_ulongNext);
    return wstringTarget_in + l_wcharSuffix;
}

}  // namespace

CDorWEXLocalReplacement::CDorWEXLocalReplacement(const wchar_t* pwcharTarget_in)
    : m_wstringTarget(pwcharTarget_in != nullptr ? pwcharTarget_in : L"") {
    if (m_wstringTarget.empty()) {
        m_HRESULTCreated = E_INVALIDARG;
        return;
    }
    // A few tries against a name another process took in the meantime.
    for (int l_intTry = 0; l_intTry < 4; ++l_intTry) {
        m_wstringTemporary = TemporaryName(m_wstringTarget);
        const HANDLE l_HANDLE = CreateFileW(m_wstringTemporary.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW,
                                            FILE_ATTRIBUTE_NORMAL, nullptr);
        if (l_HANDLE != INVALID_HANDLE_VALUE) {
            CloseHandle(l_HANDLE);
            m_HRESULTCreated = S_OK;
            return;
        }
        m_HRESULTCreated = LastErrorResult();
        if (GetLastError() != ERROR_FILE_EXISTS && GetLastError() != ERROR_ALREADY_EXISTS) {
            break;
        }
    }
    m_wstringTemporary.clear();
}

CDorWEXLocalReplacement::~CDorWEXLocalReplacement() {
    if (!m_boolCommitted && !m_wstringTemporary.empty() && !DeleteFileW(m_wstringTemporary.c_str())) {
        Trace(L"CDorWEXLocalReplacement::~CDorWEXLocalReplacement DeleteFileW failed %x.\n", GetLastError());
    }
}

HRESULT CDorWEXLocalReplacement::Commit() {
    if (FAILED(m_HRESULTCreated)) {
        return m_HRESULTCreated;
    }
    // One rename in the same folder: the target is the old file or the new one, never a part of either.
    // (ReplaceFileW would keep the old file's attributes, but can fail half-way with the old file gone.)
    if (!MoveFileExW(m_wstringTemporary.c_str(), m_wstringTarget.c_str(),
                     MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH)) {
        return LastErrorResult();
    }
    m_boolCommitted = true;
    return S_OK;
}
