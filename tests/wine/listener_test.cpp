// The hidden window's handling of device notifications, and the event callback's hand-off of a storage
// that comes up on a device.
#include <gtest/gtest.h>

#include <windows.h>
#include <dbt.h>
#include <wrl/client.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "device/portable_device_api.h"
#include "device/os_version.h"
#include "monitor/wpd_core.h"
#include "monitor/wpd_events_listener.h"
#include "monitor/wpd_events_processor.h"
#include "device/wpd_object_events.h"
#include "support/task_memory_watch.h"
#include "support/test_trace_sink.h"
#include "support/trace_gate.h"
#include "support/wait_until.h"
#include "support/wpd_emulator.h"
#include "wmi/module.h"

using Microsoft::WRL::ComPtr;

namespace {

constexpr GUID kWPDInterface = {0x6ac27878, 0xa6fa, 0x4155, {0xba, 0x85, 0xf9, 0x8f, 0x49, 0x1d, 0x4f, 0x33}};
constexpr GUID kDiskInterface = {0x53f56307, 0xb6bf, 0x11d0, {0x94, 0xf2, 0x00, 0xa0, 0xc9, 0x1e, 0xfb, 0x8b}};

// A device-interface record as the system builds it, in task memory.
DEV_BROADCAST_DEVICEINTERFACE_W* Record(const GUID& interfaceClass, const std::wstring& name) {
    const size_t size = offsetof(DEV_BROADCAST_DEVICEINTERFACE_W, dbcc_name) + (name.size() + 1) * sizeof(wchar_t);
    auto* record = static_cast<DEV_BROADCAST_DEVICEINTERFACE_W*>(CoTaskMemAlloc(size));
    memset(record, 0, size);
    record->dbcc_size = static_cast<DWORD>(size);
    record->dbcc_devicetype = DBT_DEVTYP_DEVICEINTERFACE;
    record->dbcc_classguid = interfaceClass;
    memcpy(record->dbcc_name, name.c_str(), (name.size() + 1) * sizeof(wchar_t));
    return record;
}

class Listener : public testing::Test {
protected:
    void SetUp() override {
        core.Initialize();
        ASSERT_TRUE(WaitUntil([&] {
            auto lock = core.GetWPDEventsProcessor()->LockListener();
            auto* listener = core.GetWPDEventsProcessor()->GetListener();
            return listener != nullptr && (window = listener->GetWindow()) != nullptr;
        }));
    }
    size_t DiskMounts() {
        std::lock_guard<std::mutex> guard(core.GetDiskMountLock());
        return core.GetDiskMountMap().size();
    }
    bool DiskMountOf(const std::wstring& name) {
        std::lock_guard<std::mutex> guard(core.GetDiskMountLock());
        return core.GetDiskMountMap().count(name) != 0;
    }

