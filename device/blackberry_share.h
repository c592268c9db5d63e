// A BlackBerry's storage, reached as the network share the device exposes. The companion service sends the
// share's credentials; until they arrive, a copy from the device waits for the connection. File operations
// work on the share's paths (UNC names, used in their long form) and leave a COM error-info object on the
// calling thread when they fail. They take only canonical paths inside the device's own shares (its storage
// share and every share it connected); anything else is refused before any file call.
#pragma once

#include <windows.h>

#include <map>
#include <mutex>
#include <string>
#include <vector>

class CDorWEXBlackBerry {
public:
    static constexpr DWORD kConnectionWaitMs = 90000;

    CDorWEXBlackBerry();
    ~CDorWEXBlackBerry();
    CDorWEXBlackBerry(const CDorWEXBlackBerry&) = delete;
    CDorWEXBlackBerry& operator=(const CDorWEXBlackBerry&) = delete;

    // The network result (0 connected); no share does nothing and answers 0.
    DWORD ConnectToDevice(const wchar_t* pwcharShare_in, const wchar_t* pwcharUser_in, const wchar_t* pwcharPassword_in);
    // Cancels every connection this object made; a share whose cancel fails stays connected.
    void DisconnectFromDevice();

    bool CopyFileFromDevice(const wchar_t* pwcharSourceOnDevice_in, const wchar_t* pwcharLocalTarget_in);
    bool CopyFileToDevice(const wchar_t* pwcharTargetOnDevice_in, const wchar_t* pwcharLocalSource_in);
    bool CreateFolderOnDevice(const wchar_t* pwcharPath_in);
    bool DeleteFileFromDevice(const wchar_t* pwcharPath_in);
    std::wstring EnumerateDevicePath(const wchar_t* pwcharPath_in, ULONG ulongMode_in);
    std::wstring GetProperty(const wchar_t* pwcharPath_in, const wchar_t* pwcharName_in);

    std::map<std::wstring, std::wstring> m_mapProperties;
    std::wstring m_wstringShareName;
    volatile LONG m_longConnected = 0;
    HANDLE m_HANDLEEventConnected;
    // How long a copy from the device waits for the connection.
    DWORD m_dwordConnectionWaitMs = kConnectionWaitMs;

private:
    // Whether the path lies inside one of the device's shares; a refusal is traced with the operation's name.
    bool IsOwnPath(const wchar_t* pwcharPath_in, const wchar_t* pwcharOperation_in);

    std::mutex m_mutexShares;
    std::vector<std::wstring> m_vectorConnectedShares;  // every share a connect succeeded for, once each
};
