// The companion pipe server with real pipe clients: its security descriptor, four instances and a fifth
// client waiting, zero-length and buffer-filling messages, stop while every instance waits, and the Apple
// channel's write reports.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "channels/apple_named_pipe.h"
#include "channels/blackberry_named_pipe.h"
#include "monitor/companion_processors.h"
#include "monitor/wpd_collection.h"
#include "monitor/wpd_core.h"
#include "support/fake_devices.h"
#include "support/system_text.h"
#include "support/test_files.h"
#include "support/test_trace_sink.h"
#include "support/trace_gate.h"
#include "support/trace_order.h"
#include "support/wait_until.h"
#include "support/wpd_emulator.h"

namespace {

constexpr wchar_t kTestPipe[] = L"\\\\.\\pipe\\dorWEXTestPipe";

// A server that keeps every message it is handed.
class RecordingPipe : public CDorWEXWMIWPDNamedPipeBase {
public:
    using CDorWEXWMIWPDNamedPipeBase::CDorWEXWMIWPDNamedPipeBase;
    int ProcessData(PipeInstance instance_in) override {
        const auto* text = reinterpret_cast<const wchar_t*>(instance_in.request);
        std::lock_guard<std::mutex> guard(mutex);
        messages.emplace_back(text, wcsnlen(text, kBufferSize / sizeof(wchar_t)));
        events.push_back(instance_in.overlapped.hEvent);
        return 0;
    }
    size_t Count() {
        std::lock_guard<std::mutex> guard(mutex);
        return messages.size();
    }
    std::mutex mutex;
    std::vector<std::wstring> messages;
    std::vector<HANDLE> events;  // the event of the instance each message came through
};

// The server on its own thread, stopped through its stop event as the processor stops it.
template <typename Pipe>
class Server {
public:
    explicit Server(const wchar_t* name, IDorWEXDeviceRegistry* devices = nullptr)
        : stop(CreateEventW(nullptr, TRUE, FALSE, nullptr)), pipe(devices, stop) {
        thread = std::thread([this, name] { result = pipe.Serve(name, L"set-up failed\n"); });
    }
    ~Server() {
        SetEvent(stop);
        thread.join();
        CloseHandle(stop);
    }
    HANDLE stop;
    Pipe pipe;
    std::atomic<HRESULT> result{S_FALSE};
    std::thread thread;
};

bool Send(HANDLE client, const void* data, DWORD bytes) {
    DWORD written = 0;
    return WriteFile(client, data, bytes, &written, nullptr) && written == bytes;
}

// The user of this process's token, as the server's descriptor names it.
std::vector<BYTE> ProcessUserSid() {
    HANDLE token = nullptr;
    std::vector<BYTE> sid;
    if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token)) {
        return sid;
    }
    DWORD size = 0;
    GetTokenInformation(token, TokenUser, nullptr, 0, &size);
    std::vector<BYTE> user(size);
    if (GetTokenInformation(token, TokenUser, user.data(), size, &size)) {
        const PSID userSid = reinterpret_cast<TOKEN_USER*>(user.data())->User.Sid;
        const auto* first = static_cast<const BYTE*>(userSid);
        sid.assign(first, first + GetLengthSid(userSid));
    }
    CloseHandle(token);
    return sid;
}

std::vector<BYTE> WellKnownSid(WELL_KNOWN_SID_TYPE type) {
    std::vector<BYTE> sid(SECURITY_MAX_SID_SIZE);
    DWORD size = static_cast<DWORD>(sid.size());
    if (!CreateWellKnownSid(type, nullptr, sid.data(), &size)) {
        return {};
    }
    sid.resize(size);
    return sid;
}

