#include "namespace.h"

#include <objbase.h>
#include <oleauto.h>

#include <cstdlib>
#include <cwctype>

#include "mof_reader.h"

namespace dorwex::emulator::wmi {

namespace {

std::wstring Widen(const std::string& text) {
    std::wstring wide;
    if (!text.empty()) {
        const int count = MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0);
        wide.resize(static_cast<size_t>(count));
        MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), &wide[0], count);
    }
    return wide;
}

CIMTYPE CimType(const std::string& mofType) {
    static const struct {
        const char* name;
        CIMTYPE type;
    } kTypes[] = {
        {"string", CIM_STRING}, {"boolean", CIM_BOOLEAN}, {"uint8", CIM_UINT8},     {"sint8", CIM_SINT8},
        {"uint16", CIM_UINT16}, {"sint16", CIM_SINT16},   {"uint32", CIM_UINT32},   {"sint32", CIM_SINT32},
        {"uint64", CIM_UINT64}, {"sint64", CIM_SINT64},   {"real32", CIM_REAL32},   {"real64", CIM_REAL64},
        {"datetime", CIM_DATETIME},
    };
    for (const auto& known : kTypes) {
        if (_stricmp(known.name, mofType.c_str()) == 0) {
            return known.type;
        }
    }
    return CIM_STRING;
}

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

// Every property's qualifiers also hold its CIM type as text, as WMI adds it.
PropertyDefinition Property(const std::string& name, const std::string& type, const mof::Qualifiers& declared) {
    PropertyDefinition property{Widen(name), CimType(type), mof::FindQualifier(declared, "key") != nullptr,
                                Qualifiers(declared)};
    QualifierDefinition cimType;
    cimType.name = L"CIMTYPE";
    cimType.type = VT_BSTR;
    cimType.text = Widen(type);
    property.qualifiers.push_back(cimType);
    return property;
}

std::shared_ptr<ClassDefinition> SystemClass(const wchar_t* name, std::vector<std::wstring> ancestors,
                                             std::vector<PropertyDefinition> properties) {
    auto definition = std::make_shared<ClassDefinition>();
    definition->name = name;
    definition->ancestors = std::move(ancestors);
    definition->properties = std::move(properties);
    return definition;
}

std::wstring MofPath() {
    wchar_t path[MAX_PATH] = {};
    const DWORD length = GetEnvironmentVariableW(L"DORWEX_WMI_MOF", path, MAX_PATH);
    if (length > 0 && length < MAX_PATH) {
        return path;
    }
    HMODULE module = nullptr;
    GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                       reinterpret_cast<LPCWSTR>(&MofPath), &module);
    GetModuleFileNameW(module, path, MAX_PATH);
    std::wstring directory(path);
    return directory.substr(0, directory.find_last_of(L'\\') + 1) + L"dorwex_wpd_provider.mof";
}

std::wstring Trim(const std::wstring& text) {
    const auto first = text.find_first_not_of(L" \t");
    const auto last = text.find_last_not_of(L" \t");
    return first == std::wstring::npos ? std::wstring() : text.substr(first, last - first + 1);
}

// Position of a keyword (whole word, any case) at or after from, outside quotes; npos when absent.
size_t FindKeyword(const std::wstring& text, const wchar_t* keyword, size_t from = 0) {
    const size_t length = wcslen(keyword);
    wchar_t quote = 0;
    for (size_t i = from; i + length <= text.size(); ++i) {
        if (quote != 0) {
            quote = text[i] == quote ? 0 : quote;
            continue;
        }
        if (text[i] == L'\'' || text[i] == L'"') {
            quote = text[i];
            continue;
        }
        const bool before = i == 0 || !std::iswalnum(text[i - 1]);
        const bool after = i + length == text.size() || !std::iswalnum(text[i + length]);
        if (before && after && _wcsnicmp(text.c_str() + i, keyword, length) == 0) {
            return i;
        }
    }
    return std::wstring::npos;
}

}  // namespace