    WpdEmulator emulator;
    CDorWEXWMIWPDCore core;
    HWND window = nullptr;
};

TEST_F(Listener, NotificationsOfOtherKindsChangeNothing) {
    TraceCapture trace(1);
    EXPECT_EQ(SendMessageW(window, WM_DEVICECHANGE, DBT_DEVNODES_CHANGED, 0), TRUE);
    DEV_BROADCAST_DEVICEINTERFACE_W* disk = Record(kDiskInterface, L"\\\\?\\usbstor#disk");
    EXPECT_EQ(SendMessageW(window, WM_DEVICECHANGE, DBT_DEVICEREMOVECOMPLETE, reinterpret_cast<LPARAM>(disk)), TRUE);
    EXPECT_EQ(SendMessageW(window, WM_DEVICECHANGE, DBT_DEVICEARRIVAL, reinterpret_cast<LPARAM>(disk)), TRUE);
    CoTaskMemFree(disk);
    EXPECT_TRUE(trace.StartingWith(L"CDorWEXWMIWPDEventsListener::ProcessWPD").empty());
    EXPECT_EQ(DiskMounts(), 0u);
    EXPECT_EQ(WaitForSingleObject(g_HANDLEApplicationEvent, 0), static_cast<DWORD>(WAIT_TIMEOUT));
}

TEST_F(Listener, RemovalHandsTheNameToTheMonitorAndSignalsTheServiceEvent) {
    const std::wstring name = L"\\\\?\\usb#vid_1";
    HANDLE serviceEvent = CreateEventW(nullptr, TRUE, FALSE, L"DORWEXEVENTOFFLINE~~?~USB#VID_1");
    TraceCapture trace(1);
    DEV_BROADCAST_DEVICEINTERFACE_W* record = Record(kWPDInterface, name);
    EXPECT_EQ(SendMessageW(window, WM_DEVICECHANGE, DBT_DEVICEREMOVECOMPLETE, reinterpret_cast<LPARAM>(record)), TRUE);
    CoTaskMemFree(record);
    EXPECT_EQ(WaitForSingleObject(serviceEvent, 0), WAIT_OBJECT_0) << "the security service learns of it";
    EXPECT_TRUE(trace.Has(L"CDorWEXWMIWPDEventsListener::HandleMultiFactorAuthenticationEvents, return TRUE\n"));
    // The monitor thread takes the name and tries to delete the instance (no WMI here, so that fails).
    EXPECT_TRUE(WaitUntil([&] {
        return trace.Has(L"CDorWEXWMIThreadWPDEventsProcessor::OfflineEvent, CoCreateInstance(CLSID_WbemAdministrativeLocator "
                         L"failed.\n");
    }));
    const std::vector<std::wstring> expected = {
        L"CDorWEXWMIWPDEventsListener::dorWEXWMIWPDWindowProcCallback, DBT_DEVICEREMOVECOMPLETE\r\n",
        L"CDorWEXWMIWPDEventsListener::HandleMultiFactorAuthenticationEvents, enter: \\\\?\\usb#vid_1 OFFLINE.\r\n",
        L"CDorWEXWMIWPDEventsListener::HandleMultiFactorAuthenticationEvents, SetEvent succeeded\r\n",
        L"CDorWEXWMIWPDEventsListener::HandleMultiFactorAuthenticationEvents, return TRUE\r\n",
        L"CDorWEXWMIWPDEventsListener::ProcessWPDOfflineEvent\r\n",
        L"CDorWEXWMIThreadBase::TheMonitorThread2 (TheMonitorThreadForThreadWPD) - handle 2 posted - calling "
        L"ProcessApplicationEvent.\r\n",
        L"CDorWEXWMIThreadWPDEventsProcessor::ProcessApplicationEvent\r\n",
        L"CDorWEXWMIThreadWPDEventsProcessor::ProcessApplicationEvent, calling OfflineEvent\r\n",
        L"CDorWEXWMIThreadWPDEventsProcessor::OfflineEvent, enter.\r\n",
        L"CDorWEXWMIThreadWPDEventsProcessor::OfflineEvent, CoCreateInstance(CLSID_WbemAdministrativeLocator "
        L"failed.\r\n",
    };
    EXPECT_EQ(trace.Lines(), expected) << "no WMI in this program: the locator is refused";
    CloseHandle(serviceEvent);
}

TEST_F(Listener, StorageArrivalOnADeviceIsRecordedAsOneDiskMount) {
    ComPtr<IPortableDeviceValues> parameters;
    ASSERT_EQ(CoCreateInstance(CLSID_PortableDeviceValues, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&parameters)),
              S_OK);
    parameters->SetGuidValue(WPD_EVENT_PARAMETER_EVENT_ID, WPD_EVENT_OBJECT_ADDED);
    parameters->SetStringValue(WPD_OBJECT_ID, L"s10001");
    parameters->SetStringValue(WPD_OBJECT_PARENT_ID, L"DEVICE");
    parameters->SetGuidValue(WPD_OBJECT_CONTENT_TYPE, WPD_CONTENT_TYPE_FUNCTIONAL_OBJECT);
    parameters->SetStringValue(WPD_EVENT_PARAMETER_PNP_DEVICE_ID, L"\\\\?\\usb#vid_2#mounting");

    TraceCapture trace(1);
    ComPtr<IPortableDeviceEventCallback> callback;
    callback.Attach(new CDorWEXWPDObjectEvents(&core, nullptr));
    EXPECT_EQ(callback->OnEvent(nullptr), E_POINTER);
    callback->OnEvent(parameters.Get());
    ASSERT_TRUE(WaitUntil([&] { return DiskMounts() == 1; }));
    EXPECT_EQ(trace.Count(L"CDorWEXWMIThreadWPDEventsProcessor::ProcessDiskMount, calling OnlineEvent"), 1u);
    callback->OnEvent(parameters.Get());
    ASSERT_TRUE(WaitUntil([&] {
        return trace.Has(L"CDorWEXWMIWPDEventsListener::ProcessWPDDiskMount, removed previous entry.\n");
    }));
    EXPECT_EQ(DiskMounts(), 1u) << "a second mount of the same name replaces the first";
    EXPECT_TRUE(trace.StartingWith(L"CDorWEXWMIWPDCore::SendEvent").empty()) << "a storage arrival is no event";
    {
        std::lock_guard<std::mutex> guard(core.GetDiskMountLock());
        EXPECT_EQ(core.GetDiskMountMap().begin()->first, L"\\\\?\\usb#vid_2#mounting");
    }
}

