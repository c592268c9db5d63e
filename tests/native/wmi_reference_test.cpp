// The WMI reference in docs/ names every class, property, method and parameter of the provider's schema, so
// the document cannot fall behind the interface.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>

#include "wmi/schema.h"

namespace {

std::string Narrow(const wchar_t* text) {
    std::string narrow;
    for (; *text != L'\0'; ++text) {
        narrow.push_back(static_cast<char>(*text));
    }
    return narrow;
}

TEST(WmiReference, NamesEveryPartOfTheSchema) {
    std::ifstream file(DORWEX_WMI_REFERENCE);
    ASSERT_TRUE(file) << DORWEX_WMI_REFERENCE;
    std::stringstream content;
    content << file.rdbuf();
    const std::string text = content.str();
    const auto named = [&](const wchar_t* name) { return text.find("`" + Narrow(name) + "`") != std::string::npos; };

    EXPECT_TRUE(named(dorwex::schema::kClassWPD));
    EXPECT_TRUE(named(dorwex::schema::kClassWPDEvent));
    EXPECT_TRUE(named(dorwex::schema::kContextClientPID));
    EXPECT_TRUE(named(dorwex::schema::kProviderName));
    for (const auto& property : dorwex::schema::kWPDProperties) {
        EXPECT_TRUE(named(property.name)) << Narrow(property.name);
    }
    for (const wchar_t* property : dorwex::schema::kWPDEventProperties) {
        EXPECT_TRUE(named(property)) << Narrow(property);
    }
    for (const auto& method : dorwex::schema::kWPDMethods) {
        EXPECT_TRUE(named(method.name)) << Narrow(method.name);
        for (std::size_t i = 0; i < method.inputCount; ++i) {
            EXPECT_TRUE(named(method.inputs[i].name)) << Narrow(method.name) << " " << Narrow(method.inputs[i].name);
        }
    }
}

}  // namespace
