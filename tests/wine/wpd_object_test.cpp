// A device object opening emulated devices: client information, manufacturer classes, properties,
// storages, the storage retry and the failure paths.
#include <gtest/gtest.h>

#include <wrl/client.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

#include "device/wpd_object.h"
#include "monitor/wpd_collection.h"
#include "monitor/wpd_core.h"
#include "support/pnp_tree_double.h"
#include "support/test_files.h"
#include "support/system_text.h"
#include "support/test_trace_sink.h"
#include "support/wait_until.h"
#include "support/wpd_emulator.h"

namespace {

using Manufacturer = dorwex::Manufacturer;

std::wstring Text(const _bstr_t& text) {
    return text.length() == 0 ? std::wstring() : std::wstring(static_cast<const wchar_t*>(text));
}

class DeviceObject : public testing::Test {
protected:
    WpdEmulator emulator;
};

TEST_F(DeviceObject, OpensWithTheProviderClientInformationAndReadsTheIdentity) {
    EmulatedDeviceSpec spec = PhoneSpec("usb#vid_04e8#r58m", "SAMSUNG Electronics Co., Ltd.", "R58M", 2);
    spec.categories = "storage, still_image_capture, sms";
    emulator.Attach(spec);
    TraceCapture trace(1);

    CDorWEXWPDObject device(nullptr);
    EXPECT_EQ(device.InitializeWPD(L"usb#vid_04e8#r58m"), S_OK);

    wchar_t client[256] = {};
    emulator.LastClient(L"usb#vid_04e8#r58m", client, 256);
    EXPECT_STREQ(client, L"name=Win32ext_WPD_Provider;major=1;minor=0;revision=2;qos=131072");
    EXPECT_EQ(device.Identity()->m_eManufacturer, Manufacturer::ANDROID);
    EXPECT_EQ(Text(device.Identity()->m_bstr_tManufacturer), L"SAMSUNG Electronics Co., Ltd.");
    EXPECT_EQ(Text(device.Identity()->m_bstr_tDescription), L"SAMSUNG Electronics Co., Ltd.") << "the maker text, as reported";
    EXPECT_EQ(Text(device.Identity()->m_bstr_tFriendlyName), L"Phone of usb#vid_04e8#r58m");
    EXPECT_EQ(Text(device.Identity()->m_bstr_tDeviceObjectId), L"DEVICE");
    EXPECT_EQ(Text(device.Identity()->m_bstr_tSerialNumber), L"R58M");
    EXPECT_TRUE(device.Identity()->m_bFunctionalCategoryStorage);
    EXPECT_TRUE(device.Identity()->m_bFunctionalCategoryStillImageCapture);
    EXPECT_TRUE(device.Identity()->m_bFunctionalCategorySMS);
    EXPECT_FALSE(device.Identity()->m_bFunctionalCategoryAudioCapture);
    EXPECT_FALSE(device.Identity()->m_bFunctionalCategoryRenderingInformation);
    EXPECT_EQ(Text(device.Identity()->m_bstr_tDisk1Name), L"Phone");
    EXPECT_EQ(Text(device.Identity()->m_bstr_tDisk1ObjectId), L"s10001");
    EXPECT_EQ(Text(device.Identity()->m_bstr_tDisk1PersistentUniqueId), L"{PUID-R58M-1}");
    EXPECT_EQ(Text(device.Identity()->m_bstr_tDisk1Description), L"Internal storage");
    EXPECT_EQ(Text(device.Identity()->m_bstr_tDisk2Name), L"Card");
    EXPECT_EQ(Text(device.Identity()->m_bstr_tDisk2ObjectId), L"s20001");
    EXPECT_EQ(Text(device.Identity()->m_bstr_tExtraProperties).find(L"s10001 Phone Internal storage FAT32 "), 0u);
    EXPECT_NE(Text(device.Identity()->m_bstr_tExtraProperties).find(L"\ns20001 Card SD card FAT32 "), std::wstring::npos);
    EXPECT_EQ(emulator.Subscriptions(L"usb#vid_04e8#r58m"), 1) << "the event callback is registered";

    EXPECT_TRUE(trace.Has(L"CDorWEXWPDObject::InitializeWPD called for usb#vid_04e8#r58m.\n"));
    EXPECT_TRUE(trace.Has(L"CDorWEXWPDObject::GetManufacturer got <SAMSUNG Electronics Co., Ltd.>\n."));
    EXPECT_TRUE(trace.Has(L"CDorWEXWPDObject::GetManufacturer is ANDROID.\n"));
    EXPECT_TRUE(trace.Has(L"CDorWEXWPDObject::GetManufacturer, 0: SAMSUNG Electronics Co., Ltd..\n"));
    EXPECT_TRUE(trace.Has(L"CDorWEXWPDObject::GetAdditionalProperties, WPD_DEVICE_SERIAL_NUMBER=R58M.\n"));
    EXPECT_TRUE(trace.Has(L"CDorWEXWPDObject::GetAdditionalProperties, WPD_DEVICE_POWER_LEVEL=80.\n"));
    EXPECT_TRUE(trace.Has(
        L"CDorWEXWPDObject::GetAdditionalProperties, WPD_DEVICE_NETWORK_IDENTIFIER=18446744073709551615.\n"));
    // Keys the device does not report are skipped silently.
    EXPECT_TRUE(trace.StartingWith(L"CDorWEXWPDObject::GetAdditionalProperties, WPD_DEVICE_SYNC_PARTNER").empty());
    EXPECT_TRUE(trace.Has(L"CDorWEXWPDObject::GetAdditionalProperties, l_IPortableDeviceProperties.Count: 11.\n"));
    EXPECT_TRUE(trace.Has(L"CDorWEXWPDObject::InitializeWPD, 0\n"));

    device.Terminate();
    EXPECT_EQ(emulator.Subscriptions(L"usb#vid_04e8#r58m"), 0);
    EXPECT_EQ(emulator.OpenSessions(L"usb#vid_04e8#r58m"), 0);
    EXPECT_TRUE(trace.Has(L"CDorWEXWPDObject::Terminate"));
    EXPECT_TRUE(trace.Has(L"CDorWEXWPDObjectEvents::~CDorWEXWPDObjectEvents"));
}

// A phone that reports every identity property: InitializeWPD's lines, exactly and in order, from the
// constructor to the result (the Plug and Play view's own lines aside).
TEST_F(DeviceObject, InitializationTracesEveryStepInOrder) {
    EmulatedDeviceSpec spec = PhoneSpec("usb#vid_04e8#every", "SAMSUNG Electronics Co., Ltd.", "EVR1", 2);
    spec.categories = "storage, audio_capture, rendering_information";
    spec.deviceLines.push_back("WPD_DEVICE_SYNC_PARTNER = Desk");
    spec.deviceLines.push_back("WPD_DEVICE_FIRMWARE_VERSION = 1.2.3");
    spec.deviceLines.push_back("WPD_DEVICE_POWER_SOURCE = 1");
    spec.deviceLines.push_back("WPD_DEVICE_PROTOCOL = MTP: 1.10");
    spec.deviceLines.push_back("WPD_DEVICE_MANUFACTURER = Samsung");
    spec.deviceLines.push_back("WPD_DEVICE_FRIENDLY_NAME = Galaxy");
    emulator.Attach(spec);
    TraceCapture trace(1);
    {
        CDorWEXWPDObject device(nullptr);
        EXPECT_EQ(device.InitializeWPD(L"usb#vid_04e8#every"), S_OK);
        device.Terminate();
    }
    const std::vector<std::wstring> expected = {
        L"CDorWEXWPDObject::CDorWEXWPDObject",
        L"CDorWEXWPDObject::InitializeWPD enter.",
        L"CDorWEXWPDObject::InitializeWPD called for usb#vid_04e8#every.",
        L"CDorWEXWPDObject::CreatePortableDeviceManager, 0",
        L"CDorWEXWPDObject::CreatePortableDevice 1, 0",
        L"CDorWEXWPDObject::GetManufacturer entered\n.",
        L"CDorWEXWPDObject::GetManufacturer got <SAMSUNG Electronics Co., Ltd.>\n.",
        L"CDorWEXWPDObject::GetManufacturer is ANDROID.",
        L"CDorWEXWPDObject::GetManufacturer, 0: SAMSUNG Electronics Co., Ltd..",
        L"CDorWEXWPDObject::GetFriendlyName, 0: Phone of usb#vid_04e8#every.",
        L"CDorWEXWPDObject::GetDescription, 0: SAMSUNG Electronics Co., Ltd..",
        L"CDorWEXWPDObject::GetAdditionalProperties, l_IPortableDeviceProperties.Count: 11.",
        L"CDorWEXWPDObject::GetAdditionalProperties, l_IPortableDeviceProperties[0]="
        L"{EF6B490D-5CD8-437A-AFFC-DA8B60EE4A3C},2.",
        L"CDorWEXWPDObject::GetAdditionalProperties, l_IPortableDeviceProperties[1]="
        L"{26D4979A-E643-4626-9E2B-736DC0C92FDC},2.",
        L"CDorWEXWPDObject::GetAdditionalProperties, l_IPortableDeviceProperties[2]="
        L"{26D4979A-E643-4626-9E2B-736DC0C92FDC},3.",
        L"CDorWEXWPDObject::GetAdditionalProperties, l_IPortableDeviceProperties[3]="
        L"{26D4979A-E643-4626-9E2B-736DC0C92FDC},4.",
        L"CDorWEXWPDObject::GetAdditionalProperties, l_IPortableDeviceProperties[4]="
        L"{26D4979A-E643-4626-9E2B-736DC0C92FDC},5.",
        L"CDorWEXWPDObject::GetAdditionalProperties, l_IPortableDeviceProperties[5]="
        L"{26D4979A-E643-4626-9E2B-736DC0C92FDC},6.",
        L"CDorWEXWPDObject::GetAdditionalProperties, l_IPortableDeviceProperties[6]="
        L"{26D4979A-E643-4626-9E2B-736DC0C92FDC},7.",
        L"CDorWEXWPDObject::GetAdditionalProperties, l_IPortableDeviceProperties[7]="
        L"{26D4979A-E643-4626-9E2B-736DC0C92FDC},8.",
        L"CDorWEXWPDObject::GetAdditionalProperties, l_IPortableDeviceProperties[8]="
        L"{26D4979A-E643-4626-9E2B-736DC0C92FDC},9.",
        L"CDorWEXWPDObject::GetAdditionalProperties, l_IPortableDeviceProperties[9]="
        L"{26D4979A-E643-4626-9E2B-736DC0C92FDC},12.",
        L"CDorWEXWPDObject::GetAdditionalProperties, l_IPortableDeviceProperties[10]="
        L"{26D4979A-E643-4626-9E2B-736DC0C92FDC},16.",
        L"CDorWEXWPDObject::GetAdditionalProperties, WPD_OBJECT_ID=DEVICE.",
        L"CDorWEXWPDObject::GetAdditionalProperties, WPD_DEVICE_SYNC_PARTNER=Desk.",
        L"CDorWEXWPDObject::GetAdditionalProperties, WPD_DEVICE_FIRMWARE_VERSION=1.2.3.",
        L"CDorWEXWPDObject::GetAdditionalProperties, WPD_DEVICE_POWER_LEVEL=80.",
        L"CDorWEXWPDObject::GetAdditionalProperties, WPD_DEVICE_POWER_SOURCE=1.",
        L"CDorWEXWPDObject::GetAdditionalProperties, WPD_DEVICE_PROTOCOL=MTP: 1.10.",
        L"CDorWEXWPDObject::GetAdditionalProperties, WPD_DEVICE_MANUFACTURER=Samsung.",
        L"CDorWEXWPDObject::GetAdditionalProperties, WPD_DEVICE_MODEL=Model-EVR1.",
        L"CDorWEXWPDObject::GetAdditionalProperties, WPD_DEVICE_SERIAL_NUMBER=EVR1.",
        L"CDorWEXWPDObject::GetAdditionalProperties, WPD_DEVICE_FRIENDLY_NAME=Galaxy.",
        L"CDorWEXWPDObject::GetAdditionalProperties, WPD_DEVICE_NETWORK_IDENTIFIER=18446744073709551615.",
        L"CDorWEXWPDObjectEvents::Register",
        L"CDorWEXWPDObjectEvents::AddRef, 2",
        L"CDorWEXWPDObject::GetFunctionalCategories: Functional Categories Found on the device",
        L"CDorWEXWPDObject::GetFunctionalCategories: WPD_FUNCTIONAL_CATEGORY_STORAGE",
        L"CDorWEXWPDObject::GetFunctionalCategories: WPD_FUNCTIONAL_CATEGORY_AUDIO_CAPTURE",
        L"CDorWEXWPDObject::GetFunctionalCategories: WPD_FUNCTIONAL_CATEGORY_RENDERING_INFORMATION",
        L"CDorWEXWPDObject::InitializeWPD, 0",
        L"CDorWEXWPDObject::Terminate",
        L"CDorWEXWPDObjectEvents::UnRegister",
        L"CDorWEXWPDObjectEvents::Release, 1",
        L"CDorWEXWPDObjectEvents::Release, 0",
        L"CDorWEXWPDObjectEvents::~CDorWEXWPDObjectEvents",
        L"CDorWEXWPDObject::~CDorWEXWPDObject",
    };
    std::vector<std::wstring> lines;
    for (const auto& line : trace.Lines()) {
        if (line.compare(0, 18, L"CDorWEXWPDObject::") == 0 || line.compare(0, 2, L"! ") == 0 ||
            line.compare(0, 24, L"CDorWEXWPDObjectEvents::") == 0) {
            lines.push_back(line.substr(0, line.size() - 2));
        }
    }
    EXPECT_EQ(lines, expected);
}

TEST_F(DeviceObject, NullIdDoesNothing) {
    CDorWEXWPDObject device(nullptr);
    EXPECT_EQ(device.InitializeWPD(nullptr), S_OK);
    EXPECT_EQ(device.Identity()->m_eManufacturer, Manufacturer::UNKNOWN);
    EXPECT_EQ(device.Identity()->m_bstr_tDeviceId.length(), 0u);
    EXPECT_FALSE(device.HasSession());
    // Text members start empty, not null; the persistent unique ids start null.
    EXPECT_NE(static_cast<const wchar_t*>(device.Identity()->m_bstr_tDisk1Name), nullptr);
    EXPECT_EQ(static_cast<const wchar_t*>(device.Identity()->m_bstr_tDisk1PersistentUniqueId), nullptr);
}

struct MakerCase {
    const char* maker;
    Manufacturer manufacturer;
    HRESULT result;
    const wchar_t* classTrace;
};

TEST_F(DeviceObject, ManufacturerClassDecidesTheResult) {
    const MakerCase cases[] = {
        {"Apple Inc.", Manufacturer::APPLE, S_OK, L"CDorWEXWPDObject::GetManufacturer is APPLE.\n"},
        {"HP Inc.", Manufacturer::WINDOWS, S_OK, L"CDorWEXWPDObject::GetManufacturer is WINDOWS.\n"},
        {"Hewlett-Packard", Manufacturer::ANDROID, S_OK, L"CDorWEXWPDObject::GetManufacturer defaulting to ANDROID\n."},
        {"Kingston", Manufacturer::LOGICALDISK, E_FAIL, L"CDorWEXWPDObject::GetManufacturer is LOGICALDISK.\n"},
        {"  dl  ", Manufacturer::LOGICALDISK, E_FAIL, L"CDorWEXWPDObject::GetManufacturer is LOGICALDISK.\n"},
        {"DLX", Manufacturer::ANDROID, S_OK, L"CDorWEXWPDObject::GetManufacturer defaulting to ANDROID\n."},
    };
    int n = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.maker);
        const std::string id = "usb#maker" + std::to_string(n++);
        emulator.Attach(PhoneSpec(id, c.maker, "SN" + std::to_string(n)));
        TraceCapture trace(1);
        CDorWEXWPDObject device(nullptr);
        EXPECT_EQ(device.InitializeWPD(Wide(id).c_str()), c.result);
        EXPECT_EQ(device.Identity()->m_eManufacturer, c.manufacturer);
        EXPECT_TRUE(trace.Has(c.classTrace));
        if (c.manufacturer == Manufacturer::LOGICALDISK) {
            // A storage stick: no callback, no categories.
            EXPECT_EQ(emulator.Subscriptions(Wide(id).c_str()), 0);
            EXPECT_EQ(emulator.CallCount(Wide(id).c_str(), "GetFunctionalCategories"), 0u);
            EXPECT_TRUE(trace.Has(L"CDorWEXWPDObject::InitializeWPD DeviceManufacturer is LOGICALDISK, HRESULT=80004005\n"));
        }
        if (c.manufacturer == Manufacturer::APPLE) {
            EXPECT_EQ(Text(device.Identity()->m_bstr_tDisk1Name), L"Internal Storage");
        }
        device.Terminate();
    }
}

