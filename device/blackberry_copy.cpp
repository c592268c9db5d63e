// Copies between a BlackBerry's share and a file of the computer. The local file is opened in the caller's
// identity (the WMI method impersonates its client), the share's file in the provider's own: that identity
// made the network connection, and Windows keeps connections per logon session. A copy writes under a
// temporary name beside its target and puts the file in place only once the whole source is in it, so a
// copy that fails leaves the target as it was and nothing of its own.
#include "blackberry_share.h"

#include <atomic>
#include <cwchar>
#include <vector>

#include "../common/trace.h"
#include "../channels/blackberry_text.h"
#include "blackberry_share_internal.h"

namespace {

constexpr DWORD kCopyChunk = 64 * 1024;

class FileHandle {
public:
    explicit FileHandle(HANDLE handle_in = INVALID_HANDLE_VALUE) : m_handle(handle_in) {}
    ~FileHandle() { Close(); }
    FileHandle(const FileHandle&) = delete;
    FileHandle& operator=(const FileHandle&) = delete;
    HANDLE Get() const { return m_handle; }
    bool Valid() const { return m_handle != INVALID_HANDLE_VALUE && m_handle != nullptr; }
    void Reset(HANDLE handle_in) {
        Close();
        m_handle = handle_in;
    }
    bool Close() {
        const bool l_bool = !Valid() || CloseHandle(m_handle);
        m_handle = INVALID_HANDLE_VALUE;
        return l_bool;
    }

private:
    HANDLE m_handle;
};

// While it lives the thread acts in the provider's own identity: an impersonation in force is set aside
// and put back by Restore (or at the end of the scope).
class ProviderIdentity {
public:
    ProviderIdentity() {
        if (OpenThreadToken(GetCurrentThread(), TOKEN_IMPERSONATE, TRUE, &m_handleToken)) {
            m_boolReverted = RevertToSelf() != FALSE;
        } else {
            m_handleToken = nullptr;
        }
    }
    ~ProviderIdentity() { Restore(); }
    ProviderIdentity(const ProviderIdentity&) = delete;
    ProviderIdentity& operator=(const ProviderIdentity&) = delete;

