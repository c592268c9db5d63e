// IPortableDevice (one session to one device) and its capabilities.
#include <mutex>

#include "collections.h"
#include "device_session.h"
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
    explicit PortableDeviceCapabilities(std::shared_ptr<DeviceSession> session) : m_session(std::move(session)) {}

    HRESULT STDMETHODCALLTYPE GetFunctionalCategories(IPortableDevicePropVariantCollection** ppCategories) override {
        if (ppCategories == nullptr) {
            return E_POINTER;
        }
        *ppCategories = nullptr;
        HRESULT hr = m_session->DeviceCall("GetFunctionalCategories");
        if (FAILED(hr)) {
            return hr;
        }
        auto* categories = new (std::nothrow) PortableDevicePropVariantCollection();
        if (categories == nullptr) {
            return E_OUTOFMEMORY;
        }
        for (const auto& name : m_session->Device().Description().categories) {
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
        HRESULT hr = m_session->DeviceCall("GetFunctionalObjects");
        if (FAILED(hr)) {
            return hr;
        }
        auto* objects = new (std::nothrow) PortableDevicePropVariantCollection();
        if (objects == nullptr) {
            return E_OUTOFMEMORY;
        }
        if (Category == WPD_FUNCTIONAL_CATEGORY_STORAGE || Category == WPD_FUNCTIONAL_CATEGORY_ALL) {
            for (const auto& storage : m_session->Device().Description().storages) {
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
    HRESULT STDMETHODCALLTYPE Cancel() override { return m_session->Attached(); }
    HRESULT STDMETHODCALLTYPE GetSupportedEvents(IPortableDevicePropVariantCollection**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetEventOptions(REFGUID, IPortableDeviceValues**) override { return E_NOTIMPL; }

private:
    const std::shared_ptr<DeviceSession> m_session;
};

class PortableDevice final : public ComObject<IPortableDevice> {
public:
    ~PortableDevice() override { Close(); }

    HRESULT STDMETHODCALLTYPE Open(LPCWSTR pszPnPDeviceID, IPortableDeviceValues* pClientInfo) override {
        if (pszPnPDeviceID == nullptr || pClientInfo == nullptr) {
            return E_POINTER;
        }
        std::lock_guard<std::mutex> guard(m_lock);
        if (m_session) {
            return E_WPD_DEVICE_ALREADY_OPENED;
        }
        auto device = EmulatorState::Get().Find(pszPnPDeviceID);
        if (!device || device->Removed()) {
            return kNotFound;
        }
        device->Request();  // the session is opened on the device
        if (device->Description().openMilliseconds != 0) {
            EmulatorState::Get().OpeningStarted();
            Sleep(device->Description().openMilliseconds);  // the device's OpenSession
            EmulatorState::Get().OpeningEnded();
        }
        const HRESULT fault = device->Fault("Open");
        if (FAILED(fault)) {
            return fault;
        }
        // "If this property is not set, WPD assumes GENERIC_READ | GENERIC_WRITE" (Client Properties). A
        // policy that denies writing refuses a session that asks for write access ("IPortableDevice::Open
        // method", Remarks: the client then opens again with GENERIC_READ).
        ULONG access = GENERIC_READ | GENERIC_WRITE;
        ULONG desired = 0;
        if (SUCCEEDED(pClientInfo->GetUnsignedIntegerValue(WPD_CLIENT_DESIRED_ACCESS, &desired))) {
            access = desired;
        }
        const bool writable = (access & (GENERIC_WRITE | GENERIC_ALL)) != 0;
        if (writable && device->Description().writeDenied) {
            return E_ACCESSDENIED;
        }
        device->SessionOpened(ClientSummary(pClientInfo));
        m_session = std::make_shared<DeviceSession>(std::move(device), writable);
        return S_OK;
    }

    HRESULT STDMETHODCALLTYPE Content(IPortableDeviceContent** ppContent) override {
        if (ppContent == nullptr) {
            return E_POINTER;
        }
        *ppContent = nullptr;
        HRESULT hr = S_OK;
        const auto session = Session("Content", hr);
        if (!session) {
            return hr;
        }
        return CreateContent(session, ppContent);
    }

    HRESULT STDMETHODCALLTYPE Capabilities(IPortableDeviceCapabilities** ppCapabilities) override {
        if (ppCapabilities == nullptr) {
            return E_POINTER;
        }
        *ppCapabilities = nullptr;
        HRESULT hr = S_OK;
        const auto session = Session("Capabilities", hr);
        if (!session) {
            return hr;
        }
        return CreateComObject<PortableDeviceCapabilities>(__uuidof(IPortableDeviceCapabilities),
                                                           reinterpret_cast<void**>(ppCapabilities), session);
    }

    // Ends the session: the objects obtained through it cease to function, its subscriptions go.
    HRESULT STDMETHODCALLTYPE Close() override {
        std::shared_ptr<DeviceSession> session;
        {
            std::lock_guard<std::mutex> guard(m_lock);
            session.swap(m_session);
        }
        if (session) {
            session->End();
            session->Device().UnadviseSession(this);
            session->Device().SessionClosed();
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
        const auto session = Session("Advise", hr);
        if (!session) {
            return hr;
        }
        *ppszCookie = CoTaskStrDup(session->Device().Advise(pCallback, this).c_str());
        return *ppszCookie != nullptr ? S_OK : E_OUTOFMEMORY;
    }

    HRESULT STDMETHODCALLTYPE Unadvise(LPCWSTR pszCookie) override {
        if (pszCookie == nullptr) {
            return E_POINTER;
        }
        std::shared_ptr<DeviceSession> session;
        {
            std::lock_guard<std::mutex> guard(m_lock);
            session = m_session;
        }
        if (!session) {
            return kDeviceNotOpen;
        }
        const HRESULT fault = session->Device().Fault("Unadvise");
        if (FAILED(fault)) {
            return fault;
        }
        return session->Device().Unadvise(pszCookie) ? S_OK : E_INVALIDARG;
    }

    HRESULT STDMETHODCALLTYPE GetPnPDeviceID(LPWSTR* ppszPnPDeviceID) override {
        if (ppszPnPDeviceID == nullptr) {
            return E_POINTER;
        }
        std::lock_guard<std::mutex> guard(m_lock);
        if (!m_session) {
            return kDeviceNotOpen;
        }
        *ppszPnPDeviceID = CoTaskStrDup(m_session->Device().Id().c_str());
        return *ppszPnPDeviceID != nullptr ? S_OK : E_OUTOFMEMORY;
    }

    HRESULT STDMETHODCALLTYPE SendCommand(const DWORD, IPortableDeviceValues*, IPortableDeviceValues**) override {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE Cancel() override { return S_OK; }

private:
    // The open session, after counting the call and applying its fault; null with the error otherwise.
    std::shared_ptr<DeviceSession> Session(const char* call, HRESULT& hr_out) {
        std::shared_ptr<DeviceSession> session;
        {
            std::lock_guard<std::mutex> guard(m_lock);
            session = m_session;
        }
        if (!session) {
            hr_out = kDeviceNotOpen;
            return nullptr;
        }
        if (session->Device().Removed()) {
            hr_out = kDeviceGone;
            return nullptr;
        }
        const HRESULT fault = session->Device().Fault(call);
        if (FAILED(fault)) {
            hr_out = fault;
            return nullptr;
        }
        return session;
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
                       {L";qos=", &WPD_CLIENT_SECURITY_QUALITY_OF_SERVICE},
                       {L";access=", &WPD_CLIENT_DESIRED_ACCESS}};
        for (const auto& number : numbers) {
            ULONG value = 0;
            if (SUCCEEDED(info->GetUnsignedIntegerValue(*number.key, &value))) {
                summary += number.label + std::to_wstring(value);
            }
        }
        return summary;
    }

    std::mutex m_lock;
    std::shared_ptr<DeviceSession> m_session;
};

}  // namespace

HRESULT CreatePortableDevice(REFIID riid, void** ppv) {
    return CreateComObject<PortableDevice>(riid, ppv);
}

}  // namespace dorwex::emulator
