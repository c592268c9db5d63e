#include "channels/blackberry_text.h"

#include <gtest/gtest.h>

namespace {

using dorwex::BlackBerryMessageKind;

TEST(BlackBerryMessage, MarkersDecideTheKind) {
    EXPECT_EQ(dorwex::ClassifyBlackBerryMessage(L"BlackBerryFileWrite*x*\\media\\a.jpg*y*BB"), BlackBerryMessageKind::kFileWrite);
    EXPECT_EQ(dorwex::ClassifyBlackBerryMessage(L"x~BlackBerryCredentials*~\\\\h\\s~u~p"), BlackBerryMessageKind::kCredentials);
    EXPECT_EQ(dorwex::ClassifyBlackBerryMessage(L"BlackBerryCredentials*BlackBerryFileWrite*"), BlackBerryMessageKind::kFileWrite)
        << "both markers: a file-write report";
    EXPECT_EQ(dorwex::ClassifyBlackBerryMessage(L"BlackBerryFileWrite~x"), BlackBerryMessageKind::kIgnored)
        << "the marker includes its asterisk";
    EXPECT_EQ(dorwex::ClassifyBlackBerryMessage(L""), BlackBerryMessageKind::kIgnored);
}

TEST(BlackBerryMessage, TokensSplitAtBothSeparatorsAndCountTheMarker) {
    const auto write = dorwex::BlackBerryTokens(L"BlackBerryFileWrite*x*\\media\\a.jpg*y*BLACKBERRY_2A3B4C5D*extra");
    EXPECT_EQ(write[0], L"BlackBerryFileWrite") << "the marker word is token 1";
    EXPECT_EQ(write[2], L"\\media\\a.jpg");
    EXPECT_EQ(write[4], L"BLACKBERRY_2A3B4C5D") << "tokens after the fifth are ignored";
    const auto credentials = dorwex::BlackBerryTokens(L"**BlackBerryCredentials*~~t2~\\\\10.0.0.1\\media*~user~pa ss");
    EXPECT_EQ(credentials[2], L"\\\\10.0.0.1\\media");
    EXPECT_EQ(credentials[3], L"user");
    EXPECT_EQ(credentials[4], L"pa ss");
    const auto shortOne = dorwex::BlackBerryTokens(L"BlackBerryCredentials*only");
    EXPECT_EQ(shortOne[1], L"only");
    EXPECT_EQ(shortOne[2], L"") << "missing tokens are empty";
}

TEST(BlackBerryShare, FilteredSharesAndLongPaths) {
    EXPECT_TRUE(dorwex::IsFilteredShare(L"\\\\10.0.0.1\\DTM"));
    EXPECT_TRUE(dorwex::IsFilteredShare(L"x\\dTm"));
    EXPECT_FALSE(dorwex::IsFilteredShare(L"\\dtm")) << "exactly the four characters are not filtered";
    EXPECT_FALSE(dorwex::IsFilteredShare(L"\\\\10.0.0.1\\media"));
    EXPECT_FALSE(dorwex::IsFilteredShare(L"\\\\h\\xdtm"));
    EXPECT_EQ(dorwex::LongSharePath(L"\\\\srv\\sd\\a.txt"), L"\\\\?\\UNC\\srv\\sd\\a.txt");
    EXPECT_EQ(dorwex::LongSharePath(L"C:\\x"), L"C:\\x") << "a local path is not rewritten";
    EXPECT_EQ(dorwex::LongSharePath(L"\\x"), L"\\x");
}

TEST(BlackBerryShare, ResultTexts) {
    EXPECT_EQ(dorwex::WNetResultText(0, L"\\\\h\\s"), L"NO ERROR");
    EXPECT_EQ(dorwex::WNetResultText(53, L"\\\\h\\s"), L"ERROR_BAD_NETPATH: <\\\\h\\s> The network path was not found..");
    EXPECT_EQ(dorwex::WNetResultText(1312, L"\\\\h\\s"),
              L"ERROR_NO_SUCH_LOGON_SESSION: <\\\\h\\s> A specified logon session does not exist. It may already have "
              L"been terminated.");
    EXPECT_EQ(dorwex::WNetResultText(2202, L"\\\\h\\s"),
              L"ERROR_BAD_USERNAME: The specified user name is not valid.  Userid: BlackBerry");
    EXPECT_EQ(dorwex::WNetResultText(1231, L""), L"Use FormatMessage to obtain the message string for the returned error.");
    EXPECT_EQ(dorwex::WNetResultText(1208, L""), L"") << "composed from the network's own error";
    for (std::uint32_t code : {5u, 66u, 67u, 85u, 86u, 87u, 170u, 487u, 1200u, 1202u, 1203u, 1204u, 1205u, 1206u,
                               1219u, 1222u, 1223u, 1326u}) {
        EXPECT_NE(dorwex::WNetResultText(code, L"").find(L' '), std::wstring::npos) << code;
        EXPECT_NE(dorwex::WNetResultText(code, L""), dorwex::WNetResultText(1231, L"")) << code;
    }
}

TEST(BlackBerryShare, ListingModes) {
    const auto list = [](std::uint32_t mode) {
        std::wstring listing;
        dorwex::AppendShareListingEntry(listing, L"a.jpg", false, mode);
        dorwex::AppendShareListingEntry(listing, L"music", true, mode);
        return listing;
    };
    EXPECT_EQ(list(0), L"a.jpg@NA@FILE~music@NA@DIR");
    EXPECT_EQ(list(1), L"music@NA@DIR");
    EXPECT_EQ(list(2), L"a.jpg@NA@FILE");
    EXPECT_EQ(list(3), L"");
    EXPECT_EQ(list(0xFFFFFFFF), L"");
}

}  // namespace

