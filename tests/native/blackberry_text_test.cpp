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
