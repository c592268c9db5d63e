// A BlackBerry: its share access on directories of the prefix, the network-connection calls answered by a
// double behind the WNet table, and the BlackBerry pipe with real pipe clients: credentials, the
// already-connected test, the try limit, file-write reports and the monitoring list.
#include <gtest/gtest.h>

#include <windows.h>
#include <oleauto.h>

#include <algorithm>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "channels/blackberry_named_pipe.h"
#include "channels/blackberry_text.h"
#include "device/blackberry_share.h"
#include "device/wnet_api.h"
#include "device/wpd_object.h"
#include "monitor/companion_processors.h"
#include "monitor/wpd_collection.h"
#include "monitor/wpd_core.h"
#include "support/system_text.h"
#include "support/test_files.h"
#include "support/test_trace_sink.h"
#include "support/trace_order.h"
#include "support/wait_until.h"
#include "support/wpd_emulator.h"

namespace {

// Network connections: every call recorded, results chosen by the test (in turn, then NO_ERROR).
class WNetDouble {
public:
    struct Connect {
        std::wstring remote, user, password;
        DWORD type, flags;
        bool localName;
    };
    WNetDouble() {
        s_current = this;
        m_previous = SetWNetApi(&kTable);
    }
    ~WNetDouble() {
        SetWNetApi(m_previous);
        s_current = nullptr;
    }
    std::vector<Connect> Connects() {
        std::lock_guard<std::mutex> guard(m_lock);
        return m_connects;
    }
    std::vector<std::wstring> Cancels() {
        std::lock_guard<std::mutex> guard(m_lock);
        return m_cancels;
    }
    void Answer(std::vector<DWORD> results) {
        std::lock_guard<std::mutex> guard(m_lock);
        m_results = std::move(results);
    }
    void AnswerCancels(std::vector<DWORD> results) {
        std::lock_guard<std::mutex> guard(m_lock);
        m_cancelResults = std::move(results);
    }
    DWORD lastErrorResult = NO_ERROR;

private:
    static DWORD WINAPI Add(LPNETRESOURCEW resource, LPCWSTR password, LPCWSTR user, DWORD flags) {
        WNetDouble& self = *s_current;
        std::lock_guard<std::mutex> guard(self.m_lock);
        self.m_connects.push_back({resource->lpRemoteName ? resource->lpRemoteName : L"", user ? user : L"",
                                   password ? password : L"", resource->dwType, flags, resource->lpLocalName != nullptr});
        if (self.m_results.empty()) {
            return NO_ERROR;
        }
        const DWORD result = self.m_results.front();
        self.m_results.erase(self.m_results.begin());
        return result;
    }
    static DWORD WINAPI Cancel(LPCWSTR name, DWORD flags, WINBOOL force) {
        WNetDouble& self = *s_current;
        std::lock_guard<std::mutex> guard(self.m_lock);
        self.m_cancels.push_back(std::wstring(name) + L"|" + std::to_wstring(flags) + L"|" + std::to_wstring(force));
        if (self.m_cancelResults.empty()) {
            return NO_ERROR;
        }
        const DWORD result = self.m_cancelResults.front();
        self.m_cancelResults.erase(self.m_cancelResults.begin());
        return result;
    }
    static DWORD WINAPI LastError(LPDWORD error, LPWSTR text, DWORD textSize, LPWSTR provider, DWORD providerSize) {
        *error = 1326;
        wcsncpy_s(text, textSize, L"bad password at the device", _TRUNCATE);
        wcsncpy_s(provider, providerSize, L"Emulated Network", _TRUNCATE);
        return s_current->lastErrorResult;
    }
    static inline WNetDouble* s_current = nullptr;
    static inline const DorWEXWNetApi kTable = {Add, Cancel, LastError};
    const DorWEXWNetApi* m_previous = nullptr;
    std::mutex m_lock;
    std::vector<Connect> m_connects;
    std::vector<std::wstring> m_cancels;
    std::vector<DWORD> m_results;
    std::vector<DWORD> m_cancelResults;
};

std::wstring ErrorSource() {
    IErrorInfo* info = nullptr;
    if (GetErrorInfo(0, &info) != S_OK || info == nullptr) {
        return L"<none>";
    }
    BSTR source = nullptr;
    info->GetSource(&source);
    std::wstring text = source != nullptr ? source : L"";
    SysFreeString(source);
    info->Release();
    return text;
}

// Removes a directory's content, and the directory itself when asked.
void RemoveTree(const std::wstring& directory, bool itself) {
    WIN32_FIND_DATAW found = {};
    HANDLE search = FindFirstFileW((directory + L"\\*").c_str(), &found);
    if (search != INVALID_HANDLE_VALUE) {
        do {
            const std::wstring name = found.cFileName;
            if (name == L"." || name == L"..") {
                continue;
            }
            if (found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) {
                RemoveTree(directory + L"\\" + name, true);
            } else {
                DeleteFileW((directory + L"\\" + name).c_str());
            }
        } while (FindNextFileW(search, &found));
        FindClose(search);
    }
    if (itself) {
        RemoveDirectoryW(directory.c_str());
    }
}

// The names in a directory, sorted ("." and ".." left out): what a failed operation must leave as it was.
std::vector<std::wstring> Names(const std::wstring& directory) {
    std::vector<std::wstring> names;
    WIN32_FIND_DATAW found = {};
    HANDLE search = FindFirstFileW((directory + L"\\*").c_str(), &found);
    if (search != INVALID_HANDLE_VALUE) {
        do {
            if (wcscmp(found.cFileName, L".") != 0 && wcscmp(found.cFileName, L"..") != 0) {
                names.push_back(found.cFileName);
            }
        } while (FindNextFileW(search, &found));
        FindClose(search);
    }
    std::sort(names.begin(), names.end());
    return names;
}

// The share \\host\name, empty. Wine serves a UNC path from the prefix's dosdevices\unc\host\name (no
// network is involved; on Windows this would be the BlackBerry's own share); the directory one level up,
// beside the share, is returned too, for what must stay out of reach.
std::wstring EmptyShare(const std::wstring& host, const std::wstring& name, std::wstring* pAbove = nullptr) {
    wchar_t prefix[MAX_PATH] = {};
    const DWORD length = GetEnvironmentVariableW(L"WINEPREFIX", prefix, MAX_PATH);
    EXPECT_TRUE(length > 0 && length < MAX_PATH) << "the tests run in a Wine prefix";
    std::wstring directory = std::wstring(L"Z:") + prefix;
    std::replace(directory.begin(), directory.end(), L'/', L'\\');
    for (const std::wstring& part : {std::wstring(L"dosdevices"), std::wstring(L"unc"), host}) {
        directory += L"\\" + part;
        CreateDirectoryW(directory.c_str(), nullptr);
    }
    if (pAbove != nullptr) {
        *pAbove = directory;
    }
    directory += L"\\" + name;
    RemoveTree(directory, true);
    CreateDirectoryW(directory.c_str(), nullptr);
    return L"\\\\" + host + L"\\" + name;
}

class BlackBerryShare : public testing::Test {
protected:
    void SetUp() override {
        share = EmptyShare(L"10.0.0.1", L"media", &above);
        local = emulator.Directory() + L"\\local";
        CreateDirectoryW(local.c_str(), nullptr);
        access.m_wstringShareName = share;
    }
    void TearDown() override { RemoveTree(above, false); }
    WpdEmulator emulator;  // for its scratch directory
    WNetDouble wnet;
    std::wstring share, local, above;
    CDorWEXBlackBerry access;
};

TEST_F(BlackBerryShare, FileOperationsOnTheSharesPaths) {
    access.m_dwordConnectionWaitMs = 300;
    emulator.WriteFile(share + L"\\a.jpg", "jpeg");
    CreateDirectoryW((share + L"\\music").c_str(), nullptr);

    TraceCapture trace(1);
    EXPECT_FALSE(access.CopyFileFromDevice((share + L"\\a.jpg").c_str(), (local + L"\\a.jpg").c_str()))
        << "no credentials yet: the copy waits for the connection, then gives up";
    EXPECT_TRUE(trace.Has(L"CDorWEXBlackBerry::CopyFileFromDevice TIMED OUT waiting for connection to device.\n"));

    EXPECT_EQ(access.ConnectToDevice(L"\\\\10.0.0.1\\media", L"user", L"secret"), 0u);
    EXPECT_TRUE(trace.Has(L"CDorWEXBlackBerry::ConnectToDevice, WNetAddConnection2 0 NO ERROR\n"));
    EXPECT_TRUE(access.CopyFileFromDevice((share + L"\\a.jpg").c_str(), (local + L"\\a.jpg").c_str()));
    EXPECT_EQ(ReadAll(local + L"\\a.jpg"), "jpeg") << "a local path is used as it is";

    emulator.WriteFile(local + L"\\up.txt", "uploaded");
    EXPECT_TRUE(access.CopyFileToDevice((share + L"\\music").c_str(), (local + L"\\up.txt").c_str()));
    EXPECT_EQ(ReadAll(share + L"\\music\\up.txt"), "uploaded") << "into the folder, under the file's name";
    EXPECT_FALSE(access.CopyFileToDevice((share + L"\\nowhere\\x.txt").c_str(), (local + L"\\up.txt").c_str()));
    EXPECT_EQ(ErrorSource(), L"CDorWEXBlackBerry::CopyFileToDevice");
    EXPECT_EQ(trace.StartingWith(L"CDorWEXBlackBerry::CopyFileToDevice, CopyFile failed 3: ").size(), 1u);

    EXPECT_EQ(access.EnumerateDevicePath(share.c_str(), 0), L"a.jpg@NA@FILE~music@NA@DIR");
    EXPECT_EQ(access.EnumerateDevicePath(share.c_str(), 1), L"music@NA@DIR");
    EXPECT_EQ(access.EnumerateDevicePath(share.c_str(), 2), L"a.jpg@NA@FILE");
    EXPECT_EQ(access.EnumerateDevicePath((share + L"\\missing").c_str(), 0), L"");

    EXPECT_TRUE(access.CreateFolderOnDevice((share + L"\\new").c_str()));
    EXPECT_FALSE(access.CreateFolderOnDevice((share + L"\\new").c_str())) << "it is there already";
    EXPECT_EQ(ErrorSource(), L"CDorWEXBlackBerry::CreateFolderOnDevice");
    EXPECT_TRUE(access.DeleteFileFromDevice((share + L"\\new").c_str())) << "a folder is removed as a folder";
    EXPECT_TRUE(access.DeleteFileFromDevice((share + L"\\a.jpg").c_str()));
    EXPECT_FALSE(access.DeleteFileFromDevice((share + L"\\a.jpg").c_str()));
    EXPECT_EQ(trace.StartingWith(L"CDorWEXBlackBerry::DeleteFileFromDevice, Delete file failed 2: ").size(), 1u);
    EXPECT_EQ(ErrorSource(), L"CDorWEXBlackBerry::DeleteFileFromDevice");

    access.m_mapProperties = {{L"BBPIN", L"2A3B4C5D"}, {L"IMEI", L"35"}};
    EXPECT_EQ(access.GetProperty(nullptr, L"allproperties"), L"BBPIN^2A3B4C5D~IMEI^35");
    EXPECT_EQ(access.GetProperty(share.c_str(), L"ObjectId"), share);
    EXPECT_EQ(access.GetProperty((share + L"\\gone").c_str(), L"ObjectId"), L"");
    EXPECT_EQ(access.GetProperty(nullptr, L"IMEI"), L"35");
    EXPECT_EQ(access.GetProperty(nullptr, L"imei"), L"") << "other names are looked up exactly";
    EXPECT_TRUE(trace.Has(L"CDorWEXBlackBerry::GetProperty property imei not found.\n"));
}

TEST_F(BlackBerryShare, ConnectionCallsAndTheirResultTexts) {
    TraceCapture trace(1);
    access.DisconnectFromDevice();
    EXPECT_TRUE(wnet.Cancels().empty()) << "never connected: nothing to cancel";

    wnet.Answer({53, 2202, 1231, 1208, 1208});
    wnet.lastErrorResult = ERROR_NO_NETWORK;
    for (int i = 0; i < 4; ++i) {
        access.ConnectToDevice(L"\\\\10.0.0.1\\media", L"user", L"secret");
    }
    wnet.lastErrorResult = NO_ERROR;
    access.ConnectToDevice(L"\\\\10.0.0.1\\media", L"user", L"secret");
    EXPECT_TRUE(trace.Has(L"CDorWEXBlackBerry::ConnectToDevice, WNetAddConnection2 53 ERROR_BAD_NETPATH: "
                          L"<\\\\10.0.0.1\\media> The network path was not found..\n"));
    EXPECT_TRUE(trace.Has(L"CDorWEXBlackBerry::ConnectToDevice, WNetAddConnection2 2202 ERROR_BAD_USERNAME: The "
                          L"specified user name is not valid.  Userid: BlackBerry\n"));
    EXPECT_TRUE(trace.Has(L"CDorWEXBlackBerry::ConnectToDevice, WNetAddConnection2 1231 Use FormatMessage to obtain "
                          L"the message string for the returned error.\n"));
    EXPECT_TRUE(trace.Has(L"CDorWEXBlackBerry::ConnectToDevice, WNetAddConnection2 1208 ERROR_EXTENDED_ERROR: A "
                          L"network - specific error occurred.  Call to WNetGetLastError function did not return "
                          L"NO_ERROR.\n"));
    EXPECT_TRUE(trace.Has(L"CDorWEXBlackBerry::ConnectToDevice, WNetAddConnection2 1208 ERROR_EXTENDED_ERROR: A "
                          L"network - specific error occurred.  Call to WNetGetLastError returned: Error: bad password "
                          L"at the device" L"Provider Name: Emulated Network\n"));
    EXPECT_EQ(access.m_longConnected, 0);
    EXPECT_EQ(WaitForSingleObject(access.m_HANDLEEventConnected, 0), static_cast<DWORD>(WAIT_TIMEOUT));

    const auto connects = wnet.Connects();
    ASSERT_EQ(connects.size(), 5u);
    EXPECT_EQ(connects[0].remote, L"\\\\10.0.0.1\\media");
    EXPECT_EQ(connects[0].type, static_cast<DWORD>(RESOURCETYPE_DISK));
    EXPECT_EQ(connects[0].flags, static_cast<DWORD>(CONNECT_TEMPORARY)) << "never remembered, never a drive";
    EXPECT_FALSE(connects[0].localName);

    EXPECT_EQ(access.ConnectToDevice(L"\\\\10.0.0.1\\media", L"user", L"secret"), 0u);
    EXPECT_EQ(WaitForSingleObject(access.m_HANDLEEventConnected, 0), WAIT_OBJECT_0);
    access.DisconnectFromDevice();
    ASSERT_EQ(wnet.Cancels().size(), 1u);
    EXPECT_EQ(wnet.Cancels()[0], L"\\\\10.0.0.1\\media|1|1") << "update profile, forced";
    EXPECT_EQ(access.m_longConnected, 0);
    for (const auto& line : trace.Lines()) {
        EXPECT_EQ(line.find(L"secret"), std::wstring::npos) << "no password in a trace: " << std::string(line.begin(), line.end());
    }
}

// Paths that are not inside the device's own shares, in any spelling, are refused before any file call: each
// operation fails with its line and nothing changes, outside the share or inside it. A second share the
// device connected (its SD card) is its own as well.
TEST_F(BlackBerryShare, PathsOutsideItsSharesAreRefusedBeforeAnyFileCall) {
    ASSERT_EQ(access.ConnectToDevice(share.c_str(), L"user", L"secret"), 0u);
    emulator.WriteFile(local + L"\\victim.txt", "keep");
    emulator.WriteFile(local + L"\\up.txt", "up");
    emulator.WriteFile(above + L"\\beside.txt", "keep");
    CreateDirectoryW((above + L"\\other").c_str(), nullptr);
    emulator.WriteFile(above + L"\\other\\b.jpg", "keep");
    emulator.WriteFile(share + L"\\a.jpg", "jpeg");
    const std::wstring outside[] = {
        local + L"\\victim.txt",
        L"\\\\?\\" + local + L"\\victim.txt",
        share + L"\\..\\beside.txt",
        L"\\\\?\\UNC\\10.0.0.1\\media\\..\\beside.txt",
        L"\\\\10.0.0.1\\other\\b.jpg",
        L"\\\\10.0.0.1\\media\\a.jpg:hidden",
        L"\\\\10.0.0.1\\media/../other/b.jpg",
    };
    TraceCapture trace(1);
    for (const auto& path : outside) {
        const std::string what(path.begin(), path.end());
        EXPECT_FALSE(access.DeleteFileFromDevice(path.c_str())) << what;
        EXPECT_TRUE(trace.Has(L"CDorWEXBlackBerry::DeleteFileFromDevice, refused <" + path +
                              L">: not inside the device's share.\n"))
            << what;
        EXPECT_FALSE(access.CreateFolderOnDevice((path + L"x").c_str())) << what;
        EXPECT_EQ(access.GetProperty(path.c_str(), L"ObjectId"), L"") << what;
        EXPECT_FALSE(access.CopyFileFromDevice(path.c_str(), (local + L"\\stolen.txt").c_str())) << what;
        EXPECT_FALSE(access.CopyFileToDevice(path.c_str(), (local + L"\\up.txt").c_str())) << what;
    }
    EXPECT_EQ(access.EnumerateDevicePath(local.c_str(), 0), L"");
    EXPECT_EQ(access.EnumerateDevicePath((share + L"\\..").c_str(), 0), L"");
    EXPECT_EQ(trace.StartingWith(L"CDorWEXBlackBerry::EnumerateDevicePath, refused <").size(), 2u);
    EXPECT_EQ(ReadAll(local + L"\\victim.txt"), "keep");
    EXPECT_EQ(ReadAll(above + L"\\beside.txt"), "keep");
    EXPECT_EQ(ReadAll(above + L"\\other\\b.jpg"), "keep");
    EXPECT_EQ(Names(local), (std::vector<std::wstring>{L"up.txt", L"victim.txt"}));
    EXPECT_EQ(Names(above), (std::vector<std::wstring>{L"beside.txt", L"media", L"other"}));
    EXPECT_EQ(Names(share), std::vector<std::wstring>{L"a.jpg"});

    // Once the device connected its second share, that one is its own too.
    ASSERT_EQ(access.ConnectToDevice(L"\\\\10.0.0.1\\other", L"user", L"secret"), 0u);
    EXPECT_TRUE(access.CopyFileFromDevice(L"\\\\10.0.0.1\\other\\b.jpg", (local + L"\\b.jpg").c_str()));
    EXPECT_EQ(ReadAll(local + L"\\b.jpg"), "keep");
}

// A copy replaces its target only once the whole file has arrived: one that fails leaves the target as it
// was and no file of its own beside it, in either direction. The caller's impersonation is in force again
// after every copy, and a copy made without one leaves none behind.
TEST_F(BlackBerryShare, ACopyReplacesItsTargetWholeOrNotAtAll) {
    ASSERT_EQ(access.ConnectToDevice(share.c_str(), L"user", L"secret"), 0u);
    const std::string fromDevice(300000, 'j'), toDevice(200000, 'u');
    emulator.WriteFile(share + L"\\a.jpg", fromDevice);
    emulator.WriteFile(share + L"\\up.txt", "old on the device");
    emulator.WriteFile(local + L"\\a.jpg", "old local");
    emulator.WriteFile(local + L"\\up.txt", toDevice);
    const auto impersonating = [] {
        HANDLE token = nullptr;
        if (!OpenThreadToken(GetCurrentThread(), TOKEN_QUERY, TRUE, &token)) {
            return false;
        }
        CloseHandle(token);
        return true;
    };
    ASSERT_TRUE(ImpersonateSelf(SecurityImpersonation));
    EXPECT_FALSE(access.CopyFileFromDevice((share + L"\\missing.jpg").c_str(), (local + L"\\a.jpg").c_str()));
    EXPECT_TRUE(impersonating());
    EXPECT_FALSE(access.CopyFileToDevice((share + L"\\up.txt").c_str(), (local + L"\\missing.txt").c_str()));
    EXPECT_TRUE(impersonating());
    EXPECT_FALSE(access.CopyFileFromDevice((share + L"\\a.jpg").c_str(), (local + L"\\nowhere\\a.jpg").c_str()));
    EXPECT_EQ(ReadAll(local + L"\\a.jpg"), "old local");
    EXPECT_EQ(ReadAll(share + L"\\up.txt"), "old on the device");
    EXPECT_EQ(Names(local), (std::vector<std::wstring>{L"a.jpg", L"up.txt"}));
    EXPECT_EQ(Names(share), (std::vector<std::wstring>{L"a.jpg", L"up.txt"}));

    EXPECT_TRUE(access.CopyFileFromDevice((share + L"\\a.jpg").c_str(), (local + L"\\a.jpg").c_str()));
    EXPECT_TRUE(impersonating());
    EXPECT_TRUE(access.CopyFileFromDevice((share + L"\\a.jpg").c_str(), (local + L"\\new.jpg").c_str()));
    EXPECT_TRUE(access.CopyFileToDevice((share + L"\\up.txt").c_str(), (local + L"\\up.txt").c_str()));
    EXPECT_TRUE(impersonating());
    ASSERT_TRUE(RevertToSelf());
    EXPECT_TRUE(access.CopyFileToDevice(share.c_str(), (local + L"\\new.jpg").c_str())) << "into the share's root";
    EXPECT_FALSE(impersonating());
    EXPECT_EQ(ReadAll(local + L"\\a.jpg"), fromDevice);
    EXPECT_EQ(ReadAll(local + L"\\new.jpg"), fromDevice);
    EXPECT_EQ(ReadAll(share + L"\\up.txt"), toDevice);
    EXPECT_EQ(ReadAll(share + L"\\new.jpg"), fromDevice);
    EXPECT_EQ(Names(local), (std::vector<std::wstring>{L"a.jpg", L"new.jpg", L"up.txt"}));
    EXPECT_EQ(Names(share), (std::vector<std::wstring>{L"a.jpg", L"new.jpg", L"up.txt"}));
}

// Each file operation on the share, one call each: its lines exactly, in order (a missing path ends an
// operation after its first line; a failure names the call, the code, the system's text and the paths).
TEST_F(BlackBerryShare, EachFileOperationTracesItsStepsAndFailures) {
    access.m_dwordConnectionWaitMs = 300;
    emulator.WriteFile(share + L"\\a.jpg", "jpeg");
    emulator.WriteFile(local + L"\\up.txt", "up");
    access.m_mapProperties = {{L"IMEI", L"35"}};
    ASSERT_EQ(access.ConnectToDevice(L"\\\\10.0.0.1\\media", L"user", L"secret"), 0u);
    const std::wstring copyFrom = L"CDorWEXBlackBerry::CopyFileFromDevice enter.\r\n";
    const std::wstring waiting = L"CDorWEXBlackBerry::CopyFileFromDevice waiting for connection to device.\r\n";
    const std::wstring copyTo = L"CDorWEXBlackBerry::CopyFileToDevice, enter.\r\n";
    const std::wstring folder = L"CDorWEXBlackBerry::CreateFolderOnDevice, enter.\r\n";
    const std::wstring remove = L"CDorWEXBlackBerry::DeleteFileFromDevice, enter.\r\n";
    const std::wstring missingSource = share + L"\\missing.jpg";
    const std::wstring noFolder = share + L"\\nowhere\\x.txt";
    const struct {
        const char* what;
        std::function<bool()> call;
        bool result;
        std::vector<std::wstring> lines;
    } cases[] = {
        {"copy from without a target", [&] { return access.CopyFileFromDevice(missingSource.c_str(), nullptr); },
         false, {copyFrom}},
        {"copy from", [&] { return access.CopyFileFromDevice((share + L"\\a.jpg").c_str(), (local + L"\\a.jpg").c_str()); },
         true, {copyFrom, waiting}},
        {"copy from a missing file",
         [&] { return access.CopyFileFromDevice(missingSource.c_str(), (local + L"\\m.jpg").c_str()); }, false,
         {copyFrom, waiting, L"CDorWEXBlackBerry::CopyFileFromDevice, CopyFile failed 2:\r\n",
          L"CDorWEXBlackBerry::CopyFileFromDevice, failed:source:<" + dorwex::LongSharePath(missingSource) + L">, target:<" + local +
              L"\\m.jpg>.\r\n"}},
        {"copy to without a source", [&] { return access.CopyFileToDevice(share.c_str(), nullptr); }, false, {copyTo}},
        {"copy to", [&] { return access.CopyFileToDevice(share.c_str(), (local + L"\\up.txt").c_str()); }, true,
         {copyTo}},
        {"copy to a missing folder",
         [&] { return access.CopyFileToDevice(noFolder.c_str(), (local + L"\\up.txt").c_str()); }, false,
         {copyTo, L"CDorWEXBlackBerry::CopyFileToDevice, CopyFile failed 3: " + SystemText(3) + L": source:<" +
                      local + L"\\up.txt>, target:<" + dorwex::LongSharePath(noFolder) + L">.\r\n"}},
        {"new folder", [&] { return access.CreateFolderOnDevice((share + L"\\new").c_str()); }, true, {folder}},
        {"new folder that is there",
         [&] { return access.CreateFolderOnDevice((share + L"\\new").c_str()); }, false,
         {folder, L"CDorWEXBlackBerry::CreateFolderOnDevice, CreateDirectory failed b7: " + SystemText(183) +
                      L".\r\n"}},
        {"delete a folder", [&] { return access.DeleteFileFromDevice((share + L"\\new").c_str()); }, true, {remove}},
        {"delete a missing file", [&] { return access.DeleteFileFromDevice(missingSource.c_str()); }, false,
         {remove, L"CDorWEXBlackBerry::DeleteFileFromDevice, Delete file failed 2: " + SystemText(2) + L".\r\n"}},
        {"listing", [&] { return access.EnumerateDevicePath(share.c_str(), 0) == L"a.jpg@NA@FILE~up.txt@NA@FILE"; },
         true, {L"CDorWEXBlackBerry::EnumerateDevicePath, enter.\r\n"}},
        {"a property", [&] { return access.GetProperty(nullptr, L"IMEI") == L"35"; }, true,
         {L"CDorWEXBlackBerry::GetProperty property IMEI=<35>\r\n"}},
    };
    for (const auto& c : cases) {
        TraceCapture trace(1);
        EXPECT_EQ(c.call(), c.result) << c.what;
        EXPECT_EQ(trace.Lines(), c.lines) << c.what;
    }
}

// Every result of a connect and of a disconnect is traced with its number and its text, each text exactly as
// it is given (the share name where the text names it, the fixed user word of 2202, the network's own error
// for 1208); a code without a text of its own gets the hint to ask the system. One call per code: the exact
// lines in order.
TEST_F(BlackBerryShare, EveryNetworkResultIsTracedWithItsText) {
    const std::wstring name = L"\\\\10.0.0.1\\media";
    const struct {
        DWORD code;
        const wchar_t* text;
    } cases[] = {
        {5,
         L"ERROR_ACCESS_DENIED: The caller does not have access to the network resource."},
        {53,
         L"ERROR_BAD_NETPATH: <\\\\10.0.0.1\\media> The network path was not found.."},
        {66,
         L"ERROR_BAD_DEV_TYPE: The type of local device and the type of network resource do not match."},
        {67,
         L"ERROR_BAD_NET_NAME: The network name cannot be found.This value is returned if the"
         L" lpRemoteName member of the NETRESOURCE structure pointed to by the lpNetResource parameter"
         L" specifies a resource that is not acceptable to any network resource provider, either"
         L" because the resource name is empty, not valid, or because the named resource cannot be"
         L" located."},
        {85,
         L"ERROR_ALREADY_ASSIGNED: The local device specified by the lpLocalName member is already"
         L" connected to a network resource."},
        {86,
         L"ERROR_INVALID_PASSWORD: The specified password is invalid and the CONNECT_INTERACTIVE flag"
         L" is not set."},
        {87,
         L"ERROR_INVALID_PARAMETER: A parameter is incorrect.This error is returned if the dwType"
         L" member of the NETRESOURCE structure pointed to by the lpNetResource parameter specifies a"
         L" value other than RESOURCETYPE_DISK, RESOURCETYPE_PRINT, or RESOURCETYPE_ANY.This error is"
         L" also returned if the dwFlags parameter specifies an incorrect or unknown value."},
        {170,
         L"ERROR_BUSY: The router or provider is busy, possibly initializing.  The caller should retry."},
        {487,
         L"ERROR_INVALID_ADDRESS: An attempt was made to access an invalid address.This error is"
         L" returned if the dwFlags parameter specifies a value of CONNECT_REDIRECT, but the"
         L" lpLocalName member of the NETRESOURCE structure pointed to by the lpNetResource parameter"
         L" was unspecified."},
        {1200,
         L"ERROR_BAD_DEVICE: The specified device name is not valid.This error is returned if the"
         L" lpLocalName member of the NETRESOURCE structure pointed to by the lpNetResource parameter"
         L" specifies a device that is not redirectable."},
        {1202,
         L"ERROR_DEVICE_ALREADY_REMEMBERED: The local device name has a remembered connection to"
         L" another network resource.This error is returned if an entry for the device specified by"
         L" lpLocalName member of the NETRESOURCE structure pointed to by the lpNetResource parameter"
         L" specifies a value that is already in the user profile for a different connection than that"
         L" specified in the lpNetResource parameter."},
        {1203,
         L"ERROR_NO_NET_OR_BAD_PATH: No network provider accepted the given network path.This error is"
         L" returned if no network provider recognized the lpRemoteName member of the NETRESOURCE"
         L" structure pointed to by the lpNetResource parameter."},
        {1204,
         L"ERROR_BAD_PROVIDER: The specified network provider name is not valid.This error is returned"
         L" if the lpProvider member of the NETRESOURCE structure pointed to by the lpNetResource"
         L" parameter specifies a value that does not match any network provider."},
        {1205,
         L"ERROR_CANNOT_OPEN_PROFILE: The system is unable to open the user profile to process"
         L" persistent connections."},
        {1206,
         L"ERROR_BAD_PROFILE: The user profile is in an incorrect format."},
        {1219,
         L"Multiple connections to a server or shared resource by the same user, using more than one"
         L" user name, are not allowed. Disconnect all previous connections to the server or shared"
         L" resource and try again."},
        {1222,
         L"ERROR_NO_NETWORK: The network is unavailable."},
        {1223,
         L"ERROR_CANCELLED: The attempt to make the connection was canceled by the user through a"
         L" dialog box from one of the network resource providers, or by a called resource."},
        {1312,
         L"ERROR_NO_SUCH_LOGON_SESSION: <\\\\10.0.0.1\\media> A specified logon session does not"
         L" exist. It may already have been terminated."},
        {1326,
         L"ERROR_LOGON_FAILURE: A logon failure because of an unknown user name or a bad password."},
        {2202,
         L"ERROR_BAD_USERNAME: The specified user name is not valid.  Userid: BlackBerry"},
        {1208,
         L"ERROR_EXTENDED_ERROR: A network - specific error occurred.  Call to WNetGetLastError"
         L" returned: Error: bad password at the deviceProvider Name: Emulated Network"},
        {1231,
         L"Use FormatMessage to obtain the message string for the returned error."},
        {2,
         L"Use FormatMessage to obtain the message string for the returned error."},
        {0,
         L"NO ERROR"},
    };
    for (const auto& c : cases) {
        wnet.Answer({c.code});
        TraceCapture trace(1);
        EXPECT_EQ(access.ConnectToDevice(name.c_str(), L"user", L"secret"), c.code);
        std::vector<std::wstring> expected = {L"CDorWEXBlackBerry::ConnectToDevice, WNetAddConnection2 " +
                                              std::to_wstring(c.code) + L" " + c.text + L"\r\n"};
        if (c.code == NO_ERROR) {
            expected.push_back(L"CDorWEXBlackBerry::ConnectToDevice, SetEvent(m_HANDLEEventConnected)\r\n");
        }
        EXPECT_EQ(trace.Lines(), expected) << c.code;
        EXPECT_EQ(access.m_longConnected, c.code == NO_ERROR ? 1 : 0) << c.code;
    }
    ASSERT_EQ(access.m_longConnected, 1) << "the last connect succeeded";
    // The disconnect form, while connected: a failed cancel leaves the connection as it was.
    for (const auto& c : cases) {
        wnet.AnswerCancels({c.code});
        TraceCapture trace(1);
        access.DisconnectFromDevice();
        const std::vector<std::wstring> expected = {
            L"CDorWEXBlackBerry::DisconnectFromDevice enter.\r\n",
            L"CDorWEXBlackBerry::DisconnectFromDevice, WNetCancelConnection2 " + std::to_wstring(c.code) + L" " +
                c.text + L"\r\n"};
        EXPECT_EQ(trace.Lines(), expected) << c.code;
        EXPECT_EQ(access.m_longConnected, c.code == NO_ERROR ? 0 : 1) << c.code;
    }
    TraceCapture trace(1);
    access.DisconnectFromDevice();
    EXPECT_EQ(trace.Lines(), std::vector<std::wstring>{L"CDorWEXBlackBerry::DisconnectFromDevice enter.\r\n"})
        << "no longer connected: nothing to cancel";
}

TEST(BlackBerryMonitoring, ListKeyedByShareName) {
    WNetDouble wnet;
    CDorWEXWMIBlackBerryEventsListener listener(nullptr);
    CDorWEXWPDObject first(nullptr), again(nullptr), upper(nullptr), bare(nullptr), unnamed(nullptr);
    for (CDorWEXWPDObject* device : {&first, &again, &bare}) {
        device->UpdateIdentity([](DeviceIdentity& identity) { identity.m_bstr_tDisk1Name = L"\\\\10.0.0.1\\media"; });
    }
    upper.UpdateIdentity([](DeviceIdentity& identity) { identity.m_bstr_tDisk1Name = L"\\\\10.0.0.1\\MEDIA"; });
    first.m_pCDorWEXBlackBerry = std::make_unique<CDorWEXBlackBerry>();
    again.m_pCDorWEXBlackBerry = std::make_unique<CDorWEXBlackBerry>();
    upper.m_pCDorWEXBlackBerry = std::make_unique<CDorWEXBlackBerry>();
    TraceCapture trace(1);
    EXPECT_EQ(listener.AddBlackBerryToMonitoring(nullptr), 0);
    EXPECT_EQ(trace.Lines(),
              (std::vector<std::wstring>{
                  L"CDorWEXWMIBlackBerryEventsListener::AddBlackBerryToMonitoring entered...\r\n",
                  L"CDorWEXWMIBlackBerryEventsListener::AddBlackBerryToMonitoring, ERROR: pCDorWEXWPDObject_in == NULL\r\n"}));
    EXPECT_EQ(listener.AddBlackBerryToMonitoring(&unnamed), 0);
    EXPECT_TRUE(trace.Has(L"CDorWEXWMIBlackBerryEventsListener::AddBlackBerryToMonitoring, ERROR: "
                          L"pCDorWEXWPDObject_in->m_bstr_tDisk1Name.length() == 0\n"));
    EXPECT_EQ(listener.AddBlackBerryToMonitoring(&first), 1);
    EXPECT_EQ(listener.AddBlackBerryToMonitoring(&again), 0);
    EXPECT_TRUE(trace.Has(L"CDorWEXWMIBlackBerryEventsListener::AddBlackBerryToMonitoring, \\\\10.0.0.1\\media already in "
                          L"m_mapOfUNCToDiskProperties, skipping add operation\n"));
    EXPECT_EQ(listener.AddBlackBerryToMonitoring(&upper), 1) << "keys differing in case are two entries";
    EXPECT_EQ(listener.MonitoredCount(), 2u);

    // Removing the first entry: never connected, so nothing is cancelled.
    EXPECT_EQ(listener.RemoveBlackBerryFromMonitoring(&again), 1) << "the entry goes by its share name";
    EXPECT_TRUE(wnet.Cancels().empty());
    EXPECT_EQ(listener.RemoveBlackBerryFromMonitoring(&first), 0);

    // A device without share access is listed all the same, and removed without a disconnect.
    EXPECT_EQ(listener.AddBlackBerryToMonitoring(&bare), 0);
    EXPECT_TRUE(trace.Has(L"CDorWEXWMIBlackBerryEventsListener::AddBlackBerryToMonitoring, ERROR: "
                          L"l_pDiskProperties->pCDorWEXBlackBerry == NULL\n"));
    EXPECT_EQ(listener.MonitoredCount(), 2u);
    EXPECT_EQ(listener.RemoveBlackBerryFromMonitoring(&bare), 1);

    // A connected share is disconnected when its device leaves the list.
    upper.m_pCDorWEXBlackBerry->m_wstringShareName = L"\\\\10.0.0.1\\MEDIA";
    upper.m_pCDorWEXBlackBerry->ConnectToDevice(L"\\\\10.0.0.1\\MEDIA", L"u", L"p");
    EXPECT_EQ(listener.RemoveBlackBerryFromMonitoring(&upper), 1);
    ASSERT_EQ(wnet.Cancels().size(), 1u);
    EXPECT_EQ(listener.MonitoredCount(), 0u);
}

// A BlackBerry the emulated stack cannot open, known by its property record.
EmulatedDeviceSpec BlackBerrySpec() {
    EmulatedDeviceSpec spec;
    spec.id = "usb#vid_0fca&pid_8004#bb";
    spec.categories = "";
    spec.registryLines = {"BBPIN = 2A3B4C5D", "IMEI = 356938035643809", "DHCPServer = 10.0.0.1"};
    spec.faultLines = {"Open = 0x80070005"};
    return spec;
}

class BlackBerryPipe : public testing::Test {
protected:
    void SetUp() override {
        emulator.Attach(BlackBerrySpec());
        ASSERT_EQ(core.Initialize(), 1);
        ASSERT_EQ(core.GetCollection()->AddWPD(L"usb#vid_0fca&pid_8004#bb"), S_OK);
        device = std::dynamic_pointer_cast<CDorWEXWPDObject>(core.GetCollection()->FindWPDObjectById(L"usb#vid_0fca&pid_8004#bb"));
        ASSERT_TRUE(device);
        ASSERT_EQ(device->Identity()->m_eManufacturer, dorwex::Manufacturer::BLACKBERRY);
        client = OpenPipeClient(kDorWEXBlackBerryPipeName);
        ASSERT_NE(client, INVALID_HANDLE_VALUE);
    }
    void TearDown() override {
        std::wstring host;
        EmptyShare(L"10.0.0.1", L"media", &host);
        RemoveTree(host, false);
        if (client != INVALID_HANDLE_VALUE) {
            CloseHandle(client);
        }
        device.reset();
        core.GetCollection()->RemoveWPD(L"usb#vid_0fca&pid_8004#bb");
    }
    // Sends a message and waits until the pipe worker has handled it.
    void Exchange(const std::wstring& message, const std::wstring& handled) {
        const size_t before = trace.Count(handled);
        ASSERT_TRUE(SendText(client, message));
        ASSERT_TRUE(WaitUntil([&] { return trace.Count(handled) > before; })) << std::string(message.begin(), message.end());
    }
    IDorWEXBlackBerryChannel* Listener() {
        return core.GetBlackBerryEventsProcessor() ? core.GetBlackBerryEventsProcessor()->GetListener() : nullptr;
    }

