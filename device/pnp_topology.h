// The Plug and Play view of one device. Starting from a device-interface name (a notification's dbcc_name or
// a WPD device id) it finds the device nodes that belong to the same physical device, reads their registry
// properties, the disk number and drive letter of a volume, and the hub and port the device is plugged into.
// Every platform call goes through the PnP table (pnp_api.h). A failing call is traced and leaves the entry
// empty, which callers read as "not found".
#pragma once

#include <windows.h>
#include <setupapi.h>
#include <cfgmgr32.h>

#include <string>
#include <vector>

class CDorWEXWPDObjectInWin32 {
public:
    // The view's node entries.
    enum Entry : int {
        kNotifiedNode = 0,  // the node matched from the notification name
        kDiskDriveNode = 1,  // the disk drive on the same composite device
        kUSBDeviceNode = 2,  // the USB device node
        kLookedUpNode = 3,  // the node found for a lookup that is not a notification
        kEntries = 4,
    };
    // Registry properties SPDRP_DEVICEDESC (0) to SPDRP_LOCATION_PATHS (0x23).
    static constexpr DWORD kRegistryProperties = 0x24;

    struct NodeEntry {
        DEVINST devinst = 0;
        std::wstring wstringInstanceId;
        std::wstring wstringDevicePath;
        std::wstring wstringType;  // name of the interface class the path belongs to
        std::wstring wstringDeviceClassGUID;
        std::wstring wstringProperties[kRegistryProperties];  // text per SPDRP_* value; lists joined by ";"
        std::wstring wstringDriveLetter;                      // "E:\" when a volume of the device has one
        LONG longDiskNumber = -1;
        int intUSBHubPortNumber = 0;
        int intTotalPortsOnHub = 0;
        int intActivePortsOnHub = 0;
        LONG longNumberOfOpenPipes = 0;
        LONG longNumberOfOutPipes = 0;
        int intManufacturerIndex = 0;  // iManufacturer of the USB device descriptor
        // A disk drive of the device: on entry 1 the disk drive node's instance id, on entry 0 the disk a
        // matched volume lies on (\\.\PhysicalDriveN). Non-empty means plain USB storage.
        std::wstring wstringDiskDrive;

        const std::wstring& Property(DWORD dwordSPDRP_in) const {
            static const std::wstring kEmpty;
            return dwordSPDRP_in < kRegistryProperties ? wstringProperties[dwordSPDRP_in] : kEmpty;
        }
    };

    CDorWEXWPDObjectInWin32() = default;

    // Builds the view for a device-interface name. Mode 1 is a device notification or a WPD device id with
    // the portable-device flag; any other mode searches the portable-device class. Returns E_FAIL for a null
    // name, otherwise the result of the class search (S_OK when nothing matched).
    HRESULT ProcessDeviceNotification(const wchar_t* pwcharName_in, int intMode_in);

    HRESULT FindDeviceClassFromDbccName(const wchar_t* pwcharName_in);
    HRESULT FindDeviceClassOnCompositeDevice(const GUID& guidSetupClass_in, const GUID& guidInterfaceClass_in,
                                             int intEntry_in);
    // Looks at the entry's parent: when it is a USB hub or host controller, the entry's node is the USB
    // device, whose hub port and connection go into entry 2.
    HRESULT ProcessImmediateParent2(int intEntry_in);
    HRESULT SetDeviceInstanceIdUsingPnpAPI(DEVINST devinst_in, int intEntry_in);
    HRESULT ProcessDeviceInterfaces2(int intEntry_in);
    HRESULT GetDiskNumberAndDriveLetter2(HANDLE handleVolume_in, int intEntry_in);
    void ShowProperties() const;

    // Whether a parent node is a USB hub or host controller, from the ancestors the view found (a node it
    // has not seen is looked at now).
    bool IsHubOrController(DEVINST devinstParent_in, const wchar_t* pwcharFor_in);

    const std::wstring& GetName() const { return m_wstringName; }
    const NodeEntry& GetEntry(Entry entry_in) const { return m_NodeEntries[entry_in]; }
    // The serial number in the device node's instance id, and the one in the USB device node's; empty when
    // the system made the id up.
    std::wstring GetDeviceSerialNumber() const;
    std::wstring GetUSBSerialNumber() const;

private:
    struct Ancestor {
        DEVINST devinst = 0;
        LONG longDistance = 0;  // 1 for the parent
        std::wstring wstringInstanceId;
        std::wstring wstringHubPath;  // the hub's interface path; empty for a node that is no hub
        bool boolHubOrController = false;
    };

    // Instance id, class and registry properties of a node into an entry.
    void ReadNode(DEVINST devinst_in, const std::wstring& wstringInstanceId_in, int intEntry_in);
    // Where the node sits: whether it is a hub or a host controller, and the hub's interface path.
    Ancestor Classify(DEVINST devinst_in, LONG longDistance_in);
    // The hub's port of a USB device node, from its location text or by counting the hub's children.
    int FindPort(const NodeEntry& entry_in, DEVINST devinstHub_in) const;
    void ReadHub(const Ancestor& hub_in, NodeEntry& entry_io);
    // The drive letter of a volume on the disk of that number.
    void FindDriveLetter(LONG longDiskNumber_in, int intEntry_in);

    std::wstring m_wstringName;
    NodeEntry m_NodeEntries[kEntries];
    std::vector<Ancestor> m_Ancestors;
};