TEST_F(DeviceObject, WindowsDeviceWithoutStorageNamesGetsPhoneAndAndroidGetsTheStatusText) {
    EmulatedDeviceSpec windows = PhoneSpec("usb#lumia", "NOKIA", "L1");
    windows.storages.clear();
    windows.categories = "sms";
    emulator.Attach(windows);
    EmulatedDeviceSpec android = PhoneSpec("usb#pixel", "Google Android", "P1");
    android.storages[0].name = "";
    emulator.Attach(android);

    CDorWEXWPDObject lumia(nullptr);
    EXPECT_EQ(lumia.InitializeWPD(L"usb#lumia"), S_OK);
    EXPECT_EQ(Text(lumia.Identity()->m_bstr_tDisk1Name), L"Phone");

    CDorWEXWPDObject pixel(nullptr);
    EXPECT_EQ(pixel.InitializeWPD(L"usb#pixel"), S_OK);
    EXPECT_EQ(Text(pixel.Identity()->m_bstr_tExtraProperties), L"The device has mounted but not its disks.");
    lumia.Terminate();
    pixel.Terminate();
}

TEST_F(DeviceObject, EmptyMakerLeavesTheClassUnknown) {
    emulator.Attach(PhoneSpec("usb#nomaker", "", "N1"));
    TraceCapture trace(1);
    CDorWEXWPDObject device(nullptr);
    EXPECT_EQ(device.InitializeWPD(L"usb#nomaker"), S_OK);
    EXPECT_EQ(device.Identity()->m_eManufacturer, Manufacturer::UNKNOWN);
    EXPECT_TRUE(trace.Has(L"CDorWEXWPDObject::GetManufacturer call toGetDeviceManufacturer failed, HRESULT=00000000, "
                          L"l_DWORDManufacturer=0\n"));
    // The unknown class goes through the BlackBerry identity step: its texts replace what WPD reported,
    // the serial number WPD reported stays (the device has no IMEI to replace it).
    EXPECT_EQ(Text(device.Identity()->m_bstr_tFriendlyName), L"BLACKBERRY");
    EXPECT_EQ(Text(device.Identity()->m_bstr_tManufacturer), L"Research In Motion");
    EXPECT_EQ(Text(device.Identity()->m_bstr_tDescription), L"BlackBerry Device");
    EXPECT_EQ(Text(device.Identity()->m_bstr_tDisk1Name), L"\\\\\\media");
    EXPECT_EQ(Text(device.Identity()->m_bstr_tSerialNumber), L"N1");
    device.Terminate();
}

