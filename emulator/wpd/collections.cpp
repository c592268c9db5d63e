#include "collections.h"

#include <cstring>

namespace dorwex::emulator {

namespace {

bool SameKey(REFPROPERTYKEY a, REFPROPERTYKEY b) {
    return a.fmtid == b.fmtid && a.pid == b.pid;
}

// PROPVARIANT helpers the emulator needs for the types the portable-device API uses.
HRESULT CopyOut(const PROPVARIANT& from, PROPVARIANT* to) {
    PropVariantInit(to);
    return PropVariantCopy(to, &from);
}

}  // namespace

// --- PortableDeviceValues -------------------------------------------------------------------------

PortableDeviceValues::~PortableDeviceValues() {
    for (auto& entry : m_values) {
        PropVariantClear(&entry.second);
    }
}

const PROPVARIANT* PortableDeviceValues::Find(REFPROPERTYKEY key) const {
    for (const auto& entry : m_values) {
        if (SameKey(entry.first, key)) {
            return &entry.second;
        }
    }
    return nullptr;
}

HRESULT PortableDeviceValues::Store(REFPROPERTYKEY key, PROPVARIANT& value) {
    std::lock_guard<std::mutex> guard(m_lock);
    for (auto& entry : m_values) {
        if (SameKey(entry.first, key)) {
            PropVariantClear(&entry.second);
            entry.second = value;
            PropVariantInit(&value);
            return S_OK;
        }
    }
    try {
        m_values.emplace_back(key, value);
    } catch (const std::bad_alloc&) {
        PropVariantClear(&value);
        return E_OUTOFMEMORY;
    }
    PropVariantInit(&value);
    return S_OK;
}

HRESULT PortableDeviceValues::FindTyped(REFPROPERTYKEY key, VARTYPE type, const PROPVARIANT*& value_out) const {
    value_out = Find(key);
    if (value_out == nullptr) {
        return kNotFound;
    }
    if (value_out->vt == VT_ERROR) {
        return value_out->scode;  // a property the device could not read
    }
    return value_out->vt == type ? S_OK : DISP_E_TYPEMISMATCH;
}

template <class F>
HRESULT PortableDeviceValues::Read(REFPROPERTYKEY key, VARTYPE type, F&& read) const {
    std::lock_guard<std::mutex> guard(m_lock);
    const PROPVARIANT* value = nullptr;
    const HRESULT hr = FindTyped(key, type, value);
    return FAILED(hr) ? hr : read(*value);
}

HRESULT PortableDeviceValues::GetCount(DWORD* pcelt) {
    if (pcelt == nullptr) {
        return E_POINTER;
    }
    std::lock_guard<std::mutex> guard(m_lock);
    *pcelt = static_cast<DWORD>(m_values.size());
    return S_OK;
}

HRESULT PortableDeviceValues::GetAt(const DWORD index, PROPERTYKEY* pKey, PROPVARIANT* pValue) {
    std::lock_guard<std::mutex> guard(m_lock);
    if (index >= m_values.size()) {
        return E_INVALIDARG;
    }
    if (pKey != nullptr) {
        *pKey = m_values[index].first;
    }
    return pValue != nullptr ? CopyOut(m_values[index].second, pValue) : S_OK;
}

HRESULT PortableDeviceValues::SetValue(REFPROPERTYKEY key, const PROPVARIANT* pValue) {
    if (pValue == nullptr) {
        return E_POINTER;
    }
    PROPVARIANT copy;
    PropVariantInit(&copy);
    const HRESULT hr = PropVariantCopy(&copy, pValue);
    return FAILED(hr) ? hr : Store(key, copy);
}

HRESULT PortableDeviceValues::GetValue(REFPROPERTYKEY key, PROPVARIANT* pValue) {
    if (pValue == nullptr) {
        return E_POINTER;
    }
    std::lock_guard<std::mutex> guard(m_lock);
    const PROPVARIANT* value = Find(key);
    if (value == nullptr) {
        PropVariantInit(pValue);
        return kNotFound;
    }
    return CopyOut(*value, pValue);
}

HRESULT PortableDeviceValues::SetStringValue(REFPROPERTYKEY key, LPCWSTR Value) {
    if (Value == nullptr) {
        return E_POINTER;
    }
    PROPVARIANT value;
    PropVariantInit(&value);
    value.vt = VT_LPWSTR;
    value.pwszVal = CoTaskStrDup(Value);
    if (value.pwszVal == nullptr) {
        return E_OUTOFMEMORY;
    }
    return Store(key, value);
}

HRESULT PortableDeviceValues::GetStringValue(REFPROPERTYKEY key, LPWSTR* pValue) {
    if (pValue == nullptr) {
        return E_POINTER;
    }
    *pValue = nullptr;
    return Read(key, VT_LPWSTR, [&](const PROPVARIANT& value) {
        *pValue = CoTaskStrDup(value.pwszVal != nullptr ? value.pwszVal : L"");
        return *pValue != nullptr ? S_OK : E_OUTOFMEMORY;
    });
}

// The scalar setters and getters differ only in type and field.
#define DORWEX_SCALAR_VALUE(Name, CType, VarType, Field)                              \
    HRESULT PortableDeviceValues::Set##Name(REFPROPERTYKEY key, const CType Value) { \
        PROPVARIANT value;                                                            \
        PropVariantInit(&value);                                                      \
        value.vt = VarType;                                                           \
        value.Field = Value;                                                          \
        return Store(key, value);                                                     \
    }                                                                                 \
    HRESULT PortableDeviceValues::Get##Name(REFPROPERTYKEY key, CType* pValue) {      \
        if (pValue == nullptr) {                                                      \
            return E_POINTER;                                                         \
        }                                                                             \
        return Read(key, VarType, [&](const PROPVARIANT& value) {                     \
            *pValue = value.Field;                                                    \
            return S_OK;                                                              \
        });                                                                           \
    }

