#include "class_object.h"

#include <oleauto.h>

#include <cwctype>

#include "string_array.h"
#include "value_coercion.h"

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

// The system properties every class and instance carries, in the order Windows enumerates them.
constexpr const wchar_t* kSystemProperties[] = {L"__GENUS",          L"__CLASS",      L"__SUPERCLASS", L"__DYNASTY",
                                                L"__RELPATH",        L"__PROPERTY_COUNT", L"__DERIVATION",
                                                L"__SERVER",         L"__NAMESPACE",  L"__PATH"};
constexpr size_t kSystemPropertyCount = sizeof(kSystemProperties) / sizeof(kSystemProperties[0]);

int FindSystemProperty(const wchar_t* name) {
    for (size_t i = 0; i < kSystemPropertyCount; ++i) {
        if (_wcsicmp(kSystemProperties[i], name) == 0) {
            return static_cast<int>(i);
        }
    }
    return -1;
}

VARIANT TextVariant(const std::wstring& text) {
    VARIANT value;
    VariantInit(&value);
    value.vt = VT_BSTR;
    value.bstrVal = SysAllocString(text.c_str());
    return value;
}

VARIANT NumberVariant(LONG number) {
    VARIANT value;
    VariantInit(&value);
    value.vt = VT_I4;
    value.lVal = number;
    return value;
}

const std::wstring& ServerName() {
    static const std::wstring name = [] {
        wchar_t buffer[MAX_COMPUTERNAME_LENGTH + 1] = {};
        DWORD size = MAX_COMPUTERNAME_LENGTH + 1;
        return GetComputerNameW(buffer, &size) ? std::wstring(buffer) : std::wstring(L".");
    }();
    return name;
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
        if (m_definition->properties[i].key) {
            if (m_values[i].vt == VT_NULL || m_values[i].vt == VT_EMPTY) {
                return std::wstring();  // an instance without its keys has no path
            }
            path += (path.empty() ? L"." : L",") + m_definition->properties[i].name + L"=" + ValueText(m_values[i]);
        }
    }
    return path.empty() ? std::wstring() : m_definition->name + path;
}

IWbemClassObject* ClassObject::Projected(const std::vector<std::wstring>& names) const {
    auto definition = std::make_shared<ClassDefinition>(*m_definition);
    definition->properties.clear();
    std::vector<size_t> kept;
    for (size_t i = 0; i < m_definition->properties.size(); ++i) {
        for (const auto& name : names) {
            if (SameName(name, m_definition->properties[i].name.c_str())) {
                definition->properties.push_back(m_definition->properties[i]);
                kept.push_back(i);
                break;
            }
        }
    }
    auto* projected = new (std::nothrow) ClassObject(definition, m_instance);
    if (projected != nullptr) {
        std::lock_guard<std::mutex> guard(m_lock);
        for (size_t i = 0; i < kept.size(); ++i) {
            VariantCopy(&projected->m_values[i], const_cast<VARIANT*>(&m_values[kept[i]]));
        }
    }
    return projected;
}

VARIANT ClassObject::SystemValue(size_t index, CIMTYPE& type) const {
    const ClassDefinition& definition = *m_definition;
    // Method parameters live in no namespace and have no path.
    const bool inNamespace = definition.name != L"__PARAMETERS";
    type = CIM_STRING;
    switch (index) {
    case 0:  // __GENUS
        type = CIM_SINT32;
        return NumberVariant(m_instance ? WBEM_GENUS_INSTANCE : WBEM_GENUS_CLASS);
    case 1:  // __CLASS
        return TextVariant(definition.name);
    case 2:  // __SUPERCLASS
        return definition.ancestors.empty() ? NullVariant() : TextVariant(definition.ancestors.front());
    case 3:  // __DYNASTY
        return TextVariant(definition.ancestors.empty() ? definition.name : definition.ancestors.back());
    case 4: {  // __RELPATH
        const std::wstring path = RelativePath();
        return path.empty() ? NullVariant() : TextVariant(path);
    }
    case 5:  // __PROPERTY_COUNT
        type = CIM_SINT32;
        return NumberVariant(static_cast<LONG>(definition.properties.size()));
    case 6: {  // __DERIVATION
        type = CIM_STRING | CIM_FLAG_ARRAY;
        SAFEARRAY* names = StringArray(definition.ancestors);
        if (names == nullptr) {
            return NullVariant();
        }
        VARIANT value;
        VariantInit(&value);
        value.vt = VT_ARRAY | VT_BSTR;
        value.parray = names;
        return value;
    }
    case 7:  // __SERVER
        return inNamespace ? TextVariant(ServerName()) : NullVariant();
    case 8:  // __NAMESPACE
        return inNamespace ? TextVariant(L"ROOT\\CIMV2") : NullVariant();
    default: {  // __PATH
        const std::wstring path = inNamespace ? RelativePath() : std::wstring();
        return path.empty() ? NullVariant() : TextVariant(L"\\\\" + ServerName() + L"\\ROOT\\CIMV2:" + path);
    }
    }
}

