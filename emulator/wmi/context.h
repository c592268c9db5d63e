// IWbemContext: named values a caller passes along with a WMI call.
#pragma once

#include <windows.h>
#include <wbemcli.h>

#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "by_value.h"
#include "emulator/common/com_object.h"

namespace dorwex::emulator::wmi {

// Marshalled by value, as the service hands a caller's context to a provider in another process.
class Context final : public ComObject<IWbemContext>, public MarshalledByValue {
public:
    ~Context() override;

    // A new context (one reference) from a tag::kContext item; WBEM_E_INVALID_STREAM when there is none.
    static HRESULT ReadState(wire::Reader& reader, Context** context_out);

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override;
    ULONG STDMETHODCALLTYPE AddRef() override { return ComObject<IWbemContext>::AddRef(); }
    ULONG STDMETHODCALLTYPE Release() override { return ComObject<IWbemContext>::Release(); }

    HRESULT STDMETHODCALLTYPE Clone(IWbemContext** ppNewCopy) override;
    HRESULT STDMETHODCALLTYPE GetNames(LONG lFlags, SAFEARRAY** pNames) override;
    HRESULT STDMETHODCALLTYPE BeginEnumeration(LONG lFlags) override;
    HRESULT STDMETHODCALLTYPE Next(LONG lFlags, BSTR* pstrName, VARIANT* pValue) override;
    HRESULT STDMETHODCALLTYPE EndEnumeration() override;
    HRESULT STDMETHODCALLTYPE SetValue(LPCWSTR wszName, LONG lFlags, VARIANT* pValue) override;
    HRESULT STDMETHODCALLTYPE GetValue(LPCWSTR wszName, LONG lFlags, VARIANT* pValue) override;
    HRESULT STDMETHODCALLTYPE DeleteValue(LPCWSTR wszName, LONG lFlags) override;
    HRESULT STDMETHODCALLTYPE DeleteAll() override;

protected:
    HRESULT WriteState(wire::Writer& writer) const override;

private:
    mutable std::mutex m_lock;
    std::vector<std::pair<std::wstring, VARIANT>> m_values;
    size_t m_enumeration = 0;
};

}  // namespace dorwex::emulator::wmi
