// The provider as a management client sees it, with the doubles behind the provider's function tables: the
// emulated WMI service loads the provider code of this program (its class factory is registered here), so
// the Plug and Play tree double and the network-connection double stand behind it. "EjectDevice", and the
// BlackBerry channel's write reports.
#include <gtest/gtest.h>

#include <windows.h>
#include <dbt.h>
#include <wbemprov.h>

#include <algorithm>
#include <initializer_list>
#include <string>
#include <vector>

#include "support/pnp_tree_double.h"
#include "support/system_text.h"
#include "support/test_files.h"
#include "support/test_trace_sink.h"
#include "support/trace_gate.h"
#include "support/wait_until.h"
#include "support/wmi_calls.h"
#include "support/wpd_emulator.h"
#include "device/wpd_device.h"
#include "monitor/wpd_collection.h"
#include "monitor/wpd_core.h"
#include "wmi/class_factory.h"
#include "wmi/module.h"
#include "wmi/provider_clsid.h"

using Microsoft::WRL::ComPtr;

namespace {

constexpr char kPhoneId[] = "\\\\?\\usb#vid_04e8&pid_6860#r58m77#{6ac27878-a6fa-4155-ba85-f98f491d4f33}";
constexpr wchar_t kPhoneNode[] = L"USB\\VID_04E8&PID_6860\\R58M77";

// The module starts and stops as the DLL's entry point would make it: the monitor's window and threads
// end before the process does.
class LinkedProvider : public testing::Environment {
public:
    void SetUp() override {
        ModuleProcessAttach(GetModuleHandleW(nullptr));
        Register(L"dorwex_wmi_emulator.dll");
        auto* factory = new CDorWEXWPDWMIClassFactory();
        ASSERT_EQ(CoRegisterClassObject(CLSID_DorWEXWPDWMIProvider, factory, CLSCTX_INPROC_SERVER,
                                        REGCLS_MULTIPLEUSE, &m_cookie),
                  S_OK);
    }
    void TearDown() override {
        CoRevokeClassObject(m_cookie);
        ModuleProcessDetach();
    }

private:
    DWORD m_cookie = 0;
};
const auto* const g_linkedProvider = testing::AddGlobalTestEnvironment(new LinkedProvider);

class WmiEject : public testing::Test {
protected:

    void SetUp() override {
        // A phone straight on a hub: the hub must never be asked to leave.
        const int controller = pnp.AddHostController(L"PCI\\VEN_8086&DEV_A36D\\3&1&0&A0");
        hub = pnp.AddHub(controller, L"USB\\ROOT_HUB30\\4&1&0&0", 4);
        PnpTreeDouble::Node phone;
        phone.instanceId = kPhoneNode;
        phone.setupClass = pnp_classes::kWPD;
        phone.parent = hub;
        phone.port = 2;
        phone.properties[SPDRP_LOCATION_INFORMATION] = L"Port (2)";
        phone.interfaces.push_back({pnp_classes::kWPDInterface, Wide(kPhoneId)});
        node = pnp.Add(phone);
        emulator.Attach(PhoneSpec(kPhoneId, "SAMSUNG Electronics Co., Ltd.", "WPD77"));
    }

    size_t Published() {
        return Query(Connect().Get(), L"SELECT * FROM Win32ext_WPD WHERE strId='" + Wide(kPhoneId) + L"'").size();
    }

