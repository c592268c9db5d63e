// Ejecting a device through Plug and Play: the device's node is found among the portable devices, then the
// device (or its USB parent, never a hub or host controller) is asked to leave. A device that comes straight
// back is disabled instead.
#include "wpd_object.h"

#include <string>

#include "../common/pnp_api.h"
#include "../common/pnp_guids.h"
#include "../common/module_state.h"
#include "../common/trace.h"
#include "../monitor/device_host.h"
#include "../monitor/device_registry.h"
#include "pnp_name_match.h"

namespace {

// The class the BlackBerry's device node belongs to: the portable devices' setup class.
const GUID& kGUID_DEVCLASS_BLACKBERRY = kGUID_DEVCLASS_WPD;

constexpr int kRemountLooks = 10;
constexpr DWORD kRemountPauseMs = 500;
constexpr LONG kOSVersionCodeWindows8 = 62;

// The device node of a WPD device id, in a device information list that stays open for a later disable.
struct EjectNode {
    DeviceInfoList list;
    SP_DEVINFO_DATA deviceInfo = {};
    DEVINST parent = 0;
    bool hasParent = false;
};

// Opens the list of present devices of the class (the "WPD" class by name when no class is given) and finds
// the first node that the device id names, whole (...\1 is not named by ...#12#{...}), and that has a parent
// when one is required. False when no such node exists or a call fails.
bool FindEjectNode(const wchar_t* pwcharDeviceId_in, const GUID* pguidClass_in, bool boolNeedParent_in,
                   EjectNode& node_out) {
    const DorWEXPnpApi& l_Api = PnpApi();
    GUID l_guidClass = {};
    DWORD l_dwordFound = 0;
    if (pguidClass_in != nullptr) {
        l_guidClass = *pguidClass_in;
        l_dwordFound = 1;
    } else if (!l_Api.pSetupDiClassGuidsFromNameExW(L"WPD", &l_guidClass, 1, &l_dwordFound, nullptr, nullptr)) {
        return false;
    }
    node_out.list.Reset(
        l_dwordFound != 0
            ? l_Api.pSetupDiGetClassDevsExW(&l_guidClass, nullptr, nullptr, DIGCF_PRESENT, nullptr, nullptr, nullptr)
            : l_Api.pSetupDiGetClassDevsExW(nullptr, nullptr, nullptr, DIGCF_PRESENT | DIGCF_ALLCLASSES, nullptr,
                                            nullptr, nullptr));
    if (!node_out.list.Valid()) {
        return false;
    }
    SP_DEVINFO_LIST_DETAIL_DATA_W l_ListDetail = {};
    l_ListDetail.cbSize = sizeof(l_ListDetail);
    if (!l_Api.pSetupDiGetDeviceInfoListDetailW(node_out.list.Get(), &l_ListDetail)) {
        node_out.list.Reset();
        return false;
    }
    SP_DEVINFO_DATA l_DeviceInfo = {};
    l_DeviceInfo.cbSize = sizeof(l_DeviceInfo);
    for (DWORD l_dwordIndex = 0; l_Api.pSetupDiEnumDeviceInfo(node_out.list.Get(), l_dwordIndex, &l_DeviceInfo);
         ++l_dwordIndex) {
        wchar_t l_wcharInstanceId[201] = {};
        if (l_Api.pCM_Get_Device_ID_ExW(l_DeviceInfo.DevInst, l_wcharInstanceId, 200, 0,
                                        l_ListDetail.RemoteMachineHandle) != CR_SUCCESS ||
            !dorwex::NameIsOfInstance(l_wcharInstanceId, pwcharDeviceId_in)) {
            continue;
        }
        node_out.hasParent = l_Api.pCM_Get_Parent(&node_out.parent, l_DeviceInfo.DevInst, 0) == CR_SUCCESS;
        if (boolNeedParent_in && !node_out.hasParent) {
            continue;
        }
        node_out.deviceInfo = l_DeviceInfo;
        return true;
    }
    node_out.list.Reset();
    return false;
}

bool RequestEject(DEVINST devinst_in) {
    PNP_VETO_TYPE l_VetoType = PNP_VetoTypeUnknown;
    wchar_t l_wcharVetoName[260] = {};
    return PnpApi().pCM_Request_Device_EjectW(devinst_in, &l_VetoType, l_wcharVetoName, _countof(l_wcharVetoName),
                                              0) == CR_SUCCESS;
}

bool DisableDevice(EjectNode& node_in) {
    SP_PROPCHANGE_PARAMS l_Params = {};
    l_Params.ClassInstallHeader.cbSize = sizeof(SP_CLASSINSTALL_HEADER);
    l_Params.ClassInstallHeader.InstallFunction = DIF_PROPERTYCHANGE;
    l_Params.StateChange = DICS_DISABLE;
    l_Params.Scope = DICS_FLAG_CONFIGSPECIFIC;
    l_Params.HwProfile = 0;
    const DorWEXPnpApi& l_Api = PnpApi();
    return l_Api.pSetupDiSetClassInstallParamsW(node_in.list.Get(), &node_in.deviceInfo,
                                                &l_Params.ClassInstallHeader, sizeof(l_Params)) &&
           l_Api.pSetupDiCallClassInstaller(DIF_PROPERTYCHANGE, node_in.list.Get(), &node_in.deviceInfo);
}

}  // namespace

