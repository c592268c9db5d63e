#include "wmi/object_path.h"

#include <gtest/gtest.h>

namespace {

using dorwex::ObjectPathKey;
using dorwex::ParseObjectPath;

TEST(ObjectPath, KeysAndTheirTypes) {
    const auto path = ParseObjectPath(
        L"Win32ext_WPD.strId=\"\\\\\\\\?\\\\usb#vid_1\",count=42,mask=0x1F,on=true,off=FALSE,neg=-7");
    ASSERT_TRUE(path);
    EXPECT_EQ(path->className, L"Win32ext_WPD");
    ASSERT_EQ(path->keys.size(), 6u);
    EXPECT_EQ(path->keys[0].name, L"strId");
    EXPECT_EQ(path->keys[0].kind, ObjectPathKey::Kind::String);
    EXPECT_EQ(path->keys[0].text, L"\\\\?\\usb#vid_1");
    EXPECT_EQ(path->keys[1].integer, 42);
    EXPECT_EQ(path->keys[1].ToText(), L"42");
    EXPECT_EQ(path->keys[2].integer, 31);
    EXPECT_EQ(path->keys[3].integer, 1);
    EXPECT_EQ(path->keys[4].integer, 0);
    EXPECT_EQ(path->keys[5].integer, -7);
}

TEST(ObjectPath, ClassAloneNamespaceAndKeylessValue) {
    auto path = ParseObjectPath(L"Win32ext_WPD");
    ASSERT_TRUE(path);
    EXPECT_TRUE(path->keys.empty());

    path = ParseObjectPath(L"\\\\.\\root\\cimv2:Win32ext_WPD.strId=\"a\"");
    ASSERT_TRUE(path);
    EXPECT_EQ(path->className, L"Win32ext_WPD");
    EXPECT_EQ(path->keys.at(0).text, L"a");

    // The removal path names no key and quotes the id with single quotes, unescaped.
    path = ParseObjectPath(L"Win32ext_WPD='\\\\?\\usb#vid_1&pid_2#O'Brien#{6ac27878}'");
    ASSERT_TRUE(path);
    ASSERT_EQ(path->keys.size(), 1u);
    EXPECT_TRUE(path->keys[0].name.empty());
    EXPECT_EQ(path->keys[0].text, L"\\\\?\\usb#vid_1&pid_2#O'Brien#{6ac27878}");
}

TEST(ObjectPath, BadPathsDoNotParse) {
    const wchar_t* const bad[] = {
        L"",
        L".strId=\"a\"",
        L"Win32ext_WPD.",
        L"Win32ext_WPD.strId",
        L"Win32ext_WPD.strId=",
        L"Win32ext_WPD.strId=\"unterminated",
        L"Win32ext_WPD.strId='unterminated",
        L"Win32ext_WPD.strId=bareword",
        L"Win32ext_WPD.strId=\"a\"junk",
        L"Win32ext_WPD.a=1,",
        L"Win32ext_WPD.a=12345678901234567890123456789012",  // 32 characters
        L"Win32ext_WPD.a=0x",
        L"Win32ext_WPD a=1",
        L"Win32ext_WPD='a'b",
    };
    for (const wchar_t* path : bad) {
        EXPECT_FALSE(ParseObjectPath(path)) << std::string(path, path + wcslen(path));
    }
    // 31 characters is still a number.
    EXPECT_TRUE(ParseObjectPath(L"Win32ext_WPD.a=1234567890123456789012345678901"));
}

TEST(ObjectPath, ArbitraryInputNeverCrashes) {
    std::wstring text;
    const wchar_t alphabet[] = L"ab.=,\"'\\:0x-TRUE ";
    for (int i = 0; i < 20000; ++i) {
        text.push_back(alphabet[(i * 7 + i / 13) % (sizeof(alphabet) / sizeof(wchar_t) - 1)]);
        if (i % 37 == 0) {
            ParseObjectPath(text);
            text.clear();
        }
    }
}

}  // namespace

namespace {

// The removal publishes its delete with the device's interface name as the key: whatever the name holds
// comes back unchanged from the path.
TEST(ObjectPath, QuotedKeyValueReadsBackUnchanged) {
    for (const std::wstring& name : {std::wstring(L"\\\\?\\usb#vid_0421&pid_0661#x#{6ac27878-a6fa-4155-ba85-f98f491d4f33}"),
                                    std::wstring(L"it's \"quoted\" \\ twice \\\\"), std::wstring()}) {
        const auto path = dorwex::ParseObjectPath(L"Win32ext_WPD.strId=" + dorwex::QuotedKeyValue(name));
        ASSERT_TRUE(path);
        ASSERT_EQ(path->keys.size(), 1u);
        EXPECT_EQ(path->keys[0].text, name);
    }
    EXPECT_EQ(dorwex::QuotedKeyValue(L"a\\b\"c"), L"\"a\\\\b\\\"c\"");
}

}  // namespace