    WpdEmulator emulator;
    PnpTreeDouble pnp;
    int hub = -1;
    int node = -1;
};

TEST_F(WmiEject, EjectsTheDeviceNotItsHubAndStopsPublishingIt) {
    ComPtr<IWbemServices> services = Connect();
    ASSERT_TRUE(services);
    auto instances = Query(services.Get(), L"SELECT * FROM Win32ext_WPD");
    ASSERT_EQ(instances.size(), 1u);
    // The device's node sits straight on the hub: it is the USB device, and its id carries the serial number.
    EXPECT_EQ(Text(instances[0].Get(), L"strDisk1SerialNumber"), L"R58M77") << "WPD's WPD77 replaced";
    EXPECT_EQ(Text(instances[0].Get(), L"strDisk2SerialNumber"), L"R58M77");
    EXPECT_EQ(_wcsicmp(Text(instances[0].Get(), L"strDisk1DevicePath").c_str(), Wide(kPhoneId).c_str()), 0)
        << "the interface the device was matched from";

    const Outcome vetoed = [&] {
        pnp.At(node).ejectAnswers = {CR_REMOVE_VETOED, CR_REMOVE_VETOED};
        pnp.At(node).removeAnswers = {CR_REMOVE_VETOED};
        return CallMethod(L"EjectDevice", {{L"strObjectDeviceId", _variant_t(Wide(kPhoneId).c_str())}});
    }();
    EXPECT_EQ(vetoed.status, S_OK);
    EXPECT_EQ(vetoed.returnValue, L"0");
    EXPECT_EQ(Published(), 1u) << "a device that would not leave stays";

    TraceCapture trace(1);
    const Outcome ejected = CallMethod(L"EjectDevice", {{L"strObjectDeviceId", _variant_t(kPhoneNode)}});
    EXPECT_TRUE(trace.Has(L"CDorWEXWPDCollection::FindWPDObject/FindWPDObjectBasedOnDiskId(2): DeviceOrDiskId=" +
                          std::wstring(kPhoneNode) + L"\n"))
        << "the device's node is the entry whose instance id is looked for";
    EXPECT_EQ(ejected.status, S_OK);
    EXPECT_EQ(ejected.returnValue, L"1") << "found through its node's instance id, ejected, stayed away";
    EXPECT_EQ(pnp.At(hub).ejectRequests, 0);
    EXPECT_EQ(pnp.At(node).ejectRequests, 3);
    EXPECT_FALSE(pnp.At(node).present);
    EXPECT_EQ(Published(), 0u);
    EXPECT_EQ(pnp.OpenLists(), 0u);
    EXPECT_EQ(pnp.OpenHandles(), 0u);
}

// The eject works on an object of its own, made from what WPD tells of the device: a BlackBerry, known as
// one only from the property record its attached object read, is ejected the way its maker text gives.
TEST_F(WmiEject, ABlackBerryIsEjectedTheWayItsMakerTextGives) {
    constexpr char kBlackBerryId[] = "\\\\?\\usb#vid_0fca&pid_8004#bb77#{6ac27878-a6fa-4155-ba85-f98f491d4f33}";
    PnpTreeDouble::Node blackberry;
    blackberry.instanceId = L"USB\\VID_0FCA&PID_8004\\BB77";
    blackberry.setupClass = pnp_classes::kWPD;
    blackberry.parent = hub;
    blackberry.port = 3;
    blackberry.interfaces.push_back({pnp_classes::kWPDInterface, Wide(kBlackBerryId)});
    blackberry.ejectAnswers = {CR_REMOVE_VETOED, CR_REMOVE_VETOED};
    blackberry.removeAnswers = {CR_REMOVE_VETOED};
    const int index = pnp.Add(blackberry);
    EmulatedDeviceSpec spec = PhoneSpec(kBlackBerryId, "Research In Motion", "BB77");
    spec.faultLines = {"Open = 0x80070005"};
    spec.registryLines = {"BBPIN = 2A3B4C5D", "IMEI = 356938035643809", "DHCPServer = 10.0.0.7"};
    emulator.Attach(spec);
    Query(Connect().Get(), L"SELECT * FROM Win32ext_WPD");  // the provider and its core are running
    ASSERT_NE(g_pCDorWEXWMIWPDCore, nullptr);
    ASSERT_EQ(g_pCDorWEXWMIWPDCore->Devices()->AddWPD(Wide(kBlackBerryId).c_str()), S_OK);
    const auto attached = g_pCDorWEXWMIWPDCore->Devices()->FindWPDObjectById(Wide(kBlackBerryId).c_str());
    ASSERT_TRUE(attached);
    ASSERT_EQ(attached->Identity()->m_eManufacturer, dorwex::Manufacturer::BLACKBERRY);

    TraceCapture trace(1);
    const Outcome refused = CallMethod(L"EjectDevice", {{L"strObjectDeviceId", _variant_t(Wide(kBlackBerryId).c_str())}});
    EXPECT_EQ(refused.returnValue, L"0") << "the device vetoed each request";
    EXPECT_TRUE(trace.Has(L"CDorWEXWPDObject::GetManufacturer defaulting to ANDROID\n."));
    EXPECT_TRUE(trace.Has(L"CDorWEXWPDObject::EjectDeviceWPD parent is hub or controller.\n"));
    EXPECT_TRUE(trace.Has(L"CDorWEXWPDObject::EjectDeviceWPD eject device(3) failed.\n"));
    EXPECT_EQ(pnp.At(index).ejectRequests, 2);
    EXPECT_EQ(pnp.At(hub).ejectRequests, 0);
    g_pCDorWEXWMIWPDCore->Devices()->RemoveWPD(Wide(kBlackBerryId).c_str());
}

// A write on a BlackBerry that its companion reports on the BlackBerry pipe reaches a consumer as a write
// event; the channel knows no local file name.
TEST(WmiBlackBerry, FileWriteReportBecomesAnEventWithoutALocalFileName) {
    WpdEmulator emulator;
    EmulatedDeviceSpec spec;
    spec.id = "usb#vid_0fca&pid_8004#wmibb";
    spec.categories = "";
    spec.registryLines = {"BBPIN = 2A3B4C5D", "IMEI = 356938035643809", "DHCPServer = 10.0.0.1"};
    spec.faultLines = {"Open = 0x80070005"};
    emulator.Attach(spec);
    ComPtr<IWbemServices> services = Connect();
    ASSERT_TRUE(services);
    Query(services.Get(), L"SELECT * FROM Win32ext_WPD");  // the provider and its core are running
    ASSERT_NE(g_pCDorWEXWMIWPDCore, nullptr);
    ASSERT_EQ(g_pCDorWEXWMIWPDCore->Devices()->AddWPD(L"usb#vid_0fca&pid_8004#wmibb"), S_OK);

    ComPtr<IEnumWbemClassObject> events;
    ASSERT_EQ(services->ExecNotificationQuery(_bstr_t(L"WQL"), _bstr_t(L"SELECT * FROM Win32ext_WPDEvent"),
                                              WBEM_FLAG_RETURN_IMMEDIATELY | WBEM_FLAG_FORWARD_ONLY, nullptr, &events),
              S_OK);
    HANDLE pipe = OpenPipeClient(L"\\\\.\\pipe\\dorWEX14BlackBerryPipe");
    ASSERT_NE(pipe, INVALID_HANDLE_VALUE);
    const std::wstring report = L"4711*BlackBerryFileWrite*\\\\10.0.0.1\\media\\a.jpg*y*BLACKBERRY_2A3B4C5D";
    ASSERT_TRUE(SendText(pipe, report));
    const ComPtr<IWbemClassObject> received = NextEvent(events.Get());
    ASSERT_TRUE(received);
    IWbemClassObject* event = received.Get();
    EXPECT_EQ(Text(event, L"strEventId"), L"{A726DA95-E207-4B02-8D44-BEF2E86CBFFC}");
    EXPECT_EQ(Text(event, L"strOriginalFileName"), L"") << "no local file name on this channel";
    EXPECT_EQ(Text(event, L"strTargetPath"), L"\\\\10.0.0.1\\media\\a.jpg") << "the share path itself";
    EXPECT_EQ(Text(event, L"strDeviceName"), L"BLACKBERRY_2A3B4C5D");
    EXPECT_EQ(Text(event, L"strPID"), std::to_wstring(GetCurrentProcessId())) << "the process that raised it";
    EXPECT_EQ(Text(event, L"strObjectDevicePersistentUniqueId"), L"4711") << "the writer the companion named";

    // The process id is read as the C runtime reads the text in the thread's ANSI code page, where
    // full-width digits become digits.
    ASSERT_TRUE(SendText(pipe, L"\uFF14\uFF17\uFF11\uFF12*BlackBerryFileWrite*\\\\10.0.0.1\\media\\b.jpg*y*BLACKBERRY_2A3B4C5D"));
    const ComPtr<IWbemClassObject> second = NextEvent(events.Get());
    ASSERT_TRUE(second);
    EXPECT_EQ(Text(second.Get(), L"strTargetPath"), L"\\\\10.0.0.1\\media\\b.jpg");
    EXPECT_EQ(Text(second.Get(), L"strObjectDevicePersistentUniqueId"), L"4712");
    CloseHandle(pipe);
    g_pCDorWEXWMIWPDCore->Devices()->RemoveWPD(L"usb#vid_0fca&pid_8004#wmibb");
}

// A device pulled out while the provider reads its identity is taken on with what was read before (its
// serial number and storages are empty). The removal the system sends meanwhile waits until the arrival is
// handled, then takes the device away by its key, and nothing of its session is left open.
TEST(WmiArrival, DeviceThatVanishesDuringItsStartUpIsRemovedByItsKey) {
    WpdEmulator emulator;
    const std::string id = "\\\\?\\usb#vid_0421&pid_0661#vanishing#{6ac27878-a6fa-4155-ba85-f98f491d4f33}";
    EmulatedDeviceSpec spec = PhoneSpec(id, "NOKIA", "VANISH1");
    emulator.Attach(spec);
    ComPtr<IWbemServices> services = Connect();
    ASSERT_TRUE(services);
    Query(services.Get(), L"SELECT * FROM Win32ext_WPD");  // the provider and its monitor are running
    const LONG objectsBefore = emulator.LiveObjects();
    TraceCapture trace(1);
    {
        TraceGate gate(L"CDorWEXWPDObject::GetManufacturer, ");
        Notify(DBT_DEVICEARRIVAL, Wide(id));
        ASSERT_TRUE(gate.WaitHeld()) << "the arrival reached the device's start-up";
        emulator.RemoveDevice(Wide(id).c_str());
        emulator.Detach(spec);
        Notify(DBT_DEVICEREMOVECOMPLETE, Wide(id));
    }
    // The arrival is handled to its end first, then the removal that came during it.
    ASSERT_TRUE(WaitUntil([&] {
        return trace.Has(L"CDorWEXWMIThreadWPDEventsProcessor::ProcessApplicationEvent, calling OfflineEvent");
    })) << "the removal that came during the arrival was lost";
    const long online = trace.IndexOf(L"CDorWEXWMIThreadWPDEventsProcessor::ProcessApplicationEvent, calling OnlineEvent");
    EXPECT_GE(online, 0);
    EXPECT_LT(online, trace.IndexOf(L"CDorWEXWMIThreadWPDEventsProcessor::ProcessApplicationEvent, calling OfflineEvent"));
    EXPECT_TRUE(WaitUntil([&] { return !PublishedWithId(Wide(id)); }));
    EXPECT_TRUE(WaitUntil([&] { return emulator.OpenSessions(Wide(id).c_str()) == 0; }));
    EXPECT_TRUE(WaitUntil([&] { return emulator.LiveObjects() <= objectsBefore; }))
        << "COM objects of the emulated stack left: " << emulator.LiveObjects() - objectsBefore;
}

// Lines of the capture that start with one of the prefixes, in order, without their line end.
std::vector<std::wstring> LinesStartingWith(const TraceCapture& trace, std::initializer_list<const wchar_t*> prefixes) {
    std::vector<std::wstring> kept;
    for (const auto& line : trace.Lines()) {
        for (const wchar_t* prefix : prefixes) {
            if (line.compare(0, wcslen(prefix), prefix) == 0) {
                kept.push_back(line.substr(0, line.size() - 2));
                break;
            }
        }
    }
    return kept;
}

// A device plugged in and pulled out again: the monitor publishes it through WMI, WMI hands the put to the
// provider, which takes the device into its collection; the removal deletes it by its key. Every step of both
// sides is traced, in this order.
TEST(WmiPublication, ArrivalAndRemovalTraceEveryStepInOrder) {
    WpdEmulator emulator;
    const std::string id = "\\\\?\\usb#vid_04e8&pid_6860#published#{6ac27878-a6fa-4155-ba85-f98f491d4f33}";
    emulator.Attach(PhoneSpec(id, "SAMSUNG Electronics Co., Ltd.", "PUB1"));
    ComPtr<IWbemServices> services = Connect();
    ASSERT_TRUE(services);
    Query(services.Get(), L"SELECT * FROM Win32ext_WPD");  // the provider and its monitor are running
    ASSERT_FALSE(PublishedWithId(Wide(id)));

    TraceCapture trace(1);
    Notify(DBT_DEVICEARRIVAL, Wide(id));
    ASSERT_TRUE(WaitUntil([&] {
        return trace.Has(L"CDorWEXWMIThreadWPDEventsProcessor::OnlineEvent, PutInstance for WMI Context succeeded.\n");
    }));
    Notify(DBT_DEVICEREMOVECOMPLETE, Wide(id));
    ASSERT_TRUE(WaitUntil([&] {
        return !trace.StartingWith(L"CDorWEXWMIThreadWPDEventsProcessor::OfflineEvent, DeleteInstance, ").empty();
    }));
    // The key in the path is quoted with its backslashes escaped.
    std::wstring quoted;
    for (const wchar_t c : Wide(id)) {
        quoted += c == L'\\' ? std::wstring(L"\\\\") : std::wstring(1, c);
    }
    const std::vector<std::wstring> expected = {
        L"CDorWEXWMIThreadWPDEventsProcessor::OnlineEvent, enter.",
        L"CDorWEXWMIThreadWPDEventsProcessor::OnlineEvent, SpawnInstance succeeded.",
        L"CDorWEXWMIThreadWPDEventsProcessor::OnlineEvent, WPDInstance->Put strId succeeded.",
        L"CDorWEXWMIThreadWPDEventsProcessor::OnlineEvent, IWbemContext->SetValue succeeded.",
        L"CDorWEXWPDWMI::PutInstanceAsync",
        L"CDorWEXWPDWMI::PutWPDInstance",
        L"CDorWEXWPDWMI::PutWPDInstance, GetValue succeeded.",
        L"CDorWEXWPDWMI::PutWPDInstance, device inserted into collection.",
        L"CDorWEXWMIThreadWPDEventsProcessor::OnlineEvent, PutInstance for WMI Context succeeded.",
        L"CDorWEXWMIThreadWPDEventsProcessor::OfflineEvent, enter.",
        L"CDorWEXWPDWMI::DeleteInstanceAsync enter.",
        L"CDorWEXWPDWMI::DeleteWPDInstance enter.",
        L"CDorWEXWPDWMI::CreateWMIInstanceForWin32ext_WPD enter.",
        L"CDorWEXWMIThreadWPDEventsProcessor::OfflineEvent, DeleteInstance, Win32ext_WPD.strId=\"" + quoted +
            L"\", HRESULT = 0x00000000.",
    };
    EXPECT_EQ(LinesStartingWith(trace, {L"CDorWEXWMIThreadWPDEventsProcessor::OnlineEvent",
                                        L"CDorWEXWMIThreadWPDEventsProcessor::OfflineEvent", L"CDorWEXWPDWMI::Put",
                                        L"CDorWEXWPDWMI::Delete", L"CDorWEXWPDWMI::CreateWMIInstanceForWin32ext_WPD"}),
              expected);
    EXPECT_FALSE(PublishedWithId(Wide(id)));
}

// What the provider says to each put a client makes: only the provider's own token adds a device; the
// internal id and the non-WPD token are accepted and change nothing; anything else is refused.
TEST(WmiPublication, EachPutIsAnsweredAndTracedByWhatItCarries) {
    WpdEmulator emulator;
    emulator.Attach(PhoneSpec("usb#vid_0951&pid_1666#stick", "Kingston", "STICK1"));
    ComPtr<IWbemServices> services = Connect();
    ASSERT_TRUE(services);
    ComPtr<IWbemClassObject> wpdClass;
    ASSERT_EQ(services->GetObject(_bstr_t(L"Win32ext_WPD"), 0, nullptr, &wpdClass, nullptr), S_OK);
    const wchar_t* const noToken = nullptr;
    const struct {
        const char* what;
        const wchar_t* id;  // null: no strId
        const wchar_t* token;
        bool context;
        HRESULT result;
        const wchar_t* line;
    } cases[] = {
        {"no context", L"usb#vid_04e8&pid_6860#client", noToken, false, E_ACCESSDENIED,
         L"CDorWEXWPDWMI::PutWPDInstance: E_ACCESSDENIED(2)."},
        {"a context without the value", L"usb#vid_04e8&pid_6860#client", noToken, true, E_ACCESSDENIED,
         L"CDorWEXWPDWMI::PutWPDInstance: E_ACCESSDENIED(1)."},
        {"a wrong token", L"usb#vid_04e8&pid_6860#client", L"73lun!QBX#ZPT", true, E_ACCESSDENIED,
         L"CDorWEXWPDWMI::PutWPDInstance: E_ACCESSDENIED(1)."},
        {"the token in another case", L"usb#vid_04e8&pid_6860#client", L"73LUN!QBX#ZPT^", true, E_ACCESSDENIED,
         L"CDorWEXWPDWMI::PutWPDInstance: E_ACCESSDENIED(1)."},
        {"the non-WPD token", L"usb#vid_04e8&pid_6860#client", L"73lun!QBX#NONZPT^", true, S_OK,
         L"CDorWEXWPDWMI::PutWPDInstance, g_bstr_tIWbemContext2Value."},
        {"the internal id", L"_Internal", noToken, false, S_OK, L"CDorWEXWPDWMI::PutWPDInstance: l_pTCHARWPDId == _INTERNAL."},
        {"no id", nullptr, noToken, false, S_OK, L"CDorWEXWPDWMI::PutWPDInstance: l_pTCHARWPDId == NULL."},
    };
    for (const auto& c : cases) {
        ComPtr<IWbemClassObject> instance;
        ASSERT_EQ(wpdClass->SpawnInstance(0, &instance), S_OK);
        if (c.id != nullptr) {
            _variant_t id(c.id);
            instance->Put(L"strId", 0, &id, 0);
        }
        ComPtr<IWbemContext> context;
        if (c.context) {
            ASSERT_EQ(CoCreateInstance(CLSID_WbemContext, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&context)), S_OK);
            if (c.token != nullptr) {
                _variant_t token(c.token);
                context->SetValue(L"dorWEXWPDProp", 0, &token);
            }
        }
        TraceCapture trace(1);
        EXPECT_EQ(services->PutInstance(instance.Get(), 0, context.Get(), nullptr), c.result) << c.what;
        const std::vector<std::wstring> expected = {L"CDorWEXWPDWMI::PutInstanceAsync", L"CDorWEXWPDWMI::PutWPDInstance",
                                                    c.line};
        EXPECT_EQ(LinesStartingWith(trace, {L"CDorWEXWPDWMI::Put"}), expected) << c.what;
    }
    EXPECT_FALSE(PublishedWithId(L"usb#vid_04e8&pid_6860#client"));

