#include "wpd_object_events.h"

#include <objbase.h>

#include "../wmi/trace.h"

CDorWEXWPDObjectEvents::CDorWEXWPDObjectEvents(CDorWEXWMIWPDCore* pCore_in, CDorWEXWPDObject* pDevice_in)
    : m_pCore(pCore_in), m_pDevice(pDevice_in) {}

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

// Turning content events into WMI events belongs to the event delivery of the WMI side; here an event is
// read far enough to know it is well formed.
HRESULT CDorWEXWPDObjectEvents::OnEvent(IPortableDeviceValues* pEventParameters_in) {
    Trace(L"CDorWEXWPDObjectEvents::OnEvent enter.\n");
    if (pEventParameters_in == nullptr) {
        return E_POINTER;
    }
    GUID l_GUIDEvent{};
    return pEventParameters_in->GetGuidValue(WPD_EVENT_PARAMETER_EVENT_ID, &l_GUIDEvent);
}
