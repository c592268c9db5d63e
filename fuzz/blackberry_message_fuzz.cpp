// The BlackBerry channel's text rules on any text: no crash, and what they produce comes from the text
// (tokens hold no separator, the long path keeps the text behind its prefix).
#include "channels/blackberry_text.h"
#include "fuzz_input.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using dorwex::fuzz::Check;
    const std::wstring text = dorwex::fuzz::Utf16Text(data, size);
    dorwex::ClassifyBlackBerryMessage(text);
    for (const auto& token : dorwex::BlackBerryTokens(text)) {
        Check(token.find_first_of(L"*~") == std::wstring::npos, "no separator inside a token");
        Check(text.find(token) != std::wstring::npos, "a token is a piece of the message");
    }
    dorwex::IsFilteredShare(text);
    const std::wstring longPath = dorwex::LongSharePath(text);
    Check(longPath.size() >= text.size(), "the long form only adds");
    std::wstring listing;
    dorwex::AppendShareListingEntry(listing, text, size % 2 == 0, size % 4);
    dorwex::WNetResultText(static_cast<std::uint32_t>(size), text);
    return 0;
}
