// The namespace's store and what changes it: the system classes, the MOF read at the start, and compiled
// MOFs, applied statement by statement as the MOF compiler stores them. Every compile that stored anything
// is kept in the repository (repository.h) with the number of its statements that were stored, and every
// process replays it when it starts.
#include <objbase.h>
#include <oleauto.h>

#include <algorithm>
#include <cstdlib>
#include <cwchar>

#include "class_definitions.h"
#include "namespace.h"
#include "repository.h"
#include "string_array.h"
#include "wbem_path.h"

namespace dorwex::emulator::wmi {

namespace {

bool Inherits(const ClassDefinition& definition, const std::wstring& name) {
    if (_wcsicmp(definition.name.c_str(), name.c_str()) == 0) {
        return true;
    }
    for (const auto& ancestor : definition.ancestors) {
        if (_wcsicmp(ancestor.c_str(), name.c_str()) == 0) {
            return true;
        }
    }
    return false;
}

// The value of an "instance of" block in the VARIANT type the property keeps.
HRESULT ValueVariant(const PropertyDefinition& property, const mof::Value& value,
                     const std::vector<std::pair<std::string, std::wstring>>& aliases, VARIANT& out) {
    VariantInit(&out);
    const CIMTYPE base = property.type & ~CIM_FLAG_ARRAY;
    if (value.isList != ((property.type & CIM_FLAG_ARRAY) != 0)) {
        return WBEM_E_TYPE_MISMATCH;
    }
    if (value.isList) {
        std::vector<std::wstring> texts;
        for (const auto& element : value.list) {
            texts.push_back(Widen(element));
        }
        out.vt = VT_ARRAY | VT_BSTR;
        out.parray = StringArray(texts);
        return out.parray != nullptr ? WBEM_S_NO_ERROR : WBEM_E_OUT_OF_MEMORY;
    }
    std::wstring text = Widen(value.text);
    if (value.isAlias) {
        const auto alias = std::find_if(aliases.begin(), aliases.end(),
                                        [&](const auto& known) { return known.first == value.text; });
        if (alias == aliases.end() || base != CIM_REFERENCE) {
            return alias == aliases.end() ? WBEM_E_NOT_FOUND : WBEM_E_TYPE_MISMATCH;
        }
        text = alias->second;
    }
    switch (base) {
    case CIM_STRING:
    case CIM_DATETIME:
    case CIM_REFERENCE:
        out.vt = VT_BSTR;
        out.bstrVal = SysAllocString(text.c_str());
        return out.bstrVal != nullptr ? WBEM_S_NO_ERROR : WBEM_E_OUT_OF_MEMORY;
    case CIM_BOOLEAN:
        if (_wcsicmp(text.c_str(), L"TRUE") != 0 && _wcsicmp(text.c_str(), L"FALSE") != 0) {
            return WBEM_E_TYPE_MISMATCH;
        }
        out.vt = VT_BOOL;
        out.boolVal = _wcsicmp(text.c_str(), L"TRUE") == 0 ? VARIANT_TRUE : VARIANT_FALSE;
        return WBEM_S_NO_ERROR;
    case CIM_REAL32:
    case CIM_REAL64: {
        wchar_t* end = nullptr;
        out.vt = VT_R8;
        out.dblVal = std::wcstod(text.c_str(), &end);
        return !text.empty() && *end == 0 ? static_cast<HRESULT>(WBEM_S_NO_ERROR) : static_cast<HRESULT>(WBEM_E_TYPE_MISMATCH);
    }
    default: {
        wchar_t* end = nullptr;
        out.vt = VT_I8;
        out.llVal = std::wcstoll(text.c_str(), &end, 0);
        return !text.empty() && *end == 0 ? static_cast<HRESULT>(WBEM_S_NO_ERROR) : static_cast<HRESULT>(WBEM_E_TYPE_MISMATCH);
    }
    }
}

// A reference as its relative path, so that "\\.\root\cimv2:C.k="v"" and "C.k="v"" compare equal.
std::wstring ReferenceKey(const std::wstring& path) {
    auto parsed = ParseWbemPath(path);
    if (!parsed) {
        return path;
    }
    parsed->server.clear();
    parsed->namespaces.clear();
    return RenderRelativePath(*parsed);
}

bool KeyMatches(IWbemClassObject* object, const PropertyDefinition& property, const WbemKey& key) {
    VARIANT stored;
    VariantInit(&stored);
    if (FAILED(object->Get(property.name.c_str(), 0, &stored, nullptr, nullptr))) {
        return false;
    }
    bool matches = false;
    if (key.kind == WbemKey::Kind::String && stored.vt == VT_BSTR && stored.bstrVal != nullptr) {
        matches = property.type == CIM_REFERENCE
                      ? _wcsicmp(ReferenceKey(stored.bstrVal).c_str(), ReferenceKey(key.text).c_str()) == 0
                      : _wcsicmp(stored.bstrVal, key.text.c_str()) == 0;
    } else if (key.kind != WbemKey::Kind::String && stored.vt != VT_BSTR) {
        VARIANT number;
        VariantInit(&number);
        matches = SUCCEEDED(VariantChangeType(&number, &stored, 0, VT_I8)) && number.llVal == key.integer;
    }
    VariantClear(&stored);
    return matches;
}

}  // namespace

void Namespace::ResetStoreLocked() {
    for (auto& instance : m_instances) {
        instance.object->Release();
    }
    m_instances.clear();
    m_classes = SystemClasses();
}

HRESULT Namespace::ReplayLocked(std::wstring& error) {
    ResetStoreLocked();
    bool required = false;
    const std::wstring preload = PreloadMofPath(required);
    std::string text;
    if (ReadText(preload, text)) {
        const mof::ReadResult mof = mof::Read(text);
        if (!mof.error.empty()) {
            error = preload + L": " + Widen(mof.error);
            return WBEM_E_INITIALIZATION_FAILURE;
        }
        const CompileStatus status = ApplyLocked(mof.document, L"root\\default", mof.document.statements.size());
        if (FAILED(status.hr)) {
            error = preload + L": statement " + std::to_wstring(status.objectNumber) + L" could not be stored";
            return WBEM_E_INITIALIZATION_FAILURE;
        }
    } else if (required) {
        error = L"cannot open the MOF " + preload;
        return WBEM_E_INITIALIZATION_FAILURE;
    }
    for (const auto& entry : RepositoryEntries()) {
        std::string stored;
        if (!ReadText(entry, stored) || stored.compare(0, 13, "//statements=") != 0) {
            error = L"unreadable repository entry " + entry;
            return WBEM_E_INITIALIZATION_FAILURE;
        }
        const size_t lineEnd = stored.find('\n');
        const std::string header = stored.substr(0, lineEnd);
        const size_t count = std::strtoul(header.c_str() + 13, nullptr, 10);
        const size_t nsAt = header.find(" namespace=");
        const std::wstring ns = nsAt == std::string::npos ? std::wstring() : Widen(header.substr(nsAt + 11));
        const mof::ReadResult mof = mof::Read(lineEnd == std::string::npos ? std::string() : stored.substr(lineEnd + 1));
        ApplyLocked(mof.document, ns, std::min(count, mof.document.statements.size()));
    }
    RefreshProviderLocked();
    for (const auto& instance : m_instances) {
        if (Inherits(*instance.definition, L"__Win32Provider") && m_providerClsid == GUID_NULL) {
            error = L"the provider registration has no valid ClsId";
            return WBEM_E_INITIALIZATION_FAILURE;
        }
    }
    return WBEM_S_NO_ERROR;
}

CompileStatus Namespace::Compile(const std::string& text, const std::wstring& defaultNamespace, bool checkOnly) {
    CompileStatus status;
    const mof::ReadResult mof = mof::Read(text);
    if (!mof.error.empty()) {
        status.phase = 1;
        status.hr = WBEM_E_INVALID_SYNTAX;
        status.objectNumber = static_cast<LONG>(mof.document.statements.size() + 1);
        status.firstLine = status.lastLine = static_cast<LONG>(mof.errorLine);
        return status;
    }
    if (checkOnly) {
        return status;
    }
    std::lock_guard<std::mutex> guard(m_lock);
    // What other processes compiled since this one started counts too.
    std::wstring error;
    m_loaded = true;
    m_loadResult = ReplayLocked(error);
    m_loadError = error;
    status = ApplyLocked(mof.document, defaultNamespace, mof.document.statements.size());
    const size_t stored = status.phase == 0 ? mof.document.statements.size() : static_cast<size_t>(status.objectNumber - 1);
    if (stored > 0 && !WriteEntry(stored, defaultNamespace, text) && status.phase == 0) {
        status.phase = 3;
        status.hr = WBEM_E_FAILED;
    }
    RefreshProviderLocked();
    return status;
}

CompileStatus Namespace::ApplyLocked(const mof::Document& document, const std::wstring& defaultNamespace, size_t count) {
    CompileStatus status;
    std::vector<std::pair<std::string, std::wstring>> aliases;
    for (size_t i = 0; i < count && i < document.statements.size(); ++i) {
        const mof::Statement& statement = document.statements[i];
        std::wstring ns = statement.ns.empty() ? defaultNamespace : Widen(statement.ns);
        HRESULT hr = WBEM_E_INVALID_NAMESPACE;
        if (IsServedNamespace(ns.empty() ? L"root\\default" : ns)) {
            switch (statement.kind) {
            case mof::Statement::Kind::Class: hr = ApplyClassLocked(document.classes[statement.index]); break;
            case mof::Statement::Kind::Instance:
                hr = ApplyInstanceLocked(document.instances[statement.index], aliases);
                break;
            case mof::Statement::Kind::Deletion: hr = ApplyDeletionLocked(document.deletions[statement.index]); break;
            }
        }
        if (FAILED(hr)) {
            status.phase = 3;
            status.hr = hr;
            status.objectNumber = static_cast<LONG>(i + 1);
            status.firstLine = static_cast<LONG>(statement.firstLine);
            status.lastLine = static_cast<LONG>(statement.lastLine);
            return status;
        }
    }
    return status;
}

HRESULT Namespace::ApplyClassLocked(const mof::Class& declared) {
    auto definition = std::make_shared<ClassDefinition>();
    definition->name = Widen(declared.name);
    definition->provider = Widen(declared.provider);
    definition->qualifiers = Qualifiers(declared.qualifiers);
    if (!declared.superclass.empty()) {
        const auto super = FindClassLocked(Widen(declared.superclass));
        if (!super) {
            return WBEM_E_INVALID_SUPERCLASS;
        }
        definition->ancestors.push_back(super->name);
        definition->ancestors.insert(definition->ancestors.end(), super->ancestors.begin(), super->ancestors.end());
        definition->properties = super->properties;
    }
    for (const mof::Property& property : declared.properties) {
        definition->properties.push_back(DeclaredProperty(property.name, property.type, property.qualifiers));
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
        out->properties.push_back(DeclaredProperty("ReturnValue", method.returnType, {{"out", "", {}}}));
        // Parameters carry their position as the ID qualifier, as WMI numbers them.
        LONG id = 0;
        for (const mof::Parameter& parameter : method.parameters) {
            PropertyDefinition argument = DeclaredProperty(parameter.name, parameter.type, parameter.qualifiers);
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
    // A class compiled again replaces the one stored (WMI's default: create or update).
    for (auto& known : m_classes) {
        if (_wcsicmp(known->name.c_str(), definition->name.c_str()) == 0) {
            known = definition;
            return WBEM_S_NO_ERROR;
        }
    }
    m_classes.push_back(definition);
    return WBEM_S_NO_ERROR;
}

HRESULT Namespace::ApplyInstanceLocked(const mof::Instance& declared,
                                       std::vector<std::pair<std::string, std::wstring>>& aliases) {
    const auto definition = FindClassLocked(Widen(declared.className));
    if (!definition) {
        return WBEM_E_INVALID_CLASS;
    }
    auto* object = new (std::nothrow) ClassObject(definition, true);
    if (object == nullptr) {
        return WBEM_E_OUT_OF_MEMORY;
    }
    for (const auto& value : declared.values) {
        const std::wstring name = Widen(value.first);
        const int index = definition->FindProperty(name.c_str());
        if (index < 0) {
            object->Release();
            return WBEM_E_NOT_FOUND;
        }
        VARIANT variant;
        HRESULT hr = ValueVariant(definition->properties[static_cast<size_t>(index)], value.second, aliases, variant);
        if (SUCCEEDED(hr)) {
            hr = object->Put(name.c_str(), 0, &variant, 0);
        }
        VariantClear(&variant);
        if (FAILED(hr)) {
            object->Release();
            return hr;
        }
    }
    const std::wstring path = object->RelativePath();
    if (path.empty()) {
        object->Release();
        return WBEM_E_ILLEGAL_NULL;  // an instance is stored under its keys
    }
    if (!declared.alias.empty()) {
        aliases.emplace_back(declared.alias, path);
    }
    for (auto& known : m_instances) {
        if (_wcsicmp(AsClassObject(known.object)->RelativePath().c_str(), path.c_str()) == 0) {
            known.object->Release();
            known = {definition, object};
            return WBEM_S_NO_ERROR;
        }
    }
    m_instances.push_back({definition, object});
    return WBEM_S_NO_ERROR;
}

HRESULT Namespace::ApplyDeletionLocked(const mof::Deletion& deletion) {
    const std::wstring target = Widen(deletion.target);
    if (deletion.kind == mof::Deletion::Kind::Class) {
        const auto definition = FindClassLocked(target);
        if (!definition) {
            return deletion.failIfMissing ? WBEM_E_NOT_FOUND : WBEM_S_NO_ERROR;
        }
        RemoveClassLocked(definition->name);
        return WBEM_S_NO_ERROR;
    }
    const auto path = ParseWbemPath(target);
    if (!path || path->keys.empty()) {
        return WBEM_E_INVALID_OBJECT_PATH;
    }
    for (auto known = m_instances.begin(); known != m_instances.end(); ++known) {
        const ClassDefinition& definition = *known->definition;
        if (_wcsicmp(definition.name.c_str(), path->className.c_str()) != 0) {
            continue;
        }
        std::vector<const PropertyDefinition*> keys;
        for (const auto& property : definition.properties) {
            if (property.key) {
                keys.push_back(&property);
            }
        }
        bool matches = keys.size() == path->keys.size();
        for (const auto& key : path->keys) {
            const PropertyDefinition* property = nullptr;
            for (const auto* candidate : keys) {
                if (key.name.empty() ? keys.size() == 1 : _wcsicmp(candidate->name.c_str(), key.name.c_str()) == 0) {
                    property = candidate;
                }
            }
            matches = matches && property != nullptr && KeyMatches(known->object, *property, key);
        }
        if (matches) {
            known->object->Release();
            m_instances.erase(known);
            return WBEM_S_NO_ERROR;
        }
    }
    return deletion.failIfMissing ? WBEM_E_NOT_FOUND : WBEM_S_NO_ERROR;
}

// A class goes with the classes derived from it and the instances of all of them.
void Namespace::RemoveClassLocked(const std::wstring& name) {
    m_instances.erase(std::remove_if(m_instances.begin(), m_instances.end(),
                                     [&](StoredInstance& instance) {
                                         if (!Inherits(*instance.definition, name)) {
                                             return false;
                                         }
                                         instance.object->Release();
                                         return true;
                                     }),
                      m_instances.end());
    m_classes.erase(std::remove_if(m_classes.begin(), m_classes.end(),
                                   [&](const auto& definition) { return Inherits(*definition, name); }),
                    m_classes.end());
}

void Namespace::RefreshProviderLocked() {
    m_providerClsid = GUID_NULL;
    m_providerName.clear();
    m_providerImpersonates = false;
    for (const auto& instance : m_instances) {
        if (!Inherits(*instance.definition, L"__Win32Provider")) {
            continue;
        }
        VARIANT value;
        VariantInit(&value);
        if (SUCCEEDED(instance.object->Get(L"CLSID", 0, &value, nullptr, nullptr)) && value.vt == VT_BSTR &&
            FAILED(CLSIDFromString(value.bstrVal, &m_providerClsid))) {
            m_providerClsid = GUID_NULL;
        }
        VariantClear(&value);
        if (SUCCEEDED(instance.object->Get(L"Name", 0, &value, nullptr, nullptr)) && value.vt == VT_BSTR) {
            m_providerName = value.bstrVal;
        }
        VariantClear(&value);
        m_providerImpersonates = SUCCEEDED(instance.object->Get(L"ImpersonationLevel", 0, &value, nullptr, nullptr)) &&
                                 value.vt == VT_I4 && value.lVal == 1;
        VariantClear(&value);
        return;
    }
}

std::vector<IWbemClassObject*> Namespace::StaticInstances(const std::wstring& className) {
    std::vector<IWbemClassObject*> copies;
    std::lock_guard<std::mutex> guard(m_lock);
    LoadLocked();
    for (const auto& instance : m_instances) {
        IWbemClassObject* copy = nullptr;
        if (Inherits(*instance.definition, className) && SUCCEEDED(instance.object->Clone(&copy))) {
            copies.push_back(copy);
        }
    }
    return copies;
}

}  // namespace dorwex::emulator::wmi