    // The provider's own token with a device the collection does not take: a USB storage stick.
    ComPtr<IWbemClassObject> stick;
    ASSERT_EQ(wpdClass->SpawnInstance(0, &stick), S_OK);
    _variant_t stickId(L"usb#vid_0951&pid_1666#stick");
    stick->Put(L"strId", 0, &stickId, 0);
    ComPtr<IWbemContext> context;
    ASSERT_EQ(CoCreateInstance(CLSID_WbemContext, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&context)), S_OK);
    _variant_t token(L"73lun!QBX#ZPT^");
    context->SetValue(L"dorWEXWPDProp", 0, &token);
    TraceCapture trace(1);
    EXPECT_EQ(services->PutInstance(stick.Get(), 0, context.Get(), nullptr), E_FAIL);
    const std::vector<std::wstring> expected = {
        L"CDorWEXWPDWMI::PutInstanceAsync", L"CDorWEXWPDWMI::PutWPDInstance",
        L"CDorWEXWPDWMI::PutWPDInstance, GetValue succeeded.",
        L"CDorWEXWPDWMI::PutWPDInstance, device NOT inserted into collection."};
    EXPECT_EQ(LinesStartingWith(trace, {L"CDorWEXWPDWMI::Put"}), expected);
    EXPECT_FALSE(PublishedWithId(L"usb#vid_0951&pid_1666#stick"));
}