DORWEX_SCALAR_VALUE(UnsignedIntegerValue, ULONG, VT_UI4, ulVal)
DORWEX_SCALAR_VALUE(SignedIntegerValue, LONG, VT_I4, lVal)
DORWEX_SCALAR_VALUE(UnsignedLargeIntegerValue, ULONGLONG, VT_UI8, uhVal.QuadPart)
DORWEX_SCALAR_VALUE(SignedLargeIntegerValue, LONGLONG, VT_I8, hVal.QuadPart)
DORWEX_SCALAR_VALUE(FloatValue, FLOAT, VT_R4, fltVal)
DORWEX_SCALAR_VALUE(ErrorValue, HRESULT, VT_ERROR, scode)
#undef DORWEX_SCALAR_VALUE

HRESULT PortableDeviceValues::SetBoolValue(REFPROPERTYKEY key, const WINBOOL Value) {
    PROPVARIANT value;
    PropVariantInit(&value);
    value.vt = VT_BOOL;
    value.boolVal = Value ? VARIANT_TRUE : VARIANT_FALSE;
    return Store(key, value);
}

HRESULT PortableDeviceValues::GetBoolValue(REFPROPERTYKEY key, WINBOOL* pValue) {
    if (pValue == nullptr) {
        return E_POINTER;
    }
    return Read(key, VT_BOOL, [&](const PROPVARIANT& value) {
        *pValue = value.boolVal != VARIANT_FALSE;
        return S_OK;
    });
}

// Keys travel as a VT_UNKNOWN-free pair, the way the SDK stores them: fmtid as VT_CLSID beside the pid.
// Nothing in this system reads key values, so they are kept as a buffer of the whole structure.
HRESULT PortableDeviceValues::SetKeyValue(REFPROPERTYKEY key, REFPROPERTYKEY Value) {
    return SetBufferValue(key, reinterpret_cast<BYTE*>(const_cast<PROPERTYKEY*>(&Value)), sizeof(PROPERTYKEY));
}

HRESULT PortableDeviceValues::GetKeyValue(REFPROPERTYKEY key, PROPERTYKEY* pValue) {
    if (pValue == nullptr) {
        return E_POINTER;
    }
    return Read(key, VT_VECTOR | VT_UI1, [&](const PROPVARIANT& value) {
        if (value.caub.cElems != sizeof(PROPERTYKEY)) {
            return DISP_E_TYPEMISMATCH;
        }
        std::memcpy(pValue, value.caub.pElems, sizeof(PROPERTYKEY));
        return S_OK;
    });
}