// Windows reads a DACL's entries in order and stops at the first that denies a wanted right: the refusal
// of network logons (the NETWORK group, S-1-5-2) comes before the two grants, the process owner with every
// right and Everyone without WRITE_DAC and WRITE_OWNER.
TEST(NamedPipe, DescriptorDeniesNetworkLogonsBeforeGrantingTheOwnerAndEveryone) {
    RecordingPipe pipe(nullptr, nullptr);
    SECURITY_DESCRIPTOR descriptor = {};
    ASSERT_TRUE(pipe.GetInternalProcessOwnerSID(&descriptor));
    BOOL present = FALSE, defaulted = TRUE;
    PACL acl = nullptr;
    ASSERT_TRUE(GetSecurityDescriptorDacl(&descriptor, &present, &acl, &defaulted));
    EXPECT_TRUE(present);
    EXPECT_FALSE(defaulted);
    ASSERT_NE(acl, nullptr);
    EXPECT_EQ(acl->AclRevision, ACL_REVISION);

    const std::vector<BYTE> network = WellKnownSid(WinNetworkSid);
    const std::vector<BYTE> owner = ProcessUserSid();
    const std::vector<BYTE> everyone = WellKnownSid(WinWorldSid);
    ASSERT_FALSE(network.empty() || owner.empty() || everyone.empty());
    const struct {
        const char* who;
        BYTE type;
        DWORD mask;
        const std::vector<BYTE>& sid;
    } expected[] = {
        {"network logons", ACCESS_DENIED_ACE_TYPE, 0x101FFFFF, network},
        {"process owner", ACCESS_ALLOWED_ACE_TYPE, 0x101FFFFF, owner},
        {"everyone", ACCESS_ALLOWED_ACE_TYPE, 0x1013FFFF, everyone},
    };
    ASSERT_EQ(acl->AceCount, 3);
    DWORD sids = 0;
    for (DWORD i = 0; i < 3; ++i) {
        // An access-denied entry has the layout of an access-allowed one.
        ACCESS_ALLOWED_ACE* ace = nullptr;
        ASSERT_TRUE(GetAce(acl, i, reinterpret_cast<void**>(&ace)));
        EXPECT_EQ(ace->Header.AceType, expected[i].type) << expected[i].who;
        EXPECT_EQ(ace->Header.AceFlags, 0) << expected[i].who;
        EXPECT_EQ(ace->Mask, expected[i].mask) << expected[i].who;
        EXPECT_TRUE(EqualSid(&ace->SidStart, const_cast<BYTE*>(expected[i].sid.data()))) << expected[i].who;
        sids += static_cast<DWORD>(expected[i].sid.size());
    }
    EXPECT_EQ(expected[2].mask & (WRITE_DAC | WRITE_OWNER), 0u);
    EXPECT_EQ(acl->AclSize, (8 + 3 * 8 + sids + 3) & ~static_cast<DWORD>(3))
        << "header, three entries and their SIDs, aligned to 4";
}

// Clients on other computers are refused by the pipe itself as well: every instance is created with
// PIPE_REJECT_REMOTE_CLIENTS. Neither GetNamedPipeInfo nor GetNamedPipeHandleState shows that flag, and
// Wine takes it and ignores it, so the mode is read where the server takes it from; a client shows that the
// instance it reached was created with the rest of it (message type, four instances).
TEST(NamedPipe, InstancesRefuseRemoteClientsAndCarryMessages) {
    const DWORD mode = CDorWEXWMIWPDNamedPipeBase::kPipeMode;
    EXPECT_EQ(mode & PIPE_REJECT_REMOTE_CLIENTS, static_cast<DWORD>(PIPE_REJECT_REMOTE_CLIENTS));
    EXPECT_EQ(mode & (PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE | PIPE_NOWAIT),
              static_cast<DWORD>(PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE));
    EXPECT_EQ(CDorWEXWMIWPDNamedPipeBase::kOpenMode, static_cast<DWORD>(PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED));

    Server<RecordingPipe> server(kTestPipe);
    HANDLE client = OpenPipeClient(kTestPipe);
    ASSERT_NE(client, INVALID_HANDLE_VALUE);
    DWORD flags = 0, outSize = 0, inSize = 0, instances = 0;
    ASSERT_TRUE(GetNamedPipeInfo(client, &flags, &outSize, &inSize, &instances));
    EXPECT_EQ(flags, static_cast<DWORD>(PIPE_CLIENT_END | PIPE_TYPE_MESSAGE));
    EXPECT_EQ(instances, CDorWEXWMIWPDNamedPipeBase::kInstances);
    CloseHandle(client);
}

