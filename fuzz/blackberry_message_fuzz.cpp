// The BlackBerry channel's text rules on any text: no crash, and what they produce comes from the text
// (tokens hold no separator, the long path keeps the text behind its prefix, a path inside the share
// holds no dot component, stream or "/").
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
    const std::wstring_view host = dorwex::ShareHost(text);
    Check(text.find(host) != std::wstring::npos, "the host is a piece of the path");
    Check(!dorwex::IdNamesShareHost(text, L""), "no address names nothing");
    // A path inside the share, whatever else it holds, never leaves it through a dot component or a stream.
    if (dorwex::IsPathInsideShare(text, L"\\\\10.0.0.1\\media")) {
        Check(text.find_first_of(L":/") == std::wstring::npos, "an accepted path has no stream and no other separator");
        for (size_t at = text.find(L'\\', 2); at != std::wstring::npos; at = text.find(L'\\', at + 1)) {
            const std::wstring component = text.substr(at + 1, text.find(L'\\', at + 1) - at - 1);
            Check(component != L"." && component != L".." && !component.empty(), "no dot or empty component");
        }
    }
    std::wstring listing;
    dorwex::AppendShareListingEntry(listing, text, size % 2 == 0, size % 4);
    dorwex::WNetResultText(static_cast<std::uint32_t>(size), text);
    return 0;
}
