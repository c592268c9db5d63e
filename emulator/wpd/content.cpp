// IPortableDeviceContent and what it hands out: object enumerators, properties, resources and the streams
// that read and write objects. Objects are the files and folders of the storages' directories.
#include <algorithm>
#include <cstring>
#include <mutex>

#include "collections.h"
#include "device_session.h"
#include "emulated_api.h"
#include "event_relay.h"
#include "file_tree.h"
#include "properties_bulk.h"

namespace dorwex::emulator {

namespace {

constexpr DWORD kOptimalBufferSize = 262144;  // what MTP devices commonly report
// Commit of a transfer whose byte count differs from the size the object was created with.
constexpr HRESULT kWrongByteCount = HRESULT_FROM_WIN32(ERROR_INVALID_DATA);

bool Has(IPortableDeviceValues* values, const PROPERTYKEY& key) {
    PROPVARIANT value;
    PropVariantInit(&value);
    const bool present = SUCCEEDED(values->GetValue(key, &value));
    PropVariantClear(&value);
    return present;
}

// The object id and the persistent unique id are the device's to give: no creation may set them.
bool SetsDeviceAssignedIds(IPortableDeviceValues* values) {
    return Has(values, WPD_OBJECT_ID) || Has(values, WPD_OBJECT_PERSISTENT_UNIQUE_ID);
}

HRESULT LastError() {
    return HRESULT_FROM_WIN32(GetLastError());
}

// A call that would change content and that the stand-in does not offer: refused by a read-only session
// as every such call is, otherwise E_NOTIMPL.
HRESULT NotOffered(const std::shared_ptr<DeviceSession>& session, const char* call) {
    const HRESULT hr = session->WriteAccess(call);
    return FAILED(hr) ? hr : E_NOTIMPL;
}

class ObjectEnumerator final : public ComObject<IEnumPortableDeviceObjectIDs> {
public:
    ObjectEnumerator(std::shared_ptr<DeviceSession> session, std::vector<std::wstring> ids)
        : m_session(std::move(session)), m_ids(std::move(ids)) {}