// Any process of the session can post the window a DBT_DEVNODES_CHANGED with any value in lParam. The
// window neither reads nor frees what is at that address: here the foreign value is a block this test owns,
// in task memory and shaped like a portable device's record.
TEST_F(Listener, DevnodesChangedWithAForeignPointerIsNeitherReadNorFreed) {
    TaskMemoryWatch memory;
    ASSERT_TRUE(memory.Active());
    const std::wstring name = L"\\\\?\\usb#vid_4#foreign";
    DEV_BROADCAST_DEVICEINTERFACE_W* foreign = Record(kWPDInterface, name);
    const auto* bytes = reinterpret_cast<const BYTE*>(foreign);
    const std::vector<BYTE> before(bytes, bytes + foreign->dbcc_size);
    TraceCapture trace(1);
    ASSERT_TRUE(PostMessageW(window, WM_DEVICECHANGE, DBT_DEVNODES_CHANGED, reinterpret_cast<LPARAM>(foreign)));
    // The window takes posted messages in order: once a disk mount handed over after it is recorded, the
    // foreign message has been handled.
    core.PostDiskMount(L"\\\\?\\usb#vid_4#after");
    ASSERT_TRUE(WaitUntil([&] { return DiskMountOf(L"\\\\?\\usb#vid_4#after"); }));
    const bool freed = memory.Freed(foreign);
    EXPECT_FALSE(freed) << "the window freed a block it was never given";
    EXPECT_FALSE(DiskMountOf(name)) << "the window took a record from a pointer it was never given";
    EXPECT_FALSE(trace.Has(L"CDorWEXWMIWPDEventsListener::HandleMultiFactorAuthenticationEvents, enter: " + name +
                           L" ONLINE.\n"));
    if (!freed) {
        EXPECT_EQ(memcmp(foreign, before.data(), before.size()), 0);
        CoTaskMemFree(foreign);
    }
}

// Disk mounts handed over while the window closes are not handled, and their records go with the window.
TEST_F(Listener, DiskMountsStillQueuedWhenTheWindowClosesAreFreed) {
    TaskMemoryWatch memory;
    ASSERT_TRUE(memory.Active());
    TraceCapture trace(1);
    {
        TraceGate gate(L"CDorWEXWMIWPDEventsListener ==> dorWEXWMIWPDWindowProcCallback, WM_CLOSE");
        ASSERT_TRUE(PostMessageW(window, WM_CLOSE, 0, 0));
        ASSERT_TRUE(gate.WaitHeld());
        memory.Record(true);
        core.PostDiskMount(L"\\\\?\\usb#vid_5#late1");
        core.PostDiskMount(L"\\\\?\\usb#vid_5#late2");
        memory.Record(false);
        ASSERT_GE(memory.Recorded(), 2u) << "each hand-off holds its record in task memory";
    }
    ASSERT_TRUE(WaitUntil(
        [&] { return trace.Has(L"CDorWEXWMIWPDEventsListener::RunWindowsMessagePumpForListening exiting..."); }));
    EXPECT_EQ(memory.Outstanding(), 0u) << "records handed to a window that closed were left allocated";
    EXPECT_EQ(DiskMounts(), 0u);
}

