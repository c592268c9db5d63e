#include "object_path.h"

#include <cwctype>

namespace dorwex {

namespace {

constexpr std::size_t kMaxNumberChars = 31;

bool IsNameChar(wchar_t c) {
    return std::iswalnum(static_cast<wint_t>(c)) || c == L'_';
}

bool EqualsNoCase(std::wstring_view a, std::wstring_view b) {
    if (a.size() != b.size()) {
        return false;
    }
    for (std::size_t i = 0; i < a.size(); ++i) {
        if (std::towupper(static_cast<wint_t>(a[i])) != std::towupper(static_cast<wint_t>(b[i]))) {
            return false;
        }
    }
    return true;
}

// A number or TRUE/FALSE, the whole of text.
bool ParseBareValue(std::wstring_view text, ObjectPathKey& key) {
    key.kind = ObjectPathKey::Kind::Integer;
    if (EqualsNoCase(text, L"TRUE") || EqualsNoCase(text, L"FALSE")) {
        key.integer = EqualsNoCase(text, L"TRUE") ? 1 : 0;
        return true;
    }
    if (text.empty() || text.size() > kMaxNumberChars) {
        return false;
    }
    std::wstring_view digits = text;
    bool negative = false;
    if (digits.front() == L'-' || digits.front() == L'+') {
        negative = digits.front() == L'-';
        digits.remove_prefix(1);
    }
    unsigned base = 10;
    if (digits.size() > 2 && digits[0] == L'0' && (digits[1] == L'x' || digits[1] == L'X')) {
        base = 16;
        digits.remove_prefix(2);
    }
    if (digits.empty()) {
        return false;
    }
    std::uint64_t value = 0;
    for (wchar_t c : digits) {
        unsigned digit;
        if (c >= L'0' && c <= L'9') {
            digit = static_cast<unsigned>(c - L'0');
        } else if (base == 16 && c >= L'a' && c <= L'f') {
            digit = static_cast<unsigned>(c - L'a' + 10);
        } else if (base == 16 && c >= L'A' && c <= L'F') {
            digit = static_cast<unsigned>(c - L'A' + 10);
        } else {
            return false;
        }
        // Like wcstol into a 32-bit value: keep the low 32 bits of what fits in 64.
        value = value * base + digit;
        if (value > 0xFFFFFFFFull) {
            value &= 0xFFFFFFFFull;
        }
    }
    const std::uint32_t low = static_cast<std::uint32_t>(value);
    key.integer = static_cast<std::int32_t>(negative ? 0u - low : low);
    return true;
}

// Reads one value starting at text[position]; leaves position after it.
bool ParseValue(std::wstring_view text, std::size_t& position, ObjectPathKey& key) {
    if (position >= text.size()) {
        return false;
    }
    const wchar_t quote = text[position];
    if (quote == L'"') {
        key.kind = ObjectPathKey::Kind::String;
        for (++position; position < text.size(); ++position) {
            wchar_t c = text[position];
            if (c == L'\\' && position + 1 < text.size() &&
                (text[position + 1] == L'"' || text[position + 1] == L'\\')) {
                c = text[++position];
            } else if (c == L'"') {
                ++position;
                return true;
            }
            key.text += c;
        }
        return false;  // unterminated
    }
    if (quote == L'\'') {
        // Single-quoted values are taken literally; the closing quote is the first one that ends the value.
        key.kind = ObjectPathKey::Kind::String;
        for (std::size_t close = position + 1; close < text.size(); ++close) {
            if (text[close] == L'\'' && (close + 1 == text.size() || text[close + 1] == L',')) {
                key.text.assign(text.substr(position + 1, close - position - 1));
                position = close + 1;
                return true;
            }
        }
        return false;
    }
    const std::size_t end = text.find(L',', position);
    const std::wstring_view bare = text.substr(position, end == std::wstring_view::npos ? text.size() - position
                                                                                       : end - position);
    position += bare.size();
    return ParseBareValue(bare, key);
}

}  // namespace

std::wstring ObjectPathKey::ToText() const {
    return kind == Kind::String ? text : std::to_wstring(integer);
}

std::optional<ObjectPath> ParseObjectPath(std::wstring_view path) {
    // A namespace in front ends with the last ':' before any value.
    const std::size_t stop = path.find_first_of(L"=\"'");
    const std::size_t colon = path.substr(0, stop).rfind(L':');
    if (colon != std::wstring_view::npos) {
        path.remove_prefix(colon + 1);
    }
    ObjectPath parsed;
    std::size_t position = 0;
    while (position < path.size() && IsNameChar(path[position])) {
        ++position;
    }
    if (position == 0) {
        return std::nullopt;
    }
    parsed.className.assign(path.substr(0, position));
    if (position == path.size()) {
        return parsed;
    }
    if (path[position] == L'=') {
        ObjectPathKey key;
        ++position;
        if (!ParseValue(path, position, key) || position != path.size()) {
            return std::nullopt;
        }
        parsed.keys.push_back(std::move(key));
        return parsed;
    }
    if (path[position] != L'.') {
        return std::nullopt;
    }
    ++position;
    while (true) {
        const std::size_t nameStart = position;
        while (position < path.size() && IsNameChar(path[position])) {
            ++position;
        }
        if (position == nameStart || position >= path.size() || path[position] != L'=') {
            return std::nullopt;
        }
        ObjectPathKey key;
        key.name.assign(path.substr(nameStart, position - nameStart));
        ++position;
        if (!ParseValue(path, position, key)) {
            return std::nullopt;
        }
        parsed.keys.push_back(std::move(key));
        if (position == path.size()) {
            return parsed;
        }
        if (path[position] != L',') {
            return std::nullopt;
        }
        ++position;
    }
}

std::wstring QuotedKeyValue(std::wstring_view value) {
    std::wstring quoted = L"\"";
    for (const wchar_t c : value) {
        if (c == L'"' || c == L'\\') {
            quoted += L'\\';
        }
        quoted += c;
    }
    return quoted + L"\"";
}

}  // namespace dorwex
