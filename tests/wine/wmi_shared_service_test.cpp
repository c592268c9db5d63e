// The WMI service in a process of its own and the provider in a host process the service starts, shared by
// every client process of the prefix, as Windows runs them: each client process reaches the one service
// through COM, and what one client does (a copy onto a device, a write token) the others see through the
// same provider.
//
// The program is also its own other clients: in the mode "--subscriber RESULT COUNT" it subscribes to the
// provider's events, signals that it is ready, asks for a write token of its own, and writes how many of
// COUNT events were additions, the service's process id and its token to the file RESULT; in the mode
// "--copier RESULT COUNT GO" it copies files on and off the phone (RunCopier).
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "support/shared_service.h"
#include "support/wait_until.h"
#include "support/wpd_client.h"

using Microsoft::WRL::ComPtr;

int RunSubscriber(const ChildArguments& arguments) {
    if (arguments.rest.size() != 2) {
        return 2;
    }
    auto services = Connect();
    ComPtr<IEnumWbemClassObject> events;
    if (!services || FAILED(services->ExecNotificationQuery(
                         _bstr_t(L"WQL"), _bstr_t(L"SELECT * FROM Win32ext_WPDEvent"),
                         WBEM_FLAG_RETURN_IMMEDIATELY | WBEM_FLAG_FORWARD_ONLY, nullptr, &events))) {
        return 2;
    }
    arguments.SignalReady();
    // A write token of this process's own, asked for while the other client holds one.
    const std::wstring token = RequestWriteToken();
    const long expected = _wtol(arguments.rest[1].c_str());
    long added = 0;
    for (long received = 0; received < expected;) {
        auto event = NextEvent(events.Get(), 20000);
        if (!event) {
            break;
        }
        ++received;
        added += Text(event.Get(), L"strEventId") == L"WPD_EVENT_OBJECT_ADDED" ? 1 : 0;
    }
    const std::wstring& file = arguments.rest[0];
    std::ofstream(std::string(file.begin(), file.end()))
        << added << " " << ServiceProcess() << " " << std::string(token.begin(), token.end()) << "\n";
    return 0;
}

// Takes a write token, says it is ready, waits for the named event GO, then COUNT times copies a file of its
// own onto the phone, lists the folder and copies the file back, and writes how many rounds gave back the
// bytes it wrote to the file RESULT.
int RunCopier(const ChildArguments& arguments) {
    if (arguments.rest.size() != 3) {
        return 2;
    }
    const LONG self = static_cast<LONG>(GetCurrentProcessId());
    const std::wstring token = RequestWriteToken();
    HANDLE go = OpenEventW(SYNCHRONIZE, FALSE, arguments.rest[2].c_str());
    arguments.SignalReady();
    if (go == nullptr || WaitForSingleObject(go, 30000) != WAIT_OBJECT_0) {
        return 2;
    }
    CloseHandle(go);
    const long rounds = _wtol(arguments.rest[1].c_str());
    long good = 0;
    for (long i = 0; i < rounds; ++i) {
        const std::wstring name = L"c" + std::to_wstring(self) + L"-" + std::to_wstring(i) + L".jpg";
        const std::wstring back = ProgramDirectory() + L"\\back-" + name;
        const bool copied = Upload(name, token, self).returnValue == L"1";
        const std::wstring listing =
            L"~" + CallMethod(L"EnumerateDevicePath", {{L"strObjectStoragePath", _variant_t(L"Phone")},
                                                      {L"strObjectDeviceId", _variant_t(SharedPhoneId())},
                                                      {L"uint32ContentType", _variant_t(2L, VT_I4)}},
                              self)
                       .returnValue;
        const bool listed = listing.find(L"~" + Stored(name) + L"@") != std::wstring::npos;
        const bool fetched =
            CallMethod(L"CopyFileFromDevice", {{L"strObjectStoragePath", _variant_t((L"Phone\\" + Stored(name)).c_str())},
                                               {L"strLocalFileName", _variant_t(back.c_str())},
                                               {L"strObjectDeviceId", _variant_t(SharedPhoneId())}},
                       self)
                .returnValue == L"1";
        std::string bytes;
        std::ifstream(std::string(back.begin(), back.end())) >> bytes;
        DeleteFileW(back.c_str());
        good += copied && listed && fetched && bytes == std::string(name.begin(), name.end()) ? 1 : 0;
    }
    const std::wstring& file = arguments.rest[0];
    std::ofstream(std::string(file.begin(), file.end())) << good << "\n";
    return 0;
}

