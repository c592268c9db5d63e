#include "pnp_topology.h"

#include <winioctl.h>
#include <usbioctl.h>

#include <memory>
#include <mutex>

#include "../common/trace.h"
#include "../common/error_text.h"
#include "../common/pnp_api.h"
#include "../common/pnp_guids.h"
#include "pnp_name_match.h"

namespace {

constexpr wchar_t kClass[] = L"CDorWEXWPDObjectInWin32";

// Interface classes the traces name.
const struct {
    GUID guid;
    const wchar_t* pwcharName;
} kKnownClasses[] = {
    {kGUID_DEVINTERFACE_DISK, L"GUID_DEVINTERFACE_DISK"},
    {kGUID_DEVINTERFACE_USB_DEVICE, L"GUID_DEVINTERFACE_USB_DEVICE"},
    {kGUID_DEVCLASS_IMAGE, L"GUID_DEVCLASS_IMAGE"},
    {kGUID_DEVINTERFACE_USB_HUB, L"GUID_DEVINTERFACE_USB_HUB"},
    {kGUID_DEVINTERFACE_USB_HOST_CONTROLLER, L"GUID_DEVINTERFACE_USB_HOST_CONTROLLER"},
    {kGUID_DEVINTERFACE_WPD, L"GUID_DEVINTERFACE_WPD"},
    {kGUID_DEVINTERFACE_WPD_2, L"GUID_DEVINTERFACE_WPD_AUDIO"},
    {kStoragePortClassGuid, L"StoragePortClassGuid"},
    {kHiddenVolumeClassGuid, L"HiddenVolumeClassGuid"},
    {kGUID_SERENUM_BUS_ENUMERATOR, L"GUID_SERENUM_BUS_ENUMERATOR"},
};

std::wstring GuidText(const GUID& guid_in) {
    wchar_t l_wcharText[40] = {};
    StringFromGUID2(guid_in, l_wcharText, _countof(l_wcharText));
    return l_wcharText;
}

std::wstring ClassName(const GUID& guid_in) {
    for (const auto& l_Known : kKnownClasses) {
        if (IsEqualGUID(l_Known.guid, guid_in)) {
            return l_Known.pwcharName;
        }
    }
    return GuidText(guid_in);
}

std::wstring ErrorText(DWORD dwordCode_in) { return GetErrorText(static_cast<HRESULT>(dwordCode_in)); }

// The instance id the configuration manager gives a node; empty on failure.
std::wstring DeviceIdOf(DEVINST devinst_in) {
    wchar_t l_wcharId[MAX_DEVICE_ID_LEN + 1] = {};
    if (PnpApi().pCM_Get_Device_IDW(devinst_in, l_wcharId, MAX_DEVICE_ID_LEN, 0) != CR_SUCCESS) {
        return std::wstring();
    }
    return l_wcharId;
}

// The path of the node's first interface of the class; empty when it has none.
std::wstring InterfacePath(const GUID& guidInterfaceClass_in, const wchar_t* pwcharInstanceId_in) {
    const DorWEXPnpApi& l_Api = PnpApi();
    DeviceInfoList l_List(l_Api.pSetupDiGetClassDevsW(&guidInterfaceClass_in, pwcharInstanceId_in, nullptr,
                                                      DIGCF_PRESENT | DIGCF_DEVICEINTERFACE));
    if (!l_List.Valid()) {
        return std::wstring();
    }
    SP_DEVICE_INTERFACE_DATA l_Interface = {};
    l_Interface.cbSize = sizeof(l_Interface);
    if (!l_Api.pSetupDiEnumDeviceInterfaces(l_List.Get(), nullptr, &guidInterfaceClass_in, 0, &l_Interface)) {
        return std::wstring();
    }
    DWORD l_dwordRequired = 0;
    l_Api.pSetupDiGetDeviceInterfaceDetailW(l_List.Get(), &l_Interface, nullptr, 0, &l_dwordRequired, nullptr);
    if (l_dwordRequired < sizeof(SP_DEVICE_INTERFACE_DETAIL_DATA_W) || l_dwordRequired > 64 * 1024) {
        return std::wstring();
    }
    // DWORD-aligned storage for the variable-length detail record.
    std::unique_ptr<DWORD[]> l_Buffer(new DWORD[(l_dwordRequired + sizeof(DWORD) - 1) / sizeof(DWORD) + 1]());
    auto* l_pDetail = reinterpret_cast<SP_DEVICE_INTERFACE_DETAIL_DATA_W*>(l_Buffer.get());
    l_pDetail->cbSize = sizeof(SP_DEVICE_INTERFACE_DETAIL_DATA_W);
    if (!l_Api.pSetupDiGetDeviceInterfaceDetailW(l_List.Get(), &l_Interface, l_pDetail, l_dwordRequired, nullptr,
                                                 nullptr)) {
        return std::wstring();
    }
    const size_t l_sizeMaxChars =
        (l_dwordRequired - offsetof(SP_DEVICE_INTERFACE_DETAIL_DATA_W, DevicePath)) / sizeof(wchar_t);
    return std::wstring(l_pDetail->DevicePath, wcsnlen(l_pDetail->DevicePath, l_sizeMaxChars));
}

// A registry property of a node as text: strings as they are, string lists joined by ";", numbers in
// decimal. Empty when the node has no such property.
std::wstring RegistryPropertyText(DEVINST devinst_in, DWORD dwordSPDRP_in) {
    const ULONG l_ulongProperty = dwordSPDRP_in + 1;  // CM_DRP_* values are SPDRP_* values plus one
    ULONG l_ulongType = 0;
    ULONG l_ulongLength = 0;
    CONFIGRET l_CONFIGRET = PnpApi().pCM_Get_DevNode_Registry_PropertyW(devinst_in, l_ulongProperty, &l_ulongType,
                                                                        nullptr, &l_ulongLength, 0);
    if (l_CONFIGRET != CR_BUFFER_SMALL || l_ulongLength == 0 || l_ulongLength > 64 * 1024) {
        return std::wstring();
    }
    std::vector<BYTE> l_Buffer(l_ulongLength + 2 * sizeof(wchar_t), 0);
    l_CONFIGRET = PnpApi().pCM_Get_DevNode_Registry_PropertyW(devinst_in, l_ulongProperty, &l_ulongType,
                                                              l_Buffer.data(), &l_ulongLength, 0);
    if (l_CONFIGRET != CR_SUCCESS) {
        return std::wstring();
    }
    switch (l_ulongType) {
    case REG_SZ:
    case REG_EXPAND_SZ:
        return reinterpret_cast<const wchar_t*>(l_Buffer.data());
    case REG_MULTI_SZ: {
        std::wstring l_wstringText;
        const auto* l_pwcharEnd = reinterpret_cast<const wchar_t*>(l_Buffer.data() + l_ulongLength);
        for (const auto* l_pwchar = reinterpret_cast<const wchar_t*>(l_Buffer.data());
             l_pwchar < l_pwcharEnd && *l_pwchar != L'\0'; l_pwchar += wcslen(l_pwchar) + 1) {
            if (!l_wstringText.empty()) {
                l_wstringText += L';';
            }
            l_wstringText += l_pwchar;
        }
        return l_wstringText;
    }
    case REG_DWORD:
        if (l_ulongLength >= sizeof(DWORD)) {
            return std::to_wstring(*reinterpret_cast<const DWORD*>(l_Buffer.data()));
        }
        return std::wstring();
    default:
        return std::wstring();  // binary properties (security descriptors, power data) have no text
    }
}

// Calls found_in(devinfo, instanceId) for each node of the list whose instance id matches the name; stops
// when it returns false.
template <typename Found>
void ForEachMatchingNode(HDEVINFO hdevinfo_in, const std::wstring& wstringName_in, Found found_in) {
    const DorWEXPnpApi& l_Api = PnpApi();
    SP_DEVINFO_DATA l_DeviceInfo = {};
    l_DeviceInfo.cbSize = sizeof(l_DeviceInfo);
    for (DWORD l_dwordIndex = 0; l_Api.pSetupDiEnumDeviceInfo(hdevinfo_in, l_dwordIndex, &l_DeviceInfo);
         ++l_dwordIndex) {
        wchar_t l_wcharInstanceId[520] = {};
        if (!l_Api.pSetupDiGetDeviceInstanceIdW(hdevinfo_in, &l_DeviceInfo, l_wcharInstanceId,
                                                _countof(l_wcharInstanceId), nullptr)) {
            continue;
        }
        l_wcharInstanceId[_countof(l_wcharInstanceId) - 1] = L'\0';
        if (dorwex::DeviceNamesMatch(l_wcharInstanceId, wstringName_in) &&
            !found_in(l_DeviceInfo.DevInst, static_cast<const wchar_t*>(l_wcharInstanceId))) {
            return;
        }
    }
}

// Calls child_in(devinst) for each child of a node, at most 256, until it returns false.
template <typename Child>
void ForEachChild(DEVINST devinstParent_in, Child child_in) {
    DEVINST l_devinstChild = 0;
    int l_intSeen = 0;
    for (CONFIGRET l_CONFIGRET = PnpApi().pCM_Get_Child(&l_devinstChild, devinstParent_in, 0);
         l_CONFIGRET == CR_SUCCESS && l_intSeen < 256 && child_in(l_devinstChild);
         l_CONFIGRET = PnpApi().pCM_Get_Sibling(&l_devinstChild, l_devinstChild, 0)) {
        ++l_intSeen;
    }
}

bool IsVolume(const CDorWEXWPDObjectInWin32::NodeEntry& entry_in) {
    return _wcsnicmp(entry_in.wstringInstanceId.c_str(), L"STORAGE\\VOLUME", 14) == 0;
}

}  // namespace

