// A COM object that lives on a test's stack or in a test's member: it answers QueryInterface for IUnknown
// and its one interface, and only counts references (it never deletes itself), so that a test can read
// afterwards how many the code under test kept.
#pragma once

#include <unknwn.h>

#include <atomic>

template <class Interface>
class StackCom : public Interface {
public:
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override {
        if (riid == IID_IUnknown || riid == __uuidof(Interface)) {
            *ppv = static_cast<Interface*>(this);
            AddRef();
            return S_OK;
        }
        *ppv = nullptr;
        return E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return ++refs; }
    ULONG STDMETHODCALLTYPE Release() override { return --refs; }

    std::atomic<ULONG> refs{1};
};
