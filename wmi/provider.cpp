#include "provider.h"

#include "module.h"
#include "trace.h"

CDorWEXWPDWMI::CDorWEXWPDWMI() {
    Trace(L"CDorWEXWPDWMI::CDorWEXWPDWMI");
}

CDorWEXWPDWMI::~CDorWEXWPDWMI() {
    Trace(L"CDorWEXWPDWMI::~CDorWEXWPDWMI");
    InterlockedDecrement(&g_longInstanceCountOfDorWEXWMIWPDClass);
}

STDMETHODIMP CDorWEXWPDWMI::QueryInterface(REFIID riid, void** ppv) {
    if (ppv == nullptr) {
        return E_POINTER;
    }
    *ppv = nullptr;
    if (!IsEqualIID(riid, IID_IUnknown)) {
        if (GetTraceLevel() > 1) {
            Trace(L"CDorWEXWPDWMI::QueryInterface, E_NOINTERFACE");
        }
        return E_NOINTERFACE;
    }
    *ppv = static_cast<IUnknown*>(this);
    AddRef();
    if (GetTraceLevel() > 1) {
        Trace(L"CDorWEXWPDWMI::QueryInterface, IID_IUnknown");
    }
    return S_OK;
}

STDMETHODIMP_(ULONG) CDorWEXWPDWMI::AddRef() {
    const LONG l_longCount = InterlockedIncrement(&m_longReferenceCount);
    if (GetTraceLevel() >= 2) {
        Trace(L"CDorWEXWPDWMI::AddRef, %ld", l_longCount);
    }
    return static_cast<ULONG>(l_longCount);
}

STDMETHODIMP_(ULONG) CDorWEXWPDWMI::Release() {
    const LONG l_longCount = InterlockedDecrement(&m_longReferenceCount);
    if (l_longCount == 0) {
        // WMI unloads provider objects freely; the core they share is left running.
        Trace(L"CDorWEXWPDWMI::Release, wmi UNLOAD is occurring\n");
        delete this;
    }
    return static_cast<ULONG>(l_longCount);
}
