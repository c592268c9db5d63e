// Splitting companion messages the way wcstok does: runs of separators count as one and leading ones are
// skipped, so no token is empty. Pure logic, no Windows headers.
#pragma once

#include <algorithm>
#include <string_view>

namespace dorwex {

// Calls token(view) for each token of text, in order, until it returns false. Any character of separators
// separates.
template <typename TokenFunction>
void ForEachToken(std::wstring_view text, std::wstring_view separators, TokenFunction token) {
    size_t position = 0;
    while (position < text.size()) {
        position = std::min(text.find_first_not_of(separators, position), text.size());
        if (position == text.size()) {
            return;
        }
        const size_t end = std::min(text.find_first_of(separators, position), text.size());
        if (!token(text.substr(position, end - position))) {
            return;
        }
        position = end;
    }
}

}  // namespace dorwex
