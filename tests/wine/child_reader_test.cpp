// The folder reader against a driver double that offers bulk reads: what the reader asks of the bulk
// operation, that it reads one by one what the operation did not report, and that it lets go of its
// callback (the driver keeps its own reference until the test releases it, and that Release is the last).
#include <gtest/gtest.h>

#include <cstring>
#include <cwchar>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "device/child_reader.h"

namespace {

const wchar_t kFolder[] = L"folder-7";
const GUID kContext = {0x1c2d3e4f, 0x1111, 0x2222, {0x33, 0x33, 0x44, 0x44, 0x55, 0x55, 0x66, 0x66}};

struct Child {
    const wchar_t* id;
    const wchar_t* name;
    GUID contentType;
};
const Child kChildren[] = {
    {L"o1", L"IMG_0001.jpg", WPD_CONTENT_TYPE_GENERIC_FILE},
    {L"o2", L"DCIM", WPD_CONTENT_TYPE_FOLDER},
    {L"o3", L"Internal storage", WPD_CONTENT_TYPE_FUNCTIONAL_OBJECT},
};

LPWSTR CoTaskCopy(const wchar_t* text) {
    const size_t bytes = (wcslen(text) + 1) * sizeof(wchar_t);
    auto* copy = static_cast<LPWSTR>(CoTaskMemAlloc(bytes));
    memcpy(copy, text, bytes);
    return copy;
}

// One object plays the device, its content, the children's enumeration, the properties and the bulk
// operation; it lives on the test's stack, so its count is only observed, never acted on. A bulk operation
// reports its start and end on a thread of its own, as the portable-device runtime does, and no results.
class Driver : public IPortableDevice,
               public IPortableDeviceContent,
               public IEnumPortableDeviceObjectIDs,
               public IPortableDeviceProperties,
               public IPortableDevicePropertiesBulk {
public:
    ~Driver() { Join(); }

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override {
        if (riid == IID_IUnknown || riid == IID_IPortableDevice) {
            *ppv = static_cast<IPortableDevice*>(this);
        } else if (riid == IID_IPortableDeviceProperties) {
            *ppv = static_cast<IPortableDeviceProperties*>(this);
        } else if (riid == IID_IPortableDevicePropertiesBulk) {
            *ppv = static_cast<IPortableDevicePropertiesBulk*>(this);
        } else {
            *ppv = nullptr;
            return E_NOINTERFACE;
        }
        AddRef();
        return S_OK;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return ++refs; }
    ULONG STDMETHODCALLTYPE Release() override { return --refs; }

    // IPortableDevice: only the content is asked for.
    HRESULT STDMETHODCALLTYPE Open(LPCWSTR, IPortableDeviceValues*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE SendCommand(const DWORD, IPortableDeviceValues*, IPortableDeviceValues**) override {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE Content(IPortableDeviceContent** content) override {
        AddRef();
        *content = this;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE Capabilities(IPortableDeviceCapabilities**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE Cancel() override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE Close() override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE Advise(const DWORD, IPortableDeviceEventCallback*, IPortableDeviceValues*,
                                     LPWSTR*) override {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE Unadvise(LPCWSTR) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetPnPDeviceID(LPWSTR*) override { return E_NOTIMPL; }

    // IPortableDeviceContent: the children of kFolder and the properties.
    HRESULT STDMETHODCALLTYPE EnumObjects(const DWORD, LPCWSTR parent, IPortableDeviceValues*,
                                          IEnumPortableDeviceObjectIDs** ids) override {
        if (wcscmp(parent, kFolder) != 0) {
            return HRESULT_FROM_WIN32(ERROR_NOT_FOUND);
        }
        next = 0;
        AddRef();
        *ids = this;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE Properties(IPortableDeviceProperties** properties) override {
        AddRef();
        *properties = this;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE Transfer(IPortableDeviceResources**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE CreateObjectWithPropertiesOnly(IPortableDeviceValues*, LPWSTR*) override {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE CreateObjectWithPropertiesAndData(IPortableDeviceValues*, IStream**, DWORD*,
                                                                LPWSTR*) override {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE Delete(const DWORD, IPortableDevicePropVariantCollection*,
                                     IPortableDevicePropVariantCollection**) override {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE GetObjectIDsFromPersistentUniqueIDs(IPortableDevicePropVariantCollection*,
                                                                  IPortableDevicePropVariantCollection**) override {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE Move(IPortableDevicePropVariantCollection*, LPCWSTR,
                                   IPortableDevicePropVariantCollection**) override {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE Copy(IPortableDevicePropVariantCollection*, LPCWSTR,
                                   IPortableDevicePropVariantCollection**) override {
        return E_NOTIMPL;
    }

    // IEnumPortableDeviceObjectIDs: S_FALSE when fewer than asked remain.
    HRESULT STDMETHODCALLTYPE Next(ULONG count, LPWSTR* ids, ULONG* fetched) override {
        ULONG given = 0;
        while (given < count && next < std::size(kChildren)) {
            ids[given++] = CoTaskCopy(kChildren[next++].id);
        }
        *fetched = given;
        return given == count ? S_OK : S_FALSE;
    }
    HRESULT STDMETHODCALLTYPE Skip(ULONG) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE Reset() override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE Clone(IEnumPortableDeviceObjectIDs**) override { return E_NOTIMPL; }

    // IPortableDeviceProperties: one object's name and content type.
    HRESULT STDMETHODCALLTYPE GetSupportedProperties(LPCWSTR, IPortableDeviceKeyCollection**) override {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE GetPropertyAttributes(LPCWSTR, REFPROPERTYKEY, IPortableDeviceValues**) override {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE GetValues(LPCWSTR id, IPortableDeviceKeyCollection*,
                                        IPortableDeviceValues** values) override {
        single.push_back(id);
        for (const Child& child : kChildren) {
            if (wcscmp(child.id, id) == 0) {
                IPortableDeviceValues* answer = nullptr;
                HRESULT hr = CoCreateInstance(CLSID_PortableDeviceValues, nullptr, CLSCTX_INPROC_SERVER,
                                              IID_PPV_ARGS(&answer));
                if (SUCCEEDED(hr)) {
                    answer->SetStringValue(WPD_OBJECT_NAME, child.name);
                    answer->SetGuidValue(WPD_OBJECT_CONTENT_TYPE, child.contentType);
                    *values = answer;
                }
                return hr;
            }
        }
        return HRESULT_FROM_WIN32(ERROR_NOT_FOUND);
    }
    HRESULT STDMETHODCALLTYPE SetValues(LPCWSTR, IPortableDeviceValues*, IPortableDeviceValues**) override {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE Delete(LPCWSTR, IPortableDeviceKeyCollection*) override { return E_NOTIMPL; }

    // IPortableDevicePropertiesBulk: by format only.
    HRESULT STDMETHODCALLTYPE QueueGetValuesByObjectList(IPortableDevicePropVariantCollection*,
                                                         IPortableDeviceKeyCollection*,
                                                         IPortableDevicePropertiesBulkCallback*, GUID*) override {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE QueueGetValuesByObjectFormat(REFGUID format, LPCWSTR parent, const DWORD depth,
                                                           IPortableDeviceKeyCollection*,
                                                           IPortableDevicePropertiesBulkCallback* callback_in,
                                                           GUID* context) override {
        queuedFormat = format;
        queuedParent = parent;
        queuedDepth = depth;
        callback = callback_in;
        callback->AddRef();
        *context = kContext;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE QueueSetValuesByObjectList(IPortableDeviceValuesCollection*,
                                                         IPortableDevicePropertiesBulkCallback*, GUID*) override {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE Start(REFGUID context) override {
        if (context != kContext || callback == nullptr) {
            return E_INVALIDARG;
        }
        runtime = std::thread([this] {
            callback->OnStart(kContext);
            callback->OnEnd(kContext, S_OK);
        });
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE Cancel(REFGUID) override { return S_OK; }

    void Join() {
        if (runtime.joinable()) {
            runtime.join();
        }
    }

    ULONG refs = 1;
    size_t next = 0;
    std::vector<std::wstring> single;  // ids read one by one
    GUID queuedFormat = GUID_NULL;
    std::wstring queuedParent;
    DWORD queuedDepth = 0;
    IPortableDevicePropertiesBulkCallback* callback = nullptr;  // the driver's own reference
    std::thread runtime;
};

struct Visited {
    std::wstring id, name;
    bool folder, storage;
};

TEST(ChildReader, ReadsUnreportedChildrenOneByOneAndLetsGoOfItsBulkCallback) {
    Driver driver;
    std::vector<Visited> visited;
    {
        dorwex::ChildReader reader(&driver);
        ASSERT_TRUE(reader.Ready());
        EXPECT_EQ(reader.ForEachChild(kFolder,
                                      [&](const dorwex::ChildObject& child) {
                                          visited.push_back(
                                              {std::wstring(child.id), std::wstring(child.name), child.folder, child.storage});
                                          return true;
                                      }),
                  S_OK);
    }
    // One bulk operation over the folder's children, by format, at depth 1.
    EXPECT_TRUE(driver.queuedFormat == WPD_OBJECT_FORMAT_ALL);
    EXPECT_EQ(driver.queuedParent, kFolder);
    EXPECT_EQ(driver.queuedDepth, 1u);
    // It reported nothing, so each child is read on its own, in the device's order.
    EXPECT_EQ(driver.single, (std::vector<std::wstring>{L"o1", L"o2", L"o3"}));
    ASSERT_EQ(visited.size(), 3u);
    for (size_t i = 0; i < visited.size(); ++i) {
        EXPECT_EQ(visited[i].id, kChildren[i].id);
        EXPECT_EQ(visited[i].name, kChildren[i].name);
        EXPECT_EQ(visited[i].folder, kChildren[i].contentType == WPD_CONTENT_TYPE_FOLDER) << i;
        EXPECT_EQ(visited[i].storage, kChildren[i].contentType == WPD_CONTENT_TYPE_FUNCTIONAL_OBJECT) << i;
    }
    // Every reference the reader took on the driver is given back.
    EXPECT_EQ(driver.refs, 1u);
    // The driver's reference is the callback's last: the reader kept none.
    driver.Join();
    ASSERT_NE(driver.callback, nullptr);
    EXPECT_EQ(driver.callback->Release(), 0u);
}

}  // namespace
