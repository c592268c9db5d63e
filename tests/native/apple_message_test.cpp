#include "channels/apple_message.h"

#include <gtest/gtest.h>

namespace {

using dorwex::AppleReportStatus;
using dorwex::AppleWriteReport;
using dorwex::ParseAppleWriteReport;

constexpr wchar_t kReport[] =
    L"Event^WRITE~SerialNumber^0123ABCD~strPID^4711~TargetPath^\\DCIM\\a.jpg~LocalFileName^C:\\a.jpg~"
    L"ClientPid^4712~WriteToken^T1";

TEST(AppleWriteReport, AllSevenFieldsInOrder) {
    AppleWriteReport report;
    ASSERT_EQ(ParseAppleWriteReport(kReport, report), AppleReportStatus::kValid);
    EXPECT_EQ(report.values[AppleWriteReport::SERIAL_NUMBER], L"0123ABCD");
    EXPECT_EQ(report.values[AppleWriteReport::STR_PID], L"4711");
    EXPECT_EQ(report.values[AppleWriteReport::TARGET_PATH], L"\\DCIM\\a.jpg");
    EXPECT_EQ(report.values[AppleWriteReport::LOCAL_FILE_NAME], L"C:\\a.jpg");
    EXPECT_EQ(report.values[AppleWriteReport::CLIENT_PID], L"4712");
    EXPECT_EQ(report.values[AppleWriteReport::WRITE_TOKEN], L"T1");
}

TEST(AppleWriteReport, SeparatorRunsAndExtraTextAreTokenizerRules) {
    AppleWriteReport report;
    ASSERT_EQ(ParseAppleWriteReport(L"~~Event^^WRITE^ignored~~~SerialNumber^S1~strPID~TargetPath^p^q", report),
              AppleReportStatus::kValid);
    EXPECT_EQ(report.values[AppleWriteReport::EVENT], L"WRITE");
    EXPECT_EQ(report.values[AppleWriteReport::SERIAL_NUMBER], L"S1");
    EXPECT_EQ(report.values[AppleWriteReport::STR_PID], L"") << "a name without value";
    EXPECT_EQ(report.values[AppleWriteReport::TARGET_PATH], L"p");
    EXPECT_EQ(report.values[AppleWriteReport::CLIENT_PID], L"") << "missing trailing fields stay empty";

    // Only the event field: valid, every other value empty.
    ASSERT_EQ(ParseAppleWriteReport(L"Event^WRITE", report), AppleReportStatus::kValid);
    EXPECT_EQ(report.values[AppleWriteReport::SERIAL_NUMBER], L"");

    // Fields after the seventh are not looked at.
    ASSERT_EQ(ParseAppleWriteReport(std::wstring(kReport) + L"~Anything^at all~^~x", report),
              AppleReportStatus::kValid);
    EXPECT_EQ(report.values[AppleWriteReport::WRITE_TOKEN], L"T1");
}

TEST(AppleWriteReport, WrongNamesAndEventKinds) {
    AppleWriteReport report;
    EXPECT_EQ(ParseAppleWriteReport(L"Event^WRITE~SerialNumber^S~ClientPid^1", report),
              AppleReportStatus::kInvalidPacket) << "a field out of its place";
    EXPECT_EQ(ParseAppleWriteReport(L"Event^WRITE~serialnumber^S", report), AppleReportStatus::kInvalidPacket)
        << "names are case-sensitive";
    EXPECT_EQ(ParseAppleWriteReport(L"Event^WRITE~SerialNumber^S~strPID^1~TargetPath^t~LocalFileName^l~"
                                    L"ClientPid^2~Token^T",
                                    report),
              AppleReportStatus::kInvalidPacket) << "the seventh name is checked too";
    EXPECT_EQ(ParseAppleWriteReport(L"^WRITE", report), AppleReportStatus::kInvalidPacket)
        << "leading separators skipped: the value is taken for the name";
    EXPECT_EQ(ParseAppleWriteReport(L"Event^write", report), AppleReportStatus::kNotWrite);
    EXPECT_EQ(ParseAppleWriteReport(L"Event^WRITES", report), AppleReportStatus::kNotWrite);
    EXPECT_EQ(ParseAppleWriteReport(L"", report), AppleReportStatus::kNotWrite);
    EXPECT_EQ(ParseAppleWriteReport(L"~~~", report), AppleReportStatus::kNotWrite);
}

}  // namespace
