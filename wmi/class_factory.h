// The class factory that WMI (through COM) asks for provider objects.
#pragma once

#include <unknwn.h>

class CDorWEXWPDWMIClassFactory : public IClassFactory {
public:
    CDorWEXWPDWMIClassFactory();
    virtual ~CDorWEXWPDWMIClassFactory();
    CDorWEXWPDWMIClassFactory(const CDorWEXWPDWMIClassFactory&) = delete;
    CDorWEXWPDWMIClassFactory& operator=(const CDorWEXWPDWMIClassFactory&) = delete;

    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override;
    STDMETHODIMP_(ULONG) AddRef() override;
    STDMETHODIMP_(ULONG) Release() override;
    STDMETHODIMP CreateInstance(IUnknown* pUnkOuter, REFIID riid, void** ppv) override;
    STDMETHODIMP LockServer(BOOL fLock) override;

private:
    volatile LONG m_longReferenceCount = 0;  // the first QueryInterface raises it to 1
};
