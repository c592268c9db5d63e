#include "support/pnp_tree_double.h"

#include <winioctl.h>
#include <usbioctl.h>

#include <cwctype>
#include <stdexcept>

struct PnpTreeDouble::List {
    std::vector<int> nodes;
    std::vector<std::pair<int, size_t>> interfaces;  // node, index of its interface
};

PnpTreeDouble* PnpTreeDouble::s_pCurrent = nullptr;

const DorWEXPnpApi PnpTreeDouble::kTable = {
    GetClassDevsW, GetClassDevsExW, EnumDeviceInfo, GetDeviceInstanceIdW, EnumDeviceInterfaces,
    GetDeviceInterfaceDetailW, DestroyDeviceInfoList, ClassGuidsFromNameExW, GetDeviceInfoListDetailW,
    SetClassInstallParamsW, CallClassInstaller, GetDeviceIdExW, GetDeviceIdW, GetParent, GetChild, GetSibling,
    GetRegistryProperty, RequestEject, QueryAndRemoveSubTree, CreateFile, IoControl, Close, LogicalDriveStrings,
    Pause,
};

namespace {

bool SameText(const std::wstring& a, const wchar_t* b) {
    return b != nullptr && _wcsicmp(a.c_str(), b) == 0;
}

}  // namespace

PnpTreeDouble::PnpTreeDouble() {
    if (s_pCurrent != nullptr) {
        throw std::logic_error("one Plug and Play double at a time");
    }
    s_pCurrent = this;
    m_pPrevious = SetPnpApi(&kTable);
}

PnpTreeDouble::~PnpTreeDouble() {
    SetPnpApi(m_pPrevious);
    s_pCurrent = nullptr;
    for (List* list : m_lists) {
        delete list;
    }
}

int PnpTreeDouble::Add(Node node) {
    std::lock_guard<std::mutex> guard(m_mutex);
    m_nodes.push_back(std::move(node));
    return static_cast<int>(m_nodes.size()) - 1;
}

int PnpTreeDouble::AddHostController(const std::wstring& instanceId) {
    Node node;
    node.instanceId = instanceId;
    node.setupClass = pnp_classes::kUSB;
    node.interfaces.push_back({pnp_classes::kHostControllerInterface, L"\\\\?\\" + instanceId + L"#controller"});
    return Add(std::move(node));
}

int PnpTreeDouble::AddHub(int parent, const std::wstring& instanceId, int ports, int port) {
    Node node;
    node.instanceId = instanceId;
    node.setupClass = pnp_classes::kUSB;
    node.parent = parent;
    node.hubPorts = ports;
    node.port = port;
    node.interfaces.push_back({pnp_classes::kHubInterface, L"\\\\?\\" + instanceId + L"#hub"});
    return Add(std::move(node));
}

PnpTreeDouble::Node& PnpTreeDouble::At(int index) {
    std::lock_guard<std::mutex> guard(m_mutex);
    return m_nodes.at(static_cast<size_t>(index));
}

void PnpTreeDouble::SetDrive(wchar_t letter, LONG diskNumber) {
    std::lock_guard<std::mutex> guard(m_mutex);
    m_drives[letter] = diskNumber;
}

size_t PnpTreeDouble::OpenLists() const {
    std::lock_guard<std::mutex> guard(m_mutex);
    return m_lists.size();
}

size_t PnpTreeDouble::OpenHandles() const {
    std::lock_guard<std::mutex> guard(m_mutex);
    return m_handles.size();
}

PnpTreeDouble::Node* PnpTreeDouble::NodeOf(DEVINST devinst) {
    if (devinst == 0 || devinst > m_nodes.size()) {
        return nullptr;
    }
    return &m_nodes[devinst - 1];
}

PnpTreeDouble::List* PnpTreeDouble::ListOf(HDEVINFO hdevinfo) {
    auto* list = static_cast<List*>(hdevinfo);
    return m_lists.count(list) != 0 ? list : nullptr;
}

CONFIGRET PnpTreeDouble::CopyId(const std::wstring& id, PWSTR buffer, ULONG chars) {
    if (buffer == nullptr) {
        return CR_INVALID_POINTER;
    }
    if (id.size() + 1 > chars) {
        return CR_BUFFER_SMALL;
    }
    wcscpy_s(buffer, chars, id.c_str());
    return CR_SUCCESS;
}

