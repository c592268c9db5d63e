// The provider object that WMI creates through the class factory. This is its COM identity and its
// lifetime bookkeeping; the WMI interfaces it serves are added on top of this.
#pragma once

#include <unknwn.h>

class CDorWEXWPDWMI : public IUnknown {
public:
    CDorWEXWPDWMI();
    CDorWEXWPDWMI(const CDorWEXWPDWMI&) = delete;
    CDorWEXWPDWMI& operator=(const CDorWEXWPDWMI&) = delete;

    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override;
    STDMETHODIMP_(ULONG) AddRef() override;
    STDMETHODIMP_(ULONG) Release() override;

private:
    // Only Release destroys a provider object.
    virtual ~CDorWEXWPDWMI();

    volatile LONG m_longReferenceCount = 0;
};