// The online handler looks at device-interface records only; anything else is named and dropped (a record
// of a kind it does not know silently), and nothing is handed to the monitor.
TEST_F(Listener, OnlineHandlerNamesAndDropsWhatIsNoDeviceInterface) {
    const struct {
        DWORD type;
        const wchar_t* line;
    } cases[] = {
        {DBT_DEVTYP_OEM, L"   DBT_DEVTYP_OEM, dropped\r\n"},
        {DBT_DEVTYP_VOLUME, L"   DBT_DEVTYP_VOLUME, dropped\r\n"},
        {DBT_DEVTYP_PORT, L"   DBT_DEVTYP_PORT, dropped\r\n"},
        {DBT_DEVTYP_HANDLE, L"   DBT_DEVTYP_HANDLE, dropped\r\n"},
        {DBT_DEVTYP_NET, nullptr},
    };
    auto lock = core.GetWPDEventsProcessor()->LockListener();
    CDorWEXWMIWPDEventsListener* listener = core.GetWPDEventsProcessor()->GetListener();
    ASSERT_NE(listener, nullptr);
    for (const auto& c : cases) {
        DEV_BROADCAST_HDR header{sizeof(DEV_BROADCAST_HDR), c.type, 0};
        TraceCapture trace(1);
        listener->ProcessWPDOnline(DBT_DEVICEARRIVAL, &header);
        std::vector<std::wstring> expected = {L"CDorWEXWMIWPDEventsListener::ProcessWPDOnline\r\n"};
        if (c.line != nullptr) {
            expected.push_back(c.line);
        }
        EXPECT_EQ(trace.Lines(), expected) << c.type;
    }
    TraceCapture trace(1);
    listener->ProcessWPDOnline(DBT_DEVNODES_CHANGED, nullptr);
    EXPECT_EQ(trace.Lines(), (std::vector<std::wstring>{L"CDorWEXWMIWPDEventsListener::ProcessWPDOnline\r\n",
                                                        L"   lParam is NULL\r\n"}));
    EXPECT_EQ(WaitForSingleObject(g_HANDLEApplicationEvent, 0), static_cast<DWORD>(WAIT_TIMEOUT));
    EXPECT_EQ(DiskMounts(), 0u);
}

// An arrival, then the same device's disks mounting twice: the window's lines in order (the second mount
// replaces the first entry), each handed to the monitor, which tries to publish it (no WMI here). Any other
// message goes to the default handling.
TEST_F(Listener, ArrivalAndDiskMountsTraceTheirStepsInOrder) {
    const std::wstring name = L"\\\\?\\usb#vid_3#arriving";
    const std::vector<std::wstring> online = {
        L"CDorWEXWMIWPDEventsListener::HandleMultiFactorAuthenticationEvents, enter: " + name + L" ONLINE.\r\n",
        L"CDorWEXWMIWPDEventsListener::HandleMultiFactorAuthenticationEvents, return FALSE\r\n",
        L"CDorWEXWMIWPDEventsListener::ProcessWPDOnlineEvent\r\n",
    };
    const std::wstring start = L"CDorWEXWMIWPDEventsListener::ProcessWPDOnline\r\n";
    const std::wstring processing = L"   DBT_DEVTYP_DEVICEINTERFACE, processing\r\n";
    const std::wstring mount = L"CDorWEXWMIWPDEventsListener::ProcessWPDDiskMount\r\n";
    const std::wstring inserted = L"CDorWEXWMIWPDEventsListener::ProcessWPDDiskMount, inserted new entry.\r\n";
    const struct {
        const char* what;
        WPARAM change;
        std::vector<std::wstring> window;
    } cases[] = {
        {"arrival", DBT_DEVICEARRIVAL, {start, processing}},
        {"first mount", DBT_DEVNODES_CHANGED, {start, processing, mount, inserted}},
        {"second mount", DBT_DEVNODES_CHANGED,
         {start, processing, mount,
          L"CDorWEXWMIWPDEventsListener::ProcessWPDDiskMount, removing previous entry.\r\n",
          L"CDorWEXWMIWPDEventsListener::ProcessWPDDiskMount, removed previous entry.\r\n", inserted}},
    };
    for (const auto& c : cases) {
        TraceCapture trace(1);
        if (c.change == DBT_DEVICEARRIVAL) {
            // The system's arrival: its record is read during the call and stays the sender's.
            DEV_BROADCAST_DEVICEINTERFACE_W* record = Record(kWPDInterface, name);
            EXPECT_EQ(SendMessageW(window, WM_DEVICECHANGE, c.change, reinterpret_cast<LPARAM>(record)), TRUE);
            CoTaskMemFree(record);
        } else {
            // A storage coming up on the device, handed to the window as the event callback hands it.
            core.PostDiskMount(name.c_str());
        }
        // The monitor thread takes this notification (its Plug and Play view names it) and publishes it, here
        // without WMI, so that ends at once. Notifications left from earlier tests may be handled around it.
        const std::wstring viewed = L"CDorWEXWPDObjectInWin32::ProcessDeviceNotification entered for " + name + L"\r\n";
        const std::vector<std::wstring> monitor = {
            viewed,
            L"CDorWEXWMIThreadWPDEventsProcessor::ProcessApplicationEvent, calling OnlineEvent\r\n",
            L"CDorWEXWMIThreadWPDEventsProcessor::OnlineEvent, enter.\r\n",
        };
        const auto following = [&](const std::vector<std::wstring>& lines) {
            size_t at = 0;
            for (const auto& line : monitor) {
                at = std::find(lines.begin() + at, lines.end(), line) - lines.begin();
                if (at == lines.size()) {
                    return false;
                }
            }
            return true;
        };
        ASSERT_TRUE(WaitUntil([&] { return following(trace.Lines()); })) << c.what;
        // The window's own lines, in order.
        std::vector<std::wstring> expected = c.window;
        expected.insert(expected.end(), online.begin(), online.end());
        std::vector<std::wstring> windowLines;
        for (const auto& line : trace.Lines()) {
            if (line.compare(0, 29, L"CDorWEXWMIWPDEventsListener::") == 0 || line.compare(0, 3, L"   ") == 0) {
                windowLines.push_back(line);
            }
        }
        EXPECT_EQ(windowLines, expected) << c.what;
    }
    EXPECT_EQ(DiskMounts(), 1u);

    TraceCapture trace(1);
    EXPECT_EQ(SendMessageW(window, WM_USER + 5, 0, 0), 0);
    EXPECT_TRUE(trace.Has(L"CDorWEXWMIWPDEventsListener ==> dorWEXWMIWPDWindowProcCallback, send message to default"));
}