namespace {

struct ChildResult {
    long added = -1;
    DWORD serviceProcess = 0;
    std::wstring token;
};

// Starts this program as a subscriber and returns once it has subscribed; Finish waits for its result.
class Subscriber {
public:
    explicit Subscriber(long expected)
        : m_result(ProgramDirectory() + L"\\subscriber-" + std::to_wstring(GetCurrentProcessId()) + L"-" +
                   std::to_wstring(GetTickCount64()) + L".txt"),
          m_process(L"--subscriber", {m_result, std::to_wstring(expected)}) {}
    ~Subscriber() { DeleteFileW(m_result.c_str()); }
    bool Subscribed() const { return m_process.Ready(); }
    ChildResult Finish() {
        ChildResult result;
        if (m_process.Ended(60000)) {
            std::string token;
            std::ifstream(std::string(m_result.begin(), m_result.end())) >> result.added >> result.serviceProcess >>
                token;
            result.token.assign(token.begin(), token.end());
        }
        return result;
    }

private:
    std::wstring m_result;
    ClientProcess m_process;
};

// One service process serves this client and another, and the provider runs in a host process of its own:
// in none of the clients' processes and not in the service's.
TEST_F(SharedService, TheProviderRunsInAHostOfItsOwnForEveryClient) {
    auto services = Connect();
    ASSERT_TRUE(services);
    auto devices = Query(services.Get(), L"SELECT * FROM Win32ext_WPD");
    ASSERT_EQ(devices.size(), 1u);
    EXPECT_EQ(Text(devices[0].Get(), L"strFriendlyName"), L"Phone of " + std::wstring(SharedPhoneId()));
    const DWORD service = ServiceProcess();
    const DWORD host = static_cast<DWORD>(Control(L"ProviderHostProcessId"));
    EXPECT_NE(service, 0u);
    EXPECT_NE(host, 0u);
    EXPECT_NE(host, service) << "the provider is not in the service's process";
    EXPECT_NE(service, GetCurrentProcessId());
    EXPECT_NE(host, GetCurrentProcessId()) << "the provider is not in the client's process";
    EXPECT_EQ(Control(L"DorwexWmiProviderLoaded"), 1);

    const LONG subscriptions = Control(L"DorwexWmiSubscriptions");
    Subscriber other(0);
    ASSERT_TRUE(other.Subscribed());
    const ChildResult child = other.Finish();
    EXPECT_EQ(child.serviceProcess, service) << "the other client reaches the same service";
    EXPECT_EQ(static_cast<DWORD>(Control(L"ProviderHostProcessId")), host) << "and the same provider host";
    EXPECT_EQ(Control(L"DorwexWmiSubscriptions"), subscriptions)
        << "the other client released its event query's enumerator when it ended, which cancels the query";
}

// Events from content one client puts on the device reach a subscriber in another process, and each
// process holds a write token of its own in the one provider: the other's is refused, and neither request
// drops the other's token.
TEST_F(SharedService, ASubscriberInAnotherProcessSeesTheContentAnotherClientAdds) {
    constexpr long kCopies = 3;
    const LONG subscriptions = Control(L"DorwexWmiSubscriptions");
    Subscriber subscriber(kCopies);
    ASSERT_TRUE(subscriber.Subscribed());
    ASSERT_EQ(Control(L"DorwexWmiSubscriptions"), subscriptions + 1);

    const LONG self = static_cast<LONG>(GetCurrentProcessId());
    const std::wstring token = RequestWriteToken();
    ASSERT_FALSE(token.empty());
    for (long i = 0; i < kCopies; ++i) {
        EXPECT_EQ(Upload(L"photo" + std::to_wstring(i) + L".jpg", token, self).returnValue, L"1");
    }
    const ChildResult result = subscriber.Finish();
    EXPECT_EQ(result.added, kCopies) << "every added object reaches the other process";

    ASSERT_FALSE(result.token.empty());
    EXPECT_NE(result.token, token);
    const Outcome foreign = Upload(L"foreign.jpg", result.token, self);
    EXPECT_EQ(foreign.status, E_FAIL) << "the other process's token is not this one's";
    EXPECT_EQ(GetFileAttributesW((PhoneStorage() + L"\\" + Stored(L"foreign.jpg")).c_str()), INVALID_FILE_ATTRIBUTES);
    EXPECT_NE(GetFileAttributesW((PhoneStorage() + L"\\" + Stored(L"photo0.jpg")).c_str()), INVALID_FILE_ATTRIBUTES)
        << "where the refused copy would have gone, the accepted ones went";
    EXPECT_EQ(Upload(L"own.jpg", token, self).returnValue, L"1") << "the other process's request left this token alone";
}

// Content that a client adds through the portable-device API itself (as Explorer would), not through the
// provider, raises the device's event in the provider's host too: a subscriber in a third process sees it.
TEST_F(SharedService, ASubscriberSeesWhatAnotherProcessAddsThroughThePortableDeviceApi) {
    Subscriber subscriber(1);
    ASSERT_TRUE(subscriber.Subscribed());
    ASSERT_TRUE(WaitUntil([] { return Control(L"DorwexEmulatorSubscriptions", 0, SharedPhoneId()) > 0; }))
        << "the provider advised on the phone in its host";
    WpdClient explorer(SharedPhoneId());
    ASSERT_TRUE(explorer.Opened());
    ASSERT_FALSE(explorer.CreateFile(L"s10001", L"from-explorer.jpg", "jpeg").empty());
    EXPECT_EQ(subscriber.Finish().added, 1) << "the addition reached the provider in its host";
}

// Four client processes call the one provider on one device at the same moment, each copying its own
// files on and off the phone and listing the folder: every call answers for its own caller, every file on
// the device holds the bytes its client wrote, and the host stays up.
TEST_F(SharedService, FourClientProcessesCallOneDeviceAtOnce) {
    constexpr long kRounds = 4;
    auto services = Connect();
    ASSERT_TRUE(services);
    ASSERT_EQ(Query(services.Get(), L"SELECT * FROM Win32ext_WPD").size(), 1u);
    const DWORD host = static_cast<DWORD>(Control(L"ProviderHostProcessId"));
    const std::wstring goName = L"dorwex-copiers-go-" + std::to_wstring(GetCurrentProcessId());
    HANDLE go = CreateEventW(nullptr, TRUE, FALSE, goName.c_str());
    std::vector<std::wstring> results;
    std::vector<std::unique_ptr<ClientProcess>> copiers;
    for (int i = 0; i < 4; ++i) {
        results.push_back(ProgramDirectory() + L"\\copier-" + std::to_wstring(GetCurrentProcessId()) + L"-" +
                          std::to_wstring(i) + L".txt");
        copiers.push_back(std::make_unique<ClientProcess>(
            L"--copier", std::vector<std::wstring>{results.back(), std::to_wstring(kRounds), goName}));
        ASSERT_TRUE(copiers.back()->Ready());
    }
    SetEvent(go);
    for (size_t i = 0; i < copiers.size(); ++i) {
        long good = -1;
        if (copiers[i]->Ended(120000)) {
            std::ifstream(std::string(results[i].begin(), results[i].end())) >> good;
        }
        DeleteFileW(results[i].c_str());
        EXPECT_EQ(good, kRounds) << "copier " << i;
    }
    CloseHandle(go);
    size_t stored = 0;
    WIN32_FIND_DATAW found;
    HANDLE search = FindFirstFileW((PhoneStorage() + L"\\shared-c*.jpg").c_str(), &found);
    for (bool more = search != INVALID_HANDLE_VALUE; more; more = FindNextFileW(search, &found)) {
        const std::wstring path = PhoneStorage() + L"\\" + found.cFileName;
        std::string bytes;
        std::ifstream(std::string(path.begin(), path.end())) >> bytes;
        const std::wstring name(found.cFileName + Stored(L"").size());
        EXPECT_EQ(bytes, std::string(name.begin(), name.end())) << "the device's copy holds its client's bytes";
        ++stored;
    }
    if (search != INVALID_HANDLE_VALUE) {
        FindClose(search);
    }
    EXPECT_EQ(stored, 4u * kRounds);
    EXPECT_EQ(static_cast<DWORD>(Control(L"ProviderHostProcessId")), host) << "the host stayed up";
}

// A provider host that dies is replaced by a new one at the next request, as WMI starts its host again: the
// devices are published again, and a consumer that subscribed before receives the events of the new host.
TEST_F(SharedService, AKilledProviderHostIsStartedAgainWithItsConsumers) {
    Subscriber subscriber(1);
    ASSERT_TRUE(subscriber.Subscribed());
    const DWORD host = static_cast<DWORD>(Control(L"ProviderHostProcessId"));
    ASSERT_NE(host, 0u);
    HANDLE process = OpenProcess(PROCESS_TERMINATE | SYNCHRONIZE, FALSE, host);
    ASSERT_NE(process, nullptr);
    ASSERT_TRUE(TerminateProcess(process, 9));
    ASSERT_EQ(WaitForSingleObject(process, 10000), WAIT_OBJECT_0);
    CloseHandle(process);

    auto services = Connect();
    ASSERT_TRUE(services);
    EXPECT_EQ(Query(services.Get(), L"SELECT * FROM Win32ext_WPD").size(), 1u) << "the phone is published again";
    const DWORD restarted = static_cast<DWORD>(Control(L"ProviderHostProcessId"));
    EXPECT_NE(restarted, 0u);
    EXPECT_NE(restarted, host);

    const LONG self = static_cast<LONG>(GetCurrentProcessId());
    const std::wstring token = RequestWriteToken();
    ASSERT_FALSE(token.empty());
    EXPECT_EQ(Upload(L"after-restart.jpg", token, self).returnValue, L"1");
    EXPECT_EQ(subscriber.Finish().added, 1) << "the consumer subscribed before the host died gets the new host's events";
}

}  // namespace
