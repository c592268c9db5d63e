// The device collection over emulated devices: adding, removing, the lookup strategies and their traces,
// the companion counts, and devices that stay valid for their holders.
#include <gtest/gtest.h>

#include <atomic>
#include <optional>
#include <thread>

#include "channels/blackberry_named_pipe.h"
#include "channels/companion_channels.h"
#include "device/wpd_object.h"
#include "monitor/companion_processors.h"
#include "monitor/wpd_collection.h"
#include "monitor/wpd_core.h"
#include "support/pnp_tree_double.h"
#include "support/test_trace_sink.h"
#include "support/trace_gate.h"
#include "support/wait_until.h"
#include "support/wpd_emulator.h"

namespace {

class Collection : public testing::Test {
protected:
    void TearDown() override { core.reset(); }

    WpdEmulator emulator;
    std::unique_ptr<CDorWEXWMIWPDCore> core = std::make_unique<CDorWEXWMIWPDCore>();
    CDorWEXWPDCollection& devices = *core->GetCollection();
};

TEST_F(Collection, IdsAreCaseBlindForAddRemoveAndLookup) {
    emulator.Attach(PhoneSpec("usb#vid_1#Galaxy", "SAMSUNG", "G1"));
    TraceCapture trace(1);
    EXPECT_EQ(devices.AddWPD(L"usb#vid_1#Galaxy"), S_OK);
    EXPECT_TRUE(trace.Has(L"CDorWEXWPDObject::Initialize enter USB#VID_1#GALAXY.\n"));
    EXPECT_TRUE(trace.Has(L"CDorWEXWPDCollection::AddWPD call to Initialize for USB#VID_1#GALAXY HRESULT = "
                          L"0x00000000.\n"));
    EXPECT_TRUE(trace.Has(L"CDorWEXWPDCollection::AddWPD, m_ActiveWpdDevicesMap.insert.\n"));
    EXPECT_EQ(devices.AddWPD(L"USB#VID_1#GALAXY"), S_OK);
    EXPECT_EQ(devices.Count(), 1u) << "the same device twice is kept once";
    EXPECT_EQ(emulator.OpenSessions(L"usb#vid_1#galaxy"), 1) << "the refused second object closed its session";

    ASSERT_TRUE(devices.FindWPDObjectById(L"usb#VID_1#galaxy"));
    EXPECT_EQ(devices.RemoveWPD(L"Usb#Vid_1#Galaxy"), 0);
    EXPECT_FALSE(devices.FindWPDObjectById(L"usb#vid_1#galaxy"));
    EXPECT_TRUE(trace.Has(L"CDorWEXWPDCollection::AddWPD, m_ActiveWpdDevicesMap.erase.\n"));
    EXPECT_EQ(emulator.OpenSessions(L"usb#vid_1#galaxy"), 0);
    EXPECT_EQ(devices.RemoveWPD(L"usb#vid_1#galaxy"), 0) << "removing an absent device is harmless";
    EXPECT_EQ(devices.AddWPD(nullptr), S_OK);
    EXPECT_EQ(devices.RemoveWPD(nullptr), 0);
}

// A device that is not kept goes with everything it opened: its session and its event subscription, whether
// it is a storage stick, a device whose start-up failed after its callback was registered, or a second
// device with a serial number already present.
TEST_F(Collection, ADeviceThatIsNotKeptLeavesNothingOpen) {
    emulator.Attach(PhoneSpec("usb#present", "SAMSUNG", "TWIN"));
    ASSERT_EQ(devices.AddWPD(L"usb#present"), S_OK);
    const struct {
        EmulatedDeviceSpec spec;
        bool pnpFails;  // the Plug and Play view of the device's last start-up step fails
        HRESULT result;
        const wchar_t* traceLine;  // or null
    } cases[] = {
        {PhoneSpec("usb#stick", "Kingston", "K1"), false, E_FAIL,
         L"CDorWEXWPDCollection::AddWPD DeviceManufacturer is LOGICALDISK, HRESULT=80004005\n"},
        {PhoneSpec("usb#nomaker", "", "N1"), true, HRESULT_FROM_WIN32(ERROR_ACCESS_DENIED),
         L"CDorWEXWPDObjectEvents::Register\n"},
        {PhoneSpec("usb#twin", "SAMSUNG", "TWIN"), false, S_OK, L"CDorWEXWPDCollection::ProcessDiskMount"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.spec.id);
        emulator.Attach(c.spec);
        std::optional<PnpTreeDouble> pnp;
        if (c.pnpFails) {
            pnp.emplace();
            pnp->Fail("SetupDiGetClassDevsW");
        }
        TraceCapture trace(1);
        const std::wstring id = Wide(c.spec.id);
        EXPECT_EQ(devices.AddWPD(id.c_str()), c.result);
        EXPECT_EQ(devices.Count(), 1u);
        if (c.traceLine != nullptr) {
            EXPECT_TRUE(trace.Has(c.traceLine));
        }
        EXPECT_TRUE(trace.Has(L"CDorWEXWPDObject::~CDorWEXWPDObject\n"));
        EXPECT_EQ(emulator.OpenSessions(id.c_str()), 0);
        EXPECT_EQ(emulator.Subscriptions(id.c_str()), 0);
    }
    EXPECT_EQ(emulator.OpenSessions(L"usb#present"), 1);
}

// A BlackBerry is on the list of watched shares from its arrival on, whatever the BlackBerry worker does:
// here its pipe name is held by another server, so the worker ends as soon as it starts and is started
// again, and the list stays with the processor.
TEST_F(Collection, ABlackBerryIsWatchedFromItsArrivalThroughWorkerRestarts) {
    HANDLE held = CreateNamedPipeW(kDorWEXBlackBerryPipeName, PIPE_ACCESS_DUPLEX,
                                   PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE, 1, 512, 512, 0, nullptr);
    ASSERT_NE(held, INVALID_HANDLE_VALUE);
    EmulatedDeviceSpec blackberry = PhoneSpec("usb#bb", "", "BB");
    blackberry.faultLines = {"Open = 0x80070005"};
    blackberry.registryLines = {"BBPIN = 2A3B", "DHCPServer = 169.254.0.1"};
    emulator.Attach(blackberry);
    TraceCapture trace(1);
    const ULONGLONG start = GetTickCount64();
    ASSERT_EQ(devices.AddWPD(L"usb#bb"), S_OK);
    EXPECT_LT(GetTickCount64() - start, 1000u) << "the arrival does not wait for the worker";
    ASSERT_NE(core->GetBlackBerryEventsProcessor(), nullptr);
    IDorWEXBlackBerryChannel* listener = core->GetBlackBerryEventsProcessor()->GetListener();
    ASSERT_NE(listener, nullptr);
    EXPECT_EQ(listener->MonitoredCount(), 1u);
    ASSERT_TRUE(WaitUntil([&] {
        return trace.Count(L"CDorWEXWMIThreadBlackBerryEventsProcessor::WorkerThreadBlackBerryEventsProcessor shutting "
                           L"down...\n") >= 2;
    }));
    EXPECT_EQ(core->GetBlackBerryEventsProcessor()->GetListener(), listener);
    EXPECT_EQ(listener->MonitoredCount(), 1u) << "the list outlives the worker's restarts";
    devices.RemoveWPD(L"usb#bb");
    CloseHandle(held);
}

// An Apple device or a BlackBerry added again under its id is kept once and counted once, so the last
// removal still stops its companion monitoring.
TEST_F(Collection, TheSameIdAddedTwiceIsCountedOnce) {
    emulator.Attach(PhoneSpec("usb#iphone", "Apple Inc.", "I1"));
    EmulatedDeviceSpec blackberry = PhoneSpec("usb#bb", "", "BB");
    blackberry.registryLines = {"BBPIN = 1234", "IMEI = 99"};
    emulator.Attach(blackberry);
    for (const wchar_t* id : {L"usb#iphone", L"USB#IPHONE", L"usb#bb", L"usb#BB"}) {
        ASSERT_EQ(devices.AddWPD(id), S_OK);
    }
    EXPECT_EQ(devices.Count(), 2u);
    EXPECT_EQ(devices.GetAppleCount(), 1);
    EXPECT_EQ(devices.GetBlackBerryCount(), 1);
    devices.RemoveWPD(L"usb#iphone");
    devices.RemoveWPD(L"usb#bb");
    EXPECT_FALSE(core->HasAppleMonitoring());
    EXPECT_FALSE(core->HasBlackBerryMonitoring());
}

// A BlackBerry whose record holds an empty "DHCPServer" is found by no id: an empty text occurs in every one.
TEST_F(Collection, AnEmptyShareAddressMatchesNoId) {
    EmulatedDeviceSpec first = PhoneSpec("usb#one", "SAMSUNG", "S1");
    emulator.Attach(first);
    EmulatedDeviceSpec second = PhoneSpec("usb#two", "SAMSUNG", "S2");
    emulator.Attach(second);
    ASSERT_EQ(devices.AddWPD(L"usb#one"), S_OK);
    ASSERT_EQ(devices.AddWPD(L"usb#two"), S_OK);
    EmulatedDeviceSpec blackberry = PhoneSpec("usb#bbnoaddress", "", "BB");
    blackberry.faultLines = {"Open = 0x80070005"};
    blackberry.registryLines = {"BBPIN = 2A3B", "DHCPServer = "};
    emulator.Attach(blackberry);
    ASSERT_EQ(devices.AddWPD(L"usb#bbnoaddress"), S_OK);
    const auto device = devices.FindWPDObjectById(L"usb#bbnoaddress");
    ASSERT_TRUE(device);
    ASSERT_NE(device->CompanionRecord(), nullptr);
    TraceCapture trace(1);
    EXPECT_FALSE(devices.FindWPDObject(L"anything at all", nullptr));
    EXPECT_TRUE(trace.StartingWith(L"CDorWEXWPDCollection::FindWPDObject/FindWPDObjectBlackBerryDevice(8)").empty());
    EXPECT_TRUE(trace.Has(L"CDorWEXWPDCollection::FindWPDObject: ERROR: Device not found(9): DeviceOrDiskId=anything "
                          L"at all, ObjectStoragePath=NULL\n"));
}

TEST_F(Collection, EveryLookupStrategyWithItsTrace) {
    EmulatedDeviceSpec first = PhoneSpec("usb#a", "SAMSUNG", "SERIAL-A", 2);
    first.friendlyName = "Galaxy A";
    emulator.Attach(first);
    EmulatedDeviceSpec second = PhoneSpec("usb#b", "SAMSUNG", "SERIAL-B");
    second.friendlyName = "Galaxy B";
    second.storages[0].name = "Internal";
    emulator.Attach(second);
    EmulatedDeviceSpec blackberry = PhoneSpec("usb#c", "RIM", "BB");
    blackberry.faultLines = {"Open = 0x80070005"};
    blackberry.registryLines = {"BBPIN = 2A3B", "DHCPServer = 169.254.0.1"};
    emulator.Attach(blackberry);
    ASSERT_EQ(devices.AddWPD(L"usb#a"), S_OK);
    ASSERT_EQ(devices.AddWPD(L"usb#b"), S_OK);
    ASSERT_EQ(devices.AddWPD(L"usb#c"), S_OK);
    const auto a = devices.FindWPDObjectById(L"usb#a");
    const auto b = devices.FindWPDObjectById(L"usb#b");
    const auto c = devices.FindWPDObjectById(L"usb#c");

    TraceCapture trace(1);
    struct Lookup {
        const wchar_t* id;
        const wchar_t* path;
        IDorWEXDeviceRegistry::DevicePtr expected;
        const wchar_t* traceLine;
    };
    const Lookup lookups[] = {
        {L"phoneUSB#A", nullptr, a,
         L"CDorWEXWPDCollection::FindWPDObject/FindWPDObjectBasedOnDiskNameAndDeviceId(3): DeviceOrDiskId=phoneUSB#A\n"},
        {L"CARDusb#a", nullptr, a,
         L"CDorWEXWPDCollection::FindWPDObject/FindWPDObjectBasedOnDiskNameAndDeviceId(3): DeviceOrDiskId=CARDusb#a\n"},
        {L"USB#B", nullptr, b, L"CDorWEXWPDCollection::FindWPDObject/FindWPDObjectBasedOnDevice(4): DeviceOrDiskId=USB#B\n"},
        {L"serial-b", nullptr, b,
         L"CDorWEXWPDCollection::FindWPDObject/FindWPDObjectBasedOnSerialNumber(5): DeviceOrDiskId=serial-b\n"},
        {L"galaxy a", L"x\\y", a,
         L"CDorWEXWPDCollection::FindWPDObject/FindWPDObjectBasedOnFriendlyName(6): ObjectStoragePath=x\\y\n"},
        {nullptr, L"internal\\DCIM\\a.jpg", b,
         L"CDorWEXWPDCollection::FindWPDObject/FindWPDObjectBasedOnDiskName(7): ObjectStoragePath=internal\\DCIM\\a.jpg\n"},
        // A device id that names no device does not fall to the storage name: that would be another device.
        {L"unknown", L"Card", nullptr,
         L"CDorWEXWPDCollection::FindWPDObject: ERROR: Device not found(9): DeviceOrDiskId=unknown, "
         L"ObjectStoragePath=Card\n"},
        // A null argument in a found device's line is printed as the system prints a null text.
        {L"galaxy b", nullptr, b,
         L"CDorWEXWPDCollection::FindWPDObject/FindWPDObjectBasedOnFriendlyName(6): ObjectStoragePath=(null)\n"},
        {L"\\\\169.254.0.1\\media\\a.jpg", nullptr, c,
         L"CDorWEXWPDCollection::FindWPDObject/FindWPDObjectBlackBerryDevice(8): ObjectStoragePath=(null)\n"},
        // Another address that begins with the BlackBerry's is another device.
        {L"\\\\169.254.0.17\\media\\a.jpg", nullptr, nullptr,
         L"CDorWEXWPDCollection::FindWPDObject: ERROR: Device not found(9): DeviceOrDiskId=\\\\169.254.0.17\\media\\a.jpg, "
         L"ObjectStoragePath=NULL\n"},
        {L"x\\\\169.254.0.1\\media", nullptr, nullptr,
         L"CDorWEXWPDCollection::FindWPDObject: ERROR: Device not found(9): DeviceOrDiskId=x\\\\169.254.0.1\\media, "
         L"ObjectStoragePath=NULL\n"},
        {L"nobody", L"nowhere\\x", nullptr,
         L"CDorWEXWPDCollection::FindWPDObject: ERROR: Device not found(9): DeviceOrDiskId=nobody, "
         L"ObjectStoragePath=nowhere\\x\n"},
        {nullptr, nullptr, nullptr,
         L"CDorWEXWPDCollection::FindWPDObject: ERROR: Device not found(9): DeviceOrDiskId=(null), "
         L"ObjectStoragePath=NULL\n"},
    };
    for (const auto& lookup : lookups) {
        SCOPED_TRACE(testing::Message() << (lookup.id ? std::string(lookup.id, lookup.id + wcslen(lookup.id)) : "NULL"));
        trace.Clear();
        EXPECT_EQ(devices.FindWPDObject(lookup.id, lookup.path), lookup.expected);
        EXPECT_TRUE(trace.Has(lookup.traceLine));
    }
    trace.Clear();
    devices.FindWPDObject(L"x", nullptr);
    EXPECT_TRUE(trace.Has(L"CDorWEXWPDCollection::FindWPDObject for <x> and <NULL>\n"));
}

TEST_F(Collection, SingleDeviceIsFoundWithoutAnId) {
    emulator.Attach(PhoneSpec("usb#only", "SAMSUNG", "O1"));
    ASSERT_EQ(devices.AddWPD(L"usb#only"), S_OK);
    TraceCapture trace(1);
    EXPECT_TRUE(devices.FindWPDObject(nullptr, L"Elsewhere\\file.txt"));
    EXPECT_TRUE(trace.Has(L"CDorWEXWPDCollection::FindWPDObject/FindWPDObjectCheckSingleDevice(1): DeviceOrDiskId=(null)\n"));
    EXPECT_TRUE(devices.FindWPDObject(L"", nullptr));

    emulator.Attach(PhoneSpec("usb#two", "SAMSUNG", "T2"));
    ASSERT_EQ(devices.AddWPD(L"usb#two"), S_OK);
    trace.Clear();
    EXPECT_FALSE(devices.FindWPDObject(nullptr, L"Elsewhere\\file.txt")) << "two devices: the path decides";
    EXPECT_TRUE(trace.StartingWith(L"CDorWEXWPDCollection::FindWPDObject/FindWPDObjectCheckSingleDevice").empty());
}

TEST_F(Collection, SameSerialNumberReplacesOnlyADeviceWhoseDisksNeverMounted) {
    EmulatedDeviceSpec unmounted = PhoneSpec("usb#first", "SAMSUNG", "SAME");
    unmounted.storages[0].name = "";
    emulator.Attach(unmounted);
    emulator.Attach(PhoneSpec("usb#second", "SAMSUNG", "SAME"));
    emulator.Attach(PhoneSpec("usb#third", "SAMSUNG", "SAME"));
    ASSERT_EQ(devices.AddWPD(L"usb#first"), S_OK);

    TraceCapture trace(1);
    EXPECT_EQ(devices.AddWPD(L"usb#second"), S_OK);
    EXPECT_TRUE(trace.Has(L"CDorWEXWPDCollection::ProcessDiskMount"));
    EXPECT_FALSE(devices.FindWPDObjectById(L"usb#second")) << "not inserted under its own id";
    const auto replaced = devices.FindWPDObjectById(L"usb#first");
    ASSERT_TRUE(replaced);
    EXPECT_EQ(std::wstring(replaced->Identity()->m_bstr_tDeviceId), L"USB#SECOND") << "the entry keeps its key";
    EXPECT_EQ(emulator.OpenSessions(L"usb#first"), 0) << "the old object was terminated";

    EXPECT_EQ(devices.AddWPD(L"usb#third"), S_OK);
    EXPECT_EQ(std::wstring(devices.FindWPDObjectById(L"usb#first")->Identity()->m_bstr_tDeviceId), L"USB#SECOND")
        << "a device whose disks mounted is not replaced";
    EXPECT_EQ(emulator.OpenSessions(L"usb#third"), 0);
    EXPECT_EQ(devices.Count(), 1u);
}

TEST_F(Collection, FirstAppleAndBlackBerryStartTheirProcessorsAndTheLastStopsThem) {
    emulator.Attach(PhoneSpec("usb#iphone1", "Apple Inc.", "I1"));
    emulator.Attach(PhoneSpec("usb#iphone2", "Apple Inc.", "I2"));
    EmulatedDeviceSpec blackberry = PhoneSpec("usb#bb", "", "BB");
    blackberry.registryLines = {"BBPIN = 1234", "IMEI = 99"};
    emulator.Attach(blackberry);
    TraceCapture trace(1);

    ASSERT_EQ(devices.AddWPD(L"usb#iphone1"), S_OK);
    EXPECT_TRUE(core->HasAppleMonitoring());
    ASSERT_NE(core->GetAppleEventsProcessor(), nullptr);
    EXPECT_TRUE(core->GetAppleEventsProcessor()->IsRunning());
    EXPECT_EQ(trace.Count(L"CDorWEXWPDCollection::SetDeviceTypeCounter, starting apple monitoring..."), 1u);
    EXPECT_EQ(trace.Count(L"CDorWEXWMIWPDCore::StartAppleMonitoring"), 1u);
    EXPECT_LT(trace.IndexOf(L"CDorWEXWPDCollection::SetDeviceTypeCounter, starting apple monitoring..."),
              trace.IndexOf(L"CDorWEXWMIWPDCore::StartAppleMonitoring"));
    ASSERT_EQ(devices.AddWPD(L"usb#iphone2"), S_OK);
    EXPECT_EQ(trace.Count(L"CDorWEXWPDCollection::SetDeviceTypeCounter, starting apple monitoring..."), 1u);
    EXPECT_EQ(devices.GetAppleCount(), 2);

    ASSERT_EQ(devices.AddWPD(L"usb#bb"), S_OK);
    EXPECT_TRUE(core->HasBlackBerryMonitoring());
    EXPECT_EQ(devices.GetBlackBerryCount(), 1);
    EXPECT_TRUE(trace.Has(L"CDorWEXWMIThreadBase::Start: TheMonitorThreadForThreadBlackBerry\n"));
    EXPECT_EQ(trace.Count(L"CDorWEXWPDCollection::SetDeviceTypeCounter, starting blackberry monitoring..."), 1u);
    EXPECT_EQ(trace.Count(L"CDorWEXWMIWPDCore::StartBlackBerryMonitoring"), 1u);
    EXPECT_LT(trace.IndexOf(L"CDorWEXWPDCollection::SetDeviceTypeCounter, starting blackberry monitoring..."),
              trace.IndexOf(L"CDorWEXWMIWPDCore::StartBlackBerryMonitoring"));

    devices.RemoveWPD(L"usb#iphone1");
    EXPECT_TRUE(core->HasAppleMonitoring()) << "one Apple device is left";
    devices.RemoveWPD(L"usb#iphone2");
    EXPECT_TRUE(trace.Has(L"CDorWEXWPDCollection::RemoveWPD, stopping apple monitoring..."));
    EXPECT_FALSE(core->HasAppleMonitoring());
    EXPECT_EQ(core->GetAppleEventsProcessor(), nullptr);
    devices.RemoveWPD(L"usb#bb");
    EXPECT_TRUE(trace.Has(L"CDorWEXWPDCollection::RemoveWPD, stopping blackberry monitoring..."));
    EXPECT_FALSE(core->HasBlackBerryMonitoring());
}

// The last Apple device leaves (1 to 0) and another arrives (0 to 1) before the removal's stop has run:
// the companion ends up running, for the device that is there.
TEST_F(Collection, ArrivalBetweenTheLastRemovalAndItsStopKeepsAppleMonitoring) {
    emulator.Attach(PhoneSpec("usb#leaving", "Apple Inc.", "L1"));
    emulator.Attach(PhoneSpec("usb#arriving", "Apple Inc.", "A1"));
    ASSERT_EQ(devices.AddWPD(L"usb#leaving"), S_OK);
    ASSERT_TRUE(core->HasAppleMonitoring());
    TraceCapture trace(1);
    {
        TraceGate gate(L"CDorWEXWPDCollection::RemoveWPD, stopping apple monitoring...");
        std::thread removal([&] {
            CoInitializeEx(nullptr, COINIT_MULTITHREADED);
            devices.RemoveWPD(L"usb#leaving");
            CoUninitialize();
        });
        ASSERT_TRUE(gate.WaitHeld());
        EXPECT_EQ(devices.AddWPD(L"usb#arriving"), S_OK);
        gate.Release();
        removal.join();
    }
    EXPECT_EQ(devices.GetAppleCount(), 1);
    EXPECT_TRUE(core->HasAppleMonitoring()) << "an Apple device is attached";
    ASSERT_NE(core->GetAppleEventsProcessor(), nullptr);
    EXPECT_TRUE(core->GetAppleEventsProcessor()->IsRunning());

    // The last one leaving stops it.
    devices.RemoveWPD(L"usb#arriving");
    EXPECT_FALSE(core->HasAppleMonitoring());
    EXPECT_EQ(core->GetAppleEventsProcessor(), nullptr);
}

// The same device plugged in again while its removal waits for the Apple stop: its entry has already left
// the map, so it is added again, not refused as present and then lost with the old entry.
TEST_F(Collection, DeviceBackWhileItsRemovalStopsTheCompanionIsKept) {
    emulator.Attach(PhoneSpec("usb#replugged", "Apple Inc.", "R1"));
    ASSERT_EQ(devices.AddWPD(L"usb#replugged"), S_OK);
    TraceCapture trace(1);
    {
        TraceGate gate(L"CDorWEXWPDCollection::RemoveWPD, stopping apple monitoring...");
        std::thread removal([&] {
            CoInitializeEx(nullptr, COINIT_MULTITHREADED);
            devices.RemoveWPD(L"usb#replugged");
            CoUninitialize();
        });
        ASSERT_TRUE(gate.WaitHeld());
        EXPECT_FALSE(devices.FindWPDObjectById(L"usb#replugged")) << "a device being removed is not found";
        EXPECT_EQ(devices.AddWPD(L"usb#replugged"), S_OK);
        gate.Release();
        removal.join();
    }
    EXPECT_TRUE(devices.FindWPDObjectById(L"usb#replugged"));
    EXPECT_EQ(devices.GetAppleCount(), 1);
    EXPECT_TRUE(core->HasAppleMonitoring());
    devices.RemoveWPD(L"usb#replugged");
}

TEST_F(Collection, RemovedDeviceStaysValidForItsHolder) {
    emulator.Attach(PhoneSpec("usb#held", "SAMSUNG", "H1"));
    ASSERT_EQ(devices.AddWPD(L"usb#held"), S_OK);
    auto held = devices.FindWPDObject(L"usb#held", nullptr);
    ASSERT_TRUE(held);
    TraceCapture trace(1);
    devices.RemoveWPD(L"usb#held");
    EXPECT_EQ(trace.Count(L"CDorWEXWPDObject::~CDorWEXWPDObject"), 0u) << "still held";
    EXPECT_EQ(std::wstring(held->Identity()->m_bstr_tFriendlyName), L"Phone of usb#held");
    EXPECT_EQ(std::wstring(held->Identity()->m_bstr_tDisk1Name), L"Phone");
    held.reset();
    EXPECT_EQ(trace.Count(L"CDorWEXWPDObject::~CDorWEXWPDObject"), 1u);
}

// Adds and removes devices on one thread while others look them up.
TEST_F(Collection, ConcurrentLookupsDuringAddAndRemove) {
    constexpr int kDevices = 4;
    for (int i = 0; i < kDevices; ++i) {
        emulator.Attach(PhoneSpec("usb#stress" + std::to_string(i), "SAMSUNG", "S" + std::to_string(i)));
    }
    const LONG objectsBefore = emulator.LiveObjects();
    std::atomic<bool> done{false};
    std::atomic<long> found{0};
    std::vector<std::thread> readers;
    for (int r = 0; r < 3; ++r) {
        readers.emplace_back([&, r] {
            CoInitializeEx(nullptr, COINIT_MULTITHREADED);
            int n = r;
            while (!done) {
                const std::wstring id = L"USB#STRESS" + std::to_wstring(n++ % kDevices);
                if (auto device = devices.FindWPDObject(id.c_str(), L"Phone\\a.jpg")) {
                    // Read what a method handler would read while the device may be removed.
                    found += device->Identity()->m_bstr_tDisk1Name.length() > 0 ? 1 : 0;
                }
                devices.Snapshot();
            }
            CoUninitialize();
        });
    }
    for (int round = 0; round < 15; ++round) {
        for (int i = 0; i < kDevices; ++i) {
            devices.AddWPD(Wide("usb#stress" + std::to_string(i)).c_str());
        }
        for (int i = 0; i < kDevices; ++i) {
            devices.RemoveWPD(Wide("usb#stress" + std::to_string(i)).c_str());
        }
    }
    done = true;
    for (auto& reader : readers) {
        reader.join();
    }
    EXPECT_GT(found.load(), 0);
    EXPECT_EQ(devices.Count(), 0u);
    for (int i = 0; i < kDevices; ++i) {
        EXPECT_EQ(emulator.OpenSessions(Wide("usb#stress" + std::to_string(i)).c_str()), 0);
        EXPECT_EQ(emulator.Subscriptions(Wide("usb#stress" + std::to_string(i)).c_str()), 0);
    }
    EXPECT_EQ(emulator.LiveObjects(), objectsBefore) << "every session, callback and collection was released";
}

}  // namespace