HRESULT PortableDeviceValues::SetGuidValue(REFPROPERTYKEY key, REFGUID Value) {
    PROPVARIANT value;
    PropVariantInit(&value);
    value.vt = VT_CLSID;
    value.puuid = static_cast<CLSID*>(CoTaskMemAlloc(sizeof(CLSID)));
    if (value.puuid == nullptr) {
        return E_OUTOFMEMORY;
    }
    *value.puuid = Value;
    return Store(key, value);
}

HRESULT PortableDeviceValues::GetGuidValue(REFPROPERTYKEY key, GUID* pValue) {
    if (pValue == nullptr) {
        return E_POINTER;
    }
    return Read(key, VT_CLSID, [&](const PROPVARIANT& value) {
        *pValue = *value.puuid;
        return S_OK;
    });
}

HRESULT PortableDeviceValues::SetBufferValue(REFPROPERTYKEY key, BYTE* pValue, DWORD cbValue) {
    if (pValue == nullptr && cbValue != 0) {
        return E_POINTER;
    }
    PROPVARIANT value;
    PropVariantInit(&value);
    value.vt = VT_VECTOR | VT_UI1;
    value.caub.cElems = cbValue;
    value.caub.pElems = static_cast<UCHAR*>(CoTaskMemAlloc(cbValue == 0 ? 1 : cbValue));
    if (value.caub.pElems == nullptr) {
        return E_OUTOFMEMORY;
    }
    if (cbValue != 0) {
        std::memcpy(value.caub.pElems, pValue, cbValue);
    }
    return Store(key, value);
}

HRESULT PortableDeviceValues::GetBufferValue(REFPROPERTYKEY key, BYTE** ppValue, DWORD* pcbValue) {
    if (ppValue == nullptr || pcbValue == nullptr) {
        return E_POINTER;
    }
    *ppValue = nullptr;
    *pcbValue = 0;
    return Read(key, VT_VECTOR | VT_UI1, [&](const PROPVARIANT& value) {
        *ppValue = static_cast<BYTE*>(CoTaskMemAlloc(value.caub.cElems == 0 ? 1 : value.caub.cElems));
        if (*ppValue == nullptr) {
            return E_OUTOFMEMORY;
        }
        std::memcpy(*ppValue, value.caub.pElems, value.caub.cElems);
        *pcbValue = value.caub.cElems;
        return S_OK;
    });
}

HRESULT PortableDeviceValues::SetInterface(REFPROPERTYKEY key, IUnknown* object) {
    PROPVARIANT value;
    PropVariantInit(&value);
    value.vt = VT_UNKNOWN;
    value.punkVal = object;
    if (object != nullptr) {
        object->AddRef();
    }
    return Store(key, value);
}

template <class I>
HRESULT PortableDeviceValues::GetInterface(REFPROPERTYKEY key, I** value_out) {
    if (value_out == nullptr) {
        return E_POINTER;
    }
    *value_out = nullptr;
    return Read(key, VT_UNKNOWN, [&](const PROPVARIANT& value) {
        return value.punkVal != nullptr ? value.punkVal->QueryInterface(__uuidof(I), reinterpret_cast<void**>(value_out))
                                         : E_NOINTERFACE;
    });
}

