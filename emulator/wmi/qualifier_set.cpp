#include "qualifier_set.h"

#include <oleauto.h>

#include <new>

#include "string_array.h"

namespace dorwex::emulator::wmi {

namespace {

HRESULT ValueOf(const QualifierDefinition& qualifier, VARIANT* out) {
    VariantInit(out);
    out->vt = qualifier.type;
    switch (qualifier.type) {
        case VT_BSTR:
            out->bstrVal = SysAllocString(qualifier.text.c_str());
            if (out->bstrVal == nullptr) {
                out->vt = VT_EMPTY;
                return WBEM_E_OUT_OF_MEMORY;
            }
            break;
        case VT_I4:
            out->lVal = qualifier.number;
            break;
        default:
            out->vt = VT_BOOL;
            out->boolVal = qualifier.flag ? VARIANT_TRUE : VARIANT_FALSE;
            break;
    }
    return WBEM_S_NO_ERROR;
}

}  // namespace

const QualifierDefinition* FindQualifierDefinition(const std::vector<QualifierDefinition>& qualifiers,
                                                   const wchar_t* name) {
    if (name == nullptr) {
        return nullptr;
    }
    for (const auto& qualifier : qualifiers) {
        if (_wcsicmp(qualifier.name.c_str(), name) == 0) {
            return &qualifier;
        }
    }
    return nullptr;
}

QualifierSet::QualifierSet(std::vector<QualifierDefinition> qualifiers, LONG flavor)
    : m_qualifiers(std::move(qualifiers)), m_flavor(flavor) {}

HRESULT QualifierSet::Get(LPCWSTR wszName, LONG, VARIANT* pVal, LONG* plFlavor) {
    if (wszName == nullptr) {
        return WBEM_E_INVALID_PARAMETER;
    }
    const QualifierDefinition* qualifier = FindQualifierDefinition(m_qualifiers, wszName);
    if (qualifier == nullptr) {
        return WBEM_E_NOT_FOUND;
    }
    if (plFlavor != nullptr) {
        *plFlavor = m_flavor;
    }
    return pVal != nullptr ? ValueOf(*qualifier, pVal) : static_cast<HRESULT>(WBEM_S_NO_ERROR);
}

HRESULT QualifierSet::Put(LPCWSTR, VARIANT*, LONG) {
    return WBEM_E_ACCESS_DENIED;
}

HRESULT QualifierSet::Delete(LPCWSTR) {
    return WBEM_E_ACCESS_DENIED;
}

HRESULT QualifierSet::GetNames(LONG, SAFEARRAY** pNames) {
    if (pNames == nullptr) {
        return WBEM_E_INVALID_PARAMETER;
    }
    std::vector<std::wstring> names;
    for (const auto& qualifier : m_qualifiers) {
        names.push_back(qualifier.name);
    }
    *pNames = StringArray(names);
    return *pNames != nullptr ? WBEM_S_NO_ERROR : WBEM_E_OUT_OF_MEMORY;
}

HRESULT QualifierSet::BeginEnumeration(LONG) {
    std::lock_guard<std::mutex> guard(m_lock);
    m_position = 0;
    m_enumerating = true;
    return WBEM_S_NO_ERROR;
}

HRESULT QualifierSet::Next(LONG, BSTR* pstrName, VARIANT* pVal, LONG* plFlavor) {
    size_t position = 0;
    {
        std::lock_guard<std::mutex> guard(m_lock);
        if (!m_enumerating) {
            return WBEM_E_UNEXPECTED;  // Next without BeginEnumeration
        }
        position = m_position++;
    }
    if (position >= m_qualifiers.size()) {
        return WBEM_S_NO_MORE_DATA;
    }
    if (pstrName != nullptr) {
        *pstrName = SysAllocString(m_qualifiers[position].name.c_str());
    }
    return Get(m_qualifiers[position].name.c_str(), 0, pVal, plFlavor);
}

HRESULT QualifierSet::EndEnumeration() {
    std::lock_guard<std::mutex> guard(m_lock);
    m_enumerating = false;
    return WBEM_S_NO_ERROR;
}

HRESULT NewQualifierSet(const std::vector<QualifierDefinition>& qualifiers, LONG flavor, IWbemQualifierSet** out) {
    if (out == nullptr) {
        return WBEM_E_INVALID_PARAMETER;
    }
    *out = new (std::nothrow) QualifierSet(qualifiers, flavor);
    return *out != nullptr ? WBEM_S_NO_ERROR : WBEM_E_OUT_OF_MEMORY;
}

}  // namespace dorwex::emulator::wmi
