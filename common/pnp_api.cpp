#include "pnp_api.h"

#include <atomic>

namespace {

const DorWEXPnpApi kSystemPnpApi = {
    SetupDiGetClassDevsW,
    SetupDiGetClassDevsExW,
    SetupDiEnumDeviceInfo,
    SetupDiGetDeviceInstanceIdW,
    SetupDiEnumDeviceInterfaces,
    SetupDiGetDeviceInterfaceDetailW,
    SetupDiDestroyDeviceInfoList,
    SetupDiClassGuidsFromNameExW,
    SetupDiGetDeviceInfoListDetailW,
    SetupDiSetClassInstallParamsW,
    SetupDiCallClassInstaller,
    CM_Get_Device_ID_ExW,
    CM_Get_Device_IDW,
    CM_Get_Parent,
    CM_Get_Child,
    CM_Get_Sibling,
    CM_Get_DevNode_Registry_PropertyW,
    CM_Request_Device_EjectW,
    CM_Query_And_Remove_SubTree_ExW,
    CreateFileW,
    DeviceIoControl,
    CloseHandle,
    GetLogicalDriveStringsW,
    Sleep,
};

std::atomic<const DorWEXPnpApi*> g_pPnpApi{&kSystemPnpApi};

}  // namespace

const DorWEXPnpApi& PnpApi() { return *g_pPnpApi.load(); }

const DorWEXPnpApi& SystemPnpApi() { return kSystemPnpApi; }

const DorWEXPnpApi* SetPnpApi(const DorWEXPnpApi* pApi_in) {
    return g_pPnpApi.exchange(pApi_in != nullptr ? pApi_in : &kSystemPnpApi);
}