    WpdEmulator emulator;
    WNetDouble wnet;
    TraceCapture trace{1};
    CDorWEXWMIWPDCore core;
    std::shared_ptr<CDorWEXWPDObject> device;
    HANDLE client = INVALID_HANDLE_VALUE;
};

const wchar_t kCredentials[] = L"BlackBerryCredentials*t2*\\\\10.0.0.1\\media*bbuser*secret";
const wchar_t kDecided[] = L"CDorWEXWMIBlackBerryNamedPipe::ProcessData2 enter.\n";

TEST_F(BlackBerryPipe, CredentialsConnectOnceAndTheSameCredentialsDoNotReconnect) {
    ASSERT_NE(Listener(), nullptr);
    EXPECT_EQ(Listener()->MonitoredCount(), 1u) << "the device's share is watched";
    EXPECT_EQ(std::wstring(device->Identity()->m_bstr_tDisk1Name), L"\\\\10.0.0.1\\media");

    Exchange(kCredentials, L"CDorWEXWMIBlackBerryNamedPipe::IsAlreadyConnected: FALSE\n");
    ASSERT_TRUE(WaitUntil([&] { return wnet.Connects().size() == 1; }));
    EXPECT_EQ(wnet.Connects()[0].user, L"bbuser");
    EXPECT_EQ(wnet.Connects()[0].password, L"secret");
    Exchange(kCredentials, L"CDorWEXWMIBlackBerryNamedPipe::IsAlreadyConnected: TRUE\n");
    Exchange(L"BlackBerryCredentials*t2*\\\\10.0.0.1\\media*BBUSER*secret", L"CDorWEXWMIBlackBerryNamedPipe::IsAlreadyConnected: FALSE\n");
    EXPECT_TRUE(WaitUntil([&] { return wnet.Connects().size() == 2; })) << "a user name differing in case is other credentials";

    // A share the device did not name: its SD card, the second storage.
    Exchange(L"BlackBerryCredentials*t2*\\\\10.0.0.1\\sdcard*bbuser*secret", L"CDorWEXWMIBlackBerryNamedPipe::ProcessCredentials enter.");
    // Messages of one client are handled in order: once the next one is, the SD card's is complete.
    Exchange(L"BlackBerryCredentials*t2*\\\\10.0.0.1\\DTM*bbuser*secret", L"CDorWEXWMIBlackBerryNamedPipe::FilterShare, filtering \\DTM\n");
    EXPECT_EQ(std::wstring(device->Identity()->m_bstr_tDisk2Name), L"\\\\10.0.0.1\\sdcard");
    EXPECT_EQ(std::wstring(device->Identity()->m_bstr_tDisk2Description), L"SD Card in BB device");
    EXPECT_EQ(wnet.Connects().size(), 3u) << "a filtered share is not connected";

    for (const auto& line : trace.Lines()) {
        EXPECT_EQ(line.find(L"secret"), std::wstring::npos) << "no password in a trace";
    }
    // The device leaves: every share it connected (its storage and its SD card) is disconnected, and it is
    // no longer watched.
    core.GetCollection()->RemoveWPD(L"usb#vid_0fca&pid_8004#bb");
    EXPECT_TRUE(trace.Has(L"CDorWEXWMIBlackBerryEventsListener::RemoveBlackBerryFromMonitoring removed \\\\10.0.0.1\\media\n"));
    EXPECT_EQ(wnet.Cancels(), (std::vector<std::wstring>{L"\\\\10.0.0.1\\media|1|1", L"\\\\10.0.0.1\\sdcard|1|1"}));
}

// The record keeps the last credentials that connected; failures with other credentials count against it.
// After exactly ten, the stored credentials are skipped once, then tried again.
TEST_F(BlackBerryPipe, TheTryLimitSkipsExactlyOnceAtTen) {
    std::vector<DWORD> answers(1, NO_ERROR);
    answers.insert(answers.end(), 10, 1326);
    wnet.Answer(answers);
    Exchange(kCredentials, L"CDorWEXWMIBlackBerryNamedPipe::IsAlreadyConnected: FALSE\n");
    const std::wstring wrong = L"BlackBerryCredentials*t2*\\\\10.0.0.1\\media*bbuser*wrong";
    for (int i = 0; i < 10; ++i) {
        Exchange(wrong, L"CDorWEXWMIBlackBerryNamedPipe::IsAlreadyConnected: FALSE\n");
    }
    ASSERT_TRUE(WaitUntil([&] { return wnet.Connects().size() == 11; }));
    Exchange(kCredentials, L"CDorWEXWMIBlackBerryNamedPipe::IsAlreadyConnected: TRUE\n");
    EXPECT_TRUE(trace.Has(L"CDorWEXWMIBlackBerryNamedPipe::IsAlreadyConnected: tried to connect to \\\\10.0.0.1\\media "
                          L"10 times without success, will not try anymore.\n"));
    EXPECT_EQ(wnet.Connects().size(), 11u) << "that message is skipped";
    Exchange(kCredentials, L"CDorWEXWMIBlackBerryNamedPipe::IsAlreadyConnected: FALSE\n");
    EXPECT_TRUE(WaitUntil([&] { return wnet.Connects().size() == 12; })) << "and the next one is tried again";
    EXPECT_EQ(trace.Count(L"CDorWEXWMIBlackBerryNamedPipe::IsAlreadyConnected: tried to connect to \\\\10.0.0.1\\media "
                          L"10 times without success, will not try anymore.\n"),
              1u);
}

// The last BlackBerry leaves: its session ends first, then its share leaves monitoring, then monitoring
// stops, and the device object goes before the entry's line.
TEST_F(BlackBerryPipe, RemovalTerminatesThenLeavesMonitoringThenStopsThenDestroys) {
    device.reset();
    trace.Clear();
    EXPECT_EQ(core.GetCollection()->RemoveWPD(L"usb#vid_0fca&pid_8004#bb"), 0);
    const std::vector<std::wstring> order = {
        L"CDorWEXWPDCollection::RemoveWPD",
        L"CDorWEXWPDObject::Terminate",
        L"CDorWEXWMIBlackBerryEventsListener::RemoveBlackBerryFromMonitoring entered...\n",
        L"CDorWEXWMIBlackBerryEventsListener::RemoveBlackBerryFromMonitoring removed \\\\10.0.0.1\\media\n",
        L"CDorWEXWPDCollection::RemoveWPD, stopping blackberry monitoring...",
        L"CDorWEXWMIWPDCore::StopBlackBerryMonitoring",
        L"CDorWEXWPDObject::~CDorWEXWPDObject",
        L"CDorWEXWPDCollection::AddWPD, m_ActiveWpdDevicesMap.erase.\n",
    };
    ExpectInOrder(trace, order);
    EXPECT_FALSE(core.HasBlackBerryMonitoring());
}

// A copy off the device that the share refuses raises a COM error with the share's error object: what
// failed and the system's reason. One whose wait for the share runs out is a plain failure.
// Each operation on a BlackBerry names itself, then its BlackBerry variant; a delete then tells its outcome,
// the variant's line first. The share access object does the work.
TEST_F(BlackBerryPipe, EachOperationNamesItsBlackBerryVariant) {
    const std::wstring folder = EmptyShare(L"10.0.0.1", L"media");
    emulator.WriteFile(folder + L"\\a.jpg", "jpeg");
    emulator.WriteFile(emulator.Directory() + L"\\up.txt", "up");
    ASSERT_EQ(device->m_pCDorWEXBlackBerry->ConnectToDevice(L"\\\\10.0.0.1\\media", L"bbuser", L"secret"), 0u);
    const std::wstring copied = emulator.Directory() + L"\\a-copy.jpg";
    const std::wstring upload = emulator.Directory() + L"\\up.txt";
    const std::wstring file = folder + L"\\a.jpg";
    const struct {
        const char* what;
        std::function<void()> call;
        std::vector<std::wstring> lines;
    } cases[] = {
        {"listing", [&] { device->EnumerateDevicePath(folder.c_str(), 0); },
         {L"CDorWEXWPDObject::EnumerateDevicePath enter.", L"CDorWEXWPDObject::EnumerateDevicePath3 enter."}},
        {"copy from", [&] { device->CopyFileFromDevice(file.c_str(), copied.c_str()); },
         {L"CDorWEXWPDObject::CopyFileFromDevice enter.", L"CDorWEXWPDObject::CopyFileFromDevice3 enter."}},
        {"copy to", [&] { device->CopyFileToDevice(folder.c_str(), upload.c_str(), L"T", 1); },
         {L"CDorWEXWPDObject::CopyFileToDevice enter.", L"CDorWEXWPDObject::CopyFileToDevice3 enter."}},
        {"new folder", [&] { device->CreateFolderOnDevice(folder.c_str(), L"New"); },
         {L"CDorWEXWPDObject::CreateFolderOnDevice enter.", L"CDorWEXWPDObject::CreateFolderOnDevice3 enter."}},
        {"delete", [&] { device->DeleteFileFromDevice(file.c_str(), L"usb#vid_0fca&pid_8004#bb"); },
         {L"CDorWEXWPDObject::DeleteFileFromDevice enter.", L"CDorWEXWPDObject::DeleteFileFromDevice3 enter.",
          L"CDorWEXWPDObject::DeleteFileFromDevice3 " + file + L"=TRUE",
          L"CDorWEXWPDObject::DeleteFileFromDevice " + file + L"=TRUE"}},
        {"delete again", [&] { device->DeleteFileFromDevice(file.c_str(), L"usb#vid_0fca&pid_8004#bb"); },
         {L"CDorWEXWPDObject::DeleteFileFromDevice enter.", L"CDorWEXWPDObject::DeleteFileFromDevice3 enter.",
          L"CDorWEXWPDObject::DeleteFileFromDevice3 " + file + L"=FALSE",
          L"CDorWEXWPDObject::DeleteFileFromDevice " + file + L"=FALSE"}},
    };
    for (const auto& c : cases) {
        trace.Clear();
        c.call();
        EXPECT_EQ(trace.StartingWith(L"CDorWEXWPDObject::"), c.lines) << c.what;
    }
    EXPECT_EQ(ReadAll(copied), "jpeg");
    EXPECT_EQ(ReadAll(folder + L"\\up.txt"), "up");
    EXPECT_NE(GetFileAttributesW((folder + L"\\New").c_str()), INVALID_FILE_ATTRIBUTES);
}

TEST_F(BlackBerryPipe, ShareCopyFailureIsRaisedWithItsErrorObject) {
    device->m_pCDorWEXBlackBerry->m_dwordConnectionWaitMs = 100;
    const std::wstring local = emulator.Directory() + L"\\copied.jpg";
    EXPECT_EQ(device->CopyFileFromDevice(L"\\\\10.0.0.1\\media\\a.jpg", local.c_str()), E_FAIL) << "not connected yet";
    ASSERT_EQ(device->m_pCDorWEXBlackBerry->ConnectToDevice(L"\\\\10.0.0.1\\media", L"bbuser", L"secret"), 0u);
    const std::wstring missing = EmptyShare(L"10.0.0.1", L"media") + L"\\no-such-file.jpg";
    HRESULT raised = S_OK;
    std::wstring source;
    std::wstring description;
    try {
        device->CopyFileFromDevice(missing.c_str(), local.c_str());
    } catch (const _com_error& error) {
        raised = error.Error();
        source = static_cast<const wchar_t*>(error.Source());
        description = static_cast<const wchar_t*>(error.Description());
    }
    EXPECT_EQ(raised, E_FAIL);
    EXPECT_EQ(source, L"CDorWEXBlackBerry::CopyFileFromDevice");
    EXPECT_EQ(description, SystemText(ERROR_FILE_NOT_FOUND));
    EXPECT_EQ(device->MoveFileFromDevice(missing.c_str(), local.c_str()), 0) << "a move answers 0";
}

TEST_F(BlackBerryPipe, FileWriteReportRaisesTheWriteEventWithoutALocalFileName) {
    Exchange(L"BlackBerryFileWrite*x*\\\\10.0.0.1\\media\\a.jpg*y*BLACKBERRY_2A3B4C5D",
             L"CDorWEXWPDObject::SimulateWPDWriteEvent enter.");
    EXPECT_TRUE(WaitUntil([&] { return trace.Has(L"CDorWEXWMIWPDCore::SendEvent enter.\n"); }));
    // Copies from the device wait for the share, which credentials connect.
    device->m_pCDorWEXBlackBerry->m_dwordConnectionWaitMs = 100;
    EXPECT_EQ(device->CopyFileFromDevice(L"\\\\10.0.0.1\\media\\a.jpg", (emulator.Directory() + L"\\x.jpg").c_str()), E_FAIL);
    EXPECT_TRUE(trace.Has(L"CDorWEXBlackBerry::CopyFileFromDevice TIMED OUT waiting for connection to device.\n"));
    EXPECT_EQ(std::wstring(device->EnumerateDevicePath(L"\\\\10.0.0.1\\media", 0)), L"") << "no share behind it here";
    EXPECT_EQ(std::wstring(device->GetStorageObjectProperty(L"\\\\10.0.0.1\\media", L"BBPIN")), L"2A3B4C5D");
}

}  // namespace
