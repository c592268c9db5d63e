#include "properties_bulk.h"

#include <algorithm>
#include <atomic>
#include <cstring>

#include "collections.h"
#include "device_session.h"
#include "emulated_api.h"
#include "emulator_state.h"

namespace dorwex::emulator {

namespace {

// Objects per result set handed to OnProgress.
constexpr size_t kBatch = 128;
// No page names the status of a cancelled operation; this one is the stand-in's choice.
constexpr HRESULT kCancelled = HRESULT_FROM_WIN32(ERROR_CANCELLED);

bool SameGuid(const GUID& a, const GUID& b) {
    return std::memcmp(&a, &b, sizeof(GUID)) == 0;
}

}  // namespace

struct BulkPropertyReads::Operation {
    ~Operation() {
        if (callback != nullptr) {
            callback->Release();
        }
    }

    GUID context{};
    std::shared_ptr<DeviceSession> session;
    IPortableDevicePropertiesBulkCallback* callback = nullptr;  // one reference
    bool allKeys = true;
    std::vector<PROPERTYKEY> keys;
    // By list: the ids. By format: the format, the parent and the depth below it.
    bool byFormat = false;
    std::vector<std::wstring> ids;
    GUID format{};
    std::wstring parentId;
    DWORD depth = 0;
    bool started = false;
    std::atomic<bool> cancelled{false};
    std::atomic<bool> finished{false};
};

namespace {

// The format an object reports (WPD_OBJECT_FORMAT); the device root reports none.
bool FormatMatches(EmulatedDevice& device, const std::wstring& id, const GUID& format) {
    if (SameGuid(format, WPD_OBJECT_FORMAT_ALL)) {
        return true;
    }
    ObjectInfo object;
    if (FAILED(device.Lookup(id, object, false))) {
        return false;
    }
    switch (object.kind) {
    case ObjectKind::Folder:
        return SameGuid(format, WPD_OBJECT_FORMAT_PROPERTIES_ONLY);
    case ObjectKind::File:
    case ObjectKind::Storage:
        return SameGuid(format, WPD_OBJECT_FORMAT_UNSPECIFIED);
    default:
        return false;
    }
}

// The objects a by-format operation covers. Below an ordinary parent, depth 1 means its children only;
// with WPD_DEVICE_OBJECT_ID the device itself counts too, and with an empty parent depth 1 is the device
// alone ("QueueGetValuesByObjectFormat", Remarks).
HRESULT CollectByFormat(EmulatedDevice& device, const BulkPropertyReads::Operation& operation,
                        std::vector<std::wstring>& ids_out) {
    std::wstring parent = operation.parentId;
    DWORD depth = operation.depth;
    if (parent.empty()) {
        if (depth == 0) {
            return S_OK;
        }
        parent = WPD_DEVICE_OBJECT_ID;
        --depth;
    }
    ObjectInfo root;
    const HRESULT hr = device.Lookup(parent, root, false);
    if (FAILED(hr)) {
        return hr;
    }
    if (parent == WPD_DEVICE_OBJECT_ID && FormatMatches(device, parent, operation.format)) {
        ids_out.push_back(parent);
    }
    std::vector<std::wstring> level{parent};
    for (DWORD d = 0; d < depth && !level.empty(); ++d) {
        std::vector<std::wstring> next;
        for (const auto& id : level) {
            for (auto& child : device.Children(id)) {
                if (FormatMatches(device, child, operation.format)) {
                    ids_out.push_back(child);
                }
                next.push_back(std::move(child));
            }
        }
        level.swap(next);
    }
    return S_OK;
}

// The values of one object for the given keys (all of them when keys is null), with its WPD_OBJECT_ID.
IPortableDeviceValues* ValuesOf(EmulatedDevice& device, const std::wstring& id, IPortableDeviceKeyCollection* keys,
                                const std::vector<PROPERTYKEY>& keyList) {
    auto* values = new (std::nothrow) PortableDeviceValues();
    if (values == nullptr) {
        return nullptr;
    }
    values->SetStringValue(WPD_OBJECT_ID, id.c_str());
    const HRESULT hr = device.ReadProperties(id, keys, values);
    if (FAILED(hr)) {
        for (const auto& key : keyList) {
            values->SetErrorValue(key, hr);  // an object that is gone: each key says why
        }
    }
    return values;
}

void Run(BulkPropertyReads::Operation& operation) {
    const DeviceSession& session = *operation.session;
    EmulatedDevice& device = session.Device();
    IPortableDevicePropertiesBulkCallback* callback = operation.callback;
    const GUID& context = operation.context;
    callback->OnStart(context);
    std::vector<std::wstring> ids;
    HRESULT hr = session.DeviceCall("BulkProperties");  // the whole operation is one request to the device
    if (SUCCEEDED(hr)) {
        if (operation.byFormat) {
            hr = CollectByFormat(device, operation, ids);
        } else {
            ids = operation.ids;
        }
    }
    // Parts of the key list: the first key alone, then the rest, so that an object's values arrive in two
    // result sets; all keys at once when there is only one or the caller asked for all.
    std::vector<std::vector<PROPERTYKEY>> parts;
    if (operation.allKeys || operation.keys.size() < 2) {
        parts.push_back(operation.keys);
    } else {
        parts.emplace_back(operation.keys.begin(), operation.keys.begin() + 1);
        parts.emplace_back(operation.keys.begin() + 1, operation.keys.end());
    }
    std::vector<IPortableDeviceKeyCollection*> partKeys;
    for (const auto& part : parts) {
        PortableDeviceKeyCollection* keys = nullptr;
        if (!operation.allKeys && (keys = new (std::nothrow) PortableDeviceKeyCollection()) != nullptr) {
            for (const auto& key : part) {
                keys->Add(key);
            }
        }
        partKeys.push_back(keys);
    }
    // Batches from the last to the first: the results are not in enumeration order.
    const size_t batches = (ids.size() + kBatch - 1) / kBatch;
    for (size_t b = batches; SUCCEEDED(hr) && b-- > 0;) {
        for (size_t p = 0; SUCCEEDED(hr) && p < parts.size(); ++p) {
            if (operation.cancelled) {
                hr = kCancelled;
                break;
            }
            hr = session.Reachable();  // a closed session or a device gone ends the operation
            if (FAILED(hr)) {
                break;
            }
            if (p == 0) {  // the device's property list answer costs its share for each object of the batch
                device.Carry(std::min(ids.size(), (b + 1) * kBatch) - b * kBatch, 0);
            }
            auto* results = new (std::nothrow) PortableDeviceValuesCollection();
            if (results == nullptr) {
                hr = E_OUTOFMEMORY;
                break;
            }
            for (size_t i = b * kBatch; i < std::min(ids.size(), (b + 1) * kBatch); ++i) {
                IPortableDeviceValues* values = ValuesOf(device, ids[i], partKeys[p], parts[p]);
                if (values != nullptr) {
                    results->Add(values);
                    values->Release();
                }
            }
            // A callback that answers an error abandons the operation; OnEnd carries that error.
            const HRESULT answer = callback->OnProgress(context, results);
            results->Release();
            if (FAILED(answer)) {
                hr = answer;
            }
        }
    }
    for (auto* keys : partKeys) {
        if (keys != nullptr) {
            keys->Release();
        }
    }
    callback->OnEnd(context, hr);
}

void CALLBACK RunOnPool(PTP_CALLBACK_INSTANCE, void* context) {
    auto* operation = static_cast<std::shared_ptr<BulkPropertyReads::Operation>*>(context);
    const HRESULT init = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    Run(**operation);
    EmulatorState::Get().HoldCallback();
    (*operation)->callback->Release();  // the caller's callback is not kept past OnEnd
    (*operation)->callback = nullptr;
    (*operation)->finished = true;
    if (SUCCEEDED(init)) {
        CoUninitialize();
    }
    delete operation;
    EmulatorState::Get().EventDelivered();
}

}  // namespace

BulkPropertyReads::BulkPropertyReads(std::shared_ptr<DeviceSession> session) : m_session(std::move(session)) {}

BulkPropertyReads::~BulkPropertyReads() = default;

HRESULT BulkPropertyReads::Queue(std::shared_ptr<Operation> operation, IPortableDeviceKeyCollection* keys,
                                 IPortableDevicePropertiesBulkCallback* callback, GUID* context_out) {
    if (callback == nullptr || context_out == nullptr) {
        return E_POINTER;
    }
    *context_out = GUID_NULL;
    operation->session = m_session;
    operation->allKeys = keys == nullptr;
    if (keys != nullptr) {
        DWORD count = 0;
        keys->GetCount(&count);
        for (DWORD i = 0; i < count; ++i) {
            PROPERTYKEY key{};
            if (SUCCEEDED(keys->GetAt(i, &key))) {
                operation->keys.push_back(key);
            }
        }
    }
    const HRESULT hr = CoCreateGuid(&operation->context);
    if (FAILED(hr)) {
        return hr;
    }
    callback->AddRef();
    operation->callback = callback;
    *context_out = operation->context;
    std::lock_guard<std::mutex> guard(m_lock);
    m_operations.erase(std::remove_if(m_operations.begin(), m_operations.end(),
                                      [](const std::shared_ptr<Operation>& o) { return o->finished.load(); }),
                       m_operations.end());
    m_operations.push_back(std::move(operation));
    return S_OK;
}

HRESULT BulkPropertyReads::QueueByObjectList(IPortableDevicePropVariantCollection* objectIds,
                                             IPortableDeviceKeyCollection* keys,
                                             IPortableDevicePropertiesBulkCallback* callback, GUID* context_out) {
    if (objectIds == nullptr) {
        return E_POINTER;
    }
    const HRESULT hr = m_session->Attached();
    if (FAILED(hr)) {
        return hr;
    }
    auto operation = std::make_shared<Operation>();
    DWORD count = 0;
    objectIds->GetCount(&count);
    for (DWORD i = 0; i < count; ++i) {
        PROPVARIANT id;
        PropVariantInit(&id);
        if (SUCCEEDED(objectIds->GetAt(i, &id)) && id.vt == VT_LPWSTR && id.pwszVal != nullptr) {
            operation->ids.emplace_back(id.pwszVal);
        } else {
            PropVariantClear(&id);
            return E_INVALIDARG;  // object ids are VT_LPWSTR
        }
        PropVariantClear(&id);
    }
    return Queue(std::move(operation), keys, callback, context_out);
}

HRESULT BulkPropertyReads::QueueByObjectFormat(REFGUID format, LPCWSTR parentId, DWORD depth,
                                               IPortableDeviceKeyCollection* keys,
                                               IPortableDevicePropertiesBulkCallback* callback, GUID* context_out) {
    if (parentId == nullptr) {
        return E_POINTER;
    }
    const HRESULT hr = m_session->Attached();
    if (FAILED(hr)) {
        return hr;
    }
    auto operation = std::make_shared<Operation>();
    operation->byFormat = true;
    operation->format = format;
    operation->parentId = parentId;
    operation->depth = depth;
    return Queue(std::move(operation), keys, callback, context_out);
}

HRESULT BulkPropertyReads::Start(REFGUID context) {
    const HRESULT attached = m_session->Attached();
    if (FAILED(attached)) {
        return attached;
    }
    std::shared_ptr<Operation> operation;
    {
        std::lock_guard<std::mutex> guard(m_lock);
        for (const auto& queued : m_operations) {
            if (SameGuid(queued->context, context) && !queued->started) {
                operation = queued;
                break;
            }
        }
        if (!operation) {
            return HRESULT_FROM_WIN32(ERROR_NOT_FOUND);  // no such queued operation
        }
        operation->started = true;
    }
    auto* running = new (std::nothrow) std::shared_ptr<Operation>(operation);
    if (running == nullptr) {
        return E_OUTOFMEMORY;
    }
    EmulatorState::Get().EventQueued();
    if (!TrySubmitThreadpoolCallback(RunOnPool, running, nullptr)) {
        EmulatorState::Get().EventDelivered();
        delete running;
        std::lock_guard<std::mutex> guard(m_lock);
        operation->started = false;
        return HRESULT_FROM_WIN32(GetLastError());
    }
    return S_OK;
}

HRESULT BulkPropertyReads::Cancel(REFGUID context) {
    const HRESULT hr = m_session->Attached();
    if (FAILED(hr)) {
        return hr;
    }
    std::lock_guard<std::mutex> guard(m_lock);
    for (auto it = m_operations.begin(); it != m_operations.end(); ++it) {
        if (SameGuid((*it)->context, context)) {
            (*it)->cancelled = true;
            if (!(*it)->started) {
                m_operations.erase(it);  // never started: it simply goes
            }
            return S_OK;
        }
    }
    return S_OK;
}

}  // namespace dorwex::emulator
