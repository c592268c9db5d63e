// The hidden window's handling of device notifications, and the event callback's hand-off of a storage
// that comes up on a device.
#include <gtest/gtest.h>

#include <windows.h>
#include <dbt.h>
#include <wrl/client.h>

#include <functional>
#include <string>
#include <vector>

#include "device/portable_device_api.h"
#include "monitor/wpd_core.h"
#include "monitor/wpd_events_listener.h"
#include "monitor/wpd_events_processor.h"
#include "device/wpd_object_events.h"
#include "support/test_trace_sink.h"
#include "support/wait_until.h"
#include "support/wpd_emulator.h"
#include "wmi/module.h"

using Microsoft::WRL::ComPtr;

namespace {

constexpr GUID kWPDInterface = {0x6ac27878, 0xa6fa, 0x4155, {0xba, 0x85, 0xf9, 0x8f, 0x49, 0x1d, 0x4f, 0x33}};
constexpr GUID kDiskInterface = {0x53f56307, 0xb6bf, 0x11d0, {0x94, 0xf2, 0x00, 0xa0, 0xc9, 0x1e, 0xfb, 0x8b}};

// A device-interface record as the system builds it, in task memory (a posted mount record is freed by the
// window).
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
        InterlockedExchange(&g_longWindowClosing, 0);
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
        return trace.Has(L"CDorWEXWMIThreadWPDEventsProcessor::ProcessApplicationEvent, calling OfflineEvent");
    }));
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

TEST_F(Listener, RemovalEventsAreSuppressedBeforeWindows10Build16299) {
    ComPtr<IPortableDeviceValues> parameters;
    ASSERT_EQ(CoCreateInstance(CLSID_PortableDeviceValues, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&parameters)),
              S_OK);
    parameters->SetGuidValue(WPD_EVENT_PARAMETER_EVENT_ID, WPD_EVENT_OBJECT_REMOVED);
    parameters->SetStringValue(WPD_OBJECT_ID, L"o7");
    parameters->SetStringValue(WPD_OBJECT_NAME, L"a.jpg");
    parameters->SetGuidValue(WPD_OBJECT_CONTENT_TYPE, WPD_CONTENT_TYPE_GENERIC_FILE);
    TraceCapture trace(1);
    ComPtr<IPortableDeviceEventCallback> callback;
    callback.Attach(new CDorWEXWPDObjectEvents(&core, nullptr));
    callback->OnEvent(parameters.Get());
    EXPECT_TRUE(trace.Has(L"CDorWEXWPDObjectEvents::OnEvent WPD_EVENT_OBJECT_ADDED being suppressed.\n"));
    EXPECT_TRUE(trace.StartingWith(L"CDorWEXWMIWPDCore::SendEvent").empty());
    EXPECT_TRUE(trace.Has(L"CDorWEXWPDObjectEvents::OnEvent, Object Id: o7 Object Name: a.jpg Event: "
                          L"WPD_EVENT_OBJECT_REMOVED ContentType: {0085E0A6-8D34-45D7-BC5C-447E59C73D48}\n"));
}

}  // namespace