// A USB storage stick that shows up as a portable device: the monitor publishes it, the provider refuses it,
// and the monitor traces the refused put with its code.
TEST(WmiPublication, ADeviceTheProviderRefusesEndsInAFailedPut) {
    WpdEmulator emulator;
    const std::string id = "\\\\?\\usb#vid_0951&pid_1666#refused#{6ac27878-a6fa-4155-ba85-f98f491d4f33}";
    emulator.Attach(PhoneSpec(id, "Kingston", "STICK2"));
    ComPtr<IWbemServices> services = Connect();
    ASSERT_TRUE(services);
    Query(services.Get(), L"SELECT * FROM Win32ext_WPD");  // the provider and its monitor are running
    TraceCapture trace(1);
    Notify(DBT_DEVICEARRIVAL, Wide(id));
    ASSERT_TRUE(WaitUntil([&] {
        return !trace.StartingWith(L"CDorWEXWMIThreadWPDEventsProcessor::OnlineEvent, PutInstance for WMI Context").empty();
    }));
    const std::vector<std::wstring> expected = {
        L"CDorWEXWMIThreadWPDEventsProcessor::OnlineEvent, enter.",
        L"CDorWEXWMIThreadWPDEventsProcessor::OnlineEvent, SpawnInstance succeeded.",
        L"CDorWEXWMIThreadWPDEventsProcessor::OnlineEvent, WPDInstance->Put strId succeeded.",
        L"CDorWEXWMIThreadWPDEventsProcessor::OnlineEvent, IWbemContext->SetValue succeeded.",
        L"CDorWEXWPDWMI::PutInstanceAsync",
        L"CDorWEXWPDWMI::PutWPDInstance",
        L"CDorWEXWPDWMI::PutWPDInstance, GetValue succeeded.",
        L"CDorWEXWPDWMI::PutWPDInstance, device NOT inserted into collection.",
        L"CDorWEXWMIThreadWPDEventsProcessor::OnlineEvent, PutInstance for WMI Context failed, HRESULT = 0x80004005.",
    };
    EXPECT_EQ(LinesStartingWith(trace, {L"CDorWEXWMIThreadWPDEventsProcessor::OnlineEvent", L"CDorWEXWPDWMI::Put"}),
              expected);
    EXPECT_FALSE(PublishedWithId(Wide(id)));
}

