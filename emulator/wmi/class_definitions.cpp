// The emulated namespace's class definitions: those a MOF declares, and the system classes WMI itself
// holds (status, events, providers and their registrations) with the properties their pages list.
#include "class_definitions.h"

#include <cstdlib>

namespace dorwex::emulator::wmi {

std::wstring Widen(const std::string& text) {
    std::wstring wide;
    if (!text.empty()) {
        const int count = MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0);
        wide.resize(static_cast<size_t>(count));
        MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), &wide[0], count);
    }
    return wide;
}

namespace {

CIMTYPE CimType(const std::string& mofType) {
    static const struct {
        const char* name;
        CIMTYPE type;
    } kTypes[] = {
        {"string", CIM_STRING}, {"boolean", CIM_BOOLEAN}, {"uint8", CIM_UINT8},     {"sint8", CIM_SINT8},
        {"uint16", CIM_UINT16}, {"sint16", CIM_SINT16},   {"uint32", CIM_UINT32},   {"sint32", CIM_SINT32},
        {"uint64", CIM_UINT64}, {"sint64", CIM_SINT64},   {"real32", CIM_REAL32},   {"real64", CIM_REAL64},
        {"datetime", CIM_DATETIME}, {"object", CIM_OBJECT},
    };
    for (const auto& known : kTypes) {
        if (_stricmp(known.name, mofType.c_str()) == 0) {
            return known.type;
        }
    }
    return CIM_STRING;
}

const wchar_t* CimTypeName(CIMTYPE type) {
    switch (type & ~CIM_FLAG_ARRAY) {
    case CIM_BOOLEAN: return L"boolean";
    case CIM_SINT32: return L"sint32";
    case CIM_UINT32: return L"uint32";
    case CIM_DATETIME: return L"datetime";
    case CIM_REFERENCE: return L"ref";
    default: return L"string";
    }
}

// Every property's qualifiers also hold its CIM type as text, as WMI adds it.
PropertyDefinition Property(const std::wstring& name, CIMTYPE type, const std::wstring& typeName,
                            std::vector<QualifierDefinition> qualifiers, bool key) {
    PropertyDefinition property{name, type, key, std::move(qualifiers)};
    QualifierDefinition cimType;
    cimType.name = L"CIMTYPE";
    cimType.type = VT_BSTR;
    cimType.text = typeName;
    property.qualifiers.push_back(cimType);
    return property;
}

PropertyDefinition SystemProperty(const wchar_t* name, CIMTYPE type, bool key = false) {
    std::vector<QualifierDefinition> qualifiers;
    if (key) {
        QualifierDefinition keyQualifier;
        keyQualifier.name = L"key";
        qualifiers.push_back(keyQualifier);
    }
    return Property(name, type, CimTypeName(type), std::move(qualifiers), key);
}

}  // namespace

std::vector<QualifierDefinition> Qualifiers(const mof::Qualifiers& declared) {
    std::vector<QualifierDefinition> qualifiers;
    for (const mof::Qualifier& qualifier : declared) {
        QualifierDefinition defined;
        defined.name = Widen(qualifier.name);
        switch (qualifier.kind) {
            case mof::Qualifier::Kind::String:
                defined.type = VT_BSTR;
                defined.text = Widen(qualifier.value);
                break;
            case mof::Qualifier::Kind::Number:
                defined.type = VT_I4;
                defined.number = std::strtol(qualifier.value.c_str(), nullptr, 0);
                break;
            case mof::Qualifier::Kind::Identifier:
                defined.flag = _stricmp(qualifier.value.c_str(), "false") != 0;
                break;
            case mof::Qualifier::Kind::Flag:
                break;
        }
        qualifiers.push_back(defined);
    }
    return qualifiers;
}

PropertyDefinition DeclaredProperty(const std::string& name, const std::string& type, const mof::Qualifiers& declared) {
    return Property(Widen(name), CimType(type), Widen(type), Qualifiers(declared),
                    mof::FindQualifier(declared, "key") != nullptr);
}

