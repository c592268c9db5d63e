// Client processes that die while the shared service works for them, killed as a crash or the task
// manager ends a process: the service and its provider go on for every other client, and what the dead
// client held is given up.
#include <atomic>
#include <string>

#include "support/shared_service.h"
#include "support/stack_com.h"
#include "support/wait_until.h"

namespace {

const wchar_t kEventQuery[] = L"SELECT * FROM Win32ext_WPDEvent";

// An asynchronous consumer's sink: counts the objects added and keeps the final status.
class ConsumerSink final : public StackCom<IWbemObjectSink> {
public:
    HRESULT STDMETHODCALLTYPE Indicate(LONG count, IWbemClassObject** objects) override {
        for (LONG i = 0; i < count; ++i) {
            added += Text(objects[i], L"strEventId") == L"WPD_EVENT_OBJECT_ADDED" ? 1 : 0;
        }
        return WBEM_S_NO_ERROR;
    }
    HRESULT STDMETHODCALLTYPE SetStatus(LONG, HRESULT hResult, BSTR, IWbemClassObject*) override {
        status = hResult;
        return WBEM_S_NO_ERROR;
    }
    std::atomic<long> added{0};
    std::atomic<HRESULT> status{E_PENDING};
};

}  // namespace

// Child mode "--dying-subscriber": subscribes with a sink of its own process, says so, and waits to be killed.
int RunDyingSubscriber(const ChildArguments& arguments) {
    static ConsumerSink sink;
    auto services = Connect();
    if (!services || FAILED(services->ExecNotificationQueryAsync(_bstr_t(L"WQL"), _bstr_t(kEventQuery), 0, nullptr,
                                                                  &sink))) {
        return 2;
    }
    arguments.SignalReady();
    arguments.WaitForParent();
    return 0;
}