// Every method on a phone reached through WPD, as a client calls it: the dispatcher's lines, the outer and
// inner handler's, then the device object's operation for a WPD device, each in its order.
TEST(WmiMethods, EachMethodTracesItsHandlersAndItsDeviceOperation) {
    WpdEmulator emulator;
    const std::string id = "usb#vid_04e8&pid_6860#methods";
    const EmulatedDeviceSpec spec = PhoneSpec(id, "SAMSUNG Electronics Co., Ltd.", "MTH1");
    emulator.Attach(spec);
    const std::wstring storage = emulator.StorageDirectory(spec, 0);
    CreateDirectoryW((storage + L"\\DCIM").c_str(), nullptr);
    emulator.WriteFile(storage + L"\\DCIM\\a.jpg", "jpeg");
    emulator.WriteFile(storage + L"\\DCIM\\b.jpg", "jpeg");
    const std::wstring local = emulator.Directory() + L"\\local";
    CreateDirectoryW(local.c_str(), nullptr);
    emulator.WriteFile(local + L"\\up.txt", "up");
    ComPtr<IWbemServices> services = Connect();
    ASSERT_TRUE(services);
    Query(services.Get(), L"SELECT * FROM Win32ext_WPD");  // the provider and its core are running
    ASSERT_NE(g_pCDorWEXWMIWPDCore, nullptr);
    // Added here unless the core found it attached when it started.
    g_pCDorWEXWMIWPDCore->Devices()->AddWPD(Wide(id).c_str());
    ASSERT_TRUE(g_pCDorWEXWMIWPDCore->Devices()->FindWPDObjectById(Wide(id).c_str()));
    const std::wstring device = Wide(id);
    const LONG self = static_cast<LONG>(GetCurrentProcessId());

    std::wstring token;
    {
        TraceCapture trace(1);
        const Outcome issued =
            CallMethod(L"RequestWriteToken", {{L"uint32ProcessId", _variant_t(self, VT_I4)}}, self);
        ASSERT_EQ(issued.status, S_OK);
        token = issued.returnValue;
        const std::vector<std::wstring> expected = {
            L"CDorWEXWPDWMI::ExecMethodAsync enter.",
            L"CDorWEXWPDWMI::ExecMethodAsync RequestWriteToken.",
            L"CDorWEXWPDWMI::MethodRequestWriteToken enter.",
            L"CDorWEXWPDWMI::MethodRequestWriteToken2 enter.",
            L"CDorWEXWMIWPDCore::RequestWPDWriteToken enter.",
            L"CDorWEXWMIWPDCore::RequestWPDWriteToken <" + token + L">.",
        };
        EXPECT_EQ(LinesStartingWith(trace, {L"CDorWEXWPDWMI::ExecMethodAsync", L"CDorWEXWPDWMI::Method",
                                            L"CDorWEXWMIWPDCore::RequestWPDWriteToken"}),
                  expected);
    }

    const struct {
        const wchar_t* method;
        Parameters parameters;
        const wchar_t* returnValue;  // null: not compared
        std::vector<std::wstring> handlers;
        std::vector<std::wstring> device;
    } cases[] = {
        {L"GetProperty",
         {{L"strObjectStoragePath", _variant_t(L"Phone\\DCIM\\a.jpg")}, {L"strPropertyName", _variant_t(L"ObjectId")},
          {L"strObjectDeviceId", _variant_t(device.c_str())}},
         nullptr,
         {L"CDorWEXWPDWMI::MethodGetProperty enter.", L"CDorWEXWPDWMI::MethodGetProperty2 enter."},
         {}},
        {L"CopyFileFromDevice",
         {{L"strObjectStoragePath", _variant_t(L"Phone\\DCIM\\a.jpg")},
          {L"strLocalFileName", _variant_t((local + L"\\a.jpg").c_str())}, {L"strObjectDeviceId", _variant_t(device.c_str())}},
         L"1",
         {L"CDorWEXWPDWMI::MethodCopyFileFromDevice enter.", L"CDorWEXWPDWMI::MethodCopyFileFromDevice2 enter.",
          L"CDorWEXWPDWMI::MethodCopyFileFromDevice2, CoImpersonateClient 0"},
         {L"CDorWEXWPDObject::CopyFileFromDevice enter.", L"CDorWEXWPDObject::CopyFileFromDevice1 enter."}},
        {L"EnumerateDevicePath",
         {{L"strObjectStoragePath", _variant_t(L"Phone\\DCIM")}, {L"strObjectDeviceId", _variant_t(device.c_str())},
          {L"uint32ContentType", _variant_t(0L, VT_I4)}},
         nullptr,
         {L"CDorWEXWPDWMI::MethodEnumerateDevicePath enter.", L"CDorWEXWPDWMI::MethodEnumerateDevicePath2 enter."},
         {L"CDorWEXWPDObject::EnumerateDevicePath enter.", L"CDorWEXWPDObject::EnumerateDevicePath1 enter."}},
        {L"CreateFolderOnDevice",
         {{L"strObjectStoragePath", _variant_t(L"Phone\\DCIM")}, {L"strNewFolderName", _variant_t(L"New")},
          {L"strObjectDeviceId", _variant_t(device.c_str())}},
         L"1",
         {L"CDorWEXWPDWMI::MethodCreateFolderOnDevice enter.", L"CDorWEXWPDWMI::MethodCreateFolderOnDevice2 enter."},
         {L"CDorWEXWPDObject::CreateFolderOnDevice enter.", L"CDorWEXWPDObject::CreateFolderOnDevice1 enter."}},
        {L"DeleteFileFromDevice",
         {{L"strObjectStoragePath", _variant_t(L"Phone\\DCIM\\b.jpg")}, {L"strObjectDeviceId", _variant_t(device.c_str())}},
         L"1",
         {L"CDorWEXWPDWMI::MethodDeleteFileFromDevice enter.", L"CDorWEXWPDWMI::MethodDeleteFileFromDevice2 enter."},
         {L"CDorWEXWPDObject::DeleteFileFromDevice enter.", L"CDorWEXWPDObject::DeleteFileFromDevice1 enter.",
          L"CDorWEXWPDObject::DeleteWPDObject, IPortableDeviceContent->Delete succeeded, HRESULT=0x00000000.",
          L"CDorWEXWPDObject::DeleteFileFromDevice Phone\\DCIM\\b.jpg=TRUE"}},
        {L"CopyFileToDevice",
         {{L"strObjectStoragePath", _variant_t(L"Phone\\DCIM")}, {L"strFileToCopy", _variant_t((local + L"\\up.txt").c_str())},
          {L"strWriteToken", _variant_t(token.c_str())}, {L"strObjectDeviceId", _variant_t(device.c_str())}},
         L"1",
         {L"CDorWEXWPDWMI::MethodCopyFileToDevice enter.", L"CDorWEXWPDWMI::MethodCopyFileToDevice2 enter.",
          L"CDorWEXWPDWMI::MethodCopyFileToDevice2, CoImpersonateClient 0"},
         {L"CDorWEXWPDObject::CopyFileToDevice enter.", L"CDorWEXWPDObject::CopyFileToDevice1 enter."}},
    };
    for (const auto& c : cases) {
        const std::string what(c.method, c.method + wcslen(c.method));
        TraceCapture trace(1);
        const Outcome outcome = CallMethod(c.method, c.parameters, self);
        EXPECT_EQ(outcome.status, S_OK) << what;
        if (c.returnValue != nullptr) {
            EXPECT_EQ(outcome.returnValue, c.returnValue) << what;
        }
        std::vector<std::wstring> handlers = {L"CDorWEXWPDWMI::ExecMethodAsync enter.",
                                              L"CDorWEXWPDWMI::ExecMethodAsync " + std::wstring(c.method) + L"."};
        handlers.insert(handlers.end(), c.handlers.begin(), c.handlers.end());
        // (The device's content events reach the provider meanwhile, on other threads.) A copy names the
        // impersonation of its client for the local file.
        EXPECT_EQ(LinesStartingWith(trace, {L"CDorWEXWPDWMI::ExecMethodAsync", L"CDorWEXWPDWMI::Method"}), handlers)
            << what;
        // The device object's lines, in order, among its others.
        const auto lines = LinesStartingWith(trace, {L"CDorWEXWPDObject::"});
        auto at = lines.begin();
        for (const auto& line : c.device) {
            at = std::find(at, lines.end(), line);
            EXPECT_NE(at, lines.end()) << what << ": " << std::string(line.begin(), line.end());
            if (at == lines.end()) {
                break;
            }
        }
    }

    // A device the lookup cannot find: no device operation, the lookup's line and "Device not found".
    TraceCapture trace(1);
    const Outcome missing = CallMethod(L"EnumerateDevicePath", {{L"strObjectStoragePath", _variant_t(L"Nowhere\\DCIM")},
                                                                {L"strObjectDeviceId", _variant_t(L"usb#nobody")},
                                                                {L"uint32ContentType", _variant_t(0L, VT_I4)}});
    EXPECT_EQ(missing.status, E_FAIL);
    EXPECT_EQ(missing.description, L"Device not found");
    EXPECT_TRUE(LinesStartingWith(trace, {L"CDorWEXWPDObject::EnumerateDevicePath"}).empty());
    EXPECT_TRUE(trace.Has(L"CDorWEXWPDCollection::FindWPDObject: ERROR: Device not found(9): DeviceOrDiskId=usb#nobody, "
                          L"ObjectStoragePath=Nowhere\\DCIM\n"));
    g_pCDorWEXWMIWPDCore->Devices()->RemoveWPD(Wide(id).c_str());
}