    // False when the caller's identity could not be put back: nothing more may then be done for the caller.
    bool Restore() {
        if (m_handleToken == nullptr) {
            return m_boolRestored;
        }
        m_boolRestored = !m_boolReverted || SetThreadToken(nullptr, m_handleToken) != FALSE;
        CloseHandle(m_handleToken);
        m_handleToken = nullptr;
        return m_boolRestored;
    }

private:
    HANDLE m_handleToken = nullptr;
    bool m_boolReverted = false;
    bool m_boolRestored = true;
};

// A new file under a name of its own beside the target: target.dorwex-<process>-<count>.partial. Deleted
// when it is not committed: through its handle while that is open, by name afterwards.
class TemporaryFile {
public:
    DWORD Create(const std::wstring& wstringTarget_in) {
        static std::atomic<unsigned> s_unsignedCount{0};
        for (int l_intTry = 0; l_intTry < 16; ++l_intTry) {
            wchar_t l_wcharSuffix[64] = {};
            swprintf(l_wcharSuffix, _countof(l_wcharSuffix), L".dorwex-%lx-%x.partial",
                     static_cast<unsigned long>(GetCurrentProcessId()), ++s_unsignedCount);
            m_wstringName = wstringTarget_in + l_wcharSuffix;
            m_Handle.Reset(CreateFileW(m_wstringName.c_str(), GENERIC_WRITE | DELETE, 0, nullptr, CREATE_NEW,
                                       FILE_ATTRIBUTE_NORMAL, nullptr));
            if (m_Handle.Valid()) {
                return NO_ERROR;
            }
            const DWORD l_dwordError = GetLastError();
            if (l_dwordError != ERROR_FILE_EXISTS && l_dwordError != ERROR_ALREADY_EXISTS) {
                m_wstringName.clear();
                return l_dwordError;
            }
        }
        m_wstringName.clear();
        return ERROR_FILE_EXISTS;
    }
    ~TemporaryFile() {
        if (m_boolCommitted || m_wstringName.empty()) {
            return;
        }
        if (m_Handle.Valid()) {
            FILE_DISPOSITION_INFO l_Disposition = {TRUE};
            SetFileInformationByHandle(m_Handle.Get(), FileDispositionInfo, &l_Disposition, sizeof(l_Disposition));
            m_Handle.Close();
        } else {
            DeleteFileW(m_wstringName.c_str());
        }
    }
    HANDLE Get() const { return m_Handle.Get(); }
    const std::wstring& Name() const { return m_wstringName; }
    bool Close() { return m_Handle.Close(); }
    void Commit() { m_boolCommitted = true; }

private:
    FileHandle m_Handle;
    std::wstring m_wstringName;
    bool m_boolCommitted = false;
};

// Copies the whole source into the target and gives the target the source's times. NO_ERROR, or the error
// of the call that failed; a source that ends before its size is ERROR_HANDLE_EOF.
DWORD CopyWhole(HANDLE handleSource_in, HANDLE handleTarget_in) {
    LARGE_INTEGER l_Size = {};
    if (!GetFileSizeEx(handleSource_in, &l_Size)) {
        return GetLastError();
    }
    std::vector<char> l_Buffer(kCopyChunk);
    LONGLONG l_longlongCopied = 0;
    for (;;) {
        DWORD l_dwordRead = 0;
        if (!ReadFile(handleSource_in, l_Buffer.data(), kCopyChunk, &l_dwordRead, nullptr)) {
            return GetLastError();
        }
        if (l_dwordRead == 0) {
            break;
        }
        DWORD l_dwordWritten = 0;
        if (!WriteFile(handleTarget_in, l_Buffer.data(), l_dwordRead, &l_dwordWritten, nullptr)) {
            return GetLastError();
        }
        if (l_dwordWritten != l_dwordRead) {
            return ERROR_WRITE_FAULT;
        }
        l_longlongCopied += l_dwordWritten;
    }
    if (l_longlongCopied != l_Size.QuadPart) {
        return ERROR_HANDLE_EOF;  // the source changed its size while it was read
    }
    FILETIME l_Created = {}, l_Accessed = {}, l_Written = {};
    if (GetFileTime(handleSource_in, &l_Created, &l_Accessed, &l_Written)) {
        SetFileTime(handleTarget_in, &l_Created, &l_Accessed, &l_Written);
    }
    return FlushFileBuffers(handleTarget_in) ? NO_ERROR : GetLastError();
}

}  // namespace

bool CDorWEXBlackBerry::CopyFileFromDevice(const wchar_t* pwcharSourceOnDevice_in, const wchar_t* pwcharLocalTarget_in) {
    Trace(L"CDorWEXBlackBerry::CopyFileFromDevice enter.\n");
    if (pwcharSourceOnDevice_in == nullptr || pwcharLocalTarget_in == nullptr ||
        !IsOwnPath(pwcharSourceOnDevice_in, L"CDorWEXBlackBerry::CopyFileFromDevice")) {
        return false;
    }
    Trace(L"CDorWEXBlackBerry::CopyFileFromDevice waiting for connection to device.\n");
    if (WaitForSingleObject(m_HANDLEEventConnected, m_dwordConnectionWaitMs) != WAIT_OBJECT_0) {
        Trace(L"CDorWEXBlackBerry::CopyFileFromDevice TIMED OUT waiting for connection to device.\n");
        return false;
    }
    const std::wstring l_wstringSource = dorwex::LongSharePath(pwcharSourceOnDevice_in);
    const std::wstring l_wstringTarget = pwcharLocalTarget_in;
    DWORD l_dwordError = NO_ERROR;
    {
        // The caller's side first, in the caller's identity.
        TemporaryFile l_Temporary;
        l_dwordError = l_Temporary.Create(l_wstringTarget);
        FileHandle l_Source;
        if (l_dwordError == NO_ERROR) {
            ProviderIdentity l_AsProvider;
            l_Source.Reset(CreateFileW(l_wstringSource.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                       FILE_FLAG_SEQUENTIAL_SCAN, nullptr));
            l_dwordError = l_Source.Valid() ? NO_ERROR : GetLastError();
            if (!l_AsProvider.Restore()) {
                Trace(L"CDorWEXBlackBerry::CopyFileFromDevice, SetThreadToken failed %x.\n", GetLastError());
                return false;  // the temporary goes through its handle; nothing is done by name as the provider
            }
        }
        if (l_dwordError == NO_ERROR) {
            l_dwordError = CopyWhole(l_Source.Get(), l_Temporary.Get());
        }
        if (l_dwordError == NO_ERROR && !l_Temporary.Close()) {
            l_dwordError = GetLastError();
        }
        if (l_dwordError == NO_ERROR) {
            // One rename in the same folder: the target is the old file or the new one. (ReplaceFileW would
            // keep the old file's security, but can fail half-way with the old file already gone.)
            const BOOL l_BOOL = MoveFileExW(l_Temporary.Name().c_str(), l_wstringTarget.c_str(),
                                            MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH);
            if (l_BOOL) {
                l_Temporary.Commit();
            } else {
                l_dwordError = GetLastError();
            }
        }
    }
    if (l_dwordError != NO_ERROR) {
        SetShareErrorInfo(L"CDorWEXBlackBerry::CopyFileFromDevice", l_dwordError);
        Trace(L"CDorWEXBlackBerry::CopyFileFromDevice, %s failed %x:\n", L"CopyFile", l_dwordError);
        Trace(L"CDorWEXBlackBerry::CopyFileFromDevice, failed:source:<%s>, target:<%s>.\n", l_wstringSource.c_str(),
              pwcharLocalTarget_in);
        return false;
    }
    return true;
}