HRESULT ClassObject::QueryInterface(REFIID riid, void** ppv) {
    if (ppv != nullptr && riid == kIID_EmulatedClassObject) {
        *ppv = static_cast<IWbemClassObject*>(this);
        AddRef();
        return S_OK;
    }
    if (ppv != nullptr && riid == IID_IMarshal) {
        *ppv = static_cast<IMarshal*>(this);
        AddRef();
        return S_OK;
    }
    return ComObject<IWbemClassObject>::QueryInterface(riid, ppv);
}

// An instance shows the qualifiers its class propagates to it; the emulated schema changes none of them.
LONG ClassObject::QualifierFlavor() const {
    return m_instance ? WBEM_FLAVOR_ORIGIN_PROPAGATED : WBEM_FLAVOR_ORIGIN_LOCAL;
}

HRESULT ClassObject::GetQualifierSet(IWbemQualifierSet** ppQualSet) {
    return NewQualifierSet(m_definition->qualifiers, QualifierFlavor(), ppQualSet);
}

HRESULT ClassObject::Get(LPCWSTR wszName, LONG, VARIANT* pVal, CIMTYPE* pType, LONG* plFlavor) {
    if (wszName == nullptr) {
        return WBEM_E_INVALID_PARAMETER;
    }
    if (plFlavor != nullptr) {
        *plFlavor = WBEM_FLAVOR_ORIGIN_LOCAL;
    }
    const int system = FindSystemProperty(wszName);
    if (system >= 0) {
        if (plFlavor != nullptr) {
            *plFlavor = WBEM_FLAVOR_ORIGIN_SYSTEM;
        }
        CIMTYPE type = CIM_STRING;
        VARIANT value = SystemValue(static_cast<size_t>(system), type);
        if (pType != nullptr) {
            *pType = type;
        }
        if (pVal != nullptr) {
            *pVal = value;
        } else {
            VariantClear(&value);
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

// The flags are reserved, and a type may only be named when a class gains a property with no value
// (IWbemClassObject::Put): the emulated classes gain none, so it must be 0.
HRESULT ClassObject::Put(LPCWSTR wszName, LONG lFlags, VARIANT* pVal, CIMTYPE Type) {
    if (wszName == nullptr || lFlags != 0 || Type != 0) {
        return WBEM_E_INVALID_PARAMETER;
    }
    const int index = m_definition->FindProperty(wszName);
    if (index < 0) {
        return FindSystemProperty(wszName) >= 0 ? WBEM_E_READ_ONLY
                                                : WBEM_E_NOT_FOUND;  // instances cannot grow properties
    }
    VARIANT copy;
    VARIANT nothing;
    VariantInit(&nothing);
    const HRESULT hr = CoerceToCimType(m_definition->properties[static_cast<size_t>(index)].type,
                                       pVal != nullptr ? *pVal : nothing, copy);
    if (FAILED(hr)) {
        return hr;
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

std::vector<ClassObject::Member> ClassObject::Members(LONG flags) const {
    std::vector<Member> members;
    const LONG origin = flags & (WBEM_FLAG_LOCAL_ONLY | WBEM_FLAG_PROPAGATED_ONLY | WBEM_FLAG_NONSYSTEM_ONLY);
    const bool keysOnly = (flags & WBEM_FLAG_KEYS_ONLY) != 0;
    if (origin == WBEM_FLAG_PROPAGATED_ONLY || (flags & WBEM_FLAG_REFS_ONLY) != 0) {
        return members;  // every property is the class's own, and none is a reference
    }
    if ((origin == 0 || origin == WBEM_FLAG_SYSTEM_ONLY) && !keysOnly) {
        for (size_t i = 0; i < kSystemPropertyCount; ++i) {
            members.push_back({true, i});
        }
    }
    if (origin != WBEM_FLAG_SYSTEM_ONLY) {
        for (size_t i = 0; i < m_definition->properties.size(); ++i) {
            if (!keysOnly || m_definition->properties[i].key) {
                members.push_back({false, i});
            }
        }
    }
    return members;
}

std::wstring ClassObject::MemberName(const Member& member) const {
    return member.system ? kSystemProperties[member.index] : m_definition->properties[member.index].name;
}

HRESULT ClassObject::GetNames(LPCWSTR, LONG lFlags, VARIANT*, SAFEARRAY** pNames) {
    if (pNames == nullptr) {
        return WBEM_E_INVALID_PARAMETER;
    }
    std::vector<std::wstring> names;
    for (const Member& member : Members(lFlags)) {
        names.push_back(MemberName(member));
    }
    *pNames = StringArray(names);
    return *pNames != nullptr ? WBEM_S_NO_ERROR : WBEM_E_OUT_OF_MEMORY;
}

HRESULT ClassObject::BeginEnumeration(LONG lEnumFlags) {
    std::lock_guard<std::mutex> guard(m_lock);
    m_enumerationFlags = lEnumFlags;
    m_enumeration = 0;
    return WBEM_S_NO_ERROR;
}

HRESULT ClassObject::Next(LONG, BSTR* strName, VARIANT* pVal, CIMTYPE* pType, LONG* plFlavor) {
    LONG flags = 0;
    size_t position = 0;
    {
        // Get takes the lock itself, so only the position is read under it.
        std::lock_guard<std::mutex> guard(m_lock);
        flags = m_enumerationFlags;
        position = m_enumeration++;
    }
    const auto members = Members(flags);
    if (position >= members.size()) {
        return WBEM_S_NO_MORE_DATA;
    }
    const std::wstring name = MemberName(members[position]);
    if (strName != nullptr) {
        *strName = SysAllocString(name.c_str());
    }
    return Get(name.c_str(), 0, pVal, pType, plFlavor);
}

HRESULT ClassObject::EndEnumeration() {
    return WBEM_S_NO_ERROR;
}

HRESULT ClassObject::GetPropertyQualifierSet(LPCWSTR wszProperty, IWbemQualifierSet** ppQualSet) {
    if (ppQualSet == nullptr || wszProperty == nullptr) {
        return WBEM_E_INVALID_PARAMETER;
    }
    *ppQualSet = nullptr;
    const int index = m_definition->FindProperty(wszProperty);
    if (index < 0) {
        // System properties carry no qualifiers.
        return FindSystemProperty(wszProperty) >= 0 ? WBEM_E_SYSTEM_PROPERTY : WBEM_E_NOT_FOUND;
    }
    return NewQualifierSet(m_definition->properties[static_cast<size_t>(index)].qualifiers, QualifierFlavor(),
                           ppQualSet);
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

// Methods belong to the class definition: an instance has none to describe.
HRESULT ClassObject::GetMethodQualifierSet(LPCWSTR wszMethod, IWbemQualifierSet** ppQualSet) {
    if (ppQualSet == nullptr || wszMethod == nullptr) {
        return WBEM_E_INVALID_PARAMETER;
    }
    *ppQualSet = nullptr;
    if (m_instance) {
        return WBEM_E_ILLEGAL_OPERATION;
    }
    const MethodDefinition* method = m_definition->FindMethod(wszMethod);
    if (method == nullptr) {
        return WBEM_E_NOT_FOUND;
    }
    return NewQualifierSet(method->qualifiers, WBEM_FLAVOR_ORIGIN_LOCAL, ppQualSet);
}

HRESULT ClassObject::GetMethodOrigin(LPCWSTR wszMethodName, BSTR* pstrClassName) {
    if (pstrClassName == nullptr || m_definition->FindMethod(wszMethodName) == nullptr) {
        return WBEM_E_NOT_FOUND;
    }
    *pstrClassName = SysAllocString(m_definition->name.c_str());
    return WBEM_S_NO_ERROR;
}

}  // namespace dorwex::emulator::wmi
