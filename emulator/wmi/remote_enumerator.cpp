#include "remote_enumerator.h"

#include <chrono>
#include <wrl/client.h>

#include "dorwex_wmi_service.h"

using Microsoft::WRL::ComPtr;

namespace dorwex::emulator::wmi {

namespace {

// In the service: one object per call out of the service's enumerator.
class ObjectFetch final : public ComObject<IDorwexObjectFetch> {
public:
    explicit ObjectFetch(IEnumWbemClassObject* enumerator) : m_enumerator(enumerator) {}
    HRESULT STDMETHODCALLTYPE NextObject(LONG lTimeout, IWbemClassObject** ppObject) override {
        if (ppObject == nullptr) {
            return WBEM_E_INVALID_PARAMETER;
        }
        *ppObject = nullptr;
        ULONG returned = 0;
        const HRESULT hr = m_enumerator->Next(lTimeout, 1, ppObject, &returned);
        if (returned == 0) {
            *ppObject = nullptr;
        }
        return hr;
    }
    HRESULT STDMETHODCALLTYPE Reset() override { return m_enumerator->Reset(); }
    HRESULT STDMETHODCALLTYPE Skip(LONG lTimeout, ULONG nCount) override { return m_enumerator->Skip(lTimeout, nCount); }
    HRESULT STDMETHODCALLTYPE NextAsync(ULONG uCount, IWbemObjectSink* pSink) override {
        return m_enumerator->NextAsync(uCount, pSink);
    }
    HRESULT STDMETHODCALLTYPE Clone(IEnumWbemClassObject** ppEnum) override { return m_enumerator->Clone(ppEnum); }

private:
    ComPtr<IEnumWbemClassObject> m_enumerator;
};

// In the client: IEnumWbemClassObject over the service's fetch.
class FetchedEnumerator final : public ComObject<IEnumWbemClassObject> {
public:
    explicit FetchedEnumerator(ComPtr<IDorwexObjectFetch> fetch) : m_fetch(std::move(fetch)) {}
    HRESULT STDMETHODCALLTYPE Reset() override { return m_fetch->Reset(); }
    HRESULT STDMETHODCALLTYPE Next(LONG lTimeout, ULONG uCount, IWbemClassObject** apObjects,
                                   ULONG* puReturned) override {
        if (apObjects == nullptr || puReturned == nullptr) {
            return WBEM_E_INVALID_PARAMETER;
        }
        *puReturned = 0;
        const bool forever = lTimeout == static_cast<LONG>(WBEM_INFINITE);
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(lTimeout < 0 ? 0 : lTimeout);
        while (*puReturned < uCount) {
            LONG left = static_cast<LONG>(WBEM_INFINITE);
            if (!forever) {
                const auto remaining = std::chrono::duration_cast<std::chrono::milliseconds>(
                    deadline - std::chrono::steady_clock::now());
                left = remaining.count() < 0 ? 0 : static_cast<LONG>(remaining.count());
            }
            IWbemClassObject* object = nullptr;
            const HRESULT hr = m_fetch->NextObject(left, &object);
            if (object != nullptr) {
                apObjects[(*puReturned)++] = object;
            }
            if (hr != WBEM_S_NO_ERROR) {
                return hr;
            }
        }
        return WBEM_S_NO_ERROR;
    }
    HRESULT STDMETHODCALLTYPE NextAsync(ULONG uCount, IWbemObjectSink* pSink) override {
        return m_fetch->NextAsync(uCount, pSink);
    }
    HRESULT STDMETHODCALLTYPE Clone(IEnumWbemClassObject** ppEnum) override { return m_fetch->Clone(ppEnum); }
    HRESULT STDMETHODCALLTYPE Skip(LONG lTimeout, ULONG nCount) override { return m_fetch->Skip(lTimeout, nCount); }

private:
    ComPtr<IDorwexObjectFetch> m_fetch;
};

// A fetch over the enumerator, with the one reference the caller releases. (mingw-w64's ComPtr::Attach adds
// a reference of its own, unlike the SDK's: a fetch made with it was never freed, nor its enumerator.)
HRESULT NewFetch(IEnumWbemClassObject* enumerator, ComPtr<IDorwexObjectFetch>& fetch_out) {
    return CreateComObject<ObjectFetch>(IID_IDorwexObjectFetch, reinterpret_cast<void**>(fetch_out.GetAddressOf()),
                                        enumerator);
}

}  // namespace

HRESULT MarshalledByFetch::GetUnmarshalClass(REFIID, void*, DWORD, void*, DWORD, CLSID* pCid) {
    if (pCid == nullptr) {
        return E_POINTER;
    }
    *pCid = kCLSID_EnumeratorUnmarshaller;
    return S_OK;
}

HRESULT MarshalledByFetch::GetMarshalSizeMax(REFIID, void*, DWORD dwDestContext, void* pvDestContext, DWORD mshlflags,
                                             DWORD* pSize) {
    ComPtr<IDorwexObjectFetch> fetch;
    const HRESULT hr = NewFetch(Enumerator(), fetch);
    return FAILED(hr) ? hr
                      : CoGetMarshalSizeMax(pSize, IID_IDorwexObjectFetch, fetch.Get(), dwDestContext, pvDestContext,
                                            mshlflags);
}

HRESULT MarshalledByFetch::MarshalInterface(IStream* pStm, REFIID, void*, DWORD dwDestContext, void* pvDestContext,
                                            DWORD mshlflags) {
    ComPtr<IDorwexObjectFetch> fetch;
    const HRESULT hr = NewFetch(Enumerator(), fetch);
    return FAILED(hr) ? hr
                      : CoMarshalInterface(pStm, IID_IDorwexObjectFetch, fetch.Get(), dwDestContext, pvDestContext,
                                           mshlflags);
}

HRESULT MarshalledByFetch::UnmarshalInterface(IStream*, REFIID, void**) {
    return E_NOTIMPL;  // the unmarshaller class does this
}

HRESULT MarshalledByFetch::ReleaseMarshalData(IStream* pStm) {
    return CoReleaseMarshalData(pStm);
}

HRESULT MarshalledByFetch::DisconnectObject(DWORD) {
    return S_OK;
}

HRESULT EnumeratorUnmarshaller::UnmarshalInterface(IStream* pStm, REFIID riid, void** ppv) {
    if (ppv == nullptr) {
        return E_POINTER;
    }
    *ppv = nullptr;
    ComPtr<IDorwexObjectFetch> fetch;
    HRESULT hr = CoUnmarshalInterface(pStm, IID_IDorwexObjectFetch, reinterpret_cast<void**>(fetch.GetAddressOf()));
    if (FAILED(hr)) {
        return hr;
    }
    return CreateComObject<FetchedEnumerator>(riid, ppv, std::move(fetch));
}

HRESULT EnumeratorUnmarshaller::ReleaseMarshalData(IStream* pStm) {
    return CoReleaseMarshalData(pStm);
}

}  // namespace dorwex::emulator::wmi
