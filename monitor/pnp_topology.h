// The Plug and Play view of one device: the device nodes that belong to it, their instance ids, serial
// numbers and disks. The topology walk through SetupAPI and the configuration manager is not part of this
// class yet: every query leaves its entries empty, which callers read as "not found".
#pragma once

#include <windows.h>

#include <string>

class CDorWEXWPDObjectInWin32 {
public:
    // Entry 0 the node matched from the notification name, 1 the disk drive on the same composite device,
    // 2 the USB device node, 3 the node found for a lookup that is not a notification.
    static constexpr int kEntries = 4;

    struct NodeEntry {
        std::wstring wstringInstanceId;
        std::wstring wstringDevicePath;
        std::wstring wstringPhysicalName;  // SPDRP_PHYSICAL_DEVICE_OBJECT_NAME
        std::wstring wstringDriveLetter;
        std::wstring wstringDiskDrive;  // a disk drive found on the same device: plain USB storage
        std::wstring wstringSerialNumber;
        LONG longDiskNumber = -1;
    };

    CDorWEXWPDObjectInWin32() = default;

    // Builds the view for a device-interface name. Mode 1 is a device notification; any other mode a WPD
    // device id. Returns E_FAIL for a null name.
    HRESULT ProcessDeviceNotification(const wchar_t* pwcharName_in, int intMode_in);

    const std::wstring& GetName() const { return m_wstringName; }
    const NodeEntry& GetEntry(int intIndex_in) const { return m_NodeEntries[intIndex_in]; }
    // Serial numbers of the device and of its USB node; empty when unknown.
    const std::wstring& GetDeviceSerialNumber() const { return m_NodeEntries[3].wstringSerialNumber; }
    const std::wstring& GetUSBSerialNumber() const { return m_NodeEntries[2].wstringSerialNumber; }

private:
    std::wstring m_wstringName;
    NodeEntry m_NodeEntries[kEntries];
};