TEST(NamedPipe, FourClientsAtOnceAndAFifthWhenOneLeaves) {
    TraceCapture trace(1);
    Server<RecordingPipe> server(kTestPipe);
    HANDLE clients[4];
    for (auto& client : clients) {
        client = OpenPipeClient(kTestPipe);
        ASSERT_NE(client, INVALID_HANDLE_VALUE);
    }
    EXPECT_EQ(CreateFileW(kTestPipe, GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr), INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_PIPE_BUSY)) << "four instances, all taken";
    for (int i = 0; i < 4; ++i) {
        EXPECT_TRUE(SendText(clients[i], L"message " + std::to_wstring(i)));
    }
    ASSERT_TRUE(WaitUntil([&] { return server.pipe.Count() == 4; }));

    CloseHandle(clients[0]);  // its instance is re-armed for the next client
    HANDLE fifth = OpenPipeClient(kTestPipe);
    ASSERT_NE(fifth, INVALID_HANDLE_VALUE);
    EXPECT_TRUE(SendText(fifth, L"fifth"));
    ASSERT_TRUE(WaitUntil([&] { return server.pipe.Count() == 5; }));
    EXPECT_EQ(server.pipe.messages.back(), L"fifth");
    for (int i = 1; i < 4; ++i) {
        CloseHandle(clients[i]);
    }
    CloseHandle(fifth);
    EXPECT_TRUE(trace.Has(L"CDorWEXWMIWPDNamedPipeBase::SetupNamedPipe, for \\\\.\\pipe\\dorWEXTestPipe succeeded.\n"));
}

// The companion's writer as its own process, beside a client of this process that stays connected.
TEST(NamedPipe, AnotherProcessWritesWhileAClientHereIsConnected) {
    Server<RecordingPipe> server(kTestPipe);
    HANDLE here = OpenPipeClient(kTestPipe);
    ASSERT_NE(here, INVALID_HANDLE_VALUE);
    ASSERT_TRUE(SendText(here, L"from this process"));

    wchar_t program[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, program, MAX_PATH);
    std::wstring client(program);
    client = client.substr(0, client.find_last_of(L'\\')) + L"\\pipe_client.exe";
    std::wstring command = L"\"" + client + L"\" " + kTestPipe + L" \"from another process\" 3";
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION process = {};
    ASSERT_TRUE(CreateProcessW(client.c_str(), &command[0], nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup,
                               &process));
    ASSERT_EQ(WaitForSingleObject(process.hProcess, 20000), WAIT_OBJECT_0);
    DWORD exitCode = 1;
    GetExitCodeProcess(process.hProcess, &exitCode);
    CloseHandle(process.hThread);
    CloseHandle(process.hProcess);
    EXPECT_EQ(exitCode, 0u);

    ASSERT_TRUE(SendText(here, L"still here"));
    ASSERT_TRUE(WaitUntil([&] { return server.pipe.Count() == 5; }));
    std::lock_guard<std::mutex> guard(server.pipe.mutex);
    EXPECT_EQ(std::count(server.pipe.messages.begin(), server.pipe.messages.end(), L"from another process"), 3);
    EXPECT_EQ(server.pipe.messages.front(), L"from this process");
    EXPECT_EQ(std::count(server.pipe.messages.begin(), server.pipe.messages.end(), L"still here"), 1)
        << "the connection held here was served all along";
    CloseHandle(here);
}