bool CDorWEXBlackBerry::CopyFileToDevice(const wchar_t* pwcharTargetOnDevice_in, const wchar_t* pwcharLocalSource_in) {
    Trace(L"CDorWEXBlackBerry::CopyFileToDevice, enter.\n");
    if (pwcharTargetOnDevice_in == nullptr || pwcharLocalSource_in == nullptr ||
        !IsOwnPath(pwcharTargetOnDevice_in, L"CDorWEXBlackBerry::CopyFileToDevice")) {
        return false;
    }
    // The caller's file, in the caller's identity.
    FileHandle l_Source(CreateFileW(pwcharLocalSource_in, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                    FILE_FLAG_SEQUENTIAL_SCAN, nullptr));
    DWORD l_dwordError = l_Source.Valid() ? NO_ERROR : GetLastError();
    std::wstring l_wstringTarget = dorwex::LongSharePath(pwcharTargetOnDevice_in);
    ProviderIdentity l_AsProvider;
    if (l_dwordError == NO_ERROR && IsShareDirectory(l_wstringTarget)) {
        wchar_t l_wcharName[256] = {};
        wchar_t l_wcharExtension[256] = {};
        _wsplitpath_s(pwcharLocalSource_in, nullptr, 0, nullptr, 0, l_wcharName, _countof(l_wcharName),
                      l_wcharExtension, _countof(l_wcharExtension));
        const std::wstring l_wstringInFolder =
            std::wstring(pwcharTargetOnDevice_in) + L"\\" + l_wcharName + l_wcharExtension;
        if (!IsOwnPath(l_wstringInFolder.c_str(), L"CDorWEXBlackBerry::CopyFileToDevice")) {
            return false;
        }
        l_wstringTarget = dorwex::LongSharePath(l_wstringInFolder);
    }
    if (l_dwordError == NO_ERROR) {
        TemporaryFile l_Temporary;
        l_dwordError = l_Temporary.Create(l_wstringTarget);
        if (l_dwordError == NO_ERROR) {
            l_dwordError = CopyWhole(l_Source.Get(), l_Temporary.Get());
        }
        if (l_dwordError == NO_ERROR && !l_Temporary.Close()) {
            l_dwordError = GetLastError();
        }
        if (l_dwordError == NO_ERROR) {
            if (MoveFileExW(l_Temporary.Name().c_str(), l_wstringTarget.c_str(),
                            MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH)) {
                l_Temporary.Commit();
            } else {
                l_dwordError = GetLastError();
            }
        }
    }
    if (!l_AsProvider.Restore()) {
        Trace(L"CDorWEXBlackBerry::CopyFileToDevice, SetThreadToken failed %x.\n", GetLastError());
        return false;
    }
    if (l_dwordError != NO_ERROR) {
        SetShareErrorInfo(L"CDorWEXBlackBerry::CopyFileToDevice", l_dwordError);
        Trace(L"CDorWEXBlackBerry::CopyFileToDevice, %s failed %x: %s: source:<%s>, target:<%s>.\n", L"CopyFile",
              l_dwordError, ShareSystemText(l_dwordError).c_str(), pwcharLocalSource_in, l_wstringTarget.c_str());
        return false;
    }
    return true;
}
