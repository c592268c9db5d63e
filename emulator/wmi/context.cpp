#include "context.h"

#include <oleauto.h>

#include "string_array.h"

namespace dorwex::emulator::wmi {

Context::~Context() {
    DeleteAll();
}

HRESULT Context::Clone(IWbemContext** ppNewCopy) {
    if (ppNewCopy == nullptr) {
        return WBEM_E_INVALID_PARAMETER;
    }
    auto* copy = new (std::nothrow) Context();
    if (copy == nullptr) {
        return WBEM_E_OUT_OF_MEMORY;
    }
    std::lock_guard<std::mutex> guard(m_lock);
    for (auto& entry : m_values) {
        copy->SetValue(entry.first.c_str(), 0, &entry.second);
    }
    *ppNewCopy = copy;
    return WBEM_S_NO_ERROR;
}

HRESULT Context::GetNames(LONG, SAFEARRAY** pNames) {
    if (pNames == nullptr) {
        return WBEM_E_INVALID_PARAMETER;
    }
    std::vector<std::wstring> names;
    {
        std::lock_guard<std::mutex> guard(m_lock);
        for (const auto& entry : m_values) {
            names.push_back(entry.first);
        }
    }
    *pNames = StringArray(names);
    return *pNames != nullptr ? WBEM_S_NO_ERROR : WBEM_E_OUT_OF_MEMORY;
}

HRESULT Context::BeginEnumeration(LONG) {
    std::lock_guard<std::mutex> guard(m_lock);
    m_enumeration = 0;
    return WBEM_S_NO_ERROR;
}

HRESULT Context::Next(LONG, BSTR* pstrName, VARIANT* pValue) {
    std::lock_guard<std::mutex> guard(m_lock);
    if (m_enumeration >= m_values.size()) {
        return WBEM_S_NO_MORE_DATA;
    }
    const auto& entry = m_values[m_enumeration++];
    if (pstrName != nullptr) {
        *pstrName = SysAllocString(entry.first.c_str());
    }
    if (pValue != nullptr) {
        VariantInit(pValue);
        return VariantCopy(pValue, const_cast<VARIANT*>(&entry.second));
    }
    return WBEM_S_NO_ERROR;
}

HRESULT Context::EndEnumeration() {
    return WBEM_S_NO_ERROR;
}

HRESULT Context::SetValue(LPCWSTR wszName, LONG, VARIANT* pValue) {
    if (wszName == nullptr || pValue == nullptr) {
        return WBEM_E_INVALID_PARAMETER;
    }
    VARIANT copy;
    VariantInit(&copy);
    const HRESULT hr = VariantCopy(&copy, pValue);
    if (FAILED(hr)) {
        return hr;
    }
    std::lock_guard<std::mutex> guard(m_lock);
    for (auto& entry : m_values) {
        if (_wcsicmp(entry.first.c_str(), wszName) == 0) {
            VariantClear(&entry.second);
            entry.second = copy;
            return WBEM_S_NO_ERROR;
        }
    }
    m_values.emplace_back(wszName, copy);
    return WBEM_S_NO_ERROR;
}

HRESULT Context::GetValue(LPCWSTR wszName, LONG, VARIANT* pValue) {
    if (wszName == nullptr || pValue == nullptr) {
        return WBEM_E_INVALID_PARAMETER;
    }
    std::lock_guard<std::mutex> guard(m_lock);
    for (const auto& entry : m_values) {
        if (_wcsicmp(entry.first.c_str(), wszName) == 0) {
            VariantInit(pValue);
            return VariantCopy(pValue, const_cast<VARIANT*>(&entry.second));
        }
    }
    return WBEM_E_NOT_FOUND;
}

HRESULT Context::DeleteValue(LPCWSTR wszName, LONG) {
    std::lock_guard<std::mutex> guard(m_lock);
    for (auto it = m_values.begin(); it != m_values.end(); ++it) {
        if (wszName != nullptr && _wcsicmp(it->first.c_str(), wszName) == 0) {
            VariantClear(&it->second);
            m_values.erase(it);
            return WBEM_S_NO_ERROR;
        }
    }
    return WBEM_S_NO_ERROR;
}

HRESULT Context::DeleteAll() {
    std::lock_guard<std::mutex> guard(m_lock);
    for (auto& entry : m_values) {
        VariantClear(&entry.second);
    }
    m_values.clear();
    return WBEM_S_NO_ERROR;
}

}  // namespace dorwex::emulator::wmi