HRESULT CDorWEXWPDObjectInWin32::ProcessDeviceNotification(const wchar_t* pwcharName_in, int intMode_in) {
    if (pwcharName_in == nullptr) {
        return E_FAIL;
    }
    Trace(L"CDorWEXWPDObjectInWin32::ProcessDeviceNotification entered for %s\n", pwcharName_in);
    // One walk of the tree at a time: devices present at the start open side by side, and Wine's SetupAPI
    // grows a process-wide table of device nodes without a lock (a null read in its alloc_devnode when two
    // walks ran at once). A walk takes milliseconds beside an open's half second.
    static std::mutex s_mutexWalk;
    std::lock_guard<std::mutex> l_guard(s_mutexWalk);
    m_wstringName = pwcharName_in;
    for (auto& l_NodeEntry : m_NodeEntries) {
        l_NodeEntry = NodeEntry{};
    }
    m_Ancestors.clear();

    HRESULT l_HRESULT = FindDeviceClassOnCompositeDevice(kGUID_DEVCLASS_DISKDRIVE, kGUID_DEVINTERFACE_DISK, kDiskDriveNode);
    if (SUCCEEDED(l_HRESULT)) {
        ProcessDeviceInterfaces2(kDiskDriveNode);
    }
    if (m_NodeEntries[kNotifiedNode].wstringDiskDrive.empty() && m_NodeEntries[kDiskDriveNode].wstringDiskDrive.empty()) {
        if (intMode_in == 1) {
            l_HRESULT = FindDeviceClassFromDbccName(pwcharName_in);
            if (!m_NodeEntries[kNotifiedNode].wstringInstanceId.empty()) {
                FindDeviceClassOnCompositeDevice(kGUID_DEVCLASS_USB, kGUID_DEVINTERFACE_USB_DEVICE, kUSBDeviceNode);
                ProcessImmediateParent2(kNotifiedNode);
            }
        } else {
            l_HRESULT = FindDeviceClassOnCompositeDevice(kGUID_DEVCLASS_WPD_LOOKUP, kGUID_DEVINTERFACE_WPD_2, kLookedUpNode);
            ProcessDeviceInterfaces2(kLookedUpNode);
            if (!m_NodeEntries[kLookedUpNode].wstringInstanceId.empty()) {
                ProcessImmediateParent2(kLookedUpNode);
            }
        }
    }
    ShowProperties();
    return l_HRESULT;
}

