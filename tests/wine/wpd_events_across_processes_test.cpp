// A portable device is one device for the machine: what one process adds to it or removes from it through
// the portable-device API raises the events in every other process that advised on the device, with the ids
// that process's own stack gives the objects, as a driver's events reach every application.
//
// The program is its own other process: in the mode "--wpd-listener RESULT DEVICE MARKER" it advises on
// DEVICE, signals that it is ready, and once the object MARKER has been added (and every event raised
// before it delivered) writes one line per event to the file RESULT: the event, the object's name, id and
// parent id as the event carried them, and the name its own stack gives that id now ("-" for none).
#include <algorithm>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "common/com_memory.h"
#include "support/shared_service.h"
#include "support/stack_com.h"
#include "support/wpd_client.h"

namespace {

struct ReceivedEvent {
    std::string event;  // "added", "removed" or "other"
    std::wstring name, id, parentId;
    std::wstring resolved;  // the receiver's own name for the id after the marker, "-" for none
};

std::string Narrow(const std::wstring& text) {
    return text.empty() ? std::string("-") : std::string(text.begin(), text.end());
}

std::wstring Widened(const std::string& text) {
    return text == "-" ? std::wstring() : std::wstring(text.begin(), text.end());
}

// Keeps every event it receives; markerSeen is set once the object named marker has been added.
class EventLog : public StackCom<IPortableDeviceEventCallback> {
public:
    explicit EventLog(const wchar_t* marker) : marker(marker) {}
    ~EventLog() { CloseHandle(markerSeen); }

    HRESULT STDMETHODCALLTYPE OnEvent(IPortableDeviceValues* parameters) override {
        GUID event{};
        parameters->GetGuidValue(WPD_EVENT_PARAMETER_EVENT_ID, &event);
        const auto text = [parameters](const PROPERTYKEY& key) {
            CoTaskString value;
            return SUCCEEDED(parameters->GetStringValue(key, &value)) && value.Get() != nullptr
                       ? std::wstring(value.Get())
                       : std::wstring();
        };
        ReceivedEvent received{event == WPD_EVENT_OBJECT_ADDED     ? "added"
                               : event == WPD_EVENT_OBJECT_REMOVED ? "removed"
                                                                   : "other",
                               text(WPD_OBJECT_NAME), text(WPD_OBJECT_ID), text(WPD_OBJECT_PARENT_ID), L""};
        std::lock_guard<std::mutex> guard(lock);
        if (received.event == "added" && received.name == marker) {
            SetEvent(markerSeen);
        }
        events.push_back(received);
        return S_OK;
    }

    const std::wstring marker;
    const HANDLE markerSeen = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    std::mutex lock;
    std::vector<ReceivedEvent> events;
};

}  // namespace

int RunWpdListener(const ChildArguments& arguments) {
    if (arguments.rest.size() != 3) {
        return 2;
    }
    WpdClient client(arguments.rest[1]);
    EventLog log(arguments.rest[2].c_str());
    CoTaskString cookie;
    if (!client.Opened() || FAILED(client.Device()->Advise(0, &log, nullptr, &cookie))) {
        return 2;
    }
    arguments.SignalReady();
    if (WaitForSingleObject(log.markerSeen, 120000) != WAIT_OBJECT_0) {
        return 3;
    }
    // Events raised before the marker's have all been handed to pool threads: wait until they are delivered.
    auto* waitForEvents = reinterpret_cast<DorwexEmulatorWaitForEventsFunction>(reinterpret_cast<void*>(
        GetProcAddress(GetModuleHandleW(L"dorwex_wpd_emulator.dll"), "DorwexEmulatorWaitForEvents")));
    if (waitForEvents == nullptr || !waitForEvents(30000)) {
        return 4;
    }
    client.Device()->Unadvise(cookie.Get());
    std::ofstream result(std::string(arguments.rest[0].begin(), arguments.rest[0].end()));
    std::lock_guard<std::mutex> guard(log.lock);
    for (const auto& event : log.events) {
        result << event.event << " " << Narrow(event.name) << " " << Narrow(event.id) << " " << Narrow(event.parentId)
               << " " << Narrow(client.Name(event.id)) << "\n";
    }
    return 0;
}