// A device object made for one eject: the manager for the maker's name and the Plug and Play view, no
// session and no event callback.
HRESULT CDorWEXWPDObject::InitializeForEject(const wchar_t* pwcharDeviceId_in) {
    if (pwcharDeviceId_in == nullptr) {
        return E_POINTER;
    }
    UpdateIdentity([pwcharDeviceId_in](DeviceIdentity& identity_io) { identity_io.m_bstr_tDeviceId = pwcharDeviceId_in; });
    const HRESULT l_HRESULT = CoCreateInstance(CLSID_PortableDeviceManager, nullptr, CLSCTX_INPROC_SERVER,
                                               IID_PPV_ARGS(&m_pIPortableDeviceManager));
    if (FAILED(l_HRESULT)) {
        return l_HRESULT;
    }
    m_Win32.ProcessDeviceNotification(pwcharDeviceId_in, 1);
    return S_OK;
}

LONG CDorWEXWPDObject::EjectDevice() {
    Trace(L"CDorWEXWPDObject::EjectDevice enter.\n");
    const _bstr_t l_bstr_tDeviceId = Identity()->m_bstr_tDeviceId;
    const wchar_t* l_pwcharDeviceId = l_bstr_tDeviceId;
    if (l_pwcharDeviceId == nullptr) {
        return 0;
    }
    switch (Identity()->m_eManufacturer) {
    case Manufacturer::BLACKBERRY:
        return EjectDeviceBlackBerry(l_pwcharDeviceId);
    case Manufacturer::APPLE:
        if (g_longOSVersionCode < kOSVersionCodeWindows8) {
            return EjectDeviceApple(l_pwcharDeviceId);
        }
        return EjectDeviceWPD(l_pwcharDeviceId);
    default:
        return EjectDeviceWPD(l_pwcharDeviceId);
    }
}

LONG CDorWEXWPDObject::EjectDeviceWPD(const wchar_t* pwcharDeviceId_in) {
    EjectNode l_Node;
    if (!FindEjectNode(pwcharDeviceId_in, nullptr, true, l_Node)) {
        return 0;
    }
    bool l_boolEjected = false;
    if (m_Win32.IsHubOrController(l_Node.parent, pwcharDeviceId_in)) {
        Trace(L"CDorWEXWPDObject::EjectDeviceWPD parent is hub or controller.\n");
    } else if (RequestEject(l_Node.parent)) {
        Trace(L"CDorWEXWPDObject::EjectDeviceWPD eject parent succeeded.\n");
        l_boolEjected = true;
    }
    if (!l_boolEjected) {
        const DEVINST l_devinst = l_Node.deviceInfo.DevInst;
        if (RequestEject(l_devinst)) {
            Trace(L"CDorWEXWPDObject::EjectDeviceWPD eject device(1) succeeded.\n");
        } else if (RequestEject(l_devinst)) {
            Trace(L"CDorWEXWPDObject::EjectDeviceWPD eject device(2) succeeded.\n");
        } else {
            PNP_VETO_TYPE l_VetoType = PNP_VetoTypeUnknown;
            wchar_t l_wcharVetoName[260] = {};
            if (PnpApi().pCM_Query_And_Remove_SubTree_ExW(l_devinst, &l_VetoType, l_wcharVetoName,
                                                          _countof(l_wcharVetoName), 0, nullptr) != CR_SUCCESS) {
                Trace(L"CDorWEXWPDObject::EjectDeviceWPD eject device(3) failed.\n");
                return 0;
            }
            Trace(L"CDorWEXWPDObject::EjectDeviceWPD eject device(3) succeeded.\n");
        }
    }

    // Ejected: drop the device, then watch whether the notification worker adds it again.
    IDorWEXDeviceRegistry* l_pCollection = m_pHost != nullptr ? m_pHost->Devices() : nullptr;
    if (l_pCollection == nullptr) {
        return 0;  // nothing to watch with: ejected, but not known to have stayed away
    }
    l_pCollection->RemoveWPD(pwcharDeviceId_in);
    for (int l_intLook = 0; l_intLook < kRemountLooks; ++l_intLook) {
        if (l_pCollection->FindWPDObject(pwcharDeviceId_in, nullptr) == nullptr) {
            PnpApi().pSleep(kRemountPauseMs);
            continue;
        }
        Trace(L"CDorWEXWPDObject::EjectDeviceWPD device is remounting, performing disable.\n");
        if (!DisableDevice(l_Node)) {
            return 0;
        }
        l_pCollection->RemoveWPD(pwcharDeviceId_in);
        break;
    }
    return 1;
}

LONG CDorWEXWPDObject::EjectDeviceApple(const wchar_t* pwcharDeviceId_in) {
    Trace(L"CDorWEXWPDObject::EjectDeviceApple enter.\n");
    EjectNode l_Node;
    if (!FindEjectNode(pwcharDeviceId_in, nullptr, false, l_Node)) {
        return 0;
    }
    return RequestEject(l_Node.deviceInfo.DevInst) ? 1 : 0;
}

LONG CDorWEXWPDObject::EjectDeviceBlackBerry(const wchar_t* pwcharDeviceId_in) {
    Trace(L"CDorWEXWPDObject::EjectDeviceBlackBerry enter.\n");
    EjectNode l_Node;
    if (!FindEjectNode(pwcharDeviceId_in, &kGUID_DEVCLASS_BLACKBERRY, true, l_Node)) {
        return 0;
    }
    // The parent is the BlackBerry's USB device; a device plugged straight into a hub goes alone.
    const DEVINST l_devinstTarget =
        m_Win32.IsHubOrController(l_Node.parent, pwcharDeviceId_in) ? l_Node.deviceInfo.DevInst : l_Node.parent;
    return RequestEject(l_devinstTarget) ? 1 : 0;
}
