#include "emulated_device.h"

#include <algorithm>
#include <condition_variable>
#include <cwctype>

#include "collections.h"
#include "emulator_state.h"
#include "event_relay.h"
#include "file_tree.h"
#include "text.h"

namespace dorwex::emulator {

namespace {

constexpr wchar_t kTemporaryPrefix[] = L".~dorwex";  // files of writes not yet committed

// Keys a description may set on the device root object, with their types.
struct NamedKey {
    const char* name;
    const PROPERTYKEY* key;
    VARTYPE type;
};
const NamedKey kDeviceKeys[] = {
    {"WPD_OBJECT_ID", &WPD_OBJECT_ID, VT_LPWSTR},
    {"WPD_OBJECT_NAME", &WPD_OBJECT_NAME, VT_LPWSTR},
    {"WPD_DEVICE_SYNC_PARTNER", &WPD_DEVICE_SYNC_PARTNER, VT_LPWSTR},
    {"WPD_DEVICE_FIRMWARE_VERSION", &WPD_DEVICE_FIRMWARE_VERSION, VT_LPWSTR},
    {"WPD_DEVICE_POWER_LEVEL", &WPD_DEVICE_POWER_LEVEL, VT_UI4},
    {"WPD_DEVICE_POWER_SOURCE", &WPD_DEVICE_POWER_SOURCE, VT_UI4},
    {"WPD_DEVICE_PROTOCOL", &WPD_DEVICE_PROTOCOL, VT_LPWSTR},
    {"WPD_DEVICE_MANUFACTURER", &WPD_DEVICE_MANUFACTURER, VT_LPWSTR},
    {"WPD_DEVICE_MODEL", &WPD_DEVICE_MODEL, VT_LPWSTR},
    {"WPD_DEVICE_SERIAL_NUMBER", &WPD_DEVICE_SERIAL_NUMBER, VT_LPWSTR},
    {"WPD_DEVICE_FRIENDLY_NAME", &WPD_DEVICE_FRIENDLY_NAME, VT_LPWSTR},
    {"WPD_DEVICE_TYPE", &WPD_DEVICE_TYPE, VT_UI4},
    {"WPD_DEVICE_NETWORK_IDENTIFIER", &WPD_DEVICE_NETWORK_IDENTIFIER, VT_UI8},
};

bool IsAbsolute(const std::wstring& path) {
    return (path.size() > 1 && path[1] == L':') || path.rfind(L"\\\\", 0) == 0 || path.rfind(L"/", 0) == 0;
}

std::wstring FileName(const std::wstring& path) {
    const auto slash = path.find_last_of(L"\\/");
    return slash == std::wstring::npos ? path : path.substr(slash + 1);
}

std::wstring ParentPath(const std::wstring& path) {
    const auto slash = path.find_last_of(L"\\/");
    return slash == std::wstring::npos ? std::wstring() : path.substr(0, slash);
}

// A values set that collects an object's properties before the requested ones are picked out.
class PropertySet {
public:
    explicit PropertySet(IPortableDeviceValues* values) : m_values(values) {}
    void String(const PROPERTYKEY& key, const std::wstring& text) { m_values->SetStringValue(key, text.c_str()); }
    void Guid(const PROPERTYKEY& key, const GUID& guid) { m_values->SetGuidValue(key, guid); }
    void UInt32(const PROPERTYKEY& key, ULONG value) { m_values->SetUnsignedIntegerValue(key, value); }
    void UInt64(const PROPERTYKEY& key, ULONGLONG value) { m_values->SetUnsignedLargeIntegerValue(key, value); }
    void Bool(const PROPERTYKEY& key, bool value) { m_values->SetBoolValue(key, value ? TRUE : FALSE); }

private:
    IPortableDeviceValues* m_values;
};

struct EventDelivery {
    IPortableDeviceEventCallback* callback;
    IPortableDeviceValues* parameters;
};

void CALLBACK DeliverEvent(PTP_CALLBACK_INSTANCE, void* context) {
    auto* delivery = static_cast<EventDelivery*>(context);
    const HRESULT init = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    delivery->callback->OnEvent(delivery->parameters);
    EmulatorState::Get().HoldCallback();
    delivery->callback->Release();
    delivery->parameters->Release();
    if (SUCCEEDED(init)) {
        CoUninitialize();
    }
    delete delivery;
    EmulatorState::Get().EventDelivered();
}

}  // namespace

// --- EmulatedDevice -------------------------------------------------------------------------------

EmulatedDevice::EmulatedDevice(DeviceDescription description, std::wstring baseDirectory)
    : m_description(std::move(description)),
      m_baseDirectory(std::move(baseDirectory)),
      m_id(Widen(m_description.id)),
      m_manufacturer(Widen(m_description.manufacturer)),
      m_friendlyName(Widen(m_description.friendlyName)),
      m_descriptionText(Widen(m_description.description)) {}

HRESULT EmulatedDevice::Fault(const char* call) {
    std::lock_guard<std::mutex> guard(m_lock);
    ++m_calls[call];
    const auto set = m_setFaults.find(call);
    if (set != m_setFaults.end()) {
        if (set->second.second == 0) {
            return S_OK;
        }
        if (set->second.second > 0) {
            --set->second.second;
        }
        return set->second.first;
    }
    const auto fault = m_description.faults.find(call);
    if (fault == m_description.faults.end()) {
        return S_OK;
    }
    if (fault->second.count >= 0) {
        std::int64_t& used = m_faultsUsed[call];
        if (used >= fault->second.count) {
            return S_OK;
        }
        ++used;
    }
    return static_cast<HRESULT>(fault->second.hresult);
}

void EmulatedDevice::SetFault(const std::string& call, HRESULT result, std::int64_t count) {
    std::lock_guard<std::mutex> guard(m_lock);
    m_setFaults[call] = {result, count};
}

void EmulatedDevice::SetStreamEnd(ULONGLONG bytes) {
    std::lock_guard<std::mutex> guard(m_lock);
    m_streamEnd = bytes;
}

ULONGLONG EmulatedDevice::StreamEnd() {
    std::lock_guard<std::mutex> guard(m_lock);
    return m_streamEnd;
}

void EmulatedDevice::Request() {
    {
        std::lock_guard<std::mutex> guard(m_lock);
        ++m_requests;
    }
    Spend(m_description.latencyMicroseconds);
}

void EmulatedDevice::Carry(std::uint64_t objects, std::uint64_t bytes) {
    const std::uint64_t rate = m_description.transferMegabytesPerSecond;  // bytes per microsecond
    Spend(objects * m_description.objectCostMicroseconds + (rate != 0 ? bytes / rate : 0));
}

void EmulatedDevice::Spend(std::uint64_t microseconds) {
    if (microseconds == 0) {
        return;
    }
    // The device's answer takes this long: whole milliseconds asleep, the rest on the clock.
    LARGE_INTEGER frequency{}, now{};
    QueryPerformanceFrequency(&frequency);
    QueryPerformanceCounter(&now);
    const LONGLONG deadline = now.QuadPart + frequency.QuadPart * static_cast<LONGLONG>(microseconds) / 1000000;
    for (;;) {
        QueryPerformanceCounter(&now);
        const LONGLONG left = deadline - now.QuadPart;
        if (left <= 0) {
            return;
        }
        const LONGLONG milliseconds = left * 1000 / frequency.QuadPart;
        if (milliseconds > 0) {
            Sleep(static_cast<DWORD>(milliseconds));
        } else {
            SwitchToThread();
        }
    }
}

ULONG EmulatedDevice::Requests(bool reset) {
    std::lock_guard<std::mutex> guard(m_lock);
    const ULONG requests = m_requests;
    if (reset) {
        m_requests = 0;
    }
    return requests;
}

void EmulatedDevice::CountCall(const char* call) {
    std::lock_guard<std::mutex> guard(m_lock);
    ++m_calls[call];
}

ULONG EmulatedDevice::CallCount(const std::string& call) {
    std::lock_guard<std::mutex> guard(m_lock);
    const auto it = m_calls.find(call);
    return it == m_calls.end() ? 0 : it->second;
}

std::wstring EmulatedDevice::StoragePath(int storage) const {
    const std::wstring directory = Widen(m_description.storages[static_cast<size_t>(storage)].directory);
    return IsAbsolute(directory) ? directory : m_baseDirectory + L"\\" + directory;
}

std::wstring EmulatedDevice::IdForPath(int storage, const std::wstring& path) {
    std::lock_guard<std::mutex> guard(m_lock);
    const std::wstring key = std::to_wstring(storage) + L"|" + LowerCase(path);
    const auto it = m_ids.find(key);
    if (it != m_ids.end()) {
        return it->second;
    }
    wchar_t id[16];
    swprintf(id, 16, L"o%X", m_nextObject++);
    m_ids[key] = id;
    m_objects[id] = {storage, path};
    return id;
}

void EmulatedDevice::Forget(const std::wstring& objectId) {
    std::lock_guard<std::mutex> guard(m_lock);
    const auto it = m_objects.find(objectId);
    if (it == m_objects.end()) {
        return;
    }
    m_ids.erase(std::to_wstring(it->second.first) + L"|" + LowerCase(it->second.second));
    m_objects.erase(it);
}

HRESULT EmulatedDevice::ChangeByOtherClient(int storage, const std::wstring& from, const std::wstring& to) {
    if (storage < 0 || static_cast<size_t>(storage) >= m_description.storages.size() || from.empty()) {
        return E_INVALIDARG;
    }
    const std::wstring root = StoragePath(storage);
    const std::wstring source = root + L"\\" + from;
    IdForPath(storage, source);  // an object nobody asked about yet has its id all the same
    const std::wstring target = to.empty() ? std::wstring() : root + L"\\" + to;
    const auto remove = [&source] {
        const DWORD attributes = GetFileAttributesW(source.c_str());
        return attributes != INVALID_FILE_ATTRIBUTES &&
               ((attributes & FILE_ATTRIBUTE_DIRECTORY) ? RemoveTree(source) : DeleteFileW(source.c_str()) != 0);
    };
    if (target.empty() ? !remove() : !MoveFileExW(source.c_str(), target.c_str(), 0)) {
        return HRESULT_FROM_WIN32(GetLastError());
    }
    std::lock_guard<std::mutex> guard(m_lock);
    const std::wstring prefix = std::to_wstring(storage) + L"|" + LowerCase(source);
    std::vector<std::pair<std::wstring, std::wstring>> moved;  // id -> the path it had
    for (auto it = m_ids.begin(); it != m_ids.end();) {
        const bool inside = it->first == prefix || it->first.rfind(prefix + L"\\", 0) == 0;
        if (!inside) {
            ++it;
            continue;
        }
        moved.emplace_back(it->second, m_objects[it->second].second);
        it = m_ids.erase(it);
    }
    for (const auto& [id, path] : moved) {
        if (target.empty()) {
            m_objects.erase(id);
            continue;
        }
        const std::wstring now = target + path.substr(source.size());
        m_objects[id] = {storage, now};
        m_ids[std::to_wstring(storage) + L"|" + LowerCase(now)] = id;
    }
    return S_OK;
}

HRESULT EmulatedDevice::Lookup(const std::wstring& objectId, ObjectInfo& object, bool withRelations) {
    object = ObjectInfo{};
    object.id = objectId;
    if (objectId == WPD_DEVICE_OBJECT_ID) {
        object.kind = ObjectKind::DeviceRoot;
        object.name = m_friendlyName;
        object.persistentUniqueId = objectId;
        return S_OK;
    }
    for (size_t i = 0; i < m_description.storages.size(); ++i) {
        const StorageDescription& storage = m_description.storages[i];
        if (Widen(storage.objectId) == objectId) {
            object.kind = ObjectKind::Storage;
            object.parentId = WPD_DEVICE_OBJECT_ID;
            object.name = Widen(storage.name);
            object.path = StoragePath(static_cast<int>(i));
            object.persistentUniqueId =
                storage.persistentUniqueId.empty() ? objectId : Widen(storage.persistentUniqueId);
            object.storage = static_cast<int>(i);
            return S_OK;
        }
    }
    std::pair<int, std::wstring> location;
    {
        std::lock_guard<std::mutex> guard(m_lock);
        const auto it = m_objects.find(objectId);
        if (it == m_objects.end()) {
            return kNotFound;
        }
        location = it->second;
    }
    WIN32_FILE_ATTRIBUTE_DATA attributes{};
    if (!GetFileAttributesExW(location.second.c_str(), GetFileExInfoStandard, &attributes)) {
        return kNotFound;  // removed behind the device's back
    }
    object.kind = (attributes.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) ? ObjectKind::Folder : ObjectKind::File;
    object.path = location.second;
    object.name = FileName(location.second);
    object.storage = location.first;
    object.size = (static_cast<ULONGLONG>(attributes.nFileSizeHigh) << 32) | attributes.nFileSizeLow;
    if (withRelations) {
        Relate(object);
    }
    return S_OK;
}

void EmulatedDevice::Relate(ObjectInfo& object) {
    const std::wstring storageRoot = StoragePath(object.storage);
    const std::wstring parent = ParentPath(object.path);
    const StorageDescription& storage = m_description.storages[static_cast<size_t>(object.storage)];
    object.parentId =
        LowerCase(parent) == LowerCase(storageRoot) ? Widen(storage.objectId) : IdForPath(object.storage, parent);
    const std::wstring relative = object.path.substr(std::min(object.path.size(), storageRoot.size()));
    object.persistentUniqueId =
        (storage.persistentUniqueId.empty() ? Widen(storage.objectId) : Widen(storage.persistentUniqueId)) +
        relative;
}

std::vector<std::wstring> EmulatedDevice::Children(const std::wstring& parentId) {
    std::vector<std::wstring> children;
    ObjectInfo parent;
    if (FAILED(Lookup(parentId, parent))) {
        return children;
    }
    if (parent.kind == ObjectKind::DeviceRoot) {
        for (const auto& storage : m_description.storages) {
            children.push_back(Widen(storage.objectId));
        }
        return children;
    }
    if (parent.kind == ObjectKind::File) {
        return children;
    }
    std::vector<std::wstring> names;
    WIN32_FIND_DATAW found{};
    HANDLE search = FindFirstFileW((parent.path + L"\\*").c_str(), &found);
    if (search == INVALID_HANDLE_VALUE) {
        return children;
    }
    do {
        const std::wstring name = found.cFileName;
        if (name != L"." && name != L".." && name.rfind(kTemporaryPrefix, 0) != 0) {
            names.push_back(name);
        }
    } while (FindNextFileW(search, &found));
    FindClose(search);
    std::sort(names.begin(), names.end());
    for (const auto& name : names) {
        children.push_back(IdForPath(parent.storage, parent.path + L"\\" + name));
    }
    return children;
}

HRESULT EmulatedDevice::ReadProperties(const std::wstring& objectId, IPortableDeviceKeyCollection* keys,
                                       IPortableDeviceValues* values) {
    // Parent and persistent unique id cost a walk of the id table; most reads do not want them.
    bool withRelations = keys == nullptr;
    if (keys != nullptr) {
        DWORD count = 0;
        keys->GetCount(&count);
        for (DWORD i = 0; i < count && !withRelations; ++i) {
            PROPERTYKEY key{};
            keys->GetAt(i, &key);
            withRelations = key.fmtid == WPD_OBJECT_PARENT_ID.fmtid &&
                            (key.pid == WPD_OBJECT_PARENT_ID.pid || key.pid == WPD_OBJECT_PERSISTENT_UNIQUE_ID.pid);
        }
    }
    ObjectInfo object;
    HRESULT hr = Lookup(objectId, object, withRelations);
    if (FAILED(hr)) {
        return hr;
    }
    PortableDeviceValues* all = new (std::nothrow) PortableDeviceValues();
    if (all == nullptr) {
        return E_OUTOFMEMORY;
    }
    PropertySet set(all);
    set.String(WPD_OBJECT_ID, object.id);
    if (withRelations) {
        set.String(WPD_OBJECT_PERSISTENT_UNIQUE_ID, object.persistentUniqueId);
        set.String(WPD_OBJECT_PARENT_ID, object.parentId);
    }
    switch (object.kind) {
    case ObjectKind::DeviceRoot:
        set.String(WPD_OBJECT_NAME, object.name);
        set.Guid(WPD_OBJECT_CONTENT_TYPE, WPD_CONTENT_TYPE_FUNCTIONAL_OBJECT);
        set.Guid(WPD_FUNCTIONAL_OBJECT_CATEGORY, WPD_FUNCTIONAL_CATEGORY_DEVICE);
        for (const auto& named : kDeviceKeys) {
            const auto it = m_description.properties.find(named.name);
            if (it == m_description.properties.end()) {
                continue;
            }
            if (named.type == VT_LPWSTR) {
                set.String(*named.key, Widen(it->second));
            } else if (named.type == VT_UI4) {
                set.UInt32(*named.key, std::stoul(it->second, nullptr, 0));
            } else {
                set.UInt64(*named.key, std::stoull(it->second, nullptr, 0));
            }
        }
        break;
    case ObjectKind::Storage: {
        const StorageDescription& storage = m_description.storages[static_cast<size_t>(object.storage)];
        set.String(WPD_OBJECT_NAME, object.name);
        set.Guid(WPD_OBJECT_CONTENT_TYPE, WPD_CONTENT_TYPE_FUNCTIONAL_OBJECT);
        set.Guid(WPD_OBJECT_FORMAT, WPD_OBJECT_FORMAT_UNSPECIFIED);
        set.Guid(WPD_FUNCTIONAL_OBJECT_CATEGORY, WPD_FUNCTIONAL_CATEGORY_STORAGE);
        set.String(WPD_STORAGE_DESCRIPTION, Widen(storage.description));
        set.String(WPD_STORAGE_SERIAL_NUMBER, object.persistentUniqueId);
        set.String(WPD_STORAGE_FILE_SYSTEM_TYPE, L"FAT32");
        set.UInt32(WPD_STORAGE_TYPE, 3);               // WPD_STORAGE_TYPE_FIXED_RAM
        set.UInt32(WPD_STORAGE_ACCESS_CAPABILITY, 0);  // read and write
        ULARGE_INTEGER freeBytes{}, totalBytes{};
        if (GetDiskFreeSpaceExW(object.path.c_str(), &freeBytes, &totalBytes, nullptr)) {
            set.UInt64(WPD_STORAGE_CAPACITY, totalBytes.QuadPart);
            set.UInt64(WPD_STORAGE_FREE_SPACE_IN_BYTES, freeBytes.QuadPart);
        }
        break;
    }
    case ObjectKind::Folder:
    case ObjectKind::File: {
        const bool folder = object.kind == ObjectKind::Folder;
        set.String(WPD_OBJECT_NAME, object.name);
        set.String(WPD_OBJECT_ORIGINAL_FILE_NAME, object.name);
        set.Guid(WPD_OBJECT_CONTENT_TYPE, folder ? WPD_CONTENT_TYPE_FOLDER : WPD_CONTENT_TYPE_GENERIC_FILE);
        set.Guid(WPD_OBJECT_FORMAT, folder ? WPD_OBJECT_FORMAT_PROPERTIES_ONLY : WPD_OBJECT_FORMAT_UNSPECIFIED);
        set.Bool(WPD_OBJECT_ISHIDDEN, false);
        set.Bool(WPD_OBJECT_ISSYSTEM, false);
        if (!folder) {
            set.UInt64(WPD_OBJECT_SIZE, object.size);
        }
        break;
    }
    }

    // Requested keys the object lacks come back as VT_ERROR entries and make the call S_FALSE.
    hr = S_OK;
    DWORD count = 0;
    if (keys == nullptr) {
        all->GetCount(&count);
        for (DWORD i = 0; i < count; ++i) {
            PROPERTYKEY key{};
            PROPVARIANT value;
            PropVariantInit(&value);
            all->GetAt(i, &key, &value);
            values->SetValue(key, &value);
            PropVariantClear(&value);
        }
    } else {
        keys->GetCount(&count);
        for (DWORD i = 0; i < count; ++i) {
            PROPERTYKEY key{};
            keys->GetAt(i, &key);
            PROPVARIANT value;
            PropVariantInit(&value);
            if (SUCCEEDED(all->GetValue(key, &value))) {
                values->SetValue(key, &value);
            } else {
                values->SetErrorValue(key, HRESULT_FROM_WIN32(ERROR_NOT_SUPPORTED));
                hr = S_FALSE;
            }
            PropVariantClear(&value);
        }
    }
    all->Release();
    return hr;
}

std::wstring EmulatedDevice::Advise(IPortableDeviceEventCallback* callback, const void* session) {
    ListenToOtherProcesses(m_baseDirectory);
    std::lock_guard<std::mutex> guard(m_lock);
    wchar_t cookie[40];
    swprintf(cookie, 40, L"{EMULATED-COOKIE-%u}", m_nextCookie++);
    callback->AddRef();
    m_subscriptions[cookie] = {callback, session};
    return cookie;
}

bool EmulatedDevice::Unadvise(const std::wstring& cookie) {
    IPortableDeviceEventCallback* callback = nullptr;
    {
        std::lock_guard<std::mutex> guard(m_lock);
        const auto it = m_subscriptions.find(cookie);
        if (it == m_subscriptions.end()) {
            return false;
        }
        callback = it->second.callback;
        m_subscriptions.erase(it);
    }
    callback->Release();
    return true;
}

void EmulatedDevice::UnadviseSession(const void* session) {
    std::vector<IPortableDeviceEventCallback*> released;
    {
        std::lock_guard<std::mutex> guard(m_lock);
        for (auto it = m_subscriptions.begin(); it != m_subscriptions.end();) {
            if (it->second.session == session) {
                released.push_back(it->second.callback);
                it = m_subscriptions.erase(it);
            } else {
                ++it;
            }
        }
    }
    for (auto* callback : released) {
        callback->Release();
    }
}

size_t EmulatedDevice::SubscriptionCount() {
    std::lock_guard<std::mutex> guard(m_lock);
    return m_subscriptions.size();
}

void EmulatedDevice::RaiseEvent(REFGUID event, const ObjectInfo* object) {
    std::vector<IPortableDeviceEventCallback*> callbacks;
    {
        std::lock_guard<std::mutex> guard(m_lock);
        for (const auto& subscription : m_subscriptions) {
            subscription.second.callback->AddRef();
            callbacks.push_back(subscription.second.callback);
        }
    }
    for (auto* callback : callbacks) {
        // Each callback gets its own parameter set, as each client process does on Windows.
        PortableDeviceValues* parameters = new (std::nothrow) PortableDeviceValues();
        auto* delivery = parameters != nullptr ? new (std::nothrow) EventDelivery{callback, parameters} : nullptr;
        if (delivery == nullptr) {
            if (parameters != nullptr) {
                parameters->Release();
            }
            callback->Release();
            continue;
        }
        PropertySet set(parameters);
        set.Guid(WPD_EVENT_PARAMETER_EVENT_ID, event);
        set.String(WPD_EVENT_PARAMETER_PNP_DEVICE_ID, m_id);
        if (object != nullptr && m_description.minimalDriver) {
            // What every driver must send: the event, the device and which object (by its persistent id).
            set.String(WPD_OBJECT_PERSISTENT_UNIQUE_ID, object->persistentUniqueId);
        } else if (object != nullptr) {
            set.String(WPD_OBJECT_ID, object->id);
            set.String(WPD_OBJECT_NAME, object->name);
            set.String(WPD_OBJECT_PARENT_ID, object->parentId);
            set.String(WPD_OBJECT_PERSISTENT_UNIQUE_ID, object->persistentUniqueId);
            if (object->kind == ObjectKind::File || object->kind == ObjectKind::Folder) {
                set.String(WPD_OBJECT_ORIGINAL_FILE_NAME, object->name);
            }
            set.Guid(WPD_OBJECT_CONTENT_TYPE, object->kind == ObjectKind::Folder ? WPD_CONTENT_TYPE_FOLDER
                                              : object->kind == ObjectKind::File ? WPD_CONTENT_TYPE_GENERIC_FILE
                                                                                 : WPD_CONTENT_TYPE_FUNCTIONAL_OBJECT);
        }
        EmulatorState::Get().EventQueued();
        if (!TrySubmitThreadpoolCallback(DeliverEvent, delivery, nullptr)) {
            DeliverEvent(nullptr, delivery);
        }
    }
}

void EmulatedDevice::SessionOpened(const std::wstring& clientSummary) {
    std::lock_guard<std::mutex> guard(m_lock);
    ++m_openSessions;
    m_lastClient = clientSummary;
}

void EmulatedDevice::SessionClosed() {
    std::lock_guard<std::mutex> guard(m_lock);
    --m_openSessions;
}

long EmulatedDevice::OpenSessions() {
    std::lock_guard<std::mutex> guard(m_lock);
    return m_openSessions;
}

std::wstring EmulatedDevice::LastClient() {
    std::lock_guard<std::mutex> guard(m_lock);
    return m_lastClient;
}

std::wstring EmulatedDevice::DevicePropertyText(const std::string& name) {
    const auto it = m_description.registry.find(name);
    return it == m_description.registry.end() ? std::wstring() : Widen(it->second);
}

}  // namespace dorwex::emulator
