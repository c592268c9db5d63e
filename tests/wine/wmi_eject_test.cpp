// "EjectDevice" as a management client calls it: the emulated WMI service loads the provider code of this
// program (its class factory is registered here), so the Plug and Play tree double stands behind it.
#include <gtest/gtest.h>

#include "support/pnp_tree_double.h"
#include "support/wmi_calls.h"
#include "support/wpd_emulator.h"
#include "wmi/class_factory.h"
#include "wmi/module.h"
#include "wmi/provider_clsid.h"

using Microsoft::WRL::ComPtr;

namespace {

constexpr char kPhoneId[] = "\\\\?\\usb#vid_04e8&pid_6860#r58m77#{6ac27878-a6fa-4155-ba85-f98f491d4f33}";
constexpr wchar_t kPhoneNode[] = L"USB\\VID_04E8&PID_6860\\R58M77";

class WmiEject : public testing::Test {
protected:
    // The module starts and stops as the DLL's entry point would make it: the monitor's window and threads
    // end before the process does.
    static void SetUpTestSuite() {
        ModuleProcessAttach(GetModuleHandleW(nullptr));
        Register(L"dorwex_wmi_emulator.dll");
        auto* factory = new CDorWEXWPDWMIClassFactory();
        ASSERT_EQ(CoRegisterClassObject(CLSID_DorWEXWPDWMIProvider, factory, CLSCTX_INPROC_SERVER,
                                        REGCLS_MULTIPLEUSE, &s_cookie),
                  S_OK);
    }
    static void TearDownTestSuite() {
        CoRevokeClassObject(s_cookie);
        ModuleProcessDetach();
    }

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

    static DWORD s_cookie;
    WpdEmulator emulator;
    PnpTreeDouble pnp;
    int hub = -1;
    int node = -1;
};

DWORD WmiEject::s_cookie = 0;

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

    const Outcome ejected = CallMethod(L"EjectDevice", {{L"strObjectDeviceId", _variant_t(kPhoneNode)}});
    EXPECT_EQ(ejected.status, S_OK);
    EXPECT_EQ(ejected.returnValue, L"1") << "found through its node's instance id, ejected, stayed away";
    EXPECT_EQ(pnp.At(hub).ejectRequests, 0);
    EXPECT_EQ(pnp.At(node).ejectRequests, 3);
    EXPECT_FALSE(pnp.At(node).present);
    EXPECT_EQ(Published(), 0u);
    EXPECT_EQ(pnp.OpenLists(), 0u);
    EXPECT_EQ(pnp.OpenHandles(), 0u);
}

}  // namespace
