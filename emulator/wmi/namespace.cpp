#include "namespace.h"

#include <objbase.h>
#include <oleauto.h>

#include <algorithm>
#include <cwctype>

namespace dorwex::emulator::wmi {

namespace {

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

bool IsServedNamespace(const std::wstring& path) {
    std::wstring name(path);
    std::replace(name.begin(), name.end(), L'/', L'\\');
    for (const wchar_t* prefix : {L"\\\\.\\", L"\\\\localhost\\"}) {
        if (_wcsnicmp(name.c_str(), prefix, wcslen(prefix)) == 0) {
            name = name.substr(wcslen(prefix));
        }
    }
    return _wcsicmp(name.c_str(), L"root\\cimv2") == 0;
}

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
    std::wstring error;
    m_loadResult = ReplayLocked(error);
    m_loadError = error;
    return m_loadResult;
}

std::shared_ptr<const ClassDefinition> Namespace::FindClass(const std::wstring& name) {
    std::lock_guard<std::mutex> guard(m_lock);
    return FindClassLocked(name);
}

std::shared_ptr<const ClassDefinition> Namespace::FindClassLocked(const std::wstring& name) {
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

size_t Namespace::SubscriptionCount() {
    std::lock_guard<std::mutex> guard(m_lock);
    return m_subscriptions.size();
}

}  // namespace dorwex::emulator::wmi
