#include "wbem_path.h"

#include <cwctype>
#include <limits>

namespace dorwex::emulator::wmi {

namespace {

bool IsNameStart(wchar_t c) {
    return (c >= L'A' && c <= L'Z') || (c >= L'a' && c <= L'z') || c == L'_';
}

bool IsNameChar(wchar_t c) {
    return IsNameStart(c) || (c >= L'0' && c <= L'9');
}

bool IsSeparator(wchar_t c) {
    return c == L'\\' || c == L'/';
}

class Reader {
public:
    explicit Reader(std::wstring_view text) : m_text(text) {}

    bool AtEnd() const { return m_position >= m_text.size(); }
    wchar_t Peek() const { return AtEnd() ? L'\0' : m_text[m_position]; }
    bool Take(wchar_t c) {
        if (Peek() != c || AtEnd()) {
            return false;
        }
        ++m_position;
        return true;
    }

    std::optional<std::wstring> Name() {
        if (AtEnd() || !IsNameStart(Peek())) {
            return std::nullopt;
        }
        const size_t start = m_position;
        while (!AtEnd() && IsNameChar(Peek())) {
            ++m_position;
        }
        return std::wstring(m_text.substr(start, m_position - start));
    }

    // "..." or '...': \\, \" and \' stand for the character; a backslash before anything else is not a
    // C escape the grammar knows, and the path is refused.
    std::optional<std::wstring> Quoted() {
        const wchar_t quote = Peek();
        ++m_position;
        std::wstring text;
        while (!AtEnd()) {
            wchar_t c = m_text[m_position++];
            if (c == quote) {
                return text;
            }
            if (c == L'\\') {
                if (AtEnd()) {
                    return std::nullopt;
                }
                c = m_text[m_position++];
                if (c != L'\\' && c != L'"' && c != L'\'') {
                    return std::nullopt;
                }
            }
            text += c;
        }
        return std::nullopt;  // not closed
    }

    std::optional<WbemKey> Value() {
        WbemKey key;
        const wchar_t c = Peek();
        if (c == L'"' || c == L'\'') {
            auto text = Quoted();
            if (!text) {
                return std::nullopt;
            }
            key.text = *text;
            return key;
        }
        if (c == L'-' || (c >= L'0' && c <= L'9')) {
            const bool negative = Take(L'-');
            if (!(Peek() >= L'0' && Peek() <= L'9')) {
                return std::nullopt;
            }
            std::uint64_t magnitude = 0;
            while (Peek() >= L'0' && Peek() <= L'9' && !AtEnd()) {
                magnitude = magnitude * 10 + static_cast<std::uint64_t>(Peek() - L'0');
                if (magnitude > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
                    return std::nullopt;
                }
                ++m_position;
            }
            key.kind = WbemKey::Kind::Integer;
            key.integer = negative ? -static_cast<std::int64_t>(magnitude) : static_cast<std::int64_t>(magnitude);
            return key;
        }
        auto word = Name();
        if (!word) {
            return std::nullopt;
        }
        std::wstring upper;
        for (wchar_t w : *word) {
            upper += static_cast<wchar_t>(std::towupper(w));
        }
        if (upper != L"TRUE" && upper != L"FALSE") {
            return std::nullopt;
        }
        key.kind = WbemKey::Kind::Boolean;
        key.integer = upper == L"TRUE" ? 1 : 0;
        return key;
    }

private:
    std::wstring_view m_text;
    size_t m_position = 0;
};

// The namespace part before the ':' that ends it: "\\server\a\b", "//server/a/b" or "a\b".
bool ParseNamespace(std::wstring_view text, WbemPath& path) {
    size_t position = 0;
    if (text.size() >= 2 && IsSeparator(text[0]) && IsSeparator(text[1])) {
        if (text[0] != text[1]) {
            return false;  // "/\" mixes the two forms
        }
        position = 2;
        const size_t end = text.find_first_of(L"\\/", position);
        path.server = std::wstring(text.substr(position, end == std::wstring_view::npos ? end : end - position));
        if (path.server.empty() || end == std::wstring_view::npos) {
            return false;
        }
        position = end + 1;
    } else if (!text.empty() && IsSeparator(text[0])) {
        position = 1;
    }
    while (position <= text.size()) {
        const size_t end = text.find_first_of(L"\\/", position);
        const std::wstring_view name = text.substr(position, end == std::wstring_view::npos ? end : end - position);
        if (name.empty()) {
            return false;
        }
        for (wchar_t c : name) {
            if (!IsNameChar(c)) {
                return false;
            }
        }
        path.namespaces.emplace_back(name);
        if (end == std::wstring_view::npos) {
            return true;
        }
        position = end + 1;
    }
    return false;
}

void AppendValue(std::wstring& out, const WbemKey& key) {
    switch (key.kind) {
        case WbemKey::Kind::String:
            out += L'"';
            for (wchar_t c : key.text) {
                if (c == L'"' || c == L'\\') {
                    out += L'\\';
                }
                out += c;
            }
            out += L'"';
            break;
        case WbemKey::Kind::Integer:
            out += std::to_wstring(key.integer);
            break;
        case WbemKey::Kind::Boolean:
            out += key.integer != 0 ? L"TRUE" : L"FALSE";
            break;
    }
}

}  // namespace

std::optional<WbemPath> ParseWbemPath(std::wstring_view text) {
    WbemPath path;
    // The namespace ends at the first ':' that comes before any quote.
    const size_t quote = text.find_first_of(L"\"'");
    const size_t colon = text.find(L':');
    if (colon != std::wstring_view::npos && (quote == std::wstring_view::npos || colon < quote)) {
        if (!ParseNamespace(text.substr(0, colon), path)) {
            return std::nullopt;
        }
        text = text.substr(colon + 1);
    }
    Reader reader(text);
    auto className = reader.Name();
    if (!className) {
        return std::nullopt;
    }
    path.className = *className;
    if (reader.Take(L'=')) {
        if (reader.Take(L'@')) {
            path.singleton = true;
        } else {
            auto value = reader.Value();
            if (!value) {
                return std::nullopt;
            }
            path.keys.push_back(*value);
        }
    } else if (reader.Take(L'.')) {
        do {
            auto name = reader.Name();
            if (!name || !reader.Take(L'=')) {
                return std::nullopt;
            }
            auto value = reader.Value();
            if (!value) {
                return std::nullopt;
            }
            value->name = *name;
            path.keys.push_back(*value);
        } while (reader.Take(L','));
    }
    if (!reader.AtEnd()) {
        return std::nullopt;
    }
    return path;
}

std::wstring RenderRelativePath(const WbemPath& path) {
    std::wstring out = path.className;
    if (path.singleton) {
        return out + L"=@";
    }
    for (size_t i = 0; i < path.keys.size(); ++i) {
        const WbemKey& key = path.keys[i];
        if (key.name.empty()) {
            out += L'=';
        } else {
            out += i == 0 ? L'.' : L',';
            out += key.name + L'=';
        }
        AppendValue(out, key);
    }
    return out;
}

}  // namespace dorwex::emulator::wmi
