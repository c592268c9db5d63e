#include "blackberry_share.h"

#include <oleauto.h>

#include <cwchar>
#include <vector>

#include "../common/trace.h"
#include "../common/error_text.h"
#include "../channels/blackberry_text.h"
#include "blackberry_share_internal.h"
#include "wnet_api.h"

namespace {

// Case-blind, as the system compares share names.
bool SameShare(const std::wstring& wstringFirst_in, const std::wstring& wstringSecond_in) {
    return _wcsicmp(wstringFirst_in.c_str(), wstringSecond_in.c_str()) == 0;
}

// The traced text of a network result; an extended error asks the network for its own.
std::wstring ResultText(DWORD dwordResult_in, const std::wstring& wstringShare_in) {
    if (dwordResult_in != ERROR_EXTENDED_ERROR) {
        return dorwex::WNetResultText(dwordResult_in, wstringShare_in);
    }
    DWORD l_dwordError = 0;
    std::vector<wchar_t> l_Error(1024, L'\0');
    std::vector<wchar_t> l_Provider(1024, L'\0');
    if (WNetApi().pWNetGetLastErrorW(&l_dwordError, l_Error.data(), 1023, l_Provider.data(), 1023) != NO_ERROR) {
        return L"ERROR_EXTENDED_ERROR: A network - specific error occurred.  Call to WNetGetLastError function did "
               L"not return NO_ERROR.";
    }
    return std::wstring(L"ERROR_EXTENDED_ERROR: A network - specific error occurred.  Call to WNetGetLastError "
                        L"returned: Error: ") +
           l_Error.data() + L"Provider Name: " + l_Provider.data();
}

}  // namespace

std::wstring ShareSystemText(DWORD dwordError_in) {
    std::wstring l_wstringText;
    GetSystemErrorText(static_cast<HRESULT>(dwordError_in), l_wstringText);
    return l_wstringText;
}

void SetShareErrorInfo(const wchar_t* pwcharSource_in, DWORD dwordError_in) {
    ICreateErrorInfo* l_pCreateErrorInfo = nullptr;
    if (FAILED(CreateErrorInfo(&l_pCreateErrorInfo))) {
        return;
    }
    l_pCreateErrorInfo->SetSource(const_cast<LPOLESTR>(pwcharSource_in));
    std::wstring l_wstringDescription = ShareSystemText(dwordError_in);
    l_pCreateErrorInfo->SetDescription(&l_wstringDescription[0]);
    IErrorInfo* l_pErrorInfo = nullptr;
    if (SUCCEEDED(l_pCreateErrorInfo->QueryInterface(IID_IErrorInfo, reinterpret_cast<void**>(&l_pErrorInfo)))) {
        SetErrorInfo(0, l_pErrorInfo);
        l_pErrorInfo->Release();
    }
    l_pCreateErrorInfo->Release();
}

