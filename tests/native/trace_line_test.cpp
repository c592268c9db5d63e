#include "common/trace_line.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

// A buffer exactly as large as the trace facility's, on the heap so that AddressSanitizer sees any
// write past its end.
template <class CharT>
std::basic_string<CharT> Finish(const std::basic_string<CharT>& formatted, int formattedLength) {
    std::vector<CharT> buffer(dorwex::kTraceBufferChars, CharT('#'));
    std::copy(formatted.begin(), formatted.end(), buffer.begin());
    buffer[formatted.size()] = CharT(0);
    const std::size_t length = dorwex::FinishTraceLine(buffer.data(), formattedLength);
    return std::basic_string<CharT>(buffer.data(), length);
}

std::u16string Finish16(const std::u16string& text) {
    return Finish(text, static_cast<int>(text.size()));
}

}  // namespace

TEST(FinishTraceLine, OneLineEndWhetherOrNotTheFormatHadOne) {
    EXPECT_EQ(Finish16(u"CDorWEXWPDWMI::Initialize"), u"CDorWEXWPDWMI::Initialize\r\n");
    EXPECT_EQ(Finish16(u"CDorWEXWPDWMI::DeleteInstance enter.\n"), u"CDorWEXWPDWMI::DeleteInstance enter.\r\n");
    EXPECT_EQ(Finish16(u"x\r\n\r\n"), u"x\r\n");
}

TEST(FinishTraceLine, TrailingWhiteSpaceOfEveryKindIsRemoved) {
    EXPECT_EQ(Finish16(u"text  \t\v\f \n"), u"text\r\n");
    EXPECT_EQ(Finish16(u"   \n"), u"\r\n");
    EXPECT_EQ(Finish16(u"  inner  spaces stay"), u"  inner  spaces stay\r\n");
}

TEST(FinishTraceLine, NonAsciiSpaceIsNotTrailingWhiteSpace) {
    // U+00A0 and U+3000 are not white space to the C locale: they stay, and the line still ends once.
    EXPECT_EQ(Finish16(u"name\u00A0"), u"name\u00A0\r\n");
    EXPECT_EQ(Finish16(u"\u540D\u3000"), u"\u540D\u3000\r\n");
}

TEST(FinishTraceLine, EmptyOrTruncatedTextIsWrittenAsFormatted) {
    EXPECT_EQ(Finish16(u""), u"");
    const std::u16string truncated(dorwex::kTraceFormatChars - 1, u'x');
    EXPECT_EQ(Finish(truncated, -1), truncated);
}

TEST(FinishTraceLine, ALineOfFullLengthKeepsItsLineEndInsideTheBuffer) {
    const std::u16string full(dorwex::kTraceFormatChars - 1, u'y');
    const std::u16string finished = Finish16(full);
    ASSERT_EQ(finished.size(), dorwex::kTraceFormatChars + 1);
    EXPECT_EQ(finished.substr(finished.size() - 2), u"\r\n");
}

TEST(FinishTraceLine, WorksForWideCharactersOfEitherWidth) {
    EXPECT_EQ(Finish(std::wstring(L"abc  "), 5), L"abc\r\n");
    EXPECT_EQ(Finish(std::string("abc\t"), 4), "abc\r\n");
}