TEST(NamedPipe, ZeroLengthMessageClosesTheClientAndAFullBufferIsReadSafely) {
    TraceCapture trace(1);
    Server<RecordingPipe> server(kTestPipe);
    HANDLE client = OpenPipeClient(kTestPipe);
    ASSERT_NE(client, INVALID_HANDLE_VALUE);
    ASSERT_TRUE(Send(client, "", 0));
    // The server drops the connection without handing anything on.
    EXPECT_TRUE(WaitUntil([&] { return !SendText(client, L"after"); }));
    EXPECT_EQ(server.pipe.Count(), 0u);
    EXPECT_EQ(trace.Count(L"CDorWEXWMIWPDNamedPipeBase::DisconnectAndReconnect: entered..."), 1u)
        << "the instance is disconnected and waits for the next client";
    CloseHandle(client);

    // 8192 bytes of text without a terminator: read whole, not a character beyond.
    client = OpenPipeClient(kTestPipe);
    ASSERT_NE(client, INVALID_HANDLE_VALUE);
    const std::wstring full(CDorWEXWMIWPDNamedPipeBase::kBufferSize / sizeof(wchar_t), L'x');
    ASSERT_TRUE(Send(client, full.c_str(), CDorWEXWMIWPDNamedPipeBase::kBufferSize));
    ASSERT_TRUE(WaitUntil([&] { return server.pipe.Count() == 1; }));
    EXPECT_EQ(server.pipe.messages[0], full);

    // A larger message does not fit the instance's buffer: the client is dropped.
    const std::wstring tooLong(CDorWEXWMIWPDNamedPipeBase::kBufferSize, L'y');
    SendText(client, tooLong);
    EXPECT_TRUE(WaitUntil([&] { return !SendText(client, L"after"); }));
    EXPECT_EQ(server.pipe.Count(), 1u);
    CloseHandle(client);
}

TEST(NamedPipe, StopWhileEveryInstanceWaitsClosesThePipe) {
    TraceCapture trace(1);
    HANDLE instanceEvent = nullptr;
    {
        Server<RecordingPipe> server(kTestPipe);
        HANDLE client = OpenPipeClient(kTestPipe);
        ASSERT_NE(client, INVALID_HANDLE_VALUE);
        ASSERT_TRUE(SendText(client, L"one message"));
        ASSERT_TRUE(WaitUntil([&] { return server.pipe.Count() == 1; }));
        CloseHandle(client);
        instanceEvent = server.pipe.events.front();
        ASSERT_EQ(WaitForSingleObject(instanceEvent, 0) == WAIT_FAILED, false) << "the instance's event is open";
    }
    EXPECT_TRUE(trace.Has(L"CDorWEXWMIWPDNamedPipeBase::ProcessPipe, request to stop received..."));
    EXPECT_TRUE(trace.Has(L"CDorWEXWMIWPDNamedPipeBase::ClosePipe: exit."));
    EXPECT_EQ(WaitForSingleObject(instanceEvent, 0), WAIT_FAILED) << "the instances' events go with the server";
    EXPECT_EQ(CreateFileW(kTestPipe, GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr), INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_FILE_NOT_FOUND)) << "the name is gone with the server";
}

// Clients that write without pause do not keep the server from seeing its stop event.
TEST(NamedPipe, StopWinsOverClientsThatNeverPause) {
    TraceCapture trace(1);
    Server<RecordingPipe> server(kTestPipe);
    std::atomic<bool> writing{true};
    std::vector<std::thread> writers;
    for (int i = 0; i < 4; ++i) {
        writers.emplace_back([&, i] {
            HANDLE client = OpenPipeClient(kTestPipe);
            while (client != INVALID_HANDLE_VALUE && writing && SendText(client, L"busy " + std::to_wstring(i))) {
            }
            if (client != INVALID_HANDLE_VALUE) {
                CloseHandle(client);
            }
        });
    }
    ASSERT_TRUE(WaitUntil([&] { return server.pipe.Count() > 400; }));
    SetEvent(server.stop);
    EXPECT_TRUE(WaitUntil([&] { return server.result == S_OK; }, 3000)) << "Serve returned soon after the stop";
    writing = false;
    for (auto& writer : writers) {
        writer.join();
    }
    EXPECT_TRUE(trace.Has(L"CDorWEXWMIWPDNamedPipeBase::ProcessPipe, request to stop received..."));
}