namespace {

constexpr wchar_t kMarker[] = L"marker.txt";

// This program in another process, advised on the phone until the marker object is added.
class Listener {
public:
    explicit Listener(const std::wstring& deviceId)
        : m_result(ProgramDirectory() + L"\\wpd-listener-" + std::to_wstring(GetCurrentProcessId()) + L"-" +
                   std::to_wstring(GetTickCount64()) + L".txt"),
          m_process(L"--wpd-listener", {m_result, deviceId, kMarker}) {}
    ~Listener() { DeleteFileW(m_result.c_str()); }
    bool Advised() const { return m_process.Ready(); }
    std::vector<ReceivedEvent> Finish() {
        std::vector<ReceivedEvent> events;
        if (!m_process.Ended(180000)) {
            ADD_FAILURE() << "the listener did not end";
            return events;
        }
        std::ifstream file(std::string(m_result.begin(), m_result.end()));
        std::string line;
        while (std::getline(file, line)) {
            std::istringstream fields(line);
            std::string event, name, id, parent, resolved;
            fields >> event >> name >> id >> parent >> resolved;
            events.push_back({event, Widened(name), Widened(id), Widened(parent), Widened(resolved)});
        }
        return events;
    }

private:
    std::wstring m_result;
    ClientProcess m_process;
};

class WpdEventsAcrossProcesses : public testing::Test {
protected:
    void SetUp() override { emulator.Attach(spec); }
    WpdEmulator emulator;
    EmulatedDeviceSpec spec = PhoneSpec("usb#across", "Acme", "A1");
    const std::wstring device = L"usb#across";
};

// This process adds a folder, a file in the storage and one in the folder, removes the first file, then adds
// the marker. The other process receives each event once, in its own ids: the ids of the objects still there
// name them in its stack, the file in the folder has the folder's id as its parent, and the removal carries
// the id the addition did. This process's own subscriber receives each event once too, not again by way of
// the other process.
TEST_F(WpdEventsAcrossProcesses, AnotherProcessReceivesTheChangesInItsOwnIdsOnce) {
    WpdClient self(device);
    ASSERT_TRUE(self.Opened());
    EventLog own(kMarker);
    CoTaskString cookie;
    ASSERT_EQ(self.Device()->Advise(0, &own, nullptr, &cookie), S_OK);
    Listener other(device);
    ASSERT_TRUE(other.Advised());

    const std::wstring folder = self.CreateFolder(L"s10001", L"DCIM");
    ASSERT_FALSE(folder.empty());
    const std::wstring gone = self.CreateFile(L"s10001", L"gone.txt", "gone");
    ASSERT_FALSE(gone.empty());
    ASSERT_FALSE(self.CreateFile(folder, L"b.jpg", "jpeg").empty());
    ASSERT_EQ(self.Delete(gone), S_OK);
    ASSERT_FALSE(self.CreateFile(L"s10001", kMarker, "end").empty());
    const auto received = other.Finish();

    struct Expected {
        const char* event;
        const wchar_t* name;
        bool stillThere;
    };
    const Expected expected[] = {
        {"added", L"DCIM", true},     {"added", L"gone.txt", false}, {"added", L"b.jpg", true},
        {"removed", L"gone.txt", false}, {"added", kMarker, true},
    };
    std::map<std::wstring, std::wstring> addedIds;  // name -> the other process's id
    for (const Expected& row : expected) {
        const auto matches = std::count_if(received.begin(), received.end(), [&row](const ReceivedEvent& event) {
            return event.event == row.event && event.name == row.name;
        });
        EXPECT_EQ(matches, 1) << row.event << " " << Narrow(row.name);
        for (const auto& event : received) {
            if (event.event != row.event || event.name != row.name) {
                continue;
            }
            EXPECT_FALSE(event.id.empty());
            EXPECT_EQ(event.resolved, row.stillThere ? row.name : L"")
                << Narrow(row.name) << ": the other process's stack names the id it was given";
            if (event.event == "added") {
                addedIds[event.name] = event.id;
            } else {
                EXPECT_EQ(event.id, addedIds[event.name]) << "the removal names the object the addition did";
            }
        }
    }
    EXPECT_EQ(received.size(), std::size(expected)) << "nothing else, nothing twice";
    for (const auto& event : received) {
        if (event.name == L"b.jpg") {
            EXPECT_EQ(event.parentId, addedIds[L"DCIM"]) << "the parent in the other process's ids";
        } else if (event.name != L"") {
            EXPECT_EQ(event.parentId, L"s10001");
        }
    }

    ASSERT_TRUE(emulator.WaitForEvents(10000));
    self.Device()->Unadvise(cookie.Get());
    std::lock_guard<std::mutex> guard(own.lock);
    EXPECT_EQ(own.events.size(), std::size(expected)) << "the process that made the changes hears each once";
}

// A burst from one process: every one of 2,000 additions reaches the subscriber in the other, none twice.
TEST_F(WpdEventsAcrossProcesses, ABurstReachesTheOtherProcessWhole) {
    constexpr int kObjects = 2000;
    WpdClient self(device);
    ASSERT_TRUE(self.Opened());
    Listener other(device);
    ASSERT_TRUE(other.Advised());
    for (int i = 0; i < kObjects; ++i) {
        ASSERT_FALSE(self.CreateFile(L"s10001", L"burst-" + std::to_wstring(i) + L".bin", "b").empty()) << i;
    }
    ASSERT_FALSE(self.CreateFile(L"s10001", kMarker, "end").empty());
    const auto received = other.Finish();
    std::map<std::wstring, int> seen;
    for (const auto& event : received) {
        EXPECT_EQ(event.event, "added");
        EXPECT_EQ(event.resolved, event.name);
        ++seen[event.name];
    }
    int once = 0;
    for (int i = 0; i < kObjects; ++i) {
        once += seen[L"burst-" + std::to_wstring(i) + L".bin"] == 1 ? 1 : 0;
    }
    EXPECT_EQ(once, kObjects) << "additions received exactly once";
    EXPECT_EQ(received.size(), static_cast<size_t>(kObjects + 1)) << "nothing else, nothing twice";
}

}  // namespace