HRESULT CDorWEXWPDObjectInWin32::FindDeviceClassFromDbccName(const wchar_t* pwcharName_in) {
    const DorWEXPnpApi& l_Api = PnpApi();
    DeviceInfoList l_List(l_Api.pSetupDiGetClassDevsW(nullptr, nullptr, nullptr, DIGCF_ALLCLASSES | DIGCF_PRESENT));
    if (!l_List.Valid()) {
        const DWORD l_dwordError = GetLastError();
        Trace(L"CDorWEXWPDObjectInWin32::FindDeviceClassFromDbccName, SetupDiGetClassDevs FAILED %x: %s.\n",
              l_dwordError, ErrorText(l_dwordError).c_str());
        return HRESULT_FROM_WIN32(l_dwordError);
    }
    ForEachMatchingNode(l_List.Get(), pwcharName_in, [&](DEVINST devinst_in, const wchar_t* pwcharInstanceId_in) {
        Trace(L"=============================================================");
        Trace(L"CDorWEXWPDObjectInWin32::FindDeviceClassFromDbccNamedbcc_name MATCHED ON %s\n", pwcharInstanceId_in);
        ReadNode(devinst_in, pwcharInstanceId_in, kNotifiedNode);
        // The notification name is the path of the interface that reported the device.
        NodeEntry& l_Entry = m_NodeEntries[kNotifiedNode];
        l_Entry.wstringDevicePath = pwcharName_in;
        const wchar_t* l_pwcharBrace = wcsrchr(pwcharName_in, L'{');
        GUID l_guidInterface = {};
        if (l_pwcharBrace != nullptr && SUCCEEDED(CLSIDFromString(l_pwcharBrace, &l_guidInterface))) {
            l_Entry.wstringType = ClassName(l_guidInterface);
        }
        SetDeviceInstanceIdUsingPnpAPI(devinst_in, kNotifiedNode);
        ProcessDeviceInterfaces2(kNotifiedNode);
        return true;  // every node that matches is read; the last one stays in the entry
    });
    return S_OK;
}

