#include "context.h"

#include <oleauto.h>

#include "string_array.h"

namespace dorwex::emulator::wmi {

Context::~Context() {
    DeleteAll();
}

HRESULT Context::QueryInterface(REFIID riid, void** ppv) {
    if (ppv != nullptr && riid == IID_IMarshal) {
        *ppv = static_cast<IMarshal*>(this);
        AddRef();
        return S_OK;
    }
    return ComObject<IWbemContext>::QueryInterface(riid, ppv);
}

HRESULT Context::WriteState(wire::Writer& writer) const {
    // Copies first: a value may hold an object whose own lock the writing takes.
    std::vector<std::pair<std::wstring, VARIANT>> values;
    HRESULT hr = S_OK;
    {
        std::lock_guard<std::mutex> guard(m_lock);
        for (const auto& entry : m_values) {
            values.emplace_back(entry.first, VARIANT{});
            VariantInit(&values.back().second);
            if (FAILED(hr = VariantCopy(&values.back().second, const_cast<VARIANT*>(&entry.second)))) {
                break;
            }
        }
    }
    const size_t context = writer.Open(tag::kContext);
    for (size_t i = 0; SUCCEEDED(hr) && i < values.size(); ++i) {
        const size_t entry = writer.Open(tag::kEntry);
        writer.Text(tag::kName, WireText(values[i].first));
        hr = WriteVariant(writer, values[i].second, 0);
        writer.Close(entry);
    }
    writer.Close(context);
    for (auto& entry : values) {
        VariantClear(&entry.second);
    }
    return hr;
}

HRESULT Context::ReadState(wire::Reader& reader, Context** context_out) {
    *context_out = nullptr;
    wire::Reader entries;
    if (!reader.Open(tag::kContext, entries)) {
        return WBEM_E_INVALID_STREAM;
    }
    auto* context = new (std::nothrow) Context();
    if (context == nullptr) {
        return WBEM_E_OUT_OF_MEMORY;
    }
    HRESULT hr = S_OK;
    while (SUCCEEDED(hr) && !entries.AtEnd()) {
        wire::Reader entry;
        std::u16string name;
        VARIANT value;
        VariantInit(&value);
        if (!entries.Open(tag::kEntry, entry) || !entry.Text(tag::kName, name)) {
            hr = WBEM_E_INVALID_STREAM;
        } else if (SUCCEEDED(hr = ReadVariant(entry, value, 0))) {
            if (entry.AtEnd()) {
                context->m_values.emplace_back(FromWireText(name), value);  // the context owns the value now
            } else {
                VariantClear(&value);
                hr = WBEM_E_INVALID_STREAM;
            }
        }
    }
    if (FAILED(hr)) {
        context->Release();
        return hr;
    }
    *context_out = context;
    return S_OK;
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
