// IPortableDevice (one session to one device) and its capabilities.
#include <mutex>

#include "collections.h"
#include "emulated_api.h"
#include "emulator_state.h"
#include "text.h"

namespace dorwex::emulator {

namespace {

struct NamedCategory {
    const char* name;
    const GUID* category;
};
const NamedCategory kCategories[] = {
    {"device", &WPD_FUNCTIONAL_CATEGORY_DEVICE},
    {"storage", &WPD_FUNCTIONAL_CATEGORY_STORAGE},
    {"still_image_capture", &WPD_FUNCTIONAL_CATEGORY_STILL_IMAGE_CAPTURE},
    {"audio_capture", &WPD_FUNCTIONAL_CATEGORY_AUDIO_CAPTURE},
    {"video_capture", &WPD_FUNCTIONAL_CATEGORY_VIDEO_CAPTURE},
    {"sms", &WPD_FUNCTIONAL_CATEGORY_SMS},
    {"rendering_information", &WPD_FUNCTIONAL_CATEGORY_RENDERING_INFORMATION},
};

class PortableDeviceCapabilities final : public ComObject<IPortableDeviceCapabilities> {
public:
    explicit PortableDeviceCapabilities(std::shared_ptr<EmulatedDevice> device) : m_device(std::move(device)) {}

    HRESULT STDMETHODCALLTYPE GetFunctionalCategories(IPortableDevicePropVariantCollection** ppCategories) override {
        if (ppCategories == nullptr) {
            return E_POINTER;
        }
        *ppCategories = nullptr;
        HRESULT hr = DeviceCall("GetFunctionalCategories");
        if (FAILED(hr)) {
            return hr;
        }
        auto* categories = new (std::nothrow) PortableDevicePropVariantCollection();
        if (categories == nullptr) {
            return E_OUTOFMEMORY;
        }
        for (const auto& name : m_device->Description().categories) {
            for (const auto& known : kCategories) {
                if (name == known.name) {
                    categories->AddGuid(*known.category);
                }
            }
            if (name == "invalid") {
                categories->AddString(L"not a category");  // a device that answers with a wrong type
            }
        }
        *ppCategories = categories;
        return S_OK;
    }

    HRESULT STDMETHODCALLTYPE GetFunctionalObjects(REFGUID Category,
                                                   IPortableDevicePropVariantCollection** ppObjectIDs) override {
        if (ppObjectIDs == nullptr) {
            return E_POINTER;
        }
        *ppObjectIDs = nullptr;
        HRESULT hr = DeviceCall("GetFunctionalObjects");
        if (FAILED(hr)) {
            return hr;
        }
        auto* objects = new (std::nothrow) PortableDevicePropVariantCollection();
        if (objects == nullptr) {
            return E_OUTOFMEMORY;
        }
        if (Category == WPD_FUNCTIONAL_CATEGORY_STORAGE || Category == WPD_FUNCTIONAL_CATEGORY_ALL) {
            for (const auto& storage : m_device->Description().storages) {
                if (storage.objectId == "!invalid") {
                    PROPVARIANT number;
                    PropVariantInit(&number);
                    number.vt = VT_UI4;
                    number.ulVal = 7;
                    objects->Add(&number);  // an id of the wrong type, as a broken driver reports it
                } else {
                    objects->AddString(Widen(storage.objectId));
                }
            }
        }
        *ppObjectIDs = objects;
        return S_OK;
    }

