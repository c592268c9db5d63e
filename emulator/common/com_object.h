// Reference counting and QueryInterface for the emulator's COM objects. A class derives from
// ComObject<Primary, Bases...>, where Primary is the interface it implements and Bases are the interfaces
// Primary derives from (IUnknown is always answered).
#pragma once

#include <windows.h>
#include <unknwn.h>

#include <atomic>
#include <new>

namespace dorwex::emulator {

// Live COM objects of the emulator, for leak checks in tests.
extern std::atomic<long> g_liveObjects;

template <class Primary, class... Bases>
class ComObject : public Primary {
public:
    ComObject() { ++g_liveObjects; }
    virtual ~ComObject() { --g_liveObjects; }
    ComObject(const ComObject&) = delete;
    ComObject& operator=(const ComObject&) = delete;

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override {
        if (ppv == nullptr) {
            return E_POINTER;
        }
        if (riid == IID_IUnknown || riid == __uuidof(Primary) || ((riid == __uuidof(Bases)) || ...)) {
            *ppv = static_cast<Primary*>(this);
            AddRef();
            return S_OK;
        }
        *ppv = nullptr;
        return E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return static_cast<ULONG>(++m_refs); }
    ULONG STDMETHODCALLTYPE Release() override {
        const long refs = --m_refs;
        if (refs == 0) {
            delete this;
        }
        return static_cast<ULONG>(refs);
    }

private:
    std::atomic<long> m_refs{1};
};

// Creates an object with one reference and hands it out as the requested interface.
template <class T, class... Args>
HRESULT CreateComObject(REFIID riid, void** ppv, Args&&... args) {
    if (ppv == nullptr) {
        return E_POINTER;
    }
    *ppv = nullptr;
    T* object = new (std::nothrow) T(std::forward<Args>(args)...);
    if (object == nullptr) {
        return E_OUTOFMEMORY;
    }
    const HRESULT hr = object->QueryInterface(riid, ppv);
    object->Release();
    return hr;
}

// A CoTaskMemAlloc'd copy of a wide string, as the portable-device API returns ids and texts.
LPWSTR CoTaskStrDup(const wchar_t* text);

}  // namespace dorwex::emulator
