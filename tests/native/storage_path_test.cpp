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

TEST(StoragePath, OnlyTheFirst260CharactersCount) {
    const std::wstring folder(250, L'f');
    auto path = SplitStoragePath(L"Phone\\" + folder + L"\\tail.txt");
    ASSERT_EQ(path.names.size(), 2u);
    EXPECT_EQ(path.names[0], folder);
    EXPECT_EQ(path.names[1], L"tai") << "cut at 260 characters: 6 + 250 + 1 + 3";

    const std::wstring huge(40000, L'x');
    path = SplitStoragePath(huge);
    EXPECT_EQ(path.storage.size(), 260u);
    EXPECT_TRUE(SplitStoragePath(L"").storage.empty());
}

}  // namespace