TEST_F(DeviceObject, StorageQueryIsRetriedThreeTimesOnlyForTheBusyCode) {
    EmulatedDeviceSpec busy = PhoneSpec("usb#busy", "SAMSUNG", "B1");
    busy.faultLines = {"GetFunctionalObjects = 0x800710D2"};
    emulator.Attach(busy);
    EmulatedDeviceSpec settling = PhoneSpec("usb#settling", "SAMSUNG", "B2");
    settling.faultLines = {"GetFunctionalObjects = 0x800710D2 x 2"};
    emulator.Attach(settling);
    EmulatedDeviceSpec broken = PhoneSpec("usb#broken", "SAMSUNG", "B3");
    broken.faultLines = {"GetFunctionalObjects = 0x80070005"};
    emulator.Attach(broken);

    TraceCapture trace(1);
    CDorWEXWPDObject device(nullptr);
    const DWORD start = GetTickCount();
    EXPECT_EQ(device.InitializeWPD(L"usb#busy"), S_OK) << "an Android device initialises even so";
    EXPECT_GE(GetTickCount() - start, 1900u) << "two pauses of 1000 ms between three attempts";
    EXPECT_EQ(emulator.CallCount(L"usb#busy", "GetFunctionalObjects"), 3u);
    // Each attempt names the code with the system's text for it, or says there is none.
    std::wstring message = SystemText(0x800710D2);
    if (message.empty()) {
        message = L"could not get error message text";
    }
    const std::wstring attempt = L"CDorWEXWPDObject::GetFunctionalCategories: GetFunctionalObjects("
                                 L"WPD_FUNCTIONAL_CATEGORY_STORAGE failed 800710d2: " + message + L".";
    EXPECT_EQ(trace.StartingWith(L"CDorWEXWPDObject::GetFunctionalCategories: GetFunctionalObjects("),
              (std::vector<std::wstring>{attempt, attempt, attempt}));
    EXPECT_EQ(device.Identity()->m_bstr_tDisk1Name.length(), 0u);
    device.Terminate();

    CDorWEXWPDObject second(nullptr);
    second.InitializeWPD(L"usb#settling");
    EXPECT_EQ(emulator.CallCount(L"usb#settling", "GetFunctionalObjects"), 3u);
    EXPECT_EQ(Text(second.Identity()->m_bstr_tDisk1Name), L"Phone") << "the third attempt succeeded";
    second.Terminate();

    CDorWEXWPDObject third(nullptr);
    third.InitializeWPD(L"usb#broken");
    EXPECT_EQ(emulator.CallCount(L"usb#broken", "GetFunctionalObjects"), 1u) << "other failures are final";
    third.Terminate();
}

TEST_F(DeviceObject, FailingCategoryAndStorageReadsAreTraced) {
    EmulatedDeviceSpec spec = PhoneSpec("usb#odd", "SAMSUNG", "O1");
    spec.storages.push_back({"!invalid", "", "", ""});
    spec.faultLines = {"GetFunctionalCategories = 0x8007001F x 1"};
    emulator.Attach(spec);
    TraceCapture trace(1);
    CDorWEXWPDObject first(nullptr);
    first.InitializeWPD(L"usb#odd");
    EXPECT_TRUE(trace.Has(L"CDorWEXWPDObject::GetFunctionalCategories: Failed to get functional categories from the "
                          L"device, l_HRESULT = 0x8007001f\n"));
    first.Terminate();

    trace.Clear();
    CDorWEXWPDObject second(nullptr);
    second.InitializeWPD(L"usb#odd");
    EXPECT_EQ(trace.Count(L"! Invalid functional object identifier found\n"), 1u);
    EXPECT_EQ(Text(second.Identity()->m_bstr_tDisk1Name), L"Phone");
    second.Terminate();
}

// A device that stops answering part way through its start-up: its session refuses one of the interfaces
// the identity steps ask it for, with a code Windows documents for a device in that state. The refusal is
// traced with its code where it happens, once for each storage it hides, and the device is still taken on
// without what could not be read.
TEST_F(DeviceObject, RefusedSessionInterfacesAreTracedWithTheirCodes) {
    const std::wstring categories = L"CDorWEXWPDObject::GetFunctionalCategories: ";
    const std::wstring found = categories + L"Functional Categories Found on the device";
    const std::wstring storage = categories + L"WPD_FUNCTIONAL_CATEGORY_STORAGE";
    const std::wstring noContent = L"! Failed to get IPortableDeviceContent from IPortableDevice, l_HRESULT = 0x802a0006";
    const std::wstring noProperties =
        L"! Failed to get IPortableDeviceProperties from IPortableDevice, l_HRESULT = 0x802a0004";
    const struct {
        const char* fault;  // E_WPD_DEVICE_IS_HUNG, or E_WPD_OBJECT_NOT_ATTACHED_TO_DEVICE for the properties
        const wchar_t* serialNumber;  // read through the content's properties before the categories
        std::vector<std::wstring> lines;
    } cases[] = {
        {"Capabilities = 0x802A0006", L"CAP1",
         {categories + L"Failed to get IPortableDeviceCapabilities from IPortableDevice, l_HRESULT = 0x802a0006"}},
        {"Content = 0x802A0006", L"", {found, storage, noContent, noContent}},
        {"Properties = 0x802A0004", L"", {found, storage, noProperties, noProperties}},
    };
    for (const auto& c : cases) {
        const std::string id = "usb#vid_04e8#refusing-" + std::to_string(&c - cases);
        EmulatedDeviceSpec spec = PhoneSpec(id, "SAMSUNG", "CAP1", 2);
        spec.faultLines = {c.fault};
        emulator.Attach(spec);
        TraceCapture trace(1);
        CDorWEXWPDObject device(nullptr);
        EXPECT_EQ(device.InitializeWPD(Wide(id).c_str()), S_OK) << c.fault;
        std::vector<std::wstring> lines;
        for (const auto& line : trace.Lines()) {
            if (line.compare(0, categories.size(), categories) == 0 || line.compare(0, 2, L"! ") == 0) {
                lines.push_back(line.substr(0, line.size() - 2));
            }
        }
        EXPECT_EQ(lines, c.lines) << c.fault;
        EXPECT_EQ(Text(device.Identity()->m_bstr_tSerialNumber), c.serialNumber) << c.fault;
        EXPECT_EQ(Text(device.Identity()->m_bstr_tDisk1Name), L"") << c.fault;
        EXPECT_EQ(Text(device.Identity()->m_bstr_tDisk2Name), L"") << c.fault;
        EXPECT_EQ(Text(device.Identity()->m_bstr_tExtraProperties), L"The device has mounted but not its disks.")
            << c.fault;
        device.Terminate();
    }
}

// A device whose class is still unknown goes through the BlackBerry identity step: with the BlackBerry
// record it becomes one; without, it still gets the step's fixed texts and its share storage (with no
// address in it), keeps its class, and is taken on.
TEST_F(DeviceObject, DeviceThatCannotBeOpenedIsABlackBerryOnlyWithItsRecord) {
    EmulatedDeviceSpec blackberry = PhoneSpec("usb#rim", "Research In Motion", "BB1");
    blackberry.faultLines = {"Open = 0x80070005"};
    blackberry.registryLines = {"BBPIN = 2A3B4C5D", "IMEI = 356938035643809", "DHCPServer = 169.254.0.1"};
    emulator.Attach(blackberry);
    EmulatedDeviceSpec locked = PhoneSpec("usb#locked", "SAMSUNG", "L2");
    locked.faultLines = {"Open = 0x80070005"};
    emulator.Attach(locked);

    // The device node Plug and Play shows for the BlackBerry's portable-device function.
    PnpTreeDouble pnp;
    PnpTreeDouble::Node node;
    node.instanceId = L"USB\\RIM";
    node.setupClass = kGUID_DEVCLASS_WPD_LOOKUP;
    node.interfaces.push_back({kGUID_DEVINTERFACE_WPD_2, L"\\\\?\\usb#rim#{80375827-83b8-4a51-b39b-905fedd4f118}"});
    pnp.Add(node);

    CDorWEXWPDObject device(nullptr);
    EXPECT_EQ(device.InitializeWPD(L"usb#rim"), S_OK);
    EXPECT_EQ(device.Identity()->m_eManufacturer, Manufacturer::BLACKBERRY);
    EXPECT_EQ(Text(device.Identity()->m_bstr_tFriendlyName), L"BLACKBERRY_2A3B4C5D");
    EXPECT_EQ(Text(device.Identity()->m_bstr_tManufacturer), L"Research In Motion");
    EXPECT_EQ(Text(device.Identity()->m_bstr_tDescription), L"BlackBerry Device");
    EXPECT_EQ(Text(device.Identity()->m_bstr_tSerialNumber), L"356938035643809");
    EXPECT_EQ(Text(device.Identity()->m_bstr_tWPDSerialNumber), L"356938035643809");
    EXPECT_EQ(Text(device.Identity()->m_bstr_tDisk1Name), L"\\\\169.254.0.1\\media");
    EXPECT_EQ(Text(device.Identity()->m_bstr_tDisk1ObjectId), L"s1001");
    EXPECT_EQ(Text(device.Identity()->m_bstr_tDisk1Description), L"Flash Memory");
    EXPECT_EQ(Text(device.Identity()->m_bstr_tDisk1PersistentUniqueId), L"USB\\RIM") << "the node's instance id";
    EXPECT_TRUE(device.Identity()->m_bFunctionalCategoryStorage);
    device.Terminate();

    TraceCapture trace(1);
    CDorWEXWPDObject other(nullptr);
    EXPECT_EQ(other.InitializeWPD(L"usb#locked"), S_OK);
    EXPECT_EQ(emulator.CallCount(L"usb#locked", "Open"), 2u) << "refused for reading only too";
    EXPECT_EQ(other.Identity()->m_eManufacturer, Manufacturer::UNKNOWN);
    EXPECT_EQ(Text(other.Identity()->m_bstr_tFriendlyName), L"BLACKBERRY");
    EXPECT_EQ(Text(other.Identity()->m_bstr_tManufacturer), L"Research In Motion");
    EXPECT_EQ(Text(other.Identity()->m_bstr_tDescription), L"BlackBerry Device");
    EXPECT_TRUE(other.Identity()->m_bFunctionalCategoryStorage);
    EXPECT_EQ(Text(other.Identity()->m_bstr_tSerialNumber), L"");
    EXPECT_EQ(Text(other.Identity()->m_bstr_tDisk1Name), L"\\\\\\media");
    EXPECT_EQ(Text(other.Identity()->m_bstr_tDisk1ObjectId), L"s1001");
    EXPECT_EQ(Text(other.Identity()->m_bstr_tDisk1Description), L"Flash Memory");
    EXPECT_EQ(Text(other.Identity()->m_bstr_tWPDSerialNumber), L"");
    EXPECT_EQ(other.Identity()->m_bstr_tDisk1PersistentUniqueId.length(), 0u) << "no node: nothing to take";
    ASSERT_NE(other.CompanionRecord(), nullptr) << "the record is built, empty";
    EXPECT_TRUE(other.CompanionRecord()->Empty());
    EXPECT_FALSE(other.m_pCDorWEXBlackBerry) << "no share access for a device that is no BlackBerry";
    EXPECT_TRUE(trace.Has(L"CDorWEXWPDObject::InitializeWPD, 0\n"));
    other.Terminate();
}

