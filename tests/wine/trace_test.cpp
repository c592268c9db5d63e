// The trace facility inside the process: level, format rules, line finishing, concurrency, helpers.
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <thread>
#include <vector>

#include "support/test_trace_sink.h"
#include "common/trace.h"
#include "wmi/narrow_text.h"
#include "device/os_version.h"
#include "common/error_text.h"

namespace {

TEST(Trace, LevelZeroWritesAndFormatsNothing) {
    TraceCapture capture(0);
    // At level 0 the arguments must not be touched: formatting this pointer would crash.
    Trace(L"CDorWEXWPDWMI::Example %s %S\n", reinterpret_cast<const wchar_t*>(0x10),
          reinterpret_cast<const char*>(0x10));
    EXPECT_TRUE(capture.Lines().empty());
}

TEST(Trace, UsesTheWindowsMeaningOfWideFormats) {
    TraceCapture capture(1);
    Trace(L"%s|%S|%ld|%i|%x|%lx|%I64u", L"wide", "narrow", -7L, 3, 0x802a0001u, 0x80004005L,
          18446744073709551615ull);
    ASSERT_EQ(capture.Lines().size(), 1u);
    EXPECT_EQ(capture.Lines()[0], L"wide|narrow|-7|3|802a0001|80004005|18446744073709551615\r\n");
}

TEST(Trace, NonAsciiTextSurvivesFormatting) {
    TraceCapture capture(1);
    Trace(L"name=%s.\n", L"Caf\u00e9 \u5199\u771f \U0001F4F7");
    ASSERT_EQ(capture.Lines().size(), 1u);
    EXPECT_EQ(capture.Lines()[0], L"name=Caf\u00e9 \u5199\u771f \U0001F4F7.\r\n");
}

TEST(Trace, TrailingSpacesAndLineFeedBecomeOneLineEnd) {
    TraceCapture capture(1);
    Trace(L"CDorWEXWPDWMI::PutWPDInstance, GetValue succeeded.   \n");
    Trace(L"CDorWEXWPDWMI::Initialize");
    const std::vector<std::wstring> expected = {L"CDorWEXWPDWMI::PutWPDInstance, GetValue succeeded.\r\n",
                                                L"CDorWEXWPDWMI::Initialize\r\n"};
    EXPECT_EQ(capture.Lines(), expected);
}

TEST(Trace, OverlongTextIsCutAndWrittenWithoutLineEnd) {
    TraceCapture capture(1);
    const std::wstring longText(5000, L'z');
    Trace(L"%s", longText.c_str());
    ASSERT_EQ(capture.Lines().size(), 1u);
    EXPECT_EQ(capture.Lines()[0], std::wstring(4095, L'z'));
}

TEST(Trace, TextOfExactlyFullLengthStillGetsItsLineEnd) {
    TraceCapture capture(1);
    const std::wstring fullText(4095, L'f');
    Trace(L"%s", fullText.c_str());
    ASSERT_EQ(capture.Lines().size(), 1u);
    EXPECT_EQ(capture.Lines()[0], fullText + L"\r\n");
}

TEST(Trace, LevelChangesApplyToLaterLines) {
    TraceCapture capture(1);
    Trace(L"first");
    SetTraceLevel(0);
    Trace(L"dropped");
    SetTraceLevel(5);
    Trace(L"third");
    EXPECT_EQ(GetTraceLevel(), 5u);
    const std::vector<std::wstring> expected = {L"first\r\n", L"third\r\n"};
    EXPECT_EQ(capture.Lines(), expected);
}

TEST(Trace, ConcurrentLinesArriveWholeAndNoneIsLost) {
    TraceCapture capture(1);
    constexpr int kThreads = 8;
    constexpr int kLinesPerThread = 200;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t] {
            const std::wstring payload(100 + t * 37, static_cast<wchar_t>(L'a' + t));
            for (int i = 0; i < kLinesPerThread; ++i) {
                Trace(L"T%d-%d %s\n", t, i, payload.c_str());
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    const std::vector<std::wstring> lines = capture.Lines();
    ASSERT_EQ(lines.size(), static_cast<size_t>(kThreads * kLinesPerThread));
    std::set<std::wstring> distinct;
    for (const std::wstring& line : lines) {
        int t = -1;
        int i = -1;
        ASSERT_EQ(swscanf(line.c_str(), L"T%d-%d ", &t, &i), 2) << "mixed line";
        ASSERT_TRUE(t >= 0 && t < kThreads);
        const std::wstring prefix = L"T" + std::to_wstring(t) + L"-" + std::to_wstring(i) + L" ";
        EXPECT_EQ(line, prefix + std::wstring(100 + t * 37, static_cast<wchar_t>(L'a' + t)) + L"\r\n");
        distinct.insert(line);
    }
    EXPECT_EQ(distinct.size(), lines.size());
}

TEST(TraceHelpers, WideToNarrowEmptiesTheBufferAndRejectsNulls) {
    char buffer[16];
    std::fill(std::begin(buffer), std::end(buffer), 'Q');
    EXPECT_EQ(ConvertWideToNarrow(CP_ACP, L"ab", buffer, sizeof buffer), buffer);
    EXPECT_STREQ(buffer, "ab");
    EXPECT_EQ(buffer[5], '\0');  // emptied first, not just terminated
    EXPECT_EQ(ConvertWideToNarrow(CP_ACP, nullptr, buffer, sizeof buffer), nullptr);
    EXPECT_EQ(ConvertWideToNarrow(CP_ACP, L"ab", nullptr, 16), nullptr);
    // Too small a buffer is a failed conversion.
    char tiny[2];
    EXPECT_EQ(ConvertWideToNarrow(CP_ACP, L"abcdef", tiny, sizeof tiny), nullptr);
    EXPECT_STREQ(ConvertWideToNarrow(CP_UTF8, L"\u00e9", buffer, sizeof buffer), "\xc3\xa9");
}

TEST(TraceHelpers, OSVersionComesFromTheKernel) {
    DorWEXOSVersion version{};
    ASSERT_EQ(ReadOSVersion(&version), 1);
    EXPECT_EQ(version.dwordValid, 1u);
    EXPECT_GE(version.dwordMajorVersion, 5u);
    EXPECT_EQ(version.dwordPlatformId, static_cast<DWORD>(VER_PLATFORM_WIN32_NT));
    EXPECT_LT(strnlen(version.charServicePack, sizeof version.charServicePack), sizeof version.charServicePack);
}

TEST(TraceHelpers, ErrorTextHasNoLineEndAndFallsBackWhenTheSystemHasNone) {
    const std::wstring accessDenied = GetErrorText(E_ACCESSDENIED);
    EXPECT_FALSE(accessDenied.empty());
    EXPECT_EQ(accessDenied.find(L"\r\n"), std::wstring::npos);
    EXPECT_EQ(GetErrorText(static_cast<HRESULT>(0x8004F123)), L"IDispatch error #61219");
    EXPECT_EQ(GetErrorText(static_cast<HRESULT>(0xA0051234)), L"Unknown error 0xA0051234");
}

}  // namespace