HRESULT PortableDeviceValues::SetIUnknownValue(REFPROPERTYKEY key, IUnknown* pValue) {
    return SetInterface(key, pValue);
}
HRESULT PortableDeviceValues::GetIUnknownValue(REFPROPERTYKEY key, IUnknown** ppValue) {
    return GetInterface(key, ppValue);
}
HRESULT PortableDeviceValues::SetIPortableDeviceValuesValue(REFPROPERTYKEY key, IPortableDeviceValues* pValue) {
    return SetInterface(key, pValue);
}
HRESULT PortableDeviceValues::GetIPortableDeviceValuesValue(REFPROPERTYKEY key, IPortableDeviceValues** ppValue) {
    return GetInterface(key, ppValue);
}
HRESULT PortableDeviceValues::SetIPortableDevicePropVariantCollectionValue(
    REFPROPERTYKEY key, IPortableDevicePropVariantCollection* pValue) {
    return SetInterface(key, pValue);
}
HRESULT PortableDeviceValues::GetIPortableDevicePropVariantCollectionValue(
    REFPROPERTYKEY key, IPortableDevicePropVariantCollection** ppValue) {
    return GetInterface(key, ppValue);
}
HRESULT PortableDeviceValues::SetIPortableDeviceKeyCollectionValue(REFPROPERTYKEY key,
                                                                   IPortableDeviceKeyCollection* pValue) {
    return SetInterface(key, pValue);
}
HRESULT PortableDeviceValues::GetIPortableDeviceKeyCollectionValue(REFPROPERTYKEY key,
                                                                   IPortableDeviceKeyCollection** ppValue) {
    return GetInterface(key, ppValue);
}
HRESULT PortableDeviceValues::SetIPortableDeviceValuesCollectionValue(REFPROPERTYKEY key,
                                                                      IPortableDeviceValuesCollection* pValue) {
    return SetInterface(key, pValue);
}
HRESULT PortableDeviceValues::GetIPortableDeviceValuesCollectionValue(REFPROPERTYKEY key,
                                                                      IPortableDeviceValuesCollection** ppValue) {
    return GetInterface(key, ppValue);
}

HRESULT PortableDeviceValues::RemoveValue(REFPROPERTYKEY key) {
    std::lock_guard<std::mutex> guard(m_lock);
    for (auto it = m_values.begin(); it != m_values.end(); ++it) {
        if (SameKey(it->first, key)) {
            PropVariantClear(&it->second);
            m_values.erase(it);
            return S_OK;
        }
    }
    return kNotFound;
}

HRESULT PortableDeviceValues::CopyValuesFromPropertyStore(IPropertyStore*) {
    return E_NOTIMPL;
}
HRESULT PortableDeviceValues::CopyValuesToPropertyStore(IPropertyStore*) {
    return E_NOTIMPL;
}

HRESULT PortableDeviceValues::Clear() {
    std::lock_guard<std::mutex> guard(m_lock);
    for (auto& entry : m_values) {
        PropVariantClear(&entry.second);
    }
    m_values.clear();
    return S_OK;
}

// --- PortableDeviceKeyCollection ------------------------------------------------------------------

HRESULT PortableDeviceKeyCollection::GetCount(DWORD* pcElems) {
    if (pcElems == nullptr) {
        return E_POINTER;
    }
    *pcElems = static_cast<DWORD>(m_keys.size());
    return S_OK;
}

HRESULT PortableDeviceKeyCollection::GetAt(const DWORD dwIndex, PROPERTYKEY* pKey) {
    if (pKey == nullptr) {
        return E_POINTER;
    }
    if (dwIndex >= m_keys.size()) {
        return E_INVALIDARG;
    }
    *pKey = m_keys[dwIndex];
    return S_OK;
}

HRESULT PortableDeviceKeyCollection::Add(REFPROPERTYKEY Key) {
    try {
        m_keys.push_back(Key);
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    }
    return S_OK;
}

HRESULT PortableDeviceKeyCollection::Clear() {
    m_keys.clear();
    return S_OK;
}

HRESULT PortableDeviceKeyCollection::RemoveAt(const DWORD dwIndex) {
    if (dwIndex >= m_keys.size()) {
        return E_INVALIDARG;
    }
    m_keys.erase(m_keys.begin() + dwIndex);
    return S_OK;
}

// --- PortableDevicePropVariantCollection ----------------------------------------------------------

PortableDevicePropVariantCollection::~PortableDevicePropVariantCollection() {
    Clear();
}

HRESULT PortableDevicePropVariantCollection::GetCount(DWORD* pcElems) {
    if (pcElems == nullptr) {
        return E_POINTER;
    }
    *pcElems = static_cast<DWORD>(m_values.size());
    return S_OK;
}

