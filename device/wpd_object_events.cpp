#include "wpd_object_events.h"

#include <objbase.h>

#include <string>

#include "../common/com_memory.h"
#include "../common/trace.h"
#include "../monitor/device_host.h"
#include "os_version.h"
#include "wpd_object.h"

namespace {

const wchar_t* EventName(const GUID& event_in) {
    if (event_in == WPD_EVENT_OBJECT_ADDED) {
        return L"WPD_EVENT_OBJECT_ADDED";
    }
    if (event_in == WPD_EVENT_OBJECT_UPDATED) {
        return L"WPD_EVENT_OBJECT_UPDATED";
    }
    if (event_in == WPD_EVENT_OBJECT_REMOVED) {
        return L"WPD_EVENT_OBJECT_REMOVED";
    }
    if (event_in == WPD_EVENT_DEVICE_REMOVED) {
        return L"WPD_EVENT_DEVICE_REMOVED";
    }
    return L"UNKNOWN";
}

// Windows 10 from build 16299 delivers every content event; older systems only additions.
bool DeliversAllEvents() {
    DorWEXOSVersion l_OSVersion{};
    return ReadOSVersion(&l_OSVersion) != 0 && l_OSVersion.dwordMajorVersion == 10 &&
           l_OSVersion.dwordBuildNumber >= 16299;
}

}  // namespace

CDorWEXWPDObjectEvents::CDorWEXWPDObjectEvents(IDorWEXDeviceHost* pHost_in, CDorWEXWPDObject* pDevice_in)
    : m_pHost(pHost_in) {
    if (pDevice_in != nullptr) {
        m_pDevice = pDevice_in->weak_from_this();
    }
}

CDorWEXWPDObjectEvents::~CDorWEXWPDObjectEvents() {
    Trace(L"CDorWEXWPDObjectEvents::~CDorWEXWPDObjectEvents");
    CoTaskMemFree(m_pwcharCookie);
}

HRESULT CDorWEXWPDObjectEvents::QueryInterface(REFIID riid, void** ppv) {
    Trace(L"CDorWEXWPDObjectEvents::QueryInterface");
    if (ppv == nullptr) {
        return E_INVALIDARG;
    }
    if (riid == IID_IUnknown || riid == IID_IPortableDeviceEventCallback) {
        *ppv = static_cast<IPortableDeviceEventCallback*>(this);
        AddRef();
        return S_OK;
    }
    *ppv = nullptr;
    return E_NOINTERFACE;
}

ULONG CDorWEXWPDObjectEvents::AddRef() {
    const LONG l_longCount = ++m_longRefCount;
    Trace(L"CDorWEXWPDObjectEvents::AddRef, %ld", l_longCount);
    return static_cast<ULONG>(l_longCount);
}

ULONG CDorWEXWPDObjectEvents::Release() {
    const LONG l_longCount = --m_longRefCount;
    Trace(L"CDorWEXWPDObjectEvents::Release, %ld", l_longCount);
    if (l_longCount == 0) {
        delete this;
    }
    return static_cast<ULONG>(l_longCount);
}

HRESULT CDorWEXWPDObjectEvents::Register(IPortableDevice* pIPortableDevice_in) {
    Trace(L"CDorWEXWPDObjectEvents::Register");
    if (m_pwcharCookie != nullptr) {
        return S_OK;
    }
    if (pIPortableDevice_in == nullptr) {
        return E_POINTER;
    }
    return pIPortableDevice_in->Advise(0, this, nullptr, &m_pwcharCookie);
}

HRESULT CDorWEXWPDObjectEvents::UnRegister(IPortableDevice* pIPortableDevice_in) {
    Trace(L"CDorWEXWPDObjectEvents::UnRegister");
    if (m_pwcharCookie == nullptr) {
        return S_OK;
    }
    const HRESULT l_HRESULT = pIPortableDevice_in != nullptr ? pIPortableDevice_in->Unadvise(m_pwcharCookie) : S_OK;
    CoTaskMemFree(m_pwcharCookie);
    m_pwcharCookie = nullptr;
    return l_HRESULT;
}