HRESULT CDorWEXWPDObjectInWin32::FindDeviceClassOnCompositeDevice(const GUID& guidSetupClass_in,
                                                                  const GUID& guidInterfaceClass_in,
                                                                  int intEntry_in) {
    const DorWEXPnpApi& l_Api = PnpApi();
    const std::wstring l_wstringClass = ClassName(guidInterfaceClass_in);
    DeviceInfoList l_List(l_Api.pSetupDiGetClassDevsW(&guidSetupClass_in, nullptr, nullptr, DIGCF_PRESENT));
    if (!l_List.Valid()) {
        const DWORD l_dwordError = GetLastError();
        Trace(L"CDorWEXWPDObjectInWin32::FindDeviceClassOnCompositeDevice%s: SetupDiGetClassDevs FAILED %x: %s.\n",
              l_wstringClass.c_str(), l_dwordError, ErrorText(l_dwordError).c_str());
        return HRESULT_FROM_WIN32(l_dwordError);
    }
    int l_intMatches = 0;
    ForEachMatchingNode(l_List.Get(), m_wstringName, [&](DEVINST devinst_in, const wchar_t* pwcharInstanceId_in) {
        Trace(L"=============================================================");
        Trace(L"CDorWEXWPDObjectInWin32::FindDeviceClassOnCompositeDevice%s: MATCHED ON %s Match count=%i\n",
              l_wstringClass.c_str(), pwcharInstanceId_in, ++l_intMatches);
        ReadNode(devinst_in, pwcharInstanceId_in, intEntry_in);
        NodeEntry& l_Entry = m_NodeEntries[intEntry_in];
        l_Entry.wstringDevicePath = InterfacePath(guidInterfaceClass_in, pwcharInstanceId_in);
        l_Entry.wstringType = l_wstringClass;
        if (IsEqualGUID(guidSetupClass_in, kGUID_DEVCLASS_DISKDRIVE)) {
            l_Entry.wstringDiskDrive = pwcharInstanceId_in;
        }
        SetDeviceInstanceIdUsingPnpAPI(devinst_in, intEntry_in);
        return true;
    });
    return S_OK;
}

void CDorWEXWPDObjectInWin32::ReadNode(DEVINST devinst_in, const std::wstring& wstringInstanceId_in,
                                       int intEntry_in) {
    NodeEntry& l_Entry = m_NodeEntries[intEntry_in];
    l_Entry = NodeEntry{};
    l_Entry.devinst = devinst_in;
    l_Entry.wstringInstanceId = wstringInstanceId_in;
    for (DWORD l_dwordProperty = 0; l_dwordProperty < kRegistryProperties; ++l_dwordProperty) {
        l_Entry.wstringProperties[l_dwordProperty] = RegistryPropertyText(devinst_in, l_dwordProperty);
    }
    l_Entry.wstringDeviceClassGUID = l_Entry.wstringProperties[SPDRP_CLASSGUID];
}

HRESULT CDorWEXWPDObjectInWin32::SetDeviceInstanceIdUsingPnpAPI(DEVINST devinst_in, int intEntry_in) {
    wchar_t l_wcharId[MAX_DEVICE_ID_LEN + 1] = {};
    const CONFIGRET l_CONFIGRET = PnpApi().pCM_Get_Device_ID_ExW(devinst_in, l_wcharId, MAX_DEVICE_ID_LEN, 0, nullptr);
    if (l_CONFIGRET != CR_SUCCESS) {
        Trace(L"CDorWEXWPDObjectInWin32::SetDeviceInstanceIdUsingPnpAPI, DevInst: %ld: CM_Get_Device_ID_Ex FAILED "
              L"%x: %s.\n",
              static_cast<LONG>(devinst_in), l_CONFIGRET, ErrorText(l_CONFIGRET).c_str());
        return E_FAIL;
    }
    m_NodeEntries[intEntry_in].wstringInstanceId = l_wcharId;
    Trace(L"CDorWEXWPDObjectInWin32::SetDeviceInstanceIdUsingPnpAPI, Targeted device DevInst: %ld, DeviceInstanceId: %s",
          static_cast<LONG>(devinst_in), l_wcharId);
    return S_OK;
}

HRESULT CDorWEXWPDObjectInWin32::ProcessDeviceInterfaces2(int intEntry_in) {
    NodeEntry& l_Entry = m_NodeEntries[intEntry_in];
    if (l_Entry.wstringDevicePath.empty()) {
        return S_FALSE;  // nothing was found for the entry
    }
    PnpHandle l_Handle(PnpApi().pCreateFileW(l_Entry.wstringDevicePath.c_str(), 0, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                             nullptr, OPEN_EXISTING, 0, nullptr));
    if (!l_Handle.Valid()) {
        const DWORD l_dwordError = GetLastError();
        Trace(L"CDorWEXWPDObjectInWin32::ProcessDeviceInterfaces2, DevicePath: %s FAILED mapping into Win32: "
              L"CreateFile FAILED %x: %s.\n",
              l_Entry.wstringDevicePath.c_str(), l_dwordError, ErrorText(l_dwordError).c_str());
        return HRESULT_FROM_WIN32(l_dwordError);
    }
    if (IsVolume(l_Entry)) {
        const HRESULT l_HRESULT = GetDiskNumberAndDriveLetter2(l_Handle.Get(), intEntry_in);
        if (l_Entry.longDiskNumber >= 0) {
            l_Entry.wstringDiskDrive = L"\\\\.\\PhysicalDrive" + std::to_wstring(l_Entry.longDiskNumber);
        }
        return l_HRESULT;
    }
    return S_OK;  // only a volume has a disk number and a drive letter to look for
}