// The last Apple device leaves while the worker is held inside a report: the bounded stop gives up, and
// the processor with its stop event and pipe is kept until the worker has ended by itself.
TEST(ApplePipe, ProcessorOutlivedByItsWorkerIsKeptUntilTheWorkerEnds) {
    WpdEmulator emulator;
    emulator.Attach(PhoneSpec("usb#vid_05ac&pid_12a8#held", "Apple Inc.", "HELD1"));
    CDorWEXWMIWPDCore core;
    ASSERT_EQ(core.Initialize(), 1);
    ASSERT_EQ(core.GetCollection()->AddWPD(L"usb#vid_05ac&pid_12a8#held"), S_OK);
    ASSERT_TRUE(core.HasAppleMonitoring());
    TraceCapture trace(1);
    HANDLE client = OpenPipeClient(kDorWEXApplePipeName);
    ASSERT_NE(client, INVALID_HANDLE_VALUE);
    {
        TraceGate gate(L"CDorWEXWMIAppleNamedPipe::ProcessData1.");
        ASSERT_TRUE(SendText(client, L"Event^WRITE~SerialNumber^HELD1~strPID^1~TargetPath^Phone\\a.jpg"));
        ASSERT_TRUE(gate.WaitHeld());

        core.GetCollection()->RemoveWPD(L"usb#vid_05ac&pid_12a8#held");
        EXPECT_FALSE(core.HasAppleMonitoring());
        EXPECT_EQ(core.GetAppleEventsProcessor(), nullptr);
        EXPECT_EQ(core.ReapRetiredProcessors(), 1u) << "kept while its worker runs";
    }
    ASSERT_TRUE(WaitUntil([&] { return trace.Has(L"CDorWEXWMIAppleEventsListener::ListenForAppleEvents exiting...\n"); }));
    EXPECT_TRUE(trace.Has(L"CDorWEXWMIWPDNamedPipeBase::ProcessPipe, request to stop received..."))
        << "its stop event was still open";
    for (const auto& line : trace.Lines()) {
        EXPECT_EQ(line.find(L"IS OUT OF RANGE"), std::wstring::npos) << std::string(line.begin(), line.end());
    }
    CloseHandle(client);

    EXPECT_TRUE(WaitUntil([&] { return core.ReapRetiredProcessors() == 0; })) << "freed once its worker ended";
    EXPECT_EQ(trace.Count(L"CDorWEXWMIThreadBase::CloseThreadHandles (TheMonitorThreadForThreadApple) - a thread "
                          L"is still running, kept.\n"),
              1u)
        << "told once, by the stop; looking at the retired processor again says nothing";
}

// Process ids in the companions' messages are read as the C runtime's atol reads the text in the thread's
// ANSI code page.
TEST(NamedPipe, ProcessIdsAreReadByAtolInTheThreadsAnsiCodePage) {
    const struct {
        const wchar_t* text;
        LONG value;
    } cases[] = {
        {L"4711", 4711}, {L"  42abc", 42}, {L"-17", -17}, {L"+5", 5}, {L"abc", 0}, {L"", 0},
        {L"\uFF14\uFF17\uFF11\uFF11", 4711},  // full-width digits are digits in the code page
    };
    for (const auto& c : cases) {
        EXPECT_EQ(CDorWEXWMIWPDNamedPipeBase::ProcessIdFromText(c.text), c.value)
            << std::string(c.text, c.text + wcslen(c.text));
    }
}

