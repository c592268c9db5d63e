// A Plug and Play tree for tests, put behind the provider's PnP table while the object lives. Device nodes
// carry instance ids, setup classes, interfaces with device paths, registry properties and parents; hubs
// have ports, disks and volumes have disk numbers, drive letters name disks. Eject, remove and disable
// requests succeed, veto, or make the device come back after a while of (virtual) time that the product's
// pauses advance.
#pragma once

#include <windows.h>
#include <setupapi.h>
#include <cfgmgr32.h>

#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "common/pnp_api.h"
#include "common/pnp_guids.h"

namespace pnp_classes {
inline constexpr const GUID& kUSB = kGUID_DEVCLASS_USB;
inline constexpr const GUID& kDiskDrive = kGUID_DEVCLASS_DISKDRIVE;
inline constexpr const GUID& kVolume = kGUID_DEVCLASS_VOLUME;
inline constexpr const GUID& kWPD = kGUID_DEVCLASS_WPD;
constexpr GUID kSystem = {0x4d36e97d, 0xe325, 0x11ce, {0xbf, 0xc1, 0x08, 0x00, 0x2b, 0xe1, 0x03, 0x18}};
inline constexpr const GUID& kHubInterface = kGUID_DEVINTERFACE_USB_HUB;
inline constexpr const GUID& kHostControllerInterface = kGUID_DEVINTERFACE_USB_HOST_CONTROLLER;
inline constexpr const GUID& kUSBDeviceInterface = kGUID_DEVINTERFACE_USB_DEVICE;
inline constexpr const GUID& kDiskInterface = kGUID_DEVINTERFACE_DISK;
inline constexpr const GUID& kWPDInterface = kGUID_DEVINTERFACE_WPD;
}  // namespace pnp_classes

class PnpTreeDouble {
public:
    struct Node {
        std::wstring instanceId;
        GUID setupClass = pnp_classes::kSystem;
        int parent = -1;                                  // index of the parent node
        std::map<DWORD, std::wstring> properties;         // SPDRP_* -> text
        std::vector<std::pair<GUID, std::wstring>> interfaces;  // interface class, device path
        int hubPorts = 0;                                 // a hub with that many ports
        int port = 0;                                     // the hub port this node is plugged into
        LONG diskNumber = -1;                             // a disk, or a volume on that disk
        DWORD diskExtents = 1;                            // a volume spanning that many disks (from diskNumber on)
        bool present = true;
        // What eject and remove requests answer, in turn; CR_SUCCESS once the queue is empty.
        std::deque<CONFIGRET> ejectAnswers;
        std::deque<CONFIGRET> removeAnswers;
        // After a successful eject the device comes back after this much time (0: it stays away).
        DWORD comesBackAfterMs = 0;
        int ejectRequests = 0;
        int removeRequests = 0;
        bool disabled = false;
    };

    PnpTreeDouble();
    ~PnpTreeDouble();
    PnpTreeDouble(const PnpTreeDouble&) = delete;
    PnpTreeDouble& operator=(const PnpTreeDouble&) = delete;

    int Add(Node node);
    // Shorthands for the usual shapes.
    int AddHostController(const std::wstring& instanceId);
    int AddHub(int parent, const std::wstring& instanceId, int ports, int port = 0);
    Node& At(int index);
    void SetDrive(wchar_t letter, LONG diskNumber);

    // Calls that fail, by name ("SetupDiClassGuidsFromNameExW", "SetupDiGetClassDevsExW",
    // "SetupDiGetDeviceInfoListDetailW", "SetupDiCallClassInstaller", "CM_Get_Device_ID_ExW",
    // "GetLogicalDriveStringsW", ...).
    void Fail(const std::string& call) { m_failing.insert(call); }

    // Called (without the double's lock) when an ejected device comes back, with the node's index; the test
    // makes the device known again the way the notification worker would.
    std::function<void(int)> onComeBack;

    DWORD VirtualTimeMs() const { return m_virtualTimeMs; }
    // Device information lists and handles the product has not given back.
    size_t OpenLists() const;
    size_t OpenHandles() const;

private:
    struct List;
    struct HandleTarget {
        int node = -1;           // a node's interface
        wchar_t drive = L'\0';   // or a drive letter's volume
    };
    static PnpTreeDouble* s_pCurrent;
    static const DorWEXPnpApi kTable;

