// The Plug and Play calls the provider makes: the Setup API, the configuration manager and the device and
// volume queries behind them, reached through one table of function pointers. The table defaults to the
// system's functions; tests put a Plug and Play tree of their own behind it.
#pragma once

#include <windows.h>
#include <setupapi.h>
#include <cfgmgr32.h>

struct DorWEXPnpApi {
    // Setup API
    decltype(&SetupDiGetClassDevsW) pSetupDiGetClassDevsW;
    decltype(&SetupDiGetClassDevsExW) pSetupDiGetClassDevsExW;
    decltype(&SetupDiEnumDeviceInfo) pSetupDiEnumDeviceInfo;
    decltype(&SetupDiGetDeviceInstanceIdW) pSetupDiGetDeviceInstanceIdW;
    decltype(&SetupDiEnumDeviceInterfaces) pSetupDiEnumDeviceInterfaces;
    decltype(&SetupDiGetDeviceInterfaceDetailW) pSetupDiGetDeviceInterfaceDetailW;
    decltype(&SetupDiDestroyDeviceInfoList) pSetupDiDestroyDeviceInfoList;
    decltype(&SetupDiClassGuidsFromNameExW) pSetupDiClassGuidsFromNameExW;
    decltype(&SetupDiGetDeviceInfoListDetailW) pSetupDiGetDeviceInfoListDetailW;
    decltype(&SetupDiSetClassInstallParamsW) pSetupDiSetClassInstallParamsW;
    decltype(&SetupDiCallClassInstaller) pSetupDiCallClassInstaller;
    // Configuration manager
    decltype(&CM_Get_Device_ID_ExW) pCM_Get_Device_ID_ExW;
    decltype(&CM_Get_Device_IDW) pCM_Get_Device_IDW;
    decltype(&CM_Get_Parent) pCM_Get_Parent;
    decltype(&CM_Get_Child) pCM_Get_Child;
    decltype(&CM_Get_Sibling) pCM_Get_Sibling;
    decltype(&CM_Get_DevNode_Registry_PropertyW) pCM_Get_DevNode_Registry_PropertyW;
    decltype(&CM_Request_Device_EjectW) pCM_Request_Device_EjectW;
    decltype(&CM_Query_And_Remove_SubTree_ExW) pCM_Query_And_Remove_SubTree_ExW;
    // Devices, volumes and drives
    decltype(&CreateFileW) pCreateFileW;
    decltype(&DeviceIoControl) pDeviceIoControl;
    decltype(&CloseHandle) pCloseHandle;
    decltype(&GetLogicalDriveStringsW) pGetLogicalDriveStringsW;
    // The pause between looks for a device that was ejected
    decltype(&Sleep) pSleep;
};

// The table in use.
const DorWEXPnpApi& PnpApi();
// The table of the system's functions.
const DorWEXPnpApi& SystemPnpApi();
// Replaces the table (the caller keeps it alive) and returns the previous one; null restores the system's.
const DorWEXPnpApi* SetPnpApi(const DorWEXPnpApi* pApi_in);

// A device information list, destroyed through the table.
class DeviceInfoList {
public:
    explicit DeviceInfoList(HDEVINFO hdevinfo_in = INVALID_HANDLE_VALUE) : m_HDEVINFO(hdevinfo_in) {}
    ~DeviceInfoList() { Reset(); }
    DeviceInfoList(const DeviceInfoList&) = delete;
    DeviceInfoList& operator=(const DeviceInfoList&) = delete;
    // Destroys the list held, then holds the one given.
    void Reset(HDEVINFO hdevinfo_in = INVALID_HANDLE_VALUE) {
        if (m_HDEVINFO != INVALID_HANDLE_VALUE && m_HDEVINFO != nullptr) {
            PnpApi().pSetupDiDestroyDeviceInfoList(m_HDEVINFO);
        }
        m_HDEVINFO = hdevinfo_in;
    }
    bool Valid() const { return m_HDEVINFO != INVALID_HANDLE_VALUE && m_HDEVINFO != nullptr; }
    HDEVINFO Get() const { return m_HDEVINFO; }

private:
    HDEVINFO m_HDEVINFO;
};

// A file or device handle, closed through the table.
class PnpHandle {
public:
    explicit PnpHandle(HANDLE handle_in = INVALID_HANDLE_VALUE) : m_HANDLE(handle_in) {}
    ~PnpHandle() {
        if (Valid()) {
            PnpApi().pCloseHandle(m_HANDLE);
        }
    }
    PnpHandle(const PnpHandle&) = delete;
    PnpHandle& operator=(const PnpHandle&) = delete;
    bool Valid() const { return m_HANDLE != INVALID_HANDLE_VALUE && m_HANDLE != nullptr; }
    HANDLE Get() const { return m_HANDLE; }

private:
    HANDLE m_HANDLE;
};