bool IsShareDirectory(const std::wstring& wstringPath_in) {
    const DWORD l_dwordAttributes = GetFileAttributesW(wstringPath_in.c_str());
    return l_dwordAttributes != INVALID_FILE_ATTRIBUTES && (l_dwordAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

CDorWEXBlackBerry::CDorWEXBlackBerry() : m_HANDLEEventConnected(CreateEventW(nullptr, TRUE, FALSE, nullptr)) {}

CDorWEXBlackBerry::~CDorWEXBlackBerry() {
    if (m_HANDLEEventConnected != nullptr) {
        CloseHandle(m_HANDLEEventConnected);
    }
}

DWORD CDorWEXBlackBerry::ConnectToDevice(const wchar_t* pwcharShare_in, const wchar_t* pwcharUser_in,
                                         const wchar_t* pwcharPassword_in) {
    if (pwcharShare_in == nullptr) {
        return 0;
    }
    NETRESOURCEW l_NetResource = {};
    l_NetResource.dwType = RESOURCETYPE_DISK;
    l_NetResource.lpRemoteName = const_cast<LPWSTR>(pwcharShare_in);
    const DWORD l_dwordResult =
        WNetApi().pWNetAddConnection2W(&l_NetResource, pwcharPassword_in, pwcharUser_in, CONNECT_TEMPORARY);
    Trace(L"CDorWEXBlackBerry::ConnectToDevice, WNetAddConnection2 %ld %s\n", static_cast<LONG>(l_dwordResult),
          ResultText(l_dwordResult, pwcharShare_in).c_str());
    if (l_dwordResult == NO_ERROR) {
        {
            std::lock_guard<std::mutex> l_guard(m_mutexShares);
            bool l_boolKnown = false;
            for (const auto& l_wstringShare : m_vectorConnectedShares) {
                l_boolKnown = l_boolKnown || SameShare(l_wstringShare, pwcharShare_in);
            }
            if (!l_boolKnown) {
                m_vectorConnectedShares.push_back(pwcharShare_in);
            }
        }
        InterlockedExchange(&m_longConnected, 1);
        SetEvent(m_HANDLEEventConnected);
        Trace(L"CDorWEXBlackBerry::ConnectToDevice, SetEvent(m_HANDLEEventConnected)");
    }
    return l_dwordResult;
}

void CDorWEXBlackBerry::DisconnectFromDevice() {
    Trace(L"CDorWEXBlackBerry::DisconnectFromDevice enter.\n");
    if (m_longConnected != 1) {
        return;
    }
    // Every share this object connected: its storage and the SD card the companion added.
    std::lock_guard<std::mutex> l_guard(m_mutexShares);
    for (auto l_Share = m_vectorConnectedShares.begin(); l_Share != m_vectorConnectedShares.end();) {
        const DWORD l_dwordResult = WNetApi().pWNetCancelConnection2W(l_Share->c_str(), CONNECT_UPDATE_PROFILE, TRUE);
        Trace(L"CDorWEXBlackBerry::DisconnectFromDevice, WNetCancelConnection2 %ld %s\n", static_cast<LONG>(l_dwordResult),
              ResultText(l_dwordResult, *l_Share).c_str());
        l_Share = l_dwordResult == NO_ERROR ? m_vectorConnectedShares.erase(l_Share) : l_Share + 1;
    }
    if (m_vectorConnectedShares.empty()) {
        InterlockedExchange(&m_longConnected, 0);
    }
}

bool CDorWEXBlackBerry::IsOwnPath(const wchar_t* pwcharPath_in, const wchar_t* pwcharOperation_in) {
    {
        std::lock_guard<std::mutex> l_guard(m_mutexShares);
        if (dorwex::IsPathInsideShare(pwcharPath_in, m_wstringShareName)) {
            return true;
        }
        for (const auto& l_wstringShare : m_vectorConnectedShares) {
            if (dorwex::IsPathInsideShare(pwcharPath_in, l_wstringShare)) {
                return true;
            }
        }
    }
    Trace(L"%s, refused <%s>: not inside the device's share.\n", pwcharOperation_in, pwcharPath_in);
    return false;
}

bool CDorWEXBlackBerry::CreateFolderOnDevice(const wchar_t* pwcharPath_in) {
    Trace(L"CDorWEXBlackBerry::CreateFolderOnDevice, enter.\n");
    if (pwcharPath_in == nullptr || !IsOwnPath(pwcharPath_in, L"CDorWEXBlackBerry::CreateFolderOnDevice")) {
        return false;
    }
    // The path exactly as given: this operation alone does not use the long form.
    if (!CreateDirectoryW(pwcharPath_in, nullptr)) {
        const DWORD l_dwordError = GetLastError();
        SetShareErrorInfo(L"CDorWEXBlackBerry::CreateFolderOnDevice", l_dwordError);
        Trace(L"CDorWEXBlackBerry::CreateFolderOnDevice, CreateDirectory failed %x: %s.\n", l_dwordError,
              ShareSystemText(l_dwordError).c_str());
        return false;
    }
    return true;
}

bool CDorWEXBlackBerry::DeleteFileFromDevice(const wchar_t* pwcharPath_in) {
    Trace(L"CDorWEXBlackBerry::DeleteFileFromDevice, enter.\n");
    if (pwcharPath_in == nullptr || !IsOwnPath(pwcharPath_in, L"CDorWEXBlackBerry::DeleteFileFromDevice")) {
        return false;
    }
    const std::wstring l_wstringPath = dorwex::LongSharePath(pwcharPath_in);
    const bool l_boolDirectory = IsShareDirectory(l_wstringPath);
    const BOOL l_BOOL = l_boolDirectory ? RemoveDirectoryW(l_wstringPath.c_str()) : DeleteFileW(l_wstringPath.c_str());
    if (!l_BOOL) {
        const DWORD l_dwordError = GetLastError();
        SetShareErrorInfo(L"CDorWEXBlackBerry::DeleteFileFromDevice", l_dwordError);
        Trace(L"CDorWEXBlackBerry::DeleteFileFromDevice, Delete %s failed %x: %s.\n",
              l_boolDirectory ? L"directory" : L"file", l_dwordError, ShareSystemText(l_dwordError).c_str());
        return false;
    }
    return true;
}

std::wstring CDorWEXBlackBerry::EnumerateDevicePath(const wchar_t* pwcharPath_in, ULONG ulongMode_in) {
    Trace(L"CDorWEXBlackBerry::EnumerateDevicePath, enter.\n");
    std::wstring l_wstringListing;
    if (pwcharPath_in == nullptr || !IsOwnPath(pwcharPath_in, L"CDorWEXBlackBerry::EnumerateDevicePath")) {
        return l_wstringListing;
    }
    WIN32_FIND_DATAW l_Found = {};
    HANDLE l_HANDLESearch = FindFirstFileW((dorwex::LongSharePath(pwcharPath_in) + L"\\*").c_str(), &l_Found);
    if (l_HANDLESearch == INVALID_HANDLE_VALUE) {
        return l_wstringListing;
    }
    do {
        if (wcscmp(l_Found.cFileName, L".") == 0 || wcscmp(l_Found.cFileName, L"..") == 0) {
            continue;
        }
        dorwex::AppendShareListingEntry(l_wstringListing, l_Found.cFileName,
                                        (l_Found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0, ulongMode_in);
    } while (FindNextFileW(l_HANDLESearch, &l_Found));
    FindClose(l_HANDLESearch);
    return l_wstringListing;
}

std::wstring CDorWEXBlackBerry::GetProperty(const wchar_t* pwcharPath_in, const wchar_t* pwcharName_in) {
    if (m_mapProperties.empty() || pwcharName_in == nullptr) {
        return std::wstring();
    }
    if (_wcsicmp(pwcharName_in, L"ALLPROPERTIES") == 0) {
        std::wstring l_wstringAll;
        for (const auto& l_Property : m_mapProperties) {
            if (!l_wstringAll.empty()) {
                l_wstringAll += L'~';
            }
            l_wstringAll += l_Property.first + L"^" + l_Property.second;
        }
        return l_wstringAll;
    }
    if (_wcsicmp(pwcharName_in, L"ObjectId") == 0) {
        return pwcharPath_in != nullptr && IsOwnPath(pwcharPath_in, L"CDorWEXBlackBerry::GetProperty") &&
                       GetFileAttributesW(dorwex::LongSharePath(pwcharPath_in).c_str()) != INVALID_FILE_ATTRIBUTES
                   ? std::wstring(pwcharPath_in)
                   : std::wstring();
    }
    const auto l_Found = m_mapProperties.find(pwcharName_in);
    if (l_Found == m_mapProperties.end()) {
        Trace(L"CDorWEXBlackBerry::GetProperty property %s not found.\n", pwcharName_in);
        return std::wstring();
    }
    Trace(L"CDorWEXBlackBerry::GetProperty property %s=<%s>\n", pwcharName_in, l_Found->second.c_str());
    return l_Found->second;
}