// The callback answers for its two interfaces only, each answer naming itself first.
TEST_F(Listener, EventCallbackAnswersForItsInterfaces) {
    ComPtr<IPortableDeviceEventCallback> callback;
    callback.Attach(new CDorWEXWPDObjectEvents(&core, nullptr));
    // The count an answer raises the references to.
    const ULONG raised = callback->AddRef();
    callback->Release();
    const struct {
        const IID* iid;
        HRESULT result;
    } cases[] = {{&IID_IUnknown, S_OK}, {&IID_IPortableDeviceEventCallback, S_OK}, {&IID_IDispatch, E_NOINTERFACE}};
    for (const auto& c : cases) {
        TraceCapture trace(1);
        IUnknown* answer = nullptr;
        EXPECT_EQ(callback->QueryInterface(*c.iid, reinterpret_cast<void**>(&answer)), c.result);
        std::vector<std::wstring> expected = {L"CDorWEXWPDObjectEvents::QueryInterface\r\n"};
        if (c.result == S_OK) {
            EXPECT_EQ(answer, callback.Get());
            answer->Release();
            expected.push_back(L"CDorWEXWPDObjectEvents::AddRef, " + std::to_wstring(raised) + L"\r\n");
            expected.push_back(L"CDorWEXWPDObjectEvents::Release, " + std::to_wstring(raised - 1) + L"\r\n");
        }
        EXPECT_EQ(trace.Lines(), expected);
    }
    TraceCapture trace(1);
    EXPECT_EQ(callback->QueryInterface(IID_IUnknown, nullptr), E_INVALIDARG);
    EXPECT_EQ(trace.Lines(), std::vector<std::wstring>{L"CDorWEXWPDObjectEvents::QueryInterface\r\n"});
}

// The kernel's version as the event callback reads it, for the life of the object.
class ReportedVersion {
public:
    ReportedVersion(DWORD major, DWORD minor, DWORD build) {
        s_major = major;
        s_minor = minor;
        s_build = build;
        SetRtlGetVersion(&Answer);
    }
    ~ReportedVersion() { SetRtlGetVersion(nullptr); }
    ReportedVersion(const ReportedVersion&) = delete;
    ReportedVersion& operator=(const ReportedVersion&) = delete;

private:
    static LONG WINAPI Answer(OSVERSIONINFOEXW* info) {
        info->dwMajorVersion = s_major;
        info->dwMinorVersion = s_minor;
        info->dwBuildNumber = s_build;
        info->dwPlatformId = VER_PLATFORM_WIN32_NT;
        return 0;
    }
    static inline DWORD s_major = 0, s_minor = 0, s_build = 0;
};