HRESULT PortableDevicePropVariantCollection::GetAt(const DWORD dwIndex, PROPVARIANT* pValue) {
    if (pValue == nullptr) {
        return E_POINTER;
    }
    if (dwIndex >= m_values.size()) {
        return E_INVALIDARG;
    }
    return CopyOut(m_values[dwIndex], pValue);
}

HRESULT PortableDevicePropVariantCollection::Add(const PROPVARIANT* pValue) {
    if (pValue == nullptr) {
        return E_POINTER;
    }
    PROPVARIANT copy;
    PropVariantInit(&copy);
    HRESULT hr = PropVariantCopy(&copy, pValue);
    if (FAILED(hr)) {
        return hr;
    }
    try {
        m_values.push_back(copy);
    } catch (const std::bad_alloc&) {
        PropVariantClear(&copy);
        return E_OUTOFMEMORY;
    }
    return S_OK;
}

HRESULT PortableDevicePropVariantCollection::GetType(VARTYPE* pvt) {
    if (pvt == nullptr) {
        return E_POINTER;
    }
    *pvt = m_values.empty() ? static_cast<VARTYPE>(VT_EMPTY) : m_values.front().vt;
    return S_OK;
}

HRESULT PortableDevicePropVariantCollection::ChangeType(const VARTYPE vt) {
    for (const auto& value : m_values) {
        if (value.vt != vt) {
            return E_NOTIMPL;  // the system never converts collections
        }
    }
    return S_OK;
}

HRESULT PortableDevicePropVariantCollection::Clear() {
    for (auto& value : m_values) {
        PropVariantClear(&value);
    }
    m_values.clear();
    return S_OK;
}

HRESULT PortableDevicePropVariantCollection::RemoveAt(const DWORD dwIndex) {
    if (dwIndex >= m_values.size()) {
        return E_INVALIDARG;
    }
    PropVariantClear(&m_values[dwIndex]);
    m_values.erase(m_values.begin() + dwIndex);
    return S_OK;
}

HRESULT PortableDevicePropVariantCollection::AddString(const std::wstring& text) {
    PROPVARIANT value;
    PropVariantInit(&value);
    value.vt = VT_LPWSTR;
    value.pwszVal = const_cast<LPWSTR>(text.c_str());
    return Add(&value);  // Add copies
}

HRESULT PortableDevicePropVariantCollection::AddGuid(const GUID& guid) {
    PROPVARIANT value;
    PropVariantInit(&value);
    value.vt = VT_CLSID;
    value.puuid = const_cast<GUID*>(&guid);
    return Add(&value);
}

// --- PortableDeviceValuesCollection ---------------------------------------------------------------

PortableDeviceValuesCollection::~PortableDeviceValuesCollection() {
    Clear();
}

HRESULT PortableDeviceValuesCollection::GetCount(DWORD* pcElems) {
    if (pcElems == nullptr) {
        return E_POINTER;
    }
    *pcElems = static_cast<DWORD>(m_values.size());
    return S_OK;
}

HRESULT PortableDeviceValuesCollection::GetAt(const DWORD dwIndex, IPortableDeviceValues** ppValues) {
    if (ppValues == nullptr) {
        return E_POINTER;
    }
    *ppValues = nullptr;
    if (dwIndex >= m_values.size()) {
        return E_INVALIDARG;
    }
    *ppValues = m_values[dwIndex];
    (*ppValues)->AddRef();
    return S_OK;
}

HRESULT PortableDeviceValuesCollection::Add(IPortableDeviceValues* pValues) {
    if (pValues == nullptr) {
        return E_POINTER;
    }
    pValues->AddRef();
    m_values.push_back(pValues);
    return S_OK;
}

HRESULT PortableDeviceValuesCollection::Clear() {
    for (auto* values : m_values) {
        values->Release();
    }
    m_values.clear();
    return S_OK;
}

HRESULT PortableDeviceValuesCollection::RemoveAt(const DWORD dwIndex) {
    if (dwIndex >= m_values.size()) {
        return E_INVALIDARG;
    }
    m_values[dwIndex]->Release();
    m_values.erase(m_values.begin() + dwIndex);
    return S_OK;
}

}  // namespace dorwex::emulator