// Regression: a phone under a policy that denies writing refused the session Open asks for by default (read
// and write), kept no maker class and was taken for a BlackBerry. It is opened again for reading only, keeps
// its maker's class, reads as usual, and refuses every change without asking the device.
TEST_F(DeviceObject, APhoneThatDeniesWriteAccessIsOpenedForReadingNotTakenForABlackBerry) {
    EmulatedDeviceSpec spec = PhoneSpec("usb#vid_04e8#readonly", "SAMSUNG", "RO1");
    spec.deviceLines.push_back("write_access = denied");
    emulator.Attach(spec);
    const wchar_t id[] = L"usb#vid_04e8#readonly";
    const std::wstring storage = emulator.StorageDirectory(spec, 0);
    CreateDirectoryW((storage + L"\\DCIM").c_str(), nullptr);
    emulator.WriteFile(storage + L"\\DCIM\\a.jpg", "jpeg");
    const std::wstring local = emulator.Directory() + L"\\readonly";
    CreateDirectoryW(local.c_str(), nullptr);
    emulator.WriteFile(local + L"\\up.txt", "uploaded");

    TraceCapture trace(1);
    CDorWEXWPDObject device(nullptr);
    ASSERT_EQ(device.InitializeWPD(id), S_OK);
    EXPECT_EQ(device.Identity()->m_eManufacturer, Manufacturer::ANDROID);
    EXPECT_EQ(Text(device.Identity()->m_bstr_tManufacturer), L"SAMSUNG");
    EXPECT_EQ(Text(device.Identity()->m_bstr_tSerialNumber), L"RO1");
    EXPECT_EQ(Text(device.Identity()->m_bstr_tDisk1Name), L"Phone");
    EXPECT_EQ(device.CompanionRecord(), nullptr) << "no BlackBerry identity step";
    EXPECT_EQ(emulator.CallCount(id, "Open"), 2u);
    wchar_t client[256] = {};
    emulator.LastClient(id, client, 256);
    EXPECT_STREQ(client, L"name=Win32ext_WPD_Provider;major=1;minor=0;revision=2;qos=131072;access=2147483648");
    EXPECT_TRUE(trace.Has(L"CDorWEXWPDObject::InitializeWPD, Open 0x80070005, opening again for reading only.\n"));
    EXPECT_TRUE(trace.Has(L"CDorWEXWPDObject::InitializeWPD, Open for reading only, 0\n"));
    EXPECT_EQ(emulator.Subscriptions(id), 1) << "events are still received";

    EXPECT_EQ(device.RefusedStoragePath(L"Phone\\DCIM\\a.jpg", false), nullptr);
    EXPECT_NE(Text(device.EnumerateDevicePath(L"Phone\\DCIM", 0)).find(L"a.jpg@"), std::wstring::npos);
    EXPECT_EQ(device.CopyFileFromDevice(L"Phone\\DCIM\\a.jpg", (local + L"\\a.jpg").c_str()), S_OK);
    EXPECT_EQ(ReadAll(local + L"\\a.jpg"), "jpeg");

    EXPECT_STREQ(device.RefusedStoragePath(L"Phone\\DCIM\\a.jpg", true), CDorWEXWPDObject::kWriteDenied);
    const std::wstring object = Text(device.GetStorageObjectProperty(L"Phone\\DCIM\\a.jpg", L"ObjectId"));
    ASSERT_FALSE(object.empty());
    emulator.Requests(id, TRUE);
    EXPECT_EQ(Text(device.CopyFileToDevice(L"Phone\\DCIM", (local + L"\\up.txt").c_str(), nullptr, 1)),
              CDorWEXWPDObject::kWriteDenied);
    EXPECT_EQ(device.CreateFolderOnDevice(L"Phone", L"New"), E_ACCESSDENIED);
    EXPECT_EQ(device.DeleteFileFromDevice(L"Phone\\DCIM\\a.jpg", id), 0);
    EXPECT_EQ(device.DeleteWPDObject(object.c_str(), id), E_ACCESSDENIED);
    EXPECT_EQ(device.MoveFileFromDevice(L"Phone\\DCIM\\a.jpg", (local + L"\\moved.jpg").c_str()), 0);
    EXPECT_FALSE(Exists(local + L"\\moved.jpg")) << "a move that cannot delete its source copies nothing";
    EXPECT_EQ(emulator.Requests(id, FALSE), 0u) << "no refused change asked the device anything";
    for (const char* call : {"CreateObjectWithPropertiesAndData", "CreateObjectWithPropertiesOnly", "Delete"}) {
        EXPECT_EQ(emulator.CallCount(id, call), 0u) << call;
    }
    EXPECT_EQ(ReadAll(storage + L"\\DCIM\\a.jpg"), "jpeg");
    EXPECT_FALSE(Exists(storage + L"\\New"));
    EXPECT_FALSE(Exists(storage + L"\\DCIM\\up.txt"));
    device.Terminate();
}

// A delete the device answers with S_FALSE deleted nothing (the device keeps a storage): a failure, not
// a success.
// The deletion's own checks: both texts are required, the device id must be this device's (in any case), and
// an object without an id of its own (a placeholder) passes the request on to the device of that id, once.
TEST_F(DeviceObject, DeleteChecksItsArgumentsAndPassesAPlaceholdersRequestOnOnce) {
    const EmulatedDeviceSpec spec = PhoneSpec("usb#vid_04e8#deleting", "SAMSUNG", "DEL1");
    emulator.Attach(spec);
    const std::wstring storage = emulator.StorageDirectory(spec, 0);
    for (const wchar_t* name : {L"\\a.jpg", L"\\b.jpg", L"\\c.jpg"}) {
        emulator.WriteFile(storage + name, "jpeg");
    }
    std::unique_ptr<CDorWEXWMIWPDCore> core;
    {
        TraceCapture trace(1);
        core = std::make_unique<CDorWEXWMIWPDCore>();
        EXPECT_EQ(trace.Lines(), (std::vector<std::wstring>{L"CDorWEXWMIWPDCore::CDorWEXWMIWPDCore\r\n",
                                                            L"CDorWEXWPDCollection::CDorWEXWPDCollection\r\n"}));
    }
    ASSERT_EQ(core->GetCollection()->AddWPD(L"usb#vid_04e8#deleting"), S_OK);
    const auto device =
        std::dynamic_pointer_cast<CDorWEXWPDObject>(core->GetCollection()->FindWPDObjectById(L"usb#vid_04e8#deleting"));
    ASSERT_TRUE(device);
    const std::wstring a = Text(device->GetStorageObjectProperty(L"Phone\\a.jpg", L"ObjectId"));
    const std::wstring b = Text(device->GetStorageObjectProperty(L"Phone\\b.jpg", L"ObjectId"));
    ASSERT_FALSE(a.empty());
    ASSERT_FALSE(b.empty());
    const std::wstring deleted = L"CDorWEXWPDObject::DeleteWPDObject, IPortableDeviceContent->Delete succeeded, "
                                 L"HRESULT=0x00000000.\r\n";
    CDorWEXWPDObject placeholder(core.get());
    const struct {
        const char* what;
        CDorWEXWPDObject* object;
        const wchar_t* objectId;
        const wchar_t* deviceId;
        bool redirected;
        HRESULT result;
        std::vector<std::wstring> lines;
    } cases[] = {
        {"no object id", device.get(), nullptr, L"USB#VID_04E8#DELETING", false, E_FAIL,
         {L"CDorWEXWPDObject::DeleteWPDObject, ERROR pTCHARObjectStoragePath_in == NULL\r\n"}},
        {"no device id", device.get(), a.c_str(), nullptr, false, E_FAIL,
         {L"CDorWEXWPDObject::DeleteWPDObject, ERROR pTCHARDeviceId_in == NULL\r\n"}},
        {"another device's id", device.get(), a.c_str(), L"usb#vid_04e8#other", false, E_FAIL, {}},
        {"a placeholder already passed on", &placeholder, a.c_str(), L"usb#vid_04e8#deleting", true, E_FAIL, {}},
        {"a placeholder for no device", &placeholder, a.c_str(), L"usb#vid_04e8#other", false, E_FAIL, {}},
        {"the id in another case", device.get(), a.c_str(), L"usb#VID_04E8#Deleting", false, S_OK, {deleted}},
        {"a placeholder passes it on", &placeholder, b.c_str(), L"usb#vid_04e8#deleting", false, S_OK, {deleted}},
    };
    for (const auto& c : cases) {
        TraceCapture trace(1);
        EXPECT_EQ(c.object->DeleteWPDObject(c.objectId, c.deviceId, c.redirected), c.result) << c.what;
        // The deletion's lines (the device's removal events reach its callback meanwhile).
        std::vector<std::wstring> lines;
        for (const auto& line : trace.Lines()) {
            if (line.compare(0, 34, L"CDorWEXWPDObject::DeleteWPDObject,") == 0) {
                lines.push_back(line);
            }
        }
        EXPECT_EQ(lines, c.lines) << c.what;
    }
    EXPECT_EQ(GetFileAttributesW((storage + L"\\a.jpg").c_str()), INVALID_FILE_ATTRIBUTES);
    EXPECT_EQ(GetFileAttributesW((storage + L"\\b.jpg").c_str()), INVALID_FILE_ATTRIBUTES);
    // A storage path is deleted on the device it was resolved on: the object's own id goes with the object
    // id, whatever id the caller holds.
    EXPECT_EQ(device->DeleteFileFromDevice(L"Phone\\c.jpg", L"usb#vid_04e8#other"), 1);
    EXPECT_EQ(GetFileAttributesW((storage + L"\\c.jpg").c_str()), INVALID_FILE_ATTRIBUTES);
    core->GetCollection()->RemoveWPD(L"usb#vid_04e8#deleting");
}

