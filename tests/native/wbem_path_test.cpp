// The emulated WMI service's reading of object paths: WMI's grammar, including the forms the provider's
// own parser never sees from it.
#include <gtest/gtest.h>

#include "emulator/wmi/wbem_path.h"

namespace {

using dorwex::emulator::wmi::ParseWbemPath;
using dorwex::emulator::wmi::RenderRelativePath;
using dorwex::emulator::wmi::WbemKey;

TEST(WbemPath, NamespaceFormsAndClassReferences) {
    for (const wchar_t* text : {L"\\\\.\\root\\cimv2:Win32ext_WPD", L"//./root/cimv2:Win32ext_WPD",
                                L"root\\cimv2:Win32ext_WPD", L"Win32ext_WPD"}) {
        SCOPED_TRACE(testing::PrintToString(std::wstring(text)));
        const auto path = ParseWbemPath(text);
        ASSERT_TRUE(path);
        EXPECT_EQ(path->className, L"Win32ext_WPD");
        EXPECT_TRUE(path->IsClass());
    }
    const auto full = ParseWbemPath(L"\\\\server\\root\\cimv2:A");
    ASSERT_TRUE(full);
    EXPECT_EQ(full->server, L"server");
    EXPECT_EQ(full->namespaces, (std::vector<std::wstring>{L"root", L"cimv2"}));
}

TEST(WbemPath, KeysInEachFormWithEscapes) {
    const auto named = ParseWbemPath(L"A.k=\"a\\\\b\\\"c\",n=-12,b=true");
    ASSERT_TRUE(named);
    ASSERT_EQ(named->keys.size(), 3u);
    EXPECT_EQ(named->keys[0].name, L"k");
    EXPECT_EQ(named->keys[0].text, L"a\\b\"c");
    EXPECT_EQ(named->keys[1].kind, WbemKey::Kind::Integer);
    EXPECT_EQ(named->keys[1].integer, -12);
    EXPECT_EQ(named->keys[2].kind, WbemKey::Kind::Boolean);
    EXPECT_EQ(named->keys[2].integer, 1);

    const auto single = ParseWbemPath(L"A='it\\'s'");
    ASSERT_TRUE(single);
    ASSERT_EQ(single->keys.size(), 1u);
    EXPECT_TRUE(single->keys[0].name.empty());
    EXPECT_EQ(single->keys[0].text, L"it's");

    const auto quoteInSingle = ParseWbemPath(L"A.k='say \"x\"'");
    ASSERT_TRUE(quoteInSingle);
    EXPECT_EQ(quoteInSingle->keys[0].text, L"say \"x\"");

    const auto singleton = ParseWbemPath(L"__CIMOMIdentification=@");
    ASSERT_TRUE(singleton);
    EXPECT_TRUE(singleton->singleton);
    EXPECT_FALSE(singleton->IsClass());
    EXPECT_EQ(RenderRelativePath(*singleton), L"__CIMOMIdentification=@");
}

// A device interface name written into a path as it stands: "\\?\usb#..." has a backslash before '?' and
// before 'u', which are no escapes of the grammar.
TEST(WbemPath, RefusesWhatTheGrammarDoesNot) {
    for (const wchar_t* text : {
             L"",
             L"A.k = \"x\"",                    // white space
             L"A.k=\"x\" ",                     // trailing white space
             L"A.k=",                           // no value
             L"A.k=\"x",                        // not closed
             L"A.k=\"x\",",                     // dangling separator
             L"A.k=0x10",                       // only decimal numbers are keys
             L"A.k=maybe",                      // no such constant
             L"A='\\\\?\\usb#vid_1&pid_2#{x}'", // a backslash before 'u'
             L"A.k=\"a\\nb\"",                  // \n is no escape here
             L"1A",                              // a class name starts with a letter or '_'
             L"/\\./root:A",                     // mixed server prefix
             L"\\\\:A",                          // no server name
             L"root\\\\cimv2:A",                 // empty namespace element
             L"A.k=99999999999999999999",        // out of range
         }) {
        EXPECT_FALSE(ParseWbemPath(text)) << testing::PrintToString(std::wstring(text));
    }
}

TEST(WbemPath, RendersRelativePathsAsWmiDoes) {
    const auto path = ParseWbemPath(L"root\\cimv2:A.k='x\\\\y\"z',n=3,b=FALSE");
    ASSERT_TRUE(path);
    EXPECT_EQ(RenderRelativePath(*path), L"A.k=\"x\\\\y\\\"z\",n=3,b=FALSE");
    // What it renders reads back to the same keys.
    const auto again = ParseWbemPath(RenderRelativePath(*path));
    ASSERT_TRUE(again);
    EXPECT_EQ(again->keys[0].text, L"x\\y\"z");
}

}  // namespace
