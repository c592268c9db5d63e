// Client processes that die while the shared service works for them, killed as a crash or the task
// manager ends a process: the service and its provider go on for every other client, what the dead client
// held is given up, and a file it had asked for is whole or not there.
#include <algorithm>
#include <atomic>
#include <string>
#include <vector>

#include "support/shared_service.h"
#include "support/stack_com.h"
#include "support/test_files.h"
#include "support/wait_until.h"

namespace {

const wchar_t kEventQuery[] = L"SELECT * FROM Win32ext_WPDEvent";

// An asynchronous consumer's sink: counts the events and those of objects added, keeps the final status,
// and answers every event as it is told.
class ConsumerSink final : public StackCom<IWbemObjectSink> {
public:
    explicit ConsumerSink(HRESULT answer = WBEM_S_NO_ERROR) : m_answer(answer) {}
    HRESULT STDMETHODCALLTYPE Indicate(LONG count, IWbemClassObject** objects) override {
        for (LONG i = 0; i < count; ++i) {
            ++indications;
            added += Text(objects[i], L"strEventId") == L"WPD_EVENT_OBJECT_ADDED" ? 1 : 0;
        }
        return m_answer;
    }
    HRESULT STDMETHODCALLTYPE SetStatus(LONG, HRESULT hResult, BSTR, IWbemClassObject*) override {
        status = hResult;
        return WBEM_S_NO_ERROR;
    }
    std::atomic<long> indications{0};
    std::atomic<long> added{0};
    std::atomic<HRESULT> status{E_PENDING};

private:
    const HRESULT m_answer;
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

// Child mode "--dying-copier STORAGE-PATH LOCAL-FILE": says it is about to copy, then copies the object from
// the phone to the local file, and is killed during the copy.
int RunDyingCopier(const ChildArguments& arguments) {
    if (arguments.rest.size() != 2) {
        return 2;
    }
    const LONG self = static_cast<LONG>(GetCurrentProcessId());
    arguments.SignalReady();
    CallMethod(L"CopyFileFromDevice", {{L"strObjectStoragePath", _variant_t(arguments.rest[0].c_str())},
                                       {L"strLocalFileName", _variant_t(arguments.rest[1].c_str())},
                                       {L"strObjectDeviceId", _variant_t(SharedPhoneId())}},
               self);
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
        ConsumerSink sink(row.answer);
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

constexpr ULONGLONG kLargeSize = 256ull << 20;
constexpr DWORD kChunk = 1 << 20;

// Each 8-byte word holds its own offset: a part of the file, or a part in the wrong place, differs.
bool WritePattern(const std::wstring& path, ULONGLONG size) {
    HANDLE file = CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        return false;
    }
    std::vector<ULONGLONG> words(kChunk / sizeof(ULONGLONG));
    bool ok = true;
    for (ULONGLONG offset = 0; ok && offset < size; offset += kChunk) {
        for (size_t i = 0; i < words.size(); ++i) {
            words[i] = offset + i * sizeof(ULONGLONG);
        }
        DWORD written = 0;
        ok = WriteFile(file, words.data(), kChunk, &written, nullptr) && written == kChunk;
    }
    CloseHandle(file);
    return ok;
}

bool SameContent(const std::wstring& first, const std::wstring& second) {
    HANDLE files[2];
    for (int i = 0; i < 2; ++i) {
        files[i] = CreateFileW((i == 0 ? first : second).c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                               OPEN_EXISTING, 0, nullptr);
    }
    bool same = files[0] != INVALID_HANDLE_VALUE && files[1] != INVALID_HANDLE_VALUE;
    std::vector<char> buffers[2] = {std::vector<char>(kChunk), std::vector<char>(kChunk)};
    for (DWORD read[2] = {1, 1}; same && read[0] > 0;) {
        for (int i = 0; i < 2; ++i) {
            same = same && ReadFile(files[i], buffers[i].data(), kChunk, &read[i], nullptr);
        }
        same = same && read[0] == read[1] && std::equal(buffers[0].begin(), buffers[0].begin() + read[0],
                                                        buffers[1].begin());
    }
    for (HANDLE file : files) {
        if (file != INVALID_HANDLE_VALUE) {
            CloseHandle(file);
        }
    }
    return same;
}

// The provider writes a copy from a device into a file of its own beside the target and renames it over the
// target when the copy is whole: some other file is in the target's folder while the copy runs, and none
// once the call is over.
bool CopyRunning(const std::wstring& folder, const std::wstring& targetName) {
    WIN32_FIND_DATAW found;
    HANDLE search = FindFirstFileW((folder + L"\\*").c_str(), &found);
    bool other = false;
    for (BOOL more = search != INVALID_HANDLE_VALUE; more && !other; more = FindNextFileW(search, &found)) {
        const std::wstring name = found.cFileName;
        other = name != L"." && name != L".." && name != targetName;
    }
    if (search != INVALID_HANDLE_VALUE) {
        FindClose(search);
    }
    return other;
}

// A client killed during a copy of 256 MiB from the device: the service finishes the call for nobody, the
// target is then the whole file or not there, never a part of it, and the next client's call is served.
TEST_F(SharedService, AClientKilledDuringALargeCopyLeavesNoPartialFile) {
    const std::wstring onDevice = PhoneStorage() + L"\\large.bin";
    ASSERT_TRUE(WritePattern(onDevice, kLargeSize));
    const std::wstring folder = ProgramDirectory() + L"\\copy-" + std::to_wstring(GetCurrentProcessId());
    const std::wstring target = folder + L"\\large.bin";
    ASSERT_TRUE(CreateDirectoryW(folder.c_str(), nullptr));
    HANDLE service = OpenProcess(SYNCHRONIZE, FALSE, ServiceProcess());
    ASSERT_NE(service, nullptr);

    {
        ClientProcess copier(L"--dying-copier", {L"Phone\\large.bin", target});
        ASSERT_TRUE(copier.Ready());
        ASSERT_TRUE(WaitUntil([&] { return CopyRunning(folder, L"large.bin"); }, 30000)) << "the copy has begun";
        ASSERT_TRUE(copier.Kill());
        // 256 MiB at the phone's 100 MB/s take more than two seconds: the client died well before the end.
        EXPECT_TRUE(CopyRunning(folder, L"large.bin")) << "the client died during the copy";
    }
    EXPECT_TRUE(WaitUntil([&] { return !CopyRunning(folder, L"large.bin"); }, 60000)) << "the service ends the call";
    EXPECT_TRUE(Alive(service));
    if (Exists(target)) {
        EXPECT_TRUE(SameContent(target, onDevice)) << "the target is the whole file";
    }
    DeleteFileW(target.c_str());
    RemoveDirectoryW(folder.c_str());

    s_emulator->WriteFile(PhoneStorage() + L"\\small.txt", "small");
    const std::wstring small = folder + L"-small.txt";
    EXPECT_EQ(CallMethod(L"CopyFileFromDevice", {{L"strObjectStoragePath", _variant_t(L"Phone\\small.txt")},
                                                 {L"strLocalFileName", _variant_t(small.c_str())},
                                                 {L"strObjectDeviceId", _variant_t(SharedPhoneId())}})
                  .returnValue,
              L"1");
    EXPECT_EQ(ReadAll(small), "small");
    DeleteFileW(small.c_str());
    DeleteFileW(onDevice.c_str());
    CloseHandle(service);
}

}  // namespace