HRESULT CDorWEXWPDObjectInWin32::GetDiskNumberAndDriveLetter2(HANDLE handleVolume_in, int intEntry_in) {
    // Room for one extent beyond the header: the first extent is the one that counts.
    union {
        VOLUME_DISK_EXTENTS extents;
        BYTE bytes[32];
    } l_Extents = {};
    DWORD l_dwordReturned = 0;
    if (!PnpApi().pDeviceIoControl(handleVolume_in, IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS, nullptr, 0, &l_Extents,
                                   sizeof(l_Extents), &l_dwordReturned, nullptr) ||
        l_dwordReturned == 0) {
        const DWORD l_dwordError = GetLastError();
        Trace(L"CDorWEXWPDObjectInWin32::GetDiskNumberAndDriveLetter2, "
              L"DeviceIoControl:IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS FAILED %x: %s.\n",
              l_dwordError, ErrorText(l_dwordError).c_str());
        return E_FAIL;
    }
    m_NodeEntries[intEntry_in].longDiskNumber = static_cast<LONG>(l_Extents.extents.Extents[0].DiskNumber);
    FindDriveLetter(m_NodeEntries[intEntry_in].longDiskNumber, intEntry_in);
    return S_OK;
}

void CDorWEXWPDObjectInWin32::FindDriveLetter(LONG longDiskNumber_in, int intEntry_in) {
    constexpr DWORD kDriveStringsChars = 108;
    std::unique_ptr<wchar_t[]> l_pTCHARGetLogicalDriveStringsBuffer(new (std::nothrow) wchar_t[kDriveStringsChars]());
    if (!l_pTCHARGetLogicalDriveStringsBuffer) {
        Trace(L"CDorWEXWPDObjectInWin32::GetDiskNumberAndDriveLetter2, Could not allocate memory: "
              L"l_pTCHARGetLogicalDriveStringsBuffer");
        return;
    }
    const DWORD l_dwordChars =
        PnpApi().pGetLogicalDriveStringsW(kDriveStringsChars - 1, l_pTCHARGetLogicalDriveStringsBuffer.get());
    if (l_dwordChars == 0 || l_dwordChars > kDriveStringsChars - 1) {
        const DWORD l_dwordError = GetLastError();
        Trace(L"CDorWEXWPDObjectInWin32::GetDiskNumberAndDriveLetter2, GetLogicalDriveStrings FAILED %x: %s.\n",
              l_dwordError, ErrorText(l_dwordError).c_str());
        return;
    }
    // "C:\<nul>E:\<nul><nul>": each drive's volume is opened as \\.\C: and asked for its disk.
    std::wstring l_wstringList;
    for (const wchar_t* l_pwcharDrive = l_pTCHARGetLogicalDriveStringsBuffer.get(); *l_pwcharDrive != L'\0';
         l_pwcharDrive += wcslen(l_pwcharDrive) + 1) {
        l_wstringList += l_pwcharDrive;
        l_wstringList += L' ';
        if (wcslen(l_pwcharDrive) < 2) {
            continue;
        }
        const std::wstring l_wstringVolume = std::wstring(L"\\\\.\\") + l_pwcharDrive[0] + L':';
        PnpHandle l_Volume(PnpApi().pCreateFileW(l_wstringVolume.c_str(), 0, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                                 nullptr, OPEN_EXISTING, 0, nullptr));
        if (!l_Volume.Valid()) {
            continue;
        }
        union {
            VOLUME_DISK_EXTENTS extents;
            BYTE bytes[32];
        } l_Extents = {};
        DWORD l_dwordReturned = 0;
        if (PnpApi().pDeviceIoControl(l_Volume.Get(), IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS, nullptr, 0, &l_Extents,
                                      sizeof(l_Extents), &l_dwordReturned, nullptr) &&
            l_dwordReturned != 0 &&
            static_cast<LONG>(l_Extents.extents.Extents[0].DiskNumber) == longDiskNumber_in) {
            m_NodeEntries[intEntry_in].wstringDriveLetter = l_pwcharDrive;
            Trace(L"CDorWEXWPDObjectInWin32::GetDiskNumberAndDriveLetter2, Drive letter: <%s> Drive number: <%ld>\n",
                  l_pwcharDrive, longDiskNumber_in);
            return;
        }
    }
    Trace(L"CDorWEXWPDObjectInWin32::GetDiskNumberAndDriveLetter2, Reached end of drive list before reaching "
          L"l_VOLUME_DISK_EXTENTS.Extents->DiskNumber:list: %s DiskNumber: %ld\n",
          l_wstringList.c_str(), longDiskNumber_in);
}