// The system classes the provider and its registration rely on, with the properties their pages list.
std::vector<std::shared_ptr<ClassDefinition>> SystemClasses() {
    std::vector<std::shared_ptr<ClassDefinition>> classes;
    auto add = [&](const wchar_t* name, const wchar_t* parent, std::vector<PropertyDefinition> properties) {
        auto definition = std::make_shared<ClassDefinition>();
        definition->name = name;
        if (parent != nullptr) {
            for (const auto& known : classes) {
                if (known->name == parent) {
                    definition->ancestors.push_back(known->name);
                    definition->ancestors.insert(definition->ancestors.end(), known->ancestors.begin(),
                                                 known->ancestors.end());
                    definition->properties = known->properties;
                }
            }
        }
        definition->properties.insert(definition->properties.end(), properties.begin(), properties.end());
        classes.push_back(definition);
    };
    add(L"__SystemClass", nullptr, {});
    add(L"__NotifyStatus", L"__SystemClass", {});
    add(L"__ExtendedStatus", L"__NotifyStatus",
        {SystemProperty(L"Description", CIM_STRING), SystemProperty(L"Operation", CIM_STRING),
         SystemProperty(L"ParameterInfo", CIM_STRING), SystemProperty(L"ProviderName", CIM_STRING),
         SystemProperty(L"StatusCode", CIM_UINT32)});
    add(L"__Event", L"__SystemClass", {SystemProperty(L"TIME_CREATED", CIM_UINT64)});
    add(L"__ExtrinsicEvent", L"__Event", {});
    add(L"__Provider", L"__SystemClass", {SystemProperty(L"Name", CIM_STRING, true)});
    add(L"__Win32Provider", L"__Provider",
        {SystemProperty(L"ClientLoadableCLSID", CIM_STRING), SystemProperty(L"CLSID", CIM_STRING),
         SystemProperty(L"Concurrency", CIM_SINT32), SystemProperty(L"DefaultMachineName", CIM_STRING),
         SystemProperty(L"Enabled", CIM_BOOLEAN), SystemProperty(L"HostingModel", CIM_STRING),
         SystemProperty(L"ImpersonationLevel", CIM_SINT32), SystemProperty(L"InitializationReentrancy", CIM_SINT32),
         SystemProperty(L"InitializationTimeoutInterval", CIM_DATETIME),
         SystemProperty(L"InitializeAsAdminFirst", CIM_BOOLEAN),
         SystemProperty(L"OperationTimeoutInterval", CIM_DATETIME),
         SystemProperty(L"PerLocaleInitialization", CIM_BOOLEAN), SystemProperty(L"PerUserInitialization", CIM_BOOLEAN),
         SystemProperty(L"Pure", CIM_BOOLEAN), SystemProperty(L"SecurityDescriptor", CIM_STRING),
         SystemProperty(L"SupportsExplicitShutdown", CIM_BOOLEAN), SystemProperty(L"SupportsExtendedStatus", CIM_BOOLEAN),
         SystemProperty(L"SupportsQuotas", CIM_BOOLEAN), SystemProperty(L"SupportsSendStatus", CIM_BOOLEAN),
         SystemProperty(L"SupportsShutdown", CIM_BOOLEAN), SystemProperty(L"SupportsThrottling", CIM_BOOLEAN),
         SystemProperty(L"UnloadTimeout", CIM_DATETIME), SystemProperty(L"Version", CIM_UINT32)});
    add(L"__ProviderRegistration", L"__SystemClass", {SystemProperty(L"Provider", CIM_REFERENCE, true)});
    add(L"__ObjectProviderRegistration", L"__ProviderRegistration",
        {SystemProperty(L"InteractionType", CIM_SINT32),
         SystemProperty(L"QuerySupportLevels", CIM_STRING | CIM_FLAG_ARRAY),
         SystemProperty(L"SupportsBatching", CIM_BOOLEAN), SystemProperty(L"SupportsDelete", CIM_BOOLEAN),
         SystemProperty(L"SupportsEnumeration", CIM_BOOLEAN), SystemProperty(L"SupportsGet", CIM_BOOLEAN),
         SystemProperty(L"SupportsPut", CIM_BOOLEAN), SystemProperty(L"SupportsTransactions", CIM_BOOLEAN)});
    add(L"__InstanceProviderRegistration", L"__ObjectProviderRegistration", {});
    add(L"__MethodProviderRegistration", L"__ProviderRegistration", {});
    add(L"__EventProviderRegistration", L"__ProviderRegistration",
        {SystemProperty(L"EventQueryList", CIM_STRING | CIM_FLAG_ARRAY)});
    return classes;
}

}  // namespace dorwex::emulator::wmi