TEST(ApplePipe, WriteReportsRaiseTheWriteEventOfTheDeviceTheyName) {
    WpdEmulator emulator;
    emulator.Attach(PhoneSpec("usb#vid_04e8&pid_6860#pipe", "SAMSUNG Electronics Co., Ltd.", "SERIAL77"));
    CDorWEXWMIWPDCore core;
    ASSERT_EQ(core.Initialize(), 1);
    ASSERT_EQ(core.GetCollection()->AddWPD(L"usb#vid_04e8&pid_6860#pipe"), S_OK);
    TraceCapture trace(1);
    Server<CDorWEXWMIAppleNamedPipe> server(kDorWEXApplePipeName, core.Devices());
    HANDLE client = OpenPipeClient(kDorWEXApplePipeName);
    ASSERT_NE(client, INVALID_HANDLE_VALUE);

    const struct {
        const wchar_t* message;
        const wchar_t* expected;
    } cases[] = {
        {L"Event^write~SerialNumber^SERIAL77", L"CDorWEXWMIAppleNamedPipe::ProcessData1, ERROR: write != WRITE.\n"},
        {L"Event^WRITE~SerialNumber^SERIAL77~ClientPid^1", L"CDorWEXWMIAppleNamedPipe::ProcessData1, ERROR: invalid packet.\n"},
        {L"~~Event^WRITE~~SerialNumber^SERIAL77~strPID^1~TargetPath^Phone\\DCIM~LocalFileName^C:\\a.jpg~"
         L"ClientPid^4712~WriteToken^T~extra^field",
         L"CDorWEXWPDObject::SimulateWPDWriteEvent enter."},
    };
    for (const auto& c : cases) {
        trace.Clear();
        ASSERT_TRUE(SendText(client, c.message));
        EXPECT_TRUE(WaitUntil([&] { return trace.Has(c.expected); })) << c.message;
    }
    EXPECT_TRUE(WaitUntil([&] { return trace.Has(L"CDorWEXWMIWPDCore::SendEvent enter.\n"); }));
    EXPECT_EQ(trace.Count(L"CDorWEXWMIAppleNamedPipe::ProcessData1.\n"), 1u) << "one report, one parse";

    // A device the collection does not know: nothing is raised.
    trace.Clear();
    ASSERT_TRUE(SendText(client, L"Event^WRITE~SerialNumber^NOBODY~strPID^1~TargetPath^Elsewhere\\x"));
    ASSERT_TRUE(WaitUntil([&] { return trace.Has(L"CDorWEXWMIWPDNamedPipeBase::SimulateWPDWriteEvent enter."); }));
    // The pipe serves one client's messages in order: once a later message is refused, the report before it
    // has been handled completely.
    ASSERT_TRUE(SendText(client, L"Event^write~SerialNumber^NOBODY"));
    ASSERT_TRUE(WaitUntil([&] { return trace.Has(L"CDorWEXWMIAppleNamedPipe::ProcessData1, ERROR: write != WRITE.\n"); }));
    EXPECT_FALSE(trace.Has(L"CDorWEXWPDObject::SimulateWPDWriteEvent enter."));
    CloseHandle(client);
    core.GetCollection()->RemoveWPD(L"usb#vid_04e8&pid_6860#pipe");
}

