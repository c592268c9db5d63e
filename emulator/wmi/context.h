// IWbemContext: named values a caller passes along with a WMI call.
#pragma once

#include <windows.h>
#include <wbemcli.h>

#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "emulator/common/com_object.h"

namespace dorwex::emulator::wmi {

class Context final : public ComObject<IWbemContext> {
public:
    ~Context() override;

    HRESULT STDMETHODCALLTYPE Clone(IWbemContext** ppNewCopy) override;
    HRESULT STDMETHODCALLTYPE GetNames(LONG lFlags, SAFEARRAY** pNames) override;
    HRESULT STDMETHODCALLTYPE BeginEnumeration(LONG lFlags) override;
    HRESULT STDMETHODCALLTYPE Next(LONG lFlags, BSTR* pstrName, VARIANT* pValue) override;
    HRESULT STDMETHODCALLTYPE EndEnumeration() override;
    HRESULT STDMETHODCALLTYPE SetValue(LPCWSTR wszName, LONG lFlags, VARIANT* pValue) override;
    HRESULT STDMETHODCALLTYPE GetValue(LPCWSTR wszName, LONG lFlags, VARIANT* pValue) override;
    HRESULT STDMETHODCALLTYPE DeleteValue(LPCWSTR wszName, LONG lFlags) override;
    HRESULT STDMETHODCALLTYPE DeleteAll() override;

private:
    std::mutex m_lock;
    std::vector<std::pair<std::wstring, VARIANT>> m_values;
    size_t m_enumeration = 0;
};

}  // namespace dorwex::emulator::wmi