    HRESULT STDMETHODCALLTYPE Next(ULONG cObjects, LPWSTR* pObjIDs, ULONG* pcFetched) override {
        if (pObjIDs == nullptr) {
            return E_POINTER;
        }
        if (pcFetched != nullptr) {
            *pcFetched = 0;
        }
        const HRESULT hr = m_session->Attached();
        if (FAILED(hr)) {
            return hr;
        }
        ULONG fetched = 0;
        while (fetched < cObjects && m_next < m_ids.size()) {
            pObjIDs[fetched] = CoTaskStrDup(m_ids[m_next].c_str());
            if (pObjIDs[fetched] == nullptr) {
                break;
            }
            ++fetched;
            ++m_next;
        }
        if (pcFetched != nullptr) {
            *pcFetched = fetched;
        }
        return fetched == cObjects ? S_OK : S_FALSE;
    }
    HRESULT STDMETHODCALLTYPE Skip(ULONG cObjects) override {
        const HRESULT hr = m_session->Attached();
        if (FAILED(hr)) {
            return hr;
        }
        m_next = std::min(m_ids.size(), m_next + cObjects);
        return m_next < m_ids.size() ? S_OK : S_FALSE;
    }
    HRESULT STDMETHODCALLTYPE Reset() override {
        const HRESULT hr = m_session->Attached();
        if (FAILED(hr)) {
            return hr;
        }
        m_next = 0;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE Clone(IEnumPortableDeviceObjectIDs**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE Cancel() override { return m_session->Attached(); }

private:
    const std::shared_ptr<DeviceSession> m_session;
    std::vector<std::wstring> m_ids;
    size_t m_next = 0;
};

// A stream over an object's data. A read stream reads an existing file; a write stream fills a hidden
// file next to the target and becomes the object on Commit, as a device only shows an object once the
// transfer is complete. Commit refuses a transfer whose byte count is not the size the object was created
// with; that, Revert and a release without Commit abandon the transfer and leave no object. Once the session
// the stream was obtained through is closed, its calls fail and a write is abandoned.
class ObjectStream final : public ComObject<IPortableDeviceDataStream, IStream, ISequentialStream> {
public:
    ObjectStream(std::shared_ptr<DeviceSession> session, HANDLE file, std::wstring objectId)
        : m_session(std::move(session)),
          m_device(&m_session->Device()),
          m_file(file),
          m_objectId(std::move(objectId)) {}
    ObjectStream(std::shared_ptr<DeviceSession> session, HANDLE file, std::wstring temporaryPath,
                 std::wstring targetPath, int storage, ULONGLONG declaredSize)
        : m_session(std::move(session)),
          m_device(&m_session->Device()),
          m_file(file),
          m_writing(true),
          m_temporaryPath(std::move(temporaryPath)),
          m_targetPath(std::move(targetPath)),
          m_storage(storage),
          m_declaredSize(declaredSize) {}
    ~ObjectStream() override { Discard(); }

    HRESULT STDMETHODCALLTYPE Read(void* pv, ULONG cb, ULONG* pcbRead) override {
        if (pv == nullptr) {
            return STG_E_INVALIDPOINTER;
        }
        HRESULT hr = Attached();
        if (FAILED(hr)) {
            return hr;
        }
        if (m_writing) {
            return STG_E_ACCESSDENIED;
        }
        hr = m_session->DeviceCall("Read");
        if (FAILED(hr)) {
            return hr;
        }
        // A short read hands out less than asked for without being at the end: S_OK, as a device does.
        ULONG asked = m_device->ShortRead() != 0 ? std::min<ULONG>(cb, m_device->ShortRead()) : cb;
        // A transfer cut short ends early: from there on every read gives nothing.
        if (const ULONGLONG end = m_device->StreamEnd(); end != 0) {
            asked = static_cast<ULONG>(std::min<ULONGLONG>(asked, end > m_bytesRead ? end - m_bytesRead : 0));
        }
        DWORD read = 0;
        if (asked != 0 && !ReadFile(m_file, pv, asked, &read, nullptr)) {
            return LastError();
        }
        m_bytesRead += read;
        m_device->Carry(0, read);
        if (pcbRead != nullptr) {
            *pcbRead = read;
        }
        return read < asked || (asked == 0 && cb != 0) ? S_FALSE : S_OK;
    }

    HRESULT STDMETHODCALLTYPE Write(const void* pv, ULONG cb, ULONG* pcbWritten) override {
        if (pv == nullptr) {
            return STG_E_INVALIDPOINTER;
        }
        HRESULT hr = Attached();
        if (FAILED(hr)) {
            return hr;
        }
        if (!m_writing || m_committed || m_abandoned) {
            return STG_E_ACCESSDENIED;
        }
        hr = m_session->DeviceCall("Write");
        if (FAILED(hr)) {
            return hr;
        }
        // Runs of zeros are skipped rather than written, so that a device file of many gigabytes of zeros
        // stays sparse on the test machine; Commit sets the file's end.
        DWORD written = 0;
        const auto* bytes = static_cast<const BYTE*>(pv);
        if (cb > 0 && bytes[0] == 0 && std::memcmp(bytes, bytes + 1, cb - 1) == 0) {
            LARGE_INTEGER distance;
            distance.QuadPart = cb;
            if (!SetFilePointerEx(m_file, distance, nullptr, FILE_CURRENT)) {
                return LastError();
            }
            written = cb;
        } else if (!WriteFile(m_file, pv, cb, &written, nullptr)) {
            return LastError();
        }
        m_bytesWritten += written;
        m_device->Carry(0, written);
        if (pcbWritten != nullptr) {
            *pcbWritten = written;
        }
        return S_OK;
    }

    HRESULT STDMETHODCALLTYPE Seek(LARGE_INTEGER dlibMove, DWORD dwOrigin, ULARGE_INTEGER* plibNewPosition) override {
        const HRESULT hr = Attached();
        if (FAILED(hr)) {
            return hr;
        }
        LARGE_INTEGER position{};
        if (!SetFilePointerEx(m_file, dlibMove, &position, dwOrigin)) {
            return STG_E_INVALIDFUNCTION;
        }
        if (plibNewPosition != nullptr) {
            plibNewPosition->QuadPart = static_cast<ULONGLONG>(position.QuadPart);
        }
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE SetSize(ULARGE_INTEGER) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE CopyTo(IStream*, ULARGE_INTEGER, ULARGE_INTEGER*, ULARGE_INTEGER*) override {
        return E_NOTIMPL;
    }

    HRESULT STDMETHODCALLTYPE Commit(DWORD) override {
        HRESULT hr = Attached();
        if (FAILED(hr)) {
            return hr;
        }
        if (!m_writing) {
            return S_OK;
        }
        if (m_committed) {
            return S_OK;
        }
        if (m_abandoned) {
            return STG_E_REVERTED;
        }
        hr = m_session->DeviceCall("Commit");
        if (FAILED(hr)) {
            return hr;
        }
        if (m_bytesWritten != m_declaredSize) {
            Discard();  // the object was announced with another size: the transfer is void
            return kWrongByteCount;
        }
        SetEndOfFile(m_file);  // the end of the data, also after a final run of zeros
        CloseHandle(m_file);
        m_file = INVALID_HANDLE_VALUE;
        if (!MoveFileW(m_temporaryPath.c_str(), m_targetPath.c_str())) {
            hr = LastError();
            DeleteFileW(m_temporaryPath.c_str());
            m_abandoned = true;  // nothing left to write into
            return hr;
        }
        m_committed = true;
        m_objectId = m_device->IdForPath(m_storage, m_targetPath);
        ObjectInfo object;
        if (SUCCEEDED(m_device->Lookup(m_objectId, object))) {
            RaiseObjectEvent(*m_device, WPD_EVENT_OBJECT_ADDED, object);
        }
        return S_OK;
    }

    // A write not yet committed is abandoned: its data go and no object is created.
    HRESULT STDMETHODCALLTYPE Revert() override {
        const HRESULT hr = Attached();
        if (m_writing && !m_committed) {
            Discard();
        }
        return hr;
    }
    HRESULT STDMETHODCALLTYPE LockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) override {
        return STG_E_INVALIDFUNCTION;
    }
    HRESULT STDMETHODCALLTYPE UnlockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) override {
        return STG_E_INVALIDFUNCTION;
    }
    HRESULT STDMETHODCALLTYPE Stat(STATSTG* pstatstg, DWORD) override {
        if (pstatstg == nullptr) {
            return STG_E_INVALIDPOINTER;
        }
        *pstatstg = STATSTG{};
        const HRESULT hr = Attached();
        if (FAILED(hr)) {
            return hr;
        }
        pstatstg->type = STGTY_STREAM;
        LARGE_INTEGER size{};
        if (m_file != INVALID_HANDLE_VALUE && GetFileSizeEx(m_file, &size)) {
            pstatstg->cbSize.QuadPart = static_cast<ULONGLONG>(size.QuadPart);
        }
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE Clone(IStream**) override { return E_NOTIMPL; }

    HRESULT STDMETHODCALLTYPE GetObjectID(LPWSTR* ppszObjectID) override {
        if (ppszObjectID == nullptr) {
            return E_POINTER;
        }
        *ppszObjectID = nullptr;
        const HRESULT hr = Attached();
        if (FAILED(hr)) {
            return hr;
        }
        if (m_objectId.empty()) {
            return E_UNEXPECTED;  // a write that was not committed has no object
        }
        *ppszObjectID = CoTaskStrDup(m_objectId.c_str());
        return *ppszObjectID != nullptr ? S_OK : E_OUTOFMEMORY;
    }

    HRESULT STDMETHODCALLTYPE Cancel() override {
        const HRESULT hr = Attached();
        Discard();
        return hr;
    }

private:
    // The session's state; a transfer on a closed session cannot complete and is abandoned.
    HRESULT Attached() {
        const HRESULT hr = m_session->Attached();
        if (FAILED(hr)) {
            Discard();
        }
        return hr;
    }

    void Discard() {
        if (m_file != INVALID_HANDLE_VALUE) {
            CloseHandle(m_file);
            m_file = INVALID_HANDLE_VALUE;
        }
        if (m_writing && !m_committed && !m_abandoned) {
            DeleteFileW(m_temporaryPath.c_str());
            m_abandoned = true;
        }
    }

    const std::shared_ptr<DeviceSession> m_session;
    EmulatedDevice* const m_device;  // the session's
    HANDLE m_file;
    bool m_writing = false;
    bool m_committed = false;
    bool m_abandoned = false;
    std::wstring m_temporaryPath, m_targetPath;
    int m_storage = -1;
    ULONGLONG m_declaredSize = 0;  // WPD_OBJECT_SIZE of the creation
    ULONGLONG m_bytesWritten = 0;
    ULONGLONG m_bytesRead = 0;
    std::wstring m_objectId;
};

// IPortableDeviceProperties, and IPortableDevicePropertiesBulk on the same object when the device offers
// bulk operations: "To get this interface, call QueryInterface on IPortableDeviceProperties. If the device
// does not support bulk operations, this call will fail with E_NOINTERFACE."
class PortableDeviceProperties final : public ComObject<IPortableDeviceProperties>,
                                       public IPortableDevicePropertiesBulk {
public:
    explicit PortableDeviceProperties(std::shared_ptr<DeviceSession> session)
        : m_session(std::move(session)), m_device(&m_session->Device()), m_bulk(m_session) {}

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override {
        if (ppv != nullptr && riid == __uuidof(IPortableDevicePropertiesBulk)) {
            if (!m_device->OffersBulkProperties()) {
                *ppv = nullptr;
                return E_NOINTERFACE;
            }
            *ppv = static_cast<IPortableDevicePropertiesBulk*>(this);
            AddRef();
            return S_OK;
        }
        return ComObject<IPortableDeviceProperties>::QueryInterface(riid, ppv);
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return ComObject<IPortableDeviceProperties>::AddRef(); }
    ULONG STDMETHODCALLTYPE Release() override { return ComObject<IPortableDeviceProperties>::Release(); }

    HRESULT STDMETHODCALLTYPE QueueGetValuesByObjectList(IPortableDevicePropVariantCollection* pObjectIDs,
                                                         IPortableDeviceKeyCollection* pKeys,
                                                         IPortableDevicePropertiesBulkCallback* pCallback,
                                                         GUID* pContext) override {
        return m_bulk.QueueByObjectList(pObjectIDs, pKeys, pCallback, pContext);
    }
    HRESULT STDMETHODCALLTYPE QueueGetValuesByObjectFormat(REFGUID pguidObjectFormat, LPCWSTR pszParentObjectID,
                                                           const DWORD dwDepth, IPortableDeviceKeyCollection* pKeys,
                                                           IPortableDevicePropertiesBulkCallback* pCallback,
                                                           GUID* pContext) override {
        return m_bulk.QueueByObjectFormat(pguidObjectFormat, pszParentObjectID, dwDepth, pKeys, pCallback, pContext);
    }
    // Properties of stored objects are not written here; a read-only session refuses first.
    HRESULT STDMETHODCALLTYPE QueueSetValuesByObjectList(IPortableDeviceValuesCollection*,
                                                         IPortableDevicePropertiesBulkCallback*, GUID*) override {
        return NotOffered(m_session, "QueueSetValuesByObjectList");
    }
    HRESULT STDMETHODCALLTYPE Start(REFGUID pContext) override { return m_bulk.Start(pContext); }
    HRESULT STDMETHODCALLTYPE Cancel(REFGUID pContext) override { return m_bulk.Cancel(pContext); }

    HRESULT STDMETHODCALLTYPE GetValues(LPCWSTR pszObjectID, IPortableDeviceKeyCollection* pKeys,
                                        IPortableDeviceValues** ppValues) override {
        if (pszObjectID == nullptr || ppValues == nullptr) {
            return E_POINTER;
        }
        *ppValues = nullptr;
        const HRESULT fault = m_session->DeviceCall("GetValues");
        if (FAILED(fault)) {
            return fault;
        }
        m_session->Device().Carry(1, 0);  // one object's property list
        auto* values = new (std::nothrow) PortableDeviceValues();
        if (values == nullptr) {
            return E_OUTOFMEMORY;
        }
        const HRESULT hr = m_device->ReadProperties(pszObjectID, pKeys, values);
        if (FAILED(hr)) {
            values->Release();
            return hr;
        }
        *ppValues = values;
        return hr;
    }

    HRESULT STDMETHODCALLTYPE GetSupportedProperties(LPCWSTR, IPortableDeviceKeyCollection**) override {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE GetPropertyAttributes(LPCWSTR, REFPROPERTYKEY, IPortableDeviceValues**) override {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE SetValues(LPCWSTR, IPortableDeviceValues*, IPortableDeviceValues**) override {
        return NotOffered(m_session, "SetValues");
    }
    HRESULT STDMETHODCALLTYPE Delete(LPCWSTR, IPortableDeviceKeyCollection*) override {
        return NotOffered(m_session, "DeleteProperties");
    }
    HRESULT STDMETHODCALLTYPE Cancel() override { return m_session->Attached(); }

private:
    const std::shared_ptr<DeviceSession> m_session;
    EmulatedDevice* const m_device;  // the session's
    BulkPropertyReads m_bulk;
};

class PortableDeviceResources final : public ComObject<IPortableDeviceResources> {
public:
    explicit PortableDeviceResources(std::shared_ptr<DeviceSession> session)
        : m_session(std::move(session)), m_device(&m_session->Device()) {}

    HRESULT STDMETHODCALLTYPE GetStream(LPCWSTR pszObjectID, REFPROPERTYKEY Key, const DWORD dwMode,
                                        DWORD* pdwOptimalBufferSize, IStream** ppStream) override {
        if (pszObjectID == nullptr || ppStream == nullptr) {
            return E_POINTER;
        }
        *ppStream = nullptr;
        const HRESULT fault = m_session->DeviceCall("GetStream");
        if (FAILED(fault)) {
            return fault;
        }
        if (Key.fmtid != WPD_RESOURCE_DEFAULT.fmtid || Key.pid != WPD_RESOURCE_DEFAULT.pid) {
            return HRESULT_FROM_WIN32(ERROR_NOT_SUPPORTED);
        }
        if ((dwMode & (STGM_WRITE | STGM_READWRITE)) != 0) {
            return STG_E_ACCESSDENIED;  // resources of existing objects are read here; writes create objects
        }
        ObjectInfo object;
        HRESULT hr = m_device->Lookup(pszObjectID, object);
        if (FAILED(hr)) {
            return hr;
        }
        if (object.kind != ObjectKind::File) {
            return HRESULT_FROM_WIN32(ERROR_NOT_SUPPORTED);  // folders and storages have no data
        }
        HANDLE file = CreateFileW(object.path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0,
                                  nullptr);
        if (file == INVALID_HANDLE_VALUE) {
            return LastError();
        }
        if (pdwOptimalBufferSize != nullptr) {
            *pdwOptimalBufferSize = kOptimalBufferSize;
        }
        return CreateComObject<ObjectStream>(IID_IStream, reinterpret_cast<void**>(ppStream), m_session, file,
                                             object.id);
    }

    HRESULT STDMETHODCALLTYPE GetSupportedResources(LPCWSTR, IPortableDeviceKeyCollection**) override {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE GetResourceAttributes(LPCWSTR, REFPROPERTYKEY, IPortableDeviceValues**) override {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE Delete(LPCWSTR, IPortableDeviceKeyCollection*) override {
        return NotOffered(m_session, "DeleteResources");
    }
    HRESULT STDMETHODCALLTYPE Cancel() override { return m_session->Attached(); }
    HRESULT STDMETHODCALLTYPE CreateResource(IPortableDeviceValues*, IStream**, DWORD*, LPWSTR*) override {
        return NotOffered(m_session, "CreateResource");
    }

private:
    const std::shared_ptr<DeviceSession> m_session;
    EmulatedDevice* const m_device;  // the session's
};

class PortableDeviceContent final : public ComObject<IPortableDeviceContent> {
public:
    explicit PortableDeviceContent(std::shared_ptr<DeviceSession> session)
        : m_session(std::move(session)), m_device(&m_session->Device()) {}

    HRESULT STDMETHODCALLTYPE EnumObjects(const DWORD, LPCWSTR pszParentObjectID, IPortableDeviceValues*,
                                          IEnumPortableDeviceObjectIDs** ppEnum) override {
        if (pszParentObjectID == nullptr || ppEnum == nullptr) {
            return E_POINTER;
        }
        *ppEnum = nullptr;
        HRESULT hr = m_session->DeviceCall("EnumObjects");
        if (FAILED(hr)) {
            return hr;
        }
        ObjectInfo parent;
        hr = m_device->Lookup(pszParentObjectID, parent);
        if (FAILED(hr)) {
            return hr;
        }
        auto children = m_device->Children(pszParentObjectID);
        m_device->Carry(children.size(), 0);  // the handles come in one answer, each costs its share
        return CreateComObject<ObjectEnumerator>(__uuidof(IEnumPortableDeviceObjectIDs),
                                                 reinterpret_cast<void**>(ppEnum), m_session, std::move(children));
    }

    HRESULT STDMETHODCALLTYPE Properties(IPortableDeviceProperties** ppProperties) override {
        if (ppProperties == nullptr) {
            return E_POINTER;
        }
        *ppProperties = nullptr;
        const HRESULT hr = m_session->LocalCall("Properties");
        return FAILED(hr) ? hr
                          : CreateComObject<PortableDeviceProperties>(
                                __uuidof(IPortableDeviceProperties), reinterpret_cast<void**>(ppProperties), m_session);
    }

    HRESULT STDMETHODCALLTYPE Transfer(IPortableDeviceResources** ppResources) override {
        if (ppResources == nullptr) {
            return E_POINTER;
        }
        *ppResources = nullptr;
        const HRESULT hr = m_session->LocalCall("Transfer");
        return FAILED(hr) ? hr
                          : CreateComObject<PortableDeviceResources>(__uuidof(IPortableDeviceResources),
                                                                     reinterpret_cast<void**>(ppResources), m_session);
    }

    // A folder: parent id, name and the folder content type are required.
    HRESULT STDMETHODCALLTYPE CreateObjectWithPropertiesOnly(IPortableDeviceValues* pValues,
                                                             LPWSTR* ppszObjectID) override {
        if (pValues == nullptr) {
            return E_POINTER;
        }
        if (ppszObjectID != nullptr) {
            *ppszObjectID = nullptr;
        }
        HRESULT hr = m_session->WriteCall("CreateObjectWithPropertiesOnly");
        if (FAILED(hr)) {
            return hr;
        }
        if (SetsDeviceAssignedIds(pValues)) {
            return E_INVALIDARG;
        }
        GUID contentType{};
        if (FAILED(pValues->GetGuidValue(WPD_OBJECT_CONTENT_TYPE, &contentType)) ||
            contentType != WPD_CONTENT_TYPE_FOLDER) {
            return E_INVALIDARG;
        }
        ObjectInfo parent;
        std::wstring name;
        hr = Target(pValues, WPD_OBJECT_NAME, parent, name);
        if (FAILED(hr)) {
            return hr;
        }
        const std::wstring path = parent.path + L"\\" + name;
        if (!CreateDirectoryW(path.c_str(), nullptr)) {
            return LastError();
        }
        ObjectInfo created;
        m_device->Lookup(m_device->IdForPath(parent.storage, path), created);
        RaiseObjectEvent(*m_device, WPD_EVENT_OBJECT_ADDED, created);
        if (ppszObjectID != nullptr) {
            *ppszObjectID = CoTaskStrDup(created.id.c_str());
        }
        return S_OK;
    }

    // A file: the data arrive through the returned stream and the object exists after its Commit.
    HRESULT STDMETHODCALLTYPE CreateObjectWithPropertiesAndData(IPortableDeviceValues* pValues, IStream** ppData,
                                                                DWORD* pdwOptimalWriteBufferSize,
                                                                LPWSTR* ppszCookie) override {
        if (pValues == nullptr || ppData == nullptr) {
            return E_POINTER;
        }
        *ppData = nullptr;
        if (ppszCookie != nullptr) {
            *ppszCookie = nullptr;
        }
        HRESULT hr = m_session->WriteCall("CreateObjectWithPropertiesAndData");
        if (FAILED(hr)) {
            return hr;
        }
        // The size announces the byte count Commit will check; a device in strict mode also wants to be
        // told what the object is.
        ULONGLONG declaredSize = 0;
        GUID contentType{}, format{};
        if (SetsDeviceAssignedIds(pValues) ||
            FAILED(pValues->GetUnsignedLargeIntegerValue(WPD_OBJECT_SIZE, &declaredSize))) {
            return E_INVALIDARG;
        }
        if (m_device->StrictCreation() && (FAILED(pValues->GetGuidValue(WPD_OBJECT_CONTENT_TYPE, &contentType)) ||
                                           FAILED(pValues->GetGuidValue(WPD_OBJECT_FORMAT, &format)))) {
            return E_INVALIDARG;
        }
        ObjectInfo parent;
        std::wstring name;
        hr = Target(pValues, WPD_OBJECT_ORIGINAL_FILE_NAME, parent, name);
        if (FAILED(hr)) {
            return hr;
        }
        const std::wstring target = parent.path + L"\\" + name;
        if (GetFileAttributesW(target.c_str()) != INVALID_FILE_ATTRIBUTES) {
            return HRESULT_FROM_WIN32(ERROR_ALREADY_EXISTS);
        }
        static volatile LONG counter = 0;
        const std::wstring temporary = parent.path + L"\\.~dorwex" + std::to_wstring(GetCurrentProcessId()) + L"-" +
                                       std::to_wstring(InterlockedIncrement(&counter));
        HANDLE file = CreateFileW(temporary.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, FILE_ATTRIBUTE_HIDDEN,
                                  nullptr);
        if (file == INVALID_HANDLE_VALUE) {
            return LastError();
        }
        if (pdwOptimalWriteBufferSize != nullptr) {
            *pdwOptimalWriteBufferSize = kOptimalBufferSize;
        }
        return CreateComObject<ObjectStream>(IID_IStream, reinterpret_cast<void**>(ppData), m_session, file,
                                             temporary, target, parent.storage, declaredSize);
    }

    HRESULT STDMETHODCALLTYPE Delete(const DWORD dwOptions, IPortableDevicePropVariantCollection* pObjectIDs,
                                     IPortableDevicePropVariantCollection** ppResults) override {
        if (pObjectIDs == nullptr) {
            return E_POINTER;
        }
        if (ppResults != nullptr) {
            *ppResults = nullptr;
        }
        HRESULT hr = m_session->WriteCall("Delete");
        if (FAILED(hr)) {
            return hr;
        }
        auto* results = new (std::nothrow) PortableDevicePropVariantCollection();
        if (results == nullptr) {
            return E_OUTOFMEMORY;
        }
        DWORD count = 0;
        pObjectIDs->GetCount(&count);
        bool allDeleted = true;
        for (DWORD i = 0; i < count; ++i) {
            PROPVARIANT id;
            PropVariantInit(&id);
            HRESULT one = pObjectIDs->GetAt(i, &id);
            if (SUCCEEDED(one)) {
                one = id.vt == VT_LPWSTR ? DeleteObject(id.pwszVal, dwOptions == PORTABLE_DEVICE_DELETE_WITH_RECURSION)
                                         : E_INVALIDARG;
            }
            PropVariantClear(&id);
            PROPVARIANT result;
            PropVariantInit(&result);
            result.vt = VT_ERROR;
            result.scode = one;
            results->Add(&result);
            allDeleted = allDeleted && SUCCEEDED(one);
        }
        if (ppResults != nullptr) {
            *ppResults = results;
        } else {
            results->Release();
        }
        return allDeleted ? S_OK : S_FALSE;
    }

    HRESULT STDMETHODCALLTYPE GetObjectIDsFromPersistentUniqueIDs(IPortableDevicePropVariantCollection*,
                                                                  IPortableDevicePropVariantCollection**) override {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE Cancel() override { return m_session->Attached(); }
    HRESULT STDMETHODCALLTYPE Move(IPortableDevicePropVariantCollection*, LPCWSTR,
                                   IPortableDevicePropVariantCollection**) override {
        return NotOffered(m_session, "Move");
    }
    HRESULT STDMETHODCALLTYPE Copy(IPortableDevicePropVariantCollection*, LPCWSTR,
                                   IPortableDevicePropVariantCollection**) override {
        return NotOffered(m_session, "Copy");
    }

private:
    // The parent folder and the name of an object to create.
    HRESULT Target(IPortableDeviceValues* values, const PROPERTYKEY& nameKey, ObjectInfo& parent_out,
                   std::wstring& name_out) {
        LPWSTR parentId = nullptr;
        HRESULT hr = values->GetStringValue(WPD_OBJECT_PARENT_ID, &parentId);
        if (FAILED(hr)) {
            return E_INVALIDARG;
        }
        hr = m_device->Lookup(parentId, parent_out);
        CoTaskMemFree(parentId);
        if (FAILED(hr)) {
            return hr;
        }
        if (parent_out.kind != ObjectKind::Storage && parent_out.kind != ObjectKind::Folder) {
            return E_INVALIDARG;
        }
        LPWSTR name = nullptr;
        if (FAILED(values->GetStringValue(nameKey, &name)) &&
            FAILED(values->GetStringValue(WPD_OBJECT_NAME, &name))) {
            return E_INVALIDARG;
        }
        name_out = name;
        CoTaskMemFree(name);
        if (name_out.empty() || name_out.find_first_of(L"\\/:*?\"<>|") != std::wstring::npos) {
            return E_INVALIDARG;
        }
        return S_OK;
    }

    HRESULT DeleteObject(const std::wstring& id, bool recursive) {
        ObjectInfo object;
        HRESULT hr = m_device->Lookup(id, object);
        if (FAILED(hr)) {
            return hr;
        }
        if (object.kind == ObjectKind::DeviceRoot || object.kind == ObjectKind::Storage) {
            return E_ACCESSDENIED;
        }
        if (object.kind == ObjectKind::File) {
            if (!DeleteFileW(object.path.c_str())) {
                return LastError();
            }
        } else if (recursive) {
            if (!RemoveTree(object.path)) {
                return LastError();
            }
        } else if (!RemoveDirectoryW(object.path.c_str())) {
            return LastError();  // ERROR_DIR_NOT_EMPTY for a folder with content
        }
        RaiseObjectEvent(*m_device, WPD_EVENT_OBJECT_REMOVED, object);
        m_device->Forget(id);
        return S_OK;
    }

    const std::shared_ptr<DeviceSession> m_session;
    EmulatedDevice* const m_device;  // the session's
};

}  // namespace

HRESULT CreateContent(const std::shared_ptr<DeviceSession>& session, IPortableDeviceContent** content_out) {
    return CreateComObject<PortableDeviceContent>(__uuidof(IPortableDeviceContent),
                                                  reinterpret_cast<void**>(content_out), session);
}

}  // namespace dorwex::emulator