// The status a failing method hands WMI names the handler that failed: the inner handler for a device the
// lookup cannot find, for the write-token gate and for a COM error a copy raises; the outer handler for a
// refused token request. WMI puts its own operation into the status a client gets, so the provider object
// is called here as the service calls it.
TEST(WmiMethods, EachFailureStatusNamesTheHandlerThatFailed) {
    WpdEmulator emulator;
    const std::string phoneId = "usb#vid_04e8&pid_6860#statuses";
    emulator.Attach(PhoneSpec(phoneId, "SAMSUNG Electronics Co., Ltd.", "STS1"));
    const std::wstring phone = Wide(phoneId);
    EmulatedDeviceSpec appleSpec;
    appleSpec.id = "usb#vid_05ac&pid_12a8#statuses";
    appleSpec.manufacturer = "Apple Inc.";
    appleSpec.friendlyName = "Apple iPhone";
    appleSpec.deviceLines = {"WPD_DEVICE_SERIAL_NUMBER = APPLE-STS-1"};
    appleSpec.storages = {{"s10001", "Internal Storage", "{PUID-APPLE-STS-1}", "Flash"}};
    appleSpec.faultLines = {"AppleCopyFileFromDevice = 0x80070005"};
    emulator.Attach(appleSpec);
    emulator.WriteFile(emulator.StorageDirectory(appleSpec, 0) + L"\\kept.jpg", "jpeg");
    const std::wstring apple = Wide(appleSpec.id);
    const std::wstring local = emulator.Directory() + L"\\local.txt";
    emulator.WriteFile(local, "local");

    ComPtr<IWbemServices> services = Connect();
    ASSERT_TRUE(services);
    Query(services.Get(), L"SELECT * FROM Win32ext_WPD");  // the provider and its core are running
    ASSERT_NE(g_pCDorWEXWMIWPDCore, nullptr);
    // Added here unless the core found them attached when it started.
    g_pCDorWEXWMIWPDCore->Devices()->AddWPD(phone.c_str());
    g_pCDorWEXWMIWPDCore->Devices()->AddWPD(apple.c_str());
    ASSERT_TRUE(g_pCDorWEXWMIWPDCore->Devices()->FindWPDObjectById(phone.c_str()));
    ASSERT_TRUE(g_pCDorWEXWMIWPDCore->Devices()->FindWPDObjectById(apple.c_str()));

    ComPtr<IWbemProviderInit> init;
    ASSERT_EQ(CoCreateInstance(CLSID_DorWEXWPDWMIProvider, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&init)), S_OK);
    ASSERT_EQ(init->Initialize(nullptr, 0, const_cast<LPWSTR>(L"root\\cimv2"), nullptr, services.Get(), nullptr,
                               nullptr),
              WBEM_S_NO_ERROR);
    ComPtr<IWbemServices> provider;
    ASSERT_EQ(init.As(&provider), S_OK);

    const LONG self = static_cast<LONG>(GetCurrentProcessId());
    const _variant_t nobody(L"usb#nobody");
    const _variant_t path(L"Nowhere\\a.txt");  // no storage of that name either
    const _variant_t file(local.c_str());
    const wchar_t kNotFound[] = L"Device not found";
    const struct {
        const wchar_t* method;
        Parameters parameters;
        std::wstring operation;
        std::wstring description;
    } cases[] = {
        {L"GetProperty",
         {{L"strObjectStoragePath", path}, {L"strPropertyName", _variant_t(L"ObjectId")}, {L"strObjectDeviceId", nobody}},
         L"CDorWEXWPDWMI::MethodGetProperty2", kNotFound},
        {L"CopyFileFromDevice",
         {{L"strObjectStoragePath", path}, {L"strLocalFileName", file}, {L"strObjectDeviceId", nobody}},
         L"CDorWEXWPDWMI::MethodCopyFileFromDevice2", kNotFound},
        {L"MoveFileFromDevice",
         {{L"strObjectStoragePath", path}, {L"strLocalFileName", file}, {L"strObjectDeviceId", nobody}},
         L"CDorWEXWPDWMI::MethodMoveFileFromDevice2", kNotFound},
        {L"DeleteFileFromDevice", {{L"strObjectStoragePath", path}, {L"strObjectDeviceId", nobody}},
         L"CDorWEXWPDWMI::MethodDeleteFileFromDevice2", kNotFound},
        {L"EnumerateDevicePath",
         {{L"strObjectStoragePath", path}, {L"strObjectDeviceId", nobody}, {L"uint32ContentType", _variant_t(0L, VT_I4)}},
         L"CDorWEXWPDWMI::MethodEnumerateDevicePath2", kNotFound},
        {L"CreateFolderOnDevice",
         {{L"strObjectStoragePath", path}, {L"strNewFolderName", _variant_t(L"New")}, {L"strObjectDeviceId", nobody}},
         L"CDorWEXWPDWMI::MethodCreateFolderOnDevice2", kNotFound},
        {L"CopyFileToDevice",
         {{L"strObjectStoragePath", path}, {L"strFileToCopy", file}, {L"strWriteToken", _variant_t(L"T")},
          {L"strObjectDeviceId", nobody}},
         L"CDorWEXWPDWMI::MethodCopyFileToDevice2", kNotFound},
        {L"EjectDevice", {{L"strObjectDeviceId", nobody}}, L"CDorWEXWPDWMI::MethodEjectDevice2", kNotFound},
        {L"RequestWriteToken", {{L"uint32ProcessId", _variant_t(self + 4, VT_I4)}},
         L"CDorWEXWPDWMI::MethodRequestWriteToken", L"Invalid PID specified when requesting a write token."},
        {L"CopyFileToDevice",
         {{L"strObjectStoragePath", _variant_t(L"Phone")}, {L"strFileToCopy", file},
          {L"strObjectDeviceId", _variant_t(phone.c_str())}},
         L"CDorWEXWPDWMI::MethodCopyFileToDevice2", L"Write token not specified."},
        {L"CopyFileToDevice",
         {{L"strObjectStoragePath", _variant_t(L"Phone")}, {L"strFileToCopy", file},
          {L"strWriteToken", _variant_t(L"no such token")}, {L"strObjectDeviceId", _variant_t(phone.c_str())}},
         L"CDorWEXWPDWMI::MethodCopyFileToDevice2", L"Write token not found"},
        // The companion left no error object: the handler names itself, with the system's text for the code.
        {L"CopyFileFromDevice",
         {{L"strObjectStoragePath", _variant_t(L"Internal Storage\\kept.jpg")},
          {L"strLocalFileName", _variant_t((emulator.Directory() + L"\\kept.jpg").c_str())},
          {L"strObjectDeviceId", _variant_t(apple.c_str())}},
         L"CDorWEXWPDWMI::MethodCopyFileFromDevice2", SystemText(0x80070005)},
    };
    for (const auto& c : cases) {
        const std::wstring said = std::wstring(c.method) + L": " + c.description;
        const std::string what(said.begin(), said.end());  // for the failure message only
        const Outcome outcome = CallProviderMethod(provider.Get(), c.method, c.parameters, self);
        EXPECT_EQ(outcome.status, E_FAIL) << what;
        EXPECT_EQ(outcome.operation, c.operation) << what;
        EXPECT_EQ(outcome.description, c.description) << what;
    }
    g_pCDorWEXWMIWPDCore->Devices()->RemoveWPD(phone.c_str());
    g_pCDorWEXWMIWPDCore->Devices()->RemoveWPD(apple.c_str());
}