// A delete that reaches a device object after its session was closed (the device went while the request was
// on its way): the session refuses its content as Windows does before Open, and the delete says so and fails.
TEST_F(DeviceObject, DeleteOnAClosedSessionFailsAtItsContent) {
    const EmulatedDeviceSpec spec = PhoneSpec("usb#vid_04e8#closed", "SAMSUNG", "CLS1");
    emulator.Attach(spec);
    const std::wstring file = emulator.StorageDirectory(spec, 0) + L"\\a.jpg";
    emulator.WriteFile(file, "jpeg");
    CDorWEXWPDObject device(nullptr);
    ASSERT_EQ(device.InitializeWPD(L"usb#vid_04e8#closed"), S_OK);
    const std::wstring a = Text(device.GetStorageObjectProperty(L"Phone\\a.jpg", L"ObjectId"));
    ASSERT_FALSE(a.empty());
    device.Terminate();
    TraceCapture trace(1);
    EXPECT_EQ(device.DeleteWPDObject(a.c_str(), L"usb#vid_04e8#closed"), static_cast<HRESULT>(0x802A0002));
    EXPECT_EQ(trace.Lines(), (std::vector<std::wstring>{L"CDorWEXWPDObject::DeleteWPDObject, ERROR: "
                                                        L"IPortableDevice->Content failed, HRESULT=0x802a0002.\r\n"}));
    EXPECT_NE(GetFileAttributesW(file.c_str()), INVALID_FILE_ATTRIBUTES);
}

// The write event of a device that has no companion to ask takes the storage path as it is, an empty one too:
// only the Apple companion's answer is refused for being empty.
TEST_F(DeviceObject, WriteEventOfADeviceWithoutACompanionTakesTheStoragePathAsItIs) {
    emulator.Attach(PhoneSpec("usb#vid_04e8#writes", "SAMSUNG", "WR1"));
    CDorWEXWPDObject device(nullptr);
    ASSERT_EQ(device.InitializeWPD(L"usb#vid_04e8#writes"), S_OK);
    for (const wchar_t* path : {L"Phone\\DCIM", L""}) {
        const std::string what(path, path + wcslen(path));
        TraceCapture trace(1);
        EXPECT_EQ(device.SimulateWPDWriteEvent(path, L"a.jpg", L"", 4712), 0) << what << ": no core to send to";
        EXPECT_EQ(trace.Lines(), (std::vector<std::wstring>{L"CDorWEXWPDObject::SimulateWPDWriteEvent enter.\r\n",
                                                            L"CDorWEXWMIWPDCore::SendEvent enter.\r\n"}))
            << what;
    }
    device.Terminate();
}

// A copy from a device whose reads fail ends at the first read, with its size and code; a copy onto an object
// that holds no session ends with reason 1 before anything else is looked at.
TEST_F(DeviceObject, FailedReadsAndAMissingSessionEndTheCopies) {
    EmulatedDeviceSpec spec = PhoneSpec("usb#vid_04e8#unreadable", "SAMSUNG", "RD1");
    spec.faultLines = {"Read = 0x8007001F"};
    emulator.Attach(spec);
    emulator.WriteFile(emulator.StorageDirectory(spec, 0) + L"\\a.jpg", "jpeg");
    const std::wstring local = emulator.Directory() + L"\\a.jpg";
    CDorWEXWPDObject device(nullptr);
    ASSERT_EQ(device.InitializeWPD(L"usb#vid_04e8#unreadable"), S_OK);
    {
        TraceCapture trace(1);
        EXPECT_EQ(device.CopyFileFromDevice(L"Phone\\a.jpg", local.c_str()), static_cast<HRESULT>(0x8007001F));
        EXPECT_EQ(trace.StartingWith(L"! "),
                  std::vector<std::wstring>{
                      L"! Failed to read 262144 bytes from the source stream, l_HRESULT = 0x8007001f"});
    }
    device.Terminate();

    CDorWEXWPDObject unopened(nullptr);
    TraceCapture trace(1);
    EXPECT_EQ(Text(unopened.CopyFileToDevice(L"Phone", local.c_str(), nullptr, 1)), L"No portable device object, reason=1");
    EXPECT_EQ(trace.Lines(), (std::vector<std::wstring>{L"CDorWEXWPDObject::CopyFileToDevice enter.\r\n",
                                                        L"CDorWEXWPDObject::CopyFileToDevice1 enter.\r\n"}));
}

// The path of an object on the device, as content events carry it: the storage's name and the folders down to
// the object, "DEVICE" for the device itself, "NULL" for no object; asked and answered in the trace.
TEST_F(DeviceObject, TargetPathOfAnObjectIsTracedWithItsAnswer) {
    const EmulatedDeviceSpec spec = PhoneSpec("usb#vid_04e8#paths", "SAMSUNG", "PTH1");
    emulator.Attach(spec);
    CreateDirectoryW((emulator.StorageDirectory(spec, 0) + L"\\DCIM").c_str(), nullptr);
    CDorWEXWPDObject device(nullptr);
    ASSERT_EQ(device.InitializeWPD(L"usb#vid_04e8#paths"), S_OK);
    const std::wstring folder = Text(device.GetStorageObjectProperty(L"Phone\\DCIM", L"ObjectId"));
    ASSERT_FALSE(folder.empty());
    const struct {
        const wchar_t* id;
        const wchar_t* path;
        std::vector<std::wstring> lines;
    } cases[] = {
        {folder.c_str(), L"Phone\\DCIM",
         {L"CDorWEXWPDObject::GetObjectTargetPath " + folder + L"\r\n",
          L"CDorWEXWPDObject::GetObjectTargetPath: " + folder + L" Phone\\DCIM\r\n"}},
        {L"s10001", L"Phone",
         {L"CDorWEXWPDObject::GetObjectTargetPath s10001\r\n", L"CDorWEXWPDObject::GetObjectTargetPath: s10001 Phone\r\n"}},
        {L"DEVICE", L"DEVICE",
         {L"CDorWEXWPDObject::GetObjectTargetPath DEVICE\r\n", L"CDorWEXWPDObject::GetObjectTargetPath: DEVICE DEVICE\r\n"}},
        {nullptr, L"NULL", {L"CDorWEXWPDObject::GetObjectTargetPath NULL\r\n"}},
    };
    for (const auto& c : cases) {
        TraceCapture trace(1);
        EXPECT_EQ(Text(device.GetObjectTargetPath(c.id)), c.path);
        EXPECT_EQ(trace.Lines(), c.lines);
    }
    device.Terminate();
}

TEST_F(DeviceObject, DeleteAnsweredWithSFalseIsAFailure) {
    emulator.Attach(PhoneSpec("usb#keeper", "SAMSUNG", "KEEP1"));
    CDorWEXWPDObject device(nullptr);
    ASSERT_EQ(device.InitializeWPD(L"usb#keeper"), S_OK);
    TraceCapture trace(1);
    EXPECT_EQ(device.DeleteWPDObject(L"s10001", L"usb#keeper"), E_FAIL);
    EXPECT_TRUE(trace.Has(L"CDorWEXWPDObject::DeleteWPDObject, IPortableDeviceContent->Delete failed, "
                          L"HRESULT=0x00000001.\n"));
    EXPECT_NE(GetFileAttributesW(emulator.StorageDirectory(PhoneSpec("usb#keeper", "SAMSUNG", "KEEP1"), 0).c_str()),
              INVALID_FILE_ATTRIBUTES);
    device.Terminate();
}

