#include "apple_message.h"

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

}  // namespace dorwex