namespace {

// The host of the id's share path, whole: one address is never found inside another.
TEST(BlackBerryShare, AnIdNamesTheDeviceByItsWholeHost) {
    EXPECT_EQ(dorwex::ShareHost(L"\\\\169.254.0.17\\media\\a.jpg"), L"169.254.0.17");
    EXPECT_EQ(dorwex::ShareHost(L"\\\\host"), L"host");
    EXPECT_EQ(dorwex::ShareHost(L"host\\media"), L"");
    const struct {
        const wchar_t* id;
        const wchar_t* address;
        bool named;
    } cases[] = {
        {L"\\\\169.254.0.1\\media\\a.jpg", L"169.254.0.1", true},
        {L"\\\\169.254.0.1", L"169.254.0.1", true},
        {L"\\\\BBHost\\media", L"bbhost", true},
        {L"\\\\169.254.0.17\\media\\a.jpg", L"169.254.0.1", false},
        {L"\\\\169.254.0.1\\media", L"169.254.0.17", false},
        {L"\\\\10.169.254.0.1\\media", L"169.254.0.1", false},
        {L"x\\\\169.254.0.1\\media", L"169.254.0.1", false},
        {L"169.254.0.1", L"169.254.0.1", false},
        {L"\\\\?\\UNC\\169.254.0.1\\media", L"169.254.0.1", false},
        // No address names nothing, not even an id whose host is empty.
        {L"\\\\\\media", L"", false},
        {L"\\\\", L"", false},
        {L"", L"", false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(dorwex::IdNamesShareHost(c.id, c.address), c.named) << c.id << " / " << c.address;
    }
}

TEST(BlackBerryShare, OnlyCanonicalPathsInsideTheShare) {
    const wchar_t share[] = L"\\\\10.0.0.1\\media";
    const struct {
        const wchar_t* path;
        bool inside;
    } cases[] = {
        {L"\\\\10.0.0.1\\media", true},
        {L"\\\\10.0.0.1\\media\\DCIM\\a.jpg", true},
        {L"\\\\10.0.0.1\\MEDIA\\Music", true},
        {L"\\\\10.0.0.1\\media\\a b.c d", true},
        {L"\\\\10.0.0.1\\media\\.hidden", true},
        {L"\\\\10.0.0.1\\media\\com10.txt", true},
        {L"\\\\10.0.0.1\\mediax\\a.jpg", false},
        {L"\\\\10.0.0.1\\sdcard\\a.jpg", false},
        {L"\\\\10.0.0.17\\media\\a.jpg", false},
        {L"\\\\10.0.0.1", false},
        {L"\\\\10.0.0.1\\media\\", false},
        {L"\\\\10.0.0.1\\media\\\\a.jpg", false},
        {L"\\\\10.0.0.1\\media\\..\\c$\\Windows", false},
        {L"\\\\10.0.0.1\\media\\DCIM\\..", false},
        {L"\\\\10.0.0.1\\media\\.", false},
        {L"\\\\10.0.0.1\\media\\DCIM\\...", false},
        {L"\\\\10.0.0.1\\media\\a.jpg.", false},
        {L"\\\\10.0.0.1\\media\\a.jpg ", false},
        {L"\\\\10.0.0.1\\media\\a.jpg:secret", false},
        {L"\\\\10.0.0.1\\media\\a.jpg::$DATA", false},
        {L"\\\\10.0.0.1\\media/../../c$", false},
        {L"\\\\10.0.0.1\\media\\*", false},
        {L"\\\\10.0.0.1\\media\\a?.jpg", false},
        {L"\\\\10.0.0.1\\media\\a\x01.jpg", false},
        {L"\\\\10.0.0.1\\media\\CON", false},
        {L"\\\\10.0.0.1\\media\\nul.txt", false},
        {L"\\\\10.0.0.1\\media\\Lpt1", false},
        {L"\\\\10.0.0.1\\media\\COM\xB9", false},
        {L"C:\\Windows\\System32\\config", false},
        {L"C:\\10.0.0.1\\media\\a.jpg", false},
        {L"\\\\?\\UNC\\10.0.0.1\\media\\a.jpg", false},
        {L"\\\\?\\C:\\Windows", false},
        {L"\\\\.\\PhysicalDrive0", false},
        {L"\\??\\C:\\Windows", false},
        {L"\\10.0.0.1\\media\\a.jpg", false},
        {L"media\\a.jpg", false},
        {L"", false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(dorwex::IsPathInsideShare(c.path, share), c.inside) << c.path;
    }
    // A share that is not of the form \\host\name contains nothing.
    for (const wchar_t* badShare : {L"", L"\\\\10.0.0.1", L"\\\\10.0.0.1\\media\\DCIM", L"C:\\media", L"\\\\?\\media",
                                    L"\\\\.\\media", L"\\\\10.0.0.1\\"}) {
        EXPECT_FALSE(dorwex::IsPathInsideShare(std::wstring(badShare) + L"\\a.jpg", badShare)) << badShare;
        EXPECT_FALSE(dorwex::IsPathInsideShare(badShare, badShare)) << badShare;
    }
}

}  // namespace