// A path whose first component is empty names the storage whose name equals the empty text: the second
// one of a device that has no second storage (whose root is unknown, so the path names nothing), the first
// one of a device with two.
TEST_F(DeviceObject, PathWithAnEmptyStorageNameNamesTheStorageWithAnEmptyName) {
    EmulatedDeviceSpec single = PhoneSpec("usb#single", "SAMSUNG", "SGL1");
    emulator.Attach(single);
    CreateDirectoryW((emulator.StorageDirectory(single, 0) + L"\\DCIM").c_str(), nullptr);
    emulator.WriteFile(emulator.StorageDirectory(single, 0) + L"\\DCIM\\a.jpg", "jpeg");
    EmulatedDeviceSpec both = PhoneSpec("usb#both", "SAMSUNG", "BTH1", 2);
    emulator.Attach(both);
    CreateDirectoryW((emulator.StorageDirectory(both, 0) + L"\\DCIM").c_str(), nullptr);
    emulator.WriteFile(emulator.StorageDirectory(both, 0) + L"\\DCIM\\a.jpg", "jpeg");
    const std::wstring local = emulator.Directory() + L"\\up.txt";
    emulator.WriteFile(local, "up");

    CDorWEXWPDObject one(nullptr);
    ASSERT_EQ(one.InitializeWPD(L"usb#single"), S_OK);
    ASSERT_EQ(Text(one.Identity()->m_bstr_tDisk2Name), L"");
    EXPECT_EQ(Text(one.GetStorageRootObjectId(L"\\DCIM\\a.jpg")), L"");
    EXPECT_EQ(Text(one.GetStorageRootObjectId(L"Phone\\DCIM\\a.jpg")), L"s10001");
    EXPECT_EQ(Text(one.GetStorageObjectProperty(L"\\DCIM\\a.jpg", L"ObjectId")), L"");
    EXPECT_EQ(Text(one.CopyFileToDevice(L"\\DCIM", local.c_str(), nullptr, 1)),
              L"Could not obtain portable device object id, reason=2");
    one.Terminate();

    CDorWEXWPDObject two(nullptr);
    ASSERT_EQ(two.InitializeWPD(L"usb#both"), S_OK);
    EXPECT_EQ(Text(two.GetStorageRootObjectId(L"\\DCIM\\a.jpg")), L"s10001");
    EXPECT_FALSE(Text(two.GetStorageObjectProperty(L"\\DCIM\\a.jpg", L"ObjectId")).empty());
    two.Terminate();
}

// A BlackBerry's second storage is learnt from its pipe while WMI threads read the device: every reader sees
// the storage's four texts all from before or all from after a change, and nothing is freed under it.
// A driver that sends only what every driver must (event id, device id, the object's persistent unique id):
// the callback's text holds only the parts it could read, and an object of unknown content type is neither
// a folder nor a storage, so an addition of it is passed on.
TEST_F(DeviceObject, MinimalDriverEventsAreTracedWithWhatTheyCarryAndPassedOn) {
    EmulatedDeviceSpec spec = PhoneSpec("usb#minimal", "SAMSUNG", "MIN1");
    spec.deviceLines.push_back("minimal_driver = yes");
    emulator.Attach(spec);
    const std::wstring storage = emulator.StorageDirectory(spec, 0);
    CreateDirectoryW((storage + L"\\DCIM").c_str(), nullptr);
    emulator.WriteFile(storage + L"\\DCIM\\a.jpg", "jpeg");
    CDorWEXWPDObject device(nullptr);
    ASSERT_EQ(device.InitializeWPD(L"usb#minimal"), S_OK);
    const std::wstring file = Text(device.GetStorageObjectProperty(L"Phone\\DCIM\\a.jpg", L"ObjectId"));
    const std::wstring folder = Text(device.GetStorageObjectProperty(L"Phone\\DCIM", L"ObjectId"));
    ASSERT_FALSE(file.empty());
    ASSERT_FALSE(folder.empty());

    const struct {
        const GUID* event;
        std::wstring object;
        std::wstring text;
    } cases[] = {
        {&WPD_EVENT_OBJECT_ADDED, file,
         L" Event: WPD_EVENT_OBJECT_ADDEDObject Persistent Unique Id: {PUID-MIN1-1}\\DCIM\\a.jpg"},
        {&WPD_EVENT_OBJECT_ADDED, folder, L" Event: WPD_EVENT_OBJECT_ADDEDObject Persistent Unique Id: {PUID-MIN1-1}\\DCIM"},
        {&WPD_EVENT_OBJECT_ADDED, L"s10001", L" Event: WPD_EVENT_OBJECT_ADDEDObject Persistent Unique Id: {PUID-MIN1-1}"},
    };
    for (const auto& c : cases) {
        TraceCapture trace(1);
        ASSERT_EQ(emulator.RaiseEvent(L"usb#minimal", c.event, c.object.c_str()), S_OK);
        ASSERT_TRUE(emulator.WaitForEvents(5000));
        EXPECT_EQ(trace.StartingWith(L"CDorWEXWPDObjectEvents::OnEvent, ").size(), 1u) << "object " << c.object;
        EXPECT_TRUE(trace.Has(L"CDorWEXWPDObjectEvents::OnEvent, " + c.text + L"\n")) << "object " << c.object;
        EXPECT_EQ(trace.Count(L"CDorWEXWMIWPDCore::SendEvent enter.\n"), 1u) << "object " << c.object;
    }

    // A removal says the same; whether it is passed on depends on the system, as for any driver.
    TraceCapture trace(1);
    ASSERT_EQ(emulator.RaiseEvent(L"usb#minimal", &WPD_EVENT_OBJECT_REMOVED, file.c_str()), S_OK);
    ASSERT_TRUE(emulator.WaitForEvents(5000));
    EXPECT_TRUE(trace.Has(L"CDorWEXWPDObjectEvents::OnEvent,  Event: WPD_EVENT_OBJECT_REMOVEDObject Persistent Unique "
                          L"Id: {PUID-MIN1-1}\\DCIM\\a.jpg\n"));
    device.Terminate();
}

// What the path lookups remember goes with the device's events: an updated or removed folder takes its
// children's ids with it (the folder is read again), a removed file only its own, an event that names no
// object everything; an added object nothing. Counted in device requests of the next lookup of b.jpg: with
// everything remembered, one bulk read checks the whole chain.
TEST_F(DeviceObject, EventsMakeLookupsForgetWhatTheyName) {
    const struct {
        const char* device;
        const GUID* event;
        const char* object;  // "folder", "file" (a.jpg) or "other" (c.jpg)
        ULONG requests;
    } cases[] = {
        {"usb#forget-added", &WPD_EVENT_OBJECT_ADDED, "other", 1u},
        {"usb#forget-file", &WPD_EVENT_OBJECT_REMOVED, "file", 1u},
        {"usb#forget-other", &WPD_EVENT_OBJECT_UPDATED, "other", 1u},
        {"usb#forget-removed", &WPD_EVENT_OBJECT_REMOVED, "folder", 2u + 2u},
        {"usb#forget-updated", &WPD_EVENT_OBJECT_UPDATED, "folder", 2u + 2u},
        {"usb#forget-minimal", &WPD_EVENT_OBJECT_UPDATED, "other", 2u + 2u},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.device);
        EmulatedDeviceSpec spec = PhoneSpec(c.device, "SAMSUNG", c.device);
        if (std::string(c.device) == "usb#forget-minimal") {
            spec.deviceLines.push_back("minimal_driver = yes");  // its events carry no object id
        }
        emulator.Attach(spec);
        const std::wstring storage = emulator.StorageDirectory(spec, 0);
        CreateDirectoryW((storage + L"\\DCIM").c_str(), nullptr);
        for (const wchar_t* name : {L"a.jpg", L"b.jpg", L"c.jpg"}) {
            emulator.WriteFile(storage + L"\\DCIM\\" + name, "jpeg");
        }
        const std::wstring id = Wide(c.device);
        // Owned as the collection owns it: the event callback reaches the device through a weak reference.
        const auto owned = std::make_shared<CDorWEXWPDObject>(nullptr);
        CDorWEXWPDObject& device = *owned;
        ASSERT_EQ(device.InitializeWPD(id.c_str()), S_OK);
        const std::wstring folder = Text(device.GetStorageObjectProperty(L"Phone\\DCIM", L"ObjectId"));
        const std::wstring file = Text(device.GetStorageObjectProperty(L"Phone\\DCIM\\a.jpg", L"ObjectId"));
        const std::wstring other = Text(device.GetStorageObjectProperty(L"Phone\\DCIM\\c.jpg", L"ObjectId"));
        ASSERT_FALSE(folder.empty() || file.empty() || other.empty());
        const std::string which = c.object;
        const std::wstring& object = which == "folder" ? folder : which == "file" ? file : other;
        ASSERT_EQ(emulator.RaiseEvent(id.c_str(), c.event, object.c_str()), S_OK);
        ASSERT_TRUE(emulator.WaitForEvents(5000));
        emulator.Requests(id.c_str(), TRUE);
        EXPECT_FALSE(Text(device.GetStorageObjectProperty(L"Phone\\DCIM\\b.jpg", L"ObjectId")).empty());
        EXPECT_EQ(emulator.Requests(id.c_str(), TRUE), c.requests);
        device.Terminate();
    }
}

// The same folder on a device whose events carry everything is known as a folder and not passed on: the
// minimal driver's folder event above is passed on only because its content type is missing.
TEST_F(DeviceObject, FolderEventsWithTheirContentTypeAreNotPassedOn) {
    EmulatedDeviceSpec spec = PhoneSpec("usb#complete", "SAMSUNG", "FUL1");
    emulator.Attach(spec);
    CreateDirectoryW((emulator.StorageDirectory(spec, 0) + L"\\DCIM").c_str(), nullptr);
    CDorWEXWPDObject device(nullptr);
    ASSERT_EQ(device.InitializeWPD(L"usb#complete"), S_OK);
    const std::wstring folder = Text(device.GetStorageObjectProperty(L"Phone\\DCIM", L"ObjectId"));
    ASSERT_FALSE(folder.empty());
    TraceCapture trace(1);
    ASSERT_EQ(emulator.RaiseEvent(L"usb#complete", &WPD_EVENT_OBJECT_ADDED, folder.c_str()), S_OK);
    ASSERT_TRUE(emulator.WaitForEvents(5000));
    EXPECT_TRUE(trace.Has(L"CDorWEXWPDObjectEvents::OnEvent, Object Id: " + folder +
                          L" Object Name: DCIM Original File Name: DCIM Parent Id: s10001 Event: WPD_EVENT_OBJECT_ADDED "
                          L"ContentType: {27E2E392-A111-48E0-AB0C-E17705A05F85}Object Persistent Unique Id: "
                          L"{PUID-FUL1-1}\\DCIM\n"));
    EXPECT_EQ(trace.Count(L"CDorWEXWMIWPDCore::SendEvent enter.\n"), 0u);
    device.Terminate();
}