// WMI releases the provider's objects and later makes a new one: the new object re-attaches to the core
// that still runs, which it says, and no second core is made.
TEST(WmiProviderObjects, ANewProviderObjectReattachesToTheRunningCore) {
    ComPtr<IWbemServices> services = Connect();
    ASSERT_TRUE(services);
    {
        // Above level 1 the enumeration names itself.
        TraceCapture verbose(2);
        Query(services.Get(), L"SELECT * FROM Win32ext_WPD");  // the provider and its core are running
        EXPECT_EQ(verbose.Count(L"CDorWEXWPDWMI::CreateInstanceEnumAsync"), 1u);
    }
    {
        TraceCapture quiet(1);
        Query(services.Get(), L"SELECT * FROM Win32ext_WPD");
        EXPECT_EQ(quiet.Count(L"CDorWEXWPDWMI::CreateInstanceEnumAsync"), 0u);
    }
    IDorWEXMonitor* const core = g_pCDorWEXWMIWPDCore;
    ASSERT_NE(core, nullptr);
    using UnloadProvider = HRESULT(WINAPI*)(BOOL*);
    const auto unload = reinterpret_cast<UnloadProvider>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"dorwex_wmi_emulator.dll"), "DorwexWmiUnloadProvider")));
    ASSERT_NE(unload, nullptr);
    ASSERT_EQ(unload(nullptr), S_OK);
    TraceCapture trace(1);
    Query(services.Get(), L"SELECT * FROM Win32ext_WPD");
    EXPECT_EQ(g_pCDorWEXWMIWPDCore, core);
    EXPECT_EQ(LinesStartingWith(trace, {L"CDorWEXWPDWMI::Initialize", L"CDorWEXWMIWPDCore::"}),
              (std::vector<std::wstring>{L"CDorWEXWPDWMI::Initialize", L"CDorWEXWMIWPDCore::ReInitialize"}));
}

}  // namespace