CDorWEXWPDObjectInWin32::Ancestor CDorWEXWPDObjectInWin32::Classify(DEVINST devinst_in, LONG longDistance_in) {
    Ancestor l_Ancestor;
    l_Ancestor.devinst = devinst_in;
    l_Ancestor.longDistance = longDistance_in;
    l_Ancestor.wstringInstanceId = DeviceIdOf(devinst_in);
    if (l_Ancestor.wstringInstanceId.empty()) {
        return l_Ancestor;
    }
    l_Ancestor.wstringHubPath = InterfacePath(kGUID_DEVINTERFACE_USB_HUB, l_Ancestor.wstringInstanceId.c_str());
    l_Ancestor.boolHubOrController =
        !l_Ancestor.wstringHubPath.empty() ||
        !InterfacePath(kGUID_DEVINTERFACE_USB_HOST_CONTROLLER, l_Ancestor.wstringInstanceId.c_str()).empty();
    return l_Ancestor;
}

bool CDorWEXWPDObjectInWin32::IsHubOrController(DEVINST devinstParent_in, const wchar_t* pwcharFor_in) {
    const Ancestor* l_pAncestor = nullptr;
    for (const Ancestor& l_Known : m_Ancestors) {
        if (l_Known.devinst == devinstParent_in) {
            l_pAncestor = &l_Known;
            break;
        }
    }
    if (l_pAncestor == nullptr) {
        m_Ancestors.push_back(Classify(devinstParent_in, 1));
        l_pAncestor = &m_Ancestors.back();
    }
    if (l_pAncestor->boolHubOrController) {
        Trace(L"CDorWEXWPDObjectInWin32::IsHubOrController, Parent at distance %ld for %s is a hub or controller.\n",
              l_pAncestor->longDistance, pwcharFor_in != nullptr ? pwcharFor_in : L"");
    }
    return l_pAncestor->boolHubOrController;
}

HRESULT CDorWEXWPDObjectInWin32::ProcessImmediateParent2(int intEntry_in) {
    // Only the node's own parent is looked at: when it is a hub or a host controller, the node is the USB
    // device plugged into it.
    const NodeEntry& l_Start = m_NodeEntries[intEntry_in];
    const DEVINST l_devinstBelow = l_Start.devinst;
    const std::wstring l_wstringBelow = l_Start.wstringInstanceId;
    DEVINST l_devinstParent = 0;
    if (PnpApi().pCM_Get_Parent(&l_devinstParent, l_devinstBelow, 0) != CR_SUCCESS) {
        return S_FALSE;
    }
    m_Ancestors.push_back(Classify(l_devinstParent, 1));
    const Ancestor l_Parent = m_Ancestors.back();
    if (!l_Parent.boolHubOrController) {
        return S_FALSE;  // a function of a composite device, or no USB device at all
    }
    NodeEntry& l_USBDevice = m_NodeEntries[kUSBDeviceNode];
    if (l_USBDevice.wstringInstanceId.empty() || l_USBDevice.devinst != l_devinstBelow) {
        ReadNode(l_devinstBelow, l_wstringBelow, kUSBDeviceNode);
        l_USBDevice.wstringType = L"GUID_DEVINTERFACE_USB_DEVICE";
        l_USBDevice.wstringDevicePath = InterfacePath(kGUID_DEVINTERFACE_USB_DEVICE, l_wstringBelow.c_str());
    }
    ReadHub(l_Parent, l_USBDevice);
    Trace(L"CDorWEXWPDObjectInWin32::ProcessImmediateParent2, Parent %s distance %ld for %s = %ld.\n",
          l_Parent.wstringInstanceId.c_str(), l_Parent.longDistance, l_wstringBelow.c_str(),
          static_cast<LONG>(l_USBDevice.intTotalPortsOnHub));
    const int l_intPort = FindPort(l_USBDevice, l_devinstParent);
    if (l_intPort < 1 || l_intPort > l_USBDevice.intTotalPortsOnHub) {
        Trace(L"CDorWEXWPDObjectInWin32::ProcessImmediateParent2, could not determine port for device.\n");
        return S_FALSE;
    }
    l_USBDevice.intUSBHubPortNumber = l_intPort;
    Trace(L"CDorWEXWPDObjectInWin32::ProcessImmediateParent2, device is on port %i\n", l_intPort);
    PnpHandle l_Hub(PnpApi().pCreateFileW(l_Parent.wstringHubPath.c_str(), GENERIC_WRITE, FILE_SHARE_WRITE, nullptr,
                                          OPEN_EXISTING, 0, nullptr));
    if (!l_Hub.Valid()) {
        return S_OK;
    }
    USB_NODE_CONNECTION_INFORMATION l_Connection = {};
    l_Connection.ConnectionIndex = static_cast<ULONG>(l_intPort);
    DWORD l_dwordReturned = 0;
    if (PnpApi().pDeviceIoControl(l_Hub.Get(), IOCTL_USB_GET_NODE_CONNECTION_INFORMATION, &l_Connection,
                                  sizeof(l_Connection), &l_Connection, sizeof(l_Connection), &l_dwordReturned,
                                  nullptr) &&
        l_dwordReturned >= offsetof(USB_NODE_CONNECTION_INFORMATION, PipeList)) {
        l_USBDevice.longNumberOfOpenPipes = static_cast<LONG>(l_Connection.NumberOfOpenPipes);
        l_USBDevice.intManufacturerIndex = l_Connection.DeviceDescriptor.iManufacturer;
    }
    return S_OK;
}

