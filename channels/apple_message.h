// The Apple companion service's write report: "Event^WRITE~SerialNumber^...~strPID^...~TargetPath^...~
// LocalFileName^...~ClientPid^...~WriteToken^...". Pure logic, no Windows headers.
//
// Fields are separated by "~", name and value by "^", with tokenizer rules: runs of a separator count as
// one and leading separators are skipped, so empty fields are not counted; a field's first token is its
// name, the second its value, anything after that is ignored. The first seven fields must carry the
// names above in that order; fields after the seventh are ignored, missing ones leave their values empty.
#pragma once

#include <array>
#include <string>
#include <string_view>

namespace dorwex {

struct AppleWriteReport {
    enum Field { EVENT, SERIAL_NUMBER, STR_PID, TARGET_PATH, LOCAL_FILE_NAME, CLIENT_PID, WRITE_TOKEN, FIELDS };
    std::array<std::wstring, FIELDS> values;
};

inline constexpr const wchar_t* kAppleFieldNames[AppleWriteReport::FIELDS] = {
    L"Event", L"SerialNumber", L"strPID", L"TargetPath", L"LocalFileName", L"ClientPid", L"WriteToken"};

enum class AppleReportStatus {
    kValid,          // a write report
    kInvalidPacket,  // a field with the wrong name at its position
    kNotWrite,       // well formed, but the event kind is not exactly "WRITE"
};

AppleReportStatus ParseAppleWriteReport(std::wstring_view message, AppleWriteReport& report);

}  // namespace dorwex