// A device may refuse a new file that does not say what it is: the copy names the content type and the
// format.
TEST_F(DeviceObject, CopyToADeviceThatNeedsContentTypeAndFormat) {
    EmulatedDeviceSpec spec = PhoneSpec("usb#strict", "SAMSUNG", "STR1");
    spec.deviceLines.push_back("strict_creation = yes");
    emulator.Attach(spec);
    const std::wstring local = emulator.Directory() + L"\\local";
    CreateDirectoryW(local.c_str(), nullptr);
    emulator.WriteFile(local + L"\\up.txt", "uploaded");
    CDorWEXWPDObject device(nullptr);
    ASSERT_EQ(device.InitializeWPD(L"usb#strict"), S_OK);
    EXPECT_EQ(Text(device.CopyFileToDevice(L"Phone", (local + L"\\up.txt").c_str(), nullptr, 1)), L"1");
    EXPECT_EQ(ReadAll(emulator.StorageDirectory(spec, 0) + L"\\up.txt"), "uploaded");
    EXPECT_EQ(Text(device.GetStorageObjectProperty(L"Phone\\up.txt", L"WPD_OBJECT_CONTENT_TYPE")),
              L"{0085E0A6-8D34-45D7-BC5C-447E59C73D48}");
    device.Terminate();
}

// The device checks the byte count against the size the object was created with: a copy of a file larger
// than one buffer, and a copy from a source that hands out a few bytes per read, still send exactly that.
TEST_F(DeviceObject, CopiesSendTheByteCountTheObjectWasCreatedWith) {
    EmulatedDeviceSpec spec = PhoneSpec("usb#counted", "SAMSUNG", "CNT1");
    spec.deviceLines.push_back("short_read = 7");
    emulator.Attach(spec);
    const std::wstring local = emulator.Directory() + L"\\local";
    CreateDirectoryW(local.c_str(), nullptr);
    std::string large(300000, '\0');
    for (size_t i = 0; i < large.size(); ++i) {
        large[i] = static_cast<char>('a' + i % 26);
    }
    emulator.WriteFile(local + L"\\large.bin", large);
    CDorWEXWPDObject device(nullptr);
    ASSERT_EQ(device.InitializeWPD(L"usb#counted"), S_OK);
    ASSERT_EQ(Text(device.CopyFileToDevice(L"Phone", (local + L"\\large.bin").c_str(), nullptr, 1)), L"1");
    EXPECT_EQ(ReadAll(emulator.StorageDirectory(spec, 0) + L"\\large.bin"), large);

    // The device's own stream reads 7 bytes at a time; copied into a new object of the same size.
    const std::wstring source = Text(device.GetStorageObjectProperty(L"Phone\\large.bin", L"ObjectId"));
    ASSERT_FALSE(source.empty());
    Microsoft::WRL::ComPtr<IPortableDevice> session;
    Microsoft::WRL::ComPtr<IPortableDeviceValues> client;
    ASSERT_EQ(CoCreateInstance(CLSID_PortableDeviceFTM, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&session)), S_OK);
    ASSERT_EQ(CoCreateInstance(CLSID_PortableDeviceValues, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&client)), S_OK);
    ASSERT_EQ(session->Open(L"usb#counted", client.Get()), S_OK);
    Microsoft::WRL::ComPtr<IPortableDeviceContent> content;
    Microsoft::WRL::ComPtr<IPortableDeviceResources> resources;
    ASSERT_EQ(session->Content(&content), S_OK);
    ASSERT_EQ(content->Transfer(&resources), S_OK);
    Microsoft::WRL::ComPtr<IStream> from;
    DWORD optimal = 0;
    ASSERT_EQ(resources->GetStream(source.c_str(), WPD_RESOURCE_DEFAULT, STGM_READ, &optimal, &from), S_OK);
    Microsoft::WRL::ComPtr<IPortableDeviceValues> values;
    ASSERT_EQ(CoCreateInstance(CLSID_PortableDeviceValues, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&values)), S_OK);
    values->SetStringValue(WPD_OBJECT_PARENT_ID, L"s10001");
    values->SetStringValue(WPD_OBJECT_ORIGINAL_FILE_NAME, L"copy.bin");
    values->SetUnsignedLargeIntegerValue(WPD_OBJECT_SIZE, large.size());
    Microsoft::WRL::ComPtr<IStream> to;
    ASSERT_EQ(content->CreateObjectWithPropertiesAndData(values.Get(), &to, &optimal, nullptr), S_OK);
    ULONGLONG written = 0;
    ASSERT_EQ(CDorWEXWPDObject::StreamCopy(to.Get(), from.Get(), optimal, &written), S_OK);
    EXPECT_EQ(written, large.size());
    EXPECT_EQ(to->Commit(STGC_DEFAULT), S_OK);
    EXPECT_EQ(ReadAll(emulator.StorageDirectory(spec, 0) + L"\\copy.bin"), large);
    session->Close();
    device.Terminate();
}