void CDorWEXWPDObjectInWin32::ReadHub(const Ancestor& hub_in, NodeEntry& entry_io) {
    if (hub_in.wstringHubPath.empty()) {
        return;  // a host controller: its root hub is the one with ports
    }
    PnpHandle l_Hub(PnpApi().pCreateFileW(hub_in.wstringHubPath.c_str(), GENERIC_WRITE, FILE_SHARE_WRITE, nullptr,
                                          OPEN_EXISTING, 0, nullptr));
    if (!l_Hub.Valid()) {
        const DWORD l_dwordError = GetLastError();
        Trace(L"CDorWEXWPDObjectInWin32::ProcessImmediateParent2, DevicePath: %s FAILED mapping into Win32: "
              L"CreateFile FAILED %x: %s.\n",
              hub_in.wstringHubPath.c_str(), l_dwordError, ErrorText(l_dwordError).c_str());
        return;
    }
    USB_NODE_INFORMATION l_Node = {};
    l_Node.NodeType = UsbHub;
    DWORD l_dwordReturned = 0;
    if (PnpApi().pDeviceIoControl(l_Hub.Get(), IOCTL_USB_GET_NODE_INFORMATION, &l_Node, sizeof(l_Node), &l_Node,
                                  sizeof(l_Node), &l_dwordReturned, nullptr) &&
        l_dwordReturned > 0) {
        entry_io.intTotalPortsOnHub = l_Node.u.HubInformation.HubDescriptor.bNumberOfPorts;
    }
    // Active ports: the hub's children, each on a port of its own.
    int l_intChildren = 0;
    ForEachChild(hub_in.devinst, [&](DEVINST) {
        ++l_intChildren;
        return true;
    });
    entry_io.intActivePortsOnHub = l_intChildren;
}

int CDorWEXWPDObjectInWin32::FindPort(const NodeEntry& entry_in, DEVINST devinstHub_in) const {
    const int l_intPort = dorwex::PortFromLocationText(entry_in.Property(SPDRP_LOCATION_INFORMATION));
    if (l_intPort > 0) {
        return l_intPort;
    }
    // Count the hub's children up to the device.
    int l_intCount = 0;
    int l_intPortFound = 0;
    ForEachChild(devinstHub_in, [&](DEVINST devinstChild_in) {
        ++l_intCount;
        wchar_t l_wcharId[260] = {};
        if (PnpApi().pCM_Get_Device_IDW(devinstChild_in, l_wcharId, _countof(l_wcharId) - 1, 0) == CR_SUCCESS &&
            _wcsicmp(l_wcharId, entry_in.wstringInstanceId.c_str()) == 0) {
            l_intPortFound = l_intCount;
            return false;
        }
        return true;
    });
    return l_intPortFound;
}

std::wstring CDorWEXWPDObjectInWin32::GetDeviceSerialNumber() const {
    const NodeEntry& l_Device = m_NodeEntries[kNotifiedNode].wstringInstanceId.empty() ? m_NodeEntries[kLookedUpNode]
                                                                                    : m_NodeEntries[kNotifiedNode];
    return dorwex::SerialNumberFromInstanceId(l_Device.wstringInstanceId);
}

std::wstring CDorWEXWPDObjectInWin32::GetUSBSerialNumber() const {
    return dorwex::SerialNumberFromInstanceId(m_NodeEntries[kUSBDeviceNode].wstringInstanceId);
}