    // The table's functions.
    static HDEVINFO WINAPI GetClassDevsW(const GUID*, PCWSTR, HWND, DWORD);
    static HDEVINFO WINAPI GetClassDevsExW(const GUID*, PCWSTR, HWND, DWORD, HDEVINFO, PCWSTR, PVOID);
    static WINBOOL WINAPI EnumDeviceInfo(HDEVINFO, DWORD, PSP_DEVINFO_DATA);
    static WINBOOL WINAPI GetDeviceInstanceIdW(HDEVINFO, PSP_DEVINFO_DATA, PWSTR, DWORD, PDWORD);
    static WINBOOL WINAPI EnumDeviceInterfaces(HDEVINFO, PSP_DEVINFO_DATA, const GUID*, DWORD,
                                               PSP_DEVICE_INTERFACE_DATA);
    static WINBOOL WINAPI GetDeviceInterfaceDetailW(HDEVINFO, PSP_DEVICE_INTERFACE_DATA,
                                                    PSP_DEVICE_INTERFACE_DETAIL_DATA_W, DWORD, PDWORD,
                                                    PSP_DEVINFO_DATA);
    static WINBOOL WINAPI DestroyDeviceInfoList(HDEVINFO);
    static WINBOOL WINAPI ClassGuidsFromNameExW(PCWSTR, LPGUID, DWORD, PDWORD, PCWSTR, PVOID);
    static WINBOOL WINAPI GetDeviceInfoListDetailW(HDEVINFO, PSP_DEVINFO_LIST_DETAIL_DATA_W);
    static WINBOOL WINAPI SetClassInstallParamsW(HDEVINFO, PSP_DEVINFO_DATA, PSP_CLASSINSTALL_HEADER, DWORD);
    static WINBOOL WINAPI CallClassInstaller(DI_FUNCTION, HDEVINFO, PSP_DEVINFO_DATA);
    static CONFIGRET WINAPI GetDeviceIdExW(DEVINST, PWSTR, ULONG, ULONG, HMACHINE);
    static CONFIGRET WINAPI GetDeviceIdW(DEVINST, PWSTR, ULONG, ULONG);
    static CONFIGRET WINAPI GetParent(PDEVINST, DEVINST, ULONG);
    static CONFIGRET WINAPI GetChild(PDEVINST, DEVINST, ULONG);
    static CONFIGRET WINAPI GetSibling(PDEVINST, DEVINST, ULONG);
    static CONFIGRET WINAPI GetRegistryProperty(DEVINST, ULONG, PULONG, PVOID, PULONG, ULONG);
    static CONFIGRET WINAPI RequestEject(DEVINST, PPNP_VETO_TYPE, LPWSTR, ULONG, ULONG);
    static CONFIGRET WINAPI QueryAndRemoveSubTree(DEVINST, PPNP_VETO_TYPE, LPWSTR, ULONG, ULONG, HMACHINE);
    static HANDLE WINAPI CreateFile(LPCWSTR, DWORD, DWORD, LPSECURITY_ATTRIBUTES, DWORD, DWORD, HANDLE);
    static WINBOOL WINAPI IoControl(HANDLE, DWORD, LPVOID, DWORD, LPVOID, DWORD, LPDWORD, LPOVERLAPPED);
    static WINBOOL WINAPI Close(HANDLE);
    static DWORD WINAPI LogicalDriveStrings(DWORD, LPWSTR);
    static void WINAPI Pause(DWORD);

    bool Failing(const char* call) const { return m_failing.count(call) != 0; }
    Node* NodeOf(DEVINST devinst);
    List* ListOf(HDEVINFO hdevinfo);
    CONFIGRET Leave(DEVINST devinst, std::deque<CONFIGRET>& answers, int& requests);
    void MarkAbsent(int index, bool present);
    static CONFIGRET CopyId(const std::wstring& id, PWSTR buffer, ULONG chars);

    mutable std::mutex m_mutex;
    std::vector<Node> m_nodes;
    std::map<wchar_t, LONG> m_drives;
    std::set<std::string> m_failing;
    std::set<List*> m_lists;
    std::map<HANDLE, HandleTarget> m_handles;
    std::multimap<DWORD, int> m_comebacks;  // virtual time -> node
    UINT_PTR m_nextHandle = 0x4000;
    DWORD m_virtualTimeMs = 0;
    const DorWEXPnpApi* m_pPrevious = nullptr;
};