    HRESULT STDMETHODCALLTYPE GetSupportedCommands(IPortableDeviceKeyCollection**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetCommandOptions(REFPROPERTYKEY, IPortableDeviceValues**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetSupportedContentTypes(REFGUID, IPortableDevicePropVariantCollection**) override {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE GetSupportedFormats(REFGUID, IPortableDevicePropVariantCollection**) override {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE GetSupportedFormatProperties(REFGUID, IPortableDeviceKeyCollection**) override {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE GetFixedPropertyAttributes(REFGUID, REFPROPERTYKEY, IPortableDeviceValues**) override {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE Cancel() override { return S_OK; }
    HRESULT STDMETHODCALLTYPE GetSupportedEvents(IPortableDevicePropVariantCollection**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetEventOptions(REFGUID, IPortableDeviceValues**) override { return E_NOTIMPL; }

private:
    // A call the device itself answers: one request.
    HRESULT DeviceCall(const char* call) {
        if (m_device->Removed()) {
            return kDeviceGone;
        }
        m_device->Request();
        return m_device->Fault(call);
    }

    std::shared_ptr<EmulatedDevice> m_device;
};

class PortableDevice final : public ComObject<IPortableDevice> {
public:
    ~PortableDevice() override { Close(); }

    HRESULT STDMETHODCALLTYPE Open(LPCWSTR pszPnPDeviceID, IPortableDeviceValues* pClientInfo) override {
        if (pszPnPDeviceID == nullptr || pClientInfo == nullptr) {
            return E_POINTER;
        }
        std::lock_guard<std::mutex> guard(m_lock);
        if (m_device) {
            return E_WPD_DEVICE_ALREADY_OPENED;
        }
        auto device = EmulatorState::Get().Find(pszPnPDeviceID);
        if (!device || device->Removed()) {
            return kNotFound;
        }
        device->Request();  // the session is opened on the device
        const HRESULT fault = device->Fault("Open");
        if (FAILED(fault)) {
            return fault;
        }
        device->SessionOpened(ClientSummary(pClientInfo));
        m_device = std::move(device);
        return S_OK;
    }

    HRESULT STDMETHODCALLTYPE Content(IPortableDeviceContent** ppContent) override {
        if (ppContent == nullptr) {
            return E_POINTER;
        }
        *ppContent = nullptr;
        HRESULT hr = S_OK;
        const auto device = Session("Content", hr);
        if (!device) {
            return hr;
        }
        return CreateContent(device, ppContent);
    }

    HRESULT STDMETHODCALLTYPE Capabilities(IPortableDeviceCapabilities** ppCapabilities) override {
        if (ppCapabilities == nullptr) {
            return E_POINTER;
        }
        *ppCapabilities = nullptr;
        HRESULT hr = S_OK;
        const auto device = Session("Capabilities", hr);
        if (!device) {
            return hr;
        }
        return CreateComObject<PortableDeviceCapabilities>(__uuidof(IPortableDeviceCapabilities),
                                                           reinterpret_cast<void**>(ppCapabilities), device);
    }

    HRESULT STDMETHODCALLTYPE Close() override {
        std::shared_ptr<EmulatedDevice> device;
        {
            std::lock_guard<std::mutex> guard(m_lock);
            device.swap(m_device);
        }
        if (device) {
            device->UnadviseSession(this);
            device->SessionClosed();
        }
        return S_OK;
    }

    HRESULT STDMETHODCALLTYPE Advise(const DWORD, IPortableDeviceEventCallback* pCallback, IPortableDeviceValues*,
                                     LPWSTR* ppszCookie) override {
        if (pCallback == nullptr || ppszCookie == nullptr) {
            return E_POINTER;
        }
        *ppszCookie = nullptr;
        HRESULT hr = S_OK;
        const auto device = Session("Advise", hr);
        if (!device) {
            return hr;
        }
        *ppszCookie = CoTaskStrDup(device->Advise(pCallback, this).c_str());
        return *ppszCookie != nullptr ? S_OK : E_OUTOFMEMORY;
    }

    HRESULT STDMETHODCALLTYPE Unadvise(LPCWSTR pszCookie) override {
        if (pszCookie == nullptr) {
            return E_POINTER;
        }
        std::shared_ptr<EmulatedDevice> device;
        {
            std::lock_guard<std::mutex> guard(m_lock);
            device = m_device;
        }
        if (!device) {
            return kDeviceNotOpen;
        }
        const HRESULT fault = device->Fault("Unadvise");
        if (FAILED(fault)) {
            return fault;
        }
        return device->Unadvise(pszCookie) ? S_OK : E_INVALIDARG;
    }

    HRESULT STDMETHODCALLTYPE GetPnPDeviceID(LPWSTR* ppszPnPDeviceID) override {
        if (ppszPnPDeviceID == nullptr) {
            return E_POINTER;
        }
        std::lock_guard<std::mutex> guard(m_lock);
        if (!m_device) {
            return kDeviceNotOpen;
        }
        *ppszPnPDeviceID = CoTaskStrDup(m_device->Id().c_str());
        return *ppszPnPDeviceID != nullptr ? S_OK : E_OUTOFMEMORY;
    }

    HRESULT STDMETHODCALLTYPE SendCommand(const DWORD, IPortableDeviceValues*, IPortableDeviceValues**) override {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE Cancel() override { return S_OK; }

private:
    // The open device, after counting the call and applying its fault; null with the error otherwise.
    std::shared_ptr<EmulatedDevice> Session(const char* call, HRESULT& hr_out) {
        std::shared_ptr<EmulatedDevice> device;
        {
            std::lock_guard<std::mutex> guard(m_lock);
            device = m_device;
        }
        if (!device) {
            hr_out = kDeviceNotOpen;
            return nullptr;
        }
        if (device->Removed()) {
            hr_out = kDeviceGone;
            return nullptr;
        }
        const HRESULT fault = device->Fault(call);
        if (FAILED(fault)) {
            hr_out = fault;
            return nullptr;
        }
        return device;
    }

    // What the client said about itself, in a form tests can compare.
    static std::wstring ClientSummary(IPortableDeviceValues* info) {
        std::wstring summary;
        LPWSTR name = nullptr;
        if (SUCCEEDED(info->GetStringValue(WPD_CLIENT_NAME, &name))) {
            summary += L"name=" + std::wstring(name);
            CoTaskMemFree(name);
        }
        const struct {
            const wchar_t* label;
            const PROPERTYKEY* key;
        } numbers[] = {{L";major=", &WPD_CLIENT_MAJOR_VERSION},
                       {L";minor=", &WPD_CLIENT_MINOR_VERSION},
                       {L";revision=", &WPD_CLIENT_REVISION},
                       {L";qos=", &WPD_CLIENT_SECURITY_QUALITY_OF_SERVICE}};
        for (const auto& number : numbers) {
            ULONG value = 0;
            if (SUCCEEDED(info->GetUnsignedIntegerValue(*number.key, &value))) {
                summary += number.label + std::to_wstring(value);
            }
        }
        return summary;
    }

    std::mutex m_lock;
    std::shared_ptr<EmulatedDevice> m_device;
    HRESULT hr_out = S_OK;
};

}  // namespace

HRESULT CreatePortableDevice(REFIID riid, void** ppv) {
    return CreateComObject<PortableDevice>(riid, ppv);
}

}  // namespace dorwex::emulator