// --- Setup API ---

HDEVINFO WINAPI PnpTreeDouble::GetClassDevsW(const GUID* classGuid, PCWSTR enumerator, HWND, DWORD flags) {
    PnpTreeDouble& self = *s_pCurrent;
    std::lock_guard<std::mutex> guard(self.m_mutex);
    if (self.Failing("SetupDiGetClassDevsW")) {
        SetLastError(ERROR_ACCESS_DENIED);
        return INVALID_HANDLE_VALUE;
    }
    if (classGuid == nullptr && (flags & DIGCF_ALLCLASSES) == 0) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return INVALID_HANDLE_VALUE;
    }
    auto* list = new List;
    for (size_t index = 0; index < self.m_nodes.size(); ++index) {
        const Node& node = self.m_nodes[index];
        if ((flags & DIGCF_PRESENT) != 0 && !node.present) {
            continue;
        }
        if ((flags & DIGCF_DEVICEINTERFACE) != 0) {
            if (enumerator != nullptr && !SameText(node.instanceId, enumerator)) {
                continue;
            }
            for (size_t i = 0; i < node.interfaces.size(); ++i) {
                if (classGuid == nullptr || IsEqualGUID(node.interfaces[i].first, *classGuid)) {
                    list->interfaces.push_back({static_cast<int>(index), i});
                    list->nodes.push_back(static_cast<int>(index));
                }
            }
        } else if ((flags & DIGCF_ALLCLASSES) != 0 || IsEqualGUID(node.setupClass, *classGuid)) {
            list->nodes.push_back(static_cast<int>(index));
        }
    }
    self.m_lists.insert(list);
    return list;
}

HDEVINFO WINAPI PnpTreeDouble::GetClassDevsExW(const GUID* classGuid, PCWSTR enumerator, HWND window, DWORD flags,
                                               HDEVINFO, PCWSTR, PVOID) {
    {
        std::lock_guard<std::mutex> guard(s_pCurrent->m_mutex);
        if (s_pCurrent->Failing("SetupDiGetClassDevsExW")) {
            SetLastError(ERROR_ACCESS_DENIED);
            return INVALID_HANDLE_VALUE;
        }
    }
    return GetClassDevsW(classGuid, enumerator, window, flags);
}

WINBOOL WINAPI PnpTreeDouble::EnumDeviceInfo(HDEVINFO hdevinfo, DWORD index, PSP_DEVINFO_DATA data) {
    PnpTreeDouble& self = *s_pCurrent;
    std::lock_guard<std::mutex> guard(self.m_mutex);
    List* list = self.ListOf(hdevinfo);
    if (list == nullptr || data == nullptr || data->cbSize != sizeof(SP_DEVINFO_DATA)) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    if (index >= list->nodes.size()) {
        SetLastError(ERROR_NO_MORE_ITEMS);
        return FALSE;
    }
    const int node = list->nodes[index];
    data->DevInst = static_cast<DWORD>(node + 1);
    data->ClassGuid = self.m_nodes[static_cast<size_t>(node)].setupClass;
    data->Reserved = static_cast<ULONG_PTR>(node);
    return TRUE;
}