TEST(ApplePipe, ServedFromTheFirstAppleDeviceToTheLast) {
    WpdEmulator emulator;
    emulator.Attach(PhoneSpec("usb#vid_05ac&pid_12a8#first", "Apple Inc.", "A1"));
    emulator.Attach(PhoneSpec("usb#vid_05ac&pid_12a8#second", "Apple Inc.", "A2"));
    CDorWEXWMIWPDCore core;
    ASSERT_EQ(core.Initialize(), 1);
    const auto pipeExists = [] {
        HANDLE client = CreateFileW(kDorWEXApplePipeName, GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
        if (client == INVALID_HANDLE_VALUE) {
            return GetLastError() == ERROR_PIPE_BUSY;
        }
        CloseHandle(client);
        return true;
    };
    EXPECT_FALSE(pipeExists()) << "no Apple device yet";
    ASSERT_EQ(core.GetCollection()->AddWPD(L"usb#vid_05ac&pid_12a8#first"), S_OK);
    EXPECT_TRUE(WaitUntil(pipeExists));
    ASSERT_EQ(core.GetCollection()->AddWPD(L"usb#vid_05ac&pid_12a8#second"), S_OK);
    core.GetCollection()->RemoveWPD(L"usb#vid_05ac&pid_12a8#first");
    EXPECT_TRUE(pipeExists()) << "one Apple device is left";
    TraceCapture trace(1);
    core.GetCollection()->RemoveWPD(L"usb#vid_05ac&pid_12a8#second");
    EXPECT_TRUE(WaitUntil([&] { return !pipeExists(); })) << "gone with the last Apple device";
    EXPECT_TRUE(trace.Has(L"CDorWEXWPDCollection::RemoveWPD, stopping apple monitoring..."));
    EXPECT_TRUE(trace.Has(L"CDorWEXWMIWPDNamedPipeBase::ProcessPipe, request to stop received..."));
    EXPECT_TRUE(trace.Has(L"CDorWEXWMIThreadAppleEventsProcessor::Stop: TheMonitorThreadForThreadAppleEventsProcessor, "
                          L"child thread is terminated!!!!\n"));
    EXPECT_TRUE(trace.Has(L"CDorWEXWMIAppleEventsListener::ListenForAppleEvents exiting...\n"));
}

// The channels need nothing of the monitor but its device registry: driven through a recording one, they
// show which device they ask for and what they hand it.
TEST(CompanionChannels, AppleReportAsksForTheNamedDeviceAndHandsItTheWrite) {
    FakeRegistry devices;
    devices.device = std::make_shared<FakeDevice>();
    Server<CDorWEXWMIAppleNamedPipe> server(kDorWEXApplePipeName, &devices);
    HANDLE client = OpenPipeClient(kDorWEXApplePipeName);
    ASSERT_NE(client, INVALID_HANDLE_VALUE);
    ASSERT_TRUE(SendText(client, L"Event^WRITE~SerialNumber^SERIAL77~strPID^1~TargetPath^Phone\\DCIM~"
                                 L"LocalFileName^C:\\a.jpg~ClientPid^4712~WriteToken^T"));
    ASSERT_TRUE(WaitUntil([&] { return !devices.device->Writes().empty(); }));
    CloseHandle(client);

    const auto lookups = devices.Lookups();
    ASSERT_EQ(lookups.size(), 1u);
    EXPECT_EQ(lookups[0].first, L"SERIAL77");
    EXPECT_EQ(lookups[0].second, L"Phone\\DCIM");
    const auto writes = devices.device->Writes();
    ASSERT_EQ(writes.size(), 1u);
    EXPECT_EQ(writes[0].path, L"Phone\\DCIM");
    EXPECT_EQ(writes[0].fileName, L"C:\\a.jpg");
    EXPECT_EQ(writes[0].objectInfo, L"C:\\a.jpg");
    EXPECT_EQ(writes[0].number, 4712u);
}

TEST(CompanionChannels, BlackBerryCredentialsConnectTheNamedShareOncePerSet) {
    FakeRegistry devices;
    devices.device = std::make_shared<FakeDevice>();
    devices.device->hasShare = true;
    devices.device->UpdateIdentity([](DeviceIdentity& identity) { identity.m_bstr_tDisk1Name = L"\\\\10.0.0.1\\media"; });
    TraceCapture trace(1);
    Server<CDorWEXWMIBlackBerryNamedPipe> server(kDorWEXBlackBerryPipeName, &devices);
    HANDLE client = OpenPipeClient(kDorWEXBlackBerryPipeName);
    ASSERT_NE(client, INVALID_HANDLE_VALUE);
    const auto send = [&](const wchar_t* message, const wchar_t* handled) {
        const size_t before = trace.Count(handled);
        ASSERT_TRUE(SendText(client, message));
        ASSERT_TRUE(WaitUntil([&] { return trace.Count(handled) > before; }));
    };
    const wchar_t kFirstHandled[] = L"CDorWEXWMIBlackBerryNamedPipe::ProcessCredentials enter.";
    send(L"BlackBerryCredentials*t2*\\\\10.0.0.1\\media*bbuser*secret", kFirstHandled);
    ASSERT_TRUE(WaitUntil([&] { return devices.device->Connects().size() == 1; }));
    // The same set again is taken as connected; a new password is tried.
    send(L"BlackBerryCredentials*t2*\\\\10.0.0.1\\media*bbuser*secret",
         L"CDorWEXWMIBlackBerryNamedPipe::IsAlreadyConnected: TRUE\n");
    send(L"BlackBerryCredentials*t2*\\\\10.0.0.1\\media*bbuser*other", kFirstHandled);
    ASSERT_TRUE(WaitUntil([&] { return devices.device->Connects().size() == 2; }));
    CloseHandle(client);

    const auto connects = devices.device->Connects();
    ASSERT_EQ(connects.size(), 2u);
    EXPECT_EQ(connects[0].share, L"\\\\10.0.0.1\\media");
    EXPECT_EQ(connects[0].user, L"bbuser");
    EXPECT_EQ(connects[0].password, L"secret");
    EXPECT_EQ(connects[1].password, L"other");
    EXPECT_EQ(devices.Lookups()[0].first, L"\\\\10.0.0.1\\media");
    EXPECT_EQ(devices.Lookups()[0].second, L"<null>");
}

// Another server holds the Apple pipe's name: the Apple worker cannot make its first instance, says so with
// the system's code and text, gives up the set-up and ends (to be restarted later); the stop still ends it.
TEST(ApplePipe, ANameAnotherServerHoldsFailsTheSetUp) {
    HANDLE held = CreateNamedPipeW(kDorWEXApplePipeName, PIPE_ACCESS_DUPLEX, PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE,
                                   1, 512, 512, 0, nullptr);
    ASSERT_NE(held, INVALID_HANDLE_VALUE);
    // What the system answers a second server of that name.
    HANDLE second = CreateNamedPipeW(kDorWEXApplePipeName, PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED,
                                     PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE, 4, 8192, 8192, 0, nullptr);
    ASSERT_EQ(second, INVALID_HANDLE_VALUE);
    const DWORD refused = GetLastError();
    const std::wstring message = SystemText(refused);
    wchar_t code[16];
    swprintf(code, 16, L"%x", static_cast<unsigned>(refused));

    CDorWEXWMIWPDCore core;
    TraceCapture trace(1);
    {
        CDorWEXWMIThreadAppleEventsProcessor processor(&core);
        processor.ManageThread(nullptr, CDorWEXWMIThreadBase::START);
        ASSERT_TRUE(WaitUntil([&] {
            return trace.Has(L"CDorWEXWMIThreadAppleEventsProcessor::WorkerThreadAppleEventsProcessor shutting down...\n");
        }));
        processor.ManageThread(nullptr, CDorWEXWMIThreadBase::STOP);
    }
    CloseHandle(held);
    const std::vector<std::wstring> inOrder = {
        L"CDorWEXWMIWPDNamedPipeBase::CreateSecurityDescriptor, succeeded.",
        L"CDorWEXWMIWPDNamedPipeBase::SetupNamedPipe, Instance=0, CreateNamedPipe failed " + std::wstring(code) + L": " +
            message + L".",
        L"CDorWEXWMIWPDNamedPipeBase::SetupNamedPipe, ERROR: for \\\\.\\pipe\\dorWEXApplePipe failed.",
        L"CDorWEXWMIAppleEventsListener::ListenForAppleEvents, ERROR: CDorWEXWMIAppleNamedPipe.Initialize failed.",
        L"CDorWEXWMIAppleEventsListener::ListenForAppleEvents exiting...",
        L"CDorWEXWMIThreadAppleEventsProcessor::WorkerThreadAppleEventsProcessor shutting down...",
    };
    ExpectInOrder(trace, inOrder);
    EXPECT_FALSE(trace.Has(L"CDorWEXWMIWPDNamedPipeBase::ProcessPipe: entered...")) << "no loop without a pipe";
}

}  // namespace