HRESULT CDorWEXWPDObjectEvents::OnEvent(IPortableDeviceValues* pEventParameters_in) {
    Trace(L"CDorWEXWPDObjectEvents::OnEvent enter.\n");
    if (pEventParameters_in == nullptr) {
        return E_POINTER;
    }
    GUID l_GUIDEvent{};
    HRESULT l_HRESULT = pEventParameters_in->GetGuidValue(WPD_EVENT_PARAMETER_EVENT_ID, &l_GUIDEvent);
    if (FAILED(l_HRESULT)) {
        return l_HRESULT;
    }
    try {
        // Each part of the text is there only when its value could be read.
        std::wstring l_wstringText;
        const auto l_Read = [&](const PROPERTYKEY& key_in, CoTaskString& value_out, const wchar_t* pwcharLabel_in) {
            l_HRESULT = pEventParameters_in->GetStringValue(key_in, &value_out);
            if (SUCCEEDED(l_HRESULT) && value_out.Get() != nullptr && pwcharLabel_in != nullptr) {
                l_wstringText += pwcharLabel_in;
                l_wstringText += value_out.Get();
            }
        };
        const auto l_Value = [](const CoTaskString& value_in) { return value_in.Get() != nullptr ? value_in.Get() : L""; };
        CoTaskString l_ObjectId, l_ObjectName, l_OriginalFileName, l_ParentId, l_PnPDeviceId, l_PersistentUniqueId;
        l_Read(WPD_OBJECT_ID, l_ObjectId, L"Object Id: ");
        l_Read(WPD_OBJECT_NAME, l_ObjectName, L" Object Name: ");
        l_Read(WPD_OBJECT_ORIGINAL_FILE_NAME, l_OriginalFileName, L" Original File Name: ");
        l_Read(WPD_OBJECT_PARENT_ID, l_ParentId, L" Parent Id: ");
        // What the path lookups remember of an object the device changed or removed goes first, folders
        // included; an event without the object's id (a minimal driver) or the device's own removal clears all.
        if (l_GUIDEvent == WPD_EVENT_OBJECT_REMOVED || l_GUIDEvent == WPD_EVENT_OBJECT_UPDATED ||
            l_GUIDEvent == WPD_EVENT_DEVICE_REMOVED) {
            if (const auto l_pDevice = m_pDevice.lock()) {
                l_pDevice->ForgetObject(l_GUIDEvent == WPD_EVENT_DEVICE_REMOVED ? nullptr : l_ObjectId.Get());
            }
        }
        const wchar_t* l_pwcharEventName = EventName(l_GUIDEvent);
        l_wstringText += L" Event: ";
        l_wstringText += l_pwcharEventName;

        GUID l_GUIDContentType{};
        l_HRESULT = pEventParameters_in->GetGuidValue(WPD_OBJECT_CONTENT_TYPE, &l_GUIDContentType);
        const bool l_boolContentType = SUCCEEDED(l_HRESULT);
        const bool l_boolFunctionalObject = l_boolContentType && l_GUIDContentType == WPD_CONTENT_TYPE_FUNCTIONAL_OBJECT;
        const bool l_boolFolder = l_boolContentType && l_GUIDContentType == WPD_CONTENT_TYPE_FOLDER;
        // A storage that has just come up on the device: its disk is published, not raised as an event.
        const bool l_boolStorageArrival = l_boolFunctionalObject && wcscmp(l_Value(l_ParentId), L"DEVICE") == 0 &&
                                          wcscmp(l_Value(l_ObjectId), L"s10001") == 0;
        wchar_t l_wcharContentType[64] = L"";
        if (l_boolContentType) {
            StringFromGUID2(l_GUIDContentType, l_wcharContentType, 64);
            l_wstringText += L" ContentType: ";
            l_wstringText += l_wcharContentType;
        }
        l_Read(WPD_EVENT_PARAMETER_PNP_DEVICE_ID, l_PnPDeviceId, nullptr);
        l_Read(WPD_OBJECT_PERSISTENT_UNIQUE_ID, l_PersistentUniqueId, L"Object Persistent Unique Id: ");

        bool l_boolDeliver = l_boolStorageArrival || (!l_boolFolder && !l_boolFunctionalObject);
        if (l_boolDeliver && !DeliversAllEvents()) {
            Trace(L"CDorWEXWPDObjectEvents::OnEvent before suppress %s.\n", l_wstringText.c_str());
            if (l_GUIDEvent != WPD_EVENT_OBJECT_ADDED) {
                Trace(L"CDorWEXWPDObjectEvents::OnEvent WPD_EVENT_OBJECT_ADDED being suppressed.\n");
                l_boolDeliver = false;
            }
        }
        if (l_boolDeliver && !l_boolStorageArrival) {
            Trace(L"CDorWEXWMIWPDCore::SendEvent enter.\n");
            if (m_pHost != nullptr) {
                // The folder the object is in, as a storage path, when the device is still there to ask.
                _bstr_t l_bstr_tTargetPath(L"");
                if (l_ParentId.Get() != nullptr && l_ParentId.Get()[0] != L'\0') {
                    if (const auto l_pDevice = m_pDevice.lock()) {
                        l_bstr_tTargetPath = l_pDevice->GetObjectTargetPath(l_ParentId.Get());
                    }
                }
                DorWEXWPDEvent l_Event;
                l_Event.pwcharEventId = l_pwcharEventName;
                l_Event.pwcharObjectId = l_Value(l_ObjectId);
                l_Event.pwcharObjectDeviceId = l_Value(l_PnPDeviceId);
                l_Event.pwcharObjectDevicePersistentUniqueId = l_Value(l_PersistentUniqueId);
                l_Event.pwcharObjectParentId = l_Value(l_ParentId);
                l_Event.pwcharObjectName = l_Value(l_ObjectName);
                l_Event.pwcharTargetPath = BstrText(l_bstr_tTargetPath);
                l_Event.pwcharSourcePath = l_wcharContentType;
                l_Event.pwcharDeviceName = L"";
                l_Event.pwcharOriginalFileName = l_Value(l_OriginalFileName);
                l_Event.pwcharEventText = l_wstringText.c_str();
                l_Event.pwcharPID = L"";
                m_pHost->SendEvent(l_Event);
            }
        } else if (l_boolDeliver && l_PnPDeviceId.Get() != nullptr && m_pHost != nullptr) {
            m_pHost->PostDiskMount(l_PnPDeviceId.Get());
        }
        Trace(L"CDorWEXWPDObjectEvents::OnEvent, %s\n", l_wstringText.c_str());
    } catch (...) {
        return E_OUTOFMEMORY;
    }
    return l_HRESULT;
}
