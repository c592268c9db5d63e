#include "manufacturer_class.h"

#include <initializer_list>
#include <string>

namespace dorwex {

namespace {

constexpr char16_t AsciiUpper(char16_t c) {
    return (c >= u'a' && c <= u'z') ? static_cast<char16_t>(c - u'a' + u'A') : c;
}

// White space as iswspace sees it in wide text: ASCII blank and controls 9-13, and the Unicode spaces.
constexpr bool IsWideSpace(char16_t c) {
    return c == u' ' || (c >= u'\t' && c <= u'\r') || c == 0x0085 || c == 0x00A0 || c == 0x1680 ||
           (c >= 0x2000 && c <= 0x200A) || c == 0x2028 || c == 0x2029 || c == 0x202F || c == 0x205F ||
           c == 0x3000;
}

bool ContainsAny(std::u16string_view upper, std::initializer_list<std::u16string_view> keywords) {
    for (std::u16string_view keyword : keywords) {
        if (upper.find(keyword) != std::u16string_view::npos) {
            return true;
        }
    }
    return false;
}

std::u16string_view Trim(std::u16string_view text) {
    while (!text.empty() && IsWideSpace(text.front())) {
        text.remove_prefix(1);
    }
    while (!text.empty() && IsWideSpace(text.back())) {
        text.remove_suffix(1);
    }
    return text;
}

}  // namespace

ManufacturerMatch ClassifyManufacturer(std::u16string_view maker) {
    std::u16string upper(maker);
    for (char16_t& c : upper) {
        c = AsciiUpper(c);
    }
    if (ContainsAny(upper, {u"APPLE"})) {
        return {Manufacturer::APPLE, false};
    }
    if (ContainsAny(upper, {u"SAMSUNG", u"ANDROID"})) {
        return {Manufacturer::ANDROID, false};
    }
    if (ContainsAny(upper, {u"NOKIA", u"WINDOWS", u"HP"})) {
        return {Manufacturer::WINDOWS, false};
    }
    // The storage-stick rules all lead to the same class, so their order among themselves is free.
    if (ContainsAny(upper, {u"KINGSTON", u"APRICORN", u"IMATION", u"IRONKEY", u"KANGURU", u"DATALOCKER"}) ||
        Trim(upper) == u"DL") {
        return {Manufacturer::LOGICALDISK, false};
    }
    return {Manufacturer::ANDROID, true};
}

}  // namespace dorwex
