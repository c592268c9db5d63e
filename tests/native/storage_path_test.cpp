#include "device/storage_path.h"

#include <gtest/gtest.h>

namespace {

using dorwex::SplitStoragePath;

TEST(StoragePath, StorageThenNames) {
    auto path = SplitStoragePath(L"Phone\\DCIM\\Camera\\IMG_0001.jpg");
    EXPECT_EQ(path.storage, L"Phone");
    EXPECT_EQ(path.names, (std::vector<std::wstring>{L"DCIM", L"Camera", L"IMG_0001.jpg"}));

    path = SplitStoragePath(L"Card");
    EXPECT_EQ(path.storage, L"Card");
    EXPECT_TRUE(path.names.empty());

    // Doubled and trailing separators do not make empty names.
    path = SplitStoragePath(L"Phone\\\\DCIM\\");
    EXPECT_EQ(path.names, std::vector<std::wstring>{L"DCIM"});

    path = SplitStoragePath(L"\\DCIM");
    EXPECT_EQ(path.storage, L"");
    EXPECT_EQ(path.names, std::vector<std::wstring>{L"DCIM"});

    // Names keep every character, whatever script.
    path = SplitStoragePath(L"Phone\\Fotos \u00e9t\u00e9\\\u5199\u771f\\\U0001F600.txt");
    EXPECT_EQ(path.names, (std::vector<std::wstring>{L"Fotos \u00e9t\u00e9", L"\u5199\u771f", L"\U0001F600.txt"}));
}

// A path over the limit names nothing: cut short it would name a folder on the way to what was meant.
TEST(StoragePath, APathOverTheLimitIsTooLongNotCut) {
    const std::wstring folder(253, L'f');
    auto path = SplitStoragePath(L"Phone\\" + folder);
    EXPECT_FALSE(path.tooLong) << "260 characters exactly";
    path = SplitStoragePath(L"Phone\\" + folder + L"\\tail.txt");
    EXPECT_TRUE(path.tooLong);
    ASSERT_EQ(path.names.size(), 1u) << "split as far as 260 characters, for traces";
    EXPECT_EQ(path.names[0], folder);

    const std::wstring huge(40000, L'x');
    path = SplitStoragePath(huge);
    EXPECT_TRUE(path.tooLong);
    EXPECT_EQ(path.storage.size(), 260u);
    EXPECT_FALSE(SplitStoragePath(L"").tooLong);
}

}  // namespace