WINBOOL WINAPI PnpTreeDouble::GetDeviceInstanceIdW(HDEVINFO hdevinfo, PSP_DEVINFO_DATA data, PWSTR buffer,
                                                   DWORD chars, PDWORD required) {
    PnpTreeDouble& self = *s_pCurrent;
    std::lock_guard<std::mutex> guard(self.m_mutex);
    Node* node = data != nullptr ? self.NodeOf(data->DevInst) : nullptr;
    if (self.ListOf(hdevinfo) == nullptr || node == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    if (required != nullptr) {
        *required = static_cast<DWORD>(node->instanceId.size() + 1);
    }
    if (CopyId(node->instanceId, buffer, chars) != CR_SUCCESS) {
        SetLastError(ERROR_INSUFFICIENT_BUFFER);
        return FALSE;
    }
    return TRUE;
}

WINBOOL WINAPI PnpTreeDouble::EnumDeviceInterfaces(HDEVINFO hdevinfo, PSP_DEVINFO_DATA, const GUID* interfaceClass,
                                                   DWORD index, PSP_DEVICE_INTERFACE_DATA data) {
    PnpTreeDouble& self = *s_pCurrent;
    std::lock_guard<std::mutex> guard(self.m_mutex);
    List* list = self.ListOf(hdevinfo);
    if (list == nullptr || interfaceClass == nullptr || data == nullptr ||
        data->cbSize != sizeof(SP_DEVICE_INTERFACE_DATA)) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    DWORD seen = 0;
    for (size_t i = 0; i < list->interfaces.size(); ++i) {
        const auto& entry = list->interfaces[i];
        const auto& iface = self.m_nodes[static_cast<size_t>(entry.first)].interfaces[entry.second];
        if (!IsEqualGUID(iface.first, *interfaceClass) || seen++ != index) {
            continue;
        }
        data->InterfaceClassGuid = iface.first;
        data->Flags = SPINT_ACTIVE;
        data->Reserved = i;
        return TRUE;
    }
    SetLastError(ERROR_NO_MORE_ITEMS);
    return FALSE;
}

WINBOOL WINAPI PnpTreeDouble::GetDeviceInterfaceDetailW(HDEVINFO hdevinfo, PSP_DEVICE_INTERFACE_DATA data,
                                                        PSP_DEVICE_INTERFACE_DETAIL_DATA_W detail, DWORD size,
                                                        PDWORD required, PSP_DEVINFO_DATA) {
    PnpTreeDouble& self = *s_pCurrent;
    std::lock_guard<std::mutex> guard(self.m_mutex);
    List* list = self.ListOf(hdevinfo);
    if (list == nullptr || data == nullptr || data->Reserved >= list->interfaces.size()) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    const auto& entry = list->interfaces[data->Reserved];
    const std::wstring& path = self.m_nodes[static_cast<size_t>(entry.first)].interfaces[entry.second].second;
    const DWORD needed =
        static_cast<DWORD>(offsetof(SP_DEVICE_INTERFACE_DETAIL_DATA_W, DevicePath) + (path.size() + 1) * sizeof(wchar_t));
    if (required != nullptr) {
        *required = needed;
    }
    if (detail == nullptr || size < needed) {
        SetLastError(ERROR_INSUFFICIENT_BUFFER);
        return FALSE;
    }
    if (detail->cbSize != sizeof(SP_DEVICE_INTERFACE_DETAIL_DATA_W)) {
        SetLastError(ERROR_INVALID_USER_BUFFER);
        return FALSE;
    }
    memcpy(detail->DevicePath, path.c_str(), (path.size() + 1) * sizeof(wchar_t));
    return TRUE;
}

WINBOOL WINAPI PnpTreeDouble::DestroyDeviceInfoList(HDEVINFO hdevinfo) {
    PnpTreeDouble& self = *s_pCurrent;
    std::lock_guard<std::mutex> guard(self.m_mutex);
    List* list = self.ListOf(hdevinfo);
    if (list == nullptr) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    self.m_lists.erase(list);
    delete list;
    return TRUE;
}

WINBOOL WINAPI PnpTreeDouble::ClassGuidsFromNameExW(PCWSTR name, LPGUID guids, DWORD size, PDWORD required, PCWSTR,
                                                    PVOID) {
    PnpTreeDouble& self = *s_pCurrent;
    std::lock_guard<std::mutex> guard(self.m_mutex);
    if (self.Failing("SetupDiClassGuidsFromNameExW") || name == nullptr || required == nullptr) {
        SetLastError(ERROR_INVALID_CLASS);
        return FALSE;
    }
    *required = 0;
    if (_wcsicmp(name, L"WPD") == 0 && !self.Failing("WPD class unknown")) {
        *required = 1;
        if (size >= 1 && guids != nullptr) {
            guids[0] = pnp_classes::kWPD;
        }
    }
    return TRUE;
}

WINBOOL WINAPI PnpTreeDouble::GetDeviceInfoListDetailW(HDEVINFO hdevinfo, PSP_DEVINFO_LIST_DETAIL_DATA_W detail) {
    PnpTreeDouble& self = *s_pCurrent;
    std::lock_guard<std::mutex> guard(self.m_mutex);
    if (self.Failing("SetupDiGetDeviceInfoListDetailW") || self.ListOf(hdevinfo) == nullptr || detail == nullptr ||
        detail->cbSize != sizeof(SP_DEVINFO_LIST_DETAIL_DATA_W)) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    detail->ClassGuid = GUID{};
    detail->RemoteMachineHandle = nullptr;
    detail->RemoteMachineName[0] = L'\0';
    return TRUE;
}

WINBOOL WINAPI PnpTreeDouble::SetClassInstallParamsW(HDEVINFO hdevinfo, PSP_DEVINFO_DATA data,
                                                     PSP_CLASSINSTALL_HEADER header, DWORD size) {
    PnpTreeDouble& self = *s_pCurrent;
    std::lock_guard<std::mutex> guard(self.m_mutex);
    const auto* params = reinterpret_cast<const SP_PROPCHANGE_PARAMS*>(header);
    // Only a well-formed disable of a listed node is accepted, as the product must send it.
    if (self.Failing("SetupDiSetClassInstallParamsW") || self.ListOf(hdevinfo) == nullptr || data == nullptr ||
        header == nullptr || size != sizeof(SP_PROPCHANGE_PARAMS) ||
        header->cbSize != sizeof(SP_CLASSINSTALL_HEADER) || header->InstallFunction != DIF_PROPERTYCHANGE ||
        params->StateChange != DICS_DISABLE || params->Scope != DICS_FLAG_CONFIGSPECIFIC || params->HwProfile != 0) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    return TRUE;
}

WINBOOL WINAPI PnpTreeDouble::CallClassInstaller(DI_FUNCTION function, HDEVINFO hdevinfo, PSP_DEVINFO_DATA data) {
    PnpTreeDouble& self = *s_pCurrent;
    std::lock_guard<std::mutex> guard(self.m_mutex);
    Node* node = data != nullptr ? self.NodeOf(data->DevInst) : nullptr;
    if (self.Failing("SetupDiCallClassInstaller") || function != DIF_PROPERTYCHANGE ||
        self.ListOf(hdevinfo) == nullptr || node == nullptr) {
        SetLastError(ERROR_ACCESS_DENIED);
        return FALSE;
    }
    node->disabled = true;
    return TRUE;
}

// --- Configuration manager ---

CONFIGRET WINAPI PnpTreeDouble::GetDeviceIdExW(DEVINST devinst, PWSTR buffer, ULONG chars, ULONG flags, HMACHINE) {
    {
        std::lock_guard<std::mutex> guard(s_pCurrent->m_mutex);
        if (s_pCurrent->Failing("CM_Get_Device_ID_ExW")) {
            return CR_REGISTRY_ERROR;
        }
    }
    return GetDeviceIdW(devinst, buffer, chars, flags);
}

CONFIGRET WINAPI PnpTreeDouble::GetDeviceIdW(DEVINST devinst, PWSTR buffer, ULONG chars, ULONG) {
    PnpTreeDouble& self = *s_pCurrent;
    std::lock_guard<std::mutex> guard(self.m_mutex);
    const Node* node = self.NodeOf(devinst);
    return node == nullptr ? CR_INVALID_DEVNODE : CopyId(node->instanceId, buffer, chars);
}

CONFIGRET WINAPI PnpTreeDouble::GetParent(PDEVINST parent, DEVINST devinst, ULONG) {
    PnpTreeDouble& self = *s_pCurrent;
    std::lock_guard<std::mutex> guard(self.m_mutex);
    const Node* node = self.NodeOf(devinst);
    if (parent == nullptr) {
        return CR_INVALID_POINTER;
    }
    if (node == nullptr || node->parent < 0) {
        return CR_NO_SUCH_DEVNODE;
    }
    *parent = static_cast<DEVINST>(node->parent + 1);
    return CR_SUCCESS;
}

CONFIGRET WINAPI PnpTreeDouble::GetChild(PDEVINST child, DEVINST devinst, ULONG) {
    PnpTreeDouble& self = *s_pCurrent;
    std::lock_guard<std::mutex> guard(self.m_mutex);
    if (child == nullptr) {
        return CR_INVALID_POINTER;
    }
    for (size_t index = 0; index < self.m_nodes.size(); ++index) {
        if (self.m_nodes[index].parent + 1 == static_cast<int>(devinst) && self.m_nodes[index].present) {
            *child = static_cast<DEVINST>(index + 1);
            return CR_SUCCESS;
        }
    }
    return CR_NO_SUCH_DEVNODE;
}

CONFIGRET WINAPI PnpTreeDouble::GetSibling(PDEVINST sibling, DEVINST devinst, ULONG) {
    PnpTreeDouble& self = *s_pCurrent;
    std::lock_guard<std::mutex> guard(self.m_mutex);
    const Node* node = self.NodeOf(devinst);
    if (sibling == nullptr) {
        return CR_INVALID_POINTER;
    }
    if (node == nullptr) {
        return CR_INVALID_DEVNODE;
    }
    for (size_t index = devinst; index < self.m_nodes.size(); ++index) {
        if (self.m_nodes[index].parent == node->parent && self.m_nodes[index].present) {
            *sibling = static_cast<DEVINST>(index + 1);
            return CR_SUCCESS;
        }
    }
    return CR_NO_SUCH_DEVNODE;
}

CONFIGRET WINAPI PnpTreeDouble::GetRegistryProperty(DEVINST devinst, ULONG property, PULONG type, PVOID buffer,
                                                    PULONG length, ULONG) {
    PnpTreeDouble& self = *s_pCurrent;
    std::lock_guard<std::mutex> guard(self.m_mutex);
    const Node* node = self.NodeOf(devinst);
    if (node == nullptr) {
        return CR_INVALID_DEVNODE;
    }
    if (length == nullptr || property == 0) {
        return CR_INVALID_POINTER;
    }
    const auto found = node->properties.find(property - 1);  // CM_DRP_* is SPDRP_* plus one
    if (found == node->properties.end()) {
        return CR_NO_SUCH_VALUE;
    }
    const ULONG needed = static_cast<ULONG>((found->second.size() + 1) * sizeof(wchar_t));
    if (type != nullptr) {
        *type = REG_SZ;
    }
    if (buffer == nullptr || *length < needed) {
        *length = needed;
        return CR_BUFFER_SMALL;
    }
    memcpy(buffer, found->second.c_str(), needed);
    *length = needed;
    return CR_SUCCESS;
}

void PnpTreeDouble::MarkAbsent(int index, bool present) {
    m_nodes[static_cast<size_t>(index)].present = present;
    for (size_t child = 0; child < m_nodes.size(); ++child) {
        if (m_nodes[child].parent == index) {
            MarkAbsent(static_cast<int>(child), present);
        }
    }
}

CONFIGRET PnpTreeDouble::Leave(DEVINST devinst, std::deque<CONFIGRET>& answers, int& requests) {
    ++requests;
    CONFIGRET answer = CR_SUCCESS;
    if (!answers.empty()) {
        answer = answers.front();
        answers.pop_front();
    }
    if (answer != CR_SUCCESS) {
        return answer;
    }
    const int index = static_cast<int>(devinst) - 1;
    MarkAbsent(index, false);
    // Every node of the subtree that is set to come back is scheduled.
    for (size_t i = 0; i < m_nodes.size(); ++i) {
        if (!m_nodes[i].present && m_nodes[i].comesBackAfterMs != 0) {
            m_comebacks.insert({m_virtualTimeMs + m_nodes[i].comesBackAfterMs, static_cast<int>(i)});
        }
    }
    return CR_SUCCESS;
}

CONFIGRET WINAPI PnpTreeDouble::RequestEject(DEVINST devinst, PPNP_VETO_TYPE vetoType, LPWSTR vetoName, ULONG chars,
                                             ULONG flags) {
    PnpTreeDouble& self = *s_pCurrent;
    std::lock_guard<std::mutex> guard(self.m_mutex);
    Node* node = self.NodeOf(devinst);
    if (node == nullptr) {
        return CR_INVALID_DEVNODE;
    }
    if (flags != 0 || (vetoName != nullptr && chars == 0)) {
        return CR_INVALID_FLAG;
    }
    const CONFIGRET answer = self.Leave(devinst, node->ejectAnswers, node->ejectRequests);
    if (answer == CR_REMOVE_VETOED && vetoType != nullptr) {
        *vetoType = PNP_VetoOutstandingOpen;
    }
    return answer;
}

CONFIGRET WINAPI PnpTreeDouble::QueryAndRemoveSubTree(DEVINST devinst, PPNP_VETO_TYPE vetoType, LPWSTR, ULONG,
                                                      ULONG flags, HMACHINE) {
    PnpTreeDouble& self = *s_pCurrent;
    std::lock_guard<std::mutex> guard(self.m_mutex);
    Node* node = self.NodeOf(devinst);
    if (node == nullptr) {
        return CR_INVALID_DEVNODE;
    }
    if (flags != 0) {
        return CR_INVALID_FLAG;
    }
    const CONFIGRET answer = self.Leave(devinst, node->removeAnswers, node->removeRequests);
    if (answer == CR_REMOVE_VETOED && vetoType != nullptr) {
        *vetoType = PNP_VetoDevice;
    }
    return answer;
}

// --- Devices, volumes, drives ---

HANDLE WINAPI PnpTreeDouble::CreateFile(LPCWSTR path, DWORD, DWORD, LPSECURITY_ATTRIBUTES, DWORD, DWORD, HANDLE) {
    PnpTreeDouble& self = *s_pCurrent;
    std::lock_guard<std::mutex> guard(self.m_mutex);
    HandleTarget target;
    if (path != nullptr && wcslen(path) == 6 && wcsncmp(path, L"\\\\.\\", 4) == 0 && path[5] == L':' &&
        self.m_drives.count(static_cast<wchar_t>(towupper(path[4]))) != 0) {
        target.drive = static_cast<wchar_t>(towupper(path[4]));
    }
    for (size_t index = 0; target.drive == L'\0' && path != nullptr && index < self.m_nodes.size(); ++index) {
        const Node& node = self.m_nodes[index];
        for (const auto& iface : node.interfaces) {
            if (node.present && SameText(iface.second, path)) {
                target.node = static_cast<int>(index);
            }
        }
    }
    if ((target.node < 0 && target.drive == L'\0') || self.Failing("CreateFileW")) {
        SetLastError(ERROR_FILE_NOT_FOUND);
        return INVALID_HANDLE_VALUE;
    }
    const HANDLE handle = reinterpret_cast<HANDLE>(self.m_nextHandle += 4);
    self.m_handles[handle] = target;
    return handle;
}

WINBOOL WINAPI PnpTreeDouble::IoControl(HANDLE handle, DWORD code, LPVOID in, DWORD inSize, LPVOID out,
                                        DWORD outSize, LPDWORD returned, LPOVERLAPPED) {
    PnpTreeDouble& self = *s_pCurrent;
    std::lock_guard<std::mutex> guard(self.m_mutex);
    const auto found = self.m_handles.find(handle);
    if (found == self.m_handles.end() || returned == nullptr) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    *returned = 0;
    const HandleTarget target = found->second;
    const Node* node = target.node >= 0 ? &self.m_nodes[static_cast<size_t>(target.node)] : nullptr;
    const LONG disk = target.drive != L'\0' ? self.m_drives[target.drive] : node->diskNumber;
    const bool isVolume = target.drive != L'\0' || (node != nullptr && IsEqualGUID(node->setupClass, pnp_classes::kVolume));
    const bool isDisk = node != nullptr && IsEqualGUID(node->setupClass, pnp_classes::kDiskDrive);
    switch (code) {
    case IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS: {
        if (!isVolume || disk < 0) {
            break;
        }
        // As the volume manager answers: a buffer smaller than the structure is refused; one that holds the
        // structure but not every extent gets the count and the first extent, with ERROR_MORE_DATA.
        if (out == nullptr || outSize < sizeof(VOLUME_DISK_EXTENTS)) {
            SetLastError(ERROR_INVALID_PARAMETER);
            return FALSE;
        }
        const DWORD count = node != nullptr ? node->diskExtents : 1;
        auto* extents = static_cast<VOLUME_DISK_EXTENTS*>(out);
        const DWORD room = 1 + static_cast<DWORD>((outSize - sizeof(VOLUME_DISK_EXTENTS)) / sizeof(DISK_EXTENT));
        extents->NumberOfDiskExtents = count;
        for (DWORD i = 0; i < count && i < room; ++i) {
            extents->Extents[i].DiskNumber = static_cast<DWORD>(disk) + i;
            extents->Extents[i].StartingOffset.QuadPart = 1024 * 1024;
            extents->Extents[i].ExtentLength.QuadPart = 1024LL * 1024 * 1024;
        }
        if (count > room) {
            *returned = sizeof(VOLUME_DISK_EXTENTS);
            SetLastError(ERROR_MORE_DATA);
            return FALSE;
        }
        *returned = static_cast<DWORD>(sizeof(VOLUME_DISK_EXTENTS) + (count - 1) * sizeof(DISK_EXTENT));
        return TRUE;
    }
    case IOCTL_STORAGE_GET_DEVICE_NUMBER:
        if (!isDisk || disk < 0 || outSize < sizeof(STORAGE_DEVICE_NUMBER)) {
            break;
        }
        {
            auto* number = static_cast<STORAGE_DEVICE_NUMBER*>(out);
            number->DeviceType = FILE_DEVICE_DISK;
            number->DeviceNumber = static_cast<DWORD>(disk);
            number->PartitionNumber = 0;
            *returned = sizeof(STORAGE_DEVICE_NUMBER);
            return TRUE;
        }
    case IOCTL_USB_GET_NODE_INFORMATION:
        if (node == nullptr || node->hubPorts == 0 || outSize < sizeof(USB_NODE_INFORMATION)) {
            break;
        }
        {
            auto* info = static_cast<USB_NODE_INFORMATION*>(out);
            info->NodeType = UsbHub;
            info->u.HubInformation.HubDescriptor.bNumberOfPorts = static_cast<UCHAR>(node->hubPorts);
            *returned = sizeof(USB_NODE_INFORMATION);
            return TRUE;
        }
    case IOCTL_USB_GET_NODE_CONNECTION_INFORMATION:
        if (node == nullptr || node->hubPorts == 0 || in == nullptr || inSize < sizeof(ULONG) ||
            outSize < sizeof(USB_NODE_CONNECTION_INFORMATION)) {
            break;
        }
        {
            const ULONG port = *static_cast<const ULONG*>(in);
            auto* info = static_cast<USB_NODE_CONNECTION_INFORMATION*>(out);
            info->ConnectionIndex = port;
            info->ConnectionStatus = NoDeviceConnected;
            for (const Node& child : self.m_nodes) {
                if (child.parent == target.node && child.port == static_cast<int>(port) && child.present) {
                    info->ConnectionStatus = DeviceConnected;
                    info->NumberOfOpenPipes = 3;
                    info->DeviceDescriptor.iManufacturer = 1;
                }
            }
            *returned = offsetof(USB_NODE_CONNECTION_INFORMATION, PipeList);
            return TRUE;
        }
    default:
        break;
    }
    SetLastError(ERROR_INVALID_FUNCTION);
    return FALSE;
}

WINBOOL WINAPI PnpTreeDouble::Close(HANDLE handle) {
    PnpTreeDouble& self = *s_pCurrent;
    std::lock_guard<std::mutex> guard(self.m_mutex);
    if (self.m_handles.erase(handle) == 0) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    return TRUE;
}

DWORD WINAPI PnpTreeDouble::LogicalDriveStrings(DWORD chars, LPWSTR buffer) {
    PnpTreeDouble& self = *s_pCurrent;
    std::lock_guard<std::mutex> guard(self.m_mutex);
    if (self.Failing("GetLogicalDriveStringsW")) {
        // Zero and the reason in the last error; Windows names no particular reason.
        SetLastError(ERROR_ACCESS_DENIED);
        return 0;
    }
    std::wstring list;
    for (const auto& drive : self.m_drives) {
        list += drive.first;
        list += L":\\";
        list += L'\0';
    }
    if (list.size() + 1 > chars || buffer == nullptr) {
        return static_cast<DWORD>(list.size() + 1);
    }
    memcpy(buffer, list.c_str(), (list.size() + 1) * sizeof(wchar_t));
    return static_cast<DWORD>(list.size());
}

void WINAPI PnpTreeDouble::Pause(DWORD milliseconds) {
    PnpTreeDouble& self = *s_pCurrent;
    std::vector<int> returning;
    {
        std::lock_guard<std::mutex> guard(self.m_mutex);
        self.m_virtualTimeMs += milliseconds;
        while (!self.m_comebacks.empty() && self.m_comebacks.begin()->first <= self.m_virtualTimeMs) {
            const int index = self.m_comebacks.begin()->second;
            self.m_comebacks.erase(self.m_comebacks.begin());
            self.MarkAbsent(index, true);
            returning.push_back(index);
        }
    }
    for (int index : returning) {
        if (self.onComeBack) {
            self.onComeBack(index);
        }
    }
}
