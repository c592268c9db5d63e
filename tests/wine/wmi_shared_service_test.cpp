// The provider in the WMI service's own process, shared by every client process of the prefix, as Windows
// runs it: each client process reaches the one service through COM, and what one client does (a copy onto
// a device, a write token) the others see through the same provider.
//
// The program is also its own second client: in the mode "--subscriber RESULT COUNT" it subscribes to the
// provider's events, signals that it is ready, asks for a write token of its own, and writes how many of
// COUNT events were additions, the service's process id and its token to the file RESULT.
#include <fstream>
#include <string>

#include "support/shared_service.h"

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

// One service process serves this client and another: the provider runs in neither of them.
TEST_F(SharedService, OneServiceProcessHostsTheProviderForEveryClient) {
    auto services = Connect();
    ASSERT_TRUE(services);
    auto devices = Query(services.Get(), L"SELECT * FROM Win32ext_WPD");
    ASSERT_EQ(devices.size(), 1u);
    EXPECT_EQ(Text(devices[0].Get(), L"strFriendlyName"), L"Phone of " + std::wstring(SharedPhoneId()));
    const DWORD service = ServiceProcess();
    EXPECT_NE(service, 0u);
    EXPECT_NE(service, GetCurrentProcessId()) << "the provider is not in the client's process";
    EXPECT_EQ(Control(L"DorwexWmiProviderLoaded"), 1) << "the provider was loaded in the service's process";

    const LONG subscriptions = Control(L"DorwexWmiSubscriptions");
    Subscriber other(0);
    ASSERT_TRUE(other.Subscribed());
    const ChildResult child = other.Finish();
    EXPECT_EQ(child.serviceProcess, service) << "the other client reaches the same service";
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
    EXPECT_EQ(GetFileAttributesW((PhoneStorage() + L"\\foreign.jpg").c_str()), INVALID_FILE_ATTRIBUTES);
    EXPECT_EQ(Upload(L"own.jpg", token, self).returnValue, L"1") << "the other process's request left this token alone";
}

}  // namespace