// Windows 10 from build 16299 on delivers every content event; on older systems (an older Windows 10 build,
// or any other version whatever its build) only additions are passed on, the others are dropped with the
// suppression lines. One event each, the exact lines in order.
TEST_F(Listener, ContentEventsBeforeWindows10Build16299AreSuppressedExceptAdditions) {
    ComPtr<IPortableDeviceValues> parameters;
    ASSERT_EQ(CoCreateInstance(CLSID_PortableDeviceValues, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&parameters)),
              S_OK);
    parameters->SetStringValue(WPD_OBJECT_ID, L"o7");
    parameters->SetStringValue(WPD_OBJECT_NAME, L"a.jpg");
    parameters->SetGuidValue(WPD_OBJECT_CONTENT_TYPE, WPD_CONTENT_TYPE_GENERIC_FILE);
    parameters->SetStringValue(WPD_OBJECT_PERSISTENT_UNIQUE_ID, L"P7");
    const std::wstring tail = L" ContentType: {0085E0A6-8D34-45D7-BC5C-447E59C73D48}Object Persistent Unique Id: P7";
    const std::wstring enter = L"CDorWEXWPDObjectEvents::OnEvent enter.";
    const std::wstring send = L"CDorWEXWMIWPDCore::SendEvent enter.";
    const std::wstring suppressed = L"CDorWEXWPDObjectEvents::OnEvent WPD_EVENT_OBJECT_ADDED being suppressed.";
    const struct {
        DWORD major, minor, build;
        const GUID* event;
        const wchar_t* name;
        bool old;        // before Windows 10 build 16299
        bool forwarded;  // handed to the event delivery
    } cases[] = {
        {10, 0, 16299, &WPD_EVENT_OBJECT_REMOVED, L"WPD_EVENT_OBJECT_REMOVED", false, true},
        {10, 0, 19045, &WPD_EVENT_OBJECT_UPDATED, L"WPD_EVENT_OBJECT_UPDATED", false, true},
        {10, 0, 16299, &WPD_EVENT_OBJECT_ADDED, L"WPD_EVENT_OBJECT_ADDED", false, true},
        {10, 0, 16298, &WPD_EVENT_OBJECT_REMOVED, L"WPD_EVENT_OBJECT_REMOVED", true, false},
        {10, 0, 16298, &WPD_EVENT_DEVICE_REMOVED, L"WPD_EVENT_DEVICE_REMOVED", true, false},
        {10, 0, 16298, &WPD_EVENT_OBJECT_ADDED, L"WPD_EVENT_OBJECT_ADDED", true, true},
        {6, 3, 17763, &WPD_EVENT_OBJECT_UPDATED, L"WPD_EVENT_OBJECT_UPDATED", true, false},
        {11, 0, 22000, &WPD_EVENT_OBJECT_REMOVED, L"WPD_EVENT_OBJECT_REMOVED", true, false},
        {6, 1, 7601, &WPD_EVENT_OBJECT_ADDED, L"WPD_EVENT_OBJECT_ADDED", true, true},
    };
    for (const auto& c : cases) {
        const std::string what = std::to_string(c.major) + "." + std::to_string(c.minor) + "." +
                                 std::to_string(c.build) + " " + std::string(c.name, c.name + wcslen(c.name));
        ReportedVersion version(c.major, c.minor, c.build);
        parameters->SetGuidValue(WPD_EVENT_PARAMETER_EVENT_ID, *c.event);
        const std::wstring text = std::wstring(L"Object Id: o7 Object Name: a.jpg Event: ") + c.name + tail;
        std::vector<std::wstring> expected = {enter};
        if (c.old) {
            expected.push_back(L"CDorWEXWPDObjectEvents::OnEvent before suppress " + text + L".");
            if (!c.forwarded) {
                expected.push_back(suppressed);
            }
        }
        if (c.forwarded) {
            expected.push_back(send);
        }
        expected.push_back(L"CDorWEXWPDObjectEvents::OnEvent, " + text);

        ComPtr<IPortableDeviceEventCallback> callback;
        callback.Attach(new CDorWEXWPDObjectEvents(&core, nullptr));
        TraceCapture trace(1);
        EXPECT_EQ(callback->OnEvent(parameters.Get()), S_OK) << what;
        std::vector<std::wstring> lines;
        for (const auto& line : trace.Lines()) {
            lines.push_back(line.substr(0, line.size() - 2));  // without the line end
        }
        EXPECT_EQ(lines, expected) << what;
    }
}

}  // namespace
