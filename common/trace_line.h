// How one formatted trace line is finished before it goes to the debugger channel. Pure logic, no
// Windows headers, so it is also built and tested natively.
#pragma once

#include <cstddef>

namespace dorwex {

// The formatting buffer holds this many characters including the terminator; two more are kept behind
// it so a line of full length still has room for its "\r\n".
constexpr std::size_t kTraceFormatChars = 4096;
constexpr std::size_t kTraceBufferChars = kTraceFormatChars + 2;

// White space as the C locale's isspace sees it: blank, tab, line feed, vertical tab, form feed and
// carriage return. Other code units (including non-ASCII spaces) are kept.
template <class CharT>
constexpr bool IsTraceWhiteSpace(CharT c) {
    return c == CharT(' ') || (c >= CharT('\t') && c <= CharT('\r'));
}

// Finishes a line that the formatter wrote into `text` (at least kTraceBufferChars long). A positive
// `formattedLength` loses its trailing white space and gains exactly one "\r\n"; an empty result or a
// truncated one (negative) is left as the formatter wrote it. Returns the length of the final text.
template <class CharT>
std::size_t FinishTraceLine(CharT* text, int formattedLength) {
    if (formattedLength <= 0) {
        std::size_t length = 0;
        while (length < kTraceFormatChars && text[length] != CharT(0)) {
            ++length;
        }
        return length;
    }
    std::size_t length = static_cast<std::size_t>(formattedLength);
    while (length > 0 && IsTraceWhiteSpace(text[length - 1])) {
        text[--length] = CharT(0);
    }
    text[length++] = CharT('\r');
    text[length++] = CharT('\n');
    text[length] = CharT(0);
    return length;
}

}  // namespace dorwex