void CDorWEXWPDObjectInWin32::ShowProperties() const {
    if (GetTraceLevel() == 0) {
        return;  // nothing would be written
    }
    // Each line names the entry, then the role of its node.
    static const wchar_t* const kLabels[kEntries] = {L"Entry0", L"Entry1", L"Entry2", L"Entry3"};
    static const wchar_t* const kRoles[kEntries] = {L"Notification", L"DiskDrive", L"USBDevice", L"WPDDevice"};
    Trace(L"CDorWEXWPDObjectInWin32::ShowProperties, %s, PDEV_BROADCAST_DEVICEINTERFACE->dbcc_name=<%s>", L"View",
          m_wstringName.c_str());
    for (int l_intEntry = 0; l_intEntry < kEntries; ++l_intEntry) {
        const NodeEntry& l_Entry = m_NodeEntries[l_intEntry];
        if (l_Entry.wstringInstanceId.empty()) {
            continue;
        }
        const wchar_t* l_pwcharLabel = kLabels[l_intEntry];
        const wchar_t* l_pwcharRole = kRoles[l_intEntry];
        const auto l_Text = [&](const wchar_t* pwcharFormat_in, const std::wstring& wstringValue_in) {
            Trace(pwcharFormat_in, l_pwcharLabel, l_pwcharRole, wstringValue_in.c_str());
        };
        l_Text(L"CDorWEXWPDObjectInWin32::ShowProperties, %s, %s Device Path=<%s>", l_Entry.wstringDevicePath);
        l_Text(L"CDorWEXWPDObjectInWin32::ShowProperties, %s, %s Type=<%s>", l_Entry.wstringType);
        l_Text(L"CDorWEXWPDObjectInWin32::ShowProperties, %s, %s DeviceClassGUID=<%s>", l_Entry.wstringDeviceClassGUID);
        Trace(L"CDorWEXWPDObjectInWin32::ShowProperties, %s, %s InstanceId%i=<%s>", l_pwcharLabel, l_pwcharRole,
              l_intEntry, l_Entry.wstringInstanceId.c_str());
        l_Text(L"CDorWEXWPDObjectInWin32::ShowProperties, %s, %s SPDRP_PHYSICAL_DEVICE_OBJECT_NAME=<%s>",
               l_Entry.Property(SPDRP_PHYSICAL_DEVICE_OBJECT_NAME));
        l_Text(L"CDorWEXWPDObjectInWin32::ShowProperties, %s, %s SPDRP_HARDWAREID=<%s>",
               l_Entry.Property(SPDRP_HARDWAREID));
        l_Text(L"CDorWEXWPDObjectInWin32::ShowProperties, %s, %s SPDRP_ENUMERATOR_NAME=<%s>",
               l_Entry.Property(SPDRP_ENUMERATOR_NAME));
        l_Text(L"CDorWEXWPDObjectInWin32::ShowProperties, %s, %s SPDRP_LOCATION_PATHS=<%s>",
               l_Entry.Property(SPDRP_LOCATION_PATHS));
        l_Text(L"CDorWEXWPDObjectInWin32::ShowProperties, %s, %s SPDRP_LOCATION_INFORMATION=<%s>",
               l_Entry.Property(SPDRP_LOCATION_INFORMATION));
        l_Text(L"CDorWEXWPDObjectInWin32::ShowProperties, %s, %s Device Drive Letter=<%s>", l_Entry.wstringDriveLetter);
        Trace(L"CDorWEXWPDObjectInWin32::ShowProperties, %s, %s DiskNumber=%ld", l_pwcharLabel, l_pwcharRole,
              l_Entry.longDiskNumber);
        const struct {
            const wchar_t* pwcharFormat;
            int intValue;
        } l_Numbers[] = {
            {L"CDorWEXWPDObjectInWin32::ShowProperties, %s, %s USBHubPortNumber=%i", l_Entry.intUSBHubPortNumber},
            {L"CDorWEXWPDObjectInWin32::ShowProperties, %s, %s TotalPortsOnHub=%i", l_Entry.intTotalPortsOnHub},
            {L"CDorWEXWPDObjectInWin32::ShowProperties, %s, %s ActivePortsOnHub=%i", l_Entry.intActivePortsOnHub},
        };
        for (const auto& l_Number : l_Numbers) {
            Trace(l_Number.pwcharFormat, l_pwcharLabel, l_pwcharRole, l_Number.intValue);
        }
        Trace(L"CDorWEXWPDObjectInWin32::ShowProperties, %s, %s NumberOfOpenPipes=%ld", l_pwcharLabel, l_pwcharRole,
              l_Entry.longNumberOfOpenPipes);
        Trace(L"CDorWEXWPDObjectInWin32::ShowProperties, %s, %s NumberOfOutPipes=%ld", l_pwcharLabel, l_pwcharRole,
              l_Entry.longNumberOfOutPipes);
        l_Text(L"CDorWEXWPDObjectInWin32::ShowProperties, %s, %s iManufacturer=%s",
               std::to_wstring(l_Entry.intManufacturerIndex));
    }
}
