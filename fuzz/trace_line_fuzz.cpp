// Finishing a formatted trace line on any buffer content and any formatter result: no write past the
// buffer, exactly one line end on a positive length, nothing changed otherwise.
#include <cstring>
#include <vector>

#include "fuzz_input.h"
#include "common/trace_line.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using dorwex::fuzz::Check;
    if (size < 2) {
        return 0;
    }
    // The first two bytes choose the formatter's result, the rest fill the buffer.
    const int formatted = static_cast<int>(static_cast<std::int16_t>(data[0] | (data[1] << 8))) % 5000;
    std::vector<wchar_t> buffer(dorwex::kTraceBufferChars, L'\0');
    const std::wstring text = dorwex::fuzz::Utf16Text(data + 2, size - 2);
    std::memcpy(buffer.data(), text.data(),
                std::min(text.size(), dorwex::kTraceFormatChars - 1) * sizeof(wchar_t));
    if (formatted > static_cast<int>(dorwex::kTraceFormatChars - 1)) {
        return 0;  // a formatter never reports more than it could write
    }
    const std::size_t length = dorwex::FinishTraceLine(buffer.data(), formatted);
    Check(length < dorwex::kTraceBufferChars, "the line stays inside its buffer");
    Check(buffer[length] == L'\0', "the line is terminated");
    return 0;
}