bool ParseQuery(const wchar_t* text, Query& query) {
    if (text == nullptr) {
        return false;
    }
    const std::wstring wql = Trim(text);
    if (FindKeyword(wql, L"SELECT") != 0) {
        return false;
    }
    const size_t from = FindKeyword(wql, L"FROM");
    if (from == std::wstring::npos) {
        return false;
    }
    const size_t where = FindKeyword(wql, L"WHERE", from);
    query.className = Trim(wql.substr(from + 4, where == std::wstring::npos ? std::wstring::npos : where - from - 4));
    if (query.className.empty() || query.className.find_first_of(L" \t") != std::wstring::npos) {
        return false;
    }
    query.properties.clear();
    const std::wstring selected = Trim(wql.substr(6, from - 6));
    if (selected.empty()) {
        return false;
    }
    if (selected != L"*") {
        size_t start = 0;
        while (start <= selected.size()) {
            const size_t comma = selected.find(L',', start);
            const std::wstring name =
                Trim(selected.substr(start, comma == std::wstring::npos ? std::wstring::npos : comma - start));
            if (name.empty() || name.find_first_of(L" \t*") != std::wstring::npos) {
                return false;
            }
            query.properties.push_back(name);
            if (comma == std::wstring::npos) {
                break;
            }
            start = comma + 1;
        }
    }
    query.conditions.clear();
    if (where == std::wstring::npos) {
        return true;
    }
    std::wstring rest = wql.substr(where + 5);
    while (!Trim(rest).empty()) {
        const size_t andAt = FindKeyword(rest, L"AND");
        const std::wstring condition = Trim(rest.substr(0, andAt));
        rest = andAt == std::wstring::npos ? std::wstring() : rest.substr(andAt + 3);
        QueryCondition parsed;
        size_t op = condition.find(L"<>");
        size_t opLength = 2;
        if (op == std::wstring::npos) {
            op = condition.find(L"!=");
        }
        if (op == std::wstring::npos) {
            op = condition.find(L'=');
            opLength = 1;
        } else {
            parsed.equal = false;
        }
        if (op == std::wstring::npos) {
            return false;
        }
        parsed.property = Trim(condition.substr(0, op));
        std::wstring value = Trim(condition.substr(op + opLength));
        if (value.size() >= 2 && (value.front() == L'\'' || value.front() == L'"') && value.back() == value.front()) {
            value = value.substr(1, value.size() - 2);
        }
        parsed.value = value;
        if (parsed.property.empty()) {
            return false;
        }
        query.conditions.push_back(parsed);
    }
    return true;
}

bool MatchesQuery(IWbemClassObject* object, const Query& query) {
    VARIANT className;
    VariantInit(&className);
    bool matches = SUCCEEDED(object->Get(L"__CLASS", 0, &className, nullptr, nullptr)) && className.vt == VT_BSTR &&
                   (_wcsicmp(className.bstrVal, query.className.c_str()) == 0 ||
                    object->InheritsFrom(query.className.c_str()) == WBEM_S_NO_ERROR);
    VariantClear(&className);
    for (const auto& condition : query.conditions) {
        if (!matches) {
            break;
        }
        VARIANT value;
        VariantInit(&value);
        if (FAILED(object->Get(condition.property.c_str(), 0, &value, nullptr, nullptr))) {
            return false;
        }
        std::wstring text;
        if (value.vt == VT_BOOL) {
            text = value.boolVal ? L"TRUE" : L"FALSE";
        } else if (value.vt != VT_NULL && SUCCEEDED(VariantChangeType(&value, &value, 0, VT_BSTR))) {
            text = value.bstrVal != nullptr ? value.bstrVal : L"";
        }
        VariantClear(&value);
        matches = (_wcsicmp(text.c_str(), condition.value.c_str()) == 0) == condition.equal;
    }
    return matches;
}

Namespace& Namespace::Get() {
    static Namespace* instance = new Namespace();  // lives as long as the process
    return *instance;
}

HRESULT Namespace::Load() {
    std::lock_guard<std::mutex> guard(m_lock);
    return LoadLocked();
}

std::wstring Namespace::LoadError() {
    std::lock_guard<std::mutex> guard(m_lock);
    LoadLocked();
    return m_loadError;
}

