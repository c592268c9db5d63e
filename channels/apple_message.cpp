#include "apple_message.h"

#include <algorithm>
#include <limits>

#include "tokenizer.h"

namespace dorwex {

AppleReportStatus ParseAppleWriteReport(std::wstring_view message, AppleWriteReport& report) {
    report = AppleWriteReport{};
    size_t index = 0;
    bool invalid = false;
    ForEachToken(message, L"~", [&](std::wstring_view field) {
        if (invalid) {
            return false;
        }
        std::wstring_view parts[2];
        size_t count = 0;
        ForEachToken(field, L"^", [&](std::wstring_view part) {
            parts[count++] = part;
            return count < 2;
        });
        if (index < AppleWriteReport::FIELDS) {
            if (parts[0] != kAppleFieldNames[index]) {
                invalid = true;
            } else {
                report.values[index] = std::wstring(parts[1]);
            }
        }
        ++index;
        return true;
    });
    if (invalid) {
        return AppleReportStatus::kInvalidPacket;
    }
    return report.values[AppleWriteReport::EVENT] == L"WRITE" ? AppleReportStatus::kValid
                                                                : AppleReportStatus::kNotWrite;
}

std::int32_t DecimalTextToLong(std::wstring_view text) {
    size_t position = 0;
    while (position < text.size() && (text[position] == L' ' || (text[position] >= L'\t' && text[position] <= L'\r'))) {
        ++position;
    }
    bool negative = false;
    if (position < text.size() && (text[position] == L'+' || text[position] == L'-')) {
        negative = text[position] == L'-';
        ++position;
    }
    std::int64_t value = 0;
    constexpr std::int64_t kLimit = static_cast<std::int64_t>(std::numeric_limits<std::int32_t>::max()) + 1;
    for (; position < text.size() && text[position] >= L'0' && text[position] <= L'9'; ++position) {
        value = std::min<std::int64_t>(value * 10 + (text[position] - L'0'), kLimit);
    }
    if (negative) {
        return static_cast<std::int32_t>(std::max<std::int64_t>(-value, std::numeric_limits<std::int32_t>::min()));
    }
    return static_cast<std::int32_t>(std::min<std::int64_t>(value, std::numeric_limits<std::int32_t>::max()));
}

}  // namespace dorwex