// A source that hands out the given read sizes in turn, S_FALSE when fewer bytes than asked (its end, as
// ISequentialStream::Read has it), and a destination that records the size of each write and answers each
// with the next of the given results (S_OK once they run out).
class ScriptedStream : public IStream {
public:
    ScriptedStream(std::vector<ULONG> reads, std::vector<HRESULT> writeResults)
        : m_reads(std::move(reads)), m_writeResults(std::move(writeResults)) {}
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override {
        if (riid == IID_IUnknown || riid == IID_ISequentialStream || riid == IID_IStream) {
            *ppv = static_cast<IStream*>(this);
            AddRef();
            return S_OK;
        }
        *ppv = nullptr;
        return E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return ++m_refs; }
    ULONG STDMETHODCALLTYPE Release() override { return --m_refs; }
    HRESULT STDMETHODCALLTYPE Read(void* pv, ULONG cb, ULONG* pcbRead) override {
        ++readsMade;
        const ULONG size = m_nextRead < m_reads.size() ? std::min(cb, m_reads[m_nextRead++]) : 0;
        std::memset(pv, 'r', size);
        *pcbRead = size;
        return size < cb ? S_FALSE : S_OK;
    }
    HRESULT STDMETHODCALLTYPE Write(const void*, ULONG cb, ULONG* pcbWritten) override {
        writes.push_back(cb);
        const HRESULT result = writes.size() <= m_writeResults.size() ? m_writeResults[writes.size() - 1] : S_OK;
        if (pcbWritten != nullptr) {
            *pcbWritten = SUCCEEDED(result) ? cb : 0;
        }
        return result;
    }
    HRESULT STDMETHODCALLTYPE Seek(LARGE_INTEGER, DWORD, ULARGE_INTEGER*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE SetSize(ULARGE_INTEGER) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE CopyTo(IStream*, ULARGE_INTEGER, ULARGE_INTEGER*, ULARGE_INTEGER*) override {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE Commit(DWORD) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE Revert() override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE LockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE UnlockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE Stat(STATSTG*, DWORD) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE Clone(IStream**) override { return E_NOTIMPL; }

    std::vector<ULONG> writes;
    size_t readsMade = 0;

private:
    ULONG m_refs = 1;
    std::vector<ULONG> m_reads;
    size_t m_nextRead = 0;
    std::vector<HRESULT> m_writeResults;
};

// The copy loop writes what every read gave, the final read of nothing included, and answers with the
// result of its last write. Each read of a device stream is a request: when the size the object announced
// has arrived and the stream said its end is reached, the read of nothing is left out (its empty write is
// not); anything short of that reads on to the read of nothing.
TEST(StreamCopy, WritesEveryReadAlsoTheEmptyLastOneAndAnswersWithTheLastWrite) {
    constexpr ULONGLONG kUnknown = ~0ull;
    const struct {
        const char* name;
        std::vector<ULONG> reads;
        std::vector<HRESULT> writeResults;
        HRESULT result;
        std::vector<ULONG> writes;
        ULONGLONG total;
        std::vector<std::wstring> lines;
        ULONGLONG announced = kUnknown;
        size_t readsMade = 0;  // 0: not checked
    } cases[] = {
        {"announced size and the end: no read of nothing", {5, 3}, {}, S_OK, {5, 3, 0}, 8,
         {L"Read 5 bytes from the source stream...Wrote 5 bytes to the destination stream...\n",
          L"Read 3 bytes from the source stream...Wrote 3 bytes to the destination stream...\n"}, 8, 2},
        {"announced size in a full read: not yet the end", {16, 4}, {}, S_OK, {16, 4, 0}, 20,
         {L"Read 16 bytes from the source stream...Wrote 16 bytes to the destination stream...\n",
          L"Read 4 bytes from the source stream...Wrote 4 bytes to the destination stream...\n"}, 16, 3},
        {"the end before the announced size", {5}, {}, S_OK, {5, 0}, 5,
         {L"Read 5 bytes from the source stream...Wrote 5 bytes to the destination stream...\n"}, 8, 2},
        {"two chunks, size unknown", {5, 3}, {}, S_OK, {5, 3, 0}, 8,
         {L"Read 5 bytes from the source stream...Wrote 5 bytes to the destination stream...\n",
          L"Read 3 bytes from the source stream...Wrote 3 bytes to the destination stream...\n"}, kUnknown, 3},
        {"empty source", {}, {}, S_OK, {0}, 0, {}},
        {"last write's own success code", {4}, {S_OK, S_FALSE}, S_FALSE, {4, 0}, 4,
         {L"Read 4 bytes from the source stream...Wrote 4 bytes to the destination stream...\n"}},
        {"last write fails", {4}, {S_OK, E_ACCESSDENIED}, E_ACCESSDENIED, {4, 0}, 0,
         {L"Read 4 bytes from the source stream...Wrote 4 bytes to the destination stream...\n",
          L"! Failed to write 0 bytes of object data to the destination stream, l_HRESULT = 0x80070005\n"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        ScriptedStream source(c.reads, {});
        ScriptedStream destination({}, c.writeResults);
        TraceCapture trace(1);
        ULONGLONG total = 0;
        EXPECT_EQ(CDorWEXWPDObject::StreamCopy(&destination, &source, 16, &total, c.announced), c.result);
        EXPECT_EQ(destination.writes, c.writes);
        if (c.readsMade != 0) {
            EXPECT_EQ(source.readsMade, c.readsMade);
        }
        if (SUCCEEDED(c.result)) {
            EXPECT_EQ(total, c.total);
        }
        EXPECT_EQ(trace.Lines().size(), c.lines.size());
        for (size_t i = 0; i < c.lines.size(); ++i) {
            EXPECT_EQ(trace.IndexOf(c.lines[i]), static_cast<long>(i)) << std::string(c.lines[i].begin(), c.lines[i].end());
        }
    }
}

// What a listing and a path lookup cost in device requests, and what they give, on a device that offers
// bulk property reads and on one that does not: the same text, the same traces, the same order; with bulk
// reads one enumeration and one bulk read per folder, without them one read per child on top; a folder a
// lookup has read is not read again for the next name in it.
TEST_F(DeviceObject, ListingsAndLookupsReadEachFolderInBulkAndFallBackToTheSameResult) {
    struct Outcome {
        std::wstring root, camera, folders, objectId, size, missing;
        std::string copied;
        ULONG rootRequests = 0, cameraRequests = 0, objectIdRequests = 0, againRequests = 0, copyRequests = 0;
        std::vector<std::wstring> traces;
    };
    const auto run = [this](const char* id, bool bulk) {
        EmulatedDeviceSpec spec = PhoneSpec(id, "SAMSUNG", id);
        if (!bulk) {
            spec.deviceLines.push_back("bulk_properties = no");
        }
        emulator.Attach(spec);
        const std::wstring storage = emulator.StorageDirectory(spec, 0);
        CreateDirectoryW((storage + L"\\DCIM").c_str(), nullptr);
        CreateDirectoryW((storage + L"\\DCIM\\Camera").c_str(), nullptr);
        CreateDirectoryW((storage + L"\\Music").c_str(), nullptr);
        for (int i = 0; i < 200; ++i) {
            wchar_t name[40];
            swprintf(name, 40, L"\\note-%03d.txt", i);
            emulator.WriteFile(storage + name, "n");
            swprintf(name, 40, L"\\DCIM\\Camera\\IMG_%04d.jpg", i);
            emulator.WriteFile(storage + name, std::string(static_cast<size_t>(i), 'j'));
        }
        Outcome outcome;
        CDorWEXWPDObject device(nullptr);
        EXPECT_EQ(device.InitializeWPD(Wide(id).c_str()), S_OK);
        const std::wstring wide = Wide(id);
        {
            TraceCapture trace(1);
            emulator.Requests(wide.c_str(), TRUE);
            outcome.root = Text(device.EnumerateDevicePath(L"Phone", 0));
            outcome.rootRequests = emulator.Requests(wide.c_str(), TRUE);
            outcome.camera = Text(device.EnumerateDevicePath(L"phone\\dcim\\CAMERA", 2));
            outcome.cameraRequests = emulator.Requests(wide.c_str(), TRUE);
            outcome.folders = Text(device.EnumerateDevicePath(L"Phone", 1));
            emulator.Requests(wide.c_str(), TRUE);
            outcome.objectId = Text(device.GetStorageObjectProperty(L"Phone\\DCIM\\Camera\\img_0150.JPG", L"ObjectId"));
            outcome.objectIdRequests = emulator.Requests(wide.c_str(), TRUE);
            outcome.size = Text(device.GetStorageObjectProperty(L"Phone\\DCIM\\Camera\\IMG_0150.jpg", L"WPD_OBJECT_SIZE"));
            emulator.Requests(wide.c_str(), TRUE);
            const std::wstring again = Text(device.GetStorageObjectProperty(L"Phone\\dcim\\Camera\\IMG_0010.JPG", L"ObjectId"));
            outcome.againRequests = emulator.Requests(wide.c_str(), TRUE);
            EXPECT_FALSE(again.empty());
            EXPECT_NE(again, outcome.objectId);
            const std::wstring local = emulator.Directory() + L"\\" + wide.substr(4) + L".jpg";
            EXPECT_EQ(device.CopyFileFromDevice(L"Phone\\DCIM\\Camera\\IMG_0020.jpg", local.c_str()), S_OK);
            outcome.copyRequests = emulator.Requests(wide.c_str(), TRUE);
            outcome.copied = ReadAll(local);
            outcome.missing = Text(device.EnumerateDevicePath(L"Phone\\DCIM\\Nothing", 0));
            outcome.traces = trace.Lines();
        }
        device.Terminate();
        return outcome;
    };
    const Outcome bulk = run("usb#bulk-reads", true);
    const Outcome plain = run("usb#one-by-one", false);

    ASSERT_EQ(bulk.root.substr(0, 5), L"DCIM@");
    EXPECT_NE(bulk.root.find(L"@DIR~Music@"), std::wstring::npos);
    EXPECT_NE(bulk.root.find(L"@DIR~note-000.txt@"), std::wstring::npos) << "the device's order: folders sort first";
    EXPECT_EQ(std::count(bulk.root.begin(), bulk.root.end(), L'~'), 202);
    EXPECT_EQ(std::count(bulk.camera.begin(), bulk.camera.end(), L'~'), 200);
    EXPECT_EQ(bulk.camera.substr(0, 13), L"IMG_0000.jpg@");
    EXPECT_EQ(std::count(bulk.folders.begin(), bulk.folders.end(), L'~'), 2);
    EXPECT_FALSE(bulk.objectId.empty());
    EXPECT_EQ(bulk.size, L"150");
    EXPECT_EQ(bulk.missing, L"");
    // The same answers, in the same order, with the same traces, read either way.
    EXPECT_EQ(plain.root, bulk.root);
    EXPECT_EQ(plain.camera, bulk.camera);
    EXPECT_EQ(plain.folders, bulk.folders);
    EXPECT_EQ(plain.objectId, bulk.objectId);
    EXPECT_EQ(plain.size, bulk.size);
    EXPECT_EQ(plain.missing, bulk.missing);
    EXPECT_EQ(bulk.copied, std::string(20, 'j'));
    EXPECT_EQ(plain.copied, bulk.copied);
    EXPECT_EQ(plain.traces, bulk.traces);

    // One enumeration and one bulk read per folder: the storage root, then DCIM and Camera on the way and
    // Camera itself.
    EXPECT_EQ(bulk.rootRequests, 2u);
    EXPECT_EQ(bulk.cameraRequests, 2u * 2u + 2u);
    EXPECT_LE(bulk.objectIdRequests, 2u * 3u) << "at most two requests per path component";
    // Another file of a folder a lookup has read: the remembered ids on the way are checked together in one
    // bulk read (one read each without bulk reads), no folder is read again, however large.
    EXPECT_EQ(bulk.againRequests, 1u);
    EXPECT_EQ(plain.againRequests, 3u) << "the file was among the children visited before";
    // A copy of such a file: that check reads its size too, then the stream and one read of its data.
    EXPECT_EQ(bulk.copyRequests, 1u + 2u);
    EXPECT_EQ(plain.copyRequests, 3u + 2u);
    // One by one: the enumeration and a read of every child visited.
    EXPECT_EQ(plain.rootRequests, 1u + 202u);
    EXPECT_EQ(plain.cameraRequests, 2u + 2u + (1u + 200u)) << "DCIM and Camera are the first children";
    EXPECT_GT(plain.objectIdRequests, 150u) << "the file is the 151st in its folder";
}

TEST(DeviceIdentity, ReadersSeeEachChangeWholeWhileItIsMade) {
    CDorWEXWPDObject device(nullptr);
    std::atomic<bool> writing{true};
    std::atomic<long> torn{0};
    std::atomic<long> reads{0};
    std::vector<std::thread> readers;
    for (int r = 0; r < 3; ++r) {
        readers.emplace_back([&] {
            while (writing) {
                const auto identity = device.Identity();
                const std::wstring name = Text(identity->m_bstr_tDisk2Name);
                if (Text(identity->m_bstr_tDisk2ObjectId) != name ||
                    Text(identity->m_bstr_tDisk2PersistentUniqueId) != name ||
                    (Text(identity->m_bstr_tDisk2Description) == L"SD Card in BB device") != !name.empty()) {
                    ++torn;
                }
                ++reads;
            }
        });
    }
    // The readers must be reading while the changes are made: the writer starts once each has read, and goes on
    // until they have read often enough during the changes (a loaded machine may not run them at first).
    ASSERT_TRUE(WaitUntil([&] { return reads.load() >= 3; }));
    const long readsBefore = reads.load();
    for (int round = 0; round < 3000 || (reads.load() - readsBefore < 3000 && round < 1000000); ++round) {
        const std::wstring share = L"\\\\10.0.0." + std::to_wstring(round % 250) + L"\\card";
        device.UpdateIdentity([&](DeviceIdentity& identity) {
            identity.m_bstr_tDisk2Name = share.c_str();
            identity.m_bstr_tDisk2ObjectId = share.c_str();
            identity.m_bstr_tDisk2PersistentUniqueId = share.c_str();
            identity.m_bstr_tDisk2Description = L"SD Card in BB device";
        });
        device.UpdateIdentity([](DeviceIdentity& identity) {
            identity.m_bstr_tDisk2Name = L"";
            identity.m_bstr_tDisk2ObjectId = L"";
            identity.m_bstr_tDisk2PersistentUniqueId = L"";
            identity.m_bstr_tDisk2Description = L"";
        });
    }
    writing = false;
    for (auto& reader : readers) {
        reader.join();
    }
    EXPECT_GE(reads.load() - readsBefore, 3000) << "the readers hardly ran while the changes were made";
    EXPECT_EQ(torn.load(), 0) << "a reader saw a storage half-way through a change";
}

}  // namespace