namespace {

bool Alive(HANDLE process) {
    return WaitForSingleObject(process, 0) == WAIT_TIMEOUT;
}

// Waits until the service's device stack has delivered every event raised so far, through the provider to
// the consumers.
bool EventsDelivered() {
    return Control(L"DorwexEmulatorWaitForEvents", 10000) != 0;
}

// A consumer whose process was killed while subscribed is cancelled at the first event its sink cannot take
// (WMI cancels an operation whose sink fails), as CancelAsyncCall would cancel it: its subscription goes
// and the provider is told. The service lives on, and so does delivery to the consumers after it.
TEST_F(SharedService, AConsumerKilledWhileSubscribedIsCancelledAtTheNextEvent) {
    ASSERT_TRUE(EventsDelivered());
    const LONG before = Control(L"DorwexWmiSubscriptions");
    const DWORD serviceId = ServiceProcess();
    HANDLE service = OpenProcess(SYNCHRONIZE, FALSE, serviceId);
    ASSERT_NE(service, nullptr);
    ClientProcess dying(L"--dying-subscriber", {});
    ASSERT_TRUE(dying.Ready());
    // Subscribed after the one that dies; cancelled on every path below, before it goes out of scope.
    ConsumerSink living;
    auto services = Connect();
    ASSERT_EQ(services->ExecNotificationQueryAsync(_bstr_t(L"WQL"), _bstr_t(kEventQuery), 0, nullptr, &living), S_OK);
    EXPECT_EQ(Control(L"DorwexWmiSubscriptions"), before + 2);

    EXPECT_TRUE(dying.Kill());
    const std::wstring token = RequestWriteToken();
    const LONG self = static_cast<LONG>(GetCurrentProcessId());
    EXPECT_EQ(Upload(L"after-death-1.jpg", token, self).returnValue, L"1");
    EXPECT_TRUE(WaitUntil([&] { return Control(L"DorwexWmiSubscriptions") == before + 1; }, 20000))
        << "the dead consumer's subscription is cancelled; still " << Control(L"DorwexWmiSubscriptions");
    EXPECT_TRUE(Alive(service));
    EXPECT_EQ(ServiceProcess(), serviceId);
    EXPECT_EQ(Upload(L"after-death-2.jpg", token, self).returnValue, L"1");
    EXPECT_TRUE(EventsDelivered());
    EXPECT_EQ(living.added, 2) << "the consumer after the dead one receives every event";

    EXPECT_EQ(services->CancelAsyncCall(&living), S_OK);
    EXPECT_EQ(living.status, static_cast<HRESULT>(WBEM_E_CALL_CANCELLED));
    EXPECT_TRUE(WaitUntil([&] { return living.refs == 1; })) << "the service released the sink";
    EXPECT_EQ(Control(L"DorwexWmiSubscriptions"), before);
    CloseHandle(service);
}

// A sink that answers every Indicate with the same result.
class FailingSink final : public StackCom<IWbemObjectSink> {
public:
    explicit FailingSink(HRESULT answer) : m_answer(answer) {}
    HRESULT STDMETHODCALLTYPE Indicate(LONG, IWbemClassObject**) override {
        ++indications;
        return m_answer;
    }
    HRESULT STDMETHODCALLTYPE SetStatus(LONG, HRESULT hResult, BSTR, IWbemClassObject*) override {
        status = hResult;
        return WBEM_S_NO_ERROR;
    }
    std::atomic<long> indications{0};
    std::atomic<HRESULT> status{E_PENDING};

private:
    const HRESULT m_answer;
};

// Any failure of a consumer's Indicate cancels its subscription: the sink is called no more, released, and
// told WBEM_E_CALL_CANCELLED, unless its answer says its process is gone ([MS-WMI] 3.2.4.1.1). The answers a
// sink's proxy gives when its process has died are given here by a live sink, so that what it is told shows.
TEST_F(SharedService, ASinkThatFailsAnIndicateIsCancelledAndToldSoUnlessItsProcessIsGone) {
    const struct {
        const char* what;
        HRESULT answer;
        HRESULT finalStatus;  // E_PENDING: none
    } kCases[] = {
        {"a failure of its own", static_cast<HRESULT>(WBEM_E_FAILED), static_cast<HRESULT>(WBEM_E_CALL_CANCELLED)},
        {"its object disconnected", RPC_E_DISCONNECTED, E_PENDING},
        {"its server died", RPC_E_SERVER_DIED_DNE, E_PENDING},
        {"its server is unavailable", HRESULT_FROM_WIN32(RPC_S_SERVER_UNAVAILABLE), E_PENDING},
        {"it is not connected", CO_E_OBJNOTCONNECTED, E_PENDING},
    };
    const std::wstring token = RequestWriteToken();
    const LONG self = static_cast<LONG>(GetCurrentProcessId());
    const LONG before = Control(L"DorwexWmiSubscriptions");
    auto services = Connect();
    int upload = 0;
    for (const auto& row : kCases) {
        SCOPED_TRACE(row.what);
        ASSERT_TRUE(EventsDelivered());
        FailingSink sink(row.answer);
        ASSERT_EQ(services->ExecNotificationQueryAsync(_bstr_t(L"WQL"), _bstr_t(kEventQuery), 0, nullptr, &sink),
                  S_OK);
        EXPECT_EQ(Upload(L"refused-" + std::to_wstring(++upload) + L".jpg", token, self).returnValue, L"1");
        EXPECT_TRUE(WaitUntil([&] { return Control(L"DorwexWmiSubscriptions") == before; }, 20000));
        EXPECT_TRUE(WaitUntil([&] { return sink.refs == 1; })) << "the service released the sink";
        EXPECT_EQ(sink.status, row.finalStatus);
        EXPECT_EQ(Upload(L"refused-" + std::to_wstring(++upload) + L".jpg", token, self).returnValue, L"1");
        EXPECT_TRUE(EventsDelivered());
        EXPECT_EQ(sink.indications, 1) << "a cancelled sink is called no more";
        if (Control(L"DorwexWmiSubscriptions") != before) {
            services->CancelAsyncCall(&sink);  // before the sink goes out of scope
        }
    }
}

}  // namespace
