// The Apple write report parser on any text: no crash, no read past the text, and what it accepts obeys
// the protocol (a valid report's event is WRITE; no value holds a separator).
#include "channels/apple_message.h"
#include "fuzz_input.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using dorwex::fuzz::Check;
    const std::wstring text = dorwex::fuzz::Utf16Text(data, size);
    dorwex::AppleWriteReport report;
    const auto status = dorwex::ParseAppleWriteReport(text, report);
    if (status == dorwex::AppleReportStatus::kValid) {
        Check(report.values[dorwex::AppleWriteReport::EVENT] == L"WRITE", "a valid report is a WRITE");
    }
    for (const auto& value : report.values) {
        Check(value.find_first_of(L"~^") == std::wstring::npos, "no separator inside a value");
        Check(value.size() <= text.size(), "no value longer than the message");
    }
    return 0;
}
