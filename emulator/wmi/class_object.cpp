#include "class_object.h"

#include <oleauto.h>

#include <cwctype>

namespace dorwex::emulator::wmi {

namespace {

// Answered only by the emulator's own class objects, so that foreign objects are never taken for ours.
// {3B7E5F60-2C1D-4E8B-9A45-7D6C8E9F0A12}
constexpr GUID kIID_EmulatedClassObject = {0x3b7e5f60, 0x2c1d, 0x4e8b, {0x9a, 0x45, 0x7d, 0x6c, 0x8e, 0x9f, 0x0a, 0x12}};

bool SameName(const std::wstring& a, const wchar_t* b) {
    return b != nullptr && _wcsicmp(a.c_str(), b) == 0;
}

VARIANT NullVariant() {
    VARIANT value;
    VariantInit(&value);
    value.vt = VT_NULL;
    return value;
}

HRESULT CopyVariant(VARIANT* to, const VARIANT& from) {
    VariantInit(to);
    return VariantCopy(to, const_cast<VARIANT*>(&from));
}

// Text of a value for paths and the object text.
std::wstring ValueText(const VARIANT& value) {
    if (value.vt == VT_BSTR) {
        std::wstring quoted = L"\"";
        for (const wchar_t* c = value.bstrVal; c != nullptr && *c != 0; ++c) {
            if (*c == L'"' || *c == L'\\') {
                quoted += L'\\';
            }
            quoted += *c;
        }
        return quoted + L"\"";
    }
    if (value.vt == VT_BOOL) {
        return value.boolVal ? L"TRUE" : L"FALSE";
    }
    VARIANT text;
    VariantInit(&text);
    if (SUCCEEDED(VariantChangeType(&text, const_cast<VARIANT*>(&value), 0, VT_BSTR))) {
        std::wstring result = text.bstrVal != nullptr ? text.bstrVal : L"";
        VariantClear(&text);
        return result;
    }
    return L"NULL";
}

}  // namespace

int ClassDefinition::FindProperty(const wchar_t* name) const {
    for (size_t i = 0; i < properties.size(); ++i) {
        if (SameName(properties[i].name, name)) {
            return static_cast<int>(i);
        }
    }
    return -1;
}

const MethodDefinition* ClassDefinition::FindMethod(const wchar_t* name) const {
    for (const auto& method : methods) {
        if (SameName(method.name, name)) {
            return &method;
        }
    }
    return nullptr;
}

ClassObject* AsClassObject(IWbemClassObject* object) {
    void* ours = nullptr;
    if (object == nullptr || FAILED(object->QueryInterface(kIID_EmulatedClassObject, &ours))) {
        return nullptr;
    }
    auto* classObject = static_cast<ClassObject*>(static_cast<IWbemClassObject*>(ours));
    classObject->Release();
    return classObject;
}

ClassObject::ClassObject(std::shared_ptr<const ClassDefinition> definition, bool instance)
    : m_definition(std::move(definition)), m_instance(instance) {
    m_values.resize(m_definition->properties.size(), NullVariant());
}

ClassObject::~ClassObject() {
    for (auto& value : m_values) {
        VariantClear(&value);
    }
}

IWbemClassObject* ClassObject::NewClass(const std::shared_ptr<const ClassDefinition>& definition) {
    return new (std::nothrow) ClassObject(definition, false);
}

std::wstring ClassObject::RelativePath() const {
    std::lock_guard<std::mutex> guard(m_lock);
    if (!m_instance) {
        return m_definition->name;
    }
    std::wstring path;
    for (size_t i = 0; i < m_definition->properties.size(); ++i) {
        if (m_definition->properties[i].key && m_values[i].vt != VT_NULL && m_values[i].vt != VT_EMPTY) {
            path += (path.empty() ? L"." : L",") + m_definition->properties[i].name + L"=" + ValueText(m_values[i]);
        }
    }
    return m_definition->name + path;
}

HRESULT ClassObject::QueryInterface(REFIID riid, void** ppv) {
    if (ppv != nullptr && riid == kIID_EmulatedClassObject) {
        *ppv = static_cast<IWbemClassObject*>(this);
        AddRef();
        return S_OK;
    }
    return ComObject<IWbemClassObject>::QueryInterface(riid, ppv);
}

HRESULT ClassObject::GetQualifierSet(IWbemQualifierSet**) {
    return WBEM_E_NOT_SUPPORTED;
}

HRESULT ClassObject::Get(LPCWSTR wszName, LONG, VARIANT* pVal, CIMTYPE* pType, LONG* plFlavor) {
    if (wszName == nullptr) {
        return WBEM_E_INVALID_PARAMETER;
    }
    if (plFlavor != nullptr) {
        *plFlavor = WBEM_FLAVOR_ORIGIN_LOCAL;
    }
    // The system properties clients use.
    if (_wcsicmp(wszName, L"__CLASS") == 0 || _wcsicmp(wszName, L"__RELPATH") == 0) {
        if (pType != nullptr) {
            *pType = CIM_STRING;
        }
        if (pVal != nullptr) {
            VariantInit(pVal);
            pVal->vt = VT_BSTR;
            pVal->bstrVal = SysAllocString(_wcsicmp(wszName, L"__CLASS") == 0 ? m_definition->name.c_str()
                                                                                : RelativePath().c_str());
        }
        return WBEM_S_NO_ERROR;
    }
    const int index = m_definition->FindProperty(wszName);
    if (index < 0) {
        return WBEM_E_NOT_FOUND;
    }
    if (pType != nullptr) {
        *pType = m_definition->properties[static_cast<size_t>(index)].type;
    }
    if (pVal != nullptr) {
        std::lock_guard<std::mutex> guard(m_lock);
        return CopyVariant(pVal, m_values[static_cast<size_t>(index)]);
    }
    return WBEM_S_NO_ERROR;
}

HRESULT ClassObject::Put(LPCWSTR wszName, LONG, VARIANT* pVal, CIMTYPE) {
    if (wszName == nullptr) {
        return WBEM_E_INVALID_PARAMETER;
    }
    const int index = m_definition->FindProperty(wszName);
    if (index < 0) {
        return WBEM_E_NOT_FOUND;  // instances cannot grow properties
    }
    VARIANT copy;
    VariantInit(&copy);
    if (pVal == nullptr || pVal->vt == VT_EMPTY) {
        copy.vt = VT_NULL;
    } else {
        const HRESULT hr = VariantCopy(&copy, pVal);
        if (FAILED(hr)) {
            return hr;
        }
    }
    std::lock_guard<std::mutex> guard(m_lock);
    VariantClear(&m_values[static_cast<size_t>(index)]);
    m_values[static_cast<size_t>(index)] = copy;
    return WBEM_S_NO_ERROR;
}

HRESULT ClassObject::Delete(LPCWSTR wszName) {
    const int index = m_definition->FindProperty(wszName);
    if (index < 0) {
        return WBEM_E_NOT_FOUND;
    }
    std::lock_guard<std::mutex> guard(m_lock);
    VariantClear(&m_values[static_cast<size_t>(index)]);
    m_values[static_cast<size_t>(index)] = NullVariant();
    return WBEM_S_RESET_TO_DEFAULT;
}

HRESULT ClassObject::GetNames(LPCWSTR, LONG, VARIANT*, SAFEARRAY** pNames) {
    if (pNames == nullptr) {
        return WBEM_E_INVALID_PARAMETER;
    }
    const auto& properties = m_definition->properties;
    *pNames = SafeArrayCreateVector(VT_BSTR, 0, static_cast<ULONG>(properties.size()));
    if (*pNames == nullptr) {
        return WBEM_E_OUT_OF_MEMORY;
    }
    for (LONG i = 0; i < static_cast<LONG>(properties.size()); ++i) {
        BSTR name = SysAllocString(properties[static_cast<size_t>(i)].name.c_str());
        SafeArrayPutElement(*pNames, &i, name);
        SysFreeString(name);
    }
    return WBEM_S_NO_ERROR;
}

HRESULT ClassObject::BeginEnumeration(LONG) {
    std::lock_guard<std::mutex> guard(m_lock);
    m_enumeration = 0;
    return WBEM_S_NO_ERROR;
}

HRESULT ClassObject::Next(LONG, BSTR* strName, VARIANT* pVal, CIMTYPE* pType, LONG* plFlavor) {
    std::lock_guard<std::mutex> guard(m_lock);
    if (m_enumeration >= m_definition->properties.size()) {
        return WBEM_S_NO_MORE_DATA;
    }
    const size_t index = m_enumeration++;
    if (strName != nullptr) {
        *strName = SysAllocString(m_definition->properties[index].name.c_str());
    }
    if (pType != nullptr) {
        *pType = m_definition->properties[index].type;
    }
    if (plFlavor != nullptr) {
        *plFlavor = WBEM_FLAVOR_ORIGIN_LOCAL;
    }
    return pVal != nullptr ? CopyVariant(pVal, m_values[index]) : static_cast<HRESULT>(WBEM_S_NO_ERROR);
}

HRESULT ClassObject::EndEnumeration() {
    return WBEM_S_NO_ERROR;
}

HRESULT ClassObject::GetPropertyQualifierSet(LPCWSTR, IWbemQualifierSet**) {
    return WBEM_E_NOT_SUPPORTED;
}

HRESULT ClassObject::Clone(IWbemClassObject** ppCopy) {
    if (ppCopy == nullptr) {
        return WBEM_E_INVALID_PARAMETER;
    }
    auto* copy = new (std::nothrow) ClassObject(m_definition, m_instance);
    if (copy == nullptr) {
        return WBEM_E_OUT_OF_MEMORY;
    }
    std::lock_guard<std::mutex> guard(m_lock);
    for (size_t i = 0; i < m_values.size(); ++i) {
        VariantCopy(&copy->m_values[i], &m_values[i]);
    }
    *ppCopy = copy;
    return WBEM_S_NO_ERROR;
}

HRESULT ClassObject::GetObjectText(LONG, BSTR* pstrObjectText) {
    if (pstrObjectText == nullptr) {
        return WBEM_E_INVALID_PARAMETER;
    }
    std::wstring text = std::wstring(m_instance ? L"instance of " : L"class ") + m_definition->name + L"\n{\n";
    {
        std::lock_guard<std::mutex> guard(m_lock);
        for (size_t i = 0; i < m_values.size(); ++i) {
            if (m_values[i].vt != VT_NULL) {
                text += L"\t" + m_definition->properties[i].name + L" = " + ValueText(m_values[i]) + L";\n";
            }
        }
    }
    text += L"};\n";
    *pstrObjectText = SysAllocString(text.c_str());
    return *pstrObjectText != nullptr ? WBEM_S_NO_ERROR : WBEM_E_OUT_OF_MEMORY;
}

HRESULT ClassObject::SpawnDerivedClass(LONG, IWbemClassObject**) {
    return WBEM_E_NOT_SUPPORTED;
}

HRESULT ClassObject::SpawnInstance(LONG, IWbemClassObject** ppNewInstance) {
    if (ppNewInstance == nullptr) {
        return WBEM_E_INVALID_PARAMETER;
    }
    *ppNewInstance = nullptr;
    if (m_instance) {
        return WBEM_E_INVALID_OPERATION;  // only a class spawns instances
    }
    *ppNewInstance = new (std::nothrow) ClassObject(m_definition, true);
    return *ppNewInstance != nullptr ? WBEM_S_NO_ERROR : WBEM_E_OUT_OF_MEMORY;
}

HRESULT ClassObject::CompareTo(LONG, IWbemClassObject* pCompareTo) {
    return pCompareTo == this ? static_cast<HRESULT>(WBEM_S_SAME) : static_cast<HRESULT>(WBEM_S_DIFFERENT);
}

HRESULT ClassObject::GetPropertyOrigin(LPCWSTR wszName, BSTR* pstrClassName) {
    if (pstrClassName == nullptr || m_definition->FindProperty(wszName) < 0) {
        return WBEM_E_NOT_FOUND;
    }
    *pstrClassName = SysAllocString(m_definition->name.c_str());
    return WBEM_S_NO_ERROR;
}

HRESULT ClassObject::InheritsFrom(LPCWSTR strAncestor) {
    for (const auto& ancestor : m_definition->ancestors) {
        if (SameName(ancestor, strAncestor)) {
            return WBEM_S_NO_ERROR;
        }
    }
    return WBEM_S_FALSE;
}

HRESULT ClassObject::GetMethod(LPCWSTR wszName, LONG, IWbemClassObject** ppInSignature,
                               IWbemClassObject** ppOutSignature) {
    if (ppInSignature != nullptr) {
        *ppInSignature = nullptr;
    }
    if (ppOutSignature != nullptr) {
        *ppOutSignature = nullptr;
    }
    const MethodDefinition* method = m_definition->FindMethod(wszName);
    if (method == nullptr) {
        return WBEM_E_NOT_FOUND;
    }
    if (ppInSignature != nullptr && method->in) {
        *ppInSignature = NewClass(method->in);
    }
    if (ppOutSignature != nullptr && method->out) {
        *ppOutSignature = NewClass(method->out);
    }
    return WBEM_S_NO_ERROR;
}

HRESULT ClassObject::PutMethod(LPCWSTR, LONG, IWbemClassObject*, IWbemClassObject*) {
    return WBEM_E_NOT_SUPPORTED;
}

HRESULT ClassObject::DeleteMethod(LPCWSTR) {
    return WBEM_E_NOT_SUPPORTED;
}

HRESULT ClassObject::BeginMethodEnumeration(LONG) {
    m_methodEnumeration = 0;
    return WBEM_S_NO_ERROR;
}

HRESULT ClassObject::NextMethod(LONG, BSTR* pstrName, IWbemClassObject** ppInSignature,
                                IWbemClassObject** ppOutSignature) {
    if (m_methodEnumeration >= m_definition->methods.size()) {
        return WBEM_S_NO_MORE_DATA;
    }
    const MethodDefinition& method = m_definition->methods[m_methodEnumeration++];
    if (pstrName != nullptr) {
        *pstrName = SysAllocString(method.name.c_str());
    }
    return GetMethod(method.name.c_str(), 0, ppInSignature, ppOutSignature);
}

HRESULT ClassObject::EndMethodEnumeration() {
    return WBEM_S_NO_ERROR;
}

HRESULT ClassObject::GetMethodQualifierSet(LPCWSTR, IWbemQualifierSet**) {
    return WBEM_E_NOT_SUPPORTED;
}

HRESULT ClassObject::GetMethodOrigin(LPCWSTR wszMethodName, BSTR* pstrClassName) {
    if (pstrClassName == nullptr || m_definition->FindMethod(wszMethodName) == nullptr) {
        return WBEM_E_NOT_FOUND;
    }
    *pstrClassName = SysAllocString(m_definition->name.c_str());
    return WBEM_S_NO_ERROR;
}

}  // namespace dorwex::emulator::wmi
