// What a BlackBerry does through its storage share: listing, copies both ways, delete, new folders and
// moves. Its storage paths are the share's own paths (\\192.168.1.1\media\DCIM\a.jpg).
#include "wpd_object.h"

#include "../common/trace.h"
#include "blackberry_share.h"
#include "../common/com_error.h"

_bstr_t CDorWEXWPDObject::EnumerateDevicePath3(const wchar_t* pwcharObjectStoragePath_in, ULONG ulongContentType_in) {
    Trace(L"CDorWEXWPDObject::EnumerateDevicePath3 enter.\n");
    if (!m_pCDorWEXBlackBerry || pwcharObjectStoragePath_in == nullptr) {
        return _bstr_t(L"");
    }
    return _bstr_t(m_pCDorWEXBlackBerry->EnumerateDevicePath(pwcharObjectStoragePath_in, ulongContentType_in).c_str());
}

_bstr_t CDorWEXWPDObject::CopyFileToDevice3(const wchar_t* pwcharObjectStoragePath_in, const wchar_t* pwcharFileToCopy_in,
                                            const wchar_t* pwcharWriteToken_in) {
    Trace(L"CDorWEXWPDObject::CopyFileToDevice3 enter.\n");
    if (!m_pCompanionRecord || !m_pCDorWEXBlackBerry || pwcharObjectStoragePath_in == nullptr ||
        pwcharFileToCopy_in == nullptr || pwcharWriteToken_in == nullptr) {
        return _bstr_t(L"0");
    }
    return _bstr_t(m_pCDorWEXBlackBerry->CopyFileToDevice(pwcharObjectStoragePath_in, pwcharFileToCopy_in) ? L"1" : L"0");
}

HRESULT CDorWEXWPDObject::CopyFileFromDevice3(const wchar_t* pwcharObjectStoragePath_in,
                                              const wchar_t* pwcharLocalFileName_in) {
    Trace(L"CDorWEXWPDObject::CopyFileFromDevice3 enter.\n");
    if (!m_pCompanionRecord || !m_pCDorWEXBlackBerry || pwcharObjectStoragePath_in == nullptr ||
        pwcharLocalFileName_in == nullptr) {
        return E_FAIL;
    }
    ClearThreadErrorInfo();
    if (m_pCDorWEXBlackBerry->CopyFileFromDevice(pwcharObjectStoragePath_in, pwcharLocalFileName_in)) {
        return S_OK;
    }
    // A failure of the share's copy left its error object on the thread; a wait for the share that ran
    // out left none and is a plain failure.
    if (IErrorInfo* l_pErrorInfo = TakeThreadErrorInfo()) {
        RaiseComError(E_FAIL, l_pErrorInfo);
    }
    return E_FAIL;
}

int CDorWEXWPDObject::DeleteFileFromDevice3(const wchar_t* pwcharObjectStoragePath_in) {
    Trace(L"CDorWEXWPDObject::DeleteFileFromDevice3 enter.\n");
    const int l_intResult =
        m_pCDorWEXBlackBerry && m_pCDorWEXBlackBerry->DeleteFileFromDevice(pwcharObjectStoragePath_in) ? 1 : 0;
    Trace(L"CDorWEXWPDObject::DeleteFileFromDevice3 %s=%s", pwcharObjectStoragePath_in, l_intResult == 1 ? L"TRUE" : L"FALSE");
    return l_intResult;
}

HRESULT CDorWEXWPDObject::CreateFolderOnDevice3(const wchar_t* pwcharParentPath_in, const wchar_t* pwcharFolderName_in) {
    Trace(L"CDorWEXWPDObject::CreateFolderOnDevice3 enter.\n");
    if (!m_pCompanionRecord || !m_pCDorWEXBlackBerry || pwcharParentPath_in == nullptr || pwcharFolderName_in == nullptr) {
        return E_FAIL;
    }
    const std::wstring l_wstringPath = std::wstring(pwcharParentPath_in) + L"\\" + pwcharFolderName_in;
    return m_pCDorWEXBlackBerry->CreateFolderOnDevice(l_wstringPath.c_str()) ? S_OK : E_FAIL;
}

// Copy, then delete; 1 when the copy succeeded, whatever the delete did.
int CDorWEXWPDObject::MoveFileFromDevice3(const wchar_t* pwcharObjectStoragePath_in,
                                          const wchar_t* pwcharLocalFileName_in) {
    if (!CopiedFromDevice([&] { return CopyFileFromDevice3(pwcharObjectStoragePath_in, pwcharLocalFileName_in); })) {
        return 0;
    }
    DeleteFileFromDevice3(pwcharObjectStoragePath_in);
    return 1;
}

bool CDorWEXWPDObject::ConnectBlackBerryShare(const wchar_t* pwcharShare_in, const wchar_t* pwcharUser_in,
                                              const wchar_t* pwcharPassword_in, DWORD& dwordResult_out) {
    if (!m_pCDorWEXBlackBerry) {
        return false;
    }
    dwordResult_out = m_pCDorWEXBlackBerry->ConnectToDevice(pwcharShare_in, pwcharUser_in, pwcharPassword_in);
    return true;
}

void CDorWEXWPDObject::DisconnectBlackBerryShare() {
    if (m_pCDorWEXBlackBerry) {
        m_pCDorWEXBlackBerry->DisconnectFromDevice();
    }
}