HRESULT Namespace::LoadLocked() {
    if (m_loaded) {
        return m_loadResult;
    }
    m_loaded = true;
    m_loadResult = WBEM_E_INITIALIZATION_FAILURE;
    const std::wstring path = MofPath();
    HANDLE file = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        m_loadError = L"cannot open the MOF " + path;
        return m_loadResult;
    }
    std::string text;
    char buffer[4096];
    DWORD read = 0;
    while (ReadFile(file, buffer, sizeof buffer, &read, nullptr) && read > 0) {
        text.append(buffer, read);
    }
    CloseHandle(file);
    const mof::ReadResult mof = mof::Read(text);
    if (!mof.error.empty()) {
        m_loadError = path + L": " + Widen(mof.error);
        return m_loadResult;
    }

    // The system classes the provider relies on.
    const std::vector<std::wstring> systemRoot = {L"__SystemClass"};
    m_classes.push_back(SystemClass(L"__ExtendedStatus", {L"__NotifyStatus", L"__SystemClass"},
                                    {Property("Description", "string", {}), Property("Operation", "string", {}),
                                     Property("ParameterInfo", "string", {}), Property("ProviderName", "string", {}),
                                     Property("StatusCode", "uint32", {})}));
    m_classes.push_back(SystemClass(L"__Event", systemRoot, {Property("TIME_CREATED", "uint64", {})}));
    m_classes.push_back(SystemClass(L"__ExtrinsicEvent", {L"__Event", L"__SystemClass"},
                                    {Property("TIME_CREATED", "uint64", {})}));

    for (const mof::Class& declared : mof.document.classes) {
        auto definition = std::make_shared<ClassDefinition>();
        definition->name = Widen(declared.name);
        definition->provider = Widen(declared.provider);
        definition->qualifiers = Qualifiers(declared.qualifiers);
        if (!declared.superclass.empty()) {
            if (auto super = FindClass(Widen(declared.superclass))) {
                definition->ancestors.push_back(super->name);
                definition->ancestors.insert(definition->ancestors.end(), super->ancestors.begin(),
                                             super->ancestors.end());
                definition->properties = super->properties;
            } else {
                m_loadError = L"class " + definition->name + L" derives from the unknown " + Widen(declared.superclass);
                return m_loadResult;
            }
        }
        for (const mof::Property& property : declared.properties) {
            definition->properties.push_back(Property(property.name, property.type, property.qualifiers));
        }
        for (const mof::Method& method : declared.methods) {
            MethodDefinition defined;
            defined.name = Widen(method.name);
            defined.isStatic = method.isStatic;
            defined.implemented = method.implemented;
            defined.qualifiers = Qualifiers(method.qualifiers);
            auto in = std::make_shared<ClassDefinition>();
            auto out = std::make_shared<ClassDefinition>();
            in->name = out->name = L"__PARAMETERS";
            out->properties.push_back(Property("ReturnValue", method.returnType, {{"out", "", {}}}));
            // Parameters carry their position as the ID qualifier, as WMI numbers them.
            LONG id = 0;
            for (const mof::Parameter& parameter : method.parameters) {
                PropertyDefinition argument = Property(parameter.name, parameter.type, parameter.qualifiers);
                if (FindQualifierDefinition(argument.qualifiers, L"ID") == nullptr) {
                    QualifierDefinition position;
                    position.name = L"ID";
                    position.type = VT_I4;
                    position.number = id;
                    argument.qualifiers.push_back(position);
                }
                ++id;
                (parameter.in ? in : out)->properties.push_back(argument);
            }
            if (!in->properties.empty()) {
                defined.in = in;
            }
            defined.out = out;
            definition->methods.push_back(defined);
        }
        m_classes.push_back(definition);
    }
    for (const mof::Instance& instance : mof.document.instances) {
        if (instance.className == "__Win32Provider") {
            const auto clsid = instance.values.find("ClsId");
            if (clsid == instance.values.end() ||
                FAILED(CLSIDFromString(Widen(clsid->second.text).c_str(), &m_providerClsid))) {
                m_loadError = L"the provider registration has no valid ClsId";
                return m_loadResult;
            }
            const auto name = instance.values.find("Name");
            m_providerName = name != instance.values.end() ? Widen(name->second.text) : std::wstring();
            const auto impersonation = instance.values.find("ImpersonationLevel");
            m_providerImpersonates = impersonation != instance.values.end() && impersonation->second.text == "1";
        }
    }
    m_loadResult = WBEM_S_NO_ERROR;
    return m_loadResult;
}

std::shared_ptr<const ClassDefinition> Namespace::FindClass(const std::wstring& name) {
    for (const auto& definition : m_classes) {
        if (_wcsicmp(definition->name.c_str(), name.c_str()) == 0) {
            return definition;
        }
    }
    return nullptr;
}

bool Namespace::ProviderImpersonates() {
    std::lock_guard<std::mutex> guard(m_lock);
    return m_providerImpersonates;
}

std::wstring Namespace::ProviderName() {
    std::lock_guard<std::mutex> guard(m_lock);
    return m_providerName;
}

void Namespace::DeliverEvent(IWbemClassObject* event) {
    std::vector<IWbemObjectSink*> sinks;
    {
        std::lock_guard<std::mutex> guard(m_lock);
        for (const auto& subscription : m_subscriptions) {
            if (MatchesQuery(event, subscription.query)) {
                subscription.sink->AddRef();
                sinks.push_back(subscription.sink);
            }
        }
    }
    for (auto* sink : sinks) {
        sink->Indicate(1, &event);
        sink->Release();
    }
}

size_t Namespace::SubscriptionCount() {
    std::lock_guard<std::mutex> guard(m_lock);
    return m_subscriptions.size();
}

}  // namespace dorwex::emulator::wmi
